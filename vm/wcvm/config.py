"""The runner's configuration: where things are, the NIC models and their options, one VM run's
settings and what a run gives back."""
import os
import re
import sys
from dataclasses import dataclass, field

from .peer import FAULTS

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


EFI_DIR = os.path.join(ROOT, "build", "efi")


# Where the files of the last run land; each VM test file has its own, so that they can run at once.
LAST_DIR = os.environ.get("WIRECHECK_VM_LAST") or os.path.join(ROOT, "build", "vm", "last")


OVMF_CODE = "/usr/share/OVMF/OVMF_CODE_4M.fd"


OVMF_VARS = "/usr/share/OVMF/OVMF_VARS_4M.fd"

# OVMF's Secure Boot build with Debian's test key enrolled in PK, KEK and db (it needs SMM), and
# that key's certificate and passphrase-protected private key.
OVMF_CODE_SECURE = "/usr/share/OVMF/OVMF_CODE_4M.snakeoil.fd"
OVMF_VARS_SECURE = "/usr/share/OVMF/OVMF_VARS_4M.snakeoil.fd"
TEST_KEY = "/usr/share/ovmf/PkKek-1-snakeoil.key"
TEST_CERT = "/usr/share/ovmf/PkKek-1-snakeoil.pem"
TEST_KEY_PASSPHRASE = "snakeoil"  # from the package's README.Debian


# Vendor GUID under which --var NAME sets a variable when no GUID is given (the module's own).
DEFAULT_VAR_GUID = "59D1C24F-50F1-401A-B101-F33E0DAED443"


IPXE_ROMS = "/usr/lib/ipxe/qemu"


@dataclass(frozen=True)
class NicModel:
    device: str  # QEMU's device
    rom: str  # the option ROM: "" none (OVMF's own driver), None QEMU's own choice, else a file of IPXE_ROMS
    driver: str  # which UEFI driver serves the NIC


_EEPRO100 = "iPXE eepro100 option ROM (efi-eepro100.rom)"
# Every NIC QEMU emulates here with a UEFI driver for it, by the name --nic takes.
NIC_MODELS = {
    "virtio": NicModel("virtio-net-pci", "", "OVMF's VirtioNetDxe"),
    "virtio-ipxe": NicModel("virtio-net-pci", None, "iPXE virtio option ROM (efi-virtio.rom)"),
    "e1000": NicModel("e1000", None, "iPXE e1000 option ROM (efi-e1000.rom)"),
    "e1000e": NicModel("e1000e", None, "iPXE e1000e option ROM (efi-e1000e.rom)"),
    "rtl8139": NicModel("rtl8139", None, "iPXE rtl8139 option ROM (efi-rtl8139.rom)"),
    "ne2k_pci": NicModel("ne2k_pci", None, "iPXE ne2k_pci option ROM (efi-ne2k_pci.rom)"),
    "pcnet": NicModel("pcnet", None, "iPXE pcnet option ROM (efi-pcnet.rom)"),
    "vmxnet3": NicModel("vmxnet3", None, "iPXE vmxnet3 option ROM (efi-vmxnet3.rom)"),
    # QEMU gives the eepro100 family a BIOS-only ROM of its own choice: the UEFI one is named.
    **{name: NicModel(name, "efi-eepro100.rom", _EEPRO100)
       for name in ("i82550", "i82551", "i82557a", "i82557b", "i82557c", "i82558a", "i82558b", "i82559a",
                    "i82559b", "i82559c", "i82559er", "i82562", "i82801")},
}


ESCAPE = re.compile(r"\x1b\[[0-9;=?]*[A-Za-z]")


# The manager's line per call; the meaning of the error code ends it.
RESULT_LINE = re.compile(r'^RESULT result=(\w+) error=0x([0-9A-Fa-f]+) status=(.*?)(?: meaning="([^"]*)")?$')


MANAGER_LINES = ("CALL ", "RUNTIME ", "LOAD ", "PROTOCOLS ", "MODULE ", "UNLOAD ", "VEXRUN ", "HANDLES ", "MESSAGE ")


def take_value(argv, option, default=None):
    """The value of OPTION among a table command's arguments (OPTION VALUE or OPTION=VALUE), and the
    arguments without it; "" when the option is given without a value."""
    value, rest, words = default, [], iter(argv)
    for word in words:
        if word == option:
            value = next(words, "")
        elif word.startswith(option + "="):
            value = word[len(option) + 1:]
        else:
            rest.append(word)
    return value, rest


def chosen(argv, known, command, what):
    """The names a table command was given (all known ones when none), or None after saying which
    name it does not know."""
    names = argv or list(known)
    unknown = [n for n in names if n not in known]
    if unknown:
        print(f"wirecheck {command}: unknown {what} {unknown[0]} (one of {', '.join(known)})", file=sys.stderr)
        return None
    return names


