"""The configuration files of docs/examples, taken in with curl and run on the bus."""

import json
import re
import subprocess

import pytest

from kt_system import lane
from kt_system.bus import text_of
from kt_system.documents import Terminal, plain_commands, section_of
from kt_system.lane import scaled, wait_until
from kt_system.tags import COMMUNICATING, NO_FRAME_YET, TIMED_OUT, block_tag, status_tag

EXAMPLES = lane.REPO / "docs/examples"
FILES = ("motor-drive.csv", "sensor.csv", "legacy-device.csv")
LINE_MAX = 255  # line feed included
SUCCESS = {"data": {"response": "success"}}


def table_rows(text: str) -> list[str]:
    """The lines of the five sections, heads and column names included."""
    found = []
    inside = False
    for line in text.splitlines():
        inside = line.startswith("[") or (inside and line != "")
        if inside:
            found.append(line)
    return found


@pytest.fixture
def curl(rest):
    """curl(path, *options): the status and the body as the terminal shows them."""

    def run(path: str, *options: str) -> tuple[int, str]:
        command = ["curl", "--silent", "--show-error", "--max-time", "30"]
        command += ["--write-out", "\n%{http_code}", *options, rest.url(path)]
        result = subprocess.run(
            command, cwd=EXAMPLES, capture_output=True, text=True, check=True, timeout=scaled(40)
        )
        body, _, status = result.stdout.rpartition("\n")
        return int(status), body

    return run


@pytest.fixture
def running(gateway, rest):
    """An empty gateway whose ports run; before that it may not take uploads yet."""
    gateway.start()
    rest.wait_port_threads()


@pytest.fixture
def run_example(running, rest, curl):
    """run_example(file): imported into an empty gateway, applied, running."""

    def run(file: str) -> None:
        status, body = curl("/config-file", "--form", f"file=@{file}")
        assert (status, json.loads(body)) == (201, SUCCESS)
        before = rest.port_threads()
        status, body = curl("/action", "--data", '{"option": 0}')
        assert (status, json.loads(body)) == (201, SUCCESS)
        rest.wait_new_pass(before)

    return run


def test_every_file_of_the_folder_is_tested():
    assert sorted(path.name for path in EXAMPLES.glob("*.csv")) == sorted(FILES)


@pytest.mark.parametrize("file", FILES)
def test_the_lines_are_short_enough_to_be_read_whole(file):
    lines = (EXAMPLES / file).read_bytes().splitlines(keepends=True)
    assert max(map(len, lines)) <= LINE_MAX


@pytest.mark.parametrize("file", FILES)
def test_an_export_of_the_applied_configuration_has_the_same_rows(run_example, curl, file):
    run_example(file)
    status, exported = curl("/config-file")
    assert status == 200
    assert table_rows(exported) == table_rows((EXAMPLES / file).read_text("utf-8"))


def padded(text: str) -> str:
    return "".join(line + "," * (19 - line.count(",")) + "\n" for line in text.splitlines())


@pytest.mark.parametrize(
    "change",
    [
        lambda text: text.replace("\n", "\r\n"),
        lambda text: "\ufeff" + text,
        padded,
        lambda text: "\ufeff" + padded(text).replace("\n", "\r\n"),
        lambda text: text.rstrip("\n"),
        lambda text: text + "behind the last section\n",
    ],
    ids=["CRLF", "BOM", "padded with commas", "all three", "no line end", "text at the end"],
)
def test_what_editors_do_to_a_file_changes_no_row(running, curl, tmp_path, change):
    text = (EXAMPLES / FILES[0]).read_text("utf-8")
    edited = tmp_path / "edited.csv"
    edited.write_text(change(text), "utf-8", newline="")
    status, body = curl("/config-file", "--form", f"file=@{edited}")
    assert (status, json.loads(body)) == (201, SUCCESS)
    assert table_rows(curl("/config-file")[1]) == table_rows(text)


# A motor drive ----------------------------------------------------------------------------------


def motor(name: str) -> str:
    transaction, _, tag = name.partition("_")
    return block_tag("motor", transaction, tag)


