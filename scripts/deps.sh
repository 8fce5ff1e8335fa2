#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
# Usage: scripts/deps.sh [extra-package...]
set -euo pipefail

packages=(qtbase5-dev cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev "$@")
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "deps: installing ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
