"""X servers for the tests, each at a display that it chooses itself."""

import errno
import os
import shutil
import subprocess
import tempfile

from exclusive import X_SERVERS, held
from harness import LIMIT, PROGRAMS, run

# Sixteen outputs, the first of them on.
DUMMY_CONFIGURATION = """
Section "ServerFlags"
  Option "AutoAddDevices" "false"
  Option "AutoAddGPU" "false"
EndSection
Section "Device"
  Identifier "card"
  Driver "dummy"
  VideoRam 65536
EndSection
Section "Monitor"
  Identifier "monitor"
  HorizSync 5-200
  VertRefresh 5-200
EndSection
Section "Screen"
  Identifier "screen"
  Device "card"
  Monitor "monitor"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Virtual 4096 2048
    Modes "640x480"
  EndSubSection
EndSection
"""


class XServer:
    """Runs once made; whoever makes it stops it."""

    def __init__(self, *command):
        self.directory = tempfile.mkdtemp(prefix="quillsift-x-")
        command = [word.replace("DIRECTORY", self.directory) for word in command]
        with open(os.path.join(self.directory, "xorg.conf"), "w") as file:
            file.write(DUMMY_CONFIGURATION)
        said = os.path.join(self.directory, "errors")
        with held(X_SERVERS), open(said, "wb") as errors:
            self.process = subprocess.Popen(
                command + ["-displayfd", "1", "-noreset", "-nolisten", "tcp"],
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors)
            # The display's number, once clients can connect.
            self.number = self.process.stdout.readline().decode().strip()
        if not self.number:
            with open(said, errors="replace") as errors:
                why = errors.read()
            self.stop()
            raise AssertionError("%s did not start: %s" % (command[0], why))

    @classmethod
    def virtual(cls, screen, *options):
        return cls("Xvfb", "-screen", "0", screen, *options)

    @classmethod
    def with_outputs(cls):
        # On a seat of its own it leaves the machine's console alone.
        return cls("Xorg", "-seat", "quillsift-test", "-config", "DIRECTORY/xorg.conf", "-configdir",
                   "DIRECTORY/none", "-logfile", "DIRECTORY/log")

    @property
    def display(self):
        return ":" + self.number

    def put_at(self, path):
        """Its own socket, where a link to the name would lead to the display's next server."""
        name = "/tmp/.X11-unix/X" + self.number
        try:
            os.link(name, path)
        except OSError as error:
            if error.errno != errno.EXDEV:
                raise
            os.symlink(name, path)  # the best there is from one file system to another

    def client(self, *command):
        result = run(list(command), env=dict(os.environ, DISPLAY=self.display))
        if result.returncode != 0:
            raise AssertionError(result.stdout + result.stderr)

    def draw(self, *rectangles):
        words = " ".join(rectangles).split()
        self.client(os.path.join(PROGRAMS, "draw_on_screen"), *words)

    def turn_on(self, output, *place):
        self.client("xrandr", "--addmode", output, "640x480")
        self.client("xrandr", "--output", output, "--mode", "640x480", *place)

    def stop(self):
        with held(X_SERVERS):
            self.process.terminate()
            self.process.wait(LIMIT)
        self.process.stdout.close()
        shutil.rmtree(self.directory, ignore_errors=True)
