#!/usr/bin/python3
"""Power failures: a user-mode Linux with the service and an ext4 disk is killed at random moments.

    power_loss.py BIN_DIR [--count N | --all] [--seed N] [--jobs N]

The disk image outlives the machine, its page cache does not. Each boot judges what the cut before
left: a start comes up, and with a configuration that is whole; one that was answered as applied is
there, one under way may be. Then it goes on with requests, or is cut while it starts: for the
first time, with another schema, or as ever. Exit status: 0, 1 with findings, 77 when it cannot run.
"""

import argparse
import collections
import os
import pathlib
import random
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

REPO = pathlib.Path(__file__).resolve().parents[2]
EMPTY = "0:0"
IMAGE_BYTES = 16 * 1024 * 1024
WHOLE_COUNT = 500
FACTOR = float(os.environ.get("KT_TIME_FACTOR", "1"))
READY_LIMIT = 120 * FACTOR  # seconds; a start that takes longer has failed
STEPS_TIME = 0.5  # seconds of requests at most; what is to be cut takes some milliseconds each


class Machine:
    """One boot, from power to power failure."""

    def __init__(self, folder: pathlib.Path, bin_dir: pathlib.Path, settings: dict[str, object]):
        command = [
            shutil.which("linux.uml"), "mem=96M", "rootfstype=hostfs", "ro", "con=null",
            "con0=fd:0,fd:1", "quiet", "loglevel=1", f"ubd0={folder}/disk", f"uml_dir={folder}/",
            f"umid=cut-{os.getpid()}-{threading.get_ident()}", f"init={bin_dir}/power_guest",
            f"KT_SERVICE={bin_dir}/kt-can-proprietary",
            f"KT_SCHEMA={REPO}/schema/can_proprietary.sql",
            *(f"{name}={value}" for name, value in settings.items()),
        ]
        self.process = subprocess.Popen(
            command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            start_new_session=True,
            env={**os.environ, "TMPDIR": str(folder)},
        )
        self.lines: list[str] = []
        self._rest = b""

    def read(self, timeout: float) -> bool:
        """Take what its console says within the time. @return False at its end"""
        if not select.select([self.process.stdout], [], [], max(0.0, timeout))[0]:
            return True
        data = os.read(self.process.stdout.fileno(), 65536)
        *lines, self._rest = (self._rest + data).split(b"\n")
        self.lines += [line.decode("utf-8", "replace").rstrip("\r") for line in lines]
        return bool(data)

    def says(self, word: str) -> bool:
        return any(line.split(" ")[0] == word for line in self.lines)

    def wait_line(self, word: str, timeout: float) -> bool:
        deadline = time.monotonic() + timeout
        while not self.says(word) and not self.says("end"):
            if time.monotonic() > deadline or not self.read(deadline - time.monotonic()):
                break
        return self.says(word)

    def run_for(self, seconds: float) -> None:
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline and "end" not in self.lines:
            if not self.read(deadline - time.monotonic()):
                break

    def cut(self) -> None:
        os.killpg(self.process.pid, signal.SIGKILL)  # its leader is not reaped yet
        self.process.wait()
        while self.read(1.0) and not self.process.stdout.closed:
            if not select.select([self.process.stdout], [], [], 0)[0]:
                break
        self.process.stdout.close()


