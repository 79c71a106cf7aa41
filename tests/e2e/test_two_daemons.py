"""Daemons that are passed no sockets, and so bind the well-known ones: the first keeps what it has as
long as it lives, and what it leaves behind is the next one's."""

import os
import signal
import socket
import struct
import subprocess
import unittest

from harness import KERNEL_PORT, LIMIT, Daemon, Installation, run, wait_until
from volumes import enter_namespace

# For a /run of the test's own.
WHY_NOT = enter_namespace()

DIRECTORY = "/run/io.vantor.quillsiftd"
SOCKET = DIRECTORY + "/socket"
PORT = os.path.join(DIRECTORY, KERNEL_PORT)
FOREIGN = 5


@unittest.skipIf(WHY_NOT, WHY_NOT)
class TwoDaemonsTest(unittest.TestCase):
    def setUp(self):
        self.installation = Installation()
        self.addCleanup(self.installation.remove)
        self.installation.stand_in_plan()

    def start(self):
        daemon = subprocess.Popen([self.installation.path("libexec/quillsiftd")],
                                  stdin=subprocess.DEVNULL, cwd="/")
        self.addCleanup(self.end, daemon)
        wait_until(lambda: daemon.poll() is not None or self.port_answers(), "the port is open")
        self.assertIsNone(daemon.poll())
        return daemon

    @staticmethod
    def end(daemon, by=signal.SIGTERM):
        if daemon.poll() is None:
            daemon.send_signal(by)
        daemon.wait(LIMIT)

    def status(self):
        return run([self.installation.path("bin/quillsift"), "--socket", SOCKET, "status"]).returncode

    @staticmethod
    def port_answers():
        """What comes last when a daemon starts."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as port:
            port.settimeout(LIMIT)
            try:
                port.connect(PORT)
            except OSError:
                return False
            port.send(struct.pack("<6I8si", 0x12, 36, 0, 0, 0, 31338, b"\0\0\0\0\1\0\0\0", 55))
            return struct.unpack_from("<i", port.recv(100), 32)[0] == FOREIGN

    def places(self):
        return [os.stat(path).st_ino for path in (SOCKET, PORT)]

    def test_a_second_one_says_that_the_place_is_taken_and_ends(self):
        first = self.start()
        places = self.places()
        second = run([self.installation.path("libexec/quillsiftd")])
        self.assertEqual(second.returncode, 1)
        self.assertIn("quillsiftd: cannot listen: ", second.stderr)
        self.assertIn("Address already in use", second.stderr)
        self.assertIn(SOCKET, second.stderr)
        self.assertEqual(self.places(), places)
        self.assertIsNone(first.poll())
        self.assertEqual(self.status(), 0)
        self.assertTrue(self.port_answers())

    def test_one_with_a_socket_of_its_own_leaves_the_port_where_it_is(self):
        first = self.start()
        places = self.places()
        second = Daemon(self.installation, passes_port=False)
        self.addCleanup(second.stop)
        # It tries for the port before it can have carried out all this.
        self.assertEqual(second.client("status").returncode, 0)
        self.assertEqual(second.client("collect", self.installation.path("a.tgz")).returncode, 0)
        self.assertEqual(self.places(), places)
        self.end(first)
        self.assertFalse(self.port_answers())
        self.assertTrue(second.is_running())

    def test_what_a_dead_one_leaves_behind_is_taken_over(self):
        first = self.start()
        self.end(first, by=signal.SIGKILL)
        self.assertFalse(self.port_answers())
        self.start()
        self.assertEqual(self.status(), 0)


if __name__ == "__main__":
    unittest.main()
