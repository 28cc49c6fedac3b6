"""Examines a system keychain and adds to it: keychain.py FILE LABEL=N... | FILE make LABEL.

An item made here is a copy of another one with an account, a service and a label of its own. Its secret does not open,
since it is sealed together with what the item is called; that makes no difference to somebody who looks for labels.
"""
import copy
import plistlib
import sys
import uuid


def label(item):
    value = item["Attributes"]["labl"]
    return value.decode() if isinstance(value, bytes) else value


def main(path, *arguments):
    with open(path, "rb") as file:
        root = plistlib.load(file)
    if arguments[0] == "make":
        item = copy.deepcopy(next(iter(root["Items"].values())))
        item["Attributes"].update(labl=arguments[1], acct="somebody", svce="elsewhere " + arguments[1])
        root["Items"][str(uuid.uuid4()).upper()] = item
        with open(path, "r+b") as file:  # in place: owner and mode stay
            file.truncate()
            plistlib.dump(root, file)
        return
    for argument in arguments:
        name, wanted = argument.split("=")
        got = sum(label(item) == name for item in root["Items"].values())
        if got != int(wanted):
            sys.exit(f"keychain: {got} items labelled {name} instead of {wanted}")


main(*sys.argv[1:])
