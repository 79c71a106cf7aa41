#!/usr/bin/env python3
"""Lists an archive, a line a member. With a directory as second argument it puts the members' data
into files there, named by their number.

The fields: name, type, size, mode, uid, gid, user and group name, modification, birth, access and
change time in nanoseconds ("-" where there is none; no modification time is 0), and the extended attributes with their values
in hexadecimal.
"""

import decimal
import pathlib
import sys
import tarfile


def nanoseconds(member, key):
    # A whole second of modification needs no extended header.
    seconds = member.pax_headers.get(key, member.mtime if key == "mtime" else None)
    return "-" if seconds is None else str(int(decimal.Decimal(seconds) * 10**9))


def attributes(header):
    prefix = "SCHILY.xattr."
    for key in sorted(header):
        if key.startswith(prefix):
            value = header[key].encode("utf-8", "surrogateescape")
            yield key[len(prefix):] + "=" + value.hex()


def main():
    with tarfile.open(sys.argv[1], "r:gz") as members:
        for number, member in enumerate(members):
            for directory in sys.argv[2:]:
                data = members.extractfile(member).read()
                pathlib.Path(directory, str(number)).write_bytes(data)
            fields = [member.name, member.type.decode(), member.size, f"{member.mode:o}",
                      member.uid, member.gid, member.uname, member.gname]
            fields += [nanoseconds(member, key)
                       for key in ("mtime", "LIBARCHIVE.creationtime", "atime", "ctime")]
            fields += attributes(member.pax_headers)
            print("|".join(map(str, fields)))


sys.stdout.reconfigure(encoding="utf-8")
main()
