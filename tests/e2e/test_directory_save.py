"""Sessions saved as directories, and log files that change between capture and save."""

import grp
import os
import shutil
import stat
import unittest

from harness import Daemon, DaemonTest, PROGRAMS, members, root_only, run, wait_until
from volumes import Loop, NoLoopDevices, enter_namespace

# So that no mount outlives the test; what needs none runs without, too.
enter_namespace()

REPORTS = "/Library/Logs/DiagnosticReports/"


class DirectoryTest(DaemonTest):
    def take(self):
        self.assertEqual(self.daemon.client("start").returncode, 0)
        self.assertEqual(self.daemon.client("watch").returncode, 0)

    def save(self, path, *arguments, expect=0):
        result = self.daemon.client("save", "--directory", path, *arguments)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        return result

    def save_behind_the_client(self, path):
        """The client refuses directories that hold something; the daemon does not."""
        self.daemon.save_by_name(path, archive=False)

    def assert_session_kept(self):
        good = self.output("kept.tgz")
        result = self.daemon.client("save", good)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn("lsof.txt", [name for name, data, info in members(good)])

    def tree(self, root):
        """Every file below, by its relative path, as bytes."""
        found = {}
        for directory, _, names in os.walk(root):
            for name in names:
                path = os.path.join(directory, name)
                with open(path, "rb") as file:
                    found[os.path.relpath(path, root)] = file.read()
        return found


class TreeTest(DirectoryTest):
    def test_it_holds_what_an_archive_of_the_same_plan_holds(self):
        archive = self.collect("a.tgz")
        self.take()
        self.save(self.output("d"))
        archived = {name.lstrip("/"): data for name, data, info in members(archive)}
        saved = self.tree(self.output("d"))
        self.assertEqual(sorted(saved), sorted(archived))
        self.assertEqual(saved["drreg/DrUSB.txt"], archived["drreg/DrUSB.txt"])
        for directory, _, _ in os.walk(self.output("d")):
            self.assertEqual(stat.S_IMODE(os.lstat(directory).st_mode), 0o777, directory)

    def test_collect_saves_a_directory_too_and_clears_the_session(self):
        self.collect("d", "--directory")
        self.assertIn("lsof.txt", self.tree(self.output("d")))
        wait_until(lambda: self.daemon.json("status")[1][-1]["session"] == "none",
                   "the session is cleared")

    def test_the_default_name_is_that_of_an_archive_without_its_extension(self):
        self.take()
        result = self.daemon.client("save", "--directory", cwd=self.directory)
        self.assertEqual(result.returncode, 0, result.stderr)
        (name,) = os.listdir(self.directory)
        self.assertRegex(name, r"^quillsift_.*_Lumina14-2_25A123$")
        self.assertIn("lsof.txt", self.tree(self.output(name)))

    def test_progress_goes_from_nothing_to_all(self):
        self.take()
        result, lines = self.daemon.json("save", "--directory", self.output("d"))
        self.assertEqual(result.returncode, 0)
        progress = [line["progress"] for line in lines if line["event"] == "saveProgress"]
        self.assertEqual(progress, sorted(progress))
        self.assertEqual(progress[-1], 1.0)
        self.assertEqual({line["path"] for line in lines if line["event"] == "saveProgress"},
                         {self.output("d")})

    def test_sensitive_results_are_left_out_on_demand(self):
        self.take()
        self.save(self.output("d"), "--without-sensitive")
        saved = self.tree(self.output("d"))
        self.assertIn("lsof.txt", saved)
        self.assertNotIn("drreg/DrUSB.txt", saved)

    def test_an_existing_directory_keeps_what_it_held(self):
        os.mkdir(self.output("d"), 0o750)
        with open(self.output("d/mine"), "w") as file:
            file.write("kept")
        with open(self.output("d/lsof.txt"), "w") as file:
            file.write("x" * 1000000)
        self.take()
        self.save(self.output("d"), expect=1)  # the client takes care
        self.save_behind_the_client(self.output("d"))
        self.daemon.client("clear")  # waits for the save
        saved = self.tree(self.output("d"))
        self.assertEqual(saved["mine"], b"kept")
        self.assertLess(len(saved["lsof.txt"]), 1000)
        self.assertEqual(stat.S_IMODE(os.lstat(self.output("d")).st_mode), 0o750)


