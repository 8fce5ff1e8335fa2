#!/usr/bin/env bash
# The main job: builds the dovel tool if needed and runs `dovel demo`.
# Usage: scripts/demo.sh [demo options]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
if [ ! -x build/bin/dovel ] || [ -n "$(find Dovel host tools CMakeLists.txt -newer build/bin/dovel -print -quit 2>/dev/null)" ]; then
  cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build --target dovel -j "$(nproc 2>/dev/null || echo 2)"
fi
exec build/bin/dovel demo "$@"
