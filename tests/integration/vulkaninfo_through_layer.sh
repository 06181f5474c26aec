#!/usr/bin/env bash
# vulkaninfo --summary through the layer, with the Khronos validation layer beneath it: the program
# succeeds, the validation layer reports nothing, and the loader really stacked
# application -> ... -> zovkshadingrateengine -> VK_LAYER_KHRONOS_validation -> driver
# for every instance and device that vulkaninfo created.
. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require vulkaninfo

# The list names the validation layer first on purpose: the stacking order must come from the layer
# search path (our directory is searched first), not from the order of this list.
it_env_layers "$IT_VALIDATION:$IT_LAYER"
it_run vulkaninfo env "${IT_ENV[@]}" vulkaninfo --summary
it_expect_success vulkaninfo
it_expect_chain vulkaninfo vkCreateInstance "$IT_LAYER" "$IT_VALIDATION"
it_expect_chain vulkaninfo vkCreateDevice "$IT_LAYER" "$IT_VALIDATION"
it_expect_no_validation "vulkaninfo --summary"
grep -q '^GPU0:' "$IT_TMP/vulkaninfo.out" || {
    it_show "$IT_TMP/vulkaninfo.out"
    it_fail "vulkaninfo listed no physical device through the layer"
}
it_log "PASS"
