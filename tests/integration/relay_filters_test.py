# The edge filters on a real relay: load-generator frames sent by
# fstrm_replay, filtered by name, type, sample and client address, checked at
# a Frame Streams collector (frames no rule touched, byte for byte) and in the
# JSON lines (the survivors, with their clients truncated).

import ipaddress
import json

import collectors
import harness

COUNT = 400
MASK = (1 << 64) - 1


def varint(data, at):
    value, shift = 0, 0
    while True:
        byte = data[at]
        value |= (byte & 0x7F) << shift
        at, shift = at + 1, shift + 7
        if byte < 0x80:
            return value, at


def fields(data):
    # {field number: value} of one protobuf message (last value wins).
    out, at = {}, 0
    while at < len(data):
        tag, at = varint(data, at)
        kind = tag & 7
        if kind == 0:
            out[tag >> 3], at = varint(data, at)
        elif kind == 2:
            size, at = varint(data, at)
            out[tag >> 3], at = data[at:at + size], at + size
        elif kind == 5:
            out[tag >> 3], at = data[at:at + 4], at + 4
        else:
            raise ValueError("wire type %d" % kind)
    return out


def question(wire):
    # (id, lower-case name without the trailing dot, type) of a DNS message.
    at, labels = 12, []
    while wire[at]:
        labels.append(wire[at + 1:at + 1 + wire[at]].decode("latin-1"))
        at += 1 + wire[at]
    name = ".".join(labels).lower()
    return (wire[0] << 8 | wire[1], name,
            wire[at + 1] << 8 | wire[at + 2])


def record(payload):
    message = fields(fields(payload)[14])
    wire = message[10] if message[1] & 1 else message[14]
    return message, question(wire)


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
        self.source, self.payloads = self.generate(COUNT, 16)
        self.list = self.write_list(["# noise", "Example.COM.", "shop.example"])

    def write_list(self, names):
        path = "%s/drop.list" % self.directory
        with open(path, "w") as handle:
            handle.write("\n".join(names) + "\n")
        return path

    def test_untouched_frames_pass_byte_for_byte(self):
        harness.require("fstrm_replay")
        expected = [p for p in self.payloads
                    if not under(record(p)[1][1], "example.com")
                    and not under(record(p)[1][1], "shop.example")
                    and record(p)[1][2] != 12]
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
        harness.require("fstrm_replay")
        expected = []
        for payload in self.payloads:
            message, (txid, name, _) = record(payload)
            if under(name, "example.com") or under(name, "shop.example"):
                continue
            if not sampled_in(message[4], message[6], txid, 3):
                continue
            prefix = 24 if len(message[4]) == 4 else 56
            network = ipaddress.ip_network((message[4], prefix), strict=False)
            expected.append((str(network.network_address), message[6], txid))
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
