# Processes for the end-to-end tests: peers, readiness read from /proc, and the agent.
# VANTRELO_KEEP_PEERS=1 keeps the peers' directories and logs.

import contextlib
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import fstrm

LOOPBACK = "127.0.0.1"
TIMEOUT = 15.0


def free_port():
    # A loopback port free for TCP and UDP (the DNS servers need both).
    while True:
        with socket.socket() as tcp, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
            tcp.bind((LOOPBACK, 0))
            with contextlib.suppress(OSError):
                udp.bind(tcp.getsockname())
                return tcp.getsockname()[1]


def listening(where):
    # Whether an IPv4 socket listens on a port (int) or a Unix socket on a path (str), as /proc
    # shows (TCP state 0A, Unix flag __SO_ACCEPTCON).
    with open("/proc/net/" + ("tcp" if isinstance(where, int) else "unix")) as handle:
        return any(f[1].endswith(":%04X" % where) and f[3] == "0A" if isinstance(where, int) else
                   len(f) > 7 and f[7] == where and int(f[3], 16) & 0x10000
                   for f in (line.split() for line in handle))


def wait_until(predicate, what, timeout=TIMEOUT, peer=None, interval=0.05):
    # Polls predicate until true; fails early when the peer has died.
    deadline = time.monotonic() + timeout
    while not predicate():
        died = peer is not None and not peer.running()
        if died or time.monotonic() > deadline:
            raise AssertionError("%s before %s\n%s" % (
                "%s exited (code %s)" % (peer.name, peer.popen.poll()) if died else
                "timed out after %.1f s" % timeout, what, peer.log()[-3000:] if peer else ""))
        time.sleep(interval)


def run_tool(argv):
    argv = [str(arg) for arg in argv]
    done = subprocess.run(argv, stdin=subprocess.DEVNULL, text=True, capture_output=True,
                          timeout=60)
    if done.returncode != 0:
        raise AssertionError("%s ended with code %d: %s%s" % (" ".join(argv), done.returncode,
                                                              done.stdout, done.stderr))
    return done.stdout


def require(*tools, root=False):
    missing = [tool for tool in tools if shutil.which(tool) is None]
    if missing or root and os.geteuid() != 0:
        raise unittest.SkipTest("needs root and scripts/install-test-peers: %s" %
                                " ".join(missing or tools))


class Peer:
    # A program in a temporary directory and a process group of its own, its output in
    # <name>.log, with a fresh loopback port unless given one. Entering starts it and waits until
    # it is ready; leaving stops the whole group (SIGKILL after a bounded wait, so nothing
    # outlives a failed test) and removes the directory. Not thread-safe.

    name, popen, port = "peer", None, None

    def path(self, name):
        return os.path.join(self.workdir, name)

    def write(self, name, text):
        pathlib.Path(self.path(name)).write_text(text)
        return self.path(name)

    def spawn(self, argv, ready_on, also_logged=""):
        # Ready once it listens on every port (int) and Unix socket path (str) of ready_on and
        # has logged also_logged.
        with open(self.path(self.name + ".log"), "ab") as log:
            self.popen = subprocess.Popen([str(arg) for arg in argv], cwd=self.workdir,
                                          stdout=log, stdin=subprocess.DEVNULL,
                                          stderr=subprocess.STDOUT, start_new_session=True)
        wait_until(lambda: all(map(listening, ready_on)) and also_logged in self.log(),
                   "%s listening on %s %s" % (self.name, ready_on, also_logged), peer=self)

    def running(self):
        return self.popen is not None and self.popen.poll() is None

    def stop(self, signum=signal.SIGTERM):
        for kill in (signum, signal.SIGKILL) if self.popen else ():
            with contextlib.suppress(ProcessLookupError, subprocess.TimeoutExpired):
                os.killpg(self.popen.pid, kill)
                self.popen.wait(5)

    def read(self, name):
        # A file of the peer's directory as text, "" while it is missing.
        path = pathlib.Path(self.path(name))
        return path.read_text("utf-8", "replace") if path.exists() else ""

    def log(self):
        return self.read(self.name + ".log")

    def __enter__(self):
        self.port = self.port or free_port()
        self.address = (LOOPBACK, self.port)
        self.workdir = tempfile.mkdtemp(prefix="vt-%s-" % self.name)
        try:
            self.start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *exc):
        try:
            self.stop()
        finally:
            if os.environ.get("VANTRELO_KEEP_PEERS") != "1":
                shutil.rmtree(self.workdir, ignore_errors=True)


