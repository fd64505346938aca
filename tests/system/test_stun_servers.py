"""STUN under servers and routers that misbehave: scripted ones, with real packets."""

import time

import bed
import nat_bed
from nat_bed import OBSERVER, SERVER

CS = f"cs sip {OBSERVER} 10.77.0.2:5060"


def rtp(port):
    return f"rtp cc {OBSERVER} 10.77.0.2:{port}"


class StunServers(nat_bed.NatBedTest):
    def test_silent_port_holds_nothing_up(self):
        self.scripted(lambda port: None if port == 45060 else ("mapped", port))
        daemon = self.daemon(nat_bed.config(gw=True, rtp_end=10099, rto=0))
        natctl = self.natctl(daemon)
        natctl.connect("sip", "cm", "cc")
        begin = time.monotonic()

        def is_learnt():
            self.assertEqual(natctl.ask(CS)["flag"], 2)  # asks for a scan each time
            return natctl.ask(rtp(10050))["items"][0]["flag"] == 1

        bed.wait_until(is_learnt, "an RTP port's mapping")
        self.assertLess(time.monotonic() - begin, 2)
        self.assertEqual([line for line in daemon.errors if "stun" in line], [])

    def test_mapping_that_never_settles(self):
        last = [20000]

        def another(_):
            last[0] = 20000 + (last[0] + 1) % 20000
            return "mapped", last[0]

        server = self.scripted(another)
        daemon = self.daemon(nat_bed.config(gw=True, rtp_end=10049))
        natctl = self.natctl(daemon)
        natctl.connect("sip", "cm", "cc")
        daemon.said("does not settle")
        begin, asked = time.monotonic(), server.asked
        bed.wait_until(lambda: server.asked >= asked + 400, "400 requests")
        self.assertGreater(time.monotonic() - begin, 400 / (2 * 51))  # 51 ports, one second
        server.answer = lambda port: ("mapped", port)
        settled = lambda: any("mappings settle again" in line for line in daemon.errors)
        bed.wait_until(settled, "settled mappings", 2 * bed.DEADLINE)  # some 17 periods
        self.assertEqual(sum("settle" in line for line in daemon.errors), 2)
        self.answered(natctl, CS)

    def test_server_that_begins_to_refuse(self):
        first = self.scripted(lambda port: ("mapped", port))
        second = self.scripted(lambda port: ("mapped", 1000), OBSERVER)
        daemon = self.daemon(nat_bed.config(server=f"{SERVER}:3478,{OBSERVER}", gw=True, rtp_end=10099))
        natctl = self.natctl(daemon)
        natctl.connect("sip")
        self.assertEqual(self.answered(natctl, CS)[1], 45060)
        daemon.said("differently")
        first.answer = lambda port: ("error", 500)
        asked = second.asked
        natctl.connect("cm", "cc")
        begin = time.monotonic()
        self.assertEqual(self.answered(natctl, rtp(10050))[1], 1000)
        self.assertLess(time.monotonic() - begin, 5)
        self.assertGreater(second.asked, asked)
        daemon.said(f"server {SERVER}:3478 refuses with error 500")


if __name__ == "__main__":
    bed.main()
