"""The AnTuTu part of zovk-run's report: which passes the VRS module classified, and, frame by
frame, the rate it recorded right before each begin (of a large render pass; in the conforming mode
also 1x1 before a pass that follows a coarser one), the step its state machine reached, and the share
of fragment work each rate removes. Rates recorded elsewhere (the conforming mode's, after a pipeline
bind) count only in the draws.

The rates come from the shading-rate emulation trace (what reached the driver's level); the pass
kind and the step of each begin from the module's debug lines, which zovk-run turns on:
  "vxxk c: <pass> <kind>"                            a pass classified at creation
  "vxxk r: <frame> <kind> <width>x<height> <step>"   a rate recorded right before a begin
  "vxxk vflag: <0|1>"                                the VRS switch, sampled every 120 presents
Kinds: A single attachment, B clear colour, C half float, O none of them.

Per frame, "draws" counts the draws by the rate Vulkan's rules put in force (zovk_run_common): the rate
set right before their pass's begin, a rate carried from an earlier pass of the recording, the
pipeline's own rate, or none; and the fragment work saved by those rules and under KEPT_RATE.
"""

import re
from collections import Counter

from zovk_run_common import (KEPT_RATE, WEIGHTING, ExecutionOrder, describe_tally, finish, frame_runs, new_tally,
                              saved_share, tally)

CLASSIFIED_LINE = re.compile(r"vxxk c: (\S+) ([ABC])$")
RATE_LINE = re.compile(r"vxxk r: (\d+) ([ABCO]) (\d+)x(\d+) (\d+)$")
SWITCH_LINE = re.compile(r"vxxk vflag: (\d+)")
SAMPLING_PERIOD = 120


def summarise(events, layer_texts):
    classified, switch, logged = [], [], {}
    for t in layer_texts:
        if m := CLASSIFIED_LINE.search(t):
            classified.append({"pass": m.group(1), "kind": m.group(2)})
        elif m := RATE_LINE.search(t):
            logged.setdefault(int(m.group(1)), []).append(
                {"kind": m.group(2), "size": [int(m.group(3)), int(m.group(4))], "step": int(m.group(5))})
        elif m := SWITCH_LINE.search(t):
            switch.append({"present": SAMPLING_PERIOD * (len(switch) + 1), "on": m.group(1) != "0"})

    pipelines = Counter()
    frames, rates, frame = [], [], 1
    execution, draws = ExecutionOrder(), new_tally()
    # (command buffer, position) of each rate and each pass begun, in this frame: a rate right
    # before a begin is that begin's. The trace has begins only through their draws.
    rate_at, begun = {}, set()
    for e in events:
        kind = e.get("event")
        for draw, kept in execution.feed(e):
            tally(draws, draw, kept)
            carried = draw.get("rateFrom") == "set" and draw.get("ratePosition", 0) < draw.get("passBegin", 0) - 1
            draws["carried"] = draws.get("carried", 0) + carried
        if kind == "pipeline":
            pipelines["withBlock" if e.get("dynamicStateBlock") else "withoutBlock"] += 1
            if e.get("rateDynamic"):
                pipelines["withRate" if e.get("dynamicStateBlock") else "withRateButNoBlock"] += 1
        elif kind == "setRate":
            rate_at[(e["commandBuffer"], e["position"])] = [e["width"], e["height"]]
        elif kind == "draw" and "passBegin" in e and (e["commandBuffer"], e["passBegin"]) not in begun:
            begun.add((e["commandBuffer"], e["passBegin"]))
            if (rate := rate_at.get((e["commandBuffer"], e["passBegin"] - 1))) is not None:
                rates.append(rate)
        elif kind == "present":
            frames.append(_frame(frame, rates, logged.get(frame, [])))
            frames[-1]["draws"] = finish(draws)
            frame, rates, draws = e["frame"] + 1, [], new_tally()
            rate_at, begun = {}, set()

    step = 0
    for f in frames:
        for begin in f["begins"]:
            begin["stepChanged"] = begin["step"] is not None and begin["step"] != step
            step = begin["step"] if begin["step"] is not None else step
        f["step"] = step if f["begins"] else None
    sizes = Counter(f"{w}x{h}" for f in frames for b in f["begins"] for w, h in [b["size"]])
    shares = [b["saved"] for f in frames for b in f["begins"]]
    return {
        "classified": dict(sorted(Counter(p["kind"] for p in classified).items())),
        "classifiedPasses": classified,
        "switchSamples": switch,
        "pipelines": dict(pipelines),
        "frames": frames,
        "totals": {
            "framesWithRates": sum(1 for f in frames if f["begins"]),
            "rates": dict(sorted(sizes.items())),
            "meanSaved": round(sum(shares) / len(shares), 4) if shares else 0.0,
            "logAgrees": all(f["logAgrees"] for f in frames),
            "meanSavedByVulkanRules": _mean([f["draws"]["saved"] for f in frames if f["begins"]]),
            "meanSavedIfRateKept": _mean([f["draws"]["keptSaved"] for f in frames if f["begins"]]),
        },
        "weighting": WEIGHTING,
        "assumption": KEPT_RATE,
    }


