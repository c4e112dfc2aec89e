"""Checks every peer helper against the real programs, on its own.

Run as root: python3 tests/integration/peers_selftest.py [-v]
(the programs come from scripts/install-test-peers).
"""

import os
import signal
import socket
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import dnstap_records as dr  # noqa: E402
import peer_process  # noqa: E402
import peers  # noqa: E402

# (name, type, expected status, expected answers) asked over UDP and TCP.
QUERIES = (
    ("www.example.test.", "A", "NOERROR", ["www.example.test. A 192.0.2.1"]),
    ("www.example.test.", "AAAA", "NOERROR",
     ["www.example.test. AAAA 2001:db8::1"]),
    ("example.test.", "MX", "NOERROR",
     ["example.test. MX 10 mail.example.test."]),
    ("nope.example.test.", "A", "NXDOMAIN", []),
)


def ask_all(server, tool="dig"):
    """Asks every query over UDP, then over TCP; checks the answers."""
    results = []
    for tcp in (False, True):
        asked = [(name, qtype) for name, qtype, _, _ in QUERIES]
        got = peers.run_queries(server.port, asked, tcp=tcp, tool=tool)
        for (name, qtype, status, answers), result in zip(QUERIES, got):
            if result.status != status or result.answers != answers:
                raise AssertionError("%s %s tcp=%s: got %s %s" %
                                     (name, qtype, tcp, result.status,
                                      result.answers))
        results += got
    return results


class ExchangeChecks(unittest.TestCase):
    """Compares dnstap records with the queries that caused them."""

    def assert_exchanges(self, records, results, query_type, response_type,
                         identity, version, server_port):
        by_key = {}
        for record in records:
            question = record.dns
            key = (record.type_name, question.id, question.name,
                   question.qtype, record.socket_protocol)
            self.assertNotIn(key, by_key, "duplicate record %s" % (key,))
            by_key[key] = record
        self.assertEqual(len(records), 2 * len(results))
        for result in results:
            protocol = 2 if result.tcp else 1
            with self.subTest(query=result):
                query = by_key[(query_type, result.id, result.name,
                                result.qtype, protocol)]
                response = by_key[(response_type, result.id, result.name,
                                   result.qtype, protocol)]
                for record in (query, response):
                    self.assertEqual(record.identity, identity)
                    if version is not None:
                        self.assertEqual(record.version, version)
                    self.assertEqual(record.socket_family, 1)
                    self.assertEqual(record.query_ip(), "127.0.0.1")
                    self.assertEqual(record.response_ip(), "127.0.0.1")
                    self.assertEqual(record.response_port, server_port)
                    self.assertEqual(record.query_port, query.query_port)
                self.assertFalse(query.dns.is_response)
                self.assertTrue(response.dns.is_response)
                self.assertEqual(response.dns.rcode, result.status)
                self.assertEqual(response.dns.answers, len(result.answers))
                now = time.time()
                self.assertLess(abs(query.query_time_sec - now), 60)
                self.assertLess(abs(response.response_time_sec - now), 60)


class DnsServerSenders(ExchangeChecks):

    def test_unbound_to_fstrm_capture(self):
        for unix in (False, True):
            with self.subTest(unix=unix), \
                    peers.FstrmCapture(unix=unix) as capture:
                sink = ({"dnstap_unix": capture.socket_path} if unix else
                        {"dnstap_tcp": capture.address})
                with peers.UnboundServer(**sink) as unbound:
                    capture.wait_connected()
                    results = ask_all(unbound)
                    records = capture.wait_records(2 * len(results))
                self.assert_exchanges(records, results, "CLIENT_QUERY",
                                      "CLIENT_RESPONSE", b"unbound-peer",
                                      b"unbound-peer-1", unbound.port)

    def test_knot_to_fstrm_capture_over_unix(self):
        with peers.FstrmCapture(unix=True) as capture, \
                peers.KnotServer(dnstap_unix=capture.socket_path) as knot:
            capture.wait_connected()
            results = ask_all(knot, tool="kdig")
            records = capture.wait_records(2 * len(results))
        self.assert_exchanges(records, results, "AUTH_QUERY", "AUTH_RESPONSE",
                              b"knot-peer", b"knot-peer-1", knot.port)

    def test_dnsdist_in_front_of_unbound(self):
        with peers.FstrmCapture() as capture, \
                peers.UnboundServer() as unbound, \
                peers.DnsdistServer((unbound.host, unbound.port),
                                    capture.address) as dnsdist:
            capture.wait_connected()
            results = ask_all(dnsdist)
            records = capture.wait_records(2 * len(results))
        self.assert_exchanges(records, results, "CLIENT_QUERY",
                              "CLIENT_RESPONSE", b"dnsdist-peer", None,
                              dnsdist.port)


