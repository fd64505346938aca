"""The library's life under a host where it takes a network: unloaded in the middle of look-ups, reloaded in a storm."""

import subprocess

import bed
import silent_dns


class Host(silent_dns.SilentDnsTest):
    def run_in_bed(self, name):
        program = bed.BUILD / "tests" / "system" / "lifecycle_tests"
        result = subprocess.run(self.dev.command("env", "NATAGENT_BED=1", program, f"--gtest_filter=Lifecycle.{name}"),
                                capture_output=True, text=True, timeout=250, check=False)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn("[  PASSED  ] 1 test.", result.stdout)

    def test_unloaded_in_mid_look_up(self):
        self.run_in_bed("UnloadedInMidLookUp")

    def test_reload_storm(self):
        self.run_in_bed("ReloadStormNeverMixesTwoConfigurations")


if __name__ == "__main__":
    bed.main()
