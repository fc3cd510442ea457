#!/usr/bin/env python3
"""BITMAP of huge volumes against reading the allocation file and writing the lines."""
from harness import floors, program, results, setting, volumes
from harness.results import median

SCALES = (1, 2, 8, 32, 63, 64, 512, 4096)


def measure(path, size):
    layout = volumes.Layout(path)
    bitmap = layout.bytes_of("allocation")
    seconds = {scale: [] for scale in SCALES}
    reading, writing, sizes = [], {scale: [] for scale in SCALES}, {}
    with program.Program(path) as xrdefrag:
        for _ in range(setting.repetitions(9, 5)):
            volumes.warm(path, *bitmap)
            reading.append(floors.read(path, *bitmap))
            for scale in SCALES:
                spent, sizes[scale] = xrdefrag.ask(f"BITMAP {scale}")
                seconds[scale].append(spent)
                writing[scale].append(floors.write(sizes[scale]))
    for scale in SCALES:
        floor = [a + b for a, b in zip(reading, writing[scale])]
        detail = f"{median(seconds[scale]) * 1e3:.1f} ms, floor {median(floor) * 1e3:.1f}"
        value = results.ratio(seconds[scale], floor)
        if scale in (1, 4096):
            results.at_most(f"BITMAP {scale}, {size}", 1.5, value, detail=detail)
        else:
            results.row(f"BITMAP {scale}, {size}", "–", f"{value:.3g} × ({detail})", None)
        results.point(f"BITMAP {scale}", layout.total_blocks, median(seconds[scale]))


def measure_five_million_blocks():
    path = volumes.make("blocks-5m", "--files", "2000", "--size", f"{5_000_000 * 4}K",
                        "--fill", "50", "--unwritten")
    layout = volumes.Layout(path)
    volumes.warm(path, *layout.bytes_of("allocation"))
    with program.Program(path) as xrdefrag:
        for scale in (1, 64, 4096):
            seconds = [xrdefrag.ask(f"BITMAP {scale}")[0] for _ in range(15)]
            results.at_most(f"BITMAP {scale}, {layout.total_blocks:,} blocks", 10,
                            median(seconds) * 1e3, "ms")
            results.point(f"BITMAP {scale}", layout.total_blocks, median(seconds))


def main():
    for size in ("2tib", "8tib"):
        measure(volumes.make(size, "--preset", size), size.replace("tib", " TiB"))
    measure_five_million_blocks()


if __name__ == "__main__":
    main()
