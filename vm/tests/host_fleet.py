"""What a fleet run reads back and how it stops, without root or a VM: a row for every machine whatever
happened to it, the JUnit file, and a clean-up that a second Ctrl-C or SIGTERM does not cut short."""
import io
import os
import signal
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), ".."))
from wcvm.fleet import Boot, machines_for  # noqa: E402
from wcvm.fleetreport import fleet_rows, print_table, write_junit  # noqa: E402
from wcvm.namespace import shielded  # noqa: E402

CALLS = ["-test=pingtest", "-test=detectcable"]


class FleetRows(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="wc-fleet-rows-")
        self.addCleanup(lambda: __import__("shutil").rmtree(self.work, ignore_errors=True))
        self.www = os.path.join(self.work, "www")
        self.machines = machines_for(4, 7)

    def server_run(self, machine, name, lines, files=("results.txt", "Debug.log")):
        folder = os.path.join(self.www, "results", machine.uuid, name)
        os.makedirs(folder)
        for f in files:
            with open(os.path.join(folder, f), "w") as out:
                out.write("\n".join(lines) + "\n" if f == "results.txt" else "log\n")

    def serial(self, name, text):
        path = os.path.join(self.work, name)
        with open(path, "w") as f:
            f.write(text)
        return path

    def test_every_machine_has_a_row_that_says_what_happened_to_it(self):
        m1, m2, m3, m4 = self.machines
        self.server_run(m1, "20261126-010000-00001", [
            "RESULT result=Passed error=0x0 status=Success options='-test=pingtest' meaning=\"no error\"",
            "RESULT result=Failed error=0x80160107 status=Success options='-test=detectcable' meaning=\"no cable\""])
        boots = [Boot(m1, 1, self.serial("s1", "VEXRUN DONE"), ended="done"),
                 # Secure Boot asked of a generation without a Secure Boot build: not booted at all.
                 Boot(m2, 1, "", ended="not booted: edk2-2020.11 has no Secure Boot build with Debian's test key "
                                        "enrolled"),
                 Boot(m3, 1, self.serial("s3", "UPLOAD state=failed file=results.txt status=Connection Reset "
                                               "answer=none to=http://x/; the results stay on this machine's disk"),
                      ended="done")]
        rows = fleet_rows(self.www, self.machines, boots, CALLS)
        by_machine = {}
        for r in rows:
            by_machine.setdefault(r["machine"], []).append(r)
        self.assertEqual(set(by_machine), {m.uuid for m in self.machines})
        self.assertEqual([r["result"] for r in by_machine[m1.uuid]], ["Passed", "Failed"])
        self.assertEqual(by_machine[m1.uuid][0]["upload"], "complete")
        self.assertIn("no Secure Boot build", by_machine[m2.uuid][0]["upload"])
        self.assertIn("Connection Reset", by_machine[m3.uuid][0]["upload"])
        self.assertIn("not booted", by_machine[m4.uuid][0]["upload"])
        table = io.StringIO()
        print_table(rows, table)
        self.assertEqual(len(table.getvalue().splitlines()), 1 + len(rows))
        junit = os.path.join(self.work, "fleet.xml")
        write_junit(junit, rows)
        with open(junit) as f:
            text = f.read()
        self.assertIn('tests="5" failures="1" errors="3"', text)


class CleanUp(unittest.TestCase):
    def test_a_stop_during_the_clean_up_waits_until_it_is_done(self):
        def stop(*_):
            raise KeyboardInterrupt
        previous = signal.signal(signal.SIGTERM, stop)
        self.addCleanup(signal.signal, signal.SIGTERM, previous)
        done = []
        with self.assertRaises(KeyboardInterrupt):
            with shielded():
                os.kill(os.getpid(), signal.SIGTERM)
                os.kill(os.getpid(), signal.SIGTERM)
                done.append("the rest of the clean-up")
        self.assertEqual(done, ["the rest of the clean-up"])
        self.assertIs(signal.getsignal(signal.SIGTERM), stop)


if __name__ == "__main__":
    unittest.main()
