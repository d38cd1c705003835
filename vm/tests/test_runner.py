"""The runner as a person uses it: live output, answers typed at a terminal, a clear end when nobody
can answer, several calls in one boot, and a boot image for real machines."""
import json
import os
import pty
import re
import shlex
import shutil
import select
import subprocess
import sys
import tempfile
import time
import unittest

from vmtest import PASSED, ROOT, RUNNER, VERSION, wcvm

# The runner as ./wirecheck starts it: the wcvm package in vm/, run as a module.
UNPLUGGED = ["--nic", "virtio:link=off", "-test=pingtest", "-retries=1"]
WAITING = "Press a key to continue, ESC to abort."


def timed_lines(proc):
    """(seconds since start, line) of everything the runner prints, as it arrives."""
    start, lines = time.time(), []
    for line in proc.stdout:
        lines.append((time.time() - start, line.rstrip("\n")))
    return lines


class ArgumentsTest(unittest.TestCase):
    """The runner's command line, without a VM."""

    def test_every_option_with_a_value_takes_it_as_the_next_word_or_after_equals(self):
        from wcvm.cli import option_names, run_parser, split_arguments
        parser = run_parser()
        values = {"--nic": "e1000", "--smbios": "1,family=x", "--var": "A=b", "--file": "a=b",
                  "--script": "s", "--call": "-version", "--lang": "fra", "--ui": "console", "--timeout": "9",
                  "--json": "r.json", "--junit": "r.xml", "--firmware": "edk2-2020.11", "--ipxe": "2025",
                  "--arch": "aarch64", "--serve": "f.bin"}
        self.assertEqual(option_names(parser, True), set(values))
        for option, value in values.items():
            for words in ([option, value], [f"{option}={value}"]):
                vm_args, calls = split_arguments(words + ["-test=interactivenetworktest"], parser)
                self.assertEqual(vm_args, [f"{option}={value}"])
                self.assertEqual(calls, ["-test=interactivenetworktest"])
                given = vars(parser.parse_args(vm_args))[option[2:].replace("-", "_")]
                self.assertIn(value, given if isinstance(given, list) else [str(given)])
        with self.assertRaisesRegex(ValueError, "comes after the option string"):
            split_arguments(["-test=pingtest", "--ui", "console"], parser)


    def test_the_usage_and_run_help_list_the_same_options(self):
        import re
        from vmtest import ROOT
        from wcvm.config import NIC_MODELS, NIC_OPTIONS
        usage = subprocess.run([os.path.join(ROOT, "wirecheck"), "help"], capture_output=True, text=True).stdout
        helped = subprocess.run([sys.executable, "-m", "wcvm", "--help"], capture_output=True, text=True,
                                env=dict(os.environ, PYTHONPATH=os.path.join(ROOT, "vm"))).stdout
        options = set(re.findall(r"--[a-z][a-z-]+", helped)) - {"--help"}
        self.assertTrue({"--nic", "--ui", "--timeout"} <= options, options)
        self.assertEqual(options - set(re.findall(r"--[a-z][a-z-]+", usage)), set())
        flat = " ".join(helped.split())
        for name, _ in NIC_OPTIONS:
            self.assertIn(name, usage)
            self.assertIn(name, flat)
        for model in NIC_MODELS:
            self.assertIn(model, usage)

    def test_an_unknown_command_is_named_not_answered_with_the_usage(self):
        from vmtest import ROOT
        done = subprocess.run([os.path.join(ROOT, "wirecheck"), "frobnicate"], capture_output=True, text=True)
        self.assertEqual(done.returncode, 2)
        self.assertEqual(done.stderr.splitlines(), ["wirecheck: unknown command 'frobnicate' (./wirecheck help lists "
                                                    "the commands)"])


class MachineReadableResults(unittest.TestCase):
    """run --json and --junit: one case per call, the failure with its log lines, read back with
    json and with a JUnit parser (Debian's python3-junitparser, for the system's Python)."""

    def test_json_and_junit_hold_one_case_per_call(self):
        with tempfile.TemporaryDirectory() as work:
            out_json, out_xml = os.path.join(work, "r.json"), os.path.join(work, "r.xml")
            done = subprocess.run(RUNNER + ["--json", out_json, "--junit", out_xml, "--",
                                            "-test=pingtest", "-test=pingtest -index=2", "-version"],
                                  capture_output=True, text=True, timeout=300)
            self.assertEqual(done.returncode, 1, done.stderr)  # one call failed
            with open(out_json) as f:
                report = json.load(f)
            parsed = subprocess.run(["/usr/bin/python3", "-c", JUNIT_READER, out_xml], capture_output=True,
                                    text=True, timeout=60)
        self.assertEqual([(c["test"], c["result"], c["error"], c["meaning"]) for c in report["cases"]],
                         [("pingtest", "Passed", "0x0", "no error"),
                          ("pingtest", "Failed", "0x80160104", "the NIC asked for does not exist"),
                          ("module", "Passed", "0x0", "no error")])
        self.assertIn("The NIC is not found!", report["cases"][1]["log"])
        self.assertNotIn("log", report["cases"][0])
        self.assertEqual(parsed.returncode, 0, parsed.stderr)
        self.assertEqual(parsed.stdout.splitlines(), ["3 1 0", "wirecheck.pingtest", "-test=pingtest",
                                                 "wirecheck.pingtest", "-test=pingtest -index=2:failure Failed "
                                                 "error=0x80160104 (the NIC asked for does not exist) status=Success",
                                                 "wirecheck.module", "-version"])


