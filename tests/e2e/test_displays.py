"""Pictures of displays in a session of an internal build: which displays, under which names, and
whether they show what was drawn."""

import os
import struct
import unittest
import zlib
from collections import Counter

from harness import DaemonTest, members, root_only, run
from x_servers import XServer


class Picture:
    """A PNG of eight bits a colour, read by the book: every length, checksum and filter."""

    def __init__(self, data):
        assert data[:8] == b"\x89PNG\r\n\x1a\n", data[:8]
        chunks = list(self.chunks(data[8:]))
        assert chunks[0][0] == b"IHDR" and chunks[-1] == (b"IEND", b""), chunks
        width, height, *kind = struct.unpack(">IIBBBBB", chunks[0][1])
        assert kind == [8, 2, 0, 0, 0], kind
        self.size = width, height
        pixels = zlib.decompress(b"".join(body for name, body in chunks if name == b"IDAT"))
        stride = 3 * width + 1
        assert len(pixels) == stride * height
        self.rows = []
        above = bytes(3 * width)
        for start in range(0, len(pixels), stride):
            above = self.unfiltered(pixels[start], pixels[start + 1:start + stride], above)
            self.rows.append(above)

    @staticmethod
    def chunks(data):
        while data:
            length, name = struct.unpack(">I4s", data[:8])
            body, checksum = data[8:8 + length], data[8 + length:12 + length]
            assert struct.pack(">I", zlib.crc32(name + body)) == checksum, name
            yield name, body
            data = data[12 + length:]

    @staticmethod
    def unfiltered(kind, row, above):
        # Each row as it is, or as the difference to the one above it: we write no other filters.
        assert kind in (0, 2), kind
        return row if kind == 0 else bytes((a + b) & 0xFF for a, b in zip(row, above))

    def at(self, x, y):
        return tuple(self.rows[y][3 * x:3 * x + 3])

    def colours(self, first_row=0):
        """How many pixels of each colour there are from this row on."""
        return Counter(row[i:i + 3].hex() for row in self.rows[first_row:]
                       for i in range(0, len(row), 3))


class DisplaysTest(DaemonTest):
    VARIANT = "VARIANT_ID=internal\n"

    def prepare(self):
        self.installation.put("/etc/os-release", "ID=rescue\n" + self.VARIANT)

    def show(self, server):
        """Makes it the X server of the machine."""
        self.addCleanup(server.stop)
        directory = self.installation.in_tree("/tmp/.X11-unix")
        os.unlink(directory)
        os.makedirs(directory)
        server.put_at(directory + "/X0")
        return server

    def pictures(self, *arguments):
        """The pictures of a session by their names, decoded."""
        archive = self.collect("saved.tgz", *arguments)
        return {name: Picture(data) for name, data, info in members(archive)
                if name.startswith("screenshots/")}

    def jobs(self):
        self.daemon.client("start")
        self.daemon.client("watch")
        result, lines = self.daemon.json("status")
        jobs = {line["path"]: line for line in lines if line.get("event", "job") == "job"}
        return {path: job for path, job in jobs.items() if path.startswith("screenshots/")}


