#!/usr/bin/env python3
"""From starting the program to its first line, which it writes once the volume is open."""
from harness import program, results, setting, volumes
from harness.results import median


def main():
    for name, path in (("10,000 files", volumes.of_files(10_000)),
                       ("1,000,000 files", volumes.of_files(1_000_000)),
                       ("8 TiB", volumes.make("8tib", "--preset", "8tib"))):
        seconds = []
        for _ in range(setting.repetitions(21, 11)):
            with program.Program(path) as xrdefrag:
                seconds.append(xrdefrag.start_seconds)
        results.at_most(f"start to READY, {name}", 15, median(seconds) * 1e3, "ms")


if __name__ == "__main__":
    main()
