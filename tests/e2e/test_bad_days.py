"""What must not go wrong when everything else does."""

import os
import signal
import subprocess
import unittest

from harness import DaemonTest, Daemon, LIMIT, members, root_only, run, wait_until
from volumes import enter_namespace

# So that no mount outlives the test; what needs none runs without, too.
enter_namespace()


class ChildrenTest(DaemonTest):
    def test_each_kind_of_failure_is_told_apart_and_output_is_kept(self):
        self.installation.script("/usr/bin/relquery", "echo half; exit 3\n")
        self.installation.script("/bin/df", "echo dying; kill -SEGV $$\n")
        os.unlink(self.installation.in_tree("/usr/sbin/modtally"))
        self.installation.absent("/usr/sbin/modtally")
        self.installation.script("/bin/svcherd", "cat /dev/zero | head -c 50000000\n")
        # The one in the background goes on once the other has ended, and with it its end of the pipe.
        pipe = self.installation.path("pipe")
        os.mkfifo(pipe)
        self.installation.script("/usr/bin/guardctl", "(read line <'%s'; echo late) &\n"
                                 "exec 9>'%s'\necho early\n" % (pipe, pipe))
        archive = self.collect(expect=0)
        saved = {name: data for name, data, info in members(archive)}
        self.assertEqual(saved["relquery.txt"], b"half\n")
        self.assertEqual(saved["df_disks.txt"], b"dying\n")
        self.assertNotIn("modtally.txt", saved)
        self.assertEqual(len(saved["svcherd_list.txt"]), 50000000)
        # Whoever holds the output open belongs to the job.
        self.assertEqual(saved["guardctl.log"], b"early\nlate\n")

    def test_the_summary_names_each_failed_job(self):
        self.installation.script("/usr/bin/relquery", "exit 3\n")
        os.unlink(self.installation.in_tree("/usr/sbin/modtally"))
        self.installation.put("/usr/sbin/modtally", "not a program", 0o644)
        result = self.daemon.client("collect", self.output("a.tgz"))
        self.assertEqual(result.returncode, 0)
        self.assertRegex(result.stdout, r"relquery\.txt.*Exited with Code:3")
        self.assertRegex(result.stdout, r"modtally\.txt.*Permission denied")


class DestinationTest(DaemonTest):
    def save(self, path, expect=1, collect=True):
        if collect:
            self.daemon.client("start")
            self.daemon.client("watch")
        result = self.daemon.client("save", path)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        return result

    def assert_session_kept(self):
        good = self.output("kept.tgz")
        self.save(good, expect=0, collect=False)
        self.assertIn("lsof.txt", [name for name, data, info in members(good)])

    def test_a_missing_directory_fails_and_the_session_is_kept(self):
        self.save("/no/such/directory/x.tgz")
        self.assert_session_kept()

    def test_a_directory_in_the_way_fails_and_leaves_nothing(self):
        taken = self.output("taken.tgz")
        os.makedirs(taken + "/inside")
        self.daemon.client("start")
        self.daemon.client("watch")
        # The client would save inside the directory.
        self.daemon.save_by_name(taken)
        self.assert_session_kept()  # after the failure
        self.assertTrue(os.path.isdir(taken + "/inside"))
        self.assertFalse(os.path.exists(taken + ".inprogress"))

    def test_a_relative_destination_fails(self):
        self.daemon.client("start")
        self.daemon.client("watch")
        self.daemon.save_by_name("relative.tgz")
        self.assert_session_kept()
        self.assertFalse(os.path.exists("/relative.tgz"))
        self.assertFalse(os.path.exists("/relative.tgz.inprogress"))

    @root_only
    def test_a_full_disk_fails_and_leaves_nothing(self):
        small = self.output("small")
        os.mkdir(small)
        mounted = run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", small])
        if mounted.returncode != 0:
            self.skipTest("cannot mount: " + mounted.stderr)
        self.addCleanup(run, ["umount", "--lazy", small])
        self.installation.script("/bin/df", "head -c 3000000 /dev/urandom\n")
        self.save(small + "/x.tgz")
        self.assertEqual(os.listdir(small), [])
        self.assert_session_kept()

    def test_an_unfinished_archive_never_has_the_final_name(self):
        self.installation.script("/bin/df", "head -c 30000000 /dev/urandom\n")
        self.daemon.client("start")
        self.daemon.client("watch")
        archive = self.output("x.tgz")
        self.daemon.save_by_name(archive)
        wait_until(lambda: os.path.exists(archive + ".inprogress") or os.path.exists(archive),
                   "the save has begun")
        self.daemon.process.kill()
        self.daemon.process.wait()
        if os.path.exists(archive):
            members(archive)  # finished in time: then it is whole
        self.daemon = self.restart()

    def restart(self):
        os.unlink(self.daemon.socket_path)
        return Daemon(self.installation)


