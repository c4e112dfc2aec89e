#!/usr/bin/env python3
"""Side-by-side relay throughput and CPU cost on loopback, one input for all.

The load generator writes one Frame Streams file; fstrm_replay sends it to
each receiver in turn:

  vantrelo json      vantrelo relaying to a JSON-lines sink
  vantrelo querylog  vantrelo relaying to a query-log sink
  vantrelo dnstap    vantrelo relaying dnstap to a frame-counting sink
  dnstap tool json   `dnstap -l ADDR -j`, its output counted and discarded
  fstrm_capture      writing the raw frames to a file: the floor cost of
                     receiving
  N senders          N fstrm_replay at once into one vantrelo listener, two
                     forwarders relaying dnstap out (N = 1, 2, 4)

A run's time is from the start of the replay until the sink has counted
every event (for fstrm_capture: until fstrm_replay has its FINISH). A run's
CPU time is the receiving process's user + system time over the same span,
read from /proc/PID/stat. Each contender runs --repeat times; the best time
and the lowest CPU per event count. Ends with the ratios the relay is held
to.

Then the edge filters: the relay of --filter-format, plain and with a
100,000-name drop list, 1-in-N sampling (--sample) and client-address
truncation.
An untimed filtered run first counts what the filters let through, so the
timed runs end when the sink has exactly that. Both rates count the events
sent in, so their ratio is what the filters cost at the edge.

Then the Kafka forwarder into a mock cluster (tools/vantrelo-kafka-mock,
three brokers in one process that also reads every record back): events per
second from the start of the replay until the last record is in the topic.

usage: bench/relay_bench.py [--build DIR] [--events N] [--repeat R]
                            [--kafka-only | --filters-only]
                            [--filter-format F] [--sample N]
Needs fstrm-bin and the dnstap CLI (scripts/install-deps --with-peers).
"""

import argparse
import functools
import os
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LOOPBACK = "127.0.0.1"
CONTENT_TYPE = "protobuf:dnstap.Dnstap"
FSTRM_START, FSTRM_READY, FSTRM_ACCEPT = 2, 4, 1
TICKS = os.sysconf("SC_CLK_TCK")
LIST_NAMES = 100000
# Listed among the generated names: a share of the traffic is dropped.
LISTED = ("example.org", "shop.example")


def free_port():
    with socket.socket() as probe:
        probe.bind((LOOPBACK, 0))
        return probe.getsockname()[1]


def cpu_seconds(pid):
    """User + system time of a process, all its threads, in seconds."""
    with open("/proc/%d/stat" % pid) as handle:
        fields = handle.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


@functools.lru_cache(maxsize=None)
def data_bytes(path):
    """Bytes of the data frames of a Frame Streams file, length fields included."""
    with open(path, "rb") as handle:
        buffer = handle.read()
    total, offset = 0, 0
    while offset + 4 <= len(buffer):
        length = struct.unpack_from(">I", buffer, offset)[0]
        if length == 0:
            offset += 8 + struct.unpack_from(">I", buffer, offset + 4)[0]
            continue
        offset += 4 + length
        total += 4 + length
    return total


# --- sinks (run as child processes: python3 relay_bench.py --sink ...) ------


def _control(kind, content_type=None):
    body = struct.pack(">I", kind)
    if content_type:
        body += struct.pack(">II", 1, len(content_type)) + content_type
    return struct.pack(">II", 0, len(body)) + body


def _skip_handshake(conn):
    """Answers READY, reads up to START; returns the bytes read beyond it."""
    buffer = bytearray()
    while True:
        if len(buffer) >= 8 and buffer[:4] == b"\0\0\0\0":
            end = 8 + struct.unpack_from(">I", buffer, 4)[0]
            if len(buffer) >= end:
                kind = struct.unpack_from(">I", buffer, 8)[0]
                del buffer[:end]
                if kind == FSTRM_READY:
                    conn.sendall(_control(FSTRM_ACCEPT, CONTENT_TYPE.encode()))
                if kind == FSTRM_START:
                    return len(buffer)
                continue
        chunk = conn.recv(1 << 16)
        if not chunk:
            return len(buffer)
        buffer += chunk


class _Counter:
    """What every connection of a sink has delivered; `done` set at the goal."""

    def __init__(self, goal, count_lines):
        self.goal, self.count_lines = goal, count_lines
        self.value, self.lock, self.done = 0, threading.Lock(), threading.Event()

    def add(self, amount):
        with self.lock:
            self.value += amount
            if self.value >= self.goal:
                self.done.set()

    def serve(self, conn):
        # Data frames are counted by their bytes: the forwarder sends nothing
        # but data frames between START and STOP, and walking them one by
        # one here would make the sink the bottleneck.
        if not self.count_lines:
            self.add(_skip_handshake(conn))
        while True:
            chunk = conn.recv(1 << 20)
            if not chunk:
                return
            self.add(chunk.count(b"\n") if self.count_lines else len(chunk))


