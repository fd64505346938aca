"""Everything at once: STUN, names that resolve and names that hang, RTP calls, reloads, a flapping uplink, parties that are
killed, a full disk, no descriptors left. NATAGENT_SOAK_SECONDS makes it longer."""

import os
import pathlib
import signal
import socket
import struct
import threading
import time

import bed
import nat_bed
import silent_dns
from nat_bed import OBSERVER, PUBLIC

MAGIC, CS_REQUEST, WELCOME = 0x3154414E, 1, 0x90
LIMIT = 1024  # descriptors
SECONDS = int(os.environ.get("NATAGENT_SOAK_SECONDS", "30"))


class Caller(threading.Thread):
    """A call agent: repeats a round of requests until it is told to end; keeps what went wrong."""

    def __init__(self, natctl, round_of_requests):
        super().__init__()
        self.natctl = natctl
        self.round = round_of_requests
        self.ending = threading.Event()
        self.rounds = 0
        self.failure = None

    def run(self):
        try:
            while not self.ending.is_set():
                self.round(self.natctl, self.rounds)
                self.rounds += 1
        except Exception as failure:  # pylint: disable=broad-except
            self.failure = failure

    def end(self):
        self.ending.set()
        self.join()
        if self.failure:
            raise self.failure


def answer_of(natctl, request, number):
    """The one answer to a request: a second one, or one too few, would be taken for the next request's."""
    answer = natctl.ask(f"{request} id={number}")
    while "answer" not in answer and "error" not in answer:  # a notice came first
        answer = natctl.next()
    if "error" in answer or answer["id"] != number:
        raise AssertionError(f"{request} id={number}: {answer}")
    return answer


def signalling(natctl, number):
    """By name and by address; mapped, or without a route for a moment."""
    destination = "pbx.example" if number % 5 == 0 else OBSERVER
    answer = answer_of(natctl, f"cs sip {destination} 10.77.0.2:5060", number)
    if (answer["flag"], answer["port"]) not in ((1, 45060), (2, 0)):
        raise AssertionError(answer)


def call(party, first_port, first_query):
    """Query ids are the agent's, not the party's: closing one ends it for everybody, so each caller has its own."""

    def one(natctl, number):
        port = first_port + number % 50 * 2
        query = first_query + number
        item, = answer_of(natctl, f"rtp {party} {OBSERVER} 10.77.0.2:{port}", query)["items"]
        if item["flag"] == 1:
            back, = answer_of(natctl, f"reverse {party} {item['mapped_ip']}:{item['mapped_port']}", query)["items"]
            if (back["flag"], back["port"]) != (1, port):
                raise AssertionError((item, back))
        elif item["flag"] == 0:
            raise AssertionError(item)
        natctl.send(f"close {party} id={query}")

    return one


