"""Destinations by host name: a real DNS server on an address of the test's own network, and one that never answers."""

import socket
import struct
import time

import bed
import configs
import silent_dns

PUBLIC = "203.0.113.7"


def request(number, name):
    """The frame of a signalling request for a host name."""
    return struct.pack("=4sHHQII4sHHI", b"NAT1", 1, 1, number, 0, 1, b"\x0a\x4d\0\x02", 5060, 0, 0) + name.encode()


def close(number):
    return struct.pack("=4sHHQII", b"NAT1", 1, 5, number, 0, 0)


class Names(silent_dns.SilentDnsTest):
    CONFIG = configs.STATIC

    def names(self):
        return self.dns(("pbx.example", "198.51.100.9"), ("near.example", "10.77.0.1"), ("off.example", "172.20.1.1"))

    def queries(self, dnsmasq, name):
        return sum(f"query[A] {name}" in line for line in dnsmasq.errors)

    def test_answers_by_name(self):
        dnsmasq = self.names()
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("sip", "cm", "cc")
        for request, expected in [
            ("cs sip pbx.example 10.77.0.2:5060 tcp", (PUBLIC, 15061, 1)),
            ("cs sip pbx.example 10.77.0.2:5060", (PUBLIC, 15060, 1)),
            ("cs sip near.example 10.77.0.2:5060", ("0.0.0.0", 0, 0)),
            ("cs sip off.example 10.77.0.2:5060", ("0.0.0.0", 0, 0)),
        ]:
            with self.subTest(request=request):
                answer = natctl.ask(request)
                self.assertEqual((answer["answer"], answer["ip"], answer["port"], answer["flag"]), ("cs", *expected))
        answer = natctl.ask("rtp cc pbx.example 10.77.0.2:10000 server=cm id=9")
        self.assertEqual((answer["answer"], answer["id"], answer["value"]), ("rtp", 9, 0))
        self.assertEqual(answer["items"][0]["mapped_port"], 20000)
        # Of a list only the first item is answered, as a single answer.
        answer = natctl.ask("cs-list sip pbx.example 10.77.0.2:5060 10.77.0.2:5070 10.77.0.2:5060 id=10")
        self.assertEqual((answer["answer"], answer["id"], answer["port"], answer["flag"]), ("cs", 10, 15060, 1))
        # A name nobody knows: media counts as over the gateway, signalling is decided for destination 0.
        answer = natctl.ask("rtp cc unknown.example 10.77.0.2:10000")
        self.assertEqual(answer["items"][0]["flag"], 1)
        daemon.logged("remoteip = 0(dns error?):mark as over gw\r\n")
        answer = natctl.ask("cs sip unknown.example 10.77.0.2:5060")
        self.assertEqual((answer["answer"], answer["ip"], answer["port"], answer["flag"]), ("cs", PUBLIC, 15060, 1))
        self.assertIn("Dest host name - unknown.example\r\nSetQueryforResolve\r\n", daemon.log())
        self.assertEqual(self.queries(dnsmasq, "pbx.example"), 4)
        self.assertEqual(natctl.finish(), 0)

    def test_one_name_twice_and_closing(self):
        dnsmasq = self.names()
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("sip", "cm", "cc")
        # The name server holds the answers back until all requests wait.
        dnsmasq.signal(bed.signal.SIGSTOP)
        natctl.send("cs sip pbx.example 10.77.0.2:5060 id=1 nowait")
        natctl.send("cs sip pbx.example 10.77.0.2:5070 id=2 nowait")
        natctl.send("rtp cc pbx.example 10.77.0.2:10000 id=5 nowait")
        natctl.send("rtp cc pbx.example 10.77.0.2:10002 id=5 nowait")
        natctl.send("close cc id=5")
        daemon.logged("SetQueryforResolve\r\n", 4)
        daemon.logged("No rev target with such queryId\r\n")
        dnsmasq.signal(bed.signal.SIGCONT)
        answers = [natctl.next() for _ in range(3)]
        answers.sort(key=lambda answer: answer["id"])  # two connections have no order between them
        self.assertEqual([(answer["party"], answer["id"]) for answer in answers], [("sip", 1), ("sip", 2), ("cc", 5)])
        # The first of the two waiting under the closed id was dropped.
        self.assertEqual(answers[2]["items"][0]["port"], 10002)
        bed.wait_until(lambda: self.queries(dnsmasq, "pbx.example") >= 4, "a look-up for every request")

    def test_no_dns_holds_nobody_up(self):
        daemon = self.daemon()  # nobody answers at the name server's address
        natctl = self.natctl(daemon, timeout=5)
        natctl.connect("sip", "cm")
        natctl.send("cs sip pbx.example 10.77.0.2:5060 id=1000000 nowait")
        daemon.logged("SetQueryforResolve\r\n")
        begin = time.monotonic()
        for _ in range(200):
            self.assertEqual(natctl.ask("cs sip 198.51.100.9 10.77.0.2:5060")["flag"], 1)
        self.assertLess(time.monotonic() - begin, 5)  # the look-up alone would take twice that
        begin = time.monotonic()
        self.assertEqual(daemon.stop(), 0)
        self.assertLess(time.monotonic() - begin, 2.5)