class AttributesTest(DirectoryTest):
    def prepare(self):
        self.installation.put(REPORTS + "plain.crash", "plain", 0o640)
        self.installation.put(REPORTS + "special.crash", "special", 0o4751)
        self.plain = self.installation.in_tree(REPORTS + "plain.crash")
        self.special = self.installation.in_tree(REPORTS + "special.crash")
        if os.geteuid() == 0:
            os.chown(self.plain, 1234, 4321)
            os.chown(self.special, 501, 80)
            os.chmod(self.special, 0o4751)
        try:
            os.setxattr(self.special, "user.note", b"a\0b")
            os.setxattr(self.special, "user.empty", b"")
        except OSError as error:
            self.skipTest("no extended attributes: %s" % error)

    def attributes(self, path):
        status = os.lstat(path)
        return (stat.S_IFMT(status.st_mode), stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid,
                {name: os.getxattr(path, name) for name in os.listxattr(path)})

    def test_copied_files_have_all_attributes_of_their_sources(self):
        self.take()
        self.save(self.output("d"))
        for name, source in ("plain.crash", self.plain), ("special.crash", self.special):
            self.assertEqual(self.attributes(self.output("d/CrashesSpinsDiags/" + name)),
                             self.attributes(source))

    @root_only
    def test_results_of_programs_belong_to_root_and_everyone(self):
        try:
            everyone = grp.getgrnam("everyone").gr_gid
        except KeyError:
            everyone = 0
        self.take()
        self.save(self.output("d"))
        self.assertEqual(self.attributes(self.output("d/lsof.txt"))[:4],
                         (stat.S_IFREG, 0o644, 0, everyone))


class FailureTest(DirectoryTest):
    def save_and_fail(self, path):
        result, lines = self.daemon.json("save", "--directory", path)
        self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
        return lines

    def fail_behind_the_client(self, path):
        self.save_behind_the_client(path)
        self.assert_session_kept()  # after the failure
        self.assertFalse(os.path.exists(path))

    def mount(self, where, options):
        os.makedirs(where, exist_ok=True)
        mounted = run(["mount", "-t", "tmpfs", "-o", options, "none", where])
        if mounted.returncode != 0:
            self.skipTest("cannot mount: " + mounted.stderr)
        self.addCleanup(run, ["umount", "--lazy", where])

    @root_only
    def test_a_full_disk_leaves_nothing(self):
        self.mount(self.output("small"), "size=64k")
        self.installation.script("/bin/df", "head -c 3000000 /dev/urandom\n")
        self.take()
        self.save_and_fail(self.output("small/d"))
        self.assertEqual(os.listdir(self.output("small")), [])
        self.assert_session_kept()

    @root_only
    def test_a_read_only_disk_is_told(self):
        self.mount(self.output("fixed"), "ro")
        self.take()
        self.save_and_fail(self.output("fixed/d"))
        self.assert_session_kept()

    @root_only
    def test_a_read_only_directory_keeps_what_it_holds(self):
        self.mount(self.output("fixed"), "size=64k")
        with open(self.output("fixed/mine"), "w") as file:
            file.write("kept")
        remounted = run(["mount", "-o", "remount,ro", self.output("fixed")])
        self.assertEqual(remounted.returncode, 0, remounted.stderr)
        self.take()
        self.save_behind_the_client(self.output("fixed"))
        self.assert_session_kept()
        self.assertEqual(self.tree(self.output("fixed")), {"mine": b"kept"})

    def test_an_existing_directory_goes_with_all_it_held(self):
        os.makedirs(self.output("d/lsof.txt/in the way"))
        os.makedirs(self.output("outside"))
        for name in "d/mine", "outside/kept":
            with open(self.output(name), "w") as file:
                file.write("x")
        os.symlink(self.output("outside"), self.output("d/link"))
        self.take()
        self.fail_behind_the_client(self.output("d"))
        self.assertEqual(os.listdir(self.output("outside")), ["kept"])

    def test_a_link_inside_leads_no_result_out(self):
        os.makedirs(self.output("outside"))
        os.makedirs(self.output("d"))
        os.symlink(self.output("outside"), self.output("d/drreg"))
        self.take()
        self.fail_behind_the_client(self.output("d"))
        self.assertEqual(os.listdir(self.output("outside")), [])

    def test_a_pipe_in_the_way_holds_nobody_up(self):
        os.makedirs(self.output("d"))
        os.mkfifo(self.output("d/lsof.txt"))
        self.take()
        self.fail_behind_the_client(self.output("d"))

    def test_a_file_is_no_destination(self):
        with open(self.output("file"), "w") as file:
            file.write("kept")
        self.take()
        self.save_behind_the_client(self.output("file"))
        self.save_behind_the_client(self.output("file/d"))
        self.assert_session_kept()
        with open(self.output("file")) as file:
            self.assertEqual(file.read(), "kept")

    @root_only
    def test_the_root_directory_is_never_removed(self):
        root = self.output("root")
        os.makedirs(root + "/lsof.txt/in the way")  # where a result goes, so that the save fails
        os.mkdir(root + "/tmp")
        self.daemon.stop()
        os.unlink(self.daemon.socket_path)
        self.daemon = self.daemon_in_root(root)
        self.take()
        self.save_behind_the_client("/")
        self.daemon.save_by_name("/tmp/kept.tgz")
        self.daemon.client("clear")
        self.assertIn("lsof.txt", [name for name, data, info in members(root + "/tmp/kept.tgz")])
        self.assertTrue(os.path.isdir(root + "/lsof.txt/in the way"))

    def daemon_in_root(self, root):
        """In a root directory of its own, where whatever it needs of the host is read-only."""
        steps = ["set -e"]
        tests = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))  # what a sanitizer reads
        for needed in "/usr", "/proc", PROGRAMS, self.installation.prefix, tests:
            steps += ["mkdir -p '%s%s'" % (root, needed),
                      "mount -o bind,ro '%s' '%s%s'" % (needed, root, needed)]
        for link in "bin", "lib", "lib64":
            os.symlink("usr/" + link, os.path.join(root, link))
        program = self.installation.path("libexec/quillsiftd")
        steps.append("exec chroot '%s' '%s'" % (root, program))
        return Daemon(self.installation, command=[
            shutil.which("unshare"), "-m", "--propagation", "private", "/bin/sh", "-c",
            "; ".join(steps)])

    def test_a_daemon_killed_during_a_save_starts_again(self):
        for number in range(3000):
            self.installation.put(REPORTS + "%04d.crash" % number, "x" * 20000)
        self.take()
        self.save_behind_the_client(self.output("d"))
        wait_until(lambda: os.path.isdir(self.output("d/CrashesSpinsDiags")), "the save has begun")
        self.daemon.process.kill()
        self.daemon.process.wait()
        os.unlink(self.daemon.socket_path)
        self.daemon = Daemon(self.installation)
        self.take()
        self.save_behind_the_client(self.output("d"))  # over what is left of the first
        self.daemon.client("clear")
        reports = self.tree(self.output("d/CrashesSpinsDiags"))
        self.assertEqual(len(reports), 3000)
        self.assertEqual({len(data) for data in reports.values()}, {20000})


