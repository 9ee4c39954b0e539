#!/usr/bin/env python3
"""Runs ferrule-devrelay on loopback with a throw-away CA, plays the device in
Python (TLS, SNI KEY.relay.test) and the outside client with curl."""
import os
import queue
import re
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "scripts"))
from harness import outside_client  # noqa: E402
from harness import certs  # noqa: E402
from harness.logged_process import LoggedProcess  # noqa: E402

BINARY = None
WORK = None
RELAY = None
DOMAIN = "relay.test"
POLL_TIMEOUT = 1.0
ANSWER_TIMEOUT = 2.5


def start_relay():
    """ferrule-devrelay on free loopback ports, once it listens on all three."""
    relay = LoggedProcess("devrelay",
                          [BINARY, "-c", os.path.join(WORK, "devrelay-server.pem"),
                           "-k", os.path.join(WORK, "devrelay-server.key"),
                           "-d", "127.0.0.1:0", "-p", "127.0.0.1:0", "-o", "127.0.0.1:0",
                           "-P", str(POLL_TIMEOUT), "-a", str(ANSWER_TIMEOUT), "-l", "6"], WORK)
    for attribute, what in (("tls_port", "devices \\(TLS\\)"),
                            ("plain_port", "devices \\(plain HTTP, reply URLs\\)"),
                            ("outside_port", "outside clients")):
        pattern = r"Listening for %s on 127\.0\.0\.1:(\d+)" % what
        setattr(relay, attribute, int(re.search(pattern, relay.wait_for(pattern, timeout=10.0)[0]).group(1)))
    return relay


class HttpConnection:
    """A bare HTTP/1.1 client that keeps every byte of the heads it reads."""

    def __init__(self, port, host, tls=False):
        sock = socket.create_connection(("127.0.0.1", port), timeout=20)
        if tls:
            context = ssl.create_default_context(cafile=os.path.join(WORK, "devrelay-ca.pem"))
            sock = context.wrap_socket(sock, server_hostname=host)
        self.sock = sock
        self.file = sock.makefile("rb")
        self.host = "%s:%d" % (host, port)

    def close(self):
        self.file.close()
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def send(self, data):
        self.sock.sendall(data)

    def request_head(self, method, path, fields=()):
        head = "%s %s HTTP/1.1\r\nHost: %s\r\n" % (method, path, self.host)
        head += "".join("%s: %s\r\n" % field for field in fields)
        return (head + "\r\n").encode()

    def read_head(self):
        raw = b""
        while True:
            line = self.file.readline(65536)
            if not line:
                raise EOFError("connection closed in the head: %r" % raw)
            raw += line
            if line == b"\r\n":
                break
        lines = raw.decode("latin-1").split("\r\n")
        _, status, reason = lines[0].split(" ", 2)
        fields = [tuple(line.split(": ", 1)) for line in lines[1:] if line]
        return raw, int(status), reason, fields

    def read_body(self, status, fields):
        """The relay frames every body it sends with a length."""
        names = {name.lower(): value for name, value in fields}
        assert status == 204 or "content-length" in names, fields
        return self.file.read(int(names.get("content-length", "0")))

    def exchange(self, data):
        self.send(data)
        raw, status, reason, fields = self.read_head()
        return raw, status, reason, fields, self.read_body(status, fields)


def links(fields):
    return [value for name, value in fields if name == "Link"]


class Device:
    """Plays the daemon's relay client: register, long-poll, post replies."""

    def __init__(self, key, relay=None):
        self.key = key
        self.host = "%s.%s" % (key, DOMAIN)
        self.conn = HttpConnection((relay or RELAY).tls_port, self.host, tls=True)
        self.relay_path = None

    def close(self):
        self.conn.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def register(self):
        body = ("drk=" + self.key).encode()
        raw, status, _, fields, _ = self.conn.exchange(self.conn.request_head(
            "POST", "/rhttp/register",
            [("Content-Type", "application/x-www-form-urlencoded"), ("Content-Length", len(body))]) + body)
        assert status == 201, raw
        self.relay_path = re.fullmatch(r'<([^>]*)>; rel="first"', links(fields)[0]).group(1)
        return raw

    def poll(self):
        raw, status, reason, fields, body = self.conn.exchange(
            self.conn.request_head("GET", self.relay_path, [("Accept", "message/http")]))
        return raw, status, fields, body

    def poll_request(self, attempts=10):
        """Polls until a request comes; returns (message bytes, reply URL, fields)."""
        for _ in range(attempts):
            raw, status, fields, body = self.poll()
            if status == 200:
                reply = [link for link in links(fields) if link.endswith('rel="reply"')][0]
                return body, re.fullmatch(r'<([^>]*)>; rel="reply"', reply).group(1), fields
            assert status == 204, raw
        raise AssertionError("no request for " + self.key)

    @staticmethod
    def reply(url, pieces, content_type="message/http"):
        """POSTs the pieces as a chunked body to an absolute http URL; returns the status."""
        match = re.fullmatch(r"http://([^:/]+):(\d+)(/.*)", url)
        with HttpConnection(int(match.group(2)), match.group(1)) as conn:
            conn.send(conn.request_head("POST", match.group(3), [
                ("Content-Type", content_type), ("Transfer-Encoding", "chunked")]))
            for piece in pieces:
                if piece:
                    conn.send(b"%x\r\n%s\r\n" % (len(piece), piece))
            conn.send(b"0\r\n\r\n")
            raw, status, _, fields = conn.read_head()
            conn.read_body(status, fields)
            return status


