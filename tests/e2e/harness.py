"""What the end-to-end tests share: an installation of its own for every test, with a platform tree
of known programs, a daemon on a private endpoint, and foreign clients to talk to it.

The environment names the build: QUILLSIFT_PREFIX (an installed copy) and QUILLSIFT_PROGRAMS (the
directory of the test programs).
"""

import ctypes
import fcntl
import json
import os
import resource
import shutil
import signal
import socket
import subprocess
import tarfile
import tempfile
import time
import unittest

PREFIX = os.environ["QUILLSIFT_PREFIX"]
PROGRAMS = os.environ["QUILLSIFT_PROGRAMS"]
SERVICE = "io.vantor.quillsiftd"
KERNEL_PORT = "io.vantor.quillsiftd.kernel"
OBJECT = "/io/vantor/quillsiftd"
SERVER = "io.vantor.quillsiftd.QSServiceServerProtocol"
NETLINK_KOBJECT_UEVENT = 15
# Against hangs only.
LIMIT = 120
LIBC = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1

# Every program that the plan runs.
PLAN_PROGRAMS = [
    "/usr/sbin/stallscope", "/usr/sbin/lsof", "/bin/ps", "/usr/bin/relquery", "/usr/sbin/platterctl",
    "/bin/df", "/usr/sbin/bootmark", "/bin/svcherd", "/usr/sbin/modtally", "/usr/bin/guardctl",
    "/usr/sbin/sysctl", "/usr/sbin/vaultkit",
    "/System/Library/Frameworks/Groundwork.framework/Frameworks/Openhand.framework/Support/regtally",
    "/usr/sbin/nvram", "/usr/bin/sealwarden", "/bin/ls", "/usr/bin/packrat", "/usr/libexec/fwlogdump",
    "/usr/sbin/drreg", "/System/Library/Extensions/DrGraphicsFamily.kext/pixdiag",
    "/System/Library/PrivateFrameworks/Glasswork.framework/Resources/paneinfo", "/usr/bin/tar",
    "/usr/bin/find",
]


def root_only(test):
    return unittest.skipUnless(os.geteuid() == 0, "needs root")(test)


