"""What a gateway shows of itself: REST, events, LED."""

import json
import urllib.error
import urllib.request

from .lane import scaled, wait_until


class Observer:
    """Needs path() and rest_address of the gateway that it is mixed into."""

    def rest(self, method: str, path: str, body=None) -> tuple[int, object]:
        """Status and answer of one request below the service's base path."""
        question = urllib.request.Request(
            f"http://{self.rest_address}/CAN-proprietary{path}",
            data=None if body is None else json.dumps(body).encode(),
            method=method,
        )
        try:
            with urllib.request.urlopen(question, timeout=scaled(10)) as answer:
                status, text = answer.status, answer.read()
        except urllib.error.HTTPError as error:
            status, text = error.code, error.read()
        return status, json.loads(text) if text else None

    def asked(self, method: str, path: str, body=None):
        """The data of a request that has to succeed."""
        status, answer = self.rest(method, path, body)
        assert status in (200, 201, 204), (method, path, status, answer)
        return answer and answer["data"]

    def diagnose(self, port: int) -> dict:
        """The port's diagnostics; a port that is between two passes is waited for."""

        def answered():
            status, answer = self.rest("GET", f"/diagnose?portId={port}")
            return status == 200 and answer["data"]

        return wait_until(answered, 5, f"diagnostics of port {port}")

    def failures(self, device: str, transaction: str, port: int = 1) -> int:
        """How often a transaction has failed or timed out. One without tags may be there a moment
        later than the tags of all others."""

        def found() -> list[int]:
            return [
                entry["failedCount"]
                for entry in self.diagnose(port)["transactionList"]
                if (entry["deviceName"], entry["transactionName"]) == (device, transaction)
            ]

        return wait_until(found, 5, f"transaction {device}/{transaction}")[0]

    def apply(self) -> None:
        self.asked("POST", "/action", {"option": 0})

    def record(self, port: int, on: bool) -> None:
        self.asked("POST", f"/traffic/{port}", {"option": int(on)})

    def recording(self, port: int) -> bool:
        return self.asked("GET", f"/traffic/{port}")["action"] == 1

    def events(self) -> list[dict]:
        """Every event so far, oldest first."""
        file = self.path("/run/kt-event-agent/events.jsonl")
        # The last line may be there in part.
        whole = file.read_text().rpartition("\n")[0] if file.exists() else ""
        return [json.loads(line) for line in whole.splitlines()]

    def wait_event(self, name: str, message: str, count: int = 1, timeout: float = 5.0) -> None:
        """That many events of this name and message have been raised."""

        def raised() -> bool:
            found = [e for e in self.events() if (e["name"], e["message"]) == (name, message)]
            return len(found) >= count

        wait_until(raised, timeout, lambda: f"{count} of {message!r}, only {self.events()}")

    def led(self) -> str:
        """The service LED's state file."""
        file = self.path("/run/kt-platform/led3")
        return file.read_text() if file.exists() else ""
