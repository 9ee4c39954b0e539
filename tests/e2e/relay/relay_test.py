#!/usr/bin/env python3
"""ferrule end to end: ferrule-devrelay as the relay service (TLS with a
throw-away CA), nginx as the device's web server (with a small echo service
behind it for request bodies), ferrule in between and curl
as the outside client.

Everything runs on the loopback interface of a network namespace made for the
run: `ip netns exec` mounts /etc/netns/NAME/hosts over /etc/hosts, which is
how KEY.relay.test names resolve without touching the machine's own
configuration. The outer process makes the namespace and its hosts file, runs
this same script inside it (--inner) and removes both afterwards, also when
the tests fail. Needs root.

FERRULE_WRAPPER, when set, is a command line that ferrule is started through,
e.g. "qemu-ppc" to run the device's own (static) build under emulation
against the host's relay, nginx and curl."""
import datetime
import hashlib
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "scripts"))
from harness import certs  # noqa: E402
from harness import outside_client  # noqa: E402
from harness import relay_processes  # noqa: E402
from harness.netns import run_in_namespace  # noqa: E402
from harness.nginx import Nginx  # noqa: E402

NAMESPACE = "ferrule-e2e-%d" % os.getpid()
DOMAIN = relay_processes.DOMAIN
KEYS = ["dev1", "late1", "late2", "restart1", "untrusted1"]
FERRULE = DEVRELAY = WORK = TARGET = None
BIG_SIZE = 100 * 1024 * 1024
BIG_SHA = None
PAGES = 50
STREAM_CHUNKS = [1, 17, 4096, 100000, 3, 65536, 777]
STREAM = random.Random(11).randbytes(sum(STREAM_CHUNKS))


# ---- outside the namespace

def outer(ferrule, devrelay, tests):
    return run_in_namespace(NAMESPACE, [DOMAIN] + ["%s.%s" % (key, DOMAIN) for key in KEYS],
                            [sys.executable, os.path.abspath(__file__), "--inner", ferrule, devrelay, *tests],
                            timeout=560)


# ---- inside the namespace

def start_relay(ca, device_port, plain_port, outside_port, name="devrelay", level=5):
    return relay_processes.start_devrelay(DEVRELAY, WORK, ca, device_port, plain_port, outside_port, name, level)


def write_registration(name, key, mtime=None):
    return relay_processes.write_registration(WORK, name, key, mtime)


def start_ferrule(name, registration, relay_port, extra_env=None, level=5):
    return relay_processes.start_ferrule(FERRULE, WORK, name, registration, relay_port, TARGET, extra_env, level)


def curl(key, path, *options, port=8000):
    """The outside client: (status, head bytes, body bytes)."""
    return outside_client.fetch("http://%s.%s:%d%s" % (key, DOMAIN, port, path), *options, work_dir=WORK)


def page(n):
    return ("<html><body>page %d %s</body></html>\n" % (n, "x" * (n * 37))).encode()


class EchoHandler(BaseHTTPRequestHandler):
    """Behind nginx at /echo/: answers with the request body it was given."""
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(len(body)))
        self.send_header("X-Echo-Sha256", hashlib.sha256(body).hexdigest())
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self):
        """/echo/stream: STREAM in chunks of uneven sizes, with no length, so
        that nginx passes it on chunked too."""
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Transfer-Encoding", "chunked")
        self.end_headers()
        offset = 0
        for size in STREAM_CHUNKS:
            self.wfile.write(b"%X\r\n" % size + STREAM[offset:offset + size] + b"\r\n")
            self.wfile.flush()
            offset += size
        self.wfile.write(b"0\r\n\r\n")

    def log_message(self, *args):
        pass


ECHO_LOCATION = """
    location /echo/ {
      client_max_body_size 16m;
      proxy_pass http://127.0.0.1:8081;
      proxy_http_version 1.1;
    }
"""


class Environment:
    nginx = echo = relay = ferrule = None

    @classmethod
    def start(cls):
        global BIG_SHA, TARGET
        for ca in ("good", "other"):  # server certificates for relay.test and *.relay.test
            certs.make_ca(WORK, ca, "ferrule e2e %s CA" % ca)
            certs.make_server_certificate(WORK, ca, DOMAIN)
        cls.nginx = Nginx(locations=ECHO_LOCATION, work=os.path.join(WORK, "nginx"))
        for n in range(PAGES):
            cls.nginx.write("pages/%d.html" % n, page(n))
        cls.nginx.write("index.html", b"<html><body>ferrule sample page</body></html>\n")
        big = random.Random(7).randbytes(BIG_SIZE)
        BIG_SHA = hashlib.sha256(big).hexdigest()
        cls.nginx.write("big.bin", big)
        del big
        cls.nginx.start()
        TARGET = cls.nginx.authority()

        cls.echo = ThreadingHTTPServer(("127.0.0.1", 8081), EchoHandler)
        threading.Thread(target=cls.echo.serve_forever, daemon=True).start()
        cls.relay = start_relay("good", 8443, 8080, 8000)
        write_registration("dev1.info", "dev1")
        cls.ferrule = start_ferrule("ferrule-dev1", "dev1.info", 8443)
        cls.ferrule.wait_for(r"\[revhttp\] Registration succeeded")

    @classmethod
    def stop(cls):
        if cls.ferrule:
            try:
                with open("/proc/%d/status" % cls.ferrule.proc.pid) as status:
                    peak = [line.split()[1] for line in status if line.startswith("VmHWM:")]
                sys.stderr.write("ferrule peak RSS after the request tests: %s kB\n" % peak[0])
            except (OSError, IndexError):
                pass
            cls.ferrule.stop()
        if cls.relay:
            cls.relay.stop(signal.SIGTERM)
        if cls.nginx:
            cls.nginx.cleanup()
        if cls.echo:
            cls.echo.shutdown()
            cls.echo.server_close()
        cls.nginx = cls.echo = cls.relay = cls.ferrule = None


