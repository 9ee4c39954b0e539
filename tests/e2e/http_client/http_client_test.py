#!/usr/bin/env python3
"""NetHttpClient against Debian's nginx on loopback, through the
http_client_driver program (one JSON line per request, log on stderr)."""
import json
import os
import subprocess
import sys
import unittest
import zlib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "scripts"))
from harness import certs  # noqa: E402
from harness.nginx import Nginx  # noqa: E402

DRIVER = None
SERVER = None
BIG = 100 * 1024 * 1024

LOCATIONS = """
    location = /ok { return 200 "ok\\n"; }
    location /slow/ { limit_rate 2k; }
"""


def drive(*args, timeout=60, env=None):
    """Runs the driver; returns (request lines, summary, log text)."""
    proc = subprocess.run([DRIVER, *args], capture_output=True, text=True, timeout=timeout, env=env)
    results, summary = [], None
    for line in proc.stdout.splitlines():
        record = json.loads(line)
        if record.get("summary"):
            summary = record
        else:
            results.append(record)
    if summary is None:
        raise AssertionError("driver failed (%d):\n%s\n%s" % (proc.returncode, proc.stdout, proc.stderr[-5000:]))
    return results, summary, proc.stderr


def crc(data):
    return zlib.crc32(data) & 0xffffffff


class Files:
    small = os.urandom(5000)
    slow = os.urandom(3000)


def setUpModule():
    global SERVER
    SERVER = Nginx(locations=LOCATIONS)
    SERVER.write("small.bin", Files.small)
    SERVER.write("slow/file.bin", Files.slow)
    block = os.urandom(1024 * 1024)
    with open(os.path.join(SERVER.root, "big.bin"), "wb") as f:
        for _ in range(BIG // len(block)):
            f.write(block)
    Files.big_crc = 0
    for _ in range(BIG // len(block)):
        Files.big_crc = zlib.crc32(block, Files.big_crc)
    SERVER.__enter__()


def tearDownModule():
    if SERVER:
        SERVER.cleanup()


class Exchanges(unittest.TestCase):
    def test_get_and_head(self):
        r = drive(SERVER.url("/small.bin"))[0][0]
        self.assertEqual((200, 0, len(Files.small), crc(Files.small), True),
                         (r["status"], r["code"], r["bytes"], r["crc"], r["ended"]))
        r = drive("-m", "HEAD", SERVER.url("/small.bin"))[0][0]
        self.assertEqual((200, 0, 0, str(len(Files.small))), (r["status"], r["code"], r["bytes"], r["cl"]))

    def test_keep_alive_reuses_one_connection(self):
        before = len(SERVER.access_log())
        results, _, log = drive("-n", "5", "-l", "6", SERVER.url("/small.bin"))
        self.assertEqual([0] * 5, [r["code"] for r in results])
        lines = SERVER.wait_for_log(before + 5)[before:]
        self.assertEqual(1, len({l["connection"] for l in lines}))
        self.assertEqual(["1", "2", "3", "4", "5"], [l["connection_requests"] for l in lines])
        self.assertEqual(4, log.count("Using existing connection"))

    def test_connection_close_is_not_reused(self):
        before = len(SERVER.access_log())
        results, _, log = drive("-n", "2", "--close", "-l", "6", SERVER.url("/small.bin"))
        self.assertEqual([0, 0], [r["code"] for r in results])
        self.assertEqual(["close", "close"], [r["connection"] for r in results])
        lines = SERVER.wait_for_log(before + 2)[before:]
        self.assertEqual(2, len({l["connection"] for l in lines}))
        self.assertEqual("close", lines[0]["http_connection"])
        self.assertEqual(2, log.count("Response requested connection close"))
        self.assertEqual(2, log.count("Created new connection"))
        self.assertIn("close=1", log)

    def test_33rd_request_waits_for_a_free_connection(self):
        before = len(SERVER.access_log())
        results, _, log = drive("-p", "33", "-l", "6", SERVER.url("/slow/file.bin"))
        self.assertEqual([0] * 33, [r["code"] for r in results])
        self.assertTrue(all(r["crc"] == crc(Files.slow) for r in results))
        self.assertEqual(1, log.count("Too many used connections"))
        self.assertEqual(32, log.count("Created new connection"))
        last = max(results, key=lambda r: r["head_at"])
        first_end = min(r["end_at"] for r in results)
        self.assertGreaterEqual(last["head_at"], first_end)
        lines = SERVER.wait_for_log(before + 33)[before:]
        self.assertEqual(32, len({l["connection"] for l in lines}))

    def test_100mb_body_byte_exact_with_bounded_memory(self):
        # The consumer takes 40 MB/s, far below what loopback delivers.
        results, summary, log = drive("--rate", str(40 * 1024 * 1024), "-l", "6", SERVER.url("/big.bin"),
                                      timeout=120)
        self.assertEqual((200, 0, BIG), (results[0]["status"], results[0]["code"], results[0]["bytes"]))
        self.assertEqual(Files.big_crc, results[0]["crc"])
        self.assertIn("Source is blocked", log)
        # Buffers in use stay a few reads' worth; the process stays small.
        self.assertLess(summary["pool_buffers"] * 512, 2 * 1024 * 1024)
        self.assertLess(summary["max_rss_kb"], 16 * 1024)


class Https(unittest.TestCase):
    """nginx with TLS and a certificate from a CA made here."""

    @classmethod
    def setUpClass(cls):
        cls.server = Nginx(locations='location = /ok { return 200 "secret\\n"; }')
        work = cls.server.work
        # A certificate for "localhost" only: 127.0.0.1 is the wrong name for it.
        certs.make_ca(work, "other", "Other CA")
        certs.make_ca(work, "client", "Client test CA")
        cls.server.tls = certs.make_server_certificate(work, "client", "localhost")
        cls.server.__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.server.cleanup()

    def trusting(self, ca):
        return dict(os.environ, SSL_CERT_FILE=os.path.join(self.server.work, ca))

    def test_trusted_server_answers_over_one_kept_connection(self):
        before = len(self.server.access_log())
        results, _, log = drive("-n", "2", "-l", "6", "https://localhost:%d/ok" % self.server.port,
                                env=self.trusting("client-ca.pem"))
        self.assertEqual([(200, 0, crc(b"secret\n"))] * 2, [(r["status"], r["code"], r["crc"]) for r in results])
        self.assertEqual(1, log.count("Created new connection"))
        lines = self.server.wait_for_log(before + 2)[before:]
        self.assertEqual(1, len({l["connection"] for l in lines}))

    def test_unknown_ca_and_wrong_name_fail_before_anything_is_sent(self):
        before = len(self.server.access_log())
        cases = (("https://localhost:%d/ok", "other-ca.pem"), ("https://127.0.0.1:%d/ok", "client-ca.pem"))
        for url, ca in cases:
            results, _, log = drive("-l", "6", url % self.server.port, env=self.trusting(ca))
            self.assertEqual((0, 2, "Connection failed"),
                             (results[0]["status"], results[0]["code"], results[0]["text"]), url)
            self.assertIn("[asiossl]", log)
            self.assertNotIn("Starting request", log)
        self.assertEqual([], self.server.access_log()[before:])


if __name__ == "__main__":
    DRIVER = sys.argv.pop(1)
    unittest.main(verbosity=2)
