"""A run's own web network (--nic MODEL:net=web): a network namespace the run makes, with a bridge at
WEB_SERVER and a tap device per such NIC, dnsmasq for DHCP and for DNS (it knows the names under
wirecheck.test and forwards nothing: any other name under it does not exist), nginx serving the run's
files over HTTP and HTTPS (a certificate authority of the run's own, which the firmware is handed
through fw_cfg), the same files at 512 KiB/s under /limited/, and a server that fails on purpose on
port 8080 (/cut/NAME closes halfway through the body, /stall/NAME stops sending halfway). QEMU runs
inside the namespace; everything stops and the namespace goes however the run ends. Needs root.

Where the files are, as the download test's -url takes them:

    http://files.wirecheck.test/NAME            https://files.wirecheck.test/NAME
    http://[fd98::1]/NAME                       (over IPv6: the bridge's router advertisement gives SLAAC)
    http://files.wirecheck.test/limited/NAME    http://files.wirecheck.test:8080/cut/NAME (/stall/NAME)
    https://untrusted.wirecheck.test:8443/NAME  (a certificate from an authority the firmware does not trust)
"""
import os
import shutil
import subprocess
import sys
import time

from .config import HarnessError
from .namespace import Namespace, left_behind, remove, run
from .servers import HTTP_CLIENT_WORDS, make_certificates, nginx_head, stop_processes

WEB_SERVER = "10.98.0.1"
WEB_SERVER6 = "fd98::1"  # the same servers over IPv6; the router advertisement gives a prefix for SLAAC
WEB_NAME = "files.wirecheck.test"
UNTRUSTED_NAME = "untrusted.wirecheck.test"
WEB_DOMAIN = "wirecheck.test"
BAD_PORT, UNTRUSTED_PORT = 8080, 8443
# nginx's limit_rate for /limited/, bytes a second. nginx lets a second's worth through at once, so a
# figure within 10 % of the limit takes a file of at least ten seconds' worth.
LIMIT = "512k"
LIMIT_BYTES = 512 * 1024
PREFIX_NAME = "wcweb-"
# What an iPXE that the firmware booted over HTTP (VmConfig.netboot) fetches and runs next: iPXE's
# DHCP request carries the user class "iPXE", the firmware's the vendor class "HTTPClient".
NETBOOT_SCRIPT = "netboot.ipxe"


def nginx_config(work, www, trusted, untrusted):
    return nginx_head(work) + f"""  sendfile on;
  server {{
    listen {WEB_SERVER}:80;
    listen [{WEB_SERVER6}]:80;
    listen {WEB_SERVER}:443 ssl;
    ssl_certificate {trusted[0]};
    ssl_certificate_key {trusted[1]};
    root {www};
    location /limited/ {{
      alias {www}/;
      limit_rate {LIMIT};
    }}
  }}
  server {{
    listen {WEB_SERVER}:{UNTRUSTED_PORT} ssl;
    ssl_certificate {untrusted[0]};
    ssl_certificate_key {untrusted[1]};
    root {www};
  }}
}}
"""


def dnsmasq_words(work, netboot=""):
    # Authoritative for the run's domain, as a site's own DNS server is: a name that does not exist
    # gets a name error with the zone's SOA record, which EDK2's DNS client needs to take it (it drops
    # one that carries nothing after the question, and then waits for an answer that never comes).
    return ["--keep-in-foreground", "--bind-interfaces", "--interface=br0", "--except-interface=lo",
            f"--listen-address={WEB_SERVER}", "--no-resolv", "--no-hosts", f"--auth-zone={WEB_DOMAIN}",
            f"--auth-server=ns.{WEB_DOMAIN},br0", f"--host-record={WEB_NAME},{WEB_SERVER}",
            f"--host-record={UNTRUSTED_NAME},{WEB_SERVER}",
            f"--dhcp-range={WEB_SERVER[:-1]}100,{WEB_SERVER[:-1]}200,1h", "--log-queries", "--log-dhcp",
            "--enable-ra", f"--dhcp-range={WEB_SERVER6[:-1]},ra-only,64,1h",
            f"--log-facility={work}/dnsmasq.log", f"--pid-file={work}/dnsmasq.pid",
            f"--dhcp-leasefile={work}/dnsmasq.leases", "--conf-file=/dev/null"] + ([
                *HTTP_CLIENT_WORDS, "--dhcp-userclass=set:ipxe,iPXE", f"--dhcp-boot=tag:ipxe,http://{WEB_SERVER}/{NETBOOT_SCRIPT}",
                f"--dhcp-boot=tag:http,tag:!ipxe,http://{WEB_SERVER}/{netboot}"] if netboot else [])


