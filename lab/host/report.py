"""Prints the tables of lab/bench from its raw figures: report.py WHAT FILE. Status 0 only if the goals are met."""
import collections
import statistics
import sys

NAMES = {"vpnctl": "vpnctl", "networkmanager": "NetworkManager", "by-hand-no-delay": "by hand, connect-delay 0",
         "by-hand-same-mtu": "by hand (pptp program)", "bare-wire": "the bare wire"}
BY_HAND = {"pptp": "by hand, pppd's defaults", "l2tp": "by hand, IKE daemon running"}
# What vpnctl may take, in parts of what another way takes.
CONNECT_GOALS = {"pptp": (("networkmanager", 0.4), ("by-hand", 0.6), ("by-hand-no-delay", 1.15)),
                 "l2tp": (("networkmanager", 0.12), ("by-hand", 0.95))}
PROCESSES = {"pptp": ("vpnctl", "vpnctl-helper"), "l2tp": ("vpnctl", "vpnctl-helper", "vpnctl-ike")}
MUCH_ROOM = "-much-room"
# A median this near to another, and among the other's own figures, cannot be told from it: one way's runs differ by more.
INDISTINCT = 0.95


class Figures:
    """Those of one protocol."""

    def __init__(self, protocol, values):
        self.protocol = protocol
        self.values = values
        self.good = []

    def ways(self):
        return list(dict.fromkeys(way for way, _ in self.values))

    def name(self, way):
        if way.endswith(MUCH_ROOM):
            return self.name(way.removesuffix(MUCH_ROOM)) + ", much room"
        return NAMES.get(way) or BY_HAND[self.protocol]

    def median(self, way, what):
        return statistics.median(self.values[way, what])

    def ratio(self, other, what, own="vpnctl"):
        """Of vpnctl's median to another's; none if the other has no figures."""
        if not self.values.get((other, what)):
            return None
        return self.median(own, what) / self.median(other, what)

    def within(self, other, what, own):
        """Whether vpnctl's median lies among the other's figures."""
        return min(self.values[other, what]) <= self.median(own, what) <= max(self.values[other, what])

    def judge(self, goal, met, shown):
        self.good.append(met)
        print(f"goal: {self.protocol}, {goal}: {shown}, {'met' if met else 'MISSED'}")


def load(path):
    protocols = {}
    with open(path, encoding="ascii") as file:
        for line in file:
            protocol, way, what, value = line.rstrip("\n").split("\t")
            figures = protocols.setdefault(protocol, Figures(protocol, collections.defaultdict(list)))
            figures.values[way, what].append(float(value))
    return list(protocols.values())


def table(head, rows):
    widths = [max(len(str(row[i])) for row in [head, *rows]) for i in range(len(head))]
    for row in [head, ["-" * width for width in widths], *rows]:
        print("  ".join(str(cell).ljust(width) if i == 0 else str(cell).rjust(width)
                        for i, (cell, width) in enumerate(zip(row, widths))))
    print()


def decimal(number):
    return "not measured" if number is None else f"{number:.2f}"


def connect(figures):
    """Of NetworkManager and of by hand at most so much, 8 MiB for each process."""
    goals = CONNECT_GOALS[figures.protocol]
    head = [f"{figures.protocol}: process start to address", "runs", "median s", "lowest", "highest"]
    head += ["/ " + figures.name(other) for other, _ in goals] + ["end: command s", "link gone s"]
    rows = []
    for way in figures.ways():
        values = figures.values[way, "seconds"]
        rows.append([figures.name(way), len(values), f"{figures.median(way, 'seconds'):.2f}", f"{min(values):.2f}",
                     f"{max(values):.2f}"])
        rows[-1] += [decimal(figures.ratio(other, "seconds", way)) for other, _ in goals]
        rows[-1] += [f"{figures.median(way, what):.2f}" for what in ("ended", "gone")]
    table(head, rows)
    table([f"{figures.protocol}: what vpnctl's time is spent on", "median s"],
          [[name, f"{seconds:.2f}"] for name, seconds in stages(figures)])
    for other, limit in goals:
        ratio = figures.ratio(other, "seconds")
        figures.judge(f"at most {limit} of {figures.name(other)}", ratio is not None and ratio <= limit, decimal(ratio))
    for process in PROCESSES[figures.protocol]:
        peaks = [max(values) for (way, what), values in figures.values.items() if what == "peak " + process]
        shown = f"{max(peaks) / 1024:.1f} MiB" if peaks else "not seen"
        figures.judge(f"peak memory of {process} at most 8 MiB", bool(peaks) and max(peaks) <= 8 * 1024, shown)


