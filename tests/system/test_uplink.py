"""The uplink: what the log says of its changes, and that the state is right after a storm of them."""

import bed
import configs

UP = "UpLink IP Up\r\n"
DOWN = "UpLink IP Down\r\n"


class Uplink(bed.BedTest):
    CONFIG = configs.STATIC

    def route(self, action):
        self.dev.ip("route", action, "default", "via", "10.77.0.1")

    def test_changes(self):
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("sip")
        self.route("del")
        daemon.logged(DOWN)
        self.route("add")
        daemon.logged(UP)  # the same address counts as coming up again
        self.dev.ip("addr", "add", "10.77.0.3/24", "dev", "d0")
        self.dev.ip("route", "replace", "default", "via", "10.77.0.1", "src", "10.77.0.3")
        daemon.logged(UP, 2)
        self.dev.ip("link", "set", "d0", "down")
        daemon.logged(DOWN, 2)
        self.dev.ip("link", "set", "d0", "up")
        self.route("add")
        daemon.logged(UP, 3)
        self.assertEqual(natctl.ask("cs sip 198.51.100.9 10.77.0.2:5060")["flag"], 1)
        log = daemon.log()
        self.assertEqual((log.count(UP), log.count(DOWN)), (3, 2))

    def test_flaps_settle(self):
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("sip")
        flap = ["route del default via 10.77.0.1", "route add default via 10.77.0.1"]
        for batch, flag, last, before in [(flap * 100 + flap[:1], 2, DOWN, UP), (flap[1:] + flap * 100, 1, UP, DOWN)]:
            bed.subprocess.run(["ip", "-n", self.dev.name, "-batch", "-"], input="\n".join(batch), text=True,
                               check=True, timeout=bed.DEADLINE)
            self.assertEqual(natctl.ask("cs sip 198.51.100.9 10.77.0.2:5060")["flag"], flag)
            bed.wait_until(lambda: daemon.log().rfind(last) > daemon.log().rfind(before), f"{last!r} to be the last word")
        # Hundreds of changes at once are a few checks, not hundreds.
        self.assertLess(daemon.log().count(DOWN), 20)


if __name__ == "__main__":
    bed.main()
