#!/usr/bin/env bash
# A capture of vkcube, made with the GFXReconstruct capture layer alone, is replayed headless twice:
# once with no layer and once through the layer with the validation layer beneath it. The replay through
# the layer must succeed, stay clean under validation, log no replay warning or error that the plain
# replay does not log, and produce byte-identical screenshots.

. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require vkcube gfxrecon-replay cmp

it_capture_vkcube 36
mkdir "$IT_TMP/shots_layer"

it_env_layer_validation
it_run replay_layer env "${IT_ENV[@]}" gfxrecon-replay "${IT_REPLAY_ARGS[@]}" \
    --screenshot-dir "$IT_TMP/shots_layer" "$IT_CAPTURE"
it_expect_success replay_layer
it_expect_chain replay_layer vkCreateInstance "$IT_LAYER" "$IT_VALIDATION"
it_expect_chain replay_layer vkCreateDevice "$IT_LAYER" "$IT_VALIDATION"
it_expect_no_validation "gfxrecon-replay through the layer"
it_expect_same_replay replay_layer "$IT_TMP/shots_layer" "the layer"
it_log "PASS (4 identical screenshots)"
