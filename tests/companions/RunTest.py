"""vpnctl-run as a process, with a scripted program in vpnctl's place: RunTest.py VPNCTL_RUN [TEST...]"""

import json
import os
import pty
import re
import select
import signal
import socket
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


class Outcomes(RunTest):
    def expect(self, status, script):
        result, output, error = self.run_script(script)
        self.assertEqual(result, status, error)
        self.assertEqual(output, "")
        return error

    def test_ended_by_request(self):
        self.assertEqual(self.expect(0, CONNECTS + says(cause(5), *DISCONNECTED)),
                         "\n".join(["Starting pptp connection...", "Connecting PPP link", *ADDRESSES, "PPP Connected",
                                    cause(5), *DISCONNECTED, ""]))

    def test_cannot_be_told_apart(self):
        error = self.expect(1, says("Connecting PPP link", cause(1), *DISCONNECTED))
        self.assertTrue(error.endswith("Exit.\nvpnctl-run: The connection ended; what happened cannot be told apart. "
                                       "(status 1)\n"), error)

    def test_configuration(self):
        error = self.expect(2, "raw Invalid config! Missing password!Invalid config! Missing shared_secret!\nabort")
        self.assertEqual(error, "Invalid config! Missing password!Invalid config! Missing shared_secret!\n"
                         "vpnctl-run: The configuration cannot be used. (status 2)\n")

    def test_authorization(self):
        self.expect(3, "raw Cannot get authorization!\nexit 1")

    def test_not_reached(self):
        self.expect(4, says(TIME + "The PPTP server 192.0.2.1 does not answer on TCP port 1723; check", cause(8)))

    def test_ipsec_refused(self):
        self.expect(5, says(TIME + "The server 192.0.2.1 said no when the shared secret was to be proved: it", cause(8)))

    def test_call_refused(self):
        self.expect(6, says(TIME + "The PPTP server 192.0.2.1 refuses the call: busy (result 4), cause 0.", cause(8)))

    def test_account_refused(self):
        self.expect(7, says("PPP Authenticating", cause(19), *DISCONNECTED))

    def test_not_negotiated(self):
        self.expect(8, says("Negotiating PPP link", cause(10), *DISCONNECTED))

    def test_lost(self):
        self.expect(9, IS_LOST)

    def test_a_crash(self):
        self.expect(1, "abort")

    def test_what_is_no_text_comes_through(self):
        self.write("script", "")
        with open(self.path("script"), "wb") as file:
            file.write(b"raw \xff\xfe half\nexit 0\n")
        process = subprocess.run([PROGRAM, "-c", self.configuration, "-j"], env=self.environment, capture_output=True,
                                 timeout=PATIENCE, check=False)
        self.assertIn("\ufffd\ufffd half", process.stdout.decode())
        os.remove(self.path("arguments.1"))
        process = subprocess.run([PROGRAM, "-c", self.configuration], env=self.environment, capture_output=True,
                                 timeout=PATIENCE, check=False)
        self.assertTrue(process.stderr.startswith(b"\xff\xfe half\nvpnctl-run: "), process.stderr)

    def test_many_lines_in_order(self):
        lines = ["line %d %s" % (number, "x" * 200) for number in range(3000)]
        error = self.expect(1, says(*lines))
        self.assertEqual(error.splitlines()[:-1], lines)

    def test_standard_output_of_vpnctl_reaches_nobody(self):
        _, output, error = self.run_script("out password: pw\n" + STAYS.replace("wait\n", ""))
        self.assertNotIn("pw", output + error)
        self.assertEqual(self.read("output.1"), "/dev/null")

    def test_vpnctl_cannot_be_found(self):
        missing = subprocess.run([os.path.join(os.path.dirname(PROGRAM), "vpnctl-run-alone"), "-c", self.configuration],
                                 env=self.environment, capture_output=True, text=True, timeout=PATIENCE, check=False)
        self.assertEqual(missing.returncode, 1)
        self.assertIn("vpnctl cannot be run: start /nowhere/vpnctl: No such file", missing.stderr)


