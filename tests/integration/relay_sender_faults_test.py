"""Misbehaving senders against the listener: one connection too many, a
stall, garbage, an oversized frame, a close mid-frame. Each bad connection
ends alone with its own error line; a good sender loses nothing."""

import os
import socket
import struct
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import collectors  # noqa: E402
import dnstap_records as dr  # noqa: E402
import harness  # noqa: E402

FRAME_LIMIT = 1000


class FstrmClient:
    """A bidirectional Frame Streams sender written out step by step, so a
    test can stop or break it anywhere. Owns its socket; not thread-safe."""

    def __init__(self, port):
        self.sock = socket.create_connection((harness.LOOPBACK, port), 5)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.sock.close()

    def control(self, kind, reply=None):
        """Sends a control frame; with reply, expects that one back."""
        self.sock.sendall(dr.control_frame(
            kind, None if kind == dr.FSTRM_STOP else dr.CONTENT_TYPE))
        buffer, frame = bytearray(), None
        while reply is not None and frame is None:
            chunk = self.sock.recv(4096)
            if not chunk:
                raise harness.PeerError("closed before control %d" % reply)
            buffer += chunk
            frame = dr.take_frame(buffer)
        if frame and (frame[0], dr.parse_control(frame[1])[0]) != (
                "control", reply):
            raise harness.PeerError("expected control %d: %r" % (reply, frame))

    def open(self):
        self.control(dr.FSTRM_READY, dr.FSTRM_ACCEPT)
        self.control(dr.FSTRM_START)

    def send(self, payloads):
        self.sock.sendall(b"".join(map(dr.data_frame, payloads)))

    def close(self):
        self.control(dr.FSTRM_STOP, dr.FSTRM_FINISH)


class SenderFaults(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory(prefix="vt-sfaults-") as directory:
            path = os.path.join(directory, "load.fstrm")
            harness.loadgen("--write", path, "--count", 200, "--seed", 7)
            cls.payloads = dr.read_payloads(path)

    def setUp(self):
        self.port = harness.free_port()
        self.collector = self.enterContext(collectors.FrameCollector())
        self.relay = self.enterContext(harness.Agent([
            "listener ipv4 127.0.0.1 %d max-connections=3 read-timeout=1 "
            "keepalive=1 fstrm-data-frame-max-size=%d" % (self.port,
                                                          FRAME_LIMIT),
            "forwarder ipv4 %s %d batch-size=20" % self.collector.address,
            "message-format dnstap", "metrics-interval 1"], [self.port]))

    def receiver_errors(self):
        return [line for line in self.relay.log().splitlines()
                if "]: Process loop failed: " in line]

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
            sender.close()
        self.assertCountEqual(self.collector.wait_count(30),
                              self.payloads[:30])
        metrics = self.relay.wait_metrics(
            lambda m: m["listener"][0]["activeReceivers"] == 0,
            "every receiver finished")
        self.assertEqual((metrics["listener"][0]["accepts"],
                          metrics["listener"][0]["peakReceivers"]), (3, 3))

    def test_bad_senders_end_alone(self):
        stop = threading.Event()

        def stream():
            with FstrmClient(self.port) as sender:
                sender.open()
                for start in range(0, len(self.payloads), 10):
                    sender.send(self.payloads[start:start + 10])
                    time.sleep(0.03)
                stop.wait(harness.TIMEOUT)
                sender.close()

        streamer = threading.Thread(target=stream)
        streamer.start()
        try:
            self.bad_senders()
        finally:
            stop.set()
            streamer.join(harness.TIMEOUT)
        self.assertEqual(self.collector.wait_count(200), self.payloads)

    def bad_senders(self):
        cases = (
            ("stall", lambda s: s.open(), "Connection timed out"),
            ("garbage", lambda s: s.sock.sendall(b"GET / HTTP/1.1\r\n\r\n"),
             "Expected control message preamble of 0 but got "),
            ("oversized frame",
             lambda s: (s.open(), s.send([b"x" * (FRAME_LIMIT + 1)])),
             "Data frame length %d is larger than the configured limit"
             % (FRAME_LIMIT + 1)),
            ("closed mid-frame",
             lambda s: (s.open(), s.sock.sendall(struct.pack(">I", 100) +
                                                 b"y" * 50)),
             "recv() failed: socket closed"),
        )
        for name, act, message in cases:
            with self.subTest(sender=name):
                before = len(self.receiver_errors())
                started = time.monotonic()
                with FstrmClient(self.port) as sender:
                    act(sender)
                    if name != "closed mid-frame":
                        self.relay.wait_log("Process loop failed: ",
                                            before + 1)
                self.relay.wait_log("Process loop failed: ", before + 1)
                errors = self.receiver_errors()[before:]
                self.assertEqual(len(errors), 1, errors)
                self.assertRegex(errors[0], r"^\[ERROR\] Receiver\[\d+\]: ")
                self.assertIn(message, errors[0])
                if name == "stall":
                    # read-timeout 1 and keepalive 1: two silent waits.
                    self.assertGreater(time.monotonic() - started, 1.5)
        self.assertTrue(self.relay.running())


if __name__ == "__main__":
    harness.main()
