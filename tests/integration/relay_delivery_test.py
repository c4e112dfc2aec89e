# When relayed events arrive: a lone event into an idle agent is forwarded at
# once, round after round, and an agent stopped in the middle of a burst has
# every event either delivered or saved in its queue file, in order.

import socket
import struct
import time

import collectors
import frames
import harness

ROUNDS = 200
# The promised bound for a lone event; a loaded machine may miss it now and
# then, a lost wake-up would miss it every time it happens.
BOUND = 0.1
HARD_BOUND = 1.0


class _SlowConnection:
    # A collector's connection that takes a few kilobytes at a time, so the
    # forwarder falls behind and the queue fills up.

    def __init__(self, conn):
        self.conn = conn

    def recv(self, size):
        time.sleep(0.002)
        return self.conn.recv(min(size, 4096))

    def __getattr__(self, name):
        return getattr(self.conn, name)


class SlowCollector(collectors.FrameCollector):

    def _serve(self, conn, limit):
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)
        super()._serve(_SlowConnection(conn), limit)


def queue_file_events(path):
    """The events of a queue file: magic, then length, checksum, bytes."""
    with open(path, "rb") as handle:
        data = handle.read()
    if data[:4] != b"sslz":
        raise AssertionError("no queue file magic in %s" % path)
    events, offset = [], 4
    while offset < len(data):
        length = struct.unpack_from(">I", data, offset)[0]
        event = data[offset + 5:offset + 5 + length]
        if len(event) != length or sum(event) % 256 != data[offset + 4]:
            raise AssertionError("bad queue file record at %d" % offset)
        events.append(event)
        offset += 5 + length
    return events


class Delivery(harness.RelayTest):

    def setUp(self):
        super().setUp()
        self.collector_port = harness.free_port()

    def test_a_lone_event_is_forwarded_at_once(self):
        _, payloads = self.generate(ROUNDS, 51)
        with collectors.FrameCollector(self.collector_port) as collector, \
                self.agent((harness.LOOPBACK, self.collector_port),
                           "batch-size=100"), \
                socket.create_connection((harness.LOOPBACK, self.port)) \
                as sender:
            sender.sendall(frames.control_frame(frames.FSTRM_START,
                                                frames.CONTENT_TYPE))
            delays = []
            for count, payload in enumerate(payloads, 1):
                # Right after the previous arrival the forwarder is on its
                # way back to sleep: the moment a wake-up gets lost.
                sent = time.monotonic()
                sender.sendall(frames.data_frame(payload))
                while len(collector.received()) < count:
                    if time.monotonic() - sent > HARD_BOUND:
                        self.fail("event %d not forwarded within %.1f s" %
                                  (count, HARD_BOUND))
                    time.sleep(0.0005)
                delays.append(time.monotonic() - sent)
            self.assertEqual(collector.received(), payloads)
        late = [delay for delay in delays if delay > BOUND]
        self.assertLessEqual(len(late), ROUNDS // 50, "late: %s" % late)

    def test_stop_during_a_burst_keeps_every_event(self):
        path, payloads = self.generate(20000, 52)
        with SlowCollector(self.collector_port) as collector:
            relay = self.agent((harness.LOOPBACK, self.collector_port),
                               "batch-size=50 send-buffer-size=16384")
            with relay:
                # fstrm_replay ends once the agent has answered its STOP, so
                # every event has reached the queue by then.
                self.replay(path)
                collector.wait_count(500)
                relay.stop()
                saved = queue_file_events(relay.path("message.queue"))
                self.assertGreater(len(saved), 0)
                harness.wait_until(
                    lambda: len(collector.received()) + len(saved) >=
                    len(payloads), "the collector to drain")
                self.assertEqual(collector.received() + saved, payloads)


if __name__ == "__main__":
    harness.main()
