"""What was measured, on its way from a measurement to bench/run.

A measurement is an executable `bench/measure_*`. It prints one JSON object a line: a row of the
table, {"work", "goal", "measured", "met"} with `met` true, false or null where there is no goal, or
points of a curve, {"curve", "x", "y"}. What it says on standard error is for whoever waits.
"""
import json
import statistics
import sys


def say(text):
    print(f"   {text}", file=sys.stderr, flush=True)


def row(work, goal, measured, met):
    """A row of the table."""
    say(f"{work}: {measured} (goal: {goal}) {'' if met is None else 'met' if met else 'NOT MET'}")
    print(json.dumps({"work": work, "goal": goal, "measured": measured, "met": met}), flush=True)


def at_most(work, limit, value, unit="×", detail=""):
    """A row for a goal that is an upper bound."""
    text = f"{value:.3g} {unit}" + (f" ({detail})" if detail else "")
    row(work, f"≤ {limit:g} {unit}", text, value <= limit)


def at_least(work, limit, value, unit="×", detail=""):
    """A row for a goal that is a lower bound."""
    text = f"{value:.3g} {unit}" + (f" ({detail})" if detail else "")
    row(work, f"≥ {limit:g} {unit}", text, value >= limit)


def point(curve, x, y):
    """A point of a curve."""
    print(json.dumps({"curve": curve, "x": x, "y": y}), flush=True)


def ratio(values, floors):
    """The median of the ratios of measurements that were taken in turns."""
    return statistics.median(value / floor for value, floor in zip(values, floors, strict=True))


median = statistics.median
