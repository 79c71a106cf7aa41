"""The client as a person meets it: on a terminal, with default names, interrupted and cut off."""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import unittest

from harness import DaemonTest, LIMIT, members, wait_until


class Screen:
    """What a terminal shows after the output of a program, for the sequences that we use."""

    def __init__(self, columns):
        self.columns = columns
        self.rows = [""]
        self.row = 0
        self.column = 0

    def feed(self, text):
        for sequence, char in re.findall(r"(\x1b\[\d*[A-Za-z])|(.)", text, re.DOTALL):
            if sequence:
                self.obey(int(sequence[2:-1] or 1), sequence[-1])
            elif char == "\r":
                self.column = 0
            elif char == "\n":
                self.row += 1
                while len(self.rows) <= self.row:
                    self.rows.append("")
            else:
                line = self.rows[self.row].ljust(self.column)
                self.rows[self.row] = line[:self.column] + char + line[self.column + 1:]
                self.column += 1

    def obey(self, number, letter):
        if letter == "A":
            self.row = max(0, self.row - number)
            return
        if letter not in "JK":
            raise AssertionError("a sequence that terminals may not have: %d%s" % (number, letter))
        self.rows[self.row] = self.rows[self.row][:self.column]
        if letter == "J":
            del self.rows[self.row + 1:]

    def text(self):
        return "\n".join(self.rows)


