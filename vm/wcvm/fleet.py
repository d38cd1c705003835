"""./wirecheck fleet: N machines boot one image from the network side by side and send their results
to a web server, as a data centre's own DHCP and web servers would serve them.

Everything lives in a network namespace the run makes and removes however it ends: a bridge with the
server address, one tap device per machine, dnsmasq (DHCP only, answering the firmware's HTTP boot
with the image's URL) and nginx (the image, and WebDAV PUT under /results/), both bound to the
bridge's address. No packet leaves the namespace. The table is read from nginx's folder."""
import argparse
import dataclasses
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import uuid
import xml.etree.ElementTree as ET

from .config import ROOT, TEST_CERT, TEST_KEY, TEST_KEY_PASSPHRASE, HarnessError
from .disk import build_image, check_tools
from .firmware import DEFAULT_GENERATION, GENERATIONS
from .firmware import resolve as resolve_firmware

SERVER = "10.99.0.1"
PREFIX = 24
UPLOAD_URL = f"http://{SERVER}/results"
UPLOAD_URL_TLS = f"https://{SERVER}/results"
X509_GUID = uuid.UUID("a5c059a1-94e4-4aa7-87b5-ab155c2bf072")  # EFI_CERT_X509_GUID
OWNER_GUID = uuid.UUID("5c1d0000-9a2e-4c0b-8f6e-57495245434b")  # who enrolled the certificates: the fleet
FLEET_DIR = os.path.join(ROOT, "build", "fleet")
MACHINE_SECONDS = 600  # a machine still running after this is stopped and shown as such
RESULT = re.compile(r"^RESULT result=(\S+) error=0x([0-9A-Fa-f]+) status=(.*?) options='(.*)' meaning=\"(.*)\"$")
ANSI = re.compile(r"\x1b\[[0-9;]*[A-Za-z]")
# The firmware's boot manager on an image it will not start (Secure Boot).
REFUSED_BOOT = re.compile(r"BdsDxe: failed to (?:load|start) Boot\S+ \"UEFI HTTPv4[^\"]*\".*: "
                          r"(Access Denied|Security Violation)")


@dataclasses.dataclass
class Machine:
    number: int
    uuid: str
    serial: str
    mac: str
    image: str = "stick.img"  # the file under the server's root it boots
    boots: int = 1  # booted this many times, one after the other (the same machine each time)
    cacerts: str = ""  # the certificate authorities its firmware trusts: "" the fleet's, "none", or a file


def machines_for(count, run_tag):
    """Machines with distinct UUIDs, serial numbers and MAC addresses (the MACs locally administered)."""
    return [Machine(n, str(uuid.uuid4()), f"WC{run_tag:05d}{n:03d}", f"52:54:00:99:{n >> 8:02x}:{n & 0xFF:02x}")
            for n in range(1, count + 1)]


def _run(words, **kw):
    return subprocess.run(words, capture_output=True, text=True, stdin=subprocess.DEVNULL, **kw)


class Namespace:
    """A network namespace of the run's own with a bridge at SERVER and a tap per machine; removed,
    with everything still running inside it, however the run ends."""

    def __init__(self, name, taps):
        self.name, self.taps = name, taps

    def __enter__(self):
        made = _run(["ip", "netns", "add", self.name])
        if made.returncode != 0:
            raise HarnessError(f"cannot make a network namespace ({made.stderr.strip() or 'ip netns add failed'}): "
                               f"./wirecheck fleet needs root (or CAP_NET_ADMIN)")
        try:
            steps = [["ip", "link", "set", "lo", "up"], ["ip", "link", "add", "br0", "type", "bridge"],
                     ["ip", "addr", "add", f"{SERVER}/{PREFIX}", "dev", "br0"], ["ip", "link", "set", "br0", "up"]]
            for tap in self.taps:
                steps += [["ip", "tuntap", "add", tap, "mode", "tap"], ["ip", "link", "set", tap, "master", "br0"],
                          ["ip", "link", "set", tap, "up"]]
            for step in steps:
                done = _run(self.inside(step))
                if done.returncode != 0:
                    raise HarnessError(f"{' '.join(step)} in the fleet's namespace: {done.stderr.strip()}")
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def inside(self, words):
        return ["ip", "netns", "exec", self.name] + list(words)

    def __exit__(self, *exc):
        # Whatever still runs in the namespace goes with it.
        pids = _run(["ip", "netns", "pids", self.name]).stdout.split()
        for pid in pids:
            try:
                os.kill(int(pid), signal.SIGKILL)
            except (ProcessLookupError, ValueError):
                pass
        _run(["ip", "netns", "del", self.name])