class Arguments(RunTest):
    def usage_error(self, *arguments):
        process = subprocess.run([PROGRAM, *arguments], env=self.environment, capture_output=True, text=True,
                                 timeout=PATIENCE, check=False)
        self.assertEqual(process.returncode, 2)
        self.assertIn('Try "vpnctl-run --help".', process.stderr)
        self.assertFalse(os.path.exists(self.path("arguments.1")))
        return process.stderr

    def test_mistakes(self):
        self.usage_error()
        self.usage_error("-c")
        self.usage_error("-c", self.configuration, "more")
        self.assertIn("--reconnect", self.usage_error("-c", self.configuration, "--reconect"))
        self.usage_error("-c", self.configuration, "--reconnect-limit", "many")
        self.usage_error("-c", self.configuration, "--reconnect-pause", "0")
        self.usage_error("-c", self.configuration, "--hook-timeout", "0")
        self.assertIn("No such file", self.usage_error("-c", self.configuration, "--up", self.path("nowhere")))
        self.assertIn("Permission denied", self.usage_error("-c", self.configuration, "--down", self.configuration))

    def test_help_and_version(self):
        for argument, text in (("--help", "--reconnect-limit N"), ("--version", "vpnctl-run ")):
            process = subprocess.run([PROGRAM, argument], capture_output=True, text=True, timeout=PATIENCE, check=False)
            self.assertEqual(process.returncode, 0)
            self.assertIn(text, process.stdout)

    def test_vpnctl_gets_the_file_itself(self):
        self.run_script("exit 0")
        self.assertEqual(self.read("arguments.1"), "--config=%s\n" % self.configuration)

    def test_vpnctl_gets_a_file_that_cannot_be_understood(self):
        self.write("office.conf", "no configuration")
        status, _, error = self.run_script("say error parse config: office.conf\nexit 1")
        self.assertEqual(status, 2)
        self.assertTrue(error.startswith("error parse config: office.conf\n"), error)

    def test_unknown_protocols(self):
        self.write("office.conf", CONFIGURATION.replace("pptp", "sstp"))
        status, _, error = self.run_script("exit 0")
        self.assertEqual(status, 2)
        self.assertIn("neither l2tp nor pptp", error)
        self.assertFalse(os.path.exists(self.path("arguments.1")))

    def test_what_a_unit_has_is_not_for_vpnctl(self):
        self.environment.update(NOTIFY_SOCKET="@nobody", CREDENTIALS_DIRECTORY=self.folder.name, OTHER="1")
        self.run_script("exit 0")
        environment = self.read("environment.1")
        self.assertNotIn("NOTIFY_SOCKET", environment)
        self.assertNotIn("CREDENTIALS_DIRECTORY", environment)
        self.assertIn("OTHER=1\n", environment)


class Signals(RunTest):
    def test_each_ends_the_connection(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGUSR1):
            with self.subTest(number):
                for name in os.listdir(self.folder.name):
                    if name.startswith("arguments"):
                        os.remove(self.path(name))
                process = self.start(STAYS)
                self.await_line("PPP Connected\n")
                process.send_signal(number)
                status, _, error = self.finish()
                self.assertEqual(status, 0)
                self.assertTrue(error.endswith("Exit.\n"), error)

    def await_line(self, line):
        for said in self.process.stderr:
            if said == line:
                return
        self.fail("no line %r" % line)

    def test_the_whole_foreground_may_be_interrupted(self):
        process = self.start(STAYS)
        self.await_line("PPP Connected\n")
        os.killpg(process.pid, signal.SIGINT)
        status, _, error = self.finish()
        self.assertEqual(status, 0)
        self.assertTrue(error.endswith("Exit.\n"), error)

    def test_before_the_authorization(self):
        process = self.start("say begun\nawait never")
        self.await_line("begun\n")
        process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish()[0], 0)

    def test_the_second_one_ends_at_once(self):
        process = self.start("arm\nsay begun\nwait\nsay ending\nawait never")
        self.await_line("begun\n")
        process.send_signal(signal.SIGTERM)
        self.await_line("ending\n")
        process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish()[0], 0)

    def test_what_its_starter_ignores_it_ignores(self):
        for number in (signal.SIGHUP, signal.SIGINT):
            for name in ("arguments.1", "go"):
                if os.path.exists(self.path(name)):
                    os.remove(self.path(name))
            process = self.start("arm\nsay begun\nwait\nsay asked\nawait go\nsay ending\nexit 0",
                                 preexec_fn=lambda number=number: signal.signal(number, signal.SIG_IGN))
            self.await_line("begun\n")
            process.send_signal(number)
            # Had it counted, this would be the second, and vpnctl would be killed.
            process.send_signal(signal.SIGTERM)
            self.await_line("asked\n")
            self.write("go", "")
            status, _, error = self.finish()
            self.assertEqual(status, 0)
            self.assertEqual(error, "ending\n")

    def test_vpnctl_disconnects_when_its_runner_is_killed(self):
        process = self.start("arm\nsay begun\nwait\nkeep\nexit 0")
        self.await_line("begun\n")
        process.kill()
        self.await_file("config.1")

    def test_others_may_end_vpnctl(self):
        self.assertEqual(self.run_script(CONNECTS + says(cause(5), *DISCONNECTED), "--reconnect")[0], 0)

    def test_nobody_reads(self):
        process = self.start(STAYS)
        self.await_line("PPP Connected\n")
        process.stderr.close()
        process.stderr = None
        process.send_signal(signal.SIGTERM)
        process.wait(timeout=PATIENCE)
        self.assertEqual(process.returncode, 0)


