# Real dnstap senders into the agent, relayed to fstrm_capture unchanged:
# fstrm_replay and the dnstap tool over TCP and a Unix socket through the edge
# filters, then Unbound over TCP, Knot and named over the Unix socket while dig
# asks them. Their records come out as JSON when sent again: the survivors of
# a sample with clients truncated, and every DNS server's record. The DNS
# servers need root.

import ipaddress
import json
import os

import fstrm
import harness
import peers

# (name, type, status, answer count), asked over UDP and TCP.
QUERIES = (("www.example.test.", "A", "NOERROR", 1),
           ("www.example.test.", "AAAA", "NOERROR", 1),
           ("example.test.", "MX", "NOERROR", 1),
           ("nope.example.test.", "A", "NXDOMAIN", 0))


COUNT = 400
MASK = (1 << 64) - 1


def sampled_in(address, port, txid, one_in):
    # The agent's documented sampling key: FNV-1a 64 over the address bytes,
    # port and id (big-endian), then the 64-bit finaliser.
    h = 0xCBF29CE484222325
    for byte in address + bytes([port >> 8 & 255, port & 255, txid >> 8,
                                 txid & 255]):
        h = ((h ^ byte) * 0x100000001B3) & MASK
    for multiplier in (0xFF51AFD7ED558CCD, 0xC4CEB9FE1A85EC53):
        h ^= h >> 33
        h = (h * multiplier) & MASK
    h ^= h >> 33
    return h % one_in == 0


def field(number, value):
    # One protobuf field: length-delimited for bytes, else a varint.
    def varint(n):
        out = bytearray()
        while n >= 0x80:
            out.append(n & 0x7F | 0x80)
            n >>= 7
        return bytes(out + bytes([n]))
    if isinstance(value, bytes):
        return varint(number << 3 | 2) + varint(len(value)) + value
    return varint(number << 3) + varint(value)


# A client response for www.example.test A as a newer sender writes it, with
# policy (15, a nested message) and http_protocol (16) in the Message.
NEWER_FRAME = field(1, b"newer-peer") + field(15, 1) + field(14, b"".join((
    field(1, 6), field(2, 1), field(3, 1), field(4, bytes([192, 0, 2, 7])),
    field(5, bytes([192, 0, 2, 53])), field(6, 40000), field(7, 53),
    field(12, 1709622542), field(14, bytes.fromhex(
        "12348180000100000000000003777777076578616d706c6504746573740000010001")),
    field(15, field(1, b"rpz") + field(2, b"www.example.test.") + field(3, 1)),
    field(16, 2))))


def under(name, domain):
    return name == domain or name.endswith("." + domain)


