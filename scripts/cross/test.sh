#!/usr/bin/env bash
# Builds the daemon, its tools and every unit-test binary for the device
# (32-bit big-endian PowerPC) in build-ppc/, runs the unit tests under
# qemu-ppc, then the relay end-to-end test with the device's ferrule under
# qemu-ppc against the host's dev relay, nginx and curl, so that byte-order
# and word-size faults show up here rather than on the board. Called by
# scripts/test.sh; runs on its own too (the relay test needs root).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
export CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1
jobs=$(nproc)

sysroot=$(bash scripts/cross/sysroot.sh --print)
[ -d "$sysroot" ] || { echo "cross: sysroot.sh printed no sysroot directory: '$sysroot'" >&2; exit 1; }
# A tree configured against another sysroot keeps that one's libraries in its
# cache (found once, never looked up again): such a tree starts afresh.
for build in build-ppc build-ppc-dynamic; do
  grep -qxF "OPENSSL_SSL_LIBRARY:FILEPATH=$sysroot/lib/libssl.a" $build/CMakeCache.txt 2>/dev/null ||
    rm -f $build/CMakeCache.txt
done
cmake -S . -B build-ppc -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/powerpc-linux-gnu.cmake" \
  -DFERRULE_CROSS_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# Fully static glibc warns at every link that getaddrinfo and dlopen want
# the shared libraries of the same glibc at run time. Host lookups (files,
# dns) are built into glibc itself and OpenSSL's loadable modules are not
# used, so those warnings are dropped here; every other line is kept.
nice ninja -C build-ppc --quiet 2>&1 | awk '
  /: in function `/ { held = $0; next }
  /in statically linked applications requires at runtime/ { held = ""; next }
  /^ninja: no work to do/ { next }
  { if (held != "") print held; held = ""; print }
  END { if (held != "") print held }'

# The daemon as the board gets it, stripped: the fully static build above
# and a dynamic one (the same objects, linked against the board's shared
# libraries; only the daemon is built there).
cmake -S . -B build-ppc-dynamic -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/powerpc-linux-gnu.cmake" \
  -DFERRULE_CROSS_SYSROOT="$sysroot" -DFERRULE_CROSS_STATIC=OFF -DFERRULE_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
nice ninja -C build-ppc-dynamic --quiet app/ferrule
# The board's flash holds the whole firmware: a daemon that outgrows its
# budget fails here, not on the board. The small build is the device's.
stripped=$(mktemp)
over=
for build in build-ppc build-ppc-dynamic; do
  linkage=static budget=4000000
  grep -q '^FERRULE_CROSS_STATIC:BOOL=OFF' $build/CMakeCache.txt && linkage=dynamic budget=1000000
  powerpc-linux-gnu-strip -o "$stripped" $build/app/ferrule
  size=$(stat -c %s "$stripped")
  echo "ferrule for powerpc, $linkage, stripped: $size bytes"
  if [ "$size" -gt "$budget" ] && ! grep -q '^FERRULE_CROSS_SMALL:BOOL=OFF' $build/CMakeCache.txt; then
    over="$over $linkage ($size > $budget bytes)"
  fi
done
rm -f "$stripped"
[ -z "$over" ] || { echo "cross: ferrule is over its size budget:$over" >&2; exit 1; }

(cd build-ppc && ctest -j"$jobs" --output-on-failure --timeout 900 -L unit)

# The relay's side (ferrule-devrelay, nginx, curl) is the host's own: only
# the daemon is the device's. Same build/ configuration as scripts/setup.sh.
if [ ! -f build/CMakeCache.txt ]; then
  cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFERRULE_BENCH=ON >/dev/null
fi
nice ninja -C build --quiet ferrule-devrelay ferrule-p2pclient
# A static ferrule runs as it is; a dynamic one needs the target's loader and
# C library. The prefix is left out for static builds since qemu looks up
# every path the program opens (/etc/hosts too) under it first.
wrapper=qemu-ppc
grep -q '^FERRULE_CROSS_STATIC:BOOL=OFF' build-ppc/CMakeCache.txt && wrapper="qemu-ppc -L /usr/powerpc-linux-gnu"
echo "relay end-to-end test, ferrule for powerpc under $wrapper"
started=$SECONDS
FERRULE_WRAPPER=$wrapper python3 tests/e2e/relay/relay_test.py build-ppc/app/ferrule \
  build/tools/devrelay/ferrule-devrelay
echo "relay end-to-end test under qemu-ppc passed in $((SECONDS - started)) s"

# The peer-to-peer path on the board's byte order and word size: usrsctp and
# its glue, ICE checks and the video relay, on the flat network.
echo "peer-to-peer end-to-end test, ferrule for powerpc under $wrapper"
started=$SECONDS
FERRULE_WRAPPER=$wrapper python3 tests/e2e/p2p/p2p_test.py build-ppc/app/ferrule \
  build/tools/devrelay/ferrule-devrelay build/tools/p2pclient/ferrule-p2pclient \
  VideoOverSctp.test_short_answers_arrive_and_end_each_relay_cleanly VideoOverSctp.test_100_mb_byte_exact_flat
echo "peer-to-peer end-to-end test under qemu-ppc passed in $((SECONDS - started)) s"
