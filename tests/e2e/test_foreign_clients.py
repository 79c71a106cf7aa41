"""Stock D-Bus tools against the installed daemon, and peers that must not get in."""

import os
import socket
import unittest

from harness import DaemonTest, SERVER, SERVICE, OBJECT, members, root_only, run, wait_until
from volumes import SystemLog, enter_namespace

# For a system log of the test's own; what needs none runs without, too.
WHY_NOT = enter_namespace()


class ForeignClientsTest(DaemonTest):
    def query_finished(self):
        result = self.daemon.gdbus("--method", SERVER + ".queryJobStatusInformationWithReply")
        self.assertEqual(result.returncode, 0, result.stderr)
        return "@ad []" not in result.stdout

    def test_gdbus_introspects_starts_queries_and_saves(self):
        result = run(["gdbus", "introspect", "--address", self.daemon.address(), "--dest", SERVICE,
                      "--object-path", OBJECT])
        self.assertEqual(result.returncode, 0, result.stderr)
        for text in ("interface io.vantor.quillsiftd.QSServiceServerProtocol",
                     "interface io.vantor.quillsiftd.QSServiceClientProtocol",
                     "queryJobStatusInformationWithReply(out aa{sv} jobs,", "out ad dateFinished)",
                     "startQuillsift(out b started)", "clearQuillsiftData()",
                     "in  s destination,", "in  b shouldArchive,", "in  b collectSensitiveFiles,",
                     "reportSaveProgress(d progress,", "jobStatusChangedWithInfo(a{sv} info)"):
            self.assertIn(text, result.stdout)

        started = self.daemon.gdbus("--method", SERVER + ".startQuillsift")
        self.assertEqual(started.stdout.strip(), "(true,)", started.stderr)
        wait_until(self.query_finished, "the session has ended")
        jobs = self.daemon.gdbus("--method", SERVER + ".queryJobStatusInformationWithReply").stdout
        self.assertIn("'QSJobInfoRelativeFilePathAndName': <'lsof.txt'>", jobs)
        self.assertIn("'QSJobInfoJobStatus': <int64 4>", jobs)
        archive = self.output("by-gdbus.tgz")
        self.daemon.save_by_name(archive)
        wait_until(lambda: os.path.exists(archive), "the archive is there")
        self.assertIn("lsof.txt", [name for name, data, info in members(archive)])

    def test_dbus_send_starts_queries_saves_and_clears(self):
        started = self.daemon.dbus_send("startQuillsift")
        self.assertIn("boolean true", started.stdout, started.stderr)
        wait_until(self.query_finished, "the session has ended")
        jobs = self.daemon.dbus_send("queryJobStatusInformationWithReply")
        self.assertIn('string "stallscope.txt"', jobs.stdout)
        archive = self.output("by-dbus-send.tgz")
        # A session shows its end a moment before it can be saved.
        wait_until(lambda: self.saved_by_dbus_send(archive), "the save is taken")
        wait_until(lambda: os.path.exists(archive), "the archive is there")
        names = [name for name, data, info in members(archive)]
        self.assertIn("lsof.txt", names)
        self.assertNotIn("/drreg/DrService.txt", names)
        self.assertEqual(self.daemon.dbus_send("clearQuillsiftData").returncode, 0)

    def saved_by_dbus_send(self, archive):
        answer = self.daemon.dbus_send("saveQuillsiftToDestination", "string:" + archive,
                                       "boolean:true", "boolean:false")
        self.assertEqual(answer.returncode, 0, answer.stderr)
        return "boolean true" in answer.stdout

    def test_a_second_start_is_refused_while_a_session_runs(self):
        self.installation.script("/usr/sbin/lsof",
                                 self.installation.until_exists(self.output("go-on")))
        first = self.daemon.gdbus("--method", SERVER + ".startQuillsift")
        second = self.daemon.gdbus("--method", SERVER + ".startQuillsift")
        refused = self.daemon.gdbus("--method", SERVER + ".saveQuillsiftToDestination",
                                    self.output("x.tgz"), "true", "true")
        with open(self.output("go-on"), "w"):
            pass
        self.assertEqual(first.stdout.strip(), "(true,)")
        self.assertEqual(second.stdout.strip(), "(false,)")
        self.assertEqual(refused.stdout.strip(), "(false,)")
        self.assertFalse(os.path.exists(self.output("x.tgz")))

    def test_wrong_arguments_are_refused_and_the_daemon_serves_on(self):
        result = self.daemon.gdbus("--method", SERVER + ".noSuchMethod")
        self.assertNotEqual(result.returncode, 0)
        result = self.daemon.dbus_send("saveQuillsiftToDestination", "int32:7")
        self.assertNotEqual(result.returncode, 0)
        self.assertEqual(self.daemon.gdbus("--method",
                                           SERVER + ".queryJobStatusInformationWithReply").stdout
                         .strip(), "(@aa{sv} [], @ad [])")

    def test_garbage_ends_that_connection_only(self):
        for garbage in (b"\0AUTH nonsense\r\n" * 3, b"GET / HTTP/1.0\r\n\r\n", bytes(range(256)) * 64):
            with socket.socket(socket.AF_UNIX) as peer:
                peer.connect(self.daemon.socket_path)
                try:
                    peer.sendall(garbage)
                    peer.shutdown(socket.SHUT_WR)
                    while peer.recv(4096):
                        pass
                except OSError:
                    pass
        self.assertIn("(@aa{sv} []", self.daemon.gdbus(
            "--method", SERVER + ".queryJobStatusInformationWithReply").stdout)


@root_only
class AdmissionTest(DaemonTest):
    def prepare(self):
        self.log = None
        if not WHY_NOT:
            self.log = SystemLog()
            self.addCleanup(self.log.socket.close)

    def test_a_peer_without_the_capability_is_refused_with_a_warning(self):
        command = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                   self.installation.path("bin/quillsift"), "--socket", self.daemon.socket_path,
                   "status"]
        result = run(command)
        self.assertEqual(result.returncode, 3, result.stdout + result.stderr)
        with socket.socket(socket.AF_UNIX) as admitted:
            admitted.connect(self.daemon.socket_path)
        if self.log is None:
            self.skipTest(WHY_NOT)
        line = self.log.wait_for("Connection request denied due to missing entitlement.")
        # 116: the installation facility at warning level.
        self.assertTrue(line.startswith("<116>"), line)


if __name__ == "__main__":
    unittest.main()
