"""What is in the packages, without installing them."""

import json
import os
import re
import shutil
import signal
import subprocess
import time
import urllib.request

import pytest
from packages import ARCHITECTURES, INSTALLED, NAMES, REPO, SYSROOT, field, package_file, run

TRIPLETS = {"amd64": "x86_64-linux-gnu", "armhf": "arm-linux-gnueabihf"}
PROGRAMS = ("kt-can-proprietary", "kt-demo-device", "kt-dx-mqtt", "kt-softcan", "kt-tag")
PRELOADED = "usr/lib/kt-softcan/libkt-softcan.so"

SERVICE_FILES = {
    "etc/default/config/kt-can-proprietary/can_proprietary.sql",
    "etc/default/kt-can-proprietary",
    "lib/systemd/system/kt-can-proprietary.service",
    "usr/bin/kt-can-proprietary",
    "usr/lib/sysusers.d/kt-can-proprietary.conf",
    "usr/lib/tmpfiles.d/kt-can-proprietary.conf",
}
PLATFORM_FILES = {
    "usr/bin/kt-demo-device",
    "usr/bin/kt-softcan",
    "usr/bin/kt-tag",
    "usr/lib/kt-softcan/ip",
    PRELOADED,
}
MQTT_FILES = {
    "etc/kt-dx-mqtt.conf",
    "lib/systemd/system/kt-dx-mqtt.service",
    "usr/bin/kt-dx-mqtt",
    "usr/lib/sysusers.d/kt-dx-mqtt.conf",
    "usr/lib/tmpfiles.d/kt-dx-mqtt.conf",
}


def files_of(package) -> set[str]:
    listing = run("dpkg-deb", "-c", package).splitlines()
    names = (line.split(None, 5)[5].split(" -> ")[0] for line in listing)
    return {name.removeprefix("./") for name in names if not name.endswith("/")}


def documents(files: set[str]) -> set[str]:
    places = ("usr/share/doc/", "usr/share/man/", "usr/share/bash-completion/")
    return {name for name in files if name.startswith(places)}


@pytest.mark.parametrize(
    "name, wanted", zip(INSTALLED, (SERVICE_FILES, PLATFORM_FILES, MQTT_FILES), strict=True)
)
def test_service_tools_and_bridge_are_apart(name, wanted):
    files = files_of(package_file(name))
    assert files - documents(files) == wanted


def test_every_program_brings_its_manual_page_and_completion():
    files = set().union(*(files_of(package_file(name)) for name in INSTALLED))
    for name in PROGRAMS:
        for page in (REPO / "packaging/man").glob(f"{name}.[18]"):
            assert f"usr/share/man/man{page.suffix[1:]}/{page.name}.gz" in files
        if (REPO / "packaging/completion" / name).exists():
            assert f"usr/share/bash-completion/completions/{name}" in files


def test_every_library_has_its_headers_archive_and_module():
    files = files_of(package_file("kt-can-proprietary-dev"))
    for header in (REPO / "platform").glob("*/include/**/*.h"):
        place = header.relative_to(next(x for x in header.parents if x.name == "include"))
        assert f"usr/include/kt-can-proprietary/{place}" in files
    archives = {name for name in files if name.endswith(".a")}
    modules = {name for name in files if name.endswith(".pc")}
    assert len(archives) == len(modules) == len(list((REPO / "platform").glob("*/CMakeLists.txt")))


@pytest.mark.parametrize("name", NAMES)
def test_both_architectures_hold_the_same(name):
    amd64, armhf = (
        {file.replace(TRIPLETS[one], "TRIPLET") for file in files_of(package_file(name, one))}
        for one in ARCHITECTURES
    )
    assert amd64 == armhf


@pytest.mark.parametrize("architecture", ARCHITECTURES)
@pytest.mark.parametrize("name", NAMES)
def test_control_fields(name, architecture):
    package = package_file(name, architecture)
    run("dpkg-deb", "-I", package)
    project = (REPO / "CMakeLists.txt").read_text()
    version = re.search(r"^project\(.* VERSION ([0-9.]+)", project, re.MULTILINE)
    assert field(package, "Architecture") == architecture
    assert field(package, "Version") == version[1]
    if name == "kt-can-proprietary":
        depends = field(package, "Depends")
        libraries = ("libc6", "libjansson4", "libmicrohttpd12", "libsqlite3-0")
        for wanted in ("iproute2", "systemd", *libraries):
            assert re.search(rf"\b{wanted}\b", depends), depends
        assert "cross" not in depends
    if name == "kt-dx-mqtt":
        for wanted in ("libcurl4", "libmosquitto1", "libprotobuf-c1"):
            assert re.search(rf"\b{wanted}\b", field(package, "Depends"))


