"""The library's life under a host where it takes a network: unloaded in the middle of look-ups, reloaded in a storm;
and how the programs end."""

import fcntl
import os
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
        result = subprocess.run(self.dev.command("env", "NATAGENT_BED=1", program, f"--gtest_filter=Lifecycle.{name}"),
                                capture_output=True, text=True, timeout=250, check=False)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn("[  PASSED  ] 1 test.", result.stdout)

    def test_unloaded_in_mid_look_up(self):
        self.run_in_bed("UnloadedInMidLookUp")

    def test_reload_storm(self):
        self.run_in_bed("ReloadStormNeverMixesTwoConfigurations")

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
            ((*natagentd, first.config_path, "--chekc"), 2, "--chekc"),
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
        self.assertRegex(said.decode(), "^journal: [12] lines? dropped here, standard error did not take them\nnatagentd: ")
        self.assertEqual(daemon.stop(), 0)
        self.assertIn("natagentd: stopped\n", os.read(journal, size).decode())

    @unittest.skipUnless(os.environ.get("NATAGENT_SYSTEMD", "1") == "1", "built without libsystemd")
    def test_tells_the_service_manager(self):
        path = f"{self.directory}/notify"
        self.wrap = ("env", f"NOTIFY_SOCKET={path}")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.settimeout(bed.DEADLINE)
            manager.bind(path)
            daemon = self.daemon(configs.STATIC)
            told = [manager.recv(4096).decode()]
            daemon.reload(configs.STATIC.replace("172.20.0.0", "172.21.0.0"))
            told += [manager.recv(4096).decode() for _ in range(2)]
            self.assertEqual(daemon.stop(), 0)
            told.append(manager.recv(4096).decode())
        for text, expected in zip(told, ("READY=1", "RELOADING=1", "READY=1", "STOPPING=1"), strict=True):
            self.assertIn(expected, text.split("\n"))
        self.assertRegex(told[1], "MONOTONIC_USEC=[0-9]+")


if __name__ == "__main__":
    bed.main()
