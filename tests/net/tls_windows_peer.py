#!/usr/bin/env python3
"""usage: tls_windows_peer.py WINE_RUN WINE_PREFIX PROGRAM.exe [ARGS...]

Runs the program under wine against two `openssl s_server` peers on 127.0.0.1 with a throwaway
certificate: one in -rev mode, one that logs what it receives (see tls_windows_test.cc).
"""
import os
import socket
import subprocess
import sys
import tempfile
import time


def openssl(directory, *args):
    subprocess.run(["openssl", *args], cwd=directory, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def main():
    runner, prefix, program = sys.argv[1:4]
    code = 1
    with tempfile.TemporaryDirectory() as directory:
        ec = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2"]
        openssl(directory, "req", "-x509", *ec, "-keyout", "ca.key", "-out", "ca.pem",
                "-subj", "/CN=Vantrelo Test CA")
        openssl(directory, "req", "-x509", *ec, "-keyout", "server.key", "-out", "server.pem",
                "-subj", "/CN=localhost", "-CA", "ca.pem", "-CAkey", "ca.key",
                "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1",
                "-addext", "extendedKeyUsage=serverAuth")
        servers, logs, env = [], [], dict(os.environ)
        try:
            for name, extra in (("PEER", ["-rev"]), ("SINK", [])):
                with socket.socket() as probe:
                    probe.bind(("127.0.0.1", 0))
                    port = probe.getsockname()[1]
                logs.append(os.path.join(directory, name + ".log"))
                with open(logs[-1], "wb") as log:
                    # stdin stays open: s_server ends when it closes.
                    servers.append(subprocess.Popen(
                        ["openssl", "s_server", *extra, "-accept", "127.0.0.1:%d" % port,
                         "-cert", "server.pem", "-key", "server.key"],
                        cwd=directory, stdin=subprocess.PIPE, stdout=log,
                        stderr=subprocess.STDOUT))
                for _ in range(100):
                    try:
                        # s_server takes this probe as a client that leaves again.
                        socket.create_connection(("127.0.0.1", port), timeout=1).close()
                        break
                    except OSError:
                        time.sleep(0.1)
                env["VANTRELO_TLS_%s_PORT" % name] = str(port)
            env["VANTRELO_TLS_SINK_LOG"] = "Z:" + logs[-1]
            code = subprocess.run([runner, prefix, program, *sys.argv[4:]], env=env).returncode
        finally:
            for server in servers:
                server.terminate()
                server.wait()
            if code != 0:
                for path in logs:
                    with open(path, "rb") as f:
                        sys.stderr.write(f.read().decode("utf-8", "replace")[-3000:])
    sys.exit(code)


if __name__ == "__main__":
    main()
