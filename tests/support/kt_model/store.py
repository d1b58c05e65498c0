"""A configuration as REST edits it. Every operation gives the result code and what is answered."""

from . import bodies, relevance
from .bodies import BAD_VALUE, MISSING, NOT_READ, NOT_SET, Refused, flag_of, number_of, text_of
from .relevance import COLUMNS

MAX_DEVICES, MAX_TRANSACTIONS = 255, 512
LONG_IDENTIFIER, UNREADABLE = -12, 1
SUCCESS = {"response": "success"}


class Store:
    """devices: trees of rows, {"row", "children"} down to blocks."""

    def __init__(self, ports: int):
        self.devices: list[dict] = []
        self.interfaces = [
            {**relevance.default_row("interface_setting"), "portId": port}
            for port in range(1, ports + 1)
        ]

    def tables(self) -> dict[str, list[dict]]:
        return relevance.tables_of(self.devices, self.interfaces)

    def transactions(self) -> list[dict]:
        return [transaction for device in self.devices for transaction in device["children"]]

    def of_port(self, port: int) -> list[dict]:
        return [device for device in self.devices if device["row"]["portId"] == port]

    def owner(self, key: int) -> tuple[dict, dict] | None:
        """A transaction and its device."""
        for device in self.devices:
            for transaction in device["children"]:
                if transaction["row"]["transactionId"] == key:
                    return device, transaction
        return None

    def last_keys(self) -> dict[str, int]:
        """The highest key of each table; a new row gets the next one."""
        tables = self.tables()
        keys = {table: COLUMNS[table][0] for table in tables if table != "interface_setting"}
        return {
            key: max((row[key] for row in tables[table]), default=0) for table, key in keys.items()
        }

    # Operations ----------------------------------------------------------------------------------

    def post_device(self, body: dict) -> tuple[int, dict | None]:
        try:
            device = bodies.device_of(body)
        except Refused as refusal:
            return refusal.code, None
        count = len(self.transactions()) + len(device["children"])
        if len(self.devices) >= MAX_DEVICES or count > MAX_TRANSACTIONS:
            return NOT_SET, None
        self.devices.append(relevance.with_keys(device, self.last_keys()))
        shown = bodies.device_json(device)
        if "transactionList" not in body:
            del shown["transactionList"]
        return 0, shown

    def patch_device(self, key: int, body: dict) -> tuple[int, dict | None]:
        """The port is not read back: it shows as 0."""
        try:
            name = text_of(body, "deviceName", 1, 64)
        except Refused as refusal:
            return refusal.code, None
        for device in self.devices:
            if device["row"]["deviceId"] == key:
                device["row"]["deviceName"] = name
                return 0, {"deviceId": key, "portId": 0, "deviceName": name}
        return NOT_SET, None

    def delete_device(self, key: int) -> tuple[int, dict | None]:
        left = [device for device in self.devices if device["row"]["deviceId"] != key]
        if len(left) == len(self.devices):
            return BAD_VALUE, None
        self.devices = left
        return 0, SUCCESS

    def post_transaction(self, body: dict) -> tuple[int, dict | None]:
        """Why a transaction cannot be read is not told."""
        try:
            owner = number_of(body, "deviceId", *bodies.WHOLE)
        except Refused as refusal:
            return refusal.code, None
        try:
            row = bodies.transaction_of(body)
        except Refused:
            return UNREADABLE, None
        device = next((d for d in self.devices if d["row"]["deviceId"] == owner), None)
        taken = device and row["transactionName"] in names_of(device)
        if device is None or taken or len(self.transactions()) >= MAX_TRANSACTIONS:
            return NOT_SET, None
        try:
            children = bodies.frames_of(body, row)
        except Refused as refusal:
            return refusal.code, None
        transaction = {"row": row, "children": children}
        device["children"].append(relevance.with_keys(transaction, self.last_keys(), 1, owner))
        return 0, bodies.transaction_json(row) | bodies.frames_json(children)

    def patch_transaction(self, key: int, body: dict) -> tuple[int, dict | None]:
        """What the body does not carry returns to its default; frames stay."""
        try:
            row = bodies.transaction_of(body)
        except Refused:
            return UNREADABLE, None
        found = self.owner(key)
        if found is None:
            return NOT_SET, None
        device, transaction = found
        if row["transactionName"] in names_of(device, besides=key):
            return NOT_SET, None
        transaction["row"] = row | {"transactionId": key, "deviceId": device["row"]["deviceId"]}
        return 0, bodies.transaction_json(row | {"transactionId": key, "deviceId": 255})

    def delete_transaction(self, key: int) -> tuple[int, dict | None]:
        found = self.owner(key)
        if found is None:
            return BAD_VALUE, None
        device, transaction = found
        device["children"].remove(transaction)
        return 0, SUCCESS

    def put_frames(self, key: int, body: dict) -> tuple[int, dict | None]:
        """New frames are of type 0, whatever the transaction's type."""
        found = self.owner(key)
        if found is None:
            return MISSING, None
        try:
            children = bodies.frames_of(body, {"transactionType": 0})
        except Refused as refusal:
            return refusal.code, None
        transaction = found[1]
        transaction["children"] = []
        keys = self.last_keys()
        transaction["children"] = [relevance.with_keys(f, keys, 2, key) for f in children]
        return 0, bodies.frames_json(children)

    def patch_interface(self, port: int, body: dict) -> tuple[int, dict | None]:
        try:
            row = {
                "frameFormat": number_of(body, "frameFormat", 0, 1),
                "baudrate": number_of(body, "baudrate", 0, 7),
                "initialDelay": number_of(body, "initialDelay", 0, 120000),
                "busOffReset": flag_of(body, "busOffReset"),
                "resistor": flag_of(body, "resistor"),
            }
        except Refused as refusal:
            return refusal.code, None
        exists = 1 <= port <= len(self.interfaces)
        if row["frameFormat"] == 0:
            if not exists:
                return NOT_READ, None
            if any(can_id > 0x7FF for can_id in identifiers_of(self.of_port(port))):
                return LONG_IDENTIFIER, None
        if not exists:
            return NOT_SET, None
        self.interfaces[port - 1] = {"portId": port, **row}
        return 0, body


def names_of(device: dict, besides: int | None = None) -> set[str]:
    rows = [transaction["row"] for transaction in device["children"]]
    return {row["transactionName"] for row in rows if row["transactionId"] != besides}


def identifiers_of(devices: list[dict]) -> list[int]:
    return [number for item in bodies.used_can_ids(devices) for number in item["canId"]]
