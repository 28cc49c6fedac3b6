"""What a machine has in use, before, while and after many connections: in_use.py measure FILE MOMENT WORK HOST=PID...
                                                                       in_use.py report FILE

"measure" runs on the guest and appends its figures to FILE: of the kernel as a whole, and of each host, whose first process is
PID and whose files are below WORK. "report" prints them as a table, one column for each moment, and judges: what is counted must
not be more at the end than it was at the first moment; what varies by itself (memory, the kernel's caches and threads) may be more by
what its row allows. Status 0 if nothing has grown.
"""
import collections
import os
import subprocess
import sys
import time

OURS = ("vpnctl", "vpnctl-helper", "vpnctl-ike")
# Caches of the kernel that hold what connections are made of; the rest of the slabs is in one sum.
CACHES = ("net_namespace", "xfrm_state", "xfrm_dst_cache", "ip_dst_cache", "sock_inode_cache", "PING", "RAW", "UDP", "TCP", "UNIX",
          "UNIX-STREAM", "task_struct", "pid", "pid_2", "filp", "files_cache", "mnt_cache", "nsproxy", "signal_cache")
MODULES = ("pptp", "l2tp_ppp", "l2tp_core", "l2tp_netlink", "ppp_generic", "ppp_mppe", "pppox", "esp4", "xfrm_user", "gre")


def lines(path):
    try:
        with open(path, errors="replace", encoding="utf-8") as file:
            return file.read().splitlines()
    except OSError:
        return []


def processes(root="/proc"):
    for pid in filter(str.isdigit, os.listdir(root)):
        name = "".join(lines(f"{root}/{pid}/comm"))
        if name:
            yield f"{root}/{pid}", name


def cached_objects():
    """Of several looks the least: what was just closed goes a little later."""
    subprocess.run(["mount", "-o", "remount,rw", "/sys"], check=True)
    least = {}
    for _ in range(6):
        time.sleep(0.5)
        # Otherwise a cache counts as in use whatever else lies in the pages that each processor keeps at hand.
        for name in CACHES:
            with open(f"/sys/kernel/slab/{name}/shrink", "w", encoding="ascii") as shrink:
                shrink.write("1")
        for words in map(str.split, lines("/proc/slabinfo")[2:]):
            least[words[0]] = min(least.get(words[0], sys.maxsize), int(words[1]))
    return least


def kernel(note):
    slabs = cached_objects()
    with open("/proc/sys/vm/stat_refresh", "w", encoding="ascii") as refresh:
        refresh.write("1")
    memory = {words[0].rstrip(":"): int(words[1]) for words in map(str.split, lines("/proc/meminfo"))}
    own = {words[0].rstrip(":"): int(words[1]) for words in map(str.split, lines("/proc/self/smaps_rollup")[1:])}
    memory["AnonPages"] -= own["Anonymous"]  # this program's, of which each look needs another amount
    # What programs and the kernel have for themselves: files in memory, which the logs are, do not count. Free pages that
    # processors keep at hand do, and make it go up and down by tens of megabytes: what is judged are its parts.
    note("memory in use, without files", memory["MemTotal"] - memory["MemFree"] - memory["Buffers"] - memory["Cached"] -
         memory["SReclaimable"], "KiB, told")
    for name in ("AnonPages", "SUnreclaim", "Percpu", "KernelStack", "PageTables", "VmallocUsed"):
        note("  " + name, memory[name], "KiB")
    note("files in memory, all logs among them", memory["Shmem"], "KiB, told")
    for name in CACHES:
        note(f"slab {name}", slabs[name], "objects")
    anonymous = collections.Counter()
    for path, name in processes():
        status = dict(line.split(":", 1) for line in lines(path + "/status"))
        anonymous[name] += int(status.get("RssAnon", "0 kB").split()[0])
    for name, size in anonymous.most_common(8):
        note(f"anonymous memory of all {name}", size, "KiB, told")
    threads = sum(1 for path, _ in processes() if not lines(path + "/cmdline"))
    note("kernel threads", threads, "varying")
    note("processes", sum(1 for _ in processes()) - threads, "")
    note("network namespaces", len({os.stat(path + "/ns/net").st_ino for path, _ in processes() if os.path.exists(path + "/ns/net")}), "")
    uses = {words[0]: int(words[2]) for words in map(str.split, lines("/proc/modules"))}
    for name in MODULES:
        if name in uses:
            note(f"uses of module {name}", uses[name], "")


def inside(pid, *command):
    return subprocess.run(["nsenter", "-t", pid, "-n", *command], capture_output=True, check=True, text=True).stdout


