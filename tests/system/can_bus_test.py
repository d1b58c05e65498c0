"""The bus under the tests: what holds on a SocketCAN kernel must hold over kt-softcan."""

from kt_system.bus import ERROR_BUS_OFF


def test_a_frame_reaches_every_other_node_of_the_port(bus):
    sender, first, second = bus(), bus(), bus()
    sender.send(0x123, "0102030405060708")
    assert first.expect(0x123).data == bytes(range(1, 9))
    assert second.expect(0x123).dlc == 8
    sender.expect_none(0x123, 0.1)


def test_the_other_port_sees_nothing(bus):
    sender, other = bus("can0"), bus("can1")
    sender.send(0x123, "01")
    other.expect_none(seconds=0.1)


def test_extended_and_standard_identifiers_stay_apart(bus):
    sender, node = bus(), bus()
    sender.send(0x123, extended=True)
    sender.send(0x1ABCDEF0, "FF", extended=True)
    assert node.expect(0x123).is_extended_id
    assert node.expect(0x1ABCDEF0, "FF").is_extended_id


def test_a_remote_frame_carries_a_length_and_no_data(bus):
    sender, node = bus(), bus()
    sender.send_remote(0x321, dlc=5)
    received = node.expect(0x321, remote=True)
    assert (received.dlc, bytes(received.data)) == (5, b"")


def test_frames_keep_their_order(bus):
    sender, node = bus(), bus()
    for number in range(200):
        sender.send(0x100, bytes([number]))
    received = [node.expect(0x100).data[0] for _ in range(200)]
    assert received == list(range(200))


def test_an_error_frame_reaches_nodes_that_ask_for_it(bus):
    sender, node = bus(), bus()
    sender.send_error(ERROR_BUS_OFF)
    received = node.receive(2.0)
    assert received.is_error_frame and received.arbitration_id == ERROR_BUS_OFF


def test_candump_shows_data_and_remote_frames(bus, candump):
    dump = candump()
    node = bus()
    node.send(0x123, "DEADBEEF")
    node.send_remote(0x124)
    node.send(0x1ABCDEF0, "01", extended=True)
    dump.wait_frame("123#DEADBEEF")
    dump.wait_frame("124#R")
    dump.wait_frame("1ABCDEF0#01")
