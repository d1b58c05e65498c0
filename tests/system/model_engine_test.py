"""Random lives of two ports against the model: every frame on the bus in its order, every tag,
status, result, counter and event, and the LED."""

import re

from kt_model.bench import (
    EXTENDED_SECOND,
    NEVER_MS,
    SYNC,
    Bench,
    Identifiers,
    some_frame,
    stop,
)
from kt_model.led import Led
from kt_model.transactions import CONSUME
from kt_system import lane
from kt_system.cases import reproducible, seeds
from kt_system.lane import wait_until
from kt_system.rows import (
    BOOTUP,
    CYCLIC,
    ON_CHANGE,
    U32,
    Row,
    consume,
    device,
    frame,
    produce,
    request,
    tag,
    transaction,
)

def some_transaction(rng, name: str, ids: Identifiers) -> Row:
    """Of any kind whose time never comes by itself."""
    kind = rng.choice("CCCdPPPppcRRRSSro")
    if kind in "Cd":
        row = consume(name, received(rng, ids), transactionEnable=int(kind == "C"))
        if rng.random() < 0.2:
            row.children.append(some_frame(rng, ids.next(), "ro", "u"))
            row.children[1].columns["frameType"] = 1
        return row
    if kind in "Ppc":
        cyclic = {"trigger": CYCLIC, "interval": NEVER_MS}
        columns = cyclic if kind == "c" else {"trigger": ON_CHANGE}
        row = produce(name, sent(rng, ids), triggerByRTR=int(kind != "P"), **columns)
        if rng.random() < 0.2:
            row.children.append(some_frame(rng, ids.next(), "wo", "u"))
        return row
    if kind == "o":  # nothing that is known: it is received
        code = rng.choice(((3, 0), (0, 3), (2, 3), (255, 1)))
        frames = (received(rng, ids), some_frame(rng, ids.next(), "ro", "u"))
        return transaction(name, code[0], *frames, triggerMode=code[1])
    silent = kind == "S"
    response = some_frame(rng, ids.next(), rng.choice(("ro", "ro", "wo")), "u")
    if rng.random() < 0.2:
        response.columns["frameType"] = 0
    return request(
        name,
        sent(rng, ids),
        response,
        trigger=CYCLIC if kind == "r" else ON_CHANGE,
        interval=NEVER_MS,
        timeout=rng.randint(20, 60) if silent else NEVER_MS,
        retry=rng.randint(0, 2) if silent else rng.randint(0, 3),
    )


def sent(rng, ids: Identifiers) -> Row:
    return some_frame(rng, ids.next(), "wo")


def received(rng, ids: Identifiers) -> Row:
    """Some of its tags may be written, with or without the service taking notice."""
    row = some_frame(rng, ids.next(), rng.choice(("ro", "ro", "wo")))
    if rng.random() < 0.2:
        row.columns["frameType"] = 0
    return row


def some_port(rng, port: int, count: int) -> list[Row]:
    """Devices of a port; the first transaction answers the test itself."""
    ids = Identifiers(rng, port)
    number = frame(SYNC, 4, tag("number", U32, access="wo"))
    sync = produce("sync", number, trigger=ON_CHANGE, triggerByRTR=1)
    rows = [sync, *(some_transaction(rng, f"x{i}", ids) for i in range(count))]
    twins = [row for row in rows if len(row.children) == 1 and is_consumer(row)][:6]
    for first, second in zip(twins[::2], twins[1::2]):
        second.children[0].columns["canId"] = first.children[0].columns["canId"]
    per_device = count // 4 + 1
    return [
        device(f"p{port}d{i}", *rows[start : start + per_device], port=port)
        for i, start in enumerate(range(0, len(rows), per_device))
    ] + [device(f"p{port}empty", port=port)]


def is_consumer(row: Row) -> bool:
    columns = row.columns
    return columns["transactionType"] == CONSUME and columns["transactionEnable"] == 1


COUNTS = {1: 300, 2: 200}  # the first port has more transactions than diagnostic slots
ACTIONS = round(300 / lane.TIME_FACTOR)


def test_a_random_life_goes_as_the_model_says(gateway, bus):
    for seed in seeds():
        with reproducible(seed) as rng:
            stop(gateway)
            devices = [row for port in (1, 2) for row in some_port(rng, port, COUNTS[port])]
            gateway.configure(*devices, sql=EXTENDED_SECOND)
            gateway.start()
            benches = [
                Bench(rng, port, devices, gateway, bus(lane.PORTS[port - 1])) for port in (1, 2)
            ]
            for number in range(ACTIONS):
                rng.choice(benches).act()
                if number % 40 == 39:
                    for bench in benches:
                        bench.judge()
            for bench in benches:
                bench.judge_events()
            wanted = [name for bench in benches for name in bench.model.bus_events]
            found = [e["name"] for e in gateway.events() if "Transaction" not in e["name"]]
            assert sorted(found) == sorted(wanted)


