"""The bed with the whole way to a STUN server: dev -- rtr (nftables NAT) -- inet, where coturn and an observer sit."""

import ctypes
import json
import os
import pathlib
import shutil
import socket
import struct
import threading

import bed

CLONE_NEWNET = 0x40000000
libc = ctypes.CDLL(None, use_errno=True)

# Outside of the networks for documentation, which routers take for addresses without an uplink.
SERVER = "11.0.0.1"
PUBLIC = "11.0.0.2"
OBSERVER = "11.0.0.3"
NOBODY = "11.0.0.9"

# The port map stands before the masquerade: a SIP port and an RTP port with public sides known beforehand.
PORT_MAP = f"snat to {PUBLIC} : udp sport map {{ 5060 : 45060, 10000 : 40000 }}"

CONFIG = """
[media]
rtp_port_start = 10000
rtp_port_end   = {rtp_end}
rtcp_enabled   = {rtcp}
[nat]
gw_interface     = "d0"
sip_udp_port     = 5060
sip_udp_use_stun = {sip}
gw_use_stun      = {gw}
[stun]
server_host = {servers}
server_port = 3478
probe_period_s = {period}
first_timeout_ms = {rto}
"""


def config(sip=True, gw=False, rtcp=True, rtp_end=10199, server=SERVER, period=1, rto=100):
    words = {True: "true", False: "false"}
    return CONFIG.format(sip=words[sip], gw=words[gw], rtcp=words[rtcp], rtp_end=rtp_end, period=period,
                         servers=json.dumps(server.split(",")), rto=rto)


def socket_in(namespace, kind):
    """A socket of this process inside another namespace."""
    made = []

    def make():
        with open(f"/run/netns/{namespace.name}", encoding="ascii") as handle:
            if libc.setns(handle.fileno(), CLONE_NEWNET) != 0:
                return
        made.append(socket.socket(socket.AF_INET, kind))

    thread = threading.Thread(target=make)
    thread.start()
    thread.join()
    made[0].settimeout(bed.DEADLINE)
    return made[0]


def udp_socket(namespace, address):
    made = socket_in(namespace, socket.SOCK_DGRAM)
    made.bind(address)
    return made


class ScriptedServer:
    """A STUN server on inet that answers as the test says: with a port that is mapped, an error code, or not at all."""

    def __init__(self, namespace, address, answer):
        self.answer = answer  # of the port that a request came from: ("mapped", port), ("error", code) or None
        self.asked = 0
        self.socket = udp_socket(namespace, (address, 3478))
        self.socket.settimeout(0.1)
        self.is_ending = False
        self.thread = threading.Thread(target=self._run)
        self.thread.start()

    def _run(self):
        while not self.is_ending:
            try:
                request, peer = self.socket.recvfrom(2048)
            except TimeoutError:
                continue
            self.asked += 1
            answer = self.answer(peer[1])
            if answer:
                kind, value = answer
                body = struct.pack("!HHBBH4s", 0x0001, 8, 0, 1, value, socket.inet_aton(PUBLIC)) if kind == "mapped" \
                    else struct.pack("!HHHBB", 0x0009, 4, 0, value // 100, value % 100)
                header = struct.pack("!HH", 0x0101 if kind == "mapped" else 0x0111, len(body))
                self.socket.sendto(header + request[4:20] + body, peer)

    def end(self):
        self.is_ending = True
        self.thread.join(bed.DEADLINE)
        self.socket.close()


class NatBedTest(bed.BedTest):
    def setUp(self):
        super().setUp()
        self.inet = self.namespace("inet")
        bed.connect(self.rtr, "r1", f"{PUBLIC}/24", self.inet, "i0", f"{SERVER}/24")
        self.inet.ip("addr", "add", f"{OBSERVER}/24", "dev", "i0")
        bed.run(*self.rtr.command("sysctl", "-qw", "net.ipv4.ip_forward=1"))
        self.nat("masquerade", PORT_MAP)

    def nat(self, masquerade, port_map=None):
        """The router's NAT; known mappings are forgotten with the old rules."""
        rules = f'oifname "r1" ip protocol udp {port_map}; ' if port_map else ""
        self.nft("add table ip nat; delete table ip nat; add table ip nat; "
                 "add chain ip nat post { type nat hook postrouting priority srcnat; }; " +
                 (f"add rule ip nat post {rules}" if rules else "") +
                 f'add rule ip nat post oifname "r1" {masquerade};')

    def nft(self, text):
        return bed.run(*self.rtr.command("nft", text)).stdout

    def forget_mappings(self):
        """The router's uplink goes down and comes back, which flushes what masquerade remembers."""
        self.rtr.ip("link", "set", "r1", "down")
        self.rtr.ip("link", "set", "r1", "up")

    def coturn(self, *addresses):
        listen = [word for address in addresses or (SERVER,) for word in ("-L", address)]
        server = self.started(bed.Program(self.inet.command(
            "turnserver", "-n", "-S", "-z", "--no-tls", "--no-dtls", "--no-tcp", "--no-cli", "-m", "0", *listen,
            "-p", "3478", "--pidfile", os.path.join(self.directory, "turn.pid"), "--userdb",
            os.path.join(self.directory, "turn.db"), "-l", "stdout"), stdout=bed.subprocess.DEVNULL))
        bed.wait_until(lambda: all(f"{address}:3478" in bed.run(*self.inet.command("ss", "-Huln")).stdout
                                   for address in addresses or (SERVER,)), "coturn's sockets")
        return server

    def scripted(self, answer, address=SERVER):
        return self.started(ScriptedServer(self.inet, address, answer))

    def hosts(self, text):
        """What dev's programs see as /etc/hosts."""
        directory = pathlib.Path("/etc/netns") / self.dev.name
        directory.mkdir(parents=True)
        self.addCleanup(shutil.rmtree, directory)
        (directory / "hosts").write_text(text)

    def ask_servers(self, *words):
        """`natctl stun` on dev: its exit code and what it prints."""
        natctl = bed.run(*self.dev.command(bed.NATCTL, "--json", "--timeout", "2", "stun", *words), check=False)
        return natctl.returncode, [json.loads(line) for line in natctl.stdout.splitlines()]

    def answered(self, natctl, request, flag=1, deadline=bed.DEADLINE):
        """Repeats a request until its (first) outcome is the flag; the answer's public endpoint."""

        def ask():
            answer = natctl.ask(request)
            while "answer" not in answer:  # a notice came first
                answer = natctl.next()
            item = answer["items"][0] if "items" in answer else answer
            return (item.get("mapped_ip", item["ip"]), item.get("mapped_port", item["port"])) \
                if item["flag"] == flag else None

        return bed.wait_until(ask, f"{request!r} answered with flag {flag}", deadline)
