"""The bed of whole calls: sipp on dev and baresip on inet, what the agent tells sipp, and what the wires carry."""

import dataclasses
import json
import pathlib
import socket
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "system"))

import bed
import nat_bed
from nat_bed import PUBLIC

DEVICE = "10.77.0.2"
FAR_END = nat_bed.OBSERVER
REGISTRAR = nat_bed.SERVER
SIP_PHONE = bed.BUILD / "examples" / "sip-phone" / "sip_phone"
SECONDS_OF_SOUND = 3
PACKETS = SECONDS_OF_SOUND * 50

STATIC = f"""
[nat]
gw_interface         = "d0"
sip_udp_public_ip    = "{PUBLIC}"
sip_udp_public_port  = 45060
gw_public_ip         = "{PUBLIC}"
gw_public_port_start = 40000
"""
FORWARDED = f"dnat ip to udp dport map {{ 45060 : {DEVICE} . 5060, 40000 : {DEVICE} . 10000 }}"

BARESIP = f"""
module_path        /usr/lib/baresip/modules
module             g711.so
module             aubridge.so
module_app         account.so
module_app         ctrl_tcp.so
module_app         menu.so
ctrl_tcp_listen    127.0.0.1:4444
sip_listen         {FAR_END}:5060
net_interface      {FAR_END}
audio_source       aubridge,far
audio_player       aubridge,far
"""


@dataclasses.dataclass
class Way:
    """A way to make the call: the device's configuration (none: no agent), the router, and whether the call works."""

    name: str
    config: str | None
    works: bool
    masquerade: str = "masquerade"
    port_map: str | None = None
    forwarded: str | None = None


WAYS = [
    Way("unknown, as there is no agent", None, False),
    Way("configured, static ports", STATIC, True, port_map=nat_bed.PORT_MAP, forwarded=FORWARDED),
    Way("learnt by STUN", nat_bed.config(gw=True), True),
    Way("learnt by STUN, symmetric router", nat_bed.config(gw=True), False, masquerade="masquerade fully-random"),
]


@dataclasses.dataclass
class Outcome:
    offered: str  # the media address in the offer
    rtp_out: int  # packets that left the device's media port for the far end
    rtp_in: int  # packets of the far end that reached it
    lost: int  # packets that the far end sent to private addresses
    bye: bool  # the far end's BYE reached the device
    seconds: float


