"""Dnstap records, Frame Streams framing and DNS questions for the
process-level tests.

Standard library only. Everything here is a faithful, strict codec of the
public wire formats: protobuf fields are walked properly (unknown fields are
skipped by their wire type), so a test can compare what the agent relayed or
forwarded with what a real DNS server produced, record by record.
"""

import dataclasses
import ipaddress
import struct

CONTENT_TYPE = b"protobuf:dnstap.Dnstap"

# Frame Streams control frame types and the content-type field id.
FSTRM_ACCEPT = 1
FSTRM_START = 2
FSTRM_STOP = 3
FSTRM_READY = 4
FSTRM_FINISH = 5
FSTRM_FIELD_CONTENT_TYPE = 1

# Protobuf wire types.
WT_VARINT = 0
WT_FIXED64 = 1
WT_BYTES = 2
WT_FIXED32 = 5

# Dnstap.type value for a frame that carries a Message.
DNSTAP_TYPE_MESSAGE = 1

MESSAGE_TYPES = {
        1: "AUTH_QUERY", 2: "AUTH_RESPONSE", 3: "RESOLVER_QUERY",
        4: "RESOLVER_RESPONSE", 5: "CLIENT_QUERY", 6: "CLIENT_RESPONSE",
        7: "FORWARDER_QUERY", 8: "FORWARDER_RESPONSE", 9: "STUB_QUERY",
        10: "STUB_RESPONSE", 11: "TOOL_QUERY", 12: "TOOL_RESPONSE",
}
MESSAGE_TYPE_NUMBERS = {name: number for number, name in MESSAGE_TYPES.items()}
SOCKET_FAMILIES = {1: "INET", 2: "INET6"}
SOCKET_PROTOCOLS = {1: "UDP", 2: "TCP"}

# Outer Dnstap fields: number -> attribute (all byte strings).
_HEADER_FIELDS = {1: "identity", 2: "version", 3: "extra"}
# Inner Message fields: number -> (attribute, wire type).
_MESSAGE_FIELDS = {
        1: ("type", WT_VARINT),
        2: ("socket_family", WT_VARINT),
        3: ("socket_protocol", WT_VARINT),
        4: ("query_address", WT_BYTES),
        5: ("response_address", WT_BYTES),
        6: ("query_port", WT_VARINT),
        7: ("response_port", WT_VARINT),
        8: ("query_time_sec", WT_VARINT),
        9: ("query_time_nsec", WT_FIXED32),
        10: ("query_message", WT_BYTES),
        11: ("query_zone", WT_BYTES),
        12: ("response_time_sec", WT_VARINT),
        13: ("response_time_nsec", WT_FIXED32),
        14: ("response_message", WT_BYTES),
}


class CodecError(ValueError):
    """Malformed protobuf, Frame Streams or DNS bytes."""


@dataclasses.dataclass
class DnstapRecord:
    """One Dnstap frame carrying one Message (field names of the schema)."""
    identity: bytes = b""
    version: bytes = b""
    extra: bytes = b""
    type: int = 0
    socket_family: int = 0
    socket_protocol: int = 0
    query_address: bytes = b""
    response_address: bytes = b""
    query_port: int = 0
    response_port: int = 0
    query_time_sec: int = 0
    query_time_nsec: int = 0
    query_message: bytes = b""
    query_zone: bytes = b""
    response_time_sec: int = 0
    response_time_nsec: int = 0
    response_message: bytes = b""

    @property
    def type_name(self):
        return MESSAGE_TYPES.get(self.type, str(self.type))

    @property
    def is_query(self):
        return self.type % 2 == 1

    @property
    def dns(self):
        """The question of the DNS message this record carries, or None."""
        wire = self.query_message if self.is_query else self.response_message
        return parse_dns_question(wire) if wire else None

    def query_ip(self):
        return _ip_text(self.query_address)

    def response_ip(self):
        return _ip_text(self.response_address)

    def without_times(self):
        """A copy with every time zeroed, to compare across re-encodings."""
        return dataclasses.replace(self, query_time_sec=0, query_time_nsec=0,
                                   response_time_sec=0, response_time_nsec=0)


def _ip_text(raw):
    return str(ipaddress.ip_address(raw)) if len(raw) in (4, 16) else ""


# --- protobuf -------------------------------------------------------------


def read_varint(data, offset):
    value = 0
    shift = 0
    while True:
        if offset >= len(data):
            raise CodecError("truncated varint")
        byte = data[offset]
        offset += 1
        value |= (byte & 0x7F) << shift
        if not byte & 0x80:
            return value, offset
        shift += 7
        if shift >= 70:
            raise CodecError("varint longer than 10 bytes")


