"""The life of the Debian packages in a booted Debian 12: installed, reloaded, upgraded, removed, purged."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

import bed
import configs
import nat_bed
from container import Container

UNIT = "natagentd.service"
CONFIG = "/etc/natagent/natagentd.toml"
PACKAGES = pathlib.Path("build/package").resolve()
# Of what package management, systemd and the kernel write, and of the user, who stays.
OTHERS = "/(proc|sys|dev|run|tmp|packages|newer|var/(cache|lib/(apt|dpkg|systemd)|log/(apt|journal|dpkg|wtmp)).*|" \
         "etc/(passwd|shadow|group|gshadow|subuid|subgid)-?)(/.*)?"
# The same packages with a later version.
NEWER = """set -e
mkdir /newer
for package in "$@"; do
  dpkg-deb --raw-extract "$package" /newer/tree
  sed -i -e 's/^Version: .*/&+1/' -e 's/(= \\([^)]*\\))/(= \\1+1)/g' /newer/tree/DEBIAN/control
  dpkg-deb --build /newer/tree "/newer/$(basename "$package")"
  rm -r /newer/tree
done
"""


class Package(nat_bed.NatBedTest):
    def setUp(self):
        super().setUp()
        self.debian = Container(self.dev, PACKAGES, "/packages")
        self.addCleanup(self.debian.close)
        self.packages = [path for path in sorted(PACKAGES.glob("*.deb")) if "-dbgsym_" not in path.name]

    def apt(self, *words):
        said = self.debian.run("apt-get", "--yes", "--quiet", *words, check=False)
        self.assertEqual(said.returncode, 0, said.stdout + said.stderr)

    def files(self):
        return set(self.debian.run("find", "/", "-xdev", "-regextype", "posix-extended", "-regex", OTHERS, "-prune", "-o",
                                   "-print").stdout.splitlines())

    def runs(self):
        self.assertEqual(self.debian.run("systemctl", "is-active", UNIT, check=False).stdout, "active\n",
                         self.debian.journal(UNIT))
        return self.debian.show(UNIT, "MainPID")

    def answers(self, *texts):
        said = self.debian.as_user("voip", "natctl", "cs", "sip", "198.51.100.9", "10.77.0.2:5060")
        self.assertTrue(all(text in said.stdout for text in texts), said.stdout + said.stderr)

    def test_life(self):
        before = self.files()
        self.apt("install", *[f"/packages/{path.name}" for path in self.packages])
        first = self.runs()
        self.assertEqual(self.debian.show(UNIT, "UnitFileState"), "enabled")
        self.debian.run("useradd", "--groups", "natagent", "voip")
        self.answers("no mapping known")
        self.assertEqual(self.debian.run("natagentd", "--check").stdout, f"{CONFIG}: ok\n")

        self.debian.run("python3", "-c", "import natclient")

        self.debian.write(CONFIG, configs.STATIC)
        self.debian.run("systemctl", "reload", UNIT)
        bed.wait_until(lambda: "changed to the settings of" in self.debian.journal(UNIT), "the new settings")
        self.answers("203.0.113.7:15060")
        self.assertEqual(self.runs(), first)

        self.debian.run("sh", "-c", NEWER, "newer", *[f"/packages/{path.name}" for path in self.packages])
        self.apt("install", *[f"/newer/{path.name}" for path in self.packages])
        self.assertNotEqual(self.runs(), first)
        self.answers("203.0.113.7:15060")

        names = [path.name.split("_")[0] for path in self.packages]
        self.apt("remove", *names)
        self.assertNotEqual(self.debian.run("systemctl", "is-active", UNIT, check=False).stdout, "active\n")
        # The configuration, that the unit was enabled, and data.
        self.assertEqual(self.files() - before, {
            "/etc/natagent", CONFIG, f"/etc/systemd/system/multi-user.target.wants/{UNIT}", "/var/log/natagent",
            "/var/log/natagent/natagent.log", "/var/lib/natagent", "/var/lib/natagent/last-good.toml",
            "/var/lib/natagent/state"})

        self.apt("purge", "natagent")
        self.assertEqual(self.files() - before, set())
        self.assertEqual(self.debian.run("find", "/run/natagent", check=False).stdout, "")


if __name__ == "__main__":
    bed.main()