class CallBed(nat_bed.NatBedTest):
    """A TestCase for its cleanups; see call()."""

    def setUp(self):
        super().setUp()
        # Private addresses have a route out there, as everything has, but nobody is at its end.
        self.inet.ip("neigh", "add", nat_bed.NOBODY, "lladdr", "02:00:00:00:00:01", "dev", "i0")
        self.inet.ip("route", "add", "default", "via", nat_bed.NOBODY, "src", FAR_END)
        self.inet.ip("route", "replace", "11.0.0.0/24", "dev", "i0", "src", FAR_END)
        # A packet that the router refuses leaves no trace there; one that it took as its own would occupy the port.
        self.nft("add table ip wall; add chain ip wall in { type filter hook input priority 0; }; "
                 'add rule ip wall in iifname "r1" drop')
        self.count(self.dev, "output", "out", f"ip daddr {FAR_END} udp sport 10000")
        self.count(self.dev, "input", "in", f"ip saddr {FAR_END} udp dport 10000")
        self.count(self.inet, "output", "lost", "ip daddr 10.0.0.0/8")

    def count(self, namespace, hook, name, what):
        bed.run(*namespace.command("nft", (
            f"add table ip {name}; add counter ip {name} {name}; add chain ip {name} {name} "
            f"{{ type filter hook {hook} priority 0; }}; add rule ip {name} {name} {what} counter name {name}")))

    def counted(self, namespace, name):
        listed = json.loads(bed.run(*namespace.command("nft", "-j", "list", "counter", "ip", name, name)).stdout)
        return next(item["counter"]["packets"] for item in listed["nftables"] if "counter" in item)

    def route_as(self, way):
        self.nat(way.masquerade, way.port_map)
        if way.forwarded:
            self.nft("add chain ip nat pre { type nat hook prerouting priority dstnat; }; "
                     f'add rule ip nat pre iifname "r1" {way.forwarded}')
        if way.config and "use_stun" in way.config:
            self.coturn()

    def offers(self, way):
        """The device's SIP and media endpoints as its offer gives them: what the agent says, or the local ones."""
        if way.config is None:
            return (DEVICE, 5060), (DEVICE, 10000)
        natctl = self.natctl(self.daemon(way.config))
        natctl.connect("sip", "cm", "cc")
        return tuple(self.answered(natctl, request) for request in
                     (f"cs sip {FAR_END} {DEVICE}:5060", f"rtp cc {FAR_END} {DEVICE}:10000"))

    def listens(self, options, address):
        bed.wait_until(lambda: address in bed.run(*self.inet.command("ss", options)).stdout, f"a program at {address}")

    def far_end(self):
        home = pathlib.Path(self.directory) / "baresip"
        home.mkdir()
        (home / "config").write_text(BARESIP)
        (home / "accounts").write_text(f"<sip:far@{FAR_END}>;regint=0;answermode=auto;audio_codecs=pcma\n")
        program = self.started(bed.Program(self.inet.command("baresip", "-f", home), stdout=bed.subprocess.DEVNULL))
        for options, address in ("-Huln", f"{FAR_END}:5060"), ("-Htln", "127.0.0.1:4444"):
            self.listens(options, address)
        return program

    def tell_far_end(self, command, parameters=""):
        command = json.dumps({"command": command, "params": parameters})
        with nat_bed.socket_in(self.inet, socket.SOCK_STREAM) as control:
            control.connect(("127.0.0.1", 4444))
            control.sendall(f"{len(command)}:{command},".encode())

    def caller(self, sip, media):
        sound = pathlib.Path(self.directory) / "sound.al"
        sound.write_bytes(b"\xd5" * SECONDS_OF_SOUND * 8000)  # silence
        scenario = pathlib.Path(self.directory) / "caller.xml"
        scenario.write_text((HERE / "caller.xml").read_text().replace("SOUND", str(sound)))
        keys = {"sip_ip": sip[0], "sip_port": sip[1], "sound_ip": media[0], "sound_port": media[1]}
        return self.started(bed.Program(self.dev.command(
            "sipp", "-sf", scenario, FAR_END, "-i", DEVICE, "-p", 5060, "-mi", DEVICE, "-mp", 10000, "-m", 1,
            "-timeout", f"{bed.DEADLINE}s", "-nostdin", *[word for key in keys.items() for word in ("-key", *key)]),
            stdout=bed.subprocess.DEVNULL))

    def registrar(self):
        self.started(bed.Program(self.inet.command(
            "kamailio", "-f", HERE / "kamailio.cfg", "-l", f"udp:{REGISTRAR}:5060", "-Y", self.directory),
            stdout=bed.subprocess.DEVNULL))
        self.listens("-Huln", f"{REGISTRAR}:5060")

    def phone(self, daemon):
        return self.started(bed.Program(self.dev.command(
            "env", f"NATAGENT_RUNTIME_DIR={daemon.runtime}", SIP_PHONE, DEVICE, REGISTRAR)))

    def call(self, way):
        self.route_as(way)
        far_end = self.far_end()
        sip, media = self.offers(way)
        begin = time.monotonic()
        caller = self.caller(sip, media)
        bed.wait_until(lambda: self.counted(self.dev, "out") >= PACKETS, "the device's sound")
        self.tell_far_end("quit")  # which ends its call
        bye = caller.wait() == 0  # sipp fails without it
        far_end.process.kill()  # which may wait for the answer to its BYE for long
        return Outcome(f"{media[0]}:{media[1]}", self.counted(self.dev, "out"), self.counted(self.dev, "in"),
                       self.counted(self.inet, "lost"), bye, time.monotonic() - begin)


def call(way):
    """The outcome of one call, in a bed of its own."""
    its_bed = CallBed()
    try:
        its_bed.setUp()
        return its_bed.call(way)
    finally:
        assert its_bed.doCleanups(), "something of the bed did not end well"
