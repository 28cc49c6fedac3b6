"""What the tests of vpnctl-run as a process share: it runs with a scripted program in vpnctl's place. The first argument of each names
vpnctl-run, the others name tests."""

import json
import os
import select
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAM = sys.argv[1]
PATIENCE = 60
CONFIGURATION = 'protocol = "pptp";\nip = "192.0.2.1";\nusername = "ann";\npassword = "pw";\nshared_secret = "ss";\n'
WITHOUT_SECRETS = 'protocol = "l2tp";\nip = "192.0.2.1";\nusername = "ann";\n'
TIME = "Mon Nov 23 14:16:18 2026 : "
ADDRESSES = ["Using interface ppp0", "local  IP address 10.99.0.2", "remote IP address 10.99.0.1"]
DISCONNECTED = ["PPP Network connection disconnected", "Exit."]


def says(*lines):
    return "".join("say %s\n" % line for line in lines)


def cause(number):
    return "Error: Some text, cause: %d" % number


CONNECTS = says("Starting pptp connection...", "Connecting PPP link", *ADDRESSES, "PPP Connected")
STAYS = "arm\n" + CONNECTS + "wait\n" + says(cause(5), *DISCONNECTED)
IS_LOST = CONNECTS + says(cause(16), *DISCONNECTED)


class RunTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.configuration = self.write("office.conf", CONFIGURATION)
        self.environment = {"SCRIPTED_TOOL": self.folder.name, "PATH": "/usr/bin:/bin", "LANG": "C"}

    def path(self, name):
        return os.path.join(self.folder.name, name)

    def write(self, name, text, mode=0o600):
        with open(self.path(name), "w", encoding="utf-8", newline="") as file:
            file.write(text)
        os.chmod(self.path(name), mode)
        return self.path(name)

    def read(self, name):
        with open(self.path(name), encoding="utf-8") as file:
            return file.read()

    def program(self, name, text):
        return self.write(name, "#!/bin/sh\n" + text, 0o700)

    def within(self, condition, what):
        end = time.monotonic() + PATIENCE
        while not condition():
            self.assertLess(time.monotonic(), end, what)
            select.select([], [], [], 0.01)

    def start(self, script, *arguments, **options):
        if isinstance(script, str):
            script = {"script": script}
        for name, text in script.items():
            self.write(name, text)
        options.setdefault("stdin", subprocess.DEVNULL)
        options.setdefault("start_new_session", True)
        self.process = subprocess.Popen([PROGRAM, "-c", self.configuration, *arguments], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, env=self.environment, text=True, **options)
        self.addCleanup(self.end)
        return self.process

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream:
                stream.close()

    def finish(self):
        """Status, standard output, standard error."""
        output, error = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, output, error

    def run_script(self, script, *arguments, **options):
        self.start(script, *arguments, **options)
        return self.finish()

    def await_file(self, name):
        self.within(lambda: os.path.exists(self.path(name)), name)

    def events(self, output):
        events = [json.loads(line) for line in output.splitlines()]
        for event in events:
            self.assertRegex(event["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        return events


def main():
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
