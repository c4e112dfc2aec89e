# The edge filters on a real relay: load-generator frames (read back by the
# dnstap tool) sent by fstrm_replay, filtered by name, type, sample and client
# address, checked at a Frame Streams collector (frames no rule touched, byte
# for byte) and in the JSON lines (the survivors, clients truncated).

import ipaddress
import json
import re

import collectors
import harness
import peers

COUNT = 400
MASK = (1 << 64) - 1


def questions(path):
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

    def setUp(self):
        super().setUp()
        harness.require("fstrm_replay", "dnstap")
        self.source, self.payloads = self.generate(COUNT, 16)
        self.questions = questions(self.source)
        self.list = self.write_list(["# noise", "Example.COM.", "shop.example"])

    def write_list(self, names):
        path = "%s/drop.list" % self.directory
        with open(path, "w") as handle:
            handle.write("\n".join(names) + "\n")
        return path

    def test_untouched_frames_pass_byte_for_byte(self):
        expected = [p for p, (name, qtype, *_) in
                    zip(self.payloads, self.questions)
                    if not under(name, "example.com")
                    and not under(name, "shop.example") and qtype != "PTR"]
        self.assertTrue(0 < len(expected) < COUNT)
        with collectors.FrameCollector() as collector:
            with self.agent(collector.address, "",
                            "filter-drop-domain-file " + self.list,
                            "filter-drop-type PTR") as agent:
                self.replay(self.source)
                metrics = agent.wait_sent(len(expected))
            self.assertEqual(collector.wait_count(len(expected)), expected)
        listener = metrics["listener"][0]
        self.assertEqual(listener["droppedByDomain"] + listener["droppedByType"],
                         COUNT - len(expected))
        self.assertNotIn("sampledOut", listener)

    def test_json_shows_survivors_with_truncated_clients(self):
        expected = []
        for name, _, txid, client, port in self.questions:
            if under(name, "example.com") or under(name, "shop.example") or \
                    not sampled_in(client.packed, port, txid, 3):
                continue
            prefix = 24 if client.version == 4 else 56
            network = ipaddress.ip_network((client, prefix), strict=False)
            expected.append((str(network.network_address), port, txid))
        with self.agent((harness.LOOPBACK, 9), "",
                        "message-format json",
                        "filter-drop-domain-file " + self.list,
                        "filter-sample-one-in 3",
                        "filter-client-address truncate",
                        command="run-stdout") as agent:
            self.replay(self.source)
            agent.wait_sent(len(expected))
            lines = [json.loads(line) for line in agent.log().splitlines()
                     if line.startswith("{")]
        self.assertEqual([(line["data"]["client"], line["data"]["port"],
                           line["data"]["txid"]) for line in lines], expected)


if __name__ == "__main__":
    harness.main()
