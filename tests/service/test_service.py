"""natagentd as a service of a real systemd, in its sandbox: examples/natagentd.service as it is installed."""

import pathlib
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

import bed
import configs
import nat_bed
from container import Container

UNIT = "natagentd.service"
CONFIG = "/etc/natagent/natagentd.toml"
WRONG = "[nat]\nsip_udp_port = 0\n"
QUEUES = {"cgi": 102, "sip": 112, "q113": 113, "cm": 114, "cc": 115}
MOST_EXPOSED = 1.6  # of systemd-analyze security


class Service(nat_bed.NatBedTest):
    def setUp(self):
        super().setUp()
        self.debian = Container(self.dev)
        self.addCleanup(self.debian.close)
        self.debian.run("systemd-sysusers", "natagent.conf")
        self.debian.run("useradd", "--groups", "natagent", "voip")
        self.debian.run("useradd", "stranger")

    def start(self, config=configs.STATIC):
        self.configure(config)
        self.debian.run("systemctl", "start", UNIT)

    def configure(self, config):
        self.debian.write(CONFIG, config)

    def ask(self, user="voip", party="sip"):
        return self.debian.as_user(user, "natctl", "--timeout", "5", "cs", party, "198.51.100.9", "10.77.0.2:5060")

    def pid(self):
        return self.debian.show(UNIT, "MainPID")

    def said(self, text):
        bed.wait_until(lambda: text in self.debian.journal(UNIT), f"{text!r} in the journal")

    def comes_back(self, old, what):
        """The service runs again, as another process, and answers."""
        bed.wait_until(lambda: self.debian.show(UNIT, "ActiveState") == "active" and self.pid() not in ("0", old),
                       f"the service after {what}")
        self.assertIn("203.0.113.7:15060", self.ask().stdout)

    def test_start_reload_stop(self):
        self.start()
        self.assertIn("203.0.113.7:15060", self.ask().stdout)
        first = self.pid()
        self.configure(configs.STATIC.replace("= 15060", "= 25060"))
        self.debian.run("systemctl", "reload", UNIT)
        self.said("changed to the settings of")
        self.assertIn("203.0.113.7:25060", self.ask().stdout)
        self.configure(WRONG)
        self.assertNotEqual(self.debian.run("systemctl", "reload", UNIT, check=False).returncode, 0)
        self.said(f"{CONFIG}:2: nat.sip_udp_port: ")
        self.assertIn("203.0.113.7:25060", self.ask().stdout)
        self.assertEqual(self.pid(), first)
        bed.wait_until(lambda: self.debian.show(UNIT, "StatusText") == "parties: none; uplink: 10.77.0.2", "the status")
        self.debian.run("systemctl", "stop", UNIT)
        self.assertEqual(self.debian.show(UNIT, "Result"), "success")
        # A wrong file at a start that follows a stop is an error, and starting again does not mend it.
        self.assertNotEqual(self.debian.run("systemctl", "start", UNIT, check=False).returncode, 0)
        self.assertEqual(self.debian.show(UNIT, "ExecMainStatus"), "2")
        self.assertEqual(self.debian.show(UNIT, "ActiveState"), "failed")

    def test_comes_back_after_a_crash(self):
        self.debian.write(f"/etc/systemd/system/{UNIT}.d/watchdog.conf", "[Service]\nWatchdogSec=2\n")
        self.debian.run("systemctl", "daemon-reload")
        self.start()
        for number in (signal.SIGKILL, signal.SIGSEGV):
            old = self.pid()
            self.debian.run("kill", f"-{number}", old)
            self.comes_back(old, number.name)
        # The file is wrong by now: the service comes back with what was right before.
        self.configure(WRONG)
        old = self.pid()
        bed.hang_agent(self.debian.outside_pid(old))
        self.comes_back(old, "a hung agent thread")
        self.said("Watchdog timeout")
        self.said("last good settings")
        self.assertEqual(self.debian.run("find", "/var/lib/natagent", "/var/lib/natagent/last-good.toml", "-maxdepth",
                                         "0", "-printf", "%m %u\n").stdout, "700 natagent\n600 natagent\n")

    def test_who_may_connect(self):
        self.start()
        for party, number in QUEUES.items():
            with self.subTest(party=party):
                self.assertEqual(self.debian.run("stat", "-c", "%a %U:%G", f"/run/natagent/queue-{number}").stdout,
                                 "660 natagent:natagent\n")
                self.debian.write("/run/lines", f"connect {party}\n")
                refused, welcomed = [self.debian.as_user(user, "natctl", "run", "/run/lines")
                                     for user in ("stranger", "voip")]
                self.assertIn("Permission denied", refused.stdout + refused.stderr)
                self.assertEqual(refused.returncode, 3)
                self.assertEqual(welcomed.stdout, f"{party} connected\n", welcomed.stderr)

    def test_sandbox(self):
        """STUN learns of a port that somebody else owns, with the sandbox on."""
        self.coturn()
        owner = nat_bed.udp_socket(self.dev, ("10.77.0.2", 5060))
        self.addCleanup(owner.close)
        self.start(nat_bed.config())
        bed.wait_until(lambda: f"{nat_bed.PUBLIC}:45060" in self.ask().stdout, "the SIP port's public side")
        self.assertNotIn("CAP_NET_RAW", self.debian.journal(UNIT))
        self.debian.run("natctl", "--version")
        report = self.debian.run("systemd-analyze", "security", "--no-pager", UNIT).stdout
        exposure = report.rsplit("Overall exposure level for", 1)[1].split(":")[1].split()[0]
        print("exposure", exposure, file=sys.stderr)
        self.assertLessEqual(float(exposure), MOST_EXPOSED)


if __name__ == "__main__":
    bed.main()
