"""The live view as text: a page of styled lines for any size of terminal."""

import unicodedata
from typing import NamedTuple

from frames import Frame, Traffic
from state import STATUS_TEXT, Snapshot, Tag

BOLD, DIM, RED, GREEN, YELLOW = "1", "2", "91", "92", "93"
LATE_S = 3.0  # an answer that is older is no picture of now
FEWEST_TAGS = 6
MOST_FRAMES_BESIDE_TAGS = 3


class Piece(NamedTuple):
    text: str
    style: str = ""


Line = list[Piece]


class Column(NamedTuple):
    title: str
    right: bool  # aligned
    most: int  # widest
    dispensable: int  # the highest goes first where there is no room


COLUMNS = (
    Column("port", False, 8, 2),
    Column("device", False, 16, 0),
    Column("tag", False, 28, 0),
    Column("value", True, 18, 0),
    Column("raw bytes", False, 23, 3),
    Column("dir", False, 3, 4),
    Column("age", True, 16, 0),
)
NARROWEST_NAME = 6


def sign_width(sign: str) -> int:
    if unicodedata.combining(sign):
        return 0
    return 2 if unicodedata.east_asian_width(sign) in "WF" else 1


def text_width(text: str) -> int:
    return sum(map(sign_width, text))


def fit(text: str, width: int, right: bool = False) -> str:
    """Cut or filled to exactly that many places."""
    kept, used = "", 0
    for sign in text:
        if used + sign_width(sign) > width:
            break
        kept += sign
        used += sign_width(sign)
    gap = " " * (width - used)
    return gap + kept if right else kept + gap


def cut(line: Line, width: int) -> Line:
    pieces = []
    for piece in line:
        room = min(width, text_width(piece.text))
        if room > 0:
            pieces.append(Piece(fit(piece.text, room), piece.style))
        width -= room
    return pieces


def length_of(line: Line) -> int:
    return sum(text_width(piece.text) for piece in line)


def shell_lines(command: str, width: int) -> list[str]:
    """A command in lines that a shell takes as one when they are pasted."""
    lines = []
    while len(command) > width > 3:
        at = command.rfind(" ", 1, width - 2) + 1
        at = at if at > width // 3 else width - 2
        # A backslash goes on with the line, but not between single quotes.
        quote = "'" * (command.count("'", 0, at) % 2)
        lines.append(f"{command[:at]}{quote}\\")
        command = quote + command[at:]
    return [*lines, command]


def age_text(age_ms: int) -> str:
    if age_ms < 10_000:
        return f"{age_ms} ms"
    seconds = age_ms // 1000
    return f"{seconds} s" if seconds < 600 else f"{seconds // 60} min"


def elapsed_text(seconds: float) -> str:
    minutes = int(seconds) // 60
    return f"{minutes // 60}:{minutes % 60:02}:{int(seconds) % 60:02}"


def frame_text(text: str) -> str:
    """ "123#0102" as " 123  [2]  01 02"."""
    identifier, _, data = text.partition("#")
    if data.startswith("R"):
        return f"{identifier:>8}  [{data[1:] or 0}]  remote request"
    pairs = [data[i : i + 2] for i in range(0, len(data), 2)]
    return f"{identifier:>8}  [{len(pairs)}]  {' '.join(pairs)}"


def load_text(traffic: Traffic, bit_rate: int | None) -> str:
    if not bit_rate:
        return "load unknown (no bit rate)"
    return f"load {100 * traffic.bits_per_s / bit_rate:.1f} %"


def rate_text(bit_rate: int | None) -> str:
    return f"{bit_rate / 1000:g} kbit/s" if bit_rate else "virtual"


def port_text(port: str, traffic: Traffic, bit_rate: int | None) -> str:
    rates = f"{traffic.frames_per_s:.1f} frames/s"
    return f"{port}  {rate_text(bit_rate)}  {rates}  {load_text(traffic, bit_rate)}"


def cells_of(tag: Tag) -> list[str]:
    age = age_text(tag.age_ms)
    return [
        tag.port,
        tag.device,
        tag.name,
        tag.value,
        tag.raw,
        "in" if tag.is_input else "out",
        f"{tag.state} {age}" if tag.state else age,
    ]


def columns_for(rows: list[list[str]], width: int) -> tuple[list[tuple[int, int]], int]:
    """Which columns are shown, how wide, and how far apart."""
    shown = []
    for index, column in enumerate(COLUMNS):
        widest = max(map(text_width, [column.title, *(row[index] for row in rows)]))
        shown.append((index, min(column.most, widest)))

    def needed(gap: int) -> int:
        return sum(size for _, size in shown) + gap * (len(shown) - 1)

    for gap in (2, 1):
        if needed(gap) <= width:
            return shown, gap
    while needed(1) > width and any(COLUMNS[index].dispensable for index, _ in shown):
        most = max(shown, key=lambda entry: COLUMNS[entry[0]].dispensable)
        shown.remove(most)
    while needed(1) > width:
        at = max(range(len(shown)), key=lambda entry: shown[entry][1])
        if shown[at][1] <= NARROWEST_NAME:
            break
        shown[at] = shown[at][0], shown[at][1] - 1
    return shown, 1


