"""The UART module against the virtual adapter, whose channels have a loopback plug."""
import unittest

import varnel

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


if __name__ == "__main__":
    unittest.main()
