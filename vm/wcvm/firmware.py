"""The firmware a VM boots: one of Debian's three EDK2 generations by name (OVMF on x86-64, AAVMF on
AArch64), or a firmware engineer's own build (CODE.fd[,VARS.fd]), and the iPXE option ROMs of the
emulated NICs by year or folder.

The generation the machine has installed (Debian 12's) needs nothing more. The others come from
Debian's archive as the same packages of other suites: apt-get download with an apt state of our own
under build/firmware/apt (the machine's sources, lists and installed packages stay as they are; the
archive's address is taken from the machine's own Debian sources, and the archive keyring verifies
the suites), then dpkg -x into build/firmware/<package>-<suite>. Nothing is installed."""
import glob
import os
import re
import shutil
import struct
import subprocess
from dataclasses import dataclass

from .arch import AARCH64, ARCHES, DEFAULT_ARCH, X86_64
from .config import ROOT, TEST_CERT, TEST_KEY, TEST_KEY_PASSPHRASE, HarnessError

CACHE = os.path.join(ROOT, "build", "firmware")
KEYRING = "/usr/share/keyrings/debian-archive-keyring.gpg"


@dataclass(frozen=True)
class Generation:
    suite: str  # "" for the installed package
    code: str  # paths inside the package (or the machine, for the installed one)
    vars: str  # "" for a combined image of code and variables
    secure_code: str = ""  # the Secure Boot build with Debian's test key enrolled, where the package has one
    secure_vars: str = ""


# Debian's OVMF builds by the EDK2 release they come from.
GENERATIONS = {
    "edk2-2020.11": Generation("bullseye", "usr/share/OVMF/OVMF_CODE_4M.fd", "usr/share/OVMF/OVMF_VARS_4M.fd"),
    "edk2-2022.11": Generation("", "/usr/share/OVMF/OVMF_CODE_4M.fd", "/usr/share/OVMF/OVMF_VARS_4M.fd",
                               "/usr/share/OVMF/OVMF_CODE_4M.snakeoil.fd", "/usr/share/OVMF/OVMF_VARS_4M.snakeoil.fd"),
    "edk2-2025.02": Generation("trixie", "usr/share/OVMF/OVMF_CODE_4M.fd", "usr/share/OVMF/OVMF_VARS_4M.fd",
                               "usr/share/OVMF/OVMF_CODE_4M.snakeoil.fd", "usr/share/OVMF/OVMF_VARS_4M.snakeoil.fd"),
}
DEFAULT_GENERATION = "edk2-2022.11"

# The same releases of EDK2 built for QEMU's AArch64 virt machine (package qemu-efi-aarch64). Its
# code has Secure Boot built in; the Secure Boot variables have Debian's test key enrolled.
AARCH64_GENERATIONS = {
    "edk2-2020.11": Generation("bullseye", "usr/share/AAVMF/AAVMF_CODE.fd", "usr/share/AAVMF/AAVMF_VARS.fd"),
    "edk2-2022.11": Generation("", "/usr/share/AAVMF/AAVMF_CODE.fd", "/usr/share/AAVMF/AAVMF_VARS.fd",
                               "/usr/share/AAVMF/AAVMF_CODE.fd", "/usr/share/AAVMF/AAVMF_VARS.snakeoil.fd"),
    "edk2-2025.02": Generation("trixie", "usr/share/AAVMF/AAVMF_CODE.no-secboot.fd", "usr/share/AAVMF/AAVMF_VARS.fd",
                               "usr/share/AAVMF/AAVMF_CODE.secboot.fd", "usr/share/AAVMF/AAVMF_VARS.snakeoil.fd"),
}


def generations(arch=DEFAULT_ARCH):
    """The named generations of a processor's firmware."""
    return AARCH64_GENERATIONS if arch == AARCH64.name else GENERATIONS

# Generations built without IPv6, with the evidence: EDK2's OVMF and ArmVirtQemu leave
# NETWORK_IP6_ENABLE off unless the build turns it on, and Debian's 2020.11 builds do not. ping6test ends 0x80160801 there ("No NIC
# has an IPv6 service").
WITHOUT_IPV6 = {
    "edk2-2020.11": "Debian's edk2-2020.11 OVMF and AAVMF are built without IPv6: the shell's drivers command lists MNP, "
                    "ARP, IP4, UDP4, MTFTP4, TCP and DNS but no IP6 Network Service Driver, and the shell has "
                    "neither ifconfig6 nor ping6 (\"'ifconfig6' is not recognized\"); no NIC has an IPv6 service",
}

