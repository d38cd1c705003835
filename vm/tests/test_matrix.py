"""The compatibility matrix: the seven tests on every NIC model QEMU emulates with a UEFI driver
and twenty SpeedTest bursts at the defaults on each, each cell what the tests' definitions give on
that NIC, or a firmware fault the matrix explains."""
import json
import os
import unittest

from vmtest import ROOT, run_command


class CompatibilityMatrix(unittest.TestCase):
    def test_every_model_gives_what_the_tests_define(self):
        done = run_command("matrix")
        self.assertEqual(done.returncode, 0, done.stdout[-3000:] + done.stderr[-2000:])
        self.assertIn("unexpected=0", done.stdout)
        with open(os.path.join(ROOT, "build", "matrix.json")) as f:
            matrix = json.load(f)
        from wcvm import NIC_MODELS
        self.assertEqual(set(matrix["models"]), set(NIC_MODELS))
        self.assertEqual(len(matrix["rows"]), 8)  # seven tests and the twenty bursts
        for row in matrix["rows"]:
            for model, cell in row["cells"].items():
                self.assertIn(cell["verdict"], ("as defined", "explained"), f"{row['test']} on {model}")


if __name__ == "__main__":
    unittest.main()
