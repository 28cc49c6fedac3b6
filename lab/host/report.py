"""Prints the tables of lab/bench from its raw figures: report.py WHAT FILE. Status 0 only if the goals are met."""
import collections
import statistics
import sys

NAMES = {"vpnctl": "vpnctl", "by-hand": "by hand, pppd's defaults", "by-hand-no-delay": "by hand, connect-delay 0",
         "by-hand-same-mtu": "by hand (pptp program)", "bare-wire": "the bare wire",
         "vpnctl-usual-buffers": "vpnctl, usual buffers", "by-hand-same-mtu-usual-buffers": "by hand, usual buffers"}
MET = {True: "met", False: "MISSED"}


def load(path):
    figures = collections.defaultdict(list)
    with open(path, encoding="ascii") as file:
        for line in file:
            way, what, value = line.rstrip("\n").split("\t")
            figures[way, what].append(float(value))
    return figures


def table(head, rows):
    widths = [max(len(str(row[i])) for row in [head, *rows]) for i in range(len(head))]
    for row in [head, ["-" * width for width in widths], *rows]:
        print("  ".join(str(cell).ljust(width) if i == 0 else str(cell).rjust(width)
                        for i, (cell, width) in enumerate(zip(row, widths))))
    print()


def connect(figures):
    """At most 0.6 of by hand with pppd's defaults, 1.15 of by hand with connect-delay 0, 8 MiB for each process."""
    medians = {way: statistics.median(values) for (way, what), values in figures.items() if what == "seconds"}
    rows = []
    for way, median in medians.items():
        values = figures[way, "seconds"]
        rows.append([NAMES[way], len(values), f"{median:.2f}", f"{min(values):.2f}", f"{max(values):.2f}",
                     f"{median / medians['by-hand']:.2f}", f"{median / medians['by-hand-no-delay']:.2f}"])
    table(["process start to address", "runs", "median s", "lowest", "highest", "/ by hand", "/ no delay"], rows)
    if "vpnctl" not in medians:
        return None
    good = []
    for other, limit in (("by-hand", 0.6), ("by-hand-no-delay", 1.15)):
        ratio = medians["vpnctl"] / medians[other]
        good.append(ratio <= limit)
        print(f"goal: at most {limit} of {NAMES[other]}: {ratio:.2f}, {MET[good[-1]]}")
    for process in ("vpnctl", "vpnctl-helper"):
        peak = max(figures["vpnctl", "peak " + process], default=None)
        good.append(peak is not None and peak <= 8 * 1024)
        shown = "not seen" if peak is None else f"{peak / 1024:.1f} MiB"
        print(f"goal: peak memory of {process} at most 8 MiB: {shown}, {MET[good[-1]]}")
    return all(good)


def throughput(figures):
    """Not slower than by hand against the same server, with room in its sockets; the usual buffers are for comparison."""
    ways = list(dict.fromkeys(way for way, _ in figures))
    rates = {}
    rows = []
    for way in ways:
        row = [NAMES[way], len(figures[way, "up rate"])]
        for direction in ("up", "down"):
            rate = statistics.median(figures[way, direction + " rate"]) / 1e6
            lowest, highest = (pick(figures[way, direction + " rate"]) / 1e6 for pick in (min, max))
            cost = sum(figures[way, direction + " cpu"]) / 100 / (sum(figures[way, direction + " bits"]) / 1e8)
            rates[way, direction] = rate
            row += [f"{rate:.1f}", f"{lowest:.1f} to {highest:.1f}", f"{cost:.2f}"]
        rows.append(row)
    table(["TCP, from the client and back", "runs", "up Mbit/s", "range", "CPU s/100 Mbit", "down Mbit/s", "range",
           "CPU s/100 Mbit"], rows)
    if "vpnctl" not in ways:
        return None
    good = []
    for direction in ("up", "down"):
        ratio = rates["vpnctl", direction] / rates["by-hand-same-mtu", direction]
        good.append(ratio >= 1)
        print(f"goal: {direction} not slower than by hand: {ratio:.2f} times as fast, {MET[good[-1]]}")
        usual = rates["vpnctl-usual-buffers", direction] / rates["by-hand-same-mtu-usual-buffers", direction]
        print(f"not judged: {direction}, with usual buffers: {usual:.2f} times as fast")
    return all(good)


verdict = {"connect": connect, "throughput": throughput}[sys.argv[1]](load(sys.argv[2]))
if verdict is None:
    sys.exit("vpnctl is missing from these figures: build it first")
sys.exit(0 if verdict else 1)
