# A scriptable Frame Streams collector for the agent's forwarder: what no real
# collector does on cue, such as resetting the connection after a given number
# of frames or coming up late on a fixed port.

import socket
import struct
import threading
import time

import frames
from harness import LOOPBACK, TIMEOUT, free_port, wait_until


class FrameCollector:
    # Serves connections one after another on a thread, as a single collector
    # would, answering READY with ACCEPT and STOP with FINISH; drop_after
    # resets the first connection once it has taken that many frames. Owns its
    # socket and thread; the frames are guarded by a lock.

    def __init__(self, port=None, drop_after=None):
        self.address = (LOOPBACK, port or free_port())
        self.drop_after = drop_after
        self.handshakes = []  # the first control type of every connection
        self._received, self._lock = [], threading.Lock()
        self._stopping = False

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
            conn.settimeout(0.2)
            with conn:
                try:
                    self._serve(conn, None if self.handshakes else
                                self.drop_after)
                except OSError:
                    pass

    def _serve(self, conn, limit):
        buffer, handshake = bytearray(), None
        while not self._stopping:
            frame = frames.take_frame(buffer)
            if frame is None:
                try:
                    chunk = conn.recv(65536)
                except socket.timeout:
                    continue
                if not chunk:
                    return
                buffer += chunk
            elif frame[0] == "data" and limit == 0:
                # Unread bytes make the close a reset, as when a collector
                # dies.
                conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                struct.pack("ii", 1, 0))
                return
            elif frame[0] == "data":
                with self._lock:
                    self._received.append(frame[1])
                limit = None if limit is None else limit - 1
            elif handshake is None:
                handshake = frame[0]
                self.handshakes.append(handshake)
                if handshake == frames.FSTRM_READY:
                    conn.sendall(frames.control_frame(frames.FSTRM_ACCEPT,
                                                  frames.CONTENT_TYPE))
            elif frame[0] == frames.FSTRM_STOP:
                if handshake == frames.FSTRM_READY:
                    conn.sendall(frames.control_frame(frames.FSTRM_FINISH))
                return


class SlowResettingCollector(FrameCollector):
    # A collector slower than the agent (about 8 MB/s) whose first connection
    # resets after drop_after frames, as one that crashes under load. What its
    # TCP had taken in and it had not processed is thrown away with the reset:
    # no sender can know of that loss, so those frames are kept apart in
    # discarded. Later connections are served at full speed.

    CHUNK, PAUSE = 16384, 0.002
    discarded = ()

    def _serve(self, conn, limit):
        if limit is None:
            return super()._serve(conn, limit)
        buffer, taken = bytearray(), 0
        while not self._stopping:
            frame = frames.take_frame(buffer)
            if frame is None:
                try:
                    chunk = conn.recv(self.CHUNK)
                except socket.timeout:
                    continue
                if not chunk:
                    return
                buffer += chunk
                time.sleep(self.PAUSE)
            elif frame[0] == "data":
                with self._lock:
                    self._received.append(frame[1])
                taken += 1
                if taken >= limit:
                    self._reset(conn, buffer)
                    return
            elif frame[0] == frames.FSTRM_READY:
                self.handshakes.append(frame[0])
                conn.sendall(frames.control_frame(frames.FSTRM_ACCEPT,
                                                  frames.CONTENT_TYPE))

    def _reset(self, conn, buffer):
        # Peeking does not open the receive window, so nothing more arrives.
        conn.setblocking(False)
        try:
            buffer += conn.recv(1 << 24, socket.MSG_PEEK)
        except OSError:
            pass
        self.discarded = [frame[1] for frame in
                          iter(lambda: frames.take_frame(buffer), None)
                          if frame[0] == "data"]
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                        struct.pack("ii", 1, 0))

    def wait_settled(self, interval=2.0):
        """The frames once the count has stopped growing for interval."""
        count = -1
        while count != len(self.received()):
            count = len(self.received())
            time.sleep(interval)
        return self.received()
