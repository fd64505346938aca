"""The Python module against the real daemon: both its clients are asked what libnatclient (through natctl) is asked."""

import asyncio
import contextlib
import os
import pathlib
import queue
import random
import signal
import socket
import struct
import subprocess
import sys
import threading
import unittest

import bed
import configs
import nat_bed

SOURCE = pathlib.Path(__file__).resolve().parents[2]
MODULE = SOURCE / "client" / "python"
sys.path.insert(0, str(MODULE))

import natclient  # noqa: E402
from natclient import CallServer, Item, Party, PortType, Way  # noqa: E402

FAR = "198.51.100.9"
SIP, OTHER = Item("10.77.0.2", 5060), Item("10.77.0.2", 5070)
MEDIA = [Item("10.77.0.2", 10000), Item("10.77.0.2", 10002)]

# Party, method and arguments, query id, and the flags that are answered (of an update its value).
CASES = [
    ("sip", "request_cs", (FAR, SIP), 1, [1]),
    ("sip", "request_cs", (FAR, SIP, PortType.TCP), 2, [1]),
    ("sip", "request_cs", (FAR, SIP, PortType.TLS), 3, [2]),
    ("sip", "request_cs", ("10.77.0.1", SIP), 2**64 - 1, [0]),
    ("sip", "request_cs_list", (FAR, [SIP, OTHER, SIP]), 5, [1, 2, 1]),
    ("sip", "request_cs_list", (FAR, []), 6, []),
    ("sip", "request_cs_list", ("localhost", [SIP, OTHER]), 7, [0]),
    ("cm", "request_cs", (FAR, SIP), 8, [2]),
    ("cm", "request_cs", ("localhost", SIP), 9, [0]),
    ("cc", "request_rtp", (FAR, MEDIA, CallServer.CC), 10, [1, 1]),
    ("cc", "request_reverse", ([Item("203.0.113.7", 20002)],), 11, [1]),
    ("cc", "request_close", (10,), None, None),
    ("cc", "request_reverse", ([Item("203.0.113.7", 20002)],), 12, [0]),
    ("cgi", "update", (85, ["a", "b"]), 13, 1),
]


def natctl_line(party, method, arguments, id):
    def words(argument):
        if isinstance(argument, Item):
            return [f"{argument.ip}:{argument.port}"]
        if isinstance(argument, list):
            return [word for element in argument for word in words(element)]
        if isinstance(argument, PortType):
            return [argument.name.lower()]
        return ["server=" + argument.name.lower()] if isinstance(argument, CallServer) else [str(argument)]

    if method == "update":
        return " ".join(["update", *words(list(arguments))])
    if method == "request_close":
        return f"close {party} id={arguments[0]}"
    return " ".join([method[8:].replace("_", "-"), party, *words(list(arguments)), f"id={id}"])


def as_natctl(party, answer):
    """An answer as natctl prints it."""
    kind = {natclient.CsAnswer: "cs", natclient.CsListAnswer: "cs-list", natclient.RtpAnswer: "rtp",
            natclient.ReverseAnswer: "reverse", natclient.UpdateAnswer: "update"}[type(answer)]
    printed = {"party": party, "answer": kind, "value": getattr(answer, "server", getattr(answer, "value", None))}
    if kind == "update":
        return {**printed, "type": answer.type}
    if kind == "cs":
        return {**printed, "id": answer.id, **answer.mapped._asdict(), "flag": answer.flag}
    return {**printed, "id": answer.id, "items": [item._asdict() for item in answer.items]}


def hold(daemon):
    """Nothing of the daemon runs any more until SIGCONT."""
    daemon.signal(signal.SIGSTOP)
    tasks = pathlib.Path(f"/proc/{daemon.pid}/task")
    bed.wait_until(lambda: {stat.read_text().rpartition(")")[2].split()[0] for stat in tasks.glob("*/stat")} == {"T"},
                   "all threads to stop")


LOOP = asyncio.new_event_loop()
unittest.addModuleCleanup(LOOP.close)


class Driven:
    """The asyncio client with the face of the blocking one."""

    def __init__(self, *arguments, **named):
        self._client = natclient.AsyncClient(*arguments, **named)

    def __getattr__(self, name):
        async def call(*arguments, **named):
            result = getattr(self._client, name)(*arguments, **named)
            return await result if asyncio.iscoroutine(result) else result

        return lambda *arguments, **named: LOOP.run_until_complete(call(*arguments, **named))

    def __enter__(self):
        self.open()
        return self

    def __exit__(self, *_):
        self.close()


CLIENTS = (natclient.Client, Driven)


