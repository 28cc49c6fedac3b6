"""vpnctl-doctor as a process: DoctorTest.py VPNCTL_DOCTOR MAN_PAGE SOURCES [TEST...]"""

import glob
import json
import os
import pty
import re
import subprocess
import sys
import tempfile
import unittest

PROGRAM, MAN_PAGE, SOURCES = sys.argv[1:4]
PATIENCE = 60
NOBODY = 65534
GRADES = ("prevents", "hinders", "unseen", "fine")
CONFIGURATION = ('protocol = "l2tp";\nip = "192.0.2.1";\nusername = "ann";\npassword = "hidden-one";\n'
                 'shared_secret = "hidden-two";\n')


def run(*arguments, asks_server=False, **options):
    options.setdefault("env", {"PATH": "/usr/bin:/bin", "TERM": "xterm"})
    options.setdefault("stdout", subprocess.PIPE)
    return subprocess.run([PROGRAM, *arguments, *([] if asks_server else ["--offline"])], stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True,
                          timeout=PATIENCE, check=False, **options)


class DoctorTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        os.chmod(self.folder.name, 0o755)
        self.configuration = self.write(CONFIGURATION)

    def write(self, text, mode=0o600):
        path = os.path.join(self.folder.name, "office.conf")
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, mode)
        return path

    def findings(self, *arguments, **options):
        """What it finds, by name; the status is that of the worst."""
        process = run("--json", *arguments, **options)
        self.assertEqual(process.stderr, "")
        found = [json.loads(line) for line in process.stdout.splitlines()]
        for finding in found:
            self.assertEqual(list(finding), ["grade", "name", "what", "why", "remedy"])
            self.assertIn(finding["grade"], GRADES)
            self.assertTrue(finding["what"])
        self.assertEqual(process.returncode, 1 if any(f["grade"] == "prevents" for f in found) else 0)
        return {finding["name"]: finding for finding in found}


