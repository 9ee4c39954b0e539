#!/usr/bin/env python3
"""ferrule-p2pclient on its own: its command line, and each failing step
with its message and exit status, against canned answers from a small HTTP
server; then a whole session against the libnice stand-in for the device
(scripts/harness/nice_device.py), with datagrams both ways, and the video
over SCTP from the stand-in's plain usrsctp sender (--serve): whole, never
associated (exit 7), and aborted mid-transfer (exit 8).

The outer run makes two namespaces joined by a veth pair, the device's side
(198.18.9.1) and the client's (198.18.9.2; ICE skips loopback), and runs
this script in the device's (--inner), the tool in the client's. Both go
afterwards, also when the tests fail. Needs root."""
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPTS = os.path.join(HERE, "..", "..", "..", "scripts")
sys.path.insert(0, SCRIPTS)
from harness.logged_process import LoggedProcess  # noqa: E402
from harness.p2p_client import ClientResult  # noqa: E402
from harness.topology import Topology  # noqa: E402

TOOL = CLIENT_NAMESPACE = None
SERVER, CLIENT = "198.18.9.1", "198.18.9.2"
CANNED_PORT, STAND_IN_PORT, CLOSED_PORT = 8001, 8002, 8003
UNREACHABLE = "candidate=1 1 UDP 2130706431 198.18.9.99 9 typ host\nuserfrag=abcd\npassword=%s\n" % ("p" * 22)


def tool(*argv, timeout=60):
    done = subprocess.run(["ip", "netns", "exec", CLIENT_NAMESPACE, TOOL, *argv], capture_output=True, text=True, timeout=timeout, stdin=subprocess.DEVNULL)
    return ClientResult(done.returncode, done.stdout, done.stderr)


class Canned(BaseHTTPRequestHandler):
    """Answers POST /STATUS/sg/sessions with that status and the body of
    ANSWERS[STATUS path]; /close closes without an answer."""
    protocol_version = "HTTP/1.1"
    answers = {}
    posted = []

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        Canned.posted.append((self.path, self.headers.get("Host"), body.decode()))
        name = self.path.split("/")[1]
        if name == "close":
            self.close_connection = True
            return
        status, text = self.answers[name]
        payload = text.encode()
        self.send_response(status)
        self.send_header("Content-Length", str(len(payload)))
        self.end_headers()
        self.wfile.write(payload)

    def log_message(self, *args):
        pass


class CommandLine(unittest.TestCase):
    def test_usage_and_errors(self):
        cases = [
            ([], 2, "no device URL given"),
            (["--help"], 0, None),
            (["--bogus", "http://x"], 2, "unknown option --bogus"),
            (["-t"], 2, "needs a value"),
            (["-t", "0", "http://x"], 2, "bad time-out"),
            (["http://a", "http://b"], 2, "more than one device URL"),
            (["https://dev1.relay.test"], 2, "must begin with http://"),
            (["--rate", "1M", "http://x"], 2, "need --query"),
            (["-q", "a", "--rate", "1X", "http://x"], 2, "bad rate '1X'"),
            (["-q", "a", "--connections", "2", "http://x"], 2, "--connections above 1 needs --output"),
            (["--serve", "f", "http://x"], 2, "--serve needs --answer"),
            (["http://dev1.relay.test:99999"], 2, "bad port"),
        ]
        for argv, status, message in cases:
            with self.subTest(argv=argv):
                result = tool(*argv)
                self.assertEqual(result.status, status, result)
                if message:
                    self.assertIn(message, result.stderr)
        self.assertIn("Usage: ferrule-p2pclient", tool("--help").stdout)


