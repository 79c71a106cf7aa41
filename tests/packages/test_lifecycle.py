"""The packages in a system with a service manager: installed, started by a client and by the
kernel, a session under the sandbox held against one without, removed, purged."""

import json
import os
import re
import shutil
import subprocess
import sys
import tarfile
import unittest

from exclusive import KERNEL_EVENTS, held
from harness import LIMIT, wait_until
from scratch_system import ScratchSystem, why_not
from volumes import Loop, NoLoopDevices, enter_namespace, make_image

PACKAGES = os.environ["QUILLSIFT_PACKAGES"]
SOCKETS = ["quillsiftd.socket", "quillsiftd-kernel.socket"]
SERVICE = "quillsiftd.service"
CRASH_REPORTS = "quillsift-crash-reports.path"
RUN = "/run/io.vantor.quillsiftd"
SKIPPED = 77
PACKAGE_NAMES = ["quillsift-platform", "quillsiftd"]

# What the package manager and its helpers keep about every package there ever was.
KEPT_BY_OTHERS = re.compile(
    r"/var/lib/dpkg/.*|/var/log/dpkg\.log|/var/cache/(man|debconf|ldconfig)/.*|/var/log/journal/.*"
    r"|/etc/(group|gshadow)-?|/etc/\.pwd\.lock|/etc/systemd/system/\w+\.target\.wants"
    r"|/var/lib/systemd/deb-systemd-helper-\w+(/\w+\.target\.wants)?|/output(/.*)?")

# What these show stays the same from one session to the next, but for numbers: what is found
# without the sandbox is found under it. By default that is each line.
SAME_LINES = dict.fromkeys([
    "guardctl.log", "bootmark_info.txt", "relquery.txt", "modtally.txt", "vaultkit_list.log",
    "platterctl_list.txt", "platterctl_vellum_list.txt", "platterctl_info.txt",
    "regtally.gwstoredump", "ProvenanceDiagnosticReport.plist", "/drreg/DrPort.txt",
    "/drreg/DrUSB.txt", "/drreg/DrPower.txt", "/drreg/DrDeviceTree.txt", "/drreg/DrACPIPlane.txt",
], r"(?m)^.*$")
SAME_LINES["sysctl.txt"] = r"(?m)^([^ ]+) ="
SAME_LINES["/drreg/DrService.txt"] = r"(?m)^ +(\S+)  \["
# Open files of another process, and its stacks in the kernel and in itself.
SAME_LINES["lsof.txt"] = r"(?m)^systemd-journal .* (?:mem|\d+u) .* (/\S+)"
SAME_LINES["stallscope.txt"] = r"(?m)^Process \d+ \(systemd-journal\)|do_epoll_wait|^TID \d"


class LifecycleTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # Those of a test of events would start sessions here too.
        cls.enterClassContext(held(KERNEL_EVENTS, shared=True))
        cls.images = "/run/images"
        os.mkdir(cls.images)
        try:
            cls.volumes = [Loop(make_image(cls.images, label, content=content))
                           for label, content in (
                               ("QS-PREBOOT", {"a/PreLoginData/x.log": "before the log-in\n"}),
                               ("QS-UPDATE", {"mo.log": "moved\n"}),
                               ("QS-HARDWARE", {"Activator/logs/a.log": "activated\n"}))]
        except NoLoopDevices as reason:
            print("skipped: %s" % reason)
            sys.exit(SKIPPED)
        cls.system = ScratchSystem()
        cls.addClassCleanup(cls.clean_up)
        os.mkdir(cls.system.path("/output"))

    @classmethod
    def clean_up(cls):
        cls.system.stop()
        for volume in cls.volumes:
            volume.release()

    def command(self, *command, expect=0):
        result = self.system.run(*command)
        self.assertEqual(result.returncode, expect,
                         "%s: %s%s" % (command, result.stdout, result.stderr))
        return result.stdout

    def state(self, unit):
        return self.system.run("systemctl", "is-active", unit).stdout.strip()

    def daemon(self):
        return self.command("systemctl", "show", "-P", "MainPID", SERVICE).strip()

    def stop_all(self):
        self.command("systemctl", "stop", *SOCKETS, SERVICE)

    def test_from_installation_to_purge(self):
        unchanged = self.system.changed_paths()
        self.install()
        self.check_what_is_there()
        self.check_start_by_client()
        self.check_start_by_kernel()
        self.write_journal()
        before = self.collect_without_manager("before")
        self.command("systemctl", "start", *SOCKETS)
        sandboxed = self.collect("sandboxed")
        self.check_sandbox()
        self.compare(sandboxed, before, self.collect_without_manager("after"))
        self.upgrade()
        self.remove()
        left = {path for path in self.system.changed_paths() - unchanged
                if not KEPT_BY_OTHERS.fullmatch(path)}
        self.assertEqual(left, set())

    def install(self):
        packages = os.path.join(self.system.root, "output")
        for name in os.listdir(PACKAGES):
            if name.endswith(".deb"):
                shutil.copy(os.path.join(PACKAGES, name), packages)
        # The recommended tools that are not on this machine are no reason to stop.
        self.assertNotIn("warning", self.command(
            "sh", "-c", "dpkg --install /output/*.deb 2>&1"))

    def check_what_is_there(self):
        self.assertEqual([self.state(unit) for unit in SOCKETS], ["active", "active"])
        self.assertEqual(self.command("systemctl", "is-enabled", *SOCKETS).split(),
                         ["enabled", "enabled"])
        self.assertEqual(self.command("getent", "group", "quillsift").split(":")[3].strip(), "")
        self.assertEqual(self.command("stat", "-c", "%a %U %G", "/run/quillsift",
                                      "/run/quillsift/tmp", RUN, RUN + "/socket"),
                         "755 root root\n700 root root\n755 root root\n666 root root\n")
        # Says nothing about units that it has nothing against.
        units = ["/usr/lib/systemd/system/" + unit for unit in SOCKETS + [SERVICE]]
        verified = self.system.run("systemd-analyze", "verify", *units)
        ours = [line for line in verified.stderr.splitlines() if "quillsift" in line]
        self.assertEqual((verified.returncode, ours), (0, []), verified.stderr)
        # It is active only where crashes are kept.
        self.assertEqual(self.command("systemctl", "is-enabled", CRASH_REPORTS).strip(), "enabled")
        # Every program of the plan is the tree's own.
        rows = self.command("/usr/libexec/quillsift/quillsift-platform", "--check").splitlines()
        self.assertGreater(len(rows), 50)
        self.assertEqual([row for row in rows if row.startswith("host")], [])
        self.command("bash", "-c", "bash -n /usr/share/bash-completion/completions/quillsift")

    def check_start_by_client(self):
        self.stop_all()
        self.command("systemctl", "start", "quillsiftd.socket")
        self.assertEqual(self.state(SERVICE), "inactive")
        self.command("quillsift", "status")
        self.assertEqual(self.state(SERVICE), "active")
        self.assertEqual(self.descriptor_names().count("io.vantor.quillsiftd"), 1)

    def check_start_by_kernel(self):
        self.stop_all()
        self.command("systemctl", "start", "quillsiftd-kernel.socket")
        # Any event will do; without a code of ours it starts no session.
        self.command("sh", "-c", "echo change > /sys/devices/virtual/mem/null/uevent")
        wait_until(lambda: self.state(SERVICE) == "active", "the kernel's event starts the service")
        names = self.descriptor_names()
        self.assertEqual(sorted(names), ["io.vantor.quillsiftd"] + ["io.vantor.quillsiftd.kernel"] * 2)

    def descriptor_names(self):
        # It counts as active before its process has become the program.
        wait_until(lambda: "LISTEN_FDNAMES" in self.environment(), "the service has its sockets")
        return self.environment()["LISTEN_FDNAMES"].split(":")

    def environment(self):
        text = self.command("cat", "/proc/%s/environ" % self.daemon())
        return dict(line.split("=", 1) for line in text.split("\0") if "=" in line)

    def check_sandbox(self):
        daemon = self.daemon()
        status = dict(line.split(":\t", 1) for line in
                      self.command("cat", "/proc/%s/status" % daemon).splitlines() if ":\t" in line)
        self.assertEqual(status["Umask"], "0077")
        self.assertEqual(status["NoNewPrivs"], "1")
        self.assertEqual(status["Seccomp"], "2")
        # Volumes that it mounts are everybody's to see.
        self.assertEqual(self.command("readlink", "/proc/%s/ns/mnt" % daemon),
                         self.command("readlink", "/proc/1/ns/mnt"))

    def write_journal(self):
        """Something of each kind, so that it is no matter of chance what there is to collect."""
        for priority in ("user.err", "user.info"):
            self.command("logger", "-p", priority, "said before the session")
        self.command("journalctl", "--sync")

    def collect(self, name):
        """A session: its jobs by path, and the members of its archive by name."""
        path = "/output/%s.tgz" % name
        output = self.command("quillsift", "--json", "collect", path)
        summary = [event for event in map(json.loads, output.splitlines())
                   if event["event"] == "summary"][-1]
        jobs = {}
        for event in map(json.loads, output.splitlines()):
            if event["event"] == "job":
                jobs[event["uuid"]] = event
        self.assertEqual(summary["jobs"], len(jobs))
        self.assertEqual(summary["unfinished"], 0)
        self.assertEqual(self.command("stat", "-c", "%a", path).strip(), "600")
        with tarfile.open(self.system.path(path)) as archive:
            members = {member.name: archive.extractfile(member).read().decode(errors="replace")
                       for member in archive}
        self.unmount_volumes()
        return {job["path"]: (job["state"], job["reason"]) for job in jobs.values()}, members

    def unmount_volumes(self):
        """They are, ten seconds after a session has been saved."""
        wait_until(lambda: "/run/quillsift" not in self.command("cat", "/proc/self/mountinfo"),
                   "the daemon unmounts its volumes")

    def collect_without_manager(self, name):
        self.stop_all()
        process = subprocess.Popen(
            self.system.command("sh", "-c", "umask 077; echo $$ >/run/plain; "
                                "exec /usr/libexec/quillsiftd"), stdin=subprocess.DEVNULL)
        try:
            wait_until(lambda: process.poll() is not None or
                       self.system.run("quillsift", "status").returncode == 0, "the daemon answers")
            return self.collect(name)
        finally:
            # What is started here only waits for it.
            self.system.run("sh", "-c", "kill $(cat /run/plain)")
            process.wait(LIMIT)

    def compare(self, sandboxed, before, after):
        """Other tests load modules and make devices meanwhile. So what counts is what a session
        without the sandbox finds before and after."""
        jobs, members = sandboxed
        self.maxDiff = None
        if jobs != after[0]:
            self.assertEqual(jobs, before[0])
        if sorted(members) != sorted(after[1]):
            self.assertEqual(sorted(members), sorted(before[1]))
        for name in ("Logs/Preboot", "Uplift/Update Volumes", "Hardware Volumes"):
            self.assertTrue([member for member in members if member.startswith(name)], name)
        for name, pattern in SAME_LINES.items():
            if name in before[1] and name in after[1]:
                found = findings(pattern, before[1][name]) & findings(pattern, after[1][name])
                self.assertTrue(found, name)
                lost = found - findings(pattern, members[name])
                # Loop devices come and go with other tests on this machine.
                lost = {line for line in lost if "loop" not in line}
                self.assertEqual(lost, set(), "%s lacks in the sandbox" % name)

    def upgrade(self):
        """What has been collected outlives an upgrade."""
        self.command("systemctl", "start", *SOCKETS)
        self.command("quillsift", "status")
        daemon = self.daemon()
        self.command("sh", "-c", "dpkg --install /output/*.deb 2>&1")
        self.assertEqual(self.daemon(), daemon)

    def remove(self):
        self.command("sh", "-c", "dpkg --remove %s 2>&1" % " ".join(PACKAGE_NAMES))
        self.assertEqual([self.state(unit) for unit in SOCKETS + [SERVICE, CRASH_REPORTS]],
                         ["inactive"] * 4)
        self.command("test", "!", "-e", "/usr/libexec/quillsiftd")
        self.command("test", "!", "-e", RUN)
        self.assertEqual(self.system.run("find", "/run/quillsift").stdout, "")
        self.command("sh", "-c", "dpkg --purge %s 2>&1" % " ".join(PACKAGE_NAMES))
        self.assertEqual(self.system.run("getent", "group", "quillsift").returncode, 2)


def findings(pattern, text):
    return {re.sub(r"\d+", "#", found) for found in re.findall(pattern, text)}


if __name__ == "__main__":
    WHY_NOT = enter_namespace() or why_not()
    if WHY_NOT:
        print("skipped: " + WHY_NOT)
        sys.exit(SKIPPED)
    unittest.main()
