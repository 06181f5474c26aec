#!/usr/bin/env bash
# Configures and builds the layer and its tests into a build directory.
#   scripts/build.sh [BUILD_DIR] [extra cmake arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
shift || true
cmake -S "$root" -B "$build" -G Ninja "$@" >/dev/null
ninja -C "$build" -j"$(nproc)"
