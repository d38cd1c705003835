"""The PCI tests on OVMF's PCI root bridge and QEMU's NICs: one boot with a virtio and an rtl8139."""
import unittest

from vmtest import boot

CALLS = [
    "-test=IRQTest",
    "-test=IRQTest -index=2 -testrepeats=3",
    "-test=IRQTest -DeviceID=8139",
    "-test=IRQTest -DeviceID=0x8139 -index=2",
    "-test=NicSpeedTest",
    "-test=NicSpeedTest -index=3",
]


class PciTestsInOvmf(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        from wcvm import Nic
        cls.vm = boot(CALLS, nics=[Nic(model="virtio"), Nic(model="rtl8139")])

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


if __name__ == "__main__":
    unittest.main()