class FailingSteps(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        Canned.answers = {
            "refused": (400, "Unable to parse session information"),
            "failed": (500, ""),
            "garbage": (201, "<html>not a description</html>\n"),
            "unreachable": (201, UNREACHABLE),
        }
        cls.server = ThreadingHTTPServer((SERVER, CANNED_PORT), Canned)
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()

    @classmethod
    def tearDownClass(cls):
        cls.server.shutdown()
        cls.server.server_close()

    def url(self, name):
        return "http://%s:%d/%s" % (SERVER, CANNED_PORT, name)

    def test_each_failing_step_has_its_status_and_message(self):
        cases = [
            (["http://%s:%d" % (SERVER, CLOSED_PORT)], 3, "cannot connect to the relay"),
            (["-r", "5", self.url("close")], 3, "closed the connection without an answer"),
            ([self.url("refused")], 4, "refused the session: 400 Bad Request (Unable to parse session information)"),
            ([self.url("failed")], 4, "refused the session: 500"),
            ([self.url("garbage")], 4, "not a session description: line 1: no '='"),
            (["-t", "1", self.url("unreachable")], 5, "ICE did not complete within 1 s"),
        ]
        for argv, status, message in cases:
            with self.subTest(argv=argv):
                result = tool("-a", CLIENT, *argv)
                self.assertEqual(result.status, status, result)
                self.assertIn(message, result.stderr)
                self.assertIsNone(result.pair)

    def test_the_request_it_posts(self):
        Canned.posted.clear()
        tool("-a", CLIENT, "http://%s:%d/refused/" % (SERVER, CANNED_PORT))
        path, host, body = Canned.posted[-1]
        self.assertEqual((path, host), ("/refused/sg/sessions", "%s:%d" % (SERVER, CANNED_PORT)))
        lines = body.splitlines()
        self.assertRegex(lines[0], r"^candidate=\S+ 1 UDP \d+ 198\.18\.9\.2 \d+ typ host$")
        self.assertEqual(len(lines), 3)  # only the given address, then the credentials
        self.assertRegex(lines[1], r"^userfrag=\S{4,}$")
        self.assertRegex(lines[2], r"^password=\S{22,}$")


class WithStandIn(unittest.TestCase):
    """A whole session against libnice as the device (controlling)."""

    def start(self, *tool_options):
        if not getattr(self, "work", None):
            self.work = tempfile.mkdtemp(prefix="p2pclient-")
        self.addCleanup(shutil.rmtree, self.work, True)
        self.device = LoggedProcess("stand-in", [sys.executable, os.path.join(SCRIPTS, "harness", "nice_device.py"),
                                                 "--listen", "%s:%d" % (SERVER, STAND_IN_PORT), "--tool", TOOL,
                                                 "--", "-a", SERVER, *tool_options], self.work)
        self.addCleanup(self.device.stop)
        self.device.wait_for("listening on")

    def connect(self, *options):
        return tool("-a", CLIENT, *options, "http://%s:%d" % (SERVER, STAND_IN_PORT))

    def test_pair_and_datagrams_both_ways(self):
        self.start("--echo", "--hold", "3")
        result = self.connect("--send", "5", "--expect", "5", "-t", "10")
        self.assertEqual(result.status, 0, result)
        self.assertEqual(result.datagrams, {"sent": 5, "received": 5}, result)
        self.assertEqual((result.pair["local-type"], result.pair["remote-type"]), ("host", "host"))
        self.assertEqual(result.pair["local"], result.pair["local-base"])
        self.assertTrue(result.pair["local"].startswith(CLIENT + ":"), result)
        self.assertTrue(result.pair["remote"].startswith(SERVER + ":"), result)
        # The device's side selected the same pair, seen from its end.
        line = self.device.wait_for(r"^selected-pair ", timeout=10)[0]
        fields = dict(word.split("=", 1) for word in line.split()[1:])
        self.assertEqual((fields["local"], fields["remote"]), (result.pair["remote"], result.pair["local"]))
        self.assertGreaterEqual(result.timing["connect-ms"], 0)

    def video(self, size):
        path = os.path.join(self.work, "video.bin")
        with open(path, "wb") as f:
            f.write(os.urandom(size))
        return path

    def test_video_from_the_stand_in(self):
        self.work = tempfile.mkdtemp(prefix="p2pclient-")
        video = self.video(3000000)
        self.start("--serve", video, "--hold", "10")
        output = os.path.join(self.work, "out")
        result = self.connect("-q", "cam=1", "-o", output, "-t", "10")
        self.assertEqual(result.status, 0, result)
        self.assertEqual(len(result.downloads), 1, result)
        self.assertEqual((result.downloads[0]["bytes"], result.downloads[0]["end"]), (3000000, "complete"))
        with open(video, "rb") as a, open(output, "rb") as b:
            self.assertTrue(a.read() == b.read())
        self.device.wait_for(r"^served port=5000 query=cam=1 bytes=3000000 ", timeout=10)

    def test_stream_cut_short(self):
        self.work = tempfile.mkdtemp(prefix="p2pclient-")
        self.start("--serve", self.video(20000000), "--hold", "2")  # gone mid-transfer, aborting
        result = self.connect("-q", "cam=1", "-o", os.path.join(self.work, "out"), "--rate", "1M", "-t", "10")
        self.assertEqual(result.status, 8, result)
        self.assertIn("the video stream was cut short after ", result.stderr)
        self.assertLess(result.downloads[0]["bytes"], 20000000, result)

    def test_no_association_and_missing_datagrams(self):
        self.start("--hold", "3")  # ICE only: nothing answers SCTP or sends datagrams
        result = self.connect("-q", "cam=1", "-o", os.path.join(self.work, "out"), "-t", "1")
        self.assertEqual(result.status, 7, result)
        self.assertIn("no SCTP association with the device within 1 s", result.stderr)
        self.assertEqual(result.downloads[0]["end"], "failed", result)
        result = self.connect("--send", "1", "--expect", "2", "-t", "1")
        self.assertEqual(result.status, 6, result)
        self.assertEqual(result.datagrams, {"sent": 1, "received": 0}, result)
        self.assertIn("0 of 2 expected datagrams arrived within 1 s", result.stderr)


def outer():
    with Topology("p2pclient") as net:
        device, client = net.namespace("dev"), net.namespace("cli")
        net.link(device, "eth0", client, "eth0")
        net.address(device, "eth0", SERVER + "/24")
        net.address(client, "eth0", CLIENT + "/24")
        return subprocess.run(device.command(sys.executable, os.path.abspath(__file__), "--inner", client.name,
                                             *sys.argv[1:]), timeout=170).returncode


def main():
    global TOOL, CLIENT_NAMESPACE
    if len(sys.argv) > 1 and sys.argv[1] == "--inner":
        CLIENT_NAMESPACE, TOOL = sys.argv[2], os.path.abspath(sys.argv[3])
        unittest.main(argv=[sys.argv[0]] + sys.argv[4:], verbosity=2)
    if len(sys.argv) < 2:
        sys.exit("usage: p2pclient_test.py FERRULE_P2PCLIENT [unittest arguments]")
    sys.exit(outer())


if __name__ == "__main__":
    main()
