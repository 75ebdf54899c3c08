"""Memory that is refused to the daemon at chosen calls."""

import mmap
import struct

from support.programs import compile_preload


class Memory:
    """What failing_malloc.c shares with us."""

    LAYOUT = "5q"

    def __init__(self, directory):
        self.library = compile_preload("failing_malloc", directory)
        self.path = directory / "memory"
        self.path.write_bytes(bytes(struct.calcsize(self.LAYOUT)))
        with open(self.path, "r+b") as file:
            self.shared = mmap.mmap(file.fileno(), 0)

        # Not in the environment of what starts the daemon, whose calls would count as well.
        # A crash before the configuration has been read is recorded in /tmp.
        self.prefix = ["unshare", "--mount", "--propagation", "private",
                       "sh", "-c", 'mount --bind "$0" /tmp && exec "$@"', str(directory / "tmp"),
                       "env", f"LD_PRELOAD={self.library}", f"FAILING_MALLOC={self.path}"]

    def refuse(self, first, last=None):
        """Refuses the calls with these numbers, counted from now on."""
        # Never half of it: as long as the last is 0, nothing is refused.
        self.shared[8:16] = bytes(8)
        self.shared[0:8] = struct.pack("q", first)
        self.shared[16:32] = bytes(16)
        self.shared[8:16] = struct.pack("q", last or first)

    def refuse_none(self):
        """Counts from now on."""
        self.shared[8:32] = bytes(24)

    def _field(self, number):
        return struct.unpack(self.LAYOUT, self.shared[:])[number]

    @property
    def calls(self):
        return self._field(2)

    @property
    def refused(self):
        return self._field(3)

    @property
    def live(self):
        return self._field(4)
