"""The compatibility matrix: the eight tests on every NIC model QEMU emulates with a UEFI driver,
twenty SpeedTest bursts at the defaults and the cable-out rows on each, each cell what the tests'
definitions give on that NIC, or a firmware fault the matrix explains."""
import json
import os
import tempfile
import unittest
from unittest import mock

from vmtest import ROOT, run_command


# The thirteen eepro100-family models share one option ROM (efi-eepro100.rom) and give the same
# cell in every row on every generation (./wirecheck matrix --firmware all); the suite boots one of
# them, the newest, and ./wirecheck matrix all thirteen.
EEPRO100_IN_SUITE = ("i82801",)


def suite_models():
    from wcvm import NIC_MODELS
    return [m for m in NIC_MODELS if not m.startswith("i8") or m in EEPRO100_IN_SUITE]


class CompatibilityMatrix(unittest.TestCase):
    def test_every_model_gives_what_the_tests_define(self):
        # Two boots at a time: every cell's verdict holds under the other boot's load.
        done = run_command("matrix", "--jobs", "2", *suite_models())
        self.assertEqual(done.returncode, 0, done.stdout[-3000:] + done.stderr[-2000:])
        self.assertIn("unexpected=0", done.stdout)
        with open(os.path.join(ROOT, "build", "matrix.json")) as f:
            matrix = json.load(f)
        self.assertEqual(set(matrix["models"]), set(suite_models()))
        # Nine tests, the twenty bursts, detectcable, pingtest and ping6test with the cables out, a cable
        # plugged in, and virtio's cables out beside its iPXE twin, whose driver then serves both NICs.
        self.assertEqual(len(matrix["rows"]), 15)
        download = next(r for r in matrix["rows"] if r["test"] == "downloadtest")
        # pcnet's ROM may stall the transfer (explained); every other model fetches the file.
        self.assertTrue(all((c["verdict"] == "as defined" or m == "pcnet" and c["verdict"] == "explained")
                            and c["figure"].endswith("Mbit/s") for m, c in download["cells"].items()), download)
        ping6 = next(r for r in matrix["rows"] if r["test"] == "ping6test")
        self.assertTrue(all(c["verdict"] == "as defined" for c in ping6["cells"].values()), ping6)
        mixed = next(r for r in matrix["rows"] if r["test"] == "detectcable, cables out, beside its iPXE twin")
        self.assertEqual(mixed["cells"]["virtio"]["verdict"], "explained")
        self.assertEqual(mixed["cells"]["virtio"]["flags"], 2)
        self.assertEqual(mixed["cells"]["e1000"]["verdict"], "n/a")
        for row in matrix["rows"]:
            for model, cell in row["cells"].items():
                self.assertIn(cell["verdict"], ("as defined", "explained", "n/a"), f"{row['test']} on {model}")

    def test_a_boot_that_stops_answering_keeps_the_calls_it_finished(self):
        # No VM: the boot is what the runner hands back when the VM went silent after six bursts.
        from wcvm import HarnessError, VmRun, matrix
        from wcvm.firmware import default
        from wcvm.matrixrows import EXPECTED, SPEED_ROW
        from wcvm.matrixwhy import verdict
        firmware = default()
        calls = [options for _, options, *_ in matrix.RUN_ORDER] + ["-test=SpeedTest"] * 6
        log = "".join(f"CALL options='{c}'\nspeed is 700 Mbit/s\n" for c in calls)
        results = [EXPECTED[test] for test, *_ in matrix.RUN_ORDER] + [("Passed", 0, "Success")] * 6
        partial = VmRun(serial="", output="", log=log, results=results, files_dir="", elapsed=60)
        silent = HarnessError("the VM printed nothing for 45 s", partial)
        with tempfile.TemporaryDirectory() as work, mock.patch.object(matrix, "run_vm", side_effect=silent):
            for model, expected in (("virtio-ipxe", "explained"), ("virtio", "UNEXPECTED")):
                os.makedirs(os.path.join(work, model, "flags"))
                open(os.path.join(work, model, "flags", "Network1.flg"), "w").close()
                cells = matrix.run_model(model, work, firmware)
                for test, *_ in matrix.RUN_ORDER:
                    self.assertEqual(verdict(firmware, model, test, cells[test]), "as defined", test)
                burst = cells[SPEED_ROW]
                self.assertEqual((burst["calls"], burst["figures"]), (6, 6))
                self.assertIn("then no answer: the VM printed nothing", burst["figure"])
                self.assertEqual(verdict(firmware, model, SPEED_ROW, burst), expected, model)

    def test_a_flag_for_an_unplugged_nic_is_a_fault_unless_the_driver_is_known_blind(self):
        # No VM: both unplugged NICs reported media present, so detectcable left two flags.
        from wcvm import VmRun, matrix
        from wcvm.firmware import default
        from wcvm.matrixrows import CABLE_OUT, CABLE_PLUGGED, CABLE_STAYS_OUT
        from wcvm.matrixwhy import verdict
        firmware = default()

        def two_flags(cfg):
            os.makedirs(os.path.join(cfg.last_dir, "flags"))
            for n in (1, 2):
                open(os.path.join(cfg.last_dir, "flags", f"Network{n}.flg"), "w").close()
            results = [("Passed", 0, "Success"), ("Passed", 0, "Success"), ("Failed", 0x80160101, "Success")]
            return VmRun(serial="", output="", log="", results=results[:len(cfg.calls)], files_dir="", elapsed=30)
        with tempfile.TemporaryDirectory() as work, mock.patch.object(matrix, "run_vm", side_effect=two_flags):
            seeing = matrix.run_cable_model("virtio", work, firmware)
            blind = matrix.run_cable_model("ne2k_pci", work, firmware)
        self.assertEqual(verdict(firmware, "virtio", CABLE_OUT, seeing[CABLE_OUT]), "UNEXPECTED")
        self.assertEqual(verdict(firmware, "virtio", CABLE_STAYS_OUT, seeing[CABLE_STAYS_OUT]),
                         "UNEXPECTED")
        for row in (CABLE_OUT, CABLE_PLUGGED, CABLE_STAYS_OUT):
            self.assertEqual(verdict(firmware, "ne2k_pci", row, blind[row]), "explained", row)
        self.assertTrue(blind[CABLE_PLUGGED].get("not_run"))
        # pcnet's download is explained only by the stall its ROM gives, nothing else.
        stall = {"result": "Failed", "error": 0x80160909, "status": "Success", "figure": ""}
        self.assertEqual(verdict(firmware, "pcnet", "downloadtest", stall), "explained")
        self.assertEqual(verdict(firmware, "e1000", "downloadtest", stall), "UNEXPECTED")
        self.assertEqual(verdict(firmware, "pcnet", "downloadtest", {**stall, "error": 0x8016090A}),
                         "UNEXPECTED")


if __name__ == "__main__":
    unittest.main()
