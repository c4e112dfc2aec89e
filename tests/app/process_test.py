#!/usr/bin/env python3
# Runs the built vantrelo program as a user would: command line, exit codes, start and stop.
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAM = None

USAGE = ("usage: vantrelo run <vantrelo.conf>\n"
         "       vantrelo run-service <vantrelo.conf>\n"
         "       vantrelo run-stdout <vantrelo.conf>\n"
         "       vantrelo print-psl\n"
         "       vantrelo version\n")


def run(args, cwd=None):
    return subprocess.run([PROGRAM] + args, cwd=cwd, capture_output=True, text=True, timeout=30)


class Agent:
    # A running agent; stop() delivers a signal until the agent has begun waiting for it.

    def __init__(self, args, cwd):
        self.process = subprocess.Popen([PROGRAM] + args, cwd=cwd, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)

    def stop(self, signum):
        # A stop request sent before the agent waits is lost by design, so repeat it.
        for _ in range(20):
            time.sleep(0.25)
            self.process.send_signal(signum)
            try:
                out, err = self.process.communicate(timeout=1)
                return self.process.returncode, out, err
            except subprocess.TimeoutExpired:
                continue
        self.process.kill()
        raise AssertionError("agent did not stop")


class CommandLineTest(unittest.TestCase):
    def test_usage_cases(self):
        for args in ([], ["run"], ["run-service"], ["run-stdout"], ["RUN", "x.conf"],
                     ["Version"], ["versions"], ["print-psl-x"], [""]):
            with self.subTest(args=args):
                result = run(args)
                self.assertEqual(result.returncode, 1)
                self.assertEqual(result.stderr, USAGE)
                self.assertEqual(result.stdout, "")

    def test_version(self):
        for args in (["version"], ["version", "extra", "more"]):
            result = run(args)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "2.4.4\n", ""))

    def test_print_psl_lists_every_builtin_rule_as_configuration(self):
        result = run(["print-psl"])
        lines = result.stdout.splitlines()
        self.assertEqual((result.returncode, len(lines)), (0, 6933))
        self.assertEqual((lines[0], lines[-1]), ("domain-suffix ac", "domain-suffix zuerich"))
        self.assertIn("domain-suffix !www.ck", lines)


class AgentRunTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.root = self.directory.name

    def tearDown(self):
        self.directory.cleanup()

    def write(self, relative, text):
        path = os.path.join(self.root, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write(text)
        return path

    def test_bad_value_gives_exactly_four_lines(self):
        path = self.write("vantrelo.conf", "metrics-interval 0\n")
        result = run(["run", path])
        self.assertEqual(result.returncode, 0)
        self.assertEqual(result.stdout, "[INFO] Started\n[INFO] Changing directory to %s\n"
                         "[INFO] Reading config from %s\n" % (self.root, path))
        self.assertEqual(result.stderr,
                         "[ERROR] Run failed: Invalid metrics-interval specified in config "
                         "file: 0\n")

    def test_idle_agent_stops_on_signals(self):
        path = self.write("vantrelo.conf", "# nothing to do\n")
        for signum in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(signal=signum):
                code, out, err = Agent(["run", path], self.root).stop(signum)
                self.assertEqual(code, 0)
                self.assertEqual(err, "")
                self.assertEqual(out.splitlines()[-1], "[INFO] Stopped")
                self.assertEqual(out.count("[INFO] Stopped"), 1)

    def test_relative_path_is_resolved_from_its_own_directory(self):
        self.write(os.path.join("conf", "vantrelo.conf"), "")
        result = run(["run", "conf/vantrelo.conf"], cwd=self.root)
        self.assertEqual(result.stdout.splitlines(),
                         ["[INFO] Started", "[INFO] Changing directory to conf",
                          "[INFO] Reading config from conf/vantrelo.conf"])
        self.assertTrue(result.stderr.startswith(
            "[ERROR] Run failed: ifstream(conf/vantrelo.conf) failed to open: "), result.stderr)
        # A bare file name stays in the current directory and works.
        code, out, _ = Agent(["run", "vantrelo.conf"], os.path.join(self.root, "conf")).stop(
            signal.SIGTERM)
        self.assertEqual(code, 0)
        self.assertIn("[INFO] Changing directory to .\n", out)
        self.assertTrue(out.endswith("[INFO] Stopped\n"))

    def test_run_stdout_creates_no_queue_file(self):
        path = self.write("vantrelo.conf", "message-queue-filename fresh.queue\n")
        code, _, _ = Agent(["run-stdout", path], self.root).stop(signal.SIGINT)
        self.assertEqual(code, 0)
        self.assertEqual(sorted(os.listdir(self.root)), ["vantrelo.conf"])


if __name__ == "__main__":
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
