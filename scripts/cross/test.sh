#!/usr/bin/env bash
# Builds the daemon, its tools and every unit-test binary for the device
# (32-bit big-endian PowerPC) in build-ppc/ and runs the unit tests under
# qemu-ppc, so that byte-order and word-size faults show up here rather than
# on the board. Called by scripts/test.sh; runs on its own too.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
export CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1
jobs=$(nproc)

sysroot=$(bash scripts/cross/sysroot.sh --print)
cmake -S . -B build-ppc -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/powerpc-linux-gnu.cmake" \
  -DFERRULE_CROSS_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
nice ninja -C build-ppc --quiet | { grep -v "^ninja: no work to do" || true; }

if [ -x build-ppc/app/ferrule ]; then
  stripped=$(mktemp)
  powerpc-linux-gnu-strip -o "$stripped" build-ppc/app/ferrule
  echo "ferrule for powerpc, static, stripped: $(stat -c %s "$stripped") bytes"
  rm -f "$stripped"
fi

(cd build-ppc && ctest -j"$jobs" --output-on-failure --timeout 900 -L unit)
