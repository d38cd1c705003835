"""What CI runs on a firmware generation other than the default one: a reduced set that still
touches every test, the plug-in case and each IPv4 fault of the scripted network once across the
other generations, with one call, and on a generation built with IPv6 the router's plans whose
outcome is the firmware's own (the malformed messages of 2024's advisories, duplicate-address
detection, stateful DHCPv6). The full matrix and fault table run on the default generation."""
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor

import vmtest  # noqa: F401 (puts the runner on the path)
from wcvm import faults, matrix
from wcvm.firmware import DEFAULT_GENERATION, GENERATIONS, WITHOUT_IPV6, resolve
from wcvm.matrixrows import IPV6_ROWS, MIXED_OUT, ROWS, SPEED_ROW
from wcvm.matrixwhy import verdict

OTHERS = [name for name in GENERATIONS if name != DEFAULT_GENERATION]
# The model of the reduced matrix: OVMF's own virtio driver, which sees a cable go in and out; the
# faults run on e1000 (the iPXE ROM), so both kinds of driver are touched. (The mixed boot of virtio
# beside its iPXE twin runs on the default generation.)
MODEL = "virtio"


# The router's plans run where IPv6 is built in; the others only wait out their timers (the
# default generation's fault table has them).
IPV6_ACROSS = ["dhcp6-stateful", "dad", "ra-malformed", "dhcp6-malformed"]


def faults_of(generation):
    """The faults this generation runs: the IPv4 ones shared out among the other generations, and
    IPV6_ACROSS where the generation has IPv6."""
    ipv4 = [f for f in faults.CASES if not faults.is_ipv6(f)]
    share = ipv4[OTHERS.index(generation)::len(OTHERS)]
    return share + ([] if generation in WITHOUT_IPV6 else IPV6_ACROSS)


def one_call(fault, turn):
    calls = list(faults.CASES[fault])
    return calls[turn % len(calls)]


class ReducedSet(unittest.TestCase):
    generation = ""

    @classmethod
    def setUpClass(cls):
        cls.firmware = resolve(cls.generation)
        cls.work = tempfile.TemporaryDirectory()
        with ThreadPoolExecutor(max_workers=2) as pool:
            table = pool.submit(lambda: {**matrix.run_model(MODEL, cls.work.name, cls.firmware, bursts=0),
                                         **matrix.run_cable_model(MODEL, cls.work.name, cls.firmware, mixed=False)})
            # Each fault once, with one of its calls, pingtest's and the interactive test's in turn:
            # the fault is met, and a fault without an address costs one 60-second wait, not two. A
            # NIC per fault, beside the matrix's boots.
            share = faults_of(cls.generation)
            calls = {f: [one_call(f, i)] for i, f in enumerate(share)}
            # Two boots where one would wait out two addresses in turn.
            boots = 2 if sum(faults.cost(f, calls[f]) for f in share) > 2 * faults.COST_NO_ADDRESS + 30 else 1
            rows = [pool.submit(faults.run_group, g, cls.work.name, "", cls.firmware, calls)
                    for g in faults.groups(share, boots, calls)]
            cls.cells = table.result()
            cls.rows = [row for future in rows for row in future.result()]

    @classmethod
    def tearDownClass(cls):
        cls.work.cleanup()

    def test_every_test_and_the_cable_rows_give_what_the_tests_define(self):
        # The twenty bursts run on the default generation only: SpeedTest itself is in the set.
        for test in [row for row in ROWS if row not in (SPEED_ROW, MIXED_OUT)]:
            with self.subTest(test=test):
                cell = self.cells[test]
                # A generation built without IPv6 ends ping6test with its no-IPv6 code: explained.
                allowed = ["as defined"]
                if test in IPV6_ROWS and self.generation in WITHOUT_IPV6:
                    allowed.append("explained")
                self.assertIn(verdict(self.firmware, MODEL, test, cell), allowed, cell)

    def test_each_fault_gives_its_defined_verdict_in_time(self):
        self.assertEqual([r for r in self.rows if not r["ok"]], [])
