#!/usr/bin/env python3
"""The tools beneath the layer, under the validation layer on lavapipe:
- emulation_probe: fsr_probe on the emulation layer, per preset and with none: stacked validation ->
  emulation -> driver, silent validation, the pixels of `fsr_probe --plain`, the preset's features,
  properties and rates, the expected trace; an unknown preset fails instance creation and env.sh.
- scenes_starrail, scenes_antutu: 3 frames at 1920x1080, silent validation, a last frame of thousands of colours."""

import filecmp
import os
import subprocess

from it import EMULATION, VALIDATION, Failure, expect, main, read_trace

# Per preset: texel size and largest fragment size.
PRESETS = {"16x16-4x4": (16, 4), "8x8-2x2": (8, 2), "8x8-4x4": (8, 4)}
RATES = {4: "4x4:0x1 4x2:0x1 2x4:0x1 2x2:0x5 2x1:0x5 1x2:0x5 1x1:0xffffffff",
         2: "2x2:0x5 2x1:0x5 1x2:0x5 1x1:0xffffffff"}


def expected_trace(preset, texel, fragment, width, height, cbs, uploaded):
    """The probe's trace, line by line (keys not named are not compared)."""
    primary, upload2, draw2 = cbs["primary"], cbs["uploadSecondary"], cbs["drawSecondary"]
    top = height // 2
    pipeline = {"event": "pipeline", "dynamicStateBlock": True, "rateDynamic": True}

    def rate(cb, level, position, w, h, ops):
        return {"event": "setRate", "commandBuffer": cb, "level": level, "position": position, "width": w,
                "height": h, "combinerOps": ops}

    def draw(cb, position, call, count, first_instance):
        return {"event": "draw", "commandBuffer": cb, "position": position, "call": call, count[0]: count[1],
                "instanceCount": 1, "firstInstance": first_instance}

    def upload(cb, offset, row, rows, data):
        return {"event": "upload", "submission": 0, "submittedCommandBuffer": primary, "commandBuffer": cb,
                "format": 13, "bufferOffset": offset, "mipLevel": 0, "baseArrayLayer": 0, "layerCount": 1,
                "imageOffset": [0, row, 0], "extent": [width, rows, 1], "readable": True, "bytes": data}
    return [
        {"event": "device", "preset": preset, "extensionEnabled": True, "texelWidth": texel, "texelHeight": texel,
         "maxFragmentWidth": fragment, "maxFragmentHeight": fragment},
        {"event": "renderPass", "attachmentCount": 3, "attachment": 0, "texelWidth": texel, "texelHeight": texel,
         "subpasses": [0, 1]},
        {"event": "framebuffer", "width": 100, "height": 60, "layers": 1, "imageless": False},
        pipeline, pipeline,
        rate(draw2, "secondary", 1, 2, 1, ["KEEP", "MAX"]),
        draw(draw2, 2, "vkCmdDraw", ("vertexCount", 3), 2),
        {"event": "executeCommands", "commandBuffer": primary, "position": 0, "secondaries": [upload2]},
        {"event": "beginRenderPass", "commandBuffer": primary, "position": 1, "renderArea": [0, 0, 100, 60]},
        rate(primary, "primary", 3, 2, 2, ["KEEP", "REPLACE"]),
        draw(primary, 4, "vkCmdDraw", ("vertexCount", 3), 0),
        rate(primary, "primary", 5, 1, 2, ["REPLACE", "KEEP"]),
        draw(primary, 6, "vkCmdDrawIndexed", ("indexCount", 6), 1),
        {"event": "executeCommands", "commandBuffer": primary, "position": 8, "secondaries": [draw2]},
        upload(primary, 0, 0, top, uploaded[:2 * width * top]),
        upload(upload2, 16, top, height - top, uploaded[2 * width * top:]),
        {"event": "summary", "renderPasses": 1, "framebuffers": 1, "beginRenderPasses": 1, "rates": 3, "draws": 3,
         "submissions": 2, "uploads": 2, "unreadableUploads": 0},
    ]


