"""The volumes of the machine: found, mounted, collected, given back, and saved to.

Loop devices with labelled file systems stand for the machine's disks; the platform tree lists them and
no others, so neither the host's own disks nor those of another test are touched.
"""

import io
import os
import plistlib
import shutil
import subprocess
import tarfile
import time
import unittest

from exclusive import KERNEL_EVENTS, held
from harness import DaemonTest, LIMIT, PREFIX, members, run, wait_until
from volumes import (Loop, NoLoopDevices, NoSuchType, SystemLog, enter_namespace, make_image,
                     make_node, make_typed_image, mount_lines, mount_points)

WHY_NOT = enter_namespace()

VENDOR = "c6050c43-8a6b-4b9d-947f-a689c9d7a9cd"
VARIABLES = "/sys/firmware/efi/efivars"
PREBOOT = "7f3b0c11-1a2b-4c3d-8e4f-0123456789ab"
UPDATE = "7f3b0c11-1a2b-4c3d-8e4f-0123456789ac"
HARDWARE = "7f3b0c11-1a2b-4c3d-8e4f-0123456789ad"
UNMOUNTING = "10 seconds since quillsiftd data was cleared, attempting to unmount volumes that were"
# How long the daemon waits after a clear. Timers may be late, never early.
DELAY = 10

PREBOOT_CONTENT = {"A/PreLoginData/login.log": "before login\n", "A/other/x": "x",
                   "B/PreLoginData/b.log": "b\n"}
UPDATE_CONTENT = {"mo.log": "mo\n", "mendd-1.log": "mendd\n", "restore.LOG": "restore\n",
                  "Restore.log": "skipped\n", "last_update_result.plist": "result\n",
                  "nvram.plist": "internal only\n"}
HARDWARE_CONTENT = {"Activator/logs/activation.log": "activated\n"}


@unittest.skipIf(WHY_NOT, WHY_NOT)
class VolumesTest(DaemonTest):
    """A daemon that sees the loop devices of its test and collects with the real tools."""

    def prepare(self):
        self.log = SystemLog()
        for tool in ("/bin/ls", "/usr/bin/find", "/usr/bin/tar"):
            self.installation.real_tool(tool)
        # As installed: a link to a directory that nobody has made.
        self.temporary = self.installation.path("run/quillsift/tmp")
        os.makedirs(self.installation.in_tree("/private"), 0o755, exist_ok=True)
        os.symlink(self.temporary, self.installation.in_tree("/private/tmp"))
        self.images = self.installation.path("images")
        os.mkdir(self.images)
        self.add_volumes()

    def add_volumes(self):
        """For the volumes that are there when the daemon starts."""

    def add_loop(self, image):
        try:
            loop = Loop(image)
        except NoLoopDevices as reason:
            self.skipTest(str(reason))
        self.addCleanup(loop.release)
        self.list_device(loop.name)
        return loop

    def list_device(self, name):
        os.mkdir(self.installation.in_tree("/sys/class/block/" + name))

    def add_volume(self, label=None, uuid=None, content=None):
        return self.add_loop(make_image(self.images, label, uuid, content))

    def add_volume_of_the_future(self, label, uuid):
        """One with a feature that this kernel lacks, so that it refuses to mount it."""
        image = make_image(self.images, label, uuid, UPDATE_CONTENT)
        changed = run(["debugfs", "-w", "-R", "set_super_value feature_incompat 0x80000242", image])
        self.assertEqual(changed.returncode, 0, changed.stderr)
        return self.add_loop(image)

    def mount(self, loop, name, kind="ext4"):
        directory = self.installation.path(name)
        os.mkdir(directory)
        mounted = run(["mount", "-t", kind, loop.path, directory])
        self.assertEqual(mounted.returncode, 0, mounted.stderr)
        return directory

    def set_variable(self, name, value):
        self.installation.put("%s/%s-%s" % (VARIABLES, name, VENDOR),
                              b"\x07\0\0\0" + value.encode())

    def session(self):
        """Runs a session and leaves its data with the daemon."""
        for command in ("start", "watch"):
            result = self.daemon.client(command)
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def saved(self):
        """The session's results, saved and cleared: data by name, the first of a name."""
        archive = self.output("saved.tgz")
        result = self.daemon.client("save", archive)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        saved = {}
        for name, data, _ in members(archive):
            saved.setdefault(name, data)
        return saved

    def collected(self):
        self.session()
        return self.saved()

    def assert_given_back(self, loop):
        wait_until(lambda: not mount_points(loop.path), "%s is unmounted" % loop.path)


