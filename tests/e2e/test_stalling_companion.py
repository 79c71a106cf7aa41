"""A companion that sends half of its archive and then nothing more is waited for as long as the plan
says and no longer, in real time: three and a half minutes, nearly all of them idle."""

import os
import unittest

from companion import DIRECTORY, Companion
from harness import DaemonTest, members
from volumes import SystemLog, enter_namespace

# For a system log of the test's own.
WHY_NOT = enter_namespace()


@unittest.skipIf(WHY_NOT, WHY_NOT)
class StallingCompanionTest(DaemonTest):
    def prepare(self):
        self.log = SystemLog()
        self.addCleanup(self.log.socket.close)

    def test_is_given_up_and_everything_else_is_saved(self):
        def stall(peer):
            reader, writer = os.pipe()
            peer.keep(writer)
            peer.send_file(reader)
            os.close(reader)
            os.write(writer, b"half")

        companion = Companion(self.installation.in_tree(DIRECTORY), stall,
                              properties=[("Name", "s", "Corvane 7")])
        self.addCleanup(companion.stop)
        saved = {name: data for name, data, info in members(self.collect())}
        self.assertEqual(companion.failures, [])
        self.assertEqual(len(companion.requests), 1)
        self.assertEqual([name for name in saved if "corvane" in name], [])
        self.assertIn("lsof.txt", saved)
        self.assertIn("RemoteDeviceInformation.plist", saved)
        self.log.wait_for("Failed to archive Corvane diagnose. (Handle Valid: 0, Archive Valid: 0, ")


if __name__ == "__main__":
    unittest.main()
