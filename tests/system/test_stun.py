"""What STUN learns, against a real server behind a real NAT."""

import concurrent.futures
import json
import threading
import time

import bed
import nat_bed
import silent_dns
from bed import DASHES
from nat_bed import NOBODY, OBSERVER, PUBLIC, SERVER

CS = f"cs sip {OBSERVER} 10.77.0.2:5060"


def rtp_flags(natctl, first, count):
    items = " ".join(f"10.77.0.2:{port}" for port in range(first, first + count))
    return {item["flag"] for item in natctl.ask(f"rtp cc {OBSERVER} {items}")["items"]}


class Stun(nat_bed.NatBedTest):
    def test_sip_port_of_another_process(self):
        self.coturn()
        owner = nat_bed.udp_socket(self.dev, ("10.77.0.2", 5060))
        observer = nat_bed.udp_socket(self.inet, (OBSERVER, 7000))
        self.addCleanup(owner.close)
        self.addCleanup(observer.close)
        self.nft("add table ip hold; add chain ip hold f { type filter hook forward priority 0; }; "
                 "add rule ip hold f udp dport 3478 drop")
        daemon = self.daemon(nat_bed.config(gw=True, rtp_end=10999))
        natctl = self.natctl(daemon)
        natctl.connect("sip")
        self.assertEqual(natctl.ask(CS)["flag"], 2)  # nothing is learnt yet
        self.nft("delete table ip hold")
        self.assertEqual(self.answered(natctl, CS, deadline=3), (PUBLIC, 45060))
        lines = daemon.directory / "lines"
        lines.write_text(f"stun {SERVER} --local-port=5060\nstun {SERVER}\n")
        told = bed.run(*self.dev.command(bed.NATCTL, "run", "--json", "--runtime-dir", daemon.runtime, lines)).stdout
        learnt, asked = map(json.loads, told.splitlines())
        self.assertEqual((learnt["mapped"], learnt["by"]), (f"{PUBLIC}:45060", "agent"))
        self.assertLess(asked["rtt_ms"], 2000)
        daemon.logged("UdpMapMode -- oldMode 0 --newMode 2\r\n" + DASHES + "Reading Stun Cfg\r\n" + DASHES +
                      "Starting Stun agent\r\n" + DASHES +
                      "Add Port(s) to Stun start = 5060 end = 5060 interval = 1\r\n")

        learnt = threading.Event()

        def exchange():
            number = 0
            while number == 0 or not learnt.is_set():
                number += 1
                owner.sendto(b"%d" % number, (OBSERVER, 7000))
                self.assertEqual(observer.recvfrom(100), (b"%d" % number, (PUBLIC, 45060)))
                observer.sendto(b"back %d" % number, (PUBLIC, 45060))
                # The server's answers come to the port's owner as well.
                bed.wait_until(lambda: owner.recvfrom(100) == (b"back %d" % number, (OBSERVER, 7000)), "it to be back")

        # The owner's datagrams flow while 1000 ports are asked for, and none is lost.
        with concurrent.futures.ThreadPoolExecutor() as pool:
            exchanges = pool.submit(exchange)
            try:
                natctl.connect("cm", "cc")
                for first in range(10000, 11000, 50):
                    bed.wait_until(lambda: rtp_flags(natctl, first, 50) == {1}, "their mappings")
            finally:
                learnt.set()
        exchanges.result()
        self.assertEqual(daemon.stop(), 0)
        self.assertIn("Nat Messenger stoped\r\nStun Agent stoped\r\n", daemon.log())

    def test_rtcp_switched_on_while_it_runs(self):
        self.coturn()
        daemon = self.daemon(nat_bed.config(sip=False, gw=True, rtcp=False))
        natctl = self.natctl(daemon)
        natctl.connect("cm", "cc")
        rtp = f"rtp cc {OBSERVER} 10.77.0.2:"
        self.assertEqual(self.answered(natctl, rtp + "10000"), (PUBLIC, 40000))
        self.answered(natctl, rtp + "10198")
        self.assertEqual(natctl.ask(rtp + "10199")["items"][0]["flag"], 2)
        daemon.reload(nat_bed.config(sip=False, gw=True, rtcp=True))
        daemon.logged("Enabling rtcp\r\nAdd Port(s) to Stun start = 10001 end = 10199 interval = 2\r\n")
        self.answered(natctl, rtp + "10199")
        daemon.reload(nat_bed.config(sip=False, gw=True, rtcp=False))
        daemon.logged("Disabling rtcp\r\nRemove Stun Ports start = 10001\t end = 10199\r\n interval = 2\r\n")
        self.assertEqual(natctl.ask(rtp + "10199")["items"][0]["flag"], 2)
        self.assertEqual(daemon.log().count("Starting Stun agent"), 1)

    def test_changed_sip_mapping_is_told_once(self):
        self.nat("masquerade fully-random")
        self.coturn()
        daemon = self.daemon(nat_bed.config(gw=True, rtp_end=10009))
        natctl = self.natctl(daemon)
        natctl.connect("sip", "cm", "cc")
        first = self.answered(natctl, CS)
        media = self.answered(natctl, f"rtp cc {OBSERVER} 10.77.0.2:10000")
        self.forget_mappings()
        notices = [natctl.next() for _ in range(3)]
        self.assertEqual(sorted(notice["party"] for notice in notices), ["cc", "cm", "sip"])
        self.assertEqual([(notice["notice"], notice["strings"]) for notice in notices], [(92, [])] * 3)
        self.assertNotEqual(self.answered(natctl, CS), first)
        bed.wait_until(lambda: self.answered(natctl, f"rtp cc {OBSERVER} 10.77.0.2:10000") != media,
                       "the new mapping of an RTP port")
        self.assertEqual(daemon.log().count("CS Nat port changes trying NotifyTo Sip \r\n"), 1)

    def test_server_dead_first_and_later(self):
        self.nat("masquerade fully-random")
        daemon = self.daemon(nat_bed.config())
        natctl = self.natctl(daemon)
        natctl.connect("sip")
        begin = time.monotonic()
        self.assertEqual(natctl.ask(CS)["flag"], 2)
        self.assertLess(time.monotonic() - begin, 1)
        daemon.said(SERVER)
        server = self.coturn()
        first = self.answered(natctl, CS)
        server.end()
        # What is known stays known while nobody answers.
        begin = len(daemon.errors)
        bed.wait_until(lambda: len(daemon.errors) > begin, "the journal to say that the server is gone")
        self.assertEqual(self.answered(natctl, CS), first)
        self.forget_mappings()
        self.coturn()
        bed.wait_until(lambda: self.answered(natctl, CS) != first, "the new mapping")

    def test_loss_and_a_name_that_does_not_resolve(self):
        self.nft("add table ip loss; add chain ip loss f { type filter hook forward priority 0; }; "
                 "add rule ip loss f udp dport 3478 numgen random mod 100 < 5 drop;"
                 "add rule ip loss f udp sport 3478 numgen random mod 100 < 5 drop;")
        self.coturn()
        daemon = self.daemon(nat_bed.config(server="stun.invalid", gw=True, rtp_end=10099))
        natctl = self.natctl(daemon)
        natctl.connect("sip", "cm", "cc")
        self.assertEqual(natctl.ask(CS)["flag"], 2)
        daemon.said("stun.invalid")
        daemon.reload(nat_bed.config(gw=True, rtp_end=10099))
        daemon.logged("Update Stun Server Settings\r\nReading Stun Cfg\r\n")
        self.assertEqual(self.answered(natctl, CS), (PUBLIC, 45060))
        for port in range(10000, 10100):
            self.answered(natctl, f"rtp cc {OBSERVER} 10.77.0.2:{port}")

    def test_natctl_asks_servers_itself(self):
        self.hosts(f"{SERVER} stun.example\n{OBSERVER} stun.example\n")
        self.coturn(SERVER, OBSERVER)
        code, (first, second, verdict) = self.ask_servers("stun.example", "--local-port", "5060")
        self.assertEqual((code, verdict), (0, {"nat": "same"}))
        self.assertLess(first.pop("rtt_ms"), 2000)
        self.assertEqual(first, {"stun": f"{SERVER}:3478", "local": "10.77.0.2:5060", "mapped": f"{PUBLIC}:45060"})
        self.assertEqual((second["stun"], second["mapped"]), (f"{OBSERVER}:3478", first["mapped"]))
        self.nat("masquerade fully-random")
        self.assertEqual(self.ask_servers(SERVER, OBSERVER)[1][2], {"nat": "different"})
        # Nobody has the address; the server's host is there, but nothing on the port.
        self.assertEqual(self.ask_servers(NOBODY), (1, [{"stun": f"{NOBODY}:3478", "error": "timeout"}]))
        code, (first, second, verdict) = self.ask_servers(SERVER, f"{SERVER}:9")
        self.assertEqual((code, second["error"], verdict), (1, "unreachable", {"nat": "unknown"}))
        self.nft("add table ip loss; add chain ip loss f { type filter hook forward priority 0; }; "
                 "add rule ip loss f udp dport 3478 numgen inc mod 2 0 drop;")
        self.assertEqual(self.ask_servers(SERVER)[1][0]["sends"], 2)
        with nat_bed.udp_socket(self.dev, ("10.77.0.2", 5060)):
            code, (error,) = self.ask_servers(SERVER, "--local-port", "5060")
        self.assertEqual((code, error["error"]), (1, "local-port"))
        self.assertIn("5060 cannot be bound: it is in use", error["text"])

    def test_a_name_with_several_addresses(self):
        self.hosts(f"{NOBODY} stun.example\n{SERVER} stun.example\n{OBSERVER} stun.example\n")
        self.nat("masquerade fully-random")
        self.coturn(SERVER, OBSERVER)
        daemon = self.daemon(nat_bed.config(server="stun.example"))
        natctl = self.natctl(daemon)
        natctl.connect("sip")
        self.answered(natctl, CS)  # by the second, as the first is silent
        daemon.said(f"toward {OBSERVER}:3478; what is learnt holds for the server alone")

    def test_uplink_lost_and_back(self):
        self.coturn()
        daemon = self.daemon(nat_bed.config())
        natctl = self.natctl(daemon)
        natctl.connect("sip")
        self.answered(natctl, CS)
        self.dev.ip("route", "del", "default")
        daemon.logged("UpLink IP Down\r\nStoping Stun agent\r\nStun Agent Stopped\r\n")
        self.dev.ip("route", "add", "default", "via", "10.77.0.1")
        daemon.logged("UpLink IP Up\r\n" + DASHES + "Starting Stun agent\r\n" + DASHES[1:])
        self.assertEqual(self.answered(natctl, CS), (PUBLIC, 45060))

    def test_without_the_capability(self):
        self.coturn()
        owner = nat_bed.udp_socket(self.dev, ("10.77.0.2", 5060))
        self.addCleanup(owner.close)
        self.wrap = ("setpriv", "--bounding-set", "-net_raw")
        daemon = self.daemon(nat_bed.config(gw=True, rtp_end=10009))
        natctl = self.natctl(daemon)
        natctl.connect("sip", "cm", "cc")
        self.assertEqual(self.answered(natctl, f"rtp cc {OBSERVER} 10.77.0.2:10000"), (PUBLIC, 40000))
        self.assertEqual(natctl.ask(CS)["flag"], 2)
        daemon.said("5060")
        self.assertEqual(sum("5060" in line and "public side" not in line for line in daemon.errors), 1)

    def test_stop_in_a_storm(self):
        self.nft("add table ip mute; add chain ip mute f { type filter hook forward priority 0; }; "
                 "add rule ip mute f udp sport 3478 udp dport 10000-10999 counter drop")
        self.coturn()
        daemon = self.daemon(nat_bed.config(gw=True, rtp_end=10999))
        natctl = self.natctl(daemon)
        natctl.connect("sip", "cm", "cc")
        self.answered(natctl, CS)
        bed.wait_until(lambda: "packets 0 " not in self.nft("list table ip mute"), "answers that are dropped")
        self.assertEqual(rtp_flags(natctl, 10000, 1000), {2})
        begin = time.monotonic()
        self.assertEqual(daemon.stop(), 0)
        self.assertLess(time.monotonic() - begin, 2)


class NamedServer(nat_bed.NatBedTest, silent_dns.SilentDnsTest):
    RESOLVER = "timeout:1 attempts:1"

    def test_a_name_that_resolves_later(self):
        self.coturn()
        with nat_bed.udp_socket(self.rtr, ("10.77.0.1", 53)) as nobody:
            daemon = self.daemon(nat_bed.config(server="stun.example"))
            natctl = self.natctl(daemon)
            natctl.connect("sip")
            nobody.recv(512)
            daemon.said("stun.example has no address")
            nobody.recv(512)  # of the second look-up; it fails as well, and is not told
        self.dns(("stun.example", SERVER))
        self.assertEqual(self.answered(natctl, CS), (PUBLIC, 45060))
        self.assertEqual(sum("has no address" in line for line in daemon.errors), 1)


if __name__ == "__main__":
    bed.main()
