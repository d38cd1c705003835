"""A fleet boots the image from the network and every machine's results land on the web server: the
fleet command as a data centre runs it, the faults of the server's side (HTTPS among them) in one
fleet, and Secure Boot over the network. Needs root for the fleet's network namespace."""
import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest

from vmtest import RUNNER
from wcvm import fleet
from wcvm.firmware import test_signing_key
from wcvm.disk import IMAGE_OFFSET, IMAGE_SIZE, build_image

CALLS = ["-test=pingtest", "-test=detectcable"]
UPLOADED = ["results.txt", "results.xml", "results.json", "VexRun.log", "Debug.log"]


JUNIT_READER = """
import sys
from junitparser import JUnitXml
cases = [c for suite in JUnitXml.fromfile(sys.argv[1]) for c in suite]
print(len(cases), sum(c.is_passed for c in cases))
"""


def image_with(calls, upload, sign=None):
    return lambda path: build_image(path, calls, sign=sign, upload=upload)


def altered(make, name):
    """An image made by make, with one byte of name's code changed after signing."""
    def alter(path):
        make(path)
        part = f"{path}@@{IMAGE_OFFSET}"
        with tempfile.TemporaryDirectory() as work:
            local = os.path.join(work, "file.efi")
            subprocess.run(["mcopy", "-o", "-i", part, f"::/EFI/BOOT/{name}", local], check=True)
            with open(local, "r+b") as f:
                f.seek(0x2000)
                byte = f.read(1)
                f.seek(0x2000)
                f.write(bytes([byte[0] ^ 0xFF]))
            subprocess.run(["mcopy", "-o", "-i", part, local, f"::/EFI/BOOT/{name}"], check=True)
    return alter


