"""The demonstration device as a test's counterpart."""

from . import lane
from .processes import LineReader


class DemoDevice(LineReader):
    """kt-demo-device on one port; returns when it listens."""

    def __init__(self, port: str, *options: str, environment: dict[str, str] | None = None):
        super().__init__(
            [lane.program("kt-demo-device"), "--port", port, *options], environment
        )
        self.wait_line(lambda line: line.startswith("ready"))
