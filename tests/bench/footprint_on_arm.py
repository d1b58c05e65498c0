"""Memory of the service at rest, printed: run by footprint.py in lane A, as its only way in."""

import json
import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

import pytest
from kt_system import lane
from kt_system.gateway import Gateway

DEVICES, TRANSACTIONS, TAGS = 255, 512, 8192
pytestmark = pytest.mark.skipif(not lane.ARM, reason="for lane A")


def configuration(devices: int, transactions: int, tags: int) -> str:
    """Rows of consumed frames: transactions spread over the devices, tags over the frames."""
    sql = ["BEGIN;"]
    for i in range(1, devices + 1):
        sql.append(f"INSERT INTO device VALUES ({i}, {1 + i % 2}, 'device-{i}');")
    for i in range(1, transactions + 1):
        sql.append("INSERT INTO transactions (transactionId, deviceId, transactionName,"
                   f" transactionType) VALUES ({i}, {1 + i % devices}, 'exchange-{i}', 1);"
                   f"INSERT INTO frame VALUES ({i}, {i}, {i}, 8, 1);")
    for i in range(tags):
        sql.append("INSERT INTO block (frameId, startOffset, tagName, tagType, tagSize)"
                   f" VALUES ({1 + i % transactions}, {i // transactions % 8},"
                   f" 'value-{i // transactions}', 5, 1);")
    return "\n".join(sql) + "COMMIT;"


def memory(process: int) -> dict[str, int]:
    rollup = pathlib.Path(f"/proc/{process}/smaps_rollup").read_text("ascii")
    found = {name: int(value) for name, value in re.findall(r"^(\w+): +(\d+) kB", rollup, re.M)}
    text = pathlib.Path(f"/proc/{process}/status").read_text("ascii")
    status = {name: int(value) for name, value in re.findall(r"^(\w+):\s+(\d+) kB", text, re.M)}
    return {"Rss": found["Rss"], "Pss": found["Pss"], "RssAnon": status["RssAnon"],
            "RssShmem": status["RssShmem"]}


def measure(scratch: pathlib.Path, case: str, above: str, count: int, sql: str, **more) -> None:
    gateway = Gateway(scratch)
    gateway.configure(sql=sql)
    gateway.start(wait=False, **more)
    gateway.wait_ready(120)
    row = {"case": case, "above": above, "count": count, **memory(gateway.process.pid)}
    gateway.stop()
    print(f"\nmemory: {json.dumps(row)}")


def test_memory_at_rest(tmp_path):
    measure(tmp_path, "empty", "", 0, "")
    measure(tmp_path, "one port", "", 0, "DELETE FROM interface_setting WHERE portId = 2",
            environment={"KT_CAN_PORTS": "can0"})
    measure(tmp_path, "more devices", "empty", DEVICES, configuration(DEVICES, 0, 0))
    measure(tmp_path, "more transactions", "more devices", TRANSACTIONS,
            configuration(DEVICES, TRANSACTIONS, 0))
    measure(tmp_path, "more tags", "more transactions", 4096,
            configuration(DEVICES, TRANSACTIONS, 4096))
    measure(tmp_path, "largest", "", 0, configuration(DEVICES, TRANSACTIONS, TAGS))