def serve_counter(counter, port):
    """Listens on `port` and counts every connection into `counter`, in
    threads of this process; returns the port listened on."""
    server = socket.socket()
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.bind((LOOPBACK, port))
    server.listen(8)

    def accept_loop():
        # Connections stay open until the agent stops, so it sees no error.
        while True:
            conn, _ = server.accept()
            threading.Thread(target=counter.serve, args=(conn,),
                             daemon=True).start()

    threading.Thread(target=accept_loop, daemon=True).start()
    return server.getsockname()[1]


def run_sink(mode, port, goal):
    """Counts `goal` lines or data bytes, then prints the wall-clock time."""
    if mode == "stdin-lines":
        seen = 0
        while seen < goal:
            chunk = sys.stdin.buffer.read1(1 << 20)
            if not chunk:
                break
            seen += chunk.count(b"\n")
        print("%.6f %d" % (time.time(), seen), flush=True)
        return
    counter = _Counter(goal, mode == "lines")
    serve_counter(counter, port)
    print("ready", flush=True)
    counter.done.wait()
    print("%.6f %d" % (time.time(), counter.value), flush=True)
    sys.stdin.read()  # until the bench closes the pipe


# --- the bench ---------------------------------------------------------------


def wait_listening(port, process, timeout=10):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if process.poll() is not None:
            raise RuntimeError("%s exited early" % process.args[0])
        with socket.socket() as probe:
            if probe.connect_ex((LOOPBACK, port)) == 0:
                return
        time.sleep(0.05)
    raise RuntimeError("nothing listening on port %d" % port)


def replay(path, port, senders=1):
    argv = ["fstrm_replay", "-t", CONTENT_TYPE, "-r", path, "-a", LOOPBACK,
            "-p", str(port)]
    running = [subprocess.Popen(argv, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)
               for _ in range(senders)]
    for sender in running:
        if sender.wait() != 0:
            raise RuntimeError("fstrm_replay failed")


def start_sink(mode, port, goal, stdin=subprocess.PIPE):
    sink = subprocess.Popen([sys.executable, __file__, "--sink", mode,
                             str(port), str(goal)], stdin=stdin,
                            stdout=subprocess.PIPE, text=True)
    if mode != "stdin-lines":
        sink.stdout.readline()  # "ready"
    return sink


def finish_time(sink, goal):
    stamp, seen = sink.stdout.readline().split()
    if int(seen) < goal:
        raise RuntimeError("sink counted %s of %d" % (seen, goal))
    return float(stamp)


def stop(process):
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def timed(process, port, run_replay, finished):
    """(seconds, CPU seconds of process) from the replay until finished()."""
    wait_listening(port, process)
    cpu = cpu_seconds(process.pid)
    start = time.time()
    run_replay()
    end = finished()
    return end - start, cpu_seconds(process.pid) - cpu


def start_agent(build, workdir, port, sink_port, fmt, forwarders=1, extra=""):
    """The agent listening on `port`, relaying `fmt` to `sink_port`; `extra`
    is appended to its configuration."""
    config = os.path.join(workdir, "bench.conf")
    forwarder = "forwarder ipv4 %s %d batch-size=100\n" % (LOOPBACK, sink_port)
    with open(config, "w") as handle:
        handle.write("listener ipv4 %s %d\n%smessage-format %s\n"
                     "message-queue-recovery off\nmetrics-interval 3600\n%s" %
                     (LOOPBACK, port, forwarder * forwarders, fmt, extra))
    return subprocess.Popen([os.path.join(build, "src/app/vantrelo"), "run",
                             config], stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)


def bench_vantrelo(build, path, count, fmt, workdir, senders=1, forwarders=1,
                   extra="", goal=None):
    """(seconds, CPU seconds); the sink waits for `goal` lines or data bytes,
    by default everything the input holds."""
    port, sink_port = free_port(), free_port()
    if goal is None:
        goal = (data_bytes(path) if fmt == "dnstap" else count) * senders
    sink = start_sink("frames" if fmt == "dnstap" else "lines", sink_port, goal)
    agent = start_agent(build, workdir, port, sink_port, fmt, forwarders, extra)
    try:
        return timed(agent, port, lambda: replay(path, port, senders),
                     lambda: finish_time(sink, goal))
    finally:
        stop(agent)
        stop(sink)


