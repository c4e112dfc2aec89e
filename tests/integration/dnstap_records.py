"""A strict decoder of dnstap records and Frame Streams framing, written
independently of the agent, so relayed records can be compared field by
field with what a real DNS server or the load generator produced."""

import dataclasses
import ipaddress
import struct

CONTENT_TYPE = b"protobuf:dnstap.Dnstap"
FSTRM_ACCEPT, FSTRM_START, FSTRM_STOP, FSTRM_READY, FSTRM_FINISH = 1, 2, 3, 4, 5
FSTRM_FIELD_CONTENT_TYPE = 1
WT_VARINT, WT_FIXED64, WT_BYTES, WT_FIXED32 = 0, 1, 2, 5

MESSAGE_TYPES = ("AUTH_QUERY AUTH_RESPONSE RESOLVER_QUERY RESOLVER_RESPONSE "
                 "CLIENT_QUERY CLIENT_RESPONSE FORWARDER_QUERY "
                 "FORWARDER_RESPONSE STUB_QUERY STUB_RESPONSE TOOL_QUERY "
                 "TOOL_RESPONSE").split()
# Outer Dnstap fields (all bytes), then inner Message fields with their wire
# types, each named as in the schema.
_HEADER_FIELDS = {1: "identity", 2: "version", 3: "extra"}
_MESSAGE_FIELDS = {
    1: ("type", WT_VARINT), 2: ("socket_family", WT_VARINT),
    3: ("socket_protocol", WT_VARINT), 4: ("query_address", WT_BYTES),
    5: ("response_address", WT_BYTES), 6: ("query_port", WT_VARINT),
    7: ("response_port", WT_VARINT), 8: ("query_time_sec", WT_VARINT),
    9: ("query_time_nsec", WT_FIXED32), 10: ("query_message", WT_BYTES),
    11: ("query_zone", WT_BYTES), 12: ("response_time_sec", WT_VARINT),
    13: ("response_time_nsec", WT_FIXED32), 14: ("response_message", WT_BYTES),
}


class CodecError(ValueError):
    """Malformed protobuf, Frame Streams or DNS bytes."""


class _Record:

    @property
    def type_name(self):
        return MESSAGE_TYPES[self.type - 1]

    @property
    def is_query(self):
        return self.type % 2 == 1

    @property
    def wire(self):
        """The DNS message the record is about."""
        return self.query_message if self.is_query else self.response_message

    def ip(self, side):
        raw = getattr(self, side + "_address")
        return str(ipaddress.ip_address(raw)) if len(raw) in (4, 16) else ""


# One Dnstap frame carrying one Message; absent fields are 0 or b"".
DnstapRecord = dataclasses.make_dataclass("DnstapRecord", [
    (name, int, 0) if wire in (WT_VARINT, WT_FIXED32) else (name, bytes, b"")
    for name, wire in [(name, WT_BYTES) for name in _HEADER_FIELDS.values()]
    + list(_MESSAGE_FIELDS.values())], bases=(_Record,))


def _varint(data, offset):
    value = shift = 0
    while shift < 70:
        if offset >= len(data):
            raise CodecError("truncated varint")
        value |= (data[offset] & 0x7F) << shift
        offset += 1
        if not data[offset - 1] & 0x80:
            return value, offset
        shift += 7
    raise CodecError("varint longer than 10 bytes")


def _fields(data):
    """Yields (number, wire type, value); unknown fields are walked too."""
    offset = 0
    while offset < len(data):
        tag, offset = _varint(data, offset)
        wire = tag & 7
        if wire == WT_VARINT:
            value, offset = _varint(data, offset)
            yield tag >> 3, wire, value
            continue
        if wire == WT_BYTES:
            size, offset = _varint(data, offset)
        elif wire in (WT_FIXED64, WT_FIXED32):
            size = 8 if wire == WT_FIXED64 else 4
        else:
            raise CodecError("unsupported wire type %d" % wire)
        if offset + size > len(data):
            raise CodecError("truncated field %d" % (tag >> 3))
        value = bytes(data[offset:offset + size])
        offset += size
        yield tag >> 3, wire, (value if wire == WT_BYTES else
                               int.from_bytes(value, "little"))


def _set(record, name, wire, expected, value):
    if wire != expected:
        raise CodecError("field %s has wire type %d" % (name, wire))
    setattr(record, name, value)


def decode_dnstap(frame):
    record = DnstapRecord()
    for number, wire, value in _fields(frame):
        if number in _HEADER_FIELDS:
            _set(record, _HEADER_FIELDS[number], wire, WT_BYTES, value)
        elif number == 15 and (wire, value) != (WT_VARINT, 1):
            raise CodecError("Dnstap type is not MESSAGE")
        elif number == 14:
            for inner, inner_wire, inner_value in _fields(value):
                if inner in _MESSAGE_FIELDS:
                    name, expected = _MESSAGE_FIELDS[inner]
                    _set(record, name, inner_wire, expected, inner_value)
    return record


def control_frame(kind, content_type=None):
    """An escaped control frame: 0, length, type, optional content type."""
    body = struct.pack(">I", kind)
    if content_type is not None:
        body += struct.pack(">II", FSTRM_FIELD_CONTENT_TYPE,
                            len(content_type)) + content_type
    return struct.pack(">II", 0, len(body)) + body


def data_frame(payload):
    return struct.pack(">I", len(payload)) + payload


def parse_control(body):
    """(type, [content types]) of a control frame body."""
    kind, offset, types = struct.unpack_from(">I", body)[0], 4, []
    while offset < len(body):
        field, size = struct.unpack_from(">II", body, offset)
        if field == FSTRM_FIELD_CONTENT_TYPE:
            types.append(body[offset + 8:offset + 8 + size])
        offset += 8 + size
    return kind, types


def take_frame(buffer):
    """Removes one complete frame from a bytearray: ("data", payload) or
    ("control", body); None when more bytes are needed."""
    if len(buffer) < 4:
        return None
    escape = struct.unpack_from(">I", buffer)[0] == 0
    start = 8 if escape else 4
    if len(buffer) < start:
        return None
    end = start + struct.unpack_from(">I", buffer, start - 4)[0]
    if len(buffer) < end:
        return None
    body = bytes(buffer[start:end])
    del buffer[:end]
    return ("control" if escape else "data"), body


def read_payloads(path):
    """The data frame payloads of a complete Frame Streams file."""
    with open(path, "rb") as handle:
        buffer = bytearray(handle.read())
    frames = iter(lambda: take_frame(buffer), None)
    payloads = [body for kind, body in frames if kind == "data"]
    if buffer:
        raise CodecError("%s ends inside a frame" % path)
    return payloads