def test_the_drive_is_asked_and_its_answer_is_swapped_and_scaled(run_example, bus, tags):
    run_example("motor-drive.csv")
    drive = bus("can0")
    wanted = {
        motor("state_status"): 3,
        motor("state_speed"): 1500,  # 6000
        motor("state_torque"): -100,  # -10000
        status_tag("motor"): COMMUNICATING,
    }

    def answered() -> bool:
        """All in one look: the next request that nobody answers is a timeout."""
        drive.expect(0x601, "4001", 5.0)
        drive.send(0x581, "43031770D8F00000")
        return wanted.items() <= {tag["name"]: tag["value"] for tag in tags.list()}.items()

    wait_until(answered, 10.0, "the values")


def test_an_answer_with_another_constant_changes_no_tag(run_example, bus, tags, curl):
    run_example("motor-drive.csv")
    drive = bus("can0")

    def failures() -> int:
        state = json.loads(curl("/diagnose?portId=1")[1])["data"]["transactionList"]
        return {item["transactionName"]: item["failedCount"] for item in state}["state"]

    def failed() -> bool:
        drive.expect(0x601, "4001", 5.0)
        drive.send(0x581, "44031770D8F00000")
        return failures() > 0

    wait_until(failed, 10.0, "a failed request")
    assert tags.get(motor("state_speed")) == 0


def test_a_silent_drive_is_asked_again_and_then_a_timeout(run_example, bus, tags):
    run_example("motor-drive.csv")
    drive = bus("can0")
    drive.expect(0x601, "4001", 5.0)
    tags.wait_for(status_tag("motor"), TIMED_OUT, 10.0)
    asked = [message for message in drive.drain() if message.arbitration_id == 0x601]
    assert len(asked) >= 2


def test_the_setpoint_is_sent_and_falls_back_when_nobody_writes(run_example, bus, tags):
    run_example("motor-drive.csv")
    drive = bus("can0")

    def commanded() -> bool:
        """As an application does: again and again, so that a fallback in between is overcome."""
        tags.set(motor("setpoint_command"), 1)
        tags.set(motor("setpoint_speed"), 1500)
        sent = [bytes(frame.data) for frame in drive.collect(0.1, 0x201)]
        return bytes.fromhex("010005DC") in sent

    wait_until(commanded, 10.0, "frame 201#010005DC")
    drive.expect(0x201, "00000064", 10.0)
    tags.wait_for(motor("setpoint_speed"), 100)
    assert tags.get(motor("setpoint_command")) == 0


def test_a_parameter_is_written_and_what_the_drive_accepted_is_shown(run_example, bus, tags):
    run_example("motor-drive.csv")
    drive = bus("can0")
    values = iter(range(800, 900))

    def accepted() -> bool:
        """Another value each time: an answer that comes too late is dropped."""
        value = next(values)
        tags.set(motor("ramp_value"), value)
        drive.expect(0x602, f"2210{value:04X}", 10.0)
        drive.send(0x582, "601002EE")
        return tags.get(motor("ramp_accepted")) == 750

    wait_until(accepted, 10.0, "the accepted value")


# A sensor ---------------------------------------------------------------------------------------

MEASURED = "680127947D01"
MARK = "A5C3"


def test_what_the_sensor_sends_is_swapped_and_scaled(run_example, bus, tags):
    run_example("sensor.csv")
    sensor = bus("can0")
    sensor.send(0x281, MEASURED + MARK)
    tags.wait_for(block_tag("climate", "measured", "temperature"), 2250)
    tags.wait_for(block_tag("climate", "measured", "pressure"), 1013)
    tags.wait_for(block_tag("climate", "measured", "humidity"), 50)
    tags.wait_for(block_tag("climate", "measured", "state"), 1)
    sensor.send(0x281, "60FF" + MEASURED[4:] + MARK)
    tags.wait_for(block_tag("climate", "measured", "temperature"), -1000)
    sensor.send(0x282, "41AC0000000F4240")
    tags.wait_for(block_tag("climate", "total", "hours"), 21.5)
    tags.wait_for(block_tag("climate", "total", "samples"), 1000000)


