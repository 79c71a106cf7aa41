#!/usr/bin/env python3
"""A whole session with the real platform tree, from the start call to the saved archive, beside two
baselines on the same machine in the same minutes: the same commands and files one after the other by
a shell, packed by tar and gzip; and sos report with the plugins that ask the same things.

    tree_bench.py PREFIX [ROUNDS]     PREFIX: an installation (cmake --install BUILD --prefix PREFIX)

Needs root. Each round runs all three, one at a time; what is shown is the median of the rounds and
the ratio to ours. Processor time is that of all processes of a contender; memory is the highest sum,
seen in samples, of what its processes hold for themselves.
"""

import os
import shlex
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

PLUGINS = ("block boot btrfs devicemapper devices filesys hardware host kernel logs lvm2 md pci "
           "process processor release scsi services system systemd udev usb x11 xfs").split()
SAMPLING_INTERVAL = 0.05
LIMIT = 900  # against hangs only
PAGE = os.sysconf("SC_PAGE_SIZE")
TARGET = 5


class MemoryWatch(threading.Thread):
    """Sums up what the processes of a session of processes have for themselves."""

    def __init__(self, session):
        super().__init__(daemon=True)
        self.session = session
        self.ended = threading.Event()
        self.peak = 0

    def run(self):
        while not self.ended.wait(SAMPLING_INTERVAL):
            self.peak = max(self.peak, self.sample())

    def sample(self):
        total = 0
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                with open("/proc/%s/stat" % entry) as file:
                    if int(file.read().rsplit(")", 1)[1].split()[3]) != self.session:
                        continue
                with open("/proc/%s/statm" % entry) as file:
                    fields = file.read().split()
                total += (int(fields[1]) - int(fields[2])) * PAGE
            except (OSError, IndexError):
                pass
        return total


def answers(endpoint):
    with socket.socket(socket.AF_UNIX) as client:
        return client.connect_ex(endpoint) == 0


def measured(command, ready=None, work=None):
    """Wall time, processor time and memory of a command, or of the work that it serves."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, start_new_session=True)
    watch = MemoryWatch(process.pid)
    watch.start()
    begin = time.monotonic()
    extra = 0
    if work:
        while not answers(ready):
            time.sleep(0.005)
        begin = time.monotonic()
        worker = subprocess.Popen(work, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        _, status, usage = os.wait4(worker.pid, 0)
        extra = usage.ru_utime + usage.ru_stime
        wall = time.monotonic() - begin
        # The summary of rows without a source is not this benchmark's business; the archive is.
        process.terminate()
    _, status, usage = os.wait4(process.pid, 0)
    if not work:
        wall = time.monotonic() - begin
    watch.ended.set()
    watch.join()
    return {"wall": wall, "processor": usage.ru_utime + usage.ru_stime + extra,
            "memory": watch.peak}


def plan(prefix):
    """Path in the archive, kind, path and arguments of what this machine collects."""
    listing = subprocess.run([prefix + "/libexec/quillsiftd", "--list-plan"], capture_output=True,
                             text=True, check=True, timeout=LIMIT).stdout
    for line in listing.splitlines():
        kind, member, _, hosts, path, *arguments = line.split("\t")
        if hosts in ("always", "other-silicon") and "<" not in member and kind != "own":
            yield member, kind, path, arguments


def session(prefix, directory):
    endpoint, archive = directory + "/socket", directory + "/saved.tgz"
    source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    result = measured([sys.executable, source + "/scripts/with-socket.py", directory,
                       prefix + "/libexec/quillsiftd"],
                      endpoint, [prefix + "/bin/quillsift", "--socket", endpoint, "collect", archive])
    return result, archive


def shell(prefix, directory):
    tree = prefix + "/libexec/quillsift/platform"
    output, archive = directory + "/output", directory + "/saved.tgz"
    lines = ["mkdir -p %s" % shlex.quote(output)]
    for member, kind, path, arguments in plan(prefix):
        target = output + "/" + member.lstrip("/")
        source = tree + path if os.path.exists(tree + path) else path
        lines.append("mkdir -p %s" % shlex.quote(os.path.dirname(target)))
        if kind == "command":
            lines.append("%s >%s 2>&1" % (shlex.join([source] + arguments), shlex.quote(target)))
        elif kind == "file":
            lines.append("cp -L %s %s" % (shlex.quote(source), shlex.quote(target)))
    lines.append("tar -cf - -C %s . | gzip -9 >%s" % (shlex.quote(output), shlex.quote(archive)))
    script = directory + "/commands.sh"
    with open(script, "w") as file:
        file.write("\n".join(lines) + "\n")
    return measured(["sh", script]), archive


def report(prefix, directory):
    result = measured(["sos", "report", "--batch", "--tmp-dir", directory, "--only-plugins",
                       ",".join(PLUGINS)])
    archives = [name for name in os.listdir(directory) if name.endswith((".tar.xz", ".tar.gz"))]
    if not archives:
        sys.exit("sos report left no archive")
    return result, os.path.join(directory, archives[0])


CONTENDERS = [("quillsift", session), ("shell", shell), ("sos report", report)]


def main():
    if len(sys.argv) not in (2, 3) or os.geteuid() != 0:
        sys.exit(__doc__)
    contenders = [one for one in CONTENDERS if one[0] != "sos report" or shutil.which("sos")]
    if len(contenders) < len(CONTENDERS):
        print("sos report: not installed (package sosreport)")
    rounds = int(sys.argv[2]) if len(sys.argv) == 3 else 3
    scratch = tempfile.mkdtemp(prefix="quillsift-bench-")
    try:
        run(contenders, rounds, scratch)
    finally:
        shutil.rmtree(scratch)


def run(contenders, rounds, scratch):
    # A copy in whose tree this machine has no volumes to mount.
    prefix = scratch + "/prefix"
    shutil.copytree(sys.argv[1], prefix, symlinks=True)
    os.makedirs(prefix + "/libexec/quillsift/platform/sys/class/block")
    results = {name: [] for name, _ in contenders}
    for number in range(rounds):
        for name, contender in contenders:
            directory = tempfile.mkdtemp(prefix="round-", dir=scratch)
            result, archive = contender(prefix, directory)
            if not os.path.exists(archive):
                sys.exit(name + " left no archive")
            result["archive"] = os.path.getsize(archive)
            results[name].append(result)
            shutil.rmtree(directory)
            print("round %d, %-10s %6.2f s, load %.1f" % (number + 1, name, result["wall"],
                                                          os.getloadavg()[0]), flush=True)
    show({name: {what: statistics.median(one[what] for one in measurements)
                 for what in measurements[0]} for name, measurements in results.items()})


def show(medians):
    ours = medians["quillsift"]
    print("\n%-12s %10s %12s %12s %12s" % ("", "wall s", "processor s", "memory MB", "archive kB"))
    for name, one in medians.items():
        print("%-12s %10.2f %12.2f %12.1f %12.1f" % (name, one["wall"], one["processor"],
                                                     one["memory"] / 1e6, one["archive"] / 1e3))
    for name, one in medians.items():
        if name == "quillsift":
            continue
        print("%-12s %9.1fx %11.1fx %11.1fx %11.1fx%s" % (
            name + " /", one["wall"] / ours["wall"], one["processor"] / ours["processor"],
            one["memory"] / ours["memory"], one["archive"] / ours["archive"],
            "   (target of the first: %dx)" % TARGET if name == "sos report" else ""))


main()
