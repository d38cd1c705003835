"""./wirecheck matrix: the nine tests on every NIC model, one boot per model, as a table of results,
error codes and the figure that matters for each test; then the cable-out rows, a second boot per
model with the cables unplugged; on one firmware or on every generation (--firmware all), a column
group per firmware.

The boots run one after the other by default, so that no model's figures carry another boot's load;
--jobs 2 runs two at a time (the verdicts hold under that load, the figures are slower, and iPXE's
virtio ROM stops in its bursts more often: an explained cell, below)."""
import hashlib
import json
import os
import re
import sys
import time
from concurrent.futures import ThreadPoolExecutor

from .arch import ARCHES, X86_64
from .arch import models as arch_models
from .config import NIC_MODELS, ROOT, HarnessError, Nic, VmConfig, chosen, take_value
from .firmware import take_options as take_firmware_options
from .junit import take_junit, write_matrix_junit
from .live import run_vm
from .matrixrows import (CABLE_CALLS, CABLE_OUT, CALLS, FLAG_FIGURE, MIXED_OUT, ROM_TWIN, ROWS, SPEED_CALLS,
                         SPEED_ROW)
from .matrixwhy import EXPLAINED, NO_DRIVER, NOTES, blind_to_link, explanation, verdict
from .qemu import USER_WEB_SERVER
from .report import call_blocks

# A model's boot takes 15 to 30 s; one that takes this long, or prints nothing for this long (a
# call reports progress every few seconds), has stopped answering.
MODEL_TIMEOUT = 150
MODEL_SILENCE = 45

# The file the download row fetches from the run's own web server on the user network: a few MiB
# of bytes that are the same every run, made once.
DOWNLOAD_FILE, DOWNLOAD_BYTES = "matrix.bin", 4 * 1024 * 1024


def download_file():
    """The download row's file under build/matrix (made once) and its SHA-256."""
    path = os.path.join(ROOT, "build", "matrix", DOWNLOAD_FILE)
    if not os.path.exists(path) or os.path.getsize(path) != DOWNLOAD_BYTES:
        os.makedirs(os.path.dirname(path), exist_ok=True)
        block, data = b"wirecheck matrix", bytearray()
        while len(data) < DOWNLOAD_BYTES:
            block = hashlib.sha256(block).digest()
            data += block
        with open(path + ".partial", "wb") as f:
            f.write(data[:DOWNLOAD_BYTES])
        os.replace(path + ".partial", path)
    with open(path, "rb") as f:
        return path, hashlib.sha256(f.read()).hexdigest()

SPEED_FIGURE = re.compile(r"speed is (\d+) Mbit/s")

# The calls that need no address go first: the firmware's DHCP, started as the VM boots, gets its
# lease meanwhile instead of holding up pingtest. The bursts go last: iPXE's pcnet ROM sends nothing
# more after one, and the ping tests would then fail for it.
RUN_ORDER = sorted(CALLS, key=lambda call: {"pingtest": 1, "interactivenetworktest": 1, "downloadtest": 1,
                                             "SpeedTest": 2}.get(call[0], 0))


CABLE_SCRIPT = "prompt ok\n" * 3
# A cable-out boot waits for six media checks and one DHCP exchange besides booting.
CABLE_TIMEOUT = 150

def _flags(files_dir):
    flags = os.path.join(files_dir, "flags")
    return len([n for n in os.listdir(flags) if n.lower().endswith(".flg")]) if os.path.isdir(flags) else 0


def run_model(model, work, firmware=None, bursts=SPEED_CALLS):
    """One boot: every call on one NIC of this model; a row per test (the bursts' row holds as many
    as asked). A boot that stops answering keeps the cells of the calls it finished; the others say
    where it stopped."""
    last = os.path.join(work, model)
    repeats = 0 if (model, "SpeedTest") in EXPLAINED else bursts
    served, sha256 = download_file()
    calls = [options.format(server=USER_WEB_SERVER, file=DOWNLOAD_FILE, sha256=sha256)
             for _, options, *_ in RUN_ORDER] + ["-test=SpeedTest"] * repeats
    run, stopped = _boot(model, VmConfig(calls=calls, nics=[Nic(model=model)], last_dir=last, timeout=MODEL_TIMEOUT,
                                         silence=MODEL_SILENCE, firmware=firmware, web_files=[served]))
    if run is None:
        return {test: _no_answer(stopped) for test, *_ in RUN_ORDER + [(SPEED_ROW,)]}
    blocks = call_blocks(run.log)
    cells = {}
    for index, (test, options, pattern, shape) in enumerate(RUN_ORDER):
        lines = blocks[index][1] if index < len(blocks) else []
        cells[test] = _cell(run, index, stopped, _flags(last) if test == "detectcable" else None, lines, pattern, shape)
    cells[SPEED_ROW] = _speed_cell(blocks[len(CALLS):], run.results[len(CALLS):], repeats, stopped)
    return cells


