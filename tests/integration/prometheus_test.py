# The metrics endpoint seen by the monitoring server's own programs: a real
# server scraping every second during a relay, a scrape checked by promtool,
# and /health following the collector as it goes and comes back.

import json
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request

import fstrm
import harness

COUNT = 400
RETRY_SECONDS = 10


def http_get(port, path):
    """(status, content type, body) of GET http://127.0.0.1:port/path."""
    try:
        with urllib.request.urlopen("http://%s:%d%s" % (
                harness.LOOPBACK, port, path), timeout=10) as response:
            return (response.status, response.headers["Content-Type"],
                    response.read().decode())
    except urllib.error.HTTPError as error:
        return error.code, error.headers["Content-Type"], error.read().decode()


class PrometheusServer(harness.Peer):
    # The monitoring server scraping one target every second, its data in its
    # own directory, its HTTP API on a free loopback port.

    name = "prometheus"

    def __init__(self, target_port):
        self.target_port, self.port = target_port, harness.free_port()

    def start(self):
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

    def test_scrapes_and_health(self):
        harness.require("prometheus", "promtool")
        metrics_port, collector_port = harness.free_port(), harness.free_port()
        relay = self.agent(
            (harness.LOOPBACK, collector_port), "batch-size=20",
            "metrics-listen ipv4 %s %d" % (harness.LOOPBACK, metrics_port))
        relay.ready_on.append(metrics_port)
        self.enterContext(relay)
        series = "vantrelo_forwarder_events_sent_total"
        with fstrm.Collector(collector_port) as collector, \
                PrometheusServer(metrics_port) as server:
            harness.wait_until(lambda: server.query("up") == [1],
                               "the first scrape", 20, server, interval=0.5)
            self.assertEqual(http_get(metrics_port, "/health")[:2],
                             (200, "application/json"))
            # About four seconds of events, so several scrapes fall inside.
            self.loadgen("--tcp", "%s:%d" % (harness.LOOPBACK, self.port),
                         "--count", COUNT, "--rate", 100, "--seed", 9)
            collector.wait_count(COUNT)
            relay.wait_sent(COUNT)
            harness.wait_until(lambda: server.query(series) == [COUNT],
                               "prometheus to see %d events" % COUNT, 20,
                               server, interval=0.5)
            # Scrapes during the relay saw the count grow.
            self.assertEqual(len(server.query(
                "max_over_time(%s[1m]) > min_over_time(%s[1m])" % (
                    series, series))), 1)
            status, content_type, text = http_get(metrics_port, "/metrics")
        # A scrape of our own passes promtool and holds totals since start
        # (where the log line's queue counters are deltas).
        self.assertEqual((status, content_type),
                         (200, "text/plain; version=0.0.4"))
        target = '{id="0",type="ipv4",target="%s:%d"}' % (
            harness.LOOPBACK, collector_port)
        for name, value in ((series + target, COUNT),
                            ("vantrelo_forwarder_connected" + target, 1),
                            ("vantrelo_queue_events_in_total", COUNT),
                            ("vantrelo_queue_events_processed_total", COUNT)):
            self.assertIn("\n%s %d\n" % (name, value), "\n" + text)
        checked = subprocess.run(["promtool", "check", "metrics"], input=text,
                                 text=True, capture_output=True, timeout=30)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr),
                         (0, ""))

        # With the collector gone and a write failed, /health stays 200 for
        # one reconnect pause, then answers 503 naming the forwarder; 200
        # again when the collector is back.
        self.loadgen("--tcp", "%s:%d" % (harness.LOOPBACK, self.port),
                     "--count", 50, "--seed", 11)
        states = []

        def health():
            status, _, body = http_get(metrics_port, "/health")
            states.append((time.monotonic(), status, json.loads(body)))
            return status == 503

        harness.wait_until(health, "/health to answer 503",
                           RETRY_SECONDS + 15, relay, interval=0.5)
        went_down = min(when for when, _, body in states
                        if body["forwarders"][0]["state"] == "not-connected")
        self.assertGreater(states[-1][0] - went_down, RETRY_SECONDS - 2)
        self.assertEqual((states[-1][2]["status"], states[-1][2]["down"]),
                         ("down", [0]))
        with fstrm.Collector(collector_port):
            harness.wait_until(
                lambda: http_get(metrics_port, "/health")[0] == 200,
                "/health back at 200", RETRY_SECONDS + 15, relay,
                interval=0.5)


if __name__ == "__main__":
    harness.main()
