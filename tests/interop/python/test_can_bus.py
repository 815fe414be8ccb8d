"""python-can as a client of the classic CAN adapter: can.Bus(interface="varnel")."""
import contextlib
import ctypes
import time
import unittest

import can
import varnel

from buses import CLASSIC, FD, RECV_TIMEOUT, assert_stamped_now, expected, fields, open_pair

# linux/can/error.h
CAN_ERR_CRTL = 0x00000004
CAN_ERR_CNT = 0x00000200
CAN_ERR_CRTL_TX_WARNING = 0x08
CAN_ERR_CRTL_TX_PASSIVE = 0x20


class ClassicFrames(unittest.TestCase):
    def setUp(self):
        self.sender, self.receiver = open_pair(self, CLASSIC, bitrate=500000)

    def test_every_field_arrives_on_the_other_channel(self):
        cases = [
            can.Message(arbitration_id=0x123, data=[1, 2, 3], is_extended_id=False),
            can.Message(arbitration_id=0x000, data=[], is_extended_id=False),
            can.Message(arbitration_id=0x7FF, data=range(0xF8, 0x100), is_extended_id=False),
            can.Message(arbitration_id=0x1FFFFFFF, data=[0xAA] * 8, is_extended_id=True),
            can.Message(arbitration_id=0x00000001, data=[0x55], is_extended_id=True),
            can.Message(arbitration_id=0x456, dlc=5, is_remote_frame=True, is_extended_id=False),
            can.Message(arbitration_id=0x1234567, dlc=0, is_remote_frame=True),
            can.Message(arbitration_id=0x18DAF110, dlc=8, is_remote_frame=True),
        ]
        for msg in cases:
            with self.subTest(msg=str(msg)):
                before = time.time()
                self.sender.send(msg)
                got = self.receiver.recv(RECV_TIMEOUT)
                self.assertIsNotNone(got)
                self.assertEqual(fields(got), expected(msg, "0x12345678:1"))
                assert_stamped_now(self, got, before, time.time())

    def test_time_stamps_count_host_seconds(self):
        # 10 us device units read as seconds: a gap of 0.3 s stays 0.3 s (not 0.03 or 3)
        first = can.Message(arbitration_id=0x10, data=[1], is_extended_id=False)
        second = can.Message(arbitration_id=0x11, data=[2], is_extended_id=False)
        self.sender.send(first)
        time.sleep(0.3)
        self.sender.send(second)
        a, b = self.receiver.recv(RECV_TIMEOUT), self.receiver.recv(RECV_TIMEOUT)
        self.assertGreater(b.timestamp - a.timestamp, 0.25)
        self.assertLess(b.timestamp - a.timestamp, 0.6)

    def test_recv_times_out_with_none(self):
        start = time.monotonic()
        self.assertIsNone(self.receiver.recv(0.1))
        self.assertGreaterEqual(time.monotonic() - start, 0.1)
        self.assertIsNone(self.receiver.recv(0))

    def test_notifier_feeds_a_buffered_reader_in_order_and_classic_sends_give_no_echo(self):
        reader = can.BufferedReader()
        notifier = can.Notifier(self.receiver, [reader], timeout=0.05)
        self.addCleanup(notifier.stop)
        sent = [can.Message(arbitration_id=0x300 + i, data=[i, i], is_extended_id=bool(i % 2))
                for i in range(20)]
        for msg in sent:
            self.sender.send(msg)
        got = [reader.get_message(RECV_TIMEOUT) for _ in sent]
        self.assertNotIn(None, got)
        self.assertEqual([fields(m) for m in got], [expected(m, "0x12345678:1") for m in sent])
        self.assertIsNone(self.sender.recv(0.05))

    def test_unsendable_messages_raise_with_the_argument_code(self):
        cases = [
            can.Message(arbitration_id=0x800, is_extended_id=False),  # needs 29 bits
            can.Message(arbitration_id=0x20000000, is_extended_id=True),
            can.Message(arbitration_id=0x1, data=range(12), is_fd=True),  # no FD controller
            can.Message(arbitration_id=0x1, dlc=9, is_remote_frame=True, is_extended_id=False),
            can.Message(arbitration_id=0x1, is_error_frame=True),
        ]
        for msg in cases:
            with self.subTest(msg=str(msg)), self.assertRaises(can.CanOperationError) as caught:
                self.sender.send(msg)
            self.assertEqual(caught.exception.error_code, -7)
        self.assertIsNone(self.receiver.recv(0.05))  # nothing went out

    def test_send_after_shutdown_reports_the_channel_not_initialised(self):
        self.sender.shutdown()
        with self.assertRaises(can.CanOperationError) as caught:
            self.sender.send(can.Message(arbitration_id=1, is_extended_id=False))
        self.assertEqual(caught.exception.error_code, -5)


