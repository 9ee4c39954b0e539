"""Starts Debian's nginx for a test: on a free loopback port, with its own
configuration, prefix, temp and log directories under a private work
directory, in the foreground (no system service). Use it as a context manager
so that it is stopped even when the test fails:

    with Nginx(locations="location = /empty { return 204; }") as server:
        server.url("/empty")
        server.access_log()   # parsed lines of the access log

Static files go under server.root (write them before or after start). With
tls=(certificate_file, key_file) the server speaks HTTPS only. With command
(e.g. Namespace.command) it runs inside a network namespace, on that
namespace's loopback; start() then waits for its pid file, which nginx writes
once it listens."""
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

NGINX = shutil.which("nginx") or "/usr/sbin/nginx"

# One access log line per request, split on tabs by access_log().
ACCESS_FIELDS = ["connection", "connection_requests", "request", "status", "body_bytes_sent", "request_length",
                 "http_transfer_encoding", "http_content_length", "http_connection", "request_body"]

CONFIG = """\
{user}
worker_processes 1;
daemon off;
master_process on;
pid {work}/nginx.pid;
error_log {work}/error.log info;
events {{ worker_connections 1024; }}
http {{
  log_format fields '{fields}';
  access_log {work}/access.log fields;
  client_body_temp_path {work}/tmp/body;
  proxy_temp_path {work}/tmp/proxy;
  fastcgi_temp_path {work}/tmp/fastcgi;
  uwsgi_temp_path {work}/tmp/uwsgi;
  scgi_temp_path {work}/tmp/scgi;
  types {{ text/html html; text/plain txt; application/octet-stream bin; }}
  default_type application/octet-stream;
  keepalive_timeout 60s;
  keepalive_requests 100000;
  sendfile on;
  {http_extra}
  server {{
    listen 127.0.0.1:{port}{ssl};
    {tls}
    root {work}/html;
    {locations}
  }}
}}
"""


def free_port():
    """A loopback TCP port nobody listens on right now."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Nginx:
    def __init__(self, locations="", http_extra="", work=None, start_timeout=10.0, tls=None, command=None):
        self.locations = locations
        self.command = command
        self.tls = tls
        self.http_extra = http_extra
        self.own_work = work is None
        self.work = work or tempfile.mkdtemp(prefix="nginx-test-")
        self.root = os.path.join(self.work, "html")
        self.start_timeout = start_timeout
        self.port = None
        self.proc = None
        os.makedirs(self.root, exist_ok=True)
        os.makedirs(os.path.join(self.work, "tmp"), exist_ok=True)

    # ---- files and addresses

    def write(self, relative, data):
        """Writes a file under the document root; returns its path."""
        path = os.path.join(self.root, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data if isinstance(data, bytes) else data.encode())
        return path

    def authority(self):
        return "127.0.0.1:%d" % self.port

    def url(self, path):
        return "%s://%s%s" % ("https" if self.tls else "http", self.authority(), path)

    # ---- life cycle

    def start(self):
        self.port = free_port()
        fields = "\\t".join("$" + name for name in ACCESS_FIELDS)
        user = "user root;" if os.geteuid() == 0 else ""
        tls = ""
        if self.tls:
            tls = "ssl_certificate %s; ssl_certificate_key %s; ssl_protocols TLSv1.2 TLSv1.3;" % self.tls
        with open(os.path.join(self.work, "nginx.conf"), "w") as f:
            f.write(CONFIG.format(user=user, work=self.work, port=self.port, fields=fields, tls=tls,
                                  ssl=" ssl" if self.tls else "", http_extra=self.http_extra, locations=self.locations))
        with open(os.path.join(self.work, "stderr.log"), "w") as stderr:
            argv = [NGINX, "-p", self.work, "-c", os.path.join(self.work, "nginx.conf")]
            self.proc = subprocess.Popen(self.command(*argv) if self.command else argv, stdout=subprocess.DEVNULL,
                                         stderr=stderr)
        deadline = time.monotonic() + self.start_timeout
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError("nginx exited with %d:\n%s" % (self.proc.returncode, self.error_log()))
            if self.command:
                if os.path.exists(os.path.join(self.work, "nginx.pid")):
                    return self
                time.sleep(0.05)
                continue
            try:
                with socket.create_connection(("127.0.0.1", self.port), timeout=0.5):
                    return self
            except OSError:
                time.sleep(0.05)
        self.stop()
        raise RuntimeError("nginx did not listen within %.0f s:\n%s" % (self.start_timeout, self.error_log()))

    def stop(self):
        if self.proc and self.proc.poll() is None:
            # QUIT lets workers finish; TERM and KILL if they take too long.
            for sig, wait in ((signal.SIGQUIT, 5), (signal.SIGTERM, 3), (signal.SIGKILL, 3)):
                self.proc.send_signal(sig)
                try:
                    self.proc.wait(timeout=wait)
                    break
                except subprocess.TimeoutExpired:
                    continue
        self.proc = None

    def cleanup(self):
        self.stop()
        if self.own_work:
            shutil.rmtree(self.work, ignore_errors=True)

    def __enter__(self):
        try:
            return self.start()
        except BaseException:
            self.cleanup()
            raise

    def __exit__(self, *exc):
        self.cleanup()
        return False

    # ---- logs

    def error_log(self):
        text = ""
        for name in ("stderr.log", "error.log"):
            try:
                with open(os.path.join(self.work, name)) as f:
                    text += f.read()
            except OSError:
                pass
        return text

    def access_log(self):
        """Every access log line so far as a dict of ACCESS_FIELDS."""
        try:
            with open(os.path.join(self.work, "access.log")) as f:
                lines = f.read().splitlines()
        except OSError:
            return []
        return [dict(zip(ACCESS_FIELDS, line.split("\t"))) for line in lines if line]

    def wait_for_log(self, count, timeout=5.0):
        """Access log lines once there are at least `count` (nginx writes them
        as each request ends)."""
        deadline = time.monotonic() + timeout
        while True:
            lines = self.access_log()
            if len(lines) >= count or time.monotonic() > deadline:
                return lines
            time.sleep(0.05)
