#!/usr/bin/env bash
# vkcube (100 frames, X11 swapchain under Xvfb) through the layer with the Khronos validation layer
# beneath it: the program succeeds and the validation layer reports no error and no warning.
#
# On lavapipe (Mesa 25.0) with validation layer 1.3.239, vkcube alone (same frame count, same settings
# file, errors and warnings) is clean: no message at all. So every message in the run through the layer
# counts against the layer; nothing is filtered. The script checks that baseline first, so that a change
# of driver or validation layer that makes vkcube itself unclean is reported as such rather than blamed
# on the layer.
. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require vkcube
it_start_xvfb

it_env_validation_only
it_run vkcube_alone env "${IT_ENV[@]}" vkcube --c 100
it_expect_success vkcube_alone
if [ -s "$IT_VVL_LOG" ]; then
    it_log "vkcube WITHOUT the layer already gets validation messages on this machine:"
    it_expect_no_validation "environment (vkcube without the layer)"
fi

it_env_layer_validation
it_run vkcube env "${IT_ENV[@]}" vkcube --c 100
it_expect_success vkcube
it_expect_chain vkcube vkCreateInstance "$IT_LAYER" "$IT_VALIDATION"
it_expect_chain vkcube vkCreateDevice "$IT_LAYER" "$IT_VALIDATION"
it_expect_no_validation "vkcube through the layer"
it_log "PASS"