@unittest.skipUnless(os.geteuid() == 0, "the fleet's network namespace needs root")
class Fleet(unittest.TestCase):
    def test_three_machines_boot_over_ipv6_each_with_its_results_under_its_uuid(self):
        # HTTP boot over IPv6, uploads to the server's IPv6 address; pingtest still has DHCPv4, and
        # every machine fetches its "image" from the same server, named SERVER in the call. (The
        # other fleets of this file boot over IPv4.)
        with tempfile.TemporaryDirectory() as work:
            image = os.path.join(work, "image.bin")
            with open(image, "wb") as f:
                f.write(os.urandom(4 << 20))
            with open(image, "rb") as f:
                digest = hashlib.sha256(f.read()).hexdigest()
            calls = CALLS + ["-test=ping6test", f"-test=downloadtest -url=http://SERVER/image.bin -sha256={digest}"]
            junit = os.path.join(work, "fleet.xml")
            done = subprocess.run(RUNNER + ["fleet", "3", "--ipv6", "--serve", image, "--junit", junit, "--"] + calls,
                                  capture_output=True, text=True, timeout=600)
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
            self.assertIn(f"serving {image} as http://{fleet.SERVER}/image.bin", done.stdout)
            # Read with a JUnit parser (Debian's python3-junitparser, for the system's Python).
            parsed = subprocess.run(["/usr/bin/python3", "-c", JUNIT_READER, junit], capture_output=True, text=True,
                                    timeout=60)
            self.assertEqual(parsed.returncode, 0, parsed.stderr)
            self.assertEqual(parsed.stdout.split(), ["12", "12"])
        where = re.search(r"results in (\S+)/results/;", done.stdout).group(1)
        machines = sorted(os.listdir(os.path.join(where, "results")))
        self.assertEqual(len(machines), 3)
        for uuid in machines:
            self.assertIn(uuid, done.stdout)  # the table names every machine
            (run,) = os.listdir(os.path.join(where, "results", uuid))
            folder = os.path.join(where, "results", uuid, run)
            self.assertEqual(sorted(os.listdir(folder)), sorted(UPLOADED))
            with open(os.path.join(folder, "results.txt")) as f:
                text = f.read()
            # The machine names itself inside the results: UUID, serial number, first NIC's MAC.
            self.assertRegex(text, rf"MACHINE uuid={uuid} serial=WC\d+ mac=52:54:00:99:00:0[123]")
            self.assertEqual(text.count("RESULT result=Passed"), 4)
            with open(os.path.join(folder, "results.json")) as f:
                report = json.load(f)
            self.assertEqual(report["machine"]["uuid"], uuid)
            self.assertEqual([c["result"] for c in report["cases"]], ["Passed"] * 4)
        # The image came over IPv6, and so did every result.
        with open(os.path.join(os.path.dirname(where), "nginx-access.log")) as f:
            requests = [line.split() for line in f]
        self.assertTrue(any(r[1].startswith("fd99::") and r[3] == "/stick.img" for r in requests))
        puts = [r for r in requests if r[2] == '"PUT']
        self.assertTrue(puts and all(r[1].startswith("fd99::") for r in puts), puts[:3])
        fetched = {r[1] for r in requests if r[3] == "/image.bin" and r[5] == "200"}
        self.assertEqual(len(fetched), 3, requests)
        self.assertLessEqual(os.path.getsize(os.path.join(where, "stick.img")), IMAGE_SIZE)

    def test_the_server_side_faults_lose_nothing(self):
        machines = fleet.machines_for(6, 1)
        ok, down, forbidden, full, slow, no_ca = machines
        ok.boots = 2  # the same machine booted again once the first run is over
        # HTTPS (the fleet's default here): a firmware that trusts no authority. (One that trusts another
        # authority ends "Aborted" with what a failed handshake means: measured, see the README.)
        no_ca.cacerts = "none"
        down.image, forbidden.image, full.image, slow.image = "down.img", "forbidden.img", "full.img", "slow.img"
        images = {"down.img": image_with(CALLS, f"http://{fleet.SERVER}:81/results"),
                  "forbidden.img": image_with(CALLS, f"http://{fleet.SERVER}/forbidden/results"),
                  "full.img": image_with(CALLS, f"http://{fleet.SERVER}/full/results"),
                  "slow.img": image_with(CALLS, f"http://{fleet.SERVER}:8082/results")}
        extra = "    location /forbidden/ { return 403; }\n    location /full/ { return 507; }\n"
        f = fleet.Fleet(machines, CALLS, images=images, nginx_extra=extra, https=True)

        # A web server of the project's own that answers every PUT two seconds late (within the
        # firmware's five-second wait for an answer).
        f.servers = [("slowserver", [sys.executable, "-m", "wcvm.slowserver", fleet.SERVER, "8082", "2", f.www])]
        with f:
            f.boot()
            rows = f.rows()
        screens = {b.machine.number: fleet.read_text(b.serial_log) for b in f.boots}
        by = {}
        for r in rows:
            by.setdefault(r["machine"], []).append(r)
        # Booted twice: both runs' results kept, in two folders.
        runs = {r["run"] for r in by[ok.uuid]}
        self.assertEqual(len(runs), 2, by[ok.uuid])
        self.assertTrue(all(r["result"] == "Passed" and r["upload"] == "complete" for r in by[ok.uuid]))
        # A slow server only takes longer.
        self.assertEqual([(r["result"], r["upload"]) for r in by[slow.uuid]], [("Passed", "complete")] * 2)
        # Down, refusing, full: nothing on the server, the reason in the table, every result on the screen.
        for machine, said in ((down, "status=Connection Reset answer=none"), (forbidden, "answer=403"),
                              (full, "answer=not-2xx")):
            (row,) = by[machine.uuid]
            self.assertIn("nothing on the server", row["upload"])
            self.assertIn(said, row["upload"])
            screen = screens[machine.number]
            self.assertEqual(screen.count("RESULT result=Passed"), 2, screen[-2000:])
            self.assertIn("the results are only in its memory and on this screen", screen)
            self.assertIn("in memory only", screen)
        self.assertIn("status=HTTP error", by[forbidden.uuid][0]["upload"])
        self.assertIn("status=Not Found answer=none", by[no_ca.uuid][0]["upload"])
        self.assertIn("the firmware has no certificate authority for HTTPS", by[no_ca.uuid][0]["upload"])
        self.assertTrue(all(r["run"].startswith("(boot") for r in by[no_ca.uuid]))


