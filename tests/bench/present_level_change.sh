#!/usr/bin/env bash
# What a VRS level change adds to the present that uploads the new templates (it waits for the
# queue), on the real stack: the Star Rail scene through the layer and the emulation layer on
# lavapipe, with the game service switching the level between 1 and 2 every 6 frames. Prints the
# time the two uploads of each level change took inside the present (the layer's debug line), and the
# median whole present with and without an upload.
#   present_level_change.sh [BUILD_DIR] [WIDTH HEIGHT]
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
width=${2:-1920}
height=${3:-1080}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

pushes=(--push '1:1 {pkg} 1058' --push '1:6 {pkg} 1')
for frame in $(seq 6 6 114); do
    pushes+=(--push "$frame:6 {pkg} $(( (frame / 6) % 2 + 1 ))")
done
"$root/tools/zovk-run" --build "$build" --out "$out/run" "${pushes[@]}" -- \
    "$build/tools/scenes/zovk-scene-starrail" --frames 120 --width "$width" --height "$height" \
    --present-times "$out/times.txt" >/dev/null

python3 - "$out/run/program.log" "$out/times.txt" <<'PY'
import re, statistics, sys
uploads = [int(m.group(1)) for line in open(sys.argv[1], errors="replace")
           for m in [re.search(r"Star Rail VRS: level \d+ uploaded in (\d+) us", line)] if m]
uploading, gated, pending = set(), set(), False
for line in open(sys.argv[1], errors="replace"):
    if "PreVkQueuePresentKHR, updateImageDataFromBuffer" in line:
        pending = True
    m = re.search(r"Star Rail VRS present (\d+): sceneId (\d+), level (\d+)", line)
    if m:
        (uploading if pending else gated if int(m.group(3)) >= 1 else set()).add(int(m.group(1)))
        pending = False
times = [float(t) for t in open(sys.argv[2])]
up = [times[f - 1] for f in sorted(uploading) if f <= len(times)]
steady = [times[f - 1] for f in sorted(gated) if 3 < f <= len(times)]
print(f"level changes: {len(uploads)}; the two uploads took median {statistics.median(uploads)} us, "
      f"min {min(uploads)}, max {max(uploads)}")
print(f"whole presents: {statistics.median(up):.0f} us median with an upload, {statistics.median(steady):.0f} us "
      f"without (lavapipe's present waits for the frame, so the difference is mostly noise)")
PY
