"""What the integration scenarios share, on zovk-run's harness (tools/zovk_harness.py). A scenario file
passes main() its scenarios by name; ctest runs `FILE.py BUILD_DIR NAME`. Each run LABEL leaves LABEL.out
and LABEL.err in the scenario's folder; ZOVK_IT_KEEP_TMP=1 keeps the folder."""

import filecmp
import glob
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "tools"))
from zovk_harness import (EMULATION, LAYER, VALIDATION, Failure, Session, layer_lines, read_trace,  # noqa: E402,F401
                          validation_messages, wait_until)

BOTH = ("vkCreateInstance", "vkCreateDevice")
VKCUBE = ["vkcube", "--c", "100"]
SUMMARY = ["vulkaninfo", "--summary"]
# Nothing of the caller's Vulkan, capture, overlay or desktop settings may reach a run.
DROP = ("VK_", "ZOVK_", "GFXRECON_", "VKBASALT_", "ENABLE_VKBASALT", "DISABLE_VKBASALT", "MANGOHUD", "DISABLE_MANGOHUD",
        "NODEVICE_SELECT", "MESA_VK_DEVICE_SELECT", "DISPLAY", "WAYLAND_DISPLAY", "XDG_")


def expect(ok, message):
    if not ok:
        raise Failure(message)


def allowlist():
    """The ids of validation_allowlist.txt: the messages that required behaviour causes."""
    return {line.split()[0] for line in open(os.path.join(HERE, "validation_allowlist.txt"))
            if line.strip() and not line.startswith("#")}


