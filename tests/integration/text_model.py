"""What the agent's text formats must say about a dnstap record, worked out
independently of the agent: a small DNS decoder (header, question, answer
records with compression, record data of the common types) and the query-log
line and JSON object built from it, with either syslog header.

Only the record types that the test peers and the load generator produce are
known here (A, NS, CNAME, SOA, PTR, MX, TXT, AAAA, SRV); a record of any
other type raises, so a test never compares against a guess.
"""

import ipaddress
import struct
import time

from dnstap_records import CodecError

TYPE_NAMES = {1: "A", 2: "NS", 5: "CNAME", 6: "SOA", 12: "PTR", 15: "MX",
              16: "TXT", 28: "AAAA", 33: "SRV", 41: "OPT"}
RCODE_NAMES = {0: "NOERROR", 1: "FORMERR", 2: "SERVFAIL", 3: "NXDOMAIN",
               4: "NOTIMP", 5: "REFUSED"}
PROTOCOL_NAMES = {1: "UDP", 2: "TCP"}
# dnstap types 1..12 and the word the query log puts after "queries: ".
QUERYLOG_ROLES = {1: "client", 2: "client", 3: "resolver", 4: "resolver",
                  5: "client", 6: "client", 7: "forwarder", 8: "forwarder",
                  9: "stub", 10: "stub", 11: "tool", 12: "tool"}
JSON_TYPES = {1: "auth-query", 2: "auth-response", 3: "resolver-query",
              4: "resolver-response", 5: "client-query", 6: "client-response",
              7: "forwarder-query", 8: "forwarder-response", 9: "stub-query",
              10: "stub-response", 11: "tool-query", 12: "tool-response"}
TCP_LIKE = {2, 3, 4, 6}
MONTHS = ("Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep",
          "Oct", "Nov", "Dec")


def read_name(wire, offset):
    """(presentation name with the final dot, offset after the name)."""
    labels, end, jumps = [], None, 0
    while True:
        if offset >= len(wire):
            raise CodecError("name runs past the message")
        length = wire[offset]
        if length & 0xC0 == 0xC0:
            if end is None:
                end = offset + 2
            offset = struct.unpack_from(">H", wire, offset)[0] & 0x3FFF
            jumps += 1
            if jumps > 64:
                raise CodecError("compression loop")
            continue
        offset += 1
        if length == 0:
            break
        labels.append(_escape(wire[offset:offset + length], name=True))
        offset += length
    return ".".join(labels) + ".", (end if end is not None else offset)


def _escape(raw, name=False):
    out = []
    for byte in raw:
        char = chr(byte)
        if byte < 0x20 or byte > 0x7E:
            out.append("\\%03d" % byte)
        elif char in '"\\' or (name and char in ".;()@$ "):
            out.append("\\" + char)
        else:
            out.append(char)
    return "".join(out)


def _rdata(wire, offset, rtype, length):
    end = offset + length
    if rtype == 1:
        return str(ipaddress.IPv4Address(wire[offset:end]))
    if rtype == 28:
        return str(ipaddress.IPv6Address(wire[offset:end]))
    if rtype in (2, 5, 12):
        return read_name(wire, offset)[0]
    if rtype == 15:
        return "%d %s" % (struct.unpack_from(">H", wire, offset)[0],
                          read_name(wire, offset + 2)[0])
    if rtype == 33:
        priority, weight, port = struct.unpack_from(">HHH", wire, offset)
        return "%d %d %d %s" % (priority, weight, port,
                                read_name(wire, offset + 6)[0])
    if rtype == 6:
        mname, at = read_name(wire, offset)
        rname, at = read_name(wire, at)
        numbers = struct.unpack_from(">IIIII", wire, at)
        return " ".join([mname, rname] + [str(n) for n in numbers])
    if rtype == 16:
        strings, at = [], offset
        while at < end:
            size = wire[at]
            strings.append('"%s"' % _escape(wire[at + 1:at + 1 + size]))
            at += 1 + size
        return " ".join(strings)
    raise CodecError("record type %d is not modelled" % rtype)


