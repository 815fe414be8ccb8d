"""Helpers of the python-can tests: pairs of buses on the two channels of one virtual adapter
(the virtual CAN bus connects channels that run at the same bit rate)."""
import can

CLASSIC, FD = 0x12345678, 0x53000001
RECV_TIMEOUT = 2.0  # generous: a frame normally arrives within the poller's 10 ms


def open_pair(test, handle, **config):
    """(sender on channel 0, receiver on channel 1), shut down when the test ends."""
    sender = can.Bus(interface="varnel", channel=f"0x{handle:08X}:0", **config)
    test.addCleanup(sender.shutdown)
    receiver = can.Bus(interface="varnel", channel=f"0x{handle:08X}:1", **config)
    test.addCleanup(receiver.shutdown)
    return sender, receiver


def fields(msg):
    """Every field of a message that the bus maps, for whole-message comparisons."""
    return {
        "arbitration_id": msg.arbitration_id, "is_extended_id": msg.is_extended_id,
        "is_remote_frame": msg.is_remote_frame, "is_error_frame": msg.is_error_frame,
        "is_fd": msg.is_fd, "bitrate_switch": msg.bitrate_switch, "dlc": msg.dlc,
        "data": bytes(msg.data), "is_rx": msg.is_rx, "channel": msg.channel,
    }


def expected(msg, channel, dlc=None, data=None, is_rx=True):
    """The fields a receiver should see for `msg` sent by the other channel."""
    want = fields(msg)
    want.update(channel=channel, is_rx=is_rx)
    if dlc is not None:
        want["dlc"] = dlc
    if data is not None:
        want["data"] = data
    return want


def assert_stamped_now(test, msg, before, after):
    """The time stamp is host wall-clock seconds; the virtual adapter's clock runs with the
    host's, so a frame sent between `before` and `after` carries a stamp close to that span."""
    test.assertGreater(msg.timestamp, before - 0.5)
    test.assertLess(msg.timestamp, after + 0.5)