def write_varint(value):
    out = bytearray()
    while True:
        byte = value & 0x7F
        value >>= 7
        if value:
            out.append(byte | 0x80)
        else:
            out.append(byte)
            return bytes(out)


def iter_fields(data):
    """Yields (field number, wire type, value) for every field of a buffer.

    Varints are ints, fixed32/fixed64 are little-endian ints, bytes are bytes.
    """
    offset = 0
    while offset < len(data):
        tag, offset = read_varint(data, offset)
        number, wire = tag >> 3, tag & 7
        if wire == WT_VARINT:
            value, offset = read_varint(data, offset)
        elif wire == WT_FIXED64:
            if offset + 8 > len(data):
                raise CodecError("truncated fixed64")
            value = struct.unpack_from("<Q", data, offset)[0]
            offset += 8
        elif wire == WT_BYTES:
            length, offset = read_varint(data, offset)
            if offset + length > len(data):
                raise CodecError("truncated bytes field %d" % number)
            value = bytes(data[offset:offset + length])
            offset += length
        elif wire == WT_FIXED32:
            if offset + 4 > len(data):
                raise CodecError("truncated fixed32")
            value = struct.unpack_from("<I", data, offset)[0]
            offset += 4
        else:
            raise CodecError("unsupported wire type %d" % wire)
        yield number, wire, value


def decode_dnstap(frame):
    """Parses one serialised Dnstap frame into a DnstapRecord."""
    record = DnstapRecord()
    for number, wire, value in iter_fields(frame):
        if number in _HEADER_FIELDS:
            _expect(wire, WT_BYTES, _HEADER_FIELDS[number])
            setattr(record, _HEADER_FIELDS[number], value)
        elif number == 15:
            _expect(wire, WT_VARINT, "type")
            if value != DNSTAP_TYPE_MESSAGE:
                raise CodecError("Dnstap type %d is not MESSAGE" % value)
        elif number == 14:
            _expect(wire, WT_BYTES, "message")
            for inner, inner_wire, inner_value in iter_fields(value):
                if inner in _MESSAGE_FIELDS:
                    name, expected = _MESSAGE_FIELDS[inner]
                    _expect(inner_wire, expected, name)
                    setattr(record, name, inner_value)
    return record


def _expect(wire, expected, name):
    if wire != expected:
        raise CodecError("field %s has wire type %d, expected %d" %
                         (name, wire, expected))


def encode_dnstap(record):
    """Serialises a record in the canonical field order of the schema."""
    inner = bytearray()
    for number in sorted(_MESSAGE_FIELDS):
        name, wire = _MESSAGE_FIELDS[number]
        value = getattr(record, name)
        if not value and number != 1:
            continue
        inner += write_varint(number << 3 | wire)
        if wire == WT_VARINT:
            inner += write_varint(value)
        elif wire == WT_FIXED32:
            inner += struct.pack("<I", value)
        else:
            inner += write_varint(len(value)) + value
    out = bytearray()
    for number, name in sorted(_HEADER_FIELDS.items()):
        value = getattr(record, name)
        if value:
            out += write_varint(number << 3 | WT_BYTES)
            out += write_varint(len(value)) + value
    out += write_varint(15 << 3 | WT_VARINT)
    out += write_varint(DNSTAP_TYPE_MESSAGE)
    out += write_varint(14 << 3 | WT_BYTES) + write_varint(len(inner)) + inner
    return bytes(out)


# --- Frame Streams --------------------------------------------------------


def control_frame(kind, content_type=None):
    """An escaped control frame: 0, length, type, optional content type."""
    body = struct.pack(">I", kind)
    if content_type is not None:
        body += struct.pack(">II", FSTRM_FIELD_CONTENT_TYPE, len(content_type))
        body += content_type
    return struct.pack(">II", 0, len(body)) + body


def data_frame(payload):
    return struct.pack(">I", len(payload)) + payload


def parse_control(body):
    """Returns (type, [content types]) of a control frame body."""
    if len(body) < 4:
        raise CodecError("control frame shorter than 4 bytes")
    kind = struct.unpack_from(">I", body)[0]
    types = []
    offset = 4
    while offset < len(body):
        if offset + 8 > len(body):
            raise CodecError("truncated control field")
        field, length = struct.unpack_from(">II", body, offset)
        offset += 8
        if offset + length > len(body):
            raise CodecError("truncated control field value")
        if field == FSTRM_FIELD_CONTENT_TYPE:
            types.append(body[offset:offset + length])
        offset += length
    return kind, types


