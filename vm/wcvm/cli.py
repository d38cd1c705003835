"""The command line of ./wirecheck run and ./wirecheck image."""
import argparse
import os
import re
import signal
import sys
import tempfile

from .config import (MANAGER_LINES, NIC_MODELS, NIC_OPTIONS, RESULT_LINE, HarnessError, Nic, VmConfig, parse_files,
                     parse_var)
from .arch import ARCHES, DEFAULT_ARCH
from .disk import build_image
from .firmware import DEFAULT_GENERATION, DEFAULT_IPXE, GENERATIONS, IPXE
from .firmware import resolve as resolve_firmware
from .firmware import test_signing_key
from .live import LivePrinter, run_vm
from .report import call_blocks, write_json, write_junit

def image_main(argv):
    """./wirecheck image FILE [--script FILE] [--file LOCAL=PATH] [--sign KEY --cert CERT] [--upload URL] OPTIONS...
    (or -- "OPTIONS" ...)."""
    if not argv or argv[0].startswith("-"):
        print("usage: ./wirecheck image FILE [--script FILE] [--file LOCAL=PATH] [--sign KEY --cert CERT] "
              "[--upload URL] [--lang LANG] OPTIONS... | --menu "
              "| -- \"OPTIONS 1\" \"OPTIONS 2\" ...", file=sys.stderr)
        return 2
    path = argv[0]
    try:
        parser = image_parser()
        vm_args, calls = split_arguments(argv[1:], run_parser(), parser)
        known = option_names(parser)
        for word in vm_args:
            if word.startswith("--") and word.split("=")[0] not in known:
                raise ValueError(f"{word} does not apply to a boot image "
                                 f"(only --script, --file, --call, --sign, --cert, --upload, --menu, --lang and "
                                 f"--arch do)")
        args = parser.parse_args(vm_args)
        calls = [check_paths(c) for c in args.call + calls]
        if args.menu and calls:
            raise ValueError("--menu takes no option string: the technician chooses the calls in the menu")
        if not calls and not args.menu:
            raise ValueError("no option string (for example: ./wirecheck image stick.img -test=pingtest, or "
                             "./wirecheck image stick.img --menu)")
        files = parse_files(args.file)
        script = ""
        if args.script:
            with open(args.script) as f:
                script = f.read()
        if bool(args.sign) != bool(args.cert):
            raise ValueError("--sign KEY and --cert CERT go together")
        check_upload_url(args.upload)
        if args.lang is not None and not re.match(r"^[a-z]{3}$", args.lang):
            raise ValueError(f"--lang {args.lang}: a three-letter language code of the message file "
                             f"(eng, fra, deu, esp)")
        build_image(path, calls, script, files, sign=(args.sign, args.cert) if args.sign else None,
                    upload=args.upload, language=args.lang, arch=args.arch)
    except (ValueError, OSError, HarnessError) as e:
        print(f"wirecheck image: {e}", file=sys.stderr)
        return 2
    if args.upload:
        print(f"wrote {path} ({os.path.getsize(path) // 1024} KiB): {len(calls)} call(s), results sent to "
              f"{args.upload.rstrip('/')}/<machine UUID>/<run>/ after every call; serve it for HTTP boot, or copy it "
              f"to a USB stick")
        return 0
    if args.menu:
        print(f"wrote {path}: VexRun's menu of the module's tests; copy it to a USB stick with "
              f"'sudo dd if={path} of=/dev/sdX bs=4M conv=fsync' and boot the machine from the stick")
        return 0
    print(f"wrote {path}: {len(calls)} call(s); copy it to a USB stick with "
          f"'sudo dd if={path} of=/dev/sdX bs=4M conv=fsync' and boot the machine from the stick")
    return 0