class Sweep:
    """A disk and the cuts that it suffers, one after the other."""

    def __init__(self, bin_dir: pathlib.Path, seed: int):
        self.bin_dir = bin_dir
        self.seed = seed
        self.random = random.Random(seed)
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kt-power-", dir=scratch_folder()))
        self.cuts = collections.Counter()
        self.found = collections.Counter()
        self.findings: list[str] = []
        self.start_times: list[float] = []
        self.longest_start = 1.0
        self.schema = 0
        self.boots = 0
        self.refused = False
        self.fresh()

    def close(self) -> None:
        shutil.rmtree(self.folder)

    def fresh(self) -> None:
        """A gateway that has never been started."""
        self.now = self.may = EMPTY
        self.counter = 0
        self.last = "first start"
        disk = self.folder / "disk"
        disk.write_bytes(b"")
        os.truncate(disk, IMAGE_BYTES)
        subprocess.run(["mkfs.ext4", "-q", "-F", disk], check=True, stdout=subprocess.DEVNULL)

    def cycle(self) -> None:
        """Choose what this boot is, boot, let it judge, cut."""
        self.boots += 1
        roll = 1.0 if self.refused else self.random.random()
        start = "start"
        if roll < 0.12:
            self.fresh()
            start = "first start"
        elif roll < 0.40:
            self.schema += 1
            start = "migration"
        cut_in_start = not self.refused and self.random.random() < (
            0.25 if start == "start" else 0.6)
        machine = Machine(self.folder, self.bin_dir, {
            "KT_NOW": self.now, "KT_MAY": self.may, "KT_COUNTER": self.counter,
            "KT_SCHEMA_NUMBER": self.schema, "KT_SEED": self.random.randrange(1 << 48),
        })
        try:
            self.live(machine, start, cut_in_start)
        finally:
            machine.cut()
        self.take(machine, start, cut_in_start)

    def live(self, machine: Machine, start: str, cut_in_start: bool) -> None:
        if not machine.wait_line("mounted", READY_LIMIT):
            return
        begin = time.monotonic()
        if cut_in_start:
            machine.run_for(self.random.uniform(0, self.longest_start))
            return
        if machine.wait_line("ready", READY_LIMIT):
            taken = time.monotonic() - begin
            self.start_times.append(taken)
            self.longest_start = 0.8 * self.longest_start + 0.2 * taken
            machine.wait_line("whole", READY_LIMIT)
            machine.run_for(self.random.uniform(0, STEPS_TIME * FACTOR))

    def take(self, machine: Machine, start: str, cut_in_start: bool) -> None:
        """What its console said before the cut is what was answered."""
        doing = start if "mounted" in machine.lines else "boot"
        ready = False
        for line in machine.lines:
            word, _, rest = line.partition(" ")
            if word == "ready":
                ready, doing = True, "first look"
            elif word == "whole":
                self.found[rest] += 1
            elif word == "now":
                self.now = self.may = rest
                doing = "between"
            elif word == "may":
                self.may, counter, doing = rest.split(" ", 2)
                self.counter = int(counter)
        self.cuts[doing] += 1
        bad = "\n".join(line for line in machine.lines if line.startswith(("finding", "log")))
        if not bad and not ready and "mounted" not in machine.lines:
            bad = "does not boot:\n" + "\n".join(machine.lines[-20:])
        if not bad and not ready and not cut_in_start:
            bad = f"not ready within {READY_LIMIT:g} s"
        if not self.refused and self.refuses_once(bad):
            self.refused = True
            self.found["refused once"] += 1
            return
        self.refused = False
        if bad:
            self.findings.append(f"seed {self.seed}, boot {self.boots} ({start}): {bad}")
            self.fresh()


    def refuses_once(self, text: str) -> bool:
        """A first start that was cut off before there were rows, then another schema: the migration
        has nothing to carry and fails; the next start begins anew."""
        return self.now == self.may == EMPTY and "the service ends" in text and "merge '" in text


def scratch_folder() -> str | None:
    return "/dev/shm" if shutil.disk_usage("/dev/shm").free > 1 << 30 else None


def unable() -> str:
    if shutil.which("linux.uml") is None:
        return "no user-mode Linux (package user-mode-linux)"
    if shutil.which("mkfs.ext4") is None:
        return "no mkfs.ext4 (package e2fsprogs)"
    if os.geteuid() != 0:
        return "root alone may make device files"
    return ""


def percentile(values: list[float], part: int) -> float:
    ordered = sorted(values) or [0.0]
    return ordered[min(len(ordered) - 1, len(ordered) * part // 100)]


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("bin_dir", type=pathlib.Path)
    parser.add_argument("--count", type=int, default=15)
    parser.add_argument("--all", action="store_true", help=f"{WHOLE_COUNT} cuts")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=1, help="machines side by side")
    options = parser.parse_args()
    if reason := unable():
        print(f"power_loss: cannot run here: {reason}")
        return 77
    count = WHOLE_COUNT if options.all else options.count
    left = threading.Semaphore(count)
    sweeps = [Sweep(options.bin_dir.resolve(), options.seed + i) for i in range(options.jobs)]

    def work(sweep: Sweep) -> None:
        while len(sweep.findings) < 5 and left.acquire(blocking=False):
            sweep.cycle()

    threads = [threading.Thread(target=work, args=(sweep,)) for sweep in sweeps]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for sweep in sweeps:
        sweep.close()
    cuts = sum((sweep.cuts for sweep in sweeps), collections.Counter())
    found = sum((sweep.found for sweep in sweeps), collections.Counter())
    starts = [1000 * seconds for sweep in sweeps for seconds in sweep.start_times]
    findings = [text for sweep in sweeps for text in sweep.findings]
    print("\n".join(findings) or "power_loss: no findings", file=sys.stderr)
    print("cut during " + ", ".join(f"{name}: {number}" for name, number in sorted(cuts.items())))
    print("found after it " + ", ".join(f"{name}: {n}" for name, n in sorted(found.items())))
    print("from mounted to ready in ms: "
          + ", ".join(f"p{part} {percentile(starts, part):.0f}" for part in (50, 95, 99)))
    print(f"power_loss: seed {options.seed}, {sum(cuts.values())} cuts, {sum(found.values())} boots"
          f" judged, {len(findings)} findings")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
