#!/usr/bin/env bash
# The layer's own Vulkan objects, made by the resource helper and the shading-rate builder, on a real
# loader, validation layer and driver. A capture of vkcube (capture layer only) is replayed headless
# twice: plainly, and as Star Rail through VK_LAYER_ZOVK_builder_test (the layer built with a test
# module, tests/support/builder_module) above the Khronos validation layer and the shading-rate
# emulation layer. The module substitutes every render pass, framebuffer and dynamic-state pipeline
# with the builder's, fills one shading-rate image per framebuffer size with two known patterns
# (from memory, then from a staging buffer), sets only the full rate, and frees everything it made
# before the device goes. Checks:
# - the emulation trace shows the substitute passes (one more attachment than vkcube's, the rate
#   attachment last, texel size 16x16), framebuffers and begins, and a 1x1 KEEP,KEEP rate right after
#   each begin;
# - the trace's uploads carry exactly the two patterns, in order, into R8_UINT images sized by integer
#   division of the framebuffer size;
# - the screenshots are byte-identical to the plain replay's;
# - the validation log holds nothing outside validation_allowlist.txt; the object tracker reports
#   every object still alive at vkDestroyDevice, so this also proves that nothing the layer made leaks.
. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require vkcube gfxrecon-replay gfxrecon-convert cmp python3

SRC=$(cd "$(dirname "$0")/../.." && pwd -P)
ALLOWLIST=$SRC/tests/integration/validation_allowlist.txt
BM_DIR=$IT_BUILD/tests/support/builder_module
BM_LAYER=VK_LAYER_ZOVK_builder_test
BM_LIBRARY=libzovk_builder_test.so
BM_MANIFEST=VkLayer_zovk_builder_test.json
EMULATION=VK_LAYER_ZOVK_fsr_emulation
if [ ! -s "$BM_DIR/$BM_LIBRARY" ] || [ ! -f "$BM_DIR/$BM_MANIFEST" ]; then
    it_fail "no $BM_LIBRARY and $BM_MANIFEST in $BM_DIR (is the test layer built?)"
fi

APP=com.miHoYo.hkrpg
TRACE=$IT_TMP/trace.jsonl
mkdir "$IT_TMP/shots_builder" "$IT_TMP/bm_layers"

it_capture_vkcube 36
# What vkcube asked for, to compare the substitutes with.
gfxrecon-convert --output "$IT_TMP/capture/vkcube.jsonl" "$IT_CAPTURE" >/dev/null 2>&1 ||
    it_fail "gfxrecon-convert could not read the capture"

# ---- the replay through the test layer ------------------------------------------------------------

echo 'vendor.zovk.log.debug=true' >"$ZOVK_PROPERTIES"
cat >"$IT_TMP/gameservice.json" <<EOF
{ "$APP": { "configs": { "xrender_BaseInfo": "4" } } }
EOF
it_service_start service "$IT_TMP/gameservice.json"

# Only the test layer is offered from VK_ADD_LAYER_PATH; the real one must not be enabled beside it.
ln -s "$BM_DIR/$BM_MANIFEST" "$IT_TMP/bm_layers/$BM_MANIFEST"
ln -s "$BM_DIR/$BM_LIBRARY" "$IT_TMP/bm_layers/$BM_LIBRARY"
# shellcheck disable=SC2034 # read by it_env_layers
IT_LAYER_DIR=$IT_TMP/bm_layers
# shellcheck source=../../tools/fsr_emulation/env.sh
. "$SRC/tools/fsr_emulation/env.sh" "$IT_BUILD" || it_fail "no shading-rate emulation layer in $IT_BUILD"
it_env_layers "$BM_LAYER:$IT_VALIDATION:$EMULATION"
# shellcheck disable=SC2016 # expanded by the inner shell
it_run replay_builder env "${IT_ENV[@]}" ZOVK_FSR_TRACE="$TRACE" bash -c 'exec -a "$0" "$@"' "$APP" \
    gfxrecon-replay "${IT_REPLAY_ARGS[@]}" --screenshot-dir "$IT_TMP/shots_builder" "$IT_CAPTURE"
it_expect_success replay_builder
it_service_stop

