"""What differs by processor in the harness, in one place: the emulator and its machine, Debian's
firmware package, the folder of the built images, the file name a removable disk boots, and the
NIC models that have a UEFI driver there."""
import os
from dataclasses import dataclass

from .config import EFI_DIR, ROOT


@dataclass(frozen=True)
class Arch:
    name: str  # as --arch takes it
    efi_dir: str  # Wirecheck.efi and VexRun.efi built for this processor
    emulator: str  # the QEMU binary
    machine: tuple  # QEMU's machine and processor words
    boot_file: str  # what a removable disk boots: \EFI\BOOT\<boot_file>
    firmware_package: str  # Debian's package of the EDK2 build for QEMU
    emulator_package: str
    flash_size: int  # the size QEMU wants of each flash image (0: the file's own)
    first_volume: int  # where the code's first firmware volume starts (after a reset vector's page)
    fault_nic: str  # the NIC model the fault table puts on each scripted peer
    # Words every boot from the disk gets: AAVMF tries PXE on every NIC before it reaches the shell,
    # where OVMF boots the disk first.
    quiet_boot: tuple = ()
    # Processor words that give the firmware a random-number source of the processor's own, beside
    # virtio-rng (see qemu.rng_words).
    rng_cpu: tuple = ()


# EDK2's PXE boot over IPv4 and IPv6 switched off (HTTP boot stays): the firmware would try it on
# every NIC first, for minutes under TCG.
NO_PXE = ("-fw_cfg", "name=opt/org.tianocore/IPv4PXESupport,string=n",
          "-fw_cfg", "name=opt/org.tianocore/IPv6PXESupport,string=n")

X86_64 = Arch("x86_64", EFI_DIR, "qemu-system-x86_64", ("-machine", "q35"), "BOOTX64.EFI",
              "ovmf", "qemu-system-x86", 0, 0, "e1000", rng_cpu=("-cpu", "qemu64,+rdrand"))

AARCH64 = Arch("aarch64", os.path.join(ROOT, "build", "efi-aarch64"), "qemu-system-aarch64",
               ("-machine", "virt", "-cpu", "cortex-a57"), "BOOTAA64.EFI", "qemu-efi-aarch64", "qemu-system-arm",
               64 * 1024 * 1024, 4096, "virtio", NO_PXE)

ARCHES = {a.name: a for a in (X86_64, AARCH64)}
DEFAULT_ARCH = X86_64.name

# On AArch64 only virtio-net has a UEFI driver: EDK2's VirtioNetDxe is built into the firmware, and
# QEMU's efi-*.rom option ROMs hold x86-64 code only, which the AArch64 firmware does not start.
AARCH64_MODELS = ("virtio",)


def by_name(name):
    if name not in ARCHES:
        raise ValueError(f"--arch {name}: one of {', '.join(ARCHES)}")
    return ARCHES[name]


def models(arch, all_models):
    """The NIC models of all_models that have a UEFI driver on this processor's firmware."""
    return [m for m in all_models if arch.name == X86_64.name or m in AARCH64_MODELS]
