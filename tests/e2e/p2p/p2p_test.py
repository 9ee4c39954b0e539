#!/usr/bin/env python3
"""Video over SCTP end to end: ferrule-p2pclient opens an ICE session with
ferrule through the dev relay, associates SCTP on the pair and sends a video
query; ferrule fetches "/video.vdo?" + query from nginx (its target, in the
device's namespace) and streams the body back.

nginx's "/video.vdo" answers by query:
    file=NAME     the file NAME (a 100 MB random sample made once per run)
    status=404    404 with a short body
    empty=1       200 with an empty body
    odd=early     a 10 MB answer cut off after 100 kB   (odd_target.py)
    odd=silent    no answer at all                      (odd_target.py)
    anything else 200 "query=" + the query, so that its arrival is proven

    p2p_test.py FERRULE DEVRELAY P2PCLIENT [unittest arguments]

Needs root. Namespaces, their /etc/netns entries and every process are gone
afterwards, also when a case fails."""
import os
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "..", "scripts"))
from harness import certs  # noqa: E402
from harness import topology  # noqa: E402
from harness.coturn import Coturn  # noqa: E402
from harness.digest import file_sha256  # noqa: E402
from harness.logged_process import LoggedProcess  # noqa: E402
from harness.nginx import Nginx  # noqa: E402
from harness.p2p_client import client_argv, run_client  # noqa: E402

FERRULE = DEVRELAY = P2PCLIENT = None
DOMAIN = "relay.test"
KEY = "dev1"
NAMES = [DOMAIN, "%s.%s" % (KEY, DOMAIN), "stun." + DOMAIN]
DEVICE_PORT, PLAIN_PORT, OUTSIDE_PORT, ODD_PORT = 8443, 8080, 8000, 8090
DEVICE_URL = "http://%s.%s:%d" % (KEY, DOMAIN, OUTSIDE_PORT)
SAMPLE_SIZE = 100 * 1000 * 1000
SAMPLE = None  # (path, sha256), made once per run

LOCATIONS = """\
location = /video.vdo {
  default_type text/plain;
  error_page 418 = @odd;
  if ($arg_file) { rewrite ^ /files/$arg_file? last; }
  if ($arg_odd) { return 418; }
  if ($arg_status = "404") { return 404 "no such video\\n"; }
  if ($arg_empty) { return 200 ""; }
  return 200 "query=$args\\n";
}
location /files/ { internal; }
location @odd { proxy_pass http://127.0.0.1:%d; }
""" % ODD_PORT
PROXY = "proxy_buffering off; proxy_read_timeout 300s; proxy_http_version 1.1;"

# A stream relay that ended because of its SCTP side.
SCTP_FAILURES = r"\[ferrule\] (Stream disconnected|SCTP send error)"
# Its client connection's one note that its last relay closed.
ALL_CLOSED = r"\[ferrule\] All connections closed, starting idle timer"


