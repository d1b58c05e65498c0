"""The live view on terminals of every kind, and how it ends."""

import contextlib
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys

import pytest

from kt_system import lane
from kt_system.lane import scaled, wait_until
from kt_system.processes import LineReader
from virtual_terminal import VirtualTerminal

sys.path.insert(0, str(lane.REPO / "tools/live-view"))

import frames as view_frames  # noqa: E402
import screen as view_screen  # noqa: E402
import state as view_state  # noqa: E402

SCRIPT = lane.REPO / "tools/live-view/run-live.sh"
STOPPED = "run: everything is stopped"
OUR_WORLD = ("KT_SOFTCAN", "KT_CAN_PORTS", "KT_LIVE_PORTS", "LD_PRELOAD", "KT_ROOT", "NO_COLOR")
STYLE = re.compile(rb"\x1b\[[0-9;]*m")


@pytest.fixture
def environment(tmp_path):
    """That of a machine without CAN interfaces; what the run leaves behind is below tmp_path."""
    variables = {
        name: value
        for name, value in os.environ.items()
        if name not in OUR_WORLD and not name.startswith("KT_REST_")
    }
    return variables | {
        "KT_CAN_PORTS": "no-interface",
        "KT_REST_LISTEN": "127.0.0.1:0",
        "KT_SOFTCAN_DIR": str(tmp_path / "worlds"),
        "TMPDIR": str(tmp_path),
        "TERM": "xterm",
    }


def processes_of(scratch: pathlib.Path) -> list[str]:
    """Everything that runs with this scratch folder in its environment."""
    found = []
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            if str(scratch).encode() in (entry / "environ").read_bytes():
                found.append((entry / "cmdline").read_text().replace("\0", " "))
    return found


def assert_nothing_is_left(scratch: pathlib.Path) -> None:
    wait_until(lambda: not processes_of(scratch), 10.0, lambda: str(processes_of(scratch)))
    assert not list(scratch.iterdir())


@pytest.fixture
def open_terminal(environment):
    """open_terminal(columns, rows, **variables): the demonstration on a new terminal."""
    opened = []

    def make(columns: int, rows: int, **variables: str) -> VirtualTerminal:
        command = [str(SCRIPT), str(lane.BIN)]
        opened.append(VirtualTerminal(command, environment | variables, columns, rows))
        return opened[-1]

    yield make
    for terminal in opened:
        terminal.close()


def wait_for(terminal: VirtualTerminal, text: str) -> None:
    wait_until(lambda: text in terminal.text(), 40.0, lambda: f"{text} in\n{terminal.text()}")


def wait_for_values(terminal: VirtualTerminal) -> None:
    """Until the drive turns."""
    turns = re.compile(r"control_speed +[1-9]")
    wait_until(lambda: turns.search(terminal.text()), 40.0, terminal.text)


def interrupt(terminal: VirtualTerminal) -> None:
    terminal.type(b"\x03")
    assert terminal.process.wait(scaled(60)) == 0
    wait_until(lambda: STOPPED.encode() in terminal.raw, 5.0, "the last line")
    assert terminal.settings() == terminal.settings_before


def shows_its_parts(lines: list[str]) -> bool:
    """Every one in its place; each has its first values at another moment."""
    address = r"http://127\.0\.0\.1:\d+/CAN-proprietary"
    port = r"  125 kbit/s  \d+\.\d frames/s  load (?!0\.0)\d+\.\d %  "
    tops = (
        rf"kt-can-proprietary  {address} +\d:\d\d:\d\d",
        f"can0{port}drive ok  sensor ok",
        f"can1{port}legacy ok",
        "port +device +tag +value +raw bytes +dir +age",
    )
    speed = r"can0 +drive +control_speed +[1-9]\d* +[0-9A-F]{2} [0-9A-F]{2} +in +\d+ ms"
    return (
        all(re.fullmatch(top, line) for top, line in zip(tops, lines))
        and any(re.fullmatch(speed, line) for line in lines)
        and "last frames" in lines
        and "To try in another terminal (Ctrl-C here ends everything):" in lines
    )


def test_on_80x24_everything_has_its_place(open_terminal, tmp_path):
    terminal = open_terminal(80, 24)
    wait_until(lambda: shows_its_parts(terminal.lines()), 60.0, terminal.text)
    interrupt(terminal)
    assert terminal.raw.count(b"\x1b[?1049h") == terminal.raw.count(b"\x1b[?1049l") == 1
    assert_nothing_is_left(tmp_path)


