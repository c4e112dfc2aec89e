"""Real programs that the process-level tests talk to.

Every helper is a context manager that starts one program on loopback (or on
a Unix socket inside its own temporary directory), waits until it is ready,
and stops it on exit: SIGTERM to its process group, then SIGKILL after a
bounded wait, so that nothing is left running even when a test fails.

Senders of dnstap: UnboundServer (TCP or Unix), KnotServer (Unix),
DnsdistServer (TCP, in front of another server), replay_fstrm() and
send_dnstap_file(). Collectors: FstrmCapture (TCP or Unix, writes a Frame
Streams file), DnstapListener (JSON or YAML), RsyslogCollector (raw lines).
Query driver: run_queries() through dig or kdig.

The DNS servers run in the foreground as root with privilege dropping and
chroot disabled, inside the temporary directory; they answer only from a
local zone and never query outside. Standard library only.

The process layer (Process, Peer, readiness by /proc) is peer_process.py;
the record model and codecs are dnstap_records.py.

Set VANTRELO_KEEP_PEERS=1 to keep the temporary directories (configs, logs,
captures) for inspection.
"""

import calendar
import dataclasses
import json
import os
import re
import signal
import socket
import struct

import dnstap_records
from dnstap_records import CONTENT_TYPE
# The process layer is part of this module's interface.
from peer_process import (LOOPBACK, RUN_TIMEOUT, START_TIMEOUT,  # noqa: F401
                          STOP_TIMEOUT, Peer, PeerError, Process, free_port,
                          run_tool, tcp_connections_to, tcp_listening,
                          unix_connections_to, unix_listening, wait_until)

ZONE = "example.test."
# (owner relative to ZONE, type, rdata): what every DNS server peer serves.
ZONE_RECORDS = (
    ("@", "SOA", "ns.example.test. admin.example.test. 1 3600 600 86400 60"),
    ("@", "NS", "ns.example.test."),
    ("@", "MX", "10 mail.example.test."),
    ("ns", "A", "192.0.2.53"),
    ("www", "A", "192.0.2.1"),
    ("www", "AAAA", "2001:db8::1"),
    ("mail", "A", "192.0.2.25"),
    ("txt", "TXT", '"vantrelo peer"'),
)


# --- zone data ---------------------------------------------------------------


def zone_file_text(zone=ZONE, records=ZONE_RECORDS, ttl=300):
    lines = ["$ORIGIN %s" % zone, "$TTL %d" % ttl]
    lines += ["%s %s %s" % (owner, rtype, rdata)
              for owner, rtype, rdata in records]
    return "\n".join(lines) + "\n"


def _absolute(owner, zone):
    return zone if owner == "@" else "%s.%s" % (owner, zone)


# --- DNS servers that send dnstap ------------------------------------------


class UnboundServer(Peer):
    """Unbound answering from a local zone, logging client queries and
    responses as dnstap to a TCP address (host, port) or a Unix socket path
    (or not at all, e.g. as a backend of DnsdistServer).

    Everything outside the zone is refused, so it never queries out. Unbound
    keeps trying to reach the dnstap collector, so the collector may start
    before or after it.
    """

    name = "unbound"

    def __init__(self, dnstap_tcp=None, dnstap_unix=None,
                 identity="unbound-peer", version="unbound-peer-1",
                 log_queries=True, log_responses=True, zone=ZONE,
                 records=ZONE_RECORDS):
        super().__init__()
        if dnstap_tcp is not None and dnstap_unix is not None:
            raise ValueError("give at most one of dnstap_tcp, dnstap_unix")
        self.dnstap_tcp = dnstap_tcp
        self.dnstap_unix = dnstap_unix
        self.identity = identity
        self.version = version
        self.log_queries = log_queries
        self.log_responses = log_responses
        self.zone = zone
        self.records = records
        self.host = LOOPBACK
        self.port = None
        self.process = None

    def config_text(self):
        yes_no = lambda flag: "yes" if flag else "no"
        if self.dnstap_tcp is not None:
            sink = ('    dnstap-ip: "%s@%d"\n    dnstap-tls: no\n' %
                    tuple(self.dnstap_tcp))
        elif self.dnstap_unix is not None:
            sink = '    dnstap-socket-path: "%s"\n' % self.dnstap_unix
        else:
            sink = ""
        data = "".join(
            '    local-data: "%s %s %s"\n' %
            (_absolute(owner, self.zone), rtype, rdata.replace('"', "'"))
            for owner, rtype, rdata in self.records)
        return f"""server:
    interface: {self.host}@{self.port}
    port: {self.port}
    do-daemonize: no
    username: ""
    chroot: ""
    directory: "{self.workdir}"
    pidfile: "{self.path('unbound.pid')}"
    use-syslog: no
    logfile: ""
    verbosity: 1
    num-threads: 1
    do-ip6: no
    do-not-query-localhost: yes
    access-control: 127.0.0.0/8 allow
    module-config: "iterator"
    local-zone: "." refuse
    local-zone: "{self.zone}" static
{data}remote-control:
    control-enable: no
dnstap:
    dnstap-enable: {yes_no(sink)}
{sink}    dnstap-bidirectional: yes
    dnstap-send-identity: yes
    dnstap-identity: "{self.identity}"
    dnstap-send-version: yes
    dnstap-version: "{self.version}"
    dnstap-log-client-query-messages: {yes_no(self.log_queries)}
    dnstap-log-client-response-messages: {yes_no(self.log_responses)}
"""

    def start(self):
        self.port = free_port()
        config = self.write("unbound.conf", self.config_text())
        run_tool(["unbound-checkconf", config])
        self.process = self.spawn("unbound", ["unbound", "-d", "-c", config])
        wait_until(lambda: tcp_listening(self.port),
                   "unbound listening on port %d" % self.port,
                   process=self.process)


