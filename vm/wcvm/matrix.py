"""./wirecheck matrix: the seven tests on every NIC model, one boot per model, as a table of results,
error codes and the figure that matters for each test.

The boots run one after the other by default, so that no model's figures carry another boot's load;
--jobs 2 runs two at a time (the verdicts hold under that load, the figures are slower, and iPXE's
virtio ROM stops in its bursts more often: an explained cell, below)."""
import json
import os
import re
import sys
import time
from concurrent.futures import ThreadPoolExecutor

from .config import NIC_MODELS, ROOT, HarnessError, Nic, VmConfig, chosen
from .firmware import take_options as take_firmware_options
from .live import run_vm
from .report import call_blocks

# A model's boot takes 15 to 30 s; one that takes this long, or prints nothing for this long (a
# call reports progress every few seconds), has stopped answering.
MODEL_TIMEOUT = 150
MODEL_SILENCE = 45

# (row, option string, the figure that matters: a pattern over the call's lines, or None, its shape)
CALLS = [
    ("pingtest", "-test=pingtest", r"Reply seq 0 from [\d.]+: time (\d+) us", "{} us"),
    ("detectcable", "-test=detectcable", None, "{} flag(s)"),
    ("interactivenetworktest", "-test=interactivenetworktest", r"Remote IP Address: ([\d.]+)", "{}"),
    ("macaddresstest", "-test=macaddresstest -debug", r"^([0-9A-F]{1,2}(?:-[0-9A-F]{1,2}){5})$", "{}"),
    ("SpeedTest", "-test=SpeedTest -NetworkSpeed=1", r"speed is (\d+) Mbit/s", "{} Mbit/s"),
    ("NicSpeedTest", "-test=NicSpeedTest", None, ""),
    ("IRQTest", "-test=IRQTest", r"Interrupt Number (\d+)", "IRQ {}"),
]

# Bursts at the defaults, the same boot: every call must give its figure, passed or not (a burst the
# firmware pushes back on must still complete). Not run where one burst is already a firmware fault
# the matrix explains (each would wait out the module's ten seconds of draining).
SPEED_ROW, SPEED_CALLS = "SpeedTest x20 (defaults)", 20
SPEED_FIGURE = re.compile(r"speed is (\d+) Mbit/s")

# What the tests' definitions give on these NICs: Passed, except that no emulated NIC is in the
# built-in rated-speed table (Unsupported, no retry).
EXPECTED = {test: ("Passed", 0, "Success") for test, *_ in CALLS}
EXPECTED["NicSpeedTest"] = ("Failed", 0x800000FF, "Unsupported")
ROWS = [test for test, *_ in CALLS] + [SPEED_ROW]
# The calls that need no address go first: the firmware's DHCP, started as the VM boots, gets its
# lease meanwhile instead of holding up pingtest. The bursts go last: iPXE's pcnet ROM sends nothing
# more after one, and the ping tests would then fail for it.
RUN_ORDER = sorted(CALLS, key=lambda call: {"pingtest": 1, "interactivenetworktest": 1, "SpeedTest": 2}.get(call[0], 0))

PCNET = ("iPXE's pcnet ROM puts 15 frames on the wire and then sends nothing more: the managed network "
         "runs out of transmit buffers (Transmit: Out of Resources) and stays so however long the "
         "module lets it drain; a capture of the NIC shows the 15 frames")

VIRTIO_IPXE_HANG = (
    "iPXE's virtio ROM (Debian's build of January 2019) stops for good in about one boot in three with "
    "20 bursts: the processor loops in the ROM's own memory allocator, whose list of free blocks has "
    "become a circle; the stack shows MnpDxe calling into the ROM, while the module only calls the "
    "managed network's Transmit (no frame is refused on this NIC). Later iPXE guards its SNP calls "
    "against being entered again from the firmware's timers")

