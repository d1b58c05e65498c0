"""Programs that run beside a test and print lines."""

import os
import subprocess
import threading

from . import lane
from .lane import scaled, wait_until


class LineReader:
    """A running program whose standard output is collected line by line.

    A context manager: the program is stopped with SIGTERM at the end.
    """

    def __init__(self, command: list[str], environment: dict[str, str] | None = None):
        self.lines: list[str] = []
        self.errors: list[str] = []
        self.process = subprocess.Popen(
            command,
            env={**(os.environ if environment is None else environment),
                 **lane.sanitizer_environment()},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            errors="replace",
        )
        self._threads = [
            threading.Thread(target=self._read, args=pair, daemon=True)
            for pair in ((self.process.stdout, self.lines), (self.process.stderr, self.errors))
        ]
        for thread in self._threads:
            thread.start()

    @staticmethod
    def _read(stream, lines: list[str]) -> None:
        for line in stream:
            lines.append(line.rstrip("\n"))

    def wait_line(self, accepts, timeout: float = 3.0) -> str:
        """The first line that a function accepts or that contains a text."""
        test = accepts if callable(accepts) else lambda line: accepts in line
        return wait_until(
            lambda: next((line for line in list(self.lines) if test(line)), None),
            timeout,
            lambda: f"a line of {self.process.args[0]}, only {self.lines[-20:]} {self.errors[-5:]}",
        )

    def wait_exit(self, timeout: float = 5.0) -> int:
        status = self.process.wait(scaled(timeout))
        for thread in self._threads:
            thread.join(scaled(timeout))
            assert not thread.is_alive(), f"what {self.process.args[0]} started is still there"
        report = lane.sanitizer_report("\n".join(self.errors))
        assert not report, report
        return status

    def stop(self) -> int:
        if self.process.poll() is None:
            self.process.terminate()
        return self.wait_exit()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self.stop()
        finally:
            if self.process.poll() is None:
                self.process.kill()
                self.process.wait()