class JSON(RunTest):
    def test_events(self):
        status, output, error = self.run_script(
            CONNECTS + says(TIME + 'A "sentence".', "pppd's line", cause(16), *DISCONNECTED), "--json")
        self.assertEqual(status, 9)
        self.assertEqual(error, "")
        events = [{name: value for name, value in event.items() if name != "time"} for event in self.events(output)]
        self.assertEqual(events, [
            {"event": "start", "protocol": "pptp", "server": "192.0.2.1"},
            {"event": "line", "sentence": "Starting pptp connection..."},
            {"event": "phase", "phase": "connecting", "sentence": "Connecting PPP link"},
            {"event": "address", "interface": "ppp0"},
            {"event": "address", "interface": "ppp0", "address": "10.99.0.2"},
            {"event": "address", "interface": "ppp0", "address": "10.99.0.2", "peer": "10.99.0.1"},
            {"event": "phase", "phase": "connected", "sentence": "PPP Connected"},
            {"event": "up", "interface": "ppp0", "address": "10.99.0.2", "peer": "10.99.0.1"},
            {"event": "log", "sentence": 'A "sentence".'},
            {"event": "line", "sentence": "pppd's line"},
            {"event": "error", "sentence": cause(16), "cause": 16},
            {"event": "phase", "phase": "disconnected", "sentence": "PPP Network connection disconnected"},
            {"event": "line", "sentence": "Exit."},
            {"event": "end", "outcome": "lost", "status": 9, "cause": 16, "sentence": 'A "sentence".'},
            {"event": "exit", "status": 9, "sentence": "The connection was lost."},
        ])

    def test_trouble(self):
        failing = self.program("up", "exit 3")
        _, output, error = self.run_script(STAYS, "--json", "--up", failing)
        self.assertEqual(error, "")
        trouble = [event for event in self.events(output) if event["event"] == "trouble"]
        self.assertEqual([event["sentence"] for event in trouble],
                         ["--up: %s ended with status 3; disconnecting" % failing])


