#!/usr/bin/env python3
"""The tools beneath the layer, under the validation layer on lavapipe:
- emulation_probe: fsr_probe on the emulation layer, per preset and with none: stacked validation ->
  emulation -> driver, silent validation, the pixels of `fsr_probe --plain`.
- scenes_starrail, scenes_antutu: 3 frames at 1920x1080, silent validation, a last frame of thousands of colours.
- wsi_headless: the Star Rail scene on the emulation layer's own headless surface (forced; lavapipe has one), the
  emulation off: the driver's frames, silent validation, a GPU time for every pass of every frame."""

import filecmp
import json
import subprocess

from it import EMULATION, VALIDATION, expect, main


def emulation_probe(s):
    probe, library = s.tool("fsr_emulation/fsr_probe"), s.tool("fsr_emulation/libVkLayer_zovk_fsr_emulation.so")
    # The probe is ours and built like the layer, leak checks included; in a sanitizer build the
    # emulation layer is preloaded after the runtime, which keeps it mapped after the loader unloads
    # it, so that a leak report can name its functions.
    s.preload = {"LD_PRELOAD": f"{s.preload['LD_PRELOAD']}:{library}"} if s.preload else {}
    s.run("plain", [probe, "--plain", s.path("plain.png")], s.layers(VALIDATION))
    s.expect_validation("plain", loaded=True)
    for preset in ("", "16x16-4x4", "8x8-2x2", "8x8-4x4"):
        label = f"probe-{preset or 'default'}"
        s.run(label, [probe, s.path(label + ".png")], s.layers(VALIDATION, emulation=preset, loader_debug=True))
        s.expect_validation(label, loaded=True)
        expect(filecmp.cmp(s.path("plain.png"), s.path(label + ".png"), shallow=False),
               f"{label}: the pixels differ from the plain frame rendered without the emulation layer")
        s.expect_chain(label, tail=(VALIDATION, EMULATION), library=(EMULATION, library))


def scene(name):
    def check(s):
        s.preload = {}  # the scenes are ours and built like the layer
        png = s.path(name + ".png")
        s.run(name, [s.tool(f"scenes/zovk-scene-{name}"), "--frames", "3", "--width", "1920", "--height", "1080",
                     "--png", png], s.layers(VALIDATION))
        s.expect_validation(name, loaded=True)
        stats = subprocess.run([s.tool("scenes/zovk-png-stats"), png], capture_output=True, text=True).stdout.split()
        expect(stats[:2] == ["1920", "1080"] and int(stats[2]) >= 1000, f"{name}: last frame {stats} (w, h, colours)")
    return check


def wsi_headless(s):
    s.preload = {}  # the scene is ours and built like the layer
    scene = [s.tool("scenes/zovk-scene-starrail"), "--frames", "3", "--width", "960", "--height", "540"]
    driver = s.layers(VALIDATION, emulation="")  # ZOVK_FSR_WSI=auto from env.sh: lavapipe's own surface
    times = s.path("gpu.jsonl")
    # The layer's run as on a GPU with the extension: nothing emulated, presentation served.
    layer = dict(driver, ZOVK_FSR_WSI="headless", ZOVK_FSR_EMULATION="off")
    for label, env, more in (("driver", driver, []), ("layer", layer, ["--gpu-time", times])):
        s.run(label, scene + ["--png", s.path(label + "-%d.png")] + more, env)
        s.expect_validation(label, loaded=True)
        served = s.count(label + ".err", "serving VK_EXT_headless_surface in the layer")
        expect(served == (label == "layer"), f"{label}: the layer said {served} times that it serves the surface")
    for frame in (1, 2, 3):
        expect(filecmp.cmp(s.path(f"driver-{frame}.png"), s.path(f"layer-{frame}.png"), shallow=False),
               f"frame {frame}: the pixels differ between the driver's surface and the layer's")
    lines = [json.loads(line) for line in open(times)]
    passes = sorted((line["frame"], line["pass"]) for line in lines)
    expect(passes == sorted((f, p) for f in (1, 2, 3) for p in ("main", "light", "other-1"))
           and all(line["ms"] > 0 for line in lines), f"GPU times: {lines}")


if __name__ == "__main__":
    raise SystemExit(main({"emulation_probe": emulation_probe, "scenes_starrail": scene("starrail"),
                           "scenes_antutu": scene("antutu"), "wsi_headless": wsi_headless}))
