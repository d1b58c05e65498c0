"""The bill of materials beside the packages."""

import hashlib
import json
import re

import pytest
from packages import ARCHITECTURES, BUILT, INSTALLED, NAMES, field, package_file, run

SHARED_LIBRARIES = {
    "kt-can-proprietary": {"libsqlite3-0", "libjansson4", "libmicrohttpd12", "libstdc++6", "libc6"},
    "kt-dx-mqtt": {"libmosquitto1", "libcurl4", "libprotobuf-c1", "libjansson4", "libc6"},
}


@pytest.fixture(params=ARCHITECTURES)
def architecture(request):
    return request.param


@pytest.fixture
def bill(architecture):
    (path,) = BUILT.glob(f"kt-can-proprietary_*_{architecture}.spdx.json")
    return json.loads(path.read_text("utf-8"))


def sha256(data: bytes) -> str:
    return hashlib.sha256(data).hexdigest()


def checksum(entry: dict, algorithm: str) -> str:
    (found,) = (x["checksumValue"] for x in entry["checksums"] if x["algorithm"] == algorithm)
    return found


def packages_of(bill: dict) -> dict[str, dict]:
    return {entry["name"]: entry for entry in bill["packages"]}


def related(bill: dict, entry: dict, kind: str) -> set[str]:
    return {
        relation["relatedSpdxElement"]
        for relation in bill["relationships"]
        if relation["spdxElementId"] == entry["SPDXID"] and relation["relationshipType"] == kind
    }


def test_it_has_what_the_format_asks_for(bill):
    assert bill["spdxVersion"] == "SPDX-2.3" and bill["dataLicense"] == "CC0-1.0"
    assert re.fullmatch(r"https://[^#\s]+", bill["documentNamespace"])
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", bill["creationInfo"]["created"])
    for entry in bill["packages"]:
        assert {"name", "SPDXID", "downloadLocation", "licenseConcluded"} <= set(entry)
    for entry in bill["files"]:
        assert entry["fileName"].startswith("./") and checksum(entry, "SHA1")


def test_every_element_has_one_name_and_every_relation_two_ends(bill):
    names = [entry["SPDXID"] for entry in bill["packages"] + bill["files"]]
    assert len(names) == len(set(names))
    assert all(re.fullmatch(r"SPDXRef-[A-Za-z0-9.-]+", name) for name in names)
    for relation in bill["relationships"]:
        assert {relation["spdxElementId"], relation["relatedSpdxElement"]} <= {
            *names,
            "SPDXRef-DOCUMENT",
        }


@pytest.mark.parametrize("name", NAMES)
def test_a_package_is_described_to_the_byte(bill, architecture, name):
    package = package_file(name, architecture)
    entry = packages_of(bill)[name]
    assert entry["versionInfo"] == field(package, "Version")
    assert entry["packageFileName"] == package.name
    assert checksum(entry, "SHA256") == sha256(package.read_bytes())
    assert entry["SPDXID"] in related(bill, {"SPDXID": "SPDXRef-DOCUMENT"}, "DESCRIBES")


@pytest.mark.parametrize("name", INSTALLED)
def test_every_file_is_listed_with_its_checksum(bill, architecture, unpacked, name):
    root = unpacked(architecture)
    listing = run("dpkg-deb", "-c", package_file(name, architecture)).splitlines()
    files = {line.split()[5] for line in listing if line.startswith("-")}
    contained = related(bill, packages_of(bill)[name], "CONTAINS")
    listed = {
        entry["fileName"]: checksum(entry, "SHA256")
        for entry in bill["files"]
        if entry["SPDXID"] in contained
    }
    assert listed == {file: sha256((root / file).read_bytes()) for file in files}


@pytest.mark.parametrize("name", SHARED_LIBRARIES)
def test_libraries_stand_with_the_version_they_were_linked_to(bill, architecture, name):
    entries = packages_of(bill)
    needed = related(bill, entries[name], "DEPENDS_ON")
    for library in SHARED_LIBRARIES[name]:
        entry = entries[library]
        assert entry["SPDXID"] in needed, library
        (reference,) = entry["externalRefs"]
        version = entry["versionInfo"]
        locator = f"pkg:deb/debian/{library}@{version}?arch={architecture}"
        assert re.match(r"\d", version) and reference["referenceLocator"] == locator


def test_the_compiler_is_named(bill, architecture):
    compiler = {"amd64": "g++-12", "armhf": "g++-12-arm-linux-gnueabihf"}[architecture]
    entries = packages_of(bill)
    built = related(bill, entries[compiler], "BUILD_TOOL_OF")
    assert built == {entries[name]["SPDXID"] for name in NAMES}
