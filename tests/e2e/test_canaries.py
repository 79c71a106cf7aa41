"""Secrets planted on a real machine, in everything that can be given one: an archive without the
sensitive results shows none of them, and one with them shows those that belong there."""

import os
import re
import shutil
import subprocess
import unittest
import uuid

from harness import PLAN_PROGRAMS, Daemon, DaemonTest, members, run
from volumes import Loop, NoLoopDevices, enter_namespace

WHY_NOT = enter_namespace()

# Of this run alone: the process lists show those of another one's commands.
CANARY, ARGUMENT = ("%s-%s" % (word, uuid.uuid4().hex) for word in ("C4N4RY", "4RGUM3NT"))
STABLE_SECRET = "c4a4:c4a4:c4a4:c4a4:c4a4:c4a4:c4a4:c4a4"
FAST_OPEN_KEY = "c4a4c4a4-c4a4c4a4-c4a4c4a4-c4a4c4a4"
VENDOR = "c6050c43-8a6b-4b9d-947f-a689c9d7a9cd"


def write(path, text):
    with open(path, "w") as file:
        file.write(text)


@unittest.skipIf(WHY_NOT, WHY_NOT)
class CanaryTest(DaemonTest):
    def prepare(self):
        for path in PLAN_PROGRAMS:
            if not path.endswith("/paneinfo"):
                self.installation.real_tool(path)
        self.secrets = [CANARY, STABLE_SECRET, FAST_OPEN_KEY]
        self.mounts = []
        self.addCleanup(self.unmount)
        self.plant_settings()
        self.plant_files()
        self.plant_volume()
        self.plant_process()

    def mount(self, *arguments):
        result = run(["mount"] + list(arguments))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.mounts.append(arguments[-1])

    def unmount(self):
        for place in reversed(self.mounts):
            run(["umount", "--lazy", place])

    def plant_settings(self):
        """In the network of this namespace."""
        write("/proc/sys/net/ipv6/conf/lo/stable_secret", STABLE_SECRET)
        write("/proc/sys/net/ipv4/tcp_fastopen_key", FAST_OPEN_KEY)

    def plant_files(self):
        line = self.installation.path("cmdline")
        write(line, "fact=1 rd.luks.key=%s api_token=%s netroot=iscsi:me:%s@10.0.0.1\n"
              % (CANARY, CANARY, CANARY))
        self.mount("--bind", line, "/proc/cmdline")
        applications = "/usr/share/applications"
        if os.path.isdir(applications):
            self.mount("-t", "tmpfs", "none", applications)
            write(applications + "/x.desktop",
                  "[Desktop Entry]\nName=fact\nExec=x --token %s\nX-Secret=%s\n" % (CANARY, CANARY))
        place = self.installation.path("mounted")
        os.mkdir(place)
        self.mount("-t", "tmpfs", "http://me:%s@host/dav" % CANARY, place)
        # Of the tree: what belongs to nobody but an internal machine.
        self.installation.put("/etc/os-release", "ID=rescue\nNAME=fact\nBUILD_ID=25A123\n"
                              "VARIANT_ID=internal\nSUPPORT_TOKEN=%s\n" % CANARY)
        self.installation.put("/sys/firmware/efi/efivars/wifi-password-" + VENDOR,
                              b"\7\0\0\0" + CANARY.encode())
        self.installation.put("/System/Volumes/Hardware/stashlogd/record", CANARY + "\n")

    def plant_volume(self):
        self.volume = None
        if not shutil.which("cryptsetup"):
            return
        image = self.installation.path("image")
        with open(image, "wb") as file:
            file.truncate(32 * 1024 * 1024)
        try:
            loop = Loop(image)
        except NoLoopDevices:
            return
        self.addCleanup(loop.release)
        made = subprocess.run(["cryptsetup", "luksFormat", "-q", "--pbkdf", "pbkdf2",
                               "--pbkdf-force-iterations", "1000", loop.path, "-"],
                              input=CANARY, text=True, capture_output=True)
        self.assertEqual(made.returncode, 0, made.stderr)
        header = run(["cryptsetup", "luksDump", loop.path]).stdout
        self.volume = re.search(r"UUID:\s+(\S+)", header).group(1)
        # Salts and digests: lines of bytes.
        bytes_of_key = re.findall(r"(?:[0-9a-f]{2} ){7}[0-9a-f]{2}", header)
        self.assertGreater(len(bytes_of_key), 3, header)
        self.secrets += bytes_of_key

    def plant_process(self):
        """Its arguments are in the process lists, by design; its environment is nowhere."""
        process = subprocess.Popen(["sh", "-c", "read x", "sh", "--password", ARGUMENT],
                                   stdin=subprocess.PIPE, env=dict(os.environ, PASSWORD=CANARY))
        self.addCleanup(process.wait)
        self.addCleanup(process.stdin.close)

    def start(self):
        os.environ["QUILLSIFT_TEST_PASSWORD"] = CANARY
        try:
            return Daemon(self.installation)
        finally:
            del os.environ["QUILLSIFT_TEST_PASSWORD"]

    def saved(self, name, *arguments):
        return {name: data for name, data, info in members(self.collect(name, *arguments))}

    def test_no_secret_is_in_an_archive_without_what_is_sensitive(self):
        archive = self.saved("limited.tgz", "--without-sensitive")
        for name, data in archive.items():
            for secret in self.secrets:
                self.assertNotIn(secret.encode(), data, name)
        # All of them were read.
        self.assertIn(b"fact=1", archive["bootmark_info.txt"])
        self.assertIn(b"(masked)@host/dav", archive["df_disks.txt"])
        self.assertIn(b"(masked)@host/dav", archive["platterctl_vellum_list.txt"])
        self.assertIn(b"fact", archive["relquery.txt"])
        self.assertIn(b"kernel.ostype", archive["sysctl.txt"])
        if os.path.isdir("/usr/share/applications"):
            self.assertIn(b"Name=fact", archive["regtally.gwstoredump"])
        if self.volume:
            self.assertIn(self.volume.encode(), archive["vaultkit_list.log"])
        self.assertIn(ARGUMENT.encode(), archive["ps.txt"])
        self.assertNotIn(ARGUMENT.encode(), archive["svcherd_dumpstate.txt"])
        self.assertNotIn("nvram_raw.txt", archive)
        self.assertNotIn("stashlogd/record", archive)

    def test_what_is_sensitive_is_in_an_archive_with_it(self):
        archive = self.saved("whole.tgz")
        shown = {name for name, data in archive.items() if CANARY.encode() in data}
        self.assertLessEqual({"nvram_raw.txt", "stashlogd/record"}, shown)
        self.assertIn(b"wifi-password\t" + CANARY.encode(), archive["nvram_raw.txt"])
        # Keys of the network stack are for nobody.
        for secret in (STABLE_SECRET, FAST_OPEN_KEY):
            for name, data in archive.items():
                self.assertNotIn(secret.encode(), data, name)


if __name__ == "__main__":
    unittest.main(verbosity=2)
