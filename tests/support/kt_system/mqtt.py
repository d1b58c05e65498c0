"""A broker, the bridge between it and the tag store, and what a subscriber sees."""

import contextlib
import json
import pathlib
import signal
import subprocess
from typing import NamedTuple

from . import lane
from .gateway import free_port
from .lane import scaled, wait_until
from .processes import LineReader

PREFIX = "plant/gw"
STATUS = f"{PREFIX}/status"
EVENTS = f"{PREFIX}/events"
STATISTICS = f"{PREFIX}/statistics"

# The broker reads password and key files of a test's folder, which its own user may not.
BROKER_SETTINGS = """\
user root
persistence false
max_queued_messages 0
max_inflight_messages 0
set_tcp_nodelay true
"""


def tag_topic(name: str) -> str:
    return f"{PREFIX}/tags/{name}"


class Message(NamedTuple):
    topic: str
    payload: bytes
    retained: bool

    @property
    def json(self) -> dict:
        return json.loads(self.payload)


class Broker:
    """mosquitto on a loopback port, which it keeps over restarts."""

    def __init__(self, scratch: pathlib.Path, *settings: str, anonymous: bool = True):
        self.port = free_port()
        self._log = scratch / f"mosquitto-{self.port}.log"
        self._settings = scratch / f"mosquitto-{self.port}.conf"
        self._settings.write_text(
            BROKER_SETTINGS
            + f"listener {self.port} 127.0.0.1\n"
            + f"allow_anonymous {'true' if anonymous else 'false'}\n"
            + "".join(line + "\n" for line in settings)
        )
        self.process: subprocess.Popen | None = None

    @property
    def log(self) -> str:
        return self._log.read_text("utf-8", "replace") if self._log.exists() else ""

    def start(self) -> None:
        begun = self.log.count(" running\n")
        with open(self._log, "ab") as log:
            self.process = subprocess.Popen(
                ["/usr/sbin/mosquitto", "-v", "-c", str(self._settings)],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
            )
        wait_until(lambda: self.log.count(" running\n") > begun, 10.0, lambda: self.log[-2000:])

    def kill(self) -> None:
        """As a power failure ends it: what it kept for others is gone."""
        self.process.kill()
        self.process.wait()
        self.process = None

    @contextlib.contextmanager
    def frozen(self):
        """It takes nothing and answers nothing, and its connections stay."""
        self.process.send_signal(signal.SIGSTOP)
        try:
            yield
        finally:
            self.process.send_signal(signal.SIGCONT)

    def close(self) -> None:
        if self.process is not None:
            self.process.send_signal(signal.SIGCONT)
            self.kill()


class Client:
    """Runs the clients of mosquitto against one broker, with options such as those of TLS."""

    def __init__(self, broker: Broker, *options: str):
        self._options = ["-h", "127.0.0.1", "-p", str(broker.port), "-V", "mqttv5", *options]

    def publish(self, topic: str, payload: str | bytes, *options: str) -> None:
        """With QoS 1: the broker has it when this returns."""
        data = payload.encode() if isinstance(payload, str) else payload
        source = "-s" if data else "-n"
        command = ["mosquitto_pub", *self._options, "-q", "1", "-t", topic, source, *options]
        result = subprocess.run(command, input=data, capture_output=True, timeout=scaled(10))
        assert result.returncode == 0, result

    def publish_lines(self, topic: str, lines: list[str]) -> None:
        """One message for each line over one connection."""
        command = ["mosquitto_pub", *self._options, "-q", "1", "-t", topic, "-l"]
        text = "".join(line + "\n" for line in lines)
        result = subprocess.run(
            command, input=text.encode(), capture_output=True, timeout=scaled(20)
        )
        assert result.returncode == 0, result

    def subscribe(self, *topics: str) -> "Subscriber":
        return Subscriber(self._options, topics or ("#",))

    def retained(self, topic: str) -> Message | None:
        """What the broker keeps for a topic."""
        with self.subscribe(topic) as subscriber:
            return subscriber.last(topic)


class Subscriber(LineReader):
    """Messages in the order in which they came; returns when retained ones are on their way."""

    # Retained messages come right after the subscription is granted: before what is published
    # afterwards.
    def __init__(self, options: list[str], topics: tuple[str, ...]):
        marker = "kt-test/here"
        filters = [word for topic in (*topics, marker) for word in ("-t", topic)]
        form = "%r %t\t%x"
        command = ["mosquitto_sub", *options, "-q", "1", "-F", form, *filters]
        super().__init__(command)

        def granted() -> bool:
            subprocess.run(
                ["mosquitto_pub", *options, "-q", "1", "-t", marker, "-n"],
                check=True,
                capture_output=True,
                timeout=scaled(10),
            )
            return any(marker in line for line in self.lines)

        wait_until(granted, 10.0, lambda: f"the subscription: {self.errors}")

    def stop(self) -> int:
        """With SIGKILL: its handler of SIGTERM takes a lock that the program may hold."""
        self.process.kill()
        self.process.wait()
        for thread in self._threads:
            thread.join(scaled(5))
        return 0

    @property
    def messages(self) -> list[Message]:
        found = []
        for line in list(self.lines):
            head, _, digits = line.rpartition("\t")
            retained, _, topic = head.partition(" ")
            if topic != "kt-test/here":
                found.append(Message(topic, bytes.fromhex(digits), retained == "1"))
        return found

    def of(self, topic: str) -> list[Message]:
        return [message for message in self.messages if message.topic == topic]

    def last(self, topic: str) -> Message | None:
        found = self.of(topic)
        return found[-1] if found else None

    def wait(self, topic: str, accepts, timeout: float = 5.0) -> dict:
        """The JSON of the first message of a topic that a function accepts or that holds this."""
        if not callable(accepts):
            wanted = accepts

            def accepts(content):
                return wanted.items() <= content.items()

        def found():
            return next(
                (m.json for m in self.of(topic) if m.payload and accepts(m.json)), None
            )

        return wait_until(
            found, timeout, lambda: f"a message of {topic}, only {self.of(topic)[-10:]}"
        )

    def values(self, name: str) -> list[dict]:
        return [m.json for m in self.of(tag_topic(name)) if m.payload]

    def wait_value(self, name: str, accepts, timeout: float = 5.0) -> dict:
        return self.wait(tag_topic(name), accepts, timeout)

    def wait_result(self, name: str, accepts, timeout: float = 5.0) -> dict:
        return self.wait(f"{tag_topic(name)}/result", accepts, timeout)


class Bridge(LineReader):
    """kt-dx-mqtt with settings of its own."""

    def __init__(self, scratch: pathlib.Path, environment: dict, broker: Broker, **settings):
        self.settings = {
            "broker_port": broker.port,
            "prefix": PREFIX,
            "client_id": "gw",
            "reconnect_min": 0.1,
            "reconnect_max": 0.2,
            "diagnostics_period": 1,
            **settings,
        }
        file = scratch / "kt-dx-mqtt.conf"
        file.write_text("".join(f"{key} = {value}\n" for key, value in self.settings.items()))
        super().__init__([lane.program("kt-dx-mqtt"), "--config", str(file)], environment)

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()

    def wait_logged(self, text: str, timeout: float = 10.0) -> str:
        return wait_until(
            lambda: next((line for line in list(self.errors) if text in line), None),
            timeout,
            lambda: f"{text!r} in the log, only {self.errors[-10:]}",
        )

    def stop(self) -> int:
        if self.process.returncode == -signal.SIGKILL:
            return 0
        return super().stop()
