#!/usr/bin/env python3
"""Boots OVMF under QEMU with a FAT disk holding Wirecheck.efi and the VexRun manager, runs the
manager from the UEFI shell and reads its results back.

Networking is QEMU user networking with restrict=on (or an isolated hub): the guest can reach
nothing outside the virtual network.
"""
import argparse
import os
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time
import tty
from dataclasses import dataclass, field

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EFI_DIR = os.path.join(ROOT, "build", "efi")
# Where the files of the last run land; each VM test file has its own, so that they can run at once.
LAST_DIR = os.environ.get("WIRECHECK_VM_LAST") or os.path.join(ROOT, "build", "vm", "last")
OVMF_CODE = "/usr/share/OVMF/OVMF_CODE_4M.fd"
OVMF_VARS = "/usr/share/OVMF/OVMF_VARS_4M.fd"
# Vendor GUID under which --var NAME sets a variable when no GUID is given (the module's own).
DEFAULT_VAR_GUID = "59D1C24F-50F1-401A-B101-F33E0DAED443"
NIC_MODELS = {"virtio": "virtio-net-pci", "e1000": "e1000", "rtl8139": "rtl8139"}
ESCAPE = re.compile(r"\x1b\[[0-9;=?]*[A-Za-z]")
RESULT_LINE = re.compile(r"^RESULT result=(\w+) error=0x([0-9A-Fa-f]+) status=(.*)$")
MANAGER_LINES = ("CALL ", "RUNTIME ", "LOAD ", "PROTOCOLS ", "MODULE ", "UNLOAD ", "VEXRUN ", "HANDLES ", "MESSAGE ")


class HarnessError(Exception):
    """The VM or the harness failed; the module's result is unknown."""


@dataclass
class Nic:
    model: str = "virtio"
    link: bool = True
    network: bool = True
    mac: str = ""
    policy: str = "dhcp"
    bridge: bool = False  # behind a PCIe root port rather than on the root bridge's bus
    dump: str = ""  # a pcap file that receives every frame of the NIC's network (both directions)
    ip: str = ""  # a static IPv4 configuration set in the firmware before the manager starts: "A.B.C.D/len"
    gateway: str = ""  # its default gateway
    plug: int = 0  # plug the cable in (raise the link) when the manager shows this prompt number

    @staticmethod
    def parse(text):
        model, _, opts = text.partition(":")
        if model not in NIC_MODELS:
            raise ValueError(f"unknown NIC model '{model}' (one of {', '.join(NIC_MODELS)})")
        nic = Nic(model=model)
        for opt in filter(None, opts.split(",")):
            key, _, value = opt.partition("=")
            if key == "link" and value in ("on", "off"):
                nic.link = value == "on"
            elif key == "net" and value in ("none", "user"):
                nic.network = value == "user"
            elif key == "mac" and re.fullmatch(r"([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}", value):
                nic.mac = value.lower()
            elif key == "policy" and value in ("dhcp", "static"):
                nic.policy = value
            elif key == "bridge" and not value:
                nic.bridge = True
            elif key == "dump" and value:
                nic.dump = os.path.abspath(value)
            elif key == "ip" and re.fullmatch(r"(\d{1,3}\.){3}\d{1,3}/\d{1,2}", value):
                nic.ip = value
                nic.policy = "static"
            elif key == "gw" and re.fullmatch(r"(\d{1,3}\.){3}\d{1,3}", value):
                nic.gateway = value
            elif key == "plug" and value.isdigit():
                nic.plug = int(value)
            else:
                raise ValueError(f"bad NIC option '{opt}' (link=off, net=none, mac=XX:..:XX, policy=dhcp|static, "
                                 f"bridge, dump=FILE.pcap, ip=A.B.C.D/LEN, gw=A.B.C.D, plug=PROMPT)")
        if nic.gateway and not nic.ip:
            raise ValueError("gw= needs ip=A.B.C.D/LEN")
        return nic


