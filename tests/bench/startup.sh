#!/usr/bin/env bash
# Start-up cost of the layer: createInstance in an unrecognised process, and in a
# recognised one with the game service running (configuration fetch over binder).
#   startup.sh BUILD_DIR [RUNS]
set -euo pipefail
build=$(cd "$1" && pwd)
runs=${2:-30}
probe=$build/tests/bench/create_instance_time
work=$(mktemp -d)
export ZOVK_BINDER_DIR=$work/binder ZOVK_PROPERTIES=$work/none
trap 'kill "${service:-}" 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$work"' EXIT

median() { sort -n | awk '{v[NR] = $1} END {m = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2; printf "%.1f", m}'; }
measure() {  # PROCESS_NAME -> median microseconds over the runs
    for _ in $(seq "$runs"); do bash -c 'exec -a "$0" "$1" "$2"' "$1" "$probe" "$build/libzovk.so"; done | median
}

echo "createInstance, median of $runs processes:"
echo "  unrecognised process:              $(measure com.example.game 2>/dev/null) us"
echo "  Star Rail, no game service:        $(measure com.miHoYo.hkrpg 2>/dev/null) us"
"$build/zovk-gameservice" --config "$(dirname "$0")/../../configs/gameservice.json" >/dev/null &
service=$!
for _ in $(seq 50); do [ -S "$ZOVK_BINDER_DIR/veltra.pavune" ] && break; sleep 0.1; done
echo "  Star Rail, game service running:   $(measure com.miHoYo.hkrpg 2>/dev/null) us"
