#!/usr/bin/env python3
"""Times a scripted VM run from boot to power-off. Prints "BENCH <name> <value> <unit>"."""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "vm"))
import wcvm  # noqa: E402

run = wcvm.run_vm(wcvm.VmConfig(calls=["-version"]))
print(f"BENCH vm_scripted_run {run.elapsed:.1f} s")