@dataclass
class VmConfig:
    calls: list = field(default_factory=list)  # option strings, one manager call each
    nics: list = None  # None: one virtio NIC; [] : no NIC at all
    smbios: list = field(default_factory=list)
    variables: list = field(default_factory=list)  # (name, guid, text)
    files: list = field(default_factory=list)  # (local path, image path)
    script: str = ""  # answers for prompts, progress and menus
    verbose: bool = False  # manager shows the output flags of every line
    old_layout: bool = False
    reload: bool = False  # a fresh module image for every call
    check_handles: bool = False  # the manager compares the handle database around each call
    language: str = ""  # the manager shows prompt texts in this language of the message file
    messages: list = field(default_factory=list)  # message numbers the manager prints before the calls
    timeout: int = 240
    shell_before: list = field(default_factory=list)  # extra shell lines before the manager
    cwd: str = ""  # the shell's current directory on fs0: when the manager runs (made if missing)
    shell_after: list = field(default_factory=list)  # shell lines after the manager, before power-off
    image: str = ""  # boot this disk image (made by build_image) instead of the shell and startup.nsh
    on_line: object = None  # called with each clean serial line as it arrives
    keyboard: bool = False  # keys typed at this terminal reach the VM
    ui: str = "both"  # the menu protocols the manager installs: both, console or none


@dataclass
class VmRun:
    serial: str
    output: str  # what the manager showed on its console
    log: str  # everything the manager received, console or not
    results: list  # (result, error code, status) per call
    files_dir: str
    elapsed: float
    line_times: list = field(default_factory=list)  # (seconds since start, serial line) as they arrived

    def lines(self, prefix):
        return [l for l in self.output.splitlines() if l.startswith(prefix)]


def read_pcap(path):
    """The frames of a capture file: (seconds, length on the wire, captured bytes) each."""
    with open(path, "rb") as f:
        data = f.read()
    if len(data) < 24:
        return []
    magic = struct.unpack_from("<I", data)[0]
    order = "<" if magic in (0xA1B2C3D4, 0xA1B23C4D) else ">"
    scale = 1e-9 if magic in (0xA1B23C4D, 0x4D3CB2A1) else 1e-6
    frames, at = [], 24
    while at + 16 <= len(data):
        sec, frac, caplen, wirelen = struct.unpack_from(order + "IIII", data, at)
        at += 16
        frames.append((sec + frac * scale, wirelen, data[at:at + caplen]))
        at += caplen
    return frames


def parse_var(text):
    name, _, value = text.partition("=")
    name, _, guid = name.partition("@")
    if not name or not re.fullmatch(r"[A-Za-z0-9_]+", name):
        raise ValueError(f"bad variable name in '{text}'")
    guid = guid or DEFAULT_VAR_GUID
    if not re.fullmatch(r"[0-9A-Fa-f]{8}-([0-9A-Fa-f]{4}-){3}[0-9A-Fa-f]{12}", guid):
        raise ValueError(f"bad GUID in '{text}'")
    if '"' in value or "\n" in value:
        raise ValueError("a variable's text cannot hold a double quote or a line break")
    return name, guid, value


def _check_tools():
    for tool in ("qemu-system-x86_64", "mformat", "mcopy"):
        if shutil.which(tool) is None:
            raise HarnessError(f"{tool} is missing (./wirecheck installs it)")
    for path in (OVMF_CODE, OVMF_VARS):
        if not os.path.exists(path):
            raise HarnessError(f"{path} is missing (package ovmf)")
    for image in ("Wirecheck.efi", "VexRun.efi"):
        if not os.path.exists(os.path.join(EFI_DIR, image)):
            raise HarnessError(f"{image} is not built (./wirecheck build)")


