# Real dnstap senders into the agent, relayed to fstrm_capture unchanged: fstrm_replay and the
# dnstap tool over TCP and a Unix socket through the edge filters, then Unbound over TCP, Knot and
# named over the Unix socket while dig asks them. Their records come out as JSON when sent again:
# the survivors of a sample with clients truncated, and every DNS server's record. The DNS servers
# need root.

import ipaddress
import json
import os
import pathlib
import re

import fstrm
import harness
import peers

COUNT = 400
# (name, type, status, answer count), asked over UDP and TCP.
QUERIES = (("www.example.test.", "A", "NOERROR", 1), ("www.example.test.", "AAAA", "NOERROR", 1),
           ("example.test.", "MX", "NOERROR", 1), ("nope.example.test.", "A", "NXDOMAIN", 0))
# A client response for www.example.test A as a newer sender writes it, with policy (15, a nested
# message) and http_protocol (16) in the Message.
NEWER_FRAME = bytes.fromhex(
    "0a0a 6e657765722d70656572 7801"  # identity "newer-peer", type 1
    "7261 0806 1001 1801 2204 c0000207 2a04 c0000235 30 c0b802 38 35 60 8e8a9baf06"  # message
    "7222 12348180000100000000000003777777076578616d706c650474657374000001 0001"  # response
    "7a1a 0a03 72707a 1211 7777772e6578616d706c652e746573742e 1801 8001 02")  # policy, http


def sampled_in(address, port, txid, one_in):
    # The agent's documented sampling key: FNV-1a 64 over the address bytes, port and id
    # (big-endian), then the 64-bit finaliser.
    h = 0xCBF29CE484222325
    for byte in address + bytes([port >> 8 & 255, port & 255, txid >> 8, txid & 255]):
        h = ((h ^ byte) * 0x100000001B3) % (1 << 64)
    for multiplier in (0xFF51AFD7ED558CCD, 0xC4CEB9FE1A85EC53):
        h ^= h >> 33
        h = (h * multiplier) % (1 << 64)
    return (h ^ h >> 33) % one_in == 0


