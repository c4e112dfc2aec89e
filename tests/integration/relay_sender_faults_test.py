"""Misbehaving dnstap senders against the agent's listener: one too many
connections, a sender that stalls, garbage, an oversized frame and a close
in the middle of a frame. Each bad connection ends with its own error line;
a good sender streaming at the same time loses nothing.

Run: python3 tests/integration/relay_sender_faults_test.py [-v]
"""

import os
import struct
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import agent as ag  # noqa: E402
import dnstap_records as dr  # noqa: E402
import peers  # noqa: E402

TIMEOUT = 15
FRAME_LIMIT = 1000


def made_up(count, tag):
    return [dr.encode_dnstap(dr.DnstapRecord(
        identity=tag.encode(), type=5, socket_family=1, socket_protocol=1,
        query_address=bytes([192, 0, 2, 7]), query_port=40000 + i,
        query_time_sec=1700000000 + i,
        query_message=dr.build_dns_query("q%d.example.test" % i, ident=i)))
        for i in range(count)]


class SenderFaults(unittest.TestCase):

    def setUp(self):
        ag.require_tools("fstrm_capture")
        self.port = ag.listener_port()
        self.capture = peers.FstrmCapture()
        self.capture.__enter__()
        self.addCleanup(self.capture.__exit__, None, None, None)
        self.relay = ag.Agent(
            ["listener ipv4 127.0.0.1 %d max-connections=3 read-timeout=1 "
             "keepalive=1 fstrm-data-frame-max-size=%d" % (self.port,
                                                           FRAME_LIMIT),
             "forwarder ipv4 %s %d batch-size=20" % self.capture.address,
             "message-format dnstap", "metrics-interval 1"],
            tcp_listeners=[self.port])
        self.relay.__enter__()
        self.addCleanup(self.relay.__exit__, None, None, None)

    def client(self):
        return peers.FstrmClient(tcp=("127.0.0.1", self.port))

    def receiver_errors(self):
        return [line for line in self.relay.log_lines()
                if "]: Process loop failed: " in line]

    def test_max_connections(self):
        payloads = made_up(30, "kept")
        with self.client() as first, self.client() as second, \
                self.client() as third:
            for sender in (first, second, third):
                sender.open()
            self.relay.wait_log("Handling connection from", 3)
            with self.client() as fourth:
                # Refused by closing: the handshake finds the stream closed.
                with self.assertRaises((peers.PeerError, OSError)):
                    fourth.open()
            for index, sender in enumerate((first, second, third)):
                sender.send(payloads[index * 10:(index + 1) * 10])
                sender.close()
            got = self.capture.wait_records(30, TIMEOUT)
        self.assertCountEqual([dr.encode_dnstap(r) for r in got], payloads)
        metrics = self.relay.wait_metrics(
            lambda m: m["listener"][0]["activeReceivers"] == 0,
            "every receiver finished")
        self.assertEqual(metrics["listener"][0]["accepts"], 3)
        self.assertEqual(metrics["listener"][0]["peakReceivers"], 3)

    def test_bad_senders_end_alone(self):
        good = made_up(200, "good")
        stop = threading.Event()

        def stream():
            with self.client() as sender:
                sender.open()
                for start in range(0, len(good), 10):
                    sender.send(good[start:start + 10])
                    time.sleep(0.03)
                stop.wait(TIMEOUT)
                sender.close()

        streamer = threading.Thread(target=stream)
        streamer.start()
        try:
            self.bad_senders()
        finally:
            stop.set()
            streamer.join(TIMEOUT)
        got = self.capture.wait_records(200, TIMEOUT)
        self.assertEqual([dr.encode_dnstap(r) for r in got], good)

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
                with self.client() as sender:
                    act(sender)
                    if name != "closed mid-frame":
                        self.relay.wait_log("Process loop failed: ",
                                            before + 1, TIMEOUT)
                self.relay.wait_log("Process loop failed: ", before + 1,
                                    TIMEOUT)
                errors = self.receiver_errors()[before:]
                self.assertEqual(len(errors), 1, errors)
                self.assertRegex(errors[0], r"^\[ERROR\] Receiver\[\d+\]: ")
                self.assertIn(message, errors[0])
                if name == "stall":
                    # read-timeout 1 and keepalive 1: two silent waits.
                    self.assertGreater(time.monotonic() - started, 1.5)
        self.assertEqual(self.relay.process.running(), True)


if __name__ == "__main__":
    ag.main()
