#!/usr/bin/env python3
"""Runs the Windows vantrelo.exe under wine as a user would start it from a console.

usage: windows_process_test.py WINE_PREFIX vantrelo.exe

`run-service` started from a console is not connected to a service manager, so it runs the
agent in the foreground and logs through the event log. Wine's event log keeps no records but
traces every ReportEvent string on its "eventlog" debug channel (information as trace,
warnings as warn, errors as err), which this test turns on to see the entries.
"""
import os
import shutil
import subprocess
import sys
import tempfile
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
    """A string as wine's debugstr_w writes it."""
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


if __name__ == "__main__":
    PREFIX, PROGRAM = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
