# Real dnstap senders into the agent, relayed to fstrm_capture unchanged:
# fstrm_replay and the dnstap tool over TCP and a Unix socket (with a frame
# carrying fields newer than the agent), Unbound over TCP, Knot and named over
# a Unix socket while dig asks them; named's records then come out as JSON
# when the relayed file is sent again. The DNS servers need root.

import json
import os
import re
import struct

import fstrm
import harness
import peers

# (name, type, status, answer count), asked over UDP and TCP.
QUERIES = (("www.example.test.", "A", "NOERROR", 1),
           ("www.example.test.", "AAAA", "NOERROR", 1),
           ("example.test.", "MX", "NOERROR", 1),
           ("nope.example.test.", "A", "NXDOMAIN", 0))


def field(number, value):
    """One protobuf field: bytes for a bytes value, else a varint."""
    def varint(n):
        return bytes([n & 0x7F | 0x80]) + varint(n >> 7) if n >= 0x80 else \
            bytes([n])
    if isinstance(value, bytes):
        return varint(number << 3 | 2) + varint(len(value)) + value
    return varint(number << 3) + varint(value)


# A client response to a query of id 4660 for www.example.test A, as a newer
# sender writes it: with policy (15, a nested message) and http_protocol (16).
RESPONSE = struct.pack(">HHHHHH", 4660, 0x8180, 1, 0, 0, 0) + \
    b"\x03www\x07example\x04test\x00\x00\x01\x00\x01"
NEWER_FRAME = field(1, b"newer-peer") + field(15, 1) + field(14, b"".join((
    field(1, 6), field(2, 1), field(3, 1), field(4, bytes([192, 0, 2, 7])),
    field(5, bytes([192, 0, 2, 53])), field(6, 40000), field(7, 53),
    field(12, 1709622542), field(14, RESPONSE),
    field(15, field(1, b"rpz") + field(2, b"www.example.test.") + field(3, 1)),
    field(16, 2))))


