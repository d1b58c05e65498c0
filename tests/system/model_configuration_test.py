"""Random configurations through REST and through files against the model: what is refused and why,
what is read back, what a file holds."""

import pytest

from kt_model import bodies, relevance
from kt_model.random_bodies import (
    between,
    device_body,
    frame_body,
    name,
    spoil,
    transaction_body,
)
from kt_model.relevance import COLUMNS
from kt_model.store import Store
from kt_system import lane, rest
from kt_system.cases import reproducible, seeds

BODIES = 200
FILES = 60


@pytest.fixture(scope="module")
def machine(tmp_path_factory):
    yield from rest.serving(tmp_path_factory.mktemp("gateway"))


@pytest.fixture
def client(machine):
    client = rest.Rest(machine)
    client.discard()
    return client


# REST --------------------------------------------------------------------------------------------


def post_device(client, body: dict, store: Store) -> None:
    """One body; the answer is the model's."""
    judge_answer(client.post("/device", body), store.post_device(body), 201, body)


def judge_answer(answer, wanted: tuple[int, dict | None], status: int, context) -> None:
    code, data = wanted
    if code != 0:
        assert answer.status >= 400, (code, context)
        assert answer.code == code, context
        return
    assert answer.status == status, (answer.body, context)
    if status != 204:
        assert_same(answer.data, data)


def assert_same(found, wanted) -> None:
    """Equal, members in the same order."""
    assert found == wanted
    assert str_of_members(found) == str_of_members(wanted)


def str_of_members(value) -> str:
    if isinstance(value, dict):
        return "{" + ",".join(f"{key}:{str_of_members(item)}" for key, item in value.items()) + "}"
    return "[" + ",".join(map(str_of_members, value)) + "]" if isinstance(value, list) else "."


def assert_same_rows(machine, wanted: dict[str, list[dict]]) -> None:
    found = all_rows(machine)
    for table, rows in wanted.items():
        assert len(found[table]) == len(rows), table
        for seen, row in zip(found[table], rows):
            assert seen == row, table


def test_devices_are_taken_or_refused_and_read_back_as_the_model_says(machine, client):
    for seed in seeds():
        with reproducible(seed) as rng:
            delete_devices(machine, client)
            store = Store(len(lane.PORTS))
            for _ in range(BODIES):
                body = device_body(rng)
                if rng.random() < 0.5:
                    body = spoil(rng, body)
                post_device(client, body, store)
            assert len(store.devices) > BODIES / 4
            assert_reads_as(machine, client, store)
            applied = client.post("/action", {"option": 0}).status == 201
            assert applied != relevance.conflicting(store.tables())


def assert_reads_as(machine, client, store: Store) -> None:
    """Rows, every read endpoint and the file."""
    assert_same_rows(machine, store.tables())
    for device in store.devices:
        key = device["row"]["deviceId"]
        found = client.get(f"/device?deviceId={key}").data
        assert_same(found, bodies.device_json(device))
    for port in (1, 2):
        found = client.get(f"/usedCANIds?portId={port}").data
        assert_same(found, bodies.used_can_ids(store.of_port(port)))
    found = client.get("/overview").data
    assert_same(found, bodies.overview(store.devices, len(lane.PORTS)))
    text = client.get("/config-file").body.decode()
    assert text == relevance.exported_file(store.tables())


EDITS = 300


def test_edits_are_taken_or_refused_as_the_model_says(machine, client):
    for seed in seeds():
        with reproducible(seed) as rng:
            delete_devices(machine, client)
            store = Store(len(lane.PORTS))
            for port, row in enumerate(store.interfaces, 1):
                body = {**row, "busOffReset": False, "resistor": False}
                assert client.patch(f"/interface/{port}", body).status == 200
            for _ in range(EDITS):
                edit_one(rng, client, store)
            assert_reads_as(machine, client, store)


def some_key(rng, rows: list[dict], column: str) -> int:
    """One that exists, now and then one that does not."""
    if not rows or rng.random() < 0.1:
        return rng.randint(200, 250)
    return rng.choice(rows)["row"][column]


def spoilt_sometimes(rng, body: dict) -> dict:
    return spoil(rng, body) if rng.random() < 0.3 else body


def interface_body(rng) -> dict:
    return {
        "frameFormat": rng.randint(0, 1),
        "baudrate": between(rng, 0, 7),
        "initialDelay": between(rng, 0, 120000),
        "busOffReset": rng.random() < 0.5,
        "resistor": rng.random() < 0.5,
    }


