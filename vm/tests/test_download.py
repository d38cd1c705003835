"""downloadtest against real servers: one boot on a web network of the run's own (a namespace with
dnsmasq, nginx and a server that fails on purpose; needs root), every fault of the receive path a
call: a missing file, a server that closes or stops halfway, a rate-limited server, an unknown name,
HTTPS with a certificate authority the firmware trusts and one it does not, a wrong digest and a
speed below the minimum; and a server by its IPv6 address."""
import hashlib
import os
import re
import tempfile
import unittest

from vmtest import wcvm
from wcvm.web import LIMIT_BYTES, UNTRUSTED_NAME, UNTRUSTED_PORT, WEB_NAME, WEB_SERVER6  # noqa: E402

SIZE = 8 * 1024 * 1024
LIMITED_SIZE = 4 * 1024 * 1024
SPEED = re.compile(r"speed is (\d+) Mbit/s \((\d+) KiB/s\)")


@unittest.skipUnless(os.geteuid() == 0, "the web network's namespace needs root")
class ReceivePath(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.TemporaryDirectory()
        big, small = os.path.join(cls.work.name, "image.bin"), os.path.join(cls.work.name, "small.bin")
        with open(big, "wb") as f:
            f.write(os.urandom(SIZE))
        with open(small, "wb") as f:
            f.write(os.urandom(LIMITED_SIZE))
        with open(big, "rb") as f:
            digest = hashlib.sha256(f.read()).hexdigest()
        url = f"http://{WEB_NAME}"
        cls.calls = {
            "passes": f"-test=downloadtest -url={url}/image.bin -sha256={digest}",
            "missing": f"-test=downloadtest -url={url}/missing.bin",
            "cut": f"-test=downloadtest -url={url}:8080/cut/image.bin",
            "stall": f"-test=downloadtest -url={url}:8080/stall/image.bin -timeout=3",
            "limited": f"-test=downloadtest -url={url}/limited/image.bin",
            "unknown name": "-test=downloadtest -url=http://nosuch.wirecheck.test/image.bin",
            "https": f"-test=downloadtest -url=https://{WEB_NAME}/small.bin",
            "untrusted": f"-test=downloadtest -url=https://{UNTRUSTED_NAME}:{UNTRUSTED_PORT}/small.bin",
            "wrong digest": f"-test=downloadtest -url={url}/small.bin -sha256={'0' * 64}",
            "too slow": f"-test=downloadtest -url={url}/small.bin -MinSpeed=99999",
            "ipv6": f"-test=downloadtest -url=http://[{WEB_SERVER6}]/small.bin",
        }
        cls.run_ = wcvm.run_vm(wcvm.VmConfig(calls=list(cls.calls.values()), nics=[wcvm.Nic.parse("virtio:net=web")],
                                             web_files=[big, small], timeout=600, silence=120))
        cls.blocks = dict(zip(cls.calls, [lines for _, lines in wcvm.call_blocks(cls.run_.log)]))
        cls.results = dict(zip(cls.calls, cls.run_.results))

    @classmethod
    def tearDownClass(cls):
        cls.work.cleanup()

    def verdict(self, name):
        return self.results[name][:2]

    def test_the_file_arrives_whole_with_its_digest_and_figure(self):
        self.assertEqual(self.verdict("passes"), ("Passed", 0), "\n".join(self.blocks["passes"]))
        text = "\n".join(self.blocks["passes"])
        self.assertIn(f"Content-Length {SIZE}", text)
        self.assertRegex(text, SPEED)

    def test_each_fault_has_its_code(self):
        for name, code in (("missing", 0x80160908), ("cut", 0x80160909), ("stall", 0x80160909),
                           ("unknown name", 0x80160905), ("untrusted", 0x80160907), ("wrong digest", 0x8016090A),
                           ("too slow", 0x8016090B)):
            with self.subTest(name):
                self.assertEqual(self.verdict(name), ("Failed", code), "\n".join(self.blocks[name]))
        self.assertIn("HTTP status 404", "\n".join(self.blocks["missing"]))
        self.assertIn("does not exist", "\n".join(self.blocks["unknown name"]))

    def test_https_through_the_firmware_tls_with_the_run_authority(self):
        self.assertEqual(self.verdict("https"), ("Passed", 0), "\n".join(self.blocks["https"]))

    def test_a_server_by_its_ipv6_address_over_the_address_slaac_gave(self):
        self.assertEqual(self.verdict("ipv6"), ("Passed", 0), "\n".join(self.blocks["ipv6"]))
        self.assertRegex("\n".join(self.blocks["ipv6"]), r"fd98::[0-9a-f:]+.*SLAAC")

    def test_a_rate_limited_server_gives_its_limit_within_ten_percent(self):
        self.assertEqual(self.verdict("limited"), ("Passed", 0), "\n".join(self.blocks["limited"]))
        m = SPEED.search("\n".join(self.blocks["limited"]))
        kib = int(m.group(2))
        self.assertLess(abs(kib - LIMIT_BYTES // 1024) / (LIMIT_BYTES // 1024), 0.10, m.group(0))


if __name__ == "__main__":
    unittest.main()
