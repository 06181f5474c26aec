#!/usr/bin/env bash
# Fails unless the library defines exactly the dynamic symbols the loaders look up: the
# entry points, the stub object `impl` and, where the Khronos loader loads it, the
# interface negotiation.   check_exports.sh [--no-negotiate] LIBRARY
set -euo pipefail

negotiate=yes
if [ "${1:-}" = "--no-negotiate" ]; then
    negotiate=no
    shift
fi
[ $# -eq 1 ] || { echo "usage: $0 [--no-negotiate] LIBRARY" >&2; exit 2; }

# Name and kind: T code, D data (an object in .data, .bss or .rodata).
expected="createInstance T
impl D
ZoVkCreateInstance T
ZoVkCreateDevice T
ZoVkDestroyInstance T
ZoVkDestroyDevice T
ZoVkEnumerateInstanceLayerProperties T
ZoVkEnumerateInstanceExtensionProperties T
ZoVkEnumerateDeviceLayerProperties T
ZoVkGetDeviceLayerProperties T
ZoVkEnumerateDeviceExtensionProperties T
ZoVkGetInstanceProcAddr T
ZoVkGetDeviceProcAddr T"
[ "$negotiate" = no ] || expected+=$'\nvkNegotiateLoaderLayerInterfaceVersion T'

actual=$(nm -D --defined-only "$1" | awk '{ t = $2; if (t ~ /^[BRbr]$/) t = "D"; print $3, t }' | sort)
expected=$(sort <<<"$expected")
if [ "$actual" != "$expected" ]; then
    echo "exported symbols of $1 differ (< expected, > actual):" >&2
    diff <(echo "$expected") <(echo "$actual") >&2 || true
    exit 1
fi
echo "$1 exports exactly the $(wc -l <<<"$expected") expected symbols"