class Agent(Peer):
    # `vantrelo <command>` on a configuration given as lines; ready once it listens on every
    # listener and metrics port the lines name. Restartable in the same directory, so a second
    # run loads the queue file of the first. Not thread-safe.

    name = "vantrelo"

    def __init__(self, config_lines, command="run"):
        self.config_lines, self.command = config_lines, command

    def start(self):
        config = self.write("vantrelo.conf", "\n".join(self.config_lines))
        self.spawn([os.environ["VANTRELO_BIN"], self.command, config], [
            int(w[3]) if w[1] == "ipv4" else w[2] for w in map(str.split, self.config_lines)
            if w[0] in ("listener", "metrics-listen")])

    def stop(self):
        # SIGTERM; the agent must end by itself with code 0 and log "Stopped" for this run.
        if not self.running():
            return
        stopped = self.log().count("[INFO] Stopped\n")
        os.killpg(self.popen.pid, signal.SIGTERM)
        try:
            code = self.popen.wait(20)
        except subprocess.TimeoutExpired:
            code = "a time-out"
        super().stop()
        if code != 0 or self.log().count("[INFO] Stopped\n") != stopped + 1:
            raise AssertionError("vantrelo ended with %s without logging Stopped:\n%s" %
                                 (code, self.log()[-3000:]))

    def wait_log(self, text, count=1):
        wait_until(lambda: self.log().count(text) >= count,
                   "%d log line(s) with %r" % (count, text), peer=self)

    def metrics(self):
        # The "Metrics: " lines, each as {group: [{key: value}]}.
        found = []
        for line in self.log().split("Metrics: ")[1:]:
            found.append({})
            for name, body in re.findall(r"(\w+)\[([^\]]*)\]", line.split("\n", 1)[0]):
                fields = (pair.split("=", 1) for pair in body.split())
                found[-1].setdefault(name, []).append(
                    {k: int(v) if v.isdigit() else v for k, v in fields})
        return found

    def wait_metrics(self, predicate, what, timeout=TIMEOUT, since=0):
        # Waits for a metrics line (after the first since) that satisfies predicate; returns it.
        found = []
        wait_until(lambda: found.extend(filter(predicate, self.metrics()[since:])) or found, what,
                   timeout, self, interval=0.2)
        return found[-1]

    def wait_sent(self, count):
        return self.wait_metrics(lambda m: m["forwarder"][0]["eventsSent"] == count,
                                 "%d events counted as sent" % count)


class RelayTest(unittest.TestCase):
    # A temporary directory, a free listener port and a free collector address for each test.

    def setUp(self):
        self.directory = self.enterContext(tempfile.TemporaryDirectory(prefix="vt-test-"))
        self.port, self.collector = free_port(), (LOOPBACK, free_port())
        require("fstrm_replay")

    def generate(self, count, seed, *options):
        # Load-generator events in a file: (path, payloads).
        path = os.path.join(self.directory, "load-%d.fstrm" % len(os.listdir(self.directory)))
        self.loadgen("--write", path, "--count", count, "--seed", seed, *options)
        return path, fstrm.read_payloads(path)

    def loadgen(self, *args):
        run_tool([os.environ["VANTRELO_LOADGEN"], *args])

    def agent(self, forward_to, options="", *settings, listener="", command="run"):
        # The agent listening on self.port with the listener options, forwarding dnstap (unless
        # settings name another message-format: the first line of a key counts) to a (host, port)
        # with the forwarder options, reporting every second.
        return Agent(["listener ipv4 %s %d %s" % (LOOPBACK, self.port, listener),
                      "forwarder ipv4 %s %d %s" % (forward_to + (options,)), "metrics-interval 1",
                      *settings, "message-format dnstap"], command)

    def replay(self, path):
        # fstrm_replay, bidirectional: it ends once the agent has answered its STOP, so every
        # event has reached the queue by then.
        run_tool(["fstrm_replay", "-r", path, "-a", LOOPBACK, "-p", self.port, "-t",
                  fstrm.CONTENT_TYPE.decode()])

    def queue_file_events(self, agent):
        # The events of the agent's queue file: magic, then per event its length, checksum and
        # bytes.
        data, events, offset = pathlib.Path(agent.path("message.queue")).read_bytes(), [], 4
        self.assertEqual(data[:4], b"sslz")
        while offset < len(data):
            length = struct.unpack_from(">I", data, offset)[0]
            events.append(data[offset + 5:offset + 5 + length])
            self.assertEqual((len(events[-1]), sum(events[-1]) % 256), (length, data[offset + 4]))
            offset += 5 + length
        return events


def main():
    # unittest.main with ctest's skip code 77 when every test skipped.
    result = unittest.main(exit=False, verbosity=2).result
    sys.exit(1 if not result.wasSuccessful() else
             77 if result.testsRun and len(result.skipped) == result.testsRun else 0)
