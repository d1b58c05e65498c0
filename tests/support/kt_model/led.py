"""The service LED, shared by the ports."""

from .results import FAILED, TIMEOUT

LED_ON, LED_BUS_OFF, LED_BLINK = 1, 3, 4


class Led:
    """shown: platform state, count, on time, period."""

    def __init__(self):
        self.shown = (0, 0, 0, 0)
        self.remembered = -1

    def set(self, state: int) -> None:
        if state == 0:
            self._show_unless(LED_ON, (LED_ON, 0, 0, 0))
        elif state == 1:
            self._show_unless(LED_BUS_OFF, (LED_BUS_OFF, 0, 0, 0))
        elif state == 2 and self.remembered != 2:
            self.shown = (LED_BLINK, 2, 50, 1000)
        elif state == 3:
            if self.remembered in (1, 2, 3):
                return
            self._show_unless(LED_BLINK, (LED_BLINK, 1, 1000, 0))
        self.remembered = state

    def _show_unless(self, state: int, order: tuple[int, int, int, int]) -> None:
        if self.shown[0] != state:
            self.shown = order

    def update(self, bus_state: str, results: list) -> None:
        """What the results of a port ask for, unless its bus has a problem."""
        if bus_state in ("Error passive", "Bus off"):
            return
        problem = any(result.state in (FAILED, TIMEOUT) for result in results)
        target = LED_BLINK if problem else LED_ON
        if self.shown[0] != target:
            self.shown = (LED_BLINK, 1, 1000, 0) if problem else (LED_ON, 0, 0, 0)
            self.remembered = 3 if problem else 0
