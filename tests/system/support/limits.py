"""What the system refuses a running daemon."""

import os
import subprocess
from contextlib import contextmanager


def set_limit(daemon, name, value):
    """The soft one."""
    subprocess.run(["prlimit", "--pid", str(daemon.pid), f"--{name}={value}:"], check=True)


def set_own_limit(daemon, name, value):
    """The same, by the daemon's own user: root may not everywhere."""
    owner = os.stat(f"/proc/{daemon.pid}")
    subprocess.run(["setpriv", f"--reuid={owner.st_uid}", f"--regid={owner.st_gid}",
                    "--clear-groups", "prlimit", "--pid", str(daemon.pid), f"--{name}={value}:"],
                   check=True)


@contextmanager
def descriptors_left(daemon, count):
    """Only so many more can be opened."""
    used = set(daemon.descriptors())
    limit = 0
    while count > 0 or limit in used:
        if limit not in used:
            count -= 1
        limit += 1
    set_limit(daemon, "nofile", limit)
    try:
        yield
    finally:
        set_limit(daemon, "nofile", 1024)


def own_file_system(directory, size):
    """A prefix for the daemon's command line: for it alone, a file system of `size` is there. Its
    files are found below `inside`."""
    return ["unshare", "--mount", "--propagation", "private", "sh", "-c",
            f'mount -t tmpfs -o size={size} tmpfs "$0" && exec "$@"', str(directory)]


def inside(daemon, path):
    """The path for us of what the daemon sees as `path`."""
    return os.path.join(f"/proc/{daemon.pid}/root", str(path).lstrip("/"))


def remount(daemon, directory, options):
    subprocess.run(["nsenter", "--mount", "--target", str(daemon.pid), "mount", "-o",
                    f"remount,{options}", str(directory)], check=True)
