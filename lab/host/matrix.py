"""The fault matrix as a plan for the guest, and as a table of what came of it.

  matrix.py plan CELLS FOLDER TIMES [WORD...]   one line per cell: deadline in seconds, PROTOCOL.STAGE.FAULT, FOLDER
  matrix.py table CELLS LOGS TIMES PLAN RESULTS the table; of a cell that did not come to its end as it should (RESULTS holds
                                                those that did), LOGS/CELL/rounds holds how often it has passed

A WORD is a protocol, a stage or a fault; of each kind that is named only the named ones are run.
"""
import pathlib
import random
import re
import sys


def read(path):
    """Protocol -> (stages, {fault: [mark per stage]}), and the letters' reasons."""
    protocols, reasons = {}, {}
    for line in pathlib.Path(path).read_text().splitlines():
        if reason := re.fullmatch(r"#   (\w)  (.*)", line):
            reasons[reason[1]] = reason[2]
        words = line.split()
        if not words or line.startswith("#"):
            continue
        if len(words[1]) > 1:
            stages, faults = words[1:], {}
            protocols[words[0]] = stages, faults
        else:
            if len(words) != len(stages) + 1 or not set(words[1:]) <= {"+", *reasons}:
                sys.exit(f"matrix: this row does not fit: {line}")
            faults[words[0]] = words[1:]
    return protocols, reasons


def plan(path, folder, times, *words):
    protocols, _ = read(path)
    cells = [(protocol, stage, fault) for protocol, (stages, faults) in protocols.items() for stage in stages
             for fault in faults if faults[fault][stages.index(stage)] == "+"]
    wanted = [{word for word in words if word in kind} for kind in zip(*cells)]
    if unknown := set(words).difference(*wanted):
        sys.exit("matrix: there is no " + ", ".join(sorted(unknown)))
    # Cells that wait and cells that work share the machine best when they are mixed; the longest must not be the last.
    random.Random(1).shuffle(cells)
    cells.sort(key=lambda cell: cell[2] != "control-lost")
    for cell in cells:
        if all(part in kind or not kind for part, kind in zip(cell, wanted)):
            print(300 + 60 * int(times), ".".join(cell), folder, sep="\t")


def table(path, logs, times, planned, results):
    protocols, reasons = read(path)
    times = int(times)
    planned = {line.split("\t")[1] for line in pathlib.Path(planned).read_text().splitlines()}
    results = dict(line.split("\t")[::-2] for line in pathlib.Path(results).read_text().splitlines())
    for protocol, (stages, faults) in protocols.items():
        if not any(cell.startswith(protocol + ".") for cell in planned):
            continue
        print(f"\n{protocol:<21}" + "  ".join(stages))
        for fault, marks in faults.items():
            cells = []
            for stage, mark in zip(stages, marks):
                name = f"{protocol}.{stage}.{fault}"
                if mark == "+" and name in planned:
                    rounds = pathlib.Path(logs, name, "rounds")
                    passed = min(int(rounds.read_text()), times - 1) if rounds.exists() else 0
                    if results.get(name) == "passed":
                        passed = times
                    mark = f"{passed}/{times}"
                elif mark == "+":
                    mark = " "
                else:
                    mark = f"- {mark}"
                cells.append(mark.ljust(len(stage)))
            print(f"{fault:<21}" + "  ".join(cells).rstrip())
    print()
    for letter, reason in reasons.items():
        print(f"- {letter}: {reason}")


{"plan": plan, "table": table}[sys.argv[1]](*sys.argv[2:])
