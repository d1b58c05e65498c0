"""kt-tag against a small provider; every test has a tag store of its own."""

import json
import os
import pathlib
import signal
import subprocess
import threading
import time

import pytest

from kt_system import lane
from kt_system.lane import scaled, wait_until
from kt_system.processes import LineReader
from kt_system.provider import Provider

NUMBERS = {"int8": 1, "int16": 2, "int32": 3, "int64": 4, "uint8": 5, "uint16": 6, "uint32": 7,
           "uint64": 8, "float": 9, "double": 10}


@pytest.fixture
def environment(tmp_path):
    return {**os.environ, **lane.sanitizer_environment(), "KT_ROOT": str(tmp_path)}


@pytest.fixture
def provider(environment):
    """provider(*tags): a running provider of NAME:TYPE:SIZE:MODE."""
    running = []

    def start(*tags) -> Provider:
        running.append(Provider(environment, *tags))
        return running[-1]

    yield start
    for process in running:
        process.close()


@pytest.fixture
def kt_tag(environment):
    def run(*arguments, status=0) -> subprocess.CompletedProcess:
        result = subprocess.run(
            [lane.program("kt-tag"), *arguments],
            env=environment,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=scaled(20),
        )
        result.stdout = result.stdout.decode(errors="surrogateescape")
        result.stderr = result.stderr.decode(errors="surrogateescape")
        assert result.returncode == status, result
        return result

    return run


@pytest.fixture
def watch(environment):
    """watch(*arguments): kt-tag watch in the background, with --initial so that its start shows."""
    running = []

    def start(*arguments) -> LineReader:
        running.append(LineReader([lane.program("kt-tag"), "watch", *arguments], environment))
        return running[-1]

    yield start
    for process in running:
        process.stop()


def error(result) -> str:
    """The one line on standard error."""
    assert result.stdout == ""
    assert result.stderr.endswith("\n") and result.stderr.count("\n") == 1, result.stderr
    return result.stderr[:-1]


@pytest.mark.parametrize(
    "arguments, reason",
    [
        ([], "a command is missing"),
        (["show"], "unknown command show"),
        (["get"], "too few arguments for get"),
        (["get", "a", "b"], "too many arguments for get: b"),
        (["set", "a"], "too few arguments for set"),
        (["set", "a", "1", "2"], "too many arguments for set: 2"),
        (["list", "a", "b"], "too many arguments for list: b"),
        (["list", "--colour"], "unknown option --colour"),
        (["list", "--count", "1"], "--count is no option of list"),
        (["get", "a", "--initial"], "--initial is no option of get"),
        (["watch", "--count"], "--count needs a value"),
        (["watch", "--count", "0"], "--count needs a number above 0, not '0'"),
        (["watch", "--count=1x"], "--count needs a number above 0, not '1x'"),
        (["watch", "--count", str(2**64)], f"--count needs a number above 0, not '{2**64}'"),
        (["watch", "--timeout", "nan"], "--timeout needs seconds, 0 to 1000000000, not 'nan'"),
        (["watch", "--timeout", "-1"], "--timeout needs seconds, 0 to 1000000000, not '-1'"),
        (["watch", "--timeout", "1e10"], "--timeout needs seconds, 0 to 1000000000, not '1e10'"),
    ],
)
def test_wrong_use_exits_with_2(kt_tag, arguments, reason):
    result = kt_tag(*arguments, status=2)
    assert result.stdout == ""
    assert result.stderr == f"kt-tag: {reason}\nTry 'kt-tag --help'.\n"


def test_without_a_store(kt_tag, tmp_path):
    reason = f"no tag store (is a provider running?): {tmp_path}/run/kt-dx/tags"
    assert error(kt_tag("list", status=1)) == f"kt-tag: {reason}"
    assert error(kt_tag("get", "a", status=1)) == f"kt-tag: a: {reason}"
    kt_tag("set", "a", "1", status=1)
    kt_tag("watch", "--timeout", "0.2", status=1)


def test_damaged_store_is_refused(kt_tag, tmp_path):
    store = tmp_path / "run/kt-dx/tags"
    store.parent.mkdir(parents=True)
    store.write_bytes(b"x" * 10000)
    result = kt_tag("list", status=1)
    assert result.stderr == (
        f"kt-dx: {store}: not a tag store (bad magic)\nkt-tag: the tag store cannot be used\n"
    )


