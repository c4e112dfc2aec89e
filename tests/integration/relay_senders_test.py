"""Real dnstap senders into the agent, relayed to fstrm_capture unchanged:
fstrm_replay and the dnstap tool over TCP and a Unix socket, Unbound over
TCP and Knot over a Unix socket while dig asks them. Needs root."""

import os
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import dnstap_records as dr  # noqa: E402
import harness  # noqa: E402
import peers  # noqa: E402
import text_model  # noqa: E402

# (name, type, status, answers as dig shows them), asked over UDP and TCP.
QUERIES = (
    ("www.example.test.", "A", "NOERROR", ["www.example.test. A 192.0.2.1"]),
    ("www.example.test.", "AAAA", "NOERROR",
     ["www.example.test. AAAA 2001:db8::1"]),
    ("example.test.", "MX", "NOERROR",
     ["example.test. MX 10 mail.example.test."]),
    ("nope.example.test.", "A", "NXDOMAIN", []),
)


class Senders(unittest.TestCase):

    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="vt-senders-")
        self.addCleanup(directory.cleanup)
        self.socket_path = os.path.join(directory.name, "relay.sock")
        self.source = os.path.join(directory.name, "load.fstrm")
        self.port = harness.free_port()
        self.tcp = "listener ipv4 %s %d" % (harness.LOOPBACK, self.port)
        self.unix = "listener unix " + self.socket_path

    def agent(self, capture, listeners):
        return harness.Agent(listeners + [
            "forwarder ipv4 %s %d batch-size=50" % capture.address,
            "message-format dnstap", "metrics-interval 1"],
            [{self.tcp: self.port, self.unix: self.socket_path}[listener]
             for listener in listeners])

    def test_file_senders(self):
        harness.require("fstrm_capture", "fstrm_replay", "dnstap")
        harness.loadgen("--write", self.source, "--count", 300, "--seed", 11)
        payloads = dr.read_payloads(self.source)
        tcp, unix = (harness.LOOPBACK, self.port), self.socket_path
        sends = ((peers.replay_fstrm, tcp), (peers.send_dnstap_file, tcp),
                 (peers.replay_fstrm, unix), (peers.send_dnstap_file, unix))
        with peers.FstrmCapture() as capture:
            with self.agent(capture, [self.tcp, self.unix]) as agent:
                for count, (send, target) in enumerate(sends, 1):
                    send(self.source, target)
                    metrics = agent.wait_sent(count * len(payloads))
            self.assertEqual([(entry["type"], entry["accepts"]) for entry in
                              metrics["listener"]], [("ipv4", 2), ("unix", 2)])
            self.assertEqual(metrics["listener"][1]["path"], self.socket_path)
        self.assertEqual(capture.payloads, payloads * len(sends))

    def relay_server(self, server, listener, connects_first):
        """Relays what the DNS server taps while dig asks every query over
        UDP and TCP; returns (records, dig results, server port)."""
        with peers.FstrmCapture() as capture:
            with self.agent(capture, [listener]) as agent, server as dns:
                if connects_first:
                    agent.wait_log("Receiver[")
                results = [(name, qtype, tcp) + peers.dig(dns.port, name,
                                                          qtype, tcp)
                           for tcp in (False, True)
                           for name, qtype, _, _ in QUERIES]
                agent.wait_sent(2 * len(results))
        return ([dr.decode_dnstap(p) for p in capture.payloads], results,
                dns.port)

    def assert_exchanges(self, relayed, types, identity):
        records, results, server_port = relayed
        self.assertEqual(len(records), 2 * len(results))
        by_key = {}
        for record in records:
            message = text_model.Message(record.wire)
            by_key[(record.type_name, message.id, message.qname,
                    text_model.type_name(message.qtype),
                    record.socket_protocol)] = (record, message)
        self.assertEqual(len(by_key), len(records), "duplicate records")
        expected = {(name, qtype): (status, answers)
                    for name, qtype, status, answers in QUERIES}
        for name, qtype, tcp, ident, status, answers in results:
            with self.subTest(name=name, qtype=qtype, tcp=tcp):
                self.assertEqual((status, answers), expected[name, qtype])
                (query, asked), (response, answered) = (
                    by_key[kind, ident, name, qtype, 2 if tcp else 1]
                    for kind in types)
                for record in (query, response):
                    self.assertEqual(
                        (record.identity, record.version,
                         record.socket_family, record.ip("query"),
                         record.ip("response"), record.query_port,
                         record.response_port),
                        (identity, identity + b"-1", 1, harness.LOOPBACK,
                         harness.LOOPBACK, query.query_port, server_port))
                self.assertEqual((asked.flags & 0x8000, answered.flags >> 15),
                                 (0, 1))
                self.assertEqual((answered.rcode, answered.answers()),
                                 (status, answers))
                for stamp in (query.query_time_sec,
                              response.response_time_sec):
                    self.assertLess(abs(stamp - time.time()), 60)

    def test_unbound_over_tcp(self):
        harness.require("unbound", "dig", "fstrm_capture", root=True)
        server = peers.UnboundServer((harness.LOOPBACK, self.port))
        self.assert_exchanges(self.relay_server(server, self.tcp, True),
                              ("CLIENT_QUERY", "CLIENT_RESPONSE"),
                              b"unbound-peer")

    def test_knot_over_unix_socket(self):
        harness.require("knotd", "dig", "fstrm_capture", root=True)
        server = peers.KnotServer(self.socket_path)
        self.assert_exchanges(self.relay_server(server, self.unix, False),
                              ("AUTH_QUERY", "AUTH_RESPONSE"), b"knot-peer")


if __name__ == "__main__":
    harness.main()
