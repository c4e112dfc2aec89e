# Real dnstap senders into the agent, relayed to fstrm_capture unchanged:
# fstrm_replay and the dnstap tool over TCP and a Unix socket, then Unbound
# over TCP, Knot and named over the Unix socket while dig asks them; their
# records then come out as JSON when the relayed file is sent again. The DNS
# servers need root.

import json
import os
import re

import fstrm
import harness
import peers

# (name, type, status, answer count), asked over UDP and TCP.
QUERIES = (("www.example.test.", "A", "NOERROR", 1),
           ("www.example.test.", "AAAA", "NOERROR", 1),
           ("example.test.", "MX", "NOERROR", 1),
           ("nope.example.test.", "A", "NXDOMAIN", 0))


class Senders(harness.RelayTest):
    maxDiff = None

    def setUp(self):
        super().setUp()
        self.socket_path = os.path.join(self.directory, "relay.sock")

    def agent(self, capture):
        return super().agent(capture.address, "batch-size=50",
                             unix=self.socket_path)

    def test_file_senders(self):
        harness.require("fstrm_capture", "fstrm_replay", "dnstap")
        source, payloads = self.generate(300, 11)
        kind = ["-t", fstrm.CONTENT_TYPE.decode()]
        sends = (["fstrm_replay"] + kind + ["-a", harness.LOOPBACK, "-p",
                                            self.port],
                 ["dnstap", "-T", "%s:%d" % (harness.LOOPBACK, self.port)],
                 ["fstrm_replay"] + kind + ["-u", self.socket_path],
                 ["dnstap", "-U", self.socket_path])
        with peers.FstrmCapture() as capture:
            with self.agent(capture) as agent:
                for count, send in enumerate(sends, 1):
                    harness.run_tool(send + ["-r", source])
                    metrics = agent.wait_sent(count * len(payloads))
            self.assertEqual([(entry["type"], entry["accepts"]) for entry in
                              metrics["listener"]], [("ipv4", 2), ("unix", 2)])
            self.assertEqual(metrics["listener"][1]["path"], self.socket_path)
        self.assertEqual(capture.payloads, payloads * len(sends))

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
            text = message[message["type"].lower().split("_")[1] + "_message"]
            status, ident, flags = re.search(
                r"status: (\w+), id: (\d+)\n;; flags:([^;]*);", text).groups()
            got.append((record["identity"], message["type"],
                        message["socket_protocol"], int(ident),
                        "rd" in flags.split(), status,
                        int(re.search(r"ANSWER: (\d+)", text).group(1))))
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
