"""What all programs have in common: help, version, exit statuses, errors, man page, completion.

A new program is a row of PROGRAMS, and rows of CASES for its own exit statuses.
"""

import json
import os
import re
import shlex
import shutil
import signal
import subprocess
from typing import NamedTuple

import pytest

from kt_system import lane
from kt_system.lane import scaled, wait_until
from kt_system.processes import LineReader
from kt_system.provider import Provider

MAN = lane.REPO / "packaging/man"
COMPLETION = lane.REPO / "packaging/completion"
SERVICE = "kt-can-proprietary"
SECTIONS = ["NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "ENVIRONMENT", "FILES", "EXIT STATUS",
            "EXAMPLES", "SEE ALSO"]


class Program(NamedTuple):
    name: str
    page: str
    commands: tuple[str, ...] = ()


PROGRAMS = [
    Program("kt-tag", "kt-tag.1", ("list", "get", "set", "watch")),
    Program("kt-softcan", "kt-softcan.1", ("run", "join", "list", "status", "port", "fault")),
    Program("kt-demo-device", "kt-demo-device.1"),
    Program("kt-dx-mqtt", "kt-dx-mqtt.8"),
]
NAMES = [program.name for program in PROGRAMS]
every_program = pytest.mark.parametrize("program", PROGRAMS, ids=NAMES)


def usage(problem: str) -> str:
    """What is said about wrong usage; NAME stands for the program."""
    return f"NAME: {problem}\nTry 'NAME --help'.\n"