class CollectTest(VolumesTest):
    def add_volumes(self):
        # A start clears too: what it schedules is to find a session that still runs, even when it
        # comes late. Nothing tells that it has come.
        self.installation.script("/bin/df", "exec sleep %d\n" % (DELAY + 10))
        self.loops = [self.add_volume("QS-PREBOOT", PREBOOT, PREBOOT_CONTENT),
                      self.add_volume("QS-UPDATE", UPDATE, UPDATE_CONTENT),
                      self.add_volume("QS-HARDWARE", HARDWARE, HARDWARE_CONTENT),
                      self.add_volume("QS-OTHER", None, {"mo.log": "not ours\n"})]

    def test_volumes_of_each_role_are_mounted_collected_and_given_back(self):
        self.session()
        for loop in self.loops[:3]:
            [line] = mount_lines(loop.path)
            self.assertTrue(line[4].startswith(self.temporary + "/"), line)
            for option in ("nosuid", "nodev", "noexec"):
                self.assertIn(option, line[5])
            self.assertIn("sync", line[-1])
        self.assertEqual(mount_points(self.loops[3].path), [])
        self.assertEqual(os.stat(self.temporary).st_mode & 0o777, 0o700)

        before = time.monotonic()
        saved = self.saved()
        for loop in self.loops[:3]:
            self.assert_given_back(loop)
        # The clear came behind `before`, so that a slow machine can only make it more.
        self.assertGreaterEqual(time.monotonic() - before, DELAY)
        self.log.wait_for(UNMOUNTING)
        # The directories stay, empty.
        self.assertEqual([os.listdir(os.path.join(self.temporary, name))
                          for name in os.listdir(self.temporary)], [[]] * 3)

        listing = saved["Volume Contents/Preboot/%s.log" % PREBOOT].decode()
        self.assertIn("login.log", listing)
        logins = [data for name, data, _ in members(self.output("saved.tgz"))
                  if name == "Logs/Preboot/%s [PreLoginData].tar" % PREBOOT]
        names = {name for data in logins for name in tarfile.open(fileobj=io.BytesIO(data)).getnames()}
        self.assertEqual(len(logins), 2)
        self.assertLessEqual({"./login.log", "./b.log"}, names)

        self.assertIn("/mo.log", saved["Volume Contents/Update/%s.log" % UPDATE].decode())
        updates = {name.rsplit("/", 1)[1]: data for name, data in saved.items()
                   if name.startswith("Uplift/Update Volumes/%s/" % UPDATE)}
        self.assertEqual(updates, {"mo.log": b"mo\n", "mendd-1.log": b"mendd\n",
                                   "restore.LOG": b"restore\n", "last_update_result.plist": b"result\n"})
        self.assertEqual(saved["Hardware Volumes/%s/activation.log" % HARDWARE], b"activated\n")
        self.assertFalse([name for name in saved if "not ours" in name or "Restore.log" in name])

    def test_a_busy_volume_stays_until_a_later_clear(self):
        self.session()
        [place] = mount_points(self.loops[1].path)
        with open(os.path.join(place, "mo.log")):
            self.daemon.client("clear")
            refused = self.log.wait_for("Failed to unmount volume mounted by quillsift at path: ")
            self.assertRegex(refused, r"path: '/private/tmp/[0-9A-F-]{36}'\. .*[Bb]usy")
            self.assertEqual(mount_points(self.loops[1].path), [place])
            for loop in (self.loops[0], self.loops[2]):
                self.assert_given_back(loop)
        self.assertEqual(mount_points(self.loops[1].path), [place])
        self.daemon.client("clear")
        self.assert_given_back(self.loops[1])
        self.assertEqual(len(self.log.matching("Failed to unmount volume")), 1)