def run_parser():
    """The options of ./wirecheck run: the one list of them, which the splitting below reads too."""
    parser = argparse.ArgumentParser(
        prog="wirecheck run",
        description="Boot OVMF, run Wirecheck through the VexRun manager with one option string (or, after "
                    "--, one call per quoted string), print the module's output and a RESULT line per call.")
    parser.add_argument("--nic", action="append", default=[], metavar="MODEL[:OPT,...]",
                        help=f"a NIC, repeatable (default one virtio): MODEL one of {', '.join(NIC_MODELS)}; OPT "
                             + "; ".join(f"{name}: {meaning}" for name, meaning in NIC_OPTIONS))
    parser.add_argument("--smbios", action="append", default=[], metavar="TYPE,FIELD=VALUE",
                        help="passed to QEMU as -smbios type=TYPE,FIELD=VALUE, e.g. 1,family=Server")
    parser.add_argument("--var", action="append", default=[], metavar="NAME[@GUID]=TEXT",
                        help="a UEFI variable set before the run")
    parser.add_argument("--file", action="append", default=[], metavar="LOCAL=PATH",
                        help="an extra file on the VM's disk")
    parser.add_argument("--script", metavar="FILE", help="answers for prompts, progress and menus")
    parser.add_argument("--serve", action="append", default=[], metavar="FILE",
                        help="a file served to the VM: on QEMU's user network as http://10.0.2.100/NAME (also "
                             "/cut/NAME and /stall/NAME, which fail halfway); on the web network (net=web, needs "
                             "root) as http://files.wirecheck.test/NAME, https://..., /limited/NAME at 512 KiB/s "
                             "and on port 8080 /cut/NAME and /stall/NAME")
    parser.add_argument("--call", action="append", default=[], metavar="OPTIONS",
                        help="one manager call with this option string (repeatable)")
    parser.add_argument("--verbose", action="store_true", help="show the manager's own lines and output flags")
    parser.add_argument("--lang", default="", metavar="LANG",
                        help="the manager shows prompt texts in this language (eng, fra, deu, esp, ...)")
    parser.add_argument("--old-layout", action="store_true", help="drive the module's old protocol layout")
    parser.add_argument("--ui", choices=("both", "console", "none"), default="both",
                        help="the menu protocols VexRun installs for the module (default both)")
    parser.add_argument("--firmware", default=DEFAULT_GENERATION, metavar="NAME|CODE.fd[,VARS.fd]",
                        help=f"the firmware: Debian's OVMF {', '.join(GENERATIONS)} (default {DEFAULT_GENERATION}; "
                             "the others are fetched from Debian's archive once, into build/firmware), or your own "
                             "build's code and variable images (one combined image without VARS)")
    parser.add_argument("--arch", choices=tuple(ARCHES), default=DEFAULT_ARCH,
                        help="the processor: x86_64 boots OVMF in qemu-system-x86_64 (q35), aarch64 boots AAVMF in "
                             "qemu-system-aarch64 (virt, Cortex-A57), both under TCG; --firmware then names that "
                             "processor's firmware")
    parser.add_argument("--ipxe", default=DEFAULT_IPXE, metavar="2019|2025|DIR",
                        help=f"the iPXE option ROMs of the NICs iPXE serves: Debian's build of {' or '.join(IPXE)} "
                             f"(default {DEFAULT_IPXE}), or a folder of efi-*.rom files")
    parser.add_argument("--no-rng", action="store_true",
                        help="no random-number generator for the firmware (by default the VM has one, as real "
                             "machines do; without one, EDK2 2024 and later leave the network stack stopped)")
    parser.add_argument("--timeout", type=int, default=None, metavar="SECONDS",
                        help="the VM's time limit (default 240; with --menu, an hour: a technician takes time)")
    parser.add_argument("--menu", action="store_true",
                        help="no option string: VexRun's menu offers the module's tests from its catalog "
                             "(answered at the terminal, or by a --script's front lines)")
    parser.add_argument("--secure-boot", action="store_true",
                        help="OVMF with Secure Boot on and Debian's test key enrolled; the calls run from a "
                             "boot image signed with that key (the firmware refuses its own shell)")
    parser.add_argument("--json", metavar="FILE", help="write the calls' results as JSON, one case per call")
    parser.add_argument("--junit", metavar="FILE", help="write the calls' results as JUnit XML, one case per call")
    return parser