class BusErrors(unittest.TestCase):
    def open(self, channel, **config):
        bus = can.Bus(interface="varnel", channel=channel, **config)
        bus.shutdown()

    def test_bad_configurations_raise_initialization_errors_with_codes(self):
        cases = [
            ("0x0BADBEEF:0", {}, -1),  # no such adapter
            ("0x12345678:2", {}, -7),
            ("0x12345678", {}, -7),
            ("12345678:0:1", {}, -7),
            ("adapter:0", {}, -7),
            ("0x1FFFFFFFF:0", {}, -7),
            ("0x12345678:-1", {}, -7),
            ("0x12345678:0", {"fd": True}, -7),  # no CAN FD controller
            ("0x12345678:0", {"bitrate": 123456}, -4),  # not a rate of the adapter's table
            ("0x12345678:0", {"bitrate": -500000}, -7),  # would wrap to 32 bits in ctypes
            ("0x53000001:0", {"fd": True, "data_bitrate": 3333333}, -4),
        ]
        for channel, config, code in cases:
            with self.subTest(channel=channel, config=config):
                with self.assertRaises(can.CanInitializationError) as caught:
                    self.open(channel, **config)
                self.assertEqual(caught.exception.error_code, code)
                self.assertIn(f"[Error Code {code}]", str(caught.exception))

    def test_classic_echo_is_made_on_request(self):
        sender, receiver = open_pair(self, CLASSIC, bitrate=500000, receive_own_messages=True)
        msg = can.Message(arbitration_id=0x123, data=[1, 2, 3], is_extended_id=False)
        sender.send(msg)
        self.assertEqual(fields(sender.recv(RECV_TIMEOUT)),
                         expected(msg, "0x12345678:0", is_rx=False))
        self.assertEqual(fields(receiver.recv(RECV_TIMEOUT)), expected(msg, "0x12345678:1"))
        self.assertIsNone(sender.recv(0.05))  # one echo, not two

    def test_a_channel_takes_one_bus_and_a_failed_open_leaves_it_usable(self):
        with self.assertRaises(can.CanInitializationError):
            self.open("0x12345678:0", bitrate=123456)
        first = can.Bus(interface="varnel", channel="0x12345678:0", bitrate=500000)
        self.addCleanup(first.shutdown)
        with self.assertRaises(can.CanInitializationError) as caught:
            self.open("0x12345678:0", bitrate=250000)  # would re-initialise under the first
        self.assertEqual(caught.exception.error_code, -7)
        self.assertEqual(first.state, can.BusState.ACTIVE)
        self.assertEqual(first.dropped_frames, 0)
        first.shutdown()
        with can.Bus(interface="varnel", channel="0x12345678:0", bitrate=250000) as again:
            self.assertIn("250000", again.channel_info)

    def test_detected_configurations_open(self):
        configs = can.detect_available_configs(interfaces=["varnel"])
        self.assertEqual([(c["channel"], c["fd"]) for c in configs],
                         [("0x12345678:0", False), ("0x12345678:1", False),
                          ("0x53000001:0", True), ("0x53000001:1", True)])
        with can.Bus(**configs[1], bitrate=125000) as bus:
            self.assertEqual(bus.channel_info, "VARNEL 0x12345678:1 (CAN, 125000 bit/s)")


