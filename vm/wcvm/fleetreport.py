"""What a fleet run left, read back: the machines' run folders on the web server, a row per call (and
one per boot that sent nothing, saying why), the table and the JUnit file. Pure: it reads files, and
runs without root or a VM."""
import dataclasses
import os
import re
import sys
import xml.etree.ElementTree as ET

RESULT = re.compile(r"^RESULT result=(\S+) error=0x([0-9A-Fa-f]+) status=(.*?) options='(.*)' meaning=\"(.*)\"$")
ANSI = re.compile(r"\x1b\[[0-9;]*[A-Za-z]")
# The firmware's boot manager on an image it will not start (Secure Boot).
REFUSED_BOOT = re.compile(r"BdsDxe: failed to (?:load|start) Boot\S+ \"UEFI HTTPv4[^\"]*\".*: "
                          r"(Access Denied|Security Violation)")


def refusal(screen):
    """What the table says of a boot image the firmware would not start; None when it started."""
    refused = REFUSED_BOOT.search(screen)
    return f"the firmware refused the boot image ({refused.group(1)})" if refused else None


def read_text(path):
    """A file as text with LF line ends and without the colour codes of the firmware's console."""
    try:
        with open(path, "rb") as f:
            return ANSI.sub("", f.read().decode("utf-8", "replace").replace("\r", ""))
    except OSError:
        return ""


@dataclasses.dataclass
class Run:
    """One run folder of one machine on the server: URL/<uuid>/<run>/."""
    folder: str
    results: list  # (result, error, status, options, meaning) per call
    upload_failures: list  # UPLOAD state=failed lines the machine wrote into results.txt
    files: list
    loads: list  # LOAD lines: the module the firmware would not load


def server_runs(www, machine):
    """The machine's run folders on the web server, oldest first."""
    base = os.path.join(www, "results", machine.uuid)
    runs = []
    for name in sorted(os.listdir(base)) if os.path.isdir(base) else []:
        folder = os.path.join(base, name)
        text = read_text(os.path.join(folder, "results.txt"))
        results = [m.groups() for m in map(RESULT.match, text.splitlines()) if m]
        failures = [l for l in text.splitlines() if l.startswith("UPLOAD state=failed")]
        loads = [l for l in text.splitlines() if l.startswith("LOAD ")]
        runs.append(Run(folder, results, failures, sorted(os.listdir(folder)), loads))
    return runs


def fleet_rows(www, machines, boots, calls):
    """A row per call of every run on the server, and one per boot that left nothing there."""
    rows = []
    for m in machines:
        runs = server_runs(www, m)
        for index, run in enumerate(runs, 1):
            complete = len(run.results) == len(calls) and "Debug.log" in run.files
            upload = ("complete" if complete else "partial") + \
                (f" after {len(run.upload_failures)} failed round(s)" if run.upload_failures else "")
            for options_index, (result, error, status, options, meaning) in enumerate(run.results, 1):
                rows.append({"machine": m.uuid, "serial": m.serial, "run": os.path.basename(run.folder),
                             "call": options_index, "options": options, "result": result, "error": f"0x{error}",
                             "status": status, "meaning": meaning, "upload": upload})
            if not run.results:  # no call ran: the module was refused, say
                rows.append({"machine": m.uuid, "serial": m.serial, "run": os.path.basename(run.folder), "call": 0,
                             "options": "", "result": "none", "error": "", "status": "",
                             "meaning": "; ".join(run.loads) or "no call ran", "upload": upload})
        theirs = [b for b in boots if b.machine is m]
        if not runs and not theirs:  # nothing recorded of it: say so rather than leave it out
            rows.append({"machine": m.uuid, "serial": m.serial, "run": "(no boot)", "call": 0, "options": "",
                         "result": "none", "error": "", "status": "", "meaning": "",
                         "upload": "nothing on the server: the machine was not booted"})
        for boot in theirs[len(runs):]:
            screen = read_text(boot.serial_log)
            said = [l for l in screen.splitlines() if l.startswith("UPLOAD state=failed")]
            # The manager's words up to where it says the results are.
            why = "; ".join(said[-1].split("; ")[:-1])[len("UPLOAD state=failed "):] if said else boot.ended
            rows.append({"machine": m.uuid, "serial": m.serial, "run": f"(boot {boot.number})", "call": 0,
                         "options": "", "result": "none", "error": "", "status": "", "meaning": "",
                         "upload": f"nothing on the server: {why}"})
    return rows


def print_table(rows, out=sys.stdout):
    head = ("machine", "run", "call", "result", "error", "meaning", "upload")
    lines = [[r["machine"], r["run"], (f"{r['call']} {r['options']}" if r["call"]
              else "-"), r["result"], r["error"], r["meaning"], r["upload"]] for r in rows]
    widths = [max(len(h), *(len(l[i]) for l in lines)) if lines else len(h) for i, h in enumerate(head)]
    print("  ".join(h.ljust(w) for h, w in zip(head, widths)), file=out)
    for l in lines:
        print("  ".join(c.ljust(w) for c, w in zip(l, widths)).rstrip(), file=out)


def write_junit(path, rows):
    """One case per call on the server; a boot that sent nothing is an error case of its own."""
    failures = [r for r in rows if r["call"] and r["result"] != "Passed"]
    errors = [r for r in rows if not r["call"]]
    suites = ET.Element("testsuites")
    suite = ET.SubElement(suites, "testsuite", name="wirecheck-fleet", tests=str(len(rows)),
                          failures=str(len(failures)), errors=str(len(errors)), skipped="0")
    for r in rows:
        case = ET.SubElement(suite, "testcase", classname=f"fleet.{r['machine']}",
                             name=f"{r['run']} {r['options']}".strip())
        if r in failures:
            ET.SubElement(case, "failure", type=r["result"],
                          message=f"{r['result']} error={r['error']} ({r['meaning']}) status={r['status']}")
        elif r in errors:
            ET.SubElement(case, "error", type="NoResults", message=r["upload"])
    ET.ElementTree(suites).write(path, encoding="utf-8", xml_declaration=True)
