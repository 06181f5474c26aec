"""What zovk-run measures of the GPU: the scenes' timestamps around each render pass (--gpu-time),
and the final frame of each VRS level against level 0 (--compare).

The scenes write one JSON line per pass and frame, {"frame": N, "pass": LABEL, "ms": X}. A frame's
level is the one the layer's run recorded it under; the run without the layer is grouped by the same
frame numbers, so that each level's medians compare the same frames.
"""

import json
import os
import statistics
import subprocess

LAVAPIPE_NOTE = ("on lavapipe with the emulation layer: the times are a CPU rasteriser's, and the emulation "
                 "strips the shading-rate attachment, so levels cannot change the pixels or the work")


def read_gpu_times(path):
    """[(frame, pass, ms)] of a scene's --gpu-time file; missing or cut-off lines are left out."""
    times = []
    if os.path.exists(path):
        for line in open(path):
            try:
                e = json.loads(line)
                times.append((int(e["frame"]), str(e["pass"]), float(e["ms"])))
            except (ValueError, KeyError, TypeError):
                pass
    return times


def gpu_time_summary(layer_times, plain_times, level_of):
    """Per pass and level: the median milliseconds with and without the layer and the frames counted.
    `level_of` maps a frame number to its level; frames it does not know are left out."""
    groups = {}
    for label, times in (("layer", layer_times), ("plain", plain_times)):
        for frame, name, ms in times:
            level = level_of.get(frame)
            if level is not None:
                groups.setdefault(name, {}).setdefault(str(level), {}).setdefault(label, []).append(ms)
    summary = {}
    for name, levels in sorted(groups.items()):
        for level, runs in sorted(levels.items()):
            summary.setdefault(name, {})[level] = {
                label: {"medianMs": round(statistics.median(values), 4), "frames": len(values)}
                for label, values in runs.items()}
    return summary


def gpu_time_lines(summary, note):
    lines = ["  GPU time per render pass, median over the frames of each level (ms; with the layer / without it):"]
    if note:
        lines.append(f"    ({note})")
    for name, levels in summary.items():
        parts = []
        for level, runs in levels.items():
            layer, plain = runs.get("layer"), runs.get("plain")
            text = f"level {level} {layer['medianMs']:.3f}" if layer else f"level {level} -"
            text += f" / {plain['medianMs']:.3f}" if plain else " / -"
            if layer and plain and plain["medianMs"] > 0:
                text += f" ({(layer['medianMs'] / plain['medianMs'] - 1) * 100:+.1f}%)"
            parts.append(text)
        lines.append(f"    {name}: " + "; ".join(parts))
    if not summary:
        lines.append("    no timestamps (the device has none on its graphics queue, or the scene wrote none)")
    return lines


def compare_frames(tool, reference, frames, out):
    """PSNR, largest per-pixel difference and differing pixels of each frame against `reference`,
    with a difference image `diff-level-L.png` in `out`. `frames` maps a level to its PNG."""
    results = {}
    for level, png in sorted(frames.items()):
        diff = os.path.join(out, f"diff-level-{level}.png")
        done = subprocess.run([tool, reference, png, diff], capture_output=True, text=True)
        fields = done.stdout.split()
        if done.returncode != 0 or len(fields) != 3:
            results[str(level)] = {"error": (done.stderr or done.stdout).strip()}
            continue
        results[str(level)] = {"psnr": None if fields[0] == "inf" else float(fields[0]), "maxDiff": int(fields[1]),
                               "differingPixels": int(fields[2]), "identical": fields[0] == "inf",
                               "diffPng": os.path.basename(diff)}
    return results


def compare_lines(results, frame, note):
    lines = [f"  final frame {frame} of each level against level 0:"]
    if note:
        lines.append(f"    ({note})")
    for level, r in results.items():
        if "error" in r:
            lines.append(f"    level {level}: not compared: {r['error']}")
        elif r["identical"]:
            lines.append(f"    level {level}: identical")
        else:
            lines.append(f"    level {level}: PSNR {r['psnr']:.2f} dB, largest difference {r['maxDiff']}/255, "
                         f"{r['differingPixels']} pixels differ ({r['diffPng']})")
    return lines
