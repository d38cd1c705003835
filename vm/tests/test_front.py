"""The technician's front end: a menu stick (no calls) opens VexRun's menu of the module's tests from
its catalog. Driven by a script's front lines on a French stick signed for Secure Boot, and by keys typed
at a terminal in tmux, as a technician would; both record every call with its options."""
import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest

from vmtest import ROOT, RUNNER, wcvm
from wcvm.firmware import test_signing_key

SCRIPT = """front test pingtest
front set -retries 9
front set -retries 2
front run
front all
front finish
"""
TESTS = ["pingtest", "detectcable", "interactivenetworktest", "macaddresstest", "SpeedTest", "NicSpeedTest",
         "IRQTest", "ping6test", "downloadtest"]
# What "Run all" calls: every test but those that need a value nobody set (downloadtest's -url).
RUN_ALL = TESTS[:-1]


class ScriptedMenuStick(unittest.TestCase):
    def test_a_signed_menu_stick_runs_what_the_script_chooses_and_records_it(self):
        with tempfile.TemporaryDirectory() as work:
            key, cert = test_signing_key(work)
            script = os.path.join(work, "front.txt")
            with open(script, "w") as f:
                f.write(SCRIPT)
            image = os.path.join(work, "menu.img")
            made = subprocess.run(RUNNER + ["image", image, "--menu", "--lang", "fra", "--script", script, "--sign",
                                            key, "--cert", cert], capture_output=True, text=True)
            self.assertEqual(made.returncode, 0, made.stderr)
            self.assertIn("VexRun's menu", made.stdout)
            # The stick holds the script; the runner is told of it, so that the menu's waits are not
            # taken for questions nobody answers.
            run = wcvm.run_vm(wcvm.VmConfig(image=image, secure_boot=True, script=SCRIPT, timeout=600))
            report = json.loads(wcvm.read_image_file(image, "results.json"))
            results_txt = wcvm.read_image_file(image, "results.txt")
        out = run.output
        # The menu from the catalog: every test, Run all and Finish.
        for name in TESTS:
            self.assertRegex(out, rf"FRONT item=\d+ {name} +\S")
        # In the stick's language, French.
        self.assertIn('FRONT screen=tests title="Wirecheck : choisissez un test"', out)
        self.assertIn(f"FRONT item={len(TESTS) + 1} Lancer tous les tests", out)
        # -retries=9 is refused with the catalog's range, and no call is made for it.
        self.assertIn("FRONT refused: -retries takes 0..5; 9 is outside; -retries stays 0", out)
        self.assertNotIn("-retries=9", results_txt)
        options = ["-test=pingtest -retries=2", "-test=pingtest -retries=2"] + [f"-test={t}" for t in RUN_ALL[1:]]
        self.assertIn("FRONT not run: downloadtest needs -url; set it on the test's screen", out)
        self.assertEqual([c["options"] for c in report["cases"]], options)
        self.assertEqual([o for o in re.findall(r"options='([^']*)'", results_txt)], options)
        # A result screen after each call; the summary of all of them and where the files are.
        self.assertEqual(out.count("FRONT result test="), len(options))
        self.assertIn(f"FRONT summary calls={len(options)}", out)
        self.assertIn("FRONT files=\\EFI\\BOOT\\results.txt", out)
        # NicSpeedTest on a NIC outside the rated-speed table: the result screen says what to check.
        self.assertRegex(out, r"FRONT result test=NicSpeedTest .*error=0x800000FF")
        self.assertIn("FRONT check=the module's Debug.log and the status of the result", out)
        assert_screen_width(self, out)


class WriteProtectedStick(unittest.TestCase):
    def test_the_menu_works_and_says_the_results_are_only_on_the_screen(self):
        with tempfile.TemporaryDirectory() as work:
            image = os.path.join(work, "locked.img")
            script = "front test detectcable\nfront run\nfront finish\n"
            answers = os.path.join(work, "answers.txt")
            with open(answers, "w") as f:
                f.write(script)
            made = subprocess.run(RUNNER + ["image", image, "--menu", "--script", answers], capture_output=True,
                                  text=True)
            self.assertEqual(made.returncode, 0, made.stderr)
            run = wcvm.run_vm(wcvm.VmConfig(image=image, write_protected=True, script=script, timeout=300))
            self.assertIsNone(wcvm.read_image_file(image, "results.txt"))
        out = run.output
        for name in TESTS:
            self.assertRegex(out, rf"FRONT item=\d+ {name} +\S")
        self.assertIn("FRONT result test=detectcable", out)
        self.assertIn("FRONT files=none", out)
        self.assertIn("the results are only on this", out)
        self.assertNotIn("catalog could not be read", out)
        assert_screen_width(self, out)


