"""The physical floors: what the bytes alone cost, without any work on them."""
import os
import re
import subprocess
import time

from . import setting
from .program import READ_BYTES


def dd(*operands):
    """Runs dd and answers the seconds that it tells of, which leave out its own start."""
    told = subprocess.run(["dd", "bs=1M", *operands], check=True, capture_output=True, text=True,
                          env=dict(os.environ, LC_ALL="C")).stderr
    return float(re.search(r"copied, ([0-9.e+-]+) s", told).group(1))


def read(path, offset, size):
    """Reading bytes of a file, through the page cache as it is."""
    return dd(f"if={path}", "of=/dev/null", "iflag=skip_bytes,count_bytes", f"skip={offset}",
              f"count={size}")


def copy(source, target, size):
    """Copying so many bytes from file to file past the page cache, to stable storage."""
    return dd(f"if={source}", f"of={target}", "iflag=direct,count_bytes", "oflag=direct",
              f"count={size}", "conv=notrunc,fdatasync")


def write(size):
    """Emitting so many bytes to a pipe whose reader drops them."""
    with subprocess.Popen([setting.FLOOR, "write", str(size)],
                          stdout=subprocess.PIPE) as process:
        output = process.stdout.fileno()
        # The first piece is waited for outside: it takes a process to be started.
        left = size - len(os.read(output, READ_BYTES)) if size else 0
        begun = time.perf_counter()
        while left > 0:
            left -= len(os.read(output, READ_BYTES))
        return time.perf_counter() - begun


def carry_out(trace, path):
    """The transfers and syncs of a recorded run, bare. What is on `path` is lost."""
    told = subprocess.run([setting.FLOOR, "copy", trace, path], check=True, capture_output=True,
                          text=True).stdout
    return float(told)
