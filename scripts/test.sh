#!/usr/bin/env bash
# Builds Dovel and runs the whole suite three times: a plain build (followed by a short
# soak of four processes), one under AddressSanitizer and UndefinedBehaviorSanitizer,
# and one under ThreadSanitizer; then runs every fuzz target briefly. Exits non-zero on
# any failure.
#
# Three builds, no more: the address-sanitized one is made with clang and carries the
# fuzzers' coverage, so the fuzz targets come out of it. Debug information is line
# tables only: stack traces and sanitizer reports name functions, files and lines, and
# the builds take half the time that full debug information costs. Every build is a
# unity build (DOVEL_UNITY_BUILD), which parses the Qt and test headers once per eight
# sources.
# Usage: scripts/test.sh            (from anywhere; build folders go to the repo root)
#        scripts/test.sh --tsan     the suite under ThreadSanitizer alone, in build-tsan
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc 2>/dev/null || echo 2)

tsan=0
case "${1:-}" in
  "") ;;
  --tsan) tsan=1 ;;
  *) echo "usage: scripts/test.sh [--tsan]" >&2; exit 2 ;;
esac

# clang and its runtime build the libFuzzer targets.
bash scripts/deps.sh clang libclang-rt-14-dev

run_suite() {
  local dir=$1; shift
  # A folder configured with another compiler cannot be switched in place.
  local cxx=${CXX:-c++}
  if [ -f "$root/$dir/CMakeCache.txt" ] &&
    ! grep -q "^CMAKE_CXX_COMPILER:[A-Z]*=.*$(basename "$cxx")\$" "$root/$dir/CMakeCache.txt"; then
    rm -rf "${root:?}/$dir"
  fi
  echo "== configure $dir (${SECONDS} s in)"
  cmake -S "$root" -B "$root/$dir" -G Ninja -DDOVEL_UNITY_BUILD=ON "$@" >/dev/null
  echo "== build $dir (${SECONDS} s in)"
  cmake --build "$root/$dir" -j "$jobs"
  echo "== test $dir (${SECONDS} s in)"
  (cd "$root/$dir" && ctest --output-on-failure -j "$jobs" --timeout 300)
}

lines_release="-O2 -g1 -DNDEBUG"

run_tsan_suite() {
  TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$root/scripts/tsan.supp} \
    run_suite build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=$lines_release" \
    -DDOVEL_TSAN=ON -DDOVEL_BUILD_BENCH=OFF
}

if [ "$tsan" -eq 1 ]; then
  run_tsan_suite
  echo "== all tests passed under ThreadSanitizer"
  exit 0
fi

run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=$lines_release"

echo "== soak, a server and three clients for 20 seconds (${SECONDS} s in)"
bash scripts/soak.sh 20 "$root/build"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/scripts/lsan.supp:print_suppressions=0}
CC=clang CXX=clang++ run_suite build-asan -DCMAKE_BUILD_TYPE=Debug "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -gline-tables-only" \
  -DDOVEL_SANITIZE=ON -DDOVEL_BUILD_FUZZ=ON -DDOVEL_BUILD_BENCH=OFF

run_tsan_suite

echo "== fuzz, a few seconds per target (${SECONDS} s in)"
bash scripts/fuzz.sh 5 build-asan

echo "== all tests passed (plain, address-, undefined- and thread-sanitized, fuzzed) in ${SECONDS} s"