class Floods(silent_dns.SilentDnsTest):
    """One party sends more than can wait; nobody answers at the name server's address."""
    CONFIG = configs.STATIC
    RESOLVER = "timeout:1 attempts:1"

    def flood(self, daemon, *frames_of):
        """A SIP agent that sends until nothing more of it is taken; each function makes the frame of a number."""
        party = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.addCleanup(party.close)
        party.connect(str(daemon.runtime / "queue-112"))
        party.settimeout(0.5)
        number = 0
        try:
            while number < 100_000:
                for frame_of in frames_of:
                    party.send(frame_of(number))
                number += 1
        except TimeoutError:
            return party
        raise AssertionError("all of it was taken")

    def ask_localhost(self, daemon, within):
        natctl = self.natctl(daemon, timeout=bed.DEADLINE)
        natctl.connect("cm")
        begin = time.monotonic()
        self.assertEqual(natctl.ask("cs cm localhost 10.77.0.2:10000")["answer"], "rtp")
        self.assertLess(time.monotonic() - begin, within)

    def test_a_flood_of_dead_names_is_bounded_and_costs_another_party_one_look_up(self):
        for frames_of in [(lambda number: request(number, f"dead{number}.example"), close),
                          (lambda number: struct.pack("=4sHHQII", b"NAT1", 1, 3, number, 0, 1024) + bytes(8192)
                           + f"dead{number}.example".encode(),)]:
            daemon = self.daemon()
            resident = daemon.resident_kb()
            party = self.flood(daemon, *frames_of)
            if not bed.SANITIZE:
                self.assertLess(daemon.resident_kb() - resident, 4096)
            self.ask_localhost(daemon, 4)  # one look-up, and natctl's start
            party.close()
            self.assertEqual(daemon.stop(), 0)

    def test_the_successor_of_a_party_that_died_with_names_waiting(self):
        daemon = self.daemon()
        self.flood(daemon, lambda number: request(number, f"dead{number}.example")).close()
        begin = time.monotonic()
        natctl = self.natctl(daemon, timeout=bed.DEADLINE)
        natctl.connect("sip")
        self.assertEqual(natctl.ask("cs sip 198.51.100.9 10.77.0.2:5060 id=1")["port"], 15060)
        self.assertLess(time.monotonic() - begin, 2)  # natctl's start is most of it
        daemon.said("queue 112: dropped ")
        answer = natctl.ask("cs sip localhost 10.77.0.2:5060 id=2")
        self.assertEqual((answer["id"], answer["flag"]), (2, 0))


if __name__ == "__main__":
    bed.main()
