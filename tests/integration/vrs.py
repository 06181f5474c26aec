#!/usr/bin/env python3
"""The VRS modules end to end through the run command (tools/zovk-run): the scene programs at their
applications' process names through the layer, the validation layer and the shading-rate emulation
layer on lavapipe, with the game service serving the bundled configuration and pushing records at
chosen frames. The checks read the run's summary and the same readers of the trace and the layer's log
that zovk-run uses; every frame's pixels must equal those of the scene run without the layer, and the
validation layer may report only what validation_allowlist.txt lists."""

import filecmp
import json
import os
import re
import subprocess

from it import ROOT, allowlist, expect, layer_lines, main, read_trace
import zovk_run_starrail

CONFIG = os.path.join(ROOT, "configs", "gameservice.json")


def expect_same_frames(s, pairs):
    if s.system_driver:
        return  # a GPU's own shading rate changes the pixels: zovk-run --compare says by how much
    for plain, layer in pairs:
        expect(filecmp.cmp(s.path(f"plain/frame-{plain}.png"), s.path(f"vrs/frame-{layer}.png"), shallow=False),
               f"frame {layer}: the pixels differ from frame {plain} without the layer")


def run_starrail(s, *options):
    """The Star Rail scene at 1920x1080, 24 frames, with and without the layer; scene id 1058 and level 1
    pushed at frame 1, level 2 at 8, level 0 at 16. Returns the run's summary and zovk-run's reading of
    the trace and log; every frame's pixels must equal those without the layer."""
    scene = s.tool("scenes/zovk-scene-starrail")
    os.mkdir(s.path("plain"))
    s.run("plain", [scene, "--frames", "24", "--png", s.path("plain/frame-%d.png")], s.layers())
    run = s.zovk_run("vrs", *options, "--validation", "--push", "1:1 {pkg} 1058", "--push", "1:6 {pkg} 1", "--push",
                     "8:6 {pkg} 2", "--push", "16:6 {pkg} 0", "--", scene, "--frames", "24", "--png",
                     s.path("vrs/frame-%d.png"))
    expect_same_frames(s, [(n, n) for n in range(1, 25)])
    events = read_trace(s.path("vrs/trace.jsonl"))
    sr = zovk_run_starrail.summarise(events, [t for _, _, t in layer_lines(s.path("vrs/program.log"))])
    active = [f for f in sr["frames"] if f["sceneId"] == 1058 and f["level"] in (1, 2)]
    expect(len(active) >= 8, f"{len(active)} active frames: pushes lost")
    return run, events, sr, active


def rates_in_force(commands):
    """The rate in force at each draw of a secondary's commands (d draw, R/F/? a rate)."""
    in_force, rate = [], None
    for command in commands:
        rate = command if command != "d" else rate
        in_force += [rate] if command == "d" else []
    return in_force


def pattern_contents(s, rows):
    """The module's patterns for the 120- and 150-texel-wide images: main 1, main 2, light 1, light 2."""
    return {width: [bytes.fromhex(p) for p in subprocess.run(
        [os.path.join(s.build, "tests/support/zovk-vrs-patterns"), str(width), str(rows)],
        capture_output=True, text=True, check=True).stdout.split()] for width in (120, 150)}


