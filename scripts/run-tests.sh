#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test (unit, generator, integration).
#   scripts/run-tests.sh [BUILD_DIR] [extra cmake arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
shift || true
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$build" "$@"
ctest --test-dir "$build" -j"$(nproc)" --output-on-failure
