# A stop under peers that never finish what they started: a sender trickling
# a frame, a silent sender, a sender stalled inside its TLS handshake and a
# collector that does not read. Each would once have held the stop up for a
# whole read time-out; the agent must stop within STOP_LIMIT seconds and save
# every queued event.

import os
import socket
import struct
import threading
import time

import frames
import harness
from relay_sender_faults_test import FstrmClient

COUNT = 40
STOP_LIMIT = 3.0
PATIENT = "read-timeout=120 keepalive=0"


def queue_file_payloads(path):
    """The events of a queue file: magic, then length, checksum, bytes."""
    with open(path, "rb") as handle:
        data = handle.read()
    if data[:4] != b"sslz":
        raise frames.CodecError("%s has no queue file magic" % path)
    payloads, offset = [], 4
    while offset < len(data):
        length = struct.unpack_from(">I", data, offset)[0]
        payloads.append(data[offset + 5:offset + 5 + length])
        offset += 5 + length
    return payloads


class Stop(harness.RelayTest):

    def setUp(self):
        super().setUp()
        self.tls_port, self.collector_port = harness.free_port(), \
            harness.free_port()
        store = os.path.join(self.directory, "store")
        os.mkdir(store)
        harness.run_tool([
            "openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
            "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
            "/CN=localhost", "-keyout", os.path.join(store, "server.key"),
            "-out", os.path.join(store, "server.pem")])
        self.relay = harness.Agent([
            "listener ipv4 %s %d %s" % (harness.LOOPBACK, self.port, PATIENT),
            "listener ipv4 %s %d %s tls=on tls-certificate-store=%s "
            "tls-certificate-subject=CN=localhost" % (
                harness.LOOPBACK, self.tls_port, PATIENT, store),
            "forwarder ipv4 %s %d read-timeout=120 write-timeout=120" % (
                harness.LOOPBACK, self.collector_port),
            "message-format dnstap", "metrics-interval 1"],
            [self.port, self.tls_port])
        self.stopping = threading.Event()
        self.addCleanup(self.stopping.set)

    def trickle(self):
        sender = self.enterContext(FstrmClient(self.port))
        sender.open()
        sender.sendall(struct.pack(">I", 1000) + b"x")

        def drip():
            for _ in range(200):
                if self.stopping.wait(0.3):
                    return
                try:
                    sender.sendall(b"x")
                except OSError:
                    return
        threading.Thread(target=drip, daemon=True).start()

    def silent(self):
        # Connected, and not a byte since: not even the Frame Streams handshake.
        self.enterContext(FstrmClient(self.port))

    def stalled_tls(self):
        # A TLS record header announcing a ClientHello, then nothing.
        peer = self.enterContext(socket.create_connection(
            (harness.LOOPBACK, self.tls_port)))
        peer.sendall(b"\x16\x03\x01\x00\xc8\x01")

    def deaf_collector(self):
        # Accepted by the kernel, never read: the forwarder's handshake waits.
        self.enterContext(socket.create_server(
            (harness.LOOPBACK, self.collector_port)))

    def test_stop_is_bounded_and_keeps_the_queue(self):
        path, payloads = self.generate(COUNT, 23)
        # (peer, log line that shows it in place)
        cases = ((self.trickle, "Handling connection from"),
                 (self.silent, "Handling connection from"),
                 (self.stalled_tls, "Handling connection from"),
                 (self.deaf_collector, "]: Connected to"))
        for peer, in_place in cases:
            with self.subTest(peer=peer.__name__), self.relay as relay:
                self.replay(path)
                relay.wait_metrics(
                    lambda m: m["queue"][0]["eventsQueued"] == COUNT,
                    "every event queued")
                before = relay.log().count(in_place)
                peer()
                relay.wait_log(in_place, before + 1)
                time.sleep(1.5)  # well inside a frame, record or handshake
                started = time.monotonic()
                relay.stop()
                self.assertLess(time.monotonic() - started, STOP_LIMIT)
                self.assertEqual(queue_file_payloads(
                    relay.path("message.queue")), payloads)
            self.stopping.set()


if __name__ == "__main__":
    harness.main()
