#!/usr/bin/env python3
# Runs the Windows vantrelo.exe under wine as a user would start it from a console, under wine's
# service manager, and as a relay fed by a sender on the Linux side. (Its metrics endpoint runs
# under wine in metrics_endpoint_test.)
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
import subprocess
import sys
import tempfile
import time
import unittest

# The Frame Streams client and the free-port helper of the end-to-end tests.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "integration"))
import fstrm  # noqa: E402
import harness  # noqa: E402

PREFIX = PROGRAM = None
# One dnstap frame: a client's A query for host7.example.com from 192.0.2.7#53124 to 192.0.2.53
# at 2024-03-05T07:09:02.5Z.
CLIENT_QUERY = bytes.fromhex(
    "780172460805100118012204c00002072a04c000023530849f03408e8a9baf064d88130000522300070100"
    "000100000000000005686f737437076578616d706c6503636f6d0000010001")


def wine(args, debug="-all", program=None, **popen):
    loaders = (os.environ.get("WINE64"), "/usr/lib/wine/wine64",
               "/usr/lib/x86_64-linux-gnu/wine/wine64", shutil.which("wine64"),
               shutil.which("wine"))
    loader = next((p for p in loaders if p and os.access(p, os.X_OK)), None)
    if loader is None:
        raise unittest.SkipTest("no wine64 loader")
    popen.setdefault("stdout", subprocess.PIPE)
    return subprocess.Popen([loader, program or PROGRAM] + args,
                            env=dict(os.environ, WINEPREFIX=PREFIX, WINEDEBUG=debug), **popen)


def windows_path(path):
    return "Z:" + path.replace("/", "\\")


class ConsoleStartTest(unittest.TestCase):
    def test_service_command_logs_to_the_event_log_and_run_to_the_console(self):
        with tempfile.TemporaryDirectory() as directory:
            config = os.path.join(directory, "vantrelo.conf")
            with open(config, "w") as f:
                f.write("metrics-interval 0\n")
            lines = [("Started", "trace"),
                     ("Changing directory to " + windows_path(directory), "trace"),
                     ("Reading config from " + windows_path(config), "trace"),
                     ("Run failed: Invalid metrics-interval specified in config file: 0", "err")]
            for command in ("run-service", "run"):
                with self.subTest(command=command):
                    agent = wine([command, windows_path(config)],
                                 "-all,trace+eventlog,warn+eventlog,err+eventlog",
                                 stderr=subprocess.PIPE)
                    out, err = (text.decode("utf-8", "replace").replace("\r\n", "\n")
                                for text in agent.communicate(timeout=120))
                    # A failed run is a failure for a service manager, not for a console.
                    self.assertEqual(agent.returncode, 1 if command == "run-service" else 0)
                    # Wine's trace lines go to standard error beside the program's lines; those
                    # show each string as wine's debugstr_w writes it.
                    events = [tuple(line.split(":", 2)[1:]) for line in err.splitlines()
                              if ":eventlog:ReportEvent" in line]
                    console = [line for line in err.splitlines() if ":eventlog:" not in line]
                    if command == "run-service":
                        self.assertEqual([(kind, text.split(" ", 1)[1]) for kind, text in events],
                                         [(kind, 'L"%s"' % text.replace("\\", "\\\\"))
                                          for text, kind in lines])
                        self.assertEqual((out, [l for l in console if "[" in l]), ("", []))
                    else:
                        self.assertEqual(events, [])
                        self.assertEqual(out, "".join("[INFO] %s\n" % t for t, _ in lines[:3]))
                        self.assertIn("[ERROR] " + lines[3][0], console)


