#!/usr/bin/env bash
# The main job: installs what is needed, builds, and runs the bundled Star Rail scene
# through the layer with the host game service and the bundled configuration, on lavapipe
# (with the shading-rate emulation layer beneath the layer), then prints the report.
# Arguments go to tools/zovk-run (see tools/zovk-run --help), e.g.:
#   scripts/run-demo.sh --app antutu
#   scripts/run-demo.sh -- vkcube --c 300
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$root/build" >/dev/null
exec "$root/tools/zovk-run" --build "$root/build" "$@"
