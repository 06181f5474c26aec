#!/usr/bin/env bash
# fsr_emulation.probe: fsr_probe through the Khronos validation layer stacked on the shading-rate
# emulation layer, on lavapipe, once per preset (and once with no preset: the default).
#
#   fsr_emulation_test.sh BUILD_DIR      (a build of tests/support/fsr_emulation, or the main build)
#
# Each run must exit 0 with the loader's call stacks ending "validation -> emulation -> driver",
# write no validation message, render exactly the pixels of `fsr_probe --plain` run without the
# emulation layer, report the preset's features, properties and rates, and leave exactly the
# expected trace: the render pass (attachment index, texel size), its framebuffer, the rates and
# draws at their positions in the primary and the secondary, and the uploaded bytes equal to what
# the probe wrote. An unknown preset must fail instance creation. Set ZOVK_IT_KEEP_TMP=1 to keep
# the run directory.
set -u -o pipefail

NAME=fsr_emulation
LAYER=VK_LAYER_ZOVK_fsr_emulation
VALIDATION=VK_LAYER_KHRONOS_validation
HERE=$(cd "$(dirname "$0")/../../tools/fsr_emulation" && pwd -P)
TIMEOUT=${ZOVK_IT_TIMEOUT:-180}

log() { printf '[%s] %s\n' "$NAME" "$*" >&2; }
fail() {
    printf '[%s] FAIL: %s\n' "$NAME" "$*" >&2
    exit 1
}
show() {
    [ -s "$1" ] || return 0
    printf '[%s] ---- last lines of %s ----\n' "$NAME" "$(basename "$1")" >&2
    grep -av '^LAYER:' "$1" | tail -n "${2:-30}" >&2
}

[ $# -eq 1 ] || fail "usage: $0 BUILD_DIR"
BUILD=
for dir in "$1" "$1/tools/fsr_emulation"; do
    if [ -x "$dir/fsr_probe" ] && [ -f "$dir/libVkLayer_zovk_fsr_emulation.so" ]; then
        BUILD=$(cd "$dir" && pwd -P)
        break
    fi
done
[ -n "$BUILD" ] || fail "no fsr_probe and emulation layer under '$1' (is it built?)"
PROBE=$BUILD/fsr_probe
LIBRARY=$BUILD/libVkLayer_zovk_fsr_emulation.so
command -v python3 >/dev/null || fail "python3 is required"

# Nothing of the caller's Vulkan or layer settings may leak into a run.
for v in $(compgen -e); do
    case $v in
    VK_* | ZOVK_FSR_* | XDG_DATA_DIRS | XDG_DATA_HOME | XDG_CONFIG_DIRS | NODEVICE_SELECT | MESA_VK_DEVICE_SELECT* | \
        ENABLE_VKBASALT | MANGOHUD | DISPLAY | WAYLAND_DISPLAY)
        unset "$v"
        ;;
    esac
done

TMP=$(mktemp -d "${TMPDIR:-/tmp}/zovk-fsr-emulation.XXXXXX") || fail "mktemp failed"
cleanup() {
    if [ -n "${ZOVK_IT_KEEP_TMP:-}" ]; then log "kept $TMP"; else rm -rf "$TMP"; fi
}
trap cleanup EXIT
mkdir -m 700 "$TMP/home"
export HOME=$TMP/home XDG_CONFIG_HOME=$TMP/home/.config XDG_CACHE_HOME=$TMP/home/.cache
cd "$TMP" || fail "cannot enter $TMP"

# Every validation error and warning goes to one file per run.
cat >"$TMP/vk_layer_settings.txt" <<EOF
khronos_validation.debug_action = VK_DBG_LAYER_ACTION_LOG_MSG
khronos_validation.report_flags = error,warn
khronos_validation.log_filename = $TMP/validation.log
EOF
export VK_LAYER_SETTINGS_PATH=$TMP

# A sanitizer build: the layer is loaded with the probe's runtime; preloading it too keeps it mapped
# after the loader unloads it, so that a leak report can name its functions.
PRELOAD=()
if ldd "$PROBE" | grep -q libasan; then
    PRELOAD=(env "LD_PRELOAD=$(ldd "$PROBE" | awk '/libasan/ {print $3}'):$LIBRARY")
    TIMEOUT=$((TIMEOUT * 2))
