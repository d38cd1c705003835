"""File access, the debug log and platform identity in OVMF."""
import os
import unittest

from vmtest import PASSED, boot, call_blocks, expected

STAMP = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  "


def read(run, *parts):
    path = os.path.join(run.files_dir, *parts)
    if not os.path.exists(path):
        return None
    with open(path, "rb") as f:
        return f.read()


class FilesAndIdentity(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        note = os.path.join(os.path.dirname(os.path.abspath(__file__)), "vmtest.py")
        cls.note = note
        cls.run_ = boot(["-catalog=fs0:\\cat.xml", "-catalog=here.xml", "-test=detectcable"],
                        smbios=["1,family=1a00_qemuvm-lab", "2,product=Q35BOARD"], cwd="\\work",
                        files=[(note, "data\\deep\\note.txt")])

    def test_debug_log_beside_the_module_has_identity_lines(self):
        log = read(self.run_, "Debug.log").decode("latin-1")
        self.assertRegex(log, STAMP + r"System ID: Q35B\r\n")
        # The family string is upper-cased and matched by its key's prefix.
        self.assertRegex(log, STAMP + r"Platform family id 1\r\n")
        for line in log.split("\r\n")[:-1]:
            self.assertRegex(line, "^" + STAMP)

    def test_extra_files_reach_the_disk(self):
        with open(self.note, "rb") as f:
            self.assertEqual(read(self.run_, "data", "deep", "note.txt"), f.read())

    def test_catalog_file_is_ucs2_without_byte_order_mark(self):
        data = read(self.run_, "cat.xml")
        self.assertNotEqual(data[:2], b"\xff\xfe")
        want = expected("catalog.xml").replace("\n", "\r\n")
        self.assertEqual(data.decode("utf-16-le"), want[:-2])  # the file has no final line end

    def test_relative_catalog_path_follows_the_shell_directory(self):
        # \work is the shell's current directory.
        self.assertEqual(read(self.run_, "work", "here.xml"), read(self.run_, "cat.xml"))
        blocks = dict(call_blocks(self.run_))
        self.assertIn(PASSED, blocks["-catalog=here.xml"])


class MessageFileAndLogPath(unittest.TestCase):
    """One boot in French with the log path variable set, one in a language the file lacks."""

    def test_messages_in_french_and_the_log_path_variable(self):
        french = boot(["-version"], language="fra", messages=[100, 25],
                      variables=[("DEBUGLOGPATH", "59D1C24F-50F1-401A-B101-F33E0DAED443", "fs0:\\logs\\run.log")],
                      shell_before=["mkdir fs0:\\logs"])
        self.assertIn("MESSAGE lang=fra id=100 text=Sélectionnez la carte réseau à tester", french.output)
        self.assertIn("MESSAGE lang=fra id=25 text=Branchez un câble réseau", french.output)
        log = read(french, "logs", "run.log").decode("latin-1")
        self.assertNotIn("System ID", log)  # QEMU has no baseboard structure by default
        self.assertRegex(log, STAMP + r"Unsupported SMBIOS Family string: \r\n")
        self.assertIsNone(read(french, "Debug.log"))

    def test_english_for_a_missing_language(self):
        italian = boot(["-version"], language="ita", messages=[100])
        self.assertIn("MESSAGE lang=ita id=100 text=Select the network adapter to test", italian.output)


if __name__ == "__main__":
    unittest.main()
