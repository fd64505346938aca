"""The bed with a name server's address in /etc/resolv.conf at which nobody answers until a test starts somebody there."""

import pathlib
import shutil

import bed


class SilentDnsTest(bed.BedTest):
    RESOLVER = "timeout:5 attempts:2"

    def setUp(self):
        super().setUp()
        # What `ip netns exec` shows a program as its /etc/resolv.conf.
        directory = pathlib.Path("/etc/netns") / self.dev.name
        directory.mkdir(parents=True)
        self.addCleanup(shutil.rmtree, directory)
        (directory / "resolv.conf").write_text(f"nameserver 10.77.0.1\noptions {self.RESOLVER}\n")
        # The router drops the questions instead of refusing them.
        bed.run(*self.rtr.command("nft", "add table ip quiet; add chain ip quiet out { type filter hook output priority "
                                  "0; }; add rule ip quiet out icmp type destination-unreachable drop"))

    def dns(self, *names):
        """dnsmasq on the router for the zone example, with name=address pairs."""
        dnsmasq = self.started(bed.Program(self.rtr.command(
            "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--no-resolv", "--no-hosts", "--user=root",
            "--pid-file", "--log-facility=-", "--log-queries", "--bind-interfaces", "--listen-address=10.77.0.1",
            "--local=/example/", *(f"--address=/{name}/{address}" for name, address in names))))
        dnsmasq.said("started")
        return dnsmasq
