"""A scriptable Frame Streams collector for the agent's forwarder: what no
real collector does on cue, such as resetting the connection after a given
number of frames or coming up late on a fixed port.

FrameCollector serves connections one after another on a thread, as a single
collector would, answering READY with ACCEPT and STOP with FINISH. It owns
its listening socket and thread; the received frames are guarded by a lock.
"""

import socket
import struct
import threading

import dnstap_records as dr
from harness import LOOPBACK, TIMEOUT, free_port, wait_until


class FrameCollector:

    def __init__(self, port=None, drop_after=None):
        """drop_after: reset the first connection once that many frames were
        taken from it; later connections are served in full."""
        self.address = (LOOPBACK, port or free_port())
        self.drop_after = drop_after
        self.connections = 0
        self.handshakes = []  # the first control type of every connection
        self._received = []
        self._lock = threading.Lock()
        self._stopping = False

    def __enter__(self):
        self._server = socket.socket()
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

    def received(self):
        with self._lock:
            return list(self._received)

    def wait_count(self, count, timeout=TIMEOUT):
        wait_until(lambda: len(self.received()) >= count,
                   "%d frames at the collector" % count, timeout)
        return self.received()

    def _accept_loop(self):
        while not self._stopping:
            try:
                conn, _ = self._server.accept()
            except socket.timeout:
                continue
            self.connections += 1
            conn.settimeout(0.2)
            with conn:
                try:
                    self._serve(conn, self.drop_after
                                if self.connections == 1 else None)
                except OSError:
                    pass

    def _serve(self, conn, limit):
        buffer, bidirectional = bytearray(), False
        while not self._stopping:
            frame = dr.take_frame(buffer)
            if frame is None:
                try:
                    chunk = conn.recv(65536)
                except socket.timeout:
                    continue
                if not chunk:
                    return
                buffer += chunk
            elif frame[0] == "data":
                if limit == 0:
                    # Unread bytes make the close a reset, as when a
                    # collector dies.
                    conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                    struct.pack("ii", 1, 0))
                    return
                with self._lock:
                    self._received.append(frame[1])
                limit = None if limit is None else limit - 1
            else:
                control = dr.parse_control(frame[1])[0]
                if control == dr.FSTRM_READY:
                    bidirectional = True
                    conn.sendall(dr.control_frame(dr.FSTRM_ACCEPT,
                                                  dr.CONTENT_TYPE))
                if control in (dr.FSTRM_READY, dr.FSTRM_START) and \
                        len(self.handshakes) < self.connections:
                    self.handshakes.append(control)
                if control == dr.FSTRM_STOP:
                    if bidirectional:
                        conn.sendall(dr.control_frame(dr.FSTRM_FINISH))
                    return
