"""The harness of zovk-run and the integration tests: runs programs through the layer on the Khronos
loader beside the host game service, with the emulation and validation layers beneath it where asked
and an X display where needed, and reads back what they wrote (the layer's log lines, the emulation
trace, the validation messages).

Facts about the loader (1.3.239) it relies on: layers named in VK_INSTANCE_LAYERS are stacked in the
order the loader found their manifests, not in the order of the list; manifests under
VK_ADD_LAYER_PATH are found first, so the layer sits above the validation layer, which sits above the
emulation layer (found last, see fsr_emulation/env.sh), which sits above the driver.
"""

import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
from collections import Counter

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LAYER = "zovkshadingrateengine"
VALIDATION = "VK_LAYER_KHRONOS_validation"
EMULATION = "VK_LAYER_ZOVK_fsr_emulation"
SERVICE = "veltra.pavune"


class Failure(Exception):
    """A run that could not be set up or did not finish."""


def run_as(process, argv):
    """The command line that runs argv under the process name the layer reads."""
    return ["bash", "-c", 'exec -a "$0" "$@"', process] + list(argv)


def wait_until(predicate, seconds, what):
    end = time.time() + seconds
    while not predicate():
        if time.time() > end:
            raise Failure(f"{what} did not happen within {seconds} s")
        time.sleep(0.05)


class Session:
    """A private set-up for running programs through the layer of one build: the binder folder, the
    layer's properties, a folder offering only our manifest and library (the build folder holds other
    JSON files the loader must not see), the validation layer's settings, and the programs it started
    (the game service, Xvfb), which close() ends. Files land in `out`."""

    def __init__(self, build, out, env, drop=("VK_", "ZOVK_")):
        self.build = os.path.abspath(build)
        for needed in (f"{LAYER}.json", "libzovk.so", "zovk-gameservice"):
            if not os.path.exists(os.path.join(self.build, needed)):
                raise Failure(f"{needed} is not in {self.build}: build first (scripts/build.sh)")
        self.out = os.path.abspath(out)
        os.makedirs(self.out, exist_ok=True)
        self.runtime = tempfile.mkdtemp(prefix="zovk-")  # socket paths must stay short
        self.env = {k: v for k, v in env.items() if not k.startswith(drop)}
        # ZOVK_DRIVER=system: the machine's own driver (a GPU's), as the caller's VK_DRIVER_FILES
        # names it, with the tools' layer passing the shading-rate extension through (tracing
        # still) instead of emulating it, and serving headless presentation where the driver has none.
        self.system_driver = env.get("ZOVK_DRIVER") == "system"
        if self.system_driver:
            self.env.update({k: env[k] for k in ("VK_DRIVER_FILES", "VK_ICD_FILENAMES") if k in env})
        self.env["ZOVK_BINDER_DIR"] = os.path.join(self.runtime, "binder")
        os.mkdir(self.env["ZOVK_BINDER_DIR"], 0o700)
        self.env["ZOVK_PROPERTIES"] = os.path.join(self.out, "properties.txt")
        self.set_properties()
        self.layer_dir = os.path.join(self.runtime, "layers")
        os.mkdir(self.layer_dir)
        for name in (f"{LAYER}.json", "libzovk.so"):
            os.symlink(os.path.join(self.build, name), os.path.join(self.layer_dir, name))
        self.validation_log = os.path.join(self.out, "validation.log")
        with open(os.path.join(self.out, "vk_layer_settings.txt"), "w") as f:
            f.write("khronos_validation.debug_action = VK_DBG_LAYER_ACTION_LOG_MSG\n"
                    "khronos_validation.report_flags = error,warn\n"
                    f"khronos_validation.log_filename = {self.validation_log}\n")
        # A sanitizer build of the layer loaded into a program built without the sanitizer needs its
        # runtime first in that program, and only there; the program's own leaks are not ours to judge.
        self.preload = {}
        ldd = subprocess.run(["ldd", os.path.join(self.build, "libzovk.so")], capture_output=True, text=True).stdout
        asan = re.search(r"libasan\S* => (\S+)", ldd)
        if asan:
            self.preload = {"LD_PRELOAD": asan.group(1),
                            "ASAN_OPTIONS": "abort_on_error=1:detect_leaks=0:strict_string_checks=0"}
        # ThreadSanitizer sees the locks of the uninstrumented driver stack (the loader, lavapipe, its
        # LLVM, the unwinder's frame registry) but not their atomics: what it reports there is not ours.
        if "libtsan" in ldd:
            suppressions = os.path.join(self.runtime, "tsan.supp")
            with open(suppressions, "w") as f:
                f.write("called_from_lib:libvulkan_lvp\ncalled_from_lib:libLLVM\ncalled_from_lib:libgcc_s\n"
                        "deadlock:libvulkan.so\n")
            self.env["TSAN_OPTIONS"] = ":".join(filter(None, (self.env.get("TSAN_OPTIONS"),
                                                              f"suppressions={suppressions}")))
        self.service = None
        self.service_log = None
        self.xvfb = None

    def set_properties(self, *lines):
        with open(self.env["ZOVK_PROPERTIES"], "w") as f:
            f.writelines(line + "\n" for line in lines)

    def layers(self, *names, emulation=None, trace=None, loader_debug=False, layer_dir=None):
        """The environment of a run with the given layers enabled (ours, the validation layer, ...),
        and the emulation layer at the bottom unless `emulation` is None: "" for its default preset,
        or a preset's name, or "off" for the extension passed through (always so on the system driver)."""
        env = dict(self.env, VK_ADD_LAYER_PATH=layer_dir or self.layer_dir, VK_INSTANCE_LAYERS=":".join(names),
                   VK_LAYER_SETTINGS_PATH=self.out)
        if emulation is not None:
            emulation = "off" if self.system_driver else emulation
            script = os.path.join(ROOT, "tools", "fsr_emulation", "env.sh")
            sourced = subprocess.run(["bash", "-c", 'source "$0" "$@" >/dev/null && env -0', script, self.build]
                                     + ([emulation] if emulation else []), env=env, capture_output=True)
            if sourced.returncode != 0:
                raise Failure(f"no emulation layer for preset {emulation}: {sourced.stderr.decode().strip()}")
            env = dict(entry.split("=", 1) for entry in sourced.stdout.decode().split("\0") if "=" in entry)
            if trace:
                env["ZOVK_FSR_TRACE"] = trace
        if loader_debug:
            env["VK_LOADER_DEBUG"] = "layer"
        return env

    def start(self, argv, env, stdout, stderr=subprocess.STDOUT, process=None):
        """Starts a program (under `process` as its name), with the sanitizer runtime where needed."""
        return subprocess.Popen(run_as(process, argv) if process else argv, env={**env, **self.preload},
                                stdout=stdout, stderr=stderr)

    def start_service(self, config, log):
        """Starts the game service of the build on `config`; returns once it serves."""
        self.service_log = log
        self.service = subprocess.Popen([os.path.join(self.build, "zovk-gameservice"), "--config", config],
                                        env=self.env, stdout=open(log, "w"), stderr=subprocess.STDOUT)

        def serving():
            if self.service.poll() is not None:
                raise Failure(f"the game service exited with status {self.service.returncode} (see {log})")
            return any(line.startswith("serving ") for line in open(log))
        wait_until(serving, 30, "the game service serving")

    def push(self, record):
        """Pushes a record through the running service: 0 when a layer took it, 1 when none did."""
        return subprocess.run([os.path.join(self.build, "zovk-gameservice"), "push", record], env=self.env,
                              capture_output=True, timeout=60).returncode

    def stop_service(self):
        """Ends the service (resumed first if stopped); its exit status, -N when signal N ended it."""
        service, self.service = self.service, None
        if service is None:
            return None
        if service.poll() is None:
            service.send_signal(signal.SIGCONT)
            service.terminate()
            try:
                service.wait(20)
            except subprocess.TimeoutExpired:
                service.kill()
        return service.wait()

    def start_xvfb(self):
        """A private X server; DISPLAY in self.env names it."""
        if shutil.which("Xvfb") is None:
            raise Failure("the program needs an X display and Xvfb is not installed")
        read, write = os.pipe()
        self.xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write), "-screen", "0", "1280x720x24", "-nolisten",
                                      "tcp", "-noreset"], pass_fds=(write,), stdout=subprocess.DEVNULL,
                                     stderr=open(os.path.join(self.out, "xvfb.log"), "w"))
        os.close(write)
        # Xvfb writes the display number and a newline once it accepts clients; the pipe stays
        # open for as long as it runs, since a write into a closed pipe ends the server.
        display = b""
        while not display.endswith(b"\n"):
            chunk = os.read(read, 16)
            if not chunk:
                raise Failure("Xvfb did not start (see xvfb.log)")
            display += chunk
        self.env["DISPLAY"] = ":" + display.decode().strip()

    def close(self):
        self.stop_service()
        if self.xvfb:
            self.xvfb.terminate()
            self.xvfb.wait()
            self.xvfb = None
        shutil.rmtree(self.runtime, ignore_errors=True)


