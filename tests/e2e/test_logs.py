"""The machine's own logs in a real session: its journal, the log from before it started, rotated
disk-management logs and the crash records that the firmware kept; and its own reports: factory data
and what its window server shows."""

import os
import plistlib
import shutil
import struct
import subprocess
import time
import unittest

from exclusive import X_SERVERS, held
from harness import PREFIX, DaemonTest, members
from x_servers import XServer

IMPORTER = "/lib/systemd/systemd-journal-remote"
ARCHIVE = "Logs/Recovery.logarchive/"
MACHINE = "000000000000000000000000000000aa"


def entry(message, transport, priority=6, seconds_old=60, machine=MACHINE, **fields):
    """One entry in the journal export format."""
    now = int(time.time()) - seconds_old
    lines = {"_BOOT_ID": "00000000000000000000000000000b01", "_MACHINE_ID": machine,
             "_TRANSPORT": transport, "PRIORITY": str(priority), "MESSAGE": message}
    lines.update(fields)
    text = b"__REALTIME_TIMESTAMP=%d000000\n__MONOTONIC_TIMESTAMP=%d000000\n" % (now, now % 100000)
    for name, value in lines.items():
        data = value if isinstance(value, bytes) else value.encode()
        if b"\n" in data or b"\0" in data:
            text += name.encode() + b"\n" + struct.pack("<Q", len(data)) + data + b"\n"
        else:
            text += name.encode() + b"=" + data + b"\n"
    return text + b"\n"


