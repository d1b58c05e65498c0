"""Where the packages are, and what dpkg-deb says of them."""

import pathlib
import subprocess

REPO = pathlib.Path(__file__).resolve().parents[2]
BUILT = REPO / "build/package"
WORK = REPO / "build/package-test"
SYSROOT = REPO / "build/sysroot-armhf"
INSTALLED = ("kt-can-proprietary", "kt-can-proprietary-platform", "kt-dx-mqtt")
NAMES = (*INSTALLED, "kt-can-proprietary-dev")
ARCHITECTURES = ("amd64", "armhf")


def run(*command, **options) -> str:
    """What the command prints; it must succeed."""
    result = subprocess.run(
        [str(word) for word in command],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        errors="replace",
        **options,
    )
    assert result.returncode == 0, f"{command}: {result.returncode}\n{result.stdout}"
    return result.stdout


def package_file(name: str, architecture: str = "amd64") -> pathlib.Path:
    (found,) = BUILT.glob(f"{name}_*_{architecture}.deb")
    return found


def field(package: pathlib.Path, name: str) -> str:
    return run("dpkg-deb", "-f", package, name).strip()
