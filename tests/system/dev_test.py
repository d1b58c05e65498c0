"""./dev on machines that lack something: one line says what, and nothing is left half done.

It works on a tree of its own with a small project, in namespaces in which files of the machine are
hidden or replaced.
"""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
from typing import NamedTuple

import pytest

from kt_system import lane
from kt_system.lane import scaled, wait_until
from virtual_terminal import VirtualTerminal

PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(small CXX)
add_executable(kt-small small.cpp)
"""
SOURCE = "int main() { return 0; }\n"
SLOW = """
add_custom_command(OUTPUT slow COMMAND sh -c "echo >begun; sleep 600" VERBATIM)
add_custom_target(slowly ALL DEPENDS slow)
"""


@pytest.fixture
def tree(tmp_path) -> pathlib.Path:
    folder = tmp_path / "tree"
    (folder / "tools/live-view").mkdir(parents=True)
    for name in ("dev", "CMakePresets.json", "tools/live-view/progress.sh"):
        shutil.copy(lane.REPO / name, folder / name)
    (folder / "CMakeLists.txt").write_text(PROJECT)
    (folder / "small.cpp").write_text(SOURCE)
    return folder


@pytest.fixture
def shims(tmp_path) -> pathlib.Path:
    """For programs that take the place of the machine's."""
    folder = tmp_path / "shims"
    folder.mkdir()
    return folder


def write_program(path: pathlib.Path, text: str) -> str:
    path.write_text("#!/bin/bash\n" + text + "\n")
    path.chmod(0o755)
    return str(path)


def environment() -> dict[str, str]:
    kept = {name: os.environ[name] for name in ("HOME", "TMPDIR") if name in os.environ}
    return kept | {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}


# Without the programs given: /usr/bin with symbolic links to all the others.
HIDE = """
hide() {
    local name
    mount -t tmpfs tmpfs /srv
    mkdir /srv/all /srv/most
    mount --rbind /usr/bin /srv/all
    ln -s /srv/all/* /srv/most/
    for name; do rm -f "/srv/most/$name"; done
    mount --bind /srv/most /usr/bin
}
"""


def dev(tree, *arguments: str, before: str = "", options: tuple[str, ...] = ()):
    """./dev in a mount namespace of its own, in which the commands given have run before."""
    inside = f'set -e\n{HIDE}\n{before}\nexec "$@"'
    command = ["unshare", "--mount", *options, "bash", "-c", inside, "-", f"{tree}/dev", *arguments]
    return subprocess.run(
        command,
        env=environment(),
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=scaled(120),
    )


@pytest.fixture(scope="session", autouse=True)
def namespaces():
    if subprocess.run(["unshare", "--mount", "true"], capture_output=True).returncode != 0:
        pytest.skip("needs root and mount namespaces")


def assert_says(answer, pattern: str) -> None:
    """One line of complaint, the last thing that happens."""
    complaints = answer.stderr.splitlines()
    assert len(complaints) == 1, answer.stderr
    assert re.fullmatch(pattern, complaints[0]), complaints[0]
    assert answer.returncode == 1


@pytest.mark.parametrize(
    "arguments, pattern",
    [
        (["nosuch"], r"dev: unknown command nosuch \(\./dev help\)"),
        (["--nosuch"], r"dev: unknown command --nosuch \(\./dev help\)"),
        (["setup", "x"], r"dev: setup: unknown argument x \(\./dev help\)"),
        (["build", "x"], r"dev: build: unknown preset x, one of: release debug .*"),
        (["build", "debug", "x"], r"dev: build: unknown argument x \(\./dev help\)"),
        (["run", "--bear"], r"dev: run: unknown argument --bear \(\./dev help\)"),
        (["run", "--bare", "x"], r"dev: run: unknown argument x \(\./dev help\)"),
        (["test", "--fast"], r"dev: test: unknown argument --fast.*"),
        (["test", "-k"], r"dev: test: -k needs an expression"),
        (["lint", "x"], r"dev: lint: unknown argument x \(\./dev help\)"),
        (["fuzz", "x"], r"dev: fuzz: unknown argument x \(\./dev help\)"),
        (["bench", "x"], r"dev: bench: unknown argument x \(\./dev help\)"),
        (["help", "x"], r"dev: help: unknown argument x \(\./dev help\)"),
    ],
    ids=" ".join,
)
def test_what_it_does_not_know_is_refused_before_anything_happens(tree, arguments, pattern):
    answer = dev(tree, *arguments)
    assert_says(answer, pattern)
    assert answer.stdout == ""
    assert not (tree / "build").exists()


@pytest.mark.parametrize("arguments", [[], ["help"], ["--help"], ["-h"]], ids=" ".join)
def test_help_names_every_command(tree, arguments):
    answer = dev(tree, *arguments)
    assert (answer.returncode, answer.stderr) == (0, "")
    named = set(re.findall(r"^\./dev (\w+)", answer.stdout, re.MULTILINE))
    functions = set(re.findall(r"^cmd_(\w+)\(\)", (tree / "dev").read_text(), re.MULTILINE))
    assert named == functions | {"help"}