# builder test layer -> validation -> emulation -> driver, the test layer from this build, and no
# other copy of the layer anywhere.
for kind in vkCreateInstance vkCreateDevice; do
    it_expect_chain replay_builder "$kind" "$BM_LAYER" "$IT_VALIDATION" "$EMULATION"
    chain=$IT_TMP/replay_builder.$kind.chain
    if cut -f2 "$chain" | grep -qx "$IT_LAYER"; then
        it_fail "$kind: $IT_LAYER was enabled beside the test layer"
    fi
    awk -F'\t' -v want="$EMULATION" '{ last[$1] = $2 } END { for (b in last) if (last[b] != want) exit 1 }' "$chain" ||
        it_fail "$kind: $EMULATION is not directly above the driver in every call stack"
    while IFS=$'\t' read -r _ name lib; do
        if [ "$name" = "$BM_LAYER" ] && [ "$(readlink -f "$lib")" != "$(readlink -f "$BM_DIR/$BM_LIBRARY")" ]; then
            it_fail "$kind loaded $BM_LAYER from '$lib', not from $BM_DIR"
        fi
    done <"$chain"
done

# The layer served the device with the rate extension that the module asked for, and the module ran
# its device teardown.
log=$IT_TMP/replay_builder.err
for line in 'device served' 'device extension VK_KHR_fragment_shading_rate added' \
    'builder test: texel size 16x16' 'builder test: device objects released'; do
    grep -qF "$line" "$log" || {
        it_show "$log"
        it_fail "the layer's debug log lacks \"$line\""
    }
done
if grep -E 'libZoVK.*(failed|no substitute)' "$log" >&2; then
    it_fail "the layer logged failures (above)"
fi

it_expect_no_validation_except "$ALLOWLIST" "gfxrecon-replay through the test layer"

# ---- the emulation trace ---------------------------------------------------------------------------