def test_a_frame_with_other_constants_or_length_is_not_taken(run_example, bus, tags):
    run_example("sensor.csv")
    sensor = bus("can0")
    sensor.send(0x281, MEASURED + "A5C2")
    sensor.send(0x281, MEASURED + "A5")
    sensor.send(0x282, "41AC0000000F4240")  # taken after them
    tags.wait_for(block_tag("climate", "total", "hours"), 21.5)
    assert tags.get(block_tag("climate", "measured", "temperature")) == 0


def test_a_silent_sensor_times_out_and_comes_back(run_example, bus, tags):
    run_example("sensor.csv")
    tags.wait_for(status_tag("climate"), TIMED_OUT, 10.0)
    bus("can0").send(0x281, MEASURED + MARK)
    tags.wait_for(status_tag("climate"), COMMUNICATING)


def test_nothing_is_sent_to_the_sensor(run_example, bus):
    run_example("sensor.csv")
    bus("can0").expect_none(seconds=0.3)


# A device with remote frames --------------------------------------------------------------------


def test_remote_frames_are_answered_with_the_tags_as_they_stand(run_example, bus, tags):
    run_example("legacy-device.csv")
    valve = bus("can1")
    valve.send_remote(0x321, 4)
    valve.expect(0x321, "0000EFBE")
    tags.set(block_tag("valve", "limits", "lowest"), 50)
    tags.set(block_tag("valve", "limits", "highest"), 1000)

    def answered() -> bool:
        """Both values, for a write takes its way while frames go theirs."""
        valve.send_remote(0x322, 4)
        return valve.expect(0x322).data == bytes.fromhex("003203E8")

    wait_until(answered, 5.0, "the limits")


def test_a_written_setpoint_is_sent_unasked(run_example, bus, tags):
    run_example("legacy-device.csv")
    valve = bus("can1")
    tags.set(block_tag("valve", "setpoint", "opening"), 500)
    valve.expect(0x321, "F401EFBE")
    valve.send_remote(0x321, 4)
    valve.expect(0x321, "F401EFBE")


def test_a_remote_frame_that_nothing_answers_stays_unanswered(run_example, bus):
    run_example("legacy-device.csv")
    valve = bus("can1")
    valve.send_remote(0x3A1, 4)
    valve.expect_none(0x3A1, 0.3)


def test_the_position_of_the_valve_arrives(run_example, bus, tags):
    run_example("legacy-device.csv")
    assert tags.get(status_tag("valve")) == NO_FRAME_YET
    bus("can1").send(0x3A1, "01F40702")
    tags.wait_for(status_tag("valve"), COMMUNICATING)
    tags.wait_for(block_tag("valve", "position", "opening"), 500)
    tags.wait_for(block_tag("valve", "position", "strokes"), 7)
    tags.wait_for(block_tag("valve", "position", "state"), 2)


# The commands of the README ---------------------------------------------------------------------


def commands_of(file: str) -> list[str]:
    commands = plain_commands(section_of(EXAMPLES / "README.md", file))
    return [line for line in commands if not line.startswith("kt-tag watch")]  # which never ends


@pytest.fixture
def command_line(gateway, rest, tmp_path):
    """command_line(text): a line as a newcomer types it in the folder of the examples."""
    environment = {**gateway.environment, "API": rest.url("")}
    terminal = Terminal(tmp_path, environment, folder=EXAMPLES, curl_options=("fail-with-body",))

    def run(text: str) -> None:
        status, printed = terminal.type(text)
        assert status == 0, f"{text}: {printed}"

    yield run
    terminal.close()


@pytest.mark.parametrize(
    "file, port, frame",
    [
        ("motor-drive.csv", "can0", r"201#01..05DC"),
        ("sensor.csv", "can0", r"281#680127947D01A5C3"),
        ("legacy-device.csv", "can1", r"322#000003E8"),
    ],
)
def test_the_commands_of_the_readme_run(running, rest, bus, command_line, file, port, frame):
    take_in, apply, *others = commands_of(file)
    command_line(take_in)
    before = rest.port_threads()
    command_line(apply)
    rest.wait_new_pass(before)
    node = bus(port)
    for command in others:
        command_line(command)

    def seen() -> bool:
        node.drain()
        return any(re.fullmatch(frame, text_of(message)) for message in node.seen)

    wait_until(seen, 15.0, lambda: f"{frame}, only {[text_of(m) for m in node.seen]}")
