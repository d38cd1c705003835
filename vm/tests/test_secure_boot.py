"""Secure Boot: OVMF's Secure Boot build with Debian's test key enrolled (PK, KEK and db). A stick
signed with that key runs its calls; an unsigned one is refused by the firmware; a stick whose
Wirecheck.efi changed after signing starts VexRun, which reports the refusal and powers off."""
import json
import os
import subprocess
import tempfile
import unittest

from vmtest import PASSED, RUNNER, wcvm
from wcvm.config import TEST_CERT, TEST_KEY
from wcvm.firmware import test_signing_key
from wcvm.disk import IMAGE_OFFSET

CALLS = ["-test=pingtest", "-version"]


class SecureBoot(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.TemporaryDirectory()
        cls.key, _ = test_signing_key(cls.work.name)

    @classmethod
    def tearDownClass(cls):
        cls.work.cleanup()

    def image(self, name, sign=True):
        path = os.path.join(self.work.name, name)
        words = ["image", path] + (["--sign", self.key, "--cert", TEST_CERT] if sign else []) + ["--"] + CALLS
        made = subprocess.run(RUNNER + words, capture_output=True, text=True)
        self.assertEqual(made.returncode, 0, made.stderr)
        return path

    def test_run_secure_boot_runs_the_calls_from_a_signed_stick(self):
        # ./wirecheck run signs a stick with the test key and boots it (test_front boots a signed
        # menu stick of ./wirecheck image).
        done = subprocess.run(RUNNER + ["--secure-boot", "--"] + CALLS, capture_output=True, text=True, timeout=300)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout.count(PASSED), 2, done.stdout)
        self.assertIn("Receive the packet from IP addr:10.0.2.2", done.stdout)
        # An encrypted key would make sbsign ask for its passphrase: refused with a clear line instead.
        refused = subprocess.run(RUNNER + ["image", os.path.join(self.work.name, "x.img"), "--sign", TEST_KEY,
                                           "--cert", TEST_CERT, "-version"], capture_output=True, text=True)
        self.assertEqual(refused.returncode, 2)
        self.assertIn("is encrypted", refused.stderr)

    def test_the_firmware_refuses_an_unsigned_stick(self):
        with self.assertRaises(wcvm.HarnessError) as caught:
            wcvm.run_vm(wcvm.VmConfig(image=self.image("unsigned.img", sign=False), secure_boot=True, timeout=120))
        self.assertIn("the firmware booted nothing", str(caught.exception))
        self.assertIn("Access Denied", str(caught.exception))
        self.assertIn("--sign KEY --cert CERT", str(caught.exception))

    def test_a_module_changed_after_signing_is_reported_and_the_machine_powers_off(self):
        image = self.image("altered.img")
        part = f"{image}@@{IMAGE_OFFSET}"
        module = os.path.join(self.work.name, "Wirecheck.efi")
        subprocess.run(["mcopy", "-o", "-i", part, "::/EFI/BOOT/Wirecheck.efi", module], check=True)
        with open(module, "r+b") as f:  # one byte of code, past the headers the signature covers too
            f.seek(0x2000)
            byte = f.read(1)
            f.seek(0x2000)
            f.write(bytes([byte[0] ^ 0xFF]))
        subprocess.run(["mcopy", "-o", "-i", part, module, "::/EFI/BOOT/Wirecheck.efi"], check=True)
        run = wcvm.run_vm(wcvm.VmConfig(image=image, secure_boot=True, timeout=120))  # powers off by itself
        # OVMF's image verification denies an image whose signature does not match (Access Denied);
        # Security Violation would be its deferred case, which this policy does not use.
        self.assertIn("LOAD module=Wirecheck.efi status=Access Denied", run.output)
        self.assertIn("VexRun: the firmware refused Wirecheck.efi (Access Denied)", run.output)
        self.assertIn("VEXRUN END status=Access Denied", run.output)
        self.assertIn("LOAD module=Wirecheck.efi status=Access Denied", wcvm.read_image_file(image, "results.txt"))
        report = json.loads(wcvm.read_image_file(image, "results.json"))
        self.assertEqual([(c["options"], c["result"], c["status"]) for c in report["cases"]],
                         [(call, "InProgress", "Access Denied") for call in CALLS])


if __name__ == "__main__":
    unittest.main()