class Systemd(RunTest):
    def setUp(self):
        super().setUp()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.socket.close)
        self.socket.bind(self.path("notify"))
        self.socket.settimeout(PATIENCE)
        self.environment["NOTIFY_SOCKET"] = self.path("notify")

    def await_state(self, state):
        """What was said until STATE was."""
        said = []
        while state not in said:
            said += self.socket.recv(4096).decode().splitlines()
        return said

    def test_ready_when_connected(self):
        self.start(STAYS)
        said = self.await_state("STATUS=Connected to 192.0.2.1 as 10.99.0.2")
        self.assertLess(said.index("STATUS=PPP Connected"), said.index("READY=1"))
        self.assertEqual(said[0], "STATUS=Connecting to 192.0.2.1")
        self.process.send_signal(signal.SIGTERM)
        self.await_state("STOPPING=1")
        self.await_state("STATUS=The connection was ended by request.")
        self.assertEqual(self.finish()[0], 0)

    def test_what_the_configuration_says_is_no_state(self):
        self.write("office.conf", CONFIGURATION.replace("192.0.2.1", "a\\nREADY=1"))
        self.run_script(says(cause(10), *DISCONNECTED))
        said = self.await_state("STATUS=PPP was not agreed upon with the server.")
        self.assertIn("STATUS=Connecting to a?READY=1", said)
        self.assertNotIn("READY=1", said)

    def test_never_ready_without_a_connection(self):
        self.run_script(says(cause(10), *DISCONNECTED))
        said = self.await_state("STATUS=PPP was not agreed upon with the server.")
        self.assertNotIn("READY=1", said)

    def test_ready_after_up(self):
        self.start(STAYS, "--up", self.program("up", "echo >%s; while [ ! -e %s ]; do sleep 0.01; done" %
                                               (self.path("begun"), self.path("go"))))
        self.await_file("begun")
        said = self.await_state("STATUS=PPP Connected")
        self.assertNotIn("READY=1", said)
        self.write("go", "")
        self.await_state("READY=1")
        self.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish()[0], 0)


class Terminal(RunTest):
    """With a terminal as standard error."""

    def start_there(self, script, *arguments):
        for name, text in (("script", script),):
            self.write(name, text)
        self.shown = b""
        pid, self.terminal = pty.fork()
        if pid == 0:
            os.execve(PROGRAM, [PROGRAM, "-c", self.configuration, *arguments], {"TERM": "xterm", **self.environment})
        self.pid = pid

    def await_shown(self, pattern):
        end = time.monotonic() + PATIENCE
        while not re.search(pattern, self.shown):
            ready, _, _ = select.select([self.terminal], [], [], max(0, end - time.monotonic()))
            self.assertTrue(ready, "not shown: %r in %r" % (pattern, self.shown))
            try:
                self.shown += os.read(self.terminal, 4096)
            except OSError:
                self.fail("not shown: %r in %r" % (pattern, self.shown))

    def finish_there(self):
        try:
            while True:
                piece = os.read(self.terminal, 4096)
                if not piece:
                    break
                self.shown += piece
        except OSError:
            pass
        _, status = os.waitpid(self.pid, 0)
        os.close(self.terminal)
        return os.waitstatus_to_exitcode(status)

    def test_progress(self):
        self.start_there(STAYS)
        self.await_shown(rb"Connected to 192.0.2.1 as 10.99.0.2$")
        os.write(self.terminal, b"\x03")
        self.assertEqual(self.finish_there(), 0)
        self.assertIn(b"\r\x1b[KPPP Connected\r\n", self.shown)
        self.assertNotIn(b"as 10.99.0.2\r\n", self.shown)

    def test_no_progress(self):
        self.start_there(STAYS, "--no-progress")
        self.await_shown(rb"PPP Connected\r\n")
        os.write(self.terminal, b"\x03")
        self.assertEqual(self.finish_there(), 0)
        self.assertNotIn(b"\x1b", self.shown)

    def test_ask(self):
        self.write("office.conf", WITHOUT_SECRETS)
        self.start_there("keep\n" + STAYS, "--ask", "--no-progress")
        self.await_shown(rb"Password of ann at 192.0.2.1: $")
        os.write(self.terminal, b"one secret\n")
        self.await_shown(rb"Shared secret of 192.0.2.1: $")
        os.write(self.terminal, b"another\n")
        self.await_shown(rb"PPP Connected")
        os.write(self.terminal, b"\x03")
        self.assertEqual(self.finish_there(), 0)
        self.assertNotIn(b"secret\r\n", self.shown)
        self.assertEqual(self.read("config.1"), WITHOUT_SECRETS +
                         'password = "one secret";\nshared_secret = "another";\n')

    def test_interrupted_while_asking(self):
        self.write("office.conf", WITHOUT_SECRETS)
        self.start_there("exit 0", "--ask")
        self.await_shown(rb"Password of ann")
        os.write(self.terminal, b"\x03")
        self.assertEqual(self.finish_there(), 0)
        self.assertFalse(os.path.exists(self.path("arguments.1")))

    def test_progress_on_a_pipe_is_asked_for(self):
        _, _, error = self.run_script(CONNECTS + says(cause(5), *DISCONNECTED), "--progress")
        self.assertIn("PPP Connected\nvpnctl-run: 192.0.2.1: PPP Connected\n", error)
        self.assertIn("vpnctl-run: Connected to 192.0.2.1 as 10.99.0.2\n", error)


