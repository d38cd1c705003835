"""The VM's FAT disk (the module, the manager, the startup script and the user's files) and the boot
image for a USB stick."""
import os
import shutil
import subprocess
import tempfile

from .arch import ARCHES, DEFAULT_ARCH
from .config import ROOT, HarnessError
from .qemu import check_tools

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
    if cfg.menu:
        args += " -menu"
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


def build_disk(cfg, work):
    content = os.path.join(work, "content")
    os.makedirs(content)
    for image in ("Wirecheck.efi", "VexRun.efi"):
        shutil.copy(os.path.join(ARCHES[cfg.firmware.arch].efi_dir, image), content)
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


IMAGE_OFFSET = 1024 * 1024  # the FAT partition of a boot image starts 1 MiB in


# The FAT partition of a boot image holds its files and this much room for what a run writes
# (results, logs, flags, catalogs: a few kilobytes a call), so that a fleet booting it from the
# network moves little more than the files themselves.
IMAGE_ROOM = 2 * 1024 * 1024
IMAGE_SIZE = 4 * 1024 * 1024  # the size of an image with the usual files


def _partition_bytes(paths):
    """The size of the FAT partition for these files: at least IMAGE_SIZE less the offset, more
    when the files need it, in whole MiB."""
    mib = 1024 * 1024
    clusters = sum((os.path.getsize(p) + 4095) // 4096 * 4096 for p in paths)
    need = clusters + IMAGE_ROOM + 64 * 1024  # the FAT, the root directory and the folders
    return max(IMAGE_SIZE - IMAGE_OFFSET, (need + mib - 1) // mib * mib)


def fat_partition(disk):
    """The mtools name of a disk's FAT file system: a boot image keeps it in its partition."""
    with open(disk, "rb") as f:
        mbr = f.read(512)
    if len(mbr) == 512 and mbr[510:512] == b"\x55\xaa" and mbr[0x1C2] == 0xEF:
        return f"{disk}@@{IMAGE_OFFSET}"
    return disk


def sign_binaries(paths, key, cert):
    """Signs each EFI binary in place with sbsign and checks the signature with sbverify; raises
    HarnessError with sbsign's or sbverify's own words when either refuses."""
    for tool in ("sbsign", "sbverify"):
        if shutil.which(tool) is None:
            raise HarnessError(f"{tool} is missing (package sbsigntool; ./wirecheck installs it)")
    with open(key, "rb") as f:
        if b"ENCRYPTED" in f.read():
            # sbsign would ask for the passphrase on the terminal, or wait where there is none.
            raise HarnessError(f"{key} is encrypted: give sbsign an unencrypted copy "
                               f"(openssl rsa -in {key} -out KEY), kept where only you can read it")
    for path in paths:
        for command in (["sbsign", "--key", key, "--cert", cert, "--output", path, path],
                        ["sbverify", "--cert", cert, path]):
            done = subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL)
            if done.returncode != 0:
                said = (done.stderr or done.stdout).strip().splitlines()
                raise HarnessError(f"{command[0]} {os.path.basename(path)}: "
                                   f"{said[-1] if said else f'exit status {done.returncode}'}")


def build_image(path, calls, script="", files=(), sign=None, upload=None, language=None, arch=DEFAULT_ARCH):
    """A disk image for a USB stick or a network boot: an MBR with one EFI system partition (FAT),
    the manager as the processor's removable-media boot file (\\EFI\\BOOT\\BOOTX64.EFI,
    BOOTAA64.EFI) with the module, its messages and the calls beside it. sign: (key, certificate) to sign both binaries with, for machines with Secure Boot on.
    upload: the URL the manager sends the results to after every call (upload.txt). language: the
    message file's language for prompts and the menu (lang.txt)."""
    check_tools(arch)
    efi_dir, boot_file = ARCHES[arch].efi_dir, ARCHES[arch].boot_file
    work = tempfile.mkdtemp(prefix="wirecheck-image-")
    try:
        content = os.path.join(work, "content")
        os.makedirs(content)
        shutil.copy(os.path.join(efi_dir, "VexRun.efi"), os.path.join(content, boot_file))
        shutil.copy(os.path.join(efi_dir, "Wirecheck.efi"), content)
        shutil.copy(os.path.join(ROOT, "support", "Wirecheck.msg.xml"), content)
        if sign:
            sign_binaries([os.path.join(content, boot_file), os.path.join(content, "Wirecheck.efi")], *sign)
        if calls:  # without calls.txt VexRun opens its menu
            with open(os.path.join(content, "calls.txt"), "w", newline="") as f:
                f.write("".join(c + "\r\n" for c in calls))
        if script:
            with open(os.path.join(content, "script.txt"), "w", newline="") as f:
                f.write(script)
        if upload:
            with open(os.path.join(content, "upload.txt"), "w", newline="") as f:
                f.write(upload + "\r\n")
        if language:
            with open(os.path.join(content, "lang.txt"), "w", newline="") as f:
                f.write(language + "\r\n")
        names = sorted(os.listdir(content))
        part_bytes = _partition_bytes([os.path.join(content, n) for n in names] + [local for local, _ in files])
        part = os.path.join(work, "part.img")
        with open(part, "wb") as f:
            f.truncate(part_bytes)
        subprocess.run(["mformat", "-i", part, "-v", "WIRECHECK", "::"], check=True, capture_output=True)
        for d in ("::/EFI", "::/EFI/BOOT"):
            subprocess.run(["mmd", "-i", part, d], check=True, capture_output=True)
        subprocess.run(["mcopy", "-i", part] + [os.path.join(content, n) for n in names]
                       + ["::/EFI/BOOT/"], check=True, capture_output=True)
        _copy_files(part, files)
        # The MBR: one partition of type 0xEF (EFI system) from 1 MiB to the end.
        sectors = part_bytes // 512
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


def read_image_file(path, name):
    """A file of the boot image's \\EFI\\BOOT directory as text, after it ran; None when it is not there."""
    done = subprocess.run(["mtype", "-i", f"{path}@@{IMAGE_OFFSET}", f"::/EFI/BOOT/{name}"], capture_output=True)
    if done.returncode != 0:
        return None
    return done.stdout.decode("utf-8", "replace").replace("\r", "")


def read_image_results(path):
    """The RESULT lines of results.txt on a boot image, after it ran."""
    text = read_image_file(path, "results.txt")
    return None if text is None else [l for l in text.splitlines() if l.startswith("RESULT ")]