def _startup_script(cfg):
    lines = ["@echo -off", "connect -r"]
    for index, nic in enumerate(cfg.nics):
        if nic.ip:
            address, length = nic.ip.split("/")
            bits = (0xFFFFFFFF << (32 - int(length))) & 0xFFFFFFFF
            mask = ".".join(str(bits >> shift & 0xFF) for shift in (24, 16, 8, 0))
            lines.append(f"ifconfig -s eth{index} static {address} {mask} {nic.gateway or '0.0.0.0'}")
        elif nic.policy == "dhcp":
            lines.append(f"ifconfig -s eth{index} dhcp")
    for name, guid, value in cfg.variables:
        # An empty text is its terminator alone: the shell takes no empty L"" string.
        data = f'=L"{value}"' if value else "=0000"
        lines.append(f'setvar {name} -guid {guid} -bs -rt -nv {data}')
    lines += cfg.shell_before
    lines.append("fs0:")
    if cfg.cwd:
        lines += [f"mkdir {cfg.cwd}", f"cd {cfg.cwd}"]
    args = "-c calls.txt"
    if cfg.script:
        args += " -s script.txt"
    if cfg.verbose:
        args += " -v"
    if cfg.old_layout:
        args += " -old"
    if cfg.reload:
        args += " -r"
    if cfg.check_handles:
        args += " -hdb"
    if cfg.language:
        args += f" -lang {cfg.language}"
    if cfg.ui != "both":
        args += f" -ui {cfg.ui}"
    for message in cfg.messages:
        args += f" -msg {int(message)}"
    lines.append(f"fs0:\\VexRun.efi {args}")
    lines += cfg.shell_after
    lines.append("reset -s")
    return "\r\n".join(lines) + "\r\n"


def _build_disk(cfg, work):
    content = os.path.join(work, "content")
    os.makedirs(content)
    for image in ("Wirecheck.efi", "VexRun.efi"):
        shutil.copy(os.path.join(EFI_DIR, image), content)
    for extra in ("Wirecheck.msg.xml",):
        path = os.path.join(ROOT, "support", extra)
        if os.path.exists(path):
            shutil.copy(path, content)
    with open(os.path.join(content, "startup.nsh"), "w", newline="") as f:
        f.write(_startup_script(cfg))
    with open(os.path.join(content, "calls.txt"), "w", newline="") as f:
        f.write("".join(c + "\n" for c in cfg.calls))
    if cfg.script:
        with open(os.path.join(content, "script.txt"), "w", newline="") as f:
            f.write(cfg.script)
    disk = os.path.join(work, "disk.img")
    with open(disk, "wb") as f:
        f.truncate(32 * 1024 * 1024)
    subprocess.run(["mformat", "-i", disk, "::"], check=True, capture_output=True)
    subprocess.run(["mcopy", "-s", "-i", disk] + [os.path.join(content, n) for n in sorted(os.listdir(content))]
                   + ["::"], check=True, capture_output=True)
    _copy_files(disk, cfg.files)
    return disk


def _copy_files(fat, files):
    """Puts each (local file, path) on a FAT file system, making the path's directories."""
    for local, target in files:
        target = target.replace("\\", "/").lstrip("/")
        parts = target.split("/")[:-1]
        for depth in range(1, len(parts) + 1):
            subprocess.run(["mmd", "-i", fat, "::/" + "/".join(parts[:depth])], capture_output=True)
        subprocess.run(["mcopy", "-o", "-i", fat, local, "::/" + target], check=True, capture_output=True)


def parse_files(specs):
    """--file LOCAL=PATH arguments as (local file, path on the disk)."""
    files = []
    for spec in specs:
        local, sep, target = spec.partition("=")
        if not sep or not os.path.isfile(local):
            raise ValueError(f"--file wants LOCAL=PATH with an existing local file, got '{spec}'")
        files.append((local, target))
    return files


IMAGE_OFFSET = 1024 * 1024  # the FAT partition of a boot image starts 1 MiB in
IMAGE_SIZE = 64 * 1024 * 1024


def _fat(disk):
    """The mtools name of a disk's FAT file system: a boot image keeps it in its partition."""
    with open(disk, "rb") as f:
        mbr = f.read(512)
    if len(mbr) == 512 and mbr[510:512] == b"\x55\xaa" and mbr[0x1C2] == 0xEF:
        return f"{disk}@@{IMAGE_OFFSET}"
    return disk