class Statuses(DoctorTest):
    def test_wrong_command_lines(self):
        for arguments in (["-c"], ["--jsn"], [self.configuration], ["-c", "a", "b"]):
            process = run(*arguments)
            self.assertEqual(process.returncode, 2, arguments)
            self.assertIn('Try "vpnctl-doctor --help".', process.stderr)
            self.assertEqual(process.stdout, "")

    def test_help_and_version(self):
        for argument, text in (("--help", "--[no-]color"), ("--version", "vpnctl-doctor ")):
            process = run(argument)
            self.assertEqual(process.returncode, 0)
            self.assertIn(text, process.stdout)

    def test_what_prevents(self):
        process = run("-c", os.path.join(self.folder.name, "nowhere.conf"))
        self.assertEqual(process.returncode, 1)
        self.assertIn("There is no file", process.stdout)
        self.assertRegex(process.stdout, r"\nNo connection comes about: \d+ things? prevents? one.*\.\n$")

    def test_what_does_not(self):
        self.write(CONFIGURATION, 0o644)
        before = self.findings("-c", self.configuration)
        self.assertEqual(before["configuration.permissions"]["grade"], "hinders")
        self.assertEqual(before["configuration.permissions"]["remedy"], "chmod 600 " + self.configuration)
        self.write(CONFIGURATION, 0o600)
        after = self.findings("-c", self.configuration)
        del before["configuration.permissions"]
        self.assertEqual(after, before)

    def test_nobody_reads(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            process = run(stdout=full)
        self.assertEqual(process.returncode, 1)
        self.assertEqual(process.stderr, "vpnctl-doctor: what was found cannot be printed\n")


class Reports(DoctorTest):
    def test_all(self):
        some = self.findings("-c", self.configuration)
        everything = self.findings("-c", self.configuration, "--all")
        self.assertNotIn("fine", [finding["grade"] for finding in some.values()])
        self.assertEqual({name: f for name, f in everything.items() if f["grade"] != "fine"}, some)
        self.assertEqual(everything["configuration.file"]["grade"], "fine")
        fine = sum(finding["grade"] == "fine" for finding in everything.values())
        self.assertIn("\n%d checks found nothing.\n" % fine, run("-c", self.configuration).stdout)
        self.assertNotIn("found nothing", run("-c", self.configuration, "--all").stdout)

    def test_no_secret_is_told(self):
        for text in (CONFIGURATION, CONFIGURATION.replace("l2tp", "x"), CONFIGURATION.replace(";", "")):
            self.write(text)
            for arguments in ([], ["--json"], ["--all"]):
                process = run("-c", self.configuration, *arguments)
                self.assertNotIn("hidden", process.stdout + process.stderr)

    def test_a_pipe(self):
        process = subprocess.run([PROGRAM, "-c", "/dev/stdin", "--offline", "--json", "--all"], input=CONFIGURATION, text=True,
                                 stdout=subprocess.PIPE, timeout=PATIENCE, check=False)
        self.assertIn('{"grade":"fine","name":"configuration.file"', process.stdout)

    def test_the_server_is_asked(self):
        self.write(CONFIGURATION.replace("192.0.2.1", "127.0.0.1"))
        found = self.findings("-c", self.configuration, asks_server=True)
        self.assertEqual(found["server.route"]["what"], "127.0.0.1 is an address of this machine.")
        self.assertNotIn("server.route", self.findings("-c", self.configuration))

    def test_links(self):
        process = run("--links")
        self.assertEqual((process.returncode, process.stderr), (0, ""))
        self.assertEqual(process.stdout, "No VPN link of vpnctl is up on this machine.\n")
        self.assertEqual(run("--links", "--json").stdout, "")

    def test_nothing_is_made(self):
        folders = ("/run/vpnctl", "/var/lib/vpnctl", "/etc/vpnctl")
        before = [os.path.exists(folder) for folder in folders]
        run("-c", self.configuration)
        self.assertEqual([os.path.exists(folder) for folder in folders], before)

    def test_the_page_has_each_name(self):
        topics = "configuration|settings|kernel|pppd|parts|rights|ports|others|leftovers|server"
        names = set()
        for path in glob.glob(os.path.join(SOURCES, "*.cpp")):
            with open(path, encoding="utf-8") as file:
                names.update(re.findall(r'"((?:%s)\.[a-z0-9]+)"' % topics, file.read()))
        self.assertGreater(len(names), 20)
        with open(MAN_PAGE, encoding="utf-8") as file:
            self.assertEqual(set(re.findall(r"^\.B ((?:%s)\.[a-z0-9]+)$" % topics, file.read(), re.MULTILINE)), names)


class Colours(DoctorTest):
    def on_terminal(self, *arguments, **environment):
        shown = b""
        pid, terminal = pty.fork()
        if pid == 0:
            os.execve(PROGRAM, [PROGRAM, *arguments], {"TERM": "xterm", **environment})
        try:
            while piece := os.read(terminal, 4096):
                shown += piece
        except OSError:
            pass
        os.waitpid(pid, 0)
        os.close(terminal)
        self.assertIn(b"prevents", shown)
        return b"\033[" in shown

    def test_on_a_terminal(self):
        missing = ("-c", "/nowhere/office.conf")
        self.assertTrue(self.on_terminal(*missing))
        self.assertTrue(self.on_terminal(*missing, NO_COLOR=""))
        self.assertTrue(self.on_terminal(*missing, "--color", NO_COLOR="1"))
        self.assertFalse(self.on_terminal(*missing, NO_COLOR="1"))
        self.assertFalse(self.on_terminal(*missing, TERM="dumb"))
        self.assertFalse(self.on_terminal(*missing, "--no-color"))
        self.assertFalse(self.on_terminal(*missing, "--json"))

    def test_elsewhere(self):
        self.assertNotIn("\033", run("-c", "/nowhere/office.conf").stdout)
        self.assertIn("\033[1;31mprevents", run("-c", "/nowhere/office.conf", "--color").stdout)


@unittest.skipUnless(os.geteuid() == 0, "only root can be somebody else")
class Users(DoctorTest):
    """As a user without any rights."""

    def setUp(self):
        super().setUp()
        self.other = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
        try:
            run("--version", **self.other)
        except PermissionError:
            self.skipTest("that user may not run " + PROGRAM)

    def test_what_cannot_be_read(self):
        found = self.findings("-c", self.configuration, **self.other)
        self.assertEqual(found["configuration.file"]["grade"], "prevents")
        self.assertIn("User 65534 may not read", found["configuration.file"]["what"])

    def test_what_cannot_be_seen(self):
        os.chown(self.configuration, NOBODY, NOBODY)
        found = self.findings("-c", self.configuration, "--all", **self.other)
        self.assertEqual(found["configuration.file"]["grade"], "fine")
        self.assertEqual(found["others.policies"]["grade"], "unseen")
        self.assertIn("rights.socket", found)
        self.assertNotIn("rights.socket", self.findings("--all"))


class Networks(DoctorTest):
    """In a network of its own, with what other VPNs put there."""

    def in_network(self, *orders):
        """The findings about others there, by name."""
        script = "ip link set lo up\n" + "".join("ip %s || exit 77\n" % order for order in orders)
        process = subprocess.run(["unshare", "--net", "sh", "-c", script + 'exec "$0" --json', PROGRAM],
                                 env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}, capture_output=True, text=True,
                                 timeout=PATIENCE, check=False)
        if process.returncode not in (0, 1):
            self.skipTest("there is no such network here: " + process.stderr)
        found = [json.loads(line) for line in process.stdout.splitlines()]
        return {f["name"]: f for f in found if f["name"] in ("others.policies", "others.rules", "others.tunnel")}

    def test_of_nobody_else(self):
        self.assertEqual(self.in_network(), {})

    def test_rules(self):
        found = self.in_network("rule add pref 0 fwmark 7 table 42", "rule add pref 100 fwmark 7 table 43")
        self.assertEqual(list(found), ["others.rules"])
        self.assertIn("table 42.", found["others.rules"]["what"])

    def test_wireguard(self):
        found = self.in_network("rule add pref 32764 not fwmark 51820 table 51820")
        self.assertEqual(list(found), ["others.tunnel"])
        self.assertIn("the rule 32764 leads into table 51820.", found["others.tunnel"]["what"])

    def test_half_the_world(self):
        found = self.in_network("route add 128.0.0.0/1 dev lo", "route add 10.0.0.0/8 dev lo",
                                "route add 0.0.0.0/1 dev lo table 42")
        self.assertEqual(list(found), ["others.tunnel"])
        self.assertIn("128.0.0.0/1 goes to lo.", found["others.tunnel"]["what"])

    def test_policies(self):
        policy = ("xfrm policy add src 10.0.0.0/8 dst 10.0.0.0/8 dir %s "
                  "tmpl src 192.0.2.1 dst 192.0.2.2 proto esp mode tunnel")
        self.assertEqual(self.in_network(policy % "in"), {})
        found = self.in_network(policy % "in", policy % "out")
        self.assertEqual(list(found), ["others.policies"])
        self.assertIn("1 outgoing one.", found["others.policies"]["what"])


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]])
