"""Configuration rows: which columns count, their defaults, what a configuration file makes of them.

A row is a dictionary of all columns of its table, in their order.
"""

import itertools
import re

from .codec import constant_number

COLUMNS = {
    "interface_setting": (
        "portId frameFormat baudrate initialDelay busOffReset resistor".split()
    ),
    "device": "deviceId portId deviceName".split(),
    "transactions": (
        "transactionId deviceId transactionEnable transactionName transactionType triggerMode"
        " cyclicInterval fpFunc fpTimeout triggerByRTR consumeToutEnable consumeTimeout"
        " timeoutRetry responseTimeout".split()
    ),
    "frame": "frameId transactionId canId dataLength frameType".split(),
    "block": (
        "blockId frameId blockType startOffset tagName tagType tagSize access swap fpData"
        " scalingFunc interceptSlope interceptOffset pointSourceMin pointSourceMax pointTargetMin"
        " pointTargetMax constantName constantSize constantValue".split()
    ),
}

DEFAULTS = {
    "interface_setting": (-1, 0, 3, 0, 0, 0),
    "device": (-1, -1, "device"),
    "transactions": (-1, -1, 1, None, 0, 0, 1000, 0, 10000, 0, 0, 10000, 0, 1000),
    "frame": (-1, -1, 0, 0, 0),
    "block": (
        -1, -1, 0, 0, "tag", 13, 1, "ro", 0, "", 0, 1, 0, 0, 1, 0, 1, "constantName", 1, "",
    ),
}  # fmt: skip

HEADS = {
    "interface_setting": "[interface-setting]",
    "device": "[device]",
    "transactions": "[transactions]",
    "frame": "[frame]",
    "block": "[block]",
}

ALWAYS = {
    "transactions": COLUMNS["transactions"][:5],
    "block": COLUMNS["block"][:4],
}
OF_TYPE = {
    0: ("triggerMode", "fpFunc", "triggerByRTR"),
    1: ("consumeToutEnable",),
    2: ("triggerMode", "fpFunc", "timeoutRetry", "responseTimeout"),
}
INTERCEPT = ("interceptSlope", "interceptOffset")
POINTS = ("pointSourceMin", "pointSourceMax", "pointTargetMin", "pointTargetMax")
OF_SCALING = {1: INTERCEPT, 2: POINTS}


def default_row(table: str) -> dict:
    return dict(zip(COLUMNS[table], DEFAULTS[table]))


# Relevance -------------------------------------------------------------------------------------


def relevant_of_transaction(row: dict) -> set[str]:
    found = {*ALWAYS["transactions"], *OF_TYPE.get(row["transactionType"], ())}
    if "triggerMode" in found and row["triggerMode"] == 0:
        found.add("cyclicInterval")
    if "fpFunc" in found and row["fpFunc"] in (1, 2):
        found.add("fpTimeout")
    if "consumeToutEnable" in found and row["consumeToutEnable"] == 1:
        found.add("consumeTimeout")
    return found


def relevant_of_block(row: dict, fp_func: int, *, exporting: bool = False) -> set[str]:
    """fp_func: that of the transaction that owns the frame. For tag types above 13 alone the
    export thinks a scaling function relevant and the import does not."""
    found = set(ALWAYS["block"])
    if row["blockType"] == 1:
        return found | {"constantName", "constantSize", "constantValue"}
    found |= {"tagName", "tagType", "tagSize", "access", "swap"}
    if fp_func == 2:
        found.add("fpData")
    if row["tagType"] != 13 if exporting else row["tagType"] <= 12:
        found |= {"scalingFunc", *OF_SCALING.get(row["scalingFunc"], ())}
    return found


def relevant(table: str, row: dict, fp_func: int = 0, *, exporting: bool = False) -> set[str]:
    if table == "transactions":
        return relevant_of_transaction(row)
    if table == "block":
        return relevant_of_block(row, fp_func, exporting=exporting)
    return set(COLUMNS[table])


def imported(table: str, fields: dict, fp_func: int = 0) -> dict:
    """The row that a file's line becomes: what is not relevant holds its default."""
    wanted = relevant(table, fields, fp_func)
    return {**default_row(table), **{n: fields[n] for n in COLUMNS[table] if n in wanted}}


# Scaling slots ---------------------------------------------------------------------------------


def slots_of_row(row: dict) -> tuple[float, float, float, float]:
    """The four numbers that are kept of six columns: the points win over slope and offset."""
    return tuple(float(row[name]) for name in POINTS)


