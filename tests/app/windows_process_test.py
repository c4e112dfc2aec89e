#!/usr/bin/env python3
# Runs the Windows vantrelo.exe under wine as a user would start it from a console, and as a
# relay fed by a sender on the Linux side.
#
# usage: windows_process_test.py WINE_PREFIX vantrelo.exe
#
# `run-service` started from a console is not connected to a service manager, so it runs the
# agent in the foreground and logs through the event log. Wine's event log keeps no records but
# traces every ReportEvent string on its "eventlog" debug channel (information as trace,
# warnings as warn, errors as err), which this test turns on to see the entries.
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

PREFIX = None
PROGRAM = None


def wine_loader():
    for candidate in (os.environ.get("WINE64"), "/usr/lib/wine/wine64",
                      "/usr/lib/x86_64-linux-gnu/wine/wine64", shutil.which("wine64"),
                      shutil.which("wine")):
        if candidate and os.access(candidate, os.X_OK):
            return candidate
    raise unittest.SkipTest("no wine64 loader")


def run(args):
    env = dict(os.environ, WINEPREFIX=PREFIX, WINEDEBUG="-all,trace+eventlog,warn+eventlog,"
               "err+eventlog")
    result = subprocess.run([wine_loader(), PROGRAM] + args, env=env, capture_output=True,
                            timeout=120)
    out = result.stdout.decode("utf-8", "replace").replace("\r\n", "\n")
    err = result.stderr.decode("utf-8", "replace").replace("\r\n", "\n")
    # Wine's own trace lines go to standard error beside the program's lines.
    events = [line.split(":", 2)[1:] for line in err.splitlines() if ":eventlog:ReportEvent" in line]
    console = "".join(line + "\n" for line in err.splitlines() if ":eventlog:" not in line)
    return result.returncode, out, console, [(kind, text.split(" ", 1)[1])
                                            for kind, text in events]


def wide(text):
    # A string as wine's debugstr_w writes it.
    return 'L"' + text.replace("\\", "\\\\") + '"'


class ConsoleStartTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.config = os.path.join(self.directory.name, "vantrelo.conf")
        with open(self.config, "w") as f:
            f.write("metrics-interval 0\n")
        self.windows_config = "Z:" + self.config.replace("/", "\\")
        self.windows_directory = "Z:" + self.directory.name.replace("/", "\\")

    def tearDown(self):
        self.directory.cleanup()

    def test_service_command_falls_back_to_the_foreground_and_logs_to_the_event_log(self):
        code, out, console, events = run(["run-service", self.windows_config])
        self.assertEqual(code, 0)
        # Nothing on the console: every line went to the event log, each at its level.
        self.assertEqual(out, "")
        self.assertNotIn("[", console)
        self.assertEqual(events, [
            ("trace", wide("Started")),
            ("trace", wide("Changing directory to " + self.windows_directory)),
            ("trace", wide("Reading config from " + self.windows_config)),
            ("err", wide("Run failed: Invalid metrics-interval specified in config file: 0")),
        ])

    def test_run_command_logs_to_the_console(self):
        code, out, console, events = run(["run", self.windows_config])
        self.assertEqual(code, 0)
        self.assertEqual(events, [])
        self.assertEqual(out, "[INFO] Started\n[INFO] Changing directory to %s\n"
                         "[INFO] Reading config from %s\n"
                         % (self.windows_directory, self.windows_config))
        self.assertIn("[ERROR] Run failed: Invalid metrics-interval specified in config file: 0\n",
                      console)


def varint(value):
    return bytes([value & 0x7F | 0x80]) + varint(value >> 7) if value >= 0x80 else bytes([value])


def field(number, value):
    # One protobuf field: an int as a varint, bytes as a length-delimited value.
    if isinstance(value, int):
        return varint(number << 3) + varint(value)
    return varint(number << 3 | 2) + varint(len(value)) + value


def client_query(query_id):
    # A serialised dnstap frame holding a client's A query for host<id>.example.com.
    labels = [b"host%d" % query_id, b"example", b"com"]
    qname = b"".join(bytes([len(label)]) + label for label in labels) + b"\0"
    dns = struct.pack(">HHHHHH", query_id, 0x0100, 1, 0, 0, 0) + qname + struct.pack(">HH", 1, 1)
    message = (field(1, 5) + field(2, 1) + field(3, 1) + field(4, bytes([192, 0, 2, 7])) +
               field(5, bytes([192, 0, 2, 53])) + field(6, 53124) + field(8, 1709622542) +
               varint(9 << 3 | 5) + struct.pack("<I", 5000) + field(10, dns))
    return field(15, 1) + field(14, message)


def control(kind, content_type=True):
    body = struct.pack(">I", kind)
    if content_type:
        body += struct.pack(">II", 1, 22) + b"protobuf:dnstap.Dnstap"
    return struct.pack(">II", 0, len(body)) + body


class RelayTest(unittest.TestCase):
    # run-stdout under wine relays what a Linux sender delivers over Frame Streams.

    def test_run_stdout_prints_every_relayed_event(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        with tempfile.TemporaryDirectory() as directory:
            config = os.path.join(directory, "relay.conf")
            with open(config, "w") as f:
                f.write("listener ipv4 127.0.0.1 %d read-timeout=5\n" % port)
                f.write("forwarder ipv4 127.0.0.1 5140 batch-size=1\n")
                f.write("message-format querylog\nmessage-hostname winhost\n")
                f.write("metrics-interval 3600\n")
            env = dict(os.environ, WINEPREFIX=PREFIX, WINEDEBUG="-all")
            agent = subprocess.Popen([wine_loader(), PROGRAM, "run-stdout",
                                      "Z:" + config.replace("/", "\\")],
                                     env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            try:
                sender = None
                deadline = time.time() + 60
                while sender is None:
                    try:
                        sender = socket.create_connection(("127.0.0.1", port), timeout=5)
                    except OSError:
                        if time.time() > deadline or agent.poll() is not None:
                            raise
                        time.sleep(0.2)
                with sender:
                    sender.sendall(control(4))  # READY
                    reply = sender.recv(64)
                    self.assertEqual(reply[8:12], struct.pack(">I", 1))  # ACCEPT
                    frames = b"".join(struct.pack(">I", len(f)) + f
                                      for f in (client_query(i) for i in range(20)))
                    # STOP's leading zero word is the zero length that ends the data.
                    sender.sendall(control(2) + frames + control(3, content_type=False))
                    finish = sender.recv(64)
                    self.assertEqual(finish, control(5, content_type=False))
                lines = []
                deadline = time.time() + 30
                while len(lines) < 20 and time.time() < deadline:
                    line = agent.stdout.readline().decode("utf-8", "replace")
                    if "queries: client" in line:
                        lines.append(line.rstrip("\r\n"))
            finally:
                agent.send_signal(signal.SIGINT)
                try:
                    rest = agent.communicate(timeout=60)[0].decode("utf-8", "replace")
                except subprocess.TimeoutExpired:
                    agent.kill()
                    rest = agent.communicate()[0].decode("utf-8", "replace")
        self.assertEqual(len(lines), 20)
        header = r"<30>1 2024-03-05T07:09:02\.5Z winhost vantrelo \d+ - - "
        for i, line in enumerate(lines):
            self.assertRegex(line, "^" + header + re.escape(
                "queries: client 192.0.2.7#53124: query: host%d.example.com. IN A + "
                "(192.0.2.53)" % i) + "$")
        self.assertIn("Stopped", rest)


if __name__ == "__main__":
    PREFIX, PROGRAM = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
