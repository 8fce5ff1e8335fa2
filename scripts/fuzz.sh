#!/usr/bin/env bash
# Builds every libFuzzer target (clang, AddressSanitizer + UndefinedBehaviorSanitizer) in
# build-fuzz and runs each for SECONDS with a fixed seed over a scratch copy of its
# corpus (fuzz/corpus/<name>/ is never written). Prints one summary line per target and
# exits non-zero on a crash, leak, time-out or sanitizer report.
# Usage: scripts/fuzz.sh SECONDS [BUILD]
#   BUILD: a build folder already configured with clang, DOVEL_BUILD_FUZZ and
#   DOVEL_SANITIZE (scripts/test.sh's build-asan); its targets are used instead.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

seconds=${1:-}
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
  echo "usage: scripts/fuzz.sh SECONDS [BUILD]" >&2
  exit 2
fi
if ! command -v clang++ >/dev/null 2>&1; then
  echo "fuzz: clang++ not found, skipping"
  exit 0
fi

case "${2:-build-fuzz}" in
  /*) build=$2 ;;
  *) build="$root/${2:-build-fuzz}" ;;
esac
targets=()
for src in "$root"/fuzz/fuzz_*.cpp; do
  [ -e "$src" ] || continue
  targets+=("$(basename "$src" .cpp)")
done
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz: no fuzz targets"
  exit 0
fi

if [ -z "${2:-}" ]; then
  echo "== configure $build"
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DDOVEL_BUILD_FUZZ=ON -DDOVEL_SANITIZE=ON -DDOVEL_BUILD_TESTS=OFF -DDOVEL_BUILD_BENCH=OFF \
    >/dev/null
elif ! grep -q "^DOVEL_BUILD_FUZZ:BOOL=ON" "$build/CMakeCache.txt" 2>/dev/null; then
  echo "fuzz: $build is not a build folder configured with DOVEL_BUILD_FUZZ=ON" >&2
  exit 2
fi
echo "== build ${targets[*]}"
cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/scripts/lsan.supp:print_suppressions=0}

scratch=$(mktemp -d "${TMPDIR:-/tmp}/dovel-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

failed=0
for target in "${targets[@]}"; do
  name=${target#fuzz_}
  corpus="$scratch/$name/corpus"
  artifacts="$scratch/$name/artifacts"
  log="$scratch/$name/log"
  mkdir -p "$corpus" "$artifacts"
  if [ -d "$root/fuzz/corpus/$name" ]; then
    find "$root/fuzz/corpus/$name" -maxdepth 1 -type f -exec cp {} "$corpus/" \;
  fi
  seeds=$(find "$corpus" -type f | wc -l)

  status=0
  "$build/bin/$target" -seed=1 -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1 || status=$?

  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  cov=$(grep -oE 'cov: [0-9]+' "$log" | tail -n 1 | grep -oE '[0-9]+' || true)
  grown=$(find "$corpus" -type f | wc -l)
  findings=$(find "$artifacts" -type f | wc -l)
  if grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|libFuzzer)|runtime error:|SUMMARY: ' "$log"; then
    findings=$((findings > 0 ? findings : 1))
  fi
  if [ "$status" -ne 0 ] && [ "$findings" -eq 0 ]; then
    findings=1
  fi
  echo "$target: ${execs:-0} execs, corpus $seeds -> $grown (+$((grown - seeds))), cov ${cov:-0}, findings $findings"
  if [ "$findings" -ne 0 ]; then
    failed=1
    echo "---- $target log (tail)"
    tail -n 60 "$log"
    for artifact in "$artifacts"/*; do
      [ -e "$artifact" ] || continue
      mkdir -p "$build/artifacts"
      cp "$artifact" "$build/artifacts/"
      echo "---- kept $build/artifacts/$(basename "$artifact")"
    done
  fi
done

if [ "$failed" -ne 0 ]; then
  echo "fuzz: findings reported"
  exit 1
fi
echo "fuzz: all targets clean"
