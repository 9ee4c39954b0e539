#!/usr/bin/env python3
"""HttpForwarder through the real NetHttpClient against Debian's nginx on
loopback, through the forwarder_driver program (one JSON line per case, log
on stderr). nginx's own log shows what reached the target."""
import json
import os
import subprocess
import sys
import unittest
import zlib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "scripts"))
from harness.nginx import Nginx, free_port  # noqa: E402

DRIVER = None
HELLO = ("hello from the target\n" * 40).encode()

# What the target saw of each forwarded request, one tab-separated line each.
TARGET_FIELDS = ["request", "status", "http_host", "http_x_forwarded_for", "http_x_forwarded_proto"]

LOCATIONS = """
    access_log {work}/access.log fields;
    access_log {work}/target.log target;
    location = /nocontent {{ return 204; }}
"""
HTTP_EXTRA = """
  log_format target '%s';
""" % "\\t".join("$" + name for name in TARGET_FIELDS)


class ForwarderAgainstNginx(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Nginx(http_extra=HTTP_EXTRA)
        cls.server.locations = LOCATIONS.format(work=cls.server.work)
        cls.server.write("hello.txt", HELLO)
        cls.server.__enter__()
        try:
            down = "127.0.0.1:%d" % free_port()
            proc = subprocess.run([DRIVER, cls.server.authority(), down], capture_output=True, text=True,
                                  timeout=120)
            cls.log = proc.stderr
            cls.cases = {}
            for line in proc.stdout.splitlines():
                record = json.loads(line)
                cls.cases[record["case"]] = record
            if proc.returncode != 0 or len(cls.cases) != 6:
                raise AssertionError("driver failed (%d):\n%s\n%s" % (proc.returncode, proc.stdout,
                                                                      proc.stderr[-5000:]))
            cls.target = {}
            with open(os.path.join(cls.server.work, "target.log")) as f:
                for line in f.read().splitlines():
                    fields = dict(zip(TARGET_FIELDS, line.split("\t")))
                    cls.target.setdefault(fields["request"], []).append(fields)
        except BaseException:
            cls.server.cleanup()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.server.cleanup()

    def case(self, name):
        record = self.cases[name]
        self.assertFalse(record["timedOut"], name)
        return record

    def seen(self, request):
        """The target's log lines for a request line such as 'GET /a HTTP/1.1'."""
        return self.target.get(request, [])

    def fields(self, record):
        lines = record["head"].split("\r\n")[1:]
        return [tuple(part.strip() for part in line.split(":", 1)) for line in lines if line]

    def test_host_and_forwarded_fields(self):
        record = self.case("host")
        self.assertEqual(record["status"], 200)
        self.assertEqual(record["bodySize"], len(HELLO))
        self.assertEqual(record["crc"], zlib.crc32(HELLO))
        hello = self.seen("GET /hello.txt HTTP/1.1")
        self.assertEqual(hello[0]["http_host"], "cam.example")
        self.assertEqual(hello[0]["http_x_forwarded_for"], "198.51.100.4, 192.0.2.7")
        self.assertEqual(hello[0]["http_x_forwarded_proto"], "https")

    def test_target_host_as_host_and_forwarded_for_dropped_without_address(self):
        self.assertEqual(self.case("nohost")["status"], 200)
        line = self.seen("GET /hello.txt HTTP/1.1")[1]
        self.assertEqual(line["http_host"], self.server.authority())
        self.assertEqual(line["http_x_forwarded_for"], "-")
        self.assertEqual(line["http_x_forwarded_proto"], "http")  # kept, not replaced

    def test_response_fields_pass_unchanged(self):
        record = self.case("host")
        names = [name for name, _ in self.fields(record)]
        self.assertIn(("Content-Length", str(len(HELLO))), self.fields(record))
        self.assertIn("Last-Modified", names)
        self.assertIn("ETag", names)
        self.assertEqual(record["starts"], 1)
        self.assertTrue(record["ended"])

    def test_responses_without_body(self):
        head = self.case("head")
        self.assertEqual((head["status"], head["sends"], head["bodySize"]), (200, 1, 0))
        self.assertIn(("Content-Length", str(len(HELLO))), self.fields(head))
        nocontent = self.case("nocontent")
        self.assertEqual((nocontent["status"], nocontent["sends"], nocontent["starts"], nocontent["bodySize"]),
                         (204, 1, 0, 0))

    def test_error_status_passes_with_its_body(self):
        record = self.case("missing")
        self.assertEqual(record["status"], 404)
        self.assertIn("404 Not Found", record["body"])

    def test_target_down_gives_bad_gateway(self):
        record = self.case("down")
        self.assertEqual((record["status"], record["body"]), (502, "Unable to relay request"))
        self.assertIn(("Cache-Control", "no-cache"), self.fields(record))
        self.assertIn(("Pragma", "no-cache"), self.fields(record))
        self.assertIn(("Content-Type", "text/plain"), self.fields(record))
        self.assertIn("Target request error", self.log)

    def test_every_pending_request_cleaned_up(self):
        self.assertEqual(self.log.count("Created new pending request, count=1"), 6)
        self.assertEqual(self.log.count(", count=0"), 6)


if __name__ == "__main__":
    DRIVER = sys.argv.pop(1)
    unittest.main(verbosity=2)
