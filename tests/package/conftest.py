"""Built packages and the machines on which they are tried; see run.sh."""

import os
import pathlib
import shutil
import subprocess

import pytest
from packages import INSTALLED, NAMES, REPO, WORK, field, package_file, run


@pytest.fixture(scope="session")
def unpacked(tmp_path_factory):
    """unpacked("amd64"): a folder with the files of every package of that architecture."""
    folders = {}

    def unpack(architecture: str) -> pathlib.Path:
        if architecture not in folders:
            folders[architecture] = tmp_path_factory.mktemp(architecture)
            for name in NAMES:
                run("dpkg-deb", "-x", package_file(name, architecture), folders[architecture])
        return folders[architecture]

    return unpack


def with_higher_version(package: pathlib.Path, folder: pathlib.Path) -> str:
    """The package once more, as the next release: with another version and another schema."""
    tree = folder / package.stem
    run("dpkg-deb", "-R", package, tree)
    control = tree / "DEBIAN/control"
    version = field(package, "Version") + "+next"
    lines = control.read_text().splitlines()
    lines = [f"Version: {version}" if x.startswith("Version:") else x for x in lines]
    control.write_text("\n".join(lines) + "\n")
    schema = tree / "etc/default/config/kt-can-proprietary/can_proprietary.sql"
    if schema.exists():
        schema.write_text(schema.read_text() + "\n-- The next release.\n")
    run("dpkg-deb", "--build", "--root-owner-group", "-Znone", tree, folder)
    shutil.rmtree(tree)
    return version


@pytest.fixture(scope="session")
def packages(tmp_path_factory):
    """A folder for lifecycle.sh: itself, the packages, their next release, and its version."""
    folder = tmp_path_factory.mktemp("packages")
    (folder / "old").mkdir()
    (folder / "new").mkdir()
    for name in INSTALLED:
        shutil.copy(package_file(name), folder / "old")
        version = with_higher_version(package_file(name), folder / "new")
    shutil.copy(REPO / "tests/package/lifecycle.sh", folder)
    (folder / "version").write_text(version)
    return folder


class Facts:
    """What lifecycle.sh saw on a machine."""

    def __init__(self, folder: pathlib.Path, supervisor: str):
        self.folder = folder
        self.supervisor = supervisor

    def text(self, name: str) -> str:
        return (self.folder / name).read_text("utf-8", "replace")

    def status(self, name: str) -> int:
        return int(self.text(name + ".status"))

    def good(self, name: str) -> str:
        """The output of a command that succeeded."""
        assert self.status(name) == 0, self.text(name)
        return self.text(name)


def live_in_a_chroot(packages: pathlib.Path, facts: pathlib.Path) -> None:
    root = WORK / "chroot"
    shutil.rmtree(root, ignore_errors=True)
    try:
        run("cp", "-a", "--reflink=auto", WORK / "base", root)
        run(REPO / "tests/package/chroot_machine.sh", root, packages, facts, timeout=600)
    finally:
        shutil.rmtree(root)


def live_under_systemd(packages: pathlib.Path, facts: pathlib.Path) -> None:
    script = REPO / "tests/package/systemd_machine.sh"
    result = subprocess.run([script, WORK / "base", packages, facts], cwd=REPO)
    if result.returncode == 77:
        pytest.skip("no user-mode Linux with CAN modules (package user-mode-linux)")
    assert result.returncode == 0, (facts / "console").read_text("utf-8", "replace")[-4000:]


@pytest.fixture(scope="session", params=["chroot", "systemd"])
def machine(request, packages, tmp_path_factory):
    """The facts of one machine, from the first installation to the purge."""
    facts = tmp_path_factory.mktemp(request.param)
    os.chmod(facts, 0o777)
    if request.param == "chroot":
        live_in_a_chroot(packages, facts)
        return Facts(facts, "setpriv")
    live_under_systemd(packages, facts)
    return Facts(facts, "systemd")