class Installation:
    """A scratch prefix with the built programs and an empty platform tree."""

    def __init__(self):
        self.prefix = tempfile.mkdtemp(prefix="quillsift-e2e-")
        os.chmod(self.prefix, 0o755)
        self.tree = self.path("libexec/quillsift/platform")
        os.makedirs(self.tree, 0o755)
        for name in ("bin/quillsift", "libexec/quillsiftd",
                     "libexec/quillsift/quillsift-journal-export"):
            target = self.path(name)
            os.makedirs(os.path.dirname(target), 0o755, exist_ok=True)
            shutil.copy2(os.path.join(PREFIX, name), target)
        self.put("/etc/os-release", "ID=rescue\nBUILD_ID=25A123\n")
        self.put("/proc/sys/hw/model", "Lumina14,2\n")
        # No block device of this machine is looked at, let alone mounted.
        os.makedirs(self.in_tree("/sys/class/block"), 0o755)

    def path(self, relative):
        return os.path.join(self.prefix, relative)

    def in_tree(self, plan_path):
        return self.tree + plan_path

    def put(self, plan_path, content, mode=0o644):
        target = self.in_tree(plan_path)
        os.makedirs(os.path.dirname(target), 0o755, exist_ok=True)
        if os.path.lexists(target):
            os.unlink(target)
        with open(target, "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())
        os.chmod(target, mode)

    def script(self, plan_path, text):
        self.put(plan_path, "#!/bin/sh\n" + text, 0o755)

    def until_exists(self, path):
        """For scripts: waits for a file, but no longer than the installation is there, since nobody
        ends what a daemon has started when that is killed."""
        return "while [ -e '%s' ] && [ ! -e '%s' ]; do sleep 0.05; done\n" % (self.tree, path)

    def stand_in(self, plan_path, program="print_arguments"):
        target = self.in_tree(plan_path)
        os.makedirs(os.path.dirname(target), 0o755, exist_ok=True)
        if os.path.lexists(target):
            os.unlink(target)
        os.symlink(os.path.join(PROGRAMS, program), target)

    def real_tool(self, plan_path):
        """The program that a real installation has at this path."""
        target = self.in_tree(plan_path)
        os.makedirs(os.path.dirname(target), 0o755, exist_ok=True)
        if os.path.lexists(target):
            os.unlink(target)
        os.symlink(os.path.join(PREFIX, "libexec/quillsift/quillsift-platform"), target)

    def absent(self, plan_path):
        """Hides whatever the host has at this path."""
        self.link(plan_path, "/dev/null")

    def link(self, plan_path, to):
        target = self.in_tree(plan_path)
        os.makedirs(os.path.dirname(target), 0o755, exist_ok=True)
        if os.path.lexists(target):
            os.unlink(target)
        os.symlink(to, target)

    def stand_in_plan(self):
        """Every program of the plan prints its arguments; logs and displays are absent."""
        for program in PLAN_PROGRAMS:
            self.stand_in(program)
        for log in ("system", "rescueos", "migration", "strata_convert", "fsck_vellum", "fsck_strata",
                    "seekbeacon", "automation_trampoline", "install"):
            self.absent("/var/log/%s.log" % log)
        self.absent("/var/log/io.vantor.weft.herdkeeper/herdkeeper.log")
        for source in ("/dev/dri", "/tmp/.X11-unix", "/dev/vcsa", "/dev/tty0", "/sys/bus",
                       "/usr/bin/plymouth"):
            self.absent(source)
        for place in ("/run/log/journal", "/var/log/journal", "/sys/firmware/log",
                      "/sys/firmware/efi/ovmf_debug_log", "/sys/firmware/opal/msglog",
                      # What tells this machine's factory data.
                      "/sys/class/dmi/id", "/sys/firmware/vpd", "/sys/firmware/devicetree",
                      "/sys/firmware/dmi", "/sys/block", "/sys/class/net"):
            self.absent(place)

    def remove(self):
        shutil.rmtree(self.prefix, ignore_errors=True)


class Daemon:
    """The installed daemon, listening on sockets passed to it; `command` may wrap its start.

    The events of the kernel go to every daemon on the machine. So that those of one test do not
    reach the daemons of others, each is passed a socket for them that has joined no group and
    never hears anything; with `hears_kernel` it is passed none and opens its own. Without
    `passes_port` it is left to have the whole port by itself.
    """

    def __init__(self, installation, descriptor_limit=None, command=None, hears_kernel=False,
                 passes_port=True):
        self.installation = installation
        self.socket_path = installation.path("socket")
        port = installation.path(KERNEL_PORT)
        if os.path.lexists(port):
            os.unlink(port)  # of a daemon that was here before
        passed = [(SERVICE, self.listener(self.socket_path, socket.SOCK_STREAM))]
        if passes_port:
            passed.append((KERNEL_PORT, self.listener(port, socket.SOCK_SEQPACKET)))
        if passes_port and not hears_kernel:
            passed.append((KERNEL_PORT, socket.socket(socket.AF_NETLINK, socket.SOCK_RAW,
                                                      NETLINK_KOBJECT_UEVENT)))
        self.error_log = open(installation.path("daemon.err"), "w+b")

        program = installation.path("libexec/quillsiftd")
        command = command or [program]
        environment = dict(os.environ, LISTEN_FDS=str(len(passed)),
                           LISTEN_FDNAMES=":".join(name for name, _ in passed))

        def pass_sockets():
            # A test that is killed must not leave it behind.
            LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
            # Here and not by Popen: only the child knows its own process number.
            # Out of the way first: one may stand where another goes.
            copies = [fcntl.fcntl(passed_one, fcntl.F_DUPFD_CLOEXEC, 16) for _, passed_one in passed]
            for place, copy in enumerate(copies, 3):
                os.dup2(copy, place, inheritable=True)
            environment["LISTEN_PID"] = str(os.getpid())
            if descriptor_limit:
                resource.setrlimit(resource.RLIMIT_NOFILE, (descriptor_limit, descriptor_limit))
            os.execve(command[0], command, environment)

        self.process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=self.error_log, stderr=self.error_log,
            close_fds=False, preexec_fn=pass_sockets, cwd="/")
        for _, passed_one in passed:
            passed_one.close()

    @staticmethod
    def listener(path, kind):
        listener = socket.socket(socket.AF_UNIX, kind)
        listener.bind(path)
        os.chmod(path, 0o666)
        listener.listen(64)
        return listener

    def address(self):
        return "unix:path=" + self.socket_path

    def stop(self):
        """Ends the daemon and returns what it wrote to its standard error (sanitizer reports)."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        self.process.wait(LIMIT)
        self.error_log.seek(0)
        text = self.error_log.read().decode(errors="replace")
        self.error_log.close()
        return text

    def is_running(self):
        return self.process.poll() is None

    # --- Foreign clients ---

    def gdbus(self, *arguments):
        return run(["gdbus", "call", "--timeout", str(LIMIT), "--address", self.address(), "--dest",
                    SERVICE, "--object-path", OBJECT] + list(arguments))

    def dbus_send(self, method, *arguments):
        return run(["dbus-send", "--peer=" + self.address(), "--print-reply",
                    "--reply-timeout=%d" % (LIMIT * 1000), OBJECT, "%s.%s" % (SERVER, method)]
                   + list(arguments))

    def save_by_name(self, destination, archive=True):
        """Asks for a save behind the client's back, which would look at the destination first. Once
        it is taken, whatever else needs the session waits for its end."""
        def taken():
            answer = self.gdbus("--method", SERVER + ".saveQuillsiftToDestination", destination,
                                "true" if archive else "false", "true")
            if answer.returncode != 0:
                raise AssertionError(answer.stderr)
            return answer.stdout.strip() == "(true,)"
        # A session shows its end a moment before it can be saved.
        wait_until(taken, "the save is taken")

    # --- Our client ---

    def client(self, *arguments, **options):
        return run([self.installation.path("bin/quillsift"), "--socket", self.socket_path]
                   + list(arguments), **options)

    def json(self, *arguments, **options):
        result = self.client("--json", *arguments, **options)
        return result, [json.loads(line) for line in result.stdout.splitlines()]


def run(command, **options):
    options.setdefault("timeout", LIMIT * 3)
    return subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          **options)


def wait_until(condition, what, limit=LIMIT):
    """Polls for something that offers nothing to wait on."""
    deadline = time.monotonic() + limit
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("gave up waiting until " + what)
        time.sleep(0.02)


def members(archive):
    """Name, data and header of every member, in order."""
    with tarfile.open(archive, "r:gz") as tar:
        return [(info.name, tar.extractfile(info).read(), info) for info in tar]


class DaemonTest(unittest.TestCase):
    """A test with an installation, a tree of stand-ins and a running daemon."""

    def setUp(self):
        self.installation = Installation()
        self.addCleanup(self.installation.remove)
        self.installation.stand_in_plan()
        self.directory = self.installation.path("output")
        os.mkdir(self.directory)
        self.prepare()
        self.daemon = self.start()
        self.addCleanup(self.check_daemon)

    def prepare(self):
        """For tests that change the tree before the daemon starts."""

    def start(self):
        return Daemon(self.installation)

    def check_daemon(self):
        was_running = self.daemon.is_running()
        text = self.daemon.stop()
        self.assertTrue(was_running, "the daemon ended by itself (%s): %s"
                        % (self.daemon.process.returncode, text))
        self.assertNotIn("Sanitizer", text)
        self.assertNotIn("runtime error", text)

    def output(self, name):
        return os.path.join(self.directory, name)

    def collect(self, name="saved.tgz", *arguments, expect=0):
        """Ends once it is saved and the session is cleared."""
        path = self.output(name)
        result = self.daemon.client("collect", path, *arguments)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        return path
