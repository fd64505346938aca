"""The bed of the system tests: a network namespace of the test's own, the real daemon in it, and natctl driven through
pipes. Everything started here is ended here, by process id; every wait has a deadline."""

import ctypes
import json
import os
import pathlib
import queue
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

BUILD = pathlib.Path(os.environ.get("NATAGENT_BUILD_DIR", "build/release")).resolve()
SANITIZE = os.environ.get("NATAGENT_SANITIZE", "")
NATAGENTD = BUILD / "host" / "natagentd"
NATCTL = BUILD / "tools" / "natctl"
DEADLINE = 60 if SANITIZE else 20  # seconds until something that must come has not come

DASHES = "-" * 50 + "\r\n"


def run(*command, check=True):
    return subprocess.run([str(word) for word in command], check=check, capture_output=True, text=True,
                          timeout=DEADLINE)


def wait_until(condition, what, deadline=DEADLINE):
    """Polls a state that nothing announces, until it is there; returns what the condition gave."""
    end = time.monotonic() + deadline
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {deadline} s: {what}")
        time.sleep(0.01)


class Namespace:
    """A network namespace with a name of its own."""

    counter = 0

    def __init__(self, role):
        Namespace.counter += 1
        self.name = f"nat{os.getpid()}-{Namespace.counter}-{role}"
        run("ip", "netns", "add", self.name)
        self.ip("link", "set", "lo", "up")

    def ip(self, *words):
        return run("ip", "-n", self.name, *words)

    def command(self, *words):
        return ["ip", "netns", "exec", self.name, *[str(word) for word in words]]

    def close(self):
        run("ip", "netns", "del", self.name, check=False)


def connect(left, left_name, left_address, right, right_name, right_address):
    """A wire between two namespaces, up on both ends."""
    run("ip", "link", "add", left_name, "netns", left.name, "type", "veth", "peer", "name", right_name, "netns",
        right.name)
    for namespace, name, address in ((left, left_name, left_address), (right, right_name, right_address)):
        namespace.ip("addr", "add", address, "dev", name)
        namespace.ip("link", "set", name, "up")


def hang_agent(pid):
    """Stops the agent's thread and no other, until the process ends. It is the one that waits in epoll."""

    def waits(thread):
        place = pathlib.Path(f"/proc/{pid}/task/{thread}/wchan").read_text()  # the function of the kernel
        return "ep_poll" in place or "epoll" in place

    def find():
        return [int(thread) for thread in os.listdir(f"/proc/{pid}/task") if waits(thread)]

    thread = wait_until(find, "the agent's thread in its wait")[0]
    libc = ctypes.CDLL(None, use_errno=True)
    for request in (0x4206, 0x4207):  # PTRACE_SEIZE, PTRACE_INTERRUPT
        if libc.ptrace(request, thread, None, None) != 0:
            raise OSError(ctypes.get_errno(), "ptrace")

    def reap():
        try:
            while True:
                os.waitpid(thread, 0x40000000)  # __WALL
        except ChildProcessError:
            pass

    threading.Thread(target=reap, daemon=True).start()


class Program:
    """A started program whose standard error is gathered; ended by pid."""

    def __init__(self, command, env=None, stdin=None, stdout=None):
        self.process = subprocess.Popen([str(word) for word in command], stdin=stdin, stdout=stdout,
                                        stderr=subprocess.PIPE, text=True, bufsize=1, env=env)
        self.errors = []
        self.reader = threading.Thread(target=self._read_errors, daemon=True)
        self.reader.start()

    def _read_errors(self):
        for line in self.process.stderr:
            self.errors.append(line)

    @property
    def pid(self):
        return self.process.pid

    def said(self, text):
        return wait_until(lambda: any(text in line for line in self.errors), f"{text!r} on standard error")

    def signal(self, number):
        self.process.send_signal(number)

    def wait(self):
        code = self.process.wait(timeout=DEADLINE)
        self.reader.join(timeout=DEADLINE)
        return code

    def end(self):
        """Ends it if it still runs, and returns its exit code."""
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout=DEADLINE)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.reader.join(timeout=DEADLINE)
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream:
                stream.close()
        return self.process.returncode


