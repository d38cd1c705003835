"""./wirecheck fleet: N machines boot one image from the network side by side and send their results
to a web server, as a data centre's own DHCP and web servers would serve them.

Everything lives in a network namespace the run makes and removes however it ends (namespace.py):
a bridge with the server address, one tap device per machine, dnsmasq (DHCP only, answering the
firmware's HTTP boot with the image's URL) and nginx (the image, and WebDAV PUT under /results/),
both bound to the bridge's address (servers.py). No packet leaves the namespace. The table is read
from nginx's folder (fleetreport.py)."""
import dataclasses
import os
import re
import shutil
import subprocess
import tempfile
import threading
import time
import uuid

from .config import ROOT, HarnessError
from .arch import NO_PXE
from .disk import build_image, check_tools
from .firmware import WITHOUT_IPV6, secure_build
from .firmware import take_options as take_firmware_options
from .fleetreport import fleet_rows, read_text, refusal
from .namespace import PREFIX_NAME, SERVER, SERVER6, Namespace, left_behind, remove, run as _run, shielded
from .qemu import machine_words, rng_words
from .servers import dnsmasq_words, make_certificates, nginx_config, stop_processes

UPLOAD_URL = f"http://{SERVER}/results"
UPLOAD_URL_TLS = f"https://{SERVER}/results"
UPLOAD_URL6 = f"http://[{SERVER6}]/results"
FLEET_DIR = os.path.join(ROOT, "build", "fleet")
MACHINE_SECONDS = 600  # a machine still running after this is stopped and shown as such


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


@dataclasses.dataclass
class Boot:
    machine: Machine
    number: int  # 1 for its first boot
    serial_log: str
    started: float = 0.0  # wall-clock time of power-on
    seconds: float = 0.0
    ended: str = ""  # how the VM ended: "powered off", "stopped after N s", "firmware refused the image (...)"


def qemu_words(firmware, secure, machine, tap, vars_copy, serial, cacerts=None):
    words = machine_words(firmware, secure, vars_copy, f"file:{serial}")
    words += list(NO_PXE) + [  # straight to HTTP boot: PXE would take two minutes first
              "-netdev", f"tap,id=n0,ifname={tap},script=no,downscript=no",
              # OVMF's own virtio driver (romfile= keeps iPXE's ROM out of the boot).
              "-device", f"virtio-net-pci,netdev=n0,mac={machine.mac},romfile=",
              "-smbios", f"type=1,uuid={machine.uuid},serial={machine.serial},manufacturer=Wirecheck fleet"]
    words += rng_words(firmware)
    if cacerts:
        # The fleet's certificate authority, which the firmware's TLS then trusts for HTTPS.
        words += ["-fw_cfg", f"name=etc/edk2/https/cacerts,file={cacerts}"]
    return words


def _boot_machine(ns, firmware, secure, machine, tap, work, boots, lock, stop, cacerts):
    """Boots one machine (machine.boots times); whatever goes wrong, each boot gets a record that says
    what happened to it, so that the machine has its row in the table."""
    number = 0
    try:
        if ns.ipv6 and firmware.name in WITHOUT_IPV6:
            raise HarnessError(f"{firmware.name} has no HTTP boot over IPv6: {WITHOUT_IPV6[firmware.name]}")
        vars_src = secure_build(firmware)[1] if secure else firmware.vars
        for number in range(1, machine.boots + 1):
            _boot_once(ns, firmware, secure, machine, tap, work, boots, lock, stop, cacerts, vars_src, number)
    except Exception as e:  # noqa: BLE001 (a machine's thread must not end without its record)
        with lock:
            boots.append(Boot(machine, max(number, 1), "", time.time(), 0.0, f"not booted: {e}"))


def _boot_once(ns, firmware, secure, machine, tap, work, boots, lock, stop, cacerts, vars_src, number):
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


class Fleet:
    """The namespace, the servers and the machines of one fleet run; `with Fleet(...) as f: f.boot()`."""

    def __init__(self, machines, calls, firmware=None, secure=False, sign=None, images=None, nginx_extra="",
                 servers=(), work=None, https=False, script="", ipv6=False, served=()):
        self.machines, self.calls, self.secure, self.https = machines, calls, secure, https
        self.ipv6 = ipv6  # HTTP boot over IPv6, and uploads to the server's IPv6 address
        self.script = script  # answers on the stick (with no calls: the technician's menu, scripted)
        self.firmware = firmware or take_firmware_options([])[0]
        self.sign = sign
        self.images = images or {}  # name -> function(path) that makes it, beside stick.img
        self.nginx_extra = nginx_extra
        self.servers = servers  # further programs to start in the namespace (a slow server, say)
        self.served = served  # the user's files, under the server's root by their names (--serve)
        os.makedirs(FLEET_DIR, exist_ok=True)
        self.work = work or tempfile.mkdtemp(prefix=time.strftime("%Y%m%d-%H%M%S-"), dir=FLEET_DIR)
        self.www = os.path.join(self.work, "www")
        self.boots = []
        self.processes = []

    def __enter__(self):
        check_tools(self.firmware.arch)
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
                    upload=UPLOAD_URL_TLS if self.https else UPLOAD_URL6 if self.ipv6 else UPLOAD_URL,
                    arch=self.firmware.arch)
        for name, make in self.images.items():
            make(os.path.join(self.www, name))
        for path in self.served:
            os.symlink(os.path.abspath(path), os.path.join(self.www, os.path.basename(path)))
        for name in left_behind():
            remove(name)
            print(f"fleet: removed the namespace {name} that a killed run left behind", flush=True)
        self.ns = Namespace(f"{PREFIX_NAME}{os.getpid()}-{os.path.basename(self.work)[-6:]}",
                            [f"tap{m.number}" for m in self.machines], ipv6=self.ipv6)
        self.ns.__enter__()
        try:
            conf = os.path.join(self.work, "nginx.conf")
            with open(conf, "w") as f:
                f.write(nginx_config(self.work, self.www, self.nginx_extra, self.tls, self.ipv6))
            nginx = shutil.which("nginx") or "/usr/sbin/nginx"
            dnsmasq = shutil.which("dnsmasq") or "/usr/sbin/dnsmasq"
            self.start("nginx", [nginx, "-c", conf])
            self.start("dnsmasq", [dnsmasq] + dnsmasq_words(self.work, self.machines, self.ipv6)[1:])
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
        with shielded():
            stop_processes(self.processes)
        if hasattr(self, "ns"):
            self.ns.__exit__(None, None, None)
