"""interactivenetworktest in OVMF: the menu of NICs (scripted), the gateway path on a static
configuration, the DHCP path, the cable prompts with a cable plugged in during prompt 104 over QMP,
no NIC, and the manager's menu protocols installed in part or not at all. (A network without a DHCP
server is one of the scripted network's faults.)"""
import re
import unittest

from vmtest import boot, call_blocks
from wcvm import Nic

TEST = "-test=interactivenetworktest"


def block_text(vm, index):
    return "\n".join(call_blocks(vm)[index][1])


class MenuGatewayAndDhcpPaths(unittest.TestCase):
    """A virtio NIC with a static configuration whose gateway answers, an e1000 whose configured
    gateway does not; six gateway-path runs watched by the handle check (opens unchanged around
    each; handle and protocol counts may move by one, so a leak per run shows well within six), then
    the DHCP path, the cancel entry and the French menu."""
    REPEATS = 6

    @classmethod
    def setUpClass(cls):
        nics = [Nic.parse("virtio:ip=10.0.2.15/24,gw=10.0.2.2"), Nic.parse("e1000:ip=10.0.2.15/24,gw=10.0.2.9")]
        calls = [TEST] * (cls.REPEATS + 2) + [TEST + " -Lang=fra"]
        script = "menu 1\n" * cls.REPEATS + "menu 2\nmenu cancel\nmenu cancel\n"
        cls.vm = boot(calls, nics=nics, script=script, check_handles=True, timeout=900,
                      shell_after=["ifconfig -l eth1"])

    def test_gateway_path_when_the_configuration_works(self):
        self.assertEqual({r[:2] for r in self.vm.results[:self.REPEATS]}, {("Passed", 0)})
        first = block_text(self.vm, 0)
        self.assertIn("MENU item=2 ", first)
        self.assertRegex(first, r"MENU cancel=Cancel the test")
        self.assertIn("Network is configured correctly.", self.vm.log)
        self.assertIn("Remote IP Address: 10.0.2.2", self.vm.log)

    def test_dhcp_path_when_the_gateway_is_silent(self):
        self.assertEqual(self.vm.results[self.REPEATS][:2], ("Passed", 0))
        self.assertIn("Selected NIC Device: 52:54:00:12:34:57", self.vm.log)
        self.assertIn("Failed to try to ping gateway ip!", self.vm.log)
        self.assertIn("Network not configured correctly, starting configure with DHCP...", self.vm.log)
        # The e1000 ends on the DHCP policy (as every NIC does).
        self.assertRegex(self.vm.serial, r"(?s)name\s*:\s*eth1\s.*?policy\s*:\s*dhcp")

    def test_cancel_entry_and_french_menu(self):
        self.assertEqual(self.vm.results[self.REPEATS + 1][:2], ("Cancelled", 0x80000001))
        french = block_text(self.vm, self.REPEATS + 2)
        self.assertEqual(self.vm.results[self.REPEATS + 2][:2], ("Cancelled", 0x80000001))
        self.assertIn("MENU title=Sélectionnez la carte réseau à tester", french)
        self.assertIn("MENU cancel=Annuler le test", french)

    def test_repeated_runs_leave_the_handle_database_unchanged(self):
        counts = [[int(v) for v in m.groups()] for m in re.finditer(
            r"HANDLES \w+ handles=(\d+)/(\d+) protocols=(\d+)/(\d+) opens=(\d+)/(\d+)", self.vm.output)]
        self.assertEqual([c for c in counts if c[4] != c[5]], [])
        first, last = counts[1], counts[self.REPEATS - 1]
        self.assertLessEqual(abs(last[1] - first[0]), 1, counts)
        self.assertLessEqual(abs(last[3] - first[2]), 1, counts)


class CablePrompts(unittest.TestCase):
    """An rtl8139 with a static configuration whose cable is plugged in while prompt 104 shows and a
    virtio without cable, on the console menu alone. (The plugged NIC proves itself through its
    gateway here; a cable plugged in on the firmware's DHCP policy is the plug test's.)"""

    @classmethod
    def setUpClass(cls):
        nics = [Nic.parse("rtl8139:link=off,plug=104,ip=10.0.2.15/24,gw=10.0.2.2"), Nic.parse("virtio:link=off")]
        script = "menu 1\nmenu 2\nmenu 2\nprompt ok\nprompt abort\nprompt ok\nprompt ok\n"
        cls.vm = boot([TEST] * 3, nics=nics, script=script, ui="console", timeout=600)

    def test_cable_plugged_in_during_prompt_104(self):
        self.assertEqual(self.vm.results[0][:2], ("Passed", 0))
        self.assertIn("PROMPT message=104", block_text(self.vm, 0))
        self.assertIn("Network cable detected!", self.vm.log)

    def test_no_cable(self):
        self.assertEqual(self.vm.results[1][:2], ("Cancelled", 0x80000001))  # prompt 104 aborted
        self.assertEqual(self.vm.results[2][:2], ("Warning", 0x80160301))
        self.assertIn("PROMPT message=105", block_text(self.vm, 2))


class OneNicOnDhcpAndWithoutMenusOrNics(unittest.TestCase):
    def test_one_nic_on_the_dhcp_policy_takes_the_dhcp_path(self):
        vm = boot([TEST], ui="console")  # one virtio, the firmware's DHCP policy: no gateway route
        self.assertEqual(vm.results[0][:2], ("Passed", 0))
        self.assertNotIn("MENU ", vm.output)  # one NIC: no menu
        self.assertRegex(vm.log, r"Selected NIC Device: 52:54:00:12:34:56")
        self.assertIn("Network not configured correctly, starting configure with DHCP...", vm.log)
        self.assertIn("Remote IP Address: 10.0.2.2", vm.log)
        self.assertEqual(vm.output.count("Receive Packet......"), 3)  # the DHCP server, pinged three times

    def test_no_menu_protocol_and_no_nic(self):
        vm = boot([TEST], ui="none")
        self.assertEqual(vm.results[0][:2], ("Failed", 0x800000FF))
        self.assertIn("Failed Locating ConsoleLibProtocol!", vm.log)
        vm = boot([TEST], nics=[], ui="console", script="prompt ok\n")
        self.assertEqual(vm.results[0][:2], ("Failed", 0x80160103))
        self.assertIn("PROMPT message=101", vm.output)


if __name__ == "__main__":
    unittest.main()