# iPXE's UEFI option ROMs by the year of their build: Debian 12's (installed), Debian 13's.
IPXE = {"2019": ("", "/usr/lib/ipxe/qemu"), "2025": ("trixie", "usr/share/qemu")}
DEFAULT_IPXE = "2019"

# A firmware volume's header carries "_FVH" 40 bytes in; OVMF's code and variable images both begin
# with one.
FV_SIGNATURE_OFFSET = 40
FV_SIGNATURE = b"_FVH"
FV_LENGTH_OFFSET = 32


@dataclass(frozen=True)
class Firmware:
    name: str  # a generation's name, or "custom"
    code: str
    vars: str  # "" for a combined image of code and variables
    secure_code: str = ""
    secure_vars: str = ""
    ipxe: str = ""  # folder of the efi-*.rom files; "" QEMU's own choice (the installed ROMs)
    ipxe_name: str = DEFAULT_IPXE
    rng: bool = True  # a random-number generator for the firmware (virtio-rng), as real machines have
    arch: str = DEFAULT_ARCH  # the processor it runs on (arch.ARCHES)


def check_volume(path, what, arch=DEFAULT_ARCH, blank_store=False):
    """A file that is missing, unreadable, not a firmware volume or cut short: one clear line, not QEMU's
    error. The volumes of a firmware image follow one another, each header giving its length (byte 32):
    a volume that runs past the end of the file is a truncated copy. The AArch64 code begins with the
    reset vector's page before its first volume. blank_store: a variable store may be all zeros, which
    AAVMF formats at its first boot (Debian ships it so)."""
    try:
        with open(path, "rb") as f:
            data = f.read()
    except OSError as e:
        raise HarnessError(f"{what} {path}: {e.strerror.lower() if e.strerror else e}")
    if blank_store and data and data.count(0) == len(data):
        return path

    def volume_at(offset):
        return data[offset + FV_SIGNATURE_OFFSET:offset + FV_SIGNATURE_OFFSET + len(FV_SIGNATURE)] == FV_SIGNATURE

    offset = next((o for o in (0, ARCHES[arch].first_volume) if volume_at(o)), None)
    if offset is None:
        raise HarnessError(f"{what} {path} is not a UEFI firmware volume (no _FVH signature at byte "
                           f"{' or '.join(str(o + FV_SIGNATURE_OFFSET) for o in sorted({0, ARCHES[arch].first_volume}))})")
    while volume_at(offset):
        (length,) = struct.unpack_from("<Q", data, offset + FV_LENGTH_OFFSET)
        if length < FV_SIGNATURE_OFFSET or offset + length > len(data):
            raise HarnessError(f"{what} {path} is cut short: its firmware volume at byte {offset} is {length} "
                               f"bytes long, but the file has {len(data)} bytes (a copy that did not finish?)")
        offset += length
    return path


def archive_uri():
    """The Debian archive the machine's own sources name (deb822 .sources or one-line .list)."""
    sources = sorted(glob.glob("/etc/apt/sources.list.d/*.sources"))
    for path in sources:
        with open(path) as f:
            for block in f.read().split("\n\n"):
                fields = dict(re.findall(r"^(\w[\w-]*):\s*(.*)$", block, re.M))
                suites = fields.get("Suites", "").split()
                if "main" in fields.get("Components", "").split() and any(
                        not s.endswith(("-security", "-updates", "-backports")) for s in suites):
                    for uri in fields.get("URIs", "").split():
                        if not uri.rstrip("/").endswith("-security"):
                            return uri.rstrip("/")
    for path in ["/etc/apt/sources.list"] + sorted(glob.glob("/etc/apt/sources.list.d/*.list")):
        try:
            with open(path) as f:
                for line in f:
                    m = re.match(r"\s*deb\s+(?:\[[^]]*\]\s+)?(\S+)\s+(\S+)\s+.*\bmain\b", line)
                    if m and not m.group(2).endswith(("-security", "-updates", "-backports")):
                        return m.group(1).rstrip("/")
        except OSError:
            continue
    raise HarnessError("no Debian archive in the machine's apt sources to fetch other firmware generations from")


