#!/usr/bin/env python3
"""Captures the cross-check data under data/zone/ from a real authoritative server.

Starts knotd (Debian package knot) on 127.0.0.1 with data/zone/example.test.zone, sends one
query per (name, type) of QUERIES over UDP and stores the raw response as <name>_<TYPE>.bin.
NSEC3 records cannot be asked for directly, so a second zone, signed.test, is signed by the
server with NSEC3 and a query for a missing name (with the DO bit) gives nx_signed.bin, whose
authority section holds NSEC3 and RRSIG records made by the server.
The server's answer is also printed by dig (+noall +answer +nosplit-style +split=0) against the
same server; the record data texts (everything after owner, TTL, class and type) are written
to expected.txt as "<file>\t<data>" lines, one per answer record, in answer order. The test
record_data_test.cc replays the .bin files and compares its own texts with these.

Run from anywhere: python3 tests/dns/capture_zone.py
"""
import os
import pathlib
import random
import shutil
import socket
import struct
import subprocess
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent / "data" / "zone"
PORT = 53953
QUERIES = [
    ("example.test", "SOA", 6), ("example.test", "NS", 2), ("ns1.example.test", "A", 1),
    ("ns1.example.test", "AAAA", 28), ("alias.example.test", "CNAME", 5),
    ("4.2.0.192.example.test", "PTR", 12), ("legacy.example.test", "DNAME", 39),
    ("example.test", "MX", 15), ("afs.example.test", "AFSDB", 18), ("kx.example.test", "KX", 36),
    ("txt.example.test", "TXT", 16), ("_sip._tcp.example.test", "SRV", 33),
    ("naptr.example.test", "NAPTR", 35), ("sub.example.test", "DS", 43),
    ("example.test", "CDS", 59), ("ssh.example.test", "SSHFP", 44),
    ("example.test", "DNSKEY", 48), ("example.test", "CDNSKEY", 60),
    ("sig.example.test", "RRSIG", 46),
    ("nsec3param.example.test", "NSEC3PARAM", 51),
    ("dhcid.example.test", "DHCID", 49), ("pgp.example.test", "OPENPGPKEY", 61),
    ("cert.example.test", "CERT", 37), ("cert2.example.test", "CERT", 37),
    ("svc.example.test", "SVCB", 64), ("svc2.example.test", "SVCB", 64),
    ("example.test", "HTTPS", 65), ("web.example.test", "HTTPS", 65),
]


def query(name, qtype, dnssec=False):
    packet = struct.pack(">HHHHHH", random.randrange(65536), 0, 1, 0, 0, 1 if dnssec else 0)
    for label in name.split("."):
        packet += bytes([len(label)]) + label.encode()
    packet += b"\x00" + struct.pack(">HH", qtype, 1)
    if dnssec:  # OPT: root owner, type 41, payload 1232, DO bit
        packet += b"\x00" + struct.pack(">HHIH", 41, 1232, 0x8000, 0)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(2)
        s.sendto(packet, ("127.0.0.1", PORT))
        return s.recv(65535)


def dig_answers(name, type_name, section="+answer"):
    out = subprocess.run(["dig", "@127.0.0.1", "-p", str(PORT), "+noall", section, "+norec",
                          "+dnssec", "+split=0", name, type_name], check=True, capture_output=True,
                         text=True).stdout
    return [line.split(None, 4)[4] for line in out.splitlines() if line and line[0] != ";"]


def main():
    work = pathlib.Path(tempfile.mkdtemp())
    shutil.copy(HERE / "example.test.zone", work)
    (work / "signed.test.zone").write_text(
        "$ORIGIN signed.test.\n$TTL 300\n@ SOA ns hostmaster 1 7200 3600 1209600 300\n"
        "@ NS ns\nns A 192.0.2.1\nwww A 192.0.2.2\n")
    (work / "knot.conf").write_text(f"""server:
    listen: 127.0.0.1@{PORT}
    rundir: {work}
database:
    storage: {work}
template:
  - id: default
    storage: {work}
    semantic-checks: off
policy:
  - id: nsec3
    algorithm: ecdsap256sha256
    nsec3: on
    nsec3-iterations: 0
    nsec3-salt-length: 4
zone:
  - domain: example.test
    file: example.test.zone
  - domain: signed.test
    file: signed.test.zone
    dnssec-signing: on
    dnssec-policy: nsec3
""")
    server = subprocess.Popen(["knotd", "-c", str(work / "knot.conf")])
    try:
        time.sleep(1.5)
        lines = []
        for name, type_name, qtype in QUERIES:
            file_name = f"{name.split('.')[0]}_{type_name}.bin"
            if name == "example.test":
                file_name = f"apex_{type_name}.bin"
            (HERE / file_name).write_bytes(query(name, qtype))
            for data in dig_answers(name, type_name):
                lines.append(f"{file_name}\t{data}")
        (HERE / "nx_signed.bin").write_bytes(query("nx.signed.test", 1, dnssec=True))
        for data in dig_answers("nx.signed.test", "A", "+authority"):
            lines.append(f"nx_signed.bin\t{data}")
        (HERE / "expected.txt").write_text("\n".join(lines) + "\n")
    finally:
        server.terminate()
        server.wait()
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
