"""The command-line host and the recording mail client under Wine: what the host was told is what the client gets."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

COMMAND = sys.argv[1:3]
del sys.argv[1:3]


class CommandLineHost(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.copies = self.folder / "copies"
        self.copies.mkdir()
        self.contents = {"order.csv": b"a;b\r\n1;2\n", "picture.png": os.urandom(100_000)}
        for name, content in self.contents.items():
            (self.folder / name).write_bytes(content)
        (self.folder / "letter.txt").write_bytes(b"Gr\xfc\xdfe\n")

    def windows_name(self, path):
        return "Z:" + str(path).replace("/", "\\")

    def send(self, client, *arguments):
        environment = {k: v for k, v in os.environ.items() if k not in ("DISPLAY", "WAYLAND_DISPLAY")}
        environment["WINEDLLOVERRIDES"] = "mapi32=" + client
        environment["VELMAIL_RECORDER_FILE"] = self.windows_name(self.copies / "record")
        environment["VEL_MAILTRACE"] = "host.log"
        fixed = ["MailProtocol=MAPI", "MailRecipientsMailBox=bob@host.example", "MailRecipientsFullName=Bob",
                 "MailSubject=Offer", "MailTextFilename=letter.txt", "MailAttachmentFilename=order.csv;picture.png"]
        return subprocess.run([*COMMAND, *fixed, *arguments], cwd=self.folder, env=environment, capture_output=True, text=True)

    def check_that_nothing_stays(self):
        trace = (self.folder / "host.log").read_text("latin-1")
        paths = re.findall(r"is handed over as file '([^']*)'", trace)
        prefix = pathlib.Path(os.environ.get("WINEPREFIX", os.path.dirname(os.path.dirname(COMMAND[1])) + "/wine"))
        for path in paths:
            unix = prefix / "drive_c" / path[3:].replace("\\", "/")
            self.assertTrue(unix.parent.parent.is_dir(), unix)
            self.assertFalse(unix.parent.exists(), unix)
        return paths

    def test_files_and_memory_reach_the_client_to_the_byte(self):
        for arguments in ([], ["MailAttachmentMemoryAddress=@order.csv", "MailAttachmentMemoryAddress=@picture.png"]):
            result = self.send("n", *arguments)
            self.assertEqual(result.returncode, 0, result)
            files = self.check_that_nothing_stays() or [self.windows_name(self.folder / name) for name in self.contents]
            self.assertEqual((self.copies / "record").read_bytes().decode("latin-1").split("\n"), [
                "MAPILogon, flags 0: 0", "MAPISendMail, session 4711, flags 0: 0", "  subject: Offer",
                "  to: Bob <bob@host.example>", *("  file: " + name for name in files), "  text: Gr\xfc\xdfe\r", "", ""])
            for name, content in self.contents.items():
                self.assertEqual((self.copies / name).read_bytes(), content)
                (self.copies / name).unlink()
            (self.copies / "record").unlink()

    def test_the_systems_own_library_without_a_client(self):
        """It may well report success with nobody behind it; the host ends in any case, and nothing stays."""
        result = self.send("b", "MailAttachmentMemoryAddress=@order.csv", "MailAttachmentMemoryAddress=@picture.png")
        trace = (self.folder / "host.log").read_text("latin-1")
        returned = int(re.search(r"SendMail returns (\d+)", trace)[1])
        self.assertEqual(result.returncode, 0 if returned <= 1 else 1, result)
        if returned > 1:
            self.assertRegex(result.stderr, r"error (%d|659): " % (150 + returned))
        self.assertEqual(len(self.check_that_nothing_stays()), 2)
        self.assertEqual(list(self.copies.iterdir()), [], "this was the recorder")


if __name__ == "__main__":
    unittest.main()
