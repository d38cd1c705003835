#!/usr/bin/env python3
"""VM benchmarks. Prints "BENCH <name> <value> <unit>" lines.

- vm_scripted_run: one boot of OVMF, a manager call and power-off.
- pingtest against the shell: in one boot with two NICs that have no address yet (each on its own
  user network), the wall time of the shell's "ifconfig -s eth0 dhcp" plus "ping -n 1" to the
  DHCP server (until the first reply) on NIC 1, of pingtest on NIC 2, and their ratio.
- interactivenetworktest's gateway path against the shell: in one boot with a static configuration
  whose gateway answers, the wall time of the shell's "ping -n 3" to the gateway, of the test (menu-
  less, one NIC: cable check, gateway ping, three pings), and their ratio.
- SpeedTest's clock against the wire: one burst of 99,999 frames on a virtio NIC whose network is
  captured; the module's first-to-last completion interval, the interval of the same frames in the
  capture's time stamps, and their ratio (target within 10 %).
- SpeedTest's spread: 20 calls in one boot; the lowest and highest figure and the spread between
  them in percent of the lowest (target within 20 %).
"""
import re
import tempfile
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

shell = ["echo BENCH-PING3-START", "ping -n 3 10.0.2.2", "echo BENCH-PING3-END"]
run = wcvm.run_vm(wcvm.VmConfig(calls=["-test=interactivenetworktest"],
                                nics=[wcvm.Nic.parse("virtio:ip=10.0.2.15/24,gw=10.0.2.2")], shell_before=shell,
                                timeout=400))
if "RESULT result=Passed" not in run.output or "Network is configured correctly." not in run.log:
    raise SystemExit("vm_bench: interactivenetworktest did not pass on the gateway path")
times = run.line_times
ping_start = first(times, lambda l: l == "BENCH-PING3-START")
ping_end = first(times, lambda l: l == "BENCH-PING3-END", ping_start)
call = first(times, lambda l: l.startswith("CALL options='-test=interactivenetworktest"))
result = first(times, lambda l: l.startswith("RESULT "), call)
print(f"BENCH interactive_gateway_path_wall {result - call:.2f} s")
print(f"BENCH shell_ping_3_wall {ping_end - ping_start:.2f} s")
print(f"BENCH interactive_to_shell_ratio {(result - call) / (ping_end - ping_start):.2f} x")

# A burst the NIC refused frames of ends Aborted (QEMU drains its queues in its own time): up to three
# calls in one boot. The capture is cut into the calls' bursts by the frame counts the module logs,
# and the first whole burst is compared with its frames' time stamps.
with tempfile.TemporaryDirectory() as work:
    dump = os.path.join(work, "burst.pcap")
    run = wcvm.run_vm(wcvm.VmConfig(calls=["-test=SpeedTest -NetworkSpeed=1 -PacketsCount=99999"] * 3,
                                    nics=[wcvm.Nic(dump=dump)], timeout=1200))
    frames = [f for f in wcvm.read_pcap(dump) if f[2][:14] == bytes(14)]
measured = re.finditer(r"Frames: (\d+) of \d+ bytes, first to last completion (\d+) us, (\d+) frames/s|"
                       r"(\d+) of \d+ frames completed, \d+ failed", run.log)
at, whole, refused = 0, None, 0
for m in measured:
    sent = int(m.group(1) or m.group(4))
    if m.group(1) and whole is None:
        whole = (m, frames[at:at + sent])
    refused += 0 if m.group(1) else 1
    at += sent
if whole is None or len(whole[1]) != 99999 or at != len(frames):
    raise SystemExit(f"vm_bench: no burst of 99,999 frames was measured and captured whole ({len(frames)} captured)")
m, burst = whole
module_us = int(m.group(2))
wire_us = (burst[-1][0] - burst[0][0]) * 1e6
print(f"BENCH speedtest_refused_bursts {refused} of 3")
print(f"BENCH speedtest_module_interval {module_us / 1000:.1f} ms")
print(f"BENCH speedtest_capture_interval {wire_us / 1000:.1f} ms")
print(f"BENCH speedtest_interval_ratio {module_us / wire_us:.3f} x")
print(f"BENCH speedtest_frames_per_second {m.group(3)} frames/s")

run = wcvm.run_vm(wcvm.VmConfig(calls=["-test=SpeedTest -NetworkSpeed=1"] * 20, timeout=900))
speeds = [int(v) for v in re.findall(r"speed is (\d+) Mbit/s", run.log)]
if len(speeds) < 10 or min(speeds) == 0:
    raise SystemExit(f"vm_bench: expected 20 non-zero speed figures, got {speeds}")
print(f"BENCH speedtest_20_calls_measured {len(speeds)} of 20")
print(f"BENCH speedtest_20_calls_min {min(speeds)} Mbit/s")
print(f"BENCH speedtest_20_calls_max {max(speeds)} Mbit/s")
print(f"BENCH speedtest_20_calls_spread {100 * (max(speeds) - min(speeds)) / min(speeds):.0f} %")
