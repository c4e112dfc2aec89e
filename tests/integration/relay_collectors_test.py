# The agent's output at real collectors (query-log lines with both syslog
# headers at rsyslog, dnstap at the dnstap tool, unidirectional dnstap), each
# compared with the load generator's records decoded independently.

import dataclasses

import collectors
import dnstap_records as dr
import harness
import peers
import text_model

COUNT = 240
HOST = "e2e-host"
START = ("--start-time", 1709622542)


class Collectors(harness.RelayTest):

    def setUp(self):
        super().setUp()
        self.source, self.payloads = self.generate(COUNT, 5, *START)
        self.records = [dr.decode_dnstap(p) for p in self.payloads]

    def relay(self, address, settings, wait, options=""):
        # Replays the file into an agent forwarding to address; returns what
        # wait() returns once every event counts as sent.
        with self.agent(address, "batch-size=25 " + options,
                        "message-hostname " + HOST, "domain-suffix-mode off",
                        *settings) as agent:
            self.replay(self.source)
            harness.wait_until(lambda: len(wait()) >= COUNT,
                               "%d messages at the collector" % COUNT)
            self.pid = agent.popen.pid
            agent.wait_sent(COUNT)
            return wait()

    def test_load_generator(self):
        # Query-response pairs of varied types, so the lines below cover them.
        pairs = [(text_model.Message(query.wire), text_model.Message(
            response.wire)) for query, response in zip(self.records[0::2],
                                                       self.records[1::2])]
        self.assertEqual([(q.id, q.qname, q.qtype) for q, _ in pairs],
                         [(r.id, r.qname, r.qtype) for _, r in pairs])
        self.assertGreaterEqual(len({q.qtype for q, _ in pairs}), 6)
        for args in ([], ["--tcp", "127.0.0.1"], ["--count", "x", "--write",
                                                   "f"],
                     ["--tcp", "127.0.0.1:1", "--unix", "/tmp/x"]):
            done = harness.run_tool([harness.binary(
                "VANTRELO_LOADGEN", "tools/vantrelo-loadgen")] + args,
                check=False)
            self.assertEqual(done.returncode, 2, args)
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
            objects = self.relay(listener.address, [], listener.objects)
        self.assertEqual(len(objects), COUNT)
        for obj, record in zip(objects, self.records):
            self.assertEqual(peers.json_to_record(obj), dataclasses.replace(
                record, query_message=b"", response_message=b""))

    def test_unidirectional_stream(self):
        with collectors.FrameCollector() as collector:
            got = self.relay(collector.address, [], collector.received,
                             "fstrm-mode=unidirectional")
        self.assertEqual(got, self.payloads)
        self.assertEqual(collector.handshakes, [dr.FSTRM_START])


if __name__ == "__main__":
    harness.main()
