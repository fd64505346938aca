"""Configuration-update notices of the CGI party, and their acknowledgement."""

import bed
import configs


class Updates(bed.BedTest):
    CONFIG = configs.STATIC

    def test_acknowledged_with_one(self):
        daemon = self.daemon()
        natctl = self.natctl(daemon)
        natctl.connect("sip")
        daemon.logged("Loaded Nat Settings for Sip UA \r\n")  # what a turn logs is written behind its answers
        before = daemon.log()
        for request, kind in [("update 85 a b", 85), ("update 92", 92), ("update 93 x value=77", 93),
                              ("update 84 value=0", 84), ("update 4294967295", 4294967295)]:
            with self.subTest(request=request):
                self.assertEqual(natctl.ask(request), {"party": "cgi", "answer": "update", "type": kind, "value": 1})
        # Nothing is read again, and nobody else is told.
        self.assertEqual(natctl.ask("cs sip 198.51.100.9 10.77.0.2:5060")["answer"], "cs")
        self.assertTrue(daemon.log().startswith(before))
        self.assertNotIn("Update Udp NatSettings", daemon.log()[len(before):])
        self.assertEqual(natctl.finish(), 0)


if __name__ == "__main__":
    bed.main()
