#!/usr/bin/env python3
"""ferrule's peer-to-peer path end to end, against libnice: ferrule-p2pclient
posts its candidates to "/sg/sessions" through ferrule-devrelay, ferrule
answers with its own and runs the checks as the controlling side, libnice as
the controlled one. The device (ferrule, nginx as its target) and the relay
side (dev relay, coturn as the STUN server) are harness.video_device's, on a
network of namespaces of one of the shapes of harness.topology:
    flat             one dual-stack LAN; host pairs win
    device_behind_nat  ferrule behind a masquerading router, the client public
    both_behind_nat  each behind its own NAT with address- and port-dependent
                     filtering; only hole-punched reflexive pairs work

IceSessions: on each shape, ferrule's candidate lines, "ICE session
established", and that libnice selected the pair ferrule nominated, seen
through the NATs. Refusals and silent peers are the unit tests' and
ferrule-p2pclient's cases.

VideoOverSctp: the client associates SCTP on the pair and sends a video
query; ferrule fetches "/video.vdo?" + query from nginx and streams the body
back. "file=sample.bin" is a 100 MB random sample made once per run.

SessionFlood: a few hundred session requests from silent clients while a
client streams: ferrule's descriptors and memory stay bounded and come back,
the stream arrives whole, and the next client is served.

    p2p_test.py FERRULE DEVRELAY P2PCLIENT [unittest arguments]

Needs root. Namespaces, their /etc/netns entries and every process are gone
afterwards, also when a case fails."""
import calendar
import contextlib
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "..", "scripts"))
from harness import topology  # noqa: E402
from harness.digest import file_sha256  # noqa: E402
from harness.p2p_client import ClientResult, run_client  # noqa: E402
from harness.proc_figures import (assert_settles_at, descriptor_kinds, reset_peak_rss, settled,  # noqa: E402
                                  status_field)
from harness.stepped_clock import CACHE_SECONDS, SteppedClock  # noqa: E402
from harness.video_device import (DEVICE_URL, DOMAIN, SAMPLE_SIZE, Binaries, Device,  # noqa: E402
                                   make_sample)
from harness.waiting import wait_until  # noqa: E402

BINARIES = SAMPLE_WORK = None  # set by main()
SAMPLE = None  # (path, sha256), made once per run by sample()

# One address with port as ferrule and the client print it: a.b.c.d:p or [v6]:p
ADDRESS = r"(?:\d+\.\d+\.\d+\.\d+|\[[0-9a-f:]+\]):\d+"

# A stream relay that ended because of its SCTP side.
SCTP_FAILURES = r"\[ferrule\] (Stream disconnected|SCTP send error)"
# Its client connection's one note that its last relay closed.
ALL_CLOSED = r"\[ferrule\] All connections closed, starting idle timer"


def sample():
    global SAMPLE
    if SAMPLE is None:
        SAMPLE = make_sample(SAMPLE_WORK)
    return SAMPLE


class DeviceCase(unittest.TestCase):
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

    def start(self, shape=topology.flat, files=None, ferrule_options=(), **options):
        """files: what nginx serves under "file=" (default: the sample);
        options: Device's."""
        self.device = Device(shape, self.work, BINARIES, files or sample(), ferrule_options=ferrule_options, **options)
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
        self.assertEqual(file_sha256(path), sample()[1])