def build_image(path, calls, script="", files=()):
    """A disk image for a USB stick: an MBR with one EFI system partition (FAT), the manager as
    \\EFI\\BOOT\\BOOTX64.EFI with the module, its messages and the calls beside it."""
    _check_tools()
    work = tempfile.mkdtemp(prefix="wirecheck-image-")
    try:
        part = os.path.join(work, "part.img")
        with open(part, "wb") as f:
            f.truncate(IMAGE_SIZE - IMAGE_OFFSET)
        subprocess.run(["mformat", "-i", part, "-v", "WIRECHECK", "::"], check=True, capture_output=True)
        for d in ("::/EFI", "::/EFI/BOOT"):
            subprocess.run(["mmd", "-i", part, d], check=True, capture_output=True)
        content = os.path.join(work, "content")
        os.makedirs(content)
        shutil.copy(os.path.join(EFI_DIR, "VexRun.efi"), os.path.join(content, "BOOTX64.EFI"))
        shutil.copy(os.path.join(EFI_DIR, "Wirecheck.efi"), content)
        shutil.copy(os.path.join(ROOT, "support", "Wirecheck.msg.xml"), content)
        with open(os.path.join(content, "calls.txt"), "w", newline="") as f:
            f.write("".join(c + "\r\n" for c in calls))
        if script:
            with open(os.path.join(content, "script.txt"), "w", newline="") as f:
                f.write(script)
        subprocess.run(["mcopy", "-i", part] + [os.path.join(content, n) for n in sorted(os.listdir(content))]
                       + ["::/EFI/BOOT/"], check=True, capture_output=True)
        _copy_files(part, files)
        # The MBR: one partition of type 0xEF (EFI system) from 1 MiB to the end.
        sectors = (IMAGE_SIZE - IMAGE_OFFSET) // 512
        entry = bytes([0x00, 0xFE, 0xFF, 0xFF, 0xEF, 0xFE, 0xFF, 0xFF]) + \
            (IMAGE_OFFSET // 512).to_bytes(4, "little") + sectors.to_bytes(4, "little")
        mbr = bytearray(512)
        mbr[0x1BE:0x1BE + 16] = entry
        mbr[510:512] = b"\x55\xaa"
        with open(path, "wb") as out:
            out.write(mbr)
            out.write(bytes(IMAGE_OFFSET - 512))
            with open(part, "rb") as f:
                shutil.copyfileobj(f, out)
    finally:
        shutil.rmtree(work, ignore_errors=True)


def read_image_results(path):
    """The RESULT lines of results.txt on a boot image, after it ran."""
    done = subprocess.run(["mtype", "-i", f"{path}@@{IMAGE_OFFSET}", "::/EFI/BOOT/results.txt"],
                          capture_output=True)
    if done.returncode != 0:
        return None
    return [l for l in done.stdout.decode("utf-8", "replace").replace("\r", "").splitlines()
            if l.startswith("RESULT ")]


def image_main(argv):
    """./wirecheck image FILE [--script FILE] [--file LOCAL=PATH] OPTIONS... (or -- "OPTIONS" ...)."""
    if not argv or argv[0].startswith("-"):
        print("usage: ./wirecheck image FILE [--script FILE] [--file LOCAL=PATH] OPTIONS... "
              "| -- \"OPTIONS 1\" \"OPTIONS 2\" ...", file=sys.stderr)
        return 2
    path = argv[0]
    try:
        vm_args, calls = split_arguments(argv[1:])
        parser = argparse.ArgumentParser(prog="wirecheck image")
        parser.add_argument("--script")
        parser.add_argument("--file", action="append", default=[])
        parser.add_argument("--call", action="append", default=[])
        for word in vm_args:
            if word.startswith("--") and word.split("=")[0] not in ("--script", "--file", "--call"):
                raise ValueError(f"{word} does not apply to a boot image (only --script, --file and --call do)")
        args = parser.parse_args(vm_args)
        calls = [check_paths(c) for c in args.call + calls]
        if not calls:
            raise ValueError("no option string (for example: ./wirecheck image stick.img -test=pingtest)")
        files = parse_files(args.file)
        script = ""
        if args.script:
            with open(args.script) as f:
                script = f.read()
        build_image(path, calls, script, files)
    except (ValueError, OSError, HarnessError) as e:
        print(f"wirecheck image: {e}", file=sys.stderr)
        return 2
    print(f"wrote {path}: {len(calls)} call(s); copy it to a USB stick with "
          f"'sudo dd if={path} of=/dev/sdX bs=4M conv=fsync' and boot the machine from the stick")
    return 0


def _qemu_command(cfg, disk, vars_copy, qmp_path):
    cmd = ["qemu-system-x86_64", "-machine", "q35", "-accel", "tcg", "-m", "512", "-smp", "1",
           "-nodefaults", "-no-reboot", "-display", "none", "-serial", "stdio", "-monitor", "none",
           "-drive", f"if=pflash,format=raw,unit=0,readonly=on,file={OVMF_CODE}",
           "-drive", f"if=pflash,format=raw,unit=1,file={vars_copy}",
           "-drive", f"if=none,id=d0,format=raw,file={disk}",
           "-device", "virtio-blk-pci,drive=d0,bootindex=0"]
    for index, nic in enumerate(cfg.nics):
        netdev = f"n{index}"
        if nic.network:
            cmd += ["-netdev", f"user,id={netdev},restrict=on"]
        else:
            # A hub of its own with nothing else on it: link up, no DHCP server, no way out.
            cmd += ["-netdev", f"hubport,id={netdev},hubid={10 + index}"]
        if nic.dump:
            # Frame headers are enough to count and time the frames; each record keeps the length on the wire.
            cmd += ["-object", f"filter-dump,id=dump{index},netdev={netdev},file={nic.dump},maxlen=64"]
        device = f"{NIC_MODELS[nic.model]},netdev={netdev}"
        if nic.bridge:
            cmd += ["-device", f"pcie-root-port,id=rp{index},chassis={index + 1},slot={index + 1}"]
            device += f",bus=rp{index}"
        if nic.model == "virtio":
            device += ",romfile="
        if nic.mac:
            device += f",mac={nic.mac}"
        cmd += ["-device", device]
    for entry in cfg.smbios:
        cmd += ["-smbios", "type=" + entry]
    if qmp_path:
        cmd += ["-S", "-qmp", f"unix:{qmp_path},server=on,wait=off"]
    return cmd


class _Qmp:
    """QEMU's monitor: unplugs the cables of the NICs started with link=off before the VM runs, and
    plugs a NIC's cable in when the manager shows the prompt the NIC waits for."""

    def __init__(self, path, nics, deadline):
        import json
        self.json = json
        while not os.path.exists(path):
            if time.time() > deadline:
                raise HarnessError("QEMU did not open its QMP socket")
            time.sleep(0.05)
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        self.file = self.socket.makefile("rw")
        self.file.readline()  # greeting
        self.nics = nics
        self.execute("qmp_capabilities")
        for index, nic in enumerate(nics):
            if not nic.link:
                self.execute("set_link", {"name": f"n{index}", "up": False})
        self.execute("cont")

    def execute(self, command, arguments=None):
        msg = {"execute": command}
        if arguments:
            msg["arguments"] = arguments
        self.file.write(self.json.dumps(msg) + "\n")
        self.file.flush()
        while True:
            reply = self.json.loads(self.file.readline())
            if "return" in reply:
                return
            if "error" in reply:
                raise HarnessError(f"QMP {command}: {reply['error']}")

    def on_line(self, line):
        m = re.match(r"PROMPT message=(\d+)", line)
        if not m:
            return
        for index, nic in enumerate(self.nics):
            if nic.plug == int(m.group(1)):
                self.execute("set_link", {"name": f"n{index}", "up": True})
                nic.plug = 0  # once

    def close(self):
        self.file.close()
        self.socket.close()


# What the manager prints when it waits for a key that only a person can press.
WAITING_LINES = ("Press a key to continue, ESC to abort.", "Choose an item with its number, ESC to cancel.")


def _question(serial):
    """Names the question the manager waits on: the last prompt (number and text) or menu."""
    prompt = None
    for line in serial.splitlines():
        m = re.match(r"PROMPT message=(\d+)", line)
        if m:
            prompt = f"prompt {m.group(1)}"
        m = re.match(r"PROMPT text=(.*)", line)
        if m and prompt:
            prompt = f'{prompt.split(" (")[0]} ("{m.group(1).strip()}")'
        if line.startswith("MENU "):
            prompt = "a menu"
    return prompt or "a question"


class _Keyboard:
    """The user's terminal in character mode while the VM runs; restored on every way out."""

    def __init__(self):
        self.fd = sys.stdin.fileno()
        self.saved = termios.tcgetattr(self.fd)
        tty.setcbreak(self.fd)  # Ctrl-C still interrupts
        self.old_handler = signal.signal(signal.SIGTERM, self._terminate)

    def _terminate(self, *_):
        self.restore()
        sys.exit(2)

    def read(self):
        data = os.read(self.fd, 64)
        # Enter is a carriage return on a serial console.
        return data.replace(b"\n", b"\r")

    def restore(self):
        if self.saved is not None:
            termios.tcsetattr(self.fd, termios.TCSADRAIN, self.saved)
            self.saved = None
            signal.signal(signal.SIGTERM, self.old_handler)


def clean_serial(raw):
    text = raw.decode("utf-8", "replace")
    return ESCAPE.sub("", text).replace("\r", "")


def run_vm(cfg):
    """Boots the VM once, runs every call of cfg, and returns what came back."""
    _check_tools()
    if cfg.nics is None:
        cfg.nics = [Nic()]
    start = time.time()
    work = tempfile.mkdtemp(prefix="wirecheck-vm-")
    try:
        disk = cfg.image or _build_disk(cfg, work)
        vars_copy = os.path.join(work, "vars.fd")
        shutil.copy(OVMF_VARS, vars_copy)
        qmp_path = os.path.join(work, "qmp.sock") if any(not n.link or n.plug for n in cfg.nics) else ""
        proc = subprocess.Popen(_qemu_command(cfg, disk, vars_copy, qmp_path), stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        deadline = start + cfg.timeout
        raw = bytearray()
        arrivals = []  # (seconds since start, length of the raw output so far)
        skipped = False
        timed_out = False
        unanswerable = None
        pending = b""
        keyboard = _Keyboard() if cfg.keyboard else None
        qmp = None
        try:
            if qmp_path:
                qmp = _Qmp(qmp_path, cfg.nics, deadline)
            while proc.poll() is None:
                if time.time() > deadline:
                    timed_out = True
                    break
                sources = [proc.stdout] + ([sys.stdin] if keyboard and skipped else [])
                ready, _, _ = select.select(sources, [], [], 0.2)
                if sys.stdin in ready:
                    keys = keyboard.read()
                    if keys:
                        proc.stdin.write(keys)
                        proc.stdin.flush()
                if proc.stdout in ready:
                    chunk = os.read(proc.stdout.fileno(), 65536)
                    if not chunk:
                        # The serial side closed: QEMU is on its way out after "reset -s".
                        try:
                            proc.wait(timeout=max(1, min(15, deadline - time.time())))
                        except subprocess.TimeoutExpired:
                            timed_out = True
                        break
                    raw += chunk
                    arrivals.append((time.time() - start, len(raw)))
                    # The shell counts down before startup.nsh; any key but ESC skips the wait. A
                    # manager booted from an image waits for a key before it powers off.
                    if not skipped and (b"seconds to skip" in raw or b"VEXRUN DONE" in raw):
                        proc.stdin.write(b" ")
                        proc.stdin.flush()
                        skipped = True
                    pending += chunk
                    *complete, pending = pending.split(b"\n")
                    for line in complete:
                        text = clean_serial(line).strip()
                        if qmp:
                            qmp.on_line(text)
                        if cfg.on_line:
                            cfg.on_line(text)
                        if not cfg.keyboard and not cfg.script and text in WAITING_LINES:
                            unanswerable = _question(clean_serial(bytes(raw)))
                    if unanswerable:
                        break
        finally:
            if qmp:
                qmp.close()
            if keyboard:
                keyboard.restore()
            if proc.poll() is None:
                proc.kill()
            rest, err = proc.communicate()
            raw += rest or b""
        serial = clean_serial(bytes(raw))

        if os.path.isdir(LAST_DIR):
            shutil.rmtree(LAST_DIR)
        os.makedirs(LAST_DIR)
        with open(os.path.join(LAST_DIR, "serial.log"), "w") as f:
            f.write(serial)
        subprocess.run(["mcopy", "-s", "-n", "-i", _fat(disk), "::/", LAST_DIR + "/"], capture_output=True)

        if unanswerable:
            raise HarnessError(f"{unanswerable} is waiting for an answer and there is no terminal to give one; "
                               f"answer it with --script FILE (a line 'prompt ok' or 'prompt abort', "
                               f"'menu N' or 'menu cancel') or run from a terminal")
        if timed_out:
            raise HarnessError(f"the VM did not finish within {cfg.timeout} s (serial log in {LAST_DIR})")
        if proc.returncode != 0:
            raise HarnessError(f"QEMU failed ({proc.returncode}): {err.decode(errors='replace').strip()}")
        if cfg.image:
            # The manager and its files sit in the boot directory of the image.
            boot_dir = os.path.join(LAST_DIR, "EFI", "BOOT")
            for name in os.listdir(boot_dir) if os.path.isdir(boot_dir) else []:
                shutil.copy(os.path.join(boot_dir, name), LAST_DIR)
        output = _read_text(os.path.join(LAST_DIR, "VexRun.out"))
        log = _read_text(os.path.join(LAST_DIR, "VexRun.log"))
        if output is None:
            # The manager did not get to write its files: take its console from the serial log.
            m = re.search(r"VEXRUN BEGIN\n(.*?)(VEXRUN END[^\n]*\n|\Z)", serial, re.S)
            output = (m.group(0) if m else "")
        results = []
        for line in output.splitlines():
            m = RESULT_LINE.match(line)
            if m:
                results.append((m.group(1), int(m.group(2), 16), m.group(3).strip()))
        if "VEXRUN END" not in output:
            raise HarnessError(f"the manager did not finish (serial log in {LAST_DIR})")
        return VmRun(serial=serial, output=output, log=log or "", results=results, files_dir=LAST_DIR,
                     elapsed=time.time() - start, line_times=_line_times(bytes(raw), arrivals))
    finally:
        shutil.rmtree(work, ignore_errors=True)


def _line_times(raw, arrivals):
    """Each complete serial line with the time its last byte arrived."""
    timed, begin, index = [], 0, 0
    for end in range(len(raw)):
        if raw[end] != 0x0A:
            continue
        while index < len(arrivals) and arrivals[index][1] <= end:
            index += 1
        when = arrivals[min(index, len(arrivals) - 1)][0] if arrivals else 0.0
        timed.append((when, clean_serial(raw[begin:end + 1]).strip()))
        begin = end + 1
    return timed


def _read_text(path):
    if not os.path.exists(path):
        return None
    with open(path, "rb") as f:
        return f.read().decode("utf-8", "replace").replace("\r", "")


VM_OPTIONS_WITH_VALUE = {"--nic", "--smbios", "--var", "--file", "--script", "--timeout", "--lang", "--call"}
VM_FLAGS = {"--verbose", "--old-layout"}


def split_arguments(argv):
    """VM options, then the calls: the words of one option string, or after "--" one call a word."""
    vm_args, rest = [], list(argv)
    while rest and rest[0].startswith("--") and rest[0] != "--":
        word = rest.pop(0)
        vm_args.append(word)
        if word.split("=")[0] in VM_OPTIONS_WITH_VALUE and "=" not in word and rest:
            vm_args.append(rest.pop(0))
    if rest and rest[0] == "--":
        calls = rest[1:]
    else:
        calls = [" ".join(rest)] if rest else []
    late = [w for w in rest if w.split("=")[0] in VM_OPTIONS_WITH_VALUE | VM_FLAGS]
    if late:
        raise ValueError(f"{late[0]} comes after the option string: VM options come first "
                         f"(./wirecheck run [VM options] OPTIONS...)")
    return vm_args, calls


def check_paths(call):
    """A VM path whose backslash the user's shell ate writes nowhere: say so; accept / for \\."""
    fixed = []
    for word in call.split(" "):
        name, eq, value = word.partition("=")
        m = re.match(r"^(fs\d+:)(.*)$", value, re.I)
        if eq and m:
            path = m.group(2).replace("/", "\\")
            if path and not path.startswith("\\"):
                raise ValueError(f"{word}: the path has no backslash after {m.group(1)} (did the shell eat it? "
                                 f"quote the option string or write {m.group(1)}/{path})")
            word = f"{name}={m.group(1)}{path}"
        fixed.append(word)
    return " ".join(fixed)


class LivePrinter:
    """Prints the manager's console as it arrives: the module's lines, progress and prompts, and
    one RESULT line per call."""

    def __init__(self, verbose):
        self.verbose = verbose
        self.inside = False
        self.results = []

    def __call__(self, line):
        if line.startswith("VEXRUN BEGIN"):
            self.inside = True
            return
        if not self.inside:
            return
        if line.startswith("VEXRUN END"):
            self.inside = False
            return
        if RESULT_LINE.match(line):
            self.results.append(line)
        elif not self.verbose and line.startswith(MANAGER_LINES):
            return
        print(line, flush=True)


def main(argv):
    parser = argparse.ArgumentParser(
        prog="wirecheck run",
        description="Boot OVMF, run Wirecheck through the VexRun manager with one option string (or, after "
                    "--, one call per quoted string), print the module's output and a RESULT line per call.")
    parser.add_argument("--nic", action="append", default=[], metavar="MODEL[:OPT,...]",
                        help="NIC model virtio|e1000|rtl8139 with options link=off, net=none, "
                             "mac=XX:XX:XX:XX:XX:XX, policy=dhcp|static, bridge, dump=FILE.pcap, "
                             "ip=A.B.C.D/LEN and gw=A.B.C.D (a static IPv4 configuration), plug=PROMPT (plug the "
                             "cable in when that prompt shows; with link=off) (repeatable; default one virtio)")
    parser.add_argument("--smbios", action="append", default=[], metavar="TYPE,FIELD=VALUE")
    parser.add_argument("--var", action="append", default=[], metavar="NAME[@GUID]=TEXT")
    parser.add_argument("--file", action="append", default=[], metavar="LOCAL=PATH")
    parser.add_argument("--script", metavar="FILE", help="answers for prompts, progress and menus")
    parser.add_argument("--call", action="append", default=[], metavar="OPTIONS",
                        help="one manager call with this option string (repeatable)")
    parser.add_argument("--verbose", action="store_true", help="show the manager's own lines and output flags")
    parser.add_argument("--lang", default="", metavar="LANG",
                        help="the manager shows prompt texts in this language (eng, fra, deu, esp, ...)")
    parser.add_argument("--old-layout", action="store_true", help="drive the module's old protocol layout")
    parser.add_argument("--ui", choices=("both", "console", "none"), default="both",
                        help="the menu protocols VexRun installs for the module (default both)")
    parser.add_argument("--timeout", type=int, default=240)
    try:
        vm_args, calls = split_arguments(argv)
        args = parser.parse_args(vm_args)
        calls = [check_paths(c) for c in args.call + calls]
        if not calls:
            raise ValueError("no option string (for example: ./wirecheck run -test=pingtest)")
        cfg = VmConfig(calls=calls, verbose=args.verbose, old_layout=args.old_layout,
                       timeout=args.timeout, language=args.lang, ui=args.ui)
        cfg.nics = [Nic.parse(n) for n in args.nic] or None
        cfg.smbios = args.smbios
        cfg.variables = [parse_var(v) for v in args.var]
        cfg.files = parse_files(args.file)
        if args.script:
            with open(args.script) as f:
                cfg.script = f.read()
    except (ValueError, OSError) as e:
        print(f"wirecheck run: {e}", file=sys.stderr)
        return 2
    printer = LivePrinter(args.verbose)
    cfg.on_line = printer
    cfg.keyboard = not cfg.script and sys.stdin.isatty()
    try:
        run = run_vm(cfg)
    except HarnessError as e:
        print(f"wirecheck run: {e}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print("wirecheck run: interrupted", file=sys.stderr)
        return 2
    if len(run.results) != len(calls):
        print(f"wirecheck run: the manager printed {len(run.results)} RESULT line(s) for {len(calls)} call(s)",
              file=sys.stderr)
        return 2
    if not printer.results:
        # The serial console showed nothing of the manager's: print what it wrote to its file.
        for line in run.output.splitlines():
            if RESULT_LINE.match(line) or args.verbose or not line.startswith(MANAGER_LINES):
                print(line)
    return 0 if all(r[0] == "Passed" for r in run.results) else 1


if __name__ == "__main__":
    if sys.argv[1:2] == ["image"]:
        sys.exit(image_main(sys.argv[2:]))
    sys.exit(main(sys.argv[1:]))