def fetch_package(package, suite):
    """The package of that suite unpacked under build/firmware; fetched once."""
    target = os.path.join(CACHE, f"{package}-{suite}")
    done = os.path.join(target, ".unpacked")
    if os.path.exists(done):
        return target
    apt = os.path.join(CACHE, "apt")
    for sub in ("lists/partial", "archives/partial", "debs"):
        os.makedirs(os.path.join(apt, sub), exist_ok=True)
    sources = os.path.join(apt, "sources.list")
    uri = archive_uri()
    with open(sources, "w") as f:
        suites = {g.suite for table in (GENERATIONS, AARCH64_GENERATIONS) for g in table.values() if g.suite}
        for other in sorted(suites | {s for s, _ in IPXE.values() if s}):
            f.write(f"deb [signed-by={KEYRING}] {uri} {other} main\n")
    options = ["-o", f"Dir::Etc::SourceList={sources}", "-o", "Dir::Etc::SourceParts=/dev/null",
               "-o", f"Dir::State::Lists={apt}/lists", "-o", f"Dir::Cache={apt}", "-o", "Dir::State::status=/dev/null",
               "-o", "APT::Sandbox::User=root", "-o", "Debug::NoLocking=1", "-q"]
    print(f"wirecheck: fetching {package} of Debian {suite} from {uri} into {target}", flush=True)

    def apt_get(*words, cwd=None):
        result = subprocess.run(["apt-get", *options, *words], capture_output=True, text=True, cwd=cwd,
                                stdin=subprocess.DEVNULL)
        if result.returncode != 0:
            last = (result.stderr.strip() or result.stdout.strip()).splitlines()
            raise HarnessError(f"apt-get {words[0]} {package}/{suite} failed: {last[-1] if last else result.returncode}")

    if not glob.glob(os.path.join(apt, "lists", f"*_dists_{suite}_*Packages*")):
        apt_get("update")
    debs = os.path.join(apt, "debs")
    for old in glob.glob(os.path.join(debs, f"{package}_*.deb")):
        os.remove(old)
    apt_get("download", f"{package}/{suite}", cwd=debs)
    found = glob.glob(os.path.join(debs, f"{package}_*.deb"))
    if len(found) != 1:
        raise HarnessError(f"apt-get download {package}/{suite} left no package")
    partial = target + ".partial"
    shutil.rmtree(partial, ignore_errors=True)
    result = subprocess.run(["dpkg-deb", "-x", found[0], partial], capture_output=True, text=True)
    if result.returncode != 0:
        raise HarnessError(f"dpkg-deb -x {os.path.basename(found[0])} failed: {result.stderr.strip()}")
    shutil.rmtree(target, ignore_errors=True)
    os.rename(partial, target)
    with open(done, "w") as f:
        f.write(os.path.basename(found[0]) + "\n")
    return target


def ipxe_folder(name):
    """--ipxe 2019|2025|DIR: the folder of the efi-*.rom files ("" for QEMU's own choice)."""
    if name in IPXE:
        suite, path = IPXE[name]
        if not suite:
            return ""
        return os.path.join(fetch_package("ipxe-qemu", suite), path)
    if not os.path.isdir(name):
        raise HarnessError(f"--ipxe {name}: neither {' nor '.join(IPXE)} nor a folder")
    if not glob.glob(os.path.join(name, "efi-*.rom")):
        raise HarnessError(f"--ipxe {name}: the folder holds no efi-*.rom option ROM")
    return os.path.abspath(name)


def flash_image(path, arch):
    """A custom flash image as QEMU's machine for this processor takes it: the virt machine wants each
    flash device exactly 64 MiB, while EDK2's build writes the volumes alone. A shorter file is padded
    with zeros, as Debian pads AAVMF's images, into a copy under build/firmware; the user's file is
    left as it is."""
    size = ARCHES[arch].flash_size
    length = os.path.getsize(path)
    if not size or length == size:
        return os.path.abspath(path)
    if length > size:
        raise HarnessError(f"{path} has {length} bytes: more than the {size} of a flash device of QEMU's "
                           f"{arch} machine")
    os.makedirs(os.path.join(CACHE, "padded"), exist_ok=True)
    padded = os.path.join(CACHE, "padded", f"{arch}-{os.path.basename(path)}")
    with open(path, "rb") as src, open(padded + ".partial", "wb") as out:
        shutil.copyfileobj(src, out)
        out.truncate(size)
    os.rename(padded + ".partial", padded)
    return padded