def efi_signature_list(certificates):
    """Certificates (DER) as the firmware keeps trusted ones: one EFI_SIGNATURE_LIST of X.509
    entries each, the form OVMF takes through fw_cfg etc/edk2/https/cacerts."""
    out = b""
    for der in certificates:
        entry = OWNER_GUID.bytes_le + der
        out += X509_GUID.bytes_le + (28 + len(entry)).to_bytes(4, "little") + (0).to_bytes(4, "little") + \
            len(entry).to_bytes(4, "little") + entry
    return out


def make_certificates(folder):
    """The fleet's own certificate authority and the server's certificate for SERVER, signed by it;
    returns (CA certificate PEM, server certificate, server key, cacerts for the firmware)."""
    ca_key, ca_crt = os.path.join(folder, "ca.key"), os.path.join(folder, "ca.crt")
    key, csr, crt = (os.path.join(folder, n) for n in ("server.key", "server.csr", "server.crt"))
    ext = os.path.join(folder, "server.ext")
    with open(ext, "w") as f:
        f.write(f"subjectAltName=IP:{SERVER}\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n")
    steps = [["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj",
              "/CN=Wirecheck fleet CA", "-keyout", ca_key, "-out", ca_crt,
              "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign"],
             ["openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={SERVER}", "-keyout", key, "-out", csr],
             ["openssl", "x509", "-req", "-in", csr, "-CA", ca_crt, "-CAkey", ca_key, "-CAcreateserial", "-days", "30",
              "-extfile", ext, "-out", crt]]
    for step in steps:
        done = _run(step)
        if done.returncode != 0:
            raise HarnessError(f"openssl {step[1]}: {done.stderr.strip()[-300:]}")
    der = subprocess.run(["openssl", "x509", "-in", ca_crt, "-outform", "DER"], capture_output=True, check=True).stdout
    cacerts = os.path.join(folder, "cacerts.bin")
    with open(cacerts, "wb") as f:
        f.write(efi_signature_list([der]))
    return ca_crt, crt, key, cacerts


def nginx_config(work, www, extra="", tls=None):
    tls_lines = "" if tls is None else \
        f"    listen {SERVER}:443 ssl;\n    ssl_certificate {tls[0]};\n    ssl_certificate_key {tls[1]};\n"
    return f"""user root;
daemon off;
pid {work}/nginx.pid;
error_log {work}/nginx-error.log;
events {{}}
http {{
  log_format timed '$msec $remote_addr "$request" $status $body_bytes_sent';
  access_log {work}/nginx-access.log timed;
  client_body_temp_path {work}/nginx-body;
  types {{ application/octet-stream img; }}
  server {{
    listen {SERVER}:80;
{tls_lines}    root {www};
    location /results/ {{
      dav_methods PUT;
      create_full_put_path on;
      dav_access user:rw group:r all:r;
      client_max_body_size 64m;
    }}
{extra}  }}
}}
"""


def dnsmasq_words(work, machines):
    words = ["dnsmasq", "--keep-in-foreground", "--port=0", "--bind-interfaces", "--interface=br0",
             "--except-interface=lo", f"--dhcp-range={SERVER[:-1]}100,{SERVER[:-1]}200,1h",
             "--dhcp-vendorclass=set:http,HTTPClient", "--dhcp-option-force=tag:http,60,HTTPClient",
             "--log-dhcp", f"--log-facility={work}/dnsmasq.log", f"--pid-file={work}/dnsmasq.pid",
             "--dhcp-leasefile=" + os.path.join(work, "dnsmasq.leases"), "--conf-file=/dev/null"]
    for m in machines:
        words += [f"--dhcp-host={m.mac},set:m{m.number}",
                  f"--dhcp-boot=tag:http,tag:m{m.number},http://{SERVER}/{m.image}"]
    return words