fi

# run LABEL ENV... -- ARGS...: runs the probe with the environment assignments, stdout to
# LABEL.out, stderr to LABEL.err; sets RC.
run() {
    local label=$1
    shift
    local envs=()
    while [ "$1" != "--" ]; do
        envs+=("$1")
        shift
    done
    shift
    rm -f "$TMP/validation.log"
    timeout -k 10 "$TIMEOUT" env "${envs[@]}" "${PRELOAD[@]}" "$PROBE" "$@" >"$TMP/$label.out" 2>"$TMP/$label.err"
    RC=$?
    if [ "$RC" -eq 124 ] || [ "$RC" -eq 137 ]; then
        show "$TMP/$label.err"
        fail "$label: the probe did not finish within ${TIMEOUT}s"
    fi
}

expect_success() {
    if [ "$RC" -ne 0 ]; then
        show "$TMP/$1.out"
        show "$TMP/$1.err"
        fail "$1: exit status $RC"
    fi
}

expect_no_validation() {
    if [ -s "$TMP/validation.log" ]; then
        grep -Eo '\[ (VUID|UNASSIGNED)-[^ ]+ \]' "$TMP/validation.log" | sort | uniq -c >&2
        head -n 20 "$TMP/validation.log" >&2
        fail "$1: the validation layer reported errors or warnings"
    fi
    [ -e "$TMP/validation.log" ] || fail "$1: the validation layer wrote no log (was it loaded?)"
}

# The reference: the same frame with nothing of the extension, without the emulation layer.
LVP=
for icd in /usr/share/vulkan/icd.d/lvp_icd*.json /etc/vulkan/icd.d/lvp_icd*.json; do
    [ -f "$icd" ] && LVP=$icd && break
done
[ -n "$LVP" ] || fail "lavapipe's ICD manifest is not installed"
run plain VK_DRIVER_FILES="$LVP" VK_ICD_FILENAMES="$LVP" VK_INSTANCE_LAYERS=$VALIDATION -- --plain "$TMP/plain.png"
expect_success plain
expect_no_validation plain

