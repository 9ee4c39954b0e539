#!/usr/bin/env python3
"""The demo behind scripts/demo.sh: ferrule reached through the dev relay,
all on one machine, nothing of the machine's configuration changed.

    run_demo.py FERRULE DEVRELAY

It makes a network namespace whose hosts file maps relay.test and
demo.relay.test to 127.0.0.1 (`ip netns exec` mounts /etc/netns/NAME/hosts
over /etc/hosts for what it runs; the machine's own /etc/hosts, resolver and
trust store are left alone) and runs itself inside it (--inner). There it
makes a throw-away CA and a certificate for relay.test and *.relay.test with
openssl, starts nginx with the sample page in www/, ferrule-devrelay, and
ferrule with a registration file and the CA trusted through SSL_CERT_FILE;
then it fetches the sample page through the relay with curl, prints it and
keeps ferrule running, its log on standard output, until SIGINT or SIGTERM
(or DEMO_SECONDS after the page was fetched). Then it stops everything and
removes the namespace, its /etc/netns entry and the work directory, also
when a second Ctrl-C comes during the clean-up. Needs root."""
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
from harness.logged_process import LoggedProcess  # noqa: E402
from harness.netns import Namespace  # noqa: E402
from harness.nginx import Nginx  # noqa: E402

DOMAIN = "relay.test"
KEY = "demo"
DEVICE_PORT, PLAIN_PORT, OUTSIDE_PORT = 18443, 18080, 18000
URL = "http://%s.%s:%d/" % (KEY, DOMAIN, OUTSIDE_PORT)


def say(text):
    print("demo: " + text, flush=True)


# ---- outside the namespace

def outer(ferrule, devrelay):
    name = "ferrule-demo-%d" % os.getpid()
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
    namespace = Namespace(name, {"127.0.0.1": [DOMAIN, "%s.%s" % (KEY, DOMAIN)]})
    status = 1
    try:
        namespace.create()
        say("network namespace %s (loopback only); in it, %s and %s.%s resolve to 127.0.0.1 "
            "through /etc/netns/%s/hosts" % (name, DOMAIN, KEY, DOMAIN, name))
        say("work directory %s" % work)
        if state["signals"]:
            return 0
        # Its own session: Ctrl-C reaches only this process, which stops the
        # inner run in order and cleans up after it. The inner run starts with
        # SIGINT ignored until it takes it, so an early one is not lost half
        # way; it is asked again every second until it has stopped.
        state["inner"] = subprocess.Popen(
            namespace.command(sys.executable, os.path.abspath(__file__), "--inner", ferrule, devrelay, work, name),
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
        namespace.remove()
        shutil.rmtree(work, ignore_errors=True)
        say("removed namespace %s, /etc/netns/%s and %s" % (name, name, work))
        # Everything is gone: a Ctrl-C that comes now must not turn the exit
        # status into death by signal while the interpreter shuts down.
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
    return status


# ---- inside the namespace

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


def inner(ferrule_path, devrelay_path, work, name):
    stop = threading.Event()

    def on_signal(signum, frame):
        if not stop.is_set():
            say("stopping")
        stop.set()

    signal.signal(signal.SIGINT, on_signal)
    signal.signal(signal.SIGTERM, on_signal)
    nginx = relay = ferrule = None
    result = 1
    try:
        ca = certs.make_ca(work, "demo", "ferrule demo CA")
        certificate, key = certs.make_server_certificate(work, "demo", DOMAIN)
        say("made a throw-away CA (%s) and a certificate for %s and *.%s with openssl" % (ca, DOMAIN, DOMAIN))

        nginx = Nginx(work=os.path.join(work, "nginx"))
        for page in os.listdir(os.path.join(HERE, "www")):
            with open(os.path.join(HERE, "www", page), "rb") as f:
                nginx.write(page, f.read())
        nginx.start()
        if stop.is_set():
            raise Stopped()
        say("started nginx as the device's web server on %s (pid %d), serving %s"
            % (nginx.authority(), nginx.proc.pid, nginx.root))

        relay = LoggedProcess("ferrule-devrelay", [devrelay_path, "-c", certificate, "-k", key,
                                                   "-d", "127.0.0.1:%d" % DEVICE_PORT,
                                                   "-p", "127.0.0.1:%d" % PLAIN_PORT,
                                                   "-o", "127.0.0.1:%d" % OUTSIDE_PORT],
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

        registration = os.path.join(work, "devicereg.info")
        with open(registration, "w") as f:
            f.write("# ferrule demo\nDeviceRelayKey = %s\n" % KEY)
        say("starting ferrule (registration file %s with key %s, SSL_CERT_FILE=%s); its log follows"
            % (registration, KEY, ca))
        ferrule = LoggedProcess("ferrule", [ferrule_path, "-r", "%s:%d" % (DOMAIN, DEVICE_PORT),
                                            "-s", "stun." + DOMAIN, "-f", registration, "-t", nginx.authority(),
                                            "-l", "5"],
                                work, env={"SSL_CERT_FILE": ca}, echo=True)
        if not seen(ferrule, " [ferrule] ", None, 10):
            raise RuntimeError("ferrule did not start")
        if not seen(ferrule, "Registration succeeded", stop, 30):
            if stop.is_set():
                raise Stopped()
            raise RuntimeError("ferrule did not register with the relay")
        say("fetching the sample page through the relay: curl " + URL)
        page = subprocess.run(["curl", "-sS", "--noproxy", "*", "--max-time", "20", URL],
                              capture_output=True, text=True, timeout=30)
        if page.returncode != 0:
            raise RuntimeError("curl failed: " + page.stderr.strip())
        print("----- %s\n%s-----" % (URL, page.stdout), flush=True)

        seconds = os.environ.get("DEMO_SECONDS")
        say("running: ferrule (pid %d), ferrule-devrelay (pid %d), nginx (pid %d)"
            % (ferrule.proc.pid, relay.proc.pid, nginx.proc.pid))
        say("fetch pages through the relay from another shell (the name resolves only inside the namespace):")
        say("  ip netns exec %s curl %s" % (name, URL))
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
        if nginx:
            nginx.stop()
            say("nginx stopped")
    return result


if __name__ == "__main__":
    if len(sys.argv) == 6 and sys.argv[1] == "--inner":
        sys.exit(inner(*sys.argv[2:]))
    if len(sys.argv) != 3:
        sys.exit("usage: run_demo.py FERRULE DEVRELAY")
    if os.geteuid() != 0:
        sys.exit("run_demo.py needs root to make a network namespace")
    sys.exit(outer(os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])))
