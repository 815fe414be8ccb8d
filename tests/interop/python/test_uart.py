"""The UART module against the virtual adapter, whose channels have a loopback plug."""
import struct
import unittest

import varnel
from support import last_payload, parameters

HANDLE = 0x12345678


class Uart(unittest.TestCase):
    def setUp(self):
        self.adapter = varnel.Adapter(HANDLE).open()
        self.addCleanup(self.adapter.close)

    def test_bytes_come_back_and_a_short_read_keeps_the_rest(self):
        with self.adapter.uart(1, baudrate=9600, timeout=0.2) as port:
            self.assertEqual(port.write(b"hello"), 5)
            self.assertEqual(port.in_waiting, 5)
            self.assertEqual(port.read(2), b"he")
            self.assertEqual(port.read(10), b"llo")  # fewer than asked: after the time-out
            self.assertEqual(port.write_read(b"\x55", 4, 10, break_bits=13), b"\x55")
            port.write(b"old")
            port.reset_input_buffer()
            self.assertEqual(port.read(1, timeout=0), b"")
            port.write(b"new")
            self.assertEqual(port.read(5, timeout=0), b"new")  # one poll, what has arrived

    def test_a_stopped_channel_refuses_to_send(self):
        port = self.adapter.uart(2)
        port.close()
        with self.assertRaises(varnel.VarnelError) as caught:
            port.write(b"x")
        self.assertEqual((caught.exception.code, caught.exception.call), (-4, "UART_WriteBytes"))
        with self.assertRaises(ValueError):
            self.adapter.uart(2, parity="X")


    def test_lines_and_terminators_leave_what_follows_for_the_next_read(self):
        with self.adapter.uart(3, timeout=0.05) as port:
            port.write(b"one\ntwo\nthree")
            self.assertEqual(port.readline(), b"one\n")
            self.assertEqual(port.read_until(b"tw"), b"tw")
            self.assertEqual(port.read_until(b"\n", size=1), b"o")  # the size comes first
            self.assertEqual(port.readline(), b"\n")
            self.assertEqual(port.readline(), b"three")  # no line feed: what came in time

    def test_baudrate_reconfigures_break_and_flush_on_the_wire(self):
        with self.adapter.uart(4, baudrate=115200, timeout=0) as port:
            port.baudrate = 2400
            # configuration 0xA00: channel, then the record: baud u32 in host order, parity,
            # stop bits, reserved, mode
            self.assertEqual(last_payload(HANDLE, 0xA00),
                             bytes([4]) + struct.pack("<I4B", 2400, 0, 1, 0, 0))
            port.send_break(0.01)  # 24 bit times at 2400 baud
            self.assertEqual(last_payload(HANDLE, 0xA07), bytes([4, 24]))
            port.send_break()  # 0.25 s is 600 bit times: the adapter's longest break, 255
            self.assertEqual(last_payload(HANDLE, 0xA07), bytes([4, 255]))
            data = bytes(range(60))  # 600 bits: 0.25 s at 2400 baud
            port.write(data, wait=False)
            port.flush()  # returns when they are out: the loopback has them all
            self.assertEqual(port.read(100), data)

    def test_methods_take_pyserials_parameters(self):
        import serial  # python3-serial: its shape only, never used at run time
        for name in ("read", "readline", "read_until", "write", "flush", "reset_input_buffer",
                     "send_break", "open", "close"):
            with self.subTest(method=name):
                theirs = parameters(getattr(serial.Serial, name))
                self.assertEqual(parameters(getattr(varnel.Uart, name))[:len(theirs)], theirs)
        for name in ("baudrate", "timeout", "in_waiting", "parity", "stopbits"):
            self.assertIsInstance(getattr(varnel.Uart, name), property, name)


if __name__ == "__main__":
    unittest.main()
