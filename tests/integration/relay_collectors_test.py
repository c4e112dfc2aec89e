# The agent's output at real collectors: query-log lines with both syslog
# headers at rsyslog and dnstap at the dnstap tool, each checked record by
# record against the load generator's input.

import time

import harness
import peers

COUNT = 240
HOST = "e2e-host"
SETTINGS = ["message-hostname " + HOST, "domain-suffix-mode off"]


def syslog_header(rfc3164, priority, pid, record):
    # The header for a record, from the time the dnstap tool shows for it.
    message = record["message"]
    stamp = message[message["type"].lower().split("_")[1] + "_time"]
    whole, _, fraction = stamp.rstrip("Z").partition(".")
    if rfc3164:
        fields = time.strptime(whole, "%Y-%m-%dT%H:%M:%S")
        return time.strftime("<%d>%%b %2d %%H:%%M:%%S %s vantrelo[%d]: " % (
            priority, fields.tm_mday, HOST, pid), fields)
    # The fraction is microseconds without zero padding.
    return "<%d>1 %s.%dZ %s vantrelo %d - - " % (
        priority, whole, int(fraction.ljust(9, "0")) // 1000, HOST, pid)


class Collectors(harness.RelayTest):

    def setUp(self):
        super().setUp()
        self.source = self.generate(COUNT, 5, "--start-time", 1709622542)[0]

    def relay(self, address, settings, received, command="run"):
        # Replays the file into an agent forwarding to address; returns what
        # received(agent) gives once every event counts as sent.
        with self.agent(address, "batch-size=25", *SETTINGS, *settings,
                        command=command) as agent:
            self.replay(self.source)
            harness.wait_until(lambda: len(received(agent)) >= COUNT,
                               "%d messages at the collector" % COUNT)
            agent.wait_sent(COUNT)
            return agent.popen.pid, received(agent)

    def test_querylog_lines_at_rsyslog(self):
        # The line bodies as the agent writes them to standard output (their
        # text is the formatter's unit tests' concern); each header is built
        # here from the record's time, the settings and the agent's pid.
        harness.require("rsyslogd", "dnstap")
        _, stdout = self.relay(
            (harness.LOOPBACK, 9), ["message-format querylog"],
            lambda agent: [line[line.index("queries: "):] for line in
                           agent.log().splitlines() if "queries: " in line],
            "run-stdout")
        records = peers.dnstap_objects(self.source)
        for header in ("rfc3164", "rfc5424"):
            with self.subTest(header=header), \
                    peers.RsyslogCollector() as rsyslog:
                pid, lines = self.relay(rsyslog.address, [
                    "message-format querylog",
                    "message-syslog-format " + header,
                    "message-syslog-priority 134"],
                    lambda agent: rsyslog.lines())
                self.assertEqual(lines, [syslog_header(
                    header == "rfc3164", 134, pid, record) + body
                    for record, body in zip(records, stdout)])

    def test_dnstap_tool_as_collector(self):
        # The tool shows each relayed record as it shows the source's.
        harness.require("dnstap")
        expected = harness.run_tool(["dnstap", "-r", self.source, "-j"])
        with peers.DnstapListener() as listener:
            _, lines = self.relay(listener.address, [],
                                  lambda agent: listener.lines())
        self.assertEqual(lines, expected.splitlines())


if __name__ == "__main__":
    harness.main()