def short_usage(width=100):
    """The VM options of run as ./wirecheck's usage shows them, from the same parser as run --help."""
    import textwrap
    lines = []
    for action in run_parser()._actions:
        if not action.option_strings or action.option_strings == ["-h", "--help"]:
            continue
        name = action.option_strings[-1] + (f" {action.metavar}" if action.metavar else
                                             " {" + ",".join(action.choices) + "}" if action.choices else "")
        if action.dest == "nic":
            lines.append(f"      {name:<27}a NIC (repeatable; default one virtio): MODEL one of")
            lines += textwrap.wrap(", ".join(NIC_MODELS), width, initial_indent=" " * 35,
                                   subsequent_indent=" " * 35)
            lines.append(" " * 33 + "OPT:")
            for option, meaning in NIC_OPTIONS:
                text = textwrap.wrap(meaning, width - 58, break_on_hyphens=False)
                lines.append(f"{' ' * 35}{option:<23}{text[0]}")
                lines += [" " * 58 + t for t in text[1:]]
            continue
        text = textwrap.wrap(action.help or "", width - 33) or [""]
        if len(name) >= 27:  # too long for the column: the text starts on the next line
            lines.append(f"      {name}")
            name = ""
        lines.append(f"      {name:<27}{text[0]}")
        lines += [" " * 33 + t for t in text[1:]]
    return "\n".join(lines)


def image_parser():
    parser = argparse.ArgumentParser(prog="wirecheck image")
    parser.add_argument("--script")
    parser.add_argument("--file", action="append", default=[])
    parser.add_argument("--call", action="append", default=[])
    parser.add_argument("--sign", metavar="KEY")  # sbsign's private key, unencrypted PEM
    parser.add_argument("--cert", metavar="CERT")  # its certificate, PEM
    parser.add_argument("--upload", metavar="URL")  # where the results go with HTTP PUT
    parser.add_argument("--menu", action="store_true")  # no calls: the technician's menu
    parser.add_argument("--lang", metavar="LANG")  # the language of prompts and the menu (lang.txt)
    parser.add_argument("--arch", choices=tuple(ARCHES), default=DEFAULT_ARCH)  # the processor it boots on
    return parser


def check_upload_url(url):
    """The manager sends with the firmware's HTTP client: http:// or https://, a host, ASCII."""
    if url is None:
        return
    if not re.match(r"^https?://[!-~]+$", url) or not re.match(r"^https?://[^/]+", url):
        raise ValueError(f"--upload {url}: give an http:// or https:// URL with a host, without spaces "
                         f"(for example http://10.0.0.1/results)")
    if len(url) > 300:
        raise ValueError(f"--upload: the URL is {len(url)} characters; at most 300 leave room for the machine's "
                         f"folder and the file names")


def option_names(parser, with_value=None):
    """The parser's long options; with_value True or False keeps those that take a value or not."""
    names = set()
    for action in parser._actions:
        takes_value = action.nargs != 0
        if with_value is None or takes_value == with_value:
            names.update(o for o in action.option_strings if o.startswith("--") and o != "--help")
    return names


def split_arguments(argv, *parsers):
    """VM options, then the calls: the words of one option string, or after "--" one call a word."""
    with_value = set().union(*(option_names(p, True) for p in parsers))
    vm_args, rest = [], list(argv)
    while rest and rest[0].startswith("--") and rest[0] != "--":
        word = rest.pop(0)
        # Joined to its value, so that a value beginning with "-" (an option string) stays a value.
        vm_args.append(f"{word}={rest.pop(0)}" if word in with_value and rest else word)
    if rest and rest[0] == "--":
        calls = rest[1:]
    else:
        calls = [" ".join(rest)] if rest else []
    late = [w for w in rest if any(w.split("=")[0] in option_names(p) for p in parsers)]
    if late:
        raise ValueError(f"{late[0]} comes after the option string: VM options come first "
                         f"(./wirecheck run [VM options] OPTIONS...)")
    return vm_args, calls


def check_paths(call):
    """A VM path whose backslash the user's shell ate writes nowhere: say so; accept / for \\. An empty
    option string is refused: VexRun takes a blank line of its calls file for no call."""
    if not call.strip():
        raise ValueError("an empty option string is no call (VexRun leaves blank lines of calls.txt out); "
                         "-help prints the module's usage")
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


