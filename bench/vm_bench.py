#!/usr/bin/env python3
"""VM benchmarks. Prints "BENCH <name> <value> <unit>" lines.

- vm_scripted_run: one boot of OVMF, a manager call and power-off.
- pingtest against the shell: in one boot with two NICs that have no address yet (each on its own
  user network), the wall time of the shell's "ifconfig -s eth0 dhcp" plus "ping -n 1" to the
  DHCP server (until the first reply) on NIC 1, of pingtest on NIC 2, and their ratio; on each
  firmware generation (names suffixed with the generation, except the default one's).
- ping6test against the shell: in one boot with two NICs on QEMU's user network, the wall time of the
  shell's "ifconfig6 -s eth0 auto" plus "ping6 -n 1" to the router's global address (until the first
  reply) on NIC 1, of ping6test with one request on NIC 2, and their ratio; on each generation (n/a
  where the firmware has no IPv6).
- interactivenetworktest's gateway path against the shell: in one boot with a static configuration
  whose gateway answers, the wall time of the shell's "ping -n 3" to the gateway, of the test (menu-
  less, one NIC: cable check, gateway ping, three pings), and their ratio.
- SpeedTest's bursts on a virtio NIC whose network is captured: how many of three 99,999-frame
  bursts the firmware refused frames of (ending Aborted), and, on the bursts that completed, the
  module's first-to-last completion interval against the same frames' interval in the capture's
  time stamps (the worst ratio; target within 10 %).
- The same on AArch64 (AAVMF, QEMU's virt machine; names suffixed _aarch64): the interval of five
  bursts of 10,000 frames timed by the generic timer against the capture, and pingtest against the
  shell.
- SpeedTest's spread: 20 calls in one boot; the lowest and highest figure and the spread between
  them in percent of the lowest (target within 20 %).
- A fleet over the network (as root): for one machine and for three side by side, the seconds from
  power-on to the last upload (of the machine that finished last), and the bytes each machine
  downloads from the web server to boot.
- The receive path (as root): downloadtest's figure for a file of 64 MiB on virtio and e1000 against
  iPXE's imgfetch of the same file on the same VM and server, and the shell's http command
  (download_bench.py).
- The fault table and the compatibility matrix as the test suite runs them (two boots at a time):
  their wall times (the fault table's target: within 8 minutes on two cores).
"""
import json
import re
import subprocess
import tempfile
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "vm"))
import wcvm  # noqa: E402
import wcvm.firmware  # noqa: E402


def first(times, predicate, after=0.0):
    for when, line in times:
        if when >= after and predicate(line):
            return when
    raise SystemExit(f"vm_bench: no line matched after {after:.1f} s")


run = wcvm.run_vm(wcvm.VmConfig(calls=["-version"]))
print(f"BENCH vm_scripted_run {run.elapsed:.1f} s")



def test_against_the_shell(firmware, suffix, test, call, nic, shell, reply, shell_name):
    """One boot with two NICs: the shell's lines on NIC 1 until the first line with `reply`, then the
    call on NIC 2; the wall time of each and their ratio."""
    shell = ["echo BENCH-SHELL-START"] + shell + ["echo BENCH-SHELL-END"]
    nics = [wcvm.Nic.parse(nic), wcvm.Nic.parse(nic)]
    run = wcvm.run_vm(wcvm.VmConfig(calls=[call], nics=nics, shell_before=shell, timeout=400, firmware=firmware))
    times = run.line_times
    start = first(times, lambda l: l.startswith(f"CALL options='-test={test}"))
    result = first(times, lambda l: l.startswith("RESULT "), start)
    if "RESULT result=Passed" not in run.output:
        raise SystemExit(f"vm_bench: {test} did not pass{suffix}")
    shell_start = first(times, lambda l: l == "BENCH-SHELL-START")
    shell_wall = first(times, lambda l: reply in l, shell_start) - shell_start
    module = result - start
    print(f"BENCH {test}_wall{suffix} {module:.2f} s")
    print(f"BENCH {shell_name}_wall{suffix} {shell_wall:.2f} s")
    print(f"BENCH {test}_to_shell_ratio{suffix} {module / shell_wall:.2f} x")


