"""The Star Rail part of zovk-run's report: what the VRS module substituted and recorded, frame by
frame, and how much fragment work its shading-rate images remove.

Inputs are the layer's log lines (the module's trace lines need "vendor.zogl.hkrpg.vrs.debug",
which zovk-run turns on) and the shading-rate emulation trace, read in file order: an upload
seen before a pass begin is the content that pass is recorded with. Handles in the log and in
the trace differ when a layer that wraps handles (the validation layer) sits between them, so
the trace is read on its own terms: a substitute pass with 3 attachments is the light pass, and
the images are named in the order the module fills them first (main, light, per resolution).

Per frame, "secondaries" gives for each substituted pass the commands of the secondaries it executed,
in their recording order: d a draw, R the attachment rate (KEEP,REPLACE), F full rate (KEEP,KEEP),
? another rate. The rate in force at a draw is the last one before it in the same recording.

Per frame, "draws" counts for each substituted pass its draws by the rate Vulkan's rules put in force
(zovk_run_common: attachment rate, full rate, no rate) and the fragment work saved by those rules beside
the image's average, and again under the named assumption KEPT_RATE.
"""

import re
import struct
import zlib
from collections import Counter

from zovk_run_common import (KEPT_RATE, WEIGHTING, ExecutionOrder, describe_tally, finish, frame_runs, new_tally,
                              saved_share, tally)

PASS_LINE = re.compile(r"PostVkCreateRenderPass(111|222), create (main|light) pass(?: for fbo)?: (\d+)-+> ?(\d+)")
FRAMEBUFFER_LINE = re.compile(r"PostVkCreateFramebuffer (111|222), old new (main|light) framebuffer: (\d+)---->(\d+), "
                              r"wh: (\d+)x(\d+)")
PIPELINE_LINE = re.compile(r"PostVkCreateGraphicsPipelines, (main|light) pipeline: (\d+) ----> (\d+)")
IMAGE_LINE = re.compile(r"Star Rail VRS: (main|light) pass shading-rate image (\d+), (\d+)x(\d+) .*for (\d+)x(\d+)")
PRESENT_LINE = re.compile(r"Star Rail VRS present (\d+): sceneId (-?\d+), level (-?\d+), vrsFlags 0x([0-9a-f]+)")

ATTACHMENT_RATE = ("KEEP", "REPLACE")
FULL_RATE = ("KEEP", "KEEP")


def fragment_size(code):
    """The fragment size a shading-rate texel value encodes: log2 width in bits 2-3, height in 0-1."""
    return 1 << ((code >> 2) & 3), 1 << (code & 3)


