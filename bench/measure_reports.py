#!/usr/bin/env python3
"""SCAN, FRAGINFO and MAP against reading the catalog and writing the lines, and against what else
lists a volume's files."""
import shutil

from harness import floors, program, results, setting, volumes
from harness.results import median

COUNTS = (10_000, 100_000, 1_000_000)
COMMANDS = ("FRAGINFO", "SCAN", "SCAN --full-paths")


def measure_in_turns(path, catalog, cold, repetitions):
    """Seconds of every command and of its floors: {name: [seconds, ...]}, and the bytes put out."""
    seconds = {name: [] for name in (*COMMANDS, "dd", *(f"write {name}" for name in COMMANDS))}
    sizes = {}

    def prepare():
        if cold:
            volumes.forget(path)
        else:
            volumes.warm(path, *catalog)

    for _ in range(repetitions):
        prepare()
        seconds["dd"].append(floors.read(path, *catalog))
        for command in COMMANDS:
            prepare()
            with program.Program(path) as xrdefrag:
                prepare()
                spent, sizes[command] = xrdefrag.ask(command)
            seconds[command].append(spent)
            seconds[f"write {command}"].append(floors.write(sizes[command]))
    return seconds, sizes


def measure_state(count, path, cold):
    state = "cold" if cold else "warm"
    catalog = volumes.Layout(path).bytes_of("catalog")
    repetitions = setting.repetitions(9 if count == COUNTS[-1] else 15, 5 if count > 10_000 else 9)
    seconds, _ = measure_in_turns(path, catalog, cold, repetitions)
    for command in COMMANDS:
        if command == "FRAGINFO":
            floor = seconds["dd"]
        else:
            floor = [a + b for a, b in zip(seconds["dd"], seconds[f"write {command}"])]
        value = results.ratio(seconds[command], floor)
        work = f"{command}, {count:,} files, {state}"
        a_file = median(seconds[command]) / count * 1e6
        detail = f"{a_file:.3f} µs a file, floor {median(floor) / count * 1e6:.3f}"
        if command == "FRAGINFO" and not cold:
            results.at_least(work, 5, 1 / a_file, "million files a second", detail)
        elif command == "FRAGINFO":
            results.at_most(work, 1.15, value, detail=detail)
        else:
            results.at_most(work, 1.3 if cold else 2.5, value, detail=detail)
        results.point(f"{command}, {state}", count, median(seconds[command]))
    return {command: median(seconds[command]) / count for command in COMMANDS}


def measure_peers(path, count):
    """Whole programs from start to end, warm."""
    commands = {"7zz l": ["7zz", "l", path], "fls -r": ["fls", "-r", path]}
    seconds = {name: [] for name in (*commands, "SCAN")}
    memory = {}
    missing = [name for name in commands if not shutil.which(name.split()[0])]
    repetitions = 1 if setting.QUICK else 3
    for _ in range(repetitions):
        volumes.warm(path, *volumes.Layout(path).bytes_of("catalog"))
        with program.Program(path) as xrdefrag:
            spent, _ = xrdefrag.ask("SCAN --full-paths")
            memory["SCAN"] = xrdefrag.peak_mib()
        seconds["SCAN"].append(spent + xrdefrag.start_seconds)
        for name in commands:
            if name not in missing:
                spent, memory[name], _ = program.output_of(commands[name])
                seconds[name].append(spent)
    for name, limit in (("7zz l", 5), ("fls -r", 20)):
        if name in missing:
            results.row(f"{name}, {count:,} files", f"≥ {limit} × slower than SCAN",
                        "not installed", None)
            continue
        results.at_least(f"SCAN --full-paths faster than {name}, {count:,} files, warm", limit,
                         results.ratio(seconds[name], seconds["SCAN"]),
                         detail=f"{median(seconds[name]):.2f} s and {memory[name]:.0f} MiB against "
                                f"{median(seconds['SCAN']):.2f} s and {memory['SCAN']:.0f} MiB")
    return memory["SCAN"]


def measure_map(path):
    """MAP of one file, its path put together from the catalog: two descents for every component.
    By ID, since the files' names have blanks in them, which a command's words cannot have."""
    last = volumes.Layout(path).file_count
    seconds = []
    for _ in range(setting.repetitions(5, 3)):
        with program.Program(path) as xrdefrag:
            seconds += [xrdefrag.ask(f"MAP --cnid {cnid}")[0]
                        for cnid in range(last // 100, last, last // 100)]
    seconds.sort()
    results.point("MAP, warm", last, median(seconds))
    results.at_most(f"MAP of one file, {last:,} files", 5, median(seconds) * 1e3, "ms",
                    f"99 % within {seconds[int(len(seconds) * 0.99)] * 1e3:.2f} ms")


def main():
    a_file = {}
    for count in COUNTS:
        results.say(f"a volume of {count:,} files")
        path = volumes.of_files(count)
        for cold in (True, False):
            for command, seconds in measure_state(count, path, cold).items():
                a_file.setdefault((command, cold), []).append(seconds)
    for (command, cold), seconds in a_file.items():
        results.at_most(f"{command}, {'cold' if cold else 'warm'}: time a file, "
                        f"{COUNTS[-1]:,} against {COUNTS[0]:,} files", 1.1,
                        seconds[-1] / seconds[0])
    peak = measure_peers(volumes.of_files(COUNTS[-1]), COUNTS[-1])
    results.at_most(f"SCAN --full-paths, {COUNTS[-1]:,} files: memory", 64, peak, "MiB")
    for count in COUNTS:
        measure_map(volumes.of_files(count))


if __name__ == "__main__":
    main()
