#!/usr/bin/env python3
"""DEFRAG and COMPACT of a 4 GiB volume, on a file and on a loop device: the whole command against a
direct copy of the volume's data, the engine alone against a bare copier that issues the same
transfers and syncs, memory, metadata, and how long cancelling takes."""
import contextlib
import random
import subprocess
import time

from harness import floors, program, results, setting, traces, volumes
from harness.results import median

MIXED = ("--size", "4G", "--fill", "70", "--files", "4000", "--fragments", "50", "--journal=8M")
SMALL = ("--size", "4G", "--files", "200000", "--file-size", "4K", "--fragments", "1")


class Restored:
    """A copy of a volume that is put back to what it was before every run; that is at the same time
    the direct copy of as many bytes as the volume has in use."""

    def __init__(self, pristine, target):
        self.pristine, self.target = pristine, target
        layout = volumes.Layout(pristine)
        self.used = layout.used_bytes
        self.size = layout.total_blocks * layout.block_size
        self.block_size = layout.block_size

    def restore(self):
        """Seconds that copying the bytes in use takes; the rest is copied besides."""
        seconds = floors.copy(self.pristine, self.target, self.used)
        left = self.size - self.used
        floors.dd(f"if={self.pristine}", f"of={self.target}", "iflag=direct,skip_bytes,count_bytes",
                  "oflag=seek_bytes,direct", f"skip={self.used}", f"seek={self.used}",
                  f"count={left}", "conv=notrunc,fdatasync")
        # The program reads metadata through the page cache.
        volumes.forget(self.target)
        return seconds


def moved_blocks(report):
    """Blocks that the PROGRESS lines tell of."""
    total = 0
    for line in report.split(b"\n"):
        fields = line.split(b",")
        if len(fields) == 7 and fields[1] == b"PROGRESS":
            total += int(fields[5])
    return total