class Soak(nat_bed.NatBedTest, silent_dns.SilentDnsTest):
    # `ip netns exec` gives the daemon a view of the mounts of its own, so the small log directory is its alone.
    wrap = ("sh", "-c", 'mount -t tmpfs -o size=1m log "$1" && shift && exec "$@"', "sh")

    def setUp(self):
        super().setUp()
        logs = pathlib.Path(self.directory) / "log"
        logs.mkdir()
        self.wrap = (*self.wrap, logs)

    def let_pass(self, caller, rounds):
        """The disturbance's pace: so many answered rounds of a caller."""
        target = caller.rounds + rounds
        bed.wait_until(lambda: caller.rounds >= target or caller.failure, "answers to go on")

    def one_visit(self):
        visitor = self.natctl(self.daemon_, timeout=bed.DEADLINE)
        visitor.connect("q113")
        visitor.end()

    def reload(self, number):
        self.daemon_.reload(self.configs[number % 2])

    def flap(self, _):
        for _ in range(10):
            self.dev.ip("route", "del", "default")
            self.dev.ip("route", "add", "default", "via", "10.77.0.1")

    def new_mappings(self, _):
        self.forget_mappings()

    def kill_in_mid_look_up(self, number):
        """A party dies with more names waiting than are taken from it; the next one is taken in and served."""
        self.dnsmasq.signal(signal.SIGSTOP)
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as victim:
            victim.connect(str(self.daemon_.runtime / "queue-113"))
            victim.settimeout(bed.DEADLINE)
            self.assertEqual(struct.unpack("=IHHQII", victim.recv(4096))[2], WELCOME)
            victim.settimeout(0.05)  # nothing more is taken
            with self.assertRaises(TimeoutError):
                for query in range(10000):
                    name = f"{'pbx' if query % 2 else 'nobody'}.example".encode()
                    victim.send(struct.pack("=IHHQII", MAGIC, 1, CS_REQUEST, query, 0, 1) + bytes(12) + name)
        self.one_visit()
        self.dnsmasq.signal(signal.SIGCONT)

    def full_disk(self, _):
        filler = pathlib.Path(f"/proc/{self.daemon_.pid}/root{self.directory}/log/filler")
        with open(filler, "wb", buffering=0) as file:
            try:
                while file.write(bytes(65536)):
                    pass
            except OSError:
                pass
        self.let_pass(self.callers["sip"], 50)
        filler.unlink()

    def no_descriptors(self, _):
        """Nobody more can be taken in; when there are descriptors again, everybody can."""
        bed.run("prlimit", f"--pid={self.daemon_.pid}", f"--nofile=3:{LIMIT}")
        refused = self.natctl(self.daemon_)
        self.assertIn("error", refused.ask("connect q113"))
        refused.end()
        self.let_pass(self.callers["sip"], 50)
        bed.run("prlimit", f"--pid={self.daemon_.pid}", f"--nofile={LIMIT}:{LIMIT}")
        self.one_visit()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.daemon_.pid}/fd"))

    def threads(self):
        return len(os.listdir(f"/proc/{self.daemon_.pid}/task"))

    def test_all_of_it(self):
        self.coturn()
        self.dnsmasq = self.dns(("stun.example", nat_bed.SERVER), ("pbx.example", OBSERVER))
        self.configs = [nat_bed.config(gw=True, rtcp=rtcp, server="stun.example") for rtcp in (True, False)]
        self.daemon_ = daemon = self.daemon(self.configs[0])
        self.callers = {}
        for party, one in (("sip", signalling), ("cc", call("cc", 10000, 10**9)),
                           ("cm", call("cm", 10100, 2 * 10**9))):
            natctl = self.natctl(daemon, timeout=bed.DEADLINE)
            natctl.connect(party)
            self.callers[party] = Caller(natctl, one)
        sip, cc = self.callers["sip"], self.callers["cc"]
        self.answered(sip.natctl, f"cs sip {OBSERVER} 10.77.0.2:5060")
        self.answered(self.callers["cm"].natctl, f"rtp cm {OBSERVER} 10.77.0.2:10100 id=1")  # a port of cm's own
        self.callers["cm"].natctl.send("close cm id=1")
        disturbances = (self.flap, self.kill_in_mid_look_up, self.full_disk, self.no_descriptors, self.new_mappings)
        for caller in self.callers.values():
            caller.start()
        before = None

        rounds = 0
        end = time.monotonic() + SECONDS
        while time.monotonic() < end or rounds <= 2 * len(disturbances):
            self.reload(rounds)
            self.let_pass(sip, 100)
            disturbances[rounds % len(disturbances)](rounds)
            self.let_pass(sip, 100)
            rounds += 1
            if rounds == len(disturbances):  # each has come once
                before = (daemon.resident_kb(), self.descriptors(), self.threads())
        for caller in self.callers.values():
            caller.end()
            self.assertGreater(caller.rounds, SECONDS)

        # After the last disturbance the state is right, and nothing has grown.
        self.answered(sip.natctl, f"cs sip {OBSERVER} 10.77.0.2:5060")
        for port in (10000, 10100, 10198):
            public = self.answered(cc.natctl, f"rtp cc {OBSERVER} 10.77.0.2:{port} id=1")
            self.assertEqual(public[0], PUBLIC)
            cc.natctl.send("close cc id=1")
            item, = answer_of(cc.natctl, f"reverse cc {public[0]}:{public[1]}", 1)["items"]
            self.assertEqual(item["flag"], 0)
        if not bed.SANITIZE:
            self.assertLess(daemon.resident_kb() - before[0], 2048)
        bed.wait_until(lambda: self.descriptors() <= before[1] and self.threads() <= before[2],
                       f"descriptors and threads as before: {before[1:]}")
        print(f"soak: {rounds} rounds, {[caller.rounds for caller in self.callers.values()]} calls, resident kB "
              f"{before[0]} -> {daemon.resident_kb()}, descriptors {before[1]} -> {self.descriptors()}, threads "
              f"{before[2]} -> {self.threads()}", flush=True)
        self.assertEqual([caller.natctl.finish() for caller in self.callers.values()], [0, 0, 0])
        self.assertEqual(daemon.stop(), 0)


if __name__ == "__main__":
    bed.main()