def qemu_words(firmware, secure, machine, tap, vars_copy, serial, cacerts=None):
    code = firmware.secure_code if secure else firmware.code
    words = ["qemu-system-x86_64"]
    words += ["-machine", "q35,smm=on", "-global", "driver=cfi.pflash01,property=secure,value=on"] if secure \
        else ["-machine", "q35"]
    words += ["-accel", "tcg", "-m", "512", "-smp", "1", "-nodefaults", "-no-reboot", "-display", "none",
              "-serial", f"file:{serial}", "-monitor", "none",
              "-drive", f"if=pflash,format=raw,unit=0,readonly=on,file={code}",
              "-drive", f"if=pflash,format=raw,unit=1,file={vars_copy}",
              # Straight to HTTP boot: PXE over IPv4 and IPv6 would take two minutes first.
              "-fw_cfg", "name=opt/org.tianocore/IPv4PXESupport,string=n",
              "-fw_cfg", "name=opt/org.tianocore/IPv6PXESupport,string=n",
              "-netdev", f"tap,id=n0,ifname={tap},script=no,downscript=no",
              # OVMF's own virtio driver (romfile= keeps iPXE's ROM out of the boot).
              "-device", f"virtio-net-pci,netdev=n0,mac={machine.mac},romfile=",
              "-smbios", f"type=1,uuid={machine.uuid},serial={machine.serial},manufacturer=Wirecheck fleet"]
    if firmware.rng:
        words += ["-object", "rng-random,id=rng0,filename=/dev/urandom", "-device", "virtio-rng-pci,rng=rng0"]
    if cacerts:
        # The fleet's certificate authority, which the firmware's TLS then trusts for HTTPS.
        words += ["-fw_cfg", f"name=etc/edk2/https/cacerts,file={cacerts}"]
    return words


@dataclasses.dataclass
class Boot:
    machine: Machine
    number: int  # 1 for its first boot
    serial_log: str
    started: float = 0.0  # wall-clock time of power-on
    seconds: float = 0.0
    ended: str = ""  # how the VM ended: "powered off", "stopped after N s", "firmware refused the image (...)"


def refusal(screen):
    """What the table says of a boot image the firmware would not start; None when it started."""
    refused = REFUSED_BOOT.search(screen)
    return f"the firmware refused the boot image ({refused.group(1)})" if refused else None


def _boot_machine(ns, firmware, secure, machine, tap, work, boots, lock, stop, cacerts):
    vars_src = firmware.secure_vars if secure else firmware.vars
    for number in range(1, machine.boots + 1):
        if stop.is_set():
            return
        trusted = {"": cacerts, "none": None}.get(machine.cacerts, machine.cacerts)
        vars_copy = os.path.join(work, f"vars-{machine.number}.fd")
        shutil.copyfile(vars_src, vars_copy)
        serial = os.path.join(work, f"serial-{machine.number}-{number}.log")
        boot = Boot(machine, number, serial, time.time())
        start = time.monotonic()
        with open(os.path.join(work, f"qemu-{machine.number}-{number}.err"), "w") as err:
            proc = subprocess.Popen(ns.inside(qemu_words(firmware, secure, machine, tap, vars_copy, serial, trusted)),
                                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err)
        try:
            while proc.poll() is None:
                if time.monotonic() - start > MACHINE_SECONDS or stop.is_set():
                    boot.ended = f"stopped after {int(time.monotonic() - start)} s"
                    break
                screen = read_text(serial)
                refused = refusal(screen)
                if refused:
                    boot.ended = refused
                    break
                if "VEXRUN DONE" in screen:
                    # The manager's work is over; what stays is its screen for a person, whom the
                    # fleet's console log stands in for.
                    boot.ended = "done"
                    break
                time.sleep(0.5)
            else:
                # The firmware may refuse the image and end the VM between two looks.
                boot.ended = refusal(read_text(serial)) or "powered off"
        finally:
            if proc.poll() is None:
                proc.kill()
            proc.wait()
        boot.seconds = time.monotonic() - start
        with lock:
            boots.append(boot)


