"""Volumes for the tests: images as loop devices, in a mount namespace of the test's own.

Nothing of it outlives the test, however that ends: the kernel takes a loop device back when its last
user has gone, and the mounts go with the namespace.
"""

import errno
import fcntl
import os
import shutil
import socket
import stat
import struct
import subprocess
import sys
import tempfile
import threading
import time

from harness import LIMIT, run

LOOP_CONFIGURE = 0x4C0A
LOOP_CTL_GET_FREE = 0x4C82
AUTOCLEAR = 4
LOOP_MAJOR = 7

NODES = {"null": (1, 3), "zero": (1, 5), "full": (1, 7), "random": (1, 8), "urandom": (1, 9),
         "tty": (5, 0), "loop-control": (10, 237)}
INSIDE = "QUILLSIFT_IN_NAMESPACE"


def enter_namespace():
    """Starts this program again with mounts, /dev, /run and a network of its own. Returns why that
    cannot be, or nothing once inside."""
    if os.environ.get(INSIDE):
        lay_out()
        return None
    if os.geteuid() != 0:
        return "needs root"
    unshare = ["unshare", "--mount", "--net", "--propagation", "private"]
    tried = run(unshare + ["true"])
    if tried.returncode != 0:
        return "may not make a mount namespace here: " + tried.stderr.strip()
    os.environ[INSIDE] = "1"
    os.execvp(unshare[0], unshare + [sys.executable, "-B"] + sys.argv)


def lay_out():
    for directory in ("/dev", "/run"):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "none", directory], check=True)
    for name, number in NODES.items():
        os.mknod("/dev/" + name, 0o666 | stat.S_IFCHR, os.makedev(*number))
    for name, target in (("fd", ""), ("stdin", "/0"), ("stdout", "/1"), ("stderr", "/2")):
        os.symlink("/proc/self/fd" + target, "/dev/" + name)


class SystemLog:
    """Everything that is logged in the namespace."""

    def __init__(self):
        if os.path.lexists("/dev/log"):
            os.unlink("/dev/log")
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("/dev/log")
        self.changed = threading.Condition()
        self.received = []
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        while True:
            try:
                line = self.socket.recv(65536).decode(errors="replace")
            except OSError:
                if self.socket.fileno() == -1:
                    return  # closed at the end of the test
                raise
            with self.changed:
                self.received.append(line)
                self.changed.notify_all()

    def matching(self, text):
        with self.changed:
            return [line for line in self.received if text in line]

    def wait_for(self, text, count=1):
        """Waits for the count-th line with this text and returns it."""
        deadline = time.monotonic() + LIMIT
        with self.changed:
            while True:
                found = [line for line in self.received if text in line]
                if len(found) >= count:
                    return found[count - 1]
                if not self.changed.wait(max(deadline - time.monotonic(), 0)):
                    raise AssertionError("not logged: %s\n%s" % (text, "\n".join(self.received)))


class NoLoopDevices(Exception):
    """This machine has none to give."""


class Loop:
    """An image as a block device."""

    def __init__(self, image):
        try:
            control = os.open("/dev/loop-control", os.O_RDWR | os.O_CLOEXEC)
        except OSError as error:
            raise NoLoopDevices("no loop devices: %s" % error)
        file = os.open(image, os.O_RDWR | os.O_CLOEXEC)
        try:
            self.attach(control, file)
        finally:
            os.close(file)
            os.close(control)
        self.path = "/dev/" + self.name

    def attach(self, control, file):
        information = struct.pack("<5Q4I64s64s32s2Q", 0, 0, 0, 0, 0, 0, 0, 0, AUTOCLEAR, b"", b"", b"",
                                  0, 0)
        configuration = struct.pack("<II", file, 0) + information + bytes(64)
        for _ in range(100):  # somebody else may take the free one first
            try:
                number = fcntl.ioctl(control, LOOP_CTL_GET_FREE)
                self.name = "loop%d" % number
                make_node(self.name, LOOP_MAJOR, number)
                self.descriptor = os.open("/dev/" + self.name, os.O_RDWR | os.O_CLOEXEC)
            except OSError as error:
                raise NoLoopDevices("no loop devices: %s" % error)
            try:
                fcntl.ioctl(self.descriptor, LOOP_CONFIGURE, configuration)
                return
            except OSError as error:
                os.close(self.descriptor)
                if error.errno != errno.EBUSY:
                    raise NoLoopDevices("no loop devices: %s" % error)
        raise NoLoopDevices("no loop device stays free")

    def release(self):
        for mount_point in reversed(mount_points(self.path)):
            run(["umount", "--lazy", mount_point])
        os.close(self.descriptor)


def make_node(name, major, minor):
    path = "/dev/" + name
    if not os.path.exists(path):
        os.mknod(path, 0o600 | stat.S_IFBLK, os.makedev(major, minor))


def mount_lines(device):
    with open("/proc/self/mountinfo") as table:
        return [line.split() for line in table if (" %s " % device) in line]


def mount_points(device):
    def unescaped(text):
        for code in ("040", "011", "012", "134"):
            text = text.replace("\\" + code, chr(int(code, 8)))
        return text
    return [unescaped(fields[4]) for fields in mount_lines(device)]


class NoSuchType(Exception):
    """This machine cannot make or mount a file system of the type."""


def make_typed_image(directory, kind, label, uuid):
    """An empty file system of another type in a sparse file."""
    command = {"xfs": ["mkfs.xfs", "-q", "-L", label, "-m", "uuid=" + uuid],
               "btrfs": ["mkfs.btrfs", "-q", "-L", label, "-U", uuid],
               "vfat": ["mkfs.vfat", "-n", label, "-i", uuid.replace("-", "")]}[kind]
    if not shutil.which(command[0]):
        raise NoSuchType("%s not installed" % command[0])
    with open("/proc/filesystems") as file:
        known = kind in file.read().split()
    if not known and run(["modprobe", "-q", kind]).returncode != 0:
        raise NoSuchType("this kernel has no " + kind)
    image = tempfile.mktemp(prefix="image-", dir=directory)
    with open(image, "wb") as file:
        file.truncate(400 << 20)
    made = run(command + [image])
    assert made.returncode == 0, made.stderr
    return image


def make_image(directory, label=None, uuid=None, content=None, size="16M"):
    """An ext4 file system in a file. Content: texts, or functions that make a file, by path."""
    image = tempfile.mktemp(prefix="image-", dir=directory)
    source = tempfile.mkdtemp(prefix="content-", dir=directory)
    for path, text in (content or {}).items():
        target = os.path.join(source, path)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if callable(text):
            text(target)
        else:
            with open(target, "w") as file:
                file.write(text)
    command = ["mkfs.ext4", "-q", "-d", source]
    command += ["-L", label] if label else []
    command += ["-U", uuid] if uuid else []
    made = run(command + [image, size])
    assert made.returncode == 0, made.stderr
    return image
