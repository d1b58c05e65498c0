"""What happens to values when the broker, its certificates or the bridge's credentials fail."""

import pathlib
import socket
import subprocess
import threading

import pytest

from kt_system.gateway import free_port
from kt_system.lane import scaled, wait_until
from kt_system.mqtt import EVENTS, PREFIX, STATISTICS, STATUS, Broker, Client, tag_topic

SPEED = "can_proprietary/drive/state_speed"
TARGET = "can_proprietary/drive/command_target"


def little(number: int) -> str:
    return number.to_bytes(2, "little").hex().upper()


@pytest.fixture
def process(provider):
    """A provider of two tags, the one that it writes with a live value."""
    started = provider(f"{SPEED}:6:2:ro", f"{TARGET}:6:2:wo")
    started.write(SPEED, "0000")
    started.write(SPEED, "DC05")
    return started


@pytest.fixture
def other_broker(tmp_path):
    """other_broker(*settings): one more broker, which is not started yet."""
    made = []

    def make(*settings: str, anonymous: bool = True) -> Broker:
        made.append(Broker(tmp_path, *settings, anonymous=anonymous))
        return made[-1]

    yield make
    for server in made:
        server.close()


def resident_kib(bridge) -> int:
    status = pathlib.Path(f"/proc/{bridge.process.pid}/status").read_text("ascii")
    return int(status.split("VmRSS:")[1].split()[0])


def sleeps_of_follower(bridge) -> int:
    """How often the thread that follows the tag store has gone to sleep."""
    for task in pathlib.Path(f"/proc/{bridge.process.pid}/task").iterdir():
        if (task / "comm").read_text() == "mqtt-store\n":
            status = (task / "status").read_text("ascii")
            return int(status.split("\nvoluntary_ctxt_switches:")[1].split()[0])
    raise AssertionError("nobody follows the tag store")


def wait_followed(bridge) -> None:
    """Until the bridge knows what has been written, which a broker that is away cannot tell: the
    thread sleeps before every look at the store and after each that found a change."""
    before = sleeps_of_follower(bridge)
    wait_until(lambda: sleeps_of_follower(bridge) >= before + 3, 5.0, "the bridge to look")


# The broker away ----------------------------------------------------------------------------------


def test_a_broker_that_is_not_there_at_the_start_gets_what_is_current_when_it_comes(
    process, bridge, other_broker
):
    server = other_broker()
    running = bridge(broker=server)
    running.wait_logged("cannot connect: Connection refused")
    process.write(SPEED, "DD05")
    wait_followed(running)
    server.start()
    with Client(server).subscribe(f"{PREFIX}/#") as subscriber:
        assert subscriber.wait_value(SPEED, {"value": 1501})["quality"] == "good"
        subscriber.wait(STATUS, {"state": "online"})
        assert {content["value"] for content in subscriber.values(SPEED)} == {1501}
    assert len([line for line in running.errors if "cannot connect" in line]) == 1


def test_a_broker_that_lost_everything_gets_everything_again(process, bridge, broker, mqtt):
    running = bridge()
    wait_until(lambda: mqtt.retained(tag_topic(SPEED)))
    broker.kill()
    process.write(SPEED, "DE05")
    wait_followed(running)
    broker.start()
    with mqtt.subscribe(f"{PREFIX}/#") as subscriber:
        assert subscriber.wait_value(SPEED, lambda _: True)["value"] == 1502
        subscriber.wait_value(TARGET, lambda _: True)
        subscriber.wait(STATUS, {"state": "online"})
        subscriber.wait(STATISTICS, {"connects": 2, "disconnects": 1})
        mqtt.publish(f"{tag_topic(TARGET)}/set", "3")
        process.wait_taken(TARGET, "0300")


