#!/usr/bin/env bash
# The check on a machine whose GPU driver offers VK_KHR_fragment_shading_rate with attachment rates:
#   1. vulkaninfo: the extension and its attachment rates, or stop;
#   2. the integration tests on that driver (ZOVK_DRIVER=system: the tools' layer passes the
#      extension through instead of emulating it, still traces, and serves headless presentation
#      where the driver has none);
#   3. zovk-run --gpu-time --compare on the Star Rail scene in both modes and on the AnTuTu scene,
#      with heavier shaders, under the validation layer;
# then one table: GPU time per pass and level with and without the layer, PSNR and largest
# difference per level against level 0, validation messages and exit status of each run.
#
#   scripts/gpu-check.sh [BUILD_DIR] [OUT_DIR]      (default build, gpu-check-out)
#
# Set VK_DRIVER_FILES to the GPU's ICD manifest when the loader does not find it by itself.
# SHADER_LOOPS (default 64) sets the scenes' fragment loop count; FRAMES (default 90) the Star
# Rail frames (levels 1 and 2 from frames 3 and 30, level 0 from 60).
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
out=$(mkdir -p "${2:-gpu-check-out}" && cd "${2:-gpu-check-out}" && pwd)
loops=${SHADER_LOOPS:-64}
frames=${FRAMES:-90}

info=$(vulkaninfo 2>/dev/null)
if ! grep -q "VK_KHR_fragment_shading_rate" <<<"$info" ||
    ! grep -Eq "attachmentFragmentShadingRate\s*=\s*(true|1)" <<<"$info"; then
    echo "gpu-check: the driver offers no VK_KHR_fragment_shading_rate with attachment rates:" >&2
    grep -m3 -E "deviceName|driverInfo" <<<"$info" >&2
    exit 2
fi
grep -m2 -E "deviceName|driverInfo" <<<"$info" | tee "$out/device.txt"

echo "== integration tests on the system driver"
ZOVK_DRIVER=system ctest --test-dir "$build" -L integration --output-on-failure >"$out/integration.log" 2>&1
echo "integration: exit $?" | tee -a "$out/device.txt"
grep -E "Test +#|tests passed" "$out/integration.log" | sed 's/^ *//'

run() {
    local label=$1
    shift
    ZOVK_DRIVER=system "$root/tools/zovk-run" --build "$build" --out "$out/$label" --validation --gpu-time \
        --compare --shader-loops "$loops" "$@" >"$out/$label.txt" 2>&1
    echo "$label: exit $?"
}
pushes=(--push "1:1 {pkg} 1058" --push "1:6 {pkg} 1" --push "30:6 {pkg} 2" --push "60:6 {pkg} 0")
run starrail-required --frames "$frames" "${pushes[@]}"
run starrail-conforming --conforming --frames "$frames" "${pushes[@]}"
run antutu --app antutu --frames 200

python3 - "$out" <<'EOF'
import json, os, sys
out = sys.argv[1]
print(f"\n{'run':21} {'pass':10} {'level':>5} {'GPU ms layer':>12} {'no layer':>9} {'change':>8} "
      f"{'PSNR dB':>8} {'max diff':>8} {'valid.':>6}")
for label in ("starrail-required", "starrail-conforming", "antutu"):
    path = os.path.join(out, label, "summary.json")
    if not os.path.exists(path):
        print(f"{label:21} no summary (see {label}.txt)")
        continue
    s = json.load(open(path))
    compare = s.get("compare", {}).get("levels", {})
    validation = s.get("validationMessages")
    for name, levels in s.get("gpuTime", {}).items():
        for level, runs in levels.items():
            layer, plain = runs.get("layer", {}).get("medianMs"), runs.get("plain", {}).get("medianMs")
            change = f"{(layer / plain - 1) * 100:+.1f}%" if layer and plain else "-"
            c = compare.get(level, {})
            psnr = "same" if c.get("identical") else f"{c['psnr']:.2f}" if c.get("psnr") else "-"
            print(f"{label:21} {name:10} {level:>5} {layer or 0:12.3f} {plain or 0:9.3f} {change:>8} {psnr:>8} "
                  f"{c.get('maxDiff', '-'):>8} {validation if validation is not None else '-':>6}")
    if s.get("exitCode"):
        print(f"{label:21} exit {s['exitCode']}")
EOF
