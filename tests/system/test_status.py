"""What an operator sees: natctl status, explain for every cause of an answer, monitor, and readers who mean harm."""

import json
import os
import re
import select
import socket
import stat

import bed
import configs
import nat_bed
import silent_dns
from nat_bed import OBSERVER, PUBLIC, SERVER

FAR = "198.51.100.9"
SIP = "10.77.0.2:5060"
MEDIA = "10.77.0.2:10000"


def natctl(daemon, *words, code=0):
    """One command, and the JSON objects it prints."""
    done = bed.run(bed.NATCTL, "--runtime-dir", daemon.runtime, "--timeout", bed.DEADLINE, *words, "--json", check=False)
    assert done.returncode == code, (words, done.returncode, done.stdout, done.stderr)
    return [json.loads(line) for line in done.stdout.splitlines()]


def explain(daemon, *words):
    return natctl(daemon, "explain", *words)[0]


class Reader:
    """A plain connection to status.sock."""

    def __init__(self, daemon):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(bed.DEADLINE)
        self.socket.connect(str(daemon.runtime / "status.sock"))
        self.lines = self.socket.makefile("r")

    def ask(self, text):
        self.socket.sendall(text.encode() + b"\n")
        return json.loads(self.lines.readline())


class Status(silent_dns.SilentDnsTest):
    CONFIG = configs.STATIC
    RESOLVER = "timeout:1 attempts:1"

    def reader(self, daemon):
        reader = Reader(daemon)
        self.addCleanup(reader.socket.close)
        return reader

    def check(self, daemon, words, reason, advice=""):
        with self.subTest(words=words):
            told = explain(daemon, *words.split())
            self.assertEqual(told["reason"], reason, told)
            self.assertIn(advice, told["advice"])

    def test_every_cause_is_explained_and_nothing_is_done(self):
        self.dns(("pbx.example", FAR))
        self.dev.ip("route", "add", "unreachable", "192.0.2.0/24")
        daemon = self.daemon(configs.STATIC.replace("gw_public_port_end   = 20199", "gw_public_port_end   = 20149"))
        self.check(daemon, f"sip {FAR} {SIP}", "no public side", "let the SIP user agent connect")
        self.check(daemon, f"sip {FAR} {MEDIA} rtp", "call server not connected", "let the party sip connect")
        talk = self.natctl(daemon)
        talk.connect("sip")
        self.check(daemon, f"sip {FAR} {MEDIA} rtp", "media settings not loaded", "let the party cm connect")
        talk.connect("cm", "cc")
        daemon.logged("Error: Loading Congif File Failed")  # of cc, the last to connect
        before = daemon.log()
        for words, reason, advice in [
            (f"sip {FAR} {SIP}", "configured", "nothing"),
            (f"sip {FAR} {SIP} tcp", "configured", "nothing"),
            (f"sip {FAR} {SIP} tls", "no public side", "no settings for TLS"),
            (f"sip 10.77.0.1 {SIP}", "attached network", "local network"),
            (f"sip 172.20.1.1 {SIP}", "excluded", "nat.exclusions"),
            (f"sip 192.0.2.1 {SIP}", "no route", "a route"),
            (f"sip {FAR} 10.77.0.2:0", "port 0", "port in use"),
            (f"sip {FAR} 10.77.0.2:5070", "other port", "nat.sip_udp_port to 5070"),
            (f"cc {FAR} {SIP}", "not a signalling party", "party sip"),
            (f"sip pbx.example {SIP}", "configured", "nothing"),
            (f"sip nobody.example {SIP}", "configured", "nothing"),
            (f"cc {FAR} {MEDIA} rtp", "configured", "nothing"),
            (f"cc {FAR} 10.77.0.2:10160 rtp", "above the public range", "gw_public_port_end"),
            (f"cc {FAR} 10.77.0.2:9000 rtp", "outside the RTP range", "rtp_port_start"),
            (f"cc {FAR} 10.77.0.9:10000 rtp", "other local address", "10.77.0.9 is not"),
            (f"cc 10.77.0.1 {MEDIA} rtp", "attached network", ""),
            (f"cc 172.20.1.1 {MEDIA} rtp", "excluded", ""),
            (f"cc 192.0.2.1 {MEDIA} rtp", "no route", ""),
            (f"q113 {FAR} {MEDIA} rtp", "call server not connected", "sip, cm or cc"),
        ]:
            self.check(daemon, words, reason, advice)
        steps = {step["step"]: step["text"] for step in explain(daemon, "sip", "pbx.example", SIP)["steps"]}
        self.assertEqual(steps["destination"], f"pbx.example is {FAR}")
        self.assertEqual(steps["route"], "leaves from 10.77.0.2 on d0 through the gateway 10.77.0.1")
        self.assertIn("2 in force, none matches", steps["exclusions"])
        self.assertIn("5060-5060 is seen as 203.0.113.7:15060-15060", steps["mapping"])
        # Nothing was logged, recorded or counted, and each answer is the one that a party then gets.
        self.assertEqual(daemon.log(), before)
        self.assertEqual(natctl(daemon, "status", "calls"), [])
        self.assertEqual(natctl(daemon, "status", "counters"), [])
        self.assertEqual(talk.ask(f"cs sip {FAR} {SIP}")["port"], 15060)
        # The hang-up of cc takes the settings that cm had loaded.
        talk.ask("disconnect cc\nconnect cc")
        self.check(daemon, f"cm {FAR} {MEDIA} rtp", "media settings dropped", "let the party cm connect anew")
        talk.send("disconnect cm")
        talk.send("disconnect cc")
        talk.connect("cc")
        self.check(daemon, f"cc {FAR} {MEDIA} rtp", "media settings not loaded", "let the party cm connect")
        natctl(daemon, "explain", "cgi", FAR, SIP, code=2)
        natctl(daemon, "status", "party", code=2)

    def test_interface_that_is_not_there_and_warnings_at_load(self):
        daemon = self.daemon('[media]\nrtp_port_start = 5000\nrtp_port_end = 5099\n[nat]\ngw_interface = "d7"\n')
        talk = self.natctl(daemon)
        talk.connect("sip")
        self.assertEqual(talk.ask(f"rtp sip {FAR} {MEDIA}")["items"][0]["flag"], 0)
        self.assertEqual(talk.ask(f"cs sip nobody.example {SIP}")["flag"], 2)
        talk.connect("cm")
        self.check(daemon, f"cm {FAR} {MEDIA} rtp", "interface without address", "gw_interface")
        self.check(daemon, f"sip {FAR} {SIP}", "no public side", "sip_udp_public_ip")
        for warning in ("no public side is configured for the SIP port UDP 5060, TCP 5060",
                        "the party sip asks for media ports while no media settings are loaded",
                        "name nobody.example has no IPv4 address",
                        "gw_interface d7: no such interface is up",
                        "media ports 5000 to 5099 have no public side",
                        "media ports 5000 to 5099 include the SIP port UDP 5060"):
            daemon.said(warning)

    def test_status_tells_what_was_done(self):
        daemon = self.daemon()
        self.assertEqual(stat.S_IMODE(os.stat(daemon.runtime / "status.sock").st_mode), 0o660)
        talk = self.natctl(daemon)
        talk.connect("sip", "cm", "cc")
        talk.ask(f"cs sip {FAR} {SIP}")
        talk.ask(f"cs-list sip 172.20.1.1 {SIP} 10.77.0.2:5061")
        for call in range(300):
            talk.ask(f"rtp cc {FAR} {MEDIA} 10.77.0.2:10002 id={call}")
        talk.send("cs sip slow.example " + SIP)
        bed.wait_until(lambda: natctl(daemon, "status", "names"), "the name that waits")
        status = natctl(daemon, "status")[0]
        self.assertEqual(status["uplink"], {"address": "10.77.0.2", "interface": "d0", "gateway": "10.77.0.1"})
        self.assertEqual((status["calls"], status["exclusions"]["rules"], status["stun"]["state"]), (300, 2, "off"))
        self.assertEqual({status[part]["state"] for part in ("signalling", "media", "exclusions")}, {"loaded"})
        parties = {row["party"]: row for row in natctl(daemon, "status", "parties")}
        sip = parties["sip"]
        self.assertEqual((sip["pid"], sip["uid"], sip["program"]), (talk.pid, os.getuid(), "natctl"))
        self.assertEqual(sip["requests"], {"cs": 2, "cs-list": 1})
        self.assertEqual(sip["outcomes"], {"mapped": 1, "no translation needed": 2})
        self.assertFalse(parties["cgi"]["connected"])
        calls = natctl(daemon, "status", "calls")  # more than one answer holds
        self.assertEqual([row["id"] for row in calls], [call for call in range(300) for _ in range(2)])
        self.assertEqual(calls[1], {"id": 0, "local": "10.77.0.2:10002", "public": "203.0.113.7:20002"})
        self.assertIn({"ip": "10.0.0.0", "mask": "255.0.0.0"}, natctl(daemon, "status", "exclusions"))
        self.assertIn({"mapping": "media", "by": "configuration", "party": "cm", "local": "10.77.0.2:10000-10199",
                       "public": "203.0.113.7:20000-20199"}, natctl(daemon, "status", "mappings"))
        self.assertIn({"counter": "items", "party": "sip", "kind": "cs-list", "outcome": "no translation needed",
                       "reason": "excluded", "value": 2}, natctl(daemon, "status", "counters"))
        config = natctl(daemon, "status", "config")[0]
        self.assertEqual((config["nat"]["sip_udp_public_port"], config["media"]["rtp_port_end"]), (15060, 10199))
        self.assertIn(str(daemon.config_path), config["origin"])
        # For people, and for a scraper.
        for words in ((), ("parties",), ("mappings",), ("calls",), ("names",), ("counters",), ("config",), ("stun",),
                      ("uplink",), ("exclusions",)):
            text = bed.run(bed.NATCTL, "--runtime-dir", daemon.runtime, "status", *words).stdout
            self.assertRegex(text, r"\A([^\x00-\x09\x0b-\x1f\x7f]+\n)+\Z")
        metrics = bed.run(bed.NATCTL, "--runtime-dir", daemon.runtime, "status", "--format", "openmetrics").stdout
        self.assertIn('natagent_requests_total{party="cc",kind="rtp"} 300\n', metrics)
        self.assertTrue(metrics.endswith("# EOF\n"))
        families = set(re.findall(r"# TYPE (\S+)", metrics))
        for line in metrics.splitlines():
            self.assertTrue(line.startswith("#") or re.sub("(_total|_info)$", "", re.split("[ {]", line)[0]) in families)

    def test_monitor(self):
        daemon = self.daemon()
        monitor = self.reader(daemon)
        monitor.ask('{"monitor":true,"log":true}')

        def next_of(event):
            while True:
                told = json.loads(monitor.lines.readline())
                self.assertRegex(told["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
                if told["event"] == event:
                    return told

        talk = self.natctl(daemon)
        talk.connect("sip")
        self.assertEqual(next_of("connected")["party"], "sip")
        self.assertEqual(next_of("log")["line"], "Connected Call Agent Sip UA ")
        self.assertEqual(next_of("settings loaded")["loaded"], True)
        other = self.natctl(daemon)
        other.ask("connect sip")
        self.assertEqual(next_of("refused")["reason"], "queue taken")
        talk.ask("update 85")
        self.assertEqual(next_of("notice")["type"], 85)
        daemon.reload(configs.STATIC.replace("15060", "15070"))
        self.assertIsNone(next_of("settings loaded")["party"])
        self.dev.ip("route", "del", "default")
        self.assertEqual(next_of("uplink")["now"], None)
        talk.send("disconnect sip")
        self.assertEqual(next_of("hung up")["party"], "sip")
        # natctl prints the same until it is interrupted.
        watch = self.started(bed.Program([bed.NATCTL, "--runtime-dir", daemon.runtime, "monitor"],
                                         stdout=bed.subprocess.PIPE))
        bed.wait_until(lambda: talk.ask("connect sip\ndisconnect sip") and select.select([watch.process.stdout], [], [], 0)[0],
                       "an event")
        self.assertIn("  party sip  pid ", watch.process.stdout.readline())
        watch.signal(bed.signal.SIGINT)
        self.assertEqual(watch.wait(), 0)

    def test_hostile_readers_hurt_nobody(self):
        daemon = self.daemon()
        readers = [self.reader(daemon) for _ in range(64)]
        for reader in readers:
            reader.ask('{"get":"uplink"}')
        self.assertIn("64 readers already", json.loads(self.reader(daemon).lines.readline())["error"])
        for text in ("", "{", "[1]", '{"get":1}', '{"get":"calls","next":[1]}', '{"explain":{}}', "\xff" * 100,
                     '{"explain":{"party":"sip","dest":"a b","ip":"1.2.3.4","port":1}}', "[" * 4000):
            self.assertIn("error", readers[0].ask(text))
        readers[1].socket.sendall(b"x" * 5000)  # a line without end
        self.assertIn("more than 4096 bytes", json.loads(readers[1].lines.readline())["error"])
        self.assertEqual(readers[1].lines.readline(), "")
        for reader in readers[2:20]:  # they ask and never read, or never finish
            reader.socket.setblocking(False)
            try:
                while True:
                    reader.socket.send(b'{"get":"config"}\n' * 1000)
            except BlockingIOError:
                pass
        for reader in readers[20:40]:
            reader.socket.sendall(b'{"get"')
        self.assertEqual(readers[50].ask('{"get":"uplink"}')["value"]["interface"], "d0")
        self.assertLess(daemon.resident_kb(), 100_000 if not bed.SANITIZE else 1_000_000)
        talk = self.natctl(daemon)
        talk.connect("sip")
        self.assertEqual(talk.ask(f"cs sip {FAR} {SIP}")["port"], 15060)


class StunStatus(nat_bed.NatBedTest):
    def test_learnt_mappings_and_their_changes(self):
        server = self.scripted(lambda port: ("mapped", port))
        daemon = self.daemon(nat_bed.config(gw=True, rtp_end=10003))
        self.assertEqual(explain(daemon, "sip", OBSERVER, SIP)["reason"], "no public side")
        talk = self.natctl(daemon)
        talk.connect("sip", "cm")
        bed.wait_until(lambda: natctl(daemon, "status", "stun")[0].get("learnt") == 5, "the mappings")
        stun = natctl(daemon, "status", "stun")[0]
        self.assertEqual((stun["state"], stun["server"], stun["ports"]), ("works", f"{SERVER}:3478", 5))
        ports = {row["port"]: row for row in natctl(daemon, "status", "mappings") if "port" in row}
        self.assertEqual((ports[5060]["mapped"], ports[5060]["media"]), (f"{PUBLIC}:45060", False))
        self.assertLess(ports[10000]["age_s"], bed.DEADLINE)
        told = explain(daemon, "cm", OBSERVER, MEDIA, "rtp")
        self.assertEqual((told["reason"], told["public"]), ("learnt", f"{PUBLIC}:40000"))
        reader = Reader(daemon)
        self.addCleanup(reader.socket.close)
        reader.ask('{"monitor":true}')
        server.answer = lambda port: ("mapped", port + 1)
        while (event := json.loads(reader.lines.readline()))["event"] != "mapping changed" or event["port"] != 5060:
            pass
        self.assertEqual((event["before"], event["now"]), (f"{PUBLIC}:45060", f"{PUBLIC}:45061"))
        server.answer = lambda port: None
        daemon.reload(nat_bed.config(gw=True, rtp_end=10005))
        bed.wait_until(lambda: explain(daemon, "cm", OBSERVER, "10.77.0.2:10004", "rtp")["reason"] == "not learnt", "it")
        self.assertEqual(explain(daemon, "sip", OBSERVER, "10.77.0.2:5062")["reason"], "not watched")


if __name__ == "__main__":
    bed.main()