class Scenario(Session):
    def __init__(self, build, name):
        self.name = name
        self.tmp = tempfile.mkdtemp(prefix=f"zovk-it-{name}.")
        home = os.path.join(self.tmp, "home")
        os.mkdir(home, 0o700)
        env = {k: v for k, v in os.environ.items() if not k.startswith(DROP)}
        if os.environ.get("ZOVK_DRIVER") == "system":  # the session keeps the caller's driver
            env.update({k: os.environ[k] for k in ("ZOVK_DRIVER", "VK_DRIVER_FILES", "VK_ICD_FILENAMES")
                        if k in os.environ})
        env.update(HOME=home, XDG_RUNTIME_DIR=home, XDG_CONFIG_HOME=f"{home}/.config", XDG_CACHE_HOME=f"{home}/.cache")
        super().__init__(build, self.tmp, env)
        # One driver, so that every machine renders the same pixels; ZOVK_DRIVER=system keeps the caller's.
        if not self.system_driver:
            icd = glob.glob("/usr/share/vulkan/icd.d/lvp_icd*.json") + glob.glob("/etc/vulkan/icd.d/lvp_icd*.json")
            expect(icd, "lavapipe's ICD manifest is not installed")
            self.env.update(VK_DRIVER_FILES=icd[0], VK_ICD_FILENAMES=icd[0])
        # Sanitizer builds of the layer may need more time.
        self.timeout = int(os.environ.get("ZOVK_IT_TIMEOUT", 180)) * (2 if self.preload else 1)
        self.programs = []
        os.chdir(self.tmp)  # layers and tools read vk_layer_settings.txt from the working folder too

    def path(self, name):
        return os.path.join(self.tmp, name)

    def tool(self, name):
        return os.path.join(self.build, "tools", name)

    def text(self, name):
        with open(self.path(name), errors="replace") as f:
            return f.read()

    def tail(self, name, lines=40):
        if not os.path.exists(self.path(name)):
            return ""
        kept = [line for line in self.text(name).splitlines() if not line.startswith("LAYER:")]
        return f"\n---- last lines of {name} ----\n" + "\n".join(kept[-lines:])

    def count(self, name, pattern):
        """Lines of the file that match."""
        return sum(1 for line in self.text(name).splitlines() if re.search(pattern, line))

    def launch(self, label, argv, env=None, process=None):
        """Starts a program, stdout in LABEL.out and stderr in LABEL.err."""
        with open(self.path(label + ".out"), "w") as out, open(self.path(label + ".err"), "w") as err:
            program = self.start(argv, env or self.env, out, err, process)
        self.programs.append(program)
        return program

    def wait(self, label, program, rc=0):
        """Waits for a program within the time limit; fails unless it exits with rc (None: any)."""
        try:
            status = program.wait(self.timeout)
        except subprocess.TimeoutExpired:
            program.kill()
            program.wait()
            raise Failure(f"{label}: did not finish within {self.timeout} s" + self.tail(label + ".err"))
        if rc is not None and status != rc:
            raise Failure(f"{label}: exit status {status}" + self.tail(label + ".out", 20) + self.tail(label + ".err"))
        return status

    def run(self, label, argv, env=None, process=None, rc=0):
        return self.wait(label, self.launch(label, argv, env, process), rc)

    def zovk_run(self, label, *args):
        """tools/zovk-run with its output in folder LABEL (its report in LABEL.out): the summary. The
        run command preloads a sanitizer runtime into its program by itself."""
        program = subprocess.Popen([os.path.join(ROOT, "tools", "zovk-run"), "--build", self.build, "--out",
                                    self.path(label), *args], env=self.env, stdout=open(self.path(label + ".out"), "w"),
                                   stderr=open(self.path(label + ".err"), "w"))
        self.programs.append(program)
        self.wait(label, program)
        with open(self.path(f"{label}/summary.json")) as f:
            return json.load(f)

    def chains(self, label, kind):
        """The loader's KIND layer call stacks in LABEL.err (a run with loader_debug): per stack, from the
        application down, [name, library]."""
        stacks, stack = [], None
        for line in self.text(label + ".err").splitlines():
            if f"{kind} layer callstack setup to:" in line:
                stack = []
                stacks.append(stack)
            elif stack is not None and line.startswith("LAYER:"):
                text = line[len("LAYER:"):].strip()
                if text in ("<Drivers>", "<Device>"):
                    stack = None
                elif text.startswith("Library:"):
                    stack[-1][1] = text.split(":", 1)[1].strip()
                elif text and ":" not in text and text not in ("<Application>", "<Loader>", "||"):
                    stack.append([text, ""])
        expect(stacks, f"{label}: the loader wrote no {kind} layer call stack" + self.tail(label + ".err"))
        return stacks

    def expect_chain(self, label, *layers, kinds=BOTH, tail=(), library=None):
        """Every call stack holds the layers in this order from the application down (others may sit
        between) and ends with the layers of TAIL; LIBRARY's layer (name, path; ours from the build under
        test by default), wherever it is, comes from that path."""
        mine, path = library or (LAYER, os.path.join(self.build, "libzovk.so"))
        for kind in kinds:
            for stack in self.chains(label, kind):
                names = [name for name, _ in stack]
                expect(all(os.path.realpath(lib) == os.path.realpath(path) for name, lib in stack if name == mine),
                       f"{label}: {kind} loaded {mine} from elsewhere than {path}: {stack}")
                at = [names.index(layer) if layer in names else -1 for layer in layers]
                expect(-1 not in at and at == sorted(at) and names[len(names) - len(tail):] == list(tail),
                       f"{label}: {kind} call stack {names} does not hold {list(layers)} in this order, ending {tail}")

    def expect_validation(self, context, allowed=(), loaded=False):
        """No validation message but those with an id in `allowed`; removes the log for the next run.
        LOADED: the validation layer must have written its log (it logs even when silent)."""
        expect(not loaded or os.path.exists(self.validation_log), f"{context}: the validation layer wrote no log")
        ids = validation_messages(self.validation_log)
        unexpected = {vuid: n for vuid, n in ids.items() if vuid not in allowed}
        if unexpected:
            raise Failure(f"{context}: validation messages {unexpected}\n" + self.text("validation.log")[:3000])
        if os.path.exists(self.validation_log):
            os.remove(self.validation_log)

    def capture_vkcube(self, frames):
        """Captures vkcube (the capture layer alone, under Xvfb) and replays it plainly."""
        self.start_xvfb()
        self.capture = self.path("vkcube.gfxr")
        self.run("capture", ["vkcube", "--c", str(frames)], dict(
            self.env, VK_INSTANCE_LAYERS="VK_LAYER_LUNARG_gfxreconstruct", GFXRECON_CAPTURE_FILE=self.capture,
            GFXRECON_CAPTURE_FILE_TIMESTAMP="false", GFXRECON_LOG_LEVEL="warning"))
        expect(os.path.getsize(self.capture) > 0, "the capture layer wrote no capture file")
        self.frames = frames
        self.replay("replay_plain", self.env)

    def replay(self, label, env, process=None):
        """Replays the capture with screenshots of frames 1, 12, 24 and the last into shots_LABEL."""
        os.mkdir(self.path("shots_" + label))
        self.run(label, ["gfxrecon-replay", "--wsi", "headless", "--screenshots", f"1,12,24,{self.frames}",
                         "--log-level", "warning", "--screenshot-dir", self.path("shots_" + label), self.capture],
                 env, process)

    def expect_same_replay(self, label, what):
        """The replay LABEL logged no replayer warning or error that the plain one does not (it reports
        calls whose result differs from the capture) and wrote the same screenshots, byte for byte."""
        def problems(run):
            text = self.text(run + ".out") + self.text(run + ".err")
            return set(re.findall(r".*\[gfxrecon\] (?:WARNING|ERROR|FATAL).*", text))
        added = problems(label) - problems("replay_plain")
        expect(not added, f"the replay through {what} logged what the plain replay does not: {sorted(added)}")
        plain, other = self.path("shots_replay_plain"), self.path("shots_" + label)
        shots = sorted(os.listdir(plain))
        expect(len(shots) == 4 and shots == sorted(os.listdir(other)),
               f"screenshots: plain {shots}, through {what} {sorted(os.listdir(other))}")
        # The cube turns from frame to frame: identical first and last frames mean nothing was rendered.
        expect(not filecmp.cmp(f"{plain}/screenshot_frame_1.bmp", f"{plain}/screenshot_frame_{self.frames}.bmp",
                               shallow=False), "the plain replay's first and last frames are identical")
        for shot in shots:
            expect(filecmp.cmp(f"{plain}/{shot}", f"{other}/{shot}", shallow=False),
                   f"screenshot {shot} differs between the plain replay and the replay through {what}")

    def close(self):
        for program in (p for p in self.programs if p.poll() is None):
            program.kill()
            program.wait()
        super().close()


def main(scenarios):
    if len(sys.argv) != 3 or sys.argv[2] not in scenarios:
        sys.exit(f"usage: {sys.argv[0]} BUILD_DIR {{{','.join(scenarios)}}}")
    name = sys.argv[2]
    scenario = None
    try:
        scenario = Scenario(sys.argv[1], name)
        scenarios[name](scenario)
    except Failure as e:
        print(f"[{name}] FAIL: {e}", file=sys.stderr)
        return 1
    finally:
        if scenario:
            scenario.close()
            if os.environ.get("ZOVK_IT_KEEP_TMP"):
                print(f"[{name}] kept {scenario.tmp}", file=sys.stderr)
            else:
                shutil.rmtree(scenario.tmp, ignore_errors=True)
    print(f"[{name}] PASS", file=sys.stderr)
    return 0
