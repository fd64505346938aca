"""A Debian 12 that runs systemd, booted by systemd-nspawn in a network namespace of the bed. It sees one directory of this
machine and writes into memory only; it is ended by process id."""

import ctypes
import os
import pathlib
import signal
import subprocess

import bed

TREE = pathlib.Path(os.environ.get("NATAGENT_SERVICE_TREE", "build/service/tree")).resolve()
INSTALLED = pathlib.Path(os.environ.get("NATAGENT_SERVICE_INSTALLED", "build/service/installed")).resolve()
libc = ctypes.CDLL(None)
HAS_SYSTEMD = pathlib.Path("/run/systemd/system").is_dir()


class ControlGroups:
    """Without a systemd outside, the container's control groups lie below groups of its own, which go with it."""

    def __init__(self, name):
        # Of each hierarchy, the group that this process is in.
        groups = [line.split(":", 2) for line in pathlib.Path("/proc/self/cgroup").read_text().splitlines()]
        roots = {"": "/sys/fs/cgroup/unified", "name=systemd": "/sys/fs/cgroup/systemd"}
        places = [roots[kind] + path for _, kind, path in groups if kind in roots]
        self.groups = [pathlib.Path(place) / name for place in places if os.path.isdir(place)]
        for group in self.groups:
            group.mkdir()

    def enter(self):
        for group in self.groups:
            (group / "cgroup.procs").write_text("0")

    def close(self):
        for group in self.groups:
            for directory, _, _ in os.walk(group, topdown=False):
                bed.wait_until(lambda place=directory: self.gone(place), f"{directory} left")

    @staticmethod
    def gone(place):
        try:
            os.rmdir(place)
        except OSError:
            return not os.path.exists(place)
        return True


class Container:
    def __init__(self, namespace, shown=INSTALLED / "usr/local", at="/usr/local"):
        name = f"{namespace.name}-debian"
        self.groups = None if HAS_SYSTEMD else ControlGroups(name)
        command = ["systemd-nspawn", "--quiet", f"--directory={TREE}", "--volatile=overlay", "--boot",
                   f"--machine={name}", "--register=no", "--console=pipe", f"--bind-ro={shown}:{at}",
                   f"--network-namespace-path=/run/netns/{namespace.name}"]
        if self.groups:
            command.append("--keep-unit")
        self.nspawn = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.PIPE, text=True, preexec_fn=self.prepare)
        self.leader = None
        try:
            bed.wait_until(self.is_up, "systemd in the container")
        except BaseException:
            self.close()
            raise

    def prepare(self):
        """In the process that becomes systemd-nspawn."""
        libc.prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG: it halts when the test is gone
        if self.groups:
            self.groups.enter()

    def is_up(self):
        if self.nspawn.poll() is not None:
            raise AssertionError("systemd-nspawn ended: " + self.nspawn.stderr.read())
        children = pathlib.Path(f"/proc/{self.nspawn.pid}/task/{self.nspawn.pid}/children").read_text().split()
        if not children:
            return False
        self.leader = children[0]
        return self.run("systemctl", "is-system-running", check=False).stdout.strip() in ("running", "degraded")

    def run(self, *command, check=True):
        """Runs a command in the container, as root."""
        return bed.run("nsenter", "--target", self.leader, "--mount", "--uts", "--ipc", "--net", "--pid", "--",
                       *command, check=check)

    def as_user(self, user, *command):
        return self.run("runuser", "-u", user, "--", *command, check=False)

    def write(self, path, text):
        """A file of the container's."""
        place = pathlib.Path(f"/proc/{self.leader}/root{path}")
        place.parent.mkdir(parents=True, exist_ok=True)
        place.write_text(text)

    def show(self, unit, name):
        return self.run("systemctl", "show", "--value", "--property", name, unit).stdout.strip()

    def journal(self, unit):
        return self.run("journalctl", "--unit", unit, "--output", "cat", "--no-pager").stdout

    def outside_pid(self, inside):
        """What a process of the container is called here."""
        for status in pathlib.Path("/proc").glob("[0-9]*/status"):
            try:
                names = [line.split()[1:] for line in status.read_text().splitlines() if line.startswith("NSpid:")][0]
                same = os.readlink(status.parent / "ns/pid") == os.readlink(f"/proc/{self.leader}/ns/pid")
            except OSError:
                continue  # it has ended meanwhile
            if same and names[-1] == inside:
                return int(names[0])
        raise AssertionError(f"no process {inside} in the container")

    def close(self):
        """Asks for a halt, then insists."""
        for end in (self.nspawn.terminate, self.nspawn.terminate, self.nspawn.kill):
            if self.nspawn.poll() is None:
                end()
                try:
                    self.nspawn.wait(timeout=bed.DEADLINE / 2)
                except subprocess.TimeoutExpired:
                    continue
        self.nspawn.stderr.close()
        if self.groups:
            self.groups.close()