def made_up_records(count):
    """Queries and responses over UDP and TCP, all fields set."""
    records = []
    for i in range(count):
        record = dr.DnstapRecord(
            identity=b"made-up", version=b"v1", type=5,
            socket_family=1, socket_protocol=1 + i // 2 % 2,
            query_address=bytes([127, 0, 0, 1]),
            response_address=bytes([127, 0, 0, 2]), query_port=40000 + i,
            response_port=53, query_time_sec=1700000000 + i,
            query_time_nsec=123456789)
        wire = dr.build_dns_query("q%d.example.test" % i, ident=i)
        if i % 2:
            record.type = 6
            record.response_time_sec = record.query_time_sec + 1
            record.response_time_nsec = 5
            # Same message with the response flag set, no answers.
            record.response_message = wire[:2] + b"\x81\x80" + wire[4:]
        else:
            record.query_message = wire
        records.append(record)
    return records


class FileSenders(unittest.TestCase):

    def setUp(self):
        self.records = made_up_records(20)
        self.source = os.path.join(
            os.environ.get("TMPDIR", "/tmp"),
            "vt-selftest-%d.fstrm" % os.getpid())
        dr.write_capture_file(self.source,
                              [dr.encode_dnstap(r) for r in self.records])

    def tearDown(self):
        os.unlink(self.source)

    def test_senders_into_fstrm_capture(self):
        senders = {"fstrm_replay": peers.replay_fstrm,
                   "dnstap": peers.send_dnstap_file}
        for name, send in senders.items():
            for unix in (False, True):
                with self.subTest(sender=name, unix=unix), \
                        peers.FstrmCapture(unix=unix) as capture:
                    send(self.source, **({"unix": capture.socket_path}
                                         if unix else
                                         {"tcp": capture.address}))
                    self.assertEqual(capture.wait_records(20), self.records)

    def test_capture_replays_into_second_capture(self):
        with peers.FstrmCapture() as first:
            peers.replay_fstrm(self.source, tcp=first.address)
            first.wait_records(20)
            merged = first.single_file()
            with peers.FstrmCapture(unix=True) as second:
                peers.replay_fstrm(merged, unix=second.socket_path)
                self.assertEqual(second.wait_records(20), self.records)

    def test_dnstap_tool_as_collector(self):
        for unix in (False, True):
            for fmt in ("json", "yaml"):
                with self.subTest(unix=unix, fmt=fmt), \
                        peers.DnstapListener(unix=unix, fmt=fmt) as listener:
                    peers.replay_fstrm(self.source, **(
                        {"unix": listener.socket_path} if unix else
                        {"tcp": listener.address}))
                    got = listener.wait_count(20)
                    self.assertEqual(len(got), 20)
                    if fmt == "yaml":
                        self.assertIn("identity: \"made-up\"", got[0])
                        continue
                    for obj, record in zip(got, self.records):
                        self.assertEqual(peers.json_to_record(obj),
                                         self.without_messages(record))
                        question = record.dns
                        self.assertEqual(
                            peers.json_question(obj),
                            (question.id, "NOERROR", question.name, "A"))

    @staticmethod
    def without_messages(record):
        copy = dr.DnstapRecord(**record.__dict__)
        copy.query_message = copy.response_message = b""
        return copy


class ScriptedSender(unittest.TestCase):

    def test_fstrm_client_into_both_collectors(self):
        # Both tools accept bidirectional senders only; a unidirectional
        # open() is for talking to the agent.
        records = made_up_records(6)
        for unix in (False, True):
            for collector in (peers.FstrmCapture, peers.DnstapListener):
                with self.subTest(unix=unix, collector=collector.name), \
                        collector(unix=unix) as peer:
                    target = ({"unix": peer.socket_path} if unix else
                              {"tcp": peer.address})
                    with peers.FstrmClient(**target) as client:
                        client.open()
                        client.send([dr.encode_dnstap(r) for r in records])
                        client.close()
                    if collector is peers.FstrmCapture:
                        self.assertEqual(peer.wait_records(6), records)
                    else:
                        got = peer.wait_count(6)
                        self.assertEqual(
                            [peers.json_to_record(obj).identity
                             for obj in got], [b"made-up"] * 6)

    def test_wrong_content_type_is_refused(self):
        with peers.FstrmCapture() as capture, \
                peers.FstrmClient(tcp=capture.address) as client:
            with self.assertRaises((peers.PeerError, OSError)):
                client.open(content_type=b"protobuf:other.Type")


