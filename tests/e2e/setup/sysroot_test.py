#!/usr/bin/env python3
"""scripts/cross/sysroot.sh --print on a first run, with an empty cache: its
standard output must be the sysroot's path alone, even though it fetches and
builds everything on the way. Callers capture that output as the path, and a
first run is the one that developer machines and CI with a warm cache never
see. The fetch and build tools are stand-ins that chatter on standard output
and leave the files the script expects; the script itself runs as it is."""
import os
import stat
import subprocess
import sys
import tempfile
import unittest

SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "scripts", "cross", "sysroot.sh")

# Each stand-in says something on standard output, as the real tools do.
STUBS = {
    "apt-get": r"""
echo "apt-get chatter"
for a in "$@"; do case $a in
  indextargets) echo "http://deb.test/debian bookworm main"; exit 0 ;;
  source) for p in "$@"; do case $p in *=*) : >"${p%%=*}_${p#*=}.dsc" ;; esac; done ;;
esac; done
exit 0""",
    "apt-cache": 'echo "Version: 1.0-1"',
    "dpkg-source": r"""
echo "dpkg-source chatter"
dest=${@: -1}; mkdir -p "$dest"
printf '#!/bin/sh\necho configure chatter\n' >"$dest/Configure"; chmod +x "$dest/Configure" """,
    "cmake": r"""
echo "cmake chatter"
for a in "$@"; do case $a in -DCMAKE_INSTALL_PREFIX=*)
  p=${a#*=}; mkdir -p "$p/include" "$p/lib/pkgconfig"
  printf 'includedir=x\nCflags: x\n' >"$p/lib/pkgconfig/usrsctp.pc" ;;
esac; done""",
    "make": 'echo "make chatter"',
    "ninja": 'echo "ninja chatter"',
    "powerpc-linux-gnu-gcc": 'echo "gcc chatter"',
    "qemu-ppc": 'echo "qemu chatter"',
}


class FirstRunPrintsOnlyThePath(unittest.TestCase):
    def test_print_on_an_empty_cache(self):
        with tempfile.TemporaryDirectory() as work:
            bin_dir, cache = os.path.join(work, "bin"), os.path.join(work, "cache")
            os.makedirs(bin_dir)
            for name, body in STUBS.items():
                path = os.path.join(bin_dir, name)
                with open(path, "w") as f:
                    f.write("#!/bin/bash\n" + body + "\n")
                os.chmod(path, os.stat(path).st_mode | stat.S_IXUSR)
            env = dict(os.environ, PATH=bin_dir + ":" + os.environ["PATH"], FERRULE_CROSS_CACHE=cache)
            first = subprocess.run(["bash", SCRIPT, "--print"], capture_output=True, text=True, env=env, timeout=120)
            self.assertEqual(0, first.returncode, first.stderr)
            self.assertEqual(os.path.join(cache, "current") + "\n", first.stdout, first.stderr)
            self.assertIn("sysroot: building", first.stderr)
            self.assertTrue(os.path.isfile(os.path.join(cache, "current", ".complete")))
            # The cached run is silent apart from the path.
            second = subprocess.run(["bash", SCRIPT, "--print"], capture_output=True, text=True, env=env, timeout=60)
            self.assertEqual((first.stdout, ""), (second.stdout, second.stderr))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
