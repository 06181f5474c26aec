#!/usr/bin/env python3
"""The layer and the host game service (zovk-gameservice) as separate processes: programs run as Star Rail
through the layer (debug log on, the validation layer beneath it silent) in the cases named below. vkcube
runs with a frame count it never reaches and is ended through its window (WM_DELETE_WINDOW)."""

import json
import os
import re
import signal
import subprocess

import Xlib.display
import Xlib.protocol.event

from it import LAYER, SUMMARY, VALIDATION, expect, main, wait_until

APP = "com.miHoYo.hkrpg"
OTHER_APP = "com.HoYoverse.hkrpgoversea"  # unknown to the service
# What the layer logs when the service cannot be reached or called.
SERVICE_TROUBLE = r"remote service not exi|call remote service failed|remote service died"


def x11_request(display, window, request):
    """Sends vkcube's window what no X client tool here sends: ConfigureWindow ("resize", width, height;
    vkcube recreates its swapchain) or the WM_DELETE_WINDOW message ("close"; vkcube quits)."""
    conn = Xlib.display.Display(display)
    target = conn.create_resource_object("window", window)
    if request[0] == "resize":
        target.configure(width=request[1], height=request[2])
    else:
        delete = conn.intern_atom("WM_DELETE_WINDOW")
        target.send_event(Xlib.protocol.event.ClientMessage(
            window=target, client_type=conn.intern_atom("WM_PROTOCOLS"), data=(32, [delete, 0, 0, 0, 0])))
    conn.sync()  # an error of the request is raised here
    conn.close()


class Vkcube:
    """vkcube as APP through LAYERS until close(); returns once its window exists."""

    def __init__(self, s, label, layers=(LAYER, VALIDATION), **env):
        self.s, self.label = s, label
        self.program = s.launch(label, ["vkcube", "--c", "1000000"], {**s.layers(*layers, loader_debug=True), **env},
                                process=APP)

        def window():
            expect(self.program.poll() is None, f"{label}: vkcube exited with status {self.program.returncode} "
                   "before it opened a window" + s.tail(label + ".err"))
            # vkcube's is the only window on our server.
            tree = subprocess.run(["xwininfo", "-root", "-children"], env=s.env, capture_output=True, text=True)
            found = re.search(r"^\s+(0x[0-9a-f]+)", tree.stdout, re.M)
            self.window = int(found.group(1), 16) if found else None
            return found
        wait_until(window, 60, f"{label}: vkcube's window")

    def resize(self, width, height):
        x11_request(self.s.env["DISPLAY"], self.window, ("resize", width, height))

    def close(self):
        expect(self.program.poll() is None, f"{self.label}: vkcube ended (status {self.program.returncode}) "
               "before it was closed" + self.s.tail(self.label + ".err"))
        x11_request(self.s.env["DISPLAY"], self.window, ("close",))
        self.s.wait(self.label, self.program)
        self.s.expect_validation(self.label)


