#!/usr/bin/env bash
# What a VRS level change adds to the present that uploads the new templates (it waits for the
# queue), on the real stack: the Star Rail scene through the layer and the emulation layer on
# lavapipe, with the game service switching the level between 1 and 2 every 10 frames. Prints the
# median present time of the frames that uploaded against the other gated frames.
#   present_level_change.sh [BUILD_DIR] [WIDTH HEIGHT]
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
width=${2:-1920}
height=${3:-1080}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

pushes=(--push '1:1 {pkg} 1058' --push '1:6 {pkg} 1')
for frame in 10 20 30 40 50 60 70 80; do
    pushes+=(--push "$frame:6 {pkg} $(( (frame / 10) % 2 + 1 ))")
done
"$root/tools/zovk-run" --build "$build" --out "$out/run" "${pushes[@]}" -- \
    "$build/tests/support/scenes/zovk-scene-starrail" --frames 90 --width "$width" --height "$height" \
    --present-times "$out/times.txt" >/dev/null

python3 - "$out/run/program.log" "$out/times.txt" <<'PY'
import re, statistics, sys
uploading, gated, pending = set(), set(), False
for line in open(sys.argv[1], errors="replace"):
    if "PreVkQueuePresentKHR, updateImageDataFromBuffer" in line:
        pending = True
    m = re.search(r"Star Rail VRS present (\d+): sceneId (\d+), level (\d+)", line)
    if m:
        frame = int(m.group(1))
        if pending:
            uploading.add(frame)
        elif int(m.group(3)) >= 1:
            gated.add(frame)
        pending = False
times = [float(t) for t in open(sys.argv[2])]
up = [times[f - 1] for f in sorted(uploading) if f <= len(times)]
steady = [times[f - 1] for f in sorted(gated) if f <= len(times) and f > 3]
print(f"presents that uploaded: {len(up)}, median {statistics.median(up):.0f} us")
print(f"other presents at level 1 or 2: {len(steady)}, median {statistics.median(steady):.0f} us")
print(f"a level change adds {statistics.median(up) - statistics.median(steady):.0f} us to its present")
PY
