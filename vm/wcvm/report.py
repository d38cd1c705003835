"""A run's calls as CI systems read them: JSON and JUnit XML, one case per call with its option
string, the test's name, run time, result, error code, what the code means and status, and for a call
that did not pass the last lines of the manager's log for it."""
import json
import re
import xml.etree.ElementTree as ET

from .config import MANAGER_LINES

LOG_TAIL = 12  # lines of a call's log kept with a case that did not pass
# Results that say the test did not run rather than that it failed.
SKIPPED = ("Cancelled", "Skipped", "NotAvailable", "NotInstalled")


def call_seconds(line_times):
    """Seconds from each CALL line to its RESULT line, by the serial log's arrival times."""
    times, begun = [], None
    for when, line in line_times:
        if line.startswith("CALL options="):
            begun = when
        elif line.startswith("RESULT ") and begun is not None:
            times.append(round(when - begun, 1))
            begun = None
    return times


def call_blocks(text):
    """The manager's output or log split into one block per call: (options, lines), in order."""
    blocks = []
    for line in text.splitlines():
        if line.startswith("CALL options='"):
            blocks.append((line[len("CALL options='"):-1], []))
        elif blocks:
            blocks[-1][1].append(line)
    return blocks


def test_name(options):
    """The test an option string names with -test=, "module" when it names none."""
    m = re.search(r"-test=(\S+)", options)
    return m.group(1) if m else "module"


def cases(calls, run):
    times = call_seconds(run.line_times)
    blocks = [lines for _, lines in call_blocks(run.log)]
    out = []
    for index, (options, (result, error, status)) in enumerate(zip(calls, run.results)):
        case = {"options": options, "test": test_name(options), "result": result,
                "error": f"0x{error:X}", "status": status,
                "meaning": run.meanings[index] if index < len(run.meanings) else "",
                "seconds": times[index] if index < len(times) else None}
        if result != "Passed":
            # The module's own lines: the manager's bookkeeping and progress reports are left out.
            lines = [l for l in (blocks[index] if index < len(blocks) else [])
                     if not l.startswith(MANAGER_LINES + ("RESULT ", "PROGRESS "))]
            case["log"] = lines[-LOG_TAIL:]
        out.append(case)
    return out


def write_json(path, calls, run):
    found = cases(calls, run)
    with open(path, "w") as f:
        json.dump({"suite": "wirecheck", "cases": found,
                   "passed": sum(c["result"] == "Passed" for c in found),
                   "not_passed": sum(c["result"] != "Passed" for c in found)}, f, indent=1)


def write_junit(path, calls, run):
    found = cases(calls, run)
    failures = [c for c in found if c["result"] not in ("Passed",) + SKIPPED and c["result"] != "InProgress"]
    errors = [c for c in found if c["result"] == "InProgress"]  # the test gave no result: status says why
    skipped = [c for c in found if c["result"] in SKIPPED]
    total = sum(c["seconds"] or 0 for c in found)
    suites = ET.Element("testsuites")
    suite = ET.SubElement(suites, "testsuite", name="wirecheck", tests=str(len(found)),
                          failures=str(len(failures)), errors=str(len(errors)), skipped=str(len(skipped)),
                          time=f"{total:.1f}")
    for c in found:
        case = ET.SubElement(suite, "testcase", classname=f"wirecheck.{c['test']}", name=c["options"],
                             time=f"{c['seconds'] or 0:.1f}")
        message = f"{c['result']} error={c['error']} ({c['meaning']}) status={c['status']}"
        kind = "failure" if c in failures else "error" if c in errors else "skipped" if c in skipped else ""
        if kind:
            element = ET.SubElement(case, kind, message=message, type=c["result"])
            element.text = "\n".join(c.get("log", []))
    ET.ElementTree(suites).write(path, encoding="utf-8", xml_declaration=True)
