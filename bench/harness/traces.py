"""What the recorder has written down of a run: its transfers, in the order in which they ended."""
import struct
from typing import NamedTuple

RECORD = struct.Struct("<QQQIB??x")


class Transfer(NamedTuple):
    start: int  # nanoseconds
    end: int
    offset: int  # bytes
    size: int
    kind: int
    is_direct: bool
    is_file_data: bool


READ, WRITE, SYNC = range(3)


def load(path):
    with open(path, "rb") as file:
        return [Transfer(*fields) for fields in RECORD.iter_unpack(file.read())]


class Summary:
    """Sums over the transfers of a run."""

    def __init__(self, path):
        transfers = load(path)
        data = [transfer for transfer in transfers if transfer.is_file_data]
        written = [transfer for transfer in transfers if transfer.kind == WRITE]
        self.data_written = sum(item.size for item in written if item.is_file_data)
        self.metadata_written = sum(item.size for item in written if not item.is_file_data)
        self.syncs = sum(item.kind == SYNC for item in transfers)
        # From the first block copied to the last byte written.
        self.engine_seconds = 0.0
        if data:
            end = max(item.end for item in transfers if item.kind != READ)
            self.engine_seconds = (end - min(item.start for item in data)) / 1e9