def game_service(s):
    s.set_properties("vendor.zovk.log.debug=true")
    # Module 1 only: it reports the scene id and leaves rendering alone (module 2, VRS, needs a driver
    # with fragment shading rates, which lavapipe has only through the emulation layer).
    config = s.path("gameservice.json")
    with open(config, "w") as f:
        json.dump({APP: {"configs": {"xrender_BaseInfo": "1"}}}, f)

    def start(label):
        s.start_service(config, s.path(label + ".log"))
        return os.path.basename(s.service_log)

    def once(name, pattern, what):
        n = s.count(name, pattern)
        expect(n == 1, f"{what}: expected once in {name}, found {n} times" + s.tail(name))

    def none(name, pattern, what):
        expect(s.count(name, pattern) == 0, f"{what}: unexpected lines in {name}" + s.tail(name))

    def registered():
        wait_until(lambda: s.count(os.path.basename(s.service_log), rf"^transaction 35 register {APP}_zovk"), 30,
                   "the callback registration (transaction 35)")

    # What vulkaninfo prints with the layer offered but not enabled: a pass-through prints the same.
    s.run("plain", SUMMARY, s.layers(), process=APP)
    s.start_xvfb()

    # fetch_and_register: the configuration fetch first, the build tag line, hook-enable bits 0 and 1, the
    # callback registration (transaction 35) and the monitor-started notice (transaction 29).
    log = start("service_fetch")
    cube = Vkcube(s, "fetch")
    registered()  # the registration runs on the layer's own thread: waited for before vkcube ends
    cube.close()
    s.expect_chain("fetch", LAYER, VALIDATION, kinds=["vkCreateDevice"])
    once(log, rf"^transaction 30 fetch {APP} -> [1-9][0-9]* bytes$", "the configuration fetch")
    expect(s.text(log).split("transaction ", 1)[1].startswith("30 "), "another transaction came before the fetch")
    once(log, rf"^transaction 35 register {APP}_zovk binder=yes$", "the registration of the callback with a binder")
    once(log, rf"^transaction 29 monitor-started {APP}$", "the monitor-started notice")
    once("fetch.err", rf"vxxk v: 2025052101, n: {APP}$", "the build tag line after the fetch")
    once("fetch.err", r"vxxk enf: 3$", "hook-enable bits 0 and 1 after the accepted configuration")
    none("fetch.err", SERVICE_TROUBLE, "with the service up, the layer")
    status = s.stop_service()
    expect(status == 0, f"the game service exited with status {status} on SIGTERM")

    # push_records: RECORD, what `push` exits with (0: a layer took it), the layer's parse line (None: it
    # must not reach the layer). The push returns after the layer's callback did: its lines are written.
    log = start("service_push")
    cube = Vkcube(s, "push_records")
    registered()
    for record, want, line in [(f"1 {APP} 12", 0, r"ParseGameSceneId: 12$"),
                               (f"2 {APP} 54 1", 0, r"parseGamePictureInfo key: 54 , value: 1$"),
                               (f"1 {OTHER_APP} 99", 1, None)]:  # no layer registered for that package
        status = s.push(record)
        expect(status == want, f"push {record!r} exited {status}, expected {want}" + s.tail(log))
        once(log, rf'^push "{record}" -> {1 - want} layer\(s\)$', "the service's push line")
        if line:
            once("push_records.err", rf"appInfo changed: {record}$", f"record {record!r} in the layer")
            once("push_records.err", line, f"the layer's parse line for {record!r}")
        else:
            none("push_records.err", rf"appInfo changed: {record}$", f"record {record!r} must not reach the layer;")
    # The parse lines come before the package check; no mismatch line means every value was stored.
    none("push_records.err", r"[spv]_er_p:", "records for this package were rejected;")
    cube.close()
    s.stop_service()

    # service_killed: more Vulkan work through the layer after the death (a new swapchain and pipeline).
    start("service_killed")
    cube = Vkcube(s, "killed")
    registered()
    s.service.kill()
    status = s.stop_service()
    expect(status == -signal.SIGKILL, f"the game service was not ended by SIGKILL (status {status})")
    cube.resize(320, 240)
    cube.close()

    # hung_service: a stopped service makes the lookup or the fetch fail after the bounded wait; the
    # program runs on as a pass-through.
    start("service_hung")
    s.service.send_signal(signal.SIGSTOP)
    wait_until(lambda: open(f"/proc/{s.service.pid}/stat").read().rsplit(")", 1)[1].split()[0] == "T", 5,
               "the game service stopping")
    s.run("hung", SUMMARY, {**s.layers(LAYER, VALIDATION), "ZOVK_BINDER_TIMEOUT_MS": "1000"}, process=APP)
    s.expect_validation("hung")
    expect(s.text("hung.out") == s.text("plain.out"), "vulkaninfo printed something else after the failed fetch")
    expect(s.count("hung.err", r"vxxk:call remote service failed\.$|remote service not exist\.$"),
           "no failed fetch from the stopped service" + s.tail("hung.err"))
    status = s.stop_service()
    expect(status == 0, f"the game service, resumed after the layer gave up, exited with status {status}")

    # scene_report_once: {"sceneId":10005} reaches the service once although vkcube makes a graphics
    # pipeline per swapchain, and a new swapchain at each resize.
    log = start("service_scene")
    cube = Vkcube(s, "scene")
    registered()
    for size in ((320, 240), (400, 300), (256, 256)):
        cube.resize(*size)
    cube.close()
    expect("sendSceneIdToPavune" in s.text("scene.err"),
           "the scene report module never ran: the layer did not intercept vkCreateGraphicsPipelines")
    once(log, r'^transaction 3 scene-report 1 \{"sceneId":10005\}$', "the scene report")
    once(log, r"^transaction 3 ", "scene reports of any kind")
    s.stop_service()


if __name__ == "__main__":
    raise SystemExit(main({"game_service": game_service}))
