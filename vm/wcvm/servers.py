"""What the fleet's servers are given: nginx's configuration (the image, and WebDAV PUT under
/results/), dnsmasq's command line (DHCP only, the image's URL for the firmware's HTTP boot), and the
fleet's own certificate authority with the server's certificate for HTTPS."""
import ipaddress
import os
import subprocess
import uuid

from .config import HarnessError
from .namespace import PREFIX, PREFIX6, SERVER, SERVER6, run

X509_GUID = uuid.UUID("a5c059a1-94e4-4aa7-87b5-ab155c2bf072")  # EFI_CERT_X509_GUID
OWNER_GUID = uuid.UUID("5c1d0000-9a2e-4c0b-8f6e-57495245434b")  # who enrolled the certificates: the fleet


def efi_signature_list(certificates):
    """Certificates (DER) as the firmware keeps trusted ones: one EFI_SIGNATURE_LIST of X.509
    entries each, the form OVMF takes through fw_cfg etc/edk2/https/cacerts."""
    out = b""
    for der in certificates:
        entry = OWNER_GUID.bytes_le + der
        out += X509_GUID.bytes_le + (28 + len(entry)).to_bytes(4, "little") + (0).to_bytes(4, "little") + \
            len(entry).to_bytes(4, "little") + entry
    return out


def make_certificates(folder, names=(f"IP:{SERVER}",), common=SERVER, authority="Wirecheck fleet CA"):
    """A certificate authority of the run's own and the server's certificate for the subject
    alternative names given (SERVER by default), signed by it; returns (CA certificate PEM, server
    certificate, server key, cacerts for the firmware)."""
    ca_key, ca_crt = os.path.join(folder, "ca.key"), os.path.join(folder, "ca.crt")
    key, csr, crt = (os.path.join(folder, n) for n in ("server.key", "server.csr", "server.crt"))
    ext = os.path.join(folder, "server.ext")
    with open(ext, "w") as f:
        f.write(f"subjectAltName={','.join(names)}\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n")
    steps = [["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj",
              f"/CN={authority}", "-keyout", ca_key, "-out", ca_crt,
              "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign"],
             ["openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={common}", "-keyout", key, "-out", csr],
             ["openssl", "x509", "-req", "-in", csr, "-CA", ca_crt, "-CAkey", ca_key, "-CAcreateserial", "-days", "30",
              "-extfile", ext, "-out", crt]]
    for step in steps:
        done = run(step)
        if done.returncode != 0:
            raise HarnessError(f"openssl {step[1]}: {done.stderr.strip()[-300:]}")
    der = subprocess.run(["openssl", "x509", "-in", ca_crt, "-outform", "DER"], capture_output=True, check=True).stdout
    cacerts = os.path.join(folder, "cacerts.bin")
    with open(cacerts, "wb") as f:
        f.write(efi_signature_list([der]))
    return ca_crt, crt, key, cacerts


def nginx_head(work):
    """The start of a nginx configuration of a run's own: in the foreground, its pid file and logs in
    work (each request with its time, client, status and bytes), up to the opened http block."""
    return f"""user root;
daemon off;
pid {work}/nginx.pid;
error_log {work}/nginx-error.log;
events {{}}
http {{
  log_format timed '$msec $remote_addr "$request" $status $body_bytes_sent';
  access_log {work}/nginx-access.log timed;
"""


def stop_processes(processes):
    """Stops the (name, process) pairs a run started: asked first, killed after 5 s."""
    for _, proc in processes:
        if proc.poll() is None:
            proc.terminate()
    for _, proc in processes:
        try:
            proc.wait(5)
        except subprocess.TimeoutExpired:
            proc.kill()


def nginx_config(work, www, extra="", tls=None, ipv6=False):
    tls_lines = "" if tls is None else \
        f"    listen {SERVER}:443 ssl;\n    ssl_certificate {tls[0]};\n    ssl_certificate_key {tls[1]};\n"
    listen6 = f"    listen [{SERVER6}]:80;\n" if ipv6 else ""
    allow6 = f"        allow {SERVER6}/{PREFIX6};\n" if ipv6 else ""
    return nginx_head(work) + f"""  client_body_temp_path {work}/nginx-body;
  types {{ application/octet-stream img; }}
  server {{
    listen {SERVER}:80;
{listen6}{tls_lines}    root {www};
    location /results/ {{
      dav_methods PUT;
      create_full_put_path on;
      dav_access user:rw group:r all:r;
      client_max_body_size 64m;
      limit_except GET HEAD {{
        allow {ipaddress.ip_network(f"{SERVER}/{PREFIX}", strict=False)};
{allow6}        deny all;
      }}
    }}
{extra}  }}
}}
"""


# EDK2's HTTP boot over IPv6 takes an answer for an HTTP offer only when its vendor class option
# (16) has "HTTPClient" at byte 6, where RFC 8415's layout puts it after the enterprise number and the
# data's length (00 00 01 57 00 0a). dnsmasq writes option 16 as a list of counted strings with no
# enterprise number, so the string carries four characters before the class: its own 2-byte length
# and these four put "HTTPClient" at byte 6 (EDK2 reads neither the number nor the length).
HTTP_CLIENT_CLASS6 = "0343HTTPClient"
# Over IPv4 the firmware's HTTP boot asks with the vendor class "HTTPClient" and takes only an offer
# that names it back: dnsmasq tags such a client "http" and answers with the class.
HTTP_CLIENT_WORDS = ("--dhcp-vendorclass=set:http,HTTPClient", "--dhcp-option-force=tag:http,60,HTTPClient")
# The file the IPv4 offer names in an IPv6 fleet: never on the server.
IPV4_NOT_HERE = "ipv6-only-boot-over-ipv6"


def dnsmasq_words(work, machines, ipv6=False):
    words = ["dnsmasq", "--keep-in-foreground", "--port=0", "--bind-interfaces", "--interface=br0",
             "--except-interface=lo", f"--dhcp-range={SERVER[:-1]}100,{SERVER[:-1]}200,1h", *HTTP_CLIENT_WORDS,
             "--log-dhcp", f"--log-facility={work}/dnsmasq.log", f"--pid-file={work}/dnsmasq.pid",
             "--dhcp-leasefile=" + os.path.join(work, "dnsmasq.leases"), "--conf-file=/dev/null"]
    if ipv6:
        # Router advertisements with M set, addresses by DHCPv6, and the image's URL for HTTP boot over
        # IPv6. DHCPv4 still answers (pingtest needs it); its HTTP offer names a file the server does
        # not have, so that the firmware's HTTP boot over IPv4 ends at once with a 404 and goes on to
        # IPv6 (an answer without a boot file would hold it for a minute of retries).
        prefix = SERVER6.rstrip("1")
        return words + [f"--dhcp-boot=tag:http,http://{SERVER}/{IPV4_NOT_HERE}", "--enable-ra", f"--dhcp-range={prefix}100,{prefix}1ff,{PREFIX6},1h",
                        "--dhcp-vendorclass=set:http6,enterprise:343,HTTPClient",
                        f"--dhcp-option=tag:http6,option6:16,{HTTP_CLIENT_CLASS6}",
                        f"--dhcp-option=tag:http6,option6:bootfile-url,http://[{SERVER6}]/{machines[0].image}"]
    for m in machines:
        words += [f"--dhcp-host={m.mac},set:m{m.number}",
                  f"--dhcp-boot=tag:http,tag:m{m.number},http://{SERVER}/{m.image}"]
    return words
