"""Verdicts on a network that misbehaves: the scripted peer's fault plans against pingtest, the
interactive test and SpeedTest (./wirecheck faults), a capture showing the peer's DHCP exchange and
its faulty replies on the wire, and a peer that dies ending the run with a clear line."""
import json
import os
import re
import subprocess
import tempfile
import unittest

from vmtest import ROOT, boot, run_command
from wcvm import HarnessError, Nic, call_blocks, read_pcap


def troubleshooting_codes():
    """The error codes the troubleshooting guide's table explains."""
    with open(os.path.join(ROOT, "docs", "troubleshooting.md")) as f:
        text = f.read()
    table = text[text.index("# Troubleshooting"):]
    table = table[:table.index("\n\n", table.index("| Code |"))]
    return {int(code, 16) for code in re.findall(r"^\| (0x[0-9A-F]{8})", table, re.M)}


class FaultTable(unittest.TestCase):
    def test_every_fault_gives_its_defined_verdict_in_time(self):
        done = run_command("faults")
        self.assertEqual(done.returncode, 0, done.stdout[-4000:] + done.stderr[-2000:])
        with open(os.path.join(ROOT, "build", "faults.json")) as f:
            table = json.load(f)
        from wcvm.faults import CASES
        self.assertEqual(set(table["faults"]), set(CASES))
        self.assertEqual([r for r in table["rows"] if not r["ok"]], [])
        # No false pass: every call expected to fail failed.
        self.assertEqual([r for r in table["rows"] if r["expected"][0] != "Passed" and r["seen"][0] == "Passed"], [])
        # Every code a fault ends in has its row in the troubleshooting guide's table.
        self.assertEqual(sorted({r["seen"][1] for r in table["rows"]} - {0} - troubleshooting_codes()), [])
        folders = os.listdir(os.path.join(ROOT, "build", "faults"))
        no_dhcp = next(f for f in folders if "no-dhcp" in f.split("+"))
        self.check_the_address_waits(os.path.join(ROOT, "build", "faults", no_dhcp))

    def check_the_address_waits(self, files):
        """No DHCP server: pingtest's second look after its wait, and the interactive test's wait
        reported as progress and ended with its prompt."""
        with open(os.path.join(files, "VexRun.log"), errors="replace") as f:
            self.assertIn("EFI IP4 Protocol Mapping error again.", f.read())
        with open(os.path.join(files, "VexRun.out"), errors="replace") as f:
            blocks = call_blocks(f.read())
        # The boot has a NIC per fault: the interactive call on the NIC without a DHCP server is the one
        # that waited and prompted.
        waited = [lines for options, lines in blocks if options == "-test=interactivenetworktest"
                  and any("PROMPT message=106 file=\\Wirecheck.msg.xml" in line for line in lines)]
        self.assertTrue(waited, "no interactive call prompted 106")
        waits = [int(m.group(1)) for line in waited[0] for m in [re.search(r"PROGRESS \[[#.]+\]\s+(\d+)%", line)] if m]
        self.assertTrue(any(30 < p < 60 for p in waits), waits)


class ThePeerIsOnTheWire(unittest.TestCase):
    def test_capture_shows_the_dhcp_exchange_and_the_faulty_replies(self):
        with tempfile.TemporaryDirectory() as work:
            dump = os.path.join(work, "peer.pcap")
            vm = boot(["-test=pingtest"], nics=[Nic(model="e1000", peer="wrong-id", dump=dump)])
            frames = read_pcap(dump)
        self.assertEqual(vm.results[0][:2], ("Failed", 0x80160102))
        udp = [d for _, _, d in frames if d[12:14] == b"\x08\x00" and d[23] == 17]
        self.assertTrue(any(d[34:36] == b"\x00\x44" and d[36:38] == b"\x00\x43" for d in udp))  # client -> server
        self.assertTrue(any(d[34:36] == b"\x00\x43" and d[36:38] == b"\x00\x44" for d in udp))  # server -> client
        replies = [d for _, _, d in frames if d[12:14] == b"\x08\x00" and d[23] == 1 and d[34] == 0]
        self.assertTrue(replies)
        self.assertTrue(all(d[38:40] != b"\x00\x00" for d in replies))  # identifier not the module's 0

    def test_a_peer_that_dies_ends_the_run_with_a_clear_line(self):
        # A fault plan the peer does not know makes it exit at once, before QEMU can connect.
        nic = Nic(model="e1000", peer="no-such-plan")
        with self.assertRaises(HarnessError) as caught:
            boot(["-test=pingtest"], nics=[nic], timeout=60)
        self.assertIn("the network peer of NIC 1 did not start", str(caught.exception))

        # A peer killed while the module runs: the run ends at once and says so.
        def kill_peer(line):
            if line.startswith("CALL options="):
                subprocess.run(["pkill", "-P", str(os.getpid()), "-f", "wcvm.peer"], check=False)
        with self.assertRaises(HarnessError) as caught:
            boot(["-test=pingtest"], nics=[Nic(model="e1000", peer="none")], on_line=kill_peer, timeout=120)
        self.assertIn("the network peer of NIC 1 stopped during the run", str(caught.exception))
        # What the VM's disk held is kept for diagnosis, beside the serial and peer logs.
        kept = os.listdir(caught.exception.partial.files_dir)
        self.assertTrue({"serial.log", "peer-1.log", "Wirecheck.efi", "calls.txt"} <= set(kept), kept)


if __name__ == "__main__":
    unittest.main()
