"""The program under measurement, driven over pipes as its front end drives it."""
import os
import subprocess
import time

from . import setting

READ_BYTES = 1 << 20


class Program:
    """A running xrdefrag. Leaving the `with` block sends QUIT and waits for the end."""

    def __init__(self, volume, trace=None, debug_log=None):
        environment = dict(os.environ, LWDebugLevel="debug" if debug_log else "err")
        if trace:
            environment |= {"LD_PRELOAD": str(setting.RECORDER), "TRANSFER_TRACE": str(trace)}
        self._log = open(debug_log, "wb") if debug_log else subprocess.DEVNULL
        begun = time.perf_counter()
        self.process = subprocess.Popen([setting.PROGRAM, volume], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=self._log, env=environment)
        self._output = self.process.stdout.fileno()
        self.usage = None
        # READY leaves the process with the next line, such as one about a command that is none.
        self.send("HELLO")
        greeting = os.read(self._output, READ_BYTES)
        self.start_seconds = time.perf_counter() - begun
        if not greeting.startswith(b"READY\nERROR,HELLO"):
            raise RuntimeError(f"{volume}: {greeting!r}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.quit()

    def send(self, command):
        self.process.stdin.write(command.encode() + b"\n")
        self.process.stdin.flush()

    def ask(self, command, keep=False):
        """Sends a command and reads up to its DONE line: (seconds, bytes or, to keep, the text)."""
        begun = time.perf_counter()
        self.send(command)
        answer = self.answer(command, keep)
        return time.perf_counter() - begun, answer

    def answer(self, command, keep=False):
        """Reads up to the command's DONE line; an ERROR line is a failure."""
        name = command.split()[0].encode()
        return self._read_until(name + b",DONE\n", keep)

    def _read_until(self, ending, keep):
        """The output up to an ending: the bytes, or their number unless they are to be kept."""
        pieces, count, tail = [], 0, b""
        while not tail.endswith(ending):
            piece = os.read(self._output, READ_BYTES)
            if not piece:
                raise RuntimeError(f"the program ended: {tail!r}")
            count += len(piece)
            if keep:
                pieces.append(piece)
            tail = (tail + piece)[-256:]
            if b",ERROR," in tail:
                raise RuntimeError(tail.decode(errors="replace"))
        return b"".join(pieces) if keep else count

    def cpu_seconds(self):
        """User and system time that the process has taken so far."""
        with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def peak_mib(self):
        """The most memory it has had resident so far."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as file:
            for line in file:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1]) / 1024
        return 0.0

    def quit(self):
        """Sends QUIT, reads what still comes, waits; the seconds that took."""
        if self.usage:
            return 0.0
        begun = time.perf_counter()
        try:
            self.send("QUIT")
        except BrokenPipeError:
            pass
        while os.read(self._output, READ_BYTES):
            pass
        _, status, self.usage = os.wait4(self.process.pid, 0)
        seconds = time.perf_counter() - begun
        self.process.returncode = status
        self.process.stdin.close()
        self.process.stdout.close()
        if self._log is not subprocess.DEVNULL:
            self._log.close()
        if status:
            raise RuntimeError(f"the program ended with status {status}")
        return seconds


def output_of(command):
    """Runs a command to its end, its output read and dropped: (seconds, peak MiB, bytes)."""
    begun = time.perf_counter()
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as process:
        output, count = process.stdout.fileno(), 0
        while piece := os.read(output, READ_BYTES):
            count += len(piece)
        _, _, usage = os.wait4(process.pid, 0)
        process.returncode = 0
    return time.perf_counter() - begun, usage.ru_maxrss / 1024, count
