"""What is in the packages and in a plain installation, and who may write to it."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

PACKAGES = os.environ["QUILLSIFT_PACKAGES"]
BUILD = os.environ["QUILLSIFT_BUILD"]
HOST_NEEDS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tools/HostNeeds.cpp")
# On every system there is.
ESSENTIAL = {"coreutils", "findutils", "tar", "util-linux"}
TREE = "libexec/quillsift/platform"


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          **options)


class FilesTest(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.mkdtemp(prefix="quillsift-files-")
        self.addCleanup(shutil.rmtree, self.scratch)
        os.chmod(self.scratch, 0o755)

    def package(self, name):
        found = [file for file in os.listdir(PACKAGES) if file.startswith(name + "_")]
        self.assertEqual(len(found), 1, found)
        return os.path.join(PACKAGES, found[0])

    def modes(self, directory):
        """Mode by path of all but links."""
        found = {}
        for parent, directories, files in os.walk(directory):
            for name in directories + files:
                path = os.path.join(parent, name)
                if not os.path.islink(path):
                    found[os.path.relpath(path, directory)] = oct(os.stat(path).st_mode & 0o7777)
        return found

    def test_nobody_but_the_owner_can_write_to_an_installation_whatever_the_umask(self):
        for mask, of_directories in ((0o022, "0o755"), (0o002, "0o755"), (0, "0o755"),
                                     (0o077, "0o700")):
            prefix = os.path.join(self.scratch, "%03o" % mask, "deep", "prefix")
            installed = run("cmake", "--install", BUILD, "--prefix", prefix, umask=mask)
            self.assertEqual(installed.returncode, 0, installed.stderr)
            modes = self.modes(os.path.join(self.scratch, "%03o" % mask))
            self.assertEqual(modes["deep/prefix/libexec/quillsift"], of_directories)
            self.assertEqual(modes["deep/prefix/" + TREE], "0o755")
            self.assertEqual(modes["deep/prefix/libexec/quillsiftd"], "0o755")
            self.assertLessEqual(set(modes.values()), {"0o755", "0o644", of_directories})

    def test_the_packages_have_one_mode_for_programs_and_one_for_files(self):
        # They were made with a mask that would keep everybody else out.
        for name in ("quillsiftd", "quillsift-platform"):
            root = os.path.join(self.scratch, name)
            unpacked = run("dpkg-deb", "--extract", self.package(name), root, umask=0)
            self.assertEqual(unpacked.returncode, 0, unpacked.stderr)
            self.assertEqual(set(self.modes(root).values()), {"0o755", "0o644"})

    def test_the_unit_names_the_place_of_this_installation(self):
        prefix = os.path.join(self.scratch, "here")
        installed = run("cmake", "--install", BUILD, "--prefix", prefix)
        self.assertEqual(installed.returncode, 0, installed.stderr)
        with open(os.path.join(prefix, "lib/systemd/system/quillsiftd.service")) as unit:
            self.assertIn("\nExecStart=%s/libexec/quillsiftd\n" % prefix, unit.read())

    def test_the_checker_of_packages_has_nothing_to_say(self):
        command = ["lintian", "--no-cfg", "--fail-on", "error,warning",
                   self.package("quillsiftd"), self.package("quillsift-platform")]
        if os.geteuid() == 0:
            command.insert(1, "--allow-root")
        checked = run(*command)
        self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)

    def test_libraries_that_are_needed_are_depended_on(self):
        depends = run("dpkg-deb", "--field", self.package("quillsiftd"), "Depends").stdout
        for library in ("libarchive13", "libblkid1", "libc6", "libsystemd0"):
            self.assertIn(library, depends)
        depends = run("dpkg-deb", "--field", self.package("quillsift-platform"), "Depends").stdout
        self.assertIn("libxcb1", depends)

    def test_every_tool_that_is_asked_is_in_a_package_that_is_named(self):
        with open(HOST_NEEDS) as table:
            needed = set(re.findall(r'^    \{[^}]*"([^"]+)"\},$', table.read(), re.MULTILINE))
        self.assertGreater(len(needed), 15)
        platform = self.package("quillsift-platform")
        named = {name for field in ("Recommends", "Suggests") for name in
                 run("dpkg-deb", "--field", platform, field).stdout.strip().split(", ")}
        self.assertEqual(needed - named - ESSENTIAL, set())


if __name__ == "__main__":
    unittest.main()