[ -s "$TRACE" ] || it_fail "the emulation layer wrote no trace"
python3 - "$TRACE" "$IT_TMP/capture/vkcube.jsonl" >"$IT_TMP/trace_check.out" 2>&1 <<'EOF' || {
import json
import sys

trace_path, capture_path = sys.argv[1], sys.argv[2]
RATES = (0, 1, 4, 5)  # must match builder_test_module.cpp
R8_UINT = 13
failures = []


def fail(message):
    failures.append(message)


def first_pattern(width, height):
    return bytes(RATES[(i * 7 + 3) % 6 % 4] for i in range(width * height))


def second_pattern(width, height):
    return bytes(RATES[(x // 2 + y) % 4] for y in range(height) for x in range(width))


# What vkcube created: render passes by attachment count, framebuffers by size.
app_attachments, app_sizes = [], []
with open(capture_path) as f:
    for line in f:
        call = json.loads(line).get("vkFunc")
        if not call:
            continue
        args = call.get("args", {})
        if call.get("name") == "vkCreateRenderPass":
            app_attachments.append(args["pCreateInfo"]["attachmentCount"])
        elif call.get("name") == "vkCreateFramebuffer":
            app_sizes.append((args["pCreateInfo"]["width"], args["pCreateInfo"]["height"]))
if not app_attachments or not app_sizes:
    sys.exit("the capture holds no vkCreateRenderPass or vkCreateFramebuffer")

lines = [json.loads(line) for line in open(trace_path) if line.strip()]
by_event = {}
for entry in lines:
    by_event.setdefault(entry["event"], []).append(entry)

devices = by_event.get("device", [])
if len(devices) != 1 or not devices[0]["extensionEnabled"]:
    fail("expected one device with VK_KHR_fragment_shading_rate enabled, got %s" % devices)
texel = (devices[0]["texelWidth"], devices[0]["texelHeight"]) if devices else (0, 0)
if texel != (16, 16):
    fail("the emulation's texel size is %s, not 16x16" % (texel,))

passes = by_event.get("renderPass", [])
if sorted(p["attachmentCount"] for p in passes) != sorted(n + 1 for n in app_attachments):
    fail("substitute passes have %s attachments; vkcube's have %s"
         % ([p["attachmentCount"] for p in passes], app_attachments))
for p in passes:
    if p["attachment"] != p["attachmentCount"] - 1 or (p["texelWidth"], p["texelHeight"]) != texel:
        fail("render pass %s: rate attachment %d of %d at %dx%d" % (p["renderPass"], p["attachment"],
             p["attachmentCount"], p["texelWidth"], p["texelHeight"]))
pass_handles = {p["renderPass"] for p in passes}

framebuffers = by_event.get("framebuffer", [])
if sorted((f["width"], f["height"]) for f in framebuffers) != sorted(app_sizes):
    fail("substitute framebuffers %s do not match vkcube's %s"
         % ([(f["width"], f["height"]) for f in framebuffers], app_sizes))
for f in framebuffers:
    if f["renderPass"] not in pass_handles or f["view"] is None:
        fail("framebuffer %s: pass %s, rate view %s" % (f["framebuffer"], f["renderPass"], f["view"]))
framebuffer_handles = {f["framebuffer"] for f in framebuffers}

begins = by_event.get("beginRenderPass", [])
if not begins:
    fail("no render pass was begun with a shading-rate attachment")
rates = {(r["commandBuffer"], r["position"]): r for r in by_event.get("setRate", [])}
if len(rates) != len(begins):
    fail("%d rates set for %d substituted begins" % (len(rates), len(begins)))
for b in begins:
    if b["renderPass"] not in pass_handles or b["framebuffer"] not in framebuffer_handles:
        fail("begin in %s uses pass %s and framebuffer %s" % (b["commandBuffer"], b["renderPass"], b["framebuffer"]))
    rate = rates.get((b["commandBuffer"], b["position"] + 1))
    if rate is None or (rate["width"], rate["height"]) != (1, 1) or rate["combinerOps"] != ["KEEP", "KEEP"]:
        fail("begin at %s:%d is not followed by a 1x1 KEEP,KEEP rate: %s" % (b["commandBuffer"], b["position"], rate))

# One image per framebuffer size, each filled twice: the first pattern, then the second.
uploads = by_event.get("upload", [])
images = []
for u in uploads:
    if u["image"] not in images:
        images.append(u["image"])
expected_sizes = sorted({(w // texel[0], h // texel[1]) for w, h in app_sizes}) if texel[0] else []
seen_sizes = []
for image in images:
    mine = [u for u in uploads if u["image"] == image]
    width, height, depth = mine[0]["extent"]
    seen_sizes.append((width, height))
    want = [first_pattern(width, height), second_pattern(width, height)]
    got = [bytes.fromhex(u["bytes"]) if u.get("readable") else None for u in mine]
    if [u["format"] for u in mine] != [R8_UINT] * len(mine) or depth != 1:
        fail("image %s: formats %s, depth %d" % (image, [u["format"] for u in mine], depth))
    if len(got) != len(want):
        fail("image %s (%dx%d): %d uploads, wanted 2" % (image, width, height, len(got)))
    for n, (g, w) in enumerate(zip(got, want)):
        if g is None:
            fail("image %s: upload %d unreadable (%s)" % (image, n + 1, mine[n].get("reason")))
        elif g != w:
            at = next((i for i in range(min(len(g), len(w))) if g[i] != w[i]), min(len(g), len(w)))
            fail("image %s (%dx%d): upload %d is not pattern %d: %d bytes, first difference at byte %d"
                 % (image, width, height, n + 1, n + 1, len(g), at))
if sorted(seen_sizes) != expected_sizes:
    fail("shading-rate images of %s, wanted %s (framebuffer size / texel size)" % (seen_sizes, expected_sizes))

summaries = by_event.get("summary", [])
if len(summaries) != 1:
    fail("expected one device summary (the device destroyed once), got %d" % len(summaries))

for message in failures:
    print(message)
if failures:
    sys.exit(1)
print("%d passes, %d framebuffers, %d begins, %d uploads into %d images %s"
      % (len(passes), len(framebuffers), len(begins), len(uploads), len(images), seen_sizes))
EOF
    cat "$IT_TMP/trace_check.out" >&2
    it_fail "the emulation trace does not show what the module should have done"
}
it_log "trace: $(cat "$IT_TMP/trace_check.out")"

# ---- the pixels ------------------------------------------------------------------------------------

it_expect_same_replay replay_builder "$IT_TMP/shots_builder" "the test layer"
it_log "PASS (4 identical screenshots)"
