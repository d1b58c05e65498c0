"""Documents whose commands are run.

Commands stand in the indented blocks of a document. In a block that begins with "$ " they do so
behind that prompt, each above what it prints; a command goes on while a quote is open and behind a
backslash at the end of a line. In the text of an answer "..." stands for whatever is there. In the
other blocks each line is a command.
"""

import contextlib
import os
import pathlib
import re
import shlex
import signal
import subprocess
import threading
from typing import NamedTuple

from . import lane
from .lane import scaled

INDENT = "    "
PROMPT = "$ "
ELSE = "..."


class Command(NamedTuple):
    line: int  # where it stands in the document
    text: str
    output: str  # as documented

    @property
    def pattern(self) -> re.Pattern:
        parts = self.output.split(ELSE)
        return re.compile(".*".join(map(re.escape, parts)), re.DOTALL)

    @property
    def only_looks(self) -> bool:
        """It shows something that may take a moment to come about."""
        words = _words(self.text)
        if words[0] == "curl":
            return not {"-d", "-F", "-X"} & set(words)
        if words[0] == "mosquitto_sub":
            return True
        return "cansend" not in words and (words[0] == "candump" or words[1] in ("get", "list"))

    @property
    def only_writes(self) -> bool:
        """It sends a frame or writes a tag; once more does no harm."""
        words = _words(self.text)
        return "cansend" in words or words[0] == "mosquitto_pub" or words[:2] == ["kt-tag", "set"]


def _words(text: str) -> list[str]:
    words = shlex.split(text)
    return words[3:] if words[:3] == ["kt-softcan", "join", "--"] else [*words, ""]


def section_of(path: pathlib.Path, title: str) -> str:
    """The text below a heading of the second level."""
    sections = path.read_text("utf-8").split("\n## ")
    return next(text for text in sections if text.startswith(title + "\n"))


def plain_commands(text: str) -> list[str]:
    return [line.strip() for line in text.splitlines() if line.startswith(INDENT)]


def _blocks(text: str):
    """Each indented block as its lines, without their indent, and the number of its first one."""
    block: list[str] = []
    for number, line in enumerate([*text.splitlines(), ""], 1):
        if line.startswith(INDENT):
            block.append(line.removeprefix(INDENT))
        elif block:
            yield number - len(block), block
            block = []


def _is_open(text: str) -> bool:
    """More of the command is to come."""
    try:
        shlex.split(text)
    except ValueError:
        return True
    return False


def session_of(path: pathlib.Path) -> list[Command]:
    """The commands with a prompt, in their order."""
    found = []
    for start, block in _blocks(path.read_text("utf-8")):
        if not block[0].startswith(PROMPT):
            continue
        lines = list(enumerate(block, start))
        while lines:
            number, text = lines.pop(0)
            assert text.startswith(PROMPT), f"{path.name}:{number}: no command"
            text = text.removeprefix(PROMPT)
            while _is_open(text):
                text += "\n" + lines.pop(0)[1]
            printed = []
            while lines and not lines[0][1].startswith(PROMPT):
                printed.append(lines.pop(0)[1])
            found.append(Command(number, text, "\n".join(printed)))
    return found


class Terminal:
    """A shell that commands are typed into, one after another: what one sets, the next one sees.

    replacements: what the document names -> what it is called here, in commands and in what they
    print. folder: where the commands run, the scratch folder by default. curl says nothing of its
    progress and fails rather than wait for ever.
    """

    MARK = "kt-terminal-done"

    def __init__(
        self,
        scratch: pathlib.Path,
        environment: dict[str, str],
        *,
        folder: pathlib.Path | None = None,
        replacements: dict[str, str] | None = None,
        curl_options: tuple[str, ...] = (),
    ):
        self.replacements = replacements or {}
        options = ["silent", "show-error", f"max-time = {scaled(30):g}", *curl_options]
        (scratch / ".curlrc").write_text("\n".join(options) + "\n")
        self._shell = subprocess.Popen(
            ["bash", "--noprofile", "--norc"],
            env={
                **environment,
                "CURL_HOME": str(scratch),
                "PATH": f"{lane.BIN}:{environment['PATH']}",
            },
            cwd=folder or scratch,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
            start_new_session=True,
        )

    def type(self, text: str) -> tuple[int, str]:
        """The status of a command and what it printed."""
        for documented, actual in self.replacements.items():
            text = text.replace(documented, actual)
        self._shell.stdin.write(f"{{ {text}\n}} </dev/null\nprintf '\\n%s %s\\n' {self.MARK} $?\n")
        self._shell.stdin.flush()
        guard = threading.Timer(scaled(60), self._kill)
        guard.start()
        printed = line = ""
        for line in self._shell.stdout:
            if line.startswith(self.MARK):
                break
            printed += line
        guard.cancel()
        assert line.startswith(self.MARK), f"{text}\nended the shell or takes too long: {printed}"
        printed = printed.removesuffix("\n").rstrip("\n")
        for documented, actual in self.replacements.items():
            printed = printed.replace(actual, documented)
        return int(line.split()[1]), printed

    def close(self) -> None:
        self._kill()
        self._shell.communicate()

    def _kill(self) -> None:
        """The shell with whatever it runs."""
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self._shell.pid, signal.SIGKILL)


def run_session(terminal: Terminal, commands: list[Command]) -> None:
    """Every command prints what the document says.

    A command that only looks is repeated until it does, with the frames and tag writes right before
    it: what they bring about takes its way through the service.
    """
    for index, command in enumerate(commands):
        status, printed = terminal.type(command.text)
        if command.only_looks:
            first = index
            while first > 0 and commands[first - 1].only_writes:
                first -= 1

            def as_documented() -> bool:
                nonlocal status, printed
                if command.pattern.fullmatch(printed):
                    return True
                for earlier in commands[first:index]:
                    terminal.type(earlier.text)
                status, printed = terminal.type(command.text)
                return False

            lane.wait_until(as_documented, 20.0, lambda: _difference(command, printed))
        assert command.pattern.fullmatch(printed), _difference(command, printed)
        assert status == 0, f"line {command.line}: {command.text}: status {status}"


def _difference(command: Command, printed: str) -> str:
    return f"line {command.line}: {command.text}\nprinted\n{printed}\nnot\n{command.output}"
