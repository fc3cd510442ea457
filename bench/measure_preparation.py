#!/usr/bin/env python3
"""What a rewriting run does before it moves anything: building its picture of the volume."""
import time

from harness import program, results, setting, traces, volumes

SECONDS_MAX = setting.repetitions(100, 45)


def measure(path, name):
    """Processor time up to the log line that tells where the run starts, for each pass over the
    catalog."""
    log, trace = setting.SCRATCH / "preparation.log", setting.SCRATCH / "preparation.trace"
    offset, size = volumes.Layout(path).bytes_of("catalog")
    with program.Program(path, trace=trace, debug_log=log) as xrdefrag:
        begun, first = time.perf_counter(), xrdefrag.cpu_seconds()
        xrdefrag.send("COMPACT --quiet")
        while b",DEBUG,Starting at block" not in log.read_bytes() and \
                time.perf_counter() - begun < SECONDS_MAX:
            time.sleep(0.01)
        spent, seconds = xrdefrag.cpu_seconds() - first, time.perf_counter() - begun
        peak = xrdefrag.peak_mib()
    # Chunks of a mebibyte are what a pass over the catalog reads; nodes by themselves are descents.
    begin = offset
    passes = [item for item in traces.load(trace) if item.kind == traces.READ
              and begin <= item.offset < begin + size and item.size >= min(size, 1 << 19)]
    count = max(1, round(sum(item.size for item in passes) / size))
    results.at_most(f"preparing COMPACT, {name}: CPU a stretch", 3, spent / count, "s",
                    f"{count} passes over the catalog, {seconds:.2f} s in all")
    results.at_most(f"preparing COMPACT, {name}: memory", 256, peak, "MiB")


def main():
    runs = volumes.make("runs-1m", "--files", "100000", "--size", "24G", "--fill", "50",
                        "--fragments", "20", "--unwritten")
    measure(runs, "about 1,000,000 runs")
    measure(volumes.of_files(1_000_000), "1,000,000 files")


if __name__ == "__main__":
    main()