def test_the_commands_to_try_work_when_they_are_pasted(open_terminal, tmp_path):
    terminal = open_terminal(100, 30)
    wait_for_values(terminal)
    lines = terminal.settled_lines()
    text = "\n".join(lines[lines.index(view_screen.try_lines([], 80)[0][0].text) + 1 :]).strip()
    # As typed into a shell that knows nothing of this run but PATH.
    bare = {"PATH": "/usr/bin:/bin", "HOME": str(tmp_path)}
    curl, setting, dump = re.split(r"(?<!\\)\n", text)

    def pasted(command: str) -> str:
        answer = subprocess.run(
            ["bash", "-c", command], env=bare, capture_output=True, text=True, timeout=scaled(30)
        )
        assert answer.returncode == 0, answer.stderr
        return answer.stdout

    assert '"deviceName": "drive"' in pasted(curl)
    pasted(setting)
    # 900 is 0x0384, in the frame that asks the drive.
    shown = re.compile(r"control_target +900 +84 03")
    wait_until(lambda: shown.search(terminal.text()), 10.0, terminal.text)
    seen = pasted(re.sub(r"candump (\w+)$", r"candump -n 1 \1,201:7FF", dump.replace("\\\n", "")))
    assert re.search(r"can0 +201 +\[4\] +A5 01 84 03", seen), seen
    interrupt(terminal)


def test_the_view_follows_the_size_of_the_terminal(open_terminal):
    terminal = open_terminal(60, 15)
    wait_for_values(terminal)
    for columns, rows in ((40, 10), (20, 5), (7, 2), (200, 60), (80, 24)):
        terminal.resize(columns, rows)
        lines = terminal.settled_lines()
        assert lines[0].startswith("kt-can-proprietary"[:columns])
        # No command is shown in part: a backslash would wait for more.
        assert not lines[-1].endswith("\\")
        assert rows < 10 or "control_com" in "\n".join(lines)
        assert rows < 24 or "To try in another terminal (Ctrl-C here ends everything):" in lines
    interrupt(terminal)


def test_no_color_leaves_every_style_out(open_terminal):
    terminal = open_terminal(80, 24, NO_COLOR="1")
    wait_for_values(terminal)
    wait_for(terminal, "not yet")
    interrupt(terminal)
    assert set(STYLE.findall(terminal.raw)) <= {b"\x1b[0m"}


@pytest.mark.parametrize("variables", [{"TERM": "dumb"}, {"TERM": ""}])
def test_a_dumb_terminal_gets_plain_lines(open_terminal, variables):
    terminal = open_terminal(80, 24, **variables)
    wait_until(lambda: b"tag can_proprietary/drive/status 0" in terminal.raw, 40.0, terminal.text)
    interrupt(terminal)
    assert b"\x1b" not in terminal.raw


def test_a_pipe_gets_plain_lines(environment, tmp_path):
    with LineReader([str(SCRIPT), str(lane.BIN)], environment) as run:
        run.wait_line("tag can_proprietary/drive/status 0", 40.0)
        port = re.compile(r"port can0  125 kbit/s  \d+\.\d frames/s  load \d+\.\d %$")
        run.wait_line(port.match, 20.0)
        run.wait_line("try: curl -s 'http://127.0.0.1:", 5.0)
        # A request of every minute that nobody has sent yet
        run.wait_line("state can_proprietary/legacy/command_code not yet", 5.0)
        run.process.send_signal(signal.SIGINT)
        assert run.wait_exit(60.0) == 0
        assert run.lines[-1] == STOPPED
        assert not any("\x1b" in line or "\r" in line for line in run.lines)
    assert_nothing_is_left(tmp_path)


def test_a_reader_of_the_pipe_that_goes_ends_the_run(environment, tmp_path):
    run = subprocess.Popen(
        [str(SCRIPT), str(lane.BIN)], env=environment, stdout=subprocess.PIPE, text=True
    )
    next(line for line in run.stdout if line.startswith("frame "))
    run.stdout.close()
    assert run.wait(scaled(30)) == 128 + signal.SIGPIPE
    assert_nothing_is_left(tmp_path)


@pytest.mark.parametrize(
    "number, status",
    [(signal.SIGINT, 0), (signal.SIGTERM, 143), (signal.SIGHUP, 129), (signal.SIGQUIT, 131)],
)
def test_every_signal_stops_all_that_was_started(open_terminal, tmp_path, number, status):
    terminal = open_terminal(80, 24)
    wait_for_values(terminal)
    terminal.process.send_signal(number)
    assert terminal.process.wait(scaled(60)) == status
    wait_until(lambda: terminal.raw.rstrip().endswith(STOPPED.encode()), 5.0, terminal.text)
    assert b"\x1b[?1049l" in terminal.raw
    assert terminal.settings() == terminal.settings_before
    assert_nothing_is_left(tmp_path)


