#!/usr/bin/python3
"""The real service with damaged databases, over kt-softcan.

    damage_service.py BIN_DIR [--count N | --all] [--seed N] [--tools BIN_DIR]

It serves, answers with errors, starts from the schema or refuses to start, and says so; it does not
crash or hang. --tools: where damage_sweep and kt-softcan are when BIN_DIR has a sanitizer's
programs. Exit status: 0, 1 with findings, 77 when it cannot run.
"""

import argparse
import collections
import contextlib
import http.client
import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import time

REPO = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPO / "tests/support"))
os.environ.setdefault("KT_LANE", "softcan")

from kt_system.gateway import DEFAULT_DB, PERSISTENT_DB, SCHEMA, WORKING_DB, Gateway  # noqa: E402
from kt_system.lane import wait_until  # noqa: E402
from kt_system.rest import ADDRESS_FILE, Rest, device_json  # noqa: E402
from kt_system.rows import consume, device, frame, tag  # noqa: E402

WHOLE_COUNT = 200
REFUSED = 255
REQUESTS = (("GET", "/overview"), ("GET", "/device?deviceId=1"), ("GET", "/usedCANIds?portId=1"),
            ("GET", "/config-change"), ("GET", "/config-file"), ("GET", "/interface?portId=1"))


class Trial:
    """One damaged file and the service that starts with it."""

    def __init__(self, gateway: Gateway, rest: Rest, tools: pathlib.Path, one: random.Random):
        self.gateway, self.rest, self.one = gateway, rest, one
        gateway.fresh()
        gateway.configure(*(device(f"d{i}", consume("t", frame(0x100 + i, 8, tag("v"))))
                            for i in range(40)))
        self.target = one.choice((PERSISTENT_DB, PERSISTENT_DB, WORKING_DB, WORKING_DB, DEFAULT_DB))
        path = gateway.path(self.target)
        if self.target == WORKING_DB:
            path.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(gateway.path(PERSISTENT_DB), path)
        elif self.target == DEFAULT_DB:  # it is used in a migration
            with open(gateway.path(SCHEMA), "a", encoding="utf-8") as schema:
                schema.write("-- another\n")
        seed = one.randrange(1 << 30)
        self.kind = subprocess.run(
            [tools / "damage_sweep", "--file", path, "--seed", str(seed)],
            stdout=subprocess.PIPE, text=True, check=True).stdout.strip()
        gateway.path(ADDRESS_FILE).unlink(missing_ok=True)

    def run(self) -> str:
        """@return the outcome"""
        gateway = self.gateway
        gateway.start(wait=False)
        wait_until(lambda: not gateway.running() or self.listens(), 30.0, "an answer or an end")
        good = self.requests() if gateway.running() else False
        if gateway.running():
            self.wait_pass()
        if not gateway.running() or not self.listens():
            gateway.wait_exit(REFUSED, 30.0)
            return "refused"
        text = gateway.stderr[gateway._log_start :]
        # A SIGTERM may find it ending by itself.
        if gateway.stop(status=(0, REFUSED), timeout=60.0) == REFUSED:
            return "refused"
        return "rebuilt" if "is corrupt, remove db" in text else "served" if good else "errors"

    def listens(self) -> bool:
        with contextlib.suppress(OSError, http.client.HTTPException):
            return (self.gateway.path(ADDRESS_FILE).exists()
                    and self.rest.get("/config-change").status in (200, 500))
        return False

    def requests(self) -> bool:
        good = True
        requests = [(method, path, None) for method, path in REQUESTS]
        requests += [("POST", "/device", device_json("new")), ("POST", "/action", {"option": 0}),
                     ("POST", "/action", {"option": 1})]
        for method, path, body in requests:
            with contextlib.suppress(ConnectionError, http.client.HTTPException):
                answer = self.rest.request(method, path, body)
                assert answer.status in (200, 201, 400, 500), f"{path} answers {answer.status}"
                good = answer.status in (200, 201) and good
                continue
            good = False  # it may have ended in the meantime, which is judged later
        return good

    def wait_pass(self) -> None:
        """A removal or an apply makes the ports begin anew: until the databases stand, or the end.
        Ports whose rows cannot be read are tried again and again."""
        gateway = self.gateway
        wait_until(lambda: not gateway.running()
                   or (gateway.path(WORKING_DB).exists() and self.listens()),
                   60.0, lambda: "the next pass, " + gateway.stderr[gateway._log_start :][-3000:])
        deadline = time.monotonic() + 0.3  # a pass that fails ends the service
        while gateway.running() and time.monotonic() < deadline:
            time.sleep(0.02)


def inside(options) -> int:
    folder = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    scratch = pathlib.Path(tempfile.mkdtemp(prefix="kt-damage-", dir=folder))
    gateway = Gateway(scratch)
    rest = Rest(gateway)
    outcomes, kinds, findings = collections.Counter(), collections.Counter(), 0
    for number in range(options.first, options.first + options.count):
        trial = Trial(gateway, rest, options.tools, random.Random(options.seed * 100003 + number))
        try:
            outcome = trial.run()
            outcomes[outcome] += 1
            kinds[f"{trial.kind}: {outcome}"] += 1
        except Exception as error:  # an assertion of a helper is a finding, too
            findings += 1
            print(f"damage_service: file {number}, {trial.kind} of {trial.target}: {error}\n"
                  f"  again: --seed {options.seed} --first {number} --count 1", file=sys.stderr)
            if gateway.process:
                gateway.kill()
    shutil.rmtree(scratch, ignore_errors=True)
    print("\n".join(f"{name:28} {count}" for name, count in sorted(kinds.items())))
    print(f"damage_service: seed {options.seed}, {options.count} files, "
          + ", ".join(f"{count} {name}" for name, count in sorted(outcomes.items()))
          + f", {findings} findings")
    return 1 if findings else 0


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("bin_dir", type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("--tools", type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("--count", type=int, default=20)
    parser.add_argument("--first", type=int, default=0)
    parser.add_argument("--all", action="store_true", help=f"{WHOLE_COUNT} files")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    options.tools = options.tools or options.bin_dir
    if options.inside:
        return inside(options)
    if not (options.tools / "kt-softcan").exists():
        print("damage_service: cannot run here: kt-softcan is not built")
        return 77
    count = WHOLE_COUNT if options.all else options.count
    command = [options.tools / "kt-softcan", "run", "--ports", "can0,can1", "--up", "--",
               sys.executable, __file__, options.bin_dir, "--inside", "--tools", options.tools,
               "--count", str(count), "--first", str(options.first), "--seed", str(options.seed)]
    return subprocess.run(command, env={**os.environ, "KT_BIN": str(options.bin_dir)}).returncode


if __name__ == "__main__":
    sys.exit(main())
