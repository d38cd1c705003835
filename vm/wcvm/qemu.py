"""The QEMU command line: firmware, disk, NICs on user networking with restrict=on or an isolated
hub, and the monitor socket."""
import os
import shutil

from .config import EFI_DIR, IPXE_ROMS, NIC_MODELS, OVMF_CODE, OVMF_CODE_SECURE, OVMF_VARS, OVMF_VARS_SECURE, HarnessError

def check_tools():
    for tool in ("qemu-system-x86_64", "mformat", "mcopy"):
        if shutil.which(tool) is None:
            raise HarnessError(f"{tool} is missing (./wirecheck installs it)")
    for path in (OVMF_CODE, OVMF_VARS, OVMF_CODE_SECURE, OVMF_VARS_SECURE):
        if not os.path.exists(path):
            raise HarnessError(f"{path} is missing (package ovmf)")
    for image in ("Wirecheck.efi", "VexRun.efi"):
        if not os.path.exists(os.path.join(EFI_DIR, image)):
            raise HarnessError(f"{image} is not built (./wirecheck build)")


def qemu_command(cfg, disk, vars_copy, qmp_path, peer_sockets=None, peer_monitors=None):
    # The Secure Boot build keeps its variables behind SMM: the flash is writable only from there.
    machine = ["-machine", "q35,smm=on", "-global", "driver=cfi.pflash01,property=secure,value=on"] \
        if cfg.secure_boot else ["-machine", "q35"]
    code = OVMF_CODE_SECURE if cfg.secure_boot else OVMF_CODE
    cmd = ["qemu-system-x86_64"] + machine + ["-accel", "tcg", "-m", "512", "-smp", "1",
           "-nodefaults", "-no-reboot", "-display", "none", "-serial", "stdio", "-monitor", "none",
           "-drive", f"if=pflash,format=raw,unit=0,readonly=on,file={code}",
           "-drive", f"if=pflash,format=raw,unit=1,file={vars_copy}",
           "-drive", f"if=none,id=d0,format=raw,file={disk}"]
    if cfg.usb_stick:
        # As a technician's stick meets a real machine: a USB mass-storage device on an XHCI controller.
        cmd += ["-device", "qemu-xhci,id=xhci", "-device", "usb-storage,bus=xhci.0,drive=d0,bootindex=0"]
    else:
        cmd += ["-device", "virtio-blk-pci,drive=d0,bootindex=0"]
    for index, nic in enumerate(cfg.nics):
        netdev = f"n{index}"
        if nic.peer:
            # The project's scripted peer is the whole network, on a Unix socket: nothing leaves the machine.
            cmd += ["-netdev", f"stream,id={netdev},server=off,addr.type=unix,addr.path={peer_sockets[index]}"]
        elif nic.network:
            cmd += ["-netdev", f"user,id={netdev},restrict=on"]
        else:
            # A hub of its own with nothing else on it: link up, no DHCP server, no way out.
            cmd += ["-netdev", f"hubport,id={netdev},hubid={10 + index}"]
        if nic.dump:
            # Frame headers are enough to count and time the frames; each record keeps the length on the wire.
            cmd += ["-object", f"filter-dump,id=dump{index},netdev={netdev},file={nic.dump},maxlen=64"]
        model = NIC_MODELS[nic.model]
        device = f"{model.device},netdev={netdev}"
        if nic.bridge:
            cmd += ["-device", f"pcie-root-port,id=rp{index},chassis={index + 1},slot={index + 1}"]
            device += f",bus=rp{index}"
        if model.rom is not None:
            device += ",romfile=" + (os.path.join(IPXE_ROMS, model.rom) if model.rom else "")
        if nic.mac:
            device += f",mac={nic.mac}"
        cmd += ["-device", device]
    for entry in cfg.smbios:
        cmd += ["-smbios", "type=" + entry]
    if qmp_path:
        cmd += ["-S", "-qmp", f"unix:{qmp_path},server=on,wait=off"]
    for path in (peer_monitors or {}).values():
        cmd += ["-qmp", f"unix:{path},server=on,wait=off"]
    return cmd
