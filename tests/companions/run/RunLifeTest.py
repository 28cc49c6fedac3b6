"""vpnctl-run as a process: how it begins, goes on and ends: RunLifeTest.py VPNCTL_RUN [TEST...]"""

import json
import os
import re
import signal
import subprocess
import time

import running
from running import (PATIENCE, CONFIGURATION, WITHOUT_SECRETS, TIME, ADDRESSES, DISCONNECTED, says, cause, CONNECTS,
                     STAYS, IS_LOST, RunTest)


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
    running.main()