# Program, arguments, exit status, all of standard error. {tmp}: a folder of the test's own.
NO_STORE = "no tag store (is a provider running?): {tmp}/run/kt-dx/tags"
LOW = "--interval needs milliseconds, 1 to 86400000, not"
CASES = [
    ("kt-tag", "", 2, usage("a command is missing")),
    ("kt-tag", "show", 2, usage("unknown command show")),
    ("kt-tag", "list --json=1", 2, usage("--json takes no value")),
    ("kt-tag", "watch --count 1 --count=2", 2, usage("--count is given twice")),
    ("kt-tag", "set a", 2, usage("too few arguments for set")),
    ("kt-tag", "set a -5 -6", 2, usage("too many arguments for set: -6")),
    ("kt-tag", "list -- --bogus --more", 2, usage("too many arguments for list: --more")),
    ("kt-tag", "list", 1, f"NAME: {NO_STORE}\n"),
    ("kt-tag", "get --json a/b", 1, f"NAME: a/b: {NO_STORE}\n"),
    ("kt-tag", "watch --timeout 0", 1, f"NAME: {NO_STORE}\n"),
    ("kt-softcan", "", 2, usage("a command is missing")),
    ("kt-softcan", "start", 2, usage("unknown command start")),
    ("kt-softcan", "list --world w", 2, usage("--world is no option of list")),
    ("kt-softcan", "status can0", 2, usage("too many arguments for status: can0")),
    ("kt-softcan", "port add", 2, usage("port wants add PORT or remove PORT")),
    ("kt-softcan", "port add a/b", 2, usage("'a/b' cannot be the name of a port")),
    ("kt-softcan", "fault drop 1", 2, usage("fault wants --port PORT")),
    ("kt-softcan", "fault --port can0 --port can1 clear", 2, usage("--port is given twice")),
    ("kt-softcan", "fault --port a2345678901234567 clear", 2,
     usage("'a2345678901234567' cannot be the name of a port")),
    ("kt-softcan", "fault --port can0 clear now", 2,
     usage("fault wants drop N, drop-rate P, txfull MS|off, error ID#DATA or clear")),
    ("kt-softcan", "fault --port can0 drop 4294967296", 2,
     usage("fault wants drop N, N from 0 to 4294967295, not '4294967296'")),
    ("kt-softcan", "fault --port can0 drop-rate 101%", 2,
     usage("fault wants drop-rate P, P from 0 to 1 or 0% to 100%, not '101%'")),
    ("kt-softcan", "fault --port can0 txfull on", 2,
     usage("fault wants txfull MS|off, MS from 0 to 4294967295, not 'on'")),
    ("kt-softcan", "fault --port can0 error 40#1", 2,
     usage("fault wants error ID#DATA, hexadecimal, ID up to 3FFFFFFF, up to 8 bytes, "
           "not '40#1'")),
    ("kt-softcan", "status", 1, "NAME: no world is running, start one with kt-softcan run\n"),
    ("kt-softcan", "status --world w", 1,
     "NAME: no world answers at {tmp}/worlds/w.sock: No such file or directory\n"),
    ("kt-softcan", "run -- {softcan} port remove can9", 1,
     "NAME: can9: No such device (kt-softcan status lists the ports)\n"),
    ("kt-softcan", "run", 125, usage("no COMMAND to run")),
    ("kt-softcan", "run --ports", 125, usage("--ports needs a value")),
    ("kt-softcan", "join --json -- true", 125, usage("--json is no option of join")),
    ("kt-softcan", "run --ports can0,can0 true", 125,
     usage("--ports wants up to 32 different names of up to 15 characters, not 'can0,can0'")),
    ("kt-softcan", "join true", 125,
     "NAME: no world is running, start one with kt-softcan run\n"),
    ("kt-softcan", "run --world {tmp}/none/w.sock true", 125,
     "NAME: cannot use {tmp}/none: No such file or directory\n"),
    ("kt-softcan", "run {tmp}", 126, "NAME: cannot run {tmp}: Permission denied\n"),
    ("kt-softcan", "run {tmp}/none", 127,
     "NAME: cannot run {tmp}/none: No such file or directory\n"),
    ("kt-softcan", "run false", 1, ""),
    ("kt-softcan", "run -- sh -c 'kill -KILL $$'", 128 + signal.SIGKILL, ""),
    ("kt-demo-device", "", 2, usage("--port is missing")),
    ("kt-demo-device", "--port", 2, usage("--port needs a value")),
    ("kt-demo-device", "--port can0 --port=can1", 2, usage("--port is given twice")),
    ("kt-demo-device", "--port can0 can1", 2, usage("unknown argument can1")),
    ("kt-demo-device", "--port can0 --interval 0", 2, usage(f"{LOW} '0'")),
    ("kt-demo-device", "--port can0 --interval 86400001", 2, usage(f"{LOW} '86400001'")),
    ("kt-demo-device", "--port can0 --node me", 2, usage("no such node: me")),
    ("kt-demo-device", "--port can0 --node drive --node drive", 2,
     usage("--node drive is given twice")),
    ("kt-demo-device", "--port can0 --script {tmp}", 2,
     "NAME: cannot read {tmp}: Is a directory\n"),
    ("kt-demo-device", "--port can0 --script {tmp}/none", 2,
     "NAME: cannot read {tmp}/none: No such file or directory\n"),
    ("kt-demo-device", "--port nocan", 1,
     "NAME: nocan: no such interface (`ip link` lists those there are)\n"),
    ("kt-demo-device", "--port lo", 1, "NAME: lo: no CAN interface: No such device\n"),
    ("kt-dx-mqtt", "now", 2, usage("unexpected argument now")),
    ("kt-dx-mqtt", "--config", 2, usage("--config needs a value")),
    ("kt-dx-mqtt", "--config {tmp}/none --check", 1,
     "NAME: {tmp}/none: cannot be read: No such file or directory\n"),
]


@pytest.fixture
def environment(tmp_path):
    """Without a tag store and a world of kt-softcan, but with the ports of this lane."""
    return {
        **os.environ,
        **lane.sanitizer_environment(),
        "KT_ROOT": str(tmp_path),
        "KT_SOFTCAN_DIR": str(tmp_path / "worlds"),
        "LC_ALL": "C.UTF-8",
    }


@pytest.fixture
def run(environment):
    """run(name, *arguments): the finished program, its output as text unless it goes elsewhere."""

    def finish(name, *arguments, stdout=subprocess.PIPE):
        own = dict(environment)
        if name != "kt-demo-device":
            own.pop("KT_SOFTCAN", None)
            own.pop("KT_CAN_PORTS", None)
        result = subprocess.run(
            [lane.program(name), *arguments],
            env=own,
            stdin=subprocess.DEVNULL,
            stdout=stdout,
            stderr=subprocess.PIPE,
            text=True,
            timeout=scaled(20),
        )
        assert not lane.sanitizer_report(result.stderr), result.stderr
        return result

    return finish


