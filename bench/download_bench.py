"""The receive path against iPXE (as root: the run's own web network, vm/wcvm/web.py).

For `virtio` and `e1000`, on the same VM and the same nginx, a file of 64 MiB of random bytes:
- downloadtest without a digest (its figure, first to last byte on the time-stamp counter) and with
  -sha256 (the figure, and the share of the interval that went to the digest and the progress);
- iPXE's imgfetch of the same file, started by the firmware's HTTP boot, whose DHCP request dnsmasq
  answers with a script: snponly.efi, which drives the NIC through the firmware's simple network as
  downloadtest does, and ipxe.efi with its own drivers; the interval between the script's echo lines
  on the serial console;
- the ratio of downloadtest's figure to each of iPXE's (the goal: 0.9 or more);
- the shell's `http` command on a file of 16 MiB (the FAT disk of the run holds no more), into a file.
All figures are Mbit/s of 2^20 bits, as the module counts them.
"""
import hashlib
import os
import re
import sys
import tempfile

import wcvm
from wcvm import web
from wcvm.firmware import fetch_package

FILE_MIB = 64
SHELL_FILE_MIB = 16
IPXE_SUITE = "trixie"  # Debian's ipxe package of 2025 (snponly.efi and ipxe.efi for x86-64)
URL = f"http://{web.WEB_SERVER}"
SCRIPT = f"""#!ipxe
echo WCBENCH imgfetch start
imgfetch --name big {URL}/bench.bin || echo WCBENCH imgfetch failed
echo WCBENCH imgfetch end
poweroff
"""


def _random_file(path, mib):
    digest = hashlib.sha256()
    with open(path, "wb") as f:
        for _ in range(mib):
            block = os.urandom(1 << 20)
            digest.update(block)
            f.write(block)
    return digest.hexdigest()


def _between(run, start, end):
    times = run.line_times
    t0 = next((t for t, line in times if line == start), None)
    t1 = next((t for t, line in times if line == end and t0 is not None and t >= t0), None)
    return None if t0 is None or t1 is None else t1 - t0


def _mbps(size, seconds):
    return size * 8 / (1 << 20) / seconds


def _ipxe_figure(model, boot_file, files):
    run = wcvm.run_vm(wcvm.VmConfig(nics=[wcvm.Nic.parse(f"{model}:net=web")], web_files=files + [boot_file],
                                    netboot=boot_file, timeout=300))
    seconds = _between(run, "WCBENCH imgfetch start", "WCBENCH imgfetch end")
    if seconds is None or "WCBENCH imgfetch failed" in run.serial:
        print(f"vm_bench: iPXE's {os.path.basename(boot_file)} did not fetch the file on {model}", file=sys.stderr)
        return None
    return _mbps(FILE_MIB << 20, seconds)


def _module_figures(model, files, digest):
    shell = ["ifconfig -s eth0 dhcp", "stall 8000000", "echo WCBENCH http start",
             f"http {URL}/shell.bin fs0:\\shell.bin", "echo WCBENCH http end", "rm fs0:\\shell.bin"]
    url = f"-test=downloadtest -url={URL}/bench.bin"
    run = wcvm.run_vm(wcvm.VmConfig(calls=[url, f"{url} -sha256={digest}"], shell_before=shell, timeout=600,
                                    nics=[wcvm.Nic.parse(f"{model}:net=web")], web_files=files))
    if [r[0] for r in run.results] != ["Passed", "Passed"]:
        raise SystemExit(f"vm_bench: downloadtest did not pass on {model}: {run.results}")
    timed = [(int(b), int(ms)) for b, ms in re.findall(r"Received (\d+) bytes using (\d+) ms", run.log)]
    calls = re.findall(r"in (\d+) answer call", run.log)
    sinks = re.findall(r"Of those ms, (\d+) went to the digest", run.log)
    shell = _between(run, "WCBENCH http start", "WCBENCH http end")
    shell_ok = shell is not None and "Unable to" not in run.serial
    return {"plain": _mbps(timed[0][0], timed[0][1] / 1000), "digest": _mbps(timed[1][0], timed[1][1] / 1000),
            "calls": calls[0], "digest_ms": sinks[1], "ms": timed[1][1],
            "shell": _mbps(SHELL_FILE_MIB << 20, shell) if shell_ok else None}


def run():
    ipxe = os.path.join(fetch_package("ipxe", IPXE_SUITE), "usr", "lib", "ipxe")
    with tempfile.TemporaryDirectory() as work:
        files = [os.path.join(work, name) for name in ("bench.bin", "shell.bin", web.NETBOOT_SCRIPT)]
        digest = _random_file(files[0], FILE_MIB)
        _random_file(files[1], SHELL_FILE_MIB)
        with open(files[2], "w") as f:
            f.write(SCRIPT)
        for model in ("virtio", "e1000"):
            own = _module_figures(model, files, digest)
            print(f"BENCH download_{model} {own['plain']:.1f} Mbit/s ({FILE_MIB} MiB, {own['calls']} answer calls)")
            print(f"BENCH download_{model}_sha256 {own['digest']:.1f} Mbit/s "
                  f"(the digest and the progress: {own['digest_ms']} of {own['ms']} ms)")
            for name in ("snponly.efi", "ipxe.efi"):
                figure = _ipxe_figure(model, os.path.join(ipxe, name), files)
                tag = name.removesuffix(".efi")
                if figure is None:
                    print(f"BENCH download_{model}_to_ipxe_{tag}_ratio n/a (iPXE's imgfetch did not finish)")
                    continue
                print(f"BENCH ipxe_{tag}_imgfetch_{model} {figure:.1f} Mbit/s")
                print(f"BENCH download_{model}_to_ipxe_{tag}_ratio {own['plain'] / figure:.2f} x")
            if own["shell"] is None:
                print(f"BENCH shell_http_{model} n/a (the shell has no http command, or it failed)")
            else:
                print(f"BENCH shell_http_{model} {own['shell']:.1f} Mbit/s ({SHELL_FILE_MIB} MiB into a file, "
                      f"connection included)")