class ManyTest(DaemonTest):
    def prepare(self):
        for number in range(10000):
            self.installation.put("/Library/Logs/DiagnosticReports/report-%05d.crash" % number,
                                  "report %d\n" % number)

    def test_ten_thousand_jobs(self):
        archive = self.collect()
        names = [name for name, data, info in members(archive)]
        reports = [name for name in names if name.startswith("CrashesSpinsDiags/")]
        self.assertEqual(len(set(reports)), 10000)


class FewDescriptorsTest(DaemonTest):
    def start(self):
        return Daemon(self.installation, descriptor_limit=40)

    def prepare(self):
        for number in range(300):
            self.installation.put("/Library/Logs/DiagnosticReports/%03d.crash" % number, "x\n")

    def test_jobs_fail_by_name_and_the_daemon_serves_on(self):
        result, lines = self.daemon.json("collect", self.output("a.tgz"))
        self.assertEqual(result.returncode, 0, result.stdout[-2000:] + result.stderr)
        self.assertTrue(members(self.output("a.tgz")))
        again = self.daemon.client("collect", self.output("b.tgz"))
        self.assertEqual(again.returncode, 0, again.stderr)


class ClientTest(DaemonTest):
    def test_no_daemon(self):
        result = run([self.installation.path("bin/quillsift"), "--socket", self.output("nobody"),
                      "status"])
        self.assertEqual(result.returncode, 3)

    def test_usage(self):
        self.assertEqual(self.daemon.client("no-such-command").returncode, 2)

    def test_interrupt_leaves_the_session_running(self):
        self.installation.script("/usr/sbin/lsof", self.installation.until_exists(self.output("go-on"))
                                 + "echo done\n")
        client = subprocess.Popen(
            [self.installation.path("bin/quillsift"), "--socket", self.daemon.socket_path, "collect",
             self.output("a.tgz")], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        client.stdout.readline()  # it watches
        client.send_signal(signal.SIGINT)
        text, _ = client.communicate(timeout=LIMIT)
        self.assertRegex(text, r"the session stays in the daemon.* collect")
        self.assertIn(client.returncode, (1, 130))
        with open(self.output("go-on"), "w"):
            pass
        joined = self.collect("joined.tgz")
        saved = {name: data for name, data, info in members(joined)}
        self.assertEqual(saved["lsof.txt"], b"done\n")

    def test_a_daemon_that_dies_is_told(self):
        self.installation.script("/usr/sbin/lsof",
                                 self.installation.until_exists(self.output("never")))
        client = subprocess.Popen(
            [self.installation.path("bin/quillsift"), "--socket", self.daemon.socket_path, "collect",
             self.output("a.tgz")], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        client.stdout.readline()
        self.daemon.process.kill()
        text, _ = client.communicate(timeout=LIMIT)
        self.assertEqual(client.returncode, 3, text)
        self.daemon.process.wait()
        os.unlink(self.daemon.socket_path)
        self.daemon = Daemon(self.installation)


if __name__ == "__main__":
    unittest.main()
