# Frame Streams written independently of the agent: the frames of a capture file, and scripted
# peers doing what no real one does on cue: a sender that can stop or break anywhere, and a
# collector that resets the connection after a given number of frames, falls behind, or comes up
# late on a fixed port.

import contextlib
import socket
import struct
import threading
import time

CONTENT_TYPE = b"protobuf:dnstap.Dnstap"
ACCEPT, START, STOP, READY, FINISH = range(1, 6)
FIELD_CONTENT_TYPE = 1


def control_frame(kind, content_type=None):
    # An escaped control frame: 0, length, type, optional content type.
    body = struct.pack(">I", kind)
    if content_type is not None:
        body += struct.pack(">II", FIELD_CONTENT_TYPE, len(content_type)) + content_type
    return struct.pack(">II", 0, len(body)) + body


def data_frame(payload):
    return struct.pack(">I", len(payload)) + payload


def take_frame(buffer):
    # Removes one complete frame from a bytearray: ("data", payload) or (control type, body);
    # None when more bytes are needed.
    start = 8 if buffer[:4] == b"\0\0\0\0" else 4
    end = start + struct.unpack_from(">I", buffer, start - 4)[0] if len(buffer) >= start else 0
    if not start <= end <= len(buffer):
        return None
    body = bytes(buffer[start:end])
    del buffer[:end]
    return (struct.unpack_from(">I", body)[0] if start == 8 else "data"), body


def data_frames(buffer):
    # The payloads of the data frames complete in a bytearray, taken out of it.
    return [body for kind, body in iter(lambda: take_frame(buffer), None) if kind == "data"]


def read_payloads(path):
    # The data frame payloads of a complete Frame Streams file.
    with open(path, "rb") as handle:
        buffer = bytearray(handle.read())
    payloads = data_frames(buffer)
    assert not buffer, "%s ends inside a frame" % path
    return payloads


class Client(socket.socket):
    # A bidirectional sender written out step by step, so a test can stop or break it anywhere.
    # Not thread-safe.

    def __init__(self, port):
        super().__init__()
        self.settimeout(5)
        self.connect(("127.0.0.1", port))

    def control(self, kind, reply=None):
        # Sends a control frame; with reply, expects that one back.
        self.sendall(control_frame(kind, None if kind == STOP else CONTENT_TYPE))
        buffer, frame = bytearray(), None
        while reply and not (frame := take_frame(buffer)) and (chunk := self.recv(4096)):
            buffer += chunk
        if reply and (frame or (None,))[0] != reply:
            raise ConnectionError("expected control %d: %r" % (reply, frame))

    def open(self):
        self.control(READY, ACCEPT)
        self.control(START)

    def send(self, payloads):
        self.sendall(b"".join(map(data_frame, payloads)))


class Collector:
    # Serves connections one after another on a thread, as a single collector would, answering
    # READY with ACCEPT and STOP with FINISH. drop_after resets the first connection once it has
    # taken that many frames; what its TCP had taken in unprocessed is thrown away with the reset
    # (no sender can know of that loss), so those frames are kept apart in discarded. slow (a
    # chunk size) makes it read that much every 2 ms, with a receive buffer to match, so it falls
    # behind the agent. Owns its socket and thread; the frames are guarded by a lock.

    discarded = ()

    def __init__(self, port, drop_after=None, slow=None):
        self.address = ("127.0.0.1", port)
        self.drop_after, self.slow, self.connections = drop_after, slow, 0
        self._received, self._lock, self._stopping = [], threading.Lock(), False

    def __enter__(self):
        self._server = socket.create_server(self.address)
        self._server.settimeout(0.2)
        self._thread = threading.Thread(target=self._accept_loop, daemon=True)
        self._thread.start()
        return self

    def __exit__(self, *exc):
        self._stopping = True
        self._thread.join(10)
        self._server.close()

    def received(self):
        with self._lock:
            return list(self._received)

    def wait_count(self, count, timeout=15.0):
        import harness  # which imports this module
        harness.wait_until(lambda: len(self.received()) >= count, "%d frames" % count, timeout)
        return self.received()

    def _accept_loop(self):
        while not self._stopping:
            try:
                conn, _ = self._server.accept()
            except socket.timeout:
                continue
            conn.settimeout(0.2)
            if self.slow:
                conn.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 * self.slow)
            self.connections += 1
            with conn, contextlib.suppress(OSError):
                self._serve(conn, self.drop_after if self.connections == 1 else None)

    def _serve(self, conn, limit):
        buffer = bytearray()
        while not self._stopping:
            frame = take_frame(buffer)
            if frame is None:
                try:
                    chunk = conn.recv(self.slow or 65536)
                except socket.timeout:
                    continue
                if not chunk:
                    return
                buffer += chunk
                time.sleep(0.002 if self.slow else 0)
            elif frame[0] == "data":
                with self._lock:
                    self._received.append(frame[1])
                if limit is not None and (limit := limit - 1) == 0:
                    return self._reset(conn, buffer)
            elif frame[0] == READY:
                conn.sendall(control_frame(ACCEPT, CONTENT_TYPE))
            elif frame[0] == STOP:
                return conn.sendall(control_frame(FINISH))

    def _reset(self, conn, buffer):
        # Peeking does not open the receive window, so nothing more arrives; unread bytes make the
        # close a reset, as when a collector dies.
        conn.setblocking(False)
        with contextlib.suppress(OSError):
            buffer += conn.recv(1 << 24, socket.MSG_PEEK)
        self.discarded = data_frames(buffer)
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