def columns_of_slots(slots) -> dict:
    """Six columns of four numbers."""
    a, b, c, d = (float(number) for number in slots)
    return dict(zip(INTERCEPT + POINTS, (a, b, a, b, c, d)))


# Configuration file ----------------------------------------------------------------------------


def constant_text(number: int, size: int) -> str:
    """A constant as text: upper-case hexadecimal, at least two digits for each byte."""
    return f"{number:0{2 * size}X}"


def field_text(table: str, name: str, row: dict) -> str:
    if name == "canId":
        return f"{row[name]:X}"
    if name == "constantValue":
        return constant_text(constant_number(row[name]), row["constantSize"])
    if name in INTERCEPT + POINTS:
        return f"{columns_of_slots(slots_of_row(row))[name]:f}"
    return str(row[name])


def exported(table: str, row: dict, fp_func: int = 0) -> list[str]:
    """The fields of a row: columns that are not relevant stay empty."""
    wanted = relevant(table, row, fp_func, exporting=True)
    return [field_text(table, name, row) if name in wanted else "" for name in COLUMNS[table]]


def exported_sections(tables: dict[str, list[dict]]) -> dict[str, list[list[str]]]:
    functions = {row["transactionId"]: row["fpFunc"] for row in tables["transactions"]}
    owners = {row["frameId"]: functions[row["transactionId"]] for row in tables["frame"]}
    return {
        table: [exported(table, row, owners.get(row.get("frameId"), 0)) for row in tables[table]]
        for table in COLUMNS
    }


def exported_file(tables: dict[str, list[dict]]) -> str:
    """The whole file of a configuration, its rows in the order of the tables."""
    return file_text(exported_sections(tables))


# Import ----------------------------------------------------------------------------------------

NAME = re.compile(r"[A-Za-z0-9._~-]*")
NAMES = {"deviceName": "syntax-err", "transactionName": "invalid-name", "tagName": "invalid-name"}
NAMES |= {"constantName": "invalid-name"}
REALS = set(INTERCEPT + POINTS)
TEXTS = {*NAMES, "access", "fpData", "constantValue"}
PARENTS = {
    "device": ("portId", "interface_setting"),
    "transactions": ("deviceId", "device"),
    "frame": ("transactionId", "transactions"),
    "block": ("frameId", "frame"),
}
FRAME_BYTES = 8


class ImportRefused(Exception):
    """A file is refused: error key, table, row within the section."""

    def __init__(self, key: str, table: str, row: int):
        super().__init__(key, table, row)
        self.key, self.table, self.row = key, table, row


def value_of(name: str, text: str):
    if name in TEXTS:
        return text
    if name == "canId":
        return int(text, 16)
    return float(text) if name in REALS else int(text)


def file_row(table: str, fields: list[str], fp_func: int, place: int) -> dict:
    """One line's fields as a row; its columns are judged from left to right."""
    row = default_row(table)
    seen: dict = {}
    for column, name in enumerate(COLUMNS[table]):
        if column >= len(fields):
            short = table in ("transactions", "block")
            key = "invalid-val" if short else "missing-necessary-parameter"
            raise ImportRefused(key, table, place)
        if name not in relevant(table, {**row, **seen}, fp_func):
            continue
        if fields[column] in ("", "NULL"):
            raise ImportRefused("missing-necessary-parameter", table, place)
        if name in NAMES and not NAME.fullmatch(fields[column]):
            raise ImportRefused(NAMES[name], table, place)
        seen[name] = value_of(name, fields[column])
    return {**row, **seen}


def check_keys(table: str, row: dict, tables: dict[str, list[dict]], place: int) -> None:
    key = COLUMNS[table][0]
    if any(other[key] == row[key] for other in tables[table]):
        raise ImportRefused("unique-constraint", table, place)
    if table in PARENTS:
        column, parent = PARENTS[table]
        if all(other[column] != row[column] for other in tables[parent]):
            raise ImportRefused("foreign-key-constraint-failed", table, place)