def test_a_slow_broker_gets_the_latest_value_once(process, bridge, broker, subscribe):
    running = bridge()
    subscriber = subscribe(f"{PREFIX}/#")
    subscriber.wait_value(SPEED, {"value": 1500})
    seen = len(subscriber.values(SPEED))
    with broker.frozen():
        for number in range(2000, 2500):
            process.write(SPEED, little(number))  # each is answered at once: nobody waits
            if number % 50 == 0:
                wait_followed(running)
    subscriber.wait_value(SPEED, {"value": 2499}, 10.0)
    late = [content["value"] for content in subscriber.values(SPEED)[seen:]]
    # One was on its way when the broker stopped listening, one waited.
    assert len(late) <= 3 and late[-1] == 2499, late
    subscriber.wait(STATISTICS, lambda content: content["tagsConflated"] >= 1)


def test_events_beyond_the_queue_are_dropped_and_counted(
    process, gateway, bridge, broker, subscribe
):
    events = gateway.path("/run/kt-event-agent/events.jsonl")
    events.parent.mkdir(parents=True, exist_ok=True)
    events.touch()
    bridge(event_queue=5)
    subscriber = subscribe(f"{PREFIX}/#")
    subscriber.wait(STATUS, {"state": "online"})
    with broker.frozen(), events.open("a", encoding="utf-8") as file:
        for number in range(500):
            file.write(f'{{"time":"t","name":"n","host":"h","message":"{number}"}}\n')
        file.flush()
    subscriber.wait(EVENTS, {"message": "499"}, 10.0)
    numbers = [int(m.json["message"]) for m in subscriber.of(EVENTS)]
    assert numbers == sorted(set(numbers)) and 0 < len(numbers) < 500
    subscriber.wait(STATISTICS, {"eventsDropped": 500 - len(numbers)})


def test_a_bridge_stops_also_when_its_broker_hangs(process, bridge, broker, mqtt):
    running = bridge()
    wait_until(lambda: mqtt.retained(tag_topic(SPEED)))
    with broker.frozen():
        running.process.terminate()
        assert running.wait_exit(15.0) == 0


def test_a_bridge_stops_also_while_a_broker_does_not_answer(process, bridge):
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen()
        listener.settimeout(scaled(10))
        running = bridge(broker_port=listener.getsockname()[1])
        with listener.accept()[0]:
            running.process.terminate()
            assert running.wait_exit(15.0) == 0


@pytest.mark.slow
def test_fifty_restarts_of_the_broker_under_load(provider, bridge, broker, mqtt):
    names = [f"plant/t{number}" for number in range(20)]
    process = provider(*(f"{name}:6:2:ro" for name in names))
    running = bridge()
    stop = threading.Event()
    written = dict.fromkeys(names, 0)

    def load() -> None:
        number = 0
        while not stop.is_set():
            number = number % 60000 + 1
            for name in names:
                process.write(name, little(number))
                written[name] = number

    writer = threading.Thread(target=load, daemon=True)
    writer.start()
    memory = 0
    for restart in range(50):
        with mqtt.subscribe(f"{PREFIX}/#") as subscriber:
            subscriber.wait(STATUS, {"state": "online"}, 20.0)
            before = {name: written[name] for name in names}
            for name in names:  # what comes is not older than what was current now
                subscriber.wait_value(
                    name, lambda seen, least=before[name]: seen["value"] >= least, 20.0
                )
        memory = max(memory, resident_kib(running)) if restart < 10 else memory
        broker.kill()
        broker.start()
    stop.set()
    writer.join()
    with mqtt.subscribe(f"{PREFIX}/#") as subscriber:
        for name in names:
            last = subscriber.wait_value(name, {"value": written[name]}, 20.0)
            assert last["quality"] == "good"
        counted = subscriber.wait(STATISTICS, lambda content: content["connects"] >= 51, 20.0)
    assert counted["disconnects"] >= 50 and counted["tagsWaiting"] <= len(names)
    assert resident_kib(running) < memory * 1.2 + 1024


# Credentials --------------------------------------------------------------------------------------


@pytest.fixture
def guarded(tmp_path, other_broker):
    """A broker that takes the user "gw" with the password "open sesame" and nobody else."""
    passwords = tmp_path / "passwords"
    subprocess.run(
        ["mosquitto_passwd", "-c", "-b", str(passwords), "gw", "open sesame"],
        check=True,
        capture_output=True,
    )
    server = other_broker(f"password_file {passwords}", anonymous=False)
    server.start()
    return server