def image_saved_share(texels, width, height, area, texel):
    """Average of 1 - 1/(w*h) over the image texels that the render area covers."""
    x, y, w, h = area
    tw, th = texel
    if not texels or width == 0 or height == 0 or tw == 0 or th == 0:
        return 0.0
    x0, y0 = max(0, x // tw), max(0, y // th)
    x1, y1 = min(width, -(-(x + w) // tw)), min(height, -(-(y + h) // th))
    total, count = 0.0, 0
    for row in range(y0, y1):
        for column in range(x0, x1):
            total += saved_share(*fragment_size(texels[row * width + column]))
            count += 1
    return total / count if count else 0.0


def summarise(events, texts):
    passes, framebuffers, pipelines, images, presents = {}, [], Counter(), {}, {}
    for t in texts:
        if m := PASS_LINE.search(t):
            passes[int(m.group(4))] = {"pass": m.group(2), "variant": "clear" if m.group(1) == "111" else "framebuffer",
                                       "game": int(m.group(3)), "substitute": int(m.group(4))}
        elif m := FRAMEBUFFER_LINE.search(t):
            framebuffers.append({"pass": m.group(2), "game": int(m.group(3)), "substitute": int(m.group(4)),
                                 "width": int(m.group(5)), "height": int(m.group(6))})
        elif m := PIPELINE_LINE.search(t):
            pipelines[m.group(1)] += 1
        elif m := IMAGE_LINE.search(t):
            images[int(m.group(2))] = {"pass": m.group(1), "width": int(m.group(3)), "height": int(m.group(4)),
                                       "resolution": [int(m.group(5)), int(m.group(6))]}
        elif m := PRESENT_LINE.search(t):
            presents[int(m.group(1))] = {"sceneId": int(m.group(2)), "level": int(m.group(3)),
                                         "flags": int(m.group(4), 16)}

    image_order = list(images.values())
    trace_images = {}  # trace image handle -> entry of image_order
    pass_kinds = {}    # trace render pass handle -> "main" or "light"
    texel = (0, 0)
    content = {}       # image handle -> bytes now uploaded
    distinct = []      # distinct contents, in the order first seen
    recordings = {}    # command buffer -> [(position, command)] of its recording
    open_pass = {}     # primary command buffer -> kind of the substituted pass it began last
    frames = []
    execution, image_share = ExecutionOrder(), {}  # pass kind -> its image's average at the last begin

    def new_frame(number):
        return {"frame": number, "mainBegins": 0, "lightBegins": 0, "attachmentRates": 0, "fullRates": 0,
                "uploads": 0, "saved": {"main": [], "light": []}, "contents": {}, "secondaries": {}, "draws": {}}

    def record(e, command):
        recording = recordings.setdefault(e["commandBuffer"], [])
        if recording and e["position"] <= recording[-1][0]:
            recording.clear()  # recorded anew
            open_pass.pop(e["commandBuffer"], None)
        recording.append((e["position"], command))

    frame = new_frame(1)
    for e in events:
        kind = e.get("event")
        for draw, kept in execution.feed(e):
            if pass_kind := pass_kinds.get(draw.get("renderPass")):
                tally(frame["draws"].setdefault(pass_kind, new_tally()), draw, kept, image_share.get(pass_kind, 0.0))
        if kind == "device":
            texel = (e.get("texelWidth", 0), e.get("texelHeight", 0))
        elif kind == "renderPass":
            pass_kinds[e["renderPass"]] = "light" if e.get("attachmentCount") == 3 else "main"
        elif kind == "upload" and e.get("readable"):
            if e["image"] not in trace_images and len(trace_images) < len(image_order):
                trace_images[e["image"]] = image_order[len(trace_images)]
            if e["image"] not in trace_images:
                continue
            data = bytes.fromhex(e["bytes"])
            content[e["image"]] = data
            if data not in distinct:
                distinct.append(data)
            frame["uploads"] += 1
        elif kind == "beginRenderPass":
            record(e, "b")
            pass_kind = open_pass[e["commandBuffer"]] = pass_kinds.get(e.get("renderPass"))
            if pass_kind is None:
                continue
            area = e.get("renderArea", [0, 0, 0, 0])
            frame[pass_kind + "Begins"] += 1
            for image, info in trace_images.items():
                if info["pass"] == pass_kind and info["resolution"] == area[2:4] and image in content:
                    image_share[pass_kind] = image_saved_share(content[image], info["width"], info["height"], area,
                                                               texel)
                    frame["saved"][pass_kind].append(image_share[pass_kind])
                    frame["contents"][pass_kind] = distinct.index(content[image])
        elif kind == "setRate":
            ops = tuple(e.get("combinerOps", []))
            if ops == ATTACHMENT_RATE:
                frame["attachmentRates"] += 1
            elif ops == FULL_RATE:
                frame["fullRates"] += 1
            record(e, "R" if ops == ATTACHMENT_RATE else "F" if ops == FULL_RATE else "?")
        elif kind == "draw":
            record(e, "d")
        elif kind == "executeCommands":
            record(e, "x")
            # The trace has no pass ends: a secondary counts to the substituted pass begun last
            # in the same recording.
            if open_pass.get(e["commandBuffer"]):
                frame["secondaries"].setdefault(open_pass[e["commandBuffer"]], []).extend(
                    "".join(c for _, c in recordings.get(cb, []) if c in "dRF?") for cb in e["secondaries"])
        elif kind == "present":
            frames.append(frame)
            frame = new_frame(e["frame"] + 1)

    for f in frames:
        # A frame is recorded under what the present before it saw.
        f.update(presents.get(f["frame"] - 1, {"sceneId": 0, "level": 0, "flags": 0}))
        f["saved"] = {k: round(sum(v) / len(v), 4) for k, v in f["saved"].items() if v}
        f["gate"] = f.get("sceneId") == 1058 or f.get("sceneId", 0) > 1000000
        f["draws"] = {k: finish(t) for k, t in f["draws"].items()}
    by_level, by_rules, if_kept = {}, {}, {}
    for f in frames:
        for pass_name, share in f["saved"].items():
            by_level.setdefault(str(f.get("level")), {}).setdefault(pass_name, share)
            # From the level's second frame on: its first runs under what the frame before left.
            if pass_name in f["draws"] and str(f.get("level")) in by_level and f["frame"] > 1 and \
                    frames[f["frame"] - 2].get("level") == f.get("level"):
                by_rules.setdefault(str(f["level"]), {}).setdefault(pass_name, f["draws"][pass_name]["saved"])
                if_kept.setdefault(str(f["level"]), {}).setdefault(pass_name, f["draws"][pass_name]["keptSaved"])
    return {
        "substitutes": {
            "renderPasses": sorted(passes.values(), key=lambda p: (p["pass"], p["variant"])),
            "framebuffers": framebuffers,
            "pipelines": dict(pipelines),
        },
        "images": [{"handle": h, **i} for h, i in images.items()],
        "texelSize": list(texel),
        "frames": frames,
        "totals": {
            "substitutedMainBegins": sum(f["mainBegins"] for f in frames),
            "substitutedLightBegins": sum(f["lightBegins"] for f in frames),
            "attachmentRates": sum(f["attachmentRates"] for f in frames),
            "fullRates": sum(f["fullRates"] for f in frames),
            "uploads": sum(f["uploads"] for f in frames),
        },
        "fragmentWorkSavedByLevel": by_level,
        "fragmentWorkSavedByVulkanRulesByLevel": by_rules,
        "fragmentWorkSavedIfRateKeptByLevel": if_kept,
        "weighting": WEIGHTING,
        "assumption": KEPT_RATE,
        "distinctImageContents": len(distinct),
        "_contents": distinct,
    }


def _describe(f):
    parts = [f"level {f['level']}, scene {f['sceneId']} (gate {'on' if f['gate'] else 'off'})"]
    if f["mainBegins"] or f["lightBegins"]:
        parts.append(f"substituted main x{f['mainBegins']}, light x{f['lightBegins']}")
    else:
        parts.append("nothing substituted")
    if f["attachmentRates"] or f["fullRates"]:
        parts.append(f"attachment rate x{f['attachmentRates']}, full rate x{f['fullRates']}")
    for pass_name, share in sorted(f["saved"].items()):
        parts.append(f"{pass_name} saves {share * 100:.1f}% (image {f['contents'].get(pass_name, '?') + 1})")
    if f["uploads"]:
        parts.append(f"{f['uploads']} uploads")
    return "; ".join(parts)


def report_lines(s):
    subs = s["substitutes"]
    lines = ["  Star Rail VRS:"]
    for p in subs["renderPasses"]:
        lines.append(f"    {p['pass']} pass ({p['variant']} variant) {p['game']} -> substitute {p['substitute']}")
    for fb in subs["framebuffers"]:
        lines.append(f"    {fb['pass']} framebuffer {fb['width']}x{fb['height']} {fb['game']} -> {fb['substitute']}")
    if subs["pipelines"]:
        lines.append("    pipelines substituted: " + ", ".join(f"{k} {v}" for k, v in sorted(subs["pipelines"].items())))
    for i in s["images"]:
        lines.append(f"    {i['pass']} shading-rate image {i['width']}x{i['height']} for {i['resolution'][0]}x"
                     f"{i['resolution'][1]} (texel {s['texelSize'][0]}x{s['texelSize'][1]})")
    lines.extend(frame_runs(s["frames"], _describe))
    t = s["totals"]
    lines.append(f"    summed: main begins {t['substitutedMainBegins']}, light begins {t['substitutedLightBegins']}, "
                 f"attachment rates {t['attachmentRates']}, full rates {t['fullRates']}, uploads {t['uploads']}")
    for level, shares in sorted(s["fragmentWorkSavedByLevel"].items()):
        lines.append(f"    fragment work saved at level {level}: " +
                     ", ".join(f"{k} pass {v * 100:.1f}%" for k, v in sorted(shares.items())))
    lines.append(f"    draws of the substituted passes by Vulkan's rules, {s['weighting']}:")
    lines.extend("  " + line for line in frame_runs([f for f in s["frames"] if f["draws"]], _describe_draws))
    for level, shares in sorted(s["fragmentWorkSavedByVulkanRulesByLevel"].items()):
        image = s["fragmentWorkSavedByLevel"].get(level, {})
        lines.append(f"    fragment work saved by Vulkan's rules at level {level}: " +
                     ", ".join(f"{k} pass {v * 100:.1f}% (image {image.get(k, 0) * 100:.1f}%)"
                               for k, v in sorted(shares.items())))
    for level, shares in sorted(s["fragmentWorkSavedIfRateKeptByLevel"].items()):
        lines.append(f"    fragment work saved at level {level} only if {s['assumption']}: " +
                     ", ".join(f"{k} pass {v * 100:.1f}%" for k, v in sorted(shares.items())))
    return lines


def _describe_draws(f):
    return "; ".join(f"{k} {describe_tally(t)}, saves {t['saved'] * 100:.1f}% of its image's "
                     f"{f['saved'].get(k, 0) * 100:.1f}% (with the rate kept: attachment rate {t['keptAttachment']}, "
                     f"{t['keptSaved'] * 100:.1f}%)" for k, t in sorted(f["draws"].items()))


# ---- shading-rate images as PNGs ---------------------------------------------------------------------

COLOURS = {(1, 1): (46, 160, 67), (1, 2): (240, 200, 40), (2, 1): (250, 140, 30), (2, 2): (215, 50, 40),
           (2, 4): (150, 60, 170), (4, 2): (110, 60, 190), (4, 4): (40, 90, 200)}
OTHER = (128, 128, 128)
# A 3x5 pixel font for the legend's labels.
GLYPHS = {"1": "010110010010111", "2": "111001111100111", "4": "101101111001001", "x": "000101010101000",
          "?": "111001011000010"}


def _png(width, height, pixels):
    raw = b"".join(b"\0" + bytes(pixels[y * width * 3:(y + 1) * width * 3]) for y in range(height))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xffffffff)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))


