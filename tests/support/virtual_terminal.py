"""A program on a terminal of its own whose screen can be read."""

import fcntl
import os
import pty
import select
import signal
import struct
import subprocess
import termios
import threading

import pyte

from kt_system import lane


class VirtualTerminal:
    """Runs a command as the leader of a session on a new terminal; everything it writes is shown.

    raw: all bytes that were written. screen: what a person would see.
    """

    def __init__(self, command: list[str], environment: dict, columns: int, rows: int, cwd=None):
        self.raw = b""
        self.screen = pyte.Screen(columns, rows)
        self._stream = pyte.ByteStream(self.screen)
        self._lock = threading.Lock()
        self._master, slave = pty.openpty()
        self.settings_before = termios.tcgetattr(slave)
        self._set_size(columns, rows)
        self.process = subprocess.Popen(
            command,
            env=environment,
            cwd=cwd,
            stdin=slave,
            stdout=slave,
            stderr=slave,
            start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
        )
        self._slave = slave
        self._closing = threading.Event()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _set_size(self, columns: int, rows: int) -> None:
        size = struct.pack("HHHH", rows, columns, 0, 0)
        fcntl.ioctl(self._master, termios.TIOCSWINSZ, size)

    def _read(self) -> None:
        while not self._closing.is_set():
            if not select.select([self._master], [], [], 0.1)[0]:
                continue
            try:
                written = os.read(self._master, 65536)
            except OSError:
                return
            with self._lock:
                self.raw += written
                self._stream.feed(written)

    def lines(self) -> list[str]:
        with self._lock:
            return [line.rstrip() for line in self.screen.display]

    def text(self) -> str:
        return "\n".join(self.lines())

    def cells(self) -> list[list]:
        """Every place with its sign and colours."""
        with self._lock:
            screen = self.screen
            columns = range(screen.columns)
            return [[screen.buffer[y][x] for x in columns] for y in range(screen.lines)]

    def settled_lines(self) -> list[str]:
        """What is shown when the program has drawn a whole page more, from its first line on."""
        for _ in range(2):
            drawn = len(self.raw)
            lines = lane.wait_until(lambda: self._page_since(drawn), 20.0, self.text)
        return lines

    def _page_since(self, drawn: int) -> list[str] | None:
        """A page that was begun behind so many bytes, while nothing of the next one is there."""
        with self._lock:
            if b"\x1b[1;1H" in self.raw[drawn:] and self.raw.endswith(b"\x1b[J"):
                return [line.rstrip() for line in self.screen.display]
        return None

    def resize(self, columns: int, rows: int) -> None:
        with self._lock:
            self.screen.resize(rows, columns)
        self._set_size(columns, rows)  # tells the programs on the terminal

    def settings(self):
        return termios.tcgetattr(self._slave)

    def type(self, keys: bytes) -> None:
        os.write(self._master, keys)

    def hang_up(self) -> None:
        """Close the terminal, as its window would."""
        self._closing.set()
        self._reader.join()
        os.close(self._slave)
        os.close(self._master)
        self._master = -1

    def close(self) -> None:
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
        if self._master >= 0:
            self.hang_up()
