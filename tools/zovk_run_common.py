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
