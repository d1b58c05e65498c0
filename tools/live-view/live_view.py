#!/usr/bin/python3
"""Live view of the service in a terminal: tag values above, CAN frames below.

live_view.py --ports can0,can1 --kt-tag PROGRAM --rest URL

Tags are asked from kt-tag, their state from the REST API, frames from candump. On a terminal the
view is redrawn twice a second; elsewhere, and on a terminal that knows no control characters, every
changed tag and every frame is one line. NO_COLOR leaves colours and other styles out. Ends with
status 0 on SIGINT or SIGTERM, 129 when the terminal is closed, 141 when the reader of a pipe has
gone.
"""

import argparse
import contextlib
import os
import select
import shlex
import shutil
import signal
import sys
import termios
import threading
import time

import screen
from frames import Frames
from state import PREFIX, Poller, Snapshot

REFRESH_S = 0.5
PORTS_EVERY_S = 5.0
ENTER = "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[2J"
LEAVE = "\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l"
EXAMPLE_TAG, EXAMPLE_VALUE = "drive/control_target", "900"


def words(*parts: str) -> str:
    return " ".join(shlex.quote(part) for part in parts)


def curl_options() -> list[str]:
    """What a client needs to be let in; the certificate need not name this machine."""
    options = []
    if os.environ.get("KT_REST_TLS_CERT"):
        options.append("--insecure")
    token = os.environ.get("KT_REST_TOKEN_FILE")
    if token:
        options.append(f'-H "Authorization: Bearer $(cat {shlex.quote(os.path.abspath(token))})"')
    return options


def bus_prefix(kt_tag: str) -> list[str]:
    """How another terminal gets to the ports: those of the kernel are there already."""
    world = os.environ.get("KT_SOFTCAN", "")
    if not world:
        return []
    program = os.path.join(os.path.dirname(kt_tag), "kt-softcan")
    folder = os.path.dirname(world)
    try:
        alone = sum(name.endswith(".sock") for name in os.listdir(folder)) == 1
    except OSError:
        alone = False
    named = [] if alone and "KT_SOFTCAN_DIR" not in os.environ else ["--world", world]
    return [program, "join", *named, "--"]


def commands_to_try(arguments, snapshot: Snapshot, ports: list[str]) -> list[str]:
    """Commands for another terminal, each complete in itself."""
    ids = snapshot.configuration.device_ids.values()
    path = f"/device?deviceId={min(ids)}" if ids else "/overview"
    curl = " ".join(["curl -s", *curl_options(), shlex.quote(arguments.rest + path)])
    mqtt_port = os.environ.get("KT_LIVE_MQTT_PORT")
    subscribe = f"mosquitto_sub -p {mqtt_port} -v -t 'kt/gateway/#'"
    found = [subscribe if mqtt_port else f"{curl} | python3 -m json.tool"]
    outputs = [tag for tag in snapshot.tags if not tag.is_input and tag.is_number]
    chosen = next((tag for tag in outputs if tag.full_name == PREFIX + EXAMPLE_TAG), None)
    if chosen is None and outputs:
        chosen = outputs[0]
    port = chosen.port if chosen and chosen.port in ports else ports[0]
    if chosen:
        value = EXAMPLE_VALUE if chosen.full_name == PREFIX + EXAMPLE_TAG else "1"
        setting = words(arguments.kt_tag, "set", chosen.full_name, value)
        root = os.environ.get("KT_ROOT", "")
        found.append((f"KT_ROOT={shlex.quote(root)} " if root else "") + setting)
    found.append(words(*bus_prefix(arguments.kt_tag), "candump", port))
    return found


def terminal_size(fd: int) -> tuple[int, int]:
    try:
        width, height = os.get_terminal_size(fd)
    except OSError:
        width = height = 0
    return width or 80, height or 24


class Terminal:
    """The other screen of the terminal, silent towards the keyboard but for its signals."""

    def __init__(self):
        self._fd = sys.stdout.fileno()
        self._before = None

    def __enter__(self):
        try:
            self._before = termios.tcgetattr(self._fd)
            silent = termios.tcgetattr(self._fd)
            silent[3] &= ~termios.ECHO
            silent[6][termios.VSUSP] = b"\0"  # a stopped view would leave the screen as it is
            termios.tcsetattr(self._fd, termios.TCSANOW, silent)
        except termios.error:
            self._before = None
        self.write(ENTER)
        return self

    def write(self, text: str) -> None:
        sys.stdout.write(text)
        sys.stdout.flush()

    def __exit__(self, *_):
        try:
            self.write(LEAVE)
            if self._before:
                termios.tcsetattr(self._fd, termios.TCSAFLUSH, self._before)
        except (OSError, termios.error):
            pass  # the terminal is closed


