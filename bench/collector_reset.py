#!/usr/bin/env python3
"""Events lost and duplicated when the collector resets mid-stream.

For each recovery mode the load generator sends EVENTS dnstap events at full
speed into the agent, which forwards them with default socket buffers to a
Frame Streams collector slower than itself that resets its first connection
(SO_LINGER 0) after taking RESET_AFTER frames; the second connection takes the
rest. Prints for each mode the events lost by the agent, those duplicated, and
those the collector's TCP had acknowledged but the collector itself threw away
with the reset, which no sender can recover.

usage: bench/collector_reset.py [--build DIR] [--events N] [--reset-after N]
"""

import argparse
import os
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "integration"))

import fstrm  # noqa: E402
import harness  # noqa: E402

START = ("--start-time", "1700000000")
SEED = 9


def settled(collector, quiet=2.0):
    # The frames once the collector has taken none for `quiet` seconds.
    count, since = -1, time.monotonic()
    while True:
        got = collector.received()
        if len(got) != count:
            count, since = len(got), time.monotonic()
        elif time.monotonic() - since >= quiet:
            return got
        time.sleep(0.1)


def run_mode(mode, events, reset_after, sent):
    # (lost, duplicated, discarded) for one recovery mode.
    test = harness.RelayTest()
    test.setUp()
    try:
        port = harness.free_port()
        with fstrm.Collector(port, drop_after=reset_after,
                             slow=16384) as collector, \
                test.agent((harness.LOOPBACK, port),
                           "recovery=%s" % mode) as relay:
            test.loadgen("--tcp", "%s:%d" % (harness.LOOPBACK, test.port),
                         "--count", events, "--seed", SEED, *START)
            relay.wait_metrics(
                lambda m: m["forwarder"][0]["connects"] >= 2 and
                m["queue"][0]["eventsQueued"] == 0, "the stream to drain", 60)
            got = settled(collector)
    finally:
        test.doCleanups()
    unique, discarded = set(got), set(collector.discarded)
    return (sum(1 for p in sent if p not in unique and p not in discarded),
            len(got) - len(unique), len(discarded - unique))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--events", type=int, default=100000)
    parser.add_argument("--reset-after", type=int, default=10000)
    args = parser.parse_args()
    os.environ.setdefault("VANTRELO_BIN",
                          os.path.join(args.build, "src/app/vantrelo"))
    os.environ.setdefault("VANTRELO_LOADGEN",
                          os.path.join(args.build, "tools/vantrelo-loadgen"))
    test = harness.RelayTest()
    test.setUp()
    sent = set(test.generate(args.events, SEED, *START)[1])
    test.doCleanups()
    # discarded: events the collector's TCP had taken in (and acknowledged)
    # but the collector had not processed at its reset, never seen again.
    print("%-12s %8s %11s %9s" % ("recovery", "lost", "duplicated",
                                  "discarded"))
    for mode in ("drop", "best-effort", "durable"):
        print("%-12s %8d %11d %9d" % ((mode,) + run_mode(
            mode, args.events, args.reset_after, sent)), flush=True)


if __name__ == "__main__":
    main()
