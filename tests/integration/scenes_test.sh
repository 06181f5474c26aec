#!/usr/bin/env bash
# scenes_test.sh BUILD_DIR [starrail|antutu]: runs each scene program for a few frames at
# 1920x1080 on lavapipe under the Khronos validation layer, and fails on a non-zero exit, on any
# validation message, or on a last frame that is missing or a single flat colour.

set -u -o pipefail

name=$(basename "$0" .sh)
fail() {
    printf '[%s] FAIL: %s\n' "$name" "$*" >&2
    exit 1
}
if [ $# -lt 1 ] || [ $# -gt 2 ]; then fail "usage: $0 BUILD_DIR [starrail|antutu]"; fi
build=$(cd "$1" && pwd -P) || fail "no build directory '$1'"
scenes=${2:-"starrail antutu"}
bin=$build/tools/scenes
stats=$bin/zovk-png-stats
[ -x "$stats" ] || fail "$stats is not built"

# A clean Vulkan environment: only the validation layer, only lavapipe.
for v in $(compgen -e); do
    case $v in VK_* | ZOVK_* | DISPLAY | WAYLAND_DISPLAY) unset "$v" ;; esac
done
icd=
for f in /usr/share/vulkan/icd.d/lvp_icd*.json /etc/vulkan/icd.d/lvp_icd*.json; do
    [ -f "$f" ] && icd=$f && break
done
[ -n "$icd" ] || fail "no lavapipe ICD manifest under /usr/share/vulkan/icd.d"
export VK_DRIVER_FILES=$icd VK_ICD_FILENAMES=$icd

tmp=$(mktemp -d "${TMPDIR:-/tmp}/zovk-scenes.XXXXXX") || fail "mktemp failed"
trap 'rm -rf "$tmp"' EXIT
log=$tmp/validation.log
cat >"$tmp/vk_layer_settings.txt" <<SETTINGS
khronos_validation.debug_action = VK_DBG_LAYER_ACTION_LOG_MSG
khronos_validation.report_flags = error,warn
khronos_validation.log_filename = $log
SETTINGS
export VK_INSTANCE_LAYERS=VK_LAYER_KHRONOS_validation VK_LAYER_SETTINGS_PATH=$tmp
cd "$tmp" || fail "cannot enter $tmp"

for scene in $scenes; do
    program=$bin/zovk-scene-$scene
    [ -x "$program" ] || fail "$program is not built"
    png=$tmp/$scene.png
    rm -f "$log"
    timeout -k 10 240 "$program" --frames 3 --width 1920 --height 1080 --png "$png" >"$tmp/$scene.out" 2>"$tmp/$scene.err"
    rc=$?
    if [ $rc -ne 0 ]; then
        tail -n 20 "$tmp/$scene.out" "$tmp/$scene.err" >&2
        fail "$scene: exit status $rc"
    fi
    # The layer creates its log file when it starts: no file means no layer, or settings unread.
    [ -e "$log" ] || fail "$scene: no validation log: was the validation layer loaded with $tmp/vk_layer_settings.txt?"
    if [ -s "$log" ]; then
        grep -Eo '\[ (VUID|UNASSIGNED)-[^ ]+ \]' "$log" | sort | uniq -c >&2
        head -n 30 "$log" >&2
        fail "$scene: the validation layer reported errors or warnings"
    fi
    [ -s "$png" ] || fail "$scene: no PNG written"
    read -r width height distinct < <("$stats" "$png") || fail "$scene: cannot read $png"
    if [ "$width" != 1920 ] || [ "$height" != 1080 ]; then fail "$scene: the PNG is ${width}x${height}, not 1920x1080"; fi
    # Rendered geometry with per-pixel patterns gives thousands of colours; a flat or nearly
    # empty frame gives a handful.
    [ "$distinct" -ge 1000 ] || fail "$scene: the last frame has only $distinct distinct colours"
    printf '[%s] %s: exit 0, no validation messages, %s distinct colours\n' "$name" "$scene" "$distinct"
done
