# Misbehaving senders against the listener: one connection too many, a stall,
# garbage, an oversized frame, a close mid-frame. Each bad connection ends
# alone with its own error line; a good sender loses nothing.

import socket
import struct
import threading
import time

import collectors
import dnstap_records as dr
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
        self.sendall(dr.control_frame(
            kind, None if kind == dr.FSTRM_STOP else dr.CONTENT_TYPE))
        buffer = bytearray()
        while reply is not None and not (frame := dr.take_frame(buffer)):
            chunk = self.recv(4096)
            if not chunk:
                raise harness.PeerError("closed before control %d" % reply)
            buffer += chunk
        if reply is not None and frame[0] != reply:
            raise harness.PeerError("expected control %d: %r" % (reply, frame))

    def open(self):
        self.control(dr.FSTRM_READY, dr.FSTRM_ACCEPT)
        self.control(dr.FSTRM_START)

    def send(self, payloads):
        self.sendall(b"".join(map(dr.data_frame, payloads)))

    def finish(self):
        self.control(dr.FSTRM_STOP, dr.FSTRM_FINISH)


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
            sender.finish()
        self.assertCountEqual(self.collector.wait_count(30),
                              self.payloads[:30])
        metrics = self.relay.wait_metrics(
            lambda m: m["listener"][0]["activeReceivers"] == 0,
            "every receiver finished")
        self.assertEqual((metrics["listener"][0]["accepts"],
                          metrics["listener"][0]["peakReceivers"]), (3, 3))

    def test_bad_senders_end_alone(self):
        """Bad senders while a good one streams: each fails alone."""
        stop = threading.Event()

        def stream():
            with FstrmClient(self.port) as sender:
                sender.open()
                for start in range(0, len(self.payloads), 10):
                    sender.send(self.payloads[start:start + 10])
                    time.sleep(0.03)
                stop.wait(harness.TIMEOUT)
                sender.finish()

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
        self.assertEqual(self.collector.wait_count(200), self.payloads)


if __name__ == "__main__":
    harness.main()