def starrail_vrs(s):
    """run_starrail in the required mode. Then: the 8x8 preset gets 240x135 images; another process name,
    or the module switched off in the configuration, gets no shading-rate object at all."""
    run, events, sr, active = run_starrail(s)
    expect(run["vrsMode"] == "required" and set(run["validationMessagesById"]) <= allowlist(),
           f"validation: {run['validationMessagesById']}")

    # The served creation path, the service's transactions and the records the layer took.
    layer, report = run["layer"], s.text("vrs.out")
    expect(run["exitCode"] == 0 and layer["applicationType"] == 2 and "recognised as application type 2" in report,
           "the scene did not run as Star Rail")
    expect(layer["configurationFetched"] and layer["callbackRegistered"] and layer["deviceServed"],
           f"the layer was not served: {layer}")
    added = {"VK_KHR_get_physical_device_properties2", "VK_KHR_create_renderpass2", "VK_KHR_fragment_shading_rate"}
    expect(layer["servedApiVersion"] == "1.2" and added <= set(layer["extensionsAdded"]),
           "the instance was not served at 1.2 with the modules' extensions added")
    expect(any("ParseGameSceneId: 1058" in u for u in layer["stateUpdates"]) and
           any("parseVkVrsSwitch: 2" in u for u in layer["stateUpdates"]), f"records taken: {layer['stateUpdates']}")
    expect('transaction 3 scene-report 1 {"sceneId":10005}' in run["gameService"], "no scene report")
    expect(run["trace"]["frames"] == 24 and "frame-24.png" in run["pngs"], "the frames were not all presented")
    expect(len(run["starRail"]["imagePngs"]) == 6 and set(run["starRail"]["imagePngs"]) <= set(run["pngs"]),
           f"shading-rate images written: {run['starRail']['imagePngs']}")

    # The figures the README gives for the bundled configuration.
    for level, figures in ((1, "light pass 35.3%, main pass 39.4%"), (2, "light pass 55.4%, main pass 51.8%")):
        expect(f"fragment work saved at level {level}: {figures}" in report, f"the level {level} figures changed")

    passes = [e for e in events if e["event"] == "renderPass"]
    expect(sorted(e["attachmentCount"] for e in passes) == [3, 3, 6, 6] and all(
        e["attachment"] == e["attachmentCount"] - 1 and (e["texelWidth"], e["texelHeight"]) == (16, 16)
        for e in passes),
        f"the substitute passes do not have the rate attachment last at texel 16x16: {passes}")
    framebuffers = [(e["width"], e["height"]) for e in events if e["event"] == "framebuffer"]
    expect(framebuffers == [(1920, 1080)] * 2, f"substitute framebuffers {framebuffers}")

    # Frame by frame, through zovk-run's reader: frame N is recorded under what present N - 1 saw.
    frames = sr["frames"]
    quiet = [f for f in frames[2:] if f["level"] == 0 and frames[f["frame"] - 2]["level"] == 0]
    expect(len(quiet) >= 3, f"{len(quiet)} quiet frames: pushes lost")
    for f in active[1:]:
        # Both secondaries get the attachment rate; in the light one draw 11 (the configured one) runs at
        # full rate, draws 12 to 14 at the attachment rate again.
        main_pass, light = f["secondaries"].get("main", []), f["secondaries"].get("light", [])
        in_force = rates_in_force(light[0] if light else "")
        expect(len(main_pass) == len(light) == 1 and "R" in main_pass[0] and "R" in light[0] and len(in_force) == 14
               and in_force[10] == "F" and in_force[11] == in_force[13] == "R",
               f"frame {f['frame']}: secondaries {f['secondaries']}")
        # By Vulkan's rules no main-pass draw runs with the attachment rate: the secondary inherits none.
        expect(f["draws"]["main"]["none"] == f["draws"]["main"]["draws"] > 0, f"frame {f['frame']}: {f['draws']}")
    expect("fragment work saved by Vulkan's rules at level 1: light pass" in report and
           sr["fragmentWorkSavedByVulkanRulesByLevel"]["1"]["main"] == 0.0, "no main-pass figure by Vulkan's rules")
    for f in quiet:
        counts = run["trace"]["perFrame"].get(str(f["frame"]), {})
        expect("setRate" not in counts and "upload" not in counts, f"frame {f['frame']}: a rate or upload at level 0")

    # The uploads: the first fill of every image with the level 1 patterns (main and light, 1920x1080
    # and 2400x1080), the level 1 patterns again when level 1 arrives, the level 2 patterns into the
    # 1920x1080 images when level 2 does; frames record with the contents of their level.
    patterns = pattern_contents(s, 67)
    big, small = patterns[120], patterns[150]
    expect(all(e["format"] == 13 and e["readable"] for e in events if e["event"] == "upload"),
           "an upload that is not R8_UINT, or that the emulation could not read")
    expect(sr["_contents"] == [big[0], big[2], small[0], small[2], big[1], big[3]],
           "the shading-rate images were not filled with the level 1 patterns, then the level 2 ones")
    expect([f["uploads"] for f in frames if f["uploads"]] == [4, 2, 2] and run["trace"]["uploads"] == 8,
           f"uploads per frame: {[(f['frame'], f['uploads']) for f in frames if f['uploads']]}")
    expect(all(f["contents"] == ({"main": 0, "light": 1} if f["level"] == 1 else {"main": 4, "light": 5})
               for f in active), "a frame recorded with the contents of another level")

    # The scene's default frame: frame.png beside the report.
    p8 = s.zovk_run("preset8", "--preset", "8x8-2x2", "--frames", "6", "--push", "1:1 {pkg} 1058", "--push",
                    "1:6 {pkg} 1")
    expect("main shading-rate image 240x135 for 1920x1080 (texel 8x8)" in s.text("preset8.out") and
           "frame.png" in p8["pngs"], "8x8 preset: no 240x135 main image in the report, or no frame.png")
    with open(CONFIG) as f:
        config = json.load(f)
    config["com.miHoYo.hkrpg"]["configs"]["xrender_BaseInfo"] = "1"
    with open(s.path("module_off.json"), "w") as f:
        json.dump(config, f)
    for label, option in (("other", ["--as", "com.example.notstarrail"]),
                          ("off", ["--config", s.path("module_off.json")])):
        t = s.zovk_run(label, *option, "--frames", "6", "--push", "1:1 {pkg} 1058", "--push", "1:6 {pkg} 1")["trace"]
        expect(t["frames"] == 6 and not (t["shadingRateRenderPasses"] or t["shadingRateFramebuffers"] or t["ratesSet"]
                                         or t["uploads"]), f"{label}: the trace holds a shading-rate object: {t}")