def secret_file(folder: pathlib.Path, name: str, text: str) -> pathlib.Path:
    file = folder / name
    file.write_text(text + "\n")
    file.chmod(0o600)
    return file


@pytest.mark.parametrize("protocol", ["3.1.1", "5"])
def test_refused_credentials_publish_nothing_and_are_told(
    process, bridge, guarded, tmp_path, protocol
):
    user = secret_file(tmp_path, "user", "gw")
    password = secret_file(tmp_path, "password", "wrong-hunter2")
    running = bridge(
        broker=guarded, username_file=user, password_file=password, protocol=protocol
    )
    line = running.wait_logged("connection refused: ")
    assert "uthori" in line or "assword" in line, line
    with Client(guarded, "-u", "gw", "-P", "open sesame").subscribe("#") as subscriber:
        wait_until(lambda: guarded.log.count("disconnected, not authorised") >= 3, 10.0)
        assert subscriber.messages == []
    assert "hunter2" not in "\n".join(running.errors)


def test_credentials_come_from_files_and_show_nowhere(process, bridge, guarded, tmp_path):
    running = bridge(
        broker=guarded,
        username_file=secret_file(tmp_path, "user", "gw"),
        password_file=secret_file(tmp_path, "password", "open sesame"),
    )
    with Client(guarded, "-u", "gw", "-P", "open sesame").subscribe("#") as subscriber:
        assert subscriber.wait_value(SPEED, {"value": 1500})["quality"] == "good"
        assert not [m for m in subscriber.messages if b"sesame" in m.payload]
    folder = pathlib.Path(f"/proc/{running.process.pid}")
    assert b"sesame" not in (folder / "cmdline").read_bytes()
    assert b"sesame" not in (folder / "environ").read_bytes()
    assert "sesame" not in "\n".join(running.errors)


def test_a_secret_that_others_can_read_is_refused_at_the_start(bridge, broker, tmp_path):
    password = secret_file(tmp_path, "password", "open sesame")
    password.chmod(0o644)
    running = bridge(username_file=secret_file(tmp_path, "user", "gw"), password_file=password)
    assert running.wait_exit() == 1
    (line,) = running.errors
    assert f"password_file: {password} is open to others (mode 644)" in line
    running.process.returncode = 0  # this end is the one that was wanted


# TLS ----------------------------------------------------------------------------------------------


class Authority:
    """Signs certificates that hold from now on for some days, none or less of them: expired."""

    def __init__(self, folder: pathlib.Path, name: str):
        self.folder = folder
        self.name = name
        self._openssl(
            "req", "-x509", *self.KEY, "-keyout", f"{name}.key", "-out", f"{name}.pem",
            "-subj", f"/CN={name}", "-days", "2",
        )

    KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes")

    def _openssl(self, *arguments: str) -> None:
        subprocess.run(
            ["openssl", *arguments], cwd=self.folder, check=True, capture_output=True,
            timeout=scaled(20),
        )

    @property
    def certificate(self) -> pathlib.Path:
        return self.folder / f"{self.name}.pem"

    def sign(self, name: str, address: str = "IP:127.0.0.1", days: int = 2):
        """Certificate and key."""
        self._openssl(
            "req", *self.KEY, "-keyout", f"{name}.key", "-out", f"{name}.csr",
            "-subj", f"/CN={name}", "-addext", f"subjectAltName={address}",
        )
        self._openssl(
            "x509", "-req", "-in", f"{name}.csr", "-CA", f"{self.name}.pem",
            "-CAkey", f"{self.name}.key", "-CAcreateserial", "-out", f"{name}.pem",
            "-days", str(days), "-copy_extensions", "copy",
        )
        (self.folder / f"{name}.key").chmod(0o600)
        return self.folder / f"{name}.pem", self.folder / f"{name}.key"


@pytest.fixture
def authority(tmp_path):
    return Authority(tmp_path, "plant-ca")


