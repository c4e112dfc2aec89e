"""Scriptable collectors for the agent's forwarders, in Python: what no real
collector can do on cue, such as dropping the connection after a given
number of messages, or coming up only later on a fixed port.

FrameCollector speaks the receiving side of Frame Streams (bidirectional or
unidirectional senders) and keeps every data frame; LineCollector keeps
every text line (JSON objects, query-log lines). Each runs one accept loop
on a thread and serves connections one after another, as a single collector
would.

Owns its listening socket and thread; the received lists are guarded by a
lock. Use as a context manager.
"""

import socket
import struct
import threading
import time

import dnstap_records as dr
from peer_process import LOOPBACK, START_TIMEOUT, PeerError, free_port


class _Collector:

    def __init__(self, port=None, drop_after=None):
        """drop_after: close the first connection abruptly once that many
        messages have been taken from it; later connections are served in
        full."""
        self.host = LOOPBACK
        self.port = port or free_port()
        self.drop_after = drop_after
        self.connections = 0
        self._received = []
        self._lock = threading.Lock()
        self._stopping = False
        self._server = None
        self._thread = None

    @property
    def address(self):
        return (self.host, self.port)

    def __enter__(self):
        self._server = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._server.bind(self.address)
        self._server.listen(8)
        self._server.settimeout(0.2)
        self._thread = threading.Thread(target=self._accept_loop, daemon=True)
        self._thread.start()
        return self

    def __exit__(self, *exc):
        self._stopping = True
        self._thread.join(10)
        self._server.close()
        return False

    def received(self):
        with self._lock:
            return list(self._received)

    def wait_count(self, count, timeout=START_TIMEOUT):
        deadline = time.monotonic() + timeout
        while len(self.received()) < count:
            if time.monotonic() > deadline:
                raise PeerError("timed out waiting for %d messages, have %d" %
                                (count, len(self.received())))
            time.sleep(0.05)
        return self.received()

    def _accept_loop(self):
        while not self._stopping:
            try:
                conn, _ = self._server.accept()
            except socket.timeout:
                continue
            self.connections += 1
            limit = self.drop_after if self.connections == 1 else None
            conn.settimeout(0.2)
            try:
                self._serve(conn, limit)
            except (OSError, PeerError):
                pass
            finally:
                conn.close()

    def _recv(self, conn, buffer):
        """Appends what arrives to buffer; False when the peer closed."""
        while not self._stopping:
            try:
                chunk = conn.recv(65536)
            except socket.timeout:
                continue
            if not chunk:
                return False
            buffer += chunk
            return True
        return False

    def _abort(self, conn):
        # Unread bytes make the close a reset, as when a collector dies.
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                        struct.pack("ii", 1, 0))

    def _serve(self, conn, limit):
        raise NotImplementedError


class LineCollector(_Collector):
    """Keeps every line (as text, without the line feed)."""

    def _serve(self, conn, limit):
        buffer = bytearray()
        taken = 0
        while self._recv(conn, buffer):
            *lines, rest = buffer.split(b"\n")
            buffer = bytearray(rest)
            for line in lines:
                if limit is not None and taken == limit:
                    self._abort(conn)
                    return
                with self._lock:
                    self._received.append(line.decode("utf-8", "replace"))
                taken += 1


class FrameCollector(_Collector):
    """Keeps every data frame's payload; answers READY with ACCEPT and STOP
    with FINISH on bidirectional streams."""

    def __init__(self, port=None, drop_after=None):
        super().__init__(port, drop_after)
        self.handshakes = []  # the first control type of every connection

    def _serve(self, conn, limit):
        buffer = bytearray()
        taken = 0
        bidirectional = False
        while True:
            while True:
                frame = _take_frame(buffer)
                if frame is not None:
                    break
                if not self._recv(conn, buffer):
                    return
            kind, body = frame
            if kind == "control":
                control, _ = dr.parse_control(body)
                if control == dr.FSTRM_READY:
                    bidirectional = True
                    self.handshakes.append(control)
                    conn.sendall(dr.control_frame(dr.FSTRM_ACCEPT,
                                                  dr.CONTENT_TYPE))
                elif control == dr.FSTRM_START and not bidirectional:
                    self.handshakes.append(control)
                elif control == dr.FSTRM_STOP:
                    if bidirectional:
                        conn.sendall(dr.control_frame(dr.FSTRM_FINISH))
                    return
                continue
            if limit is not None and taken == limit:
                self._abort(conn)
                return
            with self._lock:
                self._received.append(body)
            taken += 1


def _take_frame(buffer):
    """Removes one complete frame from buffer: ("data", payload) or
    ("control", body); None when more bytes are needed."""
    if len(buffer) < 4:
        return None
    length = struct.unpack_from(">I", buffer)[0]
    if length:
        if len(buffer) < 4 + length:
            return None
        payload = bytes(buffer[4:4 + length])
        del buffer[:4 + length]
        return "data", payload
    if len(buffer) < 8:
        return None
    length = struct.unpack_from(">I", buffer, 4)[0]
    if len(buffer) < 8 + length:
        return None
    body = bytes(buffer[8:8 + length])
    del buffer[:8 + length]
    return "control", body