def starrail_conforming(s):
    """run_starrail in the conforming mode: the same passes, patterns and levels with valid Vulkan only.
    The images cover the whole area (68 texel rows for 1080); every draw of a substituted pass runs with
    the attachment rate in force but the light pass's configured draw, at 1x1; validation reports
    nothing; the fragment work saved by Vulkan's rules is the image's average over the draws, weighted
    equally: all of the main pass's, 13 of the light pass's 14."""
    run, events, sr, active = run_starrail(s, "--conforming")
    expect(run["vrsMode"] == "conforming" and run["validationMessagesById"] == {},
           f"validation: {run['validationMessagesById']}")
    expect(sorted((i["width"], i["height"]) for i in sr["images"]) == [(120, 68)] * 2 + [(150, 68)] * 2,
           f"images {sr['images']}")
    big, small = (pattern_contents(s, 68)[w] for w in (120, 150))
    expect(sr["_contents"] == [big[0], big[2], small[0], small[2], big[1], big[3]], "not the same patterns")
    expect(all(e["recording"] for e in events if e["event"] == "setRate"), "a rate into a finished recording")
    for f in active:
        light, main_draws = f["secondaries"]["light"][0], f["draws"]["main"]
        in_force = rates_in_force(light)
        expect(light.startswith("R") and in_force == ["R"] * 10 + ["F"] + ["R"] * 3 and
               main_draws["attachment"] == main_draws["draws"] > 0 and f["draws"]["light"]["none"] == 0,
               f"frame {f['frame']}: {f['secondaries']} {f['draws']}")
    for level in ("1", "2"):
        rules, image = sr["fragmentWorkSavedByVulkanRulesByLevel"][level], sr["fragmentWorkSavedByLevel"][level]
        expect(abs(rules["main"] - image["main"]) < 1e-3 and abs(rules["light"] - image["light"] * 13 / 14) < 1e-3,
               f"level {level}: by Vulkan's rules {rules}, images {image}")


