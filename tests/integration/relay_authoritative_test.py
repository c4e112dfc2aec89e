# An authoritative server's records through the agent: named taps client and
# authoritative traffic to the agent's Unix socket while dig asks with and
# without recursion desired. Its authoritative responses carry query_zone, and
# a frame built here carries the newer policy and http_protocol fields: each
# record must come out as JSON, and be relayed as dnstap unchanged. Needs root.

import json
import os
import struct

import frames
import harness
import peers

# (name, type, status, answer count), asked over UDP and TCP, with and without
# RD. Without recursion named taps every query as AUTH_QUERY, a response to a
# query with RD as CLIENT_RESPONSE and one without as AUTH_RESPONSE, which
# names the zone.
QUERIES = (("www.example.test.", "A", "NOERROR", 1),
           ("example.test.", "MX", "NOERROR", 1),
           ("nope.example.test.", "A", "NXDOMAIN", 0))
ASKED = [(name, qtype, tcp, recurse) for recurse in (True, False)
         for tcp in (False, True) for name, qtype, _, _ in QUERIES]


def field(number, value):
    """One protobuf field: bytes for a bytes value, else a varint."""
    def varint(n):
        out = bytearray()
        while n >= 0x80:
            out.append(n & 0x7F | 0x80)
            n >>= 7
        return bytes(out + bytes([n]))
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


class Authoritative(harness.RelayTest):
    maxDiff = None

    def setUp(self):
        super().setUp()
        harness.require("named", "dig", "fstrm_capture", "fstrm_replay",
                        "dnstap", root=True)
        self.socket_path = os.path.join(self.directory, "relay.sock")
        self.newer = os.path.join(self.directory, "newer.fstrm")
        with open(self.newer, "wb") as handle:
            handle.write(frames.control_frame(frames.FSTRM_START,
                                              frames.CONTENT_TYPE) +
                         frames.data_frame(NEWER_FRAME) +
                         frames.control_frame(frames.FSTRM_STOP))

    def ask(self, agent):
        # Every query through named, then the built frame over TCP; returns
        # dig's answers once the agent counts every record as sent.
        with peers.BindServer(self.socket_path) as named:
            answers = [peers.dig(named.port, name, qtype, tcp, recurse)
                       for name, qtype, tcp, recurse in ASKED]
            agent.wait_sent(2 * len(ASKED))
            self.replay(self.newer)
            agent.wait_sent(2 * len(ASKED) + 1)
        self.assertEqual([answer[1:] for answer in answers],
                         [row[2:] for row in QUERIES] * 4)
        return answers

    def test_every_record_as_json(self):
        with self.agent((harness.LOOPBACK, 9), "", "message-format json",
                        unix=self.socket_path, command="run-stdout") as agent:
            answers = self.ask(agent)
            records = [json.loads(line) for line in agent.log().splitlines()
                       if line.startswith('{"timestamp"')]
        expected = [(side, kind, ("udp", "tcp")[tcp], ident, recurse) + result
                    for (_, _, tcp, recurse), (ident, status, count) in
                    zip(ASKED, answers)
                    for side, kind, result in (
                        ("auth", "query", ()),
                        ("client" if recurse else "auth", "response",
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

    def test_relayed_unchanged(self):
        relayed = os.path.join(self.directory, "relayed.fstrm")
        with peers.FstrmCapture(relayed) as capture:
            with self.agent(capture.address, "",
                            unix=self.socket_path) as agent:
                self.ask(agent)
        self.assertEqual(capture.payloads[-1], NEWER_FRAME)
        records = peers.dnstap_objects(relayed)[:-1]
        zones = [record["message"].get("query_zone") for record in records
                 if record["message"]["type"] == "AUTH_RESPONSE"]
        self.assertEqual(zones, ["example.test."] * (len(ASKED) // 2))
        self.assertEqual(len(records), 2 * len(ASKED))


if __name__ == "__main__":
    harness.main()