def test_lintian_finds_no_error():
    packages = [package_file(name, one) for name in NAMES for one in ARCHITECTURES]
    run("lintian", "--allow-root", "--fail-on", "error", *packages)


def test_the_licence_is_left_to_the_owner(unpacked):
    for name in NAMES:
        text = (unpacked("amd64") / "usr/share/doc" / name / "copyright").read_text()
        assert "the kt-can-proprietary developers" in text
        assert "No licence has been granted yet" in text


@pytest.mark.parametrize("architecture", ARCHITECTURES)
@pytest.mark.parametrize("program", PROGRAMS)
def test_programs_are_hardened(unpacked, architecture, program):
    file = unpacked(architecture) / "usr/bin" / program
    assert re.search(r"Type:\s+DYN", run("readelf", "-hW", file))  # position independent
    assert "GNU_RELRO" in run("readelf", "-lW", file)
    assert "NOW" in run("readelf", "-dW", file)
    symbols = run("readelf", "--dyn-syms", "-W", file)
    assert "__stack_chk_fail" in symbols
    assert re.search(r"__\w+_chk\b", symbols.replace("__stack_chk_fail", ""))  # fortified


@pytest.mark.parametrize("architecture", ARCHITECTURES)
def test_the_preloaded_library_is_hardened(unpacked, architecture):
    """It is not fortified: it stands in for the very functions that would be checked."""
    file = unpacked(architecture) / PRELOADED
    assert "GNU_RELRO" in run("readelf", "-lW", file)
    assert "NOW" in run("readelf", "-dW", file)
    assert "__stack_chk_fail" in run("readelf", "--dyn-syms", "-W", file)


CONSUMER = """
#include <kt/dx_client.h>
#include <kt/rest.h>
#include <kt/protocol_common.h>
#include <parson.h>
int main() {
    rest_cleanup();
    json_value_free(json_value_init_object());
    dx_client *client = nullptr;
    return mkdir_p("/") + (dx_client_open(&client) == 0 ? 1 : 0); // there is no store
}
"""


def test_a_program_can_be_built_with_the_dev_package(unpacked, tmp_path):
    root = unpacked("amd64")
    source = tmp_path / "consumer.cpp"
    source.write_text(CONSUMER)
    modules = root / "usr/lib" / TRIPLETS["amd64"] / "pkgconfig"
    flags = run(
        "pkg-config", "--cflags", "--libs", "kt-dx", "kt-rest", "kt-protocol-common", "kt-parson",
        env={**os.environ, "PKG_CONFIG_PATH": str(modules)},
    ).split()  # fmt: skip
    flags = [re.sub(r"^-([IL])/usr/(?=.*kt-can)", rf"-\1{root}/usr/", flag) for flag in flags]
    run("g++", "-std=c++20", source, "-o", tmp_path / "consumer", *flags)
    run(tmp_path / "consumer", env={"KT_ROOT": str(tmp_path)})


def emulated(unpacked) -> list[str]:
    if not shutil.which("qemu-arm-static"):
        pytest.skip("no qemu-arm-static (package qemu-user-static)")
    return ["qemu-arm-static", "-L", str(SYSROOT), str(unpacked("armhf") / "usr/bin") + "/"]


def test_the_tools_run_on_32_bit_arm(unpacked):
    *emulator, folder = emulated(unpacked)
    version = field(package_file("kt-can-proprietary", "armhf"), "Version")
    for tool in ("kt-tag", "kt-demo-device", "kt-dx-mqtt"):
        assert version in run(*emulator, folder + tool, "--version")


def overview_at(address) -> dict | None:
    """The answer of the service that wrote this file, None while it is too early to ask."""
    try:
        url = f"http://{address.read_text().strip()}/CAN-proprietary/overview"
        with urllib.request.urlopen(url, timeout=30) as answer:
            return json.load(answer)
    except OSError:
        return None


def test_the_service_runs_on_32_bit_arm(unpacked, tmp_path):
    *emulator, folder = emulated(unpacked)
    schema = "etc/default/config/kt-can-proprietary"
    shutil.copytree(unpacked("armhf") / schema, tmp_path / schema)
    address = tmp_path / "run/kt-rest/CAN-proprietary.address"
    variables = {
        "PATH": os.environ["PATH"],
        "KT_ROOT": str(tmp_path),
        "KT_REST_LISTEN": "127.0.0.1:0",
        "KT_CAN_PORTS": "can0",
    }
    service = subprocess.Popen([*emulator, folder + "kt-can-proprietary"], env=variables)
    try:
        deadline = time.monotonic() + 60
        while (overview := overview_at(address)) is None:
            assert service.poll() is None and time.monotonic() < deadline
            time.sleep(0.05)
        assert overview["data"]["portNum"] == 1
    finally:
        service.send_signal(signal.SIGTERM)
        assert service.wait(60) == 0
