#!/usr/bin/env python3
"""usage: tls_windows_peer.py WINE_RUN WINE_PREFIX PROGRAM.exe [ARGS...]

Runs the program under wine against two `openssl s_server` peers on 127.0.0.1 with a throwaway
certificate: one in -rev mode, one that logs what it receives (see tls_windows_test.cc). For the
server role it hands the program a PKCS #12 file with a certificate of a throwaway CA, and
connects an `openssl s_client` that trusts only that CA to each new listener of the program on
VANTRELO_TLS_SERVER_PORT; each client's transcript lands in client-N.log.
"""
import os
import socket
import subprocess
import sys
import tempfile
import threading
import time

CLIENT_LINE = b"ping from s_client\n"
PFX_PASSWORD = "vantrelo-test"


def openssl(directory, *args):
    return subprocess.run(["openssl", *args], cwd=directory, check=True,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def listener(port):
    """The inode of the socket listening on the port, or None; found without connecting to it,
    which the program would count as its client."""
    local = ("0100007F:%04X" % port, "00000000:%04X" % port)
    with open("/proc/net/tcp") as table:
        for fields in (line.split() for line in table):
            if fields[1] in local and fields[3] == "0A":
                return fields[9]
    return None


def serve_clients(program, port, directory):
    """Runs one s_client for each new listener of the program; stops when the program ends."""
    count, served = 0, None
    while program.poll() is None:
        current = listener(port)
        if current is None or current == served:
            time.sleep(0.05)
            continue
        count, served = count + 1, current
        client = subprocess.Popen(
            ["openssl", "s_client", "-connect", "127.0.0.1:%d" % port, "-CAfile", "ca.pem",
             "-verify_return_error", "-verify_hostname", "localhost"],
            cwd=directory, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT)
        timer = threading.Timer(30, client.kill)
        timer.start()
        try:
            # stdin stays open: at its end s_client would close before the program answers.
            client.stdin.write(CLIENT_LINE)
            client.stdin.flush()
        except OSError:
            pass
        transcript = client.stdout.read()
        client.wait()
        timer.cancel()
        client.stdin.close()
        transcript += b"exit status %d\n" % client.returncode
        path = os.path.join(directory, "client-%d.log" % count)
        with open(path + ".tmp", "wb") as f:
            f.write(transcript)
        os.replace(path + ".tmp", path)


def make_certificates(directory):
    ec = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2"]
    names = ["-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1",
             "-addext", "extendedKeyUsage=serverAuth"]
    openssl(directory, "req", "-x509", *ec, "-keyout", "ca.key", "-out", "ca.pem",
            "-subj", "/CN=Vantrelo Test CA")
    openssl(directory, "req", "-x509", *ec, "-keyout", "server.key", "-out", "server.pem",
            "-subj", "/CN=localhost", "-CA", "ca.pem", "-CAkey", "ca.key", *names)
    # The program's own certificate: RSA, the key type every Windows key store imports.
    openssl(directory, "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
            "-keyout", "own.key", "-out", "own.pem", "-subj", "/CN=vantrelo-test-server",
            "-CA", "ca.pem", "-CAkey", "ca.key", *names)
    openssl(directory, "pkcs12", "-export", "-in", "own.pem", "-inkey", "own.key",
            "-out", "own.pfx", "-passout", "pass:" + PFX_PASSWORD)
    fingerprint = openssl(directory, "x509", "-in", "own.pem", "-noout", "-fingerprint", "-sha1")
    return fingerprint.decode().strip().split("=", 1)[1].replace(":", "")


def main():
    runner, prefix, program = sys.argv[1:4]
    code = 1
    with tempfile.TemporaryDirectory() as directory:
        thumbprint = make_certificates(directory)
        servers, logs, env = [], [], dict(os.environ)
        try:
            for name, extra in (("PEER", ["-rev"]), ("SINK", [])):
                port = free_port()
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
            server_port = free_port()
            env.update(VANTRELO_TLS_SERVER_PORT=str(server_port),
                       VANTRELO_TLS_SERVER_DIR="Z:" + directory,
                       VANTRELO_TLS_SERVER_PFX_PASSWORD=PFX_PASSWORD,
                       VANTRELO_TLS_SERVER_THUMBPRINT=thumbprint)
            child = subprocess.Popen([runner, prefix, program, *sys.argv[4:]], env=env)
            clients = threading.Thread(target=serve_clients, args=(child, server_port, directory))
            clients.start()
            code = child.wait()
            clients.join()
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