class Answers(bed.BedTest):
    CONFIG = configs.STATIC

    def test_the_same_requests_have_the_same_answers_as_libnatclient(self):
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("sip", "cm", "cc")
        expected = []
        for *case, flags in CASES:
            natctl.send(natctl_line(*case))
            if flags is not None:
                answer = natctl.next()
                found = answer["items"] if "items" in answer else [answer]
                self.assertEqual(answer["value"] if flags == 1 else [item["flag"] for item in found], flags, case)
                expected.append(answer)
        self.assertEqual(natctl.finish(), 0)
        for kind in CLIENTS:
            with self.subTest(client=kind.__name__):
                clients = {party.name.lower(): kind(party, str(daemon.runtime)) for party in Party}
                answers = []
                for client in clients.values():
                    client.open()
                for party, method, arguments, id, flags in CASES:
                    result = getattr(clients[party], method)(*arguments, **({} if flags is None else {"id": id}))
                    answers += [] if flags is None else [as_natctl(party, result)]
                for client in clients.values():
                    client.close()
                self.assertEqual(answers, expected)
        demo = subprocess.run([sys.executable, "-m", "natclient", "cm", FAR, "10.77.0.2:10000"], capture_output=True,
                              env={**os.environ, "PYTHONPATH": MODULE, "NATAGENT_RUNTIME_DIR": daemon.runtime},
                              text=True, check=True, timeout=bed.DEADLINE)
        self.assertEqual(demo.stdout, "10.77.0.2:10000 -> 203.0.113.7:20000 MAPPED\n")

    def test_what_can_go_wrong(self):
        for kind in CLIENTS:
            with self.subTest(client=kind.__name__):
                daemon = self.daemon(configs.STATIC + "[access]\ncm_users = [\"nobody\"]\n")
                client = kind(Party.SIP, str(daemon.runtime), timeout=bed.DEADLINE)
                with client:
                    for party, error in [(Party.SIP, natclient.QueueTaken), (Party.CM, natclient.NotAllowed)]:
                        other = kind(party, str(daemon.runtime))
                        self.assertRaises(error, other.open)
                    for wrong in [("a b", SIP), (FAR, ("10.77.0", 1)), (FAR, ("10.77.0.2", 65536)), ("x" * 256, SIP)]:
                        self.assertRaises(ValueError, client.request_cs, *wrong)
                    self.assertRaises(ValueError, client.update, 85)
                    self.assertRaises(ValueError, client.request_rtp, FAR, [SIP] * 1025, 1)
                    self.assertRaises(natclient.Timeout, client.next_notice, 0.01)
                    hold(daemon)
                    self.assertRaises(natclient.Timeout, client.request_cs, FAR, OTHER, timeout=0.05)
                    with contextlib.ExitStack() as crowd:
                        def join():
                            peer = crowd.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET))
                            peer.setblocking(False)
                            return peer.connect_ex(str(daemon.runtime / "queue-115"))

                        while join() == 0:
                            pass
                        self.assertRaises(natclient.Timeout, kind(Party.CC, str(daemon.runtime)).open, 0.1)
                    daemon.signal(signal.SIGCONT)
                    # The late answer is not taken for the next one, and many that nobody reads hold nothing up.
                    for number in range(5000):
                        client.send(natclient.CsRequest(number, FAR, OTHER))
                    self.assertEqual(client.request_cs(FAR, SIP).mapped, ("203.0.113.7", 15060))
                    self.assertEqual(daemon.stop(), 0)
                    for _ in range(2):
                        self.assertRaises(natclient.HungUp, client.request_cs, FAR, SIP)
                    self.assertRaises(natclient.NoAgent, client.reconnect, 0.1)
                    daemon = self.daemon()
                    client.reconnect()
                    self.assertEqual(client.request_cs(FAR, SIP).flag, natclient.Flag.MAPPED)
                self.assertEqual(daemon.stop(), 0)

    def test_an_agent_that_speaks_wrongly_and_dies(self):
        def agent(listener):
            peer = listener.accept()[0]
            peer.send(natclient.encode(natclient.Welcome(112)))
            peer.recv(1000)
            peer.send(b"wrong")
            peer.recv(1, socket.MSG_PEEK)
            peer.send(natclient.encode(natclient.Notice(92, ("told",))))
            peer.close()  # with a request unread

        for kind in CLIENTS:
            with self.subTest(client=kind.__name__), socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
                listener.settimeout(bed.DEADLINE)
                listener.bind(f"{self.directory}/queue-112")
                listener.listen()
                thread = threading.Thread(target=agent, args=[listener])
                thread.start()
                with kind(Party.SIP, self.directory, timeout=bed.DEADLINE) as client:
                    self.assertRaises(natclient.FrameError, client.request_cs, FAR, SIP)
                    self.assertRaises(natclient.HungUp, client.request_cs, FAR, SIP)
                    self.assertEqual(client.next_notice(), natclient.Notice(92, ("told",)))
                    self.assertRaises(natclient.HungUp, client.next_notice)
                thread.join(bed.DEADLINE)
                os.unlink(f"{self.directory}/queue-112")

    def test_many_tasks_at_once(self):
        daemon = self.daemon()

        async def ask():
            async with natclient.AsyncClient(Party.SIP, str(daemon.runtime), timeout=bed.DEADLINE) as client:
                answers = await asyncio.gather(*(client.request_cs(FAR, (SIP, OTHER)[number % 2])
                                                 for number in range(3000)))
                self.assertEqual([answer.flag for answer in answers], [1, 2] * 1500)
                self.assertEqual(len({answer.id for answer in answers}), 3000)
                twice = await asyncio.gather(client.request_cs(FAR, SIP, id=1), client.request_cs(FAR, SIP, id=1),
                                             return_exceptions=True)
                self.assertEqual([type(result) for result in twice], [natclient.CsAnswer, ValueError])
                hold(daemon)
                waiting = [asyncio.ensure_future(call) for call in (client.request_cs(FAR, SIP), client.next_notice())]
                for _ in range(9):  # turns of the loop, until both wait
                    await asyncio.sleep(0)
                client.close()
                for result in await asyncio.gather(*waiting, return_exceptions=True):
                    self.assertIsInstance(result, natclient.HungUp)
                daemon.signal(signal.SIGCONT)

        asyncio.run(ask())