def resolve(firmware=DEFAULT_GENERATION, ipxe=DEFAULT_IPXE, rng=True, arch=DEFAULT_ARCH):
    """--firmware NAME or CODE.fd[,VARS.fd], --ipxe, --no-rng and --arch as the files a VM boots with."""
    if arch not in ARCHES:
        raise HarnessError(f"--arch {arch}: one of {', '.join(ARCHES)}")
    # The AArch64 firmware starts no option ROM (they hold x86-64 code), so no iPXE is fetched for it.
    ipxe_dir = ipxe_folder(ipxe or DEFAULT_IPXE) if arch == X86_64.name else ""
    firmware = firmware or DEFAULT_GENERATION
    table = generations(arch)
    package = ARCHES[arch].firmware_package
    if firmware in table:
        g = table[firmware]
        base = fetch_package(package, g.suite) if g.suite else "/"
        paths = [os.path.join(base, p) if p else "" for p in (g.code, g.vars, g.secure_code, g.secure_vars)]
        if not g.suite:
            for p in paths:
                if p and not os.path.exists(p):
                    raise HarnessError(f"{p} is missing (package {package})")
        code, vars_, secure_code, secure_vars = paths
        check_volume(code, f"{firmware}'s code", arch)
        check_volume(vars_, f"{firmware}'s variables", arch, blank_store=True)
        return Firmware(firmware, code, vars_, secure_code, secure_vars, ipxe_dir, ipxe or DEFAULT_IPXE, rng, arch)
    if firmware.startswith("edk2-") or not (firmware.endswith(".fd") or "," in firmware or os.sep in firmware):
        raise HarnessError(f"--firmware {firmware}: not one of {', '.join(table)}, nor CODE.fd[,VARS.fd]")
    code, _, vars_ = firmware.partition(",")
    check_volume(code, "--firmware code", arch)
    if vars_:
        check_volume(vars_, "--firmware variables", arch, blank_store=True)
        code, vars_ = flash_image(code, arch), flash_image(vars_, arch)
    # Without a variable store of its own the file is one combined image (OVMF.fd, QEMU_EFI.fd),
    # booted as the machine's BIOS with its variables in memory.
    return Firmware("custom", os.path.abspath(code), os.path.abspath(vars_) if vars_ else "", ipxe=ipxe_dir,
                    ipxe_name=ipxe or DEFAULT_IPXE, rng=rng, arch=arch)


def default():
    return resolve()


def secure_build(firmware):
    """The Secure Boot build of a firmware, Debian's test key enrolled: (code, variables). Raises
    HarnessError naming what the firmware lacks; every Secure Boot run asks here."""
    if not firmware.secure_code:
        with_one = ", ".join(n for n, g in generations(firmware.arch).items() if g.secure_code)
        raise HarnessError(f"{firmware.name} has no Secure Boot build with Debian's test key enrolled "
                           f"(Debian's package of that generation ships none; {with_one} have one)")
    return firmware.secure_code, firmware.secure_vars


def test_signing_key(folder):
    """Debian's test key, which the Secure Boot builds have enrolled, without its passphrase (sbsign
    would ask for it): (key, certificate), the key written into folder."""
    key = os.path.join(folder, "test-key.pem")
    done = subprocess.run(["openssl", "rsa", "-passin", f"pass:{TEST_KEY_PASSPHRASE}", "-in", TEST_KEY, "-out", key],
                          capture_output=True, text=True, stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        raise HarnessError(f"openssl could not read the test key {TEST_KEY}: {done.stderr.strip()}")
    return key, TEST_CERT


def take_options(argv, several=False):
    """--firmware NAME|CODE[,VARS], --ipxe Y|DIR, --arch x86_64|aarch64 and --no-rng among a table command's arguments (or
    NAME=VALUE forms): the firmware they name and the other arguments. With several, "--firmware all"
    names every generation and a list comes back. Raises HarnessError."""
    values = {"--firmware": DEFAULT_GENERATION, "--ipxe": DEFAULT_IPXE, "--arch": DEFAULT_ARCH}
    rng, rest, words = True, [], iter(argv)
    for word in words:
        name, eq, value = word.partition("=")
        if name in values:
            values[name] = value if eq else next(words, "")
            if not values[name]:
                raise HarnessError(f"{name} needs a value")
        elif word == "--no-rng":
            rng = False
        else:
            rest.append(word)
    arch = values["--arch"]
    if not several:
        return resolve(values["--firmware"], values["--ipxe"], rng, arch), rest
    names = list(generations(arch)) if values["--firmware"] == "all" else [values["--firmware"]]
    return [resolve(name, values["--ipxe"], rng, arch) for name in names], rest
