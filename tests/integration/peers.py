# Real programs the end-to-end tests talk to on loopback: DNS servers that send dnstap (in the
# foreground, inside their directory, answering only from a local zone), collectors, the
# monitoring server, and dig.

import json
import re
import signal
import urllib.error
import urllib.request

import fstrm
from harness import LOOPBACK, Peer, run_tool

ZONE = "example.test."
ZONE_RECORDS = (  # (owner relative to ZONE, type, data)
    ("@", "SOA", "ns.example.test. admin.example.test. 1 3600 600 86400 60"),
    ("@", "NS", "ns.example.test."), ("@", "MX", "10 mail.example.test."),
    ("ns", "A", "192.0.2.53"), ("www", "A", "192.0.2.1"), ("www", "AAAA", "2001:db8::1"),
    ("mail", "A", "192.0.2.25"))


class DnsServer(Peer):
    # A DNS server answering from the zone only (named without recursion, Unbound refusing
    # everything else), sending its queries and responses as dnstap to target: Unbound a TCP
    # (host, port), Knot and named a Unix socket path; the last two reopen it only after a while
    # when it has failed, so start the agent first. Knot loads the zone in the background and logs
    # it; named logs "running" once it has loaded and answers.

    def __init__(self, name, target):
        self.name, self.target = name, target

    def start(self):
        zone = self.write("zone.db", "$ORIGIN %s\n$TTL 300\n" % ZONE +
                          "".join("%s %s %s\n" % r for r in ZONE_RECORDS))
        config = self.write(self.name + ".conf", getattr(self, self.name + "_config")(zone))
        argv, logged = {"unbound": (["unbound", "-d", "-c", config], ""),
                        "knot": (["knotd", "-c", config], "[%s] loaded" % ZONE),
                        "named": (["named", "-g", "-n", "1", "-c", config], "running")}[self.name]
        self.spawn(argv, [self.port], logged)

    def unbound_config(self, _):
        data = "".join('    local-data: "%s %s %s"\n' % (ZONE if owner == "@" else
                                                         owner + "." + ZONE, rtype, rdata)
                       for owner, rtype, rdata in ZONE_RECORDS)
        return f"""server:
    interface: {LOOPBACK}@{self.port}
    username: ""
    chroot: ""
    directory: "{self.workdir}"
    pidfile: "{self.path('unbound.pid')}"
    use-syslog: no
    local-zone: "." refuse
    local-zone: "{ZONE}" static
{data}dnstap:
    dnstap-enable: yes
    dnstap-ip: "{self.target[0]}@{self.target[1]}"
    dnstap-tls: no
    dnstap-send-identity: yes
    dnstap-identity: "unbound-peer"
    dnstap-log-client-query-messages: yes
    dnstap-log-client-response-messages: yes
"""

    def knot_config(self, zone):
        return f"""server:
    rundir: "{self.workdir}"
    listen: {LOOPBACK}@{self.port}
database:
    storage: "{self.path('db')}"
log:
  - target: stderr
    any: info
mod-dnstap:
  - id: tap
    sink: "unix:{self.target}"
    identity: "knot-peer"
    log-queries: on
    log-responses: on
template:
  - id: default
    global-module: mod-dnstap/tap
zone:
  - domain: {ZONE}
    file: "{zone}"
"""

    def named_config(self, zone):
        return f"""options {{
    directory "{self.workdir}";
    pid-file "{self.path('named.pid')}";
    listen-on port {self.port} {{ {LOOPBACK}; }};
    listen-on-v6 {{ none; }};
    recursion no;
    dnstap {{ client; auth; }};
    dnstap-output unix "{self.target}";
    dnstap-identity "named-peer";
}};
zone "{ZONE}" {{ type primary; file "{zone}"; }};
"""


class FstrmCapture(Peer):
    # fstrm_capture writing every frame to the file output, which it completes only when it closes
    # it: stop() ends it with SIGINT and reads the file into payloads, so stop the sender first.

    name = "fstrm-capture"

    def __init__(self, output):
        self.output = output

    def start(self):
        self.spawn(["fstrm_capture", "-t", fstrm.CONTENT_TYPE.decode(), "-w", self.output, "-a",
                    LOOPBACK, "-p", self.port], [self.port])

    def stop(self):
        super().stop(signal.SIGINT)
        self.payloads = fstrm.read_payloads(self.output)


