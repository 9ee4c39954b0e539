#!/usr/bin/env python3
"""Runs the built daemon and checks its command-line behaviour byte for byte."""
import os
import re
import signal
import subprocess
import sys
import time
import unittest

BINARY = None

USAGE = (
    "ferrule [options]\n"
    "\n"
    "Options:\n"
    "  -r <urlbase>       Relay URL base (e.g. \"relay.example.com\", \n"
    "                     \"relay.example.com/devices\")\n"
    "  -s <stunserver>    STUN server hostname\n"
    "  -f <filename>      Registration info filename (default devicereg.info)\n"
    "  -t <targethost>    Target for relayed HTTP requests (default localhost)\n"
    "  -l <logspec>       Log level setting [logname:](1-6). This may be specified\n"
    "                     multiple times to configure different levels for different\n"
    "                     logs.\n"
    "\n"
)

LOG_LINE = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [A-Z]+ ")


def run(*args, timeout=10):
    return subprocess.run([BINARY, *args], capture_output=True, text=True, timeout=timeout)


class CommandLineErrors(unittest.TestCase):
    def check(self, args, stderr, status=1, stdout=""):
        result = run(*args)
        self.assertEqual(result.returncode, status)
        self.assertEqual(result.stdout, stdout)
        self.assertEqual(result.stderr, stderr)

    def test_no_arguments(self):
        self.check([], "ferrule: Please specify a relay URL base\n\n" + USAGE)

    def test_missing_stun_server(self):
        self.check(["-r", "relay.example"], "ferrule: Please specify a STUN server name\n\n" + USAGE)

    def test_missing_option_value_has_no_blank_line(self):
        self.check(["-r"], "ferrule: -r: Please specify a relay URL base\n" + USAGE)
        self.check(["-r", "a", "-s", "b", "-l"], "ferrule: -l: Please specify a log level specification\n" + USAGE)

    def test_unknown_and_not_understood(self):
        self.check(["-rfoo"], "ferrule: Unknown argument: -rfoo\n\n" + USAGE)
        self.check(["x"], "ferrule: Argument not understood: x\n\n" + USAGE)
        self.check(["-"], "ferrule: Argument not understood: -\n\n" + USAGE)

    def test_help(self):
        self.check(["-h"], "", status=0, stdout=USAGE)
        self.check(["-q", "-h"], "ferrule: Unknown argument: -q\n\n" + USAGE)

    def test_non_integer_level_ends_abnormally(self):
        result = run("-r", "relay.example", "-s", "stun.example", "-l", "ferrule:x")
        self.assertLess(result.returncode, 0)  # killed by a signal, not a friendly exit
        self.assertEqual(result.stderr.count("Please specify"), 0)


class RunningDaemon(unittest.TestCase):
    def start(self, *args):
        process = subprocess.Popen([BINARY, "-r", "relay.localhost", "-s", "localhost", *args],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(lambda: process.poll() is None and process.kill())
        return process

    def interrupt(self, process):
        time.sleep(0.3)
        self.assertIsNone(process.poll(), "daemon ended before SIGINT")
        process.send_signal(signal.SIGINT)
        stdout, stderr = process.communicate(timeout=5)
        self.assertEqual(process.returncode, 0)
        self.assertEqual(stderr, "")
        return stdout

    def test_sigint_ends_with_status_zero(self):
        self.interrupt(self.start("-l", "6"))

    def test_log_settings_are_announced_in_order(self):
        stdout = self.interrupt(self.start("-l", "7", "-l", "revhttp:6", "-l", ":4"))
        lines = [line for line in stdout.splitlines() if not LOG_LINE.match(line)]
        self.assertEqual(lines, ["Setting global log level to 7",
                                 "Setting log revhttp to level 6",
                                 "Setting global log level to 4"])


if __name__ == "__main__":
    BINARY = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
