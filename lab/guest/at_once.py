"""Two tools started at the same moment, again and again: at_once.py ROUNDS VPNCTL CONFIG CONFIG

Runs on the client. Nobody listens where the configurations lead, so each run is over soon. After each round both stores are
whole, hold what others have put there, and one service Corvanelle, of a run that was stored; one run at least went all the
way, and the other ended in one of the few ways that there are. Prints how the runs went.
"""
import collections
import errno
import os
import plistlib
import re
import subprocess
import sys

PREFERENCES = "/etc/vpnctl/preferences.plist"
KEYCHAIN = "/var/lib/vpnctl/System.keychain"


STARTING = "Starting pptp connection..."
OUTCOMES = {
    "went all the way": [STARTING, "Initializing PPP network connection", "Connecting PPP link", "Disconnecting PPP link",
                         f"Error: {os.strerror(errno.ENOEXEC)}, cause: 8", "PPP Network connection disconnected", "Exit."],
    # The other has committed in between.
    "was not stored": [STARTING, "Error: The preferences have changed meanwhile, code: 3005"],
    # The other has replaced its service before it was used.
    "did not start": [STARTING, "Exit."],
}


def outcome(errors):
    """By the tool's own lines: the PPP log, which it copies, is the other's, too. None if it is none that may be."""
    own = [line for line in errors.splitlines() if not re.match(r"\w{3} \w{3} [ \d]\d [\d:]{8} \d{4} : ", line)]
    return next((name for name, lines in OUTCOMES.items() if own == lines), None)


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
        runs = [subprocess.Popen([vpnctl, "-c", path], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.PIPE, text=True, errors="replace") for path in configurations]
        errors = [run.communicate(timeout=60)[1] for run in runs]
        outcomes = [outcome(text) for text in errors]
        counts.update(outcomes)
        try:
            assert all(run.returncode == 0 for run in runs), [run.returncode for run in runs]
            assert None not in outcomes, "this is no way to end"
            assert "went all the way" in outcomes, "neither went all the way"
            check_preferences({user for user, how in zip(users, outcomes) if how != "was not stored"})
            counts[f"rounds with {check_keychain()} items"] += 1
            for path in (PREFERENCES, KEYCHAIN):
                beside = [name for name in os.listdir(os.path.dirname(path))
                          if name not in (os.path.basename(path), "SystemKey")]
                assert not beside, beside
        except (AssertionError, KeyError, OSError, plistlib.InvalidFileException) as error:
            print(*errors, f"round {number}: {outcomes}: {error}", sep="\n")
            return 1
    for how, count in sorted(counts.items()):
        print(f"{count} {how}")
    return 0


sys.exit(main(*sys.argv[1:]))
