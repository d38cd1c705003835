"""A cable plugged in when the prompt asks for it, on the firmware's DHCP policy: pingtest at prompt
25 and interactivenetworktest at prompt 104, one boot per model with two unplugged NICs. The
firmware's DHCP, started at boot without link, is started again, and the IPv4 child that waited
for the address is configured again once the address lands on the firmware's new interface."""
import unittest

from vmtest import boot, call_blocks
from wcvm import Nic


class CablePluggedWhenAsked(unittest.TestCase):
    def test_both_tests_pass_once_the_cable_is_in(self):
        # OVMF's own driver here; every model's pingtest with the cable plugged in at prompt 25 is
        # the compatibility matrix's cable-out row.
        for model in ("virtio",):
            with self.subTest(model=model):
                nics = [Nic.parse(f"{model}:link=off,plug=25"), Nic.parse(f"{model}:link=off,plug=104")]
                run = boot(["-test=pingtest -index=1", "-test=interactivenetworktest"], nics=nics,
                           ui="console", script="prompt ok\nmenu 2\nprompt ok\n")
                blocks = [(options, "\n".join(lines)) for options, lines in call_blocks(run)]
                self.assertEqual([r[:2] for r in run.results], [("Passed", 0), ("Passed", 0)], run.log[-3000:])
                self.assertIn("PROMPT message=25 ", blocks[0][1])
                self.assertIn("PROMPT message=104 ", blocks[1][1])
                self.assertEqual(run.log.count("the DHCP policy is set again, which starts the firmware's DHCP where it gave up (Success)"), 2)
                self.assertIn("Network cable detected!", run.log)
                self.assertIn("Network not configured correctly, starting configure with DHCP...", run.log)


if __name__ == "__main__":
    unittest.main()
