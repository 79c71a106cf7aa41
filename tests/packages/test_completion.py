"""Completion in bash, held against what the client accepts."""

import os
import re
import subprocess
import tempfile
import unittest

PREFIX = os.environ["QUILLSIFT_PREFIX"]
CLIENT = os.path.join(PREFIX, "bin/quillsift")
COMPLETIONS = os.path.join(PREFIX, "share/bash-completion/completions")

# What bash does on a tab: the words, the place of the cursor, the function that was named.
SCRIPT = r"""
source "$1"; program=$2; shift 2
registered=$(complete -p "${program##*/}") || exit 1
[[ $registered =~ -F\ ([^ ]+) ]] || exit 1
COMP_WORDS=("$program" "$@") COMP_CWORD=$# COMPREPLY=()
"${BASH_REMATCH[1]}" "$program"
printf '%s\n' "${COMPREPLY[@]}"
"""

LIMIT = 120  # against hangs only
COMMANDS = {"collect", "start", "status", "watch", "save", "clear"}


def completed(*words, program=CLIENT, directory=None):
    name = os.path.basename(program)
    result = subprocess.run(
        ["bash", "-c", SCRIPT, "bash", os.path.join(COMPLETIONS, name), program] + list(words),
        capture_output=True, text=True, stdin=subprocess.DEVNULL, cwd=directory, timeout=LIMIT)
    assert result.returncode == 0 and not result.stderr, result.stderr
    return {line for line in result.stdout.splitlines() if line}


def accepted(*arguments):
    """Whether the client takes these for a command line; no daemon is there to do anything."""
    result = subprocess.run([CLIENT, "--socket", "/nonexistent"] + list(arguments),
                            capture_output=True, text=True, stdin=subprocess.DEVNULL, timeout=LIMIT)
    return result.returncode != 2


class CompletionTest(unittest.TestCase):
    def test_offers_the_commands(self):
        self.assertEqual(completed(""), COMMANDS)
        self.assertEqual(completed("st"), {"start", "status"})
        self.assertEqual(completed("nothing"), set())

    def test_offers_options_where_a_dash_begins_one(self):
        self.assertEqual(completed("-"), {"--help", "--json", "--socket", "--version"})
        self.assertEqual(completed("--j"), {"--json"})
        self.assertEqual(completed("save", "--"),
                         {"--directory", "--without-sensitive", "--help", "--json", "--socket"})
        self.assertEqual(completed("clear", ""), {"--help", "--json", "--socket"})
        self.assertEqual(completed("--json", "--socket", "/x", "save", "--d"), {"--directory"})

    def test_everything_offered_is_accepted(self):
        tried = 0
        for command in completed(""):
            for option in completed(command, "--"):
                value = ["/nonexistent"] if option == "--socket" else []
                self.assertTrue(accepted(command, option, *value), (command, option))
                tried += 1
        self.assertGreaterEqual(tried, 3 * len(COMMANDS))
        self.assertFalse(accepted("collect", "--nonsense"))

    def test_everything_in_the_manual_is_offered(self):
        with open(os.path.join(PREFIX, "share/man/man1/quillsift.1")) as page:
            text = page.read()
        options = set(re.findall(r"^\.It Fl (?:h , Fl )?-([a-z-]+)", text, re.MULTILINE))
        offered = completed("-") | completed("save", "-")
        self.assertEqual({"--" + option for option in options}, offered)

    def test_offers_files_where_a_path_goes(self):
        with tempfile.TemporaryDirectory() as directory:
            os.mkdir(os.path.join(directory, "a b"))
            with open(os.path.join(directory, "archive.tgz"), "w"):
                pass
            both = {"a b", "archive.tgz"}
            self.assertEqual(completed("save", "a", directory=directory), both)
            self.assertEqual(completed("collect", "", directory=directory), both)
            self.assertEqual(completed("status", "a", directory=directory), set())
            self.assertEqual(completed("--socket", "a", directory=directory), both)
            self.assertEqual(completed("--socket", "=", "ar", directory=directory), {"archive.tgz"})
            self.assertEqual(completed("--socket", "=", directory=directory), both)

    def test_does_not_run_what_is_no_command(self):
        with tempfile.TemporaryDirectory() as directory:
            self.assertEqual(completed("$(touch %s/x)" % directory, ""), set())
            self.assertEqual(os.listdir(directory), [])

    def test_the_daemon_takes_nothing(self):
        self.assertEqual(completed("", program=os.path.join(PREFIX, "libexec/quillsiftd")), set())
        self.assertEqual(completed("-", program=os.path.join(PREFIX, "libexec/quillsiftd")), set())


if __name__ == "__main__":
    unittest.main()
