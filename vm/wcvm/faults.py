"""./wirecheck faults: every fault plan of the scripted peer against the tests it concerns, one boot
per fault (two boots at a time), as a table of expected and seen verdicts with each call's run time,
on one firmware or on every generation (--firmware all).
Exits 1 when a verdict differs or a call outlasts the waits its test is allowed, 2 when a VM or a
peer failed."""
import json
import os
import sys
import time
from concurrent.futures import ThreadPoolExecutor

from .config import ROOT, HarnessError, Nic, VmConfig, chosen
from .firmware import take_options as take_firmware_options
from .junit import take_junit, write_faults_junit
from .live import run_vm
from .peer import FAULTS
from .report import call_seconds

PING, INTERACTIVE = "-test=pingtest", "-test=interactivenetworktest"
SPEED = "-test=SpeedTest -NetworkSpeed=1"
PASSED = ("Passed", 0)
NO_ADDRESS = {PING: ("Failed", 0x80160101), INTERACTIVE: ("Failed", 0x80160302)}
NO_REPLY = {PING: ("Failed", 0x80160102), INTERACTIVE: ("Failed", 0x80160303)}
WORKS = {PING: PASSED, INTERACTIVE: PASSED}

# fault -> {option string: the verdict the tests' definitions give}
CASES = {
    "none": WORKS,
    "no-dhcp": NO_ADDRESS,
    "offer-only": NO_ADDRESS,
    "nak": NO_ADDRESS,
    "no-router": WORKS,
    # The interactive test takes a silent gateway for an unconfigured NIC and passes on the DHCP server.
    "router-silent": WORKS,
    "icmp-drop": NO_REPLY,
    "wrong-id": NO_REPLY,
    "wrong-source": NO_REPLY,
    "unreachable": NO_REPLY,
    "late-1500": WORKS,
    "late-3000": NO_REPLY,
    "duplicate": WORKS,
    "lose-every-other": {PING + " -testrepeats=4": ("Failed", 0x80160102), INTERACTIVE: ("Failed", 0x80160303)},
    "malformed": WORKS,
    "flood": dict(WORKS, **{SPEED: PASSED}),
    # The request that meets the dropped link goes unanswered; a retry finds the link back.
    "link-flap": {PING + " -retries=1": PASSED, PING: ("Failed", 0x80160102)},
}

# The longest a call may take: the Parts' waits for an address (60 s), DHCP tries and pings, with room.
LIMIT_NO_ADDRESS, LIMIT = 100, 40


def run_fault(fault, work, dump="", firmware=None, calls=None):
    """One boot against this fault: its calls (all of them, or those given), a row each."""
    calls = calls or list(CASES[fault])
    # The interactive test asks the operator at its failure prompts; "ok" lets it end.
    script = "prompt ok\n" * 4
    run = run_vm(VmConfig(calls=calls, nics=[Nic(model="e1000", peer=fault, dump=dump)], script=script,
                          last_dir=os.path.join(work, fault), timeout=400, firmware=firmware))
    rows = []
    name = firmware.name if firmware else ""
    times = call_seconds(run.line_times)
    for options, result, seconds in zip(calls, run.results, times + [None] * len(calls)):
        expected = CASES[fault][options]
        seen = result[:2]
        limit = LIMIT_NO_ADDRESS if expected in NO_ADDRESS.values() else LIMIT
        late = seconds is not None and seconds > limit
        rows.append({"firmware": name, "fault": fault, "call": options, "expected": list(expected), "seen": list(seen),
                     "status": result[2], "seconds": seconds, "limit": limit,
                     "ok": tuple(seen) == tuple(expected) and not late})
    for options in calls[len(run.results):]:
        rows.append({"firmware": name, "fault": fault, "call": options, "expected": list(CASES[fault][options]),
                     "seen": None,
                     "status": "", "seconds": None, "limit": LIMIT, "ok": False})
    return rows


def main(argv):
    try:
        junit, argv = take_junit(argv)
        firmwares, argv = take_firmware_options(argv, several=True)
    except (HarnessError, ValueError) as e:
        print(f"wirecheck faults: {e}", file=sys.stderr)
        return 2
    faults = chosen(argv, CASES, "faults", "fault")
    if faults is None:
        return 2
    start = time.time()
    several = len(firmwares) > 1
    boots = [(fw, f) for fw in firmwares for f in faults]
    rows, broken = [], []
    # Two boots at a time: most of a fault's time is the firmware waiting, and the host has two cores.
    with ThreadPoolExecutor(max_workers=2) as pool:
        futures = [pool.submit(run_fault, f, os.path.join(ROOT, "build", "faults", *([fw.name] if several else [])),
                               "", fw) for fw, f in boots]
        for (fw, f), future in zip(boots, futures):
            try:
                rows += future.result()
            except HarnessError as e:
                broken.append(f"{fw.name} {f}" if several else f)
                print(f"wirecheck faults: {fw.name + ' ' if several else ''}{f}: {e}", file=sys.stderr, flush=True)
    wall = time.time() - start

    def verdict(v):
        return f"{v[0]} 0x{v[1]:X}" if v else "no result"
    lines = ["| firmware | fault | call | expected | seen | run time | |", "|---|---|---|---|---|---|---|"]
    for r in rows:
        took = f"{r['seconds']} s" if r["seconds"] is not None else "?"
        lines.append(f"| {r['firmware']} | {r['fault']} | `{r['call']}` | {verdict(r['expected'])} | "
                     f"{verdict(r['seen'])} | {took} | {'ok' if r['ok'] else 'DIFFERS'} |")
    print("\n".join(lines))
    bad = [r for r in rows if not r["ok"]]
    false_passes = [r for r in rows if r["expected"][0] != "Passed" and r["seen"] and r["seen"][0] == "Passed"]
    print(f"FAULTS firmware={len(firmwares)} faults={len(faults)} calls={len(rows)} differ={len(bad)} "
          f"false-passes={len(false_passes)} broken={len(broken)} wall={wall:.0f}s")
    os.makedirs(os.path.join(ROOT, "build"), exist_ok=True)
    with open(os.path.join(ROOT, "build", "faults.json"), "w") as f:
        json.dump({"firmware": [fw.name for fw in firmwares], "faults": {k: FAULTS[k] for k in faults},
                   "rows": rows, "broken": broken, "wall_seconds": round(wall)}, f, indent=1)
    if junit:
        write_faults_junit(junit, rows, broken)
    return 2 if broken else 1 if bad else 0