def run_cable_model(model, work, firmware, mixed=True):
    """The cable-out boot of this model: its three rows. On a driver that cannot see a missing cable
    only detectcable runs (each pingtest would wait out the test's 60 s for an address)."""
    last = os.path.join(work, model + "-cable-out")
    blind = blind_to_link(firmware, model)
    calls = CABLE_CALLS[:1] if blind else CABLE_CALLS
    nics = [Nic(model=model, link=False), Nic(model=model, link=False, plug=25)]
    run, stopped = _boot(model, VmConfig(calls=[options for _, options in calls], nics=nics, script=CABLE_SCRIPT,
                                         last_dir=last, timeout=CABLE_TIMEOUT, silence=MODEL_SILENCE,
                                         firmware=firmware))
    cells = {}
    for index, (test, _) in enumerate(CABLE_CALLS):
        if index >= len(calls):
            cells[test] = {"result": "", "error": 0, "status": "", "figure": "not run", "not_run": True}
        elif run is None:
            cells[test] = _no_answer(stopped)
        else:
            cells[test] = _cell(run, index, stopped, _flags(last) if test == CABLE_OUT else None)
    if mixed:
        cells[MIXED_OUT] = run_mixed_cable(model, work, firmware)
    return cells


def run_mixed_cable(model, work, firmware):
    """detectcable with the cables out on this model beside its iPXE twin; "n/a" without a twin, or
    where the firmware starts no option ROM (AArch64)."""
    twin = ROM_TWIN.get(model) if firmware.arch == X86_64.name else None
    if twin is None:
        return {"result": "", "error": 0, "status": "", "figure": "-", "na": True}
    last = os.path.join(work, f"{model}-beside-{twin}")
    nics = [Nic(model=model, link=False), Nic(model=twin, link=False)]
    run, stopped = _boot(model, VmConfig(calls=["-test=detectcable"], nics=nics, last_dir=last,
                                         timeout=CABLE_TIMEOUT, silence=MODEL_SILENCE, firmware=firmware))
    return _no_answer(stopped) if run is None else _cell(run, 0, stopped, _flags(last))


def _boot(model, cfg):
    """The boot's run and, when it stopped answering, why: (run, "") or (what it finished, why) or
    (None, why) when it never got going."""
    try:
        return run_vm(cfg), ""
    except HarnessError as e:
        print(f"wirecheck matrix: {model}: {e}", file=sys.stderr, flush=True)
        return e.partial, str(e).splitlines()[0]  # the cell takes the reason, not the quoted log


def _cell(run, index, stopped, flags=None, lines=(), pattern=None, shape="{}"):
    """Call number index of a boot as a cell: its result, and the figure its lines (or its flag
    files) give."""
    if index >= len(run.results):
        return _no_answer(stopped)
    result = run.results[index]
    cell = {"result": result[0], "error": result[1], "status": result[2], "figure": ""}
    if flags is not None:
        cell["flags"] = flags
        cell["figure"] = FLAG_FIGURE.format(flags)
    elif pattern:
        for line in lines:
            m = re.search(pattern, line)
            if m:
                cell["figure"] = shape.format(m.group(1))
                break
    return cell


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


def _jobs(argv):
    """The --jobs N (or --jobs=N) among the arguments, and the arguments without it; None when N is
    not a whole number from 1 to 4."""
    jobs, rest = take_value(argv, "--jobs", "1")
    if not jobs.isdigit() or not 1 <= int(jobs) <= 4:
        print(f"wirecheck matrix: --jobs takes a number of boots at a time from 1 to 4, not '{jobs}'",
              file=sys.stderr)
        return None, rest
    return int(jobs), rest


