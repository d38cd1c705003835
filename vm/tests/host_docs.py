"""The guides as a reader uses them: every `./wirecheck` command line in the README and in docs/ names
a command that exists and only options that command takes; every guide is linked from the README
and opens with what its reader does first; `./wirecheck help` points to the guides."""
import glob
import os
import re
import subprocess
import sys
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
sys.path.insert(0, os.path.join(ROOT, "vm"))
from wcvm.cli import image_parser, option_names, run_parser  # noqa: E402
from wcvm.fleetcmd import parser as fleet_parser  # noqa: E402

FIRMWARE_OPTIONS = {"--firmware", "--arch", "--ipxe", "--no-rng"}
OPTIONS = {
    "build": set(),
    "run": option_names(run_parser()) | {"--help"},
    "image": option_names(image_parser()) | option_names(run_parser()),
    "fleet": option_names(fleet_parser()) | FIRMWARE_OPTIONS,
    "matrix": {"--jobs", "--junit"} | FIRMWARE_OPTIONS,
    "faults": {"--junit"} | FIRMWARE_OPTIONS,
    "test": {"--unit", "--vm", "--fuzz"},
    "bench": set(),
    "fuzz": set(),
    "help": set(),
}
GUIDES = ["firmware-engineers", "technicians", "fleets", "troubleshooting", "architecture", "manager"]


def documents():
    return [os.path.join(ROOT, "README.md")] + sorted(glob.glob(os.path.join(ROOT, "docs", "*.md")))


def command_lines(text):
    """Each `./wirecheck ...` as a reader would type it: to the end of its code span or line, without
    a shell comment. A code span wrapped over two lines is one line."""
    text = re.sub(r"`([^`]*)`", lambda m: "`" + re.sub(r"\s*\n\s*", " ", m.group(1)) + "`", text)
    for m in re.finditer(r"\./wirecheck(?:[ \t]+([^`\n]*))?", text):
        words = (m.group(1) or "").split(" #")[0].split()
        yield m.group(0), words


class CommandLines(unittest.TestCase):
    def test_every_command_line_names_a_command_and_options_that_exist(self):
        seen = 0
        for path in documents():
            with open(path) as f:
                text = f.read()
            for line, words in command_lines(text):
                if not words:
                    continue
                seen += 1
                with self.subTest(document=os.path.relpath(path, ROOT), line=line):
                    command = words[0]
                    self.assertIn(command, OPTIONS, "no such command")
                    # Options are the words that begin with "--" (option strings use one dash),
                    # as written or inside a synopsis's brackets and alternatives.
                    given = {o.split("=")[0] for w in words[1:] for o in re.findall(r"--[a-z][a-z0-9-]*[=]?", w)}
                    self.assertEqual(given - OPTIONS[command], set(), f"{command} takes no such option")
        self.assertGreater(seen, 30)

    def test_a_concrete_run_line_parses(self):
        from wcvm.cli import split_arguments
        for path in documents():
            with open(path) as f:
                text = f.read()
            for line, words in command_lines(text):
                if len(words) < 2 or words[0] != "run" or any(c in " ".join(words) for c in "[]|."):
                    continue
                with self.subTest(line=line):
                    vm_args, calls = split_arguments(words[1:], run_parser())
                    run_parser().parse_args(vm_args)


class Guides(unittest.TestCase):
    def test_the_readme_links_every_guide_and_each_opens_with_its_first_steps(self):
        with open(os.path.join(ROOT, "README.md")) as f:
            readme = f.read()
        self.assertLessEqual(len(readme.splitlines()), 150)
        for name in GUIDES:
            with self.subTest(guide=name):
                self.assertIn(f"(docs/{name}.md)", readme)
                with open(os.path.join(ROOT, "docs", f"{name}.md")) as f:
                    opening = f.read().split("\n## ")[0]
                self.assertIn("What you do first:", opening)
                steps = re.findall(r"^\d\. ", opening, re.M)
                self.assertTrue(3 <= len(steps) <= 5, f"{len(steps)} first steps")

    def test_links_between_the_guides_lead_somewhere(self):
        for path in documents():
            with open(path) as f:
                text = f.read()
            for target, anchor in re.findall(r"\]\(((?:docs/)?[a-z-]+\.md)(?:#([a-z0-9-]+))?\)", text):
                with self.subTest(document=os.path.basename(path), link=f"{target}#{anchor}"):
                    folder = os.path.dirname(path)
                    linked = os.path.join(folder, target) if not target.startswith("docs/") else \
                        os.path.join(ROOT, target)
                    self.assertTrue(os.path.exists(linked))
                    if anchor:
                        with open(linked) as f:
                            headings = [re.sub(r"[^a-z0-9 -]", "", h.lower()).replace(" ", "-")
                                        for h in re.findall(r"^#+ (.*)$", f.read(), re.M)]
                        self.assertIn(anchor, headings)

    def test_help_points_to_the_guides(self):
        done = subprocess.run([os.path.join(ROOT, "wirecheck"), "help"], capture_output=True, text=True)
        self.assertIn("docs/", done.stdout)


if __name__ == "__main__":
    unittest.main()
