"""AArch64: Debian's AAVMF on QEMU's virt machine, TCG. A reduced set, three boots: every test (the
download from a file the user network serves) with the second NIC's cable plugged in at the prompt,
run as a user runs it on a firmware engineer's own build (the code volume alone and a short variable
store, as EDK2's build writes them); two faults of the scripted peer; and a signed menu stick booted
from USB with Secure Boot on."""
import hashlib
import json
import os
import re
import subprocess
import tempfile
import unittest

from vmtest import RUNNER

import wcvm  # noqa: E402 (vmtest puts the runner on the path)
from wcvm.faults import run_group  # noqa: E402
from wcvm.firmware import AARCH64_GENERATIONS, resolve, test_signing_key  # noqa: E402

# A file the user network serves (http://10.0.2.100/NAME), for the download.
SERVED = bytes(range(256)) * 4096
CALLS = ["-test=pingtest", "-test=SpeedTest -NetworkSpeed=1", "-test=detectcable", "-test=macaddresstest",
         "-test=IRQTest", "-test=NicSpeedTest", "-test=interactivenetworktest", "-test=ping6test",
         f"-test=downloadtest -url=http://10.0.2.100/served.bin -sha256={hashlib.sha256(SERVED).hexdigest()}",
         "-test=pingtest -index=2"]
# The defined results: NicSpeedTest knows no emulated NIC (Unsupported), the rest pass.
EXPECTED = [("Passed", "0x0")] * 5 + [("Failed", "0x800000FF")] + [("Passed", "0x0")] * 4
RESULT = re.compile(r"^RESULT result=(\w+) error=(0x[0-9A-F]+)", re.M)


def own_build(work):
    """What EDK2's ArmVirtQemu build writes, from Debian's 2022.11: the reset vector's page and the
    code volume, and a blank variable store, each shorter than the virt machine's flash."""
    code, vars_ = os.path.join(work, "QEMU_EFI.fd"), os.path.join(work, "QEMU_VARS.fd")
    with open(AARCH64_GENERATIONS["edk2-2022.11"].code, "rb") as f:
        data = f.read()
    volume = int.from_bytes(data[4096 + 32:4096 + 40], "little")
    with open(code, "wb") as f:
        f.write(data[:4096 + volume])
    with open(vars_, "wb") as f:
        f.write(bytes(768 * 1024))
    return f"{code},{vars_}"


class EveryTest(unittest.TestCase):
    def test_every_test_on_an_own_build_and_the_cable_plugged_in_at_the_prompt(self):
        with tempfile.TemporaryDirectory() as work:
            script, served = os.path.join(work, "script.txt"), os.path.join(work, "served.bin")
            with open(script, "w") as f:
                f.write("menu 1\n" + "prompt ok\n" * 3)
            with open(served, "wb") as f:
                f.write(SERVED)
            done = subprocess.run(RUNNER + ["--arch", "aarch64", "--firmware", own_build(work), "--nic", "virtio",
                                            "--nic", "virtio:link=off,plug=25", "--script", script,
                                            "--serve", served, "--"] + CALLS,
                                  capture_output=True, text=True, timeout=600, stdin=subprocess.DEVNULL)
        self.assertEqual([(m.group(1), m.group(2)) for m in RESULT.finditer(done.stdout)], EXPECTED,
                         done.stdout[-3000:] + done.stderr)
        with open(os.path.join(wcvm.LAST_DIR, "VexRun.log"), errors="replace") as f:
            log = f.read()
        with open(os.path.join(wcvm.LAST_DIR, "Debug.log"), errors="replace") as f:
            debug = f.read()
        # The generic timer times the bursts; virt's interrupt line is EDK2's "unknown" and says so.
        self.assertRegex(log, r"speed is [1-9]\d* Mbit/s")
        self.assertIn("Interrupt Number 255\nInterrupt line 0xFF is \"unknown or no connection\"",
                      log.replace("\r", ""))
        # The cable went in when the test asked for it on NIC 2.
        self.assertIn("PROMPT message=25", log)
        # virt publishes SMBIOS 3.0 alone.
        self.assertIn("SMBIOS 3.0 entry point only", debug)


class Faults(unittest.TestCase):
    def test_an_unanswered_ping_and_a_duplicate_address(self):
        with tempfile.TemporaryDirectory() as work:
            rows = run_group(["icmp-drop", "dad"], work, firmware=resolve(arch="aarch64"))
        self.assertEqual([(r["fault"], r["call"], r["ok"]) for r in rows],
                         [("icmp-drop", "-test=pingtest", True), ("icmp-drop", "-test=interactivenetworktest", True),
                          ("dad", "-test=ping6test", True)], rows)


MENU_SCRIPT = """front test pingtest
front run
front test IRQTest
front run
front finish
"""


class Stick(unittest.TestCase):
    def test_a_signed_menu_stick_boots_from_usb_with_secure_boot_and_keeps_its_results(self):
        with tempfile.TemporaryDirectory() as work:
            key, cert = test_signing_key(work)
            script = os.path.join(work, "front.txt")
            with open(script, "w") as f:
                f.write(MENU_SCRIPT)
            image = os.path.join(work, "stick.img")
            made = subprocess.run(RUNNER + ["image", image, "--arch", "aarch64", "--menu", "--script", script,
                                            "--sign", key, "--cert", cert], capture_output=True, text=True,
                                  timeout=120)
            self.assertEqual(made.returncode, 0, made.stderr)
            listing = subprocess.run(["mdir", "-b", "-i", image + "@@1M", "::/EFI/BOOT"], capture_output=True,
                                     text=True)
            self.assertIn("BOOTAA64.EFI", listing.stdout)
            run = wcvm.run_vm(wcvm.VmConfig(image=image, usb_stick=True, secure_boot=True, script=MENU_SCRIPT,
                                            timeout=300, firmware=resolve(arch="aarch64")))
            report = json.loads(wcvm.read_image_file(image, "results.json"))
        self.assertNotIn("startup.nsh", run.serial)
        self.assertIn("FRONT summary calls=2", run.output)
        self.assertEqual([(c["options"], c["result"]) for c in report["cases"]],
                         [("-test=pingtest", "Passed"), ("-test=IRQTest", "Passed")])


if __name__ == "__main__":
    unittest.main()