def edit_one(rng, client, store: Store) -> None:
    device = some_key(rng, store.devices, "deviceId")
    transaction = some_key(rng, store.transactions(), "transactionId")
    choice = rng.choice("dddDnttttTpppppffffi")
    if choice == "d":
        post_device(client, spoilt_sometimes(rng, device_body(rng)), store)
    elif choice == "D":
        judge_answer(
            client.delete(f"/device/{device}"), store.delete_device(device), 204, device
        )
    elif choice == "n":
        body = spoilt_sometimes(rng, {"deviceName": name(rng)})
        answer = client.patch(f"/device/{device}", body)
        judge_answer(answer, store.patch_device(device, body), 200, body)
    elif choice == "t":
        body = spoilt_sometimes(rng, transaction_body(rng, rng.randint(0, 3)))
        body["deviceId"] = device
        answer = client.post("/transaction", body)
        judge_answer(answer, store.post_transaction(body), 201, body)
    elif choice == "T":
        answer = client.delete(f"/transaction/{transaction}")
        judge_answer(answer, store.delete_transaction(transaction), 204, transaction)
    elif choice == "p":
        body = spoilt_sometimes(rng, transaction_body(rng, rng.randint(0, 3)))
        answer = client.patch(f"/transaction/{transaction}", body)
        judge_answer(answer, store.patch_transaction(transaction, body), 200, body)
    elif choice == "f":
        frames = [frame_body(rng) for _ in range(rng.randint(0, 3))]
        body = spoilt_sometimes(rng, {"frameList": frames})
        answer = client.put(f"/frame/{transaction}", body)
        judge_answer(answer, store.put_frames(transaction, body), 200, body)
    else:
        port, body = rng.randint(0, 3), spoilt_sometimes(rng, interface_body(rng))
        answer = client.patch(f"/interface/{port}", body)
        judge_answer(answer, store.patch_interface(port, body), 200, body)


def delete_devices(machine, client) -> None:
    for (key,) in machine.query("SELECT deviceId FROM device"):
        assert client.delete(f"/device/{key}").status == 204


# Files -------------------------------------------------------------------------------------------


def junk(rng) -> str:
    """What may stand in a column that does not count."""
    return rng.choice(("", "", "", "0", "-7", "NULL", "x'y", "a b", "99999", "1.5"))


def fields_of(rng, table: str, row: dict, fp_func: int = 0) -> list[str]:
    wanted = relevance.relevant(table, row, fp_func)
    return [str(row[c]) if c in wanted else junk(rng) for c in COLUMNS[table]]


def block_fields(rng, key: int, frame_key: int, place: int, fp_func: int) -> list[str]:
    row = {
        "blockId": key,
        "frameId": frame_key,
        "blockType": int(rng.random() < 0.3),
        "startOffset": rng.randint(0, 255),
        "tagName": f"t{place}{name(rng)}",
        "tagType": rng.choice((rng.randint(0, 13), rng.randint(0, 13), rng.randint(14, 255))),
        "tagSize": rng.randint(0, 3),
        "access": rng.choice(("ro", "wo")),
        "swap": rng.randint(0, 7),
        "fpData": rng.randbytes(rng.randint(1, 12)).hex(),
        "scalingFunc": rng.randint(0, 3),
        "constantName": f"c{place}{name(rng)}",
        "constantSize": rng.randint(0, 8),
        "constantValue": rng.randbytes(8).hex()[: rng.randint(1, 16)],
    }
    for column in relevance.INTERCEPT + relevance.POINTS:
        row[column] = rng.choice((0, 1, -2.5, 0.125, 1e6, rng.randint(-1000000, 1000000) / 64))
    return fields_of(rng, "block", row, fp_func)


def transaction_row(rng, key: int, device_key: int, place: int) -> dict:
    return {
        "transactionId": key,
        "deviceId": device_key,
        "transactionEnable": rng.choice((0, 1, 255)),
        "transactionName": f"x{place}{name(rng)}",
        "transactionType": rng.choice((0, 0, 0, 1, 1, 1, 2, 2, 2, 3)),
        "triggerMode": rng.randint(0, 3),
        "cyclicInterval": rng.randint(-5, 1 << 31 - 1),
        "fpFunc": rng.randint(0, 3),
        "fpTimeout": rng.randint(0, 65535),
        "triggerByRTR": rng.randint(0, 2),
        "consumeToutEnable": rng.randint(0, 2),
        "consumeTimeout": rng.randint(0, 65535),
        "timeoutRetry": rng.randint(0, 255),
        "responseTimeout": rng.randint(0, 100000),
    }