class KnotServer(Peer):
    """Knot DNS serving one zone file, logging queries and responses as
    dnstap to a Unix socket path (or to a Frame Streams file when
    dnstap_file is given).

    Knot's dnstap writer retries the socket every few seconds, so start the
    collector first when no record may be missed.
    """

    name = "knot"

    def __init__(self, dnstap_unix=None, dnstap_file=None,
                 identity="knot-peer", version="knot-peer-1",
                 log_queries=True, log_responses=True, zone=ZONE,
                 records=ZONE_RECORDS):
        super().__init__()
        if (dnstap_unix is None) == (dnstap_file is None):
            raise ValueError("give exactly one of dnstap_unix, dnstap_file")
        self.sink = ("unix:" + dnstap_unix) if dnstap_unix else dnstap_file
        self.identity = identity
        self.version = version
        self.log_queries = log_queries
        self.log_responses = log_responses
        self.zone = zone
        self.records = records
        self.host = LOOPBACK
        self.port = None
        self.process = None

    def config_text(self):
        on_off = lambda flag: "on" if flag else "off"
        return f"""server:
    rundir: "{self.workdir}"
    listen: {self.host}@{self.port}
    udp-workers: 1
    tcp-workers: 1
    background-workers: 1
control:
    listen: "{self.path('knot.sock')}"
database:
    storage: "{self.path('db')}"
log:
  - target: stderr
    any: info
mod-dnstap:
  - id: tap
    sink: "{self.sink}"
    identity: "{self.identity}"
    version: "{self.version}"
    log-queries: {on_off(self.log_queries)}
    log-responses: {on_off(self.log_responses)}
template:
  - id: default
    storage: "{self.workdir}"
    global-module: mod-dnstap/tap
zone:
  - domain: {self.zone}
    file: "{self.path('zone.db')}"
"""

    def start(self):
        self.port = free_port()
        self.write("zone.db", zone_file_text(self.zone, self.records))
        config = self.write("knot.conf", self.config_text())
        run_tool(["knotc", "-c", config, "conf-check"])
        self.process = self.spawn("knotd", ["knotd", "-c", config])
        wait_until(lambda: tcp_listening(self.port),
                   "knotd listening on port %d" % self.port,
                   process=self.process)
        # The zone loads in the background. Its log line is the signal, not
        # a probe query, which would show up in the dnstap stream.
        loaded = "[%s] loaded" % self.zone
        wait_until(lambda: loaded in self.process.log(),
                   "knotd loading %s" % self.zone, process=self.process)