# Prints tests, failures, errors, then each case's class name and name (":failure" and its message on
# a failure).
JUNIT_READER = """
import sys
from junitparser import Failure, JUnitXml
xml = JUnitXml.fromfile(sys.argv[1])
suite = next(iter(xml))
print(suite.tests, suite.failures, suite.errors)
for case in suite:
    print(case.classname)
    failures = [r for r in case.result if isinstance(r, Failure)]
    print(case.name + "".join(":failure " + r.message for r in failures))
"""


class RunnerTest(unittest.TestCase):
    def test_a_prompt_nobody_can_answer_ends_the_run(self):
        with subprocess.Popen(RUNNER + UNPLUGGED, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True) as proc:
            lines = timed_lines(proc)
            err = proc.stderr.read()
        self.assertEqual(proc.returncode, 2)
        asked = [t for t, line in lines if line == WAITING]
        self.assertEqual(len(asked), 1, lines)
        self.assertIn("prompt 25", err)
        self.assertIn("--script", err)
        # The question reached the user while the VM ran, and the end came right after it.
        self.assertLess(lines[-1][0] - asked[0], 30)

    def test_a_key_typed_at_the_terminal_answers_the_prompt(self):
        pid, fd = pty.fork()
        if pid == 0:
            os.execv(RUNNER[0], RUNNER + UNPLUGGED)
        seen, answered, deadline = b"", 0, time.time() + 300
        while time.time() < deadline:
            ready, _, _ = select.select([fd], [], [], 1)
            if not ready:
                continue
            try:
                data = os.read(fd, 4096)
            except OSError:
                break  # the runner ended
            if not data:
                break
            seen += data
            if seen.count(WAITING.encode()) > answered:
                answered += 1
                os.write(fd, b"\n")  # Enter
        _, status = os.waitpid(pid, 0)
        os.close(fd)
        text = seen.decode(errors="replace").replace("\r", "")
        self.assertEqual(answered, 2, text)  # one prompt per attempt
        self.assertEqual(text.count("PROMPT answer=ok"), 2)
        self.assertIn("RESULT result=Failed error=0x80160107", text)
        self.assertEqual(os.WEXITSTATUS(status), 1)

    def test_several_calls_in_one_boot_arrive_live_and_in_order(self):
        with subprocess.Popen(RUNNER + ["--", "-test=pingtest", "-version"], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, text=True) as proc:
            lines = timed_lines(proc)
        self.assertEqual(proc.returncode, 0)
        results = [(t, line) for t, line in lines if line.startswith("RESULT ")]
        self.assertEqual([line for _, line in results], [PASSED] * 2)
        self.assertIn(f"Wirecheck Version {VERSION}", [line for _, line in lines])
        # Progress shows while the test runs: the first report seconds before the test's result.
        progress = [t for t, line in lines if line.startswith("PROGRESS ")]
        self.assertGreater(results[0][0] - progress[0], 1.0)
        # What the user saw is what the serial console carried, in the same order.
        with open(os.path.join(wcvm.LAST_DIR, "serial.log")) as f:
            serial = [line.strip() for line in f]
        position = 0
        for _, line in lines:
            position = serial.index(line.strip(), position) + 1

    def test_boot_image_runs_its_calls_without_a_shell(self):
        # The last call is refused, and its option string carries every character XML and JSON escape.
        tricky = "-test=nosuch a<b>&\"c'd\\"
        calls = ["-test=pingtest", "-version", "-test=pingtest -index=2", tricky]
        with tempfile.TemporaryDirectory() as work:
            image = os.path.join(work, "stick.img")
            made = subprocess.run(RUNNER + ["image", image, "--"] + calls, capture_output=True, text=True)
            self.assertEqual(made.returncode, 0, made.stderr)
            self.assertIn("dd if=", made.stdout)
            # A USB stick on an XHCI controller, as a technician's meets a real machine (test_front boots
            # a stick on a virtio disk, test_fleet one from the network).
            for usb in (True,):
                with self.subTest(usb_stick=usb):
                    run = wcvm.run_vm(wcvm.VmConfig(image=image, usb_stick=usb))
                    self.assertNotIn("startup.nsh", run.serial)
                    self.assertEqual([r[0] for r in run.results], ["Passed", "Passed", "Failed", "Failed"])
                    self.assertEqual(wcvm.read_image_results(image)[:3],
                                     ["RESULT result=Passed error=0x0 status=Success options='-test=pingtest' "
                                      'meaning="no error"',
                                      "RESULT result=Passed error=0x0 status=Success options='-version' "
                                      'meaning="no error"',
                                      "RESULT result=Failed error=0x80160104 status=Success "
                                      "options='-test=pingtest -index=2' meaning=\"the NIC asked for does not exist\""])
            # Beside results.txt, this boot's calls for CI systems: JSON and JUnit, one case per call.
            report = json.loads(wcvm.read_image_file(image, "results.json"))
            xml_path = os.path.join(work, "results.xml")
            with open(xml_path, "w") as f:
                f.write(wcvm.read_image_file(image, "results.xml"))
            parsed = subprocess.run(["/usr/bin/python3", "-c", JUNIT_READER, xml_path], capture_output=True,
                                    text=True, timeout=60)
        self.assertEqual([(c["options"], c["test"], c["result"], c["error"], c["meaning"]) for c in report["cases"]],
                         [("-test=pingtest", "pingtest", "Passed", "0x0", "no error"),
                          ("-version", "module", "Passed", "0x0", "no error"),
                          ("-test=pingtest -index=2", "pingtest", "Failed", "0x80160104",
                           "the NIC asked for does not exist"),
                          (tricky, "nosuch", "Failed", "0x80000002", "the option string was refused")])
        self.assertEqual((report["passed"], report["not_passed"]), (2, 2))
        self.assertIn("The NIC is not found!", report["cases"][2]["log"])
        self.assertNotIn("log", report["cases"][0])
        self.assertEqual(parsed.returncode, 0, parsed.stderr)
        self.assertEqual(parsed.stdout.splitlines(),
                         ["4 2 0", "wirecheck.pingtest", "-test=pingtest", "wirecheck.module", "-version",
                          "wirecheck.pingtest", "-test=pingtest -index=2:failure Failed error=0x80160104 "
                          "(the NIC asked for does not exist) status=Success",
                          "wirecheck.nosuch", tricky + ":failure Failed error=0x80000002 (the option string was "
                          "refused) status=Success"])

