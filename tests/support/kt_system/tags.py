"""The tag store as another application sees it: through kt-tag."""

import fnmatch
import json
import subprocess

from . import lane
from .lane import scaled, wait_until
from .processes import LineReader

NO_FRAME_YET = -0x80000000  # status tags are signed: 0x80000000
COMMUNICATING = 0
TIMED_OUT = -0x7FFFFFFF  # 0x80000001


def block_tag(device: str, transaction: str, tag: str) -> str:
    return f"can_proprietary/{device}/{transaction}_{tag}"


def status_tag(device: str) -> str:
    return f"can_proprietary/{device}/status"


class Tags:
    def __init__(self, environment: dict[str, str]):
        self._environment = environment

    def run(self, *arguments: str) -> subprocess.CompletedProcess:
        result = subprocess.run(
            [lane.program("kt-tag"), *arguments],
            env=self._environment,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=scaled(10),
        )
        assert not lane.sanitizer_report(result.stderr), result.stderr
        return result

    def list(self) -> list[dict]:
        """Every tag as kt-tag describes it; none when no store stands yet."""
        result = self.run("list", "--json")
        return [json.loads(line) for line in result.stdout.splitlines()]

    def names(self) -> set[str]:
        return {tag["name"] for tag in self.list()}

    def find(self, name: str) -> dict | None:
        """The tag's description, None when there is no such tag."""
        result = self.run("get", name, "--json")
        return json.loads(result.stdout) if result.returncode == 0 else None

    def get(self, name: str):
        """Its value: a number, or hexadecimal text for raw bytes."""
        tag = self.find(name)
        assert tag is not None, f"no tag {name}"
        return tag["value"]

    def set(self, name: str, value) -> None:
        result = self.run("set", name, str(value))
        assert result.returncode == 0, f"kt-tag set {name} {value}: {result.stderr}"

    def wait_for(self, name: str, wanted, timeout: float = 3.0):
        """Wait for a value, or for one that a function accepts; returns the value."""
        accepts = wanted if callable(wanted) else lambda value: value == wanted
        last: dict | None = None

        def reached() -> bool:
            nonlocal last
            last = self.find(name)
            return last is not None and accepts(last["value"])

        text = "its condition" if callable(wanted) else repr(wanted)
        wait_until(reached, timeout, lambda: f"tag {name} to reach {text}, last seen {last}")
        return last["value"]

    def watch(self, pattern: str = "*") -> "TagWatch":
        """Follow the changes of tags that stand already; use as a context manager."""
        known = sum(fnmatch.fnmatchcase(name, pattern) for name in self.names())
        return TagWatch(pattern, known, self._environment)


class TagWatch(LineReader):
    def __init__(self, pattern: str, known: int, environment: dict[str, str]):
        command = [lane.program("kt-tag"), "watch", pattern, "--initial", "--json"]
        super().__init__(command, environment)
        self._known = known
        wait_until(lambda: len(self.lines) >= known, what=lambda: f"kt-tag watch: {self.errors}")

    def changes(self, name: str) -> list:
        """The values of a tag in the order in which they were seen."""
        tags = map(json.loads, list(self.lines)[self._known :])
        return [tag["value"] for tag in tags if tag["name"] == name]

    def wait_change(self, name: str, value, timeout: float = 3.0) -> None:
        wait_until(
            lambda: value in self.changes(name),
            timeout,
            lambda: f"tag {name} to change to {value!r}, only {self.changes(name)}",
        )
