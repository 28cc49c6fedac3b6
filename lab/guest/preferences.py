"""Makes and examines a network preferences file: preferences.py FILE make NAME... | FILE CHECK...

Checks:
  NAME=N       N services bear exactly that name
  service      the one service Corvanelle is complete: its entries, and its place in the current set; it is one of PPTP
  l2tp-service the same for one of L2TP over IPSec
  pppKEY=TEXT  the PPP entry KEY of the last service Corvanelle, e.g. pppAuthName=alice
  made=FILE    of the services of that earlier file all but the first Corvanelle are there as they were
"""
import plistlib
import sys
import uuid


def new_id():
    return str(uuid.uuid4()).upper()


def make(path, names):
    current = new_id()
    services = {}
    for name in names:
        services[new_id()] = {
            "UserDefinedName": name,
            "Interface": {"Type": "PPP", "SubType": "PPTP"},
            "PPP": {"CommRemoteAddress": "192.0.2.1", "AuthName": "somebody"},
            "IPv4": {"ConfigMethod": "PPP"},
        }
    links = {key: {"__LINK__": "/NetworkServices/" + key} for key in services}
    with open(path, "wb") as file:
        plistlib.dump({
            "CurrentSet": "/Sets/" + current,
            "NetworkServices": services,
            "Sets": {current: {"UserDefinedName": "Automatic",
                               "Network": {"Service": links, "Global": {"IPv4": {"ServiceOrder": list(services)}}}}},
        }, file)


def own_service(root):
    """The service Corvanelle that stands last in the order of the current set, and its ID."""
    current = root["Sets"][root["CurrentSet"].removeprefix("/Sets/")]["Network"]
    for key in reversed(current["Global"]["IPv4"]["ServiceOrder"]):
        if root["NetworkServices"][key].get("UserDefinedName") == "Corvanelle":
            assert current["Service"][key] == {"__LINK__": "/NetworkServices/" + key}, "the set's link"
            return key, root["NetworkServices"][key]
    raise AssertionError("no service Corvanelle in the order of the current set")


def check_service(root, kind):
    key, service = own_service(root)
    assert key == str(uuid.UUID(key)).upper(), f"{key} is no upper-case UUID"
    assert service["Interface"]["Type"] == "PPP" and service["Interface"]["SubType"] == kind, service["Interface"]
    assert service["IPv4"]["OverridePrimary"] == 1, service["IPv4"]
    assert service["IPv4"]["ConfigMethod"] == "PPP", service["IPv4"]
    ppp = service["PPP"]
    assert ppp["AuthPassword"] == key, "the password entry names the item by the service's ID"
    assert ppp["AuthPasswordEncryption"] == "Keychain" and ppp["AlertEnable"] == 0, ppp
    assert ppp["LCPEchoInterval"] == 20 and ppp.get("CCPEnabled", 0) == (kind == "PPTP"), f"the defaults of PPP over {kind}"
    shared = {"AuthenticationMethod": "SharedSecret", "SharedSecret": key + ".SS", "SharedSecretEncryption": "Keychain"}
    assert service.get("IPSec") == (shared if kind == "L2TP" else None), service.get("IPSec")
    assert root["Sets"][root["CurrentSet"].removeprefix("/Sets/")]["UserDefinedName"] == "Automatic"


def check_made(root, path):
    with open(path, "rb") as file:
        made = plistlib.load(file)["NetworkServices"]
    replaced = next(key for key, service in made.items() if service["UserDefinedName"] == "Corvanelle")
    left = {key: root["NetworkServices"].get(key) for key in made}
    assert left == {**made, replaced: None}, f"{left} is left of {made}"
    for current in root["Sets"].values():
        kept = list(current["Network"]["Service"]), current["Network"]["Global"]["IPv4"]["ServiceOrder"]
        assert all(set(made) - {replaced} == set(made) & set(keys) for keys in kept), "the set has lost one of them"


def main(path, *checks):
    if checks[0] == "make":
        return make(path, checks[1:])
    with open(path, "rb") as file:
        root = plistlib.load(file, fmt=plistlib.FMT_XML)
    for check in checks:
        if check in ("service", "l2tp-service"):
            check_service(root, "PPTP" if check == "service" else "L2TP")
            continue
        name, wanted = check.split("=", 1)
        if name == "made":
            check_made(root, wanted)
            continue
        if name.startswith("ppp"):
            got = str(own_service(root)[1]["PPP"][name[3:]])
        else:
            got = str(sum(s.get("UserDefinedName") == name for s in root["NetworkServices"].values()))
        assert got == wanted, f"{name} is {got} instead of {wanted}"


try:
    main(*sys.argv[1:])
except (AssertionError, KeyError, OSError, plistlib.InvalidFileException) as error:
    sys.exit(f"preferences: {type(error).__name__}: {error}")