def setUpModule():
    Environment.start()


def tearDownModule():
    Environment.stop()


def stamp(line):
    """ferrule's own time of a log line, in seconds; with its date, so that
    gaps across midnight come out right."""
    match = re.match(r"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) ", line)
    assert match, line
    moment = datetime.datetime.strptime(match.group(1), "%Y-%m-%d %H:%M:%S.%f")
    return (moment - datetime.datetime(1970, 1, 1)).total_seconds()


class Requests(unittest.TestCase):
    def test_get_head_and_the_targets_own_404(self):
        status, head, body = curl("dev1", "/index.html")
        self.assertEqual((status, body), (200, b"<html><body>ferrule sample page</body></html>\n"), head)
        status, head, body = curl("dev1", "/pages/3.html", "-I")
        self.assertEqual(status, 200, head)
        self.assertIn(b"\r\nContent-Length: %d\r\n" % len(page(3)), head)
        self.assertEqual(body, head)  # curl -I writes the head as its output
        self.assertEqual(curl("dev1", "/no/such/page")[0], 404)

    def test_post_with_content_length_and_chunked(self):
        cases = ((bytes(range(256)) * 300, ["-H", "Content-Type: application/octet-stream"]),
                 (b"".join(b"line %d of a chunked upload\n" % n for n in range(5000)),
                  ["-H", "Transfer-Encoding: chunked", "-H", "Content-Type: text/plain"]))
        for data, options in cases:
            path = os.path.join(WORK, "post.bin")
            with open(path, "wb") as f:
                f.write(data)
            status, head, body = curl("dev1", "/echo/post", "--data-binary", "@" + path, *options)
            self.assertEqual((status, body), (200, data), head)

    def test_chunked_response_is_byte_exact(self):
        status, head, body = curl("dev1", "/echo/stream")
        self.assertEqual(status, 200, head)
        self.assertIn(b"\r\ntransfer-encoding: chunked\r\n", head.lower())
        self.assertEqual(body, STREAM)

    def test_100_mb_download_is_byte_exact(self):
        path = os.path.join(WORK, "download.bin")
        result = subprocess.run(["curl", "-sS", "--noproxy", "*", "--max-time", "300", "-o", path, "-w",
                                 "%{http_code}", "http://dev1.%s:8000/big.bin" % DOMAIN],
                                capture_output=True, timeout=320)
        self.assertEqual(result.stdout, b"200", result.stderr)
        self.assertEqual(os.path.getsize(path), BIG_SIZE)
        digest = hashlib.sha256()
        with open(path, "rb") as f:
            for block in iter(lambda: f.read(1 << 20), b""):
                digest.update(block)
        os.unlink(path)
        self.assertEqual(digest.hexdigest(), BIG_SHA)

    def test_50_concurrent_requests(self):
        results = [None] * PAGES

        def fetch(n):
            results[n] = curl("dev1", "/pages/%d.html" % n)

        threads = [threading.Thread(target=fetch, args=(n,)) for n in range(PAGES)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(200)
        for n, result in enumerate(results):
            self.assertIsNotNone(result, n)
            self.assertEqual(result[0], 200, (n, result[1]))
            self.assertEqual(result[2], page(n), n)


class RegistrationFile(unittest.TestCase):
    def test_late_file_new_key_and_same_key(self):
        ferrule = start_ferrule("ferrule-late", "late.info", 8443)
        try:
            ferrule.wait_for(r"WARNING \[ferrule\] Registration file .*/late\.info not found")
            time.sleep(1.5)
            self.assertEqual(len(ferrule.matching(r"not found")), 1)
            self.assertEqual(ferrule.matching(r"Starting HTTP relay"), [])

            write_registration("late.info", "late1", time.time() - 100)
            ferrule.wait_for(r"NOTICE \[ferrule\] Starting HTTP relay with device key late1$")
            ferrule.wait_for(r"INFO \[revhttp\] Registering at https://late1\.relay\.test:8443/rhttp/register "
                             r"with key late1$")
            ferrule.wait_for(r"\[revhttp\] Registration succeeded")
            self.assertEqual(curl("late1", "/index.html")[0], 200)

            mark = ferrule.mark()
            write_registration("late.info", "late2", time.time() - 50)
            ferrule.wait_for(r"Starting HTTP relay with device key late2$", start=mark)
            ferrule.wait_for(r"\[revhttp\] Registration succeeded", start=mark)
            status, _, body = curl("late2", "/pages/7.html")
            self.assertEqual((status, body), (200, page(7)))

            mark = ferrule.mark()
            write_registration("late.info", "late2", time.time() - 10)
            ferrule.wait_for(r"NOTICE \[ferrule\] Registration file modification is now", start=mark)
            time.sleep(2)
            self.assertEqual(ferrule.matching(r"Starting HTTP relay|Registering at", start=mark), [])
            self.assertEqual(curl("late2", "/index.html")[0], 200)
        finally:
            self.assertEqual(ferrule.stop(), 0)


class RelayRestart(unittest.TestCase):
    def test_reregistration_with_back_off_after_the_relay_comes_back(self):
        relay = start_relay("good", 9443, 9080, 9000, "devrelay-restart")
        write_registration("restart.info", "restart1")
        ferrule = start_ferrule("ferrule-restart", "restart.info", 9443)
        try:
            ferrule.wait_for(r"\[revhttp\] Registration succeeded")
            self.assertEqual(curl("restart1", "/index.html", port=9000)[0], 200)

            mark = ferrule.mark()
            relay.stop(signal.SIGKILL)
            ferrule.wait_for(r"NOTICE \[revhttp\] Relay request to https://restart1\.relay\.test:9443/rhttp/relay/"
                             r"\S+ failed with code \d+$", start=mark)
            attempts = ferrule.wait_for(r"\[revhttp\] Registering at", start=mark, count=4, timeout=20)
            failure = ferrule.matching(r"Relay request to .* failed", start=mark)[0]
            self.assertGreaterEqual(len(ferrule.matching(r"Registration request failed with code", start=mark)), 3)
            times = [stamp(failure)] + [stamp(line) for line in attempts]
            gaps = [round(b - a, 1) for a, b in zip(times, times[1:])]
            for gap, expected in zip(gaps, [1, 2, 4, 8]):
                self.assertAlmostEqual(gap, expected, delta=0.5, msg=gaps)

            relay = start_relay("good", 9443, 9080, 9000, "devrelay-restart")
            ferrule.wait_for(r"\[revhttp\] Registration succeeded", start=mark, timeout=20)
            status, _, body = curl("restart1", "/pages/11.html", port=9000)
            self.assertEqual((status, body), (200, page(11)))
        finally:
            self.assertEqual(ferrule.stop(), 0)
            relay.stop(signal.SIGTERM)


class UntrustedRelay(unittest.TestCase):
    def test_never_registers_and_keeps_retrying(self):
        relay = start_relay("other", 7443, 7080, 7000, "devrelay-untrusted")
        write_registration("untrusted.info", "untrusted1")
        ferrule = start_ferrule("ferrule-untrusted", "untrusted.info", 7443)
        try:
            # The back-off between attempts is the restart case's.
            ferrule.wait_for(r"NOTICE \[revhttp\] Registration request failed with code \d+$", count=2, timeout=15)
            ferrule.wait_for(r"WARNING \[asiossl\] TLS handshake with untrusted1\.relay\.test \(127\.0\.0\.1:7443\) "
                             r"failed: certificate verify failed")
            self.assertEqual(ferrule.matching(r"Registration succeeded"), [])
            self.assertEqual(curl("untrusted1", "/index.html", port=7000)[0], 502)
        finally:
            self.assertEqual(ferrule.stop(), 0)
            relay.stop(signal.SIGTERM)


def inner(ferrule, devrelay, tests):
    global FERRULE, DEVRELAY, WORK
    FERRULE, DEVRELAY = ferrule, devrelay
    WORK = tempfile.mkdtemp(prefix="ferrule-e2e-relay-")
    try:
        program = unittest.main(module=__name__, argv=[sys.argv[0], "-v", *tests], exit=False)
        return 0 if program.result.wasSuccessful() else 1
    finally:
        Environment.stop()
        if os.environ.get("FERRULE_E2E_KEEP"):
            print("kept " + WORK)
        else:
            shutil.rmtree(WORK, ignore_errors=True)


if __name__ == "__main__":
    if len(sys.argv) >= 4 and sys.argv[1] == "--inner":
        sys.exit(inner(sys.argv[2], sys.argv[3], sys.argv[4:]))
    if len(sys.argv) < 3:
        sys.exit("usage: relay_test.py FERRULE DEVRELAY [TEST ...]")
    if os.geteuid() != 0:
        sys.exit("relay_test.py needs root to make a network namespace")
    sys.exit(outer(os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2]), sys.argv[3:]))