def antutu_vrs(s, *options):
    """The AnTuTu scene (render area 2048x1024, inside the configured bounds), 245 frames; VRS pushed on
    at frame 1 and off at 125, the switch sampled every 120 presents: no rate before present 120 nor
    after the sampling at 240; in frames 121-240 one rate right before each begin of a large pass,
    following the step machine over the scene's pass sequence with the configured sizes. Frames 1-5,
    121-125 and 241-245 equal the scene's first five without the layer (its animation repeats every
    120 frames). Before present 120 the pipelines given the dynamic rate draw with none set, unless in
    the conforming mode, where no draw ever does and validation reports nothing."""
    conforming = "--conforming" in options
    scene, sizes = s.tool("scenes/zovk-scene-antutu"), ["--width", "320", "--height", "180", "--render-width",
                                                         "2048", "--render-height", "1024"]
    os.mkdir(s.path("plain"))
    s.run("plain", [scene, "--frames", "5", *sizes, "--png", s.path("plain/frame-%d.png")], s.layers())
    run = s.zovk_run("vrs", *options, "--app", "antutu", "--validation", "--emulation", "on", "--push", "1:6 {pkg} 1", "--push",
                     "125:6 {pkg} 0", "--", scene, "--frames", "245", *sizes, "--png", s.path("vrs/frame-%d.png"))
    expect_same_frames(s, [(n, n + k) for n in range(1, 6) for k in (0, 120, 240)])
    expect(run["validationMessagesById"] == {} if conforming else set(run["validationMessagesById"]) <= allowlist(),
           f"validation: {run['validationMessagesById']}")
    expect(run["processName"] == "com.antutu.benchmark.full:ue" and run["layer"]["applicationType"] == 1,
           "the scene did not run as AnTuTu")
    pushes = {p["record"].split()[-1]: p for p in run["pushes"]}
    expect(all(p["delivered"] for p in pushes.values()) and pushes["1"]["seenFrame"] < 120 <=
           pushes["0"]["seenFrame"] < 240, f"the pushes did not land either side of the first sampling: {pushes}")

    # The configured sizes S1..S6, and the bounds the scene's passes must meet.
    with open(CONFIG) as f:
        values = [int(v) for v in json.load(f)["com.antutu.benchmark.full:ue"]["configs"]["vrs_SizeRange"].split(";")]
    table = {3: "1x2", 4: "2x1", 5: "2x2", 6: "2x4", 9: "4x2", 10: "4x4"}
    S = [None] + [table.get(code, "1x1") for code in values[4:]]

    def inside(w, h):
        return values[0] < w < values[1] and values[2] < h < values[3]
    expect(inside(2048, 1024) and not inside(1024, 512) and not inside(320, 180),
           "the scene's large pass must be inside the configured bounds, its small and final passes outside")
    log = s.text("vrs/program.log")
    sequence = re.search(r"passes: (.*)", log)
    expect(sequence and sequence.group(1).split() == "A B B C C(small) C O B O C C O A final".split(),
           f"the scene's pass sequence changed: {sequence and sequence.group(1)}")

    # Steps 0 to 4 within the first frame with rates (B to 1, C to 2, B to 3, C to 4), step 4 from then on.
    first = ["1x1", S[1], S[1], S[2], S[2], S[5], S[3], S[5], S[4], S[4], S[6], "1x1"]
    later = ["1x1", S[6], S[6], S[4], S[4], S[6], S[6], S[6], S[4], S[4], S[6], "1x1"]
    a = run["antutu"]
    for f in a["frames"]:
        want = first if f["frame"] == 121 else later if 121 < f["frame"] <= 240 else []
        got = [f"{w}x{h}" for b in f["begins"] for w, h in [b["size"]]]
        expect(got == want, f"frame {f['frame']}: rates {got}, wanted {want}")
    expect(len(a["frames"]) == 245 and a["totals"]["framesWithRates"] == 120 and a["totals"]["logAgrees"],
           f"totals {a['totals']}: the module's log and the trace disagree")
    unset = [f["frame"] for f in a["frames"] if f["draws"]["none"]]
    expect(unset == [] if conforming else set(range(1, 121)) <= set(unset), f"draws with no rate in frames {unset}")
    combiners = {tuple(e["combinerOps"]) for e in read_trace(s.path("vrs/trace.jsonl")) if e["event"] == "setRate"}
    expect(combiners == {("KEEP", "KEEP")}, f"combiners {combiners}")
    for step in range(1, 5):
        expect(len(re.findall(rf"vxxk s: px{step}x0x[0-9a-f]+x65513x23584\b", log)) == 1, f"no single step {step} line")
    expect([x["on"] for x in a["switchSamples"]][:2] == [True, False], "the switch was not sampled on, then off")
    p = a["pipelines"]
    expect(p.get("withBlock") and p.get("withoutBlock") and p.get("withRate") == p["withBlock"]
           and not p.get("withRateButNoBlock"), f"pipelines: only those with a dynamic-state block get the rate: {p}")
    expect(a["classified"].get("B") == 1 and a["classified"].get("C") == 1 and a["classified"].get("A", 0) >= 2,
           f"classified {a['classified']}")
    report = s.text("vrs.out")
    expect("frames 1-120: no rate" in report and "frame 121: 12 rates, step 4" in report and
           re.search(r"frames 122-240: 12 rates, step 4;.*; mean saved 37.5%", report) and
           "frames 241-245: no rate" in report, "the report does not show the frames")


