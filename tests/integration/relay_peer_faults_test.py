# Misbehaving peers. Senders against the listener: one connection too many, a stall, garbage, an
# oversized frame, a wrong control frame, a close mid-frame; each bad connection ends alone with
# its own error line and a good sender loses nothing. Stopping the agent loses nothing: stopped
# in the middle of a burst, every event is delivered or saved in its queue file, and the next run
# sends the saved ones in order. Stopped under peers that never finish what they started (a
# sender trickling a frame, a silent sender, a sender stalled in its TLS handshake, a collector
# that does not read), each of which would once have held the stop up for a whole read
# time-out, it stops within STOP_LIMIT seconds with every queued event saved.

import concurrent.futures
import contextlib
import re
import socket
import struct
import threading
import time

import fstrm
import harness

STOP_LIMIT = 3.0
PATIENT = "read-timeout=120 keepalive=0"
LIMIT = 1000  # the largest data frame the listener takes
# (bad sender, what it does, whether the agent ends the connection, its error line)
BAD_SENDERS = (
    ("stall", lambda s: s.open(), True, "Connection timed out"),
    ("garbage", lambda s: s.sendall(b"GET / HTTP/1.1\r\n\r\n"), True,
     "Expected control message preamble of 0 but got "),
    ("oversized frame", lambda s: (s.open(), s.send([b"x" * (LIMIT + 1)])), True,
     "Data frame length %d is larger than the configured limit" % (LIMIT + 1)),
    ("READY instead of STOP", lambda s: (s.open(), s.control(fstrm.READY)), True,
     "Unexpected control message type 4"),
    ("closed mid-frame", lambda s: (s.open(), s.sendall(struct.pack(">I", 100) + b"y" * 50)),
     False, "recv() failed: socket closed"))


class SenderFaults(harness.RelayTest):

    def test_bad_senders_end_alone(self):
        payloads = self.generate(200, 7)[1]
        collector = self.enterContext(fstrm.Collector(self.collector[1]))
        relay = self.enterContext(self.agent(
            self.collector, "batch-size=20", listener="max-connections=3 read-timeout=1 "
            "keepalive=1 fstrm-data-frame-max-size=%d" % LIMIT))
        sent, stop = [], threading.Event()

        def stream():
            # Never silent for long, so the short read time-out spares it.
            with fstrm.Client(self.port) as sender:
                sender.open()
                while not stop.wait(0.1):
                    batch = payloads[len(sent) % len(payloads):][:10]
                    sender.send(batch)
                    sent.extend(batch)
                sender.control(fstrm.STOP, fstrm.FINISH)

        streaming = self.enterContext(concurrent.futures.ThreadPoolExecutor(1)).submit(stream)
        self.addCleanup(stop.set)
        for name, act, agent_ends, message in BAD_SENDERS:
            with self.subTest(sender=name):
                before = relay.log().count("]: Process loop failed: ")
                with fstrm.Client(self.port) as sender:
                    act(sender)
                    if agent_ends:
                        relay.wait_log("]: Process loop failed: ", before + 1)
                relay.wait_log("]: Process loop failed: ", before + 1)
                errors = re.findall(r"^.*\]: Process loop failed: .*$", relay.log(), re.M)[before:]
                self.assertEqual(len(errors), 1, errors)
                self.assertRegex(errors[0], r"^\[ERROR\] Receiver\[\d+\]: .*" + re.escape(message))
        with self.subTest(sender="one too many"):
            relay.wait_metrics(lambda m: m["listener"][0]["activeReceivers"] == 1,
                               "only the good sender left", since=len(relay.metrics()))
            senders = [self.enterContext(fstrm.Client(self.port)) for _ in range(3)]
            for sender in senders[:2]:
                sender.open()
            # Refused by closing: the handshake finds the stream closed.
            self.assertRaises(OSError, senders[2].open)
            for sender in senders[:2]:
                sender.control(fstrm.STOP, fstrm.FINISH)
        stop.set()
        streaming.result(harness.TIMEOUT)
        self.assertEqual(collector.wait_count(len(sent)), sent)
        self.assertEqual(relay.wait_metrics(
            lambda m: m["listener"][0]["activeReceivers"] == 0, "every receiver finished",
            since=len(relay.metrics()))["listener"][0]["peakReceivers"], 3)


class Stop(harness.RelayTest):

    def test_stop_during_a_burst_then_restart(self):
        path, payloads = self.generate(20000, 52)
        with fstrm.Collector(self.collector[1], slow=4096) as collector, \
                self.agent(self.collector, "batch-size=50 send-buffer-size=16384") as relay:
            self.replay(path)
            collector.wait_count(500)
            relay.stop()
            self.assertGreater(len(self.queue_file_events(relay)), 0)
            relay.start()
            self.assertEqual(collector.wait_count(len(payloads), 60), payloads)

    def test_stop_is_bounded_and_keeps_the_queue(self):
        tls_port, stopping = harness.free_port(), threading.Event()
        harness.run_tool(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                          "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                          "/CN=localhost", "-keyout", self.directory + "/server.key", "-out",
                          self.directory + "/server.pem"])
        relay = self.agent(self.collector, "read-timeout=120 write-timeout=120",
                           "listener ipv4 %s %d %s tls=on tls-certificate-store=%s "
                           "tls-certificate-subject=CN=localhost" %
                           (harness.LOOPBACK, tls_port, PATIENT, self.directory), listener=PATIENT)
        self.addCleanup(stopping.set)

        def drip(sender):
            with contextlib.suppress(OSError):
                while not stopping.wait(0.3):
                    sender.sendall(b"x")

        def trickle():
            sender = self.enterContext(fstrm.Client(self.port))
            sender.open()
            sender.sendall(struct.pack(">I", 1000))
            threading.Thread(target=drip, args=(sender,), daemon=True).start()

        path, payloads = self.generate(40, 23)
        # (peer, how it starts, the log line that shows it in place)
        cases = (
            ("trickling sender", trickle, "Handling connection from"),
            ("silent sender", lambda: self.enterContext(fstrm.Client(self.port)),
             "Handling connection from"),
            # A TLS record header announcing a ClientHello, then nothing.
            ("stalled TLS sender", lambda: self.enterContext(socket.create_connection(
                (harness.LOOPBACK, tls_port))).sendall(b"\x16\x03\x01\x00\xc8\x01"),
             "Handling connection from"),
            # Accepted by the kernel, never read: the handshake waits.
            ("deaf collector", lambda: self.enterContext(socket.create_server(self.collector)),
             "]: Connected to"))
        for name, start_peer, in_place in cases:
            with self.subTest(peer=name), relay:
                self.replay(path)
                relay.wait_metrics(lambda m: m["queue"][0]["eventsQueued"] == len(payloads),
                                   "every event queued")
                before = relay.log().count(in_place)
                start_peer()
                relay.wait_log(in_place, before + 1)
                time.sleep(1.5)  # well inside a frame, record or handshake
                started = time.monotonic()
                relay.stop()
                self.assertLess(time.monotonic() - started, STOP_LIMIT)
                self.assertEqual(self.queue_file_events(relay), payloads)


if __name__ == "__main__":
    harness.main()
