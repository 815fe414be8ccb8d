"""python-can as a client of the CAN FD adapter 0x53000001 (40 MHz tables)."""
import time
import unittest

import can

from buses import FD, RECV_TIMEOUT, assert_stamped_now, expected, fields, open_pair
from varnel.library import lib

FD_CONFIG = {"bitrate": 1000000, "fd": True, "data_bitrate": 4000000}


def payload(length):
    return bytes((7 * i + length) & 0xFF for i in range(length))


class FdFrames(unittest.TestCase):
    def setUp(self):
        self.sender, self.receiver = open_pair(self, FD, **FD_CONFIG)

    def exchange(self, msg):
        before = time.time()
        self.sender.send(msg)
        got = self.receiver.recv(RECV_TIMEOUT)
        self.assertIsNotNone(got)
        assert_stamped_now(self, got, before, time.time())
        return got

    def test_fd_frames_of_every_long_length_with_and_without_bit_rate_switch(self):
        for length in (12, 16, 20, 24, 32, 48, 64):
            for brs, extended in ((True, False), (True, True), (False, False)):
                msg = can.Message(arbitration_id=0x18FF00AA if extended else 0x6A5,
                                  is_extended_id=extended, data=payload(length), is_fd=True,
                                  bitrate_switch=brs)
                with self.subTest(length=length, brs=brs, extended=extended):
                    got = self.exchange(msg)
                    self.assertEqual(fields(got), expected(msg, "0x53000001:1"))

    def test_lengths_between_the_fd_sizes_arrive_padded_with_zeros(self):
        for length, padded in ((9, 12), (13, 16), (33, 48), (49, 64)):
            msg = can.Message(arbitration_id=0x321, is_extended_id=False, data=payload(length),
                              is_fd=True, bitrate_switch=True)
            with self.subTest(length=length):
                got = self.exchange(msg)
                want = expected(msg, "0x53000001:1", dlc=padded,
                                data=payload(length) + bytes(padded - length))
                self.assertEqual(fields(got), want)

    def test_classic_frames_pass_through_the_fd_controller(self):
        cases = [
            can.Message(arbitration_id=0x7FF, data=range(8), is_extended_id=False),
            can.Message(arbitration_id=0x12345, data=[9], is_extended_id=True),
            can.Message(arbitration_id=0x0AB, dlc=3, is_remote_frame=True, is_extended_id=False),
            can.Message(arbitration_id=0x1ABCDEF, dlc=8, is_remote_frame=True),
            can.Message(arbitration_id=0x055, data=payload(8), is_fd=True),  # FD format, 8 bytes
        ]
        for msg in cases:
            with self.subTest(msg=str(msg)):
                self.assertEqual(fields(self.exchange(msg)), expected(msg, "0x53000001:1"))

    def test_fd_only_combinations_are_refused(self):
        cases = [
            can.Message(arbitration_id=0x1, data=range(9)),  # classic frame of 9 bytes
            can.Message(arbitration_id=0x1, data=[1], bitrate_switch=True),  # BRS without FD
            can.Message(arbitration_id=0x1, data=range(65), is_fd=True),
        ]
        for msg in cases:
            with self.subTest(msg=str(msg)), self.assertRaises(can.CanOperationError) as caught:
                self.sender.send(msg)
            self.assertEqual(caught.exception.error_code, -7)


class Echoes(unittest.TestCase):
    def test_own_frames_come_back_only_when_asked_for(self):
        quiet, _ = open_pair(self, FD, **FD_CONFIG)
        quiet.send(can.Message(arbitration_id=0x42, data=[1], is_extended_id=False))
        self.assertIsNone(quiet.recv(0.1))

    def test_echo_and_reception_carry_the_same_device_time(self):
        sender, receiver = open_pair(self, FD, receive_own_messages=True, **FD_CONFIG)
        msg = can.Message(arbitration_id=0x1BCDEF01, data=payload(21), is_fd=True,
                          bitrate_switch=True)
        sender.send(msg)
        echo, got = sender.recv(RECV_TIMEOUT), receiver.recv(RECV_TIMEOUT)
        self.assertEqual(fields(echo), expected(msg, "0x53000001:0", dlc=24,
                                                data=payload(21) + bytes(3), is_rx=False))
        self.assertEqual(fields(got), expected(msg, "0x53000001:1", dlc=24,
                                               data=payload(21) + bytes(3)))
        # each channel maps device time with its own start time (host ms at device time 0); a
        # double holds epoch seconds to about 0.25 us
        start0, start1 = lib().CANFD_GetStartTime(FD, 0), lib().CANFD_GetStartTime(FD, 1)
        self.assertAlmostEqual(echo.timestamp - got.timestamp, (start0 - start1) / 1000.0,
                               delta=2e-6)


class ErrorStates(unittest.TestCase):
    def test_unacknowledged_frames_fail_and_the_warning_state_arrives_as_error_frame(self):
        # alone at this rate: nobody acknowledges, each frame adds 8 to the transmit counter
        lonely = can.Bus(interface="varnel", channel="0x53000001:0", bitrate=250000, fd=True,
                         data_bitrate=1000000)
        self.addCleanup(lonely.shutdown)
        for i in range(12):
            with self.assertRaises(can.CanOperationError) as caught:
                lonely.send(can.Message(arbitration_id=0x10, data=[i], is_extended_id=False))
            self.assertEqual(caught.exception.error_code, 0)  # frames sent: none
        event = lonely.recv(RECV_TIMEOUT)
        self.assertTrue(event.is_error_frame)
        # SocketCAN's error frame: controller problem 0x04 with counters 0x200; byte 1 the
        # transmit warning bit 0x08; bytes 6 and 7 the counters, 96 and 0
        self.assertEqual(event.arbitration_id, 0x204)
        self.assertEqual(bytes(event.data), bytes([0, 0x08, 0, 0, 0, 0, 96, 0]))
        self.assertEqual(event.channel, "0x53000001:0")


if __name__ == "__main__":
    unittest.main()