def table(tags: list[Tag], width: int, room: int) -> list[Line]:
    """The heading and a line for each tag; those without room are counted."""
    rows = [cells_of(tag) for tag in tags]
    shown, gap = columns_for(rows, width)

    def line(cells) -> str:
        return (" " * gap).join(fit(cells[i], size, COLUMNS[i].right) for i, size in shown)

    lines = [[Piece(line([column.title for column in COLUMNS]), DIM)]]
    for tag, row in zip(tags, rows):
        lines.append([Piece(line(row), f"{DIM};{YELLOW}" if tag.state else "")])
    if len(lines) > max(room, 2):
        hidden = len(lines) - max(room, 2) + 1
        lines[max(room, 2) - 1 :] = [[Piece(f"... {hidden} more in a taller window", DIM)]]
    return lines


class Page(NamedTuple):
    """What does not change while the view runs."""

    ports: list[str]
    rest: str
    begin: float


def head(page: Page, snapshot: Snapshot, now: float, width: int) -> Line:
    left = [Piece("kt-can-proprietary", BOLD), Piece(f"  {page.rest}")]
    clock = elapsed_text(now - page.begin)
    late = now - snapshot.time
    if late > LATE_S:
        left = [Piece(f"no answer for {late:.0f} s, what follows is old  ", RED), *left]
    elif snapshot.problem:
        left = [Piece(f"{snapshot.problem}  ", RED), *left]
    gap = width - length_of(left) - len(clock)
    return [*left, Piece(" " * gap), Piece(clock, DIM)] if gap >= 2 else left


def devices_of(port: str, tags: list[Tag]) -> Line:
    pieces = []
    for tag in tags:
        if tag.is_status and tag.port == port:
            text = STATUS_TEXT.get(tag.value, tag.value)
            pieces += [Piece(f"  {tag.device} "), Piece(text, GREEN if text == "ok" else RED)]
    return pieces


def port_lines(page: Page, snapshot: Snapshot, traffic: dict, listens: bool) -> list[Line]:
    lines = []
    for port in page.ports:
        text = port_text(port, traffic[port], snapshot.bit_rates.get(port))
        first = Piece(text) if listens else Piece(f"{port}  candump does not run", RED)
        lines.append([first, *devices_of(port, snapshot.tags)])
    return lines


def frame_lines(frames: list[Frame], now: float) -> list[Line]:
    return [
        [Piece(f"{one.port:6} {frame_text(one.text):42} {now - one.time:6.1f} s ago")]
        for one in frames
    ]


def try_lines(commands: list[str], width: int) -> list[Line]:
    lines = [[Piece("To try in another terminal (Ctrl-C here ends everything):", DIM)]]
    for command in commands:
        lines += [[Piece(text)] for text in shell_lines(command, width)]
    return lines


def fitting_tries(commands: list[str], width: int, room: int) -> list[Line]:
    """As many whole commands as there is room for: half of one would do something else."""
    for count in range(len(commands), 0, -1):
        lines = try_lines(commands[:count], width)
        if len(lines) <= room:
            return lines
    return [[Piece("Ctrl-C ends everything", DIM)]]


def compose(page, snapshot, frames, commands, size, now) -> list[Line]:
    """At most as many lines as the terminal has, none longer than it is wide."""
    width, height = size
    tags = [tag for tag in snapshot.tags if not tag.is_status]
    top = [head(page, snapshot, now, width)]
    top += port_lines(page, snapshot, frames.traffic(), frames.listens)
    top = top[: max(1, height - FEWEST_TAGS)]
    room = height - len(top)
    bottom = fitting_tries(commands, width, room - FEWEST_TAGS - 1)
    room -= len(bottom)
    wanted = len(tags) + 1
    beside = min(MOST_FRAMES_BESIDE_TAGS + 1, max(0, room - FEWEST_TAGS - 1))
    tag_room = min(wanted, room - beside)
    middle = table(tags, width, tag_room) if tags else [[Piece("no tags yet", DIM)]]
    left = room - len(middle) - 1
    if left > 0:
        last = frame_lines(frames.last(left), now)
        middle += [[Piece("last frames", DIM)], *last]
    middle += [[]] * (room - len(middle))
    return [cut(line, width) for line in [*top, *middle, *bottom]][:height]


def rendered(lines: list[Line], colored: bool) -> str:
    """One page over the one before, without a line feed that could scroll it."""
    text = []
    for number, line in enumerate(lines, 1):
        row = "".join(
            f"\x1b[{piece.style}m{piece.text}\x1b[0m" if piece.style and colored else piece.text
            for piece in line
        )
        text.append(f"\x1b[{number};1H{row}\x1b[K")
    return "".join(text) + "\x1b[J"