class Lack(NamedTuple):
    """What a machine lacks, and what ./dev says."""

    arguments: list[str]
    says: str
    programs: dict[str, str] = {}  # of the machine -> what they do instead
    before: str = ""


def lacking(package: str) -> dict[str, str]:
    """A machine on which every package is installed but that one."""
    return {
        "/usr/bin/dpkg-query": 'for one; do echo "installed $one"; done | '
        f'grep -vx "installed {package}"'
    }


def apt_fails(text: str, says: str) -> Lack:
    programs = lacking("curl") | {"/usr/bin/apt-get": f'echo "{text}" >&2; exit 100'}
    return Lack(["setup"], rf"dev: setup: {says}; missing: curl \(build/setup\.log\)", programs)


READ_ONLY = "mount --bind {tree} {tree}; mount -o remount,bind,ro {tree}; cd {tree}"
CANNOT_WRITE = "cannot write to .*/tree/build: "
LACKS = {
    "another distribution": Lack(
        ["run"],
        r"dev: setup: not a Debian or Ubuntu machine; install the equivalents of: g\+\+ .* python3",
        before="hide dpkg-query",
    ),
    "name resolution": apt_fails(
        "E: Temporary failure resolving 'mirror'",
        "no network: the package mirror's name is not known",
    ),
    "an answer of the mirror": apt_fails(
        "E: Could not connect to mirror:80", "no network: the package mirror does not answer"
    ),
    "the package in its release": apt_fails(
        "E: Unable to locate package curl",
        "the package sources of this machine do not have it; Debian 12 does",
    ),
    "the lock": apt_fails(
        "E: Could not get lock /var/lib/dpkg/lock-frontend.",
        "another program installs packages; try again when it has ended",
    ),
    "anything else": apt_fails("E: Something new", r"apt-get failed \(Something new\)"),
    "cmake": Lack(
        ["build"],
        r"dev: build: cmake is missing \(package cmake, \./dev setup\)",
        before="hide cmake",
    ),
    "ninja": Lack(
        ["build"],
        r"dev: build: ninja is missing \(package ninja-build, \./dev setup\)",
        before="hide ninja",
    ),
    "a newer cmake": Lack(
        ["build"],
        r"dev: build: cmake 3\.18\.4 is too old, 3\.25 is needed \(package cmake\)",
        {"/usr/bin/cmake": "echo cmake version 3.18.4"},
    ),
    "a newer compiler": Lack(
        ["build"],
        r"dev: build: g\+\+ 10\.2\.1 is too old, 12 is needed \(package g\+\+\)",
        {"/usr/bin/g++": "echo 'g++ (Debian 10.2.1-6) 10.2.1 20210110'"},
    ),
    "a right to write": Lack(
        ["build"], f"dev: build: {CANNOT_WRITE}Read-only file system", before=READ_ONLY
    ),
    "a right to write, and packages": Lack(
        ["setup"],
        f"dev: setup: {CANNOT_WRITE}Read-only file system",
        lacking("curl"),
        before=READ_ONLY,
    ),
    "space": Lack(
        ["build"],
        f"dev: build: {CANNOT_WRITE}No space left on device",
        before="mkdir {tree}/build; mount -t tmpfs -o size=16k tmpfs {tree}/build",
    ),
    "space while it builds": Lack(
        ["build"],
        "dev: build: (cannot write to .*: No space left on device|no space left on the disk of .*)",
        before="mkdir {tree}/build; mount -t tmpfs -o size=100k tmpfs {tree}/build",
    ),
}


def replacing(programs: dict[str, str], shims: pathlib.Path) -> str:
    """Shell commands that put programs of the test in the place of the machine's."""
    lines = []
    for number, (program, text) in enumerate(programs.items()):
        shim = write_program(shims / f"instead-{number}", text)
        lines.append(f"mount --bind {shim} {program}")
    return "\n".join(lines) + "\n"


@pytest.mark.parametrize("lack", LACKS)
def test_what_is_missing_is_said_in_one_line(tree, shims, lack):
    arguments, pattern, programs, before = LACKS[lack]
    before = replacing(programs, shims) + before.replace("{tree}", str(tree))
    answer = dev(tree, *arguments, before=before)
    if lack == "space while it builds":  # the tools say so as well
        answer.stderr = answer.stderr.splitlines()[-1]
    assert_says(answer, pattern)
    # On a machine that has it everything goes on from there.
    answer = dev(tree, "build")
    assert answer.returncode == 0, answer.stderr
    assert (tree / "build/release/kt-small").exists()


def setup_as_nobody(tree, shims) -> subprocess.CompletedProcess:
    """./dev setup without root, in a copy of the tree that everybody may write to."""
    before = replacing(lacking("curl"), shims) + (
        f"hide sudo\ncp -r {tree} {shims} /srv/\n"
        "chmod -R a+rwX /srv/tree /srv/shims; chmod a+rx /srv\nPATH+=:/srv/shims\n"
        "set -- setpriv --reuid 65534 --regid 65534 --clear-groups /srv/tree/dev setup"
    )
    return dev(tree, before=before)


