#!/usr/bin/env bash
# vkcube under Xvfb with two third-party layers stacked beside ours: vkBasalt (post-processing: it
# replaces the swapchain images and adds its own render passes and draws at every present; here with
# its built-in CAS effect) and MangoHud (draws its overlay into every presented image). Both are
# implicit layers, which this loader puts above the explicitly enabled ones (in the order it reads their
# manifest directory, so the order of the two is not checked), giving
# application -> vkBasalt, MangoHud -> zovkshadingrateengine -> validation -> driver.
# The run must succeed with all three in the instance and device call stacks, vkBasalt must really
# have built its effect, and the validation layer must report nothing. vkcube with the same two layers
# and without ours is run first: it is clean on this machine, and if it ever is not, the script says so
# instead of blaming the layer.
. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require vkcube

BASALT=VK_LAYER_VKBASALT_post_processing
HUD=VK_LAYER_MANGOHUD_overlay
printf 'effects = cas\ncasSharpness = 0.4\n' >"$IT_TMP/vkBasalt.conf"
# shellcheck disable=SC2054 # the commas belong to the MangoHud option list
overlays=(ENABLE_VKBASALT=1 VKBASALT_CONFIG_FILE="$IT_TMP/vkBasalt.conf" VKBASALT_LOG_LEVEL=debug
    MANGOHUD=1 MANGOHUD_CONFIG=fps,frametime,frame_timing)

it_start_xvfb

it_env_validation_only
it_run vkcube_overlays env "${IT_ENV[@]}" "${overlays[@]}" vkcube --c 100
it_expect_success vkcube_overlays
it_expect_chain vkcube_overlays vkCreateDevice "$BASALT"
it_expect_chain vkcube_overlays vkCreateDevice "$HUD"
if [ -s "$IT_VVL_LOG" ]; then
    it_log "vkcube with vkBasalt and MangoHud, WITHOUT our layer, already gets validation messages:"
    it_expect_no_validation "environment (vkcube with vkBasalt and MangoHud, without our layer)"
fi

it_env_layer_validation
it_run vkcube_stacked env "${IT_ENV[@]}" "${overlays[@]}" vkcube --c 100
it_expect_success vkcube_stacked
for kind in vkCreateInstance vkCreateDevice; do
    it_expect_chain vkcube_stacked "$kind" "$BASALT"
    it_expect_chain vkcube_stacked "$kind" "$HUD"
    it_expect_chain vkcube_stacked "$kind" "$IT_LAYER" "$IT_VALIDATION"
done
grep -q 'vkBasalt debug: created CasEffect' "$IT_TMP/vkcube_stacked.err" || {
    it_show "$IT_TMP/vkcube_stacked.err"
    it_fail "vkBasalt did not create its effect on the swapchain"
}
it_expect_no_validation "vkcube with vkBasalt, MangoHud and the layer"
it_log "PASS"