STATUS_LINE = re.compile(r"^(pingtest|SpeedTest) \[[#.]+\] +\d+% \d+ s left")


@unittest.skipUnless(shutil.which("tmux"), "tmux is missing (./wirecheck installs it)")
class WatchedRun(unittest.TestCase):
    """./wirecheck run in a tmux pane: at a terminal the progress reports redraw one status line and
    the terminal is left as it was; in a pipe each report is a line of its own."""

    def run_in_pane(self, command):
        # A tmux server of this run's own (a server just told to stop may still hold its socket): the
        # user's sessions are never touched.
        tmux = ["tmux", "-L", f"wirecheck-test-{os.getpid()}-{time.monotonic_ns()}"]
        env = {k: v for k, v in os.environ.items() if k != "TMUX"}
        with tempfile.TemporaryDirectory() as work:
            before, after = os.path.join(work, "before"), os.path.join(work, "after")
            script = (f"cd {shlex.quote(ROOT)}; stty -g > {before}; {command}; rc=$?; stty -g > {after}; "
                      f"echo FINISHED-$rc; sleep 600")
            subprocess.run(tmux + ["new-session", "-d", "-x", "120", "-y", "50", script], check=True, env=env)
            panes, deadline = [], time.time() + 300
            try:
                while time.time() < deadline:
                    pane = subprocess.run(tmux + ["capture-pane", "-p", "-J"], capture_output=True, text=True,
                                          env=env).stdout
                    panes.append([line.rstrip() for line in pane.splitlines() if line.strip()])
                    if "FINISHED-" in pane:
                        break
                    time.sleep(0.1)
            finally:
                subprocess.run(tmux + ["kill-server"], capture_output=True, env=env)
            with open(before) as f, open(after) as g:
                same_terminal = f.read() == g.read()
        return panes, same_terminal

    def test_a_terminal_sees_one_redrawn_status_line_and_a_pipe_plain_lines(self):
        panes, same_terminal = self.run_in_pane("./wirecheck run -- -test=pingtest -test=SpeedTest")
        final = panes[-1]
        self.assertIn("FINISHED-0", final)
        self.assertEqual(final.count(PASSED), 2, final)
        self.assertTrue(same_terminal)
        statuses = [sum(bool(STATUS_LINE.match(line)) for line in pane) for pane in panes]
        self.assertEqual(max(statuses), 1, "no status line, or more than one at once")
        self.assertFalse(any(line.startswith("PROGRESS [") for pane in panes for line in pane))
        self.assertFalse(any(STATUS_LINE.match(line) for line in final))  # cleared at the end

        panes, _ = self.run_in_pane("./wirecheck run -test=pingtest | cat")
        final = panes[-1]
        self.assertIn("FINISHED-0", final)
        self.assertGreaterEqual(sum(line.startswith("PROGRESS [") for line in final), 2, final)
        self.assertFalse(any(STATUS_LINE.match(line) for pane in panes for line in pane))


if __name__ == "__main__":
    unittest.main()