class DnsdistServer(Peer):
    """dnsdist in front of a backend (host, port), logging every client
    query and response as dnstap to a Frame Streams TCP address."""

    name = "dnsdist"

    def __init__(self, backend, dnstap_tcp, identity="dnsdist-peer"):
        super().__init__()
        self.backend = backend
        self.dnstap_tcp = dnstap_tcp
        self.identity = identity
        self.host = LOOPBACK
        self.port = None
        self.process = None

    def config_text(self):
        tap_port = self.dnstap_tcp[1]
        # No security polling: it would resolve a name on the internet.
        return f"""setLocal("{self.host}:{self.port}")
setSecurityPollSuffix("")
local backend = newServer({{address="{self.backend[0]}:{self.backend[1]}"}})
backend:setUp()
local tap = newFrameStreamTcpLogger("{self.dnstap_tcp[0]}:{tap_port}")
addAction(AllRule(), DnstapLogAction("{self.identity}", tap))
addResponseAction(AllRule(), DnstapLogResponseAction("{self.identity}", tap))
"""

    def start(self):
        self.port = free_port()
        config = self.write("dnsdist.conf", self.config_text())
        run_tool(["dnsdist", "--check-config", "-C", config])
        self.process = self.spawn(
            "dnsdist", ["dnsdist", "--supervised", "--disable-syslog", "-C",
                        config])
        wait_until(lambda: tcp_listening(self.port),
                   "dnsdist listening on port %d" % self.port,
                   process=self.process)


# --- dnstap collectors -------------------------------------------------------


class FstrmCapture(Peer):
    """fstrm_capture accepting Frame Streams (bidirectional or not) on a
    loopback TCP port (default) or on a Unix socket in its directory, and
    writing every frame to a capture file.

    fstrm_capture buffers its file and completes it only when it closes it,
    so reading while it runs rotates the file first: the current file is
    renamed (the open descriptor follows it) and SIGUSR1 makes fstrm_capture
    close it and start a new one at the old name.
    """

    name = "fstrm-capture"

    def __init__(self, unix=False, content_type=CONTENT_TYPE):
        super().__init__()
        self.unix = unix
        self.content_type = content_type
        self.host = LOOPBACK
        self.port = None
        self.socket_path = None
        self.capture_path = None
        self.process = None
        self._parts = []

    @property
    def address(self):
        return (self.host, self.port)

    def start(self):
        self.capture_path = self.path("capture.fstrm")
        argv = ["fstrm_capture", "-t", self.content_type.decode(), "-w",
                self.capture_path]
        if self.unix:
            self.socket_path = self.path("dnstap.sock")
            argv += ["-u", self.socket_path]
            ready = lambda: unix_listening(self.socket_path)
        else:
            self.port = free_port()
            argv += ["-a", self.host, "-p", self.port]
            ready = lambda: tcp_listening(self.port)
        self.process = self.spawn("fstrm_capture", argv)
        wait_until(ready, "fstrm_capture listening", process=self.process)

    def connections(self):
        if self.unix:
            return unix_connections_to(self.socket_path)
        return tcp_connections_to(self.port)

    def wait_connected(self, count=1, timeout=START_TIMEOUT):
        wait_until(lambda: self.connections() >= count,
                   "%d sender(s) connected to fstrm_capture" % count,
                   timeout, self.process)

    def _closed_files(self):
        return self.process.log().count("closed output file")

    def rotate(self):
        """Completes the frames written so far into a file of their own."""
        if not self.process.running():
            return
        closed = self._closed_files()
        part = self.path("capture-%03d.fstrm" % len(self._parts))
        os.rename(self.capture_path, part)
        self._parts.append(part)
        self.process.send_signal(signal.SIGUSR1)
        wait_until(lambda: self._closed_files() > closed,
                   "fstrm_capture rotating its file", process=self.process)

    def stop(self):
        # SIGINT makes fstrm_capture flush and close its file cleanly.
        if self.process is not None:
            self.process.stop(signal.SIGINT)
        super().stop()

    def payloads(self):
        """Every data frame received so far, in order."""
        self.rotate()
        files = list(self._parts)
        if not self.process.running() and os.path.exists(self.capture_path):
            files.append(self.capture_path)
        payloads = []
        for name in files:
            with open(name, "rb") as handle:
                payloads += dnstap_records.split_frames(handle.read())[1]
        return payloads

    def records(self):
        return [dnstap_records.decode_dnstap(p) for p in self.payloads()]

    def wait_records(self, count, timeout=START_TIMEOUT):
        """Waits until at least count records arrived; returns them all."""
        found = []

        def enough():
            found[:] = self.records()
            return len(found) >= count

        # Each look rotates the file, so look less often than usual.
        wait_until(enough, "%d dnstap records at fstrm_capture" % count,
                   timeout, self.process, interval=0.25)
        return found

    def single_file(self):
        """Stops the capture and returns one complete Frame Streams file
        holding every frame received, e.g. to replay it elsewhere."""
        self.stop()
        merged = self.path("merged.fstrm")
        dnstap_records.write_capture_file(merged, self.payloads(),
                                          self.content_type)
        return merged


