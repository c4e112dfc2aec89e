"""Collector failures seen from the agent's forwarder: a collector that is
down and comes up later, one that drops the connection in the middle of the
stream (under each recovery mode), an agent restarted with events queued
(they come back through the queue file), and a queue that overflows while
the collector is down (the newest events are kept and the drops counted).

Run: python3 tests/integration/relay_collector_faults_test.py [-v]
"""

import collections
import os
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import agent as ag  # noqa: E402
import collectors  # noqa: E402
import dnstap_records as dr  # noqa: E402
import peers  # noqa: E402

TIMEOUT = 20
RETRY_SECONDS = 10
START_TIME = 1700000000


class CollectorFaults(unittest.TestCase):

    def setUp(self):
        self.directory = tempfile.TemporaryDirectory(prefix="vt-cfaults-")
        self.addCleanup(self.directory.cleanup)
        self.port = ag.listener_port()
        self.collector_port = ag.listener_port()

    def generate(self, count, seed):
        path = os.path.join(self.directory.name, "load-%d.fstrm" % seed)
        ag.loadgen("--write", path, "--count", count, "--seed", seed,
                   "--start-time", START_TIME)
        with open(path, "rb") as handle:
            return path, dr.split_frames(handle.read())[1]

    def agent(self, forwarder_options="", settings=()):
        config = ["listener ipv4 127.0.0.1 %d" % self.port,
                  "forwarder ipv4 127.0.0.1 %d %s" % (self.collector_port,
                                                      forwarder_options),
                  "message-format dnstap", "metrics-interval 1"]
        return ag.Agent(config + list(settings), tcp_listeners=[self.port])

    def send(self, *args):
        ag.loadgen("--tcp", "127.0.0.1:%d" % self.port, *args)

    def test_collector_comes_up_late(self):
        path, payloads = self.generate(200, 21)
        with self.agent("batch-size=30") as relay:
            peers.replay_fstrm(path, tcp=("127.0.0.1", self.port))
            first = relay.wait_metrics(
                lambda m: m["forwarder"][0]["connects"] == 1, "first connect")
            started = time.monotonic()
            relay.wait_metrics(lambda m: m["forwarder"][0]["connects"] == 2,
                               "second connect", RETRY_SECONDS + 5)
            interval = time.monotonic() - started
            self.assertGreater(interval, RETRY_SECONDS - 3)
            self.assertEqual(first["forwarder"][0]["state"], "not-connected")
            self.assertIn("Connection error: connect() failed: ", relay.log())
            with collectors.FrameCollector(self.collector_port) as collector:
                got = collector.wait_count(len(payloads),
                                           RETRY_SECONDS + TIMEOUT)
                self.assertEqual(got, payloads)

    def recovery_run(self, mode, batch_size=10):
        """Streams 300 events at a slow rate to a collector that resets the
        first connection after 45 frames; returns (missing, duplicated,
        log)."""
        with collectors.FrameCollector(self.collector_port,
                                       drop_after=45) as collector, \
                self.agent("batch-size=%d recovery=%s" % (batch_size,
                                                          mode)) as relay:
            self.send("--count", 300, "--rate", 400, "--seed", 3,
                      "--start-time", START_TIME)
            relay.wait_metrics(
                lambda m: m["forwarder"][0]["connects"] >= 2 and
                m["queue"][0]["eventsQueued"] == 0 and
                m["forwarder"][0]["eventsSent"] >= 255, "the stream to drain",
                TIMEOUT)
            time.sleep(0.5)
            got = collector.received()
            log = relay.log()
        _, sent = self.generate(300, 3)
        counts = collections.Counter(got)
        missing = [p for p in sent if p not in counts]
        duplicated = sum(n - 1 for n in counts.values())
        self.assertIn("Forwarder[0]: Connection error: ", log)
        self.assertEqual(collector.connections, 2)
        return missing, duplicated, log

    def test_recovery_modes_when_the_collector_drops(self):
        batch = 10
        for mode, most_lost in (("durable", 0), ("best-effort", batch),
                                ("drop", 2 * batch)):
            with self.subTest(mode=mode):
                missing, _, log = self.recovery_run(mode, batch)
                self.assertLessEqual(len(missing), most_lost)
                returns_previous = "previous events back to the event queue"
                returns_current = "current events back to the event queue"
                self.assertEqual(returns_previous in log, mode == "durable")
                if mode == "drop":
                    self.assertNotIn("]: Returning ", log)
                elif returns_current not in log:
                    # The write that failed may have been the first of a new
                    # batch only when nothing was pending; then nothing is
                    # lost either.
                    self.assertEqual(missing, [])

    def test_restart_keeps_queued_events(self):
        path, payloads = self.generate(150, 31)
        with self.agent() as relay:
            peers.replay_fstrm(path, tcp=("127.0.0.1", self.port))
            relay.wait_metrics(lambda m: m["queue"][0]["eventsQueued"] == 150,
                               "events waiting in the queue")
            relay.stop_agent()
            queue_file = relay.path("message.queue")
            self.assertGreater(os.path.getsize(queue_file), 150 * 100)
            with collectors.FrameCollector(self.collector_port) as collector:
                relay.start()
                self.assertEqual(collector.wait_count(150, TIMEOUT), payloads)

    def test_overflow_keeps_the_newest_events(self):
        path, payloads = self.generate(1000, 41)
        # Room for about a tenth of the events: the oldest are overwritten.
        with self.agent("", ["message-queue-size 16000"]) as relay:
            peers.replay_fstrm(path, tcp=("127.0.0.1", self.port))
            metrics = relay.wait_metrics(
                lambda m: m["listener"][0]["accepts"] == 1 and
                m["listener"][0]["activeReceivers"] == 0, "the sender done")
            queued = metrics["queue"][0]["eventsQueued"]
            time.sleep(1.2)  # one more report, so every drop is counted
            dropped = relay.total("queue", "eventsDropped")
            self.assertGreater(queued, 50)
            self.assertLess(queued, 150)
            self.assertEqual(dropped, 1000 - queued)
            with collectors.FrameCollector(self.collector_port) as collector:
                got = collector.wait_count(queued, RETRY_SECONDS + TIMEOUT)
            self.assertEqual(got, payloads[-queued:])


if __name__ == "__main__":
    ag.main()