class IceSessions(DeviceCase):
    def start(self, shape):
        empty = os.path.join(self.work, "empty.bin")
        open(empty, "w").close()
        return super().start(shape, (empty, ""), ("-l", "6"))

    def connect(self):
        """Runs the client to its end; returns its ClientResult."""
        return run_client(BINARIES.p2pclient, DEVICE_URL, command=self.device.net.client.command, stun=DOMAIN,
                          extra=("--send", "3", "--hold", "1"))

    # ---- what ferrule logged

    def ferrule_pair(self):
        """(local, remote) of "ICE session established: %s <-> %s"."""
        line = self.device.ferrule.wait_for(r"ICE session established: ", timeout=30)[0]
        match = re.search(r"ICE session established: (%s) <-> (%s)$" % (ADDRESS, ADDRESS), line)
        self.assertIsNotNone(match, line)
        return match.group(1), match.group(2)

    def local_candidates(self):
        return [re.search(r"Adding local candidate (\S+) with preference \d+$", line).group(1)
                for line in self.device.ferrule.matching(r"Adding local candidate \S+ with preference \d+$")]

    def reflexive_candidates(self):
        """{server-reflexive address: its base}"""
        found = {}
        for line in self.device.ferrule.matching(r"Adding server reflexive candidate \S+ with base \S+$"):
            match = re.search(r"Adding server reflexive candidate (\S+) with base (\S+)$", line)
            found[match.group(1)] = match.group(2)
        return found

    def public_faces(self, local):
        """Where packets from ferrule's local address appear to come from:
        itself, the server-reflexive candidates based on it, and the mapped
        addresses of its successful checks."""
        faces = {local} | {address for address, base in self.reflexive_candidates().items() if base == local}
        for line in self.device.ferrule.matching(r"Check succeeded: \[%s, " % re.escape(local)):
            faces.add(line.rsplit("mapped address is ", 1)[1].strip())
        return faces

    def assert_same_pair(self, client):
        """libnice selected the pair ferrule nominated: ferrule's remote is
        where the client's packets come from, the client's remote is a
        public face of ferrule's local address."""
        self.assertEqual(client.status, 0, client)
        local, remote = self.ferrule_pair()
        self.device.ferrule.wait_for(r"Sending final check for nominated pair \[%s, %s\]"
                                      % (re.escape(local), re.escape(remote)), timeout=1)
        self.assertEqual(remote, client.pair["local"], client)
        self.assertIn(client.pair["remote"], self.public_faces(local), client)
        return local, remote

    def address_part(self, address):
        return address.rsplit(":", 1)[0].strip("[]")

    def base_of(self, local):
        """The host address under ferrule's local candidate."""
        return self.reflexive_candidates().get(local, local)

    # ---- the three networks

    def test_flat_dual_stack_host_pair(self):
        session = self.start(topology.flat)
        client = self.connect()
        local, remote = self.assert_same_pair(client)
        self.assertEqual((client.pair["local-type"], client.pair["remote-type"]), ("host", "host"), client)
        self.assertIn(self.address_part(local), session.net.device_addresses)
        self.assertIn(self.address_part(remote), session.net.client_addresses)
        # Both families gathered, nothing else (no loopback, no link-local).
        session.ferrule.wait_for(r"Finished gathering candidates")
        gathered = sorted({self.address_part(candidate) for candidate in self.local_candidates()})
        self.assertEqual(gathered, sorted(session.net.device_addresses))
        self.assertEqual(client.datagrams["sent"], 3, client)

    def test_device_behind_nat(self):
        self.start(topology.device_behind_nat)
        client = self.connect()
        local, remote = self.assert_same_pair(client)
        reflexive = self.reflexive_candidates()
        self.assertTrue(any(self.address_part(address) == "198.19.0.2" and self.address_part(base) == "198.18.1.2"
                            for address, base in reflexive.items()), reflexive)
        # ferrule names the pair by its public face, which is what libnice saw.
        self.assertEqual(self.address_part(local), "198.19.0.2")
        self.assertEqual(self.address_part(self.base_of(local)), "198.18.1.2")
        self.assertEqual(remote, "198.19.0.3:" + client.pair["local"].rsplit(":", 1)[1])
        self.assertEqual(client.pair["local-type"], "host", client)
        self.assertIn(client.pair["remote-type"], ("srflx", "prflx"), client)

    def test_both_behind_nat_hole_punched(self):
        self.start(topology.both_behind_nat)
        client = self.connect()
        local, remote = self.assert_same_pair(client)
        self.assertEqual(self.address_part(local), "198.19.0.2")  # the device's NAT
        self.assertEqual(self.address_part(self.base_of(local)), "198.18.1.2")
        self.assertEqual(self.address_part(remote), "198.19.0.4")  # the client's NAT
        self.assertIn(client.pair["local-type"], ("srflx", "prflx"), client)
        self.assertIn(client.pair["remote-type"], ("srflx", "prflx"), client)


