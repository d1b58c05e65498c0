"""Fixtures of the system tests; see tests/support/kt_system for what they offer."""

import os
import pathlib
import signal
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from kt_system import clocks, lane  # noqa: E402
from kt_system.bus import Bus, Candump  # noqa: E402
from kt_system.device import DemoDevice  # noqa: E402
from kt_system.gateway import Gateway  # noqa: E402
from kt_system.mqtt import Bridge, Broker, Client, Subscriber  # noqa: E402
from kt_system.provider import Provider  # noqa: E402
from kt_system.rest import Rest  # noqa: E402


def pytest_configure(config):
    if not lane.LANE:
        pytest.exit("run these through the lane scripts in tests/support", 2)
    # A shell that runs a lane in the background lets it ignore these, nohup the first, and so would
    # each program.
    signal.signal(signal.SIGHUP, signal.SIG_DFL)
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGQUIT, signal.SIG_DFL)


# Hundreds of requests each, none of which a kernel or a second thread has a part in. Lane K and
# the sanitizers (KT_BUS_TESTS=1) leave them to the host lane, unless KT_ALL_TESTS=1 takes
# them along; the REST tests left are those where the bus answers too.
WITHOUT_KERNEL = {
    "bench_results_test",
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
    "trend_test",
}

# The bridge's own threads: the sanitizers take these, lane K does not.
WITH_THREADS = {
    "mqtt_broker_test",
    "mqtt_service_test",
    "mqtt_sparkplug_test",
    "mqtt_value_test",
    "mqtt_write_test",
}

# The demonstration and the examples: what they make the service do, other tests do as well, so the
# sanitizers leave them out.
OF_DOCUMENTS = {"examples_test", "live_run_test"}

# What runs in lane C, where a frame crosses a wire between two interfaces.
ON_CONTROLLERS = {
    "controller_test",
    "can_bus_test",
    "fault_protection_test",
    "traffic_test",
    "transactions_test",
}

# What lane A runs by default: files, and tests by how they begin. Whatever depends on the size and
# alignment of numbers, and a little of everything else, since an emulated processor takes a second
# or two for each.
ON_ARM = (
    "arm_test",
    "bus_state_test::test_protocol_errors",
    "bus_state_test::test_the_bus_state_walks",
    "clock_wrap_test::test_a_program_sees",
    "codec_test",
    "config_file_export_test::test_a_configuration_goes_there_and_back",
    "config_file_export_test::test_what_was_made_through_the_other_endpoints",
    "config_file_import_test::test_curl_imports_a_file",
    "kt_tag_test::test_floats",
    "kt_tag_test::test_integers_are_exact",
    "kt_tag_test::test_number_in_a_wider_tag",
    "kt_tag_test::test_watch_prints_changes",
    "rest_action_test::test_an_apply_brings",
    "rest_action_test::test_a_discard_brings",
    "rest_device_test::test_a_device_with_its_tree",
    "rest_device_test::test_keys_ascend",
    "rest_read_test::test_device_shows_its_tree",
    "rest_read_test::test_diagnose_counts",
    "rest_read_test::test_overview_",
    "rest_transaction_test::test_a_device_id_is_cut",
    "rest_transaction_test::test_scaling_numbers",
    "service_test::test_a_changed_schema_migrates",
    "service_test::test_a_corrupt_database",
    "service_test::test_a_stop_signal_ends_it_with_status_0[15]",
    "service_test::test_first_start",
    "service_test::test_the_working_copy_outlives",
    "stop_test::test_sigterm_during_the_initial_delay",
    "traffic_test::test_extended",
    "traffic_test::test_frames_are_recorded",
    "transactions_test::test_a_bootup_request",
    "transactions_test::test_a_consumed_frame",
    "transactions_test::test_a_cyclic_frame",
    "transactions_test::test_a_cyclic_request",
    "transactions_test::test_a_remote_frame",
    "transactions_test::test_a_request_on_change",
    "transactions_test::test_a_silent_device",
    "transactions_test::test_a_write_sends",
    "transactions_test::test_an_unanswered_request",
    "transactions_test::test_extended_and_standard",
    "transactions_test::test_several_tags",
)

# These need what only one lane has.
ONLY_IN = {"controller_test": "controllers", "arm_test": "arm"}


def asked_for(variable: str) -> bool:
    return os.environ.get(variable) == "1"


def runs_here(file: str, test: str = "") -> bool:
    """Whether this lane takes the test, or without one, any test of the file."""
    if file in ONLY_IN:
        return ONLY_IN[file] == lane.LANE
    if asked_for("KT_ALL_TESTS"):
        return True
    if lane.CONTROLLERS:
        return file in ON_CONTROLLERS
    if lane.ARM and asked_for("KT_CHOSEN_TESTS"):
        if not test:
            return any(entry.split("::")[0] == file for entry in ON_ARM)
        return f"{file}::{test}".startswith(ON_ARM)
    if lane.KERNEL:
        return file not in WITHOUT_KERNEL
    left_out = (WITHOUT_KERNEL - WITH_THREADS) | OF_DOCUMENTS
    return not asked_for("KT_BUS_TESTS") or file not in left_out


def pytest_ignore_collect(collection_path):
    """A slow machine need not even read what it leaves out."""
    file = collection_path.stem
    return True if file.endswith("_test") and not runs_here(file) else None


def pytest_collection_modifyitems(config, items):
    left_out = [item for item in items if not runs_here(item.path.stem, item.name)]
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
    """bus(port): a node on that port's bus, the first by default. One socket per call."""
    nodes = []

    def make(port: str = lane.PORTS[0]) -> Bus:
        nodes.append(Bus(lane.far_end(port)))
        return nodes[-1]

    yield make
    for node in nodes:
        node.close()


@pytest.fixture
def candump():
    """candump(port, *options): candump on that port's bus, listening."""
    running = []

    def make(port: str = lane.PORTS[0], *options: str) -> Candump:
        running.append(Candump(lane.far_end(port), *options))
        return running[-1]

    yield make
    for process in running:
        process.stop()


@pytest.fixture
def demo_device(gateway):
    """demo_device(port, *options): the demonstration device on that port's bus."""
    running = []

    def make(port: str = lane.PORTS[0], *options: str) -> DemoDevice:
        running.append(DemoDevice(lane.far_end(port), *options, environment=gateway.environment))
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
    if clocks.WRAP_SECONDS:
        pytest.skip("kt-softcan ends its faults by the machine's clock")

    def inject(port: str, *fault: str) -> None:
        program = os.environ["KT_SOFTCAN_PROGRAM"]
        subprocess.run([program, "fault", "--port", port, *fault], check=True)

    yield inject
    for port in lane.PORTS:
        inject(port, "clear")


@pytest.fixture
def interface():
    """interface(port, present): unplug a port or plug it in again."""

    def change(port: str, present: bool) -> None:
        if lane.KERNEL:
            action = ["add", "dev", port, "type", "vcan"] if present else ["del", port]
            subprocess.run(["ip", "link", *action], check=True)
        else:
            program = os.environ["KT_SOFTCAN_PROGRAM"]
            subprocess.run([program, "port", "add" if present else "remove", port], check=True)

    return change


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