class TerminalTest(DaemonTest):
    def on_terminal(self, *arguments, columns=80, until=None, then=None):
        """Runs the client on a terminal; `then` is done once `until` has been printed."""
        terminal, inside = pty.openpty()
        fcntl.ioctl(inside, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        before = termios.tcgetattr(terminal)
        process = subprocess.Popen(
            [self.installation.path("bin/quillsift"), "--socket", self.daemon.socket_path]
            + list(arguments), stdin=inside, stdout=inside, stderr=inside,
            env=dict(os.environ, TERM="linux", LC_ALL="C.UTF-8"), start_new_session=True,
            # The terminal of its session, which its keys interrupt.
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        os.close(inside)
        raw = b""
        for part in self.shown(terminal):
            raw += part
            if until is not None and until in raw:
                self.assertEqual(termios.tcgetattr(terminal), before)
                until = None
                then(terminal)
        os.close(terminal)
        status = process.wait(LIMIT)
        screen = Screen(columns)
        screen.feed(raw.decode())
        return status, raw.decode(), screen

    @staticmethod
    def shown(terminal):
        """What is written at the other end, part by part, until that is closed."""
        while True:
            if not select.select([terminal], [], [], LIMIT)[0]:
                raise AssertionError("nothing more came to the terminal, and nobody left it")
            try:
                yield os.read(terminal, 65536)
            except OSError:
                return

    def test_the_view_is_redrawn_in_place_and_leaves_a_summary(self):
        self.installation.script("/usr/sbin/lsof",
                                 self.installation.until_exists(self.output("go-on")))

        def go_on(terminal):
            with open(self.output("go-on"), "w"):
                pass

        archive = self.output("a.tgz")
        status, raw, screen = self.on_terminal("collect", archive, until=b"lsof.txt", then=go_on)
        self.assertEqual(status, 0, screen.text())
        self.assertIn("Collecting: ", raw)
        self.assertNotIn("Collecting: ", screen.text())
        self.assertNotIn("[#", screen.text())
        self.assertIn("The session finished at ", screen.text())
        self.assertIn("Saved to %s" % archive, screen.text())
        self.assertEqual(screen.rows[-1], "")
        self.assertTrue(members(archive))

    def test_no_line_of_the_view_is_wider_than_the_terminal(self):
        status, raw, screen = self.on_terminal("collect", self.output("a.tgz"), columns=40)
        self.assertEqual(status, 0, screen.text())
        views = re.findall(r"(?:Collecting: |  \[[#.])[^\x1b]*\x1b\[K", raw)
        self.assertTrue(views)
        for view in views:
            self.assertLess(len(view.removesuffix("\x1b[K")), 40, view)

    def test_control_c_leaves_the_session_and_a_clean_terminal(self):
        self.installation.script("/usr/sbin/lsof",
                                 self.installation.until_exists(self.output("go-on")))
        status, raw, screen = self.on_terminal(
            "collect", self.output("a.tgz"), until=b"lsof.txt",
            then=lambda terminal: os.write(terminal, b"\x03"))
        self.assertEqual(status, 1, screen.text())
        self.assertIn("quillsift: interrupted; the session stays in the daemon", screen.text())
        self.assertNotIn("Collecting: ", screen.text())
        with open(self.output("go-on"), "w"):
            pass
        self.collect("joined.tgz")

    def test_a_dumb_terminal_gets_plain_lines(self):
        environment = dict(os.environ, TERM="dumb")
        main, terminal = pty.openpty()
        self.addCleanup(os.close, main)
        process = subprocess.Popen(
            [self.installation.path("bin/quillsift"), "--socket", self.daemon.socket_path, "status"],
            stdout=terminal, env=environment)
        os.close(terminal)
        self.assertEqual(b"".join(self.shown(main)), b"No session: nothing is collected.\r\n")
        self.assertEqual(process.wait(LIMIT), 0)


class NamesTest(DaemonTest):
    def test_the_default_name_is_made_of_date_model_and_build(self):
        result = self.daemon.client("collect", cwd=self.directory)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        names = os.listdir(self.directory)
        self.assertEqual(len(names), 1)
        self.assertRegex(names[0], r"\Aquillsift_\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d-[A-Z]+[^_]*_Lumina14-2_25A123"
                                   r"\.tgz\Z")
        self.assertTrue(members(os.path.join(self.directory, names[0])))

    def test_a_limited_archive_says_so_and_leaves_out_what_is_sensitive(self):
        result = self.daemon.client("collect", "--without-sensitive", self.directory)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        name, = os.listdir(self.directory)
        self.assertTrue(name.endswith("_Lumina14-2_25A123_limited.tgz"), name)
        full = members(self.collect("full.tgz"))
        limited = members(os.path.join(self.directory, name))
        left_out = int(re.search(r"left out (\d+) sensitive result", result.stdout).group(1))
        self.assertGreater(left_out, 0)
        self.assertEqual(len(full) - len(limited), left_out)


class BrokenOffTest(DaemonTest):
    def popen(self, *arguments, **options):
        return subprocess.Popen(
            [self.installation.path("bin/quillsift"), "--socket", self.daemon.socket_path]
            + list(arguments), text=True, **options)

    def test_an_interrupted_save_goes_on(self):
        # As random as it gets, for a save that takes its time.
        self.installation.script("/bin/df", "head -c 20000000 /dev/urandom\n")
        self.daemon.client("start")
        self.daemon.client("watch")
        archive = self.output("a.tgz")
        client = self.popen("save", archive, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        wait_until(lambda: os.path.exists(archive + ".inprogress") or os.path.exists(archive),
                   "the save has begun")
        # It stands still until the client has been interrupted.
        self.daemon.process.send_signal(signal.SIGSTOP)
        self.addCleanup(self.daemon.process.send_signal, signal.SIGCONT)
        os.waitid(os.P_PID, self.daemon.process.pid, os.WSTOPPED)
        if os.path.exists(archive):
            self.daemon.process.send_signal(signal.SIGCONT)
            client.communicate(timeout=LIMIT)
            self.skipTest("the save was faster than the interrupt")
        client.send_signal(signal.SIGINT)
        output, error = client.communicate(timeout=LIMIT)
        self.daemon.process.send_signal(signal.SIGCONT)
        self.assertEqual(client.returncode, 1)
        self.assertIn("the daemon goes on saving to " + archive, error)
        wait_until(lambda: os.path.exists(archive), "the save has ended")
        self.assertIn("df_disks.txt", [name for name, data, info in members(archive)])

    def test_a_closed_output_is_told_and_the_session_goes_on(self):
        reader, writer = os.pipe()
        os.close(reader)
        client = self.popen("collect", self.output("a.tgz"), stdout=writer, stderr=subprocess.PIPE)
        os.close(writer)
        error = client.stderr.read()
        self.assertEqual(client.wait(LIMIT), 1)
        client.stderr.close()
        self.assertIn("cannot write to standard output: Broken pipe", error)
        self.assertEqual(self.daemon.client("watch").returncode, 0)

    def test_an_output_that_was_never_open_is_told(self):
        # The connection must not take the place of the closed descriptor.
        for redirection in (">&-", "<&- >&-", ">/dev/full"):
            with self.subTest(redirection):
                client = subprocess.run(
                    ["sh", "-c", '"$0" --socket "$1" status ' + redirection,
                     self.installation.path("bin/quillsift"), self.daemon.socket_path],
                    stderr=subprocess.PIPE, text=True, timeout=LIMIT)
                self.assertEqual(client.returncode, 1)
                self.assertIn("cannot write to standard output", client.stderr)


class JsonTest(DaemonTest):
    def test_every_line_is_an_object_with_an_event(self):
        self.installation.script("/usr/bin/relquery", "exit 3\n")
        archive = self.output("a.tgz")
        result, lines = self.daemon.json("collect", archive)
        self.assertEqual(result.returncode, 0, result.stderr)
        events = [line["event"] for line in lines]
        self.assertEqual(events[0], "started")
        self.assertEqual(events[-1], "saved")
        summary, = (line for line in lines if line["event"] == "summary")
        problem, = (one for one in summary["problems"] if one["path"] == "relquery.txt")
        self.assertEqual(problem["state"], "nonZeroExit")
        self.assertIn("Exited with Code:3", problem["reason"])
        self.assertEqual(lines[-1]["path"], archive)
        result, lines = self.daemon.json("save", archive)
        self.assertEqual((result.returncode, lines[-1]["event"], lines[-1]["exitCode"]),
                         (1, "error", 1))


if __name__ == "__main__":
    unittest.main()
