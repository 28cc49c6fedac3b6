"""vpnctl-run as a process: what it tells, and whom: RunTest.py VPNCTL_RUN [TEST...]"""

import json
import os
import pty
import re
import select
import signal
import socket
import subprocess
import time

import running
from running import (PROGRAM, PATIENCE, CONFIGURATION, WITHOUT_SECRETS, TIME, ADDRESSES, DISCONNECTED, says, cause,
                     CONNECTS, STAYS, IS_LOST, RunTest)


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


if __name__ == "__main__":
    running.main()