class Secrets(RunTest):
    def delivered(self, *arguments, configuration=WITHOUT_SECRETS):
        self.write("office.conf", configuration)
        status, output, error = self.run_script("keep\n" + says(cause(10)), *arguments)
        self.assertEqual(status, 8, error)
        for name in ("arguments.1", "environment.1"):
            self.assertNotIn("secret-word", self.read(name))
        self.assertNotIn("secret-word", output + error)
        return self.read("config.1")

    def test_from_files(self):
        self.assertEqual(self.delivered("--password-from", self.write("a", "secret-word \"1\"\n"), "--secret-from",
                                        self.write("b", "secret-word 2")),
                         WITHOUT_SECRETS + 'password = "secret-word \\"1\\"";\nshared_secret = "secret-word 2";\n')
        self.assertEqual(self.read("arguments.1"), "--config=/proc/self/fd/0\n")

    def test_from_files_before_the_configuration(self):
        self.assertIn('password = "secret-word";\nshared_secret = "ss";\n',
                      self.delivered("--password-from", self.write("a", "secret-word"), configuration=CONFIGURATION))

    def test_pptp_needs_no_shared_secret(self):
        self.assertIn('password = "secret-word";\nshared_secret = "";\n',
                      self.delivered("--password-from", self.write("a", "secret-word"),
                                     configuration=WITHOUT_SECRETS.replace("l2tp", "pptp")))

    def test_from_credentials(self):
        os.mkdir(self.path("credentials"))
        self.write("credentials/password", "secret-word 1")
        self.write("credentials/shared_secret", "secret-word 2\n")
        self.environment["CREDENTIALS_DIRECTORY"] = self.path("credentials")
        self.assertEqual(self.delivered(),
                         WITHOUT_SECRETS + 'password = "secret-word 1";\nshared_secret = "secret-word 2";\n')

    def test_what_the_configuration_has_counts_before_credentials(self):
        os.mkdir(self.path("credentials"))
        self.write("credentials/password", "secret-word 1")
        self.environment["CREDENTIALS_DIRECTORY"] = self.path("credentials")
        self.delivered(configuration=CONFIGURATION)
        self.assertEqual(self.read("arguments.1"), "--config=%s\n" % self.configuration)

    def test_through_systemd_where_there_is_no_terminal(self):
        self.assertEqual(self.delivered("--ask"),
                         WITHOUT_SECRETS + 'password = "scripted answer";\nshared_secret = "scripted answer";\n')

    def test_files_that_cannot_be_read(self):
        status, _, error = self.run_script("exit 0", "--password-from", self.path("nowhere"))
        self.assertEqual(status, 2)
        self.assertIn("nowhere: No such file", error)
        self.assertFalse(os.path.exists(self.path("arguments.1")))

    def test_the_configuration_from_a_pipe(self):
        self.configuration = "/dev/stdin"
        process = self.start("keep\n" + says(cause(10)), stdin=subprocess.PIPE)
        process.stdin.write(CONFIGURATION)
        process.stdin.close()
        process.stdin = None
        self.assertEqual(self.finish()[0], 8)
        self.assertEqual(self.read("config.1"), CONFIGURATION)

    def test_nothing_is_asked_without_being_told(self):
        for there, missing in (("", "has no text password; write it there, use --password-from, or have it asked for"),
                               ('password = "pw";', "has no text shared_secret; write it there, use --secret-from")):
            self.write("office.conf", WITHOUT_SECRETS + there)
            status, _, error = self.run_script("exit 0")
            self.assertEqual(status, 2)
            self.assertIn("vpnctl-run: %s %s" % (self.configuration, missing), error)
            self.assertFalse(os.path.exists(self.path("arguments.1")))

    def test_what_nobody_can_be_asked_for(self):
        for text in ("protocol", "ip", "username"):
            self.write("office.conf", re.sub(text + " = [^;]*;", "", CONFIGURATION))
            status, _, error = self.run_script("exit 0", "--ask")
            self.assertEqual((status, error), (2, "vpnctl-run: %s has no text %s; write it there\n" %
                                               (self.configuration, text)))



