# The agent's output at real collectors: query-log lines with both syslog headers at rsyslog and
# dnstap at the dnstap tool, each checked record by record against the load generator's input; its
# metrics endpoint scraped by a real monitoring server and checked by promtool, and /health
# following the collector as it goes and comes back.

import json
import subprocess
import time

import harness
import peers

COUNT = 240
RETRY_SECONDS = 10
HOST = "e2e-host"


def syslog_header(rfc3164, pid, record):
    # The header for a record at priority 134, from the time the dnstap tool shows for it.
    message = record["message"]
    whole, _, fraction = message[message["type"].lower().split("_")[1] +
                                 "_time"].rstrip("Z").partition(".")
    if rfc3164:
        fields = time.strptime(whole, "%Y-%m-%dT%H:%M:%S")
        return time.strftime("<134>%%b %2d %%H:%%M:%%S %s vantrelo[%d]: " %
                             (fields.tm_mday, HOST, pid), fields)
    # The fraction is microseconds without zero padding.
    return "<134>1 %s.%dZ %s vantrelo %d - - " % (whole, int(fraction.ljust(9, "0")) // 1000,
                                                   HOST, pid)


class Collectors(harness.RelayTest):

    def setUp(self):
        super().setUp()
        self.source = self.generate(COUNT, 5, "--start-time", 1709622542)[0]

    def relay(self, address, received, *settings, command="run"):
        # Replays the file into an agent forwarding query-log lines to address; returns its pid
        # and what received(agent) gives once it holds every event.
        with self.agent(address, "batch-size=25", "message-format querylog",
                        "message-hostname " + HOST, "domain-suffix-mode off", *settings,
                        command=command) as agent:
            self.replay(self.source)
            harness.wait_until(lambda: len(received(agent)) >= COUNT,
                               "%d messages at the collector" % COUNT)
            return agent.popen.pid, received(agent)

    def test_querylog_lines_at_rsyslog(self):
        # The line bodies as the agent writes them to standard output (their text is the
        # formatter's unit tests' concern); each header is built here from the record's time, the
        # settings and the agent's pid.
        harness.require("rsyslogd", "dnstap")
        _, stdout = self.relay((harness.LOOPBACK, 9), lambda agent: [
            line[line.index("queries: "):] for line in agent.log().splitlines()
            if "queries: " in line], command="run-stdout")
        records = peers.dnstap_objects(self.source)
        for header in ("rfc3164", "rfc5424"):
            with self.subTest(header=header), peers.RsyslogCollector() as rsyslog:
                pid, lines = self.relay(rsyslog.address, lambda _: rsyslog.lines(),
                                        "message-syslog-format " + header,
                                        "message-syslog-priority 134")
                self.assertEqual(lines, [syslog_header(header == "rfc3164", pid, record) + body
                                         for record, body in zip(records, stdout)])

    def test_dnstap_tool_and_monitoring_server(self):
        # The dnstap tool as the collector shows each relayed record as it shows the source's,
        # while a real monitoring server scrapes the metrics endpoint every second.
        harness.require("dnstap", "prometheus", "promtool")
        expected = harness.run_tool(["dnstap", "-r", self.source, "-j"]).splitlines()
        listener = self.enterContext(peers.DnstapListener())
        metrics_port = harness.free_port()
        relay = self.enterContext(self.agent(listener.address, "batch-size=25",
                                             "metrics-listen ipv4 %s %d" %
                                             (harness.LOOPBACK, metrics_port)))
        server = self.enterContext(peers.PrometheusServer(metrics_port))
        health = lambda: peers.http_get(metrics_port, "/health")  # noqa: E731
        harness.wait_until(lambda: server.query("up") == [1], "the first scrape", 20, server,
                           interval=0.5)
        self.replay(self.source)
        harness.wait_until(lambda: len(listener.lines()) >= COUNT,
                           "%d records at the dnstap tool" % COUNT)
        self.assertEqual(listener.lines(), expected)
        harness.wait_until(lambda: server.query("vantrelo_forwarder_events_sent_total") == [COUNT],
                           "the server to see %d events" % COUNT, 20, server, interval=0.5)
        # A scrape of our own passes promtool.
        status, content_type, text = peers.http_get(metrics_port, "/metrics")
        self.assertEqual((status, content_type), (200, "text/plain; version=0.0.4"))
        checked = subprocess.run(["promtool", "check", "metrics"], input=text, text=True,
                                 capture_output=True, timeout=30)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""))

        # With the collector gone and a write failed, /health stays 200 for one reconnect pause,
        # then answers 503 naming the forwarder; 200 again when the collector is back.
        self.assertEqual(health()[:2], (200, "application/json"))
        listener.__exit__()
        started = time.monotonic()
        self.replay(self.source)
        harness.wait_until(lambda: health()[0] == 503, "/health to answer 503",
                           RETRY_SECONDS + 15, relay, interval=0.5)
        self.assertGreater(time.monotonic() - started, RETRY_SECONDS - 2)
        body = json.loads(health()[2])
        self.assertEqual((body["status"], body["down"]), ("down", [0]))
        with peers.DnstapListener(listener.port):
            harness.wait_until(lambda: health()[0] == 200, "/health back at 200",
                               RETRY_SECONDS + 15, relay, interval=0.5)


if __name__ == "__main__":
    harness.main()
