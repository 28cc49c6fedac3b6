"""Draws the pictures of docs/performance.md from the raw figures of lab/bench: picture.py LOGS FOLDER.

LOGS holds bench-connect-... and bench-throughput-..., as lab/bench leaves them. Times and rates are drawn in parts of NetworkManager's:
under emulation nothing else can be compared. Status 2 with a sentence if figures are missing."""
import pathlib
import sys

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402, after the choice of what draws

from report import PROCESSES, load, stages  # noqa: E402

# Told apart in print and by eyes that see few colours.
COLOURS = ["#332288", "#88ccee", "#117733", "#ddcc77", "#cc6677"]
OTHERS = "#bbbbbb"
STAGES = ["process", "IKE", "tunnel", "PPP", "routes and name servers"]
TITLES = {"pptp": "PPTP", "l2tp": "L2TP over IPSec"}


def figures_of(logs, what):
    """Of each protocol, from the newest run that has it."""
    found = {}
    for path in sorted(logs.glob(f"bench-{what}-*/figures"), key=lambda file: file.stat().st_mtime):
        for figures in load(path):
            found[figures.protocol] = figures
    if set(found) != set(TITLES):
        raise LookupError(f"there are no figures of both protocols below {logs}: run lab/bench {what} first")
    return [found[protocol] for protocol in TITLES]


def panels(count):
    picture, axes = pyplot.subplots(count, 1, figsize=(8, 2.4 * count), layout="constrained")
    for axis in axes:
        axis.spines[["top", "right"]].set_visible(False)
    return picture, axes


def legend_below(picture, axis):
    handles, labels = axis.get_legend_handles_labels()
    picture.legend(handles, labels, loc="upper center", bbox_to_anchor=(0.5, 0), ncols=len(labels), frameon=False)


def connect(logs):
    picture, axes = panels(2)
    for axis, figures in zip(axes, figures_of(logs, "connect")):
        whole = figures.median("networkmanager", "seconds")
        ways = figures.ways()[::-1]
        for way in ways:
            if way != "vpnctl":
                axis.barh(figures.name(way), figures.median(way, "seconds") / whole, color=OTHERS)
                continue
            left = 0
            for name, seconds in stages(figures):
                axis.barh(figures.name(way), seconds / whole, left=left, color=COLOURS[STAGES.index(name)], label=name)
                left += seconds / whole
        axis.set_title(f"{TITLES[figures.protocol]}: process start to address (NetworkManager = 1)", loc="left")
    legend_below(picture, axes[1])  # L2TP has all stages
    return picture


def throughput(logs):
    picture, axes = panels(2)
    for axis, figures in zip(axes, figures_of(logs, "throughput")):
        ways = [way for way in figures.ways() if not way.startswith("bare") and not way.endswith("-much-room")][::-1]
        for shift, direction, colour in ((0.2, "up", COLOURS[0]), (-0.2, "down", COLOURS[1])):
            whole = figures.median("networkmanager", direction + " rate")
            rates = [figures.median(way, direction + " rate") / whole for way in ways]
            axis.barh([row + shift for row in range(len(ways))], rates, height=0.4, color=colour,
                      label={"up": "from the client", "down": "to the client"}[direction])
        axis.set_yticks(range(len(ways)), [figures.name(way) for way in ways])
        axis.set_title(f"{TITLES[figures.protocol]}: TCP through the tunnel (NetworkManager = 1)", loc="left")
    legend_below(picture, axes[0])
    return picture


def memory(logs):
    picture, axes = panels(2)
    for axis, figures in zip(axes, figures_of(logs, "connect")):
        processes = PROCESSES[figures.protocol][::-1]
        peaks = [max(figures.values["vpnctl", "peak " + process]) / 1024 for process in processes]
        bars = axis.barh(processes, peaks, color=COLOURS[0])
        axis.bar_label(bars, fmt="%.1f", padding=3)
        axis.set_xlim(0, 8)
        axis.set_title(f"{TITLES[figures.protocol]}: most memory of each process, MiB (at most 8)", loc="left")
    return picture


def main():
    logs, folder = map(pathlib.Path, sys.argv[1:])
    # Text stays text, and the same figures give the same bytes.
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "vpnctl", "font.size": 10})
    try:
        for draw in (connect, throughput, memory):
            draw(logs).savefig(folder / f"{draw.__name__}.svg", metadata={"Date": None}, bbox_inches="tight")
    except LookupError as error:
        print(f"lab: {error}", file=sys.stderr)
        return 2
    return 0


sys.exit(main())
