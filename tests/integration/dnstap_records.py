# A strict decoder of dnstap records and Frame Streams framing, written
# independently of the agent, so relayed records can be compared field by field
# with what a real DNS server or the load generator produced.

import dataclasses
import ipaddress
import struct

CONTENT_TYPE = b"protobuf:dnstap.Dnstap"
FSTRM_ACCEPT, FSTRM_START, FSTRM_STOP, FSTRM_READY, FSTRM_FINISH = range(1, 6)
FSTRM_FIELD_CONTENT_TYPE = 1
WT_VARINT, WT_FIXED64, WT_BYTES, WT_FIXED32 = 0, 1, 2, 5

MESSAGE_TYPES = ("AUTH_QUERY AUTH_RESPONSE RESOLVER_QUERY RESOLVER_RESPONSE "
                 "CLIENT_QUERY CLIENT_RESPONSE FORWARDER_QUERY "
                 "FORWARDER_RESPONSE STUB_QUERY STUB_RESPONSE TOOL_QUERY "
                 "TOOL_RESPONSE").split()
# Outer Dnstap fields (all bytes), then inner Message fields with their wire
# types, each named as in the schema.
_HEADER_FIELDS = {1: ("identity", WT_BYTES), 2: ("version", WT_BYTES),
                  3: ("extra", WT_BYTES)}
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

    type_name = property(lambda self: MESSAGE_TYPES[self.type - 1])
    is_query = property(lambda self: self.type % 2 == 1)
    # The DNS message the record is about.
    wire = property(lambda self: self.query_message if self.is_query
                    else self.response_message)

    def ip(self, side):
        raw = getattr(self, side + "_address")
        return str(ipaddress.ip_address(raw)) if len(raw) in (4, 16) else ""


# One Dnstap frame carrying one Message; absent fields are 0 or b"".
DnstapRecord = dataclasses.make_dataclass("DnstapRecord", [
    (name, bytes, b"") if wire == WT_BYTES else (name, int, 0) for name, wire
    in list(_HEADER_FIELDS.values()) + list(_MESSAGE_FIELDS.values())],
    bases=(_Record,))


def _varint(data, offset):
    value = shift = 0
    while shift < 70:
        byte = data[offset]  # IndexError when truncated
        value, offset, shift = value | (byte & 0x7F) << shift, offset + 1, \
            shift + 7
        if byte < 0x80:
            return value, offset
    raise CodecError("varint longer than 10 bytes")


def _fields(data):
    """Yields (number, wire type, value); unknown fields are walked too."""
    offset = 0
    while offset < len(data):
        tag, offset = _varint(data, offset)
        wire = tag & 7
        if wire == WT_VARINT:
            value, offset = _varint(data, offset)
        else:
            size, offset = _varint(data, offset) if wire == WT_BYTES else \
                ({WT_FIXED64: 8, WT_FIXED32: 4}[wire], offset)
            value, offset = bytes(data[offset:offset + size]), offset + size
            if offset > len(data):
                raise CodecError("truncated field %d" % (tag >> 3))
            if wire != WT_BYTES:
                value = int.from_bytes(value, "little")
        yield tag >> 3, wire, value


def _decode_into(record, data, known):
    for number, wire, value in _fields(data):
        if number in known:
            name, expected = known[number]
            if wire != expected:
                raise CodecError("field %s has wire type %d" % (name, wire))
            setattr(record, name, value)


def decode_dnstap(frame):
    record = DnstapRecord()
    _decode_into(record, frame, _HEADER_FIELDS)
    for number, wire, value in _fields(frame):
        if number == 15 and (wire, value) != (WT_VARINT, 1):
            raise CodecError("Dnstap type is not MESSAGE")
        if number == 14:
            _decode_into(record, value, _MESSAGE_FIELDS)
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


def take_frame(buffer):
    # Removes one complete frame from a bytearray: ("data", payload) or
    # (control type, body); None when more bytes are needed.
    escape = buffer[:4] == b"\0\0\0\0"
    start = 8 if escape else 4
    if len(buffer) < start:
        return None
    end = start + struct.unpack_from(">I", buffer, start - 4)[0]
    if len(buffer) < end:
        return None
    body = bytes(buffer[start:end])
    del buffer[:end]
    return (struct.unpack_from(">I", body)[0] if escape else "data"), body


def read_payloads(path):
    """The data frame payloads of a complete Frame Streams file."""
    with open(path, "rb") as handle:
        buffer = bytearray(handle.read())
    frames = iter(lambda: take_frame(buffer), None)
    payloads = [body for kind, body in frames if kind == "data"]
    if buffer:
        raise CodecError("%s ends inside a frame" % path)
    return payloads
