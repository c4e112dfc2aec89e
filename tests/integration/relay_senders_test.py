"""Real dnstap senders into the agent's listeners: file senders (fstrm_replay
and the dnstap tool) over TCP and a Unix socket, Unbound over TCP, Knot over
a Unix socket and dnsdist over TCP. The agent relays as dnstap to
fstrm_capture, and every frame must arrive unchanged.

Run as root: python3 tests/integration/relay_senders_test.py [-v]
"""

import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import agent as ag  # noqa: E402
import dnstap_records as dr  # noqa: E402
import peers  # noqa: E402
from peers_selftest import ExchangeChecks, ask_all  # noqa: E402

RECORD_TIMEOUT = 15


def relay_config(capture, listeners, batch_size=50):
    return listeners + [
        "forwarder ipv4 %s %d batch-size=%d" % (capture.host, capture.port,
                                                batch_size),
        "message-format dnstap",
        "metrics-interval 1",
    ]


class FileSenders(unittest.TestCase):
    """The same generated file, sent four ways into one agent."""

    @classmethod
    def setUpClass(cls):
        ag.require_tools("fstrm_capture", "fstrm_replay", "dnstap")
        cls.directory = tempfile.TemporaryDirectory(prefix="vt-senders-")
        cls.source = os.path.join(cls.directory.name, "load.fstrm")
        ag.loadgen("--write", cls.source, "--count", 300, "--seed", 11)
        with open(cls.source, "rb") as handle:
            cls.payloads = dr.split_frames(handle.read())[1]

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    def test_every_frame_arrives_unchanged(self):
        port = ag.listener_port()
        socket_path = os.path.join(self.directory.name, "relay.sock")
        with peers.FstrmCapture() as capture, ag.Agent(
                relay_config(capture, [
                    "listener ipv4 127.0.0.1 %d" % port,
                    "listener unix %s" % socket_path]),
                tcp_listeners=[port], unix_listeners=[socket_path]) as agent:
            sends = (("fstrm_replay", "tcp", peers.replay_fstrm),
                     ("dnstap", "tcp", peers.send_dnstap_file),
                     ("fstrm_replay", "unix", peers.replay_fstrm),
                     ("dnstap", "unix", peers.send_dnstap_file))
            expected = []
            for sender, transport, send in sends:
                with self.subTest(sender=sender, transport=transport):
                    if transport == "tcp":
                        send(self.source, tcp=("127.0.0.1", port))
                    else:
                        send(self.source, unix=socket_path)
                    expected += self.payloads
                    got = capture.wait_records(len(expected), RECORD_TIMEOUT)
                    self.assertEqual(len(got), len(expected))
                    self.assertEqual(capture.payloads(), expected)
            metrics = agent.wait_metrics(
                lambda m: m["forwarder"][0]["eventsSent"] == len(expected),
                "all events counted as sent")
            listeners = metrics["listener"]
            self.assertEqual([entry["accepts"] for entry in listeners], [2, 2])
            self.assertEqual(listeners[1]["type"], "unix")
            self.assertEqual(listeners[1]["path"], socket_path)


class DnsServerSenders(ExchangeChecks):
    """DNS servers tapping their traffic into the agent, dig or kdig asking
    them; the records at the collector must match the answers."""

    def relay(self, listener, **agent_args):
        capture = peers.FstrmCapture()
        capture.__enter__()
        self.addCleanup(capture.__exit__, None, None, None)
        relay = ag.Agent(relay_config(capture, [listener]), **agent_args)
        relay.__enter__()
        self.addCleanup(relay.__exit__, None, None, None)
        return capture, relay

    def test_unbound_over_tcp(self):
        ag.require_root()
        ag.require_tools("unbound", "dig", "fstrm_capture")
        port = ag.listener_port()
        capture, relay = self.relay("listener ipv4 127.0.0.1 %d" % port,
                                    tcp_listeners=[port])
        with peers.UnboundServer(dnstap_tcp=("127.0.0.1", port)) as unbound:
            relay.wait_log("Receiver[", timeout=RECORD_TIMEOUT)
            results = ask_all(unbound)
            records = capture.wait_records(2 * len(results), RECORD_TIMEOUT)
        self.assert_exchanges(records, results, "CLIENT_QUERY",
                              "CLIENT_RESPONSE", b"unbound-peer",
                              b"unbound-peer-1", unbound.port)

    def test_knot_over_unix_socket(self):
        ag.require_root()
        ag.require_tools("knotd", "kdig", "fstrm_capture")
        directory = tempfile.TemporaryDirectory(prefix="vt-knot-relay-")
        self.addCleanup(directory.cleanup)
        path = os.path.join(directory.name, "dnstap.sock")
        capture, relay = self.relay("listener unix %s" % path,
                                    unix_listeners=[path])
        with peers.KnotServer(dnstap_unix=path) as knot:
            results = ask_all(knot, tool="kdig")
            records = capture.wait_records(2 * len(results), RECORD_TIMEOUT)
        self.assert_exchanges(records, results, "AUTH_QUERY", "AUTH_RESPONSE",
                              b"knot-peer", b"knot-peer-1", knot.port)
        self.assertEqual(relay.metrics()[-1]["listener"][0]["type"], "unix")

    def test_dnsdist_over_tcp(self):
        ag.require_root()
        ag.require_tools("dnsdist", "unbound", "dig", "fstrm_capture")
        port = ag.listener_port()
        capture, _ = self.relay("listener ipv4 127.0.0.1 %d" % port,
                                tcp_listeners=[port])
        with peers.UnboundServer() as unbound, peers.DnsdistServer(
                (unbound.host, unbound.port), ("127.0.0.1", port)) as dnsdist:
            results = ask_all(dnsdist)
            records = capture.wait_records(2 * len(results), RECORD_TIMEOUT)
        self.assert_exchanges(records, results, "CLIENT_QUERY",
                              "CLIENT_RESPONSE", b"dnsdist-peer", None,
                              dnsdist.port)


if __name__ == "__main__":
    ag.main()