class Run:
    """Frames and tags, and the wish to end."""

    def __init__(self, arguments):
        self.arguments = arguments
        self.ports = arguments.ports.split(",")
        self.begin = time.monotonic()
        # A signal handler may come at any moment, also while a lock is held: it only writes here.
        self._woken, self._waker = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        self.stopped = False
        self.reader_gone = False  # of the pipe, or the terminal
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
            signal.signal(number, self._stop)
        signal.signal(signal.SIGWINCH, self.wake)

    def wake(self, *_) -> None:
        with contextlib.suppress(BlockingIOError):  # full: it is awake
            os.write(self._waker, b".")

    def _stop(self, *_) -> None:
        self.stopped = True
        self.wake()

    def stop(self) -> None:
        self._stop()

    def ticks(self):
        """At least twice a second, until the end is wished for."""
        while not self.stopped:
            yield
            if select.select([self._woken], [], [], REFRESH_S)[0]:
                os.read(self._woken, 4096)

    def start(self, on_frame=None) -> tuple[Frames, Poller]:
        frames = Frames(self.ports, on_frame)
        return frames, Poller(self.arguments.kt_tag, self.ports, frames.latest, self.wake)


def run_terminal(run: Run) -> None:
    colored = not os.environ.get("NO_COLOR")
    page = screen.Page(run.ports, run.arguments.rest, run.begin)
    frames, poller = run.start()
    try:
        with Terminal() as terminal:
            for _ in run.ticks():
                snapshot = poller.snapshot
                commands = commands_to_try(run.arguments, snapshot, run.ports)
                size = terminal_size(sys.stdout.fileno())
                now = time.monotonic()
                lines = screen.compose(page, snapshot, frames, commands, size, now)
                terminal.write(screen.rendered(lines, colored))
    finally:
        poller.stop()
        frames.stop()


class PlainView:
    """One line per frame, per changed tag or state and, now and then, per port."""

    def __init__(self, run: Run):
        self._run = run
        self._lock = threading.Lock()
        self._known: dict[str, str] = {}
        self._states: dict[str, str] = {}
        self._problem = ""

    def say(self, line: str) -> None:
        with self._lock:
            try:
                print(line, flush=True)
            except OSError:
                drop_output()
                self._run.reader_gone = True
                self._run.stop()

    def show(self, snapshot: Snapshot) -> None:
        if snapshot.problem != self._problem:
            self._problem = snapshot.problem
            self.say(f"problem {snapshot.problem or 'none any more'}")
        for tag in snapshot.tags:
            if self._known.get(tag.full_name) != tag.value:
                self._known[tag.full_name] = tag.value
                self.say(f"tag {tag.full_name} {tag.value}")
            if self._states.get(tag.full_name, "") != tag.state:
                self._states[tag.full_name] = tag.state
                self.say(f"state {tag.full_name} {tag.state or 'fresh'}")

    def run(self) -> None:
        run = self._run
        frames, poller = run.start(lambda frame: self.say(f"frame {frame.port} {frame.text}"))
        shown = None
        told = False
        ports_at = run.begin + PORTS_EVERY_S
        try:
            for _ in run.ticks():
                snapshot = poller.snapshot
                if snapshot is not shown and snapshot.tags:
                    shown = snapshot
                    self.show(snapshot)
                    if not told:
                        told = True
                        for command in commands_to_try(run.arguments, snapshot, run.ports):
                            self.say(f"try: {command}")
                if time.monotonic() >= ports_at:
                    ports_at += PORTS_EVERY_S
                    for port, traffic in frames.traffic().items():
                        rate = snapshot.bit_rates.get(port)
                        self.say(f"port {screen.port_text(port, traffic, rate)}")
        finally:
            poller.stop()
            frames.stop()


def drop_output() -> None:
    os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())


def main() -> int:
    parser = argparse.ArgumentParser(description="Live view of tags and CAN frames.")
    parser.add_argument("--ports", required=True, help="CAN interfaces, e.g. can0,can1")
    parser.add_argument("--kt-tag", required=True, help="the kt-tag program")
    parser.add_argument("--rest", required=True, help="address of the REST API")
    run = Run(parser.parse_args())
    is_terminal = sys.stdout.isatty()
    if not shutil.which("candump"):
        print("run: candump is missing (package can-utils)", file=sys.stderr)
        return 1
    try:
        if is_terminal and os.environ.get("TERM", "") not in ("", "dumb"):
            run_terminal(run)
        else:
            PlainView(run).run()
    except OSError:
        run.reader_gone = True
    if run.reader_gone:
        drop_output()
        return 128 + (signal.SIGHUP if is_terminal else signal.SIGPIPE)
    return 0


if __name__ == "__main__":
    sys.exit(main())