@pytest.fixture
def tls_broker(other_broker):
    """tls_broker(certificate, key, ca): a broker with one more listener, which wants certificates
    of that authority, and the port of that listener."""

    def start(certificate, key, ca) -> tuple[Broker, int]:
        port = free_port()
        server = other_broker(
            f"listener {port} 127.0.0.1",
            f"cafile {ca}",
            f"certfile {certificate}",
            f"keyfile {key}",
            "require_certificate true",
        )
        server.start()
        return server, port

    return start


def assert_nothing_arrives(server: Broker, attempts: int = 3) -> None:
    """The bridge has tried that often, and a subscriber of the plain listener saw nothing."""
    with Client(server).subscribe("#") as subscriber:
        start = server.log.count("New connection from")
        wait_until(
            lambda: server.log.count("New connection from") >= start + attempts,
            10.0,
            lambda: server.log[-2000:],
        )
        assert subscriber.messages == []


def test_values_arrive_over_tls_with_a_client_certificate(process, bridge, authority, tls_broker):
    server, port = tls_broker(*authority.sign("broker"), authority.certificate)
    certificate, key = authority.sign("gw")
    bridge(
        broker=server, broker_port=port, tls_ca=authority.certificate, tls_cert=certificate,
        tls_key=key,
    )
    with Client(server).subscribe(f"{PREFIX}/#") as subscriber:
        assert subscriber.wait_value(SPEED, {"value": 1500})["quality"] == "good"
        Client(server).publish(f"{tag_topic(TARGET)}/set", "7")
        process.wait_taken(TARGET, "0700")


@pytest.mark.parametrize(
    "fault, reason",
    [
        ("expired", "certificate verify failed"),
        ("other authority", "certificate verify failed"),
        ("other name", "certificate verify failed"),
    ],
)
def test_a_broker_with_a_wrong_certificate_gets_nothing(
    process, bridge, authority, tls_broker, tmp_path, fault, reason
):
    signer = Authority(tmp_path, "other-ca") if fault == "other authority" else authority
    pair = signer.sign(
        "broker",
        "DNS:broker.elsewhere" if fault == "other name" else "IP:127.0.0.1",
        -1 if fault == "expired" else 2,
    )
    server, port = tls_broker(*pair, authority.certificate)
    certificate, key = authority.sign("gw")
    running = bridge(
        broker=server, broker_port=port, tls_ca=authority.certificate, tls_cert=certificate,
        tls_key=key,
    )
    running.wait_logged(reason)
    assert_nothing_arrives(server)


@pytest.mark.parametrize("fault", ["none", "expired"])
def test_a_bridge_with_a_wrong_certificate_gets_nowhere(
    process, bridge, authority, tls_broker, fault
):
    server, port = tls_broker(*authority.sign("broker"), authority.certificate)
    own = {}
    if fault == "expired":
        certificate, key = authority.sign("gw", days=-1)
        own = {"tls_cert": certificate, "tls_key": key}
    running = bridge(broker=server, broker_port=port, tls_ca=authority.certificate, **own)
    running.wait_logged("cannot connect")
    assert_nothing_arrives(server)


def test_a_name_may_be_wrong_on_this_machine_when_the_settings_say_so(
    process, bridge, authority, tls_broker
):
    server, port = tls_broker(*authority.sign("broker", "DNS:broker.plant"), authority.certificate)
    certificate, key = authority.sign("gw")
    bridge(
        broker=server, broker_port=port, tls_ca=authority.certificate, tls_cert=certificate,
        tls_key=key, tls_insecure="on",
    )
    with Client(server).subscribe(f"{PREFIX}/#") as subscriber:
        subscriber.wait_value(SPEED, {"value": 1500})


def test_a_plain_broker_behind_tls_settings_gets_nothing(
    process, bridge, authority, broker, subscribe
):
    subscriber = subscribe("#")
    running = bridge(tls_ca=authority.certificate)
    running.wait_logged("cannot connect")
    assert subscriber.messages == []