class Reconnecting(RunTest):
    def runs(self):
        return sum(name.startswith("arguments.") for name in os.listdir(self.folder.name))

    def test_until_it_is_ended(self):
        self.start({"script.1": IS_LOST, "script": STAYS}, "--reconnect", "--reconnect-pause=1", "--json")
        events = []
        for line in self.process.stdout:
            events.append(json.loads(line))
            if [event["event"] for event in events].count("up") == 2:
                break
        self.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish()[0], 0)
        self.assertEqual(self.runs(), 2)
        pause = [event["milliseconds"] for event in events if event["event"] == "pause"]
        self.assertEqual(len(pause), 1)
        self.assertGreaterEqual(pause[0], 500)
        self.assertLessEqual(pause[0], 1500)

    def test_no_further_than_the_limit(self):
        self.assertEqual(self.run_script(says(cause(10)), "-r", "--reconnect-pause=1", "--reconnect-limit=1")[0], 8)
        self.assertEqual(self.runs(), 2)

    def test_at_once_when_the_network_has_changed(self):
        changed = CONNECTS + says(TIME + "The network has changed: this machine no longer has ...", cause(16))
        status, output, _ = self.run_script({"script.1": changed, "script": says(cause(19))}, "-r", "-j")
        self.assertEqual(status, 7)
        self.assertEqual([event["milliseconds"] for event in self.events(output) if event["event"] == "pause"], [0])

    def test_never_after_a_refusal(self):
        for script, status in ((says(cause(19)), 7), ("raw Cannot get authorization!", 3),
                               ("raw Invalid config! Missing password!", 2)):
            for name in os.listdir(self.folder.name):
                if name.startswith("arguments"):
                    os.remove(self.path(name))
            self.assertEqual(self.run_script(script, "--reconnect")[0], status)
            self.assertEqual(self.runs(), 1)

    def test_a_signal_ends_the_pause(self):
        self.start(says(cause(10)), "--reconnect", "--reconnect-pause=300")
        for line in self.process.stderr:
            if line.startswith("vpnctl-run: Connecting again in "):
                break
        self.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish()[0], 0)

    def test_secrets_are_handed_over_each_time(self):
        self.write("office.conf", WITHOUT_SECRETS)
        self.run_script("keep\n" + says(cause(10)), "-r", "--reconnect-pause=1", "--reconnect-limit=1",
                        "--password-from", self.write("a", "one"), "--secret-from", self.write("b", "two"))
        self.assertIn('password = "one"', self.read("config.1"))
        self.assertEqual(self.read("config.1"), self.read("config.2"))


