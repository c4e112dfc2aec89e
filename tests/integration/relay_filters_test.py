# The edge filters on a real relay: load-generator frames (read back by the
# dnstap tool) sent by fstrm_replay, filtered by name, type, sample and client
# address, checked at a Frame Streams collector (frames no rule touched, byte
# for byte) and in the JSON lines (the survivors, clients truncated).

import ipaddress
import json
import os
import re

import fstrm
import harness
import peers

COUNT = 400
MASK = (1 << 64) - 1


def parse_questions(path):
    # (name, type, id, client address, client port) of each record of a
    # file, as the dnstap tool shows it; names in lower case, no final dot.
    out = []
    for record in peers.dnstap_objects(path):
        message = record["message"]
        text = message.get("query_message") or message["response_message"]
        name, qtype = re.search(r"QUESTION SECTION:\n;(\S+)\tIN\t\s*(\w+)",
                                text).groups()
        out.append((name.rstrip(".").lower(), qtype,
                    int(re.search(r"id: (\d+)", text).group(1)),
                    ipaddress.ip_address(message["query_address"]),
                    message["query_port"]))
    return out


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


def under(name, domain):
    return name == domain or name.endswith("." + domain)


class Filters(harness.RelayTest):

    def test_drop_sample_and_truncate_rules(self):
        harness.require("dnstap")
        source, payloads = self.generate(COUNT, 16)
        questions = parse_questions(source)
        drop_list = os.path.join(self.directory, "drop.list")
        with open(drop_list, "w") as handle:
            handle.write("# noise\nExample.COM.\nshop.example\n")
        dropped = [under(name, "example.com") or under(name, "shop.example")
                   for name, *_ in questions]

        # The frames no rule touched pass byte for byte.
        expected = [p for p, drop, (_, qtype, *_) in
                    zip(payloads, dropped, questions)
                    if not drop and qtype != "PTR"]
        self.assertTrue(0 < len(expected) < COUNT)
        with fstrm.Collector(harness.free_port()) as collector:
            with self.agent(collector.address, "",
                            "filter-drop-domain-file " + drop_list,
                            "filter-drop-type PTR") as agent:
                self.replay(source)
                listener = agent.wait_sent(len(expected))["listener"][0]
            self.assertEqual(collector.wait_count(len(expected)), expected)
        self.assertEqual(listener["droppedByDomain"] + listener["droppedByType"],
                         COUNT - len(expected))
        self.assertNotIn("sampledOut", listener)

        # The JSON lines show the survivors of a sample, clients truncated.
        expected = [(str(ipaddress.ip_network(
            (client, 24 if client.version == 4 else 56),
            strict=False).network_address), port, txid)
            for drop, (_, _, txid, client, port) in zip(dropped, questions)
            if not drop and sampled_in(client.packed, port, txid, 3)]
        with self.agent((harness.LOOPBACK, 9), "", "message-format json",
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


if __name__ == "__main__":
    harness.main()