class Senders(harness.RelayTest):
    socket_path = property(lambda self: os.path.join(self.directory, "relay.sock"))

    def agent(self, capture, *settings):
        return super().agent(capture.address, "batch-size=50", *settings,
                             "listener unix " + self.socket_path)

    def capture(self):
        return peers.FstrmCapture(os.path.join(self.directory, "relayed.fstrm"))

    def json_lines(self, path, count, *settings):
        # The objects an agent writes to standard output as JSON lines for the records of path,
        # once count have been sent.
        with super().agent((harness.LOOPBACK, 9), "", "message-format json", *settings,
                           command="run-stdout") as agent:
            self.replay(path)
            agent.wait_sent(count)
            return [json.loads(line) for line in agent.log().splitlines() if line[:1] == "{"]

    def test_file_senders_through_filters(self):
        # Load-generator records (read back by the dnstap tool) filtered by name and type: the
        # frames no rule touched pass byte for byte, from fstrm_replay and the dnstap tool over
        # TCP and the Unix socket; then a frame with Message fields the agent does not use.
        harness.require("fstrm_capture", "dnstap")
        source, payloads = self.generate(COUNT, 16)
        questions = [  # (name, type, id, client address, client port)
            m["dns"][4:] + (m["dns"][1], ipaddress.ip_address(m["query_address"]), m["query_port"])
            for m in (record["message"] for record in peers.dnstap_objects(source))]
        drop_list = pathlib.Path(self.directory, "drop.list")
        drop_list.write_text("# noise\nExample.COM.\nshop.example\n")
        dropped = [re.search(r"(^|\.)(example\.com|shop\.example)$", q[0]) for q in questions]
        expected = [payload for payload, drop, (_, qtype, *_) in zip(payloads, dropped, questions)
                    if not drop and qtype != "PTR"]
        self.assertTrue(0 < len(expected) < COUNT)
        kind = ["-t", fstrm.CONTENT_TYPE.decode()]
        sends = (["fstrm_replay", *kind, "-a", harness.LOOPBACK, "-p", self.port],
                 ["dnstap", "-T", "%s:%d" % (harness.LOOPBACK, self.port)],
                 ["fstrm_replay", *kind, "-u", self.socket_path],
                 ["dnstap", "-U", self.socket_path])
        newer = pathlib.Path(self.directory, "newer.fstrm")
        newer.write_bytes(fstrm.control_frame(fstrm.START, fstrm.CONTENT_TYPE) +
                          fstrm.data_frame(NEWER_FRAME) + fstrm.control_frame(fstrm.STOP))
        with self.capture() as capture, self.agent(capture, "filter-drop-type PTR",
                                                   "filter-drop-domain-file %s" %
                                                   drop_list) as agent:
            for count, send in enumerate(sends, 1):
                harness.run_tool(send + ["-r", source])
                agent.wait_sent(count * len(expected))
            harness.run_tool(sends[0] + ["-r", newer])
            agent.wait_sent(len(sends) * len(expected) + 1)
        self.assertEqual(capture.payloads, expected * len(sends) + [NEWER_FRAME])

        # The JSON lines show the survivors of a sample, clients truncated.
        expected = [(str(ipaddress.ip_network((client, 24 if client.version == 4 else 56),
                                              strict=False).network_address), port, txid)
                    for drop, (_, _, txid, client, port) in zip(dropped, questions)
                    if not drop and sampled_in(client.packed, port, txid, 3)]
        lines = self.json_lines(source, len(expected), "filter-drop-domain-file %s" % drop_list,
                                "filter-sample-one-in 3", "filter-client-address truncate")
        self.assertEqual([(line["data"]["client"], line["data"]["port"], line["data"]["txid"])
                          for line in lines], expected)

    def test_dns_servers(self):
        # Each server in turn while dig asks every query over UDP and TCP: each exchange must
        # arrive once as a query and once as a response record, the response saying what dig was
        # told.
        harness.require("unbound", "knotd", "named", "dig", "fstrm_capture", "dnstap", root=True)
        servers = (  # (server, the kinds of its records for RD, RD asked)
            (peers.DnsServer("unbound", (harness.LOOPBACK, self.port)),
             lambda rd: ("CLIENT_QUERY", "CLIENT_RESPONSE"), (True,)),
            (peers.DnsServer("knot", self.socket_path),
             lambda rd: ("AUTH_QUERY", "AUTH_RESPONSE"), (True,)),
            # named taps a response to a query with RD as CLIENT_RESPONSE, one without as
            # AUTH_RESPONSE, which names the zone.
            (peers.DnsServer("named", self.socket_path), lambda rd:
             ("AUTH_QUERY", "CLIENT_RESPONSE" if rd else "AUTH_RESPONSE"), (True, False)))
        expected = []  # (identity, type, protocol, id, RD, status, answers)
        with self.capture() as capture, self.agent(capture) as agent:
            for server, kinds, recursion in servers:
                with server as dns:
                    if dns.name == "unbound":
                        agent.wait_log("Receiver[")  # it connects at start
                    for rd, tcp, (name, qtype, status, count) in (
                            (rd, tcp, query) for rd in recursion for tcp in (False, True)
                            for query in QUERIES):
                        ident, *answer = peers.dig(dns.port, name, qtype, tcp, rd)
                        self.assertEqual(answer, [status, count])
                        expected += [(dns.name + "-peer", kind, ("UDP", "TCP")[tcp], ident, rd) +
                                     result for kind, result in zip(kinds(rd), (
                                         ("NOERROR", 0), (status, count)))]
                    agent.wait_sent(len(expected))
        got = []
        for record in peers.dnstap_objects(capture.output):
            message = record["message"]
            status, ident, rd, answers = message["dns"][:4]
            got.append((record["identity"], message["type"], message["socket_protocol"], ident, rd,
                        status, answers))
            if message["type"] == "AUTH_RESPONSE" and record["identity"] == "named-peer":
                self.assertEqual(message["query_zone"], peers.ZONE)
        self.assertCountEqual(got, expected)

        # The same records, sent again, as JSON lines.
        got = [(line["type"].upper().replace("-", "_"), data["proto"].upper(), data["txid"],
                data["flags"]["rd"], data.get("rcode", "NOERROR"), len(data.get("answers", [])))
               for line, data in ((line, line["data"])
                                  for line in self.json_lines(capture.output, len(expected)))]
        self.assertCountEqual(got, [row[1:] for row in expected])


if __name__ == "__main__":
    harness.main()