class ManyTest(DirectoryTest):
    def prepare(self):
        for number in range(10000):
            self.installation.put(REPORTS + "report-%05d.crash" % number, "report %d\n" % number)

    def test_ten_thousand_results(self):
        self.take()
        self.save(self.output("d"))
        reports = self.tree(self.output("d/CrashesSpinsDiags"))
        self.assertEqual(len(reports), 10000)
        self.assertEqual(reports["report-00042.crash"], b"report 42\n")


class ChangingLogsTest(DirectoryTest):
    LOG = b"".join(b"line %08d of the log\n" % number for number in range(100000))

    def prepare(self):
        for name in "cut", "emptied", "replaced", "removed", "grown":
            self.installation.put(REPORTS + name + ".crash", self.LOG)

    def log(self, name):
        return self.installation.in_tree(REPORTS + name + ".crash")

    def change_after_capture(self):
        self.take()
        os.truncate(self.log("cut"), 1234567)
        os.truncate(self.log("emptied"), 0)
        with open(self.log("replaced") + ".new", "wb") as file:
            file.write(b"short")
        os.rename(self.log("replaced") + ".new", self.log("replaced"))
        os.unlink(self.log("removed"))
        with open(self.log("grown"), "ab") as file:
            file.write(self.LOG)

    def assert_recorded(self, saved):
        length = len(self.LOG)
        self.assertEqual(saved["cut.crash"], self.LOG[:1234567] + bytes(length - 1234567))
        self.assertEqual(saved["emptied.crash"], bytes(length))
        for name in "replaced", "removed", "grown":
            self.assertEqual(saved[name + ".crash"], self.LOG, name)

    def test_an_archive_has_the_recorded_lengths(self):
        self.change_after_capture()
        path = self.output("a.tgz")
        self.assertEqual(self.daemon.client("save", path).returncode, 0)
        self.assert_recorded({os.path.basename(name): data for name, data, info in members(path)})

    def test_a_directory_has_the_recorded_lengths(self):
        self.change_after_capture()
        self.save(self.output("d"))
        self.assert_recorded(self.tree(self.output("d/CrashesSpinsDiags")))

    @root_only
    def test_a_disk_that_dies_leaves_zeros_and_the_daemon_alive(self):
        image, disk = self.output("image"), self.output("disk")
        os.mkdir(disk)
        with open(image, "wb") as file:
            file.truncate(32 << 20)
        made = run(["mkfs.ext4", "-q", "-F", image])
        self.assertEqual(made.returncode, 0, made.stderr)
        try:
            loop = Loop(image)
        except NoLoopDevices as reason:
            self.skipTest(str(reason))
        self.addCleanup(loop.release)
        mounted = run(["mount", loop.path, disk])
        if mounted.returncode != 0:
            self.skipTest("cannot mount: " + mounted.stderr)
        with open(disk + "/log", "wb") as file:
            file.write(self.LOG)
        # Mounted anew, so that the disk is asked for every page.
        for command in ["umount", disk], ["mount", "-o", "ro", loop.path, disk]:
            result = run(command)
            self.assertEqual(result.returncode, 0, result.stderr)
        os.unlink(self.log("cut"))
        os.symlink(disk + "/log", self.log("cut"))
        self.take()
        os.truncate(image, 1 << 20)
        self.save(self.output("d"))
        saved = self.tree(self.output("d/CrashesSpinsDiags"))["cut.crash"]
        self.assertEqual(len(saved), len(self.LOG))
        self.assertIn(bytes(4096), saved)


if __name__ == "__main__":
    unittest.main()