def make_journal(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    subprocess.run([IMPORTER, "-o", path, "-"], input=text, check=True, capture_output=True)


def entries(directory, *matches):
    """What journalctl reads there: one list of fields an entry, without what belongs to the file."""
    result = subprocess.run(["journalctl", "-q", "-D", directory, "-o", "export"] + list(matches),
                            check=True, capture_output=True)
    found = []
    rest = result.stdout
    while rest:
        fields = []
        while not rest.startswith(b"\n"):
            line, rest = rest.split(b"\n", 1)
            if b"=" not in line:
                size = struct.unpack("<Q", rest[:8])[0]
                line, rest = line + b"=" + rest[8:8 + size], rest[8 + size + 1:]
            if not line.startswith(b"__CURSOR="):
                fields.append(line)
        rest = rest[1:]
        found.append(sorted(fields))
    return found


class LogTest(DaemonTest):
    def in_tree(self, path):
        target = self.installation.in_tree(path)
        if os.path.islink(target):
            os.unlink(target)  # what says that there is none
        os.makedirs(os.path.dirname(target), exist_ok=True)
        return target

    def saved(self):
        return {name: data for name, data, info in members(self.collect())}

    def kinds(self, saved):
        return {name[len(ARCHIVE):]: data for name, data in saved.items()
                if name.startswith(ARCHIVE)}

    def imported(self, data):
        """The entries of an exported member, read by journalctl after importing it."""
        directory = self.output("imported")
        shutil.rmtree(directory, ignore_errors=True)
        make_journal(os.path.join(directory, "x.journal"), data)
        return entries(directory)


class JournalTest(LogTest):
    def prepare(self):
        text = b"".join([
            entry("a service", "journal"),
            entry("two\nlines", "stdout", CODE=bytes(range(256))),
            entry("syslog", "syslog", 5, _PID="12"),
            entry("kernel trouble", "kernel", 2),
            entry("audit", "audit", HUGE=b"x" * 2000000),
        ])
        text += b"".join(entry("message %d" % i, "journal", i % 8) for i in range(500))
        self.journal = self.in_tree("/var/log/journal")
        make_journal(os.path.join(self.journal, MACHINE, "system.journal"), text)
        # Those of another machine, and of the time before the disk was there.
        make_journal(os.path.join(self.journal, "b" * 32, "system.journal"),
                     entry("another machine", "journal", machine="b" * 32, seconds_old=30))
        self.volatile = self.in_tree("/run/log/journal")
        make_journal(os.path.join(self.volatile, MACHINE, "system.journal"),
                     entry("early", "kernel", seconds_old=90))

    def test_comes_out_and_goes_in_again(self):
        kinds = self.kinds(self.saved())
        self.assertEqual(set(kinds), {"persist.export", "special.export", "signpost.export",
                                      "highvolume.export"})
        joined = self.output("joined")
        for number, place in enumerate((self.journal, self.volatile)):
            for root, directories, files in os.walk(place):
                for name in files:
                    os.makedirs(joined, exist_ok=True)
                    shutil.copy(os.path.join(root, name),
                                os.path.join(joined, "%d%s-%s" % (number, os.path.basename(root),
                                                                  name)))
        for kind, matches in (("persist", ["_TRANSPORT=journal", "_TRANSPORT=stdout"]),
                              ("special", ["PRIORITY=%d" % i for i in range(4)]),
                              ("signpost", ["_TRANSPORT=audit"]),
                              ("highvolume", ["_TRANSPORT=syslog", "_TRANSPORT=kernel"])):
            with self.subTest(kind):
                expected = entries(joined, *matches)
                self.assertGreater(len(expected), 0)
                self.assertEqual(self.imported(kinds[kind + ".export"]), expected)

    def test_is_sensitive(self):
        archive = self.collect("limited.tgz", "--without-sensitive")
        self.assertFalse([name for name, data, info in members(archive)
                          if name.startswith(ARCHIVE)])

    def test_brings_the_mode_of_the_journals_own_files(self):
        modes = {name: info.mode for name, data, info in members(self.collect())}
        self.assertEqual(modes[ARCHIVE + "persist.export"], 0o640)


class DamagedJournalTest(LogTest):
    def prepare(self):
        journal = self.in_tree("/var/log/journal")
        place = lambda name: os.path.join(journal, name + ".journal")
        make_journal(place("good"), entry("kept", "journal"))
        make_journal(place("cut"), entry("lost", "journal"))
        os.truncate(place("cut"), 300000)
        make_journal(place("corrupt"), b"".join(entry("message %d" % i, "journal")
                                                for i in range(2000)))
        with open(place("corrupt"), "r+b") as file:
            tail = struct.unpack("<Q", file.read(144)[136:])[0]
            file.seek(tail // 4096 * 4096 - 20 * 4096)
            file.write(bytes(4096))
        open(place("empty"), "wb").close()
        shutil.copy("/bin/true", place("foreign"))
        with open(place("noise"), "wb") as file:
            file.write(os.urandom(1000000))

    def test_yields_what_can_be_read(self):
        kinds = self.kinds(self.saved())
        self.assertEqual(set(kinds), {"persist.export"})
        messages = [field for fields in self.imported(kinds["persist.export"]) for field in fields
                    if field.startswith(b"MESSAGE=")]
        self.assertIn(b"MESSAGE=kept", messages)
        self.assertIn(b"MESSAGE=message 0", messages)
        self.assertIn(b"MESSAGE=message 1999", messages)
        self.assertGreater(len(messages), 1900)
        self.assertLess(len(messages), 2001)


class LongJournalTest(LogTest):
    def prepare(self):
        text = entry("too old", "journal", seconds_old=36500)
        text += b"".join(entry("message %d %s" % (i, "x" * 600), "journal", seconds_old=300)
                         for i in range(15000))
        make_journal(os.path.join(self.in_tree("/var/log/journal"), "system.journal"), text)

    def test_gives_the_newest_ten_mebibytes(self):
        data = self.kinds(self.saved())["persist.export"]
        self.assertLessEqual(len(data), 10485760)
        self.assertGreater(len(data), 10485760 - 2000)
        self.assertIn(b"MESSAGE=message 14999 ", data)
        self.assertNotIn(b"MESSAGE=message 0 ", data)


class NoLogsTest(LogTest):
    def test_a_machine_without_logs_has_none_in_its_archive(self):
        saved = self.saved()
        self.assertFalse(self.kinds(saved))
        for name in ("Logs/pre_os.log", "stw.log"):
            self.assertNotIn(name, saved)


class EarlierLogsTest(LogTest):
    def prepare(self):
        ring = b"newest\nthe oldest line\n"
        header = b"POSL" + struct.pack("<II", 14 + len(ring), 6) + b"\0\1"
        self.installation.put("/proc/sys/kern/preoslog", header + ring)
        for name, text in (("stw.log", "current"), ("stw.log.2x", "second "), ("stw.log.10", "tenth "),
                           ("stw.log.99999999999999999999", "huge "), ("stw.log.-3", "below zero"),
                           ("stw.log.0", "zero "), (".stw.log.5", "hidden"), ("readme", "no number")):
            self.installation.put("/private/var/log/stw/" + name, text)
        self.installation.put("/private/var/log/stw/directory.7/inside.8", "inside")
        # As the tree has it: a link to where the kernel keeps the records.
        records = self.installation.path("pstore")
        os.makedirs(os.path.join(records, "directory"))
        for name, data in (("dmesg-efi-1", b"Oops#1\n"), (".hidden", b"hidden"), ("\xff".encode(
                "latin-1"), b"odd name"), ("empty", b"")):
            with open(os.path.join(os.fsencode(records), os.fsencode(name)), "wb") as file:
                file.write(data)
        self.installation.link("/System/Volumes/Hardware/stashlogd", records)

    def test_all_of_them_are_in_the_archive(self):
        result, lines = self.daemon.json("start")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.daemon.json("watch")
        jobs = {line["path"]: line for line in self.daemon.json("status")[1]
                if line.get("event", "job") == "job"}
        archive = self.output("saved.tgz")
        self.assertEqual(self.daemon.client("save", archive).returncode, 0)
        saved = {name: data for name, data, info in members(archive)}
        self.assertEqual(saved["Logs/pre_os.log"], b"the oldest line\nnewest\n")
        self.assertEqual(saved["stw.log"], b"huge tenth second zero below zero")
        self.assertEqual({name: data for name, data in saved.items()
                          if name.startswith("stashlogd/")},
                         {"stashlogd/dmesg-efi-1": b"Oops#1\n", "stashlogd/.hidden": b"hidden",
                          "stashlogd/\ufffd": b"odd name"})
        # What cannot be read succeeds too, without data, and so has no member.
        for name in ("directory", "empty"):
            self.assertEqual(jobs["stashlogd/" + name]["status"], 4)
        self.assertTrue(jobs["stashlogd/dmesg-efi-1"]["sensitive"])


class FirmwareLogTest(LogTest):
    def prepare(self):
        with open(self.in_tree("/sys/firmware/log"), "wb") as file:
            file.write(b"firmware was here\n" + bytes(100))

    def test_the_firmwares_log_stands_in(self):
        self.assertEqual(self.saved()["Logs/pre_os.log"], b"firmware was here\n")


class FactoryDataTest(LogTest):
    def prepare(self):
        for path, content in (("/sys/class/dmi/id/product_serial", "SN1\n"),
                              ("/sys/block/nvme0n1/device/serial", "N1 \n"),
                              ("/sys/class/net/eth0/addr_assign_type", "0\n"),
                              ("/sys/class/net/eth0/address", "02:00:00:00:00:01\n"),
                              ("/sys/firmware/vpd/ro/calibration", b"\x00\xff")):
            place = self.installation.in_tree(path)
            while place != self.installation.tree:
                place = os.path.dirname(place)
                if os.path.islink(place):
                    os.unlink(place)  # what says that there is none
            self.installation.put(path, content)

    def test_is_a_property_list(self):
        self.assertEqual(
            plistlib.loads(self.saved()["ProvenanceDiagnosticReport.plist"]),
            {"DMI": {"product_serial": "SN1"}, "BlockDevices": {"nvme0n1": {"serial": "N1"}},
             "NetworkInterfaces": {"eth0": "02:00:00:00:00:01"},
             "VitalProductData": {"calibration": b"\x00\xff"}})

    def test_is_sensitive(self):
        names = [name for name, data, info in members(
            self.collect("limited.tgz", "--without-sensitive"))]
        self.assertNotIn("ProvenanceDiagnosticReport.plist", names)


class WindowServerTest(LogTest):
    TOOL = "/System/Library/PrivateFrameworks/Glasswork.framework/Resources/paneinfo"

    def prepare(self):
        os.makedirs(self.installation.in_tree("/private/tmp"))
        program = self.installation.path("libexec/quillsift/quillsift-paneinfo")
        shutil.copy2(os.path.join(PREFIX, "libexec/quillsift/quillsift-paneinfo"), program)
        self.installation.link(self.TOOL, program)
        self.server = XServer.virtual("321x234x24")
        self.addCleanup(self.server.stop)

    def test_shows_its_screens(self):
        # All of the machine are shown. One that starts or ends has no socket that tells its display.
        with held(X_SERVERS):
            servers = plistlib.loads(self.saved()["Graphics/paneinfo.bin"])
        mine = [server for server in servers if server["Display"] == self.server.display]
        self.assertEqual(len(mine), 1, servers)
        screen = mine[0]["Screens"][0]
        self.assertEqual((screen["Width"], screen["Height"]), (321, 234))
        self.assertEqual(screen["Windows"][0]["Width"], 321)
        self.assertTrue(screen["Outputs"][0]["Connected"])


if __name__ == "__main__":
    unittest.main()