# The options a --nic may carry after its model, with what each does: the one list that the option
# reader's error, run --help and ./wirecheck's usage all show.
NIC_OPTIONS = [
    ("link=off", "the cable is unplugged from the start"),
    ("net=none", "a network with nothing else on it"),
    ("net=peer", "the network is the project's scripted peer"),
    ("net=web", "the network is a web network of the run's own, serving the --serve files (needs root)"),
    ("fault=PLAN", f"the scripted peer follows a fault plan ({', '.join(FAULTS)})"),
    ("mac=XX:XX:XX:XX:XX:XX", "the NIC's MAC address"),
    ("policy=dhcp|static", "the firmware's IPv4 configuration policy (default dhcp)"),
    ("bridge", "the NIC sits behind a PCIe root port"),
    ("dump=FILE.pcap", "a capture of every frame on the NIC's network"),
    ("ip=A.B.C.D/LEN", "a static IPv4 configuration set in the firmware before the manager starts"),
    ("gw=A.B.C.D", "its default gateway (with ip=)"),
    ("plug=PROMPT", "the cable is plugged in when the manager shows that prompt (with link=off)"),
]


class HarnessError(Exception):
    """The VM or the harness failed; the module's result is unknown. partial: what came back before
    it did (a VmRun), when the VM booted at all."""

    def __init__(self, message, partial=None):
        super().__init__(message)
        self.partial = partial


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
    peer: str = ""  # the network is the project's scripted peer following this fault plan ("none": no fault)
    web: bool = False  # the network is the run's web network (web.py)

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
            elif key == "net" and value == "peer":
                nic.peer = nic.peer or "none"
            elif key == "net" and value == "web":
                nic.web = True
            elif key == "fault" and value in FAULTS:
                nic.peer = value
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
                raise ValueError(f"bad NIC option '{opt}' ({', '.join(name for name, _ in NIC_OPTIONS)}; "
                                 f"fault plans: {', '.join(FAULTS)})")
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
    menu: bool = False  # VexRun's menu chooses the calls (-menu)
    reload: bool = False  # a fresh module image for every call
    check_handles: bool = False  # the manager compares the handle database around each call
    language: str = ""  # the manager shows prompt texts in this language of the message file
    messages: list = field(default_factory=list)  # message numbers the manager prints before the calls
    timeout: int = 240
    silence: int = 0  # > 0: a VM that prints nothing for this long has stopped answering
    shell_before: list = field(default_factory=list)  # extra shell lines before the manager
    cwd: str = ""  # the shell's current directory on fs0: when the manager runs (made if missing)
    shell_after: list = field(default_factory=list)  # shell lines after the manager, before power-off
    image: str = ""  # boot this disk image (made by build_image) instead of the shell and startup.nsh
    usb_stick: bool = False  # the disk is a USB stick on an XHCI controller rather than a virtio disk
    write_protected: bool = False  # the disk takes no writes, as a stick with its lock switch on
    secure_boot: bool = False  # OVMF's Secure Boot build, Debian's test key enrolled (boot images only)
    on_line: object = None  # called with each clean serial line as it arrives
    keyboard: bool = False  # keys typed at this terminal reach the VM
    ui: str = "both"  # the menu protocols the manager installs: both, console or none
    last_dir: str = ""  # where the run's files land (default LAST_DIR); runs side by side need their own
    firmware: object = None  # a firmware.Firmware; None: Debian 12's OVMF and iPXE ROMs, with a random-number generator
    web_files: list = field(default_factory=list)  # files the web network serves (NICs with net=web)
    # The first web NIC boots this file of web_files over the firmware's HTTP boot before the disk
    # (an iPXE among them is handed web.NETBOOT_SCRIPT); the boot ends when the VM powers off, no
    # manager call expected.
    netboot: str = ""


@dataclass
class VmRun:
    serial: str
    output: str  # what the manager showed on its console
    log: str  # everything the manager received, console or not
    results: list  # (result, error code, status) per call
    files_dir: str
    elapsed: float
    line_times: list = field(default_factory=list)  # (seconds since start, serial line) as they arrived
    meanings: list = field(default_factory=list)  # what each call's error code means, per call

    def lines(self, prefix):
        return [l for l in self.output.splitlines() if l.startswith(prefix)]


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


def parse_files(specs):
    """--file LOCAL=PATH arguments as (local file, path on the disk)."""
    files = []
    for spec in specs:
        local, sep, target = spec.partition("=")
        if not sep or not os.path.isfile(local):
            raise ValueError(f"--file wants LOCAL=PATH with an existing local file, got '{spec}'")
        files.append((local, target))
    return files