class VideoOverSctp(DeviceCase):
    # ---- the video arrives

    def test_short_answers_arrive_and_end_each_relay_cleanly(self):
        device = self.start()
        for query, body, status in [("cam=2&t=10%2C5", b"query=cam=2&t=10%2C5\n", "200 OK"),
                                    ("status=404", b"no such video\n", "404 Not Found"), ("empty=1", b"", "200 OK")]:
            mark = device.ferrule.mark()
            result, path = device.download(query)
            self.assert_body(result, path, body)
            device.ferrule.wait_for(r"\[ferrule\] Processing video request: %s$" % re.escape(query), start=mark)
            device.ferrule.wait_for(r"\[ferrule\] Got video response: %s$" % status, start=mark)
            device.ferrule.wait_for(r"\[ferrule\] Response data stream is finished$", start=mark)
        mark = device.ferrule.mark()
        result, path = device.download("odd=early")
        self.assert_complete(result)
        self.assertLess(result.downloads[0]["bytes"], 10000000, result)
        device.ferrule.wait_for(r"\[ferrule\] Video request error", start=mark)
        device.ferrule.wait_for(ALL_CLOSED, start=mark)
        self.assertEqual(device.ferrule.matching(SCTP_FAILURES), [])

    def test_100_mb_byte_exact_flat(self):
        device = self.start()
        result, path = device.download("file=sample.bin")
        self.assert_sample(result, path)

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
            self.assertEqual(file_sha256("%s.%d" % (path, index)), sample()[1])
        device.ferrule.wait_for(r"\[ferrule\] Got new SCTP connection from ", count=2)
        # The client has its end of stream only after these lines were
        # logged, but they may reach us a moment after it has exited.
        device.ferrule.wait_for(r"\[ferrule\] Response data stream is finished$", count=2)
        # Both ran at once: the second arrived before the first had ended.
        lines = device.ferrule.lines
        second = [i for i, line in enumerate(lines) if "Got new SCTP connection" in line][1]
        first_end = [i for i, line in enumerate(lines) if "Response data stream is finished" in line][0]
        self.assertLess(second, first_end)

    # ---- what the device ignores or survives

    def test_second_query_and_garbage_datagrams_during_a_transfer_change_nothing(self):
        device = self.start()
        query = "file=sample.bin"
        result, path = device.download(query, "--resend-query-at", "1M", "--garbage", "400", "--rate", "50M")
        self.assert_sample(result, path)
        device.ferrule.wait_for(r"\[ferrule\] Received unexpected data \(%d bytes\)$" % len(query))
        self.assertEqual(len(device.ferrule.matching(r"Processing video request")), 1)
        self.assertEqual(device.ferrule.matching(SCTP_FAILURES), [])
        # The device still serves the next client.
        again, _ = device.download("after=garbage")
        self.assert_complete(again)

    def test_silent_target_ends_that_relay_only_and_a_slow_reader_keeps_the_daemon_small(self):
        device = self.start()
        pid = device.ferrule.proc.pid
        silent = subprocess.Popen(device.client_argv("odd=silent", os.path.join(self.work, "silent"), timeout=120),
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            device.ferrule.wait_for(r"Processing video request: odd=silent", timeout=30)
            reset_peak_rss(pid)
            # Within a few pages: the bound below is megabytes.
            before = settled(lambda: status_field(pid, "VmRSS"), "ferrule's VmRSS before the download", tolerance=64)
            # Another client meanwhile is served in full.
            result, path = device.download("file=sample.bin", "--rate", "4M", timeout=30)
            self.assert_sample(result, path)
            peak = settled(lambda: status_field(pid, "VmHWM"), "ferrule's VmHWM after the download")
            out, err = silent.communicate(timeout=180)
        finally:
            if silent.poll() is None:
                silent.kill()
                silent.wait()
        print("daemon RSS before %d kB, peak %d kB during 100 MB read at 4 MiB/s" % (before, peak))
        # The body is held back in nginx, not in the daemon.
        self.assertLess(peak - before, 24 * 1024)
        self.assertEqual(silent.returncode, 0, out + err)
        self.assertIn("bytes=0 ", out)
        self.assertIn("end=complete", out)
        device.ferrule.wait_for(r"\[ferrule\] Video request error")

    # ---- how relays end

    def test_client_vanishing_mid_transfer_closes_the_relay_once(self):
        device = self.start()
        output = os.path.join(self.work, "vanishing")
        client = subprocess.Popen(device.client_argv("file=sample.bin", output, "--rate", "2M"),
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            device.ferrule.wait_for(r"Got video response: 200", timeout=60)
            # Mid-transfer: a megabyte of the hundred has arrived.
            wait_until(lambda: os.path.exists(output) and os.path.getsize(output) >= 1 << 20,
                       "first megabyte at the client", timeout=60)
        finally:
            client.send_signal(signal.SIGKILL)
            client.wait()
        self.assertEqual(device.ferrule.matching(ALL_CLOSED), [])
        started = time.monotonic()
        # The device notices when SCTP gives up retransmitting (about 10 s).
        device.ferrule.wait_for(ALL_CLOSED, timeout=120)
        print("relay closed %.1f s after the client vanished" % (time.monotonic() - started))
        # Its failure line came before, in the same event. A second close
        # would follow at once: three quiet seconds show there is none.
        time.sleep(3)
        self.assertEqual(len(device.ferrule.matching(SCTP_FAILURES)), 1, device.ferrule.matching(SCTP_FAILURES))
        self.assertEqual(len(device.ferrule.matching(ALL_CLOSED)), 1)

    def test_idle_session_closes_after_30_s_and_leaves_nothing(self):
        device = self.start()
        pid = device.ferrule.proc.pid
        # TCP sockets are left out: the relay exchange and the pool to the
        # target keep connections of their own in time.
        descriptors = lambda: descriptor_kinds(pid, without_tcp=True)  # noqa: E731
        before = settled(descriptors, "ferrule's descriptors before the session")
        result = run_client(BINARIES.p2pclient, DEVICE_URL, command=device.net.client.command, stun=DOMAIN, verbose=False)
        self.assertEqual(result.status, 0, result)
        device.ferrule.wait_for(r"\[ferrule\] New session established: ")
        # The session's UDP sockets.
        during = settled(descriptors, "ferrule's descriptors during the session")
        self.assertGreater(during.get("socket", 0), before.get("socket", 0), (before, during))
        device.ferrule.wait_for(r"\[ferrule\] No incoming connection for 30s, closing$", timeout=45)
        device.ferrule.wait_for(r"Deregistering address 0x", timeout=5)
        assert_settles_at(descriptors, before, "ferrule's descriptors after the session closed")
        # Every address and socket of the stack that was made was closed; the
        # lines may reach us a moment after the descriptors have gone.
        log = device.ferrule
        log.wait_for(r"Deregistering address 0x", count=len(log.matching(r"Registering address 0x")), timeout=5)
        log.wait_for(r"Closing socket 0x", count=len(log.matching(r"(Created|Using existing) socket 0x")), timeout=5)
        self.assertEqual(len(log.matching(r"Registering address 0x")), len(log.matching(r"Deregistering address 0x")))
        opened = len(log.matching(r"(Created|Using existing) socket 0x"))
        self.assertEqual(opened, len(log.matching(r"Closing socket 0x")))


def main():
    global BINARIES, SAMPLE_WORK
    if len(sys.argv) < 4:
        sys.exit("usage: p2p_test.py FERRULE DEVRELAY P2PCLIENT [unittest arguments]")
    BINARIES = Binaries(*(os.path.abspath(path) for path in sys.argv[1:4]))
    SAMPLE_WORK = tempfile.mkdtemp(prefix="ferrule-p2p-sample-")
    try:
        program = unittest.main(argv=[sys.argv[0]] + sys.argv[4:], verbosity=2, exit=False)
    finally:
        shutil.rmtree(SAMPLE_WORK, ignore_errors=True)
    sys.exit(0 if program.result.wasSuccessful() else 1)


class WallClockSteps(DeviceCase):
    """ferrule's wall clock stepped under it, as NTP steps a board's: only log
    dates and certificate checks may notice."""

    def relayed(self, device, number):
        """One request through the relay to nginx; returns the body."""
        argv = device.net.client.command("curl", "-sS", "--noproxy", "*", "--max-time", "30",
                                         "%s/video.vdo?relayed=%d" % (DEVICE_URL, number))
        return subprocess.run(argv, capture_output=True, text=True, timeout=60).stdout

    def await_step(self, device, seconds):
        """Relays requests until ferrule's log dates show its clock `seconds`
        off the true time; every one of them must be answered."""
        for number in range(4 * CACHE_SECONDS * 10):
            mark = device.ferrule.mark()
            self.assertEqual(self.relayed(device, number), "query=relayed=%d\n" % number)
            line = device.ferrule.wait_for(r"Got target response", start=mark)[0]
            logged = calendar.timegm(time.strptime(line[:19], "%Y-%m-%d %H:%M:%S"))
            if abs(logged - time.time() - seconds) < 60:
                return
            time.sleep(0.25)
        self.fail("ferrule's wall clock never took the step to %+d s" % seconds)

    @contextlib.contextmanager
    def udp_lost(self, device, seconds):
        """Every UDP packet the client sends is dropped for at least `seconds`
        while the block runs."""
        rules = os.path.join(self.work, "loss.nft")
        with open(rules, "w") as f:
            f.write("table inet loss {\n chain out {\n  type filter hook output priority 0;\n"
                    "  meta l4proto udp drop\n }\n}\n")
        nft = lambda *args: subprocess.run(device.net.client.command("nft", *args), check=True, timeout=10)
        nft("-f", rules)
        began = time.monotonic()
        try:
            yield
            time.sleep(max(0.0, seconds - (time.monotonic() - began)))  # the loss lasts its time
        finally:
            nft("delete", "table", "inet", "loss")

    def test_steps_back_and_forward_mid_transfer_and_between_sessions(self):
        clock = SteppedClock(self.work)
        device = self.start(ferrule_wrapper=clock.wrapper())
        for offset, seconds in (("-3600", -3600), ("+0", 0)):
            # Mid-transfer: the video in flight goes on untouched.
            mark = device.ferrule.mark()
            output = os.path.join(self.work, "in-flight")
            client = subprocess.Popen(device.client_argv("file=sample.bin", output, "--rate", "10M", timeout=30),
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            try:
                device.ferrule.wait_for(r"\[ferrule\] Got video response: 200", start=mark, timeout=60)
                # With packets lost around the step, so that the SCTP stack
                # has to retransmit what it sent before it.
                with self.udp_lost(device, seconds=3):
                    clock.set(offset)
                    self.await_step(device, seconds)
                out, err = client.communicate(timeout=120)
            finally:
                if client.poll() is None:
                    client.kill()
                    client.wait()
            self.assert_sample(ClientResult(client.returncode, out, err), output)
            # Between sessions: a new one checks, establishes and streams.
            mark = device.ferrule.mark()
            result, path = device.download("file=sample.bin")
            self.assert_sample(result, path)
            device.ferrule.wait_for(r"\[connreqhandler\] ICE session established", start=mark)
            self.assertEqual(self.relayed(device, 1000), "query=relayed=1000\n")
        self.assertEqual(device.ferrule.matching(r"timed out"), [])

    def test_boot_years_behind_registers_within_the_back_off_once_the_clock_is_set(self):
        clock = SteppedClock(self.work, "-2000d")
        device = self.start(ferrule_wrapper=clock.wrapper(), registered=False)
        device.ferrule.wait_for(r"certificate is not yet valid", timeout=30)
        clock.set("+0")
        set_right = time.monotonic()
        device.ferrule.wait_for(r"\[revhttp\] Registration succeeded", timeout=40)
        print("registered %.1f s after the clock was set" % (time.monotonic() - set_right))
        self.assertEqual(self.relayed(device, 1), "query=relayed=1\n")


class SessionFlood(DeviceCase):
    """Session requests from silent clients, as a retry loop or a hostile
    party sends them, while a real client streams and another one comes:
    ferrule holds at most 16 sessions at once, ending a session not yet
    established for each newcomer, so its descriptors and memory stay
    bounded; the streaming client never notices, and the newcomers during
    and after the flood are served."""

    # Session requests: at least this many, and on until the client that
    # comes during the flood is done, at most MAX_FLOOD.
    MIN_FLOOD = 300
    MAX_FLOOD = 2000
    RATE = 50  # a second, as a retry loop of a few clients sends them
    AT_ONCE = 16  # in flight at most
    MAX_SESSIONS = 16  # ferrule's bound
    MARGIN = 6  # descriptors open for a moment (a name lookup, a log file)
    RSS_GROWTH_KB = 4 * 1024

    def descriptors(self, pid):
        return sum(descriptor_kinds(pid, without_tcp=True).values())

    def test_silent_flood_while_a_client_streams(self):
        device = self.start()
        pid = device.ferrule.proc.pid
        output = os.path.join(self.work, "streamed")
        # Slowed down so that it streams through the whole flood, and until
        # the session of the client during the flood has closed.
        streaming = subprocess.Popen(device.client_argv("file=sample.bin", output, "--rate", "2M", timeout=30),
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        flood = None
        try:
            device.ferrule.wait_for(r"\[ferrule\] Got video response: 200", timeout=60)
            # Its session's sockets are part of the baseline.
            before = settled(lambda: self.descriptors(pid), "ferrule's descriptors")
            reset_peak_rss(pid)
            time.sleep(2)
            rss_before = status_field(pid, "VmHWM")
            reset_peak_rss(pid)
            peak = [before]
            sampling = threading.Event()

            def sample():
                while not sampling.is_set():
                    peak[0] = max(peak[0], self.descriptors(pid))
                    time.sleep(0.01)
            sampler = threading.Thread(target=sample)
            sampler.start()
            try:
                mark = device.ferrule.mark()
                flood = subprocess.Popen(
                    device.net.client.command(sys.executable, os.path.join(HERE, "silent_clients.py"), DEVICE_URL,
                                              device.net.client_addresses[0], str(self.MIN_FLOOD), str(self.MAX_FLOOD),
                                              str(self.RATE), str(self.AT_ONCE)),
                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
                device.ferrule.wait_for(r"Session limit of 16 reached, ending a session not yet established", start=mark, timeout=30)
                during, during_path = device.download("during=flood", name="during")
                self.assert_body(during, during_path, b"query=during=flood\n")
                flood.stdin.write("stop\n")
                flood.stdin.flush()
                answers = flood.stdout.readline().split()
                # The flood's last sessions end when their checks do (9 s at
                # most); the session of the client during the flood stays
                # until its idle close.
                per_session = len(device.net.device_addresses)  # one UDP socket per local address
                assert_settles_at(lambda: self.descriptors(pid), before + per_session, "ferrule's descriptors",
                                  timeout=20)
            finally:
                sampling.set()
                sampler.join()
            after = assert_settles_at(lambda: self.descriptors(pid), before, "ferrule's descriptors", timeout=45)
            rss_peak = status_field(pid, "VmHWM")
            rss_after = settled(lambda: status_field(pid, "VmRSS"), "ferrule's VmRSS", tolerance=64)
            flood.stdin.close()
            flood.wait(timeout=30)
            out, err = streaming.communicate(timeout=180)
        finally:
            for process in (streaming, flood):
                if process is not None and process.poll() is None:
                    process.kill()
                    process.wait()
        print("flood of silent session requests: %s" % " ".join(answers))
        print("ferrule's descriptors before %d, peak %d, after %d; RSS before %d kB, peak %d kB, after %d kB"
              % (before, peak[0], after, rss_before, rss_peak, rss_after))
        fields = dict(answer.split("=") for answer in answers[1:])
        self.assertEqual(int(fields["201"]) + int(fields["503"]), int(fields["sent"]), answers)
        self.assertGreaterEqual(int(fields["sent"]), self.MIN_FLOOD, answers)
        self.assertLessEqual(peak[0], before + per_session * self.MAX_SESSIONS + self.MARGIN)
        self.assertLessEqual(rss_peak - rss_before, self.RSS_GROWTH_KB)
        self.assertLessEqual(rss_after - rss_before, self.RSS_GROWTH_KB)
        # Established sessions were never in the way of the flood.
        self.assertEqual(device.ferrule.matching(r"refusing new session"), [])
        self.assert_sample(ClientResult(streaming.returncode, out, err), output)
        # A new client right after the flood gets its video.
        result, path = device.download("after=flood", name="after")
        self.assert_body(result, path, b"query=after=flood\n")


if __name__ == "__main__":
    main()
