#!/usr/bin/python3
"""What is in the packages of one architecture, and what they are linked to: SPDX 2.3 as JSON.

    sbom.py ARCHITECTURE FOLDER RECORD OUTPUT

FOLDER holds the .deb files; RECORD is the dpkg status file of the system whose libraries they were
linked to: the machine's own or a sysroot's. The same packages give the same document.
"""

import hashlib
import io
import json
import pathlib
import re
import subprocess
import sys
import tarfile

COMPILERS = {"amd64": "g++-12", "armhf": "g++-12-arm-linux-gnueabihf"}
BUILD_TOOLS = ("cmake", "ninja-build", "debhelper")
NAMESPACE = "https://kt-can-proprietary.invalid/spdx"


def output_of(*command) -> bytes:
    return subprocess.run(command, check=True, capture_output=True).stdout


def fields_of(package: pathlib.Path) -> dict[str, str]:
    text = output_of("dpkg-deb", "-f", package).decode()
    return dict(re.findall(r"^([\w-]+): (.*)$", text, re.MULTILINE))


def identifier(*parts: str) -> str:
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", "-".join(parts))


def checksums(data: bytes) -> list[dict]:
    names = ("SHA1", "SHA256")
    return [
        {"algorithm": name, "checksumValue": hashlib.new(name.lower(), data).hexdigest()}
        for name in names
    ]


def file_identifier(package: str, path: str) -> str:
    """Names that differ in a character that SPDX does not have stay apart."""
    digest = hashlib.sha1(path.encode()).hexdigest()[:12]
    return identifier("File", package, path.rpartition("/")[2], digest)


def files_of(package: pathlib.Path, name: str) -> list[dict]:
    files = []
    with tarfile.open(fileobj=io.BytesIO(output_of("dpkg-deb", "--fsys-tarfile", package))) as tar:
        for member in tar.getmembers():
            if member.isfile():
                files.append(
                    {
                        "SPDXID": file_identifier(name, member.name),
                        "fileName": member.name,
                        "checksums": checksums(tar.extractfile(member).read()),
                        "licenseConcluded": "NOASSERTION",
                        "copyrightText": "NOASSERTION",
                    }
                )
    return sorted(files, key=lambda file: file["fileName"])


def verification_code(files: list[dict]) -> str:
    """SPDX 2.3, 7.9: SHA1 over the sorted SHA1 of all files"""
    sums = sorted(file["checksums"][0]["checksumValue"] for file in files)
    return hashlib.sha1("".join(sums).encode()).hexdigest()


def described(name: str, version: str, **more) -> dict:
    return {
        "name": name,
        "SPDXID": identifier("Package", name),
        "versionInfo": version,
        "downloadLocation": "NOASSERTION",
        "licenseConcluded": "NOASSERTION",
        "licenseDeclared": "NOASSERTION",
        "copyrightText": "NOASSERTION",
        **more,
    }


def own_package(package: pathlib.Path, fields: dict, files: list[dict]) -> dict:
    return described(
        fields["Package"],
        fields["Version"],
        packageFileName=package.name,
        filesAnalyzed=True,
        packageVerificationCode={"packageVerificationCodeValue": verification_code(files)},
        checksums=checksums(package.read_bytes()),
        primaryPackagePurpose="APPLICATION",
    )


def versions_in(record: pathlib.Path) -> dict[str, str]:
    found = {}
    for stanza in record.read_text("utf-8", "replace").split("\n\n"):
        fields = dict(re.findall(r"^(Package|Version): (.*)$", stanza, re.MULTILINE))
        if len(fields) == 2:
            found[fields["Package"]] = fields["Version"]
    return found


def debian_package(name: str, version: str, architecture: str) -> dict:
    locator = f"pkg:deb/debian/{name}@{version}?arch={architecture}"
    reference = {
        "referenceCategory": "PACKAGE-MANAGER",
        "referenceType": "purl",
        "referenceLocator": locator,
    }
    return described(name, version, filesAnalyzed=False, externalRefs=[reference])


