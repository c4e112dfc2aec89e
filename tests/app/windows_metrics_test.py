#!/usr/bin/env python3
# The Windows vantrelo.exe under wine serves its metrics endpoint over Winsock to a Linux curl
# (the exposition itself is checked by promtool in the native integration test).
#
# usage: windows_metrics_test.py WINE_PREFIX vantrelo.exe
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

import windows_process_test as windows


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def curl(*args):
    done = subprocess.run(["curl", "-s", "--max-time", "5"] + list(args),
                          capture_output=True, text=True, timeout=30)
    return done.returncode, done.stdout


class MetricsEndpointTest(unittest.TestCase):
    def test_linux_curl_scrapes_the_windows_build(self):
        if shutil.which("curl") is None:
            self.skipTest("curl not installed (scripts/install-test-peers)")
        port = free_port()
        url = "http://127.0.0.1:%d" % port
        with tempfile.TemporaryDirectory() as directory:
            config = os.path.join(directory, "metrics.conf")
            with open(config, "w") as f:
                f.write("forwarder ipv4 127.0.0.1 5140\nmetrics-interval 3600\n"
                        "message-queue-size 65536\nmetrics-listen ipv4 127.0.0.1 %d\n" % port)
            agent = windows.wine(["run-stdout", windows.windows_path(config)],
                                 stderr=subprocess.STDOUT)
            try:
                deadline = time.time() + 60
                code, scrape = curl(url + "/metrics")
                while code != 0 and time.time() < deadline and agent.poll() is None:
                    time.sleep(0.5)
                    code, scrape = curl(url + "/metrics")
                health = curl("-o", "/dev/null", "-w", "%{http_code} %{content_type}",
                              url + "/health")
            finally:
                agent.send_signal(signal.SIGINT)
                try:
                    log = agent.communicate(timeout=60)[0].decode("utf-8", "replace")
                except subprocess.TimeoutExpired:
                    agent.kill()
                    log = agent.communicate()[0].decode("utf-8", "replace")
        self.assertEqual(code, 0, log)
        self.assertIn('vantrelo_build_info{version="2.4.4"} 1\n', scrape)
        self.assertIn("vantrelo_queue_capacity_bytes 65536\n", scrape)
        self.assertIn('vantrelo_forwarder_connected{id="0",type="ipv4",'
                      'target="127.0.0.1:5140"} 0\n', scrape)
        # Standard-output mode delivers without a connection: healthy.
        self.assertEqual(health, (0, "200 application/json"))
        self.assertIn("Stopped", log)


if __name__ == "__main__":
    windows.PREFIX, windows.PROGRAM = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
