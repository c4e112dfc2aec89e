#!/usr/bin/env python3
# usage: tls_windows_peer.py WINE_RUN WINE_PREFIX PROGRAM.exe [ARGS...]
#
# Runs the program under wine against three `openssl s_server` on 127.0.0.1 with a throwaway
# certificate: one in -rev mode, one in -rev mode that asks for an optional client certificate,
# and one that logs what it receives; and hands it that certificate as a PKCS #12 file for the
# server role (see tls_windows_test.cc).
import os
import socket
import subprocess
import sys
import tempfile

PFX_PASSWORD = "vantrelo-test"


def openssl(directory, *args):
    return subprocess.run(["openssl", *args], cwd=directory, check=True,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


# The program's own certificate, self-signed and in RSA (the key type every Windows key store
# imports), which s_server presents as well; returns its thumbprint as openssl prints it.
def make_certificate(directory):
    openssl(directory, "req", "-x509", "-nodes", "-days", "2", "-newkey", "rsa:2048",
            "-keyout", "own.key", "-out", "own.pem", "-subj", "/CN=vantrelo-test-server",
            "-addext", "subjectAltName=DNS:localhost")
    openssl(directory, "pkcs12", "-export", "-in", "own.pem", "-inkey", "own.key",
            "-out", "own.pfx", "-passout", "pass:" + PFX_PASSWORD)
    fingerprint = openssl(directory, "x509", "-in", "own.pem", "-noout", "-fingerprint", "-sha1")
    return fingerprint.decode().strip().split("=", 1)[1].replace(":", "")


def main():
    runner, prefix, program = sys.argv[1:4]
    with tempfile.TemporaryDirectory() as directory:
        env = dict(os.environ, VANTRELO_TLS_SERVER_DIR="Z:" + directory,
                   VANTRELO_TLS_SERVER_PFX_PASSWORD=PFX_PASSWORD,
                   VANTRELO_TLS_SERVER_THUMBPRINT=make_certificate(directory),
                   VANTRELO_TLS_SINK_LOG="Z:" + directory + "/SINK.log")
        servers, code = [], 1
        try:
            for name, extra in (("PEER", ["-rev"]), ("ASK", ["-rev", "-verify", "1"]),
                                ("SINK", [])):
                env["VANTRELO_TLS_%s_PORT" % name] = str(free_port())
                # The test retries its connection while s_server starts; stdin stays open, as
                # s_server would end at its end.
                with open(os.path.join(directory, name + ".log"), "wb") as log:
                    servers.append(subprocess.Popen(
                        ["openssl", "s_server", *extra, "-cert", "own.pem", "-key", "own.key",
                         "-accept", "127.0.0.1:" + env["VANTRELO_TLS_%s_PORT" % name]],
                        cwd=directory, stdin=subprocess.PIPE, stdout=log, stderr=log))
            code = subprocess.call([runner, prefix, program, *sys.argv[4:]], env=env)
        finally:
            for server in servers:
                server.terminate()
                server.wait()
        if code != 0:
            with open(os.path.join(directory, "PEER.log"), "rb") as f:
                sys.stderr.write(f.read().decode("utf-8", "replace")[-3000:])
    sys.exit(code)


if __name__ == "__main__":
    main()
