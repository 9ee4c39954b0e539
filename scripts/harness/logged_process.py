"""A started program whose output is collected line by line, to wait for
the lines it logs."""
import os
import re
import signal
import subprocess
import sys
import threading
import time

from harness.processes import stop_process


class LoggedProcess:
    """Runs argv in work_dir with its standard output and error written to
    `log` (work_dir/NAME.log unless given) and kept in `lines`; with echo,
    also copied to our standard output."""

    def __init__(self, name, argv, work_dir, env=None, log=None, echo=False):
        self.name = name
        self.lines = []
        self.ended = False
        self.cond = threading.Condition()
        self.echo = echo
        self.echo_lock = threading.Lock()
        self.log = open(log or os.path.join(work_dir, name + ".log"), "a")
        self.proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT, text=True, env=dict(os.environ, **(env or {})),
                                     cwd=work_dir)
        self.collector = threading.Thread(target=self._collect, daemon=True)
        self.collector.start()

    def _collect(self):
        for line in self.proc.stdout:
            self.log.write(line)
            self.log.flush()
            # Its own lock: hold_echo() and resume_echo() see each line
            # either echoed or kept, never both, and a stalled standard
            # output does not block wait_for().
            with self.echo_lock:
                if self.echo:
                    sys.stdout.write(line)
                    sys.stdout.flush()
                with self.cond:
                    self.lines.append(line.rstrip("\n"))
                    self.cond.notify_all()
        with self.cond:
            self.ended = True
            self.cond.notify_all()

    def hold_echo(self):
        """Stops echoing (e.g. while another program draws on the terminal);
        returns what resume_echo() needs to print the lines held back."""
        with self.echo_lock:
            self.echo = False
            return self.mark()

    def resume_echo(self, held):
        with self.echo_lock:
            with self.cond:
                lines = self.lines[held:]
            for line in lines:
                sys.stdout.write(line + "\n")
            sys.stdout.flush()
            self.echo = True

    def mark(self):
        with self.cond:
            return len(self.lines)

    def matching(self, pattern, start=0):
        regex = re.compile(pattern)
        with self.cond:
            return [line for line in self.lines[start:] if regex.search(line)]

    def wait_for(self, pattern, timeout=15.0, start=0, count=1, stop=None):
        """Waits for `count` lines after `start` matching the pattern and
        returns them. Raises AssertionError when the time is up, the program
        has ended without them or the `stop` event is set."""
        regex = re.compile(pattern)
        deadline = time.monotonic() + timeout
        with self.cond:
            while True:
                found = [line for line in self.lines[start:] if regex.search(line)]
                if len(found) >= count:
                    return found
                remaining = deadline - time.monotonic()
                if remaining <= 0 or self.ended or (stop and stop.is_set()):
                    raise AssertionError("%s: no %d line(s) matching %r; log tail:\n%s"
                                         % (self.name, count, pattern, self.tail()))
                self.cond.wait(min(remaining, 0.2))

    def tail(self, count=40):
        with self.cond:
            return "\n".join(self.lines[-count:])

    def peak_rss_kb(self):
        with open("/proc/%d/status" % self.proc.pid) as status:
            for line in status:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1])
        return 0

    def stop(self, sig=signal.SIGINT):
        stop_process(self.proc, sig)
        self.collector.join(5)
        if not self.collector.is_alive():
            self.proc.stdout.close()
            self.log.close()
        return self.proc.returncode