class HostileVolumeTest(VolumesTest):
    """Volumes whose links lead to what is no part of them."""

    def add_volumes(self):
        release = tuple(int(number) for number in os.uname().release.split(".")[:2])
        if release < (5, 10):
            self.skipTest("the kernel cannot mount without following links")
        with open(self.installation.path("secret"), "w") as file:
            file.write("of the machine\n")
        self.add_volume("QS-PREBOOT", PREBOOT, {
            "A/PreLoginData": lambda path: os.symlink(self.installation.path(""), path)})
        self.add_volume("QS-UPDATE", UPDATE, {
            "mo.log": "mo\n",
            "restore.log": lambda path: os.symlink(self.installation.path("secret"), path)})
        self.add_volume("QS-HARDWARE", HARDWARE, {
            "Activator/logs": lambda path: os.symlink(self.installation.path(""), path)})

    def test_links_on_a_volume_lead_nowhere(self):
        saved = self.collected()
        self.assertEqual(saved["Uplift/Update Volumes/%s/mo.log" % UPDATE], b"mo\n")
        for name, data in saved.items():
            self.assertNotIn(b"of the machine", data, name)
            self.assertFalse(name.startswith("Hardware Volumes/"), name)
        self.assertNotIn("Uplift/Update Volumes/%s/restore.log" % UPDATE, saved)


class MountedElsewhereTest(VolumesTest):
    def add_volumes(self):
        self.loop = self.add_volume("QS-UPDATE", UPDATE, UPDATE_CONTENT)
        self.place = self.mount(self.loop, "a mount point\\with blanks\nand more")

    def test_a_mounted_volume_is_collected_where_it_is_and_stays_there(self):
        saved = self.collected()
        self.assertEqual(saved["Uplift/Update Volumes/%s/mo.log" % UPDATE], b"mo\n")
        self.assertIn(b"mo.log", saved["Volume Contents/Update/%s.log" % UPDATE])
        self.log.wait_for(UNMOUNTING)
        self.assertEqual(mount_points(self.loop.path), [self.place])
        self.assertEqual(os.listdir(self.temporary), [])
        self.assertEqual(self.log.matching("MountPointForVellumVolumeUUID"), [])


class OtherType:
    """An update volume in a type of its own; its subclasses say which."""

    uuid = UPDATE

    def add_volumes(self):
        try:
            image = make_typed_image(self.images, self.kind, "QS-UPDATE", self.uuid)
        except NoSuchType as reason:
            self.skipTest(str(reason))
        self.loop = self.add_loop(image)
        place = self.mount(self.loop, "filling", self.kind)
        for name, text in UPDATE_CONTENT.items():
            if name != "Restore.log":  # the same name as another where case is no difference
                with open(os.path.join(place, name), "w") as file:
                    file.write(text)
        unmounted = run(["umount", place])
        self.assertEqual(unmounted.returncode, 0, unmounted.stderr)

    def assert_collected(self):
        saved = self.saved()
        output = "Uplift/Update Volumes/%s/" % self.uuid
        self.assertEqual({name: saved[name] for name in saved if name.startswith(output)},
                         {output + name: text.encode() for name, text in UPDATE_CONTENT.items()
                          if name not in ("Restore.log", "nvram.plist")})

    def test_it_is_mounted_collected_and_given_back(self):
        self.session()
        [line] = mount_lines(self.loop.path)
        self.assertEqual(line[line.index("-") + 1], self.kind)
        for option in ("nosuid", "nodev", "noexec"):
            self.assertIn(option, line[5])
        self.assertIn("sync", line[-1])
        self.assert_collected()
        self.assert_given_back(self.loop)

    def test_it_is_found_where_it_is_mounted(self):
        place = self.mount(self.loop, "elsewhere", self.kind)
        self.session()
        self.assertEqual(mount_points(self.loop.path), [place])
        self.assert_collected()


class XFSTest(OtherType, VolumesTest):
    kind = "xfs"


class BtrfsTest(OtherType, VolumesTest):
    kind = "btrfs"


class FATTest(OtherType, VolumesTest):
    kind = "vfat"
    uuid = "CA18-AA35"


