"""detectcable in OVMF: three NICs of three models with the cable in only on the second, a flag
directory holding old flags and things that are not flags, and a machine with no NIC at all."""
import os
import tempfile
import unittest

from vmtest import boot
from wcvm import LAST_DIR, Nic

OLD_FILES = ["flags/Network1.flg", "flags/NETWORK.txt", "flags/network-old", "flags/Net1.flg",
             "flags/Network9.flg/keep.txt"]


class ThreeNics(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as work:
            files = []
            for index, name in enumerate(OLD_FILES):
                local = os.path.join(work, str(index))
                with open(local, "w") as f:
                    f.write("old")
                files.append((local, name))
            cls.vm = boot(["-test=detectcable", "-test=detectcable -flagfiledir=\\new\\deep -flagfilename=Nic"],
                          nics=[Nic(model="virtio", link=False), Nic(model="e1000"),
                                Nic(model="rtl8139", link=False)],
                          files=files)

    def listing(self, directory):
        root = os.path.join(LAST_DIR, directory)
        return sorted(os.path.relpath(os.path.join(d, n), root) for d, _, names in os.walk(root) for n in names)

    def test_only_the_cabled_nic_has_a_flag_and_old_flags_are_gone(self):
        self.assertEqual(self.vm.results[0][:2], ("Passed", 0))
        self.assertEqual(self.listing("flags"), ["Net1.flg", "Network2.flg", "Network9.flg/keep.txt"])
        self.assertEqual(os.path.getsize(os.path.join(LAST_DIR, "flags", "Network2.flg")), 0)

    def test_each_controller_is_numbered_once(self):
        for number, present in ((1, 0), (2, 1), (3, 0)):
            self.assertEqual(self.vm.log.count(f"NIC {number} Media Present Status = {present}."), 2)
        self.assertNotIn("NIC 4 Media", self.vm.log)
        self.assertIn("This is not a SNP for MAC layer, Status = Success.", self.vm.log)

    def test_a_missing_directory_is_made_with_its_parents(self):
        self.assertEqual(self.vm.results[1][:2], ("Passed", 0))
        self.assertEqual(self.listing("new"), ["deep/Nic2.flg"])


class NoNic(unittest.TestCase):
    def test_no_nic_fails_with_its_code(self):
        vm = boot(["-test=detectcable", "-test=IRQTest", "-test=macaddresstest"], nics=[])
        self.assertEqual([r[:2] for r in vm.results], [("Failed", 0x80160103)] * 3)


if __name__ == "__main__":
    unittest.main()