def read_text(path):
    """A file as text with LF line ends and without the colour codes of the firmware's console."""
    try:
        with open(path, "rb") as f:
            return ANSI.sub("", f.read().decode("utf-8", "replace").replace("\r", ""))
    except OSError:
        return ""


@dataclasses.dataclass
class Run:
    """One run folder of one machine on the server: URL/<uuid>/<run>/."""
    folder: str
    results: list  # (result, error, status, options, meaning) per call
    upload_failures: list  # UPLOAD state=failed lines the machine wrote into results.txt
    files: list
    loads: list  # LOAD lines: the module the firmware would not load


def server_runs(www, machine):
    """The machine's run folders on the web server, oldest first."""
    base = os.path.join(www, "results", machine.uuid)
    runs = []
    for name in sorted(os.listdir(base)) if os.path.isdir(base) else []:
        folder = os.path.join(base, name)
        text = read_text(os.path.join(folder, "results.txt"))
        results = [m.groups() for m in map(RESULT.match, text.splitlines()) if m]
        failures = [l for l in text.splitlines() if l.startswith("UPLOAD state=failed")]
        loads = [l for l in text.splitlines() if l.startswith("LOAD ")]
        runs.append(Run(folder, results, failures, sorted(os.listdir(folder)), loads))
    return runs


def fleet_rows(www, machines, boots, calls):
    """A row per call of every run on the server, and one per boot that left nothing there."""
    rows = []
    for m in machines:
        runs = server_runs(www, m)
        for index, run in enumerate(runs, 1):
            complete = len(run.results) == len(calls) and "Debug.log" in run.files
            upload = ("complete" if complete else "partial") + \
                (f" after {len(run.upload_failures)} failed round(s)" if run.upload_failures else "")
            for options_index, (result, error, status, options, meaning) in enumerate(run.results, 1):
                rows.append({"machine": m.uuid, "serial": m.serial, "run": os.path.basename(run.folder),
                             "call": options_index, "options": options, "result": result, "error": f"0x{error}",
                             "status": status, "meaning": meaning, "upload": upload})
            if not run.results:  # no call ran: the module was refused, say
                rows.append({"machine": m.uuid, "serial": m.serial, "run": os.path.basename(run.folder), "call": 0,
                             "options": "", "result": "none", "error": "", "status": "",
                             "meaning": "; ".join(run.loads) or "no call ran", "upload": upload})
        for boot in [b for b in boots if b.machine is m][len(runs):]:
            screen = read_text(boot.serial_log)
            said = [l for l in screen.splitlines() if l.startswith("UPLOAD state=failed")]
            # The manager's words up to where it says the results are.
            why = "; ".join(said[-1].split("; ")[:-1])[len("UPLOAD state=failed "):] if said else boot.ended
            rows.append({"machine": m.uuid, "serial": m.serial, "run": f"(boot {boot.number})", "call": 0,
                         "options": "", "result": "none", "error": "", "status": "", "meaning": "",
                         "upload": f"nothing on the server: {why}"})
    return rows


def print_table(rows, out=sys.stdout):
    head = ("machine", "run", "call", "result", "error", "meaning", "upload")
    lines = [[r["machine"], r["run"], (f"{r['call']} {r['options']}" if r["call"]
              else "-"), r["result"], r["error"], r["meaning"], r["upload"]] for r in rows]
    widths = [max(len(h), *(len(l[i]) for l in lines)) if lines else len(h) for i, h in enumerate(head)]
    print("  ".join(h.ljust(w) for h, w in zip(head, widths)), file=out)
    for l in lines:
        print("  ".join(c.ljust(w) for c, w in zip(l, widths)).rstrip(), file=out)