def parse_served(files, nics):
    """--serve FILE arguments: existing files with distinct names, given only with a net=web NIC."""
    names = set()
    for path in files:
        if not os.path.isfile(path):
            raise ValueError(f"--serve {path}: no such file")
        if os.path.basename(path) in names:
            raise ValueError(f"--serve {path}: another served file has the name {os.path.basename(path)}")
        names.add(os.path.basename(path))
    if files and nics is not None and not any(n.web or (n.network and not n.peer) for n in nics):
        raise ValueError("--serve needs a NIC on QEMU's user network (the default) or on the web network "
                         "(net=web)")
    return list(files)


def secure_boot_image(cfg, args, work):
    """Under Secure Boot the firmware refuses its own shell: the calls go on a boot image signed with
    the test key that the Secure Boot firmware has enrolled."""
    for name, given in (("--var", args.var), ("--verbose", args.verbose), ("--lang", args.lang),
                        ("--old-layout", args.old_layout), ("--ui", args.ui != "both")):
        if given:
            raise ValueError(f"{name} does not apply with --secure-boot (the manager starts from the boot image, "
                             f"without a command line or the shell)")
    image = os.path.join(work, "stick.img")
    build_image(image, cfg.calls, cfg.script, cfg.files, sign=test_signing_key(work), arch=cfg.firmware.arch)
    cfg.image, cfg.secure_boot, cfg.files = image, True, []


def main(argv):
    parser = run_parser()
    work = tempfile.TemporaryDirectory(prefix="wirecheck-run-")
    try:
        vm_args, calls = split_arguments(argv, parser)
        args = parser.parse_args(vm_args)
        calls = [check_paths(c) for c in args.call + calls]
        if args.menu and calls:
            raise ValueError("--menu takes no option string: the technician chooses the calls in the menu")
        if not calls and not args.menu:
            raise ValueError("no option string (for example: ./wirecheck run -test=pingtest, or ./wirecheck run --menu)")
        cfg = VmConfig(calls=calls, verbose=args.verbose, old_layout=args.old_layout,
                       timeout=args.timeout or (3600 if args.menu else 240), language=args.lang, ui=args.ui,
                       menu=args.menu)
        cfg.nics = [Nic.parse(n) for n in args.nic] or None
        cfg.firmware = resolve_firmware(args.firmware, args.ipxe, not args.no_rng, args.arch)
        cfg.smbios = args.smbios
        cfg.variables = [parse_var(v) for v in args.var]
        cfg.files = parse_files(args.file)
        cfg.web_files = parse_served(args.serve, cfg.nics)
        if args.script:
            with open(args.script) as f:
                cfg.script = f.read()
        if args.secure_boot:
            secure_boot_image(cfg, args, work.name)
    except (ValueError, OSError, HarnessError) as e:
        print(f"wirecheck run: {e}", file=sys.stderr)
        return 2
    printer = LivePrinter(args.verbose, terminal=sys.stdout.isatty())
    cfg.on_line = printer
    cfg.keyboard = not cfg.script and sys.stdin.isatty()
    # A terminated run unwinds like an interrupted one, so the terminal is left as it was.
    old_term = signal.signal(signal.SIGTERM, lambda *_: sys.exit(2))
    try:
        run = run_vm(cfg)
    except HarnessError as e:
        printer.close()
        print(f"wirecheck run: {e}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        printer.close()
        print("wirecheck run: interrupted", file=sys.stderr)
        return 2
    finally:
        printer.close()
        signal.signal(signal.SIGTERM, old_term)
    if args.menu:  # the calls are those the menu made
        calls = [options for options, _ in call_blocks(run.output)]
    if len(run.results) != len(calls):
        print(f"wirecheck run: the manager printed {len(run.results)} RESULT line(s) for {len(calls)} call(s)",
              file=sys.stderr)
        return 2
    try:
        if args.json:
            write_json(args.json, calls, run)
        if args.junit:
            write_junit(args.junit, calls, run)
    except OSError as e:
        print(f"wirecheck run: {e}", file=sys.stderr)
        return 2
    if not printer.results:
        # The serial console showed nothing of the manager's: print what it wrote to its file.
        for line in run.output.splitlines():
            if RESULT_LINE.match(line) or args.verbose or not line.startswith(MANAGER_LINES):
                print(line)
    return 0 if all(r[0] == "Passed" for r in run.results) else 1
