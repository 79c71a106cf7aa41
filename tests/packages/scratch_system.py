"""A scratch copy of this system with a service manager of its own.

Its root is this system's with a layer above that takes all changes and goes when the test does; so
packages are installed against the real dependencies, at no cost. Its processes, /dev, /run, /tmp
and network are its own.
"""

import os
import shutil
import subprocess
import tempfile

from harness import wait_until
from volumes import run

MANAGER = "/lib/systemd/systemd"

# Run as the first process of the new name spaces.
START = """
set -e
cd "$1"
mount -t proc proc proc
mount -t sysfs sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount --rbind /dev dev
mkdir -p dev/pts dev/shm
mount -t devpts -o newinstance,ptmxmode=0666 devpts dev/pts
mount -t tmpfs tmpfs dev/shm
mount -t tmpfs -o mode=755 run run
mount -t tmpfs -o mode=1777 tmp tmp
pivot_root . mnt
umount -l mnt
exec env -i container=scratch PATH=/usr/sbin:/usr/bin:/sbin:/bin "$2" --system \
  --unit=basic.target </dev/null >/dev/null 2>&1
"""


def why_not():
    """Why there cannot be one on this machine, or nothing."""
    if not os.path.exists(MANAGER):
        return "no service manager is installed"
    with open("/proc/filesystems") as known:
        if "\toverlay\n" not in known.read():
            return "this kernel has no overlay file system"
    if not group_hierarchy():
        return "no unified control group hierarchy"
    return None


def group_hierarchy():
    with open("/proc/self/mountinfo") as table:
        for line in table:
            fields, source = line.split(" - ")
            if source.split()[0] == "cgroup2":
                return fields.split()[4]
    return None


class ScratchSystem:
    """Started when made, stopped by stop()."""

    def __init__(self):
        self.base = tempfile.mkdtemp(prefix="quillsift-system-")
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "none", self.base], check=True)
        self.changes = os.path.join(self.base, "changes")
        self.root = os.path.join(self.base, "root")
        work = os.path.join(self.base, "work")
        for directory in (self.changes, self.root, work):
            os.mkdir(directory, 0o755)
        subprocess.run(["mount", "-t", "overlay", "-o",
                        "lowerdir=/,upperdir=%s,workdir=%s" % (self.changes, work), "none",
                        self.root], check=True)
        self.leave_only_what_is_needed()
        self.group = tempfile.mkdtemp(prefix="quillsift-", dir=group_hierarchy())
        self.process = None
        try:
            self.start()
        except BaseException:
            self.stop()
            raise

    def leave_only_what_is_needed(self):
        """Of this system's own services only the journal starts."""
        for place in ("etc", "lib", "usr/lib"):
            units = os.path.join(self.root, place, "systemd/system")
            if not os.path.isdir(units):
                continue
            for name in os.listdir(units):
                if name.endswith((".wants", ".requires")):
                    shutil.rmtree(os.path.join(units, name))
        for target, unit in (("sysinit", "systemd-journald.service"),
                             ("sockets", "systemd-journald.socket"),
                             ("sockets", "systemd-journald-dev-log.socket")):
            wants = os.path.join(self.root, "etc/systemd/system/%s.target.wants" % target)
            os.makedirs(wants, exist_ok=True)
            os.symlink("/lib/systemd/system/" + unit, os.path.join(wants, unit))
        with open(os.path.join(self.root, "etc/fstab"), "w"):
            pass
        # Containers have one that forbids packages to start services.
        policy = os.path.join(self.root, "usr/sbin/policy-rc.d")
        if os.path.lexists(policy):
            os.unlink(policy)

    def start(self):
        def enter_group():
            with open(os.path.join(self.group, "cgroup.procs"), "w") as file:
                file.write(str(os.getpid()))
        self.process = subprocess.Popen(
            ["unshare", "--fork", "--pid", "--mount", "--uts", "--ipc", "--cgroup", "--kill-child",
             "sh", "-c", START, "sh", self.root, MANAGER],
            stdin=subprocess.DEVNULL, preexec_fn=enter_group)
        self.wait_for_manager()

    def wait_for_manager(self):
        wait_until(lambda: self.process.poll() is not None or self.first_process() is not None,
                   "the service manager has a process")
        assert self.process.poll() is None, "the name spaces could not be made"
        # It is the manager once it answers.
        wait_until(lambda: self.process.poll() is not None or
                   self.run("systemctl", "is-system-running").stdout.strip() in (
                       "running", "degraded"), "the service manager runs")
        assert self.process.poll() is None, "the service manager has ended"

    def first_process(self):
        with open("/proc/%d/task/%d/children" % (self.process.pid, self.process.pid)) as children:
            found = children.read().split()
        return found[0] if found else None

    def command(self, *command):
        return ["nsenter", "--target", self.first_process(), "--mount", "--pid", "--uts", "--ipc",
                "--cgroup", "--wdns=/"] + list(command)

    def run(self, *command, **options):
        return run(self.command(*command), **options)

    def path(self, inside):
        """Where a path of the scratch system is found from outside. Not for /dev, /run and /tmp."""
        return self.root + inside

    def changed_paths(self):
        """What is there or changed that is not so in this system; of directories only new ones."""
        found = set()
        for directory, subdirectories, files in os.walk(self.changes):
            inside = directory[len(self.changes):] or "/"
            found.update(os.path.join(inside, name) for name in files)
            found.update(path for path in (os.path.join(inside, name) for name in subdirectories)
                         if not os.path.isdir(path))
        return found

    def stop(self):
        if self.process is not None:
            self.process.kill()  # takes all of its processes along
            self.process.wait()
        subprocess.run(["umount", "-l", self.root], check=False)
        subprocess.run(["umount", "-l", self.base], check=False)
        os.rmdir(self.base)
        self.remove_group()

    def remove_group(self):
        def removed():
            for directory, _, _ in os.walk(self.group, topdown=False):
                try:
                    os.rmdir(directory)
                except OSError:
                    return False  # its last process is about to end
            return not os.path.exists(self.group)
        wait_until(removed, "the control group is empty")