class DnstapListener(Peer):
    """The dnstap tool receiving Frame Streams on a loopback TCP port or a
    Unix socket and writing one JSON object per line (fmt "json") or YAML
    documents (fmt "yaml") to a file."""

    name = "dnstap-listener"

    def __init__(self, unix=False, fmt="json"):
        super().__init__()
        if fmt not in ("json", "yaml"):
            raise ValueError("fmt is json or yaml")
        self.unix = unix
        self.fmt = fmt
        self.host = LOOPBACK
        self.port = None
        self.socket_path = None
        self.output_path = None
        self.process = None

    @property
    def address(self):
        return (self.host, self.port)

    def start(self):
        self.output_path = self.path("dnstap." + self.fmt)
        argv = ["dnstap", "-j" if self.fmt == "json" else "-y", "-w",
                self.output_path]
        if self.unix:
            self.socket_path = self.path("dnstap.sock")
            argv += ["-u", self.socket_path]
            ready = lambda: unix_listening(self.socket_path)
        else:
            self.port = free_port()
            argv += ["-l", "%s:%d" % (self.host, self.port)]
            ready = lambda: tcp_listening(self.port)
        self.process = self.spawn("dnstap", argv)
        wait_until(ready, "dnstap listening", process=self.process)

    def text(self):
        try:
            with open(self.output_path, errors="replace") as handle:
                return handle.read()
        except FileNotFoundError:
            return ""

    def objects(self):
        """The JSON objects received so far (fmt "json"); a line still
        being written is left out."""
        lines = self.text().split("\n")[:-1]
        return [json.loads(line) for line in lines if line.strip()]

    def documents(self):
        """The YAML documents received so far, as raw texts (fmt "yaml").
        The tool ends each document with a "---" line; a document still
        being written is left out."""
        return [doc.strip() for doc in
                re.split(r"^---\n", self.text(), flags=re.M)[:-1]]

    def wait_count(self, count, timeout=START_TIMEOUT):
        count_of = self.objects if self.fmt == "json" else self.documents
        wait_until(lambda: len(count_of()) >= count,
                   "%d dnstap messages from the dnstap tool" % count,
                   timeout, self.process)
        return count_of()


def json_to_record(obj):
    """Maps one object of `dnstap -j` to a DnstapRecord. That output shows
    the DNS messages only as text (see json_question), so query_message and
    response_message stay empty; everything else is filled."""
    message = obj.get("message", {})
    record = dnstap_records.DnstapRecord(
        identity=obj.get("identity", "").encode(),
        version=obj.get("version", "").encode(),
        extra=obj.get("extra", "").encode())
    record.type = dnstap_records.MESSAGE_TYPE_NUMBERS.get(
        message.get("type"), 0)
    record.socket_family = {"INET": 1, "INET6": 2}.get(
        message.get("socket_family"), 0)
    record.socket_protocol = {"UDP": 1, "TCP": 2}.get(
        message.get("socket_protocol"), 0)
    for side in ("query", "response"):
        address = message.get(side + "_address")
        if address:
            family = socket.AF_INET6 if ":" in address else socket.AF_INET
            setattr(record, side + "_address",
                    socket.inet_pton(family, address))
        setattr(record, side + "_port", message.get(side + "_port", 0))
        stamp = message.get(side + "_time")
        if stamp:
            seconds, nanos = _parse_rfc3339(stamp)
            setattr(record, side + "_time_sec", seconds)
            setattr(record, side + "_time_nsec", nanos)
    return record


_TEXT_ID_RE = re.compile(r"status: (\w+), id: (\d+)")
_TEXT_QUESTION_RE = re.compile(r"^;([^;\s]\S*)\s+IN\s+(\S+)\s*$", re.M)


