#!/usr/bin/env bash
# A capture of vkcube, made with the GFXReconstruct capture layer alone, is replayed headless twice:
# once with no layer and once through the layer with the validation layer beneath it. The replay through
# the layer must succeed, stay clean under validation, log no replay warning or error that the plain
# replay does not log, and produce byte-identical screenshots.
#
# gfxreconstruct 0.9.18: capture settings come from GFXRECON_* variables; the replayer takes
# --wsi headless, --screenshots N1,N2,... (1-based frames), --screenshot-dir and writes
# screenshot_frame_N.bmp files.
. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require vkcube gfxrecon-replay cmp

FRAMES=36
SHOTS=1,12,24,$FRAMES
CAPTURE=$IT_TMP/capture/vkcube.gfxr
mkdir "$IT_TMP/capture" "$IT_TMP/shots_plain" "$IT_TMP/shots_layer"

it_start_xvfb
it_run capture env VK_INSTANCE_LAYERS=VK_LAYER_LUNARG_gfxreconstruct GFXRECON_CAPTURE_FILE="$CAPTURE" \
    GFXRECON_CAPTURE_FILE_TIMESTAMP=false GFXRECON_LOG_LEVEL=warning vkcube --c "$FRAMES"
it_expect_success capture
it_stop_xvfb
[ -s "$CAPTURE" ] || it_fail "the capture layer wrote no capture file"

replay_args=(--wsi headless --screenshots "$SHOTS" --log-level warning)

it_run replay_plain gfxrecon-replay "${replay_args[@]}" --screenshot-dir "$IT_TMP/shots_plain" "$CAPTURE"
it_expect_success replay_plain

it_env_layer_validation
it_run replay_layer env "${IT_ENV[@]}" gfxrecon-replay "${replay_args[@]}" \
    --screenshot-dir "$IT_TMP/shots_layer" "$CAPTURE"
it_expect_success replay_layer
it_expect_chain replay_layer vkCreateInstance "$IT_LAYER" "$IT_VALIDATION"
it_expect_chain replay_layer vkCreateDevice "$IT_LAYER" "$IT_VALIDATION"
it_expect_no_validation "gfxrecon-replay through the layer"

# The replayer reports calls whose result differs from the capture, and failed calls, as warnings or
# errors; a run through the layer must add none to those of the plain replay.
replay_problems() {
    cat "$IT_TMP/$1.out" "$IT_TMP/$1.err" | grep -E '\[gfxrecon\] (WARNING|ERROR|FATAL)' | sort -u
}
added=$(comm -13 <(replay_problems replay_plain) <(replay_problems replay_layer))
if [ -n "$added" ]; then
    printf '%s\n' "$added" >&2
    it_fail "the replay through the layer logged warnings or errors that the plain replay does not"
fi

plain_list=$(cd "$IT_TMP/shots_plain" && ls)
layer_list=$(cd "$IT_TMP/shots_layer" && ls)
[ -n "$plain_list" ] || it_fail "the plain replay wrote no screenshot"
[ "$plain_list" = "$layer_list" ] ||
    it_fail "the replays wrote different screenshot sets: plain [$(it_words "$plain_list")], through the layer [$(it_words "$layer_list")]"
[ "$(echo "$plain_list" | wc -l)" -eq 4 ] || it_fail "expected 4 screenshots ($SHOTS), got: $(it_words "$plain_list")"
# The cube turns from frame to frame: identical first and last frames mean nothing was rendered.
cmp -s "$IT_TMP/shots_plain/screenshot_frame_1.bmp" "$IT_TMP/shots_plain/screenshot_frame_$FRAMES.bmp" &&
    it_fail "frames 1 and $FRAMES of the plain replay are identical: the capture does not render"
for f in $plain_list; do
    cmp "$IT_TMP/shots_plain/$f" "$IT_TMP/shots_layer/$f" >&2 ||
        it_fail "screenshot $f differs between the plain replay and the replay through the layer"
done
it_log "PASS ($(echo "$plain_list" | wc -l) identical screenshots)"
