"""Runs ferrule-p2pclient, the remote client's side of a peer-to-peer path,
and reads what it printed:

    result = run_client(tool, "http://dev1.relay.test:8000", stun="relay.test",
                        command=namespace.command)
    result.status         # the exit status (0 connected)
    result.pair           # {"local": "198.18.2.2:40000", "local-type": "host", ...}
    result.timing         # {"answer-ms": 12, "connect-ms": 70}
    result.datagrams      # {"sent": 5, "received": 5} with --send/--expect/--echo
    result.downloads      # with --query, one per connection: {"port": 5000,
                          #  "bytes": 104857600, "first-byte-ms": 3, ..., "end": "complete"}
    result.stderr         # its messages (all of them with verbose)"""
import subprocess


class ClientResult:
    def __init__(self, status, stdout, stderr):
        self.status = status
        self.stdout = stdout
        self.stderr = stderr
        self.pair = self.timing = self.datagrams = None
        self.downloads = []
        # The report goes to standard error when the video is on standard output.
        for line in stdout.splitlines() + stderr.splitlines():
            kind, _, rest = line.partition(" ")
            fields = parse_fields(rest.split())
            if kind == "selected-pair":
                self.pair = fields
            elif kind in ("timing", "datagrams"):
                numbers = {key: int(value) for key, value in fields.items() if value.isdigit()}
                setattr(self, kind, numbers)
            elif kind == "download":
                self.downloads.append({key: int(value) if value.isdigit() else value for key, value in fields.items()})

    def __repr__(self):
        return "ferrule-p2pclient exited %d\nstdout:\n%s\nstderr:\n%s" % (self.status, self.stdout, self.stderr)


def parse_fields(words):
    """["a=1", "b=x"] -> {"a": "1", "b": "x"}"""
    return dict(word.split("=", 1) for word in words if "=" in word)


def client_argv(tool, url, stun=None, addresses=(), ice_timeout=20, extra=(), verbose=True):
    argv = [tool, "-t", str(ice_timeout)]
    if stun:
        argv += ["-s", stun]
    for address in addresses:
        argv += ["-a", address]
    if verbose:
        argv.append("-v")
    return argv + list(extra) + [url]


def run_client(tool, url, command=lambda *argv: list(argv), timeout=90, **options):
    """Runs the client to its end (at most `timeout` seconds, then it is
    killed and the result says so) and returns a ClientResult."""
    argv = command(*client_argv(tool, url, **options))
    try:
        done = subprocess.run(argv, capture_output=True, text=True, timeout=timeout, stdin=subprocess.DEVNULL)
        return ClientResult(done.returncode, done.stdout, done.stderr)
    except subprocess.TimeoutExpired as expired:
        def text(data):
            return data.decode(errors="replace") if isinstance(data, bytes) else (data or "")
        return ClientResult(-9, text(expired.stdout), text(expired.stderr) + "\n(killed after %d s)" % timeout)