def split_frames(data, complete_only=False):
    """Splits a Frame Streams byte stream (a capture file) into frames.

    Returns (controls, payloads): the control frames as (type, content types)
    and the data frame payloads in order. With complete_only, a trailing
    partial frame (a file still being written) is ignored instead of raising.
    """
    controls, payloads = [], []
    offset = 0
    while offset < len(data):
        if offset + 4 > len(data):
            if complete_only:
                break
            raise CodecError("truncated frame length at %d" % offset)
        length = struct.unpack_from(">I", data, offset)[0]
        if length == 0:
            if offset + 8 > len(data):
                if complete_only:
                    break
                raise CodecError("truncated control length at %d" % offset)
            length = struct.unpack_from(">I", data, offset + 4)[0]
            if offset + 8 + length > len(data):
                if complete_only:
                    break
                raise CodecError("truncated control frame at %d" % offset)
            body = data[offset + 8:offset + 8 + length]
            controls.append(parse_control(body))
            offset += 8 + length
        else:
            if offset + 4 + length > len(data):
                if complete_only:
                    break
                raise CodecError("truncated data frame at %d" % offset)
            payloads.append(bytes(data[offset + 4:offset + 4 + length]))
            offset += 4 + length
    return controls, payloads


def write_capture_file(path, payloads, content_type=CONTENT_TYPE):
    """Writes a Frame Streams file: START, data frames, STOP."""
    with open(path, "wb") as out:
        out.write(control_frame(FSTRM_START, content_type))
        for payload in payloads:
            out.write(data_frame(payload))
        out.write(control_frame(FSTRM_STOP))


def read_capture_file(path, complete_only=False):
    """Decodes every data frame of a Frame Streams file as a DnstapRecord."""
    with open(path, "rb") as handle:
        _, payloads = split_frames(handle.read(), complete_only)
    return [decode_dnstap(payload) for payload in payloads]


# --- DNS ------------------------------------------------------------------

DNS_TYPES = {1: "A", 2: "NS", 5: "CNAME", 6: "SOA", 12: "PTR", 15: "MX",
             16: "TXT", 28: "AAAA", 33: "SRV", 255: "ANY"}
DNS_TYPE_NUMBERS = {name: number for number, name in DNS_TYPES.items()}
DNS_RCODES = {0: "NOERROR", 1: "FORMERR", 2: "SERVFAIL", 3: "NXDOMAIN",
              4: "NOTIMP", 5: "REFUSED"}


@dataclasses.dataclass(frozen=True)
class DnsQuestion:
    """Header and first question of a DNS message."""
    id: int
    is_response: bool
    rcode: str
    name: str      # lower-case, with the trailing dot
    qtype: str     # mnemonic, or TYPEnnn
    answers: int


def parse_dns_question(wire):
    if len(wire) < 12:
        raise CodecError("DNS message shorter than its header")
    ident, flags, qdcount, ancount = struct.unpack_from(">HHHH", wire)
    name, qtype = "", ""
    if qdcount:
        labels, offset = [], 12
        while True:
            if offset >= len(wire):
                raise CodecError("truncated question name")
            length = wire[offset]
            if length & 0xC0:
                raise CodecError("compressed question name")
            offset += 1
            if length == 0:
                break
            label = wire[offset:offset + length]
            labels.append(label.decode("ascii", "replace"))
            offset += length
        if offset + 4 > len(wire):
            raise CodecError("truncated question")
        number = struct.unpack_from(">H", wire, offset)[0]
        name = ".".join(labels).lower() + "."
        qtype = DNS_TYPES.get(number, "TYPE%d" % number)
    rcode = DNS_RCODES.get(flags & 0xF, "RCODE%d" % (flags & 0xF))
    return DnsQuestion(ident, bool(flags & 0x8000), rcode, name, qtype,
                       ancount)


def build_dns_query(name, qtype="A", ident=0x1234, recursion=True):
    """A minimal wire-format query, for records made up by a test."""
    number = DNS_TYPE_NUMBERS.get(qtype) or int(qtype.replace("TYPE", ""))
    header = struct.pack(">HHHHHH", ident, 0x0100 if recursion else 0,
                         1, 0, 0, 0)
    labels = b"".join(
        bytes([len(label)]) + label.encode("ascii")
        for label in name.rstrip(".").split(".") if label)
    return header + labels + b"\x00" + struct.pack(">HH", number, 1)
