#!/usr/bin/env bash
# AnTuTu VRS end to end: the AnTuTu scene (render area 2048x1024, inside the configured bounds) runs
# as com.antutu.benchmark.full:ue through the layer, the Khronos validation layer and the shading-rate
# emulation layer on lavapipe, with the host game service serving the bundled configuration (through
# zovk-run). VRS is pushed on at frame 1 and off at frame 125; the switch is sampled every 120
# presents. Checks:
# - no rate in frames 1-120, none after the sampling at present 240; in frames 121-240 one rate right
#   before each begin of a large pass, following the step machine over the scene's pass sequence with
#   the sizes that the bundled "vrs_SizeRange" configures; the module's log agrees and names steps 1-4;
# - every pipeline with a dynamic-state block carries the fragment shading rate, no other does;
# - frames 1-5, 121-125 and 241-245 equal the scene's first five frames without the layer (its
#   animation repeats every 120 frames);
# - nothing outside validation_allowlist.txt;
# - the run command's AnTuTu report and summary say the same.
. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require python3 cmp
SRC=$(cd "$(dirname "$0")/../.." && pwd -P)
SCENE=$IT_BUILD/tools/scenes/zovk-scene-antutu
[ -x "$SCENE" ] || it_fail "the scene is not built in $IT_BUILD"
FRAMES=245
SIZES=(--width 320 --height 180 --render-width 2048 --render-height 1024)

mkdir "$IT_TMP/plain"
it_env_layers ""
it_run plain env "${IT_ENV[@]}" "$SCENE" --frames 5 "${SIZES[@]}" --png "$IT_TMP/plain/frame-%d.png"
it_expect_success plain

# The run command without it_run's sanitizer preload: it preloads the runtime into the program itself.
timeout -k 10 "$IT_TIMEOUT" "$SRC/tools/zovk-run" --build "$IT_BUILD" --out "$IT_TMP/vrs" --app antutu \
    --validation --emulation on --push '1:6 {pkg} 1' --push '125:6 {pkg} 0' \
    -- "$SCENE" --frames "$FRAMES" "${SIZES[@]}" --png "$IT_TMP/vrs/frame-%d.png" >"$IT_TMP/vrs.out" 2>"$IT_TMP/vrs.err"
IT_RC=$?
it_expect_success vrs

for n in 1 2 3 4 5; do
    for frame in "$n" $((120 + n)) $((240 + n)); do
        cmp -s "$IT_TMP/plain/frame-$n.png" "$IT_TMP/vrs/frame-$frame.png" ||
            it_fail "frame $frame: the pixels differ from frame $n without the layer"
    done
done
IT_VVL_LOG=$IT_TMP/vrs/validation.log
it_expect_no_validation_except "$SRC/tests/integration/validation_allowlist.txt" "AnTuTu VRS"

python3 - "$IT_TMP/vrs" "$SRC/configs/gameservice.json" "$FRAMES" "$IT_TMP/vrs.out" <<'EOF' ||
import json, re, sys
out, config_path, frames, report_path = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
failures = []
def check(ok, what):
    if not ok:
        failures.append(what)

summary = json.load(open(f"{out}/summary.json"))
events = [json.loads(l) for l in open(f"{out}/trace.jsonl")]
log = open(f"{out}/program.log", errors="replace").read()
check(summary["processName"] == "com.antutu.benchmark.full:ue" and summary["layer"]["applicationType"] == 1,
      "the scene did not run as AnTuTu")

# The pushes must land on either side of the first sampling.
pushes = {p["record"].split()[-1]: p for p in summary["pushes"]}
check(all(p["delivered"] for p in pushes.values()), f"pushes not delivered: {summary['pushes']}")
check(pushes["1"]["seenFrame"] < 120 and 120 <= pushes["0"]["seenFrame"] < 240,
      f"the pushes landed at presents {pushes['1']['seenFrame']} and {pushes['0']['seenFrame']}")

# The configured sizes S1..S6, and the bounds the scene's passes must meet.
values = [int(v) for v in json.load(open(config_path))["com.antutu.benchmark.full:ue"]["configs"]["vrs_SizeRange"].split(";")]
table = {3: "1x2", 4: "2x1", 5: "2x2", 6: "2x4", 9: "4x2", 10: "4x4"}
S = [None] + [table.get(code, "1x1") for code in values[4:]]
inside = lambda w, h: values[0] < w < values[1] and values[2] < h < values[3]
check(inside(2048, 1024) and not inside(1024, 512) and not inside(320, 180),
      "the scene's large pass must be inside the configured bounds, its small and final passes outside")
sequence = re.search(r"passes: (.*)", log)
check(sequence and sequence.group(1).split() == "A B B C C(small) C O B O C C O A final".split(),
      f"the scene's pass sequence changed: {sequence and sequence.group(1)}")

# Per frame, the rates in recording order. Frame N is recorded after N - 1 presents.
rates, frame = {}, 1
for e in events:
    if e["event"] == "present":
        frame = e["frame"] + 1
    elif e["event"] == "setRate":
        check(e["combinerOps"] == ["KEEP", "KEEP"], f"frame {frame}: combiners {e['combinerOps']}")
        rates.setdefault(frame, []).append(f"{e['width']}x{e['height']}")
# Steps 0 to 4 within the first frame (B to 1, C to 2, B to 3, C to 4), step 4 from then on.
first = ["1x1", S[1], S[1], S[2], S[2], S[5], S[3], S[5], S[4], S[4], S[6], "1x1"]
later = ["1x1", S[6], S[6], S[4], S[4], S[6], S[6], S[6], S[4], S[4], S[6], "1x1"]
for n in range(1, frames + 1):
    want = first if n == 121 else later if 121 < n <= 240 else []
    check(rates.get(n, []) == want, f"frame {n}: rates {rates.get(n, [])}, wanted {want}")
for step in range(1, 5):
    check(len(re.findall(rf"vxxk s: px{step}x0x[0-9a-f]+x65513x23584\b", log)) == 1, f"no single step {step} line")
check(re.findall(r"vxxk vflag: (\d)", log)[:2] == ["1", "0"], "the switch was not sampled on, then off")

pipelines = [e for e in events if e["event"] == "pipeline"]
check(any(p["dynamicStateBlock"] for p in pipelines) and any(not p["dynamicStateBlock"] for p in pipelines),
      "the scene made no pipeline with, or none without, a dynamic-state block")
check(all(p["rateDynamic"] == p["dynamicStateBlock"] for p in pipelines), f"pipelines: {pipelines}")

a = summary["antutu"]
check(a["classified"].get("B") == 1 and a["classified"].get("C") == 1 and a["classified"].get("A", 0) >= 2,
      f"classified {a['classified']}")
check(a["totals"]["framesWithRates"] == 120 and a["totals"]["logAgrees"], f"summary totals {a['totals']}")
report = open(report_path).read()
check("frames 1-120: no rate" in report and "frame 121: 12 rates, step 4" in report and
      "frames 122-240: 12 rates, step 4" in report and "frames 241-245: no rate" in report,
      "the report does not show the frames")
if failures:
    print("\n".join(failures[:20]), file=sys.stderr)
    sys.exit(1)
print(f"120 frames with 12 rates each; {len(pipelines)} pipelines; sizes S1-S6 {S[1:]}")
EOF
    it_fail "AnTuTu VRS: the trace, log or report is not what the module should have done"
it_log "pass"
