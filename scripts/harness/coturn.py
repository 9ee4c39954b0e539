"""coturn as the STUN server of a test (Binding requests only, no TURN, no
TLS), run as nobody inside a namespace. Use it as a context manager, or
call stop():

    with Coturn(work, ["198.19.0.1"], command=namespace.command) as stun:
        stun.port   # 3478

It logs to work/NAME.log; its complaints about the user database and
CHANGE_REQUEST (one address only) are harmless."""
import os
import pwd
import re
import signal

from harness.logged_process import LoggedProcess


class Coturn:
    def __init__(self, work, addresses, port=3478, command=lambda *argv: list(argv), name="coturn"):
        """addresses: numeric IPv4/IPv6 addresses to listen on; command
        wraps the argument list (e.g. Namespace.command)."""
        self.addresses = addresses
        self.port = port
        self.process = None
        # Its pid file and database live where nobody may write them; the
        # work directory must let it through.
        os.chmod(work, os.stat(work).st_mode | 0o011)
        self.home = os.path.join(work, name)
        os.makedirs(self.home, exist_ok=True)
        nobody = pwd.getpwnam("nobody")
        os.chown(self.home, nobody.pw_uid, nobody.pw_gid)
        argv = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "turnserver", "-n", "-S", "-z",
                "--no-cli", "--no-tls", "--no-dtls", "--no-tcp", "-p", str(port), "--log-file", "stdout",
                "--simple-log", "-v", "--pidfile", os.path.join(self.home, "turnserver.pid"),
                "--db", os.path.join(self.home, "turndb")]
        for address in addresses:
            argv += ["-L", address]
        self.argv = command(*argv)
        self.name = name
        self.work = work

    def start(self, timeout=15.0):
        self.process = LoggedProcess(self.name, self.argv, self.work)
        for address in self.addresses:
            self.process.wait_for(r"IPv[46]\. UDP listener opened on: %s:%d" % (re.escape(address), self.port),
                                  timeout=timeout)
        return self

    def stop(self):
        # SIGTERM; it takes a second or three to go.
        if self.process:
            self.process.stop(signal.SIGTERM)
            self.process = None

    def __enter__(self):
        try:
            return self.start()
        except BaseException:
            self.stop()
            raise

    def __exit__(self, *exc):
        self.stop()
        return False
