#!/usr/bin/env python3
"""The relay with the edge filters on against the plain relay, one input for all.

The load generator writes one Frame Streams file; fstrm_replay sends it to the
agent, which relays to a counting sink, first plain, then with a 100,000-name
drop list, 1-in-N sampling and client-address truncation. The filtered run's
sink waits for exactly the events that should survive (worked out here from
the input with the agent's documented sampling hash). Both rates count the
events sent in, so the ratio shows what the filters cost at the edge.

usage: bench/relay_filter_bench.py [--build DIR] [--events N] [--repeat R]
                                   [--format dnstap|json] [--sample N]
Needs fstrm-bin (scripts/install-deps --with-peers).
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
CONTENT_TYPE = b"protobuf:dnstap.Dnstap"
LIST_NAMES = 100000
MASK = (1 << 64) - 1
# Listed among the synthetic names: a share of the generated traffic is dropped.
LISTED = ("example.org", "shop.example")


def free_port():
    with socket.socket() as probe:
        probe.bind((LOOPBACK, 0))
        return probe.getsockname()[1]


# --- the input, read as the agent will --------------------------------------

def payloads(path):
    data, at, out = open(path, "rb").read(), 0, []
    while at + 4 <= len(data):
        length = struct.unpack_from(">I", data, at)[0]
        if length == 0:
            at += 8 + struct.unpack_from(">I", data, at + 4)[0]
            continue
        out.append(data[at + 4:at + 4 + length])
        at += 4 + length
    return out


def varint(data, at):
    value, shift = 0, 0
    while True:
        byte = data[at]
        value |= (byte & 0x7F) << shift
        at, shift = at + 1, shift + 7
        if byte < 0x80:
            return value, at


def fields(data):
    out, at = {}, 0
    while at < len(data):
        tag, at = varint(data, at)
        if tag & 7 == 0:
            out[tag >> 3], at = varint(data, at)
        elif tag & 7 == 2:
            size, at = varint(data, at)
            out[tag >> 3], at = data[at:at + size], at + size
        else:
            out[tag >> 3], at = None, at + 4
    return out


def survives(payload, one_in):
    message = fields(fields(payload)[14])
    wire = message[10] if message[1] & 1 else message[14]
    at, labels = 12, []
    while wire[at]:
        labels.append(wire[at + 1:at + 1 + wire[at]].decode("latin-1"))
        at += 1 + wire[at]
    name = ".".join(labels).lower()
    if any(name == d or name.endswith("." + d) for d in LISTED):
        return False
    h = 0xCBF29CE484222325
    port = message.get(6, 0)
    for byte in message.get(4, b"") + bytes([port >> 8 & 255, port & 255,
                                             wire[0], wire[1]]):
        h = ((h ^ byte) * 0x100000001B3) & MASK
    for multiplier in (0xFF51AFD7ED558CCD, 0xC4CEB9FE1A85EC53):
        h ^= h >> 33
        h = (h * multiplier) & MASK
    h ^= h >> 33
    return h % one_in == 0


# --- sink (a child process: relay_filter_bench.py --sink MODE PORT COUNT) ----

def run_sink(mode, port, count):
    server = socket.create_server((LOOPBACK, port))
    print("ready", flush=True)
    conn, _ = server.accept()
    buffer, seen = bytearray(), 0
    while seen < count:
        chunk = conn.recv(1 << 20)
        if not chunk:
            break
        if mode == "lines":
            seen += chunk.count(b"\n")
            continue
        buffer += chunk
        at = 0
        while len(buffer) - at >= 4:
            length = struct.unpack_from(">I", buffer, at)[0]
            if length == 0:
                if len(buffer) - at < 8:
                    break
                size = struct.unpack_from(">I", buffer, at + 4)[0]
                if len(buffer) - at < 8 + size:
                    break
                if struct.unpack_from(">I", buffer, at + 8)[0] == 4:  # READY
                    body = struct.pack(">III", 1, 1, len(CONTENT_TYPE))
                    conn.sendall(struct.pack(">II", 0, len(body) +
                                             len(CONTENT_TYPE)) + body +
                                 CONTENT_TYPE)
                at += 8 + size
                continue
            if len(buffer) - at < 4 + length:
                break
            at += 4 + length
            seen += 1
        del buffer[:at]
    print("%.6f %d" % (time.time(), seen), flush=True)
    conn.settimeout(30)
    try:
        while conn.recv(1 << 20):
            pass
    except OSError:
        pass


# --- the bench ---------------------------------------------------------------

def stop(process):
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def relay(build, path, count, fmt, extra, workdir):
    port, sink_port = free_port(), free_port()
    sink = subprocess.Popen([sys.executable, __file__, "--sink",
                             "frames" if fmt == "dnstap" else "lines",
                             str(sink_port), str(count)],
                            stdout=subprocess.PIPE, text=True)
    sink.stdout.readline()
    config = os.path.join(workdir, "bench.conf")
    with open(config, "w") as handle:
        handle.write("listener ipv4 %s %d\nforwarder ipv4 %s %d batch-size=100\n"
                     "message-format %s\nmessage-queue-recovery off\n"
                     "metrics-interval 3600\n%s" % (LOOPBACK, port, LOOPBACK,
                                                    sink_port, fmt, extra))
    agent = subprocess.Popen([os.path.join(build, "src/app/vantrelo"), "run",
                              config], stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + 30
        while True:
            with socket.socket() as probe:
                if probe.connect_ex((LOOPBACK, port)) == 0:
                    break
            if agent.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("the agent did not start")
            time.sleep(0.05)
        start = time.time()
        subprocess.run(["fstrm_replay", "-t", CONTENT_TYPE.decode(), "-r", path,
                        "-a", LOOPBACK, "-p", str(port)], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        stamp, seen = sink.stdout.readline().split()
        if int(seen) != count:
            raise RuntimeError("sink counted %s of %d events" % (seen, count))
        return float(stamp) - start
    finally:
        stop(agent)
        stop(sink)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--events", type=int, default=200000)
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--format", default="dnstap",
                        choices=("dnstap", "json", "querylog"))
    parser.add_argument("--sample", type=int, default=10)
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
        names = os.path.join(workdir, "drop.list")
        with open(names, "w") as handle:
            for i in range(LIST_NAMES - len(LISTED)):
                handle.write("host%d.tracker%d.example\n" % (i, i % 977))
            handle.write("\n".join(LISTED) + "\n")
        kept = sum(survives(p, args.sample) for p in payloads(path))
        filters = ("filter-drop-domain-file %s\nfilter-sample-one-in %d\n"
                   "filter-client-address truncate\n" % (names, args.sample))
        rates = {}
        for name, extra, count in (("plain", "", args.events),
                                   ("filtered", filters, kept)):
            best = min(relay(args.build, path, count, args.format, extra,
                             workdir) for _ in range(args.repeat))
            rates[name] = args.events / best
            print("%-9s %10.0f events/s in  (%d out, %.3f s)" %
                  (name, rates[name], count, best), flush=True)
        print("filtered/plain: %.2f" % (rates["filtered"] / rates["plain"]))


if __name__ == "__main__":
    main()