class ServiceTest(unittest.TestCase):
    # The service control manager of wine drives `run-service` through its life cycle. Wine ends
    # its services with the last ordinary process, so a waiting `ping` stays up meanwhile; it
    # ends by itself and holds none of this test's output streams.

    def sc(self, *args):
        out = wine(list(args), program="sc", stderr=subprocess.DEVNULL).communicate(timeout=120)[0]
        return tuple(re.findall(r"(?:STATE|WIN32_EXIT_CODE|SERVICE_EXIT_CODE|CHECKPOINT) +: (\w+)",
                                out.decode("utf-8", "replace")))

    def settle(self, name, pending):
        # The state once it has left `pending` (a loaded machine starts slowly).
        for _ in range(60):
            report = self.sc("query", name)
            if report[:1] != (pending,):
                break
            time.sleep(1)
        return report

    def test_states_the_manager_sees(self):
        wine(["-n", "240", "127.0.0.1"], program="ping", stdout=subprocess.DEVNULL,
             stderr=subprocess.DEVNULL)
        try:
            with tempfile.TemporaryDirectory() as directory:
                for name, text in (("good", "message-queue-filename q.queue\n"),
                                   ("bad", "metrics-interval 0\n")):
                    config = os.path.join(directory, name + ".conf")
                    with open(config, "w") as f:
                        f.write(text)
                    self.sc("delete", "vt-" + name)  # left by a run that was killed
                    self.sc("create", "vt-" + name, "binpath=", "%s run-service %s" % (
                        windows_path(PROGRAM), windows_path(config)))
                # Start pending, running only once started; stop pending (or stopped already),
                # then stopped with the queue saved; a failed start ends with a service-specific
                # error. How far the start has got when `sc` reports depends on the load.
                self.assertIn(self.sc("start", "vt-good")[:1], [(), ("2",), ("4",)])
                self.assertEqual(self.settle("vt-good", "2"), ("4", "0", "0", "0x0"))
                self.assertIn(self.sc("stop", "vt-good"),
                              [("3", "0", "0", "0x1"), ("1", "0", "0", "0x0")])
                self.assertEqual(self.settle("vt-good", "3"), ("1", "0", "0", "0x0"))
                self.assertTrue(os.path.exists(os.path.join(directory, "q.queue")))
                self.assertIn(self.sc("start", "vt-bad")[:1], [("2",), ("1",)])
                self.assertEqual(self.settle("vt-bad", "2"), ("1", "1066", "1", "0x0"))
        finally:
            self.sc("delete", "vt-good")
            self.sc("delete", "vt-bad")


class RelayTest(unittest.TestCase):
    # run-stdout under wine relays what a Linux sender delivers over Frame Streams.

    def test_run_stdout_prints_every_relayed_event(self):
        port = harness.free_port()
        with tempfile.TemporaryDirectory() as directory:
            config = os.path.join(directory, "relay.conf")
            with open(config, "w") as f:
                f.write("listener ipv4 127.0.0.1 %d read-timeout=5\n"
                        "forwarder ipv4 127.0.0.1 5140 batch-size=1\n"
                        "message-format querylog\nmessage-hostname winhost\n"
                        "metrics-interval 3600\n" % port)
            agent = wine(["run-stdout", windows_path(config)], stderr=subprocess.STDOUT)
            try:
                deadline = time.time() + 60
                while True:
                    try:
                        sender = fstrm.Client(port)
                        break
                    except OSError:
                        if time.time() > deadline or agent.poll() is not None:
                            raise
                        time.sleep(0.2)
                with sender:  # the whole bidirectional handshake, answered
                    sender.open()
                    sender.send([CLIENT_QUERY] * 20)
                    sender.control(fstrm.STOP, fstrm.FINISH)
                lines, deadline = [], time.time() + 30
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
        for line in lines:
            self.assertRegex(line, r"^<30>1 2024-03-05T07:09:02\.5Z winhost vantrelo \d+ - - " +
                             re.escape("queries: client 192.0.2.7#53124: query: "
                                       "host7.example.com. IN A + (192.0.2.53)") + "$")
        self.assertIn("Stopped", rest)


if __name__ == "__main__":
    PREFIX, PROGRAM = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