class TroubleTest(VolumesTest):
    def add_volumes(self):
        self.foreign = self.add_volume_of_the_future("QS-UPDATE", UPDATE)
        # Nothing but a few bytes, and a device that says nothing.
        for content in (b"text", b""):
            path = os.path.join(self.images, "raw%d" % len(content))
            with open(path, "wb") as file:
                file.write(content.ljust(1 << 20, b"\0"))
            self.add_loop(path)
        self.list_device("quillsift-no-such-device")
        self.good = self.add_volume("QS-HARDWARE", HARDWARE, HARDWARE_CONTENT)

    def test_a_volume_that_does_not_mount_costs_its_own_results_only(self):
        saved = self.collected()
        self.assertEqual(saved["Hardware Volumes/%s/activation.log" % HARDWARE], b"activated\n")
        self.assertFalse([name for name in saved if UPDATE in name])
        failed = self.log.wait_for("Failed to mount(")
        self.assertRegex(failed, r"MountPointForVellumVolumeUUID: Failed to mount\('%s'\) onto "
                         r"'/private/tmp/[0-9A-F-]{36}'\. Invalid argument" % self.foreign.path)
        self.log.wait_for("No mount point for the volume uuid: '%s'" % UPDATE)
        # Its directory stays, beside that of the volume that could be mounted.
        self.assertEqual(len(os.listdir(self.temporary)), 2)
        self.assertEqual(mount_points(self.foreign.path), [])


class UnknownTypeTest(VolumesTest):
    def add_volumes(self):
        with open("/proc/filesystems") as file:
            known = "vfat" in file.read().split()
        if known or run(["modprobe", "-q", "vfat"]).returncode == 0:
            self.skipTest("this kernel knows every type that the test can make")
        if not shutil.which("mkfs.vfat"):
            self.skipTest("mkfs.vfat not installed")
        image = os.path.join(self.images, "fat")
        with open(image, "wb") as file:
            file.truncate(2 << 20)
        made = run(["mkfs.vfat", "-i", "CA18AA35", "-n", "QS-UPDATE", image])
        self.assertEqual(made.returncode, 0, made.stderr)
        self.loop = self.add_loop(image)

    def test_a_type_that_the_kernel_lacks_is_no_such_device(self):
        self.collected()
        self.assertIn("'%s'" % self.loop.path, self.log.wait_for("Failed to mount("))
        self.assertIn("No such device", self.log.wait_for("Failed to mount("))
        self.log.wait_for("No mount point for the volume uuid: 'CA18-AA35'")


class PartitionTest(VolumesTest):
    """A boot loader partition that has no label of ours."""

    def add_volumes(self):
        image = os.path.join(self.images, "disk")
        with open(image, "wb") as disk:
            disk.truncate(20 << 20)
            with open(make_image(self.images, None, PREBOOT, PREBOOT_CONTENT), "rb") as content:
                disk.seek(1 << 20)
                shutil.copyfileobj(content, disk)
        table = ("label: gpt\nstart=2048, size=32768, "
                 "type=BC13C2FF-59E6-4262-A352-B275FD6F7172\n")
        made = subprocess.run(["sfdisk", "-q", image], input=table, capture_output=True, text=True)
        self.assertEqual(made.returncode, 0, made.stderr)
        disk = self.add_loop(image)
        self.partition = disk.name + "p1"
        if not os.path.exists("/sys/class/block/" + self.partition):
            added = run(["partx", "--add", disk.path])
            if added.returncode != 0:
                self.skipTest("no partitions on loop devices here: " + added.stderr.strip())
        self.addCleanup(run, ["partx", "--delete", disk.path])
        with open("/sys/class/block/%s/dev" % self.partition) as file:
            make_node(self.partition, *[int(number) for number in file.read().split(":")])
        self.list_device(self.partition)

    def test_a_partitions_type_gives_it_its_role(self):
        saved = self.collected()
        self.assertIn(b"login.log", saved["Volume Contents/Preboot/%s.log" % PREBOOT])
        self.assert_given_back(type("Partition", (), {"path": "/dev/" + self.partition}))


