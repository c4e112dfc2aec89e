#!/usr/bin/env python3
# Captures the cross-check data under tests/dns/data/zone/ from a real authoritative server.
#
# Starts knotd (Debian package knot) on 127.0.0.1 with data/zone/example.test.zone, sends one
# query per (name, type) of QUERIES over UDP and stores the raw response as <name>_<TYPE>.bin.
# NSEC3 records cannot be asked for directly, so a second zone, signed.test, is signed by the
# server with NSEC3 and a query for a missing name (with the DO bit) gives nx_signed.bin, whose
# authority section holds NSEC3 and RRSIG records made by the server.
# The server's answer is also printed by dig (+noall +answer +split=0) against the same server;
# the record data texts (everything after owner, TTL, class and type) are written to
# expected.txt as "<file>\t<data>" lines, one per answer record, in answer order. The test
# record_data_zone_test.cc replays the .bin files and compares its own texts with these.
#
# Run from anywhere: python3 tools/capture_zone.py
import pathlib
import random
import shutil
import socket
import struct
import subprocess
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent.parent / "tests" / "dns" / "data" / "zone"
PORT = 53953
TYPES = {"A": 1, "NS": 2, "CNAME": 5, "SOA": 6, "PTR": 12, "MX": 15, "TXT": 16, "AFSDB": 18,
         "AAAA": 28, "SRV": 33, "NAPTR": 35, "KX": 36, "CERT": 37, "DNAME": 39, "DS": 43,
         "SSHFP": 44, "RRSIG": 46, "DNSKEY": 48, "DHCID": 49, "NSEC3PARAM": 51, "CDS": 59,
         "CDNSKEY": 60, "OPENPGPKEY": 61, "SVCB": 64, "HTTPS": 65}
# Owner names below example.test ("" is the apex) and the type asked for.
QUERIES = [("", "SOA"), ("", "NS"), ("ns1", "A"), ("ns1", "AAAA"), ("alias", "CNAME"),
           ("4.2.0.192", "PTR"), ("legacy", "DNAME"), ("", "MX"), ("afs", "AFSDB"), ("kx", "KX"),
           ("txt", "TXT"), ("_sip._tcp", "SRV"), ("naptr", "NAPTR"), ("sub", "DS"), ("", "CDS"),
           ("ssh", "SSHFP"), ("", "DNSKEY"), ("", "CDNSKEY"), ("sig", "RRSIG"),
           ("nsec3param", "NSEC3PARAM"), ("dhcid", "DHCID"), ("pgp", "OPENPGPKEY"),
           ("cert", "CERT"), ("cert2", "CERT"), ("svc", "SVCB"), ("svc2", "SVCB"), ("", "HTTPS"),
           ("web", "HTTPS")]
KNOT_CONF = """server:
    listen: 127.0.0.1@{port}
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
"""


def query(name, qtype, dnssec=False):
    packet = struct.pack(">HHHHHH", random.randrange(65536), 0, 1, 0, 0, 1 if dnssec else 0)
    packet += b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
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
    (work / "knot.conf").write_text(KNOT_CONF.format(port=PORT, work=work))
    server = subprocess.Popen(["knotd", "-c", str(work / "knot.conf")])
    try:
        time.sleep(1.5)
        lines = []
        for owner, type_name in QUERIES:
            name = f"{owner}.example.test" if owner else "example.test"
            file_name = f"{owner.split('.')[0] or 'apex'}_{type_name}.bin"
            (HERE / file_name).write_bytes(query(name, TYPES[type_name]))
            lines += [f"{file_name}\t{data}" for data in dig_answers(name, type_name)]
        (HERE / "nx_signed.bin").write_bytes(query("nx.signed.test", 1, dnssec=True))
        lines += [f"nx_signed.bin\t{data}" for data in dig_answers("nx.signed.test", "A", "+authority")]
        (HERE / "expected.txt").write_text("\n".join(lines) + "\n")
    finally:
        server.terminate()
        server.wait()
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