def emulation_probe(s):
    probe, library = s.tool("fsr_emulation/fsr_probe"), s.tool("fsr_emulation/libVkLayer_zovk_fsr_emulation.so")
    # The probe is ours and built like the layer, leak checks included; in a sanitizer build the
    # emulation layer is preloaded after the runtime, which keeps it mapped after the loader unloads
    # it, so that a leak report can name its functions.
    s.preload = {"LD_PRELOAD": f"{s.preload['LD_PRELOAD']}:{library}"} if s.preload else {}
    s.run("plain", [probe, "--plain", s.path("plain.png")], s.layers(VALIDATION))
    s.expect_validation("plain", loaded=True)
    for preset in ("", *PRESETS):
        label, trace = f"probe-{preset or 'default'}", s.path(f"probe-{preset or 'default'}.trace")
        s.run(label, [probe, s.path(label + ".png")], s.layers(VALIDATION, emulation=preset, trace=trace,
                                                              loader_debug=True))
        s.expect_validation(label, loaded=True)
        expect(filecmp.cmp(s.path("plain.png"), s.path(label + ".png"), shallow=False),
               f"{label}: the pixels differ from the plain frame rendered without the emulation layer")
        s.expect_chain(label, tail=(VALIDATION, EMULATION), library=(EMULATION, library))

        # What the probe saw.
        name = preset or "16x16-4x4"
        texel, fragment = PRESETS[name]
        out = dict((line.split(" ", 1) + [""])[:2] for line in s.text(label + ".out").splitlines())
        width, height = -(-100 // texel), -(-60 // texel)
        expect(out.get("features") == "pipeline=1 primitive=1 attachment=1", f"{label}: features {out.get('features')}")
        expect(out.get("properties") == f"minTexel={texel}x{texel} maxTexel={texel}x{texel} texelAspect=1 "
               f"maxFragment={fragment}x{fragment} fragmentAspect=2 coverageSamples=16 rasterSamples=4 "
               "nonTrivialCombiners=1 layered=1 multipleViewports=1 strictMultiply=1",
               f"{label}: properties {out.get('properties')}")
        expect(out.get("rates") == RATES[fragment] and out.get("rateImage") == f"{width}x{height}" and "done" in out,
               f"{label}: rates {out.get('rates')}, rate image {out.get('rateImage')}")
        cbs = dict(kv.split("=") for kv in out.get("commandBuffers", "").split())
        uploaded = out.get("uploadBytes", "")
        expect(len(uploaded) == 2 * width * height, f"{label}: the probe uploaded {len(uploaded) // 2} bytes")

        lines = read_trace(trace)
        want = expected_trace(name, texel, fragment, width, height, cbs, uploaded)
        expect(len(lines) == len(want), f"{label}: {len(lines)} trace lines, expected {len(want)}")
        for n, (got, wanted) in enumerate(zip(lines, want), 1):
            wrong = {k: got.get(k) for k, v in wanted.items() if got.get(k) != v}
            expect(not wrong, f"{label}: trace line {n} ({wanted['event']}) has {str(wrong)[:300]}")

    # An unknown preset stops instance creation, and env.sh refuses it before that.
    status = s.run("bad", [probe, s.path("bad.png")], {**s.layers(emulation=""), "ZOVK_FSR_PRESET": "32x32-8x8"},
                   rc=None)
    expect(status != 0 and "unknown ZOVK_FSR_PRESET '32x32-8x8'" in s.text("bad.err"),
           "an unknown preset did not fail instance creation with a line naming it" + s.tail("bad.err"))
    try:
        s.layers(emulation="32x32-8x8")
    except Failure:
        return
    expect(False, "env.sh accepted an unknown preset")


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


if __name__ == "__main__":
    raise SystemExit(main({"emulation_probe": emulation_probe, "scenes_starrail": scene("starrail"),
                           "scenes_antutu": scene("antutu")}))
