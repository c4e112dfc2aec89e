#!/usr/bin/env python3
# Runs the built vantrelo program as a user would: command line, exit codes, start and stop.
import os
import signal
import subprocess
import sys
import tempfile
import unittest

PROGRAM = None

USAGE = ("usage: vantrelo run <vantrelo.conf>\n"
         "       vantrelo run-service <vantrelo.conf>\n"
         "       vantrelo run-stdout <vantrelo.conf>\n"
         "       vantrelo print-psl\n"
         "       vantrelo version\n")


def run(args, cwd=None):
    done = subprocess.run([PROGRAM] + args, cwd=cwd, capture_output=True, text=True, timeout=30)
    return done.returncode, done.stdout, done.stderr


def run_until_stopped(args, cwd, signum=signal.SIGTERM):
    # One signal, sent as soon as the agent has said it started (its stop signals are taken from
    # then on): a request that comes before the agent waits for it is kept.
    agent = subprocess.Popen([PROGRAM] + args, cwd=cwd, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, bufsize=0)
    first = b""
    while not first.endswith(b"\n"):  # unbuffered, so that communicate() gets the rest
        first += agent.stdout.read(1) or b"\n"
    agent.send_signal(signum)
    try:
        out, err = agent.communicate(timeout=30)
    except subprocess.TimeoutExpired:
        agent.kill()
        raise AssertionError("agent did not stop")
    return agent.returncode, (first + out).decode(), err.decode()


class CommandLineTest(unittest.TestCase):
    def test_usage_cases(self):
        for args in ([], ["run"], ["run-service"], ["run-stdout"], ["RUN", "x.conf"],
                     ["Version"], ["versions"], ["print-psl-x"], [""]):
            with self.subTest(args=args):
                self.assertEqual(run(args), (1, "", USAGE))

    def test_version_and_print_psl(self):
        self.assertEqual(run(["version", "extra", "more"]), (0, "2.4.4\n", ""))
        # Every built-in rule as a configuration line.
        code, out, _ = run(["print-psl"])
        lines = out.splitlines()
        self.assertEqual((code, len(lines), lines[0], lines[-1]),
                         (0, 6933, "domain-suffix ac", "domain-suffix zuerich"))
        self.assertIn("domain-suffix !www.ck", lines)


class AgentRunTest(unittest.TestCase):
    def setUp(self):
        self.root = self.enterContext(tempfile.TemporaryDirectory())
        os.mkdir(os.path.join(self.root, "conf"))
        self.path = os.path.join(self.root, "conf", "vantrelo.conf")
        with open(self.path, "w") as f:
            f.write("# nothing to do\nmessage-queue-filename fresh.queue\n")

    def test_bad_value_gives_exactly_four_lines(self):
        with open(self.path, "w") as f:
            f.write("metrics-interval 0\n")
        self.assertEqual(run(["run", self.path]), (
            0, "[INFO] Started\n[INFO] Changing directory to %s\n"
            "[INFO] Reading config from %s\n" % (os.path.dirname(self.path), self.path),
            "[ERROR] Run failed: Invalid metrics-interval specified in config file: 0\n"))
        # The service command logs to syslog and ends with a failure code, so that the service
        # manager restarts it.
        self.assertEqual(run(["run-service", self.path]), (1, "", ""))

    def test_idle_agent_stops_on_signals(self):
        # run-stdout neither loads nor saves the queue file.
        for command, signum, files in (("run-stdout", signal.SIGINT, ["vantrelo.conf"]),
                                       ("run", signal.SIGTERM, ["fresh.queue", "vantrelo.conf"])):
            with self.subTest(command=command):
                code, out, err = run_until_stopped([command, self.path], self.root, signum)
                self.assertEqual((code, err), (0, ""))
                self.assertTrue(out.endswith("[INFO] Stopped\n") and out.count("Stopped") == 1, out)
                self.assertEqual(sorted(os.listdir(os.path.dirname(self.path))), files)

    def test_relative_path_is_resolved_from_its_own_directory(self):
        # The directory changes first, so a path with a directory part no longer names the file;
        # a bare file name stays in the current directory and works.
        code, out, err = run(["run", "conf/vantrelo.conf"], cwd=self.root)
        self.assertEqual(out.splitlines(), ["[INFO] Started", "[INFO] Changing directory to conf",
                                            "[INFO] Reading config from conf/vantrelo.conf"])
        self.assertTrue(err.startswith(
            "[ERROR] Run failed: ifstream(conf/vantrelo.conf) failed to open: "), err)
        with open(self.path, "w") as f:
            f.write("metrics-interval 0\n")
        code, out, err = run(["run", "vantrelo.conf"], cwd=os.path.dirname(self.path))
        self.assertIn("[INFO] Changing directory to .\n", out)
        self.assertIn("Invalid metrics-interval", err)

if __name__ == "__main__":
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
