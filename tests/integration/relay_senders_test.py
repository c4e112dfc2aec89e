# Real dnstap senders into the agent, relayed to fstrm_capture unchanged:
# fstrm_replay and the dnstap tool over TCP and a Unix socket, Unbound over TCP
# and Knot over a Unix socket while dig asks them. Needs root.

import os
import re

import harness
import peers

# (name, type, status, answer count), asked over UDP and TCP.
QUERIES = (("www.example.test.", "A", "NOERROR", 1),
           ("www.example.test.", "AAAA", "NOERROR", 1),
           ("example.test.", "MX", "NOERROR", 1),
           ("nope.example.test.", "A", "NXDOMAIN", 0))


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
        relayed = os.path.join(self.directory, "relayed.fstrm")
        with peers.FstrmCapture(relayed) as capture:
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
        expected = [(kind, identity, ("UDP", "TCP")[tcp], ident) + result
                    for _, _, tcp, ident, status, answers in asked
                    for kind, result in zip(types, [("NOERROR", 0),
                                                    (status, answers)])]
        got = []
        for record in peers.dnstap_objects(relayed):
            message = record["message"]
            text = message[message["type"].lower().split("_")[1] + "_message"]
            status, ident = re.search(r"status: (\w+), id: (\d+)",
                                      text).groups()
            got.append((message["type"], record["identity"],
                        message["socket_protocol"], int(ident), status,
                        int(re.search(r"ANSWER: (\d+)", text).group(1))))
        self.assertCountEqual(got, expected)

    def test_unbound_over_tcp(self):
        harness.require("unbound", "dig", "fstrm_capture", "dnstap", root=True)
        self.relay_server(peers.UnboundServer((harness.LOOPBACK, self.port)),
                          ("CLIENT_QUERY", "CLIENT_RESPONSE"), "unbound-peer",
                          True)

    def test_knot_over_unix_socket(self):
        harness.require("knotd", "dig", "fstrm_capture", "dnstap", root=True)
        self.relay_server(peers.KnotServer(self.socket_path),
                          ("AUTH_QUERY", "AUTH_RESPONSE"), "knot-peer", False)


if __name__ == "__main__":
    harness.main()