def in_thread(function, *args):
    result = queue.Queue()

    def body():
        try:
            result.put((True, function(*args)))
        except BaseException as error:  # handed to the test thread
            result.put((False, error))

    threading.Thread(target=body, daemon=True).start()

    def join(timeout=60):
        ok, value = result.get(timeout=timeout)
        if not ok:
            raise value
        return value
    return join


def curl(key, path, *options, port=None):
    """The outside client. Returns (status, raw head, body) as curl saw them."""
    port = port or RELAY.outside_port
    host = "%s.%s" % (key, DOMAIN)
    return outside_client.fetch("http://%s:%d%s" % (host, port, path), "--resolve",
                                "%s:%d:127.0.0.1" % (host, port), *options, work_dir=WORK)


def curl_async(*args, **kwargs):
    return in_thread(lambda: curl(*args, **kwargs))


def strip_interim(head):
    while head.startswith(b"HTTP/1.1 100"):
        head = head.split(b"\r\n\r\n", 1)[1]
    return head


class Protocol(unittest.TestCase):
    def test_registration_and_empty_poll_are_byte_exact(self):
        with Device("proto1") as device:
            raw = device.register()
            session = re.fullmatch(r"/rhttp/relay/proto1/(\d+)", device.relay_path).group(1)
            self.assertEqual(raw, ('HTTP/1.1 201 Created\r\nLink: </rhttp/relay/proto1/%s>; rel="first"\r\n'
                                   'Content-Length: 0\r\n\r\n' % session).encode())
            started = RELAY.mark()
            raw, status, _, body = device.poll()
            self.assertEqual(raw, ('HTTP/1.1 204 No Content\r\nLink: </rhttp/relay/proto1/%s>; rel="next"\r\n\r\n'
                                   % session).encode())
            self.assertEqual(body, b"")
            RELAY.wait_for(r"Nothing for device proto1 within 1\.0 s, answering 204", start=started)

    def test_bad_registrations(self):
        with HttpConnection(RELAY.tls_port, "x.relay.test", tls=True) as conn:
            for body in (b"key=abc", b"drk=", b"drk=a b", b"drk=" + b"a" * 64):
                raw, status, _, _, _ = conn.exchange(conn.request_head(
                    "POST", "/rhttp/register", [("Content-Length", len(body))]) + body)
                self.assertEqual(status, 400, body)
            raw, status, _, _, _ = conn.exchange(conn.request_head("GET", "/rhttp/register"))
            self.assertEqual(status, 405)
            raw, status, _, _, _ = conn.exchange(conn.request_head("GET", "/elsewhere"))
            self.assertEqual(status, 404)

    def test_superseded_session_gets_404(self):
        with Device("proto3") as first, Device("proto3") as second:
            first.register()
            waiting = in_thread(first.poll)
            time.sleep(0.2)
            second.register()
            raw, status, _, _ = waiting()
            self.assertEqual(status, 404, raw)
            raw, status, _, _ = first.poll()
            self.assertEqual(status, 404, raw)
            raw, status, _, _ = second.poll()
            self.assertEqual(status, 204, raw)


class Relaying(unittest.TestCase):
    def test_get_is_relayed_and_answered_byte_exact(self):
        with Device("get1") as device:
            device.register()
            outside = curl_async("get1", "/page?x=1&y=2", "-H", "X-Probe: one")
            message, reply_url, fields = device.poll_request()
            session = device.relay_path.rsplit("/", 1)[1]
            # The whole head of the relay response, field by field.
            self.assertEqual(fields[0], ("Content-Type", "message/http"))
            self.assertEqual(fields[1], ("Link", '</rhttp/relay/get1/%s>; rel="next"' % session))
            self.assertRegex(fields[2][1], r'^<http://get1\.relay\.test:%d/rhttp/reply/[0-9a-f]{8}-\d+>; rel="reply"$'
                             % RELAY.plain_port)
            self.assertEqual(fields[3], ("Content-Length", str(len(message))))
            self.assertEqual(len(fields), 4)
            self.assertTrue(message.startswith(
                b"GET /page?x=1&y=2 HTTP/1.1\r\nHost: get1.relay.test:%d\r\n" % RELAY.outside_port), message)
            self.assertIn(b"\r\nX-Probe: one\r\n", message)
            self.assertTrue(message.endswith(b"\r\n\r\n"))

            answer = (b"HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nX-Odd-Case: Kept\r\n"
                      b"Content-Length: 12\r\n\r\n<p>hello</p>")
            # Split inside the head and inside the body.
            self.assertEqual(Device.reply(reply_url, [answer[:7], answer[7:40], answer[40:-3], answer[-3:]]), 200)
            status, head, body = outside()
            self.assertEqual(status, 200)
            self.assertEqual(head + body, answer)

    def test_post_with_length_and_expect_continue(self):
        data = os.urandom(2 * 1024 * 1024 + 7)
        path = os.path.join(WORK, "upload")
        with open(path, "wb") as upload:
            upload.write(data)
        with Device("post1") as device:
            device.register()
            outside = curl_async("post1", "/upload", "-H", "Expect: 100-continue", "--data-binary", "@" + path)
            message, reply_url, _ = device.poll_request()
            head, body = message.split(b"\r\n\r\n", 1)
            self.assertTrue(head.startswith(b"POST /upload HTTP/1.1\r\n"))
            self.assertIn(b"\r\nContent-Length: %d" % len(data), head)
            self.assertNotIn(b"Expect", head)  # the relay answered it
            self.assertEqual(body, data)
            Device.reply(reply_url, [b"HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n"])
            status, head, _ = outside()
            self.assertEqual(status, 201)
            self.assertEqual(strip_interim(head), b"HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n")



