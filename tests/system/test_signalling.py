"""Signalling requests end to end: the daemon, its configuration, and what natctl is answered."""

import signal
import socket
import struct
import subprocess
from random import Random

import bed
import configs
from bed import DASHES


def cs(answer):
    return answer["ip"], answer["port"], answer["flag"]


MAPPED = ("203.0.113.7", 15060, 1)
MAPPED_TCP = ("203.0.113.7", 15061, 1)
NO_NEED = ("0.0.0.0", 0, 0)
NO_MAPPING = ("0.0.0.0", 0, 2)


class Signalling(bed.BedTest):
    CONFIG = configs.STATIC

    def test_decisions(self):
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("sip")
        # The exclusion table is loaded when the first CM connects.
        self.assertEqual(cs(natctl.ask("cs sip 172.20.1.1 10.77.0.2:5060")), MAPPED)
        natctl.connect("cm")
        for request, expected in [
            ("cs sip 198.51.100.9 10.77.0.2:5060", MAPPED),
            ("cs sip 198.51.100.9 10.77.0.2:5070", NO_MAPPING),
            ("cs sip 10.77.0.1 10.77.0.2:5060", NO_NEED),
            ("cs sip 172.20.1.1 10.77.0.2:5060", NO_NEED),
            ("cs sip 198.51.100.9 10.77.0.2:5060 tcp", MAPPED_TCP),
            ("cs sip 198.51.100.9 10.77.0.2:5060 tls", NO_MAPPING),
            ("cs sip 198.51.100.9 10.77.0.2:0", NO_MAPPING),
            ("cs cm 198.51.100.9 10.77.0.2:5060", NO_MAPPING),
        ]:
            with self.subTest(request=request):
                self.assertEqual(cs(natctl.ask(request)), expected)
        answer = natctl.ask("cs-list sip 198.51.100.9 10.77.0.2:5060 10.77.0.2:5070 10.77.0.2:5060 id=77")
        self.assertEqual((answer["id"], answer["value"]), (77, 1))
        self.assertEqual([item["flag"] for item in answer["items"]], [1, 2, 1])
        self.assertEqual(natctl.ask("cs-list sip 0.0.0.0 10.77.0.2:5060 id=78"),
                         {"party": "sip", "answer": "cs-list", "id": 78, "value": 2, "items": []})
        self.assertEqual(natctl.finish(), 0)
        daemon.logged("Error:GetCSNatSettings\r\n")

    def test_route_changes_change_the_answer(self):
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        request = "cs sip 198.51.100.9 10.77.0.2:5060"
        self.assertEqual(cs(natctl.ask(request)), MAPPED)
        for words, expected in [
            (("route", "add", "198.51.100.0/24", "dev", "d0"), NO_NEED),
            (("route", "del", "198.51.100.0/24", "dev", "d0"), MAPPED),
            (("route", "add", "unreachable", "198.51.100.9"), NO_MAPPING),
            (("route", "del", "unreachable", "198.51.100.9"), MAPPED),
            (("route", "del", "default"), NO_MAPPING),
            (("route", "add", "default", "via", "10.77.0.1"), MAPPED),
            (("link", "set", "d0", "down"), NO_MAPPING),
        ]:
            with self.subTest(change=" ".join(words)):
                self.dev.ip(*words)
                self.assertEqual(cs(natctl.ask(request)), expected)
        self.assertEqual(natctl.finish(), 0)

    def test_log_to_the_byte(self):
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("sip", "cm")
        natctl.ask("cs sip 198.51.100.9 10.77.0.2:5060 id=18446744073709551615")
        natctl.ask("cs-list sip 198.51.100.9 10.77.0.2:5060 10.77.0.2:5070 id=2")
        interfaces = 2  # lo and d0
        expected = (
            "Connected Call Agent Sip UA \r\n"
            "\r\nUpdate Udp NatSettings for SIP\r\n"
            "UdpMapMode -- oldMode 0 --newMode 1\r\n" + DASHES +
            "Loaded Nat Settings for Sip UA \r\n"
            "Connected Call Agent CM \r\n"
            "Set NatExlTable\r\n" + DASHES +
            "Ip = 10.0.0.0 Mask = 255.0.0.0\r\n"
            "Ip = 172.20.0.0 Mask = 255.255.0.0\r\n" + DASHES +
            "Add Gw Nat Settings\r\n" * interfaces +
            "Loaded Nat Settings for CM \r\n"
            "Got Request for CS Nat Settings\r\n for protocol Sip\r\nLocalIp = 10.77.0.2\r\nremoteIp = 198.51.100.9\r\n"
            "selfPort = 5060 - Udp\r\nqueryId = 18446744073709551615\r\n\r\n"
            "Send Response CS Nat Settings\r\nFor protocol Sip\r\n Mapped Successfully \r\n"
            "queryId = 18446744073709551615\r\n"
            "MappedIp = 203.0.113.7\r\nMapPort = 15060\r\n" + DASHES +
            "\r\n" + DASHES + "Got CS Request for Nat Settings\r\nremoteIp = 198.51.100.9\r\n for CS H323\r\n"
            "queryId  = 2\r\n"
            "LocalIp  = 10.77.0.2 10.77.0.2 \r\nSelfPort = 5060          5070          \r\n\r\n"
            "Send Response CS Nat Settings\r\nqueryId = 2\r\n"
            "MappedIps  = 203.0.113.7 Error No Mapping \r\nMappedPort = 15060                    \r\n" + DASHES)
        daemon.logged("Send Response CS Nat Settings\r\nqueryId = 2\r\nMappedIps  = ")
        self.assertEqual(daemon.stop(), 0)
        log = daemon.log()
        start = log.index("Connected Call Agent")
        self.assertEqual(sorted(log[:start].split("\r\n")),
                         sorted(["Starting IpUpDownInformer Thread", "Starting Resolving Thread",
                                 "Starting Nat Agent Messenger", ""]))
        self.assertEqual(log[start:],
                         expected + "Nat Messenger stoped\r\n"
                         "Stoping host name resolver thread\r\nResolver thread stoped\r\n"
                         "Stoping IP Change informer thread\r\nIP Change informer thread stoped\r\n")

    def test_connections_and_reload(self):
        daemon = self.daemon()
        first = self.natctl(daemon)
        first.connect("sip", "cm")
        watcher = self.natctl(daemon)
        self.assertEqual(watcher.ask("connect cm")["error"], "refused")
        first.send("disconnect cm")
        daemon.logged("CM  Disconnected \r\nUnload config for CM \r\n")
        second = self.natctl(daemon)
        second.connect("cm")
        daemon.logged("Add Gw Nat Settings\r\n", 4)
        self.assertEqual(daemon.log().count("Set NatExlTable\r\n"), 1)

        request = "cs sip 172.20.1.1 10.77.0.2:5060"
        self.assertEqual(cs(first.ask(request)), NO_NEED)
        daemon.reload(configs.STATIC.replace("172.20.0.0", "172.21.0.0"))
        daemon.logged("Ip = 172.21.0.0 Mask = 255.255.0.0\r\n" + DASHES)
        daemon.logged("Update Gw Nat Settings UdpMapMode -- oldMode 1 --newMode 1\r\n" + DASHES, 2)
        self.assertEqual(cs(first.ask(request)), MAPPED)

        loads = daemon.log().count("Set NatExlTable\r\n")
        daemon.reload(configs.STATIC.replace("255.255.0.0", "255.0.255.0"))
        daemon.said("exclusions")
        self.assertEqual(cs(first.ask(request)), MAPPED)
        self.assertEqual(daemon.log().count("Set NatExlTable\r\n"), loads)

    def test_killed_party(self):
        daemon = self.daemon()
        other = self.natctl(daemon)
        other.connect("cm")
        victim = self.natctl(daemon)
        victim.connect("sip")
        for _ in range(500):
            victim.send("cs sip 198.51.100.9 10.77.0.2:5060 nowait")
        victim.signal(signal.SIGKILL)
        victim.wait()
        daemon.logged("Sip UA  Disconnected \r\nUnload config for Sip \r\n")
        self.assertEqual(cs(other.ask("cs cm 10.77.0.1 10.77.0.2:1720")), NO_NEED)
        again = self.natctl(daemon)
        self.assertEqual(cs(again.ask("cs sip 198.51.100.9 10.77.0.2:5060")), MAPPED)

    def test_garbage(self):
        daemon = self.daemon()
        other = self.natctl(daemon)
        other.connect("cm")
        random = Random(1)
        header = struct.Struct("=IHHQII")
        magic, version = 0x3154414E, 1
        item = socket.inet_aton("10.77.0.2") + struct.pack("=HHI", 5060, 0, 0)
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as peer:
            peer.settimeout(bed.DEADLINE)
            peer.connect(str(daemon.runtime / "queue-112"))
            peer.recv(65536)  # the welcome
            kinds = set()
            for packet in [
                b"x",
                header.pack(magic, version, 1, 7, 0, 1),  # cut
                header.pack(magic, version, 2, 7, 0, 0xFFFFFFFF),  # a count that lies
                header.pack(magic, version, 2, 7, 0, 2) + bytes(8),
                header.pack(magic, version, 77, 7, 0, 0),
                header.pack(magic, 9, 5, 7, 0, 0),
                header.pack(magic, version, 1, 7, 0, 1) + item + b"pbx\r\nForged line\r\n.example",
                bytes(60000),  # oversize
                *(random.randbytes(random.randrange(1, 200)) for _ in range(200)),
                *(header.pack(magic, version, random.choice([0, 1, 6, 8]), 7, 0, random.randrange(4)) +
                  random.randbytes(random.randrange(8)) for _ in range(200)),
            ]:
                peer.send(packet)
                kinds.add(header.unpack(peer.recv(65536)[:header.size])[2])
            # A good one behind all of it is answered: 0x81, under its own id.
            peer.send(header.pack(magic, version, 1, 4711, 0, 1) + item + b"198.51.100.9")
            answer = header.unpack(peer.recv(65536)[:header.size])
            self.assertEqual((answer[2], answer[3]), (0x81, 4711))
            self.assertEqual(kinds, {0x92})
        self.assertEqual(cs(other.ask("cs cm 10.77.0.1 10.77.0.2:1720")), NO_NEED)
        self.assertEqual(daemon.stop(), 0)
        self.assertNotIn("Forged", daemon.log())

    def test_three_parties_pipelined(self):
        daemon = self.daemon()
        requests = 3000 if bed.SANITIZE else 100000
        client = bed.BUILD / "tests" / "load_client"
        warm = bed.run(client, daemon.runtime, 1000)
        self.assertEqual(warm.returncode, 0, warm.stderr)
        before = daemon.resident_kb()
        result = subprocess.run([client, daemon.runtime, str(requests)], capture_output=True, text=True, timeout=120,
                                check=False)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        if not bed.SANITIZE:
            self.assertLess(daemon.resident_kb() - before, 512)
        self.assertEqual(daemon.stop(), 0)


if __name__ == "__main__":
    bed.main()
