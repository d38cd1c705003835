"""./wirecheck fleet's command line: N machines, their calls, the firmware, signing and HTTPS; the
table and the JUnit file at the end. A stop (Ctrl-C, SIGTERM) removes the namespace and everything
in it, however often it comes."""
import argparse
import os
import shutil
import signal
import sys
import tempfile
import time

from .cli import parse_served
from .config import HarnessError
from .firmware import take_options as take_firmware_options
from .firmware import test_signing_key
from .fleet import FLEET_DIR, Fleet, machines_for
from .namespace import SERVER
from .fleetreport import print_table, write_junit


def parser():
    p = argparse.ArgumentParser(prog="wirecheck fleet", description="N machines HTTP-boot one image side by side "
                                "and send their results to a web server in a network namespace of the run's own.")
    p.add_argument("count", type=int, metavar="N")
    p.add_argument("--call", action="append", default=[], metavar="OPTIONS")
    p.add_argument("--sign", metavar="KEY")
    p.add_argument("--cert", metavar="CERT")
    p.add_argument("--secure-boot", action="store_true",
                   help="OVMF's Secure Boot build; the image is signed with Debian's test key it trusts")
    p.add_argument("--https", action="store_true",
                   help="upload over HTTPS: a certificate authority of the run's own signs the server's "
                        "certificate, and the firmware trusts it through fw_cfg")
    p.add_argument("--ipv6", action="store_true",
                   help="HTTP boot over IPv6: dnsmasq advertises a router and gives addresses and the image's "
                        "URL by DHCPv6; the machines upload to the server's IPv6 address")
    p.add_argument("--serve", action="append", default=[], metavar="FILE",
                   help=f"the server also serves FILE, as http://{SERVER}/NAME (a call's URL may say SERVER "
                        f"for the address): for downloadtest, the machines' image, say")
    # --firmware NAME|CODE[,VARS] and --no-rng are taken as run takes them (before this parser).
    p.add_argument("--junit", metavar="FILE", help="default: build/fleet/fleet.xml")
    return p


def main(argv):
    if "--" in argv:
        at = argv.index("--")
        argv, calls = argv[:at], argv[at + 1:]
    else:
        calls = []
    try:
        if any(w == "--ipxe" or w.startswith("--ipxe=") for w in argv):
            raise HarnessError("--ipxe does not apply to the fleet: its machines boot with OVMF's own virtio "
                               "driver, which no option ROM replaces")
        firmware, argv = take_firmware_options(argv)
    except HarnessError as e:
        print(f"wirecheck fleet: {e}", file=sys.stderr)
        return 2
    try:
        args = parser().parse_args(argv)
    except SystemExit as e:
        return 2 if e.code else 0
    # SERVER in a URL stands for the fleet's server, whose address the user need not know.
    calls = [c.replace("://SERVER/", f"://{SERVER}/").replace("://SERVER:", f"://{SERVER}:")
             for c in args.call + calls]

    def terminated(*_):
        raise KeyboardInterrupt  # so that the namespace and everything in it go, as on Ctrl-C

    signal.signal(signal.SIGTERM, terminated)
    try:
        if not calls:
            raise ValueError("no calls (for example: ./wirecheck fleet 3 -- \"-test=pingtest\")")
        if not 1 <= args.count <= 64:
            raise ValueError(f"N is {args.count}: give 1 to 64 machines")
        if args.ipv6 and args.https:
            raise ValueError("--ipv6 uploads over HTTP: the fleet's certificate names the server's IPv4 address")
        if bool(args.sign) != bool(args.cert):
            raise ValueError("--sign KEY and --cert CERT go together")
        for path in parse_served(args.serve, None):
            if os.path.basename(path) in ("stick.img", "results"):
                raise ValueError(f"--serve {path}: the fleet's own {os.path.basename(path)} has that name")
        if os.geteuid() != 0:
            raise HarnessError("./wirecheck fleet makes a network namespace, which needs root: run it as root "
                               "or with sudo")
        machines = machines_for(args.count, os.getpid() % 100000)
        started = time.monotonic()
        sign = (args.sign, args.cert) if args.sign else None
        with tempfile.TemporaryDirectory() as keys:
            if args.secure_boot and not sign:
                sign = test_signing_key(keys)
            fleet = Fleet(machines, calls, firmware=firmware, secure=args.secure_boot,
                          sign=sign, https=args.https, ipv6=args.ipv6, served=args.serve)
            print(f"fleet: {args.count} machine(s), {len(calls)} call(s) each; files in {fleet.work}", flush=True)
            for path in args.serve:
                print(f"fleet: serving {path} as http://{SERVER}/{os.path.basename(path)}", flush=True)
            with fleet:
                fleet.boot()
                rows = fleet.rows()
    except (ValueError, OSError, HarnessError) as e:
        print(f"wirecheck fleet: {e}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print("wirecheck fleet: stopped; the namespace and everything in it were removed", file=sys.stderr)
        return 2
    print_table(rows)
    junit = args.junit or os.path.join(FLEET_DIR, "fleet.xml")
    write_junit(junit, rows)
    shutil.copyfile(junit, os.path.join(fleet.work, "fleet.xml"))
    passed = sum(r["result"] == "Passed" for r in rows)
    print(f"fleet: {len(rows)} case(s), {passed} passed, {len(rows) - passed} not; "
          f"{int(time.monotonic() - started)} s; results in {fleet.www}/results/; JUnit {junit}")
    return 0 if passed == len(rows) == args.count * len(calls) else 1