class WebNetwork:
    """`with WebNetwork(taps, files, work) as web:` then web.inside(qemu words); web.cacerts is the
    firmware's trusted authority (for fw_cfg)."""

    def __init__(self, taps, files, work, netboot=""):
        self.taps, self.files, self.work = taps, files, os.path.join(work, "web")
        self.netboot = os.path.basename(netboot)
        self.www = os.path.join(self.work, "www")
        self.processes, self.ns = [], None

    def __enter__(self):
        for tool in ("ip", "dnsmasq", "nginx", "openssl"):
            if shutil.which(tool) is None and not os.path.exists(f"/usr/sbin/{tool}"):
                raise HarnessError(f"{tool} is missing (./wirecheck installs iproute2, dnsmasq-base and nginx-light)")
        os.makedirs(self.www)
        for local in self.files:
            os.symlink(os.path.abspath(local), os.path.join(self.www, os.path.basename(local)))
        trusted_dir, untrusted_dir = os.path.join(self.work, "trusted"), os.path.join(self.work, "untrusted")
        os.makedirs(trusted_dir)
        os.makedirs(untrusted_dir)
        names = (f"DNS:{WEB_NAME}", f"IP:{WEB_SERVER}")
        _, crt, key, self.cacerts = make_certificates(trusted_dir, names, WEB_NAME, "Wirecheck run CA")
        _, ucrt, ukey, _ = make_certificates(untrusted_dir, (f"DNS:{UNTRUSTED_NAME}",), UNTRUSTED_NAME,
                                             "An authority nobody enrolled")
        for name in left_behind(PREFIX_NAME):
            remove(name)
        self.ns = Namespace(f"{PREFIX_NAME}{os.getpid()}-{os.path.basename(os.path.dirname(self.work))[-6:]}",
                            self.taps, address=WEB_SERVER, what="a run with a web network (net=web)",
                            ipv6=True, address6=WEB_SERVER6)
        self.ns.__enter__()
        try:
            conf = os.path.join(self.work, "nginx.conf")
            with open(conf, "w") as f:
                f.write(nginx_config(self.work, self.www, (crt, key), (ucrt, ukey)))
            self.start("nginx", [shutil.which("nginx") or "/usr/sbin/nginx", "-c", conf])
            self.start("dnsmasq", [shutil.which("dnsmasq") or "/usr/sbin/dnsmasq"] + dnsmasq_words(self.work, self.netboot))
            self.start("badserver", [sys.executable, "-m", "wcvm.badserver", WEB_SERVER, str(BAD_PORT), self.www],
                       env=dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))
            self.wait_for(80, BAD_PORT, UNTRUSTED_PORT)
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def start(self, name, words, env=None):
        with open(os.path.join(self.work, f"{name}.out"), "w") as out:
            self.processes.append((name, subprocess.Popen(self.ns.inside(words), stdin=subprocess.DEVNULL, stdout=out,
                                                          stderr=subprocess.STDOUT, env=env)))

    def wait_for(self, *ports):
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            for name, proc in self.processes:
                if proc.poll() is not None:
                    with open(os.path.join(self.work, f"{name}.out"), errors="replace") as f:
                        raise HarnessError(f"{name} stopped at once: {f.read()[-300:]}")
            listening = run(self.ns.inside(["ss", "-ltn"])).stdout
            if all(f"{WEB_SERVER}:{p} " in listening for p in ports):
                return
            time.sleep(0.2)
        raise HarnessError(f"the web network's servers did not start listening in 10 s (ports {ports})")

    def inside(self, words):
        return self.ns.inside(words)

    def keep_logs(self, folder):
        for name in ("nginx-access.log", "nginx-error.log", "dnsmasq.log", "badserver.out"):
            path = os.path.join(self.work, name)
            if os.path.exists(path):
                shutil.copy(path, os.path.join(folder, "web-" + name))

    def __exit__(self, *exc):
        stop_processes(self.processes)
        self.processes = []
        if self.ns is not None:
            self.ns.__exit__(None, None, None)
            self.ns = None
