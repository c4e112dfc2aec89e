# The metrics endpoint seen by the monitoring server's own programs: a scrape
# checked by promtool, a real server scraping every second during a relay, and
# /health following a collector that stops and starts.

import json
import time
import urllib.error
import urllib.parse
import urllib.request

import collectors
import harness

COUNT = 400
RETRY_SECONDS = 10


def http_get(port, path):
    """(status, content type, body) of GET http://127.0.0.1:port/path."""
    url = "http://%s:%d%s" % (harness.LOOPBACK, port, path)
    try:
        with urllib.request.urlopen(url, timeout=10) as response:
            return (response.status, response.headers["Content-Type"],
                    response.read().decode())
    except urllib.error.HTTPError as error:
        return error.code, error.headers["Content-Type"], error.read().decode()


def sample(text, series):
    """The value of one sample line (name with its labels) of a scrape."""
    for line in text.splitlines():
        if line.startswith(series + " "):
            return float(line.rsplit(" ", 1)[1])
    raise AssertionError("no sample %s in:\n%s" % (series, text))


class PrometheusServer(harness.Peer):
    # The monitoring server scraping one target every second, its data in its
    # own directory, its HTTP API on a free loopback port.

    name = "prometheus"

    def __init__(self, target_port):
        self.target_port = target_port

    def start(self):
        self.port = harness.free_port()
        config = self.write("prometheus.yml", """global:
  scrape_interval: 1s
  scrape_timeout: 1s
scrape_configs:
  - job_name: vantrelo
    static_configs:
      - targets: ["%s:%d"]
""" % (harness.LOOPBACK, self.target_port))
        self.spawn(["prometheus", "--config.file=" + config,
                    "--storage.tsdb.path=" + self.path("data"),
                    "--web.listen-address=%s:%d" % (harness.LOOPBACK,
                                                    self.port)],
                   lambda: harness.listening(self.port), "prometheus listening")

    def query(self, expression):
        """The values of an instant query, as floats; none while starting."""
        status, _, body = http_get(self.port, "/api/v1/query?query=" +
                                   urllib.parse.quote(expression))
        if status == 503:  # the storage is still opening
            return []
        result = json.loads(body)
        if status != 200 or result["status"] != "success":
            raise harness.PeerError("query %s: %s" % (expression, body))
        return [float(item["value"][1]) for item in result["data"]["result"]]


class Endpoint(harness.RelayTest):

    def setUp(self):
        super().setUp()
        self.metrics_port = harness.free_port()
        self.collector_port = harness.free_port()

    def agent(self, options="batch-size=20"):
        agent = super().agent((harness.LOOPBACK, self.collector_port), options,
                              "metrics-listen ipv4 %s %d" % (
                                  harness.LOOPBACK, self.metrics_port))
        agent.ready_on = agent.ready_on + [self.metrics_port]
        return agent

    def test_scrape_passes_promtool(self):
        harness.require("promtool")
        path, payloads = self.generate(COUNT, 7)
        with collectors.FrameCollector(self.collector_port) as collector, \
                self.agent() as agent:
            self.replay(path)
            collector.wait_count(len(payloads))
            agent.wait_sent(len(payloads))
            status, content_type, text = http_get(self.metrics_port,
                                                  "/metrics")
        self.assertEqual((status, content_type),
                         (200, "text/plain; version=0.0.4"))
        # Totals since start, where the log line's queue counters are deltas.
        target = '{id="0",type="ipv4",target="%s:%d"}' % (
            harness.LOOPBACK, self.collector_port)
        self.assertEqual(sample(text, "vantrelo_forwarder_events_sent_total" +
                                target), COUNT)
        self.assertEqual(sample(text, "vantrelo_forwarder_connected" + target),
                         1)
        self.assertEqual(sample(text, "vantrelo_queue_events_in_total"), COUNT)
        self.assertEqual(sample(text, "vantrelo_queue_events_processed_total"),
                         COUNT)
        checked = harness.subprocess.run(
            ["promtool", "check", "metrics"], input=text, text=True,
            capture_output=True, timeout=30)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr),
                         (0, ""))

    def test_server_scraping_during_a_relay(self):
        harness.require("prometheus")
        with collectors.FrameCollector(self.collector_port) as collector, \
                self.agent() as agent, \
                PrometheusServer(self.metrics_port) as server:
            harness.wait_until(lambda: server.query("up") == [1],
                               "the first scrape", 20, server, interval=0.5)
            # About four seconds of events, so several scrapes fall inside.
            harness.loadgen("--tcp", "%s:%d" % (harness.LOOPBACK, self.port),
                            "--count", COUNT, "--rate", 100, "--seed", 9)
            collector.wait_count(COUNT)
            last = agent.wait_sent(COUNT)["forwarder"][0]["eventsSent"]
            series = "vantrelo_forwarder_events_sent_total"
            values = []
            harness.wait_until(
                lambda: values.extend(server.query(series)) or
                values[-1:] == [last], "prometheus to see %d events" % last,
                20, server, interval=0.5)
            rising = server.query("max_over_time(%s[1m]) > min_over_time("
                                  "%s[1m])" % (series, series))
        self.assertEqual(values[-1], last)
        # Scrapes during the relay saw the count grow.
        self.assertEqual(len(rising), 1)

    def test_health_follows_the_collector(self):
        # 200 while connected; once the collector is gone and a write has
        # failed, 200 for one reconnect pause, then 503 naming the forwarder;
        # 200 again when the collector is back.
        path, _ = self.generate(50, 11)
        with self.agent("batch-size=1") as agent:
            with collectors.FrameCollector(self.collector_port) as collector:
                self.replay(path)
                collector.wait_count(50)
                self.assertEqual(
                    http_get(self.metrics_port, "/health")[:2],
                    (200, "application/json"))
            self.replay(path)
            states = []

            def health():
                status, _, body = http_get(self.metrics_port, "/health")
                states.append((time.monotonic(), status, json.loads(body)))
                return status == 503

            harness.wait_until(health, "/health to answer 503",
                               RETRY_SECONDS + 15, agent, interval=0.5)
            went_down = min(when for when, _, body in states
                            if body["forwarders"][0]["state"] ==
                            "not-connected")
            self.assertGreater(states[-1][0] - went_down, RETRY_SECONDS - 2)
            self.assertEqual(states[-1][2]["status"], "down")
            self.assertEqual(states[-1][2]["down"], [0])
            with collectors.FrameCollector(self.collector_port):
                harness.wait_until(
                    lambda: http_get(self.metrics_port, "/health")[0] == 200,
                    "/health back at 200", RETRY_SECONDS + 15, agent,
                    interval=0.5)


if __name__ == "__main__":
    harness.main()