def _mean(values):
    return round(sum(values) / len(values), 4) if values else 0.0


def _frame(number, rates, logged):
    """A frame's begins: the trace's rates in order, with the kind and step the log gives each."""
    agrees = [r["size"] for r in logged] == rates
    begins = []
    for n, (width, height) in enumerate(rates):
        entry = logged[n] if agrees else {}
        begins.append({"kind": entry.get("kind", "?"), "size": [width, height], "step": entry.get("step"),
                       "saved": round(saved_share(width, height), 4)})
    return {"frame": number, "begins": begins, "logAgrees": agrees or not logged}


def _describe(f):
    if not f["begins"]:
        return "no rate"
    begins = ", ".join(f"{b['kind']} {b['size'][0]}x{b['size'][1]} {b['saved'] * 100:.0f}%"
                       + (f" (step {b['step']})" if b["stepChanged"] else "") for b in f["begins"])
    mean = sum(b["saved"] for b in f["begins"]) / len(f["begins"])
    kinds = Counter(b["kind"] for b in f["begins"])
    return (f"{len(f['begins'])} rates, step {f['step']}; passes " +
            " ".join(f"{k} x{n}" for k, n in sorted(kinds.items())) +
            f"; {begins}; mean saved {mean * 100:.1f}%" + ("" if f["logAgrees"] else "; log and trace disagree"))


def report_lines(s):
    names = {"A": "single attachment", "B": "clear colour", "C": "half float"}
    lines = ["  AnTuTu VRS:"]
    lines.append("    passes classified at creation: " +
                 (", ".join(f"{k} ({names[k]}) x{n}" for k, n in s["classified"].items()) or "none"))
    p = s["pipelines"]
    lines.append(f"    pipelines: {p.get('withRate', 0)} of {p.get('withBlock', 0)} with a dynamic-state block carry "
                 f"the shading rate; {p.get('withoutBlock', 0)} without a block"
                 + (f", {p['withRateButNoBlock']} of them with the rate" if p.get("withRateButNoBlock") else ""))
    if s["switchSamples"]:
        lines.append("    VRS switch sampled: " +
                     ", ".join(f"present {x['present']} {'on' if x['on'] else 'off'}" for x in s["switchSamples"]))
    lines.extend(frame_runs(s["frames"], _describe))
    t = s["totals"]
    lines.append(f"    summed: {t['framesWithRates']} frames with rates; " +
                 (", ".join(f"{k} x{n}" for k, n in t["rates"].items()) or "no rate") +
                 f"; fragment work saved per begin with a rate, on average {t['meanSaved'] * 100:.1f}%")
    lines.append(f"    draws by Vulkan's rules, {s['weighting']}:")
    lines.extend("  " + line for line in frame_runs(s["frames"], _describe_draws))
    lines.append(f"    fragment work saved by Vulkan's rules in frames with rates, on average "
                 f"{t['meanSavedByVulkanRules'] * 100:.1f}% of all draws (per begin: {t['meanSaved'] * 100:.1f}%); "
                 f"{t['meanSavedIfRateKept'] * 100:.1f}% only if {s['assumption']}")
    return lines


def _describe_draws(f):
    d = f["draws"]
    return (describe_tally(d) + f", of them {d.get('carried', 0)} with a rate carried from an earlier pass; "
            f"saves {d['saved'] * 100:.1f}% ({d['keptSaved'] * 100:.1f}% with the rate kept)")