def antutu_conforming(s):
    antutu_vrs(s, "--conforming")


def gpu_figures(s):
    """zovk-run --gpu-time --compare on the Star Rail scene with heavier shaders: every pass timed at every
    level with and without the layer, and each level's final frame compared with level 0's. On lavapipe
    the emulation strips the attachment, so levels 1 and 2 must give level 0's pixels exactly."""
    run = s.zovk_run("gpu", "--gpu-time", "--compare", "--shader-loops", "4", "--frames", "12", "--push",
                     "1:1 {pkg} 1058", "--push", "1:6 {pkg} 1", "--push", "6:6 {pkg} 2")
    times = run["gpuTime"]
    expect(set(times) == {"main", "light", "other-1"} and all(
        set(levels) >= {"1", "2"} and all(r[k]["medianMs"] > 0 for r in levels.values() for k in ("layer", "plain"))
        for levels in times.values()), f"GPU times {times}")
    levels = run["compare"]["levels"]
    expect(set(levels) == {"1", "2"} and all(c["identical"] and c["diffPng"] in run["pngs"] for c in levels.values())
           and "lavapipe" in run["gpuNote"], f"comparison {run['compare']}")
    expect("level 1: identical" in s.text("gpu.out"), "the report does not show the comparison")


def zovk_run(s):
    """The run command on a program of the caller's: vkcube under an Xvfb that zovk-run starts, as Star
    Rail. vkcube's passes are not Star Rail's: the module makes its images but substitutes nothing."""
    v = s.zovk_run("vkcube", "--validation", "--push", "none", "--", "vkcube", "--c", "50")
    expect(v["exitCode"] == 0 and v["program"][0] == "vkcube" and v["layer"]["applicationType"] == 2,
           f"vkcube did not run as Star Rail: {v['layer']}")
    expect(v["trace"]["frames"] == 50 and set(v["validationMessagesById"]) <= allowlist(),
           f"frames {v['trace']['frames']}, validation {v['validationMessagesById']}")
    expect(v["starRail"]["images"] and v["starRail"]["totals"]["substitutedMainBegins"] == 0 and
           not v["starRail"]["substitutes"]["renderPasses"], f"vkcube got substitutes: {v['starRail']['substitutes']}")


if __name__ == "__main__":
    raise SystemExit(main({f.__name__: f for f in (starrail_vrs, starrail_conforming, antutu_vrs, antutu_conforming,
                                                   gpu_figures, zovk_run)}))
