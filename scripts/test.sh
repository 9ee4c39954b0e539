#!/usr/bin/env bash
# Sets everything up and runs every test: the release build's unit and
# end-to-end tests, the unit tests again under AddressSanitizer and
# UndefinedBehaviorSanitizer, and a short smoke run of each fuzz target.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
export CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1
jobs=$(nproc)
fuzz_seconds=${FUZZ_SECONDS:-20}

step() { printf '\n==== %s\n' "$*"; }

step "setup and release build"
bash scripts/setup.sh

step "release tests"
(cd build && ctest -j"$jobs" --output-on-failure --timeout 600)

step "sanitizer build (address, undefined)"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DFERRULE_SANITIZE=address,undefined >/dev/null
ninja -C build-asan --quiet
step "sanitizer tests"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-asan && ctest -j"$jobs" --output-on-failure --timeout 900 -L unit)

if [ -f fuzz/CMakeLists.txt ]; then
  step "fuzz targets (clang, libFuzzer, ${fuzz_seconds}s each)"
  CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFERRULE_FUZZ=ON \
    -DFERRULE_TESTS=OFF -DFERRULE_SANITIZE=address,undefined >/dev/null
  ninja -C build-fuzz --quiet
  shopt -s nullglob
  for target in build-fuzz/fuzz/fuzz_*; do
    [ -x "$target" ] || continue
    name=$(basename "$target")
    corpus=$(mktemp -d)
    seeds=()
    [ -d "fuzz/corpus/${name#fuzz_}" ] && seeds=("fuzz/corpus/${name#fuzz_}")
    echo "-- $name"
    "$target" -max_total_time="$fuzz_seconds" -print_final_stats=1 "$corpus" "${seeds[@]}" 2>&1 \
      | grep -E 'stat::number_of_executed_units|ERROR|SUMMARY' || true
    status=${PIPESTATUS[0]}
    rm -rf "$corpus"
    [ "$status" -eq 0 ] || { echo "fuzz target $name failed"; exit 1; }
  done
fi

step "PowerPC cross build, unit tests under qemu-ppc"
bash scripts/cross/test.sh

step "all tests passed"
