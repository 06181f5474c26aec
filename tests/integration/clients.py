#!/usr/bin/env python3
"""Programs nobody here wrote, through the layer on the Khronos loader and lavapipe with the validation
layer beneath it: each must succeed, the validation layer must stay silent, and the loader must have
stacked application -> ... -> zovkshadingrateengine -> validation -> driver for every instance and
device."""

import re

from it import BOTH, LAYER, SUMMARY, VALIDATION, VKCUBE, expect, main


def vulkaninfo_through_layer(s):
    # The list names the validation layer first on purpose: the stacking order comes from the layer
    # search path (ours is searched first), not from the list.
    s.run("vulkaninfo", SUMMARY, s.layers(VALIDATION, LAYER, loader_debug=True))
    s.expect_chain("vulkaninfo", LAYER, VALIDATION)
    s.expect_validation("vulkaninfo --summary")
    expect(re.search(r"^GPU0:", s.text("vulkaninfo.out"), re.M), "vulkaninfo listed no physical device")


def vkcube_through_layer(s):
    """vkcube, 100 frames on an X11 swapchain under Xvfb."""
    s.start_xvfb()
    s.run("vkcube", VKCUBE, s.layers(LAYER, VALIDATION, loader_debug=True))
    s.expect_chain("vkcube", LAYER, VALIDATION)
    s.expect_validation("vkcube through the layer")


def gfxrecon_replay(s):
    """A capture of vkcube replayed headless through the layer: no replayer warning or error that the
    plain replay does not log, and byte-identical screenshots."""
    s.capture_vkcube(36)
    s.replay("replay_layer", s.layers(LAYER, VALIDATION, loader_debug=True))
    s.expect_chain("replay_layer", LAYER, VALIDATION)
    s.expect_validation("gfxrecon-replay through the layer")
    s.expect_same_replay("replay_layer", "the layer")


def stacked_layers(s):
    """vkcube with vkBasalt (its CAS effect replaces the swapchain images and adds passes and draws at
    every present) and MangoHud (an overlay drawn into every presented image) beside the layer. Both
    are implicit layers, which the loader stacks above every explicitly enabled one."""
    basalt, hud = "VK_LAYER_VKBASALT_post_processing", "VK_LAYER_MANGOHUD_overlay"
    with open(s.path("vkBasalt.conf"), "w") as f:
        f.write("effects = cas\ncasSharpness = 0.4\n")
    overlays = dict(ENABLE_VKBASALT="1", VKBASALT_CONFIG_FILE=s.path("vkBasalt.conf"), VKBASALT_LOG_LEVEL="debug",
                    MANGOHUD="1", MANGOHUD_CONFIG="fps,frametime,frame_timing")
    s.start_xvfb()
    s.run("stacked", VKCUBE, {**s.layers(LAYER, VALIDATION, loader_debug=True), **overlays})
    for layer in (basalt, hud):
        s.expect_chain("stacked", layer, LAYER, VALIDATION)
    expect("vkBasalt debug: created CasEffect" in s.text("stacked.err"), "vkBasalt did not build its effect")
    s.expect_validation("vkcube with vkBasalt, MangoHud and the layer")


# Process names and the application type the layer must log for each (0: none, not recognised).
NAMES = [("com.miHoYo.hkrpg", 2), ("com.HoYoverse.hkrpgoversea", 2), ("com.antutu.benchmark.full:ue", 1),
         ("vulkaninfo", 0), ("com.mihoyo.hkrpg", 0), ("com.antutu.benchmark.full", 0)]


def process_identification(s):
    """The layer recognises the application by the first word of the command line, exactly. No game
    service runs, so even a recognised process stays a pure pass-through: vulkaninfo prints exactly
    what it prints without the layer."""
    s.set_properties("vendor.zovk.log.debug=true")
    for n, (name, kind) in enumerate(NAMES):
        s.run(f"plain{n}", SUMMARY, s.layers(), process=name)
        s.run(f"layer{n}", SUMMARY, s.layers(LAYER, loader_debug=True), process=name)
        s.expect_chain(f"layer{n}", LAYER, kinds=BOTH)
        expect(s.text(f"plain{n}.out") == s.text(f"layer{n}.out"),
               f"as {name!r}: vulkaninfo printed something else through the layer than without it")
        logged = set(re.findall(r"application type (\d+)", s.text(f"layer{n}.err")))
        expect(logged == ({str(kind)} if kind else set()), f"as {name!r}: application types {logged}, not {kind}")


if __name__ == "__main__":
    raise SystemExit(main({f.__name__: f for f in (vulkaninfo_through_layer, vkcube_through_layer, gfxrecon_replay,
                                                    stacked_layers, process_identification)}))