def test_unknown_tag_exits_with_1(kt_tag, provider):
    provider("a:5:1:ro")
    assert error(kt_tag("get", "b", status=1)) == "kt-tag: b: unknown tag"
    assert error(kt_tag("get", "", status=1)) == "kt-tag: : unknown tag"
    assert error(kt_tag("get", "n" * 387, status=1)) == f"kt-tag: {'n' * 387}: unknown tag"
    assert error(kt_tag("set", "b", "1", status=1)) == "kt-tag: b: unknown tag"


def test_read_only_tag_is_not_written(kt_tag, provider):
    provider("a:5:1:ro")
    assert error(kt_tag("set", "a", "1", status=1)) == "kt-tag: a: tag is read-only"
    assert kt_tag("get", "a").stdout == "0\n"


def test_list_is_sorted_and_takes_a_pattern(kt_tag, provider):
    provider("can/b:6:2:ro", "other:13:3:wo", "can/a:9:4:ro")
    lines = kt_tag("list").stdout.splitlines()
    assert [line.split(" = ")[0] for line in lines] == ["can/a", "can/b", "other"]
    assert lines[1].startswith("can/b = 0 (uint16, ro, ") and lines[1].endswith(" ms)")
    assert lines[2].startswith("other = 000000 (raw, wo, ")
    names = [json.loads(line)["name"] for line in kt_tag("list", "can/*", "--json").stdout.splitlines()]
    assert names == ["can/a", "can/b"]
    assert kt_tag("list", "none*").stdout == ""


def test_json_says_everything_about_a_tag(kt_tag, provider):
    process = provider("a:7:4:ro", "raw:13:5:wo")
    process.write("a", "78563412")
    tag = json.loads(kt_tag("--json", "get", "a").stdout)
    age = tag.pop("age_ms")
    assert tag == {"name": "a", "type": 7, "size": 4, "mode": "ro", "value": 0x12345678}
    assert isinstance(age, int) and 0 <= age < scaled(20) * 1000
    tag = json.loads(kt_tag("get", "raw", "--json").stdout)
    del tag["age_ms"]
    assert tag == {"name": "raw", "type": 13, "size": 5, "mode": "wo", "value": "0000000000"}


def test_age_counts_from_the_last_write(kt_tag, provider):
    process = provider("a:5:1:ro")

    def age():
        return json.loads(kt_tag("get", "a", "--json").stdout)["age_ms"]

    wait_until(lambda: age() >= 300)
    before = time.monotonic()
    process.write("a", "01")
    # The coarse clock that dates writes ticks every 10 ms at worst.
    assert age() <= (time.monotonic() - before) * 1000 + 20


def value_range(name):
    bits = int(name.lstrip("uint"))
    return (0, 2**bits - 1) if name[0] == "u" else (-(2 ** (bits - 1)), 2 ** (bits - 1) - 1)


