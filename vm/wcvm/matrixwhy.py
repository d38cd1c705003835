"""Why a matrix cell that is not as the tests' definitions give is the firmware's or the NIC option
ROM's doing, with the evidence; and each cell's verdict: as defined, explained or unexpected."""
from .config import NIC_MODELS
from .firmware import WITHOUT_IPV6
from .matrixrows import CABLE_OUT, EXPECTED, FLAGS, IPV6_ROWS, MIXED_OUT, ROM_TWIN, SPEED_CALLS, SPEED_ROW

PCNET = ("iPXE's pcnet ROM puts 15 frames on the wire and then sends nothing more: the managed network "
         "runs out of transmit buffers (Transmit: Out of Resources) and stays so however long the "
         "module lets it drain; a capture of the NIC shows the 15 frames")

VIRTIO_IPXE_HANG = (
    "iPXE's virtio ROM stops for good in about one boot in three with 20 bursts (Debian's build of "
    "January 2019: the processor loops in the ROM's own memory allocator, whose list of free blocks has "
    "become a circle; the stack shows MnpDxe calling into the ROM, while the module only calls the "
    "managed network's Transmit, and no frame is refused on this NIC). Debian's build of May 2025 "
    "stops in the bursts too")
# The iPXE builds the hang is measured on.
HANG_ROMS = ("2019", "2025")

PCNET_DOWNLOAD = (
    "iPXE's pcnet ROM stops passing traffic after a bulk receive, with the 2019 and the 2025 build: the shell's "
    "own http command fetches 4 MiB once and ends a second fetch in Time out, and downloadtest stalls after about "
    "210 KB in some boots and after the whole file in others (a later call then gets no connection); TCP's "
    "acknowledgements are frames the ROM sends, and it stops sending after 15 frames in SpeedTest")
# Cells explained only with the code the fault gives, by (model, test).
EXPLAINED_CODES = {("pcnet", "downloadtest"): (0x80160909, PCNET_DOWNLOAD)}

# Cells where the firmware or the NIC's option ROM is at fault, with the evidence.
EXPLAINED = {
    ("pcnet", "SpeedTest"): PCNET,
    ("pcnet", SPEED_ROW): "not run: " + PCNET,
}
# Why the other models have no column on AArch64, from the shell's drivers and pci commands there:
# an e1000 beside a virtio NIC is listed by pci (8086:100E) with its command register 0000, and no
# driver binds it.
NO_DRIVER = ("the other models have no UEFI driver there: QEMU's efi-*.rom option ROMs hold x86-64 code, which "
             "AAVMF does not start, and AAVMF's only NIC driver is VirtioNetDxe (the shell's pci command lists an "
             "e1000 with command register 0000, and its drivers command no driver for it)")

# Cells that are as defined on a processor but read differently there, by (arch, test).
NOTES = {
    ("aarch64", "IRQTest"): "passes with 255, \"unknown or no connection\": EDK2's PCI bus driver writes 0xFF into "
                            "every function's interrupt line and on the virt machine no platform code writes a routed "
                            "IRQ (the shell's pci -i shows 3C = FF, 3D = 01, INTA#); the NIC's interrupt comes from "
                            "the device tree's interrupt-map, so the test tells nothing there beyond a nonzero line",
}

# Cells where a boot that stops answering is the option ROM's fault: the cells of the calls the boot
# finished keep their verdicts.
EXPLAINED_HANGS = {
    ("virtio-ipxe", "SpeedTest"): VIRTIO_IPXE_HANG,
    ("virtio-ipxe", SPEED_ROW): VIRTIO_IPXE_HANG,
}


# iPXE drivers that mark the link up when they start and never look at it again, by the iPXE source
# file that does so (virtio-net.c: "no way to test link state changes"; legacy.c, which serves
# ne2k_pci: "legacy devices don't handle link state"; pcnet32.c and eepro100.c call netdev_link_up
# once at probe). iPXE's SNP reports the link as MediaPresent, so with the cable out detectcable
# writes their flags and pingtest's cable check passes: a missing cable would read as an address
# failure after the test's 60-second wait. The matrix runs detectcable alone on them.
_LINK_NEVER_READ = {"virtio-ipxe": "virtio-net.c", "ne2k_pci": "legacy.c", "pcnet": "pcnet32.c",
                    **{m: "eepro100.c" for m in NIC_MODELS if NIC_MODELS[m].rom == "efi-eepro100.rom"}}
# By the iPXE ROMs' year, as measured (./wirecheck matrix --ipxe YEAR).
BLIND_TO_LINK = {"2019": _LINK_NEVER_READ, "2025": _LINK_NEVER_READ}


def blind_to_link(firmware, model):
    """Why this model's driver cannot see a missing cable under this firmware's iPXE ROMs, or ""."""
    source = BLIND_TO_LINK.get(firmware.ipxe_name, {}).get(model)
    if not source:
        return ""
    return (f"{NIC_MODELS[model].driver} of {firmware.ipxe_name} marks the link up when it starts and never "
            f"reads it again (iPXE's {source}): its simple network reports media present with the cable out, "
            "and so does the shell's ifconfig -l")


def explanation(firmware, model, test, cell):
    """Why this cell is the firmware's or the option ROM's doing, or "" when nothing explains it."""
    if cell.get("stopped"):
        return EXPLAINED_HANGS.get((model, test), "") if firmware.ipxe_name in HANG_ROMS else ""
    if (firmware.name, model, test) in EXPLAINED:
        return EXPLAINED[(firmware.name, model, test)]
    if (model, test) in EXPLAINED:
        return EXPLAINED[(model, test)]
    code, text = EXPLAINED_CODES.get((model, test), (None, ""))
    if code is not None and cell.get("error") == code:
        return text
    if test in IPV6_ROWS and firmware.name in WITHOUT_IPV6 and cell.get("error") == 0x80160801:
        return WITHOUT_IPV6[firmware.name]
    blind = blind_to_link(firmware, model)
    twin = ROM_TWIN.get(model)
    if test == MIXED_OUT and twin and blind_to_link(firmware, twin) and cell.get("flags") == 2:
        return (f"the option ROM of the {twin} NIC brings {NIC_MODELS[twin].driver}, which serves the {model} NIC "
                f"too (the log names the same driver for both NICs): " + blind_to_link(firmware, twin) +
                "; both unplugged NICs get a flag")
    if blind and test == CABLE_OUT and cell.get("flags") == 2:
        return blind + ": both unplugged NICs get a flag"
    if blind and cell.get("not_run"):
        return "not run: " + blind
    return ""


def _as_defined(test, cell):
    """Whether the cell is what the tests' definitions give: a call that ran, with the expected
    result (and flags), or all twenty bursts with their figures."""
    if cell.get("stopped") or cell.get("not_run"):
        return False
    if test == SPEED_ROW:
        return cell["calls"] == SPEED_CALLS and cell["figures"] == SPEED_CALLS
    return (cell["result"], cell["error"], cell["status"]) == EXPECTED[test] and cell.get("flags") == FLAGS.get(test)


def verdict(firmware, model, test, cell):
    if cell.get("na"):
        return "n/a"
    if _as_defined(test, cell):
        return "as defined"
    return "explained" if explanation(firmware, model, test, cell) else "UNEXPECTED"
