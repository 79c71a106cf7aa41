"""A command that hangs past every wait of the plan is killed at the end, in real time: three and a
half minutes, nearly all of them idle."""

import unittest

from harness import DaemonTest, members


class HangingCommandTest(DaemonTest):
    def test_is_killed_in_the_end_sequence_and_its_output_is_kept(self):
        self.installation.script("/bin/df", "echo before; exec sleep 3600\n")
        archive = self.collect()
        saved = {name: data for name, data, info in members(archive)}
        self.assertEqual(saved["df_disks.txt"], b"before\n")
        self.assertIn("lsof.txt", saved)


if __name__ == "__main__":
    unittest.main()