def test_without_root_and_sudo_nothing_is_tried(tree, shims):
    answer = setup_as_nobody(tree, shims)
    assert_says(answer, "dev: setup: no root and no sudo to install: curl")


def test_a_sudo_that_refuses_is_told(tree, shims):
    write_program(shims / "sudo", "exit 1")
    answer = setup_as_nobody(tree, shims)
    assert_says(answer, "dev: setup: sudo does not let this user install: curl")


def test_apt_itself_without_a_network_is_told(tree, shims, tmp_path):
    write_program(shims / "dpkg-query", "exit 1")
    settings = tmp_path / "apt.conf"
    settings.write_text('Dir::State::status "/dev/null"; Acquire::Retries "0";')
    before = (
        f"mount --bind {shims}/dpkg-query /usr/bin/dpkg-query; export APT_CONFIG={settings}\n"
        "mount -t tmpfs tmpfs /var/lib/apt/lists; mount -t tmpfs tmpfs /var/cache/apt\n"
        "mkdir -p /var/lib/apt/lists/partial /var/cache/apt/archives/partial"
    )
    answer = dev(tree, "setup", before=before, options=("--net",))
    assert_says(answer, r"dev: setup: no network.*; missing: g\+\+ .* \(build/setup\.log\)")


def test_progress_in_a_pipe_is_lines(tree):
    answer = dev(tree, "build")
    assert answer.returncode == 0
    lines = answer.stdout.splitlines()
    assert lines[0] == "dev: build: release into build/release"
    done = re.compile(r"dev: build: 2 of 2 \(100 %\), kt-small, \d+:\d\d")
    assert any(done.fullmatch(line) for line in lines)
    assert re.fullmatch(r"dev: build: 2 steps done, \d+:\d\d", lines[-1])
    assert not re.search(r"[\r\x1b]", answer.stdout + answer.stderr)
    again = dev(tree, "build")
    assert again.stdout.splitlines()[-1] == "dev: build: nothing has changed"


def test_progress_on_a_terminal_is_one_line(tree):
    terminal = VirtualTerminal([f"{tree}/dev", "build"], environment() | {"TERM": "xterm"}, 40, 10)
    try:
        assert terminal.process.wait(scaled(60)) == 0
        wait_until(lambda: "steps done" in terminal.text(), 5.0, terminal.text)
        lines = [line for line in terminal.lines() if line]
        assert len(lines) == 2, lines
        assert b"\rdev: build: 2 of 2 (100 %), kt-small" in terminal.raw
    finally:
        terminal.close()


def test_what_a_compiler_says_is_shown_and_the_next_build_goes_on(tree):
    (tree / "small.cpp").write_text("int main() { return missing; }\n")
    answer = dev(tree, "build")
    assert answer.returncode == 1
    assert "small.cpp:1:21: error: " in answer.stderr
    assert answer.stderr.splitlines()[-1] == "dev: build: release failed, see above"
    (tree / "small.cpp").write_text(SOURCE)
    assert dev(tree, "build").returncode == 0


def test_a_project_that_cannot_be_configured_says_why_in_one_line(tree):
    (tree / "CMakeLists.txt").write_text(PROJECT + 'message(FATAL_ERROR "no such thing")\n')
    answer = dev(tree, "build")
    assert_says(
        answer,
        r"dev: build: configuring release failed: no such thing \(build/configure-release\.log\)",
    )


def test_a_tree_that_was_moved_is_configured_afresh(tree, tmp_path):
    assert dev(tree, "build").returncode == 0
    moved = tmp_path / "moved"
    tree.rename(moved)
    answer = dev(moved, "build")
    assert answer.returncode == 0, answer.stderr


def processes_in(folder: pathlib.Path) -> list[str]:
    found = []
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):  # it has ended
            if str(folder) in os.readlink(entry / "cwd"):
                found.append((entry / "cmdline").read_text().replace("\0", " "))
    return found


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_ends_the_build_with_all_of_its_processes(tree, number):
    (tree / "CMakeLists.txt").write_text(PROJECT + SLOW)
    build = subprocess.Popen(
        [f"{tree}/dev", "build"],
        env=environment(),
        stderr=subprocess.PIPE,
        text=True,
        start_new_session=True,
    )
    begun = tree / "build/release/begun"
    wait_until(lambda: begun.exists() and begun.read_text().endswith("\n"), 60.0, "a slow step")
    build.send_signal(number)
    assert build.communicate(timeout=scaled(30))[1] == f"dev: ended by {number.name}\n"
    assert build.returncode == -number
    # Not its own children to wait for: killed, they may take a moment to be gone.
    wait_until(lambda: not processes_in(tree), 10.0, lambda: str(processes_in(tree)))
    (tree / "CMakeLists.txt").write_text(PROJECT)
    assert dev(tree, "build").returncode == 0