class Daemon(Program):
    """natagentd in a namespace, with its configuration, sockets and log in a directory of its own."""

    def __init__(self, namespace, directory, config, wrap=()):
        self.directory = pathlib.Path(directory)
        self.runtime = self.directory / "run"
        self.log_path = self.directory / "natagent.log"
        self.config_path = self.directory / "natagentd.toml"
        self.config_path.write_text(config)
        super().__init__(namespace.command(*wrap, NATAGENTD, "--config", self.config_path, "--runtime-dir",
                                           self.runtime, "--log-dir", self.directory))
        try:
            wait_until(lambda: (self.runtime / "queue-102").exists() or self.process.poll() is not None, "the queues")
            if self.process.poll() is not None:
                raise AssertionError("natagentd ended: " + "".join(self.errors))
        except BaseException:
            self.end()
            raise

    def log(self):
        return self.log_path.read_bytes().decode() if self.log_path.exists() else ""

    def logged(self, text, times=1):
        """Waits until the log holds the text so often."""
        wait_until(lambda: self.log().count(text) >= times, f"{times} x {text!r} in the log")

    def reload(self, config):
        # In one step: the daemon may be reading for an earlier signal still.
        new = self.config_path.with_suffix(".new")
        new.write_text(config)
        new.replace(self.config_path)
        self.signal(signal.SIGHUP)

    def resident_kb(self):
        for line in pathlib.Path(f"/proc/{self.pid}/status").read_text().splitlines():
            if line.startswith("VmRSS"):
                return int(line.split()[1])
        raise AssertionError("no VmRSS")

    def stop(self):
        self.signal(signal.SIGTERM)
        return self.wait()


class Natctl(Program):
    """`natctl --json run`, fed through a pipe."""

    def __init__(self, runtime, timeout=None):
        words = [NATCTL, "--runtime-dir", runtime, "--json"]
        if timeout is not None:
            words += ["--timeout", timeout]
        super().__init__([*words, "run"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.lines = queue.Queue()
        self.output = threading.Thread(target=self._read_output, daemon=True)
        self.output.start()

    def _read_output(self):
        for line in self.process.stdout:
            self.lines.put(json.loads(line))

    def send(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def next(self):
        return self.lines.get(timeout=DEADLINE)

    def ask(self, line):
        """One command, and the object it prints."""
        self.send(line)
        return self.next()

    def connect(self, *parties):
        for party in parties:
            answer = self.ask(f"connect {party}")
            assert answer.get("party") == party and "error" not in answer, answer

    def finish(self):
        """No more commands: the exit code."""
        self.process.stdin.close()
        code = self.wait()
        self.output.join(timeout=DEADLINE)
        return code


class BedTest(unittest.TestCase):
    """A test with the namespace `dev`: 10.77.0.2/24 and, behind its one wire, the router 10.77.0.1."""

    CONFIG = ""
    wrap = ()  # what the daemon is started by

    def setUp(self):
        if os.geteuid() != 0:
            self.skipTest("network namespaces need root")
        self.directory = tempfile.mkdtemp(prefix="natagent-test-")
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)
        self.dev = self.namespace("dev")
        self.rtr = self.namespace("rtr")
        connect(self.dev, "d0", "10.77.0.2/24", self.rtr, "r0", "10.77.0.1/24")
        self.dev.ip("route", "add", "default", "via", "10.77.0.1")

    def namespace(self, role):
        namespace = Namespace(role)
        self.addCleanup(namespace.close)
        return namespace

    def started(self, program):
        self.addCleanup(program.end)
        return program

    def daemon(self, config=None):
        daemon = Daemon(self.dev, self.directory, self.CONFIG if config is None else config, self.wrap)
        self.addCleanup(self.end_well, daemon)
        return daemon

    def end_well(self, daemon):
        """However the test went: the daemon stops with 0, which a sanitizer's report turns into something else."""
        self.assertEqual(daemon.end(), 0, "".join(daemon.errors))

    def natctl(self, daemon, timeout=None):
        return self.started(Natctl(daemon.runtime, timeout))


def main():
    """As unittest's, but finding no test is a failure."""
    result = unittest.main(argv=[sys.argv[0], *sys.argv[1:]], exit=False).result
    sys.exit(not (result.testsRun and result.wasSuccessful()))
