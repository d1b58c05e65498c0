#!/usr/bin/python3
"""The demonstration's configuration, by way of the service's own REST API.

demonstration.py load --service PID --log FILE
                                      load it into an empty configuration, apply it and wait until
                                      the ports run it; a configuration with devices stays as it is.
                                      A log that says why there is no REST API ends that at once
demonstration.py nodes PORT_ID        options of kt-demo-device for the devices of the demonstration
                                      that the configuration has on that port, nothing without any

Server, token and certificate are those of the environment that the service was started with.
"""

import argparse
import http.client
import json
import os
import pathlib
import ssl
import sys
import time

FOLDER = pathlib.Path(__file__).resolve().parents[1] / "kt-demo-device/demo"
BASE = "/CAN-proprietary"
ADDRESS_FILE = "/run/kt-rest/CAN-proprietary.address"
POLL_S = 0.1
PATIENCE_S = 20.0
APPLY, DISCARD = {"option": 0}, {"option": 1}
EXTENDED = 1
SAID_WHY = 2  # exit status: nothing need be added


class Refused(Exception):
    """An answer that is no success, with its body."""


class NoApi(Exception):
    """The service says why it has no REST API."""


def say(text: str) -> None:
    print(f"run: {text}", flush=True)


def setting(name: str) -> str:
    return os.environ.get(name, "")


def pinned(certificate: str) -> ssl.SSLContext:
    """Trusts the service's own certificate, which need not name the address it is reached at."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_flags |= ssl.VERIFY_X509_PARTIAL_CHAIN
    context.load_verify_locations(certificate)
    return context


class Api:
    """Requests to the running service."""

    def __init__(self):
        self._headers = {"Content-Type": "application/json"}
        if setting("KT_REST_TOKEN_FILE"):
            token = pathlib.Path(setting("KT_REST_TOKEN_FILE")).read_text("ascii").rstrip("\r\n")
            self._headers["Authorization"] = f"Bearer {token}"
        certificate = setting("KT_REST_TLS_CERT")
        self._tls = pinned(certificate) if certificate else None

    def _connect(self) -> http.client.HTTPConnection:
        """Fails with OSError while the service does not listen."""
        address = pathlib.Path(setting("KT_ROOT") + ADDRESS_FILE).read_text("ascii").strip()
        if self._tls:
            return http.client.HTTPSConnection(address, timeout=PATIENCE_S, context=self._tls)
        return http.client.HTTPConnection(address, timeout=PATIENCE_S)

    def request(self, method: str, path: str, body=None):
        """The "data" of a success."""
        text = None if body is None else json.dumps(body)
        connection = self._connect()
        try:
            connection.request(method, BASE + path, text, self._headers)
            response = connection.getresponse()
            content = response.read().decode("utf-8", "replace")
        finally:
            connection.close()
        if response.status not in (200, 201):
            raise Refused(f"{method} {BASE}{path} answered {response.status}: {content}")
        return json.loads(content)["data"]


class Service:
    """The process, and what it says."""

    def __init__(self, pid: int, log: str):
        self._pid = pid
        self._log = pathlib.Path(log)

    def is_alive(self) -> bool:
        try:
            os.kill(self._pid, 0)
            state = pathlib.Path(f"/proc/{self._pid}/stat").read_text("latin-1")
        except (ProcessLookupError, FileNotFoundError):
            return False
        return state.rpartition(")")[2].split()[0] != "Z"  # ended, and not waited for yet

    def rest_refusal(self) -> str:
        """Why it has no REST API, in its own words."""
        lines = self._log.read_text("utf-8", "replace").splitlines()
        return next((line for line in lines if line.startswith("kt-rest: ")), "")


def wait_until(predicate, service: Service, what: str) -> None:
    """Poll; an answer that is no success counts as not yet, and is named when time is up."""
    deadline = time.monotonic() + PATIENCE_S
    reason = ""
    while service.is_alive() and time.monotonic() < deadline:
        try:
            if predicate():
                return
            reason = ""
        except (OSError, http.client.HTTPException, Refused) as error:
            reason = f" ({error})"
            if service.rest_refusal():
                raise NoApi(service.rest_refusal()) from error
        time.sleep(POLL_S)
    if not service.is_alive():
        raise Refused(f"the service has ended before {what}")
    raise Refused(f"not within {PATIENCE_S:g} s: {what}{reason}")


def run_transactions(api: Api, port: int) -> set[tuple[str, str]]:
    """Device and name of each transaction that the port runs; an error while it has no pass."""
    running = api.request("GET", f"/diagnose?portId={port}")["transactionList"]
    return {(item["deviceName"], item["transactionName"]) for item in running}


def transactions_of(devices: list[dict]) -> dict[int, set[tuple[str, str]]]:
    ports: dict[int, set[tuple[str, str]]] = {}
    for device in devices:
        running = ports.setdefault(device["portId"], set())
        for transaction in device["transactionList"]:
            running.add((device["deviceName"], transaction["transactionName"]))
    return ports


def demonstration() -> list[dict]:
    return [json.loads(path.read_text("utf-8")) for path in sorted(FOLDER.glob("*.json"))]


def load(api: Api, service: Service) -> None:
    wait_until(lambda: run_transactions(api, 1) is not None, service, "its REST API answers")
    overview = api.request("GET", "/overview")
    if any(port["deviceNum"] for port in overview["portList"]):
        say("the configuration has devices already, it stays as it is")
        return
    # On a gateway with one port the devices of the second stay out.
    devices = [item for item in demonstration() if item["portId"] <= overview["portNum"]]
    try:
        for device in devices:
            api.request("POST", "/device", device)
        api.request("POST", "/action", APPLY)
    except Refused:
        api.request("POST", "/action", DISCARD)  # the next start finds it empty again
        raise
    for port, wanted in transactions_of(devices).items():
        wait_until(
            lambda p=port, w=wanted: w <= run_transactions(api, p),
            service,
            f"port {port} runs the demonstration",
        )
    names = ", ".join(device["deviceName"] for device in devices)
    say(f"loaded and applied the demonstration through the REST API: {names}")


def nodes(api: Api, port: int) -> None:
    settings = api.request("GET", f"/interface?portId={port}")
    known = {item["deviceName"] for item in demonstration() if item["portId"] == port}
    found = [item["deviceName"] for item in settings["deviceList"] if item["deviceName"] in known]
    options = [word for name in found for word in ("--node", name)]
    if options and settings["frameFormat"] == EXTENDED:
        options.append("--extended")
    print(*options)


def main() -> int:
    parser = argparse.ArgumentParser(description="The demonstration's configuration.")
    commands = parser.add_subparsers(dest="command", required=True)
    command = commands.add_parser("load")
    command.add_argument("--service", type=int, required=True, help="process of the service")
    command.add_argument("--log", required=True, help="file with what it says")
    command = commands.add_parser("nodes")
    command.add_argument("port", type=int, metavar="PORT_ID")
    arguments = parser.parse_args()
    try:
        api = Api()
        if arguments.command == "load":
            load(api, Service(arguments.service, arguments.log))
        else:
            nodes(api, arguments.port)
    except NoApi as error:
        print(f"run: {error}", file=sys.stderr)
        return SAID_WHY
    except (OSError, http.client.HTTPException, Refused) as error:
        print(f"run: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
