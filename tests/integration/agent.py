"""The agent and its load generator as peers of the process-level tests.

Agent runs `vantrelo run` (or `run-stdout`) on a configuration written into
its own temporary directory, waits until its socket listeners listen, reads
its log and its "Metrics: " lines, and stops it with SIGTERM, checking that
it shut down by itself. It can be restarted in the same directory, so the
queue file of the first run is loaded by the second.

The binaries come from VANTRELO_BIN and VANTRELO_LOADGEN (set by ctest), or
from the first of build/, build-e2e/ and build-demo/ next to the sources
that holds them.

main() runs a unittest module the ctest way: exit code 77 (skipped) when
every test was skipped, e.g. because a peer is not installed.
"""

import os
import re
import shutil
import signal
import sys
import unittest

from peer_process import (START_TIMEOUT, Peer, PeerError, free_port,
                          run_tool, tcp_listening, unix_listening, wait_until)

SKIPPED = 77
_SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(
    os.path.abspath(__file__))))


def binary(variable, relative):
    path = os.environ.get(variable)
    if not path:
        candidates = [os.path.join(_SOURCE, tree, relative)
                      for tree in ("build", "build-e2e", "build-demo")]
        path = next((c for c in candidates if os.access(c, os.X_OK)),
                    candidates[0])
    if not os.access(path, os.X_OK):
        raise unittest.SkipTest("%s not built (%s)" % (relative, path))
    return path


def agent_binary():
    return binary("VANTRELO_BIN", "src/app/vantrelo")


def loadgen_binary():
    return binary("VANTRELO_LOADGEN", "tools/vantrelo-loadgen")


def require_root():
    if os.geteuid() != 0:
        raise unittest.SkipTest("the DNS server peers need root")


def require_tools(*names):
    missing = [name for name in names if shutil.which(name) is None]
    if missing:
        raise unittest.SkipTest("not installed: %s (scripts/install-test-peers)"
                                % " ".join(missing))


_SUMMARY_RE = re.compile(r"Sent (\d+) events, (\d+) bytes in ([\d.]+) seconds")


def loadgen(*args, timeout=60):
    """Runs the load generator; returns (events, bytes, seconds)."""
    done = run_tool([loadgen_binary()] + [str(arg) for arg in args], timeout)
    match = _SUMMARY_RE.search(done.stdout)
    if not match:
        raise PeerError("unexpected load generator output: %r" % done.stdout)
    return int(match.group(1)), int(match.group(2)), float(match.group(3))


_GROUP_RE = re.compile(r"(\w+)\[([^\]]*)\]")


def parse_metrics(line):
    """A kv "Metrics: " line as {group: [ {key: value} ...]}; numeric values
    become ints."""
    groups = {}
    for name, body in _GROUP_RE.findall(line.split("Metrics: ", 1)[1]):
        fields = {}
        for pair in body.split():
            key, _, value = pair.partition("=")
            fields[key] = int(value) if value.isdigit() else value
        groups.setdefault(name, []).append(fields)
    return groups


class Agent(Peer):
    """vantrelo on a configuration given as a list of lines.

    tcp_listeners and unix_listeners name what start() waits for. Owns the
    process and its directory; not thread-safe.
    """

    name = "vantrelo"

    def __init__(self, config_lines, command="run", tcp_listeners=(),
                 unix_listeners=()):
        super().__init__()
        self.config_lines = list(config_lines)
        self.command = command
        self.tcp_listeners = list(tcp_listeners)
        self.unix_listeners = list(unix_listeners)
        self.process = None
        self.runs = 0

    @property
    def config_path(self):
        return self.path("vantrelo.conf")

    def start(self):
        self.write("vantrelo.conf", "\n".join(self.config_lines) + "\n")
        self.runs += 1
        self.process = self.spawn("vantrelo", [agent_binary(), self.command,
                                               self.config_path])
        for port in self.tcp_listeners:
            wait_until(lambda: tcp_listening(port),
                       "vantrelo listening on port %d" % port,
                       process=self.process)
        for path in self.unix_listeners:
            wait_until(lambda: unix_listening(path),
                       "vantrelo listening on %s" % path,
                       process=self.process)

    def stop_agent(self, timeout=20):
        """SIGTERM; the agent must end by itself with code 0 and log
        "Stopped" for this run."""
        if self.process is None or not self.process.running():
            return
        stopped_before = self.log().count("[INFO] Stopped\n")
        self.process.send_signal(signal.SIGTERM)
        code = self.process.wait(timeout)
        if code != 0:
            raise PeerError("vantrelo exited with %s:\n%s" %
                            (code, self.process.log_tail()))
        if self.log().count("[INFO] Stopped\n") != stopped_before + 1:
            raise PeerError("vantrelo did not log Stopped:\n%s" %
                            self.process.log_tail())

    def restart(self):
        self.stop_agent()
        self.start()

    def stop(self):
        try:
            self.stop_agent()
        finally:
            super().stop()

    def log(self):
        return self.process.log() if self.process is not None else ""

    def log_lines(self):
        return self.log().splitlines()

    def wait_log(self, text, count=1, timeout=START_TIMEOUT):
        wait_until(lambda: self.log().count(text) >= count,
                   "%d log line(s) with %r" % (count, text), timeout,
                   self.process)

    def metrics(self):
        """Every "Metrics: " line so far, parsed, oldest first."""
        return [parse_metrics(line) for line in self.log_lines()
                if "Metrics: " in line]

    def wait_metrics(self, predicate, what, timeout=START_TIMEOUT):
        """Waits for a metrics line that satisfies predicate; returns it."""
        found = []

        def check():
            for metrics in reversed(self.metrics()):
                if predicate(metrics):
                    found.append(metrics)
                    return True
            return False

        wait_until(check, what, timeout, self.process, interval=0.2)
        return found[0]

    def total(self, group, key):
        """The sum of one counter over all metrics lines (for the queue's
        per-interval counters such as eventsDropped)."""
        return sum(fields.get(key, 0) for metrics in self.metrics()
                   for fields in metrics.get(group, []))


def listener_port():
    return free_port()


def main():
    """unittest.main with ctest's skip code."""
    program = unittest.main(exit=False, verbosity=2)
    result = program.result
    if not result.wasSuccessful():
        sys.exit(1)
    if result.testsRun and len(result.skipped) == result.testsRun:
        sys.exit(SKIPPED)
    sys.exit(0)
