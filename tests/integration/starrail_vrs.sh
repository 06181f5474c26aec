#!/usr/bin/env bash
# Star Rail VRS end to end: the Star Rail scene at 1920x1080 runs as com.miHoYo.hkrpg through the
# layer, the Khronos validation layer and the shading-rate emulation layer (16x16 texels) on
# lavapipe, with the host game service serving the bundled configuration and pushing the scene id
# 1058 and the VRS levels 1, 2 and 0 at chosen frames (through zovk-run). Checks on the emulation
# trace, read frame by frame against the level each frame was recorded under:
# - substitute main and light passes with one more attachment than the scene's, the rate
#   attachment last at texel 16x16; substitute framebuffers at 1920x1080;
# - the attachment rate (KEEP,REPLACE) on the main and light secondaries while the level is 1 or 2;
#   in the light secondary full rate (KEEP,KEEP) for the configured draw 11 and the attachment
#   rate again from draw 12 on;
# - R8_UINT uploads whose bytes are the level 1 patterns, then the level 2 patterns after that push;
#   no rate and no upload once level 0 governs;
# - every frame's pixels equal those of the scene run without the layer;
# - nothing outside validation_allowlist.txt, which includes objects left alive at vkDestroyDevice.
# The run also shows the served creation path: the instance at API version 1.2 and the extensions
# the modules need added.
# Then: the 8x8 preset gets 240x135 images; another process name, or the module switched off in
# the configuration, gets no shading-rate object at all.
. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require python3 cmp
SRC=$(cd "$(dirname "$0")/../.." && pwd -P)
RUN=$SRC/tools/zovk-run
SCENE=$IT_BUILD/tools/scenes/zovk-scene-starrail
PATTERNS=$IT_BUILD/tests/support/zovk-vrs-patterns
[ -x "$SCENE" ] && [ -x "$PATTERNS" ] || it_fail "the scene or zovk-vrs-patterns is not built in $IT_BUILD"
FRAMES=24

# zovk-run RUN_LABEL OPTIONS... -- PROGRAM...: the run command, without it_run's sanitizer preload
# (zovk-run preloads the runtime into the program by itself).
zovk_run() {
    local label=$1
    shift
    timeout -k 10 "$IT_TIMEOUT" "$RUN" --build "$IT_BUILD" --out "$IT_TMP/$label" "$@" \
        >"$IT_TMP/$label.out" 2>"$IT_TMP/$label.err"
    IT_RC=$?
    it_expect_success "$label"
}

# ---- the scene through the layer, and without it --------------------------------------------------

mkdir "$IT_TMP/plain"
it_env_layers ""
it_run plain env "${IT_ENV[@]}" "$SCENE" --frames "$FRAMES" --png "$IT_TMP/plain/frame-%d.png"
it_expect_success plain

zovk_run vrs --validation --push '1:1 {pkg} 1058' --push '1:6 {pkg} 1' --push '8:6 {pkg} 2' --push '16:6 {pkg} 0' \
    -- "$SCENE" --frames "$FRAMES" --png "$IT_TMP/vrs/frame-%d.png"
for n in $(seq 1 "$FRAMES"); do
    cmp -s "$IT_TMP/plain/frame-$n.png" "$IT_TMP/vrs/frame-$n.png" ||
        it_fail "frame $n: the pixels differ from the run without the layer"
done
python3 -c '
import json, sys
layer = json.load(open(sys.argv[1]))["layer"]
added = {"VK_KHR_get_physical_device_properties2", "VK_KHR_create_renderpass2", "VK_KHR_fragment_shading_rate"}
sys.exit(0 if layer["servedApiVersion"] == "1.2" and added <= set(layer["extensionsAdded"]) else 1)' \
    "$IT_TMP/vrs/summary.json" || it_fail "the instance was not served at 1.2 with the modules' extensions added"
IT_VVL_LOG=$IT_TMP/vrs/validation.log
it_expect_no_validation_except "$SRC/tests/integration/validation_allowlist.txt" "Star Rail VRS"

"$PATTERNS" 120 67 >"$IT_TMP/patterns_1920" || it_fail "zovk-vrs-patterns failed"
"$PATTERNS" 150 67 >"$IT_TMP/patterns_2400" || it_fail "zovk-vrs-patterns failed"
python3 - "$IT_TMP/vrs" "$IT_TMP/patterns_1920" "$IT_TMP/patterns_2400" <<'EOF' || it_fail "Star Rail VRS: trace checks failed"
import json, re, sys
out, p1920, p2400 = sys.argv[1:]
main1, main2, light1, light2 = open(p1920).read().split()
small = open(p2400).read().split()
events = [json.loads(l) for l in open(f"{out}/trace.jsonl")]
levels = {}
for line in open(f"{out}/program.log", errors="replace"):
    m = re.search(r"Star Rail VRS present (\d+): sceneId (-?\d+), level (-?\d+)", line)
    if m:
        levels[int(m.group(1))] = (int(m.group(2)), int(m.group(3)))
failures = []
def check(ok, what):
    if not ok:
        failures.append(what)

passes = [e for e in events if e["event"] == "renderPass"]
check(sorted(e["attachmentCount"] for e in passes) == [3, 3, 6, 6], f"substitute passes {passes}")
check(all(e["attachment"] == e["attachmentCount"] - 1 and (e["texelWidth"], e["texelHeight"]) == (16, 16)
          for e in passes), "the rate attachment is not last at texel 16x16")
fbs = [e for e in events if e["event"] == "framebuffer"]
check(len(fbs) == 2 and all((e["width"], e["height"]) == (1920, 1080) for e in fbs), f"framebuffers {fbs}")

