#!/usr/bin/env bash
# The main job: runs a real Vulkan program (vkcube, under a virtual X server) through
# the layer with its debug log on, on lavapipe, with the host game service serving the
# bundled configuration (configs/gameservice.json).
#   scripts/run-demo.sh [--as PROCESS_NAME] [--frames N]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
name=com.miHoYo.hkrpg
frames=300
while [ $# -gt 0 ]; do
  case "$1" in
    --as) name=$2; shift 2 ;;
    --frames) frames=$2; shift 2 ;;
    *) echo "usage: $0 [--as PROCESS_NAME] [--frames N]" >&2; exit 2 ;;
  esac
done

"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$root/build" >/dev/null

work=$(mktemp -d)
trap 'kill "${xvfb_pid:-}" "${service_pid:-}" 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$work"' EXIT
echo "vendor.zovk.log.debug=true" >"$work/properties"
export ZOVK_BINDER_DIR="$work/binder"
"$root/build/zovk-gameservice" --config "$root/configs/gameservice.json" >"$work/service.log" &
service_pid=$!
for _ in $(seq 50); do [ -S "$ZOVK_BINDER_DIR/veltra.pavune" ] && break; sleep 0.1; done
Xvfb -displayfd 3 -screen 0 1280x720x24 -nolisten tcp 3>"$work/display" 2>/dev/null &
xvfb_pid=$!
for _ in $(seq 50); do [ -s "$work/display" ] && break; sleep 0.1; done

echo "Running vkcube for $frames frames as '$name' through the layer..."
DISPLAY=":$(cat "$work/display")" \
VK_ADD_LAYER_PATH="$root/build" \
VK_INSTANCE_LAYERS=zovkshadingrateengine \
ZOVK_PROPERTIES="$work/properties" \
VK_LOADER_DEBUG=layer \
  bash -c 'exec -a "$0" vkcube --c "$1"' "$name" "$frames" 2>&1 \
  | grep -E 'libZoVK|Insert instance layer "zovk|zovkshadingrateengine \(' || true
echo "vkcube exited ${PIPESTATUS[0]}"
echo "The game service saw:"
sed 's/^/  /' "$work/service.log"
