"""The agent's output as real collectors see it: dnstap to the dnstap tool,
query-log lines with both syslog headers to rsyslog, JSON lines and
unidirectional dnstap to Python collectors. The expected texts are worked
out from the records by text_model, not by the agent.

The input is a file from the load generator, which is checked here too.

Run: python3 tests/integration/relay_collectors_test.py [-v]
"""

import dataclasses
import json
import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import agent as ag  # noqa: E402
import collectors  # noqa: E402
import dnstap_records as dr  # noqa: E402
import peers  # noqa: E402
import text_model  # noqa: E402

COUNT = 240
HOST = "e2e-host"
TIMEOUT = 15


class Relay(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        ag.require_tools("fstrm_replay")
        cls.directory = tempfile.TemporaryDirectory(prefix="vt-collectors-")
        cls.source = os.path.join(cls.directory.name, "load.fstrm")
        ag.loadgen("--write", cls.source, "--count", COUNT, "--seed", 5,
                   "--start-time", 1709622542)
        with open(cls.source, "rb") as handle:
            cls.payloads = dr.split_frames(handle.read())[1]
        cls.records = [dr.decode_dnstap(p) for p in cls.payloads]

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    def run_relay(self, collector_address, options, settings, wait):
        """Starts an agent that forwards to collector_address, replays the
        file into it and returns what wait() returns."""
        port = ag.listener_port()
        config = ["listener ipv4 127.0.0.1 %d" % port,
                  "forwarder ipv4 %s %d batch-size=25 %s" % (
                      collector_address[0], collector_address[1], options),
                  "message-hostname " + HOST, "domain-suffix-mode off",
                  "metrics-interval 1"] + settings
        with ag.Agent(config, tcp_listeners=[port]) as agent:
            peers.replay_fstrm(self.source, tcp=("127.0.0.1", port))
            got = wait()
            self.pid = agent.process.pid
            agent.wait_metrics(
                lambda m: m["forwarder"][0]["eventsSent"] == COUNT,
                "every event counted as sent")
        return got


class LoadGenerator(Relay):

    def test_file_holds_query_response_pairs(self):
        self.assertEqual(len(self.records), COUNT)
        types = set()
        for query, response in zip(self.records[0::2], self.records[1::2]):
            asked = text_model.Message(query.query_message)
            answered = text_model.Message(response.response_message)
            types.add(asked.qtype)
            self.assertEqual((query.type, response.type), (5, 6))
            self.assertEqual((asked.id, asked.qname, asked.qtype),
                             (answered.id, answered.qname, answered.qtype))
            self.assertFalse(asked.flags & 0x8000)
            self.assertTrue(answered.flags & 0x8000)
            self.assertEqual(query.query_port, response.query_port)
            self.assertGreaterEqual(
                (response.response_time_sec, response.response_time_nsec),
                (query.query_time_sec, query.query_time_nsec))
            if answered.rcode == 0:
                self.assertTrue(answered.sections[0], answered.qname)
            if answered.rcode == 3:
                self.assertEqual(answered.sections[1][0][3], 6)  # SOA
        self.assertGreaterEqual(len(types), 6)

    def test_seed_decides_the_stream(self):
        def generate(name, seed):
            path = os.path.join(self.directory.name, name)
            ag.loadgen("--write", path, "--count", 50, "--seed", seed,
                       "--start-time", 1709622542)
            with open(path, "rb") as handle:
                return handle.read()

        self.assertEqual(generate("a", 9), generate("b", 9))
        self.assertNotEqual(generate("c", 9), generate("d", 10))

    def test_usage_errors(self):
        for args in ([], ["--tcp", "127.0.0.1"], ["--count", "x", "--write",
                                                   "f"],
                     ["--tcp", "127.0.0.1:1", "--unix", "/tmp/x"]):
            with self.subTest(args=args):
                done = peers.run_tool([ag.loadgen_binary()] + args,
                                      check=False)
                self.assertEqual(done.returncode, 2)
                self.assertIn("usage: vantrelo-loadgen", done.stderr)


class TextCollectors(Relay):

    def test_querylog_lines_at_rsyslog(self):
        ag.require_tools("rsyslogd")
        for header in ("rfc3164", "rfc5424"):
            with self.subTest(header=header), \
                    peers.RsyslogCollector() as rsyslog:
                lines = self.run_relay(
                    rsyslog.address, "",
                    ["message-format querylog",
                     "message-syslog-format " + header,
                     "message-syslog-priority 134"],
                    lambda: rsyslog.wait_lines(COUNT, TIMEOUT))
                expected = [text_model.querylog_line(
                    record, header == "rfc3164", 134, HOST, self.pid)
                    for record in self.records]
                self.assertEqual(lines, expected)

    def test_json_lines(self):
        with collectors.LineCollector() as collector:
            lines = self.run_relay(collector.address, "",
                                   ["message-format json"],
                                   lambda: collector.wait_count(COUNT,
                                                                TIMEOUT))
        for line, record in zip(lines, self.records):
            expected = json.dumps(text_model.json_object(record, HOST),
                                  separators=(",", ":"))
            self.assertEqual(line, expected.replace("/", "\\/"))


class DnstapCollectors(Relay):

    def test_dnstap_tool_as_collector(self):
        ag.require_tools("dnstap")
        with peers.DnstapListener() as listener:
            objects = self.run_relay(
                listener.address, "", ["message-format dnstap"],
                lambda: listener.wait_count(COUNT, TIMEOUT))
        self.assertEqual(len(objects), COUNT)
        for obj, record in zip(objects, self.records):
            self.assertEqual(peers.json_to_record(obj), dataclasses.replace(
                record, query_message=b"", response_message=b""))
            question = record.dns
            status = text_model.RCODE_NAMES[text_model.Message(
                record.query_message or record.response_message).rcode]
            self.assertEqual(peers.json_question(obj)[:3],
                             (question.id, status, question.name))

    def test_unidirectional_stream(self):
        with collectors.FrameCollector() as collector:
            got = self.run_relay(collector.address,
                                 "fstrm-mode=unidirectional",
                                 ["message-format dnstap"],
                                 lambda: collector.wait_count(COUNT, TIMEOUT))
        self.assertEqual(got, self.payloads)
        self.assertEqual(collector.handshakes, [dr.FSTRM_START])


if __name__ == "__main__":
    ag.main()
