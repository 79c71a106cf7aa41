"""What a machine has only one of, for tests that run side by side, those of other builds too."""

import contextlib
import fcntl
import os

# Held while an X server starts, and while one ends: both remove what stands at the path of a
# display's socket, and a display's number is free for the next one at once. All tests with X
# servers use this file, whatever they are written in.
X_SERVERS = "/tmp/.quillsift-test-x-servers"
# Everybody on the machine hears the kernel's events: held alone by who has it tell some that mean
# something to a daemon, shared by who listens.
KERNEL_EVENTS = "/tmp/.quillsift-test-kernel-events"


@contextlib.contextmanager
def held(path, shared=False):
    """Nothing that is started meanwhile inherits it, and the kernel takes it from the dead."""
    descriptor = opened(path)
    try:
        fcntl.flock(descriptor, fcntl.LOCK_SH if shared else fcntl.LOCK_EX)
        yield
    finally:
        os.close(descriptor)


def opened(path):
    try:
        return os.open(path, os.O_RDONLY | os.O_CREAT | os.O_CLOEXEC, 0o666)
    except PermissionError:
        # Another user made it, and the kernel lets nobody else ask to create it in /tmp.
        return os.open(path, os.O_RDONLY | os.O_CLOEXEC)