def random_sections(rng) -> dict[str, list[list[str]]]:
    """A file that may be imported, what does not count filled with anything."""
    found: dict[str, list[list[str]]] = {table: [] for table in COLUMNS}
    for port in range(1, len(lane.PORTS) + 1):
        found["interface_setting"].append([str(port), "0", "3", str(rng.randint(0, 9)), "1", "0"])
    keys = {table: rng.sample(range(1, 255), 200) for table in COLUMNS}
    for _ in range(rng.randint(0, 4)):
        device_key = keys["device"].pop()
        found["device"].append([str(device_key), str(rng.randint(1, 2)), name(rng)])
        for place in range(rng.randint(0, 5)):
            row = transaction_row(rng, keys["transactions"].pop(), device_key, place)
            found["transactions"].append(fields_of(rng, "transactions", row))
            add_frames(rng, found, keys, row)
    return found


def add_frames(rng, found: dict, keys: dict, transaction: dict) -> None:
    kind = transaction["transactionType"]
    wanted = relevance.relevant("transactions", transaction)
    function = transaction["fpFunc"] if "fpFunc" in wanted else 0
    for frame_type in (2, 3) if kind > 1 else (kind,):
        key = keys["frame"].pop()
        can_id = rng.choice(("", "0x", "0X")) + f"{rng.randint(0, 0x1FFFFFFF):{rng.choice('xX')}}"
        owner = str(transaction["transactionId"])
        found["frame"].append([str(key), owner, can_id, str(rng.randint(0, 8)), str(frame_type)])
        for place in range(rng.randint(0, 4)):
            found["block"].append(block_fields(rng, keys["block"].pop(), key, place, function))


def damage(rng, sections: dict[str, list[list[str]]]) -> None:
    """Change one field of one row so that it may no longer be what it has to be."""
    table = rng.choice([table for table in ("device", "transactions", "frame", "block")])
    if not sections[table]:
        return
    row = rng.choice(sections[table])
    choice = rng.random()
    if choice < 0.3:
        row[rng.randrange(len(row))] = ""
    elif choice < 0.45 and len(row) > 1:
        del row[rng.randrange(1, len(row)) :]
    elif choice < 0.55 and len(row) == len(COLUMNS[table]):
        row += ["more", "7"]
    elif choice < 0.7 and len(row) > 1:
        row[1] = str(rng.randint(1, 255))  # some other parent, or none
    elif choice < 0.8:
        row[0] = rng.choice(sections[table])[0]
    elif choice < 0.9 and table != "frame" and len(row) == len(COLUMNS[table]):
        column = COLUMNS[table].index(rng.choice(sorted(relevance.NAMES.keys() & COLUMNS[table])))
        row[column] = rng.choice(("a b", "a'b", "\u00fc", "NULL", "tag"))
    else:
        twin = list(rng.choice(sections[table]))
        twin[0] = str(rng.randint(1, 255))
        sections[table].append(twin)


def test_files_are_imported_or_refused_as_the_model_says(machine, client):
    for seed in seeds():
        with reproducible(seed) as rng:
            upload(machine, client, {**random_sections(rng)})
            for _ in range(FILES):
                sections = random_sections(rng)
                while rng.random() < 0.6:
                    damage(rng, sections)
                upload(machine, client, sections)


def all_rows(machine) -> dict[str, list[dict]]:
    return {
        table: [dict(zip(columns, row)) for row in machine.query(f"SELECT * FROM {table}")]
        for table, columns in COLUMNS.items()
    }


def upload(machine, client, sections: dict[str, list[list[str]]]) -> None:
    """A file, then what was exported of it, which need not be a file that can be imported."""
    if import_one(machine, client, sections):
        text = client.get("/config-file").body.decode()
        assert text == relevance.exported_file(all_rows(machine))
        import_one(machine, client, relevance.sections_of(text))


def import_one(machine, client, sections: dict[str, list[list[str]]]) -> bool:
    text = relevance.file_text(sections)
    before = all_rows(machine)
    try:
        wanted = relevance.imported_tables(sections)
    except relevance.ImportRefused as refusal:
        answer = client.upload(text)
        assert answer.status == 400, (refusal, text)
        assert answer.json["error"]["i18n"] == {
            "key": refusal.key,
            "variables": {"errTableName": refusal.table, "errRow": refusal.row},
        }, text
        assert all_rows(machine) == before
        return False
    answer = client.upload(text)
    assert answer.status == 201, (answer.body, text)
    assert_same_rows(machine, wanted)
    return True
