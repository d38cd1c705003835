"""./wirecheck faults: every fault plan of the scripted peer against the tests it concerns, in a few
boots with a NIC per fault (two boots at a time), as a table of expected and seen verdicts with each
call's run time, on one firmware or on every generation (--firmware all).
Exits 1 when a verdict differs or a call outlasts the waits its test is allowed, 2 when a VM or a
peer failed."""
import json
import os
import sys
import time
from concurrent.futures import ThreadPoolExecutor

from .arch import ARCHES, DEFAULT_ARCH
from .config import ROOT, HarnessError, Nic, VmConfig, chosen
from .firmware import WITHOUT_IPV6
from .firmware import take_options as take_firmware_options
from .junit import take_junit, write_faults_junit
from .live import run_vm
from .peer import FAULTS
from .report import call_seconds

PING, INTERACTIVE = "-test=pingtest", "-test=interactivenetworktest"
SPEED = "-test=SpeedTest -NetworkSpeed=1"
PING6 = "-test=ping6test"
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
    # IPv6: the router's side of each plan, against ping6test.
    "ra-none": {PING6: ("Failed", 0x80160804)},
    "ra-lifetime-0": {PING6: ("Failed", 0x80160804)},
    "dhcp6-stateful": {PING6: PASSED},
    "dhcp6-silent": {PING6: ("Failed", 0x80160805)},
    "dad": {PING6: ("Failed", 0x80160806)},
    "echo6-drop": {PING6: ("Failed", 0x80160807)},
    "echo6-late": {PING6: ("Failed", 0x80160807)},
    "ra-malformed": {PING6: PASSED},
    "dhcp6-malformed": {PING6: PASSED},
}

# The longest a call may take: the Parts' waits for an address (60 s), DHCP tries and pings, with room.
LIMIT_NO_ADDRESS, LIMIT = 100, 40
# A boot that prints nothing for this long has stopped answering (a call's longest quiet stretch is
# pingtest's 60-second wait for an address).
SILENCE = 120
# NICs a boot has at most for the faults the interactive test meets (its menu offers ten: they take
# NICs 1 to 10), and in all (the others are called by -index).
MAX_NICS = 10
MAX_BOOT_NICS = 16
# Boots per firmware generation for the whole table.
BOOTS = 2


# What a fault's calls cost, for sharing the faults out among boots: a call that waits out the 60 s
# for an address, a call under the flood (which also loads the whole VM), any other call.
COST_NO_ADDRESS, COST_FLOOD, COST_CALL = 62, 6, 5
# The flood gets a boot of its own: beside other NICs its 2,000 frames a second overrun the flooded
# NIC's receive ring while the firmware polls the others, and echo replies are lost (seen once in
# ten NICs' boot: the ping tests failed on the flooded NIC). Alone, the ring still overruns whenever
# nothing polls for 4 ms (a file write, a progress report): a DHCP offer lost there costs the
# firmware's DHCP its next retransmission, 4 then 8 s, which is why pingtest under the flood takes
# from 3 to 28 s (QEMU's e1000_receiver_overrun trace, timed against the peer's log).
ALONE = {"flood"}


# ping6test's waits: 12 s for a router that never advertises (or is no default router), 30 s for a
# DHCPv6 server that never answers.
COST_BY_CODE = {0x80160804: 14, 0x80160805: 32}


def cost(fault, calls=None):
    calls = calls or list(CASES[fault])
    if fault == "flood":
        return COST_FLOOD * len(calls)
    return sum(COST_NO_ADDRESS if CASES[fault][c] in NO_ADDRESS.values() else
               COST_BY_CODE.get(CASES[fault][c][1], COST_CALL) for c in calls)


def is_ipv6(fault):
    """Whether the plan is one of the router's (its calls are ping6test's)."""
    return all(call.startswith(PING6) for call in CASES[fault])


def expected_verdict(fault, options, firmware=None):
    """What the tests' definitions give for this call on this firmware: a generation built without
    IPv6 ends every ping6test with its no-IPv6-stack code."""
    if options.startswith(PING6) and firmware is not None and firmware.name in WITHOUT_IPV6:
        return ("Failed", 0x80160801)
    return CASES[fault][options]


def menu_bound(fault, calls_of=None):
    """Whether one of the fault's calls goes through the interactive test's menu."""
    return any(c.startswith(INTERACTIVE) for c in (calls_of or {}).get(fault) or CASES[fault])


