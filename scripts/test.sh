#!/usr/bin/env bash
# Builds Dovel and runs the whole suite twice: a plain build, then one under
# AddressSanitizer and UndefinedBehaviorSanitizer. Exits non-zero on any failure.
# Usage: scripts/test.sh            (from anywhere; build folders go to the repo root)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc 2>/dev/null || echo 2)

# clang and its runtime build the libFuzzer targets.
bash scripts/deps.sh clang libclang-rt-14-dev

run_suite() {
  local dir=$1; shift
  echo "== configure $dir"
  cmake -S "$root" -B "$root/$dir" -G Ninja "$@" >/dev/null
  echo "== build $dir"
  cmake --build "$root/$dir" -j "$jobs"
  echo "== test $dir"
  (cd "$root/$dir" && ctest --output-on-failure -j "$jobs" --timeout 300)
}

run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/scripts/lsan.supp:print_suppressions=0}
run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DDOVEL_SANITIZE=ON -DDOVEL_BUILD_BENCH=OFF

echo "== fuzz (a few seconds per target)"
bash scripts/fuzz.sh 5

echo "== all tests passed (plain, sanitized and fuzzed)"
