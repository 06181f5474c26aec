# shellcheck shell=bash
# Puts VK_LAYER_ZOVK_fsr_emulation at the bottom of the layer stack, directly above the driver.
#
#   . tools/fsr_emulation/env.sh BUILD_DIR [PRESET]
#
# BUILD_DIR is a standalone build of this directory or the main build (the layer then lies in
# BUILD_DIR/tools/fsr_emulation). PRESET (16x16-4x4, the default, 8x8-2x2 or 8x8-4x4)
# sets ZOVK_FSR_PRESET and ZOVK_FSR_EMULATION=on; "off" sets ZOVK_FSR_EMULATION=off, which leaves
# VK_KHR_fragment_shading_rate to the driver (a GPU's own extension shows through; the trace goes
# on). Without PRESET both stay as they are. Add your own layers to VK_INSTANCE_LAYERS (or VK_LOADER_LAYERS_ENABLE)
# before or after sourcing this; the order of the names there does not matter.
#
# ZOVK_FSR_WSI chooses who serves VK_EXT_headless_surface to programs that enable it: "auto" (what
# this script sets unless it is set already) the layer where the driver has none (NVIDIA's),
# "headless" the layer always, "off" the driver. The layer's surfaces present to swapchains of plain
# images that programs can copy from; the layers above see every present.
#
# How the order comes about (Khronos loader 1.3.239, check with VK_LOADER_DEBUG=layer, whose
# "layer callstack setup to:" blocks list the layers from the application down):
# - Layers enabled from the environment (VK_INSTANCE_LAYERS, VK_LOADER_LAYERS_ENABLE) are stacked
#   in the order the loader found their manifests, not in the order they are named. The loader
#   searches VK_ADD_LAYER_PATH first, then $XDG_CONFIG_HOME, $XDG_CONFIG_DIRS, /etc/vulkan,
#   $XDG_DATA_HOME, then $XDG_DATA_DIRS in order (default /usr/local/share:/usr/share), each with
#   vulkan/explicit_layer.d appended. The first found is the top (nearest the application).
# - So this script appends the build's data directory, which holds only our manifest under
#   vulkan/explicit_layer.d, to the end of XDG_DATA_DIRS: our layer is found last and sits below
#   the Khronos validation layer (/usr/share) and below anything under VK_ADD_LAYER_PATH.
# - VK_LAYER_PATH, when set, replaces that whole search; our directory then goes at its end.
# - Layers that the application enables itself (ppEnabledLayerNames) are stacked BELOW all the
#   ones enabled from the environment, so a validation layer enabled that way would end up under
#   ours: enable it from the environment. Implicit layers (MESA device_select, ...) are on top.
# - The driver is pinned to lavapipe unless VK_DRIVER_FILES or VK_ICD_FILENAMES is already set.
#
# Returns non-zero, changing nothing, when the build holds no layer, the preset is unknown or
# ZOVK_FSR_WSI is none of off, headless, auto.

_zovk_fsr_env() {
    local build=${1:-} preset=${2:-} data=
    if [ -z "$build" ]; then
        echo "usage: . env.sh BUILD_DIR [PRESET]" >&2
        return 2
    fi
    local dir
    for dir in "$build" "$build/tools/fsr_emulation"; do
        if [ -f "$dir/share/vulkan/explicit_layer.d/VkLayer_zovk_fsr_emulation.json" ] &&
            [ -f "$dir/libVkLayer_zovk_fsr_emulation.so" ]; then
            data=$(cd "$dir/share" && pwd -P)
            break
        fi
    done
    if [ -z "$data" ]; then
        echo "env.sh: no VK_LAYER_ZOVK_fsr_emulation build under $build" >&2
        return 1
    fi
    case $preset in
    "" | 16x16-4x4 | 8x8-2x2 | 8x8-4x4 | off) ;;
    *)
        echo "env.sh: unknown preset '$preset' (16x16-4x4, 8x8-2x2, 8x8-4x4, off)" >&2
        return 1
        ;;
    esac
    case ${ZOVK_FSR_WSI-auto} in
    "" | off | headless | auto) ;;
    *)
        echo "env.sh: ZOVK_FSR_WSI='$ZOVK_FSR_WSI' is none of off, headless, auto" >&2
        return 1
        ;;
    esac

    case ":${XDG_DATA_DIRS:-}:" in
    *":$data:"*) ;;
    *) export XDG_DATA_DIRS="${XDG_DATA_DIRS:-/usr/local/share:/usr/share}:$data" ;;
    esac
    if [ -n "${VK_LAYER_PATH:-}" ]; then
        case ":$VK_LAYER_PATH:" in
        *":$data/vulkan/explicit_layer.d:"*) ;;
        *) export VK_LAYER_PATH="$VK_LAYER_PATH:$data/vulkan/explicit_layer.d" ;;
        esac
    fi
    case ":${VK_INSTANCE_LAYERS:-}:" in
    *":VK_LAYER_ZOVK_fsr_emulation:"*) ;;
    *) export VK_INSTANCE_LAYERS="${VK_INSTANCE_LAYERS:+$VK_INSTANCE_LAYERS:}VK_LAYER_ZOVK_fsr_emulation" ;;
    esac
    if [ "$preset" = off ]; then
        export ZOVK_FSR_EMULATION=off
    elif [ -n "$preset" ]; then
        export ZOVK_FSR_PRESET=$preset ZOVK_FSR_EMULATION=on
    fi
    export ZOVK_FSR_WSI=${ZOVK_FSR_WSI-auto}
    if [ -z "${VK_DRIVER_FILES:-}" ] && [ -z "${VK_ICD_FILENAMES:-}" ]; then
        local icd
        for icd in /usr/share/vulkan/icd.d/lvp_icd*.json /etc/vulkan/icd.d/lvp_icd*.json; do
            if [ -f "$icd" ]; then
                export VK_DRIVER_FILES=$icd VK_ICD_FILENAMES=$icd
                break
            fi
        done
    fi
}

if _zovk_fsr_env "$@"; then
    unset -f _zovk_fsr_env
else
    unset -f _zovk_fsr_env
    return 1
fi