def outcome(result) -> tuple[int, str, str]:
    return result.returncode, result.stdout, result.stderr


def project_version() -> str:
    text = (lane.REPO / "CMakeLists.txt").read_text("utf-8")
    return re.search(r"^project\(\S+ VERSION (\S+)", text, re.MULTILINE)[1]


@every_program
def test_help_fits_on_a_screen_and_says_everything(run, program):
    status, text, errors = outcome(run(program.name, "--help"))
    assert (status, errors) == (0, "")
    lines = text.splitlines()
    assert text.startswith(f"Usage: {program.name} ") and text.endswith("\n")
    assert len(lines) <= 28 and max(map(len, lines)) <= 80
    for start in ("Exit status: ", "Environment: ", f"Example: {program.name} "):
        assert sum(line.startswith(start) for line in lines) == 1, start
    synopsis = text.split("\n\n")[0].splitlines()
    assert set(program.commands) <= {line.removeprefix("Usage:").split()[1] for line in synopsis}


@every_program
def test_help_is_found_in_every_place(run, program):
    text = run(program.name, "--help").stdout
    for arguments in (["-h"], ["--help", "--bogus"], *([command, "--help"] for command in
                                                       program.commands)):
        assert outcome(run(program.name, *arguments)) == (0, text, ""), arguments


@every_program
def test_version(run, program):
    version = project_version()
    assert outcome(run(program.name, "--version")) == (0, f"{program.name} {version}\n", "")
    for arguments in (["--version", "--json"], ["--json", "--version"]):
        status, text, errors = outcome(run(program.name, *arguments))
        assert (status, errors) == (0, "")
        assert json.loads(text) == {"name": program.name, "version": version}


@every_program
def test_an_unknown_option_is_wrong_usage(run, program):
    for argument in ("--bogus", "--bogus=1", "--hel"):
        name = argument.split("=")[0]
        wanted = usage(f"unknown option {name}").replace("NAME", program.name)
        assert outcome(run(program.name, argument)) == (2, "", wanted)


@every_program
def test_what_is_wrong_harms_no_terminal(run, program):
    wanted = usage("unknown option --\\x1B[2J\\xFF").replace("NAME", program.name)
    assert outcome(run(program.name, b"--\x1b[2J\xff")) == (2, "", wanted)


@pytest.mark.parametrize("name, arguments, status, errors", CASES,
                         ids=[f"{case[0]} {case[1]}" for case in CASES])
def test_exit_status_and_error(run, tmp_path, name, arguments, status, errors):
    names = {"tmp": tmp_path, "softcan": lane.program("kt-softcan")}
    result = run(name, *(word.format(**names) for word in shlex.split(arguments)))
    wanted = errors.replace("{tmp}", str(tmp_path)).replace("NAME", name)
    assert outcome(result) == (status, "", wanted)


def closed_pipe() -> int:
    reader, writer = os.pipe()
    os.close(reader)
    return writer


# Commands that print data and end, or print when they begin.
PRINTING = [
    *((name, option) for name in NAMES for option in ("--help", "--version")),
    ("kt-softcan", "run -- {softcan} status"),
    ("kt-softcan", "run -- {softcan} status --json"),
    ("kt-softcan", "run -- {softcan} list"),
    ("kt-softcan", "run -- {softcan} list --json"),
    ("kt-softcan", "list --json"),
    ("kt-demo-device", "--port can0"),
    ("kt-demo-device", "--port can0 --json"),
]
printing = pytest.mark.parametrize("name, arguments", PRINTING, ids=map(" ".join, PRINTING))


def words(arguments: str) -> list[str]:
    return arguments.format(softcan=lane.program("kt-softcan")).split()


@printing
def test_a_full_disk_is_told(run, name, arguments):
    with open("/dev/full", "wb") as full:
        result = run(name, *words(arguments), stdout=full)
    assert (result.returncode, result.stderr) == (
        1, f"{name}: standard output: No space left on device\n")


@printing
def test_a_reader_that_has_gone_is_no_failure(run, name, arguments):
    pipe = closed_pipe()
    result = run(name, *words(arguments), stdout=pipe)
    os.close(pipe)
    assert (result.returncode, result.stderr) == (0, "")


