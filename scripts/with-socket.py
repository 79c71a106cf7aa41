#!/usr/bin/env python3
"""Starts a daemon of its own: with sockets in a private directory, passed to it the way a service
manager does it, and deaf to the kernel's events, which are another daemon's business.

usage: with-socket.py DIRECTORY PROGRAM [ARGUMENT...]

The service listens at DIRECTORY/socket.
"""

import fcntl
import os
import socket
import sys

FIRST_PASSED_DESCRIPTOR = 3
SERVICE = "io.vantor.quillsiftd"
KERNEL_PORT = "io.vantor.quillsiftd.kernel"
NETLINK_KOBJECT_UEVENT = 15


def listener(path, kind):
    made = socket.socket(socket.AF_UNIX, kind)
    # Anyone may knock: the service admits by the credentials of the peer.
    mask = os.umask(0o111)
    made.bind(path)
    os.umask(mask)
    made.listen(64)
    return made


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    directory, program = sys.argv[1:3]
    passed = [
        (KERNEL_PORT, listener(os.path.join(directory, "kernel"), socket.SOCK_SEQPACKET)),
        # It has joined no group, and so hears nothing.
        (KERNEL_PORT, socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_KOBJECT_UEVENT)),
        # Last: who finds it can connect.
        (SERVICE, listener(os.path.join(directory, "socket"), socket.SOCK_STREAM)),
    ]
    # Out of the way first: one may stand where another goes.
    beyond = FIRST_PASSED_DESCRIPTOR + len(passed)
    copies = [fcntl.fcntl(one, fcntl.F_DUPFD_CLOEXEC, beyond) for _, one in passed]
    for place, copy in enumerate(copies, FIRST_PASSED_DESCRIPTOR):
        os.dup2(copy, place, inheritable=True)
    environment = dict(os.environ, LISTEN_PID=str(os.getpid()), LISTEN_FDS=str(len(passed)),
                       LISTEN_FDNAMES=":".join(name for name, _ in passed))
    os.execve(program, [program] + sys.argv[3:], environment)


main()