# LED ---------------------------------------------------------------------------------------------

LED = re.compile(r"state (\d+) .*count (\d+) on_ms (\d+) period_ms (\d+)")
STEPS = 150


def led_of(gateway) -> tuple[int, ...]:
    found = LED.search(gateway.led())
    return tuple(map(int, found.groups())) if found else ()


def test_the_led_shows_what_the_model_shows(gateway, bus):
    """Both ports have a say in one LED, so each comes to rest before the other one moves."""
    for seed in seeds():
        with reproducible(seed) as rng:
            stop(gateway)
            devices = [row for port in (1, 2) for row in some_port(rng, port, 8)]
            gateway.configure(*devices, sql=EXTENDED_SECOND)
            gateway.start()
            led = Led()
            benches = [
                Bench(rng, port, devices, gateway, bus(lane.PORTS[port - 1]), led)
                for port in (1, 2)
            ]
            for bench in benches:
                bench.sync()  # its first success has a say as well, after its frame was seen
                bench.sync()
            for _ in range(STEPS):
                bench = rng.choice(benches)
                bench.step()
                bench.sync()
                wait_until(
                    lambda: led_of(gateway) == led.shown,
                    5,
                    lambda: f"LED {gateway.led()}, not {led.shown}, after {bench.log[-30:]}",
                )
            for bench in benches:
                bench.judge()


# Bootup ------------------------------------------------------------------------------------------

PACE = 0x7F1


def bootup_port(rng, port: int) -> list[Row]:
    """Bootup transactions of all sorts, and others that have to wait for them."""
    ids = Identifiers(rng, port)
    pace = frame(PACE, 0)
    number = frame(SYNC, 4, tag("number", U32, access="wo"))
    found = [
        produce("sync", number, trigger=ON_CHANGE, triggerByRTR=1),
        produce("pace", pace, interval=100),
        *(consume(f"c{i}", some_frame(rng, ids.next(), "ro")) for i in range(3)),
    ]
    for place in range(rng.randint(4, 10)):
        sent = some_frame(rng, ids.next(), "wo")
        if rng.random() < 0.4:
            found.append(produce(f"b{place}", sent, trigger=BOOTUP, triggerByRTR=1))
            continue
        silent = rng.random() < 0.3
        columns = {"timeout": rng.randint(20, 60) if silent else NEVER_MS}
        response = some_frame(rng, ids.next(), "ro", "u")
        columns |= {"trigger": BOOTUP, "retry": rng.randint(0, 2)}
        found.append(request(f"r{place}", sent, response, **columns))
    rest = found[1:]
    rng.shuffle(rest)
    return [device(f"p{port}d0", found[0], *rest, port=port)]


def test_bootup_goes_as_the_model_says_and_holds_everything_else_back(gateway, bus):
    for seed in seeds():
        with reproducible(seed) as rng:
            stop(gateway)
            devices = [row for port in (1, 2) for row in bootup_port(rng, port)]
            gateway.configure(*devices, sql=EXTENDED_SECOND)
            nodes = [bus(name) for name in lane.PORTS]
            benches = [Bench(rng, port, devices, gateway, nodes[port - 1]) for port in (1, 2)]
            gateway.start()
            for bench in benches:
                boot(bench)
            for bench in benches:
                bench.burst()
                bench.settle()
                judge_bootup(bench)


def boot(bench: Bench) -> None:
    """Answer every bootup request that has an answer, with other frames in between. Of the remote
    frames that come meanwhile the last one alone is answered, once bootup is over."""
    model, rng = bench.model, bench.rng
    bench.own_pace = {PACE}
    bench.settle()
    while model.waiting:
        for _ in range(rng.randint(0, 3)):
            if rng.random() < 0.5:
                bench.ask(rng.choice(list(model.answered_by)))
            else:
                can_id = rng.choice(list(model.received_by))
                bench.send(can_id, bench.data_for(model.received_by[can_id].frame))
        bench.answer(model.waiting)
        bench.settle()
    bench.sync(writes=True)


def judge_bootup(bench: Bench) -> None:
    """Results, tags, events; nothing of the bootup came twice or behind the first other frame."""
    bench.sync()
    bench.wait_for_results()
    bench.judge_values()
    bench.judge_events()
    model = bench.model
    done = [*model.lists["produce-idle"], *model.lists["request-idle"]]
    bootup = {node.frame.can_id for node in done} - set(model.answered_by)
    bench.node.expect(PACE)
    seen = [message.arbitration_id for message in bench.node.seen]
    assert not bootup & set(seen[seen.index(PACE) :]), bench.log