@printing
def test_closed_standard_output_is_told(environment, name, arguments):
    own = dict(environment)
    if name == "kt-softcan":
        own.pop("KT_SOFTCAN", None)
    result = subprocess.run(
        ["sh", "-c", '"$0" "$@" >&-', lane.program(name), *words(arguments)],
        env=own,
        stderr=subprocess.PIPE,
        text=True,
        timeout=scaled(20),
    )
    assert (result.returncode, result.stderr) == (
        1, f"{name}: standard output: Bad file descriptor\n")


def test_worlds_and_ports_as_json(run, tmp_path):
    softcan = lane.program("kt-softcan")
    result = run("kt-softcan", "run", "--world", "w", "--ports", 'a"b,can1', "--up", "--",
                 "sh", "-c", '"$0" list --json; "$0" status --json', softcan)
    decoder = json.JSONDecoder()
    worlds, end = decoder.raw_decode(result.stdout)
    ports, _ = decoder.raw_decode(result.stdout[end:].lstrip())
    assert worlds == [
        {"name": "w", "ports": ['a"b', "can1"], "path": str(tmp_path / "worlds/w.sock")}]
    assert [(port["port"], port["up"], port["state"]) for port in ports] == [
        ('a"b', True, "ERROR-ACTIVE"), ("can1", True, "ERROR-ACTIVE")]
    assert set(ports[0]) == {"port", "ifindex", "up", "state", "bitrate", "restart_ms",
                             "termination", "frames", "lost", "drops", "drop_next", "drop_rate",
                             "txfull_ms"}
    assert outcome(run("kt-softcan", "list", "--json")) == (0, "[]\n", "")


def test_the_service_answers_help_and_version_alone(run):
    status, text, errors = outcome(run(SERVICE, "--help"))
    assert (status, errors) == (0, "")
    assert text.startswith("Usage: kt-can-proprietary\n")
    assert len(text.splitlines()) <= 28 and max(map(len, text.splitlines())) <= 80
    assert outcome(run(SERVICE, "-h")) == (0, text, "")
    assert outcome(run(SERVICE, "--version")) == (0, f"{SERVICE} {project_version()}\n", "")
    with open("/dev/full", "wb") as full:
        assert (result := run(SERVICE, "--help", stdout=full)).returncode == 1
    assert result.stderr == f"{SERVICE}: standard output: No space left on device\n"


def test_the_service_looks_at_no_other_arguments(gateway):
    command = [lane.program(SERVICE), "--help", "--bogus", "more"]
    with LineReader(command, gateway.environment) as service:
        wait_until(gateway.path("/run/kt-rest/CAN-proprietary.address").exists)
        assert service.stop() == 0
        assert (service.lines, service.errors) == ([], [])


def test_the_service_without_a_configuration_ends_with_255(environment):
    environment.update(KT_ROOT="/dev/null", KT_REST_LISTEN="127.0.0.1:0")
    result = subprocess.run([lane.program(SERVICE)], env=environment, capture_output=True,
                            text=True, timeout=scaled(20))
    assert result.returncode == 255
    assert "\x1b[91mERROR: " in result.stderr


# Man pages -----------------------------------------------------------------------------------

PAGES = [*(program.page for program in PROGRAMS), f"{SERVICE}.8"]
every_page = pytest.mark.parametrize("page", PAGES)


def page_text(page: str) -> str:
    return (MAN / page).read_text("utf-8")


def options_of_page(page: str) -> dict[str, str]:
    """Option -> the name of its value, empty for none."""
    found = re.findall(r"^\.It Fl -(\S+)(?: Ar (\S+))?$", page_text(page), re.MULTILINE)
    return {f"--{name}": value for name, value in found}


def options_of_help(text: str) -> dict[str, str]:
    return dict(re.findall(r"^  (--[a-z-]+)(?: ([A-Z]+))?  ", text, re.MULTILINE))


def section_of_page(page: str, title: str) -> str:
    return re.split(r"^\.Sh ", page_text(page).split(f".Sh {title}\n")[1], flags=re.MULTILINE)[0]