class Notices(nat_bed.NatBedTest):
    def test_notices_and_the_example_on_epoll(self):
        server = self.scripted(lambda port: ("mapped", 45060))
        daemon = self.daemon(nat_bed.config())
        command = [bed.BUILD / "tests" / "epoll_client", nat_bed.OBSERVER, *SIP, daemon.runtime]
        example = self.started(bed.Program(command, stdout=subprocess.PIPE))
        lines = queue.Queue()
        threading.Thread(target=lambda: [lines.put(line.strip()) for line in example.process.stdout],
                         daemon=True).start()

        def said(count):
            return [lines.get(timeout=bed.DEADLINE) for _ in range(count)]

        self.assertEqual(said(2)[0], "connected")  # the answer depends on whether STUN was faster
        with natclient.Client(Party.CM, str(daemon.runtime)) as cm, Driven(Party.CC, str(daemon.runtime)) as cc:
            bed.wait_until(lambda: server.asked > 1, "the first answer to be taken")
            server.answer = lambda port: ("mapped", 45061)
            self.assertEqual([client.next_notice(bed.DEADLINE).type for client in (cm, cc)], [92, 92])
            self.assertEqual(said(2), ["notice 92", f"mapped {nat_bed.PUBLIC}:45061"])
        self.assertEqual(daemon.stop(), 0)
        self.assertEqual(said(1), ["disconnected"])
        self.daemon(configs.STATIC)
        self.assertEqual(said(2), ["connected", "mapped 203.0.113.7:15060"])
        example.signal(signal.SIGTERM)
        self.assertEqual(example.wait(), 0, example.errors)


class Codec(unittest.TestCase):
    """The module's codec takes and refuses what the agent's own does, for the same reasons."""

    @staticmethod
    def packets(kept):
        rand = random.Random(1)
        yield from kept
        for frame in kept:
            yield from (frame[:length] for length in range(len(frame)))
            yield frame + b"x" * 256
            for _ in range(300):
                changed = bytearray(frame)
                place = rand.choice([rand.randrange(len(frame)), rand.randrange(24)])
                changed[place] = rand.choice([*range(9), 127, 255])
                yield bytes(changed)
        header = struct.Struct("=IHHQII")
        for kind, count, size in [(2, 1024, 8), (4, 1025, 8), (0x82, 1024, 20), (0x82, 1025, 20), (6, 64, 2),
                                  (0x91, 65, 2)]:
            yield header.pack(0x3154414E, 1, kind, 7, 0, count) + bytes(4 if size == 2 else 0) + bytes(count * size)

    @staticmethod
    def taken(packet, way):
        try:
            record = natclient.decode(packet, way)
        except natclient.FrameError as fault:
            return None, fault.reason
        return record, 0

    def test_agrees_with_the_agents_codec(self):
        kept = [path.read_bytes() for path in sorted((SOURCE / "tests" / "fuzz" / "corpus" / "frames").iterdir())]
        packets = list(self.packets(kept))
        oracle = subprocess.run([bed.BUILD / "tests" / "frame_oracle"], check=True, capture_output=True,
                                input=b"".join(struct.pack("=H", len(packet)) + packet for packet in packets),
                                timeout=bed.DEADLINE)
        verdicts = oracle.stdout.decode().splitlines()
        self.assertEqual(len(verdicts), len(packets))
        accepted = 0
        for number, (packet, verdict) in enumerate(zip(packets, verdicts)):
            mine = [self.taken(packet, way) for way in Way]
            self.assertEqual([reason for _, reason in mine], [int(reason) for reason in verdict.split()], packet)
            for (record, _), way in zip(mine, Way):
                if record is not None:
                    accepted += 1
                    packed = natclient.encode(record)
                    self.assertEqual(natclient.decode(packed, way), record)
                    self.assertTrue(packed == packet or number >= len(kept), record)
        self.assertGreater(accepted, len(kept))


if __name__ == "__main__":
    bed.main()