def json_question(obj):
    """(id, status, name, type) of the DNS message that a `dnstap -j`
    object shows as text (the query for queries, else the response)."""
    message = obj.get("message", {})
    is_query = message.get("type", "").endswith("_QUERY")
    text = message.get("query_message" if is_query else "response_message",
                       "")
    ident = _TEXT_ID_RE.search(text)
    question = _TEXT_QUESTION_RE.search(text)
    if not ident or not question:
        return None
    return (int(ident.group(2)), ident.group(1), question.group(1).lower(),
            question.group(2))


def _parse_rfc3339(stamp):
    match = re.fullmatch(
        r"(\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d)(?:\.(\d+))?Z", stamp)
    if not match:
        raise PeerError("unexpected time stamp %r" % stamp)
    parts = [int(part) for part in match.groups()[:6]]
    seconds = calendar.timegm(tuple(parts) + (0, 0, 0))
    fraction = (match.group(7) or "").ljust(9, "0")[:9]
    return seconds, int(fraction)


# --- dnstap senders that run to completion -----------------------------------


def replay_fstrm(capture_path, tcp=None, unix=None, content_type=CONTENT_TYPE,
                 timeout=RUN_TIMEOUT):
    """Sends a Frame Streams file with fstrm_replay to (host, port) or to a
    Unix socket path (bidirectional handshake)."""
    argv = ["fstrm_replay", "-t", content_type.decode(), "-r", capture_path]
    if (tcp is None) == (unix is None):
        raise ValueError("give exactly one of tcp, unix")
    argv += ["-u", unix] if unix else ["-a", tcp[0], "-p", tcp[1]]
    return run_tool(argv, timeout)


def send_dnstap_file(capture_path, tcp=None, unix=None, timeout=RUN_TIMEOUT):
    """Sends a Frame Streams file with the dnstap tool to (host, port) or to
    a Unix socket path."""
    if (tcp is None) == (unix is None):
        raise ValueError("give exactly one of tcp, unix")
    target = ["-U", unix] if unix else ["-T", "%s:%d" % tuple(tcp)]
    return run_tool(["dnstap", "-r", capture_path] + target, timeout)


# --- a scriptable Frame Streams sender -------------------------------------


class FstrmClient:
    """A Frame Streams sender written out step by step, for tests that need
    to see or break the handshake itself (a real sender only ever does it
    right). Connects to (host, port) or to a Unix socket path. Note that
    fstrm_capture and the dnstap tool accept bidirectional senders only.

    Owns its socket; not thread-safe. Use as a context manager or call
    close().
    """

    def __init__(self, tcp=None, unix=None, timeout=5.0):
        if (tcp is None) == (unix is None):
            raise ValueError("give exactly one of tcp, unix")
        family = socket.AF_UNIX if unix else socket.AF_INET
        self.sock = socket.socket(family, socket.SOCK_STREAM)
        self.sock.settimeout(timeout)
        self.sock.connect(unix if unix else tuple(tcp))
        self.bidirectional = False

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.sock.close()
        return False

    def recv_exact(self, size):
        data = bytearray()
        while len(data) < size:
            chunk = self.sock.recv(size - len(data))
            if not chunk:
                raise PeerError("connection closed after %d of %d bytes" %
                                (len(data), size))
            data += chunk
        return bytes(data)

    def read_control(self):
        """Reads one escaped control frame: (type, [content types])."""
        escape, length = struct.unpack(">II", self.recv_exact(8))
        if escape != 0:
            raise PeerError("expected a control frame, got data of %d bytes"
                            % escape)
        return dnstap_records.parse_control(self.recv_exact(length))

    def send_control(self, kind, content_type=None):
        self.sock.sendall(dnstap_records.control_frame(kind, content_type))

    def open(self, bidirectional=True, content_type=CONTENT_TYPE):
        """READY, ACCEPT expected back, START (or only START)."""
        self.bidirectional = bidirectional
        if bidirectional:
            self.send_control(dnstap_records.FSTRM_READY, content_type)
            kind, types = self.read_control()
            if kind != dnstap_records.FSTRM_ACCEPT:
                raise PeerError("expected ACCEPT, got control type %d" % kind)
            if content_type not in types:
                raise PeerError("ACCEPT without %r: %r" % (content_type,
                                                           types))
        self.send_control(dnstap_records.FSTRM_START, content_type)
        return self

    def send(self, payloads):
        self.sock.sendall(b"".join(dnstap_records.data_frame(payload)
                                   for payload in payloads))

    def close(self):
        """STOP, then FINISH expected back on a bidirectional stream."""
        self.send_control(dnstap_records.FSTRM_STOP)
        if self.bidirectional:
            kind, _ = self.read_control()
            if kind != dnstap_records.FSTRM_FINISH:
                raise PeerError("expected FINISH, got control type %d" % kind)
        self.sock.close()


