#!/usr/bin/env python3
"""Runs a Windows test program against two `openssl s_server` peers on loopback.

usage: tls_windows_peer.py WINE_RUN WINE_PREFIX PROGRAM.exe [ARGS...]

Makes a throwaway CA and a server certificate signed by it and starts, on free ports of
127.0.0.1, a server in -rev mode (VANTRELO_TLS_PEER_PORT) and a server that writes what it
receives to a file (VANTRELO_TLS_SINK_PORT, the file's wine path in VANTRELO_TLS_SINK_LOG).
Runs the program through the wine runner with these set, stops the servers and exits with the
program's exit code.
"""
import os
import socket
import subprocess
import sys
import tempfile
import time


def openssl(directory, *args):
    subprocess.run(["openssl"] + list(args), cwd=directory, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def make_certificates(directory):
    ec = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    openssl(directory, "req", "-x509", *ec, "-keyout", "ca.key", "-out", "ca.pem",
            "-subj", "/O=Vantrelo Test/CN=Vantrelo Test CA", "-days", "2")
    openssl(directory, "req", "-new", *ec, "-keyout", "server.key", "-out", "server.csr",
            "-subj", "/CN=localhost")
    with open(os.path.join(directory, "server.ext"), "w") as f:
        f.write("subjectAltName=DNS:localhost,IP:127.0.0.1\nextendedKeyUsage=serverAuth\n")
    openssl(directory, "x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
            "-CAcreateserial", "-days", "2", "-extfile", "server.ext", "-out", "server.pem")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_listening(port, server):
    for _ in range(100):
        if server.poll() is not None:
            raise RuntimeError("openssl s_server ended early")
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=1):
                # s_server takes this probe as a client that leaves again; it goes on accepting.
                return
        except OSError:
            time.sleep(0.1)
    raise RuntimeError("openssl s_server does not listen")


def start_server(directory, name, extra):
    """An s_server on a free port; its stdin stays open, as it ends when stdin does."""
    port = free_port()
    log = open(os.path.join(directory, name + ".log"), "wb")
    server = subprocess.Popen(
        ["openssl", "s_server"] + extra + ["-accept", "127.0.0.1:%d" % port,
                                           "-cert", "server.pem", "-key", "server.key",
                                           "-CAfile", "ca.pem"],
        cwd=directory, stdin=subprocess.PIPE, stdout=log, stderr=subprocess.STDOUT)
    log.close()
    return port, server


def main():
    runner, prefix, program = sys.argv[1:4]
    code = 1
    with tempfile.TemporaryDirectory() as directory:
        make_certificates(directory)
        servers = []
        try:
            rev_port, rev = start_server(directory, "rev", ["-rev"])
            servers.append(rev)
            sink_port, sink = start_server(directory, "sink", [])
            servers.append(sink)
            wait_listening(rev_port, rev)
            wait_listening(sink_port, sink)
            env = dict(os.environ, VANTRELO_TLS_PEER_PORT=str(rev_port),
                       VANTRELO_TLS_SINK_PORT=str(sink_port),
                       VANTRELO_TLS_SINK_LOG="Z:" + os.path.join(directory, "sink.log"))
            code = subprocess.run([runner, prefix, program] + sys.argv[4:], env=env).returncode
        finally:
            for server in servers:
                server.terminate()
                server.wait()
            if code != 0:
                for name in ("rev", "sink"):
                    with open(os.path.join(directory, name + ".log"), "rb") as f:
                        text = f.read().decode("utf-8", "replace")
                    sys.stderr.write("--- openssl s_server %s ---\n%s" % (name, text[-3000:]))
    sys.exit(code)


if __name__ == "__main__":
    main()
