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


class BridgeAndTwinNics(unittest.TestCase):
    """Two e1000s (PCI device ID 100E), the first behind a PCIe root port; the network INI file
    rates the e1000 and holds a malformed row."""

    @classmethod
    def setUpClass(cls):
        from wcvm import Nic
        with tempfile.TemporaryDirectory() as work:
            ini = os.path.join(work, "Network.ini")
            with open(ini, "w", newline="") as f:
                f.write("[NIC_Speed]\r\n8086:100e=0x80000003\r\n8086=3\r\n")
            cls.vm = boot(["-test=IRQTest", "-test=IRQTest -index=2", "-test=NicSpeedTest -testrepeats=3",
                           "-test=macaddresstest -DeviceID=100e -index=2 -debug",
                           "-test=macaddresstest -DeviceID=1234",
                           "-test=macaddresstest -verifyinvalidmacpattern=true -NetworkFile=none.ini",
                           "-test=NicSpeedTest -NetworkSpeed=1001"],
                          nics=[Nic(model="e1000", bridge=True), Nic(model="e1000")], files=[(ini, "Network.ini")])

    def test_a_nic_behind_a_bridge_is_located_at_its_own_function(self):
        self.assertEqual([r[:2] for r in self.vm.results[:2]], [("Passed", 0)] * 2)
        self.assertIn("PCI Network Handle location at [00:01:00:00]", self.vm.log)  # bus 1, below the port
        self.assertIn("PCI Network Handle location at [00:00:03:00]", self.vm.log)

    def test_nic_speed_of_a_nic_the_ini_file_rates(self):
        self.assertEqual(self.vm.results[2], ("Passed", 0, "Success"))
        self.assertIn("Network.ini [NIC_Speed]: 8086:100E rated 0x80000003", self.vm.log)
        self.assertIn('Network.ini [NIC_Speed]: skipping "8086=3", not VVVV:DDDD=MASK', self.vm.log)
        # Read once per call however many checks (three in the first call), its header not a row.
        self.assertEqual(self.vm.log.count('skipping "8086=3"'), 2)
        self.assertNotIn('skipping "[NIC_Speed]"', self.vm.log)
        self.assertEqual(self.vm.results[6], ("Failed", 0x80160601, "Success"))

    def test_mac_test_chooses_by_device_id_and_index(self):
        self.assertEqual(self.vm.results[3][:2], ("Passed", 0))
        self.assertIn("52-54-0-12-34-57", self.vm.output)  # the second e1000's address was read
        self.assertEqual(self.vm.results[4][:2], ("Failed", 0x80160104))
        self.assertEqual(self.vm.results[5], ("InProgress", 0, "Not Found"))  # the INI file's load error


class RepeatedCallsLeaveNoTrace(unittest.TestCase):
    def test_twenty_calls_of_each_test_leave_the_handle_database_unchanged(self):
        import re
        tests = ["-test=detectcable", "-test=macaddresstest -verifyinvalidmacpattern=true", "-test=IRQTest",
                 "-test=NicSpeedTest"]
        calls = tests * 21
        vm = boot(calls, check_handles=True, timeout=600)
        counts = []
        for line in vm.output.splitlines():
            m = re.match(r"HANDLES \w+ handles=(\d+)/(\d+) protocols=(\d+)/(\d+) opens=(\d+)/(\d+)", line)
            if m:
                counts.append([int(v) for v in m.groups()])
        self.assertEqual(len(counts), len(calls))
        # No call leaves an open protocol with the module as agent.
        self.assertEqual([c for c in counts if c[4] != c[5]], [])
        # The firmware's own background work (its DHCP and IPv6 clients) adds and removes a child now
        # and then; what the module leaves would grow with the calls. After a first call of each
        # test, eighty calls end where they began.
        first, last = counts[len(tests)], counts[-1]
        self.assertLessEqual(abs(last[1] - first[0]), 1, counts)
        self.assertLessEqual(abs(last[3] - first[2]), 1, counts)


if __name__ == "__main__":
    unittest.main()