def write_junit(path, rows):
    """One case per call on the server; a boot that sent nothing is an error case of its own."""
    failures = [r for r in rows if r["call"] and r["result"] != "Passed"]
    errors = [r for r in rows if not r["call"]]
    suites = ET.Element("testsuites")
    suite = ET.SubElement(suites, "testsuite", name="wirecheck-fleet", tests=str(len(rows)),
                          failures=str(len(failures)), errors=str(len(errors)), skipped="0")
    for r in rows:
        case = ET.SubElement(suite, "testcase", classname=f"fleet.{r['machine']}",
                             name=f"{r['run']} {r['options']}".strip())
        if r in failures:
            ET.SubElement(case, "failure", type=r["result"],
                          message=f"{r['result']} error={r['error']} ({r['meaning']}) status={r['status']}")
        elif r in errors:
            ET.SubElement(case, "error", type="NoResults", message=r["upload"])
    ET.ElementTree(suites).write(path, encoding="utf-8", xml_declaration=True)


class Fleet:
    """The namespace, the servers and the machines of one fleet run; `with Fleet(...) as f: f.boot()`."""

    def __init__(self, machines, calls, firmware=None, secure=False, sign=None, images=None, nginx_extra="",
                 servers=(), work=None, https=False, script=""):
        self.machines, self.calls, self.secure, self.https = machines, calls, secure, https
        self.script = script  # answers on the stick (with no calls: the technician's menu, scripted)
        self.firmware = firmware or resolve_firmware(DEFAULT_GENERATION)
        self.sign = sign
        self.images = images or {}  # name -> function(path) that makes it, beside stick.img
        self.nginx_extra = nginx_extra
        self.servers = servers  # further programs to start in the namespace (a slow server, say)
        os.makedirs(FLEET_DIR, exist_ok=True)
        self.work = work or tempfile.mkdtemp(prefix=time.strftime("%Y%m%d-%H%M%S-"), dir=FLEET_DIR)
        self.www = os.path.join(self.work, "www")
        self.boots = []
        self.processes = []

    def __enter__(self):
        check_tools()
        for tool in ("ip", "dnsmasq", "nginx"):
            if shutil.which(tool) is None and not os.path.exists(f"/usr/sbin/{tool}"):
                raise HarnessError(f"{tool} is missing (./wirecheck fleet installs iproute2, dnsmasq-base and "
                                   f"nginx-light)")
        os.makedirs(os.path.join(self.www, "results"), exist_ok=True)
        self.tls, self.cacerts = None, None
        if self.https:
            _, crt, key, self.cacerts = make_certificates(self.work)
            self.tls = (crt, key)
        build_image(os.path.join(self.www, "stick.img"), self.calls, script=self.script, sign=self.sign,
                    upload=UPLOAD_URL_TLS if self.https else UPLOAD_URL)
        for name, make in self.images.items():
            make(os.path.join(self.www, name))
        self.ns = Namespace(f"wcfleet-{os.getpid()}-{os.path.basename(self.work)[-6:]}",
                            [f"tap{m.number}" for m in self.machines])
        self.ns.__enter__()
        try:
            conf = os.path.join(self.work, "nginx.conf")
            with open(conf, "w") as f:
                f.write(nginx_config(self.work, self.www, self.nginx_extra, self.tls))
            nginx = shutil.which("nginx") or "/usr/sbin/nginx"
            dnsmasq = shutil.which("dnsmasq") or "/usr/sbin/dnsmasq"
            self.start("nginx", [nginx, "-c", conf])
            self.start("dnsmasq", [dnsmasq] + dnsmasq_words(self.work, self.machines)[1:])
            for name, words in self.servers:
                self.start(name, words)
            self.wait_for_server()
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def start(self, name, words):
        with open(os.path.join(self.work, f"{name}.out"), "w") as out:
            self.processes.append((name, subprocess.Popen(self.ns.inside(words), stdin=subprocess.DEVNULL,
                                                          stdout=out, stderr=subprocess.STDOUT)))

    def wait_for_server(self):
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            for name, proc in self.processes:
                if proc.poll() is not None:
                    raise HarnessError(f"{name} stopped at once: {read_text(os.path.join(self.work, name + '.out'))[-300:]}")
            if _run(self.ns.inside(["ss", "-ltn", "sport = :80"])).stdout.count("LISTEN"):
                return
            time.sleep(0.2)
        raise HarnessError("nginx did not start listening in 10 s")

    def boot(self, machines=None):
        """Boots the machines side by side and waits for all; returns when every one has ended."""
        lock, stop = threading.Lock(), threading.Event()
        threads = [threading.Thread(target=_boot_machine, args=(self.ns, self.firmware, self.secure, m,
                                                                f"tap{m.number}", self.work, self.boots, lock, stop,
                                                                self.cacerts))
                   for m in machines or self.machines]
        for t in threads:
            t.start()
        try:
            for t in threads:
                while t.is_alive():
                    t.join(0.5)
        finally:
            stop.set()
            for t in threads:
                t.join()

    def traffic(self):
        """What nginx served and took: (time, client address, method, path, status, bytes sent) a request."""
        requests = []
        for line in read_text(os.path.join(self.work, "nginx-access.log")).splitlines():
            m = re.match(r'^(\S+) (\S+) "(\S+) (\S+) [^"]*" (\d+) (\d+)$', line)
            if m:
                requests.append((float(m.group(1)), m.group(2), m.group(3), m.group(4), int(m.group(5)),
                                 int(m.group(6))))
        return requests

    def rows(self):
        return fleet_rows(self.www, self.machines, self.boots, self.calls)

    def __exit__(self, *exc):
        for _, proc in self.processes:
            if proc.poll() is None:
                proc.terminate()
        for _, proc in self.processes:
            try:
                proc.wait(5)
            except subprocess.TimeoutExpired:
                proc.kill()
        if hasattr(self, "ns"):
            self.ns.__exit__(None, None, None)


