"""Option strings answered in OVMF: usage, version and catalog texts, refused strings, DIAG_DEBUG."""
import unittest

from vmtest import PASSED, boot, call_blocks, expected, result_line, runtime_text

# One string refused at each step of the parse; the unit tests go through the validation rules one by one.
REFUSED = {
    "-test=nosuch": "Unknown test: nosuch",
    "-test=pingtest -bogus": "Unknown option: -bogus for subtest pingtest",
    "-test=pingtest -retries=6": "Option -retries argument should be below maximum value of 5",
    "test=pingtest": None,  # refused without a message
}
# (An empty option string gives the general usage too: the unit tests call it; VexRun takes a blank
# line of its calls file for no call, and the runner refuses an empty one.)
ANSWERED = {
    "-debug": "usage_general.txt",
    "-help": "usage_general.txt",
    "-?": "usage_general.txt",
    "-help=speedtest": "usage_speedtest.txt",
    "-version": "version.txt",
    "-v -test=pingtest": "version.txt",
    "-catalog": "catalog.xml",
}


class OptionStrings(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # A fresh image for every call: -help and -version turn the console off for good.
        cls.run_ = boot(list(ANSWERED) + list(REFUSED), reload=True)
        cls.blocks = dict(call_blocks(cls.run_))

    def test_answered_strings_print_exactly_their_texts_and_pass(self):
        for options, name in ANSWERED.items():
            with self.subTest(options=options):
                lines = self.blocks[options]
                self.assertEqual(runtime_text(lines), expected(name))
                self.assertIn(PASSED, lines)

    def test_refused_strings_fail_with_their_message(self):
        for options, message in REFUSED.items():
            with self.subTest(options=options):
                lines = self.blocks[options]
                self.assertIn(result_line("Failed", 0x80000002), lines)
                self.assertIn("RUNTIME runtime=0 result=Failed error=0x80000002 status=Success", lines)
                shown = runtime_text(lines)
                if message:
                    self.assertIn(message, shown)
                else:
                    self.assertEqual(shown, "")

    def test_every_image_unloads(self):
        unloads = [l for l in self.run_.output.splitlines() if l.startswith("UNLOAD ")]
        self.assertEqual(len(unloads), len(ANSWERED) + len(REFUSED))
        self.assertTrue(all(l == "UNLOAD status=Success protocols=removed" for l in unloads))


class DiagDebugVariable(unittest.TestCase):
    def test_variable_under_any_vendor_guid_sets_the_debug_level(self):
        run = boot(["-test=detectcable -flagfilename=x"], variables=[("DIAG_DEBUG", "3F1C7A2E-5B4D-4E6F-8A9B-0C1D2E3F4A5B", "log")])
        # Level 1: traces reach the manager for its log, not for the console.
        self.assertIn("Test option -test = 'detectcable'", run.log)
        self.assertIn("-flagfilename = \"x\" (str) (set)", run.log)
        self.assertNotIn("Test option -test", run.output)

    def test_level_two_shows_traces(self):
        run = boot(["-test=detectcable"], variables=[("DIAG_DEBUG", "59D1C24F-50F1-401A-B101-F33E0DAED443", "yes")])
        self.assertIn("Test option -test = 'detectcable'", run.output)
        self.assertIn("VexGetTestName called()", run.output)


if __name__ == "__main__":
    unittest.main()
