"""Child processes for the peer helpers: start in a process group, wait
until ready, stop for sure; plus loopback ports and socket states read from
/proc, which tell readiness without touching the program under watch.
Standard library only; Linux.
"""

import atexit
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

LOOPBACK = "127.0.0.1"
START_TIMEOUT = 10.0
STOP_TIMEOUT = 5.0
RUN_TIMEOUT = 20.0


class PeerError(RuntimeError):
    """A peer program failed to start, answer or stop in time."""


# --- ports, sockets and readiness -------------------------------------------


def free_port():
    """A loopback port that is free for both TCP and UDP right now."""
    for _ in range(50):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as tcp:
            tcp.bind((LOOPBACK, 0))
            port = tcp.getsockname()[1]
            try:
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
                    udp.bind((LOOPBACK, port))
            except OSError:
                continue
            return port
    raise PeerError("no free loopback port found")


_TCP_LISTEN = "0A"
_TCP_ESTABLISHED = "01"
_UNIX_CONNECTED = "03"


def _tcp_sockets():
    """(local port, remote port, state) of every TCP socket of the host."""
    rows = []
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table) as handle:
                next(handle)
                for line in handle:
                    fields = line.split()
                    local, remote, state = fields[1], fields[2], fields[3]
                    rows.append((int(local.rsplit(":", 1)[1], 16),
                                 int(remote.rsplit(":", 1)[1], 16), state))
        except FileNotFoundError:
            continue
    return rows


def tcp_listening(port):
    return any(local == port and state == _TCP_LISTEN
               for local, _, state in _tcp_sockets())


def tcp_connections_to(port):
    """Established connections accepted on a local listening port."""
    return sum(1 for local, remote, state in _tcp_sockets()
               if local == port and state == _TCP_ESTABLISHED)


def unix_listening(path):
    return _unix_count(path, listening=True) > 0


def unix_connections_to(path):
    """Connected (accepted) sockets of a listening Unix socket path."""
    return _unix_count(path, listening=False)


def _unix_count(path, listening):
    count = 0
    with open("/proc/net/unix") as handle:
        next(handle)
        for line in handle:
            fields = line.split()
            if len(fields) < 8 or fields[7] != path:
                continue
            accepting = int(fields[3], 16) & 0x10000  # __SO_ACCEPTCON
            if listening and accepting:
                count += 1
            elif not listening and not accepting and fields[5] == \
                    _UNIX_CONNECTED:
                count += 1
    return count


def wait_until(predicate, what, timeout=START_TIMEOUT, process=None,
               interval=0.05):
    """Polls predicate until true; fails early when process has died."""
    deadline = time.monotonic() + timeout
    while True:
        if predicate():
            return
        if process is not None and not process.running():
            raise PeerError("%s exited (code %s) before %s:\n%s" %
                            (process.name, process.returncode(), what,
                             process.log_tail()))
        if time.monotonic() > deadline:
            tail = process.log_tail() if process is not None else ""
            raise PeerError("timed out after %.1f s waiting for %s\n%s" %
                            (timeout, what, tail))
        time.sleep(interval)


# --- processes ---------------------------------------------------------------

_LIVE = set()


class Process:
    """One child program in its own process group, its output in a log file.

    Owns the child; not thread-safe. stop() is idempotent.
    """

    def __init__(self, name, argv, workdir, env=None):
        self.name = name
        self.argv = [str(arg) for arg in argv]
        self.workdir = workdir
        self.log_path = os.path.join(workdir, name + ".log")
        self._env = env
        self._popen = None

    def start(self):
        with open(self.log_path, "ab") as log:
            self._popen = subprocess.Popen(
                self.argv, cwd=self.workdir, stdin=subprocess.DEVNULL,
                stdout=log, stderr=subprocess.STDOUT, env=self._env,
                start_new_session=True)
        _LIVE.add(self)
        return self

    @property
    def pid(self):
        return self._popen.pid

    def running(self):
        return self._popen is not None and self._popen.poll() is None

    def returncode(self):
        return self._popen.poll() if self._popen is not None else None

    def send_signal(self, signum):
        if self.running():
            os.killpg(self._popen.pid, signum)

    def wait(self, timeout):
        """Waits for the child to end by itself; returns its exit code."""
        try:
            return self._popen.wait(timeout)
        except subprocess.TimeoutExpired:
            raise PeerError("%s still running after %.1f s:\n%s" %
                            (self.name, timeout, self.log_tail())) from None

    def stop(self, signum=signal.SIGTERM, timeout=STOP_TIMEOUT):
        if self._popen is None:
            return None
        if self._popen.poll() is None:
            try:
                os.killpg(self._popen.pid, signum)
                self._popen.wait(timeout)
            except subprocess.TimeoutExpired:
                os.killpg(self._popen.pid, signal.SIGKILL)
                self._popen.wait(timeout)
            except ProcessLookupError:
                self._popen.wait(timeout)
        # Children that outlived the leader still belong to the group.
        try:
            os.killpg(self._popen.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass
        _LIVE.discard(self)
        return self._popen.returncode

    def log(self):
        try:
            with open(self.log_path, errors="replace") as handle:
                return handle.read()
        except FileNotFoundError:
            return ""

    def log_tail(self, lines=30):
        return "\n".join(self.log().splitlines()[-lines:])


@atexit.register
def _stop_leftovers():
    for process in list(_LIVE):
        process.stop(signal.SIGKILL, 2.0)


def run_tool(argv, timeout=RUN_TIMEOUT, check=True):
    """Runs a short-lived tool to completion with a time limit."""
    try:
        done = subprocess.run([str(arg) for arg in argv],
                              stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=timeout,
                              start_new_session=True)
    except subprocess.TimeoutExpired as error:
        raise PeerError("%s timed out after %.1f s" %
                        (argv[0], timeout)) from error
    if check and done.returncode != 0:
        raise PeerError("%s failed with code %d: %s%s" %
                        (" ".join(map(str, argv)), done.returncode,
                         done.stdout, done.stderr))
    return done


class Peer:
    """Base of the helpers: a temporary directory and the processes in it.

    Entering starts the peer and waits until it is ready; leaving stops every
    process and removes the directory. Not thread-safe.
    """

    name = "peer"

    def __init__(self):
        self.workdir = None
        self.processes = []

    def path(self, *parts):
        return os.path.join(self.workdir, *parts)

    def write(self, name, text):
        with open(self.path(name), "w") as handle:
            handle.write(text)
        return self.path(name)

    def spawn(self, name, argv, env=None):
        process = Process(name, argv, self.workdir, env).start()
        self.processes.append(process)
        return process

    def start(self):
        raise NotImplementedError

    def stop(self):
        for process in reversed(self.processes):
            process.stop()

    def __enter__(self):
        self.workdir = tempfile.mkdtemp(prefix="vt-%s-" % self.name)
        try:
            self.start()
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def __exit__(self, *exc):
        self.stop()
        if os.environ.get("VANTRELO_KEEP_PEERS") != "1":
            shutil.rmtree(self.workdir, ignore_errors=True)
        return False