def test_signing_key(work):
    """Debian's test key, which OVMF's Secure Boot build has enrolled, without its passphrase."""
    key = os.path.join(work, "test-key.pem")
    done = _run(["openssl", "rsa", "-passin", f"pass:{TEST_KEY_PASSPHRASE}", "-in", TEST_KEY, "-out", key])
    if done.returncode != 0:
        raise HarnessError(f"openssl could not read the test key {TEST_KEY}: {done.stderr.strip()}")
    return key, TEST_CERT


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
    p.add_argument("--firmware", choices=sorted(GENERATIONS), default=DEFAULT_GENERATION)
    p.add_argument("--junit", metavar="FILE", help="default: build/fleet/fleet.xml")
    return p


def main(argv):
    if "--" in argv:
        at = argv.index("--")
        argv, calls = argv[:at], argv[at + 1:]
    else:
        calls = []
    try:
        args = parser().parse_args(argv)
    except SystemExit as e:
        return 2 if e.code else 0
    calls = args.call + calls

    def terminated(*_):
        raise KeyboardInterrupt  # so that the namespace and everything in it go, as on Ctrl-C

    signal.signal(signal.SIGTERM, terminated)
    try:
        if not calls:
            raise ValueError("no calls (for example: ./wirecheck fleet 3 -- \"-test=pingtest\")")
        if not 1 <= args.count <= 64:
            raise ValueError(f"N is {args.count}: give 1 to 64 machines")
        if bool(args.sign) != bool(args.cert):
            raise ValueError("--sign KEY and --cert CERT go together")
        if os.geteuid() != 0:
            raise HarnessError("./wirecheck fleet makes a network namespace, which needs root: run it as root "
                               "or with sudo")
        machines = machines_for(args.count, os.getpid() % 100000)
        started = time.monotonic()
        sign = (args.sign, args.cert) if args.sign else None
        with tempfile.TemporaryDirectory() as keys:
            if args.secure_boot and not sign:
                sign = test_signing_key(keys)
            fleet = Fleet(machines, calls, firmware=resolve_firmware(args.firmware), secure=args.secure_boot,
                          sign=sign, https=args.https)
            print(f"fleet: {args.count} machine(s), {len(calls)} call(s) each; files in {fleet.work}", flush=True)
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