def measure(command, volume, name, repetitions, judged):
    trace = setting.SCRATCH / "run.trace"
    whole, engine, copies, bare = [], [], [], []
    peak = 0
    moved, processor = set(), []
    summary = None
    for _ in range(repetitions):
        copies.append(volume.restore())
        with program.Program(volume.target, trace=trace) as xrdefrag:
            begun = xrdefrag.cpu_seconds()
            spent, report = xrdefrag.ask(command, keep=True)
            processor.append(xrdefrag.cpu_seconds() - begun)
            peak = max(peak, xrdefrag.peak_mib())
        whole.append(spent)
        moved.add(moved_blocks(report))
        summary = traces.Summary(trace)
        engine.append(summary.engine_seconds)
        if judged:
            subprocess.run([setting.CHECKVOLUME, volume.target], check=True,
                           stdout=subprocess.DEVNULL)
            judged = False
        # The bare copier takes longest of all; a quick run asks it once.
        if not (bare and setting.QUICK):
            bare.append(floors.carry_out(trace, volume.target))
    # The same volume and the same command: the same moves.
    if len(moved) != 1:
        raise RuntimeError(f"{command}, {name}: the runs moved {sorted(moved)} blocks")
    blocks, = moved
    if name == "4 GiB mixed, file":
        results.point(command, volume.size // volume.block_size, median(whole))
    value = results.ratio(whole, copies)
    detail = (f"{median(whole):.2f} s, a copy {median(copies):.2f} s, CPU {median(processor):.2f} s")
    if "mixed" in name:
        results.at_most(f"{command}, {name}: whole command", 2.5, value, detail=detail)
    else:
        results.row(f"{command}, {name}: whole command", "–", f"{value:.3g} × ({detail})", None)
    results.at_most(f"{command}, {name}: engine alone", 1.25, median(engine) / median(bare),
                    detail=f"{median(engine):.2f} s, the bare copier {median(bare):.2f} s")
    share = 100 * summary.metadata_written / max(1, summary.data_written)
    text = f"{summary.metadata_written / 1e6:.1f} MB for {summary.data_written / 1e6:.0f} MB of data"
    if "mixed" in name:
        results.at_most(f"{command}, {name}: metadata written", 5, share, "%", text)
    else:
        results.row(f"{command}, {name}: metadata written", "–", f"{share:.3g} % ({text})", None)
    in_use = volume.used // volume.block_size
    results.row(f"{command}, {name}: blocks moved", "–",
                f"{blocks:,}, {blocks / in_use:.2f} for every block in use; {summary.syncs} syncs",
                None)
    results.at_most(f"{command}, {name}: memory", 256, peak, "MiB")


def measure_cancelling(volume, repetitions):
    """QUIT in mid-run to the program's end. The volume is more and more in order as this goes on."""
    volume.restore()
    chance = random.Random(1)
    seconds = []
    for _ in range(repetitions):
        xrdefrag = program.Program(volume.target)
        with xrdefrag:
            xrdefrag.send("DEFRAG")
            time.sleep(0.4 + chance.random() * 1.2)
            if xrdefrag.process.poll() is None:
                seconds.append(xrdefrag.quit())
    results.at_most("DEFRAG, 4 GiB mixed: cancelling", 250, median(seconds) * 1e3, "ms",
                    f"at most {max(seconds) * 1e3:.0f} ms in {len(seconds)} runs")


def measure_growth():
    """Volumes of the same kind and several sizes, once each."""
    for size, files in (("256M", 250), ("1G", 1000)):
        path = volumes.make(f"growth-{size}", "--size", size, "--fill", "70", "--files", str(files),
                            "--fragments", "50")
        target = path.with_suffix(".target")
        for command in ("DEFRAG", "COMPACT"):
            subprocess.run(["cp", "--sparse=never", path, target], check=True)
            subprocess.run(["sync", target], check=True)
            with program.Program(target) as xrdefrag:
                spent, _ = xrdefrag.ask(command)
            results.point(command, volumes.Layout(path).total_blocks, spent)
        target.unlink()
        path.unlink()


def full_copy(path):
    """A copy of an image without holes, so that reading any part of it takes what it takes."""
    target = path.with_suffix(".full")
    if not target.exists():
        subprocess.run(["cp", "--sparse=never", path, target], check=True)
        subprocess.run(["sync", target], check=True)
        path.unlink()
    return target


@contextlib.contextmanager
def pristine(name, options):
    path = setting.SCRATCH / f"{name}.full"
    if not path.exists():
        path = full_copy(volumes.make(name, *options))
    try:
        yield path
    finally:
        path.unlink()


def main():
    setting.SCRATCH.mkdir(parents=True, exist_ok=True)
    target = setting.SCRATCH / "target.hfs"
    measure_growth()
    repetitions = setting.repetitions(5, 2)
    try:
        with pristine("mixed", MIXED) as source:
            subprocess.run(["cp", "--sparse=never", source, target], check=True)
            on_file = Restored(source, target)
            for command in ("DEFRAG", "COMPACT"):
                measure(command, on_file, "4 GiB mixed, file", repetitions, judged=True)
            measure_cancelling(on_file, setting.repetitions(11, 7))
            try:
                with volumes.loop_device(target) as device:
                    for command in ("DEFRAG", "COMPACT"):
                        measure(command, Restored(source, device), "4 GiB mixed, loop device",
                                setting.repetitions(5, 1), judged=False)
            except volumes.NoLoopDevice as error:
                results.row("DEFRAG, 4 GiB mixed, loop device", "–", str(error), None)
        with pristine("small", SMALL) as source:
            target.unlink()
            subprocess.run(["cp", "--sparse=never", source, target], check=True)
            for command in ("DEFRAG", "COMPACT"):
                measure(command, Restored(source, target), "200,000 files of one block, file",
                        setting.repetitions(5, 1), judged=True)
    finally:
        target.unlink(missing_ok=True)


if __name__ == "__main__":
    main()
