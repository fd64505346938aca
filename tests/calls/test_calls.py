"""Whole calls of real SIP programs through a router, told their addresses by the agent."""

import dataclasses
import time
import unittest

import call_bed
from call_bed import DEVICE, FAR_END, PUBLIC, REGISTRAR, WAYS, bed

MOVED = "11.0.0.4"
MEDIA = f"rtp cc {FAR_END} {DEVICE}:10000 id=2"


class Calls(unittest.TestCase):
    def test_ways(self):
        for way in WAYS:
            with self.subTest(way=way.name):
                got = call_bed.call(way)
                heard = got.rtp_in >= call_bed.PACKETS / 2
                self.assertEqual((heard, got.rtp_in > 0, got.bye), (way.works,) * 3, got)
                self.assertEqual(got.lost > 0, way.config is None, got)


class Phone(call_bed.CallBed):
    def phone_of(self, way):
        self.route_as(way)
        self.far_end()
        self.registrar()
        daemon = self.daemon(way.config)
        return daemon, self.phone(daemon)

    def call_phone(self, phone):
        """A call from outside to the phone, with sound in both directions, until the far end's end of it."""
        out, in_ = self.counted(self.dev, "out"), self.counted(self.dev, "in")
        ended = sum("call ended" in line for line in phone.errors)
        self.tell_far_end("dial", f"sip:phone@{REGISTRAR}")
        for name, before in ("out", out), ("in", in_):
            bed.wait_until(lambda: self.counted(self.dev, name) >= before + 50, f"a second of sound ({name})")
        self.tell_far_end("hangup")
        bed.wait_until(lambda: sum("call ended" in line for line in phone.errors) > ended, "the end of the call")

    def test_static_ports(self):
        _, phone = self.phone_of(WAYS[1])
        phone.said(f"registered <sip:phone@{PUBLIC}:45060>")
        self.call_phone(phone)

    def test_stun_and_changes(self):
        way = dataclasses.replace(WAYS[2], port_map="udp sport 5060 masquerade to :45060")
        daemon, phone = self.phone_of(way)
        phone.said(f"registered <sip:phone@{PUBLIC}:45060>")
        self.call_phone(phone)
        natctl = self.natctl(daemon)
        natctl.connect("cc")

        def another_port():
            self.nat(way.masquerade, "udp sport 5060 masquerade to :46060")
            self.forget_mappings()

        def another_address():
            self.rtr.ip("addr", "del", f"{PUBLIC}/24", "dev", "r1")
            self.rtr.ip("addr", "add", f"{MOVED}/24", "dev", "r1")

        for change, address in (another_port, PUBLIC), (another_address, MOVED):
            with self.subTest(change=change.__name__):
                begin = time.monotonic()
                change()
                phone.said(f"registered <sip:phone@{address}:46060>")
                print(f"{change.__name__}: registered again after {time.monotonic() - begin:.2f} s")
                # The media ports are asked for when one port's change was seen, a moment later.
                bed.wait_until(lambda: self.answered(natctl, MEDIA) == (address, 10000), "the media port's public side")
                self.call_phone(phone)


if __name__ == "__main__":
    bed.main()
