"""The PCI and MAC address tests on OVMF's PCI root bridge and QEMU's NICs: one boot with a virtio
(52:54:00:12:34:56) and an rtl8139 (52:54:00:12:34:57)."""
import os
import tempfile
import unittest

from vmtest import boot

CALLS = [
    "-test=IRQTest",
    "-test=IRQTest -index=2 -testrepeats=3",
    "-test=IRQTest -DeviceID=8139",
    "-test=IRQTest -DeviceID=0x8139 -index=2",
    "-test=NicSpeedTest",
    "-test=NicSpeedTest -index=3",
    "-test=macaddresstest",
    "-test=macaddresstest -verifyinvalidmacpattern=true -NetworkFile=Bad.ini -retries=1",
    "-test=macaddresstest -verifyinvalidmacpattern=true",
    "-test=macaddresstest -verifyinvalidmacpattern=true -NetworkFile=Bad.ini -DeviceID=8139",
]
INI_FILES = {
    "Network.ini": "[Invalid_MACPattern]\r\nPattern1=52:54:00\r\n",  # the whole text must match
    "Bad.ini": "; the first NIC's address\r\n[invalid_macpattern]\r\nPattern1 = 52:54:00:12:34:56\r\n",
}


class PciTestsInOvmf(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        from wcvm import Nic
        with tempfile.TemporaryDirectory() as work:
            files = []
            for name, text in INI_FILES.items():
                with open(os.path.join(work, name), "w", newline="") as f:
                    f.write(text)
                files.append((os.path.join(work, name), name))
            cls.vm = boot(CALLS, nics=[Nic(model="virtio"), Nic(model="rtl8139")], files=files)

    def result(self, n):
        return self.vm.results[n][:2]

    def test_interrupt_lines_of_both_nics(self):
        self.assertEqual(self.result(0), ("Passed", 0))
        self.assertEqual(self.result(1), ("Passed", 0))
        self.assertIn("PCI Network Handle location at [00:00:02:00]", self.vm.log)
        self.assertRegex(self.vm.log, r"PCI Location\[00:00:03:00\] Interrupt Number [1-9]")

    def test_choice_by_pci_device_id(self):
        self.assertEqual(self.result(2), ("Passed", 0))  # the rtl8139, the second NIC
        self.assertEqual(self.result(3), ("Failed", 0x80160104))  # there is only one

    def test_nic_speed_of_a_nic_the_table_does_not_know(self):
        self.assertEqual(self.vm.results[4], ("Failed", 0x800000FF, "Unsupported"))
        self.assertEqual(self.result(5), ("Failed", 0x80160104))


    def test_mac_addresses_against_the_built_in_checks_and_the_ini_patterns(self):
        self.assertEqual(self.result(6), ("Passed", 0))
        self.assertEqual(self.result(7), ("Failed", 0x80160402))
        self.assertIn('Verify MAC "52:54:00:12:34:56" with regex "52:54:00:12:34:56", Matched = TRUE', self.vm.log)
        self.assertIn("Retry 1 time(s)...", self.vm.log)
        self.assertEqual(self.result(8), ("Passed", 0))
        self.assertEqual(self.result(9), ("Passed", 0))  # the rtl8139's address is not listed


if __name__ == "__main__":
    unittest.main()
