"""The agent's output at real collectors (query-log lines with both syslog
headers at rsyslog, dnstap at the dnstap tool, unidirectional dnstap), each
compared with the load generator's records decoded independently."""

import dataclasses
import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import collectors  # noqa: E402
import dnstap_records as dr  # noqa: E402
import harness  # noqa: E402
import peers  # noqa: E402
import text_model  # noqa: E402

COUNT = 240
HOST = "e2e-host"


class Collectors(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory(prefix="vt-collectors-")
        cls.source = cls.generate("load", COUNT, 5)
        cls.payloads = dr.read_payloads(cls.source)
        cls.records = [dr.decode_dnstap(p) for p in cls.payloads]

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    @classmethod
    def generate(cls, name, count, seed):
        path = os.path.join(cls.directory.name, name)
        harness.loadgen("--write", path, "--count", count, "--seed", seed,
                        "--start-time", 1709622542)
        return path

    def relay(self, address, settings, wait, options=""):
        """Replays the file into an agent forwarding to address; returns
        what wait() returns once every event counts as sent."""
        harness.require("fstrm_replay")
        port = harness.free_port()
        with harness.Agent([
                "listener ipv4 127.0.0.1 %d" % port,
                "forwarder ipv4 %s %d batch-size=25 %s" % (address + (options,)),
                "message-hostname " + HOST, "domain-suffix-mode off",
                "metrics-interval 1"] + settings, [port]) as agent:
            peers.replay_fstrm(self.source, (harness.LOOPBACK, port))
            harness.wait_until(lambda: len(wait()) >= COUNT,
                               "%d messages at the collector" % COUNT)
            self.pid = agent.popen.pid
            agent.wait_sent(COUNT)
            return wait()

    def test_load_generator(self):
        self.assertEqual(len(self.records), COUNT)
        types = set()
        for query, response in zip(self.records[0::2], self.records[1::2]):
            asked = text_model.Message(query.query_message)
            answered = text_model.Message(response.response_message)
            types.add(asked.qtype)
            self.assertEqual((query.type, response.type), (5, 6))
            self.assertEqual((asked.id, asked.qname, asked.qtype, asked.flags
                              >> 15, answered.flags >> 15, query.query_port),
                             (answered.id, answered.qname, answered.qtype, 0,
                              1, response.query_port))
            self.assertGreaterEqual(
                (response.response_time_sec, response.response_time_nsec),
                (query.query_time_sec, query.query_time_nsec))
            if answered.rcode == "NOERROR":
                self.assertTrue(answered.sections[0], answered.qname)
            if answered.rcode == "NXDOMAIN":
                self.assertEqual(answered.sections[1][0][3], 6)  # SOA
        self.assertGreaterEqual(len(types), 6)
        files = [dr.read_payloads(self.generate(name, 50, seed))
                 for name, seed in (("a", 9), ("b", 9), ("c", 10))]
        self.assertEqual(files[0], files[1])
        self.assertNotEqual(files[0], files[2])
        for args in ([], ["--tcp", "127.0.0.1"], ["--count", "x", "--write",
                                                   "f"],
                     ["--tcp", "127.0.0.1:1", "--unix", "/tmp/x"]):
            with self.subTest(args=args):
                done = harness.run_tool([harness.binary(
                    "VANTRELO_LOADGEN", "tools/vantrelo-loadgen")] + args,
                    check=False)
                self.assertEqual(done.returncode, 2)
                self.assertIn("usage: vantrelo-loadgen", done.stderr)

    def test_querylog_lines_at_rsyslog(self):
        harness.require("rsyslogd")
        for header in ("rfc3164", "rfc5424"):
            with self.subTest(header=header), \
                    peers.RsyslogCollector() as rsyslog:
                lines = self.relay(rsyslog.address, [
                    "message-format querylog",
                    "message-syslog-format " + header,
                    "message-syslog-priority 134"], rsyslog.lines)
                self.assertEqual(lines, [text_model.querylog_line(
                    record, header == "rfc3164", 134, HOST, self.pid)
                    for record in self.records])

    def test_dnstap_tool_as_collector(self):
        harness.require("dnstap")
        with peers.DnstapListener() as listener:
            objects = self.relay(listener.address, ["message-format dnstap"],
                                 listener.objects)
        self.assertEqual(len(objects), COUNT)
        for obj, record in zip(objects, self.records):
            self.assertEqual(peers.json_to_record(obj), dataclasses.replace(
                record, query_message=b"", response_message=b""))
            message = text_model.Message(record.wire)
            self.assertEqual(peers.json_question(obj),
                             (message.id, message.rcode, message.qname))

    def test_unidirectional_stream(self):
        with collectors.FrameCollector() as collector:
            got = self.relay(collector.address, ["message-format dnstap"],
                             collector.received, "fstrm-mode=unidirectional")
        self.assertEqual(got, self.payloads)
        self.assertEqual(collector.handshakes, [dr.FSTRM_START])


if __name__ == "__main__":
    harness.main()
