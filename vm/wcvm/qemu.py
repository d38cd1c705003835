"""The QEMU command line: firmware, disk, NICs on user networking with restrict=on or an isolated
hub, and the monitor socket."""
import os
import shutil
import sys

from .arch import ARCHES, DEFAULT_ARCH, NO_PXE
from .config import NIC_MODELS, HarnessError
from .firmware import secure_build


def check_tools(arch=DEFAULT_ARCH):
    """The emulator of the processor, mtools and the images built for it; HarnessError names what is missing."""
    a = ARCHES[arch]
    for tool in (a.emulator, "mformat", "mcopy"):
        if shutil.which(tool) is None:
            raise HarnessError(f"{tool} is missing (./wirecheck installs it)")
    for image in ("Wirecheck.efi", "VexRun.efi"):
        if not os.path.exists(os.path.join(a.efi_dir, image)):
            raise HarnessError(f"{a.efi_dir}/{image} is not built (./wirecheck build)")


def iPXE_rom(model, firmware):
    """The romfile of a NIC served by iPXE: QEMU's own choice among the installed ROMs, or the file of
    the chosen iPXE build (QEMU names its default efi-<device>.rom)."""
    if model.rom == "":
        return ""
    if not firmware.ipxe:
        return os.path.join("/usr/lib/ipxe/qemu", model.rom) if model.rom else None
    name = model.rom or "efi-" + {"virtio-net-pci": "virtio"}.get(model.device, model.device) + ".rom"
    return os.path.join(firmware.ipxe, name)


def machine_words(firmware, secure, vars_copy, serial="stdio"):
    """The start of every VM's command line (run, matrix, faults and the fleet's machines): the
    machine, one emulated processor, the firmware's flash (or a combined image as its BIOS) and the
    serial console."""
    arch = ARCHES[firmware.arch]
    machine = list(arch.machine)
    if secure and arch.name == "x86_64":
        # OVMF's Secure Boot build keeps its variables behind SMM: the flash is writable only from there.
        machine = ["-machine", "q35,smm=on", "-global", "driver=cfi.pflash01,property=secure,value=on"]
    code = secure_build(firmware)[0] if secure else firmware.code
    words = [arch.emulator] + machine + ["-accel", "tcg", "-m", "512", "-smp", "1", "-nodefaults",
                                                "-no-reboot", "-display", "none", "-serial", serial,
                                                "-monitor", "none"]
    if vars_copy:
        return words + ["-drive", f"if=pflash,format=raw,unit=0,readonly=on,file={code}",
                        "-drive", f"if=pflash,format=raw,unit=1,file={vars_copy}"]
    return words + ["-bios", code]


def rng_words(firmware):
    """A random-number generator, as real machines have (EDK2's network stack needs one since 2024).
    After the NICs, so that their PCI slots are the same with and without it.

    On x86-64 the processor has RDRAND as well, which OVMF's RngDxe (since 2024.08) serves: it is
    installed before any PCI device is connected, so that the network stack finds it first. OVMF
    2025.02's virtio-rng driver does not raise the TPL around its request (fixed in EDK2 in 2026,
    "OvmfPkg/VirtioRngDxe: protect VirtioRngGetRNG against timer callbacks"): a network driver's
    timer callback that asks for random bytes while a driver's start is waiting for the device re-enters it,
    reuses the request's descriptor, and the first caller then waits forever for a used index the
    device has already passed. Seen as a boot that stops in the shell's connect under load."""
    if not firmware.rng:
        return []
    return list(ARCHES[firmware.arch].rng_cpu) + ["-object", "rng-random,id=rng0,filename=/dev/urandom",
                                                  "-device", "virtio-rng-pci,rng=rng0"]


def web_tap(index):
    return f"web{index}"


# Where a user network's guest finds the run's served files: http://USER_WEB_SERVER/NAME.
USER_WEB_SERVER = "10.0.2.100"


def guest_forward(folder):
    """The user network's forward of USER_WEB_SERVER:80 to a web server of the run's own for one
    connection at a time, its standard input and output the connection (commas doubled, as QEMU's
    option syntax wants)."""
    if not folder:
        return ""
    vm_dir = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    command = f"env PYTHONPATH={vm_dir} {sys.executable} -m wcvm.badserver --stdio {folder}"
    return f",guestfwd=tcp:{USER_WEB_SERVER}:80-cmd:" + command.replace(",", ",,")


def qemu_command(cfg, disk, vars_copy, qmp_path, peer_sockets=None, peer_monitors=None, cacerts=None,
                 served=""):
    firmware = cfg.firmware
    cmd = machine_words(firmware, cfg.secure_boot, vars_copy) + list(ARCHES[firmware.arch].quiet_boot)
    cmd += ["-drive", f"if=none,id=d0,format=raw,file={disk}" + (",readonly=on" if cfg.write_protected else "")]
    if cfg.usb_stick:
        # As a technician's stick meets a real machine: a USB mass-storage device on an XHCI controller.
        cmd += ["-device", "qemu-xhci,id=xhci", "-device", "usb-storage,bus=xhci.0,drive=d0,bootindex=0"]
    else:
        cmd += ["-device", "virtio-blk-pci,drive=d0,bootindex=" + ("1" if cfg.netboot else "0")]
    if cfg.netboot:
        cmd += list(NO_PXE)  # straight to HTTP boot: PXE would wait for an offer with a boot file first
    for index, nic in enumerate(cfg.nics):
        netdev = f"n{index}"
        if nic.web:
            # The run's web network: a tap device on the bridge of its namespace, where QEMU runs.
            cmd += ["-netdev", f"tap,id={netdev},ifname={web_tap(index)},script=no,downscript=no"]
        elif nic.peer:
            # The project's scripted peer is the whole network, on a Unix socket: nothing leaves the machine.
            cmd += ["-netdev", f"stream,id={netdev},server=off,addr.type=unix,addr.path={peer_sockets[index]}"]
        elif nic.network:
            # restrict=on leaves the guest no way out but the explicit forward of the served files.
            cmd += ["-netdev", f"user,id={netdev},restrict=on" + guest_forward(served)]
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
        rom = iPXE_rom(model, firmware)
        if rom is not None:
            device += ",romfile=" + rom
        if nic.mac:
            device += f",mac={nic.mac}"
        if cfg.netboot and nic.web and not any(n.web for n in cfg.nics[:index]):
            device += ",bootindex=0"
        cmd += ["-device", device]
    cmd += rng_words(firmware)
    if cacerts:
        # The web network's certificate authority, which the firmware's TLS then trusts for HTTPS.
        cmd += ["-fw_cfg", f"name=etc/edk2/https/cacerts,file={cacerts}"]
    for entry in cfg.smbios:
        cmd += ["-smbios", "type=" + entry]
    if qmp_path:
        cmd += ["-S", "-qmp", f"unix:{qmp_path},server=on,wait=off"]
    for path in (peer_monitors or {}).values():
        cmd += ["-qmp", f"unix:{path},server=on,wait=off"]
    return cmd
