#!/usr/bin/env python3
"""The demo behind scripts/demo.sh: both jobs of ferrule, reached through
the dev relay, all on one machine, nothing of the machine's configuration
changed.

    run_demo.py FERRULE DEVRELAY P2PCLIENT

It makes the flat network of scripts/harness/topology.py: three network
namespaces on one veth bridge (198.18.0.0/24, fd18::/64), for the relay side
(ferrule-devrelay and coturn as STUN server), the device (ferrule and nginx
as its web server) and an outside client. Their hosts files map relay.test,
demo.relay.test and stun.relay.test to the relay side (`ip netns exec`
mounts /etc/netns/NAME/hosts over /etc/hosts for what it runs; the machine's
own /etc/hosts, resolver and trust store are left alone). Peer-to-peer
paths need those veths: host candidates never use loopback.

Then it runs itself (--inner): it makes a throw-away CA and a certificate for
relay.test and *.relay.test with openssl and starts the programs; the client
fetches the sample page through the relay with curl, then streams a sample
video from nginx's "/video.vdo" peer to peer with ferrule-p2pclient (its
progress line on the terminal, when there is one) and checks it byte for
byte. ferrule keeps running, its log on standard output, until SIGINT or
SIGTERM (or DEMO_SECONDS after the video arrived). Then everything is
stopped and the namespaces, their /etc/netns entries and the work directory
are removed, also when a second Ctrl-C comes during the clean-up. Needs
root."""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, ".."))
from harness import certs  # noqa: E402
from harness import topology  # noqa: E402
from harness.coturn import Coturn  # noqa: E402
from harness.digest import file_sha256  # noqa: E402
from harness.logged_process import LoggedProcess  # noqa: E402
from harness.netns import Namespace  # noqa: E402
from harness.nginx import Nginx  # noqa: E402
from harness.p2p_client import client_argv  # noqa: E402

DOMAIN = "relay.test"
KEY = "demo"
NAMES = [DOMAIN, "%s.%s" % (KEY, DOMAIN), "stun." + DOMAIN]
DEVICE_PORT, PLAIN_PORT, OUTSIDE_PORT = 18443, 18080, 18000
DEVICE_URL = "http://%s.%s:%d" % (KEY, DOMAIN, OUTSIDE_PORT)
URL = DEVICE_URL + "/"
# The namespaces of topology.flat(), by role.
ROLES = ("srv", "dev", "cli")
# nginx serves the file for "/video.vdo?" + any query, as a camera would.
VIDEO_QUERY = "camera=1&resolution=1280x720"
VIDEO_SIZE = 16 * 1000 * 1000
CLIENT_SECONDS = 120


def say(text):
    print("demo: " + text, flush=True)


# ---- outside the namespace

def outer(ferrule, devrelay, p2pclient):
    state = {"signals": 0, "inner": None}

    def on_signal(signum, frame):
        state["signals"] += 1
        if state["signals"] > 1:
            say("still stopping, please wait")
        inner = state["inner"]
        if inner and inner.poll() is None:
            inner.send_signal(signal.SIGINT)

    signal.signal(signal.SIGINT, on_signal)
    signal.signal(signal.SIGTERM, on_signal)
    work = tempfile.mkdtemp(prefix="ferrule-demo-")
    network = topology.Topology("demo")
    names = " ".join(network.prefix + role for role in ROLES)
    status = 1
    try:
        say("work directory %s" % work)
        # Each step runs in its own session: a Ctrl-C now lets the network
        # be made to the end, and then it is removed.
        net = topology.flat(network, NAMES)
        say("network namespaces %s (relay side, device, outside client) on one veth bridge, "
            "198.18.0.0/24 and fd18::/64; in them, %s resolve to %s through /etc/netns/NAME/hosts"
            % (names, ", ".join(NAMES), net.server_addresses[0]))
        if state["signals"]:
            return 0
        # Its own session: Ctrl-C reaches only this process, which stops the
        # inner run in order and cleans up after it. The inner run starts with
        # SIGINT ignored until it takes it, so an early one is not lost half
        # way; it is asked again every second until it has stopped. It runs
        # in this namespace and starts each program in its own.
        state["inner"] = subprocess.Popen(
            [sys.executable, os.path.abspath(__file__), "--inner", ferrule, devrelay, p2pclient, work,
             network.prefix, ",".join(net.server_addresses)],
            stdin=subprocess.DEVNULL, start_new_session=True,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN))
        while True:
            try:
                status = state["inner"].wait(1)
                break
            except subprocess.TimeoutExpired:
                if state["signals"]:
                    state["inner"].send_signal(signal.SIGINT)
    finally:
        inner = state["inner"]
        if inner and inner.poll() is None:
            try:
                inner.wait(30)
            except subprocess.TimeoutExpired:
                inner.kill()
                inner.wait()
        try:
            network.remove()
        finally:
            shutil.rmtree(work, ignore_errors=True)
        say("removed namespaces %s, their /etc/netns entries and %s" % (names, work))
        # Everything is gone: a Ctrl-C that comes now must not turn the exit
        # status into death by signal while the interpreter shuts down.
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
    return status