@pytest.mark.parametrize("name", [name for name in NUMBERS if "int" in name])
def test_integers_are_exact_to_their_limits(kt_tag, provider, name):
    low, high = value_range(name)
    bits = high.bit_length() + (low < 0)
    process = provider(f"t:{NUMBERS[name]}:1:wo")
    for text in (str(low), str(high), hex(high), "0", "+1", hex(low) if low else "0x0"):
        kt_tag("set", "t", text)
        wanted = int(text, 0)
        process.wait_taken("t", (wanted % 2**bits).to_bytes(bits // 8, "little").hex().upper())
        assert kt_tag("get", "t").stdout == f"{wanted}\n"
        tag = json.loads(kt_tag("get", "t", "--json").stdout)
        assert tag["value"] == wanted and tag["size"] == bits // 8
        process.taken.clear()
    for text in (str(low - 1), str(high + 1), "1" * 40, "-" + "1" * 40):
        assert error(kt_tag("set", "t", text, status=1)) == (
            f"kt-tag: t: '{text}' is out of range for {name} ({low} to {high})"
        )
    for text in ("", "-", "0x", "abc", "1.5", "1 ", " 1", "0x1g", "--1", "1e3"):
        assert error(kt_tag("set", "--", "t", text, status=1)) == (
            f"kt-tag: t: '{text}' is not an integer (decimal or 0x)"
        )
    assert not process.taken


@pytest.mark.parametrize("name, high", [("float", "3.4028235e+38"), ("double", "1.7976931348623157e+308")])
def test_floats(kt_tag, provider, name, high):
    provider(f"t:{NUMBERS[name]}:8:wo")
    for text, shown in (("1.5", "1.5"), ("-0.1", "-0.1"), ("1e3", "1000"), (high, high), ("+2", "2"),
                        ("0", "0"), ("-0", "-0")):
        kt_tag("set", "t", text)
        assert kt_tag("get", "t").stdout == f"{shown}\n"
        assert json.loads(kt_tag("get", "t", "--json").stdout)["value"] == float(shown)
    for text in ("nan", "inf", "-inf"):
        kt_tag("set", "t", text)
        assert kt_tag("get", "t").stdout == f"{text}\n"
        assert json.loads(kt_tag("get", "t", "--json").stdout)["value"] is None
    for text in ("1e999", "-1e999"):
        assert error(kt_tag("set", "t", text, status=1)) == f"kt-tag: t: '{text}' is out of range for {name}"
    for text in ("", "x", "1,5", "0x10", "1.5 "):
        assert error(kt_tag("set", "t", text, status=1)) == f"kt-tag: t: '{text}' is not a number"


def test_raw_bytes(kt_tag, provider):
    process = provider("t:13:3:wo")
    kt_tag("set", "t", "01abFF")
    process.wait_taken("t", "01ABFF")
    assert kt_tag("get", "t").stdout == "01ABFF\n"
    for text in ("", "01ab", "01abFF00", "01abF"):
        assert error(kt_tag("set", "t", text, status=1)) == (
            f"kt-tag: t: '{text}': the tag has 3 raw bytes, give 6 hexadecimal digits"
        )
    for text in ("01abFg", "0x01ab", "01 ab1", "+1-1+1"):
        assert error(kt_tag("set", "t", text, status=1)) == f"kt-tag: t: '{text}' is not hexadecimal text"


def test_number_in_a_wider_tag(kt_tag, provider):
    process = provider("t:2:5:wo")
    kt_tag("set", "t", "-2")
    process.wait_taken("t", "FEFF000000")
    assert kt_tag("get", "t").stdout == "-2\n"


def test_names_of_any_bytes_stay_valid_json_and_harmless_text(kt_tag, provider):
    name = b'q"\\ \x1b[2J\t\xff\xc3\xa4\xe2\x82\xed\xa0\x80 \xc2\x9b \xf0\x9f\x98\x80'
    provider(name + b":5:1:ro")
    text = kt_tag("list", "--json").stdout
    tag = json.loads(text.encode(errors="surrogateescape").decode())
    bad = "\ufffd"
    assert tag["name"] == f'q"\\ \x1b[2J\t{bad}\xe4{bad * 2}{bad * 3} \x9b \U0001f600'
    line = kt_tag("list").stdout
    assert line.startswith(
        'q"\\ \\x1B[2J\\x09\\xFF\xe4\\xE2\\x82\\xED\\xA0\\x80 \\xC2\\x9B \U0001f600 = 0 ('
    )
    assert kt_tag("get", name).stdout == "0\n"


def test_watch_prints_changes_of_matching_tags(provider, watch):
    process = provider("a/x:6:2:ro", "a/y:6:2:wo", "b:6:2:ro")
    watching = watch("a/*", "--initial", "--json")
    wait_until(lambda: len(watching.lines) == 2)
    process.write("b", "0100")
    process.write("a/x", "0200")
    watching.wait_line(lambda line: json.loads(line)["value"] == 2)
    process.write("a/x", "0200")  # the same value is a write all the same
    wait_until(lambda: len(watching.lines) == 4)
    changes = [(tag["name"], tag["value"]) for tag in map(json.loads, watching.lines)]
    assert changes == [("a/x", 0), ("a/y", 0), ("a/x", 2), ("a/x", 2)]


def test_watch_sees_writes_of_clients_and_new_tags(kt_tag, provider, watch):
    process = provider("a:6:2:wo")
    watching = watch("--initial")
    watching.wait_line("a = 0 (uint16, wo, ")
    kt_tag("set", "a", "77")
    watching.wait_line("a = 77 (uint16, wo, ")
    process.tell("add new:5:1:ro")
    process.write("new", "09")
    watching.wait_line("new = 9 (uint8, ro, ")
    process.tell("remove new")
    kt_tag("get", "new", status=1)
    assert len(watching.lines) == 3


def test_watch_without_initial_begins_with_changes(provider, watch):
    process = provider("a:6:2:ro")
    watching = watch("--count", "1", "--json")
    number = 0

    def ended():
        nonlocal number
        number += 1
        process.write("a", number.to_bytes(2, "little").hex())
        return watching.process.poll() is not None

    wait_until(ended)
    assert watching.wait_exit() == 0
    assert [json.loads(line)["value"] > 0 for line in watching.lines] == [True]


def test_watch_ends_after_count_lines(provider, watch):
    process = provider("a:6:2:ro", "b:6:2:ro")
    watching = watch("--initial", "--count", "3")
    wait_until(lambda: len(watching.lines) == 2)
    process.write("a", "0100")
    assert watching.wait_exit() == 0
    assert len(watching.lines) == 3


def test_watch_ends_when_time_is_up(kt_tag, provider):
    provider("a:6:2:ro")
    before = time.monotonic()
    assert kt_tag("watch", "--timeout", "0.3").stdout == ""
    assert 0.3 <= time.monotonic() - before < scaled(5)
    kt_tag("watch", "--timeout", "0.1", "--count", "1", status=1)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signal_ends_watch_cleanly(provider, watch, number):
    provider("a:6:2:ro")
    watching = watch("--initial")
    watching.wait_line("a = 0")
    watching.process.send_signal(number)
    assert watching.wait_exit() == 0
    assert watching.errors == []


def test_watch_ends_quietly_when_nobody_reads(environment, provider):
    provider("a:6:2:ro")
    process = subprocess.Popen(
        [lane.program("kt-tag"), "watch", "--initial"],
        env=environment,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    assert process.stdout.readline().startswith(b"a = 0")
    process.stdout.close()  # and no tag changes any more
    assert process.wait(scaled(10)) == 0
    assert process.stderr.read() == b""
    process.stderr.close()


def test_full_disk_is_an_error(environment, provider):
    provider("a:6:2:ro")
    with open("/dev/full", "wb") as full:
        result = subprocess.run(
            [lane.program("kt-tag"), "list"],
            env=environment,
            stdout=full,
            stderr=subprocess.PIPE,
            timeout=scaled(10),
        )
    assert result.returncode == 1
    assert result.stderr == b"kt-tag: standard output: No space left on device\n"


def test_nothing_is_printed_into_the_store(environment, provider, kt_tag):
    """The store is opened after standard output was closed, and would get its descriptor."""
    provider("a:6:2:ro")
    closed = subprocess.run(
        ["sh", "-c", '"$0" list >&-', lane.program("kt-tag")],
        env=environment,
        stderr=subprocess.PIPE,
        timeout=scaled(10),
    )
    assert closed.returncode == 1
    assert closed.stderr == b"kt-tag: standard output: Bad file descriptor\n"
    assert kt_tag("get", "a").stdout == "0\n"


def test_watch_waits_for_the_first_provider(provider, watch):
    watching = watch("--initial")
    stat = pathlib.Path(f"/proc/{watching.process.pid}/stat")
    wait_until(lambda: ") S " in stat.read_text())
    provider("a:6:2:ro")
    watching.wait_line("a = 0")


def test_watch_goes_on_with_a_new_store(provider, watch, tmp_path):
    provider("a:6:2:ro")
    watching = watch("--initial")
    watching.wait_line("a = 0")
    (tmp_path / "run/kt-dx/tags").unlink()
    process = provider("b:6:2:ro")

    def seen():
        process.write("b", "0500")
        return any(line.startswith("b = 5") for line in watching.lines)

    wait_until(seen)


def test_tags_of_a_killed_provider_are_gone(kt_tag, provider):
    process = provider("a:6:2:wo", "b:6:2:ro")
    assert len(kt_tag("list").stdout.splitlines()) == 2
    process.kill()
    assert error(kt_tag("get", "a", status=1)) == "kt-tag: a: unknown tag"
    assert error(kt_tag("set", "a", "1", status=1)) == "kt-tag: a: unknown tag"
    assert kt_tag("list").stdout == ""
    provider("a:6:2:wo")
    kt_tag("set", "a", "3")
    assert kt_tag("get", "a").stdout == "3\n"


def test_two_providers_share_the_store(kt_tag, provider):
    first = provider("a:6:2:wo")
    second = provider("b:6:2:wo")
    second.tell("add a:6:2:wo", answer="failed")
    kt_tag("set", "b", "1")
    second.wait_taken("b", "0100")
    kt_tag("set", "a", "2")
    first.wait_taken("a", "0200")
    assert second.taken == [("b", "0100")] and first.taken == [("a", "0200")]
    first.close()
    second.tell("add a:6:2:wo")


def test_many_writers_end_with_the_last_value(kt_tag, provider):
    process = provider("a:8:8:wo", "b:8:8:wo")

    def hammer(name):
        for number in range(30):
            kt_tag("set", name, str(number * 0x100000001))

    threads = [threading.Thread(target=hammer, args=(name,)) for name in ("a", "b")]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    last = (29 * 0x100000001).to_bytes(8, "little").hex().upper()
    process.wait_taken("a", last)
    process.wait_taken("b", last)
    assert kt_tag("get", "a").stdout == f"{29 * 0x100000001}\n"
