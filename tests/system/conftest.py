"""Fixtures of the system tests; see tests/support/kt_system for what they offer."""

import os
import pathlib
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from kt_system import lane  # noqa: E402
from kt_system.bus import Bus, Candump  # noqa: E402
from kt_system.device import DemoDevice  # noqa: E402
from kt_system.gateway import Gateway  # noqa: E402
from kt_system.mqtt import Bridge, Broker, Client, Subscriber  # noqa: E402
from kt_system.provider import Provider  # noqa: E402
from kt_system.rest import Rest  # noqa: E402


def pytest_configure(config):
    if not lane.LANE:
        pytest.exit("run these through tests/support/lane_softcan.sh or lane_k.sh", 2)


# Hundreds of requests each, none of which a kernel or a second thread has a part in. Lane K and
# the sanitizers (KT_BUS_TESTS=1) leave them to the host lane, unless KT_ALL_TESTS=1 takes
# them along; the REST tests left are those where the bus answers too.
WITHOUT_KERNEL = {
    "config_file_durability_test",
    "config_file_export_test",
    "config_file_import_test",
    "configuration_guide_test",
    "dev_test",
    "documents_test",
    "kt_tag_test",
    "live_view_test",
    "model_configuration_test",
    "model_self_test",
    "mqtt_broker_test",
    "mqtt_guide_test",
    "mqtt_service_test",
    "mqtt_sparkplug_test",
    "mqtt_value_test",
    "mqtt_write_test",
    "programs_test",
    "rest_bad_input_test",
    "rest_clients_test",
    "rest_device_test",
    "rest_openapi_test",
    "rest_read_test",
    "rest_transaction_test",
    "tour_test",
}


def pytest_collection_modifyitems(config, items):
    reduced = lane.KERNEL or os.environ.get("KT_BUS_TESTS") == "1"
    if not reduced or os.environ.get("KT_ALL_TESTS") == "1":
        return
    left_out = [item for item in items if item.path.stem in WITHOUT_KERNEL]
    config.hook.pytest_deselected(items=left_out)
    items[:] = [item for item in items if item not in left_out]


@pytest.fixture
def gateway(tmp_path):
    """A gateway that has never started."""
    machine = Gateway(tmp_path)
    yield machine
    machine.close()


@pytest.fixture
def tags(gateway):
    return gateway.tags


@pytest.fixture
def rest(gateway):
    """A client of the gateway's REST API, before or after its start."""
    return Rest(gateway)


@pytest.fixture
def bus():
    """bus(port): a node on that port, the first by default. One socket per call."""
    nodes = []

    def make(port: str = lane.PORTS[0]) -> Bus:
        nodes.append(Bus(port))
        return nodes[-1]

    yield make
    for node in nodes:
        node.close()


@pytest.fixture
def candump():
    """candump(port, *options): candump on that port, listening."""
    running = []

    def make(port: str = lane.PORTS[0], *options: str) -> Candump:
        running.append(Candump(port, *options))
        return running[-1]

    yield make
    for process in running:
        process.stop()


@pytest.fixture
def demo_device(gateway):
    """demo_device(port, *options): the demonstration device on that port, listening."""
    running = []

    def make(port: str = lane.PORTS[0], *options: str) -> DemoDevice:
        running.append(DemoDevice(port, *options, environment=gateway.environment))
        return running[-1]

    yield make
    for process in running:
        assert process.stop() == 0, process.errors


@pytest.fixture
def provider(gateway):
    """provider(*tags): a running provider of NAME:TYPE:SIZE:MODE in the gateway's tag store."""
    running = []

    def start(*tags: str) -> Provider:
        running.append(Provider(gateway.environment, *tags))
        return running[-1]

    yield start
    for process in running:
        process.close()


@pytest.fixture
def broker(tmp_path):
    """A running MQTT broker that takes everybody."""
    server = Broker(tmp_path)
    server.start()
    yield server
    server.close()


@pytest.fixture
def mqtt(broker):
    """A client of the broker."""
    return Client(broker)


@pytest.fixture
def subscribe(mqtt):
    """subscribe(*filters): what the broker sends for them, retained messages first."""
    running = []

    def start(*filters: str) -> Subscriber:
        running.append(mqtt.subscribe(*filters))
        return running[-1]

    yield start
    for process in running:
        process.stop()


@pytest.fixture
def bridge(gateway, broker, tmp_path):
    """bridge(**settings): kt-dx-mqtt between the gateway's tag store and the broker. At the end of
    a test it must stop with status 0."""
    running = []

    def start(**settings) -> Bridge:
        where = settings.pop("broker", broker)
        running.append(Bridge(tmp_path, gateway.environment, where, **settings))
        return running[-1]

    yield start
    for process in running:
        assert process.stop() == 0, process.errors


@pytest.fixture
def softcan_fault():
    """softcan_fault("can0", "txfull", "500"): inject a fault; a kernel has none to inject."""
    if lane.KERNEL:
        pytest.skip("faults are injected by kt-softcan only")

    def inject(port: str, *fault: str) -> None:
        program = os.environ["KT_SOFTCAN_PROGRAM"]
        subprocess.run([program, "fault", "--port", port, *fault], check=True)

    yield inject
    for port in lane.PORTS:
        inject(port, "clear")


@pytest.fixture
def ip():
    """ip("-d", "link", "show", "can0"): what the ip command prints."""

    def run(*arguments: str) -> str:
        return subprocess.run(
            ["ip", *arguments], check=True, capture_output=True, text=True
        ).stdout

    return run


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """Show what the service said beside a failure."""
    report = (yield).get_result()
    machine = getattr(item, "funcargs", {}).get("gateway")
    if report.failed and machine is not None:
        report.sections.append(("service stderr", machine.stderr[-8000:]))
        report.sections.append(("service stdout", machine.stdout[-2000:]))