def test_a_terminal_that_is_closed_stops_all_that_was_started(open_terminal, tmp_path):
    terminal = open_terminal(80, 24)
    wait_for_values(terminal)
    terminal.hang_up()
    assert terminal.process.wait(scaled(60)) == 129
    assert_nothing_is_left(tmp_path)


def squeezed(text: str) -> str:
    """Without blanks, wherever the terminal has wrapped."""
    return re.sub(r"\s", "", text)


def child_of(scratch: pathlib.Path, name: str) -> int:
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            words = (entry / "cmdline").read_bytes().split(b"\0")
            ours = str(scratch).encode() in (entry / "environ").read_bytes()
            if ours and any(word.endswith(b"/" + name.encode()) for word in words[:2]):
                return int(entry.name)
    raise AssertionError(f"{name} does not run")


@pytest.mark.parametrize(
    "program, shown",
    [
        ("kt-can-proprietary", "run: the service has ended (status 139, signal SEGV)"),
        ("live_view.py", "run: the live view has ended (status 139, signal SEGV)"),
        pytest.param(
            "kt-demo-device", "has ended (status 139, signal SEGV)", marks=pytest.mark.slow
        ),
    ],
)
def test_what_dies_is_said_at_once_and_ends_the_run(open_terminal, tmp_path, program, shown):
    terminal = open_terminal(80, 24)
    wait_for_values(terminal)
    os.kill(child_of(tmp_path, program), signal.SIGSEGV)
    assert terminal.process.wait(scaled(60)) == 1
    wait_until(lambda: STOPPED in terminal.text(), 5.0, terminal.text)
    assert squeezed(shown) in squeezed(terminal.text())
    assert terminal.raw.rfind(b"\x1b[?1049l") > terminal.raw.rfind(b"\x1b[?1049h")
    assert terminal.settings() == terminal.settings_before
    assert_nothing_is_left(tmp_path)


def test_a_service_that_does_not_come_up_shows_its_log(environment, tmp_path):
    root = tmp_path / "root"
    root.mkdir()
    (root / "data").write_text("no folder")
    with LineReader([str(SCRIPT), str(lane.BIN)], environment | {"KT_ROOT": str(root)}) as run:
        assert run.wait_exit(40.0) == 1
        shown = "\n".join(run.errors)
        assert "run: the service has ended (status 255)" in shown
        assert "ERROR: " in shown
        assert run.lines[-1] == STOPPED


def test_an_address_that_is_taken_is_said_in_one_line(environment, tmp_path):
    with socket.create_server(("127.0.0.1", 0)) as other:
        address = f"127.0.0.1:{other.getsockname()[1]}"
        environment["KT_REST_LISTEN"] = address
        with LineReader([str(SCRIPT), str(lane.BIN)], environment) as run:
            assert run.wait_exit(40.0) == 1
            reason = f"run: kt-rest: cannot listen on {address}: Address already in use"
            assert run.errors == [reason]
    assert_nothing_is_left(tmp_path)


def test_a_silent_device_makes_its_values_stale(open_terminal, tmp_path):
    terminal = open_terminal(90, 30)
    wait_for_values(terminal)
    device = child_of(tmp_path, "kt-demo-device")
    os.kill(device, signal.SIGSTOP)
    try:
        wait_until(lambda: re.search(r" timeout \d+ m?s", terminal.text()), 20.0, terminal.text)
        silent = re.compile(r"(sensor|legacy) timeout")
        wait_until(lambda: silent.search(terminal.text()), 20.0, terminal.text)
    finally:
        os.kill(device, signal.SIGCONT)
    wait_until(lambda: "timeout" not in terminal.text(), 20.0, terminal.text)
    interrupt(terminal)


@pytest.mark.slow
def test_a_service_that_hangs_is_said(open_terminal, tmp_path):
    terminal = open_terminal(90, 30)
    wait_for_values(terminal)
    service = child_of(tmp_path, "kt-can-proprietary")
    os.kill(service, signal.SIGSTOP)
    try:
        wait_for(terminal, "what follows is old")
    finally:
        os.kill(service, signal.SIGCONT)
    wait_until(lambda: terminal.text().startswith("kt-can-proprietary"), 40.0, terminal.text)
    interrupt(terminal)


# The length of frames ----------------------------------------------------------------------------


@pytest.mark.parametrize(
    "text, unstuffed",
    [
        ("123#", 47),
        ("321#R4", 47),
        ("555#0102030405060708", 111),
        ("12345678#0102030405060708", 131),
    ],
)
def test_a_frame_takes_its_fields_and_at_most_a_fourth_more(text, unstuffed):
    bits = view_frames.wire_bits(text)
    # Stuffing reaches over all but the last thirteen bits, at worst one in four after the first.
    assert unstuffed <= bits <= unstuffed + (unstuffed - 13 - 1) // 4