class Message:
    """Header, question and the three record sections of a DNS message;
    each record is (name, ttl, class, type, data text)."""

    def __init__(self, wire):
        if len(wire) < 12:
            raise CodecError("DNS message shorter than its header")
        (self.id, self.flags, qdcount, ancount, nscount,
         arcount) = struct.unpack_from(">HHHHHH", wire)
        self.size = len(wire)
        offset = 12
        self.qname, offset = read_name(wire, offset)
        self.qtype, self.qclass = struct.unpack_from(">HH", wire, offset)
        offset += 4
        if qdcount != 1:
            raise CodecError("expected one question")
        self.sections = []
        for count in (ancount, nscount, arcount):
            records = []
            for _ in range(count):
                name, offset = read_name(wire, offset)
                rtype, rclass, ttl, length = struct.unpack_from(">HHIH", wire,
                                                                offset)
                offset += 10
                if rtype != 41:
                    records.append((name, ttl, rclass, rtype,
                                    _rdata(wire, offset, rtype, length)))
                offset += length
            self.sections.append(records)

    @property
    def rcode(self):
        return self.flags & 0xF


def type_name(number):
    return TYPE_NAMES.get(number, "TYPE%d" % number)


def class_name(number):
    return "IN" if number == 1 else "CLASS%d" % number


def rfc5424_time(seconds, nanos):
    stamp = time.gmtime(seconds)
    return "%s.%dZ" % (time.strftime("%Y-%m-%dT%H:%M:%S", stamp),
                       nanos // 1000)


def rfc3164_time(seconds):
    stamp = time.gmtime(seconds)
    return "%s %2d %02d:%02d:%02d" % (MONTHS[stamp.tm_mon - 1], stamp.tm_mday,
                                      stamp.tm_hour, stamp.tm_min,
                                      stamp.tm_sec)


def syslog_header(rfc3164, priority, host, pid, seconds, nanos):
    if rfc3164:
        return "<%d>%s %s vantrelo[%d]: " % (priority, rfc3164_time(seconds),
                                            host, pid)
    return "<%d>1 %s %s vantrelo %d - - " % (priority,
                                            rfc5424_time(seconds, nanos),
                                            host, pid)


def _view(record):
    """(time sec, time nsec, wire, client, server) as the formats use them."""
    if record.is_query:
        stamp = (record.query_time_sec, record.query_time_nsec)
        wire = record.query_message
    else:
        stamp = (record.response_time_sec, record.response_time_nsec)
        wire = record.response_message
    return stamp[0], stamp[1], wire, record.query_ip(), record.response_ip()


def querylog_line(record, rfc3164=False, priority=30, host="e2e-host",
                  pid=0):
    """The standard query-log line, header included, without the line
    feed."""
    seconds, nanos, wire, client, server = _view(record)
    message = Message(wire)
    line = syslog_header(rfc3164, priority, host, pid, seconds, nanos)
    line += "queries: %s %s#%d: %s: %s %s %s %s%s (%s)" % (
        QUERYLOG_ROLES[record.type], client, record.query_port,
        "query" if record.is_query else "response", message.qname,
        class_name(message.qclass), type_name(message.qtype),
        "+" if message.flags & 0x0100 else "-",
        "T" if record.socket_protocol in TCP_LIKE else "",
        server or "<unknown>")
    if not record.is_query:
        line += " " + RCODE_NAMES.get(message.rcode,
                                      "RCODE%d" % message.rcode)
        for name, ttl, rclass, rtype, data in message.sections[0]:
            line += "; %s %d %s %s %s" % (name, ttl, class_name(rclass),
                                          type_name(rtype), data)
    return line


def json_object(record, host="e2e-host"):
    """The JSON object (as a Python dict) with domain suffixes off."""
    seconds, nanos, wire, client, server = _view(record)
    message = Message(wire)
    data = {"client": client, "server": server, "port": record.query_port,
            "proto": PROTOCOL_NAMES.get(record.socket_protocol,
                                        "PROTO%d" % record.socket_protocol),
            "size": message.size, "txid": message.id}
    flags = message.flags
    if record.is_query:
        data["flags"] = {"rd": bool(flags & 0x0100)}
    else:
        data["flags"] = {"rd": bool(flags & 0x0100),
                         "ra": bool(flags & 0x0080),
                         "aa": bool(flags & 0x0020),
                         "tc": bool(flags & 0x0200)}
    data["qname"] = message.qname
    data["qclass"] = class_name(message.qclass)
    data["qtype"] = type_name(message.qtype)
    if not record.is_query:
        data["rcode"] = RCODE_NAMES.get(message.rcode,
                                        "RCODE%d" % message.rcode)
        for key, section in zip(("answers", "authority", "additional"),
                                message.sections):
            data[key] = [{"name": name, "ttl": ttl,
                          "rrclass": class_name(rclass),
                          "rrtype": type_name(rtype), "data": text}
                         for name, ttl, rclass, rtype, text in section]
    return {"timestamp": rfc5424_time(seconds, nanos), "host": host,
            "schema": 1, "type": JSON_TYPES[record.type], "data": data}