for preset in default 16x16-4x4 8x8-2x2 8x8-4x4; do
    label=probe-$preset
    arg=$preset
    [ "$preset" = default ] && arg=
    envs=()
    while IFS= read -r line; do envs+=("$line"); done < <(
        # shellcheck disable=SC1091
        . "$HERE/env.sh" "$BUILD" $arg || exit 1
        export VK_INSTANCE_LAYERS="$VALIDATION:$VK_INSTANCE_LAYERS"
        env | grep -E '^(VK_|XDG_DATA_DIRS=|ZOVK_FSR_PRESET=)'
    )
    [ ${#envs[@]} -gt 0 ] || fail "env.sh failed for $BUILD"
    run "$label" "${envs[@]}" VK_LOADER_DEBUG=layer ZOVK_FSR_TRACE="$TMP/$label.trace" -- "$TMP/$label.png"
    expect_success "$label"
    expect_no_validation "$label"
    cmp -s "$TMP/plain.png" "$TMP/$label.png" ||
        fail "$label: the pixels differ from the plain frame rendered without the emulation layer"
    python3 - "$preset" "$TMP/$label.out" "$TMP/$label.err" "$TMP/$label.trace" "$LIBRARY" <<'PYTHON' ||
import json, os, re, sys

preset, out_path, err_path, trace_path, library = sys.argv[1:]
if preset == "default":
    preset = "16x16-4x4"
texel = {"16x16-4x4": 16, "8x8-2x2": 8, "8x8-4x4": 8}[preset]
max_fragment = {"16x16-4x4": 4, "8x8-2x2": 2, "8x8-4x4": 4}[preset]
problems = []

def check(cond, what):
    if not cond:
        problems.append(what)

# Loader call stacks: the validation layer right above ours, ours right above the driver.
chains = {"vkCreateInstance": [], "vkCreateDevice": []}
current = None
for line in open(err_path, errors="replace"):
    m = re.search(r"(vkCreateInstance|vkCreateDevice) layer callstack setup to:", line)
    if m:
        current = []
        chains[m.group(1)].append(current)
        continue
    if current is None or not line.startswith("LAYER:"):
        continue
    text = line[len("LAYER:"):].strip()
    if text in ("<Drivers>", "<Device>"):
        current = None
    elif text.startswith("Library:"):
        current[-1][1] = text.split(":", 1)[1].strip()
    elif text.startswith("VK_LAYER_"):
        current.append([text, ""])
for kind, blocks in chains.items():
    check(blocks, f"the loader printed no {kind} call stack")
    for names in blocks:
        order = [n for n, _ in names]
        check(order[-2:] == ["VK_LAYER_KHRONOS_validation", "VK_LAYER_ZOVK_fsr_emulation"],
              f"{kind} call stack is {order}, not ... -> validation -> emulation -> driver")
        lib = names[-1][1] if names else ""
        check(os.path.realpath(lib) == os.path.realpath(library), f"{kind} loaded the emulation layer from {lib}")

# What the probe saw.
out = {}
for line in open(out_path):
    key, _, rest = line.rstrip("\n").partition(" ")
    out[key] = rest
want_rates = {4: "4x4:0x1 4x2:0x1 2x4:0x1 2x2:0x5 2x1:0x5 1x2:0x5 1x1:0xffffffff",
              2: "2x2:0x5 2x1:0x5 1x2:0x5 1x1:0xffffffff"}[max_fragment]
check(out.get("features") == "pipeline=1 primitive=1 attachment=1", f"features: {out.get('features')}")
want_props = (f"minTexel={texel}x{texel} maxTexel={texel}x{texel} texelAspect=1 "
              f"maxFragment={max_fragment}x{max_fragment} fragmentAspect=2 coverageSamples=16 rasterSamples=4 "
              "nonTrivialCombiners=1 layered=1 multipleViewports=1 strictMultiply=1")
check(out.get("properties") == want_props, f"properties: {out.get('properties')}")
check(out.get("rates") == want_rates, f"rates: {out.get('rates')}")
width, height = -(-100 // texel), -(-60 // texel)
check(out.get("rateImage") == f"{width}x{height}", f"rate image: {out.get('rateImage')}")
check("done" in out, "the probe did not finish")
handles = dict(kv.split("=") for kv in out.get("commandBuffers", "").split())
primary, upload2, draw2 = handles.get("primary"), handles.get("uploadSecondary"), handles.get("drawSecondary")
uploaded = out.get("uploadBytes", "")
check(len(uploaded) == 2 * width * height, f"the probe uploaded {len(uploaded) // 2} bytes")

# The trace, line by line.
lines = []
for n, text in enumerate(open(trace_path), 1):
    try:
        lines.append(json.loads(text))
    except ValueError:
        problems.append(f"trace line {n} is not JSON: {text[:200]}")
top = height // 2
expected = [
    {"event": "device", "preset": preset, "extensionEnabled": True, "texelWidth": texel, "texelHeight": texel,
     "maxFragmentWidth": max_fragment, "maxFragmentHeight": max_fragment},
    {"event": "renderPass", "attachmentCount": 3, "attachment": 0, "texelWidth": texel, "texelHeight": texel,
     "subpasses": [0, 1]},
    {"event": "framebuffer", "width": 100, "height": 60, "layers": 1, "imageless": False},
    {"event": "pipeline", "dynamicStateBlock": True, "rateDynamic": True},
    {"event": "pipeline", "dynamicStateBlock": True, "rateDynamic": True},
    {"event": "setRate", "commandBuffer": draw2, "level": "secondary", "position": 1, "width": 2, "height": 1,
     "combinerOps": ["KEEP", "MAX"]},
    {"event": "draw", "commandBuffer": draw2, "position": 2, "call": "vkCmdDraw", "vertexCount": 3,
     "instanceCount": 1, "firstInstance": 2},
    {"event": "executeCommands", "commandBuffer": primary, "position": 0, "secondaries": [upload2]},
    {"event": "beginRenderPass", "commandBuffer": primary, "position": 1, "renderArea": [0, 0, 100, 60]},
    {"event": "setRate", "commandBuffer": primary, "level": "primary", "position": 3, "width": 2, "height": 2,
     "combinerOps": ["KEEP", "REPLACE"]},
    {"event": "draw", "commandBuffer": primary, "position": 4, "call": "vkCmdDraw", "vertexCount": 3,
     "instanceCount": 1, "firstInstance": 0},
    {"event": "setRate", "commandBuffer": primary, "level": "primary", "position": 5, "width": 1, "height": 2,
     "combinerOps": ["REPLACE", "KEEP"]},
    {"event": "draw", "commandBuffer": primary, "position": 6, "call": "vkCmdDrawIndexed", "indexCount": 6,
     "instanceCount": 1, "firstInstance": 1},
    {"event": "executeCommands", "commandBuffer": primary, "position": 8, "secondaries": [draw2]},
    {"event": "upload", "submission": 0, "submittedCommandBuffer": primary, "commandBuffer": primary, "format": 13,
     "bufferOffset": 0, "mipLevel": 0, "baseArrayLayer": 0, "layerCount": 1, "imageOffset": [0, 0, 0],
     "extent": [width, top, 1], "readable": True, "bytes": uploaded[:2 * width * top]},
    {"event": "upload", "submission": 0, "submittedCommandBuffer": primary, "commandBuffer": upload2, "format": 13,
     "bufferOffset": 16, "mipLevel": 0, "baseArrayLayer": 0, "layerCount": 1, "imageOffset": [0, top, 0],
     "extent": [width, height - top, 1], "readable": True, "bytes": uploaded[2 * width * top:]},
    {"event": "summary", "renderPasses": 1, "framebuffers": 1, "beginRenderPasses": 1, "rates": 3, "draws": 3,
     "submissions": 2, "uploads": 2, "unreadableUploads": 0},
]
check(len(lines) == len(expected), f"the trace has {len(lines)} lines, expected {len(expected)}")
for n, (got, want) in enumerate(zip(lines, expected), 1):
    for key, value in want.items():
        check(got.get(key) == value, f"trace line {n} ({want['event']}): {key} is {str(got.get(key))[:80]}, "
                                     f"expected {str(value)[:80]}")
if len(lines) == len(expected):
    # Handles the probe cannot see (the validation layer wraps them) must agree with each other.
    device, rp, fb, begin, up1, up2, summary = (lines[i] for i in (0, 1, 2, 8, 14, 15, 16))
    check(fb.get("renderPass") == rp.get("renderPass"), "the framebuffer names another render pass")
    check(fb.get("view") is not None, "the framebuffer line has no shading-rate view")
    check((begin.get("renderPass"), begin.get("framebuffer"), begin.get("view")) ==
          (rp.get("renderPass"), fb.get("framebuffer"), fb.get("view")), "the render pass begin names other objects")
    check(up1.get("image") == up2.get("image"), "the two uploads went to different images")
    check(up1.get("buffer") != up2.get("buffer"), "the two uploads came from one buffer")
    check(summary.get("device") == device.get("device"), "the summary names another device")
for p in problems:
    print(p)
sys.exit(1 if problems else 0)
PYTHON
        {
            show "$TMP/$label.out" 12
            fail "$label: the run's report or trace is not what the probe did (see above)"
        }
    log "$label: pass"
done

# An unknown preset stops instance creation, and env.sh refuses it before that.
run bad-preset VK_DRIVER_FILES="$LVP" VK_ICD_FILENAMES="$LVP" XDG_DATA_DIRS="/usr/local/share:/usr/share:$BUILD/share" \
    VK_INSTANCE_LAYERS=$LAYER ZOVK_FSR_PRESET=32x32-8x8 -- "$TMP/bad.png"
[ "$RC" -ne 0 ] || fail "bad-preset: the probe ran with an unknown preset"
grep -q "unknown ZOVK_FSR_PRESET '32x32-8x8'" "$TMP/bad-preset.err" || {
    show "$TMP/bad-preset.err"
    fail "bad-preset: the layer did not name the unknown preset"
}
if (. "$HERE/env.sh" "$BUILD" 32x32-8x8 2>/dev/null); then
    fail "env.sh accepted an unknown preset"
fi
log "PASS"
