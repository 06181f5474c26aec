#!/usr/bin/env bash
# The layer recognises the application by the first word of the process's command line. vulkaninfo is
# started under package names with `exec -a`, with the layer's debug log switched on:
# - a recognised name makes the layer log "application type N" with the right N;
# - an unrecognised name (plain vulkaninfo, a name that differs in case only, the AnTuTu package
#   without its ":ue" process suffix) gives no identification line at all, though the layer is loaded;
# - in every case vulkaninfo succeeds and prints exactly what it prints without the layer: no game
#   service runs here, so even a recognised process must stay a pure pass-through.
. "$(dirname "$0")/lib.sh"
it_init "$@"
it_require vulkaninfo bash diff

echo 'vendor.zovk.log.debug=true' >"$ZOVK_PROPERTIES"

n=0
# check_name PROCESS_NAME EXPECTED_TYPE (0: not recognised)
check_name() {
    local name=$1 type=$2
    n=$((n + 1))
    local plain=plain$n layer=layer$n
    # shellcheck disable=SC2016 # expanded by the inner shell, which execs vulkaninfo as argv[0] NAME
    local exec_as=(bash -c 'exec -a "$0" "$@"' "$name" vulkaninfo --summary)

    it_run "$plain" env VK_ADD_LAYER_PATH="$IT_LAYER_DIR" VK_LOADER_DEBUG=layer "${exec_as[@]}"
    it_expect_success "$plain"
    it_run "$layer" env VK_ADD_LAYER_PATH="$IT_LAYER_DIR" VK_LOADER_DEBUG=layer \
        VK_INSTANCE_LAYERS="$IT_LAYER" "${exec_as[@]}"
    it_expect_success "$layer"
    it_expect_chain "$layer" vkCreateInstance "$IT_LAYER"
    it_expect_chain "$layer" vkCreateDevice "$IT_LAYER"

    if ! diff "$IT_TMP/$plain.out" "$IT_TMP/$layer.out" >"$IT_TMP/$layer.diff"; then
        it_show "$IT_TMP/$layer.diff"
        it_fail "as '$name': vulkaninfo printed something else through the layer than without it"
    fi

    local lines
    lines=$(grep -E 'application type [0-9]+' "$IT_TMP/$layer.err")
    if [ "$type" -eq 0 ]; then
        if [ -n "$lines" ]; then
            printf '%s\n' "$lines" >&2
            it_fail "as '$name' (not a recognised application) the layer logged an identification"
        fi
    else
        if ! printf '%s\n' "$lines" | grep -Eq "application type $type([^0-9]|\$)"; then
            it_show "$IT_TMP/$layer.err"
            it_fail "as '$name' the layer did not log 'application type $type'"
        fi
        if printf '%s\n' "$lines" | grep -Ev "application type $type([^0-9]|\$)" >&2; then
            it_fail "as '$name' the layer logged another application type than $type"
        fi
    fi
    it_log "ok: '$name' (type $type)"
}

check_name com.miHoYo.hkrpg 2
check_name com.HoYoverse.hkrpgoversea 2
check_name com.antutu.benchmark.full:ue 1
check_name vulkaninfo 0
check_name com.mihoyo.hkrpg 0
check_name com.antutu.benchmark.full 0
it_log "PASS"
