"""JUnit files of the compatibility matrix and the fault table, for a firmware engineer's CI: one case
per cell or fault call. A cell that differs from the tests' definition for a known reason of the
firmware or option ROM is a skipped case that carries that reason."""
import xml.etree.ElementTree as ET

from .config import take_value


def take_junit(argv):
    """The --junit FILE (or --junit=FILE) among the arguments, and the arguments without it."""
    path, rest = take_value(argv, "--junit")
    if path == "":
        raise ValueError("--junit takes a file name")
    return path, rest


def _write(path, suite_name, cases):
    """cases: (classname, name, seconds, kind, message, text); kind "" passed, or failure, error, skipped."""
    suites = ET.Element("testsuites")
    count = {k: sum(c[3] == k for c in cases) for k in ("failure", "error", "skipped")}
    suite = ET.SubElement(suites, "testsuite", name=suite_name, tests=str(len(cases)),
                          failures=str(count["failure"]), errors=str(count["error"]),
                          skipped=str(count["skipped"]), time=f"{sum(c[2] for c in cases):.1f}")
    for classname, name, seconds, kind, message, text in cases:
        case = ET.SubElement(suite, "testcase", classname=classname, name=name, time=f"{seconds:.1f}")
        if kind:
            element = ET.SubElement(case, kind, message=message)
            element.text = text
    ET.ElementTree(suites).write(path, encoding="utf-8", xml_declaration=True)


def _outcome(cell):
    if "result" not in cell:  # the repeated bursts: how many gave a figure
        return ""
    return f"{cell['result']} 0x{cell['error']:X}" if isinstance(cell.get("error"), int) else str(cell["result"])


def write_matrix_junit(path, rows):
    """rows as build/matrix.json holds them: a test each, with a cell per column label."""
    cases = []
    for row in rows:
        for label, cell in row["cells"].items():
            verdict = cell.get("verdict")
            if verdict == "n/a":  # a row that does not concern this model
                continue
            outcome = _outcome(cell)
            figure = cell.get("figure") or ""
            kind = {"as defined": "", "explained": "skipped"}.get(verdict, "failure")
            message = cell.get("explanation", "") if kind == "skipped" else \
                f"{outcome} is not what the test defines here" if kind else ""
            cases.append((f"matrix.{label.replace(' ', '.')}", row["test"], float(cell.get("seconds") or 0), kind,
                          message, f"{outcome} {figure}".strip()))
    _write(path, "wirecheck-matrix", cases)


def write_faults_junit(path, rows, broken):
    """rows as build/faults.json holds them (a call under a fault each); broken: faults whose boot failed."""
    def verdict(v):
        return f"{v[0]} 0x{v[1]:X}" if v else "no result"
    cases = []
    for r in rows:
        kind = "" if r["ok"] else "failure"
        message = "" if r["ok"] else f"expected {verdict(r['expected'])}, seen {verdict(r['seen'])}"
        cases.append((f"faults.{r['firmware']}.{r['fault']}", r["call"], float(r["seconds"] or 0), kind, message,
                      f"expected {verdict(r['expected'])}, seen {verdict(r['seen'])}"))
    for name in broken:
        cases.append((f"faults.{name.replace(' ', '.')}", "boot", 0.0, "error", "the boot did not give its calls' "
                      "results (build/faults/ has its files)", ""))
    _write(path, "wirecheck-faults", cases)
