#!/usr/bin/env python3
"""The Windows Installer package under wine: install, upgrade in place, uninstall.

usage: msi_wine_test.py WINE_RUN PREFIX VANTRELO_EXE VERSION

Builds the package twice from one vantrelo.exe (VERSION and the next patch version) with
packaging/windows/build-msi, then in a fresh wine prefix checks what each step leaves: files,
the service key and the event-log source key. wine's msiexec exit codes say little, so every
step is judged by the files and registry keys it leaves.
"""
import os
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
UNINSTALL_KEY = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall"
DRIVE_C = pathlib.Path(PREFIX) / "drive_c"
PROGRAM = DRIVE_C / "Program Files" / "Vantrelo"
CONFIG = DRIVE_C / "ProgramData" / "Vantrelo" / "vantrelo.conf"


def wine(*args, check=True):
    # Output goes to a file, not a pipe: wine's background processes (services, the wine
    # server) inherit the pipe and would hold it open for a minute after the program ends.
    with tempfile.TemporaryFile() as output:
        returncode = subprocess.run([WINE_RUN, PREFIX, *args], stdin=subprocess.DEVNULL,
                                    stdout=output, stderr=subprocess.STDOUT,
                                    timeout=300).returncode
        output.seek(0)
        text = output.read().decode(errors="replace")
    if check and returncode != 0:
        raise AssertionError(f"{args} exited {returncode}: {text}")
    return subprocess.CompletedProcess(args, returncode, text)


def registry_value(key, name):
    """The value's data, or None when the key or the value does not exist."""
    result = wine("reg", "query", key, "/v", name, check=False)
    if result.returncode != 0:
        return None
    for line in result.stdout.splitlines():
        parts = line.split(None, 2)
        if len(parts) >= 2 and parts[0] == name:
            return parts[2].strip() if len(parts) == 3 else ""
    return None


def key_exists(key):
    return wine("reg", "query", key, check=False).returncode == 0


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


def product_code(msi):
    table = subprocess.run(["msiinfo", "export", str(msi), "Property"], capture_output=True,
                           text=True, check=True).stdout
    return next(line.split("\t")[1] for line in table.splitlines()
                if line.startswith("ProductCode\t"))


class MsiTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = pathlib.Path(tempfile.mkdtemp(prefix="vantrelo-msi-"))
        major, minor, patch = VERSION.split(".")
        cls.next_version = f"{major}.{minor}.{int(patch) + 1}"
        cls.packages = {}
        for version in (VERSION, cls.next_version):
            msi = cls.work / f"vantrelo-{version}.msi"
            subprocess.run([str(ROOT / "packaging/windows/build-msi"), EXE, str(msi), version],
                           check=True, capture_output=True)
            cls.packages[version] = msi
        shutil.rmtree(PREFIX, ignore_errors=True)
        wine("wineboot.exe", "--init", check=False)  # a fresh prefix's set-up noise, once

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work, ignore_errors=True)

    def msiexec(self, *args):
        wine("msiexec.exe", *args, check=False)

    def assert_installed(self):
        for name in ("vantrelo.exe", "README.md", "LICENSES.txt"):
            self.assertTrue((PROGRAM / name).is_file(), name)
        self.assertTrue(CONFIG.is_file())
        image = registry_value(SERVICE_KEY, "ImagePath") or ""
        self.assertIn(r"Vantrelo\vantrelo.exe", image)
        self.assertIn(r'run-service "C:\ProgramData\Vantrelo\vantrelo.conf"', image)
        self.assertEqual(registry_value(SERVICE_KEY, "Start"), "0x2")  # automatic
        self.assertIn(registry_value(SERVICE_KEY, "ObjectName"), (None, "LocalSystem"))
        message_file = registry_value(SOURCE_KEY, "EventMessageFile") or ""
        self.assertTrue(message_file.lower().endswith(r"\vantrelo\vantrelo.exe"), message_file)
        self.assertEqual(registry_value(SOURCE_KEY, "TypesSupported"), "0x7")

    def test_install_upgrade_uninstall(self):
        first, second = self.packages[VERSION], self.packages[self.next_version]
        with self.subTest("install"):
            self.msiexec("/i", windows_path(first), "/qn")
            self.assert_installed()
            self.assertTrue(key_exists(UNINSTALL_KEY + "\\" + product_code(first)))

        # An administrator's configuration survives a reinstall and an upgrade.
        edited = CONFIG.read_bytes() + b"# edited by the administrator\r\n"
        CONFIG.write_bytes(edited)
        with self.subTest("reinstall"):
            self.msiexec("/i", windows_path(first), "/qn", "REINSTALL=ALL", "REINSTALLMODE=vamus")
            self.assert_installed()
            self.assertEqual(CONFIG.read_bytes(), edited)
        with self.subTest("upgrade"):
            self.msiexec("/i", windows_path(second), "/qn")
            self.assert_installed()
            self.assertEqual(CONFIG.read_bytes(), edited)
            self.assertFalse(key_exists(UNINSTALL_KEY + "\\" + product_code(first)),
                             "the old version must be gone, not installed beside the new")
            self.assertTrue(key_exists(UNINSTALL_KEY + "\\" + product_code(second)))

        with self.subTest("uninstall"):
            self.msiexec("/x", windows_path(second), "/qn")
            self.assertFalse((PROGRAM / "vantrelo.exe").exists())
            self.assertFalse(key_exists(SERVICE_KEY))
            self.assertFalse(key_exists(SOURCE_KEY))
            self.assertFalse(key_exists(UNINSTALL_KEY + "\\" + product_code(second)))
            # The configuration (and the saved queue beside it) is the administrator's.
            self.assertEqual(CONFIG.read_bytes(), edited)


if __name__ == "__main__":
    unittest.main()
