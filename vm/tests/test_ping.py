"""pingtest in OVMF on QEMU's user network (restrict=on): DHCP from QEMU, echo replies from 10.0.2.2;
and ping6test there: QEMU's router advertises fec0::/64 and answers echo at fe80::2 and fec0::2."""
import re
import unittest

from vmtest import PASSED, boot, call_blocks, result_line


def failed(code):
    return result_line("Failed", code)


class DefaultNic(unittest.TestCase):
    CALLS = ["-test=pingtest", "-test=pingtest -testrepeats=5", "-test=pingtest -index=2",
             "-test=pingtest -devicepath=NoSuchPath", "-test=pingtest -dhcpping=false",
             "-test=pingtest -index=1 -devicepath=Pci"]
    CALLS6 = ["-test=ping6test", "-test=ping6test -target=fec0::2 -testrepeats=2", "-test=ping6test -index=2"]

    @classmethod
    def setUpClass(cls):
        # Eight pingtest calls in one boot, the handle database compared around each: a call that
        # leaves anything behind shows at once.
        cls.run_ = boot(cls.CALLS + ["-test=pingtest"] * 2 + cls.CALLS6, check_handles=True)
        cls.blocks = call_blocks(cls.run_)
        cls.by_options = dict(cls.blocks)

    def test_ping_passes_and_logs_addresses_and_round_trips(self):
        self.assertIn(PASSED, self.by_options["-test=pingtest"])
        log = self.run_.log
        self.assertIn("Server Address: 10.0.2.2", log)
        self.assertIn("Client Address: 10.0.2.15", log)
        self.assertRegex(log, r"Reply seq 0 from 10\.0\.2\.2: time \d+ us")
        self.assertIn("Receive the packet from IP addr:10.0.2.2", self.run_.output)

    def test_five_repeats_send_five_requests(self):
        lines = self.by_options["-test=pingtest -testrepeats=5"]
        self.assertIn(PASSED, lines)
        self.assertEqual(sum(l == "Receive the packet from IP addr:10.0.2.2" for l in lines), 5)
        seqs = re.findall(r"Reply seq (\d) from", self.run_.log)
        self.assertTrue({"0", "1", "2", "3", "4"} <= set(seqs))

    def test_missing_nic_and_refused_kinds(self):
        self.assertIn(failed(0x80160104), self.by_options["-test=pingtest -index=2"])
        self.assertIn(failed(0x80160104), self.by_options["-test=pingtest -devicepath=NoSuchPath"])
        self.assertIn(failed(0x80160105), self.by_options["-test=pingtest -dhcpping=false"])
        self.assertIn(failed(0x80000002), self.by_options["-test=pingtest -index=1 -devicepath=Pci"])
        # -index=2 stops at once: no retry, no DHCP; -devicepath runs DHCP on NIC 1 first.
        self.assertIn("The NIC is not found!", self.run_.log)
        self.assertIn("The network card you searched is not found!", self.run_.log)

    def test_ping6_gets_its_addresses_from_the_router_and_pings_it(self):
        self.assertIn(PASSED, self.by_options["-test=ping6test"])
        self.assertIn(PASSED, self.by_options["-test=ping6test -target=fec0::2 -testrepeats=2"])
        self.assertIn(failed(0x80160802), self.by_options["-test=ping6test -index=2"])
        log = self.run_.log
        # The NIC starts under the manual policy: the test turns it automatic for its run only.
        self.assertIn("The NIC's IPv6 policy is manual without an address", log)
        self.assertIn("Address fe80::5054:ff:fe12:3456/64: link-local, in use", log)
        self.assertIn("Address fec0::5054:ff:fe12:3456/64: SLAAC, in use", log)
        self.assertRegex(log, r"Router advertisement from fe80::2: router lifetime \d+ s")
        self.assertIn("Prefix fec0::/64: on-link 1, autonomous (SLAAC) 1", log)
        self.assertRegex(log, r"Reply seq 3 from fe80::2: time \d+ us")
        self.assertIn("4 of 4 echo request(s) answered by fe80::2", log)
        # A global target is pinged from the global address.
        self.assertIn("Pinging fec0::2 from fec0::5054:ff:fe12:3456, 2 request(s)", log)

    def test_calls_leave_the_handle_database_unchanged(self):
        handles = [l for _, lines in self.blocks for l in lines if l.startswith("HANDLES ")]
        self.assertEqual(len(handles), len(self.CALLS) + 2 + len(self.CALLS6))
        for line in handles:
            self.assertTrue(line.startswith("HANDLES unchanged"), line)


class OtherNics(unittest.TestCase):
    def test_e1000_rtl8139_and_the_static_policy_by_position(self):
        # OVMF's IPv4 driver runs DHCP by itself when a child asks for the default address of a
        # NIC that has none, even on the static policy: NIC 4 gets its address and passes. (No DHCP
        # server at all is one of the scripted network's faults.)
        run = boot(["-test=pingtest -index=2", "-test=pingtest -index=3", "-test=pingtest -index=4"],
                   nics=[vm_nic("virtio"), vm_nic("e1000"), vm_nic("rtl8139"), vm_nic("virtio:policy=static")])
        self.assertEqual(run.output.count(PASSED), 3, run.output)
        self.assertRegex(run.log, r"the NIC device path:PciRoot\(0x0\)/Pci\(0x3,0x0\)/MAC")
        self.assertRegex(run.log, r"the NIC device path:PciRoot\(0x0\)/Pci\(0x4,0x0\)/MAC")


class UnpluggedCable(unittest.TestCase):
    def test_six_checks_per_attempt_with_the_prompt(self):
        run = boot(["-test=pingtest", "-test=pingtest -retries=1"], nics=[vm_nic("virtio:link=off")],
                   script="prompt ok\nprompt ok\nprompt ok\n")
        blocks = dict(call_blocks(run))
        once, twice = blocks["-test=pingtest"], blocks["-test=pingtest -retries=1"]
        self.assertIn(failed(0x80160107), once)
        self.assertIn(failed(0x80160107), twice)
        self.assertEqual(sum(l.startswith("PROMPT message=25 file=") for l in once), 1)
        self.assertEqual(sum(l.startswith("PROMPT message=25 file=") for l in twice), 2)
        self.assertEqual(twice.count("Retry......"), 1)
        self.assertTrue(any(l.startswith("PromptMessage(380) - 25 - Wirecheck.msg.xml") for l in once))
        self.assertIn("PROMPT message=25 file=\\Wirecheck.msg.xml", once)
        self.assertTrue(any(l.startswith("PROMPT text=Connect a network cable") for l in once))


def vm_nic(text):
    from vmtest import wcvm
    return wcvm.Nic.parse(text)


if __name__ == "__main__":
    unittest.main()
