"""Shared helpers for the VM tests: one boot per scenario group, results parsed once."""
import os
import subprocess
import sys

VM_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROOT = os.path.dirname(VM_DIR)
sys.path.insert(0, VM_DIR)
# ./wirecheck's runner as a command, for the tests that run it as a user does.
os.environ["PYTHONPATH"] = os.pathsep.join(filter(None, [VM_DIR, os.environ.get("PYTHONPATH")]))
RUNNER = [sys.executable, "-m", "wcvm"]

import wcvm  # noqa: E402


def run_command(name, *args, timeout=900):
    """One of the runner's table commands (matrix, faults) as a user runs it; its finished process."""
    env = dict(os.environ, PYTHONPATH=VM_DIR)
    return subprocess.run([sys.executable, "-m", "wcvm", name, *args], env=env, capture_output=True, text=True,
                          timeout=timeout)


def boot(calls, **settings):
    cfg = wcvm.VmConfig(calls=list(calls), **settings)
    return wcvm.run_vm(cfg)


def call_blocks(run):
    """Splits the manager's output into one block per call: (options, lines)."""
    return wcvm.call_blocks(run.output)


def runtime_text(lines):
    """What a call showed during its run-time operation: the lines up to its RUNTIME line."""
    shown = []
    for line in lines:
        if line.startswith("RUNTIME "):
            return "\n".join(shown) + ("\n" if shown else "")
        shown.append(line)
    raise AssertionError("no RUNTIME line in the call")


def expected(name):
    path = os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))),
                        "unittests", "expected", name)
    with open(path) as f:
        return f.read()


# The module's version text ("1.01 built ..."), from the one expected file that shows it.
VERSION = expected("version.txt").splitlines()[0].removeprefix("Wirecheck Version ")


# What the result lines say an error code means: the codes the VM tests meet.
MEANINGS = {
    0: "no error",
    0x80000002: "the option string was refused",
    0x80160101: "the first IPv4 configuration failed, or DHCP timed out",
    0x80160104: "the NIC asked for does not exist",
    0x80160105: "an unsupported ping kind was asked for",
    0x80160107: "no cable",
    0x80160802: "no NIC at that index or device path",
}


def result_line(result, code=0, status="Success"):
    """The manager's RESULT line for a call that ended so."""
    return f'RESULT result={result} error=0x{code:X} status={status} meaning="{MEANINGS[code]}"'


PASSED = result_line("Passed")
REFUSED = result_line("Failed", 0x80000002)
