"""A whole session against stand-ins that print their argument vector: every command row of the
plan with its program, arguments, relative path and sensitivity, and the order of the steps."""

import unittest

from harness import DaemonTest, members

REGTALLY = ("/System/Library/Frameworks/Groundwork.framework/Frameworks/Openhand.framework/Support"
            "/regtally")
PIXDIAG = "/System/Library/Extensions/DrGraphicsFamily.kext/pixdiag"


def drreg(plane):
    return ("/drreg/%s.txt" % plane, True, "/usr/sbin/drreg", ["-i", "-l", "-p", plane, "-w", "0"])


# Relative path, sensitive, program, arguments.
ALWAYS = [
    ("stallscope.txt", False, "/usr/sbin/stallscope", ["-noSymbolicate", "-stdout", "-noFile"]),
    ("lsof.txt", False, "/usr/sbin/lsof",
     ["-n", "-M", "-P", "-T", "-w", "+c", "0", "-s", "+fg", "+L"]),
    ("ps.txt", False, "/bin/ps",
     ["axwww", "-o",
      "user,uid,pid,ppid,%cpu,%mem,pri,ni,vsz,rss,wchan,tt,stat,start,time,command"]),
    ("ps_thread.txt", False, "/bin/ps",
     ["axMwww", "-o", "ppid,%mem,pri,ni,vsz,rss,wchan,start,time,command"]),
    ("relquery.txt", False, "/usr/bin/relquery", []),
    ("platterctl_list.txt", False, "/usr/sbin/platterctl", ["list"]),
    ("platterctl_vellum_list.txt", False, "/usr/sbin/platterctl", ["vellum", "list"]),
    ("platterctl_info.txt", False, "/usr/sbin/platterctl", ["info", "-all"]),
    ("df_disks.txt", False, "/bin/df", ["-h"]),
    ("bootmark_info.txt", False, "/usr/sbin/bootmark", ["--info", "--getBoot", "--verbose"]),
    ("svcherd_list.txt", False, "/bin/svcherd", ["list"]),
    ("svcherd_dumpstate.txt", False, "/bin/svcherd", ["dumpstate"]),
    ("modtally.txt", False, "/usr/sbin/modtally", []),
    ("guardctl.log", False, "/usr/bin/guardctl", ["status"]),
    ("sysctl.txt", False, "/usr/sbin/sysctl", ["-a", "-o"]),
    ("vaultkit_list.log", False, "/usr/sbin/vaultkit", ["--list"]),
    ("regtally.gwstoredump", False, REGTALLY, ["-bdump"]),
    drreg("DrService"), drreg("DrACPIPlane"), drreg("DrPower"), drreg("DrDeviceTree"),
    drreg("DrUSB"), drreg("DrFlarebus"), drreg("DrPort"),
    ("/drreg/DrReg.xml", True, "/usr/sbin/drreg", ["-a", "-l", "-w0", "-x", "0"]),
    ("Graphics/pixdiag.txt", False, PIXDIAG, []),
]
FIRMWARE_LOG = ("Logs/fwlogdump.txt", True, "/usr/libexec/fwlogdump", [])
KEELBOOT = [
    ("sealwarden.txt", False, "/usr/bin/sealwarden", ["-e"]),
    ("Volume Contents/Keelboot-Contents.log", False, "/bin/ls",
     ["-la@OR", "/System/Volumes/Keelboot"]),
    ("Volume Contents/Keelboot.pkr", False, "/usr/bin/packrat",
     ["archive", "-x", "-d", "/System/Volumes/Keelboot", "-a", "tidepack"]),
]
INTERNAL = [
    ("nvram.plist", True, "/usr/sbin/nvram", ["-x", "-p"]),
    ("nvram_raw.txt", True, "/usr/sbin/nvram", ["-p"]),
]
LOGS = [
    ("Logs/system.log", False, "/var/log/system.log"),
    ("Logs/rescueos.log", False, "/var/log/rescueos.log"),
    ("Logs/migration.log", True, "/var/log/migration.log"),
    ("strata_convert.log", False, "/var/log/strata_convert.log"),
    ("Logs/fsck_vellum.log", False, "/var/log/fsck_vellum.log"),
    ("Logs/fsck_strata.log", False, "/var/log/fsck_strata.log"),
    ("Logs/seekbeacon.log", True, "/var/log/seekbeacon.log"),
    ("Logs/herdkeeper.log", False, "/var/log/io.vantor.weft.herdkeeper/herdkeeper.log"),
    ("Logs/automation_trampoline.log", False, "/var/log/automation_trampoline.log"),
    ("Logs/install.log", False, "/var/log/install.log"),
    ("io.vantor.stowage.log", False, "/Volumes/StowageLog/io.vantor.stowage.log"),
    ("Uplift/SparefoldRestoreVersion.plist", False,
     "/System/Volumes/Keelboot/Sparefold/current/RestoreVersion.plist"),
    ("CrashesSpinsDiags/one.crash", False, "/Library/Logs/DiagnosticReports/one.crash"),
    ("stashlogd/dmesg-1", True, "/System/Volumes/Hardware/stashlogd/dmesg-1"),
]
# Without a source on a machine with nothing but stand-ins, yet always in the list of jobs.
WITHOUT_SOURCE = {"stw.log", "Logs/pre_os.log", "ProvenanceDiagnosticReport.plist",
                  "Graphics/paneinfo.bin", "RemoteDeviceInformation.plist"}
