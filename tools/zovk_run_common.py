"""What both application reports of zovk-run share: the fragment work a fragment size removes, and
the folding of per-frame descriptions into runs of frames that did the same thing."""

import itertools


def saved_share(width, height):
    """The share of fragment shader invocations a fragment size removes: 1 - 1/(w x h)."""
    return 1 - 1 / (width * height) if width > 0 and height > 0 else 0.0


def frame_runs(frames, describe):
    """One line per run of consecutive frames with the same description."""
    lines = []
    for text, run in itertools.groupby(frames, key=describe):
        run = list(run)
        first, last = run[0]["frame"], run[-1]["frame"]
        lines.append(f"    {'frame ' + str(first) if first == last else f'frames {first}-{last}'}: {text}")
    return lines


# ---- the rate in force at each draw ------------------------------------------------------------------
# The emulation trace gives each draw the rate Vulkan's rules put in force in its own recording
# ("rateFrom": set, pipeline, none). KEPT_RATE names the one assumption the reports also weigh.

KEPT_RATE = ("the GPU keeps the last rate set, in execution order, across command buffers and after a "
             "secondary ended (some tiled GPUs' registers do; Vulkan does not)")
WEIGHTING = "each draw weighted equally (lavapipe's fragment counts are not read per draw)"


def draw_rate(e):
    """The draw's ((w, h), combiner ops) by Vulkan's rules, or None where no rate is defined."""
    if e.get("rateFrom") not in ("set", "pipeline"):
        return None
    return tuple(e["rate"]), tuple(e["combinerOps"])


def rate_kind(rate, attachment):
    """'attachment' (the image's rate replaces), 'full', 'none' or 'other' for a draw's rate."""
    if rate is None:
        return "none"
    size, ops = rate
    if attachment and ops[1] == "REPLACE":
        return "attachment"
    if ops[1] == "KEEP" and ops[0] == "KEEP":
        return "full" if size == (1, 1) else "other"
    return "other"


def rate_share(rate, attachment, image_share):
    """Fragment work a draw's rate removes: the image's average under REPLACE, the size's under KEEP."""
    kind = rate_kind(rate, attachment)
    return image_share if kind == "attachment" else saved_share(*rate[0]) if kind == "other" else 0.0


class ExecutionOrder:
    """Replays draws in execution order (a primary as recorded, a secondary's recording where it is
    executed) and gives each the rate under KEPT_RATE: its own where Vulkan defines one, else the
    last one set before it in any command buffer, including into a secondary after it ended."""

    def __init__(self):
        self.recordings, self.kept = {}, None

    def _run(self, e):
        if e["event"] == "setRate":
            self.kept = ((e["width"], e["height"]), tuple(e["combinerOps"]))
            return None
        own = draw_rate(e)
        if own is not None:
            self.kept = own
        return own if own is not None else self.kept

    def feed(self, e):
        """Takes a trace event; returns [(draw event, rate under KEPT_RATE)] of the draws it executes."""
        kind = e.get("event")
        if kind in ("draw", "setRate") and e.get("level") == "secondary":
            recording = self.recordings.setdefault(e["commandBuffer"], [])
            if recording and e["position"] <= recording[-1]["position"]:
                recording.clear()  # recorded anew
            recording.append(e)
        elif kind in ("draw", "setRate"):
            rate = self._run(e)
            return [(e, rate)] if kind == "draw" else []
        elif kind == "executeCommands":
            out = []
            for cb in e["secondaries"]:
                for s in self.recordings.get(cb, []):
                    rate = self._run(s)
                    if s["event"] == "draw":
                        out.append((s, rate))
            return out
        return []


def new_tally():
    return {"draws": 0, "attachment": 0, "full": 0, "none": 0, "other": 0, "saved": 0.0,
            "keptAttachment": 0, "keptSaved": 0.0}


def tally(t, e, kept, image_share=0.0):
    """Adds one executed draw to a tally; `saved` and `keptSaved` are sums until `finish`."""
    attachment = bool(e.get("attachment"))
    rate = draw_rate(e)
    t["draws"] += 1
    t[rate_kind(rate, attachment)] += 1
    t["saved"] += rate_share(rate, attachment, image_share)
    t["keptAttachment"] += rate_kind(kept, attachment) == "attachment"
    t["keptSaved"] += rate_share(kept, attachment, image_share)


def finish(t):
    for key in ("saved", "keptSaved"):
        t[key] = round(t[key] / t["draws"], 4) if t["draws"] else 0.0
    return t


def describe_tally(t):
    return (f"{t['draws']} draws: attachment rate {t['attachment']}, full rate {t['full']}, "
            + (f"other rate {t['other']}, " if t["other"] else "") + f"no rate {t['none']}")