def dnstap_objects(path):
    # The records of a Frame Streams file as the dnstap tool shows them, each message with the DNS
    # header and question it shows read into "dns": (status, id, RD, answer count, name in lower
    # case without the final dot, type).
    records = [json.loads(line) for line in run_tool(["dnstap", "-r", path, "-j"]).splitlines()]
    for message in (record["message"] for record in records):
        status, ident, flags, answers, name, qtype = re.search(
            r"status: (\w+), id: (\d+)\n;; flags:([^;]*);.*?ANSWER: (\d+)"
            r".*?QUESTION SECTION:\n;(\S+)\tIN\t\s*(\w+)",
            message[message["type"].lower().split("_")[1] + "_message"], re.S).groups()
        message["dns"] = (status, int(ident), "rd" in flags.split(), int(answers),
                          name.rstrip(".").lower(), qtype)
    return records


class DnstapListener(Peer):
    # The dnstap tool receiving Frame Streams (on port, or a fresh one) and writing one JSON object
    # a line to a file.

    name = "dnstap-listener"

    def __init__(self, port=None):
        self.port = port

    def start(self):
        self.spawn(["dnstap", "-j", "-w", self.path("dnstap.json"), "-l", "%s:%d" % self.address],
                   [self.port])

    def lines(self):
        # The lines received so far, but one still being written.
        return self.read("dnstap.json").split("\n")[:-1]


class RsyslogCollector(Peer):
    # A private rsyslogd (own config, pid file and work directory; the system's is not touched)
    # taking syslog over TCP (imtcp) and writing each message raw, one a line, to a file.

    name = "rsyslog"

    def start(self):
        # A ruleset of its own keeps rsyslogd's own messages out of the file.
        config = self.write("rsyslog.conf", f"""
global(workDirectory="{self.workdir}")
module(load="imtcp")
template(name="raw" type="string" string="%rawmsg%\\n")
ruleset(name="collect") {{ action(type="omfile" template="raw"
    file="{self.path('received.log')}") }}
input(type="imtcp" address="{LOOPBACK}" port="{self.port}" ruleset="collect")
""")
        self.spawn(["rsyslogd", "-n", "-f", config, "-i", self.path("rsyslogd.pid")], [self.port])

    def lines(self):
        return self.read("received.log").splitlines()


def http_get(port, path):
    # (status, content type, body) of GET http://127.0.0.1:port/path.
    try:
        with urllib.request.urlopen("http://%s:%d%s" % (LOOPBACK, port, path),
                                    timeout=10) as response:
            return response.status, response.headers["Content-Type"], response.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.headers["Content-Type"], error.read().decode()


class PrometheusServer(Peer):
    # The monitoring server scraping one target every second, its data in its own directory, its
    # HTTP API on a free loopback port.

    name = "prometheus"

    def __init__(self, target_port):
        self.target_port = target_port

    def start(self):
        # YAML takes JSON as it is.
        config = self.write("prometheus.yml", json.dumps({
            "global": {"scrape_interval": "1s", "scrape_timeout": "1s"},
            "scrape_configs": [{"job_name": "vantrelo", "static_configs": [
                {"targets": ["%s:%d" % (LOOPBACK, self.target_port)]}]}]}))
        self.spawn(["prometheus", "--config.file=" + config, "--storage.tsdb.path=" +
                    self.path("data"), "--web.listen-address=%s:%d" % self.address], [self.port])

    def query(self, expression):
        # The values of an instant query, as floats; none while the storage is still opening.
        status, _, body = http_get(self.port,
                                   "/api/v1/query?query=" + urllib.request.quote(expression))
        return [float(item["value"][1])
                for item in json.loads(body)["data"]["result"]] if status == 200 else []


def dig(port, name, qtype, tcp, recurse=True):
    # One query through dig: (id, status, number of answers).
    out = run_tool(["dig", "@" + LOOPBACK, "-p", port, "+tries=1", "+time=2", "+noall",
                    "+comments", "+answer", "+tcp" if tcp else "+notcp",
                    "+recurse" if recurse else "+norecurse", name, qtype])
    status, ident = re.search(r"->>HEADER<<- opcode: \w+, status: (\w+), id: (\d+)",
                              out).groups()
    return int(ident), status, sum(1 for line in out.splitlines()
                                   if line and not line.startswith(";"))
