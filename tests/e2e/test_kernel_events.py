"""The kernel's own messages: a real event starts a session and a forged one does not; raw requests
over the local socket; a front end that ends at once; a burst."""

import os
import socket
import struct
import subprocess
import unittest
import uuid

from exclusive import KERNEL_EVENTS, held
from harness import (KERNEL_PORT, LIMIT, NETLINK_KOBJECT_UEVENT, Daemon, DaemonTest, root_only,
                     wait_until)

FRONT_END = "/System/Installation/CDIS/Quillsift GUI.app/Contents/LuminaOS/Quillsift GUI"
TERMINAL = "/dev/tty0"
UEVENT = "/sys/devices/virtual/mem/null/uevent"
COMPLEX = 0x80000000
INVERT, RESTORE = b"\x1b[?5h", b"\x1b[?5l"


def kernel_event(code):
    """Has the kernel itself tell everybody of an event."""
    with open(UEVENT, "w") as file:
        file.write("change %s QSEVENT=%d" % (uuid.uuid4(), code))


def request(bits=0x12, size=36, identifier=31338, event=55):
    return struct.pack("<6I8si", bits, size, 0x0A0B0C0D, 0, 0, identifier,
                       b"\0\0\0\0\1\0\0\0", event)


class KernelPortTest(DaemonTest):
    def prepare(self):
        self.flashes = self.installation.in_tree(TERMINAL)
        self.starts = self.installation.path("starts")
        self.installation.put(TERMINAL, "")
        self.set_front_end("exit 3")

    def set_front_end(self, ending):
        self.installation.script(FRONT_END, "echo start >> '%s'\n%s\n" % (self.starts, ending))

    def start(self):
        return Daemon(self.installation, hears_kernel=True)

    def count_of_starts(self):
        if not os.path.exists(self.starts):
            return 0
        with open(self.starts) as file:
            return len(file.readlines())

    def flash(self):
        with open(self.flashes, "rb") as file:
            return file.read()

    def wait_until_open(self):
        """Until the port hears: what answers was opened last."""
        self.assertEqual(self.ask(self.connect(), request())[0], 5)

    def starts_again(self):
        """Whether an event starts the front end a second time. Its end is nowhere to be seen, and
        before that an event starts none."""
        kernel_event(55)
        return self.count_of_starts() >= 2

    def connect(self):
        port = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.addCleanup(port.close)
        port.settimeout(LIMIT)
        port.connect(self.installation.path(KERNEL_PORT))
        return port

    def ask(self, port, message):
        port.send(message)
        return self.reply(port)

    def reply(self, port):
        reply = port.recv(100)
        self.assertEqual(len(reply), 36)
        bits, size, remote, local, voucher, identifier, representation, code = struct.unpack(
            "<6I8si", reply)
        self.assertEqual((size, local, voucher, representation),
                         (36, 0, 0, b"\0\0\0\0\1\0\0\0"))
        return code, identifier, bits, remote

    def assert_nothing_happened(self):
        self.assertEqual(self.flash(), b"")
        self.assertEqual(self.count_of_starts(), 0)
        self.assertFalse(self.has_session())

    def has_session(self):
        result = self.daemon.dbus_send("queryJobStatusInformationWithReply")
        self.assertEqual(result.returncode, 0, result.stderr)
        return "QSJobInfoRelativeFilePathAndName" in result.stdout