def check_siblings(table: str, row: dict, rows: list[dict], place: int) -> None:
    """What holds among the rows of one parent after each inserted row."""
    if table == "transactions":
        names = [r["transactionName"] for r in rows if r["deviceId"] == row["deviceId"]]
    elif table == "block" and row["blockType"] == 0:
        names = [r["tagName"] for r in rows if r["frameId"] == row["frameId"]]
    else:
        return
    if len(set(names)) < len(names):
        raise ImportRefused("duplicate-name", table, place)
    if table == "block":
        size = sum(r["tagSize"] for r in rows if r["frameId"] == row["frameId"])
        if size > FRAME_BYTES:
            raise ImportRefused("tagsize-exceeds-limit", table, place)


def check_frame_counts(tables: dict[str, list[dict]]) -> None:
    for place, row in enumerate(sorted_by_key("transactions", tables["transactions"]), 1):
        count = sum(f["transactionId"] == row["transactionId"] for f in tables["frame"])
        if count != (2 if row["transactionType"] > 1 else 1):
            raise ImportRefused("invalid-frame", "frame", place)


def owner_function(fields: list[str], tables: dict[str, list[dict]]) -> int:
    """fpFunc of the transaction that owns a block's frame, 0 when there is none."""
    frames = {str(row["frameId"]): row["transactionId"] for row in tables["frame"]}
    functions = {row["transactionId"]: row["fpFunc"] for row in tables["transactions"]}
    return functions.get(frames.get(fields[1]) if len(fields) > 1 else None, 0)


def sorted_by_key(table: str, rows: list[dict]) -> list[dict]:
    return sorted(rows, key=lambda row: row[COLUMNS[table][0]])


def rows_of_section(rows: list[list[str]]) -> list[list[str]]:
    """Those before the first line that is empty or has nothing but commas; it ends a section."""
    return list(itertools.takewhile(any, rows))


def imported_tables(sections: dict[str, list[list[str]]]) -> dict[str, list[dict]]:
    """The five tables that a file's sections become, rows by their keys. Raises ImportRefused."""
    tables: dict[str, list[dict]] = {table: [] for table in COLUMNS}
    for table in COLUMNS:
        for place, fields in enumerate(rows_of_section(sections[table]), 1):
            function = owner_function(fields, tables) if table == "block" else 0
            row = file_row(table, fields, function, place)
            check_keys(table, row, tables, place)
            tables[table].append(row)
            check_siblings(table, row, tables[table], place)
        if table == "frame":
            check_frame_counts(tables)
    return {table: sorted_by_key(table, rows) for table, rows in tables.items()}


def file_text(sections: dict[str, list[list[str]]]) -> str:
    text = "version: 1.0.0\n\n"
    for table, columns in COLUMNS.items():
        lines = [",".join(fields) for fields in sections[table]]
        text += "\n".join([HEADS[table], ",".join(columns), *lines, "", ""])
    return text


def sections_of(text: str) -> dict[str, list[list[str]]]:
    """The fields of an exported file."""
    parts = [part.split("\n") for part in text.split("\n\n")[1:-1]]
    tables = {head: table for table, head in HEADS.items()}
    return {tables[part[0]]: [line.split(",") for line in part[2:]] for part in parts}


# Trees ------------------------------------------------------------------------------------------

KEYS = ("deviceId", "transactionId", "frameId", "blockId")


def with_keys(node: dict, keys: dict[str, int], level: int = 0, parent: int | None = None) -> dict:
    """A tree with keys as the database hands them out: each one above the last of its table.

    keys: the last key of each table, moved on.
    """
    name = KEYS[level]
    keys[name] = key = keys.get(name, 0) + 1
    node["row"][name] = key
    if parent is not None:
        node["row"][KEYS[level - 1]] = parent
    for child in node["children"]:
        with_keys(child, keys, level + 1, key)
    return node


def tables_of(devices: list[dict], interfaces: list[dict]) -> dict[str, list[dict]]:
    """A configuration's trees as tables in the order of their keys."""
    tables = {"interface_setting": interfaces, "device": [], "transactions": [], "frame": []}
    tables["block"] = []
    level = devices
    for table in ("device", "transactions", "frame", "block"):
        tables[table] = sorted_by_key(table, [node["row"] for node in level])
        level = [child for node in level for child in node["children"]]
    return tables


def conflicting(tables: dict[str, list[dict]]) -> bool:
    """Some consumed frame shares its identifier with another consumed frame or a response."""
    received = [(row["canId"], row["frameType"]) for row in tables["frame"]]
    consumed = [can_id for can_id, kind in received if kind == 1]
    responses = {can_id for can_id, kind in received if kind == 3}
    return len(set(consumed)) < len(consumed) or bool(responses & set(consumed))