class Codec(unittest.TestCase):

    def test_frames_split_and_truncation(self):
        stream = (dr.control_frame(dr.FSTRM_START, dr.CONTENT_TYPE) +
                  dr.data_frame(b"abc") +
                  dr.data_frame(b"\x00" * 300) +
                  dr.control_frame(dr.FSTRM_STOP))
        controls, payloads = dr.split_frames(stream)
        self.assertEqual(controls, [(dr.FSTRM_START, [dr.CONTENT_TYPE]),
                                    (dr.FSTRM_STOP, [])])
        self.assertEqual(payloads, [b"abc", b"\x00" * 300])
        for cut in (1, 5, 9, 20, len(stream) - 1):
            with self.subTest(cut=cut):
                with self.assertRaises(dr.CodecError):
                    dr.split_frames(stream[:len(stream) - cut])
                _, partial = dr.split_frames(stream[:len(stream) - cut], True)
                self.assertEqual(partial, payloads[:len(partial)])

    def test_dnstap_encoding(self):
        cases = [
            (dr.DnstapRecord(), "780172020800"),
            (dr.DnstapRecord(identity=b"id", type=5, query_port=300,
                             query_time_nsec=1),
             "0a0269647801720a080530ac024d01000000"),
        ]
        for record, expected in cases:
            with self.subTest(expected=expected):
                self.assertEqual(dr.encode_dnstap(record).hex(), expected)
                self.assertEqual(dr.decode_dnstap(bytes.fromhex(expected)),
                                 record)

    def test_dnstap_decoding_rejects(self):
        cases = {
            "wrong outer type": "7802",
            "identity as varint": "0801",
            "port as bytes": "7202" + "3200",
            "truncated message": "7205" + "0805",
            "truncated varint": "78",
        }
        for name, hexed in cases.items():
            with self.subTest(name):
                with self.assertRaises(dr.CodecError):
                    dr.decode_dnstap(bytes.fromhex(hexed))

    def test_unknown_fields_are_skipped(self):
        # Dnstap field 4 (fixed64) and Message field 15 (fixed32) unknown.
        frame = bytes.fromhex("21" + "00" * 8 + "7207" + "0806" + "7d" +
                              "01020304")
        self.assertEqual(dr.decode_dnstap(frame), dr.DnstapRecord(type=6))


class Syslog(unittest.TestCase):

    def test_rsyslog_receives_both_framings(self):
        lines = [
            "<14>Nov 21 05:00:00 host app[1]: plain line",
            "<134>1 2026-11-21T05:00:00.000000Z host app 7 - - rfc 5424",
        ]
        counted = "<14>Nov 21 05:00:01 host app[1]: counted, with space"
        with peers.RsyslogCollector() as collector:
            with socket.create_connection(collector.address, 5) as conn:
                conn.sendall("".join(l + "\n" for l in lines).encode())
                conn.sendall(b"%d %s" % (len(counted), counted.encode()))
            self.assertEqual(collector.wait_lines(3), lines + [counted])


def live_group_members(pgid):
    """Pids of processes of a group that are still running (not zombies,
    which wait for a reaper that is not ours)."""
    members = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open("/proc/%s/stat" % entry) as handle:
                fields = handle.read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        if int(fields[2]) == pgid and fields[0] != "Z":
            members.append(int(entry))
    return members


class Lifecycle(unittest.TestCase):

    def test_failed_start_reports_log_and_leaves_nothing(self):
        peer = peers.UnboundServer()
        peer.config_text = lambda: "server:\n    no-such-option: 1\n"
        with self.assertRaises(peers.PeerError) as raised:
            with peer:
                pass
        self.assertIn("no-such-option", str(raised.exception))
        self.assertFalse(os.path.exists(peer.workdir))

    def test_stop_kills_whole_group_and_stubborn_children(self):
        with peers.FstrmCapture() as capture:
            stubborn = capture.spawn(
                "stubborn", ["sh", "-c", "trap '' TERM; sleep 30 & wait"])
            time.sleep(0.2)
            pid = stubborn.pid
            stubborn.stop(timeout=0.5)
            self.assertFalse(stubborn.running())
            self.assertTrue(capture.process.running())
        self.assertEqual(live_group_members(pid), [])
        self.assertEqual(peer_process._LIVE, set())


if __name__ == "__main__":
    if os.geteuid() != 0:
        sys.exit("peers_selftest: run as root (the DNS servers run as root)")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    unittest.main()
