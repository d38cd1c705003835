"""The JUnit files of ./wirecheck matrix and faults, as a firmware engineer's CI reads them (junitparser),
made from rows of the shape the two commands keep in build/matrix.json and build/faults.json."""
import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), ".."))
from wcvm.junit import take_junit, write_faults_junit, write_matrix_junit  # noqa: E402

try:
    import junitparser
except ImportError:  # ./wirecheck test installs Debian's python3-junitparser, which is pure Python
    sys.path.append("/usr/lib/python3/dist-packages")
    try:
        import junitparser
    except ImportError:
        junitparser = None


def read(path):
    cases = []
    for suite in junitparser.JUnitXml.fromfile(path):
        for case in suite:
            kinds = [type(r).__name__ for r in case.result]
            cases.append((case.classname, case.name, kinds[0] if kinds else "passed",
                          case.result[0].message if case.result else ""))
    return cases


@unittest.skipIf(junitparser is None, "python3-junitparser is missing")
class JunitFiles(unittest.TestCase):
    def test_a_case_per_cell_and_an_explained_cell_is_skipped_with_its_reason(self):
        rows = [{"test": "detectcable (cable out)", "cells": {
                    "virtio": {"result": "Passed", "error": 0, "figure": "0 flags", "verdict": "as defined"},
                    "pcnet": {"result": "Passed", "error": 0, "figure": "1 flag", "verdict": "explained",
                              "explanation": "iPXE's pcnet driver never reads the link"}}},
                {"test": "pingtest", "cells": {
                    "virtio": {"result": "Failed", "error": 0x80160101, "figure": "", "verdict": "UNEXPECTED"},
                    "pcnet": {"calls": 20, "figures": 20, "figure": "20 of 20 figures", "verdict": "as defined"}}}]
        with tempfile.TemporaryDirectory() as work:
            path = os.path.join(work, "matrix.xml")
            write_matrix_junit(path, rows)
            cases = read(path)
        self.assertEqual(len(cases), 4)
        self.assertIn(("matrix.pcnet", "detectcable (cable out)", "Skipped",
                       "iPXE's pcnet driver never reads the link"), cases)
        failed = [c for c in cases if c[2] == "Failure"]
        self.assertEqual([(c[0], c[1]) for c in failed], [("matrix.virtio", "pingtest")])
        self.assertIn("Failed 0x80160101", failed[0][3])

    def test_a_case_per_fault_call_and_a_broken_boot_is_an_error(self):
        rows = [{"firmware": "edk2-2022.11", "fault": "no-dhcp", "call": "-test=pingtest", "ok": True,
                 "expected": ["Failed", 0x80160101], "seen": ["Failed", 0x80160101], "seconds": 70},
                {"firmware": "edk2-2022.11", "fault": "dup-reply", "call": "-test=pingtest", "ok": False,
                 "expected": ["Failed", 0x80160102], "seen": ["Passed", 0], "seconds": 5}]
        with tempfile.TemporaryDirectory() as work:
            path = os.path.join(work, "faults.xml")
            write_faults_junit(path, rows, ["flood"])
            cases = read(path)
        self.assertEqual([c[2] for c in cases], ["passed", "Failure", "Error"])
        self.assertEqual(cases[1][3], "expected Failed 0x80160102, seen Passed 0x0")
        self.assertEqual(cases[2][0], "faults.flood")

    def test_the_option_is_taken_from_the_command_line(self):
        self.assertEqual(take_junit(["--junit", "m.xml", "e1000"]), ("m.xml", ["e1000"]))
        self.assertEqual(take_junit(["--junit=m.xml"]), ("m.xml", []))
        self.assertEqual(take_junit(["e1000"]), (None, ["e1000"]))
        with self.assertRaises(ValueError):
            take_junit(["--junit"])


if __name__ == "__main__":
    unittest.main()
