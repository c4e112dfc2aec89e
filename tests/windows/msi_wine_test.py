#!/usr/bin/env python3
# The Windows Installer package under wine: install, reinstall, upgrade in place, uninstall.
#
# usage: msi_wine_test.py WINE_RUN PREFIX VANTRELO_EXE VERSION
#
# Builds the package twice from one vantrelo.exe (VERSION and the next patch version) with
# packaging/windows/build-msi, then in a fresh wine prefix checks what each step leaves: files,
# the service key, the event-log source key and the product's uninstall key. wine's msiexec exit
# codes say little, so every step is judged by the files and registry keys it leaves.
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
WINE_RUN, PREFIX, EXE, VERSION = sys.argv[1:5]
del sys.argv[1:5]

SERVICE_KEY = r"HKLM\SYSTEM\CurrentControlSet\Services\Vantrelo"
SOURCE_KEY = r"HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\Morskel Vantrelo"
UNINSTALL_KEY = "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\"
DRIVE_C = pathlib.Path(PREFIX) / "drive_c"
PROGRAM = DRIVE_C / "Program Files" / "Vantrelo"
CONFIG = DRIVE_C / "ProgramData" / "Vantrelo" / "vantrelo.conf"


def wine(*args):
    """(exit code, output) of a program under wine."""
    # Output goes to a file, not a pipe: wine's background processes (services, the wine
    # server) inherit the pipe and would hold it open for a minute after the program ends.
    with tempfile.TemporaryFile() as output:
        code = subprocess.run([WINE_RUN, PREFIX, *args], stdin=subprocess.DEVNULL,
                              stdout=output, stderr=subprocess.STDOUT, timeout=300).returncode
        output.seek(0)
        return code, output.read().decode(errors="replace")


def registry(key, name=None):
    """A value's data ("" when missing), or with no name whether the key exists."""
    code, out = wine("reg", "query", key, *(("/v", name) if name else ()))
    if name is None:
        return code == 0
    return next((line.split(None, 2)[2].strip() for line in out.splitlines()
                 if line.split()[:1] == [name] and len(line.split(None, 2)) == 3), "")


class MsiTest(unittest.TestCase):
    def setUp(self):
        self.work = self.enterContext(tempfile.TemporaryDirectory(prefix="vantrelo-msi-"))
        major, minor, patch = VERSION.split(".")
        self.msi, self.product = [], []
        for version in (VERSION, f"{major}.{minor}.{int(patch) + 1}"):
            msi = pathlib.Path(self.work) / f"vantrelo-{version}.msi"
            subprocess.run([ROOT / "packaging/windows/build-msi", EXE, msi, version],
                           check=True, capture_output=True)
            table = subprocess.run(["msiinfo", "export", msi, "Property"], check=True,
                                   capture_output=True, text=True).stdout
            self.msi.append("Z:" + str(msi).replace("/", "\\"))
            self.product.append(UNINSTALL_KEY + table.split("\nProductCode\t")[1].split()[0])
        # A fresh prefix, which wine-run sets up on first use. (A second wineboot --init on it
        # leaves a service manager that loses the service key in the upgrade.)
        shutil.rmtree(PREFIX, ignore_errors=True)

    def assert_installed(self, product):
        for name in ("vantrelo.exe", "README.md", "LICENSES.txt"):
            self.assertTrue((PROGRAM / name).is_file(), name)
        image = registry(SERVICE_KEY, "ImagePath")
        self.assertIn(r"Vantrelo\vantrelo.exe", image)
        self.assertIn(r'run-service "C:\ProgramData\Vantrelo\vantrelo.conf"', image)
        self.assertEqual(registry(SERVICE_KEY, "Start"), "0x2")  # automatic
        self.assertTrue(registry(SOURCE_KEY, "EventMessageFile").lower().endswith(
            r"\vantrelo\vantrelo.exe"))
        self.assertEqual(registry(SOURCE_KEY, "TypesSupported"), "0x7")
        self.assertTrue(registry(product))

    def test_install_reinstall_upgrade_uninstall(self):
        with self.subTest("install"):
            wine("msiexec.exe", "/i", self.msi[0], "/qn")
            self.assert_installed(self.product[0])
        # An administrator's configuration survives a reinstall, an upgrade and an uninstall.
        edited = CONFIG.read_bytes() + b"# edited by the administrator\r\n"
        CONFIG.write_bytes(edited)
        for step, args, product in (
                ("reinstall", ("/i", self.msi[0], "REINSTALL=ALL", "REINSTALLMODE=vamus"), 0),
                ("upgrade", ("/i", self.msi[1]), 1), ("uninstall", ("/x", self.msi[1]), None)):
            with self.subTest(step):
                wine("msiexec.exe", *args, "/qn")
                if product is not None:
                    self.assert_installed(self.product[product])
                else:
                    self.assertFalse((PROGRAM / "vantrelo.exe").exists())
                    for key in (SERVICE_KEY, SOURCE_KEY):
                        self.assertFalse(registry(key), key)
                # The old version is gone, not installed beside the new.
                self.assertEqual([registry(key) for key in self.product],
                                 [product == index for index in (0, 1)])
                self.assertEqual(CONFIG.read_bytes(), edited)


if __name__ == "__main__":
    unittest.main()