@every_page
def test_man_page_has_its_sections(page):
    assert re.findall(r"^\.Sh (.*)$", page_text(page), re.MULTILINE) == SECTIONS


@every_page
def test_man_page_refers_to_the_other_programs(page):
    seen = set(re.findall(r"^\.Xr (\S+) (\d)", section_of_page(page, "SEE ALSO"), re.MULTILINE))
    assert seen >= {tuple(other.rsplit(".", 1)) for other in PAGES if other != page}


@every_page
@pytest.mark.parametrize("command", [
    ["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z"],
    ["mandoc", "-T", "lint"],
], ids=["man", "mandoc"])
def test_man_page_is_clean(page, command):
    if shutil.which(command[0]) is None:
        pytest.skip(f"{command[0]} is not installed")
    result = subprocess.run([*command, str(MAN / page)], capture_output=True, text=True,
                            env={**os.environ, "LC_ALL": "C.UTF-8", "LD_PRELOAD": ""},
                            timeout=scaled(30))
    said = result.stderr if command[0] == "man" else result.stdout
    # Which other pages are installed here is not the matter of this one.
    problems = [line for line in said.splitlines() if "referenced manual not found" not in line]
    assert problems == []
    assert command[0] != "man" or result.stdout.startswith("x T utf8")


@every_program
def test_man_page_and_help_have_the_same_options(run, program):
    shown = options_of_help(run(program.name, "--help").stdout)
    assert shown and shown == options_of_page(program.page)


@every_program
def test_man_page_explains_every_command(program):
    explained = re.findall(r"^\.It Cm (\S+)", section_of_page(program.page, "DESCRIPTION"),
                           re.MULTILINE)
    assert set(program.commands) <= set(explained)


def statuses_of_page(page: str) -> set[str]:
    return set(re.findall(r"^\.It (\d.*)$", section_of_page(page, "EXIT STATUS"), re.MULTILINE))


@every_program
def test_every_exit_status_of_the_man_page_is_tested(program):
    seen = {str(case[2]) for case in CASES if case[0] == program.name} | {"0"}
    seen = {"128 + n" if int(status) > 128 else status for status in seen}
    assert statuses_of_page(program.page) == seen


def test_exit_statuses_of_the_service():
    assert statuses_of_page(f"{SERVICE}.8") == {"0", "1", "255"}


@every_program
def test_the_document_names_every_command_option_and_exit_status(run, program):
    text = (lane.REPO / "docs/programs.md").read_text("utf-8")
    named = set(re.findall(r"`([^`]+)`", text))
    statuses = set(re.findall(r"^\| (\d[^|]*?) \|", text, re.MULTILINE))
    assert {program.name, *program.commands} <= named
    assert set(options_of_help(run(program.name, "--help").stdout)) <= named
    assert statuses_of_page(program.page) <= {
        status for cell in statuses for status in cell.split(", ")}


# Completion ----------------------------------------------------------------------------------

COMPLETE = r"""
. "$0"
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
function=$(complete -p "${1##*/}" | sed -n 's/.*-F \([^ ]*\) .*/\1/p')
[ -z "$function" ] || "$function" "$KT_PROGRAM" "${@: -1}" "${@: -2:1}"
[ ${#COMPREPLY[@]} = 0 ] || printf '%s\n' "${COMPREPLY[@]}"
"""


@pytest.fixture
def complete(environment):
    """complete(word, ...): what is offered for the last word, sorted."""

    def ask(name, *following) -> list[str]:
        result = subprocess.run(
            ["bash", "--norc", "-c", COMPLETE, str(COMPLETION / name), name, *following],
            env={**environment, "KT_PROGRAM": lane.program(name)},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=scaled(20),
        )
        assert (result.returncode, result.stderr) == (0, ""), result.stderr
        return sorted(result.stdout.splitlines())

    return ask


@every_program
def test_completion_and_help_have_the_same_options(run, complete, program):
    offered = complete(program.name, "--")
    for command in program.commands:
        offered += complete(program.name, command, "--")
    assert set(offered) == set(options_of_help(run(program.name, "--help").stdout))


