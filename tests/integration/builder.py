#!/usr/bin/env python3
"""The layer's own Vulkan objects, made by the resource helper and the shading-rate builder, on a real
loader, validation layer and driver. A capture of vkcube is replayed headless plainly and as Star Rail
through VK_LAYER_ZOVK_builder_test (the layer built with a test module, tests/support/builder_module)
above the validation layer and the shading-rate emulation layer. The module substitutes every render
pass, framebuffer and dynamic-state pipeline with the builder's, fills one shading-rate image per
framebuffer size with two known patterns (from memory, then from a staging buffer), sets only the full
rate, and frees everything it made before the device goes. Checks: the emulation trace against what
vkcube asked for; screenshots byte-identical to the plain replay's; nothing outside the allowlist from
the validation layer, whose object tracker reports every object still alive at vkDestroyDevice (so
nothing the layer made leaks)."""

import json
import os
import subprocess

from it import BOTH, EMULATION, LAYER, VALIDATION, allowlist, expect, main, read_trace

APP = "com.miHoYo.hkrpg"
TEST_LAYER = "VK_LAYER_ZOVK_builder_test"
RATES = (0, 1, 4, 5)  # as builder_test_module.cpp writes them
R8_UINT = 13


def builder(s):
    module = os.path.join(s.build, "tests/support/builder_module")
    library = os.path.join(module, "libzovk_builder_test.so")
    # Only the test layer is offered: the real one must not be enabled beside it.
    layer_dir = s.path("test_layer")
    os.mkdir(layer_dir)
    for name in ("VkLayer_zovk_builder_test.json", "libzovk_builder_test.so"):
        expect(os.path.exists(os.path.join(module, name)), f"no {name} in {module} (is the test layer built?)")
        os.symlink(os.path.join(module, name), os.path.join(layer_dir, name))
    s.capture_vkcube(36)
    # What vkcube asked for, to compare the substitutes with.
    subprocess.run(["gfxrecon-convert", "--output", s.path("vkcube.jsonl"), s.capture], capture_output=True, check=True)
    calls = [json.loads(line).get("vkFunc") or {} for line in open(s.path("vkcube.jsonl"))]
    infos = {name: [c["args"]["pCreateInfo"] for c in calls if c.get("name") == name]
             for name in ("vkCreateRenderPass", "vkCreateFramebuffer")}
    app_attachments = sorted(i["attachmentCount"] for i in infos["vkCreateRenderPass"])
    app_sizes = sorted((i["width"], i["height"]) for i in infos["vkCreateFramebuffer"])
    expect(app_attachments and app_sizes, "the capture holds no render pass or framebuffer creation")

    s.set_properties("vendor.zovk.log.debug=true")
    with open(s.path("gameservice.json"), "w") as f:
        json.dump({APP: {"configs": {"xrender_BaseInfo": "4"}}}, f)
    s.start_service(s.path("gameservice.json"), s.path("service.log"))
    trace = s.path("trace.jsonl")
    s.replay("replay_builder", s.layers(TEST_LAYER, VALIDATION, emulation="", trace=trace, loader_debug=True,
                                        layer_dir=layer_dir), process=APP)
    s.stop_service()

    # test layer -> validation -> emulation -> driver, the test layer from this build, no other copy of ours.
    s.expect_chain("replay_builder", TEST_LAYER, VALIDATION, EMULATION, tail=(EMULATION,),
                   library=(TEST_LAYER, library))
    expect(not [st for k in BOTH for st in s.chains("replay_builder", k) if LAYER in dict(st)], f"{LAYER} was loaded")
    log = s.text("replay_builder.err")
    for line in ("device served", "device extension VK_KHR_fragment_shading_rate added",
                 "builder test: texel size 16x16", "builder test: device objects released"):
        expect(line in log, f'the layer\'s debug log lacks "{line}"')
    expect(not s.count("replay_builder.err", r"libZoVK.*(failed|no substitute)"), "the layer logged failures")
    s.expect_validation("gfxrecon-replay through the test layer", allowlist())

    events = {kind: [e for e in read_trace(trace) if e["event"] == kind] for kind in
              ("device", "summary", "renderPass", "framebuffer", "beginRenderPass", "setRate", "upload")}
    device = events["device"] or [{}]
    texel = (device[0].get("texelWidth"), device[0].get("texelHeight"))
    expect(len(device) == 1 and device[0].get("extensionEnabled") and texel == (16, 16), f"devices {device}")
    expect(len(events["summary"]) == 1, "the device was not destroyed exactly once")
    # Substitutes: one more attachment than vkcube's passes, the rate attachment last.
    passes = events["renderPass"]
    expect(sorted(p["attachmentCount"] for p in passes) == [n + 1 for n in app_attachments] and all(
        p["attachment"] == p["attachmentCount"] - 1 and (p["texelWidth"], p["texelHeight"]) == texel for p in passes),
        f"substitute passes {passes}, vkcube's attachment counts {app_attachments}")
    framebuffers = events["framebuffer"]
    expect(sorted((f["width"], f["height"]) for f in framebuffers) == app_sizes and all(
        f["renderPass"] in {p["renderPass"] for p in passes} and f["view"] for f in framebuffers),
        f"substitute framebuffers {framebuffers}, vkcube's {app_sizes}")
    # Each substituted begin is followed by a 1x1 KEEP,KEEP rate.
    begins, rates = events["beginRenderPass"], {(r["commandBuffer"], r["position"]): r for r in events["setRate"]}
    expect(begins and len(rates) == len(begins), f"{len(rates)} rates set for {len(begins)} substituted begins")
    for b in begins:
        rate = rates.get((b["commandBuffer"], b["position"] + 1), {})
        expect(b["renderPass"] in {p["renderPass"] for p in passes} and
               b["framebuffer"] in {f["framebuffer"] for f in framebuffers} and
               (rate.get("width"), rate.get("height"), rate.get("combinerOps")) == (1, 1, ["KEEP", "KEEP"]),
               f"begin {b} is not followed by a 1x1 KEEP,KEEP rate: {rate}")
    # One R8_UINT image per framebuffer size (integer division by the texel size), each filled with
    # the two patterns in order.
    uploads, sizes = events["upload"], []
    for image in dict.fromkeys(u["image"] for u in uploads):
        mine = [u for u in uploads if u["image"] == image]
        width, height, depth = mine[0]["extent"]
        sizes.append((width, height))
        first = bytes(RATES[(i * 7 + 3) % 6 % 4] for i in range(width * height))
        second = bytes(RATES[(x // 2 + y) % 4] for y in range(height) for x in range(width))
        expect(depth == 1 and [(u["format"], u["readable"]) for u in mine] == [(R8_UINT, True)] * 2 and
               [bytes.fromhex(u["bytes"]) for u in mine] == [first, second],
               f"image {image} ({width}x{height}) was not filled with the two patterns")
    expect(sorted(sizes) == sorted({(w // 16, h // 16) for w, h in app_sizes}), f"shading-rate images of {sizes}")

    s.expect_same_replay("replay_builder", "the test layer")


if __name__ == "__main__":
    raise SystemExit(main({"builder": builder}))