@pytest.mark.parametrize(
    "bits, stuffed",
    [("0" * 5, 1), ("0" * 4, 0), ("0" * 10, 2), ("0000011110", 2), ("01" * 20, 0), ("1" * 10, 2)],
)
def test_after_five_equal_bits_one_is_put_in_that_counts_for_the_next(bits, stuffed):
    assert view_frames.stuff_bits(bits) == stuffed


def test_the_crc_is_that_of_can():
    # The check value of CRC-15/CAN
    assert view_frames.crc15("".join(f"{sign:08b}" for sign in b"123456789")) == 0x059E


@pytest.mark.parametrize(
    "text, fits",
    [("201#A501DC05", True), ("201#A601DC05", False), ("201#A501", False), ("201#R4", False)],
)
def test_only_the_frame_with_its_length_and_constants_gives_a_tag_its_bytes(text, fits):
    constant = view_state.constant_bytes(1, "A5")
    shape = view_state.FrameShape("can0", "201", 4, [(0, constant)])
    assert shape.fits(view_frames.Frame(0.0, "can0", text)) == fits


def test_a_constant_has_its_last_byte_first_and_may_be_no_number():
    assert view_state.constant_bytes(2, "BEEF") == b"\xef\xbe"
    assert view_state.constant_bytes(2, "zz") == b""


# Pages without a terminal ------------------------------------------------------------------------


class StillFrames:
    listens = True

    def traffic(self):
        return {"can0": view_frames.Traffic(10.0, 1250.0)}

    def last(self, count):
        return [view_frames.Frame(0.0, "can0", "123#0102")][:count]


def page_of(tags, size, commands=("one", "two"), problem="", age=0.0):
    snapshot = view_state.Snapshot(
        100.0 - age, tags, view_state.Configuration(), {"can0": 125000}, problem
    )
    page = view_screen.Page(["can0"], "http://host/CAN-proprietary", 40.0)
    lines = view_screen.compose(page, snapshot, StillFrames(), list(commands), size, 100.0)
    return ["".join(piece.text for piece in line) for line in lines]


def tag(name="speed", **fields):
    values = dict(device="drive", name=name, value="5", age_ms=20, is_input=True, is_number=True)
    return view_state.Tag(**(values | {"port": "can0"} | fields))


def test_a_page_never_exceeds_its_terminal():
    tags = [tag(f"name-{'x' * count}", value="9" * count) for count in range(40)]
    for width in (1, 5, 17, 39, 60, 80, 133):
        for height in (1, 2, 3, 7, 12, 24, 70):
            lines = page_of(tags, (width, height))
            assert len(lines) <= height
            assert all(view_screen.text_width(line) <= width for line in lines)


def test_wide_signs_and_control_characters_do_not_move_the_columns():
    named = view_state.printable("温度\x1b[2J\n")
    assert named == "温度?[2J?"
    line = next(line for line in page_of([tag("ab"), tag(named)], (60, 24)) if "温" in line)
    other = next(line for line in page_of([tag("ab"), tag(named)], (60, 24)) if " ab " in line)
    assert view_screen.text_width(line.rstrip()) == view_screen.text_width(other.rstrip())


def test_load_and_rates_of_a_port_are_shown():
    assert page_of([tag()], (80, 24))[1].strip() == "can0  125 kbit/s  10.0 frames/s  load 1.0 %"
    assert "load unknown" in view_screen.port_text("vcan0", view_frames.Traffic(1.0, 90.0), None)


def test_what_could_not_be_asked_stands_first():
    assert page_of([tag()], (80, 24), problem="REST: refused")[0].startswith("REST: refused")
    assert page_of([tag()], (80, 24), age=7.0)[0].startswith("no answer for 7 s")


def test_tags_without_room_are_counted():
    lines = page_of([tag(f"t{number}") for number in range(40)], (80, 24))
    hidden = next(line for line in lines if "more in a taller window" in line)
    shown = sum(" drive " in line for line in lines)
    assert int(hidden.split()[1]) + shown == 40


@pytest.mark.parametrize("width", [8, 20, 33, 80])
def test_a_command_in_pieces_is_one_command_for_a_shell(width):
    command = (
        "printf '%s|' 'http://127.0.0.1/device?deviceId=1 2' A=/tmp/kt-live.x "
        "/some/where/kt-tag set can_proprietary/drive/target 900"
    )
    lines = view_screen.shell_lines(command, width)
    assert all(len(line) <= width for line in lines)

    def run(text: str) -> str:
        return subprocess.run(["bash", "-c", text], capture_output=True, text=True).stdout

    assert run("\n".join(lines)) == run(command)