def groups(faults, boots, calls_of=None):
    """The faults shared out among `boots` boots (more where a boot would pass MAX_NICS faults the
    interactive test meets, or MAX_BOOT_NICS in all), the costliest first onto the least loaded boot
    with room; in each boot the interactive test's faults first (its menu lists NICs 1 to 10), each
    part in the table's order; a fault of ALONE in a boot of its own besides."""
    calls_of = calls_of or {}
    shared = [f for f in faults if f not in ALONE]
    menu = [f for f in shared if menu_bound(f, calls_of)]
    needed = max(boots, -(-len(menu) // MAX_NICS), -(-len(shared) // MAX_BOOT_NICS))
    loads = [[0, []] for _ in range(max(1, min(needed, len(shared))))]

    def room(load, fault):
        return len(load[1]) < MAX_BOOT_NICS and \
            (not menu_bound(fault, calls_of) or sum(menu_bound(f, calls_of) for f in load[1]) < MAX_NICS)

    for fault in sorted(shared, key=lambda f: -cost(f, calls_of.get(f))):
        open_ = [b for b in loads if room(b, fault)]
        if not open_:
            loads.append([0, []])
            open_ = [loads[-1]]
        target = min(open_, key=lambda b: b[0])
        target[0] += cost(fault, calls_of.get(fault))
        target[1].append(fault)
    order = list(CASES)
    return [sorted(b[1], key=lambda f: (not menu_bound(f, calls_of), order.index(f))) for b in loads if b[1]] + \
        [[f] for f in faults if f in ALONE]


def run_group(faults, work, dump="", firmware=None, calls_of=None):
    """One boot against several faults, a NIC each (NIC n on the n-th fault's peer), and each fault's
    calls (all of them, or those calls_of gives) on its own NIC: -index=n, or item n of the interactive
    test's menu. A row per call, as the table shows it (the option string without the -index)."""
    calls_of = calls_of or {}
    planned, menus = [], []
    for n, fault in enumerate(faults, 1):
        for options in calls_of.get(fault) or list(CASES[fault]):
            if options.startswith(INTERACTIVE):
                menus.append(f"menu {n}")
                words = options
            else:
                words = f"{options} -index={n}" if len(faults) > 1 else options
            planned.append((fault, options, words))
    # The interactive test asks the operator at its failure prompts; "ok" lets it end.
    script = "".join(m + "\n" for m in menus) + "prompt ok\n" * (4 * len(planned))
    model = ARCHES[firmware.arch if firmware else DEFAULT_ARCH].fault_nic
    nics = [Nic(model=model, peer=fault, dump=dump if len(faults) == 1 else "") for fault in faults]
    run = run_vm(VmConfig(calls=[w for *_, w in planned], nics=nics, script=script,
                          last_dir=os.path.join(work, "+".join(faults)), timeout=120 + sum(cost(f) for f in faults) * 2,
                          silence=SILENCE, firmware=firmware))
    rows = []
    name = firmware.name if firmware else ""
    times = call_seconds(run.line_times)
    for index, (fault, options, _) in enumerate(planned):
        expected = expected_verdict(fault, options, firmware)
        limit = LIMIT_NO_ADDRESS if expected in NO_ADDRESS.values() else LIMIT
        if index < len(run.results):
            seen, status = list(run.results[index][:2]), run.results[index][2]
            seconds = times[index] if index < len(times) else None
        else:
            seen, status, seconds = None, "", None
        late = seconds is not None and seconds > limit
        rows.append({"firmware": name, "fault": fault, "call": options, "expected": list(expected), "seen": seen,
                     "status": status, "seconds": seconds, "limit": limit,
                     "ok": seen is not None and tuple(seen) == tuple(expected) and not late})
    return rows


def run_fault(fault, work, dump="", firmware=None, calls=None):
    """One boot against this fault alone: its calls (all of them, or those given), a row each."""
    return run_group([fault], work, dump, firmware, {fault: calls} if calls else None)


def arch_folder(firmware):
    """The folder of a processor's boots under build/faults: none for x86-64."""
    return [] if firmware.arch == DEFAULT_ARCH else [firmware.arch]


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
    # A few boots with a NIC per fault, two at a time: most of a fault's time is the firmware waiting,
    # and the host has two cores.
    boots = [(fw, g) for fw in firmwares for g in groups(faults, BOOTS)]
    rows, broken = [], []
    with ThreadPoolExecutor(max_workers=2) as pool:
        futures = [pool.submit(run_group, g, os.path.join(ROOT, "build", "faults", *arch_folder(fw),
                                                          *([fw.name] if several else [])), "", fw)
                   for fw, g in boots]
        for (fw, g), future in zip(boots, futures):
            try:
                rows += future.result()
            except HarnessError as e:
                broken += [f"{fw.name} {f}" if several else f for f in g]
                print(f"wirecheck faults: {fw.name + ' ' if several else ''}{'+'.join(g)}: {e}", file=sys.stderr,
                      flush=True)
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
        json.dump({"arch": firmwares[0].arch, "firmware": [fw.name for fw in firmwares], "faults": {k: FAULTS[k] for k in faults},
                   "rows": rows, "broken": broken, "wall_seconds": round(wall)}, f, indent=1)
    if junit:
        write_faults_junit(junit, rows, broken)
    return 2 if broken else 1 if bad else 0
