"""The compatibility matrix: the seven tests on every NIC model QEMU emulates with a UEFI driver,
twenty SpeedTest bursts at the defaults on each, each cell what the tests' definitions give on that NIC, or a firmware fault the matrix explains."""
import json
import os
import subprocess
import sys
import unittest

VM_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROOT = os.path.dirname(VM_DIR)
sys.path.insert(0, VM_DIR)


class CompatibilityMatrix(unittest.TestCase):
    def test_every_model_gives_what_the_tests_define(self):
        env = dict(os.environ, PYTHONPATH=VM_DIR)
        done = subprocess.run([sys.executable, "-m", "wcvm", "matrix"], env=env, capture_output=True, text=True,
                              timeout=900)
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