def host(note, pid, layer):
    proc = f"/proc/{pid}/root/proc"
    names = collections.Counter()
    for path, name in processes(proc):
        names[name] += 1
        try:
            note(f"descriptors of {name}", len(os.listdir(path + "/fd")), "")
        except OSError:
            continue
        status = dict(line.split(":", 1) for line in lines(path + "/status"))
        note(f"memory of {name}", int(status.get("VmRSS", "0 kB").split()[0]), "KiB, told")
    note("processes", sum(names.values()), "")
    note("of them ours", sum(names[name] for name in OURS), "")
    for table in ("dev", "route", "udp", "tcp", "raw", "unix", "packet", "pppol2tp", "pptp"):
        if os.path.exists(f"/proc/{pid}/net/{table}"):
            note(f"lines of /proc/net/{table}", len([line for line in lines(f"/proc/{pid}/net/{table}") if " 06 0000" not in line]), "")
    for line in lines(f"/proc/{pid}/net/sockstat"):
        words = line.split()
        note(f"sockets: {words[0].rstrip(':')}", int(words[2]), "varying")
    for what in ("state", "policy"):
        note(f"xfrm {what}", len([line for line in inside(pid, "ip", "xfrm", what).splitlines() if line and not line[0].isspace()]), "")
    note("rules", len(inside(pid, "ip", "rule").splitlines()), "")
    note("routes", len(inside(pid, "ip", "route", "show", "table", "all").splitlines()), "")
    note("mounts", len(lines(f"/proc/{pid}/mountinfo")), "")
    for root, what in ((f"/proc/{pid}/root/run", "/run"), (layer, "written files")):
        found = [os.path.join(folder, name) for folder, _, files in os.walk(root) for name in files]
        note(f"{what}: files", len(found), "")
        note(f"{what}: bytes without logs",
             sum(os.lstat(path).st_size for path in found if "/var/log/" not in path), "bytes")
        logs = [path for path in found if "/var/log/" in path]
        if logs:
            note("logs", sum(os.lstat(path).st_size for path in logs), "bytes, told")


def measure(path, moment, work, *hosts):
    with open(path, "a", encoding="ascii") as file:
        def note(where):
            return lambda what, value, unit: file.write(f"{moment}\t{where}\t{what}\t{value}\t{unit}\n")
        # Freed, but not yet given back: memory that is held for later is not in use.
        for order in ("drop_caches", "compact_memory"):
            with open(f"/proc/sys/vm/{order}", "w", encoding="ascii") as drop:
                drop.write("1" if order == "compact_memory" else "3")
        kernel(note("guest"))
        for entry in hosts:
            name, pid = entry.split("=")
            host(note(name), pid, f"{work}/hosts/{name}/layer")


def allowed(unit):
    """By how much a figure may be more at the end; none if it is only told."""
    if unit.endswith("told"):
        return None
    if unit == "KiB":
        return 1024
    if unit == "bytes":
        return 512  # numbers in files have more digits as they count
    if unit == "objects":
        return 16  # what ended last is given back a little later
    if unit == "varying":
        return 4
    return 0


def report(path):
    rows = {}
    moments = []
    units = {}
    for line in lines(path):
        moment, where, what, value, unit = line.split("\t")
        if moment not in moments:
            moments.append(moment)
        row = rows.setdefault((where, what), collections.defaultdict(int))
        row[moment] += int(value)
        units[where, what] = unit
    table = [["", "", *moments, "", "allowed", ""]]
    grown = []
    for (where, what), row in rows.items():
        values = [row[moment] for moment in moments]
        limit = allowed(units[where, what])
        verdict = "told" if limit is None else "grows" if values[-1] > values[0] + limit else "does not grow"
        if verdict == "grows":
            grown.append(f"{what} of {where}")
        if any(values):
            unit = units[where, what].split(",")[0].removesuffix("varying")
            table.append([where, what, *map(str, values), unit, "" if limit is None else f"+{limit}", verdict])
    widths = [max(len(row[i]) for row in table) for i in range(len(table[0]))]
    for row in table:
        print("  ".join(cell.ljust(width) if i < 2 or i > 1 + len(moments) else cell.rjust(width)
                        for i, (cell, width) in enumerate(zip(row, widths))).rstrip())
    print(f"grows: {', '.join(grown)}" if grown else "nothing grows")
    return 1 if grown else 0


if sys.argv[1] == "measure":
    measure(*sys.argv[2:])
else:
    sys.exit(report(sys.argv[2]))
