#!/usr/bin/env python3
"""Runs the built daemon: its usage, exit statuses and output streams for the
command line (the messages are the unit tests'), log settings, SIGINT."""
import os
import re
import signal
import subprocess
import sys
import threading
import unittest

BINARY = None
USAGE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "unit", "app", "usage.txt")
LOG_LINE = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [A-Z]+ ")


def run(*args, timeout=10):
    return subprocess.run([BINARY, *args], capture_output=True, text=True, timeout=timeout)


class CommandLine(unittest.TestCase):
    def test_statuses_and_streams(self):
        usage = run("-h")
        self.assertEqual((usage.returncode, usage.stderr), (0, ""))
        with open(USAGE) as f:
            self.assertEqual(usage.stdout, f.read())
        for args, message in [([], "Please specify a relay URL base\n\n"), (["-r"], "-r: Please specify a relay URL base\n"),
                              (["-q", "-h"], "Unknown argument: -q\n\n")]:
            result = run(*args)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (1, "", "ferrule: " + message + usage.stdout))

    def test_non_integer_level_ends_abnormally(self):
        result = run("-r", "relay.example", "-s", "stun.example", "-l", "ferrule:x")
        self.assertLess(result.returncode, 0)  # killed by a signal, not a friendly exit
        self.assertNotIn("Please specify", result.stderr)

    def test_sigint_ends_with_status_zero_after_announcing_log_settings(self):
        process = subprocess.Popen([BINARY, "-r", "relay.localhost", "-s", "localhost", "-l", "7", "-l", "revhttp:6",
                                    "-l", ":4"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(lambda: process.poll() is None and process.kill())
        lines, logging = [], threading.Event()

        def collect():
            for line in process.stdout:
                lines.append(line.rstrip("\n"))
                if LOG_LINE.match(line):
                    logging.set()

        reader = threading.Thread(target=collect, daemon=True)
        reader.start()
        # Its first log line (the missing registration file) comes from the
        # running loop, which is what SIGINT stops; one sent before it can
        # land while the daemon is still starting up.
        self.assertTrue(logging.wait(15), "no log line within 15 s; output so far: %r" % lines)
        self.assertIsNone(process.poll(), "daemon ended before SIGINT")
        process.send_signal(signal.SIGINT)
        process.wait(15)
        reader.join(5)
        stderr = process.stderr.read()
        self.assertEqual((process.returncode, stderr), (0, ""))
        self.assertEqual([line for line in lines if not LOG_LINE.match(line)],
                         ["Setting global log level to 7", "Setting log revhttp to level 6", "Setting global log level to 4"])


if __name__ == "__main__":
    BINARY = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
