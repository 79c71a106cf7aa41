"""A session with the real tools on a system as bare as an initial RAM disk: nothing can be written
but below /run, there is no device database, no service manager, no system log and hardly a device."""

import os
import tempfile
import unittest

from harness import PLAN_PROGRAMS, DaemonTest, members, run
from volumes import enter_namespace

WHY_NOT = enter_namespace()

# What any Linux can tell, and a word of it.
FACTS = {"stallscope.txt": b"10 rounds", "ps.txt": b"quillsiftd", "ps_thread.txt": b"quillsiftd",
         "relquery.txt": b"Kernel:", "platterctl_list.txt": b"lsblk", "df_disks.txt": b"/run",
         "bootmark_info.txt": b"kernel command line", "sysctl.txt": b"kernel.ostype = Linux",
         "guardctl.log": b"kernel settings", "/drreg/DrService.txt": b"/sys/devices",
         "/drreg/DrReg.xml": b"</plist>\n"}


@unittest.skipIf(WHY_NOT, WHY_NOT)
class BareSystemTest(DaemonTest):
    def setUp(self):
        tempfile.tempdir = "/run"
        super().setUp()

    def prepare(self):
        for path in PLAN_PROGRAMS:
            if not path.endswith("/paneinfo"):
                self.installation.real_tool(path)
        # Of this namespace only.
        result = run(["mount", "-o", "remount,bind,ro", "/"])
        self.assertEqual(result.returncode, 0, result.stderr)
        with self.assertRaises(OSError):
            open("/quillsift-test", "w")
        self.assertFalse(os.path.exists("/dev/log"))
        self.assertFalse(os.path.exists("/run/udev"))
        self.assertFalse(os.path.exists("/run/systemd"))

    def test_still_gives_an_archive_of_facts(self):
        archive = {name: data for name, data, info in members(self.collect())}
        for name, fact in FACTS.items():
            with self.subTest(name):
                self.assertIn(fact, archive.get(name, b""))
        for name, data in archive.items():
            self.assertNotIn(b"Read-only file system", data, name)

    def test_says_that_nothing_can_be_saved_where_nothing_can_be_written(self):
        result = self.daemon.client("collect", "/saved.tgz")
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("could not save to /saved.tgz", result.stderr)
        # What was collected is still there to be saved elsewhere.
        result = self.daemon.client("save", self.output("saved.tgz"))
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