class VirtualScreenTest(DisplaysTest):
    def test_a_picture_shows_what_was_drawn(self):
        server = self.show(XServer.virtual("1280x800x24"))
        server.draw("0 0 1280 800 102030", "200 100 300 50 FFCC00", "1279 799 1 1 00FF00")
        pictures = self.pictures()
        self.assertEqual(list(pictures), ["screenshots/0.png"])
        picture = pictures["screenshots/0.png"]
        self.assertEqual(picture.size, (1280, 800))
        self.assertEqual(picture.at(0, 0), (0x10, 0x20, 0x30))
        self.assertEqual(picture.at(200, 100), (0xFF, 0xCC, 0))
        self.assertEqual(picture.at(499, 149), (0xFF, 0xCC, 0))
        self.assertEqual(picture.at(500, 149), (0x10, 0x20, 0x30))
        self.assertEqual(picture.at(1279, 799), (0, 0xFF, 0))

    def test_a_screen_of_sixteen_bits_a_pixel(self):
        server = self.show(XServer.virtual("333x77x16"))
        server.draw("0 0 333 77 FF0000", "1 1 1 1 0000FF")
        picture = self.pictures()["screenshots/0.png"]
        self.assertEqual(picture.size, (333, 77))
        self.assertEqual(picture.colours(), {"ff0000": 333 * 77 - 1, "0000ff": 1})

    def test_pictures_are_not_sensitive(self):
        self.show(XServer.virtual("640x480x24"))
        self.assertEqual(list(self.pictures("--without-sensitive")), ["screenshots/0.png"])

    def test_a_server_that_wants_a_cookie_gets_its_own(self):
        authority = self.installation.path("authority")
        run(["xauth", "-q", "-f", authority, "add", ":0", ".", "00112233445566778899aabbccddeeff"])
        self.show(XServer.virtual("640x480x24", "-auth", authority))
        self.assertEqual(list(self.pictures()), ["screenshots/0.png"])

    def test_a_server_that_has_died_is_no_display(self):
        server = self.show(XServer.virtual("640x480x24"))
        server.process.kill()
        server.process.wait()
        self.assertEqual(self.jobs(), {})

    def test_a_screen_with_a_palette_fails_alone(self):
        self.show(XServer.virtual("640x480x8", "-cc", "3"))
        jobs = self.jobs()
        self.assertEqual(list(jobs), ["screenshots/0.png"])
        self.assertEqual(jobs["screenshots/0.png"]["status"], 3)
        self.assertFalse(jobs["screenshots/0.png"]["sensitive"])


@root_only
class OutputsTest(DisplaysTest):
    def test_mirrors_are_skipped_and_counted(self):
        server = self.show(XServer.with_outputs())
        server.turn_on("DUMMY1", "--same-as", "DUMMY0")
        server.turn_on("DUMMY2", "--right-of", "DUMMY0")
        server.draw("0 0 640 480 AA0000", "640 0 640 480 00BB00")
        pictures = self.pictures()
        self.assertEqual(set(pictures), {"screenshots/0.png", "screenshots/2.png"})
        self.assertEqual(pictures["screenshots/0.png"].colours(), {"aa0000": 640 * 480})
        self.assertEqual(pictures["screenshots/2.png"].colours(), {"00bb00": 640 * 480})

    def test_a_mirror_that_comes_first_is_counted_too(self):
        server = self.show(XServer.with_outputs())
        server.turn_on("DUMMY1", "--same-as", "DUMMY0", "--primary")
        server.draw("0 0 640 480 AA0000")
        pictures = self.pictures()
        self.assertEqual(list(pictures), ["screenshots/1.png"])
        self.assertEqual(pictures["screenshots/1.png"].colours(), {"aa0000": 640 * 480})

    def test_the_first_eight_of_nine_displays_are_taken(self):
        server = self.show(XServer.with_outputs())
        for number in range(1, 9):
            place = ("--right-of" if number % 3 else "--below", "DUMMY%d" % (number // 3 * 3 - 3 if
                     number % 3 == 0 else number - 1))
            server.turn_on("DUMMY%d" % number, *place)
        self.assertEqual(set(self.pictures()), {"screenshots/%d.png" % i for i in range(8)})

    def test_displays_that_are_off_leave_nothing(self):
        server = self.show(XServer.with_outputs())
        server.client("xrandr", "--output", "DUMMY0", "--off")
        self.assertEqual(self.jobs(), {})


class ConsoleTest(DisplaysTest):
    def test_the_text_console_is_drawn_where_there_is_nothing_else(self):
        # Two lines of four cells, white on blue.
        cells = b"".join(bytes([character, 0x1F]) for character in b"ABCD    ")
        self.installation.put("/dev/vcsa", bytes([2, 4, 0, 0]) + cells)
        self.installation.put("/dev/tty0", "")
        pictures = self.pictures()
        self.assertEqual(list(pictures), ["screenshots/0.png"])
        picture = pictures["screenshots/0.png"]
        self.assertEqual(picture.size, (4 * 12, 2 * 20))
        self.assertEqual(set(picture.colours()), {"ffffff", "0000aa"})
        self.assertEqual(picture.colours(first_row=20), {"0000aa": 48 * 20})

    def test_a_machine_without_displays_collects_all_else(self):
        self.assertEqual(self.jobs(), {})
        self.assertEqual(self.pictures(), {})


class PublicBuildTest(DisplaysTest):
    VARIANT = ""

    def test_no_picture_is_taken(self):
        self.show(XServer.virtual("640x480x24"))
        self.assertEqual(self.pictures(), {})


if __name__ == "__main__":
    unittest.main()