# Walk the frames. Frame N is recorded under what present N-1 saw (frame 1 under nothing).
frame, uploads, per_frame = 1, [], {}
recordings = {}  # command buffer -> list of recordings, each a list of (position, event)
def current(cb):
    return recordings.setdefault(cb, [[]])
for e in events:
    kind = e["event"]
    if kind == "present":
        frame = e["frame"] + 1
        continue
    f = per_frame.setdefault(frame, {"rates": [], "uploads": [], "executed": []})
    if kind == "upload":
        check(e["format"] == 13 and e["readable"], f"frame {frame}: upload of format {e['format']}, not R8_UINT, or unreadable")
        f["uploads"].append(e)
        uploads.append((frame, e))
    elif kind == "executeCommands":
        f["executed"].extend(e["secondaries"])
    if kind in ("setRate", "draw"):
        cb = e["commandBuffer"]
        rec = current(cb)
        if rec[-1] and e["position"] <= rec[-1][-1][0]:
            rec.append([])
        rec[-1].append((e["position"], e, frame))
        if kind == "setRate":
            f["rates"].append(e)

def level_of(n):
    return levels.get(n - 1, (0, 0))[1]

active = [n for n in per_frame if level_of(n) in (1, 2) and levels.get(n - 1, (0, 0))[0] == 1058]
quiet = [n for n in per_frame if n > 2 and level_of(n) == 0 and level_of(n - 1) == 0]
check(len(active) >= 8 and len(quiet) >= 3, f"frames active {active}, quiet {quiet}: the pushes did not land")
for n in active[1:]:
    f = per_frame[n]
    replaced = {e["commandBuffer"] for e in f["rates"]
                if e["combinerOps"] == ["KEEP", "REPLACE"] and e["level"] == "secondary"}
    check(len(f["executed"]) == 2 and set(f["executed"]) <= replaced,
          f"frame {n}: executed secondaries {f['executed']} did not all get the attachment rate")
for n in quiet:
    check(not per_frame[n]["rates"] and not per_frame[n]["uploads"], f"frame {n}: a rate or upload at level 0")

# The light secondary: 14 indexed draws; the rate in force at each is the last one set before it.
light_checked = 0
for cb, recs in recordings.items():
    for rec in recs:
        draws = [(p, e, fr) for p, e, fr in rec if e["event"] == "draw"]
        if len(draws) != 14 or draws[0][2] not in active[1:]:
            continue
        def in_force(position):
            sets = [e["combinerOps"] for p, e, _ in rec if e["event"] == "setRate" and p < position]
            return sets[-1] if sets else None
        check(in_force(draws[10][0]) == ["KEEP", "KEEP"], f"draw 11 not at full rate in {cb}")
        check(in_force(draws[11][0]) == ["KEEP", "REPLACE"], f"draw 12 not back at the attachment rate in {cb}")
        check(in_force(draws[13][0]) == ["KEEP", "REPLACE"], f"draw 14 (outside the range) at full rate in {cb}")
        light_checked += 1
check(light_checked >= len(active) - 2, f"only {light_checked} light secondaries checked")

# Uploads: the first fill of every image, then each level change of the 1920x1080 images.
# A level change uploads inside the present that first sees it, so it counts to that frame.
first_level2 = min((n for n, (_, level) in levels.items() if level == 2), default=0)
contents = [(fr, e["bytes"], tuple(e["extent"])) for fr, e in uploads]
check([c for _, c, _ in contents[:4]] == [main1, light1, small[0], small[2]], "the first fill is not main 1, light 1")
later = [(fr, c) for fr, c, extent in contents[4:]]
check(all(extent == (120, 67, 1) for _, _, extent in contents[4:]), "a level change uploaded into the wrong images")
names = {main1: "main 1", light1: "light 1", main2: "main 2", light2: "light 2"}
seen = [(fr, names.get(c, "other")) for fr, c in later]
check(all(name in ("main 1", "light 1") for fr, name in seen if fr < first_level2), f"before level 2: {seen}")
check([name for fr, name in seen if fr >= first_level2] == ["main 2", "light 2"], f"from level 2 on: {seen}")
if failures:
    print("\n".join(failures[:20]), file=sys.stderr)
    sys.exit(1)
print(f"checked {len(active)} active frames, {len(quiet)} quiet ones, {light_checked} light secondaries")
EOF

# ---- 8x8 texels, another process, the module switched off -----------------------------------------

zovk_run preset8 --preset 8x8-2x2 --frames 6 --push '1:1 {pkg} 1058' --push '1:6 {pkg} 1'
grep -q 'main shading-rate image 240x135 for 1920x1080 (texel 8x8)' "$IT_TMP/preset8.out" ||
    it_fail "8x8 preset: no 240x135 main image in the report"

# no_rate_objects LABEL: the trace of the run holds no shading-rate pass, framebuffer, rate or upload.
no_rate_objects() {
    python3 -c '
import json, sys
kinds = {json.loads(l)["event"] for l in open(sys.argv[1])}
sys.exit(1 if kinds & {"renderPass", "framebuffer", "setRate", "upload"} else 0)' "$IT_TMP/$1/trace.jsonl" ||
        it_fail "$1: the trace holds a shading-rate object"
}
zovk_run other --as com.example.notstarrail --frames 6 --push '1:1 {pkg} 1058' --push '1:6 {pkg} 1'
no_rate_objects other

python3 -c '
import json, sys
config = json.load(open(sys.argv[1]))
config["com.miHoYo.hkrpg"]["configs"]["xrender_BaseInfo"] = "1"
json.dump(config, open(sys.argv[2], "w"))' "$SRC/configs/gameservice.json" "$IT_TMP/module_off.json"
zovk_run off --config "$IT_TMP/module_off.json" --frames 6 --push '1:1 {pkg} 1058' --push '1:6 {pkg} 1'
no_rate_objects off
it_log "pass"
