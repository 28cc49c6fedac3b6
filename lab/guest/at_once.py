"""Two tools started at the same moment, again and again: at_once.py ROUNDS VPNCTL CONFIG CONFIG

Runs on the client. Nobody listens where the configurations lead, so each run is over soon. After each round both stores are
whole, hold what others have put there, and one service Corvanelle, of a run that did not fail. Prints how the runs
went.
"""
import collections
import os
import plistlib
import re
import subprocess
import sys

PREFERENCES = "/etc/vpnctl/preferences.plist"
KEYCHAIN = "/var/lib/vpnctl/System.keychain"


def outcome(output):
    if "refuses TCP port 1723" in output:
        return "went all the way"
    error = re.search(r"^Error: (.*, code: \d+)$", output, re.M)
    if error:
        return error[1]
    return "did not start" if output.rstrip().endswith("Exit.") else output


def check_preferences(users):
    with open(PREFERENCES, "rb") as file:
        root = plistlib.load(file)
    services = root["NetworkServices"]
    names = collections.Counter(service["UserDefinedName"] for service in services.values())
    assert names == {"Office": 1, "Corvanelle": 1}, names
    network = root["Sets"][root["CurrentSet"].removeprefix("/Sets/")]["Network"]
    assert set(network["Service"]) == set(services), "links of the set without a service, or the other way round"
    assert sorted(network["Global"]["IPv4"]["ServiceOrder"]) == sorted(services), "the order is of other services"
    own = next(service for service in services.values() if service["UserDefinedName"] == "Corvanelle")
    assert own["PPP"]["AuthName"] in users, f"the service of {own['PPP']['AuthName']}, who failed"


def check_keychain():
    with open(KEYCHAIN, "rb") as file:
        items = plistlib.load(file)["Items"]
    labels = collections.Counter(item["Attributes"]["labl"] for item in items.values())
    assert labels["Office"] == 1, labels
    # One run may have looked for old items before the other had stored all of its own.
    assert 2 <= labels["Corvanelle"] <= 4, labels
    return labels["Corvanelle"]


def main(rounds, vpnctl, *configurations):
    users = [re.search('username = "(.*)"', open(path).read())[1] for path in configurations]
    counts = collections.Counter()
    for number in range(int(rounds)):
        runs = [subprocess.Popen([vpnctl, "-c", path], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True, errors="replace") for path in configurations]
        outputs = [run.communicate(timeout=60)[0] for run in runs]
        outcomes = [outcome(output) for output in outputs]
        counts.update(outcomes)
        try:
            assert all(run.returncode == 0 for run in runs), [run.returncode for run in runs]
            stored = {user for user, how in zip(users, outcomes) if "code: " not in how}
            assert stored, "neither was stored"
            check_preferences(stored)
            counts[f"rounds with {check_keychain()} items"] += 1
            for path in (PREFERENCES, KEYCHAIN):
                beside = [name for name in os.listdir(os.path.dirname(path))
                          if name not in (os.path.basename(path), "SystemKey")]
                assert not beside, beside
        except (AssertionError, KeyError, OSError, plistlib.InvalidFileException) as error:
            print(*outputs, f"round {number}: {outcomes}: {error}", sep="\n")
            return 1
    for how, count in sorted(counts.items()):
        print(f"{count} {how}")
    return 0


sys.exit(main(*sys.argv[1:]))
