"""Destinations by host name: a real DNS server on an address of the test's own network, and one that never answers."""

import time

import bed
import configs
import silent_dns

PUBLIC = "203.0.113.7"


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


if __name__ == "__main__":
    bed.main()