# ---- what the programs wrote ---------------------------------------------------------------------

def layer_lines(log_path):
    """The layer's log lines in a program's output: (tag, priority, text)."""
    lines = []
    with open(log_path, errors="replace") as f:
        for line in f:
            # liblog's host format: TAG PRIORITY MM-DD HH:MM:SS PID TID TEXT
            m = re.match(r"(libZoVK\S*) ([VDIWEF]) \d\d-\d\d \d\d:\d\d:\d\d\s+\d+\s+\d+ (.*)$", line.rstrip("\n"))
            if m:
                lines.append((m.group(1), m.group(2), m.group(3)))
    return lines


def read_trace(path):
    """The emulation trace's events, in file order; a line cut off by a crash is left out."""
    events = []
    if path and os.path.exists(path):
        with open(path) as f:
            for line in f:
                try:
                    events.append(json.loads(line))
                except json.JSONDecodeError:
                    pass
    return events


def validation_messages(log_path):
    """The validation layer's messages by id. A message starts on a line that does not start with a
    blank (its object list follows indented); one without an id counts as "(no id)"."""
    ids = Counter()
    if os.path.exists(log_path):
        for line in open(log_path, errors="replace"):
            if line[:1].strip():
                m = re.search(r"\[ ((?:VUID|UNASSIGNED)-\S+) \]", line)
                ids[m.group(1) if m else "(no id)"] += 1
    return ids
