"""The companion's own archive stands in the saved one, or is honestly absent."""

import os
import plistlib
import socket
import unittest

from companion import DIRECTORY, Companion, file_of
from harness import DaemonTest, members
from volumes import SystemLog, enter_namespace

# For a system log of the test's own.
WHY_NOT = enter_namespace()

NAME = "corvane_7.tar.gz"
DEFAULT_NAME = "corvane_omnitrawl_unknown.tar.gz"
PROPERTIES = "RemoteDeviceInformation.plist"


@unittest.skipIf(WHY_NOT, WHY_NOT)
class CompanionTest(DaemonTest):
    companion = None

    def prepare(self):
        self.log = SystemLog()
        self.addCleanup(self.log.socket.close)

    def meet(self, behaviour, **options):
        self.companion = Companion(self.installation.in_tree(DIRECTORY), behaviour, **options)
        self.addCleanup(self.companion.stop)

    def collected(self):
        path = self.output("saved.tgz")
        result = self.daemon.client("collect", path)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.summary = result.stdout
        saved = {name: data for name, data, info in members(path)}
        self.assertIn("lsof.txt", saved)
        if self.companion:
            self.assertEqual(self.companion.failures, [])
        return saved

    def assert_absent(self, *lines, asked=True):
        """No archive, these lines in the log, and nothing of the companion in it beyond them."""
        self.assertEqual([name for name in self.collected() if "corvane" in name], [])
        self.assertEqual(len(self.companion.requests) if self.companion else 0, int(asked))
        for line in lines:
            self.log.wait_for(line)
        if asked:
            self.log.wait_for("Failed to archive Corvane diagnose. (Handle Valid:")

    def send_file(self, peer, descriptor, **options):
        peer.send_file(descriptor, **options)
        os.close(descriptor)

    def test_the_archive_stands_under_its_own_name(self):
        content = os.urandom(3 * 1000 * 1000)
        self.meet(lambda peer: self.send_file(peer, file_of(content)))
        self.assertEqual(self.collected()[NAME], content)
        self.assertEqual(len(self.companion.requests), 1)

    def test_an_archive_that_comes_slowly_through_a_pipe_is_whole(self):
        def slowly(peer):
            reader, writer = os.pipe()
            self.send_file(peer, reader, name=None, kind=65537)
            for _ in range(40):
                os.write(writer, b"x" * 50000)
            os.close(writer)

        self.meet(slowly)
        self.assertEqual(self.collected()[DEFAULT_NAME], b"x" * 2000000)

    def test_a_name_leads_nowhere_else(self):
        self.meet(lambda peer: self.send_file(peer, file_of(b"a"), name="../../x.tar"))
        self.assertEqual(self.collected()["..-..-x.tar"], b"a")

    def test_without_a_companion_there_is_no_archive(self):
        self.assert_absent("Cannot construct QSCorvaneDiagnose. QSCorvaneErrorDomain 1",
                           asked=False)

    def test_a_socket_without_anybody_behind_it(self):
        self.meet(lambda peer: None)
        self.companion.stop()
        self.assert_absent("because the device (corvane0) is not connected.",
                           asked=False)

    def test_a_companion_that_does_not_offer_the_service(self):
        self.meet(lambda peer: None, offers=False)
        self.assert_absent("cannot get service for device (corvane0).",
                           asked=False)

    def test_a_companion_that_never_says_a_word(self):
        self.meet(lambda peer: None, answers=False)
        self.assert_absent("cannot get service for device (corvane0).",
                           asked=False)

    def test_a_failure(self):
        self.meet(lambda peer: peer.send(
            [("RESPONSE_TYPE", "t", 2), ("FAILURE_REASON", "t", 77)]))
        self.assert_absent("Failed to receive Corvane omnitrawl. Failure Code: 77")

    def test_a_directory_is_no_archive(self):
        self.meet(lambda peer: self.send_file(peer, os.open("/", os.O_RDONLY)))
        self.assert_absent("weft_file_transfer_write_to_fd failed. Is a directory")

    def test_a_device_is_no_archive(self):
        self.meet(lambda peer: self.send_file(peer, os.open("/dev/zero", os.O_RDONLY)))
        self.assert_absent("weft_file_transfer_write_to_fd failed. Invalid argument")

    def test_more_than_is_kept(self):
        def ten_gigabytes(peer):
            descriptor = file_of(b"")
            os.truncate(descriptor, 10 * 1000 ** 3)
            self.send_file(peer, descriptor)

        self.meet(ten_gigabytes)
        self.assert_absent("Read Error: POSIX 27: File too large")

    def test_death_before_the_answer(self):
        self.meet(lambda peer: peer.die())
        self.assert_absent("'io.vantor.omnitrawl.remote' terminated with an Weft error: ")

    def test_death_in_the_middle_of_a_transfer(self):
        def die(peer):
            reader, writer = os.pipe()
            peer.keep(writer)
            self.send_file(peer, reader)
            os.write(writer, b"half")
            peer.die()

        self.meet(die)
        self.assert_absent("terminated with an Weft error: ")

    def test_a_message_of_another_kind(self):
        self.meet(lambda peer: peer.send([], member="Surprise"))
        self.assert_absent("terminated with event type: Surprise(a{sv})")

    def test_a_name_of_no_use_is_replaced(self):
        self.meet(lambda peer: self.send_file(peer, file_of(b"a"), name="x" * 300 + ".tar"))
        self.assertEqual(self.collected()[DEFAULT_NAME], b"a")

    def test_a_file_of_no_bytes_is_no_failure_and_no_member(self):
        self.meet(lambda peer: self.send_file(peer, file_of(b"")))
        self.assertNotIn(NAME, self.collected())
        self.assertRegex(self.summary, r"done +corvane_7\.tar\.gz \(0 bytes\)")
        self.log.wait_for("Connection Invalidated")  # after everything that the session said
        self.assertEqual(self.log.matching("Corvane diagnose"), [])

    def test_an_archive_that_comes_through_a_socket(self):
        def through_a_socket(peer):
            ours, theirs = socket.socketpair()
            self.send_file(peer, theirs.detach())
            ours.sendall(b"x" * 1000000)
            ours.close()

        self.meet(through_a_socket)
        self.assertEqual(self.collected()[NAME], b"x" * 1000000)

    def test_a_socket_of_datagrams_is_no_archive(self):
        def datagrams(peer):
            ours, theirs = socket.socketpair(type=socket.SOCK_DGRAM)
            peer.keep(ours.detach())
            self.send_file(peer, theirs.detach())

        self.meet(datagrams)
        self.assert_absent("weft_file_transfer_write_to_fd failed. Invalid argument")

    def test_the_wrong_end_of_a_pipe_is_no_archive(self):
        def wrong_end(peer):
            reader, writer = os.pipe()
            peer.keep(reader)
            self.send_file(peer, writer)

        self.meet(wrong_end)
        self.assert_absent("weft_file_transfer_write_to_fd failed. Bad file descriptor")

    def test_the_first_of_two_files_is_the_archive(self):
        def twice(peer):
            reader, writer = os.pipe()
            self.send_file(peer, reader)
            self.send_file(peer, file_of(b"second"))
            # The last transfer to end decides whether the archive is valid.
            self.log.wait_for("weft_file_transfer_write_to_fd failed. Bad file descriptor")
            os.write(writer, b"first")
            os.close(writer)

        self.meet(twice)
        saved = self.collected()
        self.assertEqual(saved[NAME], b"first")
        self.assertNotIn(b"second", saved.values())

    def test_what_is_no_answer_is_passed_over(self):
        def in_the_end(peer):
            peer.send([("RESPONSE_TYPE", "t", 3)])
            peer.send([("RESPONSE_TYPE", "t", 65536 + 7)])
            peer.send([("RESPONSE_TYPE", "s", "1")])
            peer.send([])
            peer.send([("RESPONSE_TYPE", "t", 1), ("FILE_NAME", "s", "without.tar")])
            self.send_file(peer, file_of(b"a"), kind=(7 << 16) + 1)

        self.meet(in_the_end)
        self.assertEqual(self.collected()[NAME], b"a")
        for line in ("Unknown response type received: 3", "Unknown response type received: 7",
                     "Unknown response type received: 0", "Did not receive a file transfer object. "
                     'Weft Response: { "RESPONSE_TYPE": 1, "FILE_NAME": "without.tar" }'):
            self.log.wait_for(line)

    def test_death_after_an_answer_without_a_file(self):
        def die(peer):
            peer.send([("RESPONSE_TYPE", "t", 1)])
            peer.die()

        self.meet(die)
        self.assert_absent("Did not receive a file transfer object.",
                           "terminated with an Weft error: ")

    def test_death_while_it_is_met(self):
        refused = "cannot get service for device (corvane0)."
        for state in ("accepted", "shaking hands", "asked"):
            with self.subTest(state):
                before = len(self.log.matching(refused))
                self.meet(lambda peer: None, dies=state)
                self.assert_absent(asked=False)
                self.log.wait_for(refused, before + 1)
                self.companion.stop()
                os.unlink(os.path.join(self.installation.in_tree(DIRECTORY), "corvane0"))

    def test_death_before_it_is_asked_for_anything(self):
        self.meet(lambda peer: None, dies="offering")
        self.assertEqual([name for name in self.collected() if "corvane" in name], [])
        death = self.log.wait_for("terminated with an Weft error: ")
        asked = self.log.wait_for("Starting Corvane omnitrawl")
        if self.log.received.index(asked) < self.log.received.index(death):
            self.log.wait_for("Failed to archive Corvane diagnose. (Handle Valid:")
        # Else nobody is left who could close the pipe: its reader waits until the session ends.

    def test_its_properties_are_collected(self):
        self.meet(lambda peer: self.send_file(peer, file_of(b"a")), properties=[
            ("Name", "s", "Corvane 7"), ("Boots", "t", 2 ** 63), ("Key", "ay", b"\0\xff")])
        saved = self.collected()
        self.assertEqual(saved[NAME], b"a")
        self.assertEqual(plistlib.loads(saved[PROPERTIES]),
                         {"Name": "Corvane 7", "Boots": 2 ** 63, "Key": b"\0\xff"})

    def test_properties_are_had_of_a_companion_without_an_archive(self):
        self.meet(lambda peer: None, offers=False, properties=[])
        self.assertEqual(plistlib.loads(self.collected()[PROPERTIES]), {})

    def test_without_properties_there_is_no_list_of_them(self):
        self.meet(lambda peer: self.send_file(peer, file_of(b"a")))
        saved = self.collected()
        self.assertEqual(saved[NAME], b"a")
        self.assert_no_properties(saved)

    def test_without_a_companion_there_are_no_properties(self):
        self.assert_no_properties(self.collected())

    def test_too_many_properties_are_none(self):
        self.meet(lambda peer: self.send_file(peer, file_of(b"a")),
                  properties=[("Big", "s", "x" * 2000000)])
        saved = self.collected()
        self.assertEqual(saved[NAME], b"a")
        self.assert_no_properties(saved)

    def assert_no_properties(self, saved):
        self.assertNotIn(PROPERTIES, saved)
        self.assertRegex(self.summary, r"failed +RemoteDeviceInformation\.plist")

    def test_a_name_that_is_not_text_ends_the_connection(self):
        self.meet(lambda peer: self.send_file(peer, file_of(b"a"), name=b"\xff\xfe.tar"))
        self.assert_absent("terminated with an Weft error: ")


if __name__ == "__main__":
    unittest.main()
