# Collector failures seen from the forwarder: a collector up late, one that
# drops mid-stream under each recovery mode, an agent restarted with events
# queued, and a queue that overflows (newest kept, drops counted).

import os
import time

import collectors
import harness

RETRY_SECONDS = 10
START = ("--start-time", 1700000000)


class CollectorFaults(harness.RelayTest):

    def setUp(self):
        super().setUp()
        self.collector_port = harness.free_port()

    def agent(self, options="", *settings):
        return super().agent((harness.LOOPBACK, self.collector_port), options,
                             *settings)

    def collector(self, drop_after=None):
        return collectors.FrameCollector(self.collector_port, drop_after)

    def test_collector_comes_up_late(self):
        path, payloads = self.generate(200, 21)
        with self.agent("batch-size=30") as relay:
            self.replay(path)
            first = relay.wait_metrics(
                lambda m: m["forwarder"][0]["connects"] == 1, "first connect")
            started = time.monotonic()
            relay.wait_metrics(lambda m: m["forwarder"][0]["connects"] == 2,
                               "second connect", RETRY_SECONDS + 5)
            self.assertGreater(time.monotonic() - started, RETRY_SECONDS - 3)
            self.assertEqual(first["forwarder"][0]["state"], "not-connected")
            self.assertIn("Connection error: connect() failed: ", relay.log())
            with self.collector() as collector:
                self.assertEqual(collector.wait_count(
                    len(payloads), RETRY_SECONDS + 20), payloads)

    def test_recovery_modes_when_the_collector_drops(self):
        # 300 events at a slow rate to a collector that resets the first
        # connection after 45 frames: durable loses nothing, best-effort at
        # most the batch in flight, drop at most two batches.
        batch = 10
        _, sent = self.generate(300, 3, *START)
        for mode, most_lost in (("durable", 0), ("best-effort", batch),
                                ("drop", 2 * batch)):
            with self.subTest(mode=mode), self.collector(45) as collector, \
                    self.agent("batch-size=%d recovery=%s" %
                               (batch, mode)) as relay:
                harness.loadgen("--tcp", "127.0.0.1:%d" % self.port, "--count",
                                300, "--rate", 400, "--seed", 3, *START)
                relay.wait_metrics(
                    lambda m: m["forwarder"][0]["connects"] >= 2 and
                    m["queue"][0]["eventsQueued"] == 0 and
                    m["forwarder"][0]["eventsSent"] >= 255,
                    "the stream to drain")
                time.sleep(0.5)
                got = set(collector.received())
                missing = [p for p in sent if p not in got]
                log = relay.log()
                self.assertLessEqual(len(missing), most_lost)
                self.assertEqual(len(collector.handshakes), 2)
                self.assertIn("Forwarder[0]: Connection error: ", log)
                self.assertEqual(
                    "previous events back to the event queue" in log,
                    mode == "durable")
                if mode == "drop":
                    self.assertNotIn("]: Returning ", log)
                elif "current events back to the event queue" not in log:
                    # The failed write opened a new batch only when nothing
                    # was pending; then nothing is lost either.
                    self.assertEqual(missing, [])

    def test_durable_recovers_a_reset_at_full_speed(self):
        # At full speed the agent's send buffer holds thousands of events
        # when a collector slower than it resets: durable sends again every
        # one its TCP did not acknowledge. (bench/collector_reset.py compares
        # the recovery modes.)
        count = 60000
        sent = self.generate(count, 13, *START)[1]
        with collectors.SlowResettingCollector(self.collector_port,
                                               5000) as collector, \
                self.agent("recovery=durable") as relay:
            harness.loadgen("--tcp", "127.0.0.1:%d" % self.port, "--count",
                            count, "--seed", 13, *START)
            relay.wait_metrics(
                lambda m: m["forwarder"][0]["connects"] >= 2 and
                m["queue"][0]["eventsQueued"] == 0, "the stream to drain", 60)
            # What the collector threw away unprocessed, its TCP had
            # acknowledged: no sender can know of it.
            got = set(collector.wait_settled()) | set(collector.discarded)
        self.assertEqual(sum(1 for p in sent if p not in got), 0)

    def test_restart_keeps_queued_events(self):
        path, payloads = self.generate(150, 31)
        with self.agent() as relay:
            self.replay(path)
            relay.wait_metrics(lambda m: m["queue"][0]["eventsQueued"] == 150,
                               "events waiting in the queue")
            relay.stop()
            self.assertGreater(
                os.path.getsize(relay.path("message.queue")), 150 * 100)
            with self.collector() as collector:
                relay.start()
                self.assertEqual(collector.wait_count(150), payloads)

    def test_overflow_keeps_the_newest_events(self):
        path, payloads = self.generate(1000, 41)
        # Room for about a tenth of the events: the oldest are overwritten.
        with self.agent("", "message-queue-size 16000") as relay:
            self.replay(path)
            metrics = relay.wait_metrics(
                lambda m: m["listener"][0]["accepts"] == 1 and
                m["listener"][0]["activeReceivers"] == 0, "the sender done")
            queued = metrics["queue"][0]["eventsQueued"]
            time.sleep(1.2)  # one more report, so every drop is counted
            self.assertGreater(queued, 50)
            self.assertLess(queued, 150)
            self.assertEqual(relay.total("queue", "eventsDropped"),
                             1000 - queued)
            with self.collector() as collector:
                self.assertEqual(collector.wait_count(
                    queued, RETRY_SECONDS + 20), payloads[-queued:])


if __name__ == "__main__":
    harness.main()
