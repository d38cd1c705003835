"""The module in real firmware: loading, both protocol layouts, run times, dispatch and unload."""
import os
import struct
import unittest

from vmtest import PASSED, REFUSED, VERSION, boot, call_blocks

from wcvm.arch import ARCHES  # noqa: E402 (vmtest puts the runner on the path)


def pe_header(path):
    with open(path, "rb") as f:
        data = f.read(4096)
    offset = struct.unpack_from("<I", data, 0x3C)[0]
    assert data[offset:offset + 4] == b"PE\0\0"
    machine = struct.unpack_from("<H", data, offset + 4)[0]
    magic, = struct.unpack_from("<H", data, offset + 24)
    subsystem, = struct.unpack_from("<H", data, offset + 24 + 68)
    return machine, magic, subsystem


class Images(unittest.TestCase):
    def test_images_are_pe32plus_for_each_processor_with_their_subsystems(self):
        for arch, machine_type in (("x86_64", 0x8664), ("aarch64", 0xAA64)):
            for name, subsystem in (("Wirecheck.efi", 11), ("VexRun.efi", 10)):
                with self.subTest(arch=arch, image=name):
                    machine, magic, sub = pe_header(os.path.join(ARCHES[arch].efi_dir, name))
                    self.assertEqual(machine, machine_type)
                    self.assertEqual(magic, 0x20B)  # PE32+
                    self.assertEqual(sub, subsystem)


class CurrentLayout(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.run_ = boot(["-test=interactivenetworktest", "-test=pingtest", "-version", "-test=nosuch",
                         "-test=pingtest -retries=9"])
        cls.blocks = dict(call_blocks(cls.run_))

    def test_module_loads_and_names_itself(self):
        out = self.run_.output
        self.assertIn("LOAD module=Wirecheck.efi status=Success", out)
        self.assertIn("PROTOCOLS current=yes old=yes layout=current", out)
        major, minor = VERSION.split()[0].split(".")
        self.assertIn(f'MODULE name=Wirecheck version={int(major)}.{int(minor)} build=""', out)

    def test_run_times(self):
        self.assertIn("RUNTIME runtime=60 result=Passed error=0x0 status=Success",
                      self.blocks["-test=interactivenetworktest"])
        self.assertIn("RUNTIME runtime=10 result=Passed error=0x0 status=Success", self.blocks["-test=pingtest"])
        self.assertIn("RUNTIME runtime=0 result=Passed error=0x0 status=Success", self.blocks["-version"])

    def test_every_execute_call_reports_one_result(self):
        self.assertEqual(len(self.run_.results), 5)
        for options, lines in self.blocks.items():
            self.assertEqual(sum(l.startswith("RESULT ") for l in lines), 1, options)

    def test_answered_and_refused_strings(self):
        self.assertIn(f"Wirecheck Version {VERSION}", self.blocks["-version"])
        self.assertIn(PASSED, self.blocks["-version"])
        self.assertIn(REFUSED, self.blocks["-test=nosuch"])
        refused = self.blocks["-test=pingtest -retries=9"]
        self.assertIn(REFUSED, refused)
        # The console switch is off after -version: the error reaches the manager's log only.
        self.assertIn("Option -retries argument should be below maximum value of 5", self.run_.log)

    def test_unload_removes_the_protocols(self):
        self.assertIn("UNLOAD status=Success protocols=removed", self.run_.output)
        self.assertIn(f"Starting Wirecheck.vex version {VERSION}", self.run_.log)


class OldLayout(unittest.TestCase):
    def test_old_layout_gives_the_same_answers(self):
        run = boot(["-test=interactivenetworktest", "-test=detectcable -bogus"], old_layout=True)
        blocks = dict(call_blocks(run))
        self.assertIn("PROTOCOLS current=yes old=yes layout=old", run.output)
        self.assertIn("RUNTIME runtime=60 status=Success", blocks["-test=interactivenetworktest"])
        self.assertIn(REFUSED, blocks["-test=detectcable -bogus"])
        self.assertIn("VexGetTestRunTime() returns result 3 with error code 0x80000002", run.log)
        self.assertIn("UNLOAD status=Success protocols=removed", run.output)


if __name__ == "__main__":
    unittest.main()
