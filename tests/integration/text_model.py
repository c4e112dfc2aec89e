# The query-log line the agent must write for a dnstap record, worked out
# independently: a small DNS decoder for the record types the peers and the
# load generator produce (any other type raises, so no test compares against a
# guess) and the line built from it with either syslog header.

import ipaddress
import struct
import time

from dnstap_records import MESSAGE_TYPES, CodecError

TYPE_NAMES = {1: "A", 2: "NS", 5: "CNAME", 6: "SOA", 12: "PTR", 15: "MX",
              16: "TXT", 28: "AAAA", 33: "SRV"}
RCODE_NAMES = {0: "NOERROR", 1: "FORMERR", 2: "SERVFAIL", 3: "NXDOMAIN",
               4: "NOTIMP", 5: "REFUSED"}
# The word after "queries: " for dnstap types 1..12: authoritative servers
# count as serving clients.
QUERYLOG_ROLES = [{"auth": "client"}.get(role, role) for role in (
    name.split("_")[0].lower() for name in MESSAGE_TYPES)]
TCP_LIKE = {2, 3, 4, 6}


def read_name(wire, offset):
    """(presentation name with the final dot, offset after the name)."""
    labels, end = [], None
    for _ in range(256):  # labels and pointers; more means a loop
        if offset >= len(wire):
            raise CodecError("name runs past the message")
        length = wire[offset]
        if length & 0xC0 == 0xC0:
            end = offset + 2 if end is None else end
            offset = struct.unpack_from(">H", wire, offset)[0] & 0x3FFF
            continue
        if length == 0:
            return ".".join(labels) + ".", end or offset + 1
        labels.append(_escape(wire[offset + 1:offset + 1 + length], True))
        offset += 1 + length
    raise CodecError("compression loop")


def _escape(raw, name=False):
    special = '"\\' + (".;()@$ " if name else "")
    return "".join("\\%03d" % b if b < 0x20 or b > 0x7E else
                   ("\\" if chr(b) in special else "") + chr(b) for b in raw)


def _rdata(wire, offset, rtype, length):
    if rtype in (1, 28):
        return str(ipaddress.ip_address(wire[offset:offset + length]))
    if rtype in (2, 5, 12):
        return read_name(wire, offset)[0]
    if rtype in (15, 33):
        numbers = struct.unpack_from(">HHH" if rtype == 33 else ">H", wire,
                                     offset)
        name = read_name(wire, offset + 2 * len(numbers))[0]
        return " ".join([str(n) for n in numbers] + [name])
    if rtype == 6:
        mname, at = read_name(wire, offset)
        rname, at = read_name(wire, at)
        numbers = struct.unpack_from(">IIIII", wire, at)
        return " ".join([mname, rname] + [str(n) for n in numbers])
    if rtype == 16:
        strings, at = [], offset
        while at < offset + length:
            strings.append('"%s"' % _escape(wire[at + 1:at + 1 + wire[at]]))
            at += 1 + wire[at]
        return " ".join(strings)
    raise CodecError("record type %d is not modelled" % rtype)


class Message:
    # Header, question and answer section of a DNS message; each answer is
    # (name, ttl, class, type, data text).

    def __init__(self, wire):
        self.id, self.flags, qdcount, ancount = struct.unpack_from(">HHHH",
                                                                   wire)
        if qdcount != 1:
            raise CodecError("expected one question")
        self.qname, offset = read_name(wire, 12)
        self.qtype, self.qclass = struct.unpack_from(">HH", wire, offset)
        offset += 4
        self.records = []
        for _ in range(ancount):
            name, offset = read_name(wire, offset)
            rtype, rclass, ttl, length = struct.unpack_from(">HHIH", wire,
                                                            offset)
            self.records.append((name, ttl, rclass, rtype, _rdata(
                wire, offset + 10, rtype, length)))
            offset += 10 + length
        self.rcode = RCODE_NAMES[self.flags & 0xF]

    def answers(self):
        """The answer section as "name TYPE data" texts, as dig shows it."""
        return ["%s %s %s" % (name, type_name(rtype), data)
                for name, _, _, rtype, data in self.records]


def type_name(number):
    return TYPE_NAMES.get(number, "TYPE%d" % number)


def class_name(number):
    return "IN" if number == 1 else "CLASS%d" % number


def syslog_header(rfc3164, priority, host, pid, seconds, nanos):
    stamp = time.gmtime(seconds)
    if rfc3164:
        return "<%d>%s %2d %s %s vantrelo[%d]: " % (
            priority, time.strftime("%b", stamp), stamp.tm_mday,
            time.strftime("%H:%M:%S", stamp), host, pid)
    # The fraction is microseconds without zero padding.
    return "<%d>1 %s.%dZ %s vantrelo %d - - " % (
        priority, time.strftime("%Y-%m-%dT%H:%M:%S", stamp), nanos // 1000,
        host, pid)


def querylog_line(record, rfc3164, priority, host, pid):
    # The query-log line of a record, header included, without the line feed.
    side = "query" if record.is_query else "response"
    message = Message(record.wire)
    line = syslog_header(rfc3164, priority, host, pid,
                         getattr(record, side + "_time_sec"),
                         getattr(record, side + "_time_nsec"))
    line += "queries: %s %s#%d: %s: %s %s %s %s%s (%s)" % (
        QUERYLOG_ROLES[record.type - 1], record.ip("query"),
        record.query_port, side, message.qname, class_name(message.qclass),
        type_name(message.qtype), "+" if message.flags & 0x0100 else "-",
        "T" if record.socket_protocol in TCP_LIKE else "",
        record.ip("response") or "<unknown>")
    if not record.is_query:
        line += " " + message.rcode + "".join(
            "; %s %d %s %s %s" % (name, ttl, class_name(rclass),
                                  type_name(rtype), data)
            for name, ttl, rclass, rtype, data in message.records)
    return line
