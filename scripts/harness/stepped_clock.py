"""The wall clock of one daemon, stepped the way NTP steps a board's clock:
libfaketime preloaded into that process alone (never into Python or the
peers), its offset read from a file that set() replaces whole. The monotonic
clock runs on untouched, as on the board.

    clock = SteppedClock(work, "-2000d")   # boots years behind
    Device(..., ferrule_wrapper=clock.wrapper())
    clock.set("+0")                          # NTP sets it right
"""
import glob
import os

# Re-read at most once a second: a step takes effect within that.
CACHE_SECONDS = 1


def _library():
    found = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
    if not found:
        raise RuntimeError("libfaketime is missing (Debian package faketime)")
    return found[0]


class SteppedClock:
    def __init__(self, work, offset="+0"):
        self.path = os.path.join(work, "wall-clock-offset")
        self.set(offset)

    def set(self, offset):
        """offset as libfaketime reads it: "-3600" an hour back, "+0" the true
        time, "-2000d" 2000 days back."""
        staged = self.path + ".new"
        with open(staged, "w") as f:
            f.write(offset + "\n")
        os.replace(staged, self.path)  # a reader never sees half a line

    def wrapper(self):
        """The command prefix that starts a program on this clock."""
        # A file's modification time is stored, not computed: NTP's step
        # does not move it, so neither may the preloaded library.
        return ["env", "LD_PRELOAD=" + _library(), "FAKETIME_TIMESTAMP_FILE=" + self.path,
                "FAKETIME_CACHE_DURATION=%d" % CACHE_SECONDS, "FAKETIME_DONT_FAKE_MONOTONIC=1", "NO_FAKE_STAT=1"]
