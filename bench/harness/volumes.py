"""The volumes that are measured: made on the spot, looked into, put into the cache or out of it."""
import contextlib
import os
import struct
import subprocess

from . import setting

MIB = 1 << 20


def make(name, *options):
    """Makes a volume with makevolume, unless this run has made it already; its path."""
    path = setting.SCRATCH / f"{name}.hfs"
    if not path.exists():
        path.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run([setting.MAKEVOLUME, *options, path], check=True, stdout=subprocess.DEVNULL)
        with open(path, "rb") as file:
            os.fsync(file.fileno())
    return path


def of_files(count):
    """A volume of so many files in a few pieces each, their contents unwritten."""
    return make(f"files-{count}", "--files", str(count), "--size", f"{count * 16}K",
                "--fill", "50", "--unwritten")


class Layout:
    """Where a volume keeps its files and what its header counts."""

    NAMES = ("allocation", "extents", "catalog", "attributes", "startup")

    def __init__(self, path):
        with open(path, "rb") as file:
            file.seek(1024)
            header = file.read(512)
        self.file_count, self.folder_count = struct.unpack_from(">II", header, 32)
        self.block_size, self.total_blocks, self.free_blocks = struct.unpack_from(">III", header, 40)
        self.forks = {}
        for index, name in enumerate(self.NAMES):
            start = 112 + 80 * index
            size, = struct.unpack_from(">Q", header, start)
            extents = [struct.unpack_from(">II", header, start + 16 + 8 * i) for i in range(8)]
            self.forks[name] = (size, [extent for extent in extents if extent[1]])

    def bytes_of(self, name):
        """Offset and size of a special file that lies in one piece."""
        size, extents = self.forks[name]
        if len(extents) != 1:
            raise RuntimeError(f"the {name} file is in {len(extents)} pieces")
        return extents[0][0] * self.block_size, size

    @property
    def used_bytes(self):
        return (self.total_blocks - self.free_blocks) * self.block_size


def forget(path):
    """Puts a file's bytes out of the page cache."""
    descriptor = os.open(path, os.O_RDONLY)
    try:
        os.posix_fadvise(descriptor, 0, 0, os.POSIX_FADV_DONTNEED)
    finally:
        os.close(descriptor)


def warm(path, offset, size):
    """Gets bytes of a file into the page cache."""
    with open(path, "rb") as file:
        file.seek(offset)
        while size > 0:
            size -= len(file.read(min(size, MIB))) or size


class NoLoopDevice(RuntimeError):
    """This machine has none, or not for us."""


@contextlib.contextmanager
def loop_device(path):
    """A loop device over an image, past the page cache of the image's file where the kernel can."""
    for direct in (["--direct-io=on"], []):
        attached = subprocess.run(["losetup", "--find", "--show", *direct, path], check=False,
                                  capture_output=True, text=True)
        if attached.returncode == 0:
            break
    else:
        raise NoLoopDevice(attached.stderr.strip())
    device = attached.stdout.strip()
    try:
        yield device
    finally:
        subprocess.run(["losetup", "--detach", device], check=True)