class Arguments(unittest.TestCase):
    def test_bad_calls_and_urls_get_one_line_each(self):
        cases = [(["fleet", "3"], "no calls"),
                 (["fleet", "0", "--", "-test=pingtest"], "give 1 to 64 machines"),
                 (["fleet", "2", "--sign", "k.pem", "--", "-version"], "--sign KEY and --cert CERT go together"),
                 (["fleet", "2", "--ipxe", "2025", "--", "-version"], "--ipxe does not apply to the fleet"),
                 (["fleet", "2", "--serve", "/nonexistent/image.bin", "--", "-version"], "no such file"),
                 (["image", "x.img", "--", "-version", ""], "an empty option string is no call"),
                 (["image", "x.img", "--upload", "ftp://10.0.0.1/r", "-version"], "give an http:// or https:// URL"),
                 (["image", "x.img", "--upload", "http://10.0.0.1/a b", "-version"], "without spaces")]
        for words, said in cases:
            with self.subTest(words=words):
                done = subprocess.run(RUNNER + words, capture_output=True, text=True, timeout=60)
                self.assertEqual(done.returncode, 2, done.stdout + done.stderr)
                self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
                self.assertIn(said, done.stderr)

    @unittest.skipUnless(os.geteuid() == 0, "the fleet's network namespace needs root")
    def test_a_stopped_fleet_leaves_no_namespace_behind_even_stopped_twice(self):
        with subprocess.Popen(RUNNER + ["fleet", "1", "--", "-test=pingtest"], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True) as proc:
            name = f"wcfleet-{proc.pid}-"
            for _ in range(120):  # until the namespace is there
                if name in subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout:
                    break
                time.sleep(0.5)
            else:
                self.fail("the fleet made no namespace")
            time.sleep(3)  # the machine is booting
            proc.terminate()
            time.sleep(0.2)  # and a second stop while the first one's clean-up runs
            proc.terminate()
            out, err = proc.communicate(timeout=60)
        self.assertEqual(proc.returncode, 2)
        self.assertIn("the namespace and everything in it were removed", err)
        self.assertNotIn(name, subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout)
        work = re.search(r"files in (\S+)", out).group(1)  # every VM and server names its files there
        self.assertEqual(subprocess.run(["pgrep", "-f", work]).returncode, 1)


    @unittest.skipUnless(os.geteuid() == 0, "the fleet's network namespace needs root")
    def test_secure_boot_on_a_generation_without_it_gives_every_machine_a_row_saying_why(self):
        done = subprocess.run(RUNNER + ["fleet", "2", "--secure-boot", "--firmware", "edk2-2020.11", "--",
                                        "-test=pingtest"], capture_output=True, text=True, timeout=600)
        self.assertEqual(done.returncode, 1, done.stderr)
        rows = [line for line in done.stdout.splitlines() if "not booted: edk2-2020.11 has no Secure Boot build"
                in line]
        self.assertEqual(len(rows), 2, done.stdout)
        self.assertIn("fleet: 2 case(s), 0 passed", done.stdout)


@unittest.skipUnless(os.geteuid() == 0, "the fleet's network namespace needs root")
class SecureBootFleet(unittest.TestCase):
    def test_a_signed_image_boots_and_uploads_and_altered_ones_are_refused(self):
        with tempfile.TemporaryDirectory() as keys:
            sign = test_signing_key(keys)
            machines = fleet.machines_for(3, 2)
            good, module, manager = machines
            module.image, manager.image = "module.img", "manager.img"
            signed = image_with(["-test=pingtest"], fleet.UPLOAD_URL, sign)
            images = {"module.img": altered(signed, "Wirecheck.efi"), "manager.img": altered(signed, "BOOTX64.EFI")}
            with fleet.Fleet(machines, ["-test=pingtest"], secure=True, sign=sign, images=images) as f:
                f.boot()
                rows = {r["machine"]: r for r in f.rows()}
        self.assertEqual((rows[good.uuid]["result"], rows[good.uuid]["upload"]), ("Passed", "complete"))
        # The module changed after signing: VexRun says so and its results still reach the server.
        self.assertEqual(rows[module.uuid]["result"], "none")
        self.assertIn("LOAD module=Wirecheck.efi status=Access Denied", rows[module.uuid]["meaning"])
        # The manager changed after signing: the firmware does not start the image at all.
        self.assertIn("the firmware refused the boot image", rows[manager.uuid]["upload"])


if __name__ == "__main__":
    unittest.main()
