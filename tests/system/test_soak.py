"""Everything at once: STUN, host names, RTP calls, a flapping uplink and reloads. NATAGENT_SOAK_SECONDS makes it longer."""

import os
import threading
import time

import bed
import nat_bed
import silent_dns
from nat_bed import OBSERVER, PUBLIC

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


def answer_of(natctl, request):
    answer = natctl.ask(request)
    while "answer" not in answer and "error" not in answer:  # a notice came first
        answer = natctl.next()
    if "error" in answer:
        raise AssertionError(f"{request}: {answer}")
    return answer


def signalling(natctl, number):
    """By name and by address; mapped, or without a route for a moment."""
    destination = "pbx.example" if number % 5 == 0 else OBSERVER
    answer = answer_of(natctl, f"cs sip {destination} 10.77.0.2:5060")
    if (answer["flag"], answer["port"]) not in ((1, 45060), (2, 0)):
        raise AssertionError(answer)


def call(party, first_port, first_query):
    """Query ids are the agent's, not the party's: closing one ends it for everybody, so each caller has its own."""

    def one(natctl, number):
        port = first_port + number % 50 * 2
        query = first_query + number
        item, = answer_of(natctl, f"rtp {party} {OBSERVER} 10.77.0.2:{port} id={query}")["items"]
        if item["flag"] == 1:
            back, = answer_of(natctl, f"reverse {party} {item['mapped_ip']}:{item['mapped_port']}")["items"]
            if (back["flag"], back["port"]) != (1, port):
                raise AssertionError((item, back))
        elif item["flag"] == 0:
            raise AssertionError(item)
        natctl.send(f"close {party} id={query}")

    return one


class Soak(nat_bed.NatBedTest, silent_dns.SilentDnsTest):
    def let_pass(self, caller, rounds):
        """The disturbance's pace: so many answered rounds of a caller."""
        target = caller.rounds + rounds
        bed.wait_until(lambda: caller.rounds >= target or caller.failure, "answers to go on")

    def test_all_of_it(self):
        self.coturn()
        self.dns(("stun.example", nat_bed.SERVER), ("pbx.example", OBSERVER))
        configs = [nat_bed.config(gw=True, rtcp=rtcp, server="stun.example") for rtcp in (True, False)]
        daemon = self.daemon(configs[0])
        callers = {}
        for party, one in (("sip", signalling), ("cc", call("cc", 10000, 10**9)),
                           ("cm", call("cm", 10100, 2 * 10**9))):
            natctl = self.natctl(daemon, timeout=bed.DEADLINE)
            natctl.connect(party)
            callers[party] = Caller(natctl, one)
        self.answered(callers["sip"].natctl, f"cs sip {OBSERVER} 10.77.0.2:5060")
        self.answered(callers["cm"].natctl, f"rtp cm {OBSERVER} 10.77.0.2:10100 id=1")  # a port of cm's own
        callers["cm"].natctl.send("close cm id=1")
        resident = daemon.resident_kb()
        for caller in callers.values():
            caller.start()

        rounds = 0
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            rounds += 1
            daemon.reload(configs[rounds % 2])
            self.let_pass(callers["sip"], 200)
            if rounds % 5 == 0:
                for _ in range(10):
                    self.dev.ip("route", "del", "default")
                    self.dev.ip("route", "add", "default", "via", "10.77.0.1")
            if rounds % 20 == 0:
                self.forget_mappings()
            self.let_pass(callers["sip"], 200)
        for caller in callers.values():
            caller.end()
            self.assertGreater(caller.rounds, SECONDS)

        # After the last disturbance the state is right.
        self.answered(callers["sip"].natctl, f"cs sip {OBSERVER} 10.77.0.2:5060")
        for port in (10000, 10100, 10198):
            natctl = callers["cc"].natctl
            public = self.answered(natctl, f"rtp cc {OBSERVER} 10.77.0.2:{port} id=1")
            self.assertEqual(public[0], PUBLIC)
            natctl.send("close cc id=1")
            item, = answer_of(natctl, f"reverse cc {public[0]}:{public[1]}")["items"]
            self.assertEqual(item["flag"], 0)
        if not bed.SANITIZE:
            self.assertLess(daemon.resident_kb() - resident, 2048)
        self.assertEqual([caller.natctl.finish() for caller in callers.values()], [0, 0, 0])
        self.assertEqual(daemon.stop(), 0)


if __name__ == "__main__":
    bed.main()
