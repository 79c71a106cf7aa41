"""The rules that feed the logs of the plan, read and run by the programs that they are for."""

import os
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

PACKAGING = os.environ["QUILLSIFT_PACKAGING"]
LIMIT = 120  # against hangs only


def program(name):
    return shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin:/sbin")


def needs(name):
    return unittest.skipUnless(program(name), name + " is not installed")


def read(path):
    with open(path, errors="replace") as file:
        return file.read()


class Scratch(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="quillsift-logs-")
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.directory, name)

    def write(self, name, text, mode=0o644):
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        with open(self.path(name), "w") as file:
            file.write(text)
        os.chmod(self.path(name), mode)
        return self.path(name)

    def run_checked(self, *command, **options):
        result = subprocess.run(command, capture_output=True, text=True, timeout=LIMIT, **options)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        return result.stdout + result.stderr

    def relocated(self, text):
        """The rules, for a log directory of our own and our own user."""
        self.assertIn("/var/log/", text)
        text = text.replace("/var/log/", self.path("log") + "/")
        text = text.replace('fileOwner="root" fileGroup="adm" ', "")
        return text.replace("create 0640 root adm", "create 0640")


@needs("rsyslogd")
class SystemLogRulesTest(Scratch):
    def setUp(self):
        super().setUp()
        self.rules = read(os.path.join(PACKAGING, "rsyslog/quillsift.conf"))

    def test_are_understood(self):
        output = self.run_checked(program("rsyslogd"), "-N1", "-f",
                                  self.write("rsyslog.conf", self.rules))
        self.assertNotIn("error", output.lower())

    def test_put_each_message_where_it_is_collected(self):
        os.mkdir(self.path("log"))
        log = self.path("socket")
        configuration = self.write("rsyslog.conf", """
module(load="imuxsock" SysSock.Use="off")
input(type="imuxsock" Socket="%s")
%s
*.* action(type="omfile" file="%s")
""" % (log, self.relocated(self.rules), self.path("log/all")))
        daemon = subprocess.Popen([program("rsyslogd"), "-n", "-f", configuration, "-i",
                                   self.path("pid")], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        self.addCleanup(daemon.wait, LIMIT)
        self.addCleanup(daemon.terminate)
        self.wait_until(lambda: os.path.exists(log), "the log's socket is there")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.connect(log)
            for priority, tag, text in ((14 * 8 + 6, "installer", "one"), (3 * 8 + 4, "lvm[12]", "two"),
                                        (3 * 8 + 6, "mkfs.ext4", "three"),
                                        (3 * 8 + 6, "systemd-fsck[9]", "four"),
                                        (3 * 8 + 6, "cron[7]", "five"), (5 * 8 + 6, "end", "last")):
                sender.send(("<%d>%s: %s" % (priority, tag, text)).encode())
        # Each file is written by itself: what is in one need not be in the other yet.
        for name, words in (("all", ["last"]), ("install.log", ["one"]),
                            ("stw/stw.log", ["two", "three", "four"])):
            self.wait_until(lambda: self.has(name, words), "%s has %s" % (name, words))
        daemon.terminate()
        daemon.wait(LIMIT)  # now all is written
        for name, lines in ("install.log", 1), ("stw/stw.log", 3):
            text = read(self.path("log/" + name))
            self.assertEqual(text.count("\n"), lines, text)

    def has(self, name, words):
        path = self.path("log/" + name)
        text = read(path) if os.path.exists(path) else ""
        return all(word in text for word in words)

    @staticmethod
    def wait_until(condition, what):
        deadline = time.monotonic() + LIMIT
        while not condition():
            if time.monotonic() > deadline:
                raise AssertionError("gave up waiting until " + what)
            time.sleep(0.02)


@needs("logrotate")
class RotationTest(Scratch):
    def setUp(self):
        super().setUp()
        text = self.relocated(read(os.path.join(PACKAGING, "logrotate/quillsift")))
        # Whoever the log belongs to here, it is not the system's to be told.
        text = text.replace("/usr/lib/rsyslog/rsyslog-rotate", self.path("rotate"))
        self.write("rotate", "#!/bin/sh\necho told >>%s\n" % self.path("told"), 0o755)
        self.rules = self.write("quillsift", text)

    def rotate(self, *options):
        return self.run_checked(program("logrotate"), "--state", self.path("state"), *options,
                                self.rules)

    def test_is_understood_where_there_are_no_logs_yet(self):
        output = self.rotate("--debug")
        self.assertNotIn("error:", output)

    def test_numbers_the_disk_management_logs(self):
        for round_number in range(6):
            self.write("log/stw/stw.log", "round %d\n" % round_number)
            self.write("log/install.log", "x\n")
            self.rotate("--force")
        self.assertEqual(sorted(os.listdir(self.path("log/stw"))),
                         ["stw.log", "stw.log.1", "stw.log.2", "stw.log.3", "stw.log.4"])
        self.assertEqual(read(self.path("log/stw/stw.log.1")), "round 5\n")
        self.assertEqual(read(self.path("log/stw/stw.log.4")), "round 2\n")
        self.assertIn("told", read(self.path("told")))


class CrashReportsTest(Scratch):
    SCRIPT = os.path.join(PACKAGING, "coredump/quillsift-crash-reports")

    def setUp(self):
        super().setUp()
        self.crashes = []

    def crash(self, day, clock, process):
        self.crashes.append("Fri %s %s UTC %d 0 0 SIGSEGV present /usr/bin/x 20.0K" %
                            (day, clock, process))

    def report(self):
        self.write("list", "".join(line + "\n" for line in self.crashes))
        self.write("programs/coredumpctl", """#!/bin/sh
case "$*" in
  *list) cat %s ;;
  *info*) for process; do :; done
    echo "           PID: $process (x)"
    echo "  Command Line: x --password CANARY"
    echo "    Machine ID: CANARY"
    echo "       Message: Process $process (x) of user 0 dumped core." ;;
esac
""" % self.path("list"), 0o755)
        self.write("programs/systemctl", "#!/bin/sh\nexit 3\n", 0o755)
        self.write("programs/journalctl", "#!/bin/sh\n", 0o755)
        self.run_script()

    def run_script(self):
        self.run_checked("sh", self.SCRIPT, self.path("reports"),
                         env=dict(os.environ, PATH=self.path("programs") + ":" + os.environ["PATH"]))

    def test_writes_one_for_each_crash_without_its_secrets(self):
        self.crash("2026-11-20", "21:55:42", 12)
        self.report()
        self.crash("2026-11-20", "21:56:00", 13)
        self.report()
        self.assertEqual(sorted(os.listdir(self.path("reports"))),
                         ["2026-11-20-215542-12.txt", "2026-11-20-215600-13.txt"])
        text = read(self.path("reports/2026-11-20-215542-12.txt"))
        self.assertIn("Process 12 (x) of user 0 dumped core.", text)
        self.assertNotIn("CANARY", text)
        mode = os.stat(self.path("reports/2026-11-20-215542-12.txt")).st_mode
        self.assertEqual(mode & 0o007, 0, "for root and its group only")

    def test_waits_for_a_crash_that_is_being_looked_into(self):
        self.report()
        self.write("known later", "Fri 2026-11-20 21:55:42 UTC 12 0 0 SIGSEGV present /usr/bin/x 20.0K\n")
        # Busy for one call; what it knows then comes to the list when that is written out.
        self.write("programs/systemctl", """#!/bin/sh
echo "$*" >>%s
[ -e %s ] && exit 3
: >%s
""" % (self.path("asked"), self.path("over"), self.path("over")), 0o755)
        self.write("programs/journalctl", "#!/bin/sh\ntest -e %s && cp '%s' %s\n" % (
            self.path("over"), self.path("known later"), self.path("list")), 0o755)
        self.run_script()
        self.assertEqual(os.listdir(self.path("reports")), ["2026-11-20-215542-12.txt"])
        self.assertEqual(read(self.path("asked")),
                         2 * "--quiet is-active systemd-coredump@*.service\n")

    def test_keeps_the_newest_ones(self):
        for minute in range(60):
            self.crash("2026-11-20", "10:%02d:00" % minute, 1000 + minute)
            if minute in (30, 59):
                self.report()
        reports = sorted(os.listdir(self.path("reports")))
        self.assertEqual(len(reports), 50)
        self.assertEqual(reports[0], "2026-11-20-101000-1010.txt")
        self.assertEqual(reports[-1], "2026-11-20-105900-1059.txt")

    def test_makes_nothing_of_no_crash(self):
        self.report()
        self.assertEqual(os.listdir(self.path("reports")), [])

    @needs("systemd-analyze")
    def test_has_units_that_the_service_manager_understands(self):
        for name in ("quillsift-crash-reports.path", "quillsift-crash-reports.service"):
            source = os.path.join(PACKAGING, "coredump", name)
            text = read(source if os.path.exists(source) else source + ".in")
            self.write(name, text.replace(
                "@LIBEXECDIR@/quillsift/quillsift-crash-reports", "/bin/true"))
        output = self.run_checked("systemd-analyze", "verify", "--man=no",
                                  self.path("quillsift-crash-reports.path"),
                                  self.path("quillsift-crash-reports.service"))
        self.assertNotIn("quillsift", output)


if __name__ == "__main__":
    unittest.main(verbosity=2)
