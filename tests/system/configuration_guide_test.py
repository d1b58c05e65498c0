"""The commands of docs/configuration.md and docs/rest-api.md, and what they print there."""

import pytest

from kt_system import lane
from kt_system.documents import Terminal, run_session, session_of

LISTENS = "127.0.0.1:8080"


@pytest.fixture
def terminal(gateway, rest, tmp_path):
    """A shell on a gateway that has just been switched on for the first time."""
    gateway.start()
    rest.wait_port_threads()
    rest.wait_next_second()  # a change within the second of the start would not show
    host, port = rest.address
    shell = Terminal(tmp_path, gateway.environment, replacements={LISTENS: f"{host}:{port}"})
    yield shell
    shell.close()


@pytest.mark.parametrize("document", ["configuration.md", "rest-api.md"])
def test_every_command_prints_what_the_document_says(terminal, document):
    commands = session_of(lane.REPO / "docs" / document)
    assert commands
    run_session(terminal, commands)