class BusStates(unittest.TestCase):
    def test_passive_bus_listens_without_sending_and_says_so_in_the_init_record(self):
        # (adapter, config, init command, where its payload carries the mode); mode 2 listens only
        cases = [(CLASSIC, {"bitrate": 500000}, 0x0C00, 7),
                 (FD, {"fd": True, "bitrate": 1000000, "data_bitrate": 4000000}, 0x4000, 1)]
        usbsim = ctypes.CDLL("libusb-1.0.so.0")  # the virtual adapter, loaded in place of libusb
        payload = (ctypes.c_uint8 * 32)()
        msg = can.Message(arbitration_id=0x321, data=[4, 5], is_extended_id=False)
        for handle, config, init, at in cases:
            sender, listener = open_pair(self, handle, **config)
            for state, mode in ((can.BusState.PASSIVE, 2), (can.BusState.ACTIVE, 0)):
                with self.subTest(adapter=hex(handle), state=state):
                    listener.state = state
                    self.assertEqual(listener.state, state)
                    self.assertGreater(usbsim.varnel_usbsim_last_payload(handle, init, payload, 32),
                                       at)
                    self.assertEqual((payload[0], payload[at] & 3), (1, mode))
                    with contextlib.suppress(can.CanOperationError):  # nobody acknowledges
                        sender.send(msg)
                    self.assertEqual(fields(listener.recv(RECV_TIMEOUT)),
                                     expected(msg, f"0x{handle:08X}:1"))
            listener.state = can.BusState.PASSIVE
            with self.assertRaises(can.CanOperationError):
                listener.send(msg)

    def test_classic_status_changes_arrive_as_socketcan_error_frames(self):
        # alone at this rate: nobody acknowledges, each frame adds 8 to the transmit counter;
        # 12 frames reach 96 (warning), 4 more 128 (passive). One error frame per change.
        lonely = can.Bus(interface="varnel", channel="0x12345678:0", bitrate=250000)
        self.addCleanup(lonely.shutdown)
        steps = [(12, CAN_ERR_CRTL_TX_WARNING, 96),
                 (4, CAN_ERR_CRTL_TX_WARNING | CAN_ERR_CRTL_TX_PASSIVE, 128)]
        for frames, controller, tec in steps:
            for i in range(frames):
                lonely.send(can.Message(arbitration_id=0x10, data=[i], is_extended_id=False))
            with self.subTest(tec=tec):
                event = lonely.recv(RECV_TIMEOUT)
                self.assertTrue(event.is_error_frame)
                self.assertEqual(event.arbitration_id, CAN_ERR_CRTL | CAN_ERR_CNT)
                self.assertEqual(bytes(event.data), bytes([0, controller, 0, 0, 0, 0, tec, 0]))
                self.assertIsNone(lonely.recv(0.6))



class PowerCycle(unittest.TestCase):
    def test_a_power_cycle_is_reported_though_receiving_shows_no_error(self):
        # An application that rescans (to see adapters come and go) lets the library's write
        # retry find the adapter again: it comes back with its channels stopped, and recv()
        # finds nothing, without an error.
        usbsim = ctypes.CDLL("libusb-1.0.so.0")
        msg = can.Message(arbitration_id=0x55, data=[1], is_extended_id=False)
        for handle in (CLASSIC, FD):
            with self.subTest(adapter=hex(handle)):
                sender, receiver = open_pair(self, handle, bitrate=500000)
                sender.send(msg)
                self.assertIsNotNone(receiver.recv(RECV_TIMEOUT))
                self.assertEqual(receiver.reconnects, 0)
                self.assertEqual(usbsim.varnel_usbsim_power_cycle(handle), 0)
                self.assertIn(handle, varnel.scan())
                with self.assertWarnsRegex(RuntimeWarning, f"0x{handle:08X} was connected again"):
                    with self.assertLogs("can.varnel", "ERROR"):
                        self.assertIsNone(receiver.recv(0.3))
                self.assertEqual(receiver.reconnects, 1)

if __name__ == "__main__":
    unittest.main()