class Failures(unittest.TestCase):
    def test_unknown_device_gets_502(self):
        status, head, body = curl("nosuchdevice", "/")
        self.assertEqual(status, 502)
        self.assertIn(b'"nosuchdevice"', body)
        RELAY.wait_for(r'no device registered as "nosuchdevice", answering 502')

    def test_request_never_fetched_gets_504(self):
        with Device("slow1") as device:
            device.register()  # and never polls
            started = RELAY.mark()
            status, _, body = curl("slow1", "/")
            self.assertEqual(status, 504)
            RELAY.wait_for(r"device slow1 did not fetch it within 2\.5 s, answering 504", start=started)

    def test_request_never_answered_gets_504_and_late_reply_404(self):
        with Device("slow2") as device:
            device.register()
            outside = curl_async("slow2", "/")
            _, reply_url, _ = device.poll_request()
            status, _, _ = outside()
            self.assertEqual(status, 504)
            self.assertEqual(Device.reply(reply_url, [b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"]), 404)

    def test_malformed_answer_gets_502(self):
        with Device("bad1") as device:
            device.register()
            outside = curl_async("bad1", "/")
            _, reply_url, _ = device.poll_request()
            self.assertEqual(Device.reply(reply_url, [b"this is not HTTP\r\n\r\n"]), 400)
            status, _, _ = outside()
            self.assertEqual(status, 502)
            outside = curl_async("bad1", "/")
            _, reply_url, _ = device.poll_request()
            self.assertEqual(Device.reply(reply_url, [b"HTTP/1.1 200 OK\r\n\r\n"], content_type="text/plain"), 415)
            status, _, _ = outside()
            self.assertEqual(status, 502)


class CommandLine(unittest.TestCase):
    def test_usage_and_errors(self):
        result = subprocess.run([BINARY, "-h"], capture_output=True, text=True, timeout=10)
        self.assertEqual(result.returncode, 0)
        self.assertTrue(result.stdout.startswith("Usage: ferrule-devrelay -c <cert.pem> -k <key.pem> [options]\n"))
        self.assertIn('"KEY.<any domain>"', result.stdout)
        result = subprocess.run([BINARY, "-k", "x"], capture_output=True, text=True, timeout=10)
        self.assertEqual(result.returncode, 1)
        self.assertTrue(result.stderr.startswith("ferrule-devrelay: Please give the certificate file (-c)\n\nUsage:"))
        result = subprocess.run([BINARY, "-c", "/nonexistent.pem", "-k", "/nonexistent.key"],
                                capture_output=True, text=True, timeout=10)
        self.assertEqual(result.returncode, 1)
        self.assertIn("Cannot use the certificate /nonexistent.pem", result.stderr)


def main():
    global BINARY, WORK, RELAY
    BINARY = os.path.abspath(sys.argv.pop(1))
    for tool in ("curl", "openssl"):
        if not shutil.which(tool):
            print("missing %s (see scripts/packages/devrelay.txt)" % tool)
            return 1
    WORK = tempfile.mkdtemp(prefix="devrelay-test-")
    try:
        certs.make_ca(WORK, "devrelay", "ferrule devrelay test CA")
        certs.make_server_certificate(WORK, "devrelay", DOMAIN)
        RELAY = start_relay()
        program = unittest.main(exit=False, verbosity=2)
        status = RELAY.stop(signal.SIGTERM)
        if status != 0:
            print("relay exited with %s" % status)
            return 1
        if not program.result.wasSuccessful():
            print("---- relay log ----\n" + "\n".join(RELAY.lines[-200:]))
            return 1
        return 0
    finally:
        if RELAY:
            RELAY.stop(signal.SIGTERM)
        shutil.rmtree(WORK, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