class Senders(harness.RelayTest):
    maxDiff = None

    def setUp(self):
        super().setUp()
        self.socket_path = os.path.join(self.directory, "relay.sock")

    def agent(self, capture, *settings):
        return super().agent(capture.address, "batch-size=50", *settings,
                             unix=self.socket_path)

    def test_file_senders_through_filters(self):
        # Load-generator records (read back by the dnstap tool) filtered by
        # name and type: the frames no rule touched pass byte for byte, from
        # fstrm_replay and the dnstap tool over TCP and the Unix socket; then
        # a frame with Message fields the agent does not use.
        harness.require("fstrm_capture", "dnstap")
        source, payloads = self.generate(COUNT, 16)
        questions = []  # (name, type, id, client address, client port)
        for record in peers.dnstap_objects(source):
            message = record["message"]
            questions.append(message["dns"][4:] + (
                message["dns"][1], ipaddress.ip_address(
                    message["query_address"]), message["query_port"]))
        drop_list = os.path.join(self.directory, "drop.list")
        with open(drop_list, "w") as handle:
            handle.write("# noise\nExample.COM.\nshop.example\n")
        dropped = [under(name, "example.com") or under(name, "shop.example")
                   for name, *_ in questions]
        expected = [p for p, drop, (_, qtype, *_) in
                    zip(payloads, dropped, questions)
                    if not drop and qtype != "PTR"]
        self.assertTrue(0 < len(expected) < COUNT)
        kind = ["-t", fstrm.CONTENT_TYPE.decode()]
        sends = (["fstrm_replay"] + kind + ["-a", harness.LOOPBACK, "-p",
                                            self.port],
                 ["dnstap", "-T", "%s:%d" % (harness.LOOPBACK, self.port)],
                 ["fstrm_replay"] + kind + ["-u", self.socket_path],
                 ["dnstap", "-U", self.socket_path])
        with peers.FstrmCapture() as capture:
            with self.agent(capture, "filter-drop-domain-file " + drop_list,
                            "filter-drop-type PTR") as agent:
                for count, send in enumerate(sends, 1):
                    harness.run_tool(send + ["-r", source])
                    agent.wait_sent(count * len(expected))
                newer = os.path.join(self.directory, "newer.fstrm")
                with open(newer, "wb") as handle:
                    handle.write(fstrm.control_frame(fstrm.START,
                                                     fstrm.CONTENT_TYPE) +
                                 fstrm.data_frame(NEWER_FRAME) +
                                 fstrm.control_frame(fstrm.STOP))
                harness.run_tool(sends[0] + ["-r", newer])
                agent.wait_sent(len(sends) * len(expected) + 1)
        self.assertEqual(capture.payloads,
                         expected * len(sends) + [NEWER_FRAME])

        # The JSON lines show the survivors of a sample, clients truncated.
        expected = [(str(ipaddress.ip_network(
            (client, 24 if client.version == 4 else 56),
            strict=False).network_address), port, txid)
            for drop, (_, _, txid, client, port) in zip(dropped, questions)
            if not drop and sampled_in(client.packed, port, txid, 3)]
        with super().agent((harness.LOOPBACK, 9), "", "message-format json",
                           "filter-drop-domain-file " + drop_list,
                           "filter-sample-one-in 3",
                           "filter-client-address truncate",
                           command="run-stdout") as agent:
            self.replay(source)
            agent.wait_sent(len(expected))
            lines = [json.loads(line) for line in agent.log().splitlines()
                     if line.startswith("{")]
        self.assertEqual([(line["data"]["client"], line["data"]["port"],
                           line["data"]["txid"]) for line in lines], expected)

    def test_dns_servers(self):
        # Each server in turn while dig asks every query over UDP and TCP:
        # each exchange must arrive once as a query and once as a response
        # record, the response saying what dig was told.
        harness.require("unbound", "knotd", "named", "dig", "fstrm_capture",
                        "dnstap", root=True)
        servers = (  # (server, the kinds of its records for RD, RD asked)
            (peers.DnsServer("unbound", (harness.LOOPBACK, self.port)),
             lambda rd: ("CLIENT_QUERY", "CLIENT_RESPONSE"), (True,)),
            (peers.DnsServer("knot", self.socket_path),
             lambda rd: ("AUTH_QUERY", "AUTH_RESPONSE"), (True,)),
            # named taps a response to a query with RD as CLIENT_RESPONSE,
            # one without as AUTH_RESPONSE, which names the zone.
            (peers.DnsServer("named", self.socket_path), lambda rd: (
                "AUTH_QUERY", "CLIENT_RESPONSE" if rd else "AUTH_RESPONSE"),
             (True, False)))
        relayed = os.path.join(self.directory, "relayed.fstrm")
        expected = []  # (identity, type, protocol, id, RD, status, answers)
        with peers.FstrmCapture(relayed) as capture, \
                self.agent(capture) as agent:
            for server, kinds, recursion in servers:
                with server as dns:
                    if dns.name == "unbound":
                        agent.wait_log("Receiver[")  # it connects at start
                    for rd in recursion:
                        for tcp in (False, True):
                            for name, qtype, status, count in QUERIES:
                                ident, *answer = peers.dig(dns.port, name,
                                                           qtype, tcp, rd)
                                self.assertEqual(answer, [status, count])
                                expected += [
                                    (dns.name + "-peer", kind,
                                     ("UDP", "TCP")[tcp], ident, rd) + result
                                    for kind, result in zip(kinds(rd), (
                                        ("NOERROR", 0), (status, count)))]
                    agent.wait_sent(len(expected))
        got = []
        for record in peers.dnstap_objects(relayed):
            message = record["message"]
            status, ident, rd, answers = message["dns"][:4]
            got.append((record["identity"], message["type"],
                        message["socket_protocol"], ident, rd, status,
                        answers))
            if message["type"] == "AUTH_RESPONSE" and \
                    record["identity"] == "named-peer":
                self.assertEqual(message["query_zone"], peers.ZONE)
        self.assertCountEqual(got, expected)

        # The same records, sent again, as JSON lines.
        with super().agent((harness.LOOPBACK, 9), "", "message-format json",
                           command="run-stdout") as agent:
            self.replay(relayed)
            agent.wait_sent(len(expected))
            lines = [json.loads(line) for line in agent.log().splitlines()
                     if line.startswith('{"timestamp"')]
        got = [(line["type"].upper().replace("-", "_"),) + tuple(
            (data["proto"].upper(), data["txid"], data["flags"]["rd"],
             data.get("rcode", "NOERROR"), len(data.get("answers", []))))
            for line, data in ((line, line["data"]) for line in lines)]
        self.assertCountEqual(got, [row[1:] for row in expected])


if __name__ == "__main__":
    harness.main()