def stages(figures):
    """What vpnctl's time is spent on, in medians: (stage, seconds) in their order, until "PPP Connected"."""
    moments = [("process", "started"), ("IKE", "associated"), ("tunnel", "link"), ("PPP", "seconds"),
               ("routes and name servers", "connected")]
    result = []
    previous = None
    for name, moment in moments:
        values = figures.values.get(("vpnctl", moment))
        if not values:
            continue
        durations = values if previous is None else [now - before for now, before in zip(values, previous)]
        result.append((name, statistics.median(durations)))
        previous = values
    return result


def disconnect(figures):
    """Two seconds, each time: after SIGUSR1 to the end of the tool, after SIGKILL to that of all that it had started."""
    rows = []
    for signal, what, until in (("USR1", "ended", "the tool has ended"), ("USR1", "clean", "nothing runs any more"),
                                ("KILL", "clean", "nothing runs any more")):
        values = figures.values[signal, what]
        rows.append([f"SIG{signal} until {until}", len(values), f"{statistics.median(values):.2f}", f"{min(values):.2f}",
                     f"{max(values):.2f}"])
    table([figures.protocol, "runs", "median s", "lowest", "highest"], rows)
    for row in (rows[0], rows[2]):
        figures.judge(row[0] + " at most 2 s, each time", float(row[4]) <= 2, row[4])


def throughput(figures):
    """Not slower than the others against the same server with the usual room in its sockets."""
    rows = []
    for way in figures.ways():
        rows.append([figures.name(way), len(figures.values[way, "up rate"])])
        for direction in ("up", "down"):
            values = figures.values[way, direction + " rate"]
            cost = sum(figures.values[way, direction + " cpu"]) / 100 / (sum(figures.values[way, direction + " bits"]) / 1e8)
            rows[-1] += [f"{statistics.median(values) / 1e6:.1f}", f"{min(values) / 1e6:.1f} to {max(values) / 1e6:.1f}",
                         f"{cost:.2f}"]
    table([f"{figures.protocol}: TCP, from the client and back", "runs", "up Mbit/s", "range", "CPU s/100 Mbit", "down Mbit/s",
           "range", "CPU s/100 Mbit"], rows)
    others = [way for way in figures.ways() if not way.startswith(("bare", "vpnctl", "networkmanager"))]
    roomy = [way for way in ("networkmanager" + MUCH_ROOM,) if way in figures.ways()]
    for way in ["networkmanager", *others, *roomy]:
        own = "vpnctl" + (MUCH_ROOM if way.endswith(MUCH_ROOM) else "")
        for direction in ("up", "down"):
            ratio = figures.ratio(way, direction + " rate", own)
            shown = decimal(ratio) + " of its rate"
            met = ratio is not None and (ratio >= 1 or ratio >= INDISTINCT and figures.within(way, direction + " rate", own))
            if met and ratio < 1:
                shown += ", not to be told from it"
            if way.endswith(MUCH_ROOM):
                print(f"not judged: {figures.protocol} {direction}, {figures.name(way)}: {shown}")
            else:
                figures.judge(f"{direction} not slower than {figures.name(way)}", met, shown)


def main():
    what, path = sys.argv[1:]
    good = []
    for figures in load(path):
        {"connect": connect, "disconnect": disconnect, "throughput": throughput}[what](figures)
        good += figures.good
        print()
    return 0 if good and all(good) else 1


if __name__ == "__main__":
    sys.exit(main())