# On every firmware generation: the default one's names carry no suffix.
for name in wcvm.firmware.GENERATIONS:
    firmware = wcvm.firmware.resolve(name)
    suffix = "" if name == wcvm.firmware.DEFAULT_GENERATION else f"_{name}"
    # Two NICs without an address yet, each on its own user network.
    test_against_the_shell(firmware, suffix, "pingtest", "-test=pingtest -index=2", "virtio:policy=static",
                           ["ifconfig -s eth0 dhcp", "for %i run (1 40)", "  ping -n 1 10.0.2.2",
                            "  stall 250000", "endfor"], "bytes from 10.0.2.2", "shell_dhcp_ping")
    if name in wcvm.firmware.WITHOUT_IPV6:
        print(f"BENCH ping6test_to_shell_ratio{suffix} n/a (built without IPv6: no ifconfig6, no ping6)")
        continue
    # The shell's own IPv6 against ping6test with one request, to QEMU's router.
    test_against_the_shell(firmware, suffix, "ping6test", "-test=ping6test -index=2 -testrepeats=1", "virtio",
                           ["ifconfig6 -s eth0 auto", "for %i run (1 40)", "  ping6 -n 1 fec0::2",
                            "  stall 250000", "endfor"], "bytes from fec0::2", "shell_ifconfig6_ping6")

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

def speedtest_against_the_capture(firmware, suffix, long_bursts, short_bursts):
    """The firmware's managed network refuses a frame when the NIC's transmit ring stays full, and
    the burst then ends Aborted: how often that happens to a burst of 99,999 frames is a figure of
    its own. The clock is measured against the capture on the bursts that complete: bursts of 10,000
    frames after the long ones, in the same boot. The capture is cut into the calls' bursts by the
    frame counts the module logs."""
    with tempfile.TemporaryDirectory() as work:
        dump = os.path.join(work, "burst.pcap")
        run = wcvm.run_vm(wcvm.VmConfig(calls=["-test=SpeedTest -NetworkSpeed=1 -PacketsCount=99999"] * long_bursts +
                                        ["-test=SpeedTest -NetworkSpeed=1 -PacketsCount=10000"] * short_bursts,
                                        nics=[wcvm.Nic(dump=dump)], timeout=1800, firmware=firmware))
        frames = [f for f in wcvm.read_pcap(dump) if f[2][:14] == bytes(14)]
    bursts = []  # (frames asked for, completed whole, module interval in us, frames/s, the burst's frames)
    at = 0
    for m in re.finditer(r"Frames: (\d+) of \d+ bytes, first to last completion (\d+) us, (\d+) frames/s|"
                         r"(\d+) of (\d+) frames completed, \d+ failed", run.log):
        if m.group(1):
            sent = int(m.group(1))
            bursts.append((sent, True, int(m.group(2)), int(m.group(3)), frames[at:at + sent]))
        else:
            sent = int(m.group(4))
            bursts.append((int(m.group(5)), False, 0, 0, []))
        at += sent
    if long_bursts:
        refused = sum(not b[1] for b in bursts if b[0] == 99999)
        print(f"BENCH speedtest_99999_refused{suffix} {refused} of {long_bursts} bursts")
    ratios = []
    if at == len(frames):
        for asked, whole, module_us, per_second, burst in bursts:
            if whole and len(burst) == asked:
                wire_us = (burst[-1][0] - burst[0][0]) * 1e6
                ratios.append((module_us / wire_us, module_us, wire_us, per_second))
    else:
        print(f"vm_bench: the capture holds {len(frames)} frames, the module logged {at}", file=sys.stderr)
    print(f"BENCH speedtest_bursts_compared{suffix} {len(ratios)} of {len(bursts)}")
    if ratios:
        worst = max(ratios, key=lambda r: abs(r[0] - 1))
        print(f"BENCH speedtest_interval_ratio_worst{suffix} {worst[0]:.3f} x")
        print(f"BENCH speedtest_module_interval{suffix} {worst[1] / 1000:.1f} ms")
        print(f"BENCH speedtest_capture_interval{suffix} {worst[2] / 1000:.1f} ms")
        print(f"BENCH speedtest_frames_per_second{suffix} {worst[3]} frames/s")
    else:
        print(f"BENCH speedtest_interval_ratio_worst{suffix} n/a (no burst completed)")


speedtest_against_the_capture(None, "", 3, 5)

# AArch64, AAVMF on QEMU's virt machine: the generic timer against the capture (bursts of 10,000
# frames), and pingtest against the shell.
aarch64 = wcvm.firmware.resolve(arch="aarch64")
speedtest_against_the_capture(aarch64, "_aarch64", 0, 5)
test_against_the_shell(aarch64, "_aarch64", "pingtest", "-test=pingtest -index=2", "virtio:policy=static",
                       ["ifconfig -s eth0 dhcp", "for %i run (1 40)", "  ping -n 1 10.0.2.2",
                        "  stall 250000", "endfor"], "bytes from 10.0.2.2", "shell_dhcp_ping")

