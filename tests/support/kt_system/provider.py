"""A small provider of tags, for tests that need no service."""

import subprocess
import threading

from . import lane
from .lane import scaled, wait_until


class Provider:
    """dx-test-provider: obeys lines, reports what other programs wrote."""

    def __init__(self, environment, *tags):
        self.process = subprocess.Popen(
            [lane.program("dx-test-provider"), *tags],
            env=environment,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        self.taken: list[tuple[str, str]] = []
        self._answers: list[str] = []
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        self._answer("ready")

    def _read(self):
        for line in self.process.stdout:
            words = line.decode(errors="replace").rstrip("\n").split(" ")
            if words[0] == "taken":
                self.taken.append((" ".join(words[1:-1]), words[-1]))
            else:
                self._answers.append(words[0])

    def _answer(self, wanted):
        wait_until(lambda: self._answers, what=f"the provider to say {wanted}")
        assert self._answers.pop(0) == wanted

    def tell(self, line, answer="ok"):
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()
        self._answer(answer)

    def write(self, name, digits):
        self.tell(f"write {name} {digits}")

    def wait_taken(self, name, digits):
        wait_until(
            lambda: (name, digits) in self.taken, what=lambda: f"{name} {digits}: {self.taken}"
        )

    def kill(self):
        self.process.kill()
        self.process.wait()

    def close(self):
        if self.process.poll() is None:
            self.process.stdin.close()
            assert self.process.wait(scaled(5)) == 0
        if self.process.stderr.closed:
            return
        self._reader.join(scaled(5))
        self.process.stdout.close()
        errors = self.process.stderr.read().decode(errors="replace")
        self.process.stderr.close()
        assert not lane.sanitizer_report(errors), errors