# ---- the inner run: each program in its namespace

class Stopped(Exception):
    pass


def seen(process, text, stop, timeout):
    """Whether the process logged a line with text before the time-out, its
    end or the stop event."""
    try:
        process.wait_for(re.escape(text), timeout, stop=stop)
        return True
    except AssertionError:
        return False


def write_sample_video(path):
    """Random bytes: nothing on the way can compress them, and a wrong byte
    shows in the digest."""
    with open(path, "wb") as f:
        for _ in range(VIDEO_SIZE // 1000000):
            f.write(os.urandom(1000000))
    return file_sha256(path)


def stream_video(p2pclient_path, client_namespace, work, stop):
    """Runs ferrule-p2pclient in the outside client's namespace until it ends
    (its standard output and error are ours, so a terminal shows its
    progress line); returns (exit status, path of what it wrote)."""
    output = os.path.join(work, "video-received.vdo")
    argv = client_namespace.command(*client_argv(p2pclient_path, DEVICE_URL, stun=DOMAIN, ice_timeout=20,
                                                 extra=["-q", VIDEO_QUERY, "-o", output], verbose=False))
    say("streaming the sample video peer to peer: ferrule-p2pclient -s %s -q '%s' -o %s %s"
        % (DOMAIN, VIDEO_QUERY, output, DEVICE_URL))
    client = subprocess.Popen(argv, stdin=subprocess.DEVNULL)
    say("started ferrule-p2pclient in the outside client's namespace (pid %d)" % client.pid)
    deadline = time.monotonic() + CLIENT_SECONDS
    while client.poll() is None:
        if stop.is_set() or time.monotonic() >= deadline:
            client.send_signal(signal.SIGINT)
            try:
                client.wait(5)
            except subprocess.TimeoutExpired:
                client.kill()
                client.wait()
            if stop.is_set():
                raise Stopped()
            raise RuntimeError("ferrule-p2pclient took more than %d s" % CLIENT_SECONDS)
        stop.wait(0.1)
    return client.returncode, output


def inner(ferrule_path, devrelay_path, p2pclient_path, work, prefix, server_addresses):
    stop = threading.Event()

    def on_signal(signum, frame):
        if not stop.is_set():
            say("stopping")
        # Set from another thread: the handler runs on the main thread, which
        # may be inside stop.wait() holding the event's own lock, and setting
        # it here would then wait for ever.
        threading.Thread(target=stop.set).start()

    signal.signal(signal.SIGINT, on_signal)
    signal.signal(signal.SIGTERM, on_signal)
    # Made and removed by the outer run; here only to run programs in.
    server, device, client = (Namespace(prefix + role, {}) for role in ROLES)
    server_addresses = server_addresses.split(",")
    address = server_addresses[0]
    nginx = stun = relay = ferrule = None
    result = 1
    try:
        ca = certs.make_ca(work, "demo", "ferrule demo CA")
        certificate, key = certs.make_server_certificate(work, "demo", DOMAIN)
        say("made a throw-away CA (%s) and a certificate for %s and *.%s with openssl" % (ca, DOMAIN, DOMAIN))

        stun = Coturn(work, server_addresses, command=server.command).start()
        say("started coturn as STUN server on %s port %d (pid %d)"
            % (" and ".join(server_addresses), stun.port, stun.process.proc.pid))
        if stop.is_set():
            raise Stopped()

        relay = LoggedProcess("ferrule-devrelay", server.command(
            devrelay_path, "-c", certificate, "-k", key, "-d", "%s:%d" % (address, DEVICE_PORT),
            "-p", "%s:%d" % (address, PLAIN_PORT), "-o", "%s:%d" % (address, OUTSIDE_PORT)),
            work, log=os.path.join(work, "devrelay.log"))
        # Started programs are let come up before they are stopped, so that
        # they stop cleanly on their signal.
        if not seen(relay, "Listening for outside clients", None, 15):
            raise RuntimeError("ferrule-devrelay did not start:\n" + relay.tail(20))
        say("started ferrule-devrelay (pid %d): devices register on https://*.%s:%d, outside clients use "
            "http://KEY.%s:%d; its log: %s/devrelay.log"
            % (relay.proc.pid, DOMAIN, DEVICE_PORT, DOMAIN, OUTSIDE_PORT, work))
        if stop.is_set():
            raise Stopped()

        nginx = Nginx(work=os.path.join(work, "nginx"), command=device.command)
        for page in os.listdir(os.path.join(HERE, "www")):
            with open(os.path.join(HERE, "www", page), "rb") as f:
                nginx.write(page, f.read())
        # A static file answers "/video.vdo?" + any query.
        video = os.path.join(nginx.root, "video.vdo")
        video_digest = write_sample_video(video)
        nginx.start()
        if stop.is_set():
            raise Stopped()
        say("started nginx as the device's web server on %s (pid %d), serving %s and a sample video "
            "/video.vdo of %d bytes" % (nginx.authority(), nginx.proc.pid, nginx.root, VIDEO_SIZE))

        registration = os.path.join(work, "devicereg.info")
        with open(registration, "w") as f:
            f.write("# ferrule demo\nDeviceRelayKey = %s\n" % KEY)
        say("starting ferrule (registration file %s with key %s, SSL_CERT_FILE=%s); its log follows"
            % (registration, KEY, ca))
        ferrule = LoggedProcess("ferrule", device.command(
            ferrule_path, "-r", "%s:%d" % (DOMAIN, DEVICE_PORT), "-s", "stun." + DOMAIN, "-f", registration,
            "-t", nginx.authority(), "-l", "5"),
            work, env={"SSL_CERT_FILE": ca}, echo=True)
        if not seen(ferrule, " [ferrule] ", None, 10):
            raise RuntimeError("ferrule did not start")
        if not seen(ferrule, "Registration succeeded", stop, 30):
            if stop.is_set():
                raise Stopped()
            raise RuntimeError("ferrule did not register with the relay")

        say("fetching the sample page through the relay: curl " + URL)
        page = subprocess.run(client.command("curl", "-sS", "--noproxy", "*", "--max-time", "20", URL),
                              capture_output=True, text=True, timeout=30, stdin=subprocess.DEVNULL)
        if page.returncode != 0:
            raise RuntimeError("curl failed: " + page.stderr.strip())
        print("----- %s\n%s-----" % (URL, page.stdout), flush=True)
        if stop.is_set():
            raise Stopped()

        # The daemon's lines would break the client's progress line; they
        # follow its summary instead.
        held = ferrule.hold_echo()
        try:
            status, received = stream_video(p2pclient_path, client, work, stop)
        finally:
            ferrule.resume_echo(held)
        if status != 0:
            raise RuntimeError("ferrule-p2pclient exited with %d" % status)
        if file_sha256(received) != video_digest:
            raise RuntimeError("the video received differs from the one served (%d bytes of %d)"
                               % (os.path.getsize(received), VIDEO_SIZE))
        say("the video arrived byte for byte: %d bytes, sha256 %s" % (VIDEO_SIZE, video_digest))

        seconds = os.environ.get("DEMO_SECONDS")
        say("running: ferrule (pid %d), ferrule-devrelay (pid %d), coturn (pid %d), nginx (pid %d)"
            % (ferrule.proc.pid, relay.proc.pid, stun.process.proc.pid, nginx.proc.pid))
        say("from another shell, as the outside client (the names resolve only inside the namespaces):")
        say("  ip netns exec %s curl %s" % (client.name, URL))
        say("  ip netns exec %s %s -s %s -q '%s' -o /tmp/video.vdo %s"
            % (client.name, p2pclient_path, DOMAIN, VIDEO_QUERY, DEVICE_URL))
        say("stopping in %s s" % seconds if seconds else "Ctrl-C stops everything and cleans up")
        deadline = time.monotonic() + float(seconds) if seconds else None
        while not stop.is_set():
            if deadline is not None and time.monotonic() >= deadline:
                break
            for daemon in (ferrule, relay):
                if daemon.proc.poll() is not None:
                    raise RuntimeError("%s exited with %d" % (daemon.name, daemon.proc.returncode))
            stop.wait(0.2)
        result = 0
    except Stopped:
        result = 0
    except Exception as error:  # every failure ends the demo the same way
        say("failed: %s" % error)
    finally:
        if ferrule:
            status = ferrule.stop(signal.SIGINT)
            say("ferrule stopped with status %d" % status)
            if status != 0:
                result = 1
        if relay:
            say("ferrule-devrelay stopped with status %d" % relay.stop(signal.SIGTERM))
        if stun:
            stun.stop()
            say("coturn stopped")
        if nginx:
            nginx.stop()
            say("nginx stopped")
        # Python puts back the default action of the signals it handles when
        # it shuts down: one more Ctrl-C passed on by the outer run then
        # would kill this run and turn a clean stop into a failure.
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
    return result


if __name__ == "__main__":
    if len(sys.argv) == 8 and sys.argv[1] == "--inner":
        sys.exit(inner(*sys.argv[2:]))
    if len(sys.argv) != 4:
        sys.exit("usage: run_demo.py FERRULE DEVRELAY P2PCLIENT")
    if os.geteuid() != 0:
        sys.exit("run_demo.py needs root to make network namespaces")
    sys.exit(outer(*(os.path.abspath(path) for path in sys.argv[1:])))
