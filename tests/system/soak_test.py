"""The service at full load, sampled, KT_SOAK_SECONDS long with KT_SOAK_RATE frames/s on a port.

KT_SOAK_OPTIONS are further options of soak.py."""

import os
import pathlib
import subprocess
import sys

import pytest

from kt_system import lane

SECONDS = float(os.environ.get("KT_SOAK_SECONDS", "20"))
RATE = os.environ.get("KT_SOAK_RATE", "100" if lane.KERNEL else "2000")
WRITES = "50" if lane.KERNEL else "500"
RESULTS = pathlib.Path(os.environ.get("KT_RESULTS", lane.REPO / "build"))


@pytest.mark.slow
def test_nothing_grows_and_nothing_is_lost(capsys):
    out = RESULTS / f"soak-{lane.LANE}"
    samples = max(40.0, SECONDS / 20)
    result = subprocess.run(
        [sys.executable, lane.REPO / "tests/support/soak.py", "--seconds", str(SECONDS),
         "--sample", str(SECONDS / min(samples, 720)), "--rate", RATE,
         "--writes", WRITES, "--out", out,
         *os.environ.get("KT_SOAK_OPTIONS", "").split()],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
    )
    with capsys.disabled():
        print(f"\n{result.stdout}")
    assert result.returncode == 0, result.stdout