@root_only
class KernelEvent(KernelPortTest):
    def setUp(self):
        self.enterContext(held(KERNEL_EVENTS))
        super().setUp()

    def test_an_event_of_the_kernel_starts_a_session(self):
        self.wait_until_open()
        kernel_event(55)
        wait_until(lambda: self.flash() == INVERT + RESTORE, "the display flashed once")
        wait_until(lambda: self.count_of_starts() == 1, "the front end was started")
        wait_until(self.has_session, "the session has jobs")
        # One that ended at once is started again.
        wait_until(self.starts_again, "the front end was started again")

    def test_an_event_during_a_session_is_refused_for_all_to_see(self):
        gate = self.installation.path("gate")
        self.installation.script("/usr/sbin/lsof", self.installation.until_exists(gate))
        self.wait_until_open()
        kernel_event(55)
        wait_until(lambda: self.flash() == INVERT + RESTORE, "the display flashed once")
        wait_until(lambda: self.count_of_starts() == 1, "the front end was started")
        kernel_event(55)
        # Each opening begins at the start of this file, where a terminal would scroll on.
        wait_until(lambda: self.flash() == 2 * (INVERT + RESTORE), "the display flashed twice")
        wait_until(self.starts_again, "the front end was started again")
        with open(gate, "w"):
            pass

    def test_other_codes_and_forged_events_do_nothing(self):
        self.wait_until_open()
        forger = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_KOBJECT_UEVENT)
        self.addCleanup(forger.close)
        text = (b"change@/devices/virtual/mem/null\0ACTION=change\0"
                b"DEVPATH=/devices/virtual/mem/null\0SUBSYSTEM=mem\0SYNTH_ARG_QSEVENT=55\0")
        witness = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_KOBJECT_UEVENT)
        self.addCleanup(witness.close)
        witness.bind((0, 1))
        witness.settimeout(LIMIT)
        forger.sendto(text, (0, 1))
        while witness.recv(8192) != text:
            pass  # it went out
        kernel_event(54)
        # Events are read before requests, and all are handled in order: once this is answered the
        # two have been dealt with.
        self.assertEqual(self.ask(self.connect(), request())[0], 5)
        self.assert_nothing_happened()
        kernel_event(55)
        wait_until(lambda: self.count_of_starts() == 1, "the true event was heard")

    def test_a_burst_leaves_the_service_answering(self):
        self.wait_until_open()
        code = ("import sys, uuid\n"
                "with open('%s', 'w', buffering=1) as file:\n"
                "    for i in range(int(sys.argv[1])):\n"
                "        file.write('change 00000000-0000-0000-0000-000000000000 QSEVENT=%%d\\n'"
                " %% (55 if i %% 1000 == 0 else 54))\n" % UEVENT)
        burst = subprocess.Popen(["python3", "-c", code, "100000"])
        self.addCleanup(burst.wait)
        self.addCleanup(burst.kill)
        answers = 0
        while burst.poll() is None:
            self.assertEqual(self.daemon.client("status").returncode, 0)
            answers += 1
        self.assertEqual(burst.returncode, 0)
        self.assertGreater(answers, 0)
        wait_until(lambda: self.count_of_starts() >= 1, "an event of the burst was heard")
        self.assertTrue(self.daemon.is_running())
        code, *_ = self.ask(self.connect(), request())
        self.assertEqual(code, 5)


class RawRequest(KernelPortTest):
    def start(self):
        return Daemon(self.installation)

    def test_every_request_is_answered_and_none_starts_anything(self):
        port = self.connect()
        for message, code in (
                (request(), 5), (request(event=54), 5),
                (request(identifier=31337), 46), (request(identifier=31337, event=1), 46),
                (request(identifier=31336), -303), (request(identifier=31339), -303), (b"x", -303),
                (request(bits=COMPLEX), -304), (request(size=35), -304), (request()[:35], -304),
                (request() + b"x", -304), (request(identifier=31337, bits=COMPLEX), -304),
                # A trailer of one's own is no trailer.
                (request() + b"\0\0\0\0" + struct.pack("<I", 52) + bytes(44), -304),
                (request(size=88) + b"\0\0\0\0" + struct.pack("<I", 52) + bytes(44), -304)):
            answer = self.ask(port, message)
            self.assertEqual(answer[0], code, message)
            if len(message) >= 24:
                identifier = struct.unpack_from("<I", message, 20)[0]
                self.assertEqual(answer[1], identifier + 100)
                self.assertEqual(answer[2:], (struct.unpack_from("<I", message)[0] & 0x1F,
                                              0x0A0B0C0D))
        self.assert_nothing_happened()

    def test_many_senders_are_all_answered(self):
        ports = [self.connect() for _ in range(20)]
        for port in ports:
            for _ in range(50):
                port.send(request())
        for port in ports:
            for _ in range(50):
                self.assertEqual(self.reply(port)[0], 5)
        self.assert_nothing_happened()


if __name__ == "__main__":
    unittest.main()