# Cells where the firmware or the NIC's option ROM is at fault, with the evidence.
EXPLAINED = {
    ("pcnet", "SpeedTest"): PCNET,
    ("pcnet", SPEED_ROW): "not run: " + PCNET,
}
# Cells where a boot that stops answering is the option ROM's fault: the cells of the calls the boot
# finished keep their verdicts.
EXPLAINED_HANGS = {
    ("virtio-ipxe", "SpeedTest"): VIRTIO_IPXE_HANG,
    ("virtio-ipxe", SPEED_ROW): VIRTIO_IPXE_HANG,
}


def _flags(files_dir):
    flags = os.path.join(files_dir, "flags")
    return len([n for n in os.listdir(flags) if n.lower().endswith(".flg")]) if os.path.isdir(flags) else 0


def run_model(model, work, firmware=None):
    """One boot: every call on one NIC of this model; a row per test. A boot that stops answering
    keeps the cells of the calls it finished; the others say where it stopped."""
    last = os.path.join(work, model)
    repeats = 0 if (model, "SpeedTest") in EXPLAINED else SPEED_CALLS
    calls = [options for _, options, *_ in RUN_ORDER] + ["-test=SpeedTest"] * repeats
    stopped = ""
    try:
        run = run_vm(VmConfig(calls=calls, nics=[Nic(model=model)], last_dir=last, timeout=MODEL_TIMEOUT,
                              silence=MODEL_SILENCE, firmware=firmware))
    except HarnessError as e:
        print(f"wirecheck matrix: {model}: {e}", file=sys.stderr, flush=True)
        if e.partial is None:
            return {test: _no_answer(str(e)) for test in ROWS}
        run, stopped = e.partial, str(e)
    blocks = call_blocks(run.log)
    cells = {}
    for index, (test, options, pattern, shape) in enumerate(RUN_ORDER):
        if index >= len(run.results):
            cells[test] = _no_answer(stopped)
            continue
        result = run.results[index]
        lines = blocks[index][1] if index < len(blocks) else []
        figure = ""
        if test == "detectcable":
            figure = shape.format(_flags(last))
        elif pattern:
            for line in lines:
                m = re.search(pattern, line)
                if m:
                    figure = shape.format(m.group(1))
                    break
        cells[test] = {"result": result[0], "error": result[1], "status": result[2], "figure": figure}
    cells[SPEED_ROW] = _speed_cell(blocks[len(CALLS):], run.results[len(CALLS):], repeats, stopped)
    return cells


def _no_answer(reason):
    return {"result": "NoAnswer", "error": 0, "status": "Harness", "figure": reason[:80], "stopped": True}


def _speed_cell(blocks, results, repeats, stopped):
    """The repeated bursts as one cell: how many gave a figure, their range, and each distinct
    result with its count; and, when the boot stopped answering first, after how many."""
    if not repeats:
        return {"calls": 0, "figures": 0, "outcomes": [], "figure": "not run"}
    if stopped and not results:
        return {"calls": 0, "figures": 0, "outcomes": [], "figure": "not reached: " + stopped[:60], "stopped": True}
    figures = [int(m.group(1)) for _, lines in blocks for line in lines for m in [SPEED_FIGURE.search(line)] if m]
    outcomes = {}
    for r in results:
        outcomes[r[:3]] = outcomes.get(r[:3], 0) + 1
    cell = {"calls": len(results), "figures": len(figures),
            "outcomes": [{"result": r, "error": e, "status": s, "count": n} for (r, e, s), n in outcomes.items()],
            "figure": f"{len(figures)} of {len(results)} figures"}
    if figures:
        cell["figure"] += f", {min(figures)}-{max(figures)} Mbit/s"
    if stopped:
        cell["figure"] += f", then no answer: {stopped[:60]}"
        cell["stopped"] = True
    return cell


def verdict(model, test, cell):
    if cell.get("stopped"):
        return "explained" if (model, test) in EXPLAINED_HANGS else "UNEXPECTED"
    if test == SPEED_ROW:
        if cell["calls"] == SPEED_CALLS and cell["figures"] == SPEED_CALLS:
            return "as defined"
    elif (cell["result"], cell["error"], cell["status"]) == EXPECTED[test]:
        return "as defined"
    return "explained" if (model, test) in EXPLAINED else "UNEXPECTED"