# --- syslog collector --------------------------------------------------------


class RsyslogCollector(Peer):
    """A private rsyslogd (foreground, own config, pid file and work
    directory) accepting syslog over TCP on a loopback port, both
    line-feed-delimited and octet-counted, and writing each received
    message raw, one per line, to a file. The system's rsyslog is not
    touched."""

    name = "rsyslog"

    def __init__(self, max_message_size=65536):
        super().__init__()
        self.max_message_size = max_message_size
        self.host = LOOPBACK
        self.port = None
        self.output_path = None
        self.process = None

    @property
    def address(self):
        return (self.host, self.port)

    def config_text(self):
        return f"""global(workDirectory="{self.workdir}"
       maxMessageSize="{self.max_message_size}")
module(load="imtcp")
template(name="raw" type="string" string="%rawmsg%\\n")
ruleset(name="collect") {{
  action(type="omfile" file="{self.output_path}" template="raw"
         flushOnTXEnd="on" asyncWriting="off")
}}
input(type="imtcp" address="{self.host}" port="{self.port}"
      ruleset="collect")
"""

    def start(self):
        self.port = free_port()
        self.output_path = self.path("received.log")
        config = self.write("rsyslog.conf", self.config_text())
        run_tool(["rsyslogd", "-N1", "-f", config])
        self.process = self.spawn(
            "rsyslogd", ["rsyslogd", "-n", "-f", config, "-i",
                         self.path("rsyslogd.pid")])
        wait_until(lambda: tcp_listening(self.port),
                   "rsyslogd listening on port %d" % self.port,
                   process=self.process)

    def connections(self):
        return tcp_connections_to(self.port)

    def lines(self):
        try:
            with open(self.output_path, "rb") as handle:
                data = handle.read()
        except FileNotFoundError:
            return []
        return data.decode("utf-8", "replace").splitlines()

    def wait_lines(self, count, timeout=START_TIMEOUT):
        wait_until(lambda: len(self.lines()) >= count,
                   "%d lines at rsyslogd" % count, timeout, self.process)
        return self.lines()


# --- query driver ------------------------------------------------------------


@dataclasses.dataclass
class QueryResult:
    """What one query asked and what came back (status None: no answer)."""
    name: str
    qtype: str
    tcp: bool
    id: int = None
    status: str = None
    answers: list = dataclasses.field(default_factory=list)


_HEADER_RE = re.compile(r"->>HEADER<<- opcode: \w+[,;] status: (\w+)[,;] "
                        r"id: (\d+)")


def run_queries(port, queries, tcp=False, tool="dig", host=LOOPBACK,
                timeout=2):
    """Sends each (name, type) query once, one tool run per query, and
    returns a QueryResult for each in order. Answers are "name type rdata"
    texts. A query without any answer has status None."""
    results = []
    for name, qtype in queries:
        if tool == "dig":
            argv = ["dig", "@" + host, "-p", port, "+tries=1",
                    "+time=%d" % timeout, "+noall", "+comments", "+answer",
                    "+tcp" if tcp else "+notcp", name, qtype]
        elif tool == "kdig":
            argv = ["kdig", "@" + host, "-p", port, "+retry=0",
                    "+timeout=%d" % timeout, "+noall", "+header", "+answer",
                    "+tcp" if tcp else "+notcp", name, qtype]
        else:
            raise ValueError("tool is dig or kdig")
        done = run_tool(argv, timeout + 5, check=False)
        result = QueryResult(name, qtype, tcp)
        for line in done.stdout.splitlines():
            header = _HEADER_RE.search(line)
            if header:
                result.status = header.group(1)
                result.id = int(header.group(2))
                continue
            fields = line.split(None, 4)
            if (len(fields) == 5 and not line.startswith(";") and
                    fields[2] == "IN"):
                result.answers.append("%s %s %s" %
                                      (fields[0], fields[3], fields[4]))
        results.append(result)
    return results
