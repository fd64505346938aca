"""The library's life under a host where it takes a network: unloaded in the middle of look-ups, reloaded in a storm;
and how the programs end."""

import fcntl
import os
import pathlib
import pwd
import select
import signal
import socket
import subprocess
import unittest

import bed
import configs
import silent_dns


class Host(silent_dns.SilentDnsTest):
    def run_in_bed(self, name):
        program = bed.BUILD / "tests" / "system" / "lifecycle_tests"
        result = subprocess.run(self.dev.command("env", "NATAGENT_BED=1", program, f"--gtest_filter={name}"),
                                capture_output=True, text=True, timeout=250, check=False)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn("[  PASSED  ] 1 test.", result.stdout)

    def test_unloaded_in_mid_look_up(self):
        self.run_in_bed("Lifecycle.UnloadedInMidLookUp")

    def test_reload_storm(self):
        self.run_in_bed("Lifecycle.ReloadStormNeverMixesTwoConfigurations")

    def test_faults(self):
        self.run_in_bed("Faults.*")

    def test_exit_codes(self):
        first = self.daemon(configs.STATIC)
        self.natctl(first).connect("sip")
        wrong = first.directory / "wrong.toml"
        wrong.write_text("[nat]\nsip_udp_port = 0\n")
        lines = first.directory / "lines"
        lines.write_text("connect cm\n# nobody\nconnect nobody\n")
        patience = "2" if bed.SANITIZE else "1"  # also for the connection
        natagentd = (bed.NATAGENTD, "--runtime-dir", first.runtime, "--log-dir", first.directory, "--config")
        natctl = (bed.NATCTL, "--runtime-dir", first.runtime)
        item = ("10.77.0.1", "10.77.0.2:5060")
        for command, code, text in [
            ((*natagentd, wrong), 2, f"{wrong}:2: nat.sip_udp_port: "),
            ((*natagentd, first.config_path, "--check"), 0, f"{first.config_path}: ok\n"),
            ((*natagentd, first.config_path, "--print-config"), 0, f"sip_udp_public_port = 15060             # {first.config_path}:"),
            ((*natagentd, first.config_path, "--chekc"), 2, "--chekc; did you mean '--check'?"),
            ((*natagentd, first.config_path), 1, f"{first.runtime} is in use by process {first.pid}\n"),
            ((bed.NATCTL, "--runtime-dir", first.directory, "cs", "cm", *item), 3, "the agent cannot be reached"),
            ((*natctl, "cs", "sip", *item), 3, "another party is connected to queue 112"),
            ((*natctl, "--timeout", patience, "cs", "q113", *item), 1, "request 1 was not answered in time"),
            ((*natctl, "run", lines), 2, "natctl: line 3: "),
        ]:
            with self.subTest(command=" ".join(map(str, command))):
                result = bed.run(*self.dev.command(*command), check=False)
                self.assertEqual(result.returncode, code, result.stdout + result.stderr)
                self.assertIn(text, result.stderr if code else result.stdout)

    def test_a_lost_directory_ends_the_daemon_and_leaves_its_successor_alone(self):
        first = self.started(bed.Daemon(self.dev, self.directory, configs.STATIC))
        first.said("ready")
        first.runtime.rename(f"{self.directory}/moved")
        second = self.daemon(configs.STATIC)
        self.assertEqual(first.wait(), 1)
        first.said(f"{first.runtime} was removed, renamed or replaced")
        self.natctl(second).connect("sip", "cgi")

    def test_who_connects(self):
        daemon = self.daemon(configs.STATIC + '[access]\nsip_users = ["nobody"]\n')
        ask = (bed.NATCTL, "--runtime-dir", daemon.runtime, "cs", "sip", "10.77.0.1", "10.77.0.2:5060")
        result = bed.run(*ask, check=False)
        self.assertEqual((result.returncode, result.stderr), (3, "natctl: sip: refused: user 0 may not use queue 112\n"))
        # The mode of the socket and of its directory let everybody in; the list does not.
        os.chmod(self.directory, 0o755)
        os.chmod(daemon.runtime / "queue-112", 0o666)
        connect = ("import socket, sys; s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET);"
                   "s.settimeout(20); s.connect(sys.argv[1]); print(hex(s.recv(4096)[6]))")
        command = ["/usr/bin/python3", "-c", connect, daemon.runtime / "queue-112"]

        def first_frame_of(user):
            return subprocess.run(command, user=user, group=user, extra_groups=[], check=True, capture_output=True,
                                  text=True, timeout=bed.DEADLINE).stdout.strip()

        nobody = pwd.getpwnam("nobody").pw_uid
        self.assertEqual(first_frame_of(nobody), "0x90")
        daemon.said(f"user {nobody}, program python3")
        daemon.reload(configs.STATIC + '[access]\nsip_users = ["0"]\n')
        daemon.said("changed to")
        self.assertEqual(first_frame_of(nobody), "0x92")
        self.assertEqual(bed.run(*ask).returncode, 0)

    def test_a_stuck_journal_and_a_log_that_is_a_pipe(self):
        path = f"{self.directory}/journal"
        os.mkfifo(path)
        os.mkfifo(f"{self.directory}/natagent.log")
        self.wrap = ("sh", "-c", f'exec "$0" "$@" 2>{path}')
        journal = os.open(path, os.O_RDWR | os.O_NONBLOCK)
        self.addCleanup(os.close, journal)
        size = fcntl.fcntl(journal, fcntl.F_GETPIPE_SZ)
        self.assertEqual(os.write(journal, b"x" * size), size)
        daemon = self.daemon(configs.STATIC)
        natctl = self.natctl(daemon)
        natctl.connect("sip")
        daemon.reload(configs.STATIC.replace("= 15060", "= 15062"))
        bed.wait_until(lambda: natctl.ask("cs sip 198.51.100.9 10.77.0.2:5060")["port"] == 15062, "the new settings")
        os.read(journal, size)
        daemon.signal(signal.SIGHUP)
        said = bed.wait_until(lambda: select.select([journal], [], [], 0)[0], "a line") and os.read(journal, size)
        self.assertRegex(said.decode(), "^journal: [0-9]+ lines? dropped here, standard error did not take them\nnatagentd: ")
        self.assertEqual(daemon.stop(), 0)
        self.assertIn("natagentd: stopped\n", os.read(journal, size).decode())

    @unittest.skipUnless(os.environ.get("NATAGENT_SYSTEMD", "1") == "1", "built without libsystemd")
    def test_tells_the_service_manager(self):
        path = f"{self.directory}/notify"
        self.wrap = ("env", f"NOTIFY_SOCKET={path}")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.settimeout(bed.DEADLINE)
            manager.bind(path)

            def told(expected):
                """What is told next, but for what is told every now and then."""
                while True:
                    text = manager.recv(4096).decode()
                    if text.startswith(expected):
                        return text
                    self.assertRegex(text, "^(WATCHDOG=1|STATUS=.*)$")

            daemon = self.daemon(configs.STATIC)
            told("READY=1")
            told("STATUS=parties: none; uplink: 10.77.0.2")
            self.natctl(daemon).connect("sip", "cgi")
            told("STATUS=parties: sip cgi; uplink: 10.77.0.2")
            daemon.reload(configs.STATIC.replace("172.20.0.0", "172.21.0.0"))
            self.assertRegex(told("RELOADING=1"), "\nMONOTONIC_USEC=[0-9]+$")
            told("READY=1")
            self.assertEqual(daemon.stop(), 0)
            told("STOPPING=1")

    @unittest.skipUnless(os.environ.get("NATAGENT_SYSTEMD", "1") == "1", "built without libsystemd")
    def test_a_hung_agent_ends_the_signs_of_life(self):
        path = f"{self.directory}/notify"
        self.wrap = ("env", f"NOTIFY_SOCKET={path}", "WATCHDOG_USEC=400000")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.settimeout(bed.DEADLINE)
            manager.bind(path)
            daemon = bed.Daemon(self.dev, self.directory, configs.STATIC, self.wrap)
            self.addCleanup(daemon.end)
            while manager.recv(4096) != b"WATCHDOG=1":
                pass
            bed.hang_agent(daemon.pid)
            manager.settimeout(2)  # five times what the service manager waits
            with self.assertRaises(TimeoutError):
                for _ in range(50):
                    manager.recv(4096)
            daemon.signal(signal.SIGKILL)
            daemon.wait()

    def test_last_good_configuration(self):
        state = pathlib.Path(self.directory) / "state"
        state.mkdir(mode=0o700)
        drop_in = pathlib.Path(self.directory) / "conf.d" / "port.toml"
        drop_in.parent.mkdir()
        drop_in.write_text("[nat]\nsip_udp_public_port = 15066\n")
        self.wrap = ("env", f"NATAGENT_STATE_DIR={state}")
        crashed = self.started(bed.Daemon(self.dev, self.directory, configs.STATIC, self.wrap))
        crashed.said("ready")
        bed.wait_until(lambda: (state / "state").stat().st_size > 0, "the mark that it runs")
        crashed.signal(signal.SIGKILL)
        crashed.wait()
        # A drop-in is wrong by the time the daemon is started again, and stays so.
        drop_in.write_text("[)x]\n")
        daemon = self.daemon(configs.STATIC)
        daemon.said("last good settings, not those of")
        self.assertEqual(self.natctl(daemon).ask("cs sip 198.51.100.9 10.77.0.2:5060")["port"], 15066)
        daemon.signal(signal.SIGHUP)
        daemon.said("the settings stay as they are")
        self.assertEqual(sum(f"{drop_in}:1: the name of a table" in line for line in daemon.errors), 2)
        self.assertEqual(daemon.stop(), 0)
        again = bed.run(*self.dev.command(*self.wrap, bed.NATAGENTD, "--config", daemon.config_path), check=False)
        self.assertEqual(again.returncode, 2, again.stderr)


if __name__ == "__main__":
    bed.main()