def assert_screen_width(test, out):
    """Every line of the technician's menu fits an 80-column screen."""
    wide = [line for line in out.splitlines() if line.startswith("FRONT") and len(line) > 79]
    test.assertEqual(wide, [])


class MenuAtATerminal(unittest.TestCase):
    """./wirecheck run --menu in a tmux window: the keys a technician types."""

    def setUp(self):
        if shutil.which("tmux") is None:
            self.skipTest("tmux is missing (./wirecheck installs it)")
        # A tmux server of the test's own: the user's sessions are never touched.
        self.tmux = ["tmux", "-L", f"wirecheck-front-{os.getpid()}-{time.monotonic_ns()}"]
        self.session = "front"
        self.work = tempfile.mkdtemp(prefix="wirecheck-front-")
        self.last = os.path.join(self.work, "last")
        env = f"WIRECHECK_VM_LAST={self.last} PYTHONPATH={os.path.join(ROOT, 'vm')}"
        subprocess.run(self.tmux + ["new-session", "-d", "-s", self.session, "-x", "80", "-y", "25",
                        f"cd {ROOT} && {env} python3 -m wcvm --menu --timeout 900; echo RUN-ENDED $?; sleep 600"], check=True)

    def tearDown(self):
        subprocess.run(self.tmux + ["kill-server"], capture_output=True)
        shutil.rmtree(self.work, ignore_errors=True)

    def screen(self):
        return subprocess.run(self.tmux + ["capture-pane", "-p", "-J", "-t", self.session, "-S", "-3000"],
                              capture_output=True, text=True).stdout

    def wait_for(self, text, seconds=240, times=1):
        deadline = time.time() + seconds
        while time.time() < deadline:
            if self.screen().count(text) >= times:
                return
            time.sleep(0.5)
        self.fail(f"no '{text}' on the terminal within {seconds} s:\n{self.screen()[-3000:]}")

    def keys(self, *keys):
        for key in keys:
            subprocess.run(self.tmux + ["send-keys", "-t", self.session, key], check=True)
            time.sleep(0.3)

    def test_a_technician_chooses_edits_runs_all_and_finishes(self):
        self.wait_for("FRONT screen=tests")
        self.keys("1", "Enter")  # pingtest
        self.wait_for("FRONT screen=test name=pingtest")
        self.keys("1", "Enter", "9", "Enter")  # -retries=9: refused
        self.wait_for("-retries takes 0..5; 9 is outside")
        self.keys("1", "Enter", "2", "Enter")
        self.wait_for("FRONT set -retries=2")
        self.keys("7", "Enter")  # Run
        self.wait_for("FRONT hint=Press a key")
        self.keys("Space")
        run_all = len(TESTS) + 1
        self.wait_for(f"FRONT item={run_all} Run all tests")
        self.keys(str(run_all), "Enter")
        for count, test in enumerate(RUN_ALL, 2):  # each test's result screen waits for a key
            self.wait_for("FRONT hint=Press a key", 300, times=count)
            self.assertIn(f"FRONT result test={test}", self.screen())
            self.keys("Space")
        self.wait_for(f"FRONT item={run_all + 1} Finish")
        self.keys("Escape")
        self.wait_for("RUN-ENDED", 120)
        screen = self.screen()
        self.assertIn(f"FRONT summary calls={len(RUN_ALL) + 1}", screen)
        with open(os.path.join(self.last, "results.txt")) as f:
            options = re.findall(r"options='([^']*)'", f.read())
        self.assertEqual(options, ["-test=pingtest -retries=2", "-test=pingtest -retries=2"] +
                         [f"-test={t}" for t in RUN_ALL[1:]])


if __name__ == "__main__":
    unittest.main()
