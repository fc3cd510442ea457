"""Where things are, and how much is measured. bench/run sets it through the environment."""
import os
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
BUILD = Path(os.environ.get("BENCH_BUILD", ROOT / "build/release"))
SCRATCH = Path(os.environ.get("BENCH_SCRATCH", "/tmp/xrdefrag-bench"))
QUICK = os.environ.get("BENCH_QUICK") == "1"

PROGRAM = BUILD / "xrdefrag"
MAKEVOLUME = BUILD / "tests/makevolume"
CHECKVOLUME = BUILD / "tests/checkvolume"
FLOOR = BUILD / "bench/floor"
RECORDER = BUILD / "bench/librecorder.so"


def repetitions(thorough, quick):
    """How often to repeat: `quick` times in a quick run."""
    return quick if QUICK else thorough
