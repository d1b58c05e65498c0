"""Group loss: whether every frame of two full buses is counted on a gateway of limited speed."""

import os
import subprocess
import time

import guest
import receive
import recording
from guest import BIN, Program, Service, rows

GROUP = "loss"
FILE_LIMIT = 384000
FULL = ("can0", 9009, 8), ("can1", 9009, 8)
CASES = (
    ("two full ports, 8 bytes", FULL),
    ("one full port, no data", (("can0", 20800, 0),)),
    ("one full port, remote frames", (("can0", 21276, "remote"),)),
)


def before_all_threads() -> None:
    """No thread of a program comes before an interrupt."""
    os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(50))


def send_paced(port: str, rate: int, what, seconds: int):
    return subprocess.Popen([BIN / "can-load", "paced", port, str(rate), "0x100", "64",
                             str(seconds), str(what)], stdout=subprocess.PIPE, text=True,
                            preexec_fn=before_all_threads)


def finish(senders) -> tuple[list[int], float]:
    """Frames sent by each, and the instructions that a frame took its sender."""
    lines = [[int(word) for word in sender.communicate()[0].split()] for sender in senders]
    sent = [line[0] for line in lines]
    return sent, sum(line[2] for line in lines) / sum(sent)


def service_of_two_ports():
    devices = [rows.device(f"d{port}", *(receive.consumer(n, 4) for n in range(64)), port=port)
               for port in (1, 2)]
    return Service(*devices)


def disturb(service: Service) -> None:
    """What clients do meanwhile, and two seconds in which the process stands still."""
    status, file = service.rest("GET", "/config-file")
    boundary = b"b0"
    body = (b"--b0\r\nContent-Disposition: form-data; name=\"file\"; filename=\"c.csv\"\r\n\r\n"
            + file + b"\r\n--b0--\r\n")
    for _ in range(2):
        service.rest("GET", "/device?deviceId=1")
        service.rest("GET", "/traffic/1")
    service.rest("POST", "/config-file", body, f"multipart/form-data; boundary={boundary.decode()}")
    service.stop()
    time.sleep(2)
    service.go_on()
    for _ in range(4):
        service.rest("GET", "/overview")
    assert status == 200


def measure_case(report, name: str, loads, speed: str, seconds: int, wanted: bool) -> None:
    """wanted: no frame may be lost at this speed."""
    with service_of_two_ports() as service:
        senders = [send_paced(port, rate, what, seconds) for port, rate, what in loads]
        time.sleep(0.5)
        disturb(service)
        sent, cost = finish(senders)
        time.sleep(5)
        counted = [service.diagnose(1 + int(port[-1]))["rxCount"] for port, _, _ in loads]
        dropped = b"lost in the receive buffer" in service.log.read_bytes()
    report.value(GROUP, f"{name}, {speed}", "service", "lost frames", f"of {sum(sent)}",
                 [sum(sent) - sum(counted)], **({"goal": {"at_most": 0}} if wanted else {}))
    report.line(group=GROUP, note=f"{name}, {speed}: sent {sent}, the sender took {cost:.0f} ns of"
                f" the gateway a frame; the socket dropped {'some' if dropped else 'none'}.")


def record_on_and_on(service: Service, sender) -> tuple[list[bytes], int]:
    """The rows of each recording, until the sender is done, and how many of the recordings fell
    behind: frames were waiting at their end. A full file ends a recording, so that the next begins
    before. The frames in between are not recorded. A client reads the log of the third, which
    stands still meanwhile and may be behind."""
    recordings = []
    behind = 0
    while sender.poll() is None:
        recording.record(service, 1)
        if len(recordings) == 2:
            time.sleep(0.05)
            service.rest("GET", "/traffic/1")
        else:
            time.sleep(0.2)
            behind += not any(service.waits() for _ in range(50))
        recording.record(service, 0)
        time.sleep(0.01)  # for the frame that is under way: else it can be the next one's first
        recordings.append(recording.CSV.read_bytes())
        if recording.JSON.stat().st_size + 200 > FILE_LIMIT:  # the larger of the two
            raise SystemExit("a recording has ended by itself")
    return recordings, behind


def counted_and_missing(rows_of_recordings: list[bytes]) -> tuple[int, int]:
    """Rows, and frames that are not there between two of them: the first byte counts the frames."""
    counted = missing = 0
    for text in rows_of_recordings:
        firsts = [int(row.rsplit(b'"', 2)[1][:2], 16) for row in text.splitlines()[1:]]
        counted += len(firsts)
        missing += sum((after - before - 1) % 256 for before, after in zip(firsts, firsts[1:]))
    return counted, missing


def measure_recorded(report, speed: str, seconds: int, wanted: bool) -> None:
    """wanted: no frame may be lost at this speed."""
    case = f"one full port, 8 bytes, recorded, {speed}"
    goal = {"goal": {"at_most": 0}} if wanted else {}
    with service_of_two_ports() as service:
        sender = send_paced("can0", 9009, 8, seconds)
        recordings, behind = record_on_and_on(service, sender)
        (sent,), cost = finish([sender])
        time.sleep(5)
        lost = sent - service.diagnose(1)["rxCount"]
    counted, missing = counted_and_missing(recordings)
    report.value(GROUP, case, "service", "lost frames", f"of {sent}", [lost], **goal)
    report.value(GROUP, case, "service", "frames not in the file", f"of {counted}", [missing],
                 **goal)
    report.value(GROUP, case, "service", "recordings that fell behind", f"of {len(recordings) - 1}",
                 [behind], **goal)
    report.line(group=GROUP, note=(
        f"{case}: a file holds some 3500 frames, so {len(recordings)} recordings followed one"
        f" another, the log of one was read, and {counted} frames of {sent} were recorded; the"
        " others came between two recordings."
        f" The sender took {cost:.0f} ns of the gateway a frame."))


def keeps_up(program: Program, rate: int) -> bool:
    """Whether the rate was held for two seconds, and no frame waits a moment after them."""
    seconds = 2
    program.settle()
    sender = send_paced("can0", rate, 8, seconds)
    _, taken_ns, _ = (int(word) for word in sender.communicate()[0].split())
    time.sleep(0.03)
    return taken_ns < 1.01e9 * seconds and program.waits()


def highest_rate(program: Program) -> int:
    low, high = 1000, 100000
    while high - low > low * 0.02:
        middle = (low + high) // 2
        if keeps_up(program, middle):
            low = middle
        else:
            high = middle
        program.settle()
    return low


def measure_rates(report, speed: str) -> None:
    case = f"one port, 8 bytes, {speed}"
    with service_of_two_ports() as service:
        report.value(GROUP, case, "service", "frames/s", "without a backlog",
                     [highest_rate(service)])
    for who, command in (("floor", (BIN / "can-floor", "receive", "can0")),
                         ("candump", ("candump", "can0"))):
        with Program(*command) as program:
            report.value(GROUP, case, who, "frames/s", "without a backlog",
                         [highest_rate(program)])


def measure(report, options) -> None:
    if options.check:
        return
    speed = f"{1000 >> options.shift} MIPS"
    report.line(group=GROUP, title="Full buses")
    report.line(group=GROUP, note=(
        "The frames of a millisecond are sent together by a program on the gateway itself, whose"
        " instructions stand for those of a controller's interrupts, and which as those do comes"
        " before every thread: a rate is one that both keep up. During the run clients read"
        " and import a configuration, and the process stands still for two seconds."))
    for name, loads in CASES:
        measure_case(report, name, loads, speed, 6, options.shift <= 1)
    measure_recorded(report, speed, 6, options.shift <= 1)
    measure_rates(report, speed)