def main(argv):
    jobs, argv = _jobs(argv)
    try:
        junit, argv = take_junit(argv)
    except ValueError as e:
        print(f"wirecheck matrix: {e}", file=sys.stderr)
        return 2
    try:
        firmwares, argv = take_firmware_options(argv, several=True)
    except HarnessError as e:
        print(f"wirecheck matrix: {e}", file=sys.stderr)
        return 2
    # Named models run as named; by default, those with a UEFI driver on the processor's firmware.
    arch = ARCHES[firmwares[0].arch]
    models = chosen(argv, argv and NIC_MODELS or arch_models(arch, NIC_MODELS), "matrix", "NIC model")
    if jobs is None or models is None:
        return 2
    if not argv and len(models) < len(NIC_MODELS):
        print(f"wirecheck matrix: on {arch.name} only {', '.join(models)}: {NO_DRIVER}", flush=True)
    start = time.time()
    # Each boot leaves its files (serial log, logs, flags) in build/matrix/MODEL and
    # build/matrix/MODEL-cable-out, under a folder per firmware when there are several, and under
    # build/matrix/aarch64 for AArch64.
    several = len(firmwares) > 1
    columns = [(fw, m, f"{fw.name} {m}" if several else m) for fw in firmwares for m in models]

    def work(fw):
        return os.path.join(ROOT, "build", "matrix", *([arch.name] if arch is not X86_64 else []),
                            *([fw.name] if several else []))
    with ThreadPoolExecutor(max_workers=jobs) as pool:
        main_boots = {label: pool.submit(run_model, m, work(fw), fw) for fw, m, label in columns}
        cable_boots = {label: pool.submit(run_cable_model, m, work(fw), fw) for fw, m, label in columns}
        table = {label: {**main_boots[label].result(), **cable_boots[label].result()} for _, _, label in columns}
    rows, explained = [], {}
    for test in ROWS:
        row = {"test": test, "cells": {}}
        for fw, m, label in columns:
            cell = dict(table[label][test])
            cell["verdict"] = verdict(fw, m, test, cell)
            if cell["verdict"] == "explained":
                cell["explanation"] = explanation(fw, m, test, cell)
                explained.setdefault(cell["explanation"], {}).setdefault(test, {}).setdefault(m, []).append(fw.name)
            row["cells"][label] = cell
        rows.append(row)
    wall = time.time() - start
    labels = [label for *_, label in columns]
    markdown = _markdown(rows, labels)
    print(markdown)
    bad = [(label, r["test"]) for r in rows for label, c in r["cells"].items() if c["verdict"] == "UNEXPECTED"]
    # Each explanation once, with the cells it covers: a test, its models, and on which firmware
    # when not on every one the table shows.
    for reason, tests in explained.items():
        print(f"explained: {reason}")
        for test, on in tests.items():
            where = [m if len(names) == len(firmwares) else f"{m} ({', '.join(names)})" for m, names in on.items()]
            print(f"    {test}: {', '.join(where)}")
    for (on, test), note in NOTES.items():
        if on == arch.name:
            print(f"note: {test}: {note}")
    print(f"MATRIX firmware={len(firmwares)} models={len(models)} unexpected={len(bad)} wall={wall:.0f}s")
    out = os.path.join(ROOT, "build")
    os.makedirs(out, exist_ok=True)
    with open(os.path.join(out, "matrix.md"), "w") as f:
        f.write(markdown + "\n")
    with open(os.path.join(out, "matrix.json"), "w") as f:
        json.dump({"arch": arch.name, "models": {m: NIC_MODELS[m].driver for m in models},
                   "firmware": {fw.name: {"code": fw.code, "ipxe": fw.ipxe_name, "rng": fw.rng} for fw in firmwares},
                   "columns": [{"firmware": fw.name, "model": m, "label": label} for fw, m, label in columns],
                   "rows": rows, "explained": explained, "wall_seconds": round(wall)},
                  f, indent=1)
    if junit:
        write_matrix_junit(junit, rows)
    return 1 if bad else 0


def _markdown(rows, labels):
    def outcome_text(c):
        text = f"{c['result']} 0x{c['error']:X}"
        return text + (f" ({c['status']})" if c["status"] != "Success" else "")

    def cell_text(c):
        if c.get("not_run") or c.get("na"):
            text = ""
        elif "outcomes" in c:
            text = "; ".join(f"{o['count']}x {outcome_text(o)}" for o in c["outcomes"])
        else:
            text = outcome_text(c)
        if c["figure"]:
            text += f", {c['figure']}" if text else c["figure"]
        return text + {"as defined": "", "explained": " [firmware]", "UNEXPECTED": " [UNEXPECTED]",
                       "n/a": ""}[c["verdict"]]
    lines = ["| test | " + " | ".join(labels) + " |", "|---|" + "---|" * len(labels)]
    for r in rows:
        lines.append(f"| {r['test']} | " + " | ".join(cell_text(r["cells"][label]) for label in labels) + " |")
    return "\n".join(lines)