def image_png(texels, width, height, scale=4):
    """The image, `scale` pixels per texel, one colour per fragment size, and a legend strip below."""
    sizes = sorted({fragment_size(v) for v in texels})
    legend_h = 14
    pw, ph = max(width * scale, 4 + 40 * len(sizes)), height * scale + legend_h
    px = bytearray([255] * (pw * ph * 3))

    def put(x, y, colour):
        if 0 <= x < pw and 0 <= y < ph:
            px[(y * pw + x) * 3:(y * pw + x) * 3 + 3] = bytes(colour)
    for y in range(height):
        for x in range(width):
            colour = COLOURS.get(fragment_size(texels[y * width + x]), OTHER)
            for dy in range(scale):
                for dx in range(scale):
                    put(x * scale + dx, y * scale + dy, colour)
    top = height * scale + 2
    for n, size in enumerate(sizes):
        left = 2 + 40 * n
        for dy in range(10):
            for dx in range(10):
                put(left + dx, top + dy, COLOURS.get(size, OTHER))
        label = f"{size[0]}x{size[1]}"
        for c, ch in enumerate(label):
            glyph = GLYPHS.get(ch, GLYPHS["?"])
            for gy in range(5):
                for gx in range(3):
                    if glyph[gy * 3 + gx] == "1":
                        for sy in range(2):
                            put(left + 13 + c * 8 + gx * 2, top + gy * 2 + sy, (0, 0, 0))
                            put(left + 14 + c * 8 + gx * 2, top + gy * 2 + sy, (0, 0, 0))
    return _png(pw, ph, px)


def write_pngs(s, out):
    """Writes each distinct image content once; returns the file names."""
    names = []
    sizes = {}
    for i in s["images"]:
        sizes.setdefault(i["width"] * i["height"], (i["width"], i["height"]))
    for n, data in enumerate(s["_contents"]):
        width, height = sizes.get(len(data), (len(data), 1))
        name = f"shading-rate-{n + 1}-{width}x{height}.png"
        with open(f"{out}/{name}", "wb") as f:
            f.write(image_png(data, width, height))
        names.append(name)
    return names
