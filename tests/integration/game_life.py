#!/usr/bin/env python3
"""A game's whole life through the layer: the Star Rail scene under its process name, the game service
pushing scene 1058 and VRS level 1 once the layer registers, the validation layer and the emulation layer
on lavapipe. The scene keeps two devices on one instance presenting in turn, records each frame's
secondaries on four threads (three main-pass parts and the light pass, each thread with its own pool)
and every ten frames makes its passes, framebuffers and pipelines again on a fifth thread while the
others record, destroying those retired ten frames before:
- several_devices: then destroys everything, the later device first;
- exit_alive: then calls exit() with both devices and all their objects alive.
Each must exit 0 with no sanitizer report and no validation message but the allowlisted ones. The
validation layer's object tracker reports every object still alive at vkDestroyDevice as an error, so
anything of the layer's left on either device fails several_devices; its thread-safety checks catch
calls on one object from two threads at once. On each device, in every frame from the first one it
substitutes on (before the first re-creation), the VRS module must substitute both passes and set the rates exactly as with one thread:
the attachment rate on each main-pass part after its draws, and in the light secondary the configured
eleventh draw at full rate and the three after it at the attachment rate. The emulation trace is cut
into each device's frames at the presents on its queue (the devices record one at a time)."""

import os
import re

from it import LAYER, VALIDATION, ROOT, allowlist, expect, layer_lines, main, read_trace, wait_until
import zovk_run_starrail

APP = "com.miHoYo.hkrpg"
FRAMES, DEVICES, THREADS, RECREATE = 60, 2, 4, 10
SANITIZER_REPORT = r"(ERROR|WARNING): \w+Sanitizer|runtime error:"


def read_bytes(path):
    if not os.path.exists(path):
        return b""
    with open(path, "rb") as f:
        return f.read()


def rates_at_draws(commands):
    rate, at = None, []
    for command in commands:
        if command == "d":
            at.append(rate)
        else:
            rate = command
    return at


def light_rates_right(at):
    """As with one thread: draws 1 to 10 under one rate (the attachment rate set in the frame before
    still holds for the module), draw 11 at full rate, 12 to 14 at the attachment rate."""
    return len(at) == 14 and len(set(at[:10])) == 1 and at[10:] == ["F", "R", "R", "R"]


def life(exit_alive):
    def check(s):
        s.set_properties("vendor.zovk.log.debug=true", "vendor.zogl.hkrpg.vrs.debug=true")
        # Nothing disabled: the object tracker and the thread-safety checks stay on.
        with open(s.path("vk_layer_settings.txt"), "a") as f:
            f.write("khronos_validation.disables =\n")
        s.start_service(os.path.join(ROOT, "configs", "gameservice.json"), s.path("gameservice.log"))
        trace = s.path("trace.jsonl")
        argv = [s.tool("scenes/zovk-scene-starrail"), "--frames", str(FRAMES), "--devices", str(DEVICES),
                "--threads", str(THREADS), "--recreate-passes", str(RECREATE)] + ["--exit-alive"] * exit_alive
        program = s.launch("scene", argv, s.layers(LAYER, VALIDATION, emulation="", trace=trace), process=APP)
        # As soon as the layer has registered its callback: the scene is still making its devices.
        wait_until(lambda: program.poll() is not None or b" register " in read_bytes(s.service_log), s.timeout,
                   "the layer's registration with the game service")
        for record in (f"1 {APP} 1058", f"6 {APP} 1"):
            expect(s.push(record) == 0, f"no layer took the record {record}")
        s.wait("scene", program)
        err = s.text("scene.err")
        expect(not re.search(SANITIZER_REPORT, err), "a sanitizer report" + s.tail("scene.err"))
        expect(f"{FRAMES} frames in" in s.text("scene.out"), "the scene did not finish its frames")
        expect(os.path.exists(s.validation_log), "the validation layer wrote no log: was it loaded?")
        s.expect_validation("scene", allowlist())
        texts = [t for _, _, t in layer_lines(s.path("scene.err"))]
        expect(any("recognised as application type 2" in t for t in texts) and
               texts.count("device served") == DEVICES, "the scene did not run as Star Rail with every device served")

        events = read_trace(trace)
        summaries = [e for e in events if e["event"] == "summary"]
        if exit_alive:
            expect(not summaries, "a device was destroyed before exit()")
        else:
            # Every generation of the game's main and light passes (two variants each) and framebuffers
            # got substitutes on each device.
            generations = 1 + (FRAMES - 1) // RECREATE
            expect(len(summaries) == DEVICES and all(
                (e["renderPasses"], e["framebuffers"], e["presents"]) == (4 * generations, 2 * generations, FRAMES)
                and e["rates"] and e["uploads"] for e in summaries), f"per-device trace summaries {summaries}")

        frames = zovk_run_starrail.summarise(events, texts)["frames"]
        queues = [e["queue"] for e in events if e["event"] == "present"]
        per_device = {q: [f for f, fq in zip(frames, queues) if fq == q] for q in queues}
        expect(len(per_device) == DEVICES and all(len(f) == FRAMES for f in per_device.values()),
               f"presents per queue: { {q: len(f) for q, f in per_device.items()} }")
        for device, device_frames in enumerate(per_device.values(), 1):
            substituted = [n for n, f in enumerate(device_frames) if f["secondaries"]]
            expect(substituted and substituted[0] < RECREATE,
                   f"device {device}: substituted in frames {substituted}")
            expect(sum(f["uploads"] for f in device_frames) >= 2, f"device {device}: no shading-rate image filled")
            for f in device_frames[substituted[0]:]:
                main_parts, light = f["secondaries"].get("main", []), f["secondaries"].get("light", [])
                expect(len(main_parts) == THREADS - 1 and all(
                    p.endswith("R") and rates_at_draws(p) == [None] * p.count("d") for p in main_parts) and
                    len(light) == 1 and light_rates_right(rates_at_draws(light[0])),
                    f"device {device} frame {f['frame']}: secondaries {f['secondaries']} "
                    "(d a draw, R the attachment rate, F full rate)")
    return check


if __name__ == "__main__":
    raise SystemExit(main({"several_devices": life(False), "exit_alive": life(True)}))