class Senders(harness.RelayTest):
    maxDiff = None

    def setUp(self):
        super().setUp()
        self.socket_path = os.path.join(self.directory, "relay.sock")
        self.newer = os.path.join(self.directory, "newer.fstrm")
        with open(self.newer, "wb") as handle:
            handle.write(fstrm.control_frame(fstrm.START, fstrm.CONTENT_TYPE) +
                         fstrm.data_frame(NEWER_FRAME) +
                         fstrm.control_frame(fstrm.STOP))

    def agent(self, capture):
        return super().agent(capture.address, "batch-size=50",
                             unix=self.socket_path)

    def test_file_senders(self):
        harness.require("fstrm_capture")
        source, payloads = self.generate(300, 11)
        sends = [(source, target, tool)
                 for target in ((harness.LOOPBACK, self.port),
                                self.socket_path)
                 for tool in ("fstrm_replay", "dnstap")]
        sends.append((self.newer, self.socket_path, "fstrm_replay"))
        with peers.FstrmCapture() as capture:
            with self.agent(capture) as agent:
                sent = 0
                for path, target, tool in sends:
                    harness.send_file(path, target, tool)
                    sent += 1 if path == self.newer else len(payloads)
                    metrics = agent.wait_sent(sent)
            self.assertEqual([(entry["type"], entry["accepts"]) for entry in
                              metrics["listener"]], [("ipv4", 2), ("unix", 3)])
            self.assertEqual(metrics["listener"][1]["path"], self.socket_path)
        self.assertEqual(capture.payloads, payloads * 4 + [NEWER_FRAME])

    def relay_server(self, server, kinds, identity, connects_first=False,
                     recursion=(True,)):
        # Relays what the DNS server taps while dig asks every query over UDP
        # and TCP (with each recursion-desired flag): each exchange must
        # arrive once as a query and once as a response record, whose kinds
        # kinds(recursion desired) gives, the response saying what dig was
        # told. Returns the relayed file, the questions and the answers.
        relayed = os.path.join(self.directory, "relayed.fstrm")
        asked = [(name, qtype, tcp, rd) for rd in recursion
                 for tcp in (False, True) for name, qtype, _, _ in QUERIES]
        with peers.FstrmCapture(relayed) as capture:
            with self.agent(capture) as agent, server as dns:
                if connects_first:
                    agent.wait_log("Receiver[")
                answers = [peers.dig(dns.port, *question)
                           for question in asked]
                agent.wait_sent(2 * len(asked))
        self.assertEqual([answer[1:] for answer in answers],
                         [row[2:] for row in QUERIES] * (len(asked) // 4))
        expected = [(kind, identity, ("UDP", "TCP")[tcp], ident) + result
                    for (_, _, tcp, rd), (ident, status, count) in
                    zip(asked, answers)
                    for kind, result in zip(kinds(rd), [("NOERROR", 0),
                                                        (status, count)])]
        got = []
        for record in peers.dnstap_objects(relayed):
            message = record["message"]
            text = message[message["type"].lower().split("_")[1] + "_message"]
            status, ident = re.search(r"status: (\w+), id: (\d+)",
                                      text).groups()
            got.append((message["type"], record["identity"],
                        message["socket_protocol"], int(ident), status,
                        int(re.search(r"ANSWER: (\d+)", text).group(1))))
            if message["type"] == "AUTH_RESPONSE" and identity == "named-peer":
                self.assertEqual(message["query_zone"], peers.ZONE)
        self.assertCountEqual(got, expected)
        return relayed, asked, answers

    def test_unbound_over_tcp(self):
        harness.require("unbound", "dig", "fstrm_capture", "dnstap", root=True)
        self.relay_server(peers.UnboundServer((harness.LOOPBACK, self.port)),
                          lambda rd: ("CLIENT_QUERY", "CLIENT_RESPONSE"),
                          "unbound-peer", connects_first=True)

    def test_knot_over_unix_socket(self):
        harness.require("knotd", "dig", "fstrm_capture", "dnstap", root=True)
        self.relay_server(peers.KnotServer(self.socket_path),
                          lambda rd: ("AUTH_QUERY", "AUTH_RESPONSE"),
                          "knot-peer")

    def test_named_records_relayed_and_as_json(self):
        # Without recursion named taps every query as AUTH_QUERY, a response
        # to a query with RD as CLIENT_RESPONSE and one without as
        # AUTH_RESPONSE, which names the zone.
        harness.require("named", "dig", "fstrm_capture", "dnstap", root=True)
        relayed, asked, answers = self.relay_server(
            peers.BindServer(self.socket_path),
            lambda rd: ("AUTH_QUERY", "CLIENT_RESPONSE" if rd else
                        "AUTH_RESPONSE"), "named-peer", recursion=(True, False))
        # The same records and the newer frame, sent again, as JSON lines.
        with super().agent((harness.LOOPBACK, 9), "", "message-format json",
                           command="run-stdout") as agent:
            self.replay(relayed)
            self.replay(self.newer)
            agent.wait_sent(2 * len(asked) + 1)
            records = [json.loads(line) for line in agent.log().splitlines()
                       if line.startswith('{"timestamp"')]
        expected = [(side, kind, ("udp", "tcp")[tcp], ident, rd) + result
                    for (_, _, tcp, rd), (ident, status, count) in
                    zip(asked, answers)
                    for side, kind, result in (
                        ("auth", "query", ()),
                        ("client" if rd else "auth", "response",
                         (status, count)))]
        expected.append(("client", "response", "udp", 4660, True, "NOERROR",
                         0))
        got = []
        for record in records:
            data, kind = record["data"], record["type"].split("-")
            got.append(tuple(kind) + (data["proto"].lower(), data["txid"],
                                      data["flags"]["rd"]) +
                       ((data["rcode"], len(data["answers"]))
                        if kind[1] == "response" else ()))
        self.assertCountEqual(got, expected)


if __name__ == "__main__":
    harness.main()