def bench_dnstap_tool(path, count):
    port = free_port()
    tool = subprocess.Popen(["dnstap", "-l", "%s:%d" % (LOOPBACK, port),
                             "-j"], stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL)
    sink = start_sink("stdin-lines", 0, count, stdin=tool.stdout)
    tool.stdout.close()
    try:
        return timed(tool, port, lambda: replay(path, port),
                     lambda: finish_time(sink, count))
    finally:
        stop(tool)
        stop(sink)


def bench_fstrm_capture(path, workdir):
    port = free_port()
    capture = subprocess.Popen(["fstrm_capture", "-t", CONTENT_TYPE, "-a",
                                LOOPBACK, "-p", str(port), "-w",
                                os.path.join(workdir, "capture.fstrm")],
                               stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    try:
        return timed(capture, port, lambda: replay(path, port), time.time)
    finally:
        stop(capture)


# --- the edge filters -------------------------------------------------------


def filter_options(workdir, sample):
    names = os.path.join(workdir, "drop.list")
    with open(names, "w") as handle:
        for i in range(LIST_NAMES - len(LISTED)):
            handle.write("host%d.tracker%d.example\n" % (i, i % 977))
        handle.write("\n".join(LISTED) + "\n")
    return ("filter-drop-domain-file %s\nfilter-sample-one-in %d\n"
            "filter-client-address truncate\n" % (names, sample))


def filtered_goal(build, path, fmt, workdir, extra):
    """What a sink counts (lines, or data bytes for dnstap) of one untimed
    filtered run, once the relay has been quiet for two seconds."""
    counter = _Counter(float("inf"), fmt != "dnstap")
    port = free_port()
    agent = start_agent(build, workdir, port, serve_counter(counter, 0), fmt,
                        extra=extra)
    try:
        wait_listening(port, agent)
        replay(path, port)
        seen = -1
        while seen != counter.value:
            seen = counter.value
            time.sleep(2)
        return seen
    finally:
        stop(agent)


def filter_section(args, path, workdir):
    fmt, n = args.filter_format, args.events
    extra = filter_options(workdir, args.sample)
    goal = filtered_goal(args.build, path, fmt, workdir, extra)
    rates = {}
    for name, options, this_goal in (("plain", "", None),
                                     ("filtered", extra, goal)):
        runs = [bench_vantrelo(args.build, path, n, fmt, workdir, extra=options,
                               goal=this_goal) for _ in range(args.repeat)]
        best = min(seconds for seconds, _ in runs)
        rates[name] = n / best
        print("%s %-9s %10.0f events/s in  (%.3f s)  %6.2f CPU us/event" %
              (fmt, name, rates[name], best,
               min(used for _, used in runs) / n * 1e6), flush=True)
    print("filtered/plain: %.2f (1 in %d sampled, %d %s out)\n" %
          (rates["filtered"] / rates["plain"], args.sample, goal,
           "data bytes" if fmt == "dnstap" else "lines"))


# --- the Kafka forwarder against the mock cluster --------------------------


def bench_vantrelo_kafka(build, path, count, fmt, workdir, options=""):
    """Seconds from the start of the replay until the mock cluster holds every record."""
    mock = subprocess.Popen([os.path.join(build, "tools/vantrelo-kafka-mock"),
                             "dns", str(count)], stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                            text=True)
    bootstraps = mock.stdout.readline().strip()
    port = free_port()
    config = os.path.join(workdir, "kafka.conf")
    with open(config, "w") as handle:
        handle.write("listener ipv4 %s %d\nforwarder kafka %s topic=dns "
                     "batch-size=1000 %s\nmessage-format %s\n"
                     "message-queue-recovery off\nmetrics-interval 3600\n" %
                     (LOOPBACK, port, bootstraps, options, fmt))
    agent = subprocess.Popen([os.path.join(build, "src/app/vantrelo"), "run",
                              config], stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
    try:
        wait_listening(port, agent)
        start = time.time()
        replay(path, port)
        return finish_time(mock, count) - start
    finally:
        stop(agent)
        mock.stdin.close()
        stop(mock)


def kafka_section(args, path, workdir):
    """The Kafka forwarder's events/s into a three-broker mock cluster, which
    runs in one process on the same machine and reads every record back."""
    if not os.path.exists(os.path.join(args.build, "tools/vantrelo-kafka-mock")):
        print("kafka: tools/vantrelo-kafka-mock not built, skipped")
        return
    contenders = [
        ("kafka json", "json", ""),
        ("kafka json lz4", "json", "compression=lz4"),
        ("kafka json key", "json", "key=client"),
        ("kafka querylog", "querylog", ""),
        ("kafka dnstap", "dnstap", ""),
    ]
    for name, fmt, options in contenders:
        best = min(bench_vantrelo_kafka(args.build, path, args.events, fmt,
                                        workdir, options)
                   for _ in range(args.repeat))
        print("%-18s %10.0f events/s  (%.3f s)" % (name, args.events / best,
                                                   best), flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build"),
                        help="build tree with vantrelo and vantrelo-loadgen")
    parser.add_argument("--events", type=int, default=500000)
    parser.add_argument("--repeat", type=int, default=3,
                        help="runs per contender; the best one counts")
    parser.add_argument("--kafka-only", action="store_true",
                        help="run only the Kafka forwarder's section")
    parser.add_argument("--filters-only", action="store_true",
                        help="run only the edge filters' section")
    parser.add_argument("--filter-format", default="dnstap",
                        choices=("dnstap", "json", "querylog"))
    parser.add_argument("--sample", type=int, default=10,
                        help="the filters' 1-in-N sampling")
    parser.add_argument("--sink", nargs=3, help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.sink:
        run_sink(args.sink[0], int(args.sink[1]), int(args.sink[2]))
        return
    with tempfile.TemporaryDirectory(prefix="vantrelo-bench-") as workdir:
        path = os.path.join(workdir, "input.fstrm")
        subprocess.run([os.path.join(args.build, "tools/vantrelo-loadgen"),
                        "--write", path, "--count", str(args.events),
                        "--seed", "1", "--start-time", "1700000000"],
                       check=True, stdout=subprocess.DEVNULL)
        size = os.path.getsize(path)
        print("input: %d events, %d bytes (%.0f bytes per event); "
              "load average %.2f %.2f %.2f on %d cores; best of %d\n" %
              ((args.events, size, size / args.events) + os.getloadavg() +
               (os.cpu_count(), args.repeat)))
        n = args.events
        contenders = [
            ("vantrelo json", n, lambda: bench_vantrelo(
                args.build, path, n, "json", workdir)),
            ("vantrelo querylog", n, lambda: bench_vantrelo(
                args.build, path, n, "querylog", workdir)),
            ("vantrelo dnstap", n, lambda: bench_vantrelo(
                args.build, path, n, "dnstap", workdir)),
            ("dnstap tool json", n, lambda: bench_dnstap_tool(path, n)),
            ("fstrm_capture", n, lambda: bench_fstrm_capture(path, workdir)),
        ] + [("%d sender%s" % (s, "s" if s > 1 else ""), n * s,
              lambda s=s: bench_vantrelo(args.build, path, n, "dnstap",
                                         workdir, s, 2))
             for s in (1, 2, 4)]
        if args.kafka_only:
            kafka_section(args, path, workdir)
            return
        if args.filters_only:
            filter_section(args, path, workdir)
            return
        rates, cpu = {}, {}
        for name, events, run in contenders:
            runs = [run() for _ in range(args.repeat)]
            best = min(seconds for seconds, _ in runs)
            rates[name] = events / best
            cpu[name] = min(used for _, used in runs) / events * 1e6
            print("%-18s %10.0f events/s  (%.3f s)  %6.2f CPU us/event" %
                  (name, rates[name], best, cpu[name]), flush=True)
        print("\nload average after: %.2f %.2f %.2f\n" % os.getloadavg())
        for ours in ("vantrelo json", "vantrelo querylog", "vantrelo dnstap"):
            print("%-18s %5.2fx the dnstap tool, %5.2fx fstrm_capture" %
                  (ours, rates[ours] / rates["dnstap tool json"],
                   rates[ours] / rates["fstrm_capture"]))
        print()
        checks = [
            ("dnstap relay rate / fstrm_capture rate",
             rates["vantrelo dnstap"] / rates["fstrm_capture"], ">=", 0.7),
            ("JSON relay rate / dnstap tool rate",
             rates["vantrelo json"] / rates["dnstap tool json"], ">=", 10),
            ("dnstap relay CPU / fstrm_capture CPU per event",
             cpu["vantrelo dnstap"] / cpu["fstrm_capture"], "<=", 1.5),
        ]
        for what, ratio, sense, bound in checks:
            met = ratio >= bound if sense == ">=" else ratio <= bound
            print("%-48s %6.2f  (goal %s %g: %s)" %
                  (what, ratio, sense, bound, "met" if met else "NOT met"))
        print()
        filter_section(args, path, workdir)
        kafka_section(args, path, workdir)


if __name__ == "__main__":
    main()