run = wcvm.run_vm(wcvm.VmConfig(calls=["-test=SpeedTest -NetworkSpeed=1"] * 20, timeout=900))
speeds = [int(v) for v in re.findall(r"speed is (\d+) Mbit/s", run.log)]
if len(speeds) < 10 or min(speeds) == 0:
    raise SystemExit(f"vm_bench: expected 20 non-zero speed figures, got {speeds}")
print(f"BENCH speedtest_20_calls_measured {len(speeds)} of 20")
print(f"BENCH speedtest_20_calls_min {min(speeds)} Mbit/s")
print(f"BENCH speedtest_20_calls_max {max(speeds)} Mbit/s")
print(f"BENCH speedtest_20_calls_spread {100 * (max(speeds) - min(speeds)) / min(speeds):.0f} %")


def fleet_bench():
    from wcvm import fleet
    for count in (1, 3):
        machines = fleet.machines_for(count, os.getpid() % 100000)
        with fleet.Fleet(machines, ["-test=pingtest"]) as f:
            f.boot()
            requests = f.traffic()
            rows = f.rows()
        if len(rows) != count or any(r["upload"] != "complete" for r in rows):
            raise SystemExit(f"vm_bench: the fleet of {count} did not upload everything: {rows}")
        power_on = min(b.started for b in f.boots)
        last_put = max(t for t, _, method, *_ in requests if method == "PUT")
        print(f"BENCH fleet_{count}_power_on_to_last_upload {last_put - power_on:.1f} s")
        downloads = {}
        for _, client, method, _, _, sent in requests:
            if method in ("GET", "HEAD"):
                downloads[client] = downloads.get(client, 0) + sent
        print(f"BENCH fleet_{count}_bytes_downloaded_per_machine {max(downloads.values())} bytes")


def menu_stack_bench():
    """The deepest use of the firmware's stack in a technician's menu session that runs every test and
    uploads after each over HTTPS (the TLS handshake runs below VexRun's frames), against the 128 KiB
    that UEFI promises and EDK2 gives."""
    from wcvm import fleet
    machines = fleet.machines_for(1, os.getpid() % 100000 + 1)
    with fleet.Fleet(machines, [], https=True, script="front all\nfront finish\n") as f:
        f.boot()
        serial = f.boots[0].serial_log if f.boots else ""
    text = open(serial, errors="replace").read() if serial and os.path.exists(serial) else ""
    m = re.search(r"STACK deepest=(\d+) size=(\d+)", text)
    uploads = text.count("UPLOAD state=failed")
    if m is None:
        print("BENCH menu_https_session_deepest_stack n/a (the manager found no stack in the hand-off list)")
        return
    print(f"BENCH menu_https_session_deepest_stack {m.group(1)} bytes")
    print(f"BENCH menu_https_session_stack_limit 131072 bytes (the stack found: {m.group(2)} bytes; "
          f"failed upload rounds: {uploads})")


if os.geteuid() == 0:
    fleet_bench()
    menu_stack_bench()
    import download_bench  # noqa: E402
    download_bench.run()
else:
    print("BENCH fleet n/a (the fleet's network namespace needs root)")
    print("BENCH download n/a (the web network's namespace needs root)")


def table_command(name, *args):
    """Runs one of the table commands as ./wirecheck does; its JSON file's record."""
    done = subprocess.run([sys.executable, "-m", "wcvm", name, *args], capture_output=True, text=True,
                          env=dict(os.environ, PYTHONPATH=os.path.join(ROOT, "vm")))
    if done.returncode != 0:
        raise SystemExit(f"vm_bench: wirecheck {name} exited {done.returncode}: {done.stdout[-500:]}{done.stderr[-500:]}")
    with open(os.path.join(ROOT, "build", f"{name}.json")) as f:
        return json.load(f)


faults = table_command("faults")
print(f"BENCH faults_table_wall {faults['wall_seconds']} s")
print(f"BENCH faults_table_calls {len(faults['rows'])} calls")
matrix = table_command("matrix", "--jobs", "2")
print(f"BENCH matrix_jobs_2_wall {matrix['wall_seconds']} s")