def dependencies(fields: dict) -> list[str]:
    """Names in Depends and Recommends; of alternatives the first"""
    text = ",".join(fields.get(name, "") for name in ("Depends", "Recommends"))
    names = (re.split(r"[ (|:]", part.strip())[0] for part in text.split(","))
    return sorted({name for name in names if name})


def relation(one: str, kind: str, other: str) -> dict:
    return {"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other}


class Document:
    def __init__(self, architecture: str, record: pathlib.Path):
        self.architecture = architecture
        self.libraries = versions_in(record)
        self.machine = versions_in(pathlib.Path("/var/lib/dpkg/status"))
        self.packages: dict[str, dict] = {}
        self.files: list[dict] = []
        self.relations: list[dict] = []

    def add_debian(self, name: str) -> str:
        """What was linked has its version; what is only needed to run may not be installed here."""
        if name not in self.packages:
            version = self.libraries.get(name) or self.machine.get(name) or "NOASSERTION"
            self.packages[name] = debian_package(name, version, self.architecture)
        return self.packages[name]["SPDXID"]

    def add_own(self, package: pathlib.Path, own: set[str]) -> None:
        fields = fields_of(package)
        files = files_of(package, fields["Package"])
        entry = own_package(package, fields, files)
        self.packages[fields["Package"]] = entry
        self.files += files
        this = entry["SPDXID"]
        self.relations.append(relation("SPDXRef-DOCUMENT", "DESCRIBES", this))
        self.relations += [relation(this, "CONTAINS", file["SPDXID"]) for file in files]
        for name in dependencies(fields):
            other = identifier("Package", name) if name in own else self.add_debian(name)
            self.relations.append(relation(this, "DEPENDS_ON", other))

    def add_tools(self, own: set[str]) -> None:
        for tool in (COMPILERS.get(self.architecture, "g++-12"), *BUILD_TOOLS):
            if tool in self.machine:
                self.packages[tool] = debian_package(tool, self.machine[tool], "amd64")
                for name in sorted(own):
                    one = self.packages[tool]["SPDXID"]
                    self.relations.append(
                        relation(one, "BUILD_TOOL_OF", identifier("Package", name))
                    )

    def text(self, version: str, created: str) -> str:
        content = {
            "packages": sorted(self.packages.values(), key=lambda entry: entry["name"]),
            "files": self.files,
            "relationships": self.relations,
        }
        digest = hashlib.sha256(json.dumps(content, sort_keys=True).encode()).hexdigest()
        name = f"kt-can-proprietary-{version}-{self.architecture}"
        head = {
            "spdxVersion": "SPDX-2.3",
            "dataLicense": "CC0-1.0",
            "SPDXID": "SPDXRef-DOCUMENT",
            "name": name,
            "documentNamespace": f"{NAMESPACE}/{name}-{digest[:16]}",
            "creationInfo": {"created": created, "creators": ["Tool: packaging/sbom.py"]},
        }
        return json.dumps(head | content, indent=1) + "\n"


def built_on(package: pathlib.Path) -> str:
    """The day of the packages, which is that of the last change and not of this run"""
    listing = output_of("dpkg-deb", "--fsys-tarfile", package)
    with tarfile.open(fileobj=io.BytesIO(listing)) as tar:
        newest = max(int(member.mtime) for member in tar.getmembers())
    return output_of("date", "-u", "-d", f"@{newest}", "+%Y-%m-%dT%H:%M:%SZ").decode().strip()


def main() -> None:
    architecture, folder, record, output = sys.argv[1:]
    packages = sorted(pathlib.Path(folder).glob(f"*_{architecture}.deb"))
    packages = [package for package in packages if "-dbgsym_" not in package.name]
    own = {fields_of(package)["Package"] for package in packages}
    document = Document(architecture, pathlib.Path(record))
    for package in packages:
        document.add_own(package, own)
    document.add_tools(own)
    version = fields_of(packages[0])["Version"]
    text = document.text(version, max(built_on(package) for package in packages))
    pathlib.Path(output).write_text(text, "utf-8")


if __name__ == "__main__":
    main()
