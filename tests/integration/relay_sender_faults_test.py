# Misbehaving senders against the listener: one connection too many, a stall, garbage, an
# oversized frame, a close mid-frame. Each bad connection ends alone with its own error line; a
# good sender loses nothing.

import concurrent.futures
import re
import struct
import threading

import fstrm
import harness

LIMIT = 1000  # the largest data frame the listener takes
# (bad sender, what it does, whether the agent ends the connection, its error line)
BAD_SENDERS = (
    ("stall", lambda s: s.open(), True, "Connection timed out"),
    ("garbage", lambda s: s.sendall(b"GET / HTTP/1.1\r\n\r\n"), True,
     "Expected control message preamble of 0 but got "),
    ("oversized frame", lambda s: (s.open(), s.send([b"x" * (LIMIT + 1)])), True,
     "Data frame length %d is larger than the configured limit" % (LIMIT + 1)),
    ("closed mid-frame", lambda s: (s.open(), s.sendall(struct.pack(">I", 100) + b"y" * 50)),
     False, "recv() failed: socket closed"))


class SenderFaults(harness.RelayTest):

    def test_bad_senders_end_alone(self):
        payloads = self.generate(200, 7)[1]
        collector = self.enterContext(fstrm.Collector(harness.free_port()))
        relay = self.enterContext(self.agent(
            collector.address, "batch-size=20", listener="max-connections=3 read-timeout=1 "
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


if __name__ == "__main__":
    harness.main()
