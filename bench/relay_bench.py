#!/usr/bin/env python3
"""Side-by-side relay throughput on loopback, one input for all.

The load generator writes one Frame Streams file; fstrm_replay sends it to
each receiver in turn:

  vantrelo json      vantrelo relaying to a JSON-lines sink
  vantrelo querylog  vantrelo relaying to a query-log sink
  vantrelo dnstap    vantrelo relaying dnstap to a frame-counting sink
  dnstap tool json   `dnstap -l ADDR -j`, its output counted and discarded
  fstrm_capture      writing the raw frames to a file: the floor cost of
                     receiving

A run's time is from the start of the replay until the sink has counted
every event (for fstrm_capture: until fstrm_replay has its FINISH). Prints
events per second for each and vantrelo's ratios to the two peers.

Then the Kafka forwarder into a mock cluster (tools/vantrelo-kafka-mock,
three brokers in one process that also reads every record back): events per
second from the start of the replay until the last record is in the topic.

usage: bench/relay_bench.py [--build DIR] [--events N] [--repeat R] [--kafka-only]
Needs fstrm-bin and the dnstap CLI (scripts/install-deps --with-peers).
"""

import argparse
import os
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LOOPBACK = "127.0.0.1"
CONTENT_TYPE = "protobuf:dnstap.Dnstap"


def free_port():
    with socket.socket() as probe:
        probe.bind((LOOPBACK, 0))
        return probe.getsockname()[1]


# --- sinks (run as child processes: python3 relay_bench.py --sink ...) ------


def _control(kind, content_type=None):
    body = struct.pack(">I", kind)
    if content_type:
        body += struct.pack(">II", 1, len(content_type)) + content_type
    return struct.pack(">II", 0, len(body)) + body


def _count_frames(conn, count):
    """Counts data frames; answers READY and STOP. Returns at count."""
    buffer = bytearray()
    seen = 0
    while seen < count:
        chunk = conn.recv(1 << 20)
        if not chunk:
            break
        buffer += chunk
        offset = 0
        while len(buffer) - offset >= 4:
            length = struct.unpack_from(">I", buffer, offset)[0]
            if length == 0:
                if len(buffer) - offset < 8:
                    break
                size = struct.unpack_from(">I", buffer, offset + 4)[0]
                if len(buffer) - offset < 8 + size:
                    break
                kind = struct.unpack_from(">I", buffer, offset + 8)[0]
                if kind == 4:
                    conn.sendall(_control(1, CONTENT_TYPE.encode()))
                offset += 8 + size
                continue
            if len(buffer) - offset < 4 + length:
                break
            offset += 4 + length
            seen += 1
        del buffer[:offset]
    return seen


def run_sink(mode, port, count):
    """Counts `count` lines or frames, then prints the wall-clock time."""
    if mode == "stdin-lines":
        seen = 0
        while seen < count:
            chunk = sys.stdin.buffer.read1(1 << 20)
            if not chunk:
                break
            seen += chunk.count(b"\n")
        print("%.6f %d" % (time.time(), seen), flush=True)
        return
    server = socket.socket()
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.bind((LOOPBACK, port))
    server.listen(1)
    print("ready", flush=True)
    conn, _ = server.accept()
    if mode == "frames":
        seen = _count_frames(conn, count)
    else:
        seen = 0
        while seen < count:
            chunk = conn.recv(1 << 20)
            if not chunk:
                break
            seen += chunk.count(b"\n")
    print("%.6f %d" % (time.time(), seen), flush=True)
    # Keep the connection until the agent stops, so it sees no error.
    conn.settimeout(30)
    try:
        while conn.recv(1 << 20):
            pass
    except OSError:
        pass


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


def replay(path, port):
    subprocess.run(["fstrm_replay", "-t", CONTENT_TYPE, "-r", path, "-a",
                    LOOPBACK, "-p", str(port)], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def start_sink(mode, port, count, stdin=None):
    sink = subprocess.Popen([sys.executable, __file__, "--sink", mode,
                             str(port), str(count)], stdin=stdin,
                            stdout=subprocess.PIPE, text=True)
    if mode != "stdin-lines":
        sink.stdout.readline()  # "ready"
    return sink


def finish_time(sink, count):
    stamp, seen = sink.stdout.readline().split()
    if int(seen) != count:
        raise RuntimeError("sink counted %s of %d events" % (seen, count))
    return float(stamp)


def stop(process):
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def bench_vantrelo(build, path, count, fmt, workdir):
    port, sink_port = free_port(), free_port()
    sink = start_sink("frames" if fmt == "dnstap" else "lines", sink_port,
                      count)
    config = os.path.join(workdir, "bench.conf")
    with open(config, "w") as handle:
        handle.write("listener ipv4 %s %d\nforwarder ipv4 %s %d "
                     "batch-size=100\nmessage-format %s\n"
                     "message-queue-recovery off\nmetrics-interval 3600\n" %
                     (LOOPBACK, port, LOOPBACK, sink_port, fmt))
    agent = subprocess.Popen([os.path.join(build, "src/app/vantrelo"), "run",
                              config], stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
    try:
        wait_listening(port, agent)
        start = time.time()
        replay(path, port)
        return finish_time(sink, count) - start
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
        wait_listening(port, tool)
        start = time.time()
        replay(path, port)
        return finish_time(sink, count) - start
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
        wait_listening(port, capture)
        start = time.time()
        replay(path, port)
        return time.time() - start
    finally:
        stop(capture)


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
    parser.add_argument("--events", type=int, default=200000)
    parser.add_argument("--repeat", type=int, default=3,
                        help="runs per contender; the best one counts")
    parser.add_argument("--kafka-only", action="store_true",
                        help="run only the Kafka forwarder's section")
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
        print("input: %d events, %d bytes (%.0f bytes per event)\n" %
              (args.events, size, size / args.events))
        contenders = [
            ("vantrelo json", lambda: bench_vantrelo(
                args.build, path, args.events, "json", workdir)),
            ("vantrelo querylog", lambda: bench_vantrelo(
                args.build, path, args.events, "querylog", workdir)),
            ("vantrelo dnstap", lambda: bench_vantrelo(
                args.build, path, args.events, "dnstap", workdir)),
            ("dnstap tool json", lambda: bench_dnstap_tool(path,
                                                            args.events)),
            ("fstrm_capture", lambda: bench_fstrm_capture(path, workdir)),
        ]
        if args.kafka_only:
            kafka_section(args, path, workdir)
            return
        rates = {}
        for name, run in contenders:
            best = min(run() for _ in range(args.repeat))
            rates[name] = args.events / best
            print("%-18s %10.0f events/s  (%.3f s)" % (name, rates[name],
                                                       best), flush=True)
        print()
        for ours in ("vantrelo json", "vantrelo querylog", "vantrelo dnstap"):
            print("%-18s %5.2fx the dnstap tool, %5.2fx fstrm_capture" %
                  (ours, rates[ours] / rates["dnstap tool json"],
                   rates[ours] / rates["fstrm_capture"]))
        print()
        kafka_section(args, path, workdir)


if __name__ == "__main__":
    main()
