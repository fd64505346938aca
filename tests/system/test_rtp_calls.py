"""RTP calls end to end: the public side of media ports, the way back from it, and closing."""

import os
import time

import bed
import configs
from bed import DASHES

SHORT_RANGE = configs.STATIC.replace("gw_public_port_end   = 20199", "gw_public_port_end   = 20149")
PUBLIC = "203.0.113.7"


def local(item):
    return item["ip"], item["port"], item["flag"]


def public(item):
    return item["mapped_ip"], item["mapped_port"], item["flag"]


class RtpCalls(bed.BedTest):
    CONFIG = configs.STATIC

    def rtp(self, natctl, request):
        answer = natctl.ask(request)
        self.assertEqual(answer["answer"], "rtp", answer)
        return answer

    def test_a_call(self):
        natctl = self.natctl(self.daemon())
        natctl.connect("cm", "cc")
        answer = self.rtp(natctl, "rtp cc 198.51.100.9 10.77.0.2:10000 10.77.0.2:10002 id=7")
        self.assertEqual((answer["id"], answer["value"]), (7, 3))
        self.assertEqual([public(item) for item in answer["items"]], [(PUBLIC, 20000, 1), (PUBLIC, 20002, 1)])
        reverse = f"reverse cc {PUBLIC}:20002 {PUBLIC}:20003 id=8 value=5"
        answer = natctl.ask(reverse)
        self.assertEqual((answer["id"], answer["value"]), (8, 0))
        self.assertEqual([local(item) for item in answer["items"]], [("10.77.0.2", 10002, 1), ("0.0.0.0", 0, 0)])
        self.assertEqual([public(item)[:2] for item in answer["items"]], [(PUBLIC, 20002), (PUBLIC, 20003)])
        natctl.send("close cc id=7")
        self.assertEqual([local(item) for item in natctl.ask(reverse)["items"]], [("0.0.0.0", 0, 0)] * 2)
        self.assertEqual(natctl.finish(), 0)

    def test_decisions(self):
        daemon = self.daemon(SHORT_RANGE)
        natctl = self.natctl(daemon)
        natctl.connect("cm", "cc")
        for request, expected in [
            ("198.51.100.9 0.0.0.0:10000", ("10.77.0.2", 10000, PUBLIC, 20000, 1)),
            ("198.51.100.9 10.77.0.2:10149", ("10.77.0.2", 10149, PUBLIC, 20149, 1)),
            ("198.51.100.9 10.77.0.2:10160", ("10.77.0.2", 10160, "0.0.0.0", 0, 2)),
            ("198.51.100.9 10.77.0.2:9999", ("10.77.0.2", 9999, "0.0.0.0", 0, 0)),
            ("198.51.100.9 10.77.0.9:10000", ("10.77.0.9", 10000, "0.0.0.0", 0, 0)),
            ("10.77.0.1 0.0.0.0:10000", ("10.77.0.2", 10000, "0.0.0.0", 0, 0)),
            ("172.20.1.1 10.77.0.2:10000", ("10.77.0.2", 10000, "0.0.0.0", 0, 0)),
            ("198.51.100.9 10.77.0.2:10000 server=sip", ("10.77.0.2", 10000, "0.0.0.0", 0, 0)),
            ("198.51.100.9 10.77.0.2:10000 server=2", ("10.77.0.2", 10000, "0.0.0.0", 0, 0)),
            ("0.0.0.0 0.0.0.0:10000", ("0.0.0.0", 10000, "0.0.0.0", 0, 0)),
            ("0.0.0.0 10.77.0.2:10000", ("10.77.0.2", 10000, PUBLIC, 20000, 1)),
        ]:
            with self.subTest(request=request):
                item, = self.rtp(natctl, "rtp cc " + request)["items"]
                self.assertEqual((item["ip"], item["port"], *public(item)), expected)
        self.assertEqual(self.rtp(natctl, "rtp cc 198.51.100.9 server=sip")["value"], 1)
        for text in ("Error:No Mapped Ip or Port\r\n", "remoteip = 0(dns error?):mark as over gw\r\n"):
            self.assertIn(text, daemon.log())

        # Without a route, also when the call server is offline.
        self.dev.ip("route", "del", "default")
        for server in ("cc", "sip"):
            item, = self.rtp(natctl, f"rtp cc 198.51.100.9 0.0.0.0:10000 server={server}")["items"]
            self.assertEqual((item["ip"], *public(item)), ("0.0.0.0", "0.0.0.0", 0, 2))
        daemon.logged("Error:remote not available\r\n", 2)

    def test_cc_takes_the_gateways_along(self):
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("cm", "cc")
        request = "rtp cm 198.51.100.9 10.77.0.2:10000"
        self.assertEqual(self.rtp(natctl, request)["items"][0]["flag"], 1)
        natctl.send("disconnect cc")
        daemon.logged("CC  Disconnected \r\nUnload config for CC \r\n")
        answer = natctl.ask(request)
        while "answer" not in answer:
            answer = natctl.next()
        self.assertEqual(answer["items"][0]["flag"], 0)

    def test_one_endpoint_under_two_ids(self):
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("cm", "cc")
        for query in (1, 2):
            self.rtp(natctl, f"rtp cc 198.51.100.9 10.77.0.2:10000 id={query}")
        reverse = f"reverse cc {PUBLIC}:20000"
        self.assertEqual(natctl.ask(reverse)["items"][0]["flag"], 1)
        natctl.send("close cc id=1")
        self.assertEqual(natctl.ask(reverse)["items"][0]["flag"], 0)
        natctl.send("close cc id=2")
        natctl.send("close cc id=2")
        daemon.logged("Got CloseRTPNatMapping request for 2\r\nRev target deleted\r\n"
                      "Got CloseRTPNatMapping request for 2\r\nNo rev target with such queryId\r\n")

    def test_log_to_the_byte(self):
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("cm", "cc")
        daemon.logged("Error: Loading Congif File Failed\r\n")
        start = len(daemon.log())
        natctl.ask("rtp cc 198.51.100.9 10.77.0.2:10000 10.77.0.2:9 id=42")
        natctl.ask(f"reverse cc {PUBLIC}:20000 {PUBLIC}:601 id=43")
        natctl.ask("reverse cc id=44")
        natctl.send("close cc id=42")
        expected = (
            "CA_PROTO 3\r\n"
            "\r\n" + DASHES + "Got RTP Request for Nat Settings\r\nremoteIp = 198.51.100.9\r\n for CS H323\r\n"
            "queryId  = 42\r\n"
            "LocalIp  = 10.77.0.2 10.77.0.2 \r\nSelfPort = 10000          9          \r\n\r\n"
            "Need Qor Nat\r\n"
            "Need Qor Nat\r\n"
            "CA_Proto 3\r\n"
            "Send Response RTP Nat Settings\r\nqueryId = 42\r\n"
            "MappedIps  = 203.0.113.7 No need Nat \r\nMappedPort = 20000                    \r\n" + DASHES +
            "------------\r\nGot Request Rev Rtp for Nat Settings\r\nqueryId = 43\r\n"
            "LocalIp  = 203.0.113.7 203.0.113.7 \r\nSelfPort = 20000          601          \r\n"
            "------------\r\nSend Response Rev Rtp Nat Settings\r\nqueryId = 43\r\n\r\n"
            "MappedIps  = 203.0.113.7      No need Nat  \r\nMappedPort = 20000                \r\n"
            "------------\r\nGot Request Rev Rtp for Nat Settings\r\nqueryId = 44\r\n"
            "LocalIp  = \r\nSelfPort = \r\n"
            "------------\r\nSend Response Rev Rtp Nat Settings\r\nqueryId = 44\r\n\r\n"
            "\r\n Error no such mapping)\r\n"
            "Got CloseRTPNatMapping request for 42\r\nRev target deleted\r\n")
        daemon.logged("Rev target deleted\r\n")
        self.assertEqual(daemon.log()[start:], expected)

    def test_many_calls_with_reloads(self):
        """Two parties set calls up, ask back and close, while the host reloads; NATAGENT_SOAK_SECONDS paces and lengthens it."""
        daemon = self.daemon()
        seconds = int(os.environ.get("NATAGENT_SOAK_SECONDS", "0"))
        calls_a_second = 50
        parties = {"cc": self.natctl(daemon), "cm": self.natctl(daemon)}
        for party, natctl in parties.items():
            natctl.connect(party)
        resident = None
        begin = time.monotonic()
        for call in range(seconds * calls_a_second or 200):
            if seconds:  # the pace of a device
                time.sleep(max(0.0, begin + call / calls_a_second - time.monotonic()))
            for number, (party, natctl) in enumerate(parties.items()):
                port = 10000 + (call * 2 + number) % 200
                query = call * 2 + number + 1
                item, = self.rtp(natctl, f"rtp {party} 198.51.100.9 10.77.0.2:{port} id={query}")["items"]
                self.assertEqual(public(item), (PUBLIC, port + 10000, 1))
                item, = natctl.ask(f"reverse {party} {PUBLIC}:{port + 10000}")["items"]
                self.assertEqual(local(item), ("10.77.0.2", port, 1))
                natctl.send(f"close {party} id={query}")
            if call % 10 == 0:
                daemon.reload(configs.STATIC.replace("172.20.0.0", f"172.{20 + call // 10 % 2}.0.0"))
            if call == 50:
                resident = daemon.resident_kb()
        for party, natctl in parties.items():
            natctl.ask(f"reverse {party}")  # by its answer the party's last call is closed
        items = " ".join(f"{PUBLIC}:{port}" for port in range(20000, 20200))
        self.assertEqual({item["flag"] for item in parties["cc"].ask(f"reverse cc {items}")["items"]}, {0})
        if not bed.SANITIZE:
            self.assertLess(daemon.resident_kb() - resident, 512)
        self.assertEqual([natctl.finish() for natctl in parties.values()], [0, 0])


if __name__ == "__main__":
    bed.main()