def _jobs(argv):
    """The --jobs N (or --jobs=N) among the arguments, and the arguments without it; None when N is
    not a whole number from 1 to 4."""
    jobs, rest, words = "1", [], iter(argv)
    for word in words:
        if word == "--jobs":
            jobs = next(words, "")
        elif word.startswith("--jobs="):
            jobs = word[len("--jobs="):]
        else:
            rest.append(word)
    if not jobs.isdigit() or not 1 <= int(jobs) <= 4:
        print(f"wirecheck matrix: --jobs takes a number of boots at a time from 1 to 4, not '{jobs}'",
              file=sys.stderr)
        return None, rest
    return int(jobs), rest


def main(argv):
    jobs, argv = _jobs(argv)
    try:
        firmware, argv = take_firmware_options(argv)
    except HarnessError as e:
        print(f"wirecheck matrix: {e}", file=sys.stderr)
        return 2
    models = chosen(argv, NIC_MODELS, "matrix", "NIC model")
    if jobs is None or models is None:
        return 2
    start = time.time()
    # Each model's boot leaves its files (serial log, logs, flags) in build/matrix/MODEL.
    work = os.path.join(ROOT, "build", "matrix")
    with ThreadPoolExecutor(max_workers=jobs) as pool:
        futures = {m: pool.submit(run_model, m, work, firmware) for m in models}
        table = {m: futures[m].result() for m in models}
    rows = []
    for test in ROWS:
        row = {"test": test, "cells": {}}
        for m in models:
            cell = dict(table[m][test])
            cell["verdict"] = verdict(m, test, cell)
            row["cells"][m] = cell
        rows.append(row)
    wall = time.time() - start
    markdown = _markdown(rows, models)
    print(markdown)
    bad = [(m, r["test"]) for r in rows for m, c in r["cells"].items() if c["verdict"] == "UNEXPECTED"]
    for (m, test), reason in EXPLAINED.items():
        if m in models:
            print(f"explained: {test} on {m}: {reason}")
    for r in rows:
        for m, c in r["cells"].items():
            if c["verdict"] == "explained" and (m, r["test"]) in EXPLAINED_HANGS:
                print(f"explained: {r['test']} on {m}: {EXPLAINED_HANGS[(m, r['test'])]}")
    print(f"MATRIX models={len(models)} unexpected={len(bad)} wall={wall:.0f}s")
    out = os.path.join(ROOT, "build")
    os.makedirs(out, exist_ok=True)
    with open(os.path.join(out, "matrix.md"), "w") as f:
        f.write(markdown + "\n")
    with open(os.path.join(out, "matrix.json"), "w") as f:
        json.dump({"models": {m: NIC_MODELS[m].driver for m in models}, "rows": rows,
                   "explained": {f"{m}/{t}": r for (m, t), r in {**EXPLAINED, **EXPLAINED_HANGS}.items()},
                   "wall_seconds": round(wall)},
                  f, indent=1)
    return 1 if bad else 0


def _markdown(rows, models):
    def outcome_text(c):
        text = f"{c['result']} 0x{c['error']:X}"
        return text + (f" ({c['status']})" if c["status"] != "Success" else "")

    def cell_text(c):
        if "outcomes" in c:
            text = "; ".join(f"{o['count']}x {outcome_text(o)}" for o in c["outcomes"])
        else:
            text = outcome_text(c)
        if c["figure"]:
            text += f", {c['figure']}" if text else c["figure"]
        return text + {"as defined": "", "explained": " [firmware]", "UNEXPECTED": " [UNEXPECTED]"}[c["verdict"]]
    lines = ["| test | " + " | ".join(models) + " |", "|---|" + "---|" * len(models)]
    for r in rows:
        lines.append(f"| {r['test']} | " + " | ".join(cell_text(r["cells"][m]) for m in models) + " |")
    return "\n".join(lines)