class RecordedByUdevTest(VolumesTest):
    """What udev has recorded is taken from there; what it says need not be on the device."""

    def add_volumes(self):
        self.loop = self.add_volume("QS-PREBOOT", PREBOOT, UPDATE_CONTENT)
        with open("/sys/class/block/%s/dev" % self.loop.name) as file:
            record = "/run/udev/data/b" + file.read().strip()
        os.makedirs(os.path.dirname(record), exist_ok=True)
        self.addCleanup(os.unlink, record)
        with open(record, "w") as file:
            file.write("I:1\nE:ID_FS_USAGE=filesystem\nE:ID_FS_TYPE=ext4\nE:ID_FS_UUID=%s\n"
                       "E:ID_FS_LABEL=QS-PREBOOT\nE:QS_VOLUME_ROLE=192\n" % UPDATE)

    def test_the_record_tells_uuid_and_role(self):
        saved = self.collected()
        self.assertEqual(saved["Uplift/Update Volumes/%s/mo.log" % UPDATE], b"mo\n")
        self.assertFalse([name for name in saved if PREBOOT in name])


class WithUdevTest(VolumesTest):
    """A real udevd, with the rules that we install."""

    def add_volumes(self):
        self.loop = self.add_volume("QS-UPDATE", UPDATE, UPDATE_CONTENT)
        program = next((path for path in ("/lib/systemd/systemd-udevd", "/usr/lib/systemd/systemd-udevd")
                        if os.path.exists(path)), None)
        if not program or not shutil.which("udevadm"):
            self.skipTest("udev not installed")
        rules = "/run/udev/rules.d"
        os.makedirs(rules, exist_ok=True)
        name = "65-quillsift-volume-role.rules"
        shutil.copy(os.path.join(PREFIX, "lib/udev/rules.d", name), rules)
        self.addCleanup(shutil.rmtree, "/run/udev", True)
        os.environ["SYSTEMD_IGNORE_CHROOT"] = "1"
        # It hears what all of the machine tell, and handles that first.
        self.enterContext(held(KERNEL_EVENTS, shared=True))
        udevd = subprocess.Popen([program, "--children-max=2"], stdin=subprocess.DEVNULL,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(udevd.wait, LIMIT)
        self.addCleanup(udevd.terminate)
        # Its socket is there before it hears the kernel; it answers after.
        wait_until(lambda: run(["udevadm", "control", "--ping"]).returncode == 0, "udevd listens")
        record = self.property("QS_VOLUME_ROLE")
        self.assertEqual(record, None)  # it has not seen the device yet
        triggered = run(["udevadm", "trigger", "--action=add", "--settle",
                         "/sys/class/block/" + self.loop.name])
        self.assertEqual(triggered.returncode, 0, triggered.stderr)

    def property(self, name):
        told = run(["udevadm", "info", "--query=property", "--property=" + name, "--value",
                    "/sys/class/block/" + self.loop.name])
        return told.stdout.strip() or None

    def test_the_rules_give_the_volume_its_role(self):
        self.assertEqual(self.property("ID_FS_LABEL"), "QS-UPDATE")
        self.assertEqual(self.property("QS_VOLUME_ROLE"), "192")
        saved = self.collected()
        self.assertEqual(saved["Uplift/Update Volumes/%s/mo.log" % UPDATE], b"mo\n")


class InstallersLogTest(VolumesTest):
    def add_volumes(self):
        self.by_variable = self.add_volume(None, PREBOOT, {"Install Me.app/ostra.log": "variable\n"})
        self.by_cookie = self.add_volume(None, UPDATE, {
            "Installer/ostra.log": "cookie\n",
            ".OstraProductInfo": plistlib.dumps(
                {"Product URL": "file:///Installer/", "Date": 1}).decode()})
        odd = {"endless": lambda path: os.symlink("/dev/zero", path), "fifo": os.mkfifo,
               "loop": lambda path: os.symlink(".OstraProductInfo", path),
               "huge": lambda path: os.truncate(os.open(path, os.O_CREAT | os.O_WRONLY), 1 << 33)}
        for number, make in enumerate(odd.values()):
            self.mount(self.add_volume(None, None, {".OstraProductInfo": make}), "odd%d" % number)
        self.mount(self.by_variable, "variable")
        self.mount(self.by_cookie, "cookie")

    def test_the_firmware_names_the_product(self):
        self.set_variable("install-product-url", "x-ostra://%s/Install%%20Me.app" % PREBOOT)
        self.assertEqual(self.collected()["ostra.log"], b"variable\n")

    def test_a_cookie_names_the_product_and_odd_ones_do_no_harm(self):
        self.assertEqual(self.collected()["ostra.log"], b"cookie\n")

    def test_a_firmware_variable_of_another_machine_leaves_it_to_the_cookie(self):
        self.set_variable("install-product-url", "x-ostra://%s/Install%%20Me.app" % HARDWARE)
        self.assertEqual(self.collected()["ostra.log"], b"cookie\n")


class AutosaveVolumeTest(VolumesTest):
    def add_volumes(self):
        self.loop = self.add_volume("RESCUE", HARDWARE)
        self.set_variable("QS_AUTO_SAVE_VOL_UUID", HARDWARE)

    def archives(self):
        [place] = mount_points(self.loop.path)
        return [os.path.join(place, name) for name in os.listdir(place) if name != "lost+found"]


class AutosaveTest(AutosaveVolumeTest):
    def test_a_finished_session_saves_itself_to_the_volume_that_the_firmware_names(self):
        self.session()
        [archive] = self.archives()
        self.assertRegex(os.path.basename(archive), r"^quillsift_.*_Lumina14-2_25A123\.tgz$")
        saved = [name for name, _, _ in members(archive)]
        self.assertIn("lsof.txt", saved)
        self.assertIn("/drreg/DrService.txt", saved)  # a sensitive one
        self.log.wait_for("Attempting to autosave quillsift archive to volume uuid: '%s'." % HARDWARE)
        path = self.log.wait_for("Autosaving quillsift archive to path: ")
        self.assertRegex(path, r"'/private/tmp/[0-9A-F-]{36}/quillsift_.*\.tgz'\.$")
        # The session is still there to be saved by hand, as complete as it was. The volume is not
        # given back.
        own = self.output("own.tgz")
        self.assertEqual(self.daemon.client("save", own).returncode, 0)
        self.assertEqual([name for name, _, _ in members(own)], saved)
        self.log.wait_for(UNMOUNTING)
        self.assertEqual(self.archives(), [archive])

    def test_a_second_session_leaves_a_second_archive(self):
        self.session()
        [first] = self.archives()
        wait_until(lambda: time.time() > os.stat(first).st_mtime + 1, "the clock names another second")
        # A session shows its end a moment before the next can start.
        wait_until(lambda: self.daemon.client("start").returncode == 0, "the session starts")
        watched = self.daemon.client("watch")
        self.assertEqual(watched.returncode, 0, watched.stdout + watched.stderr)
        self.assertEqual(len(self.archives()), 2)
        self.assertIn(first, self.archives())


class FullAutosaveVolumeTest(AutosaveVolumeTest):
    """A volume with less room than the archive needs."""

    def add_volumes(self):
        super().add_volumes()
        self.installation.script("/bin/df", "head -c 30000000 /dev/urandom\n")

    def test_a_full_volume_is_left_without_half_an_archive(self):
        self.session()
        self.assertEqual(self.archives(), [])
        self.assertEqual(self.daemon.client("save", self.output("own.tgz")).returncode, 0)


class NoAutosaveVolumeTest(VolumesTest):
    def assert_one_error_and_a_finished_session(self, uuid):
        self.session()
        self.log.wait_for("Failed to autosave archive. There is no mountpoint for the volume uuid: "
                          "'%s'." % uuid)
        saved = self.output("saved.tgz")
        self.assertEqual(self.daemon.client("save", saved).returncode, 0)
        self.assertTrue(members(saved))
        self.assertEqual(len(self.log.matching("Failed to autosave")), 1)

    def test_a_volume_that_cannot_be_found_costs_one_error(self):
        self.set_variable("QS_AUTO_SAVE_VOL_UUID", HARDWARE)
        self.assert_one_error_and_a_finished_session(HARDWARE)
        self.log.wait_for("No dr_object_t for the volume uuid: '%s'" % HARDWARE)

    def test_a_volume_that_cannot_be_mounted_costs_one_error(self):
        self.add_volume_of_the_future(None, HARDWARE)
        self.set_variable("QS_AUTO_SAVE_VOL_UUID", HARDWARE)
        self.assert_one_error_and_a_finished_session(HARDWARE)
        self.log.wait_for("Failed to mount(")

    def test_without_the_variable_nothing_happens(self):
        loop = self.add_volume(None, HARDWARE)
        self.session()
        self.assertEqual(mount_points(loop.path), [])
        self.assertEqual(self.log.matching("autosave"), [])


if __name__ == "__main__":
    unittest.main()
