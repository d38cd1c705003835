#!/usr/bin/env python3
"""VM benchmarks. Prints "BENCH <name> <value> <unit>" lines.

- vm_scripted_run: one boot of OVMF, a manager call and power-off.
- pingtest against the shell: in one boot with two NICs that have no address yet (each on its own
  user network), the wall time of the shell's "ifconfig -s eth0 dhcp" plus "ping -n 1" to the
  DHCP server (until the first reply) on NIC 1, of pingtest on NIC 2, and their ratio.
"""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "vm"))
import wcvm  # noqa: E402


def first(times, predicate, after=0.0):
    for when, line in times:
        if when >= after and predicate(line):
            return when
    raise SystemExit(f"vm_bench: no line matched after {after:.1f} s")


run = wcvm.run_vm(wcvm.VmConfig(calls=["-version"]))
print(f"BENCH vm_scripted_run {run.elapsed:.1f} s")

shell = ["echo BENCH-SHELL-START", "ifconfig -s eth0 dhcp",
         "for %i run (1 40)", "  ping -n 1 10.0.2.2", "  stall 250000", "endfor", "echo BENCH-SHELL-END"]
static = wcvm.Nic.parse("virtio:policy=static")
run = wcvm.run_vm(wcvm.VmConfig(calls=["-test=pingtest -index=2"], nics=[static, static], shell_before=shell,
                                timeout=400))
times = run.line_times
call = first(times, lambda l: l.startswith("CALL options='-test=pingtest"))
result = first(times, lambda l: l.startswith("RESULT "), call)
if "RESULT result=Passed" not in run.output:
    raise SystemExit("vm_bench: pingtest did not pass")
shell_start = first(times, lambda l: l == "BENCH-SHELL-START")
reply = first(times, lambda l: "bytes from 10.0.2.2" in l, shell_start)
module = result - call
firmware = reply - shell_start
print(f"BENCH pingtest_wall {module:.2f} s")
print(f"BENCH shell_dhcp_ping_wall {firmware:.2f} s")
print(f"BENCH pingtest_to_shell_ratio {module / firmware:.2f} x")