class Hooks(RunTest):
    def tells(self, name):
        """A program that leaves its environment in NAME.said."""
        return self.program(name, "env | grep ^VPNCTL_ | sort >%s.new; mv %s.new %s.said" % ((self.path(name),) * 3))

    def facts(self, name):
        return dict(line.split("=", 1) for line in self.read(name + ".said").splitlines())

    def test_facts(self):
        self.environment["VPNCTL_CAUSE"] = "stale"
        self.start(STAYS, "--up", self.tells("up"), "--down", self.tells("down"))
        self.await_file("up.said")
        facts = {"VPNCTL_PROTOCOL": "pptp", "VPNCTL_SERVER": "192.0.2.1", "VPNCTL_USERNAME": "ann",
                 "VPNCTL_INTERFACE": "ppp0", "VPNCTL_ADDRESS": "10.99.0.2", "VPNCTL_PEER": "10.99.0.1"}
        self.assertEqual(self.facts("up"), {"VPNCTL_EVENT": "up", **facts})
        self.assertFalse(os.path.exists(self.path("down.said")))
        self.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish()[0], 0)
        self.assertEqual(self.facts("down"),
                         {"VPNCTL_EVENT": "down", "VPNCTL_CAUSE": "5", "VPNCTL_OUTCOME": "by-request",
                          "VPNCTL_SENTENCE": "The connection was ended by request.", **facts})

    def test_addresses_that_come_late(self):
        script = STAYS.replace(says(*ADDRESSES), "").replace("wait\n", says(*ADDRESSES) + "wait\n")
        self.start(script, "--up", self.tells("up"))
        self.await_file("up.said")
        self.assertEqual(self.facts("up")["VPNCTL_PEER"], "10.99.0.1")
        self.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish()[0], 0)

    def test_addresses_that_never_come(self):
        self.start(STAYS.replace(says(*ADDRESSES), ""), "--up", self.tells("up"))
        self.await_file("up.said")
        self.assertEqual(self.facts("up")["VPNCTL_PEER"], "")
        self.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish()[0], 0)

    def test_none_without_a_connection(self):
        self.run_script(says(cause(10), *DISCONNECTED), "--up", self.tells("up"), "--down", self.tells("down"))
        self.assertFalse(os.path.exists(self.path("up.said")))
        self.assertFalse(os.path.exists(self.path("down.said")))

    def test_down_after_a_loss_without_up(self):
        self.assertEqual(self.run_script(IS_LOST, "--down", self.tells("down"))[0], 9)
        self.assertEqual(self.facts("down")["VPNCTL_OUTCOME"], "lost")

    def test_up_fails(self):
        up = self.program("up", "echo said by it >&2; exit 3")
        status, _, error = self.run_script(STAYS, "--up", up, "--down", self.tells("down"), "--reconnect")
        self.assertEqual(status, 10)
        self.assertIn("said by it\n", error)
        self.assertIn("vpnctl-run: --up: %s ended with status 3; disconnecting\n" % up, error)
        self.assertIn("vpnctl-run: The program of --up failed. (status 10)\n", error)
        self.assertEqual(self.facts("down")["VPNCTL_EVENT"], "down")

    def test_up_takes_too_long(self):
        status, _, error = self.run_script(STAYS, "--up", self.program("up", "exec sleep 1000"), "--hook-timeout=1")
        self.assertEqual(status, 10)
        self.assertIn("did not end in time", error)

    def test_down_fails(self):
        status, _, error = self.run_script(IS_LOST, "--down", self.program("down", "exit 3"))
        self.assertEqual(status, 9)
        self.assertIn("vpnctl-run: --down: %s ended with status 3\n" % self.path("down"), error)

    def test_the_end_while_up_still_runs(self):
        up = self.program("up", "echo >%s; exec sleep 1000" % self.path("begun"))
        self.start(STAYS, "--up", up, "--down", self.tells("down"))
        self.await_file("begun")
        self.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish()[0], 0)
        self.assertEqual(self.facts("down")["VPNCTL_OUTCOME"], "by-request")

    def test_the_connection_is_lost_while_up_still_runs(self):
        up = self.program("up", "echo >%s; while [ ! -e %s ]; do sleep 0.01; done" % (self.path("begun"), self.path("go")))
        self.start(CONNECTS + "await begun\n" + says(cause(16), *DISCONNECTED), "--up", up, "--down", self.tells("down"))
        for line in self.process.stderr:
            if line == "Exit.\n":
                break
        self.assertFalse(os.path.exists(self.path("down.said")))
        self.write("go", "")
        self.assertEqual(self.finish()[0], 9)
        self.assertEqual(self.facts("down")["VPNCTL_OUTCOME"], "lost")

    def test_a_second_signal_ends_down_as_well(self):
        down = self.program("down", "echo >%s; exec sleep 1000" % self.path("begun"))
        self.start(IS_LOST, "--down", down)
        self.await_file("begun")
        self.process.send_signal(signal.SIGTERM)
        self.process.send_signal(signal.SIGINT)
        status, _, error = self.finish()
        self.assertIn("was ended by signal 9", error)
        self.assertEqual(status, 9)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[2:], verbosity=1)
