# Real dnstap senders into the agent, relayed to fstrm_capture unchanged:
# fstrm_replay and the dnstap tool over TCP and a Unix socket, Unbound over TCP
# and Knot over a Unix socket while dig asks them. Needs root.

import os

import dnstap_records as dr
import harness
import peers
import text_model

# (name, type, status, answers as dig shows them), asked over UDP and TCP.
QUERIES = (("www.example.test.", "A", "NOERROR",
            ["www.example.test. A 192.0.2.1"]),
           ("www.example.test.", "AAAA", "NOERROR",
            ["www.example.test. AAAA 2001:db8::1"]),
           ("example.test.", "MX", "NOERROR",
            ["example.test. MX 10 mail.example.test."]),
           ("nope.example.test.", "A", "NXDOMAIN", []))


class Senders(harness.RelayTest):

    def setUp(self):
        super().setUp()
        self.socket_path = os.path.join(self.directory, "relay.sock")

    def agent(self, capture):
        return super().agent(capture.address, "batch-size=50",
                             unix=self.socket_path)

    def test_file_senders(self):
        harness.require("fstrm_capture")
        source, payloads = self.generate(300, 11)
        sends = [(tool, target) for target in ((harness.LOOPBACK, self.port),
                                               self.socket_path)
                 for tool in ("fstrm_replay", "dnstap")]
        with peers.FstrmCapture() as capture:
            with self.agent(capture) as agent:
                for count, (tool, target) in enumerate(sends, 1):
                    harness.send_file(tool, source, target)
                    metrics = agent.wait_sent(count * len(payloads))
            self.assertEqual([(entry["type"], entry["accepts"]) for entry in
                              metrics["listener"]], [("ipv4", 2), ("unix", 2)])
            self.assertEqual(metrics["listener"][1]["path"], self.socket_path)
        self.assertEqual(capture.payloads, payloads * len(sends))

    def relay_server(self, server, types, identity, connects_first):
        # Relays what the DNS server taps while dig asks every query over UDP
        # and TCP: each exchange must arrive once as a query and once as a
        # response record, the response saying what dig was told.
        with peers.FstrmCapture() as capture:
            with self.agent(capture) as agent, server as dns:
                if connects_first:
                    agent.wait_log("Receiver[")
                asked = [(name, qtype, tcp) + peers.dig(dns.port, name, qtype,
                                                        tcp)
                         for tcp in (False, True)
                         for name, qtype, _, _ in QUERIES]
                agent.wait_sent(2 * len(asked))
        self.assertEqual([row[4:] for row in asked],
                         [row[2:] for row in QUERIES] * 2)
        expected = [(kind, identity, 1 + tcp, ident, name, qtype) + answer
                    for name, qtype, tcp, ident, status, answers in asked
                    for kind, answer in zip(types, [("NOERROR", []),
                                                    (status, answers)])]
        got = []
        for record in map(dr.decode_dnstap, capture.payloads):
            message = text_model.Message(record.wire)
            got.append((record.type_name, record.identity,
                        record.socket_protocol, message.id, message.qname,
                        text_model.type_name(message.qtype), message.rcode,
                        message.answers()))
        self.assertCountEqual(got, expected)

    def test_unbound_over_tcp(self):
        harness.require("unbound", "dig", "fstrm_capture", root=True)
        self.relay_server(peers.UnboundServer((harness.LOOPBACK, self.port)),
                          ("CLIENT_QUERY", "CLIENT_RESPONSE"), b"unbound-peer",
                          True)

    def test_knot_over_unix_socket(self):
        harness.require("knotd", "dig", "fstrm_capture", root=True)
        self.relay_server(peers.KnotServer(self.socket_path),
                          ("AUTH_QUERY", "AUTH_RESPONSE"), b"knot-peer", False)


if __name__ == "__main__":
    harness.main()
