#!/usr/bin/env python3
"""Video over SCTP end to end: ferrule-p2pclient opens an ICE session with
ferrule through the dev relay, associates SCTP on the pair and sends a video
query; ferrule fetches "/video.vdo?" + query from nginx (its target, in the
device's namespace) and streams the body back.

The device and its answers to "/video.vdo?" queries are harness.video_device's;
"file=sample.bin" is a 100 MB random sample made once per run.

    p2p_test.py FERRULE DEVRELAY P2PCLIENT [unittest arguments]

Needs root. Namespaces, their /etc/netns entries and every process are gone
afterwards, also when a case fails."""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "..", "scripts"))
from harness import topology  # noqa: E402
from harness.digest import file_sha256  # noqa: E402
from harness.p2p_client import run_client  # noqa: E402
from harness.proc_figures import reset_peak_rss, status_field  # noqa: E402
from harness.video_device import (DEVICE_URL, DOMAIN, SAMPLE_SIZE, Binaries, Device,  # noqa: E402
                                   make_sample)

BINARIES = SAMPLE = None  # set by main(); SAMPLE is (path, sha256), made once per run

# A stream relay that ended because of its SCTP side.
SCTP_FAILURES = r"\[ferrule\] (Stream disconnected|SCTP send error)"
# Its client connection's one note that its last relay closed.
ALL_CLOSED = r"\[ferrule\] All connections closed, starting idle timer"



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
        self.device = Device(shape, self.work, BINARIES, SAMPLE)
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
        # The device notices when SCTP gives up retransmitting (about 10 s).
        device.ferrule.wait_for(ALL_CLOSED, timeout=120)
        print("relay closed %.1f s after the client vanished" % (time.monotonic() - started))
        time.sleep(3)
        self.assertEqual(len(device.ferrule.matching(SCTP_FAILURES)), 1, device.ferrule.matching(SCTP_FAILURES))
        self.assertEqual(len(device.ferrule.matching(ALL_CLOSED)), 1)

    def test_idle_session_closes_after_30_s_and_leaves_nothing(self):
        device = self.start()
        pid = device.ferrule.proc.pid
        before = self.resources(pid)
        result = run_client(BINARIES.p2pclient, DEVICE_URL, command=device.net.client.command, stun=DOMAIN, verbose=False)
        self.assertEqual(result.status, 0, result)
        device.ferrule.wait_for(r"\[ferrule\] New session established: ")
        # The session's UDP sockets.
        self.assertGreater(self.resources(pid).get("socket", 0), before.get("socket", 0))
        device.ferrule.wait_for(r"\[ferrule\] No incoming connection for 30s, closing$", timeout=45)
        device.ferrule.wait_for(r"Deregistering address 0x", timeout=5)
        # Judged on one reading: a connection being opened to the relay is a
        # socket for a moment before it shows in the TCP table.
        deadline = time.monotonic() + 5
        now = self.resources(pid)
        while now != before and time.monotonic() < deadline:
            time.sleep(0.1)
            now = self.resources(pid)
        self.assertEqual(now, before)
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
        reset_peak_rss(pid)
        before = status_field(pid, "VmRSS")
        result, path = device.download("file=sample.bin", "--rate", "4M", timeout=30)
        self.assert_sample(result, path)
        peak = status_field(pid, "VmHWM")
        print("daemon RSS before %d kB, peak %d kB during 100 MB read at 4 MiB/s" % (before, peak))
        # The body is held back in nginx, not in the daemon.
        self.assertLess(peak - before, 24 * 1024)


def main():
    global BINARIES, SAMPLE
    if len(sys.argv) < 4:
        sys.exit("usage: p2p_test.py FERRULE DEVRELAY P2PCLIENT [unittest arguments]")
    BINARIES = Binaries(*(os.path.abspath(path) for path in sys.argv[1:4]))
    sample_work = tempfile.mkdtemp(prefix="ferrule-p2p-sample-")
    try:
        SAMPLE = make_sample(sample_work)
        program = unittest.main(argv=[sys.argv[0]] + sys.argv[4:], verbosity=2, exit=False)
    finally:
        shutil.rmtree(sample_work, ignore_errors=True)
    sys.exit(0 if program.result.wasSuccessful() else 1)


if __name__ == "__main__":
    main()
