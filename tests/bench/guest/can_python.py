"""What a receiver in Python does: python3-can's loop, the four tags of a frame decoded."""

import struct
import sys

import can


def main() -> None:
    bus = can.Bus(sys.argv[1], interface="socketcan")
    decode = struct.Struct(">4h").unpack
    while True:
        message = bus.recv()
        if message is not None and message.arbitration_id == 0x100:
            values = [10.0 + 0.5 * raw for raw in decode(message.data)]
            assert len(values) == 4


main()
