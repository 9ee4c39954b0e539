#!/usr/bin/env python3
"""The demo of scripts/demo.sh (its part after the build): it prints the
sample page fetched through the relay and ferrule-p2pclient's summary of the
sample video streamed peer to peer, and whether it ends by itself
(DEMO_SECONDS) or by SIGINT, twice in a row, it stops every program it
started and leaves no namespace, /etc/netns entry or work directory behind.
Needs root."""
import os
import re
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "scripts"))
from harness.logged_process import LoggedProcess  # noqa: E402

DEMO = FERRULE = DEVRELAY = P2PCLIENT = None
PAGE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "scripts", "demo", "www",
                    "index.html")


class Demo(unittest.TestCase):
    def start(self, env):
        return subprocess.Popen([sys.executable, DEMO, FERRULE, DEVRELAY, P2PCLIENT], stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, env=dict(os.environ, **env))

    def check_cleaned_up(self, output):
        namespaces = re.search(r"network namespaces ((?:fe-demo-\d+-\w+ )+)", output).group(1).split()
        self.assertEqual(len(namespaces), 3, output)
        work = re.search(r"work directory (\S+)", output).group(1)
        pids = [int(pid) for pid in re.findall(r"\(pid (\d+)\)", output)]
        self.assertGreaterEqual(len(set(pids)), 5, output)
        listed = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout.split()
        for namespace in namespaces:
            self.assertNotIn(namespace, listed)
            self.assertFalse(os.path.exists("/etc/netns/" + namespace))
        self.assertFalse(os.path.exists(work))
        for pid in set(pids):
            self.assertFalse(os.path.exists("/proc/%d" % pid), "pid %d still runs\n%s" % (pid, output))

    def test_runs_for_demo_seconds_then_cleans_up(self):
        demo = self.start({"DEMO_SECONDS": "2"})
        output, _ = demo.communicate(timeout=90)
        self.assertEqual(demo.returncode, 0, output)
        with open(PAGE) as f:
            self.assertIn(f.read(), output)
        size = re.search(r"sample video /video.vdo of (\d+) bytes", output).group(1)
        self.assertRegex(output, r"\ndownload port=\d+ bytes=%s .* end=complete\n" % size)
        self.assertIn("the video arrived byte for byte: %s bytes" % size, output)
        self.assertIn("ip netns exec fe-demo-", output)
        self.assertIn("ferrule stopped with status 0", output)
        self.check_cleaned_up(output)

    def test_two_interrupts_still_clean_up(self):
        with tempfile.TemporaryDirectory(prefix="ferrule-demo-test-") as log_dir:
            demo = LoggedProcess("demo", [sys.executable, DEMO, FERRULE, DEVRELAY, P2PCLIENT], log_dir)
            try:
                demo.wait_for(r"Ctrl-C stops everything", timeout=90)
                demo.proc.send_signal(signal.SIGINT)
                # The second one lands while the clean-up is under way.
                demo.wait_for(r"^demo: stopping$", timeout=30)
                demo.proc.send_signal(signal.SIGINT)
                demo.proc.wait(60)
            finally:
                demo.stop()  # only if it still runs: SIGINT, then SIGKILL after 10 s
        output = "\n".join(demo.lines) + "\n"
        self.assertEqual(demo.proc.returncode, 0, output)
        self.assertIn("still stopping, please wait", output)
        self.assertIn("ferrule stopped with status 0", output)
        self.check_cleaned_up(output)

if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit("usage: demo_test.py RUN_DEMO FERRULE DEVRELAY P2PCLIENT")
    if os.geteuid() != 0:
        sys.exit("demo_test.py needs root")
    DEMO, FERRULE, DEVRELAY, P2PCLIENT = sys.argv[1:]
    unittest.main(argv=sys.argv[:1], verbosity=2)