README = (
    "If there are any tar files in this directory, then they represent the Syslore Archive for the "
    "preboot volume in the filename.\n\nThe logarchive can be generated using the instructions "
    "here:\n")


def printed(program, arguments):
    return "".join("%s\n" % word for word in [program] + arguments).encode()


class PlanTest(DaemonTest):
    def finished_jobs(self):
        """The records of a finished session, in order."""
        result, lines = self.daemon.json("start")
        self.assertEqual(result.returncode, 0, result.stderr)
        result, lines = self.daemon.json("watch")
        self.assertEqual(result.returncode, 0, result.stderr)
        result, lines = self.daemon.json("status")
        return [line for line in lines if line.get("event", "job") == "job"]

    def check_commands(self, saved, jobs, rows):
        for path, sensitive, program, arguments in rows:
            with self.subTest(path):
                self.assertEqual(saved.get(path), printed(program, arguments))
                self.assertEqual(jobs[path]["sensitive"], sensitive)
                self.assertEqual(jobs[path]["status"], 4)

    def session(self):
        jobs = self.finished_jobs()
        archive = self.output("saved.tgz")
        result = self.daemon.client("save", archive)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        saved = {name: data for name, data, info in members(archive)}
        return [job["path"] for job in jobs], {job["path"]: job for job in jobs}, saved


class PlainMachineTest(PlanTest):
    def prepare(self):
        for path, sensitive, source in LOGS:
            self.installation.put(source, "content of %s\n" % source)

    def test_every_row_of_the_plan(self):
        order, jobs, saved = self.session()
        self.check_commands(saved, jobs, ALWAYS + [FIRMWARE_LOG])
        for path, sensitive, source in LOGS:
            with self.subTest(path):
                self.assertEqual(saved[path], b"content of %s\n" % source.encode())
                self.assertEqual(jobs[path]["sensitive"], sensitive)
        readme = saved["Logs/Preboot/README.txt"].decode()
        self.assertTrue(readme.startswith(README), readme)
        self.assertRegex(readme[len(README):], r"\A\S+\n\Z")
        self.assertTrue(jobs["Logs/Preboot/README.txt"]["sensitive"])
        expected = ({row[0] for row in ALWAYS + LOGS} | WITHOUT_SOURCE
                    | {FIRMWARE_LOG[0], "Logs/Preboot/README.txt"})
        self.assertEqual(set(order), expected)
        self.assertEqual(set(saved), expected - WITHOUT_SOURCE)
        for path in WITHOUT_SOURCE:
            self.assertEqual(jobs[path]["status"], 3, jobs[path])

        # Jobs of one step start together, so only the steps order them.
        self.assertEqual(set(order[:2]), {"stallscope.txt", "lsof.txt"})
        self.assertEqual(set(order[2:4]), {"ps.txt", "ps_thread.txt"})
        self.assertEqual(set(order[4:7]), {"stashlogd/dmesg-1", "stw.log", "io.vantor.stowage.log"})
        self.assertEqual(order[-1], "Logs/install.log")

    def test_leaves_out_what_is_sensitive_when_asked(self):
        archive = self.collect("limited.tgz", "--without-sensitive")
        names = {name for name, data, info in members(archive)}
        everything = ALWAYS + [FIRMWARE_LOG] + LOGS
        self.assertEqual(names, {row[0] for row in everything if not row[1]})


class OtherProcessorTest(PlanTest):
    def prepare(self):
        # Another architecture than the one the daemon was built for.
        self.installation.put("/proc/sys/kernel/arch", "otherarch\n")
        self.installation.put("/System/Volumes/Keelboot/file", "")
        self.installation.put("/etc/os-release", "ID=rescue\nVARIANT_ID=internal\n")

    def test_rows_of_an_internal_build_on_the_other_processor(self):
        order, jobs, saved = self.session()
        self.check_commands(saved, jobs, ALWAYS + KEELBOOT + INTERNAL)
        self.assertNotIn(FIRMWARE_LOG[0], order)


class OtherProcessorWithoutKeelbootTest(PlanTest):
    def prepare(self):
        self.installation.put("/proc/sys/kernel/arch", "otherarch\n")
        self.installation.absent("/System/Volumes/Keelboot")

    def test_only_the_seal_is_asked(self):
        order, jobs, saved = self.session()
        self.check_commands(saved, jobs, ALWAYS + KEELBOOT[:1])
        for row in KEELBOOT[1:] + INTERNAL + [FIRMWARE_LOG]:
            self.assertNotIn(row[0], order)


if __name__ == "__main__":
    unittest.main()
