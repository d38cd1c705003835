"""The firmware a run boots: a firmware engineer's own files, Debian's 2025 generation (fetched from
Debian's archive into build/firmware the first time), and the field case of a firmware without a
random-number generator, whose network stack does not start."""
import os
import shutil
import subprocess
import tempfile
import unittest

from vmtest import RUNNER, boot

import wcvm  # noqa: E402 (vmtest puts the runner on the path)
from wcvm.firmware import GENERATIONS, resolve  # noqa: E402

PING = "-test=pingtest"
INTERACTIVE = "-test=interactivenetworktest"


def run_runner(*args):
    return subprocess.run(RUNNER + list(args), capture_output=True, text=True, timeout=600,
                          stdin=subprocess.DEVNULL)


class OwnBuild(unittest.TestCase):
    def test_a_bad_file_gets_one_clear_line_and_exit_2(self):
        with tempfile.TemporaryDirectory() as work:
            not_a_volume = os.path.join(work, "OVMF_CODE.fd")
            with open(not_a_volume, "wb") as f:
                f.write(bytes(4096))
            truncated = os.path.join(work, "OVMF_CUT.fd")
            with open(GENERATIONS["edk2-2022.11"].code, "rb") as f, open(truncated, "wb") as cut:
                cut.write(f.read(300000))
            for spec, words in ((os.path.join(work, "missing.fd"), "no such file"),
                                (not_a_volume, "is not a UEFI firmware volume"),
                                (truncated, "is cut short"),
                                ("edk2-1999.01", "not one of")):
                with self.subTest(spec=spec):
                    done = run_runner("--firmware", spec, PING)
                    self.assertEqual(done.returncode, 2, done.stderr)
                    self.assertEqual(len(done.stderr.strip().splitlines()), 1, done.stderr)
                    self.assertIn(words, done.stderr)
                    self.assertNotIn("RESULT", done.stdout)

    def test_copies_of_a_generation_give_what_its_name_gives(self):
        default = GENERATIONS["edk2-2022.11"]
        with tempfile.TemporaryDirectory() as work:
            code, vars_ = os.path.join(work, "CODE.fd"), os.path.join(work, "VARS.fd")
            shutil.copy(default.code, code)
            shutil.copy(default.vars, vars_)
            done = run_runner("--firmware", f"{code},{vars_}", "--", PING, "-test=detectcable")
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertEqual(done.stdout.count("RESULT result=Passed"), 2, done.stdout)


class Generation2025WithoutRng(unittest.TestCase):
    """EDK2 2025.02 (Debian 13): the network stack needs a random-number generator, which the VM has
    unless --no-rng takes it away (with one, test_generation_2025 runs every test there)."""

    def test_no_nic_and_the_log_names_why(self):
        # The interactive test tells the operator that it found no NIC (prompt 101).
        without = boot([PING, INTERACTIVE], firmware=resolve("edk2-2025.02", rng=False), script="prompt ok\n")
        self.assertEqual([r[:2] for r in without.results], [("Failed", 0x80160103)] * 2)
        for options, lines in wcvm.call_blocks(without.log):
            with self.subTest(options=options):
                self.assertTrue(any("no random-number generator (EFI_RNG_PROTOCOL)" in l for l in lines),
                                "\n".join(lines))


if __name__ == "__main__":
    unittest.main()
