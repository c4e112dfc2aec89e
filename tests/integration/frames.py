# Frame Streams framing written independently of the agent: the frames of a
# capture file, and the control frames a scripted peer sends and expects.

import struct

CONTENT_TYPE = b"protobuf:dnstap.Dnstap"
FSTRM_ACCEPT, FSTRM_START, FSTRM_STOP, FSTRM_READY, FSTRM_FINISH = range(1, 6)
FSTRM_FIELD_CONTENT_TYPE = 1


class CodecError(ValueError):
    """Malformed Frame Streams bytes."""


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
    payloads = [body for kind, body in iter(lambda: take_frame(buffer), None)
                if kind == "data"]
    if buffer:
        raise CodecError("%s ends inside a frame" % path)
    return payloads
