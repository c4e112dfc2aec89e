# Misbehaving senders against the listener: one connection too many, a stall,
# garbage, an oversized frame, a close mid-frame. Each bad connection ends
# alone with its own error line; a good sender loses nothing.

import socket
import struct
import threading
import time

import collectors
import frames
import harness

FRAME_LIMIT = 1000


class FstrmClient(socket.socket):
    # A bidirectional Frame Streams sender written out step by step, so a test
    # can stop or break it anywhere. Not thread-safe.

    def __init__(self, port):
        super().__init__()
        self.settimeout(5)
        self.connect((harness.LOOPBACK, port))

    def control(self, kind, reply=None):
        """Sends a control frame; with reply, expects that one back."""
        self.sendall(frames.control_frame(
            kind, None if kind == frames.FSTRM_STOP else frames.CONTENT_TYPE))
        buffer, frame = bytearray(), None
        while reply and not (frame := frames.take_frame(buffer)) and \
                (chunk := self.recv(4096)):
            buffer += chunk
        if reply and (frame or (None,))[0] != reply:
            raise harness.PeerError("expected control %d: %r" % (reply, frame))

    def open(self):
        self.control(frames.FSTRM_READY, frames.FSTRM_ACCEPT)
        self.control(frames.FSTRM_START)

    def send(self, payloads):
        self.sendall(b"".join(map(frames.data_frame, payloads)))


class SenderFaults(harness.RelayTest):

    def setUp(self):
        super().setUp()
        self.payloads = self.generate(200, 7)[1]
        self.collector = self.enterContext(collectors.FrameCollector())
        self.relay = self.enterContext(self.agent(
            self.collector.address, "batch-size=20",
            listener="max-connections=3 read-timeout=1 keepalive=1 "
            "fstrm-data-frame-max-size=%d" % FRAME_LIMIT))

    def test_max_connections(self):
        senders = [self.enterContext(FstrmClient(self.port))
                   for _ in range(3)]
        for sender in senders:
            sender.open()
        self.relay.wait_log("Handling connection from", 3)
        with FstrmClient(self.port) as fourth:
            # Refused by closing: the handshake finds the stream closed.
            with self.assertRaises((harness.PeerError, OSError)):
                fourth.open()
        for index, sender in enumerate(senders):
            sender.send(self.payloads[index * 10:(index + 1) * 10])
            sender.control(frames.FSTRM_STOP, frames.FSTRM_FINISH)
        self.assertCountEqual(self.collector.wait_count(30),
                              self.payloads[:30])
        metrics = self.relay.wait_metrics(
            lambda m: m["listener"][0]["activeReceivers"] == 0,
            "every receiver finished")
        self.assertEqual((metrics["listener"][0]["accepts"],
                          metrics["listener"][0]["peakReceivers"]), (3, 3))

    def test_bad_senders_end_alone(self):
        """Bad senders while a good one streams: each fails alone."""
        sent, stop, finished = [], threading.Event(), threading.Event()

        def stream():
            # Never silent for long, so the short read time-out spares it.
            with FstrmClient(self.port) as sender:
                sender.open()
                while not stop.wait(0.1):
                    start = len(sent) % len(self.payloads)
                    sender.send(self.payloads[start:start + 10])
                    sent.extend(self.payloads[start:start + 10])
                sender.control(frames.FSTRM_STOP, frames.FSTRM_FINISH)
                finished.set()

        streamer = threading.Thread(target=stream)
        streamer.start()
        self.addCleanup(streamer.join, harness.TIMEOUT)
        self.addCleanup(stop.set)
        cases = (
            ("stall", lambda s: s.open(), "Connection timed out"),
            ("garbage", lambda s: s.sendall(b"GET / HTTP/1.1\r\n\r\n"),
             "Expected control message preamble of 0 but got "),
            ("oversized frame",
             lambda s: (s.open(), s.send([b"x" * (FRAME_LIMIT + 1)])),
             "Data frame length %d is larger than the configured limit"
             % (FRAME_LIMIT + 1)),
            ("closed mid-frame",
             lambda s: (s.open(), s.sendall(struct.pack(">I", 100) +
                                            b"y" * 50)),
             "recv() failed: socket closed"),
        )
        for name, act, message in cases:
            with self.subTest(sender=name):
                before = self.relay.log().count("]: Process loop failed: ")
                started = time.monotonic()
                with FstrmClient(self.port) as sender:
                    act(sender)
                    if name != "closed mid-frame":
                        self.relay.wait_log("Process loop failed: ",
                                            before + 1)
                self.relay.wait_log("Process loop failed: ", before + 1)
                errors = [line for line in self.relay.log().splitlines()
                          if "]: Process loop failed: " in line][before:]
                self.assertEqual(len(errors), 1, errors)
                self.assertRegex(errors[0], r"^\[ERROR\] Receiver\[\d+\]: ")
                self.assertIn(message, errors[0])
                if name == "stall":
                    # read-timeout 1 and keepalive 1: two silent waits.
                    self.assertGreater(time.monotonic() - started, 1.5)
        self.assertTrue(self.relay.running())
        stop.set()
        streamer.join(harness.TIMEOUT)
        self.assertTrue(finished.is_set())
        self.assertEqual(self.collector.wait_count(len(sent)), sent)


if __name__ == "__main__":
    harness.main()