def make_sample(work):
    path = os.path.join(work, "sample.bin")
    with open(path, "wb") as f:
        for _ in range(SAMPLE_SIZE // (1 << 20)):
            f.write(os.urandom(1 << 20))
        f.write(os.urandom(SAMPLE_SIZE % (1 << 20)))
    return path, file_sha256(path)


class Device:
    """One network with the relay side, and ferrule with nginx and the odd
    target on the device."""

    def __init__(self, shape, work):
        self.work = work
        self.processes = []
        self.nginx = None
        self.topology = topology.Topology("p2p")
        try:
            self._start(shape)
        except BaseException:
            self.stop()
            raise

    def _logged(self, name, argv, **options):
        process = LoggedProcess(name, argv, self.work, **options)
        self.processes.insert(0, process)  # stopped in reverse order
        return process

    def _start(self, shape):
        work = self.work
        self.net = shape(self.topology, NAMES)
        server, device = self.net.server, self.net.device
        address = self.net.server_addresses[0]
        certs.make_ca(work, "good", "ferrule e2e p2p CA")
        certs.make_server_certificate(work, "good", DOMAIN)
        stun = Coturn(work, self.net.server_addresses, command=server.command).start()
        self.processes.insert(0, stun)
        relay = self._logged("devrelay", server.command(
            DEVRELAY, "-c", os.path.join(work, "good-server.pem"), "-k", os.path.join(work, "good-server.key"),
            "-d", "%s:%d" % (address, DEVICE_PORT), "-p", "%s:%d" % (address, PLAIN_PORT),
            "-o", "%s:%d" % (address, OUTSIDE_PORT), "-P", "5", "-a", "30"))
        relay.wait_for(r"Listening for outside clients on ")
        odd = self._logged("odd", device.command(sys.executable, os.path.join(HERE, "odd_target.py"), str(ODD_PORT)))
        odd.wait_for("listening")
        self.nginx = Nginx(locations=LOCATIONS, http_extra=PROXY, work=os.path.join(work, "nginx"),
                           command=device.command)
        os.makedirs(os.path.join(self.nginx.root, "files"))
        os.symlink(SAMPLE[0], os.path.join(self.nginx.root, "files", "sample.bin"))
        self.nginx.start()
        registration = os.path.join(work, "ferrule.info")
        with open(registration, "w") as f:
            f.write("DeviceRelayKey = %s\n" % KEY)
        # FERRULE_WRAPPER: a command line ferrule is started through (qemu-ppc).
        wrapper = shlex.split(os.environ.get("FERRULE_WRAPPER", ""))
        self.ferrule = self._logged("ferrule", device.command(
            *wrapper, FERRULE, "-r", "%s:%d" % (DOMAIN, DEVICE_PORT), "-s", "stun." + DOMAIN, "-f", registration,
            "-t", self.nginx.authority(), "-l", "5", "-l", "icesessionlink:6"),
            env={"SSL_CERT_FILE": os.path.join(work, "good-ca.pem")})
        self.ferrule.wait_for(r"\[revhttp\] Registration succeeded")

    def client_argv(self, query, output, *extra, timeout=20):
        return self.net.client.command(*client_argv(P2PCLIENT, DEVICE_URL, stun=DOMAIN, ice_timeout=timeout,
                                                    extra=["-q", query, "-o", output, *extra], verbose=False))

    def download(self, query, *extra, timeout=20, name="video"):
        """Runs the client to its end; returns (ClientResult, output path)."""
        output = os.path.join(self.work, name)
        result = run_client(P2PCLIENT, DEVICE_URL, command=self.net.client.command, stun=DOMAIN, verbose=False,
                            ice_timeout=timeout, extra=["-q", query, "-o", output, *extra], timeout=timeout + 120)
        return result, output

    def stop(self):
        try:
            for process in self.processes:
                try:
                    process.stop()
                except Exception as error:
                    print("stopping %s: %s" % (process, error), file=sys.stderr)
            if self.nginx is not None:
                self.nginx.stop()
        finally:
            self.topology.remove()


class VideoOverSctp(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="ferrule-p2p-")
        self.device = None

    def tearDown(self):
        if self.device is not None:
            self.device.stop()
        if os.environ.get("FERRULE_KEEP_WORK"):
            print("work directory kept: %s" % self.work)
        else:
            shutil.rmtree(self.work, ignore_errors=True)

    def start(self, shape=topology.flat):
        self.device = Device(shape, self.work)
        return self.device

    def assert_complete(self, result, count=1):
        self.assertEqual(result.status, 0, result)
        self.assertEqual([download["end"] for download in result.downloads], ["complete"] * count, result)

    def assert_body(self, result, path, body):
        self.assert_complete(result)
        with open(path, "rb") as f:
            self.assertEqual(f.read(), body)

    def assert_sample(self, result, path):
        self.assert_complete(result)
        self.assertEqual(result.downloads[0]["bytes"], SAMPLE_SIZE, result)
        self.assertEqual(file_sha256(path), SAMPLE[1])

    # ---- the video arrives

    def test_query_arrives_unchanged(self):
        device = self.start()
        result, path = device.download("cam=2&t=10%2C5")
        self.assert_body(result, path, b"query=cam=2&t=10%2C5\n")
        device.ferrule.wait_for(r"\[ferrule\] Processing video request: cam=2&t=10%2C5$")
        device.ferrule.wait_for(r"\[ferrule\] Got video response: 200 OK$")
        device.ferrule.wait_for(r"\[ferrule\] Got new SCTP connection from ")

    def test_100_mb_byte_exact_flat(self):
        device = self.start()
        result, path = device.download("file=sample.bin")
        self.assert_sample(result, path)
        print("flat: %d bytes/s, first byte after %d ms" % (result.downloads[0]["bytes-per-s"],
                                                           result.downloads[0]["first-byte-ms"]))

    def test_100_mb_byte_exact_across_both_nats(self):
        device = self.start(topology.both_behind_nat)
        result, path = device.download("file=sample.bin")
        self.assert_sample(result, path)
        self.assertIn(result.pair["remote-type"], ("srflx", "prflx"), result)

    def test_two_connections_at_once(self):
        device = self.start()
        result, path = device.download("file=sample.bin", "--connections", "2", "--rate", "40M")
        self.assert_complete(result, count=2)
        self.assertEqual(sorted(download["port"] for download in result.downloads), [5000, 5001], result)
        for index in (1, 2):
            self.assertEqual(file_sha256("%s.%d" % (path, index)), SAMPLE[1])
        device.ferrule.wait_for(r"\[ferrule\] Got new SCTP connection from ", count=2)
        # Both ran at once: the second arrived before the first had ended.
        lines = device.ferrule.lines
        second = [i for i, line in enumerate(lines) if "Got new SCTP connection" in line][1]
        first_end = [i for i, line in enumerate(lines) if "Response data stream is finished" in line][0]
        self.assertLess(second, first_end)

    # ---- what the device ignores or survives

    def test_second_query_during_a_transfer_is_ignored(self):
        device = self.start()
        query = "file=sample.bin"
        result, path = device.download(query, "--resend-query-at", "1M")
        self.assert_sample(result, path)
        device.ferrule.wait_for(r"\[ferrule\] Received unexpected data \(%d bytes\)$" % len(query))
        self.assertEqual(len(device.ferrule.matching(r"Processing video request")), 1)

    def test_garbage_datagrams_on_the_pair_change_nothing(self):
        device = self.start()
        result, path = device.download("file=sample.bin", "--garbage", "400", "--rate", "50M")
        self.assert_sample(result, path)
        self.assertEqual(device.ferrule.matching(SCTP_FAILURES), [])
        self.assertIsNone(device.ferrule.proc.poll())
        # The device still serves the next client.
        again, _ = device.download("after=garbage")
        self.assert_complete(again)

    # ---- how relays end

    def test_empty_body(self):
        device = self.start()
        result, path = device.download("empty=1")
        self.assert_complete(result)
        self.assertEqual(os.path.getsize(path), 0)
        device.ferrule.wait_for(r"\[ferrule\] Response data stream is finished$")

    def test_target_404_and_early_close_end_that_relay_cleanly(self):
        device = self.start()
        result, path = device.download("status=404")
        self.assert_body(result, path, b"no such video\n")
        device.ferrule.wait_for(r"\[ferrule\] Got video response: 404 Not Found$")
        mark = device.ferrule.mark()
        result, path = device.download("odd=early")
        self.assert_complete(result)
        self.assertLess(result.downloads[0]["bytes"], 10000000, result)
        device.ferrule.wait_for(r"\[ferrule\] Video request error", start=mark)
        device.ferrule.wait_for(ALL_CLOSED, start=mark)
        self.assertEqual(device.ferrule.matching(SCTP_FAILURES), [])

    def test_silent_target_ends_that_relay_only(self):
        device = self.start()
        silent = subprocess.Popen(device.client_argv("odd=silent", os.path.join(self.work, "silent"), timeout=120),
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            device.ferrule.wait_for(r"Processing video request: odd=silent", timeout=30)
            # Another client meanwhile is served in full.
            result, path = device.download("file=sample.bin")
            self.assert_sample(result, path)
            out, err = silent.communicate(timeout=180)
        finally:
            if silent.poll() is None:
                silent.kill()
                silent.wait()
        self.assertEqual(silent.returncode, 0, out + err)
        self.assertIn("bytes=0 ", out)
        self.assertIn("end=complete", out)
        device.ferrule.wait_for(r"\[ferrule\] Video request error")

    def test_client_vanishing_mid_transfer_closes_the_relay_once(self):
        device = self.start()
        client = subprocess.Popen(device.client_argv("file=sample.bin", os.path.join(self.work, "vanishing"),
                                                     "--rate", "2M"),
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            device.ferrule.wait_for(r"Got video response: 200", timeout=60)
            time.sleep(2)
        finally:
            client.send_signal(signal.SIGKILL)
            client.wait()
        self.assertEqual(device.ferrule.matching(ALL_CLOSED), [])
        started = time.monotonic()
        # The device notices when SCTP gives up retransmitting (about 50 s).
        device.ferrule.wait_for(ALL_CLOSED, timeout=120)
        print("relay closed %.1f s after the client vanished" % (time.monotonic() - started))
        time.sleep(3)
        self.assertEqual(len(device.ferrule.matching(SCTP_FAILURES)), 1, device.ferrule.matching(SCTP_FAILURES))
        self.assertEqual(len(device.ferrule.matching(ALL_CLOSED)), 1)

    def test_idle_session_closes_after_30_s_and_leaves_nothing(self):
        device = self.start()
        pid = device.ferrule.proc.pid
        before = self.resources(pid)
        result = run_client(P2PCLIENT, DEVICE_URL, command=device.net.client.command, stun=DOMAIN, verbose=False)
        self.assertEqual(result.status, 0, result)
        device.ferrule.wait_for(r"\[ferrule\] New session established: ")
        # The session's UDP sockets.
        self.assertGreater(self.resources(pid).get("socket", 0), before.get("socket", 0))
        device.ferrule.wait_for(r"\[ferrule\] No incoming connection for 30s, closing$", timeout=45)
        device.ferrule.wait_for(r"Deregistering address 0x", timeout=5)
        deadline = time.monotonic() + 5
        while self.resources(pid) != before and time.monotonic() < deadline:
            time.sleep(0.1)
        self.assertEqual(self.resources(pid), before)
        log = device.ferrule
        self.assertEqual(len(log.matching(r"Registering address 0x")), len(log.matching(r"Deregistering address 0x")))
        opened = len(log.matching(r"(Created|Using existing) socket 0x"))
        self.assertEqual(opened, len(log.matching(r"Closing socket 0x")))

    def resources(self, pid):
        """The daemon's descriptors by kind. TCP sockets are left out: the
        relay exchange and the pool to the target keep connections of their
        own in time."""
        tcp = set()
        for table in ("tcp", "tcp6"):
            with open("/proc/%d/net/%s" % (pid, table)) as f:
                tcp |= {line.split()[9] for line in f.read().splitlines()[1:]}
        kinds = {}
        for name in os.listdir("/proc/%d/fd" % pid):
            try:
                target = os.readlink("/proc/%d/fd/%s" % (pid, name))
            except OSError:
                continue
            inode = re.match(r"socket:\[(\d+)\]", target)
            if inode and inode.group(1) in tcp:
                continue
            kind = "file" if target.startswith("/") else re.sub(r"[:\[].*", "", target)
            kinds[kind] = kinds.get(kind, 0) + 1
        return kinds

    # ---- memory with a slow reader

    def test_slow_client_keeps_the_daemon_small(self):
        device = self.start()
        pid = device.ferrule.proc.pid
        with open("/proc/%d/clear_refs" % pid, "w") as f:
            f.write("5")  # the peak starts again from here
        before = self.rss_kb(pid)
        result, path = device.download("file=sample.bin", "--rate", "4M", timeout=30)
        self.assert_sample(result, path)
        peak = self.peak_rss_kb(pid)
        print("daemon RSS before %d kB, peak %d kB during 100 MB read at 4 MiB/s" % (before, peak))
        # The body is held back in nginx, not in the daemon.
        self.assertLess(peak - before, 24 * 1024)

    def rss_kb(self, pid, field="VmRSS:"):
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                if line.startswith(field):
                    return int(line.split()[1])
        return 0

    def peak_rss_kb(self, pid):
        return self.rss_kb(pid, "VmHWM:")


def main():
    global FERRULE, DEVRELAY, P2PCLIENT, SAMPLE
    if len(sys.argv) < 4:
        sys.exit("usage: p2p_test.py FERRULE DEVRELAY P2PCLIENT [unittest arguments]")
    FERRULE, DEVRELAY, P2PCLIENT = (os.path.abspath(path) for path in sys.argv[1:4])
    sample_work = tempfile.mkdtemp(prefix="ferrule-p2p-sample-")
    try:
        SAMPLE = make_sample(sample_work)
        program = unittest.main(argv=[sys.argv[0]] + sys.argv[4:], verbosity=2, exit=False)
    finally:
        shutil.rmtree(sample_work, ignore_errors=True)
    sys.exit(0 if program.result.wasSuccessful() else 1)


if __name__ == "__main__":
    main()