@every_program
def test_every_option_that_is_offered_is_one_of_its_command(run, complete, program):
    """What is wrong with a command that has too many arguments is then another thing."""
    values = options_of_help(run(program.name, "--help").stdout)
    for command in program.commands:
        for option in set(complete(program.name, command, "--")) - {"--help", "--version"}:
            given = f"{option}=1" if values[option] else option
            errors = run(program.name, command, given, "a", "b", "c", "d").stderr
            assert errors and " is no option of " not in errors, (command, option)


@every_program
def test_completion_offers_the_commands(complete, program):
    if program.commands:
        assert complete(program.name, "") == sorted(program.commands)


def test_completion_of_the_service(complete):
    assert complete(SERVICE, "--") == ["--help", "--version"]


@pytest.fixture
def three_tags(environment):
    provider = Provider(environment, "a/x:6:2:ro", "a/y:6:2:wo", "b = (c:5:1:wo")
    yield
    provider.close()


@pytest.mark.usefixtures("three_tags")
@pytest.mark.parametrize(
    "line, offered",
    [
        (["get", ""], ["a/x", "a/y", r"b\ =\ \(c"]),
        (["get", "a/"], ["a/x", "a/y"]),
        (["get", "'a/x"], ["a/x"]),
        (["get", '"b'], ["b = (c"]),
        (["get", "a/x", ""], []),
        (["set", ""], ["a/y", r"b\ =\ \(c"]),
        (["set", "a/y", ""], []),
        (["--json", "watch", "a/y"], ["a/y"]),
        (["watch", "--count", ""], []),
        (["watch", "--count", "=", ""], []),
        (["watch", "--count", "1", "b"], [r"b\ =\ \(c"]),
        (["list", "n"], []),
    ],
    ids=str,
)
def test_completion_of_tag_names(complete, line, offered):
    assert complete("kt-tag", *line) == offered


def test_completion_of_tag_names_without_a_store(complete):
    assert complete("kt-tag", "get", "") == []


@pytest.fixture
def world(environment):
    """A world with the ports can3 and vcan4."""
    environment.pop("KT_SOFTCAN", None)
    environment.pop("KT_CAN_PORTS", None)
    process = subprocess.Popen(
        [lane.program("kt-softcan"), "run", "--world", "w", "--ports", "can3,vcan4", "sh", "-c",
         "echo ready; exec cat"],
        env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    assert process.stdout.readline() == b"ready\n"
    yield
    process.communicate(timeout=scaled(10))
    assert process.returncode == 0


@pytest.mark.usefixtures("world")
@pytest.mark.parametrize(
    "line, offered",
    [
        (["status", "--world", ""], ["w"]),
        (["--world", "=", ""], ["w"]),
        (["fault", "--port", ""], ["can3", "vcan4"]),
        (["fault", "--world", "w", "--port", "=", "v"], ["vcan4"]),
        (["fault", "--world", "none", "--port", ""], []),
        (["fault", "--port", "can3", "dr"], ["drop", "drop-rate"]),
        (["fault", "--port", "can3", "txfull", ""], ["off"]),
        (["port", ""], ["add", "remove"]),
        (["port", "add", "c"], []),
        (["port", "remove", "c"], ["can3"]),
        (["run", "--ports", ""], []),
        (["run", "--up", "/bin/fals"], ["/bin/false"]),
        (["join", "--", "cat", str(lane.REPO / "README.m")], [str(lane.REPO / "README.md")]),
    ],
    ids=str,
)
def test_completion_of_worlds_ports_and_faults(complete, line, offered):
    assert complete("kt-softcan", *line) == offered


@pytest.mark.parametrize(
    "line, offered",
    [
        (["--node", ""], ["drive", "legacy", "sensor"]),
        (["--port", "can0", "--node", "=", "d"], ["drive"]),
        (["--late", ""], []),
        (["--script", str(lane.REPO / "README.m")], [str(lane.REPO / "README.md")]),
    ],
    ids=str,
)
def test_completion_of_nodes_and_scripts(complete, line, offered):
    assert complete("kt-demo-device", *line) == offered


def test_completion_of_can_interfaces(complete, environment):
    environment["KT_CAN_PORTS"] = "can7,can8"
    offered = complete("kt-demo-device", "--port", "can")
    assert set(offered) >= {"can7", "can8"}
    assert "lo" not in complete("kt-demo-device", "--port", "")
