"""The K-line module against the virtual adapter, whose channels carry a KWP2000 unit at
address 0x10 (StartCommunication answers C1 EF 8F; ReadEcuIdentification 90 the VIN)."""
import unittest

import varnel

HANDLE = 0x12345678


class KLine(unittest.TestCase):
    def setUp(self):
        self.adapter = varnel.Adapter(HANDLE).open()
        self.addCleanup(self.adapter.close)
        self.kline = self.adapter.kline(0)

    def test_fast_init_then_requests_positive_and_negative(self):
        self.assertEqual(self.kline.fast_init(), bytes.fromhex("C1EF8F"))
        self.assertEqual(self.kline.request(bytes.fromhex("1A90")),
                         bytes.fromhex("5A90") + b"VARNEL0K1INE00001")
        self.assertEqual(self.kline.request(bytes.fromhex("2102")), bytes.fromhex("610201020304"),
                         "response pending waited through")
        with self.assertRaises(varnel.NegativeResponse) as caught:
            self.kline.request(bytes.fromhex("2177"))
        self.assertEqual((caught.exception.service, caught.exception.code), (0x21, 0x31))

    def test_silence_and_bad_channels_raise_with_their_codes(self):
        nobody = self.adapter.kline(0, target=0x22)  # no unit has that address
        nobody.init()
        nobody.send(bytes.fromhex("3E01"))
        with self.assertRaises(varnel.VarnelError) as caught:
            nobody.response(timeout=0.05)
        self.assertEqual(caught.exception.code, -5)
        with self.assertRaises(varnel.VarnelError) as caught:
            self.adapter.kline(8).init()
        self.assertEqual(caught.exception.code, -7)

    def test_wakeup_pin_moves_the_pattern_off_the_units_pin(self):
        kline = self.adapter.kline(3)  # a unit no other case wakes
        self.addCleanup(setattr, kline, "wakeup_pin", 3)
        kline.wakeup_pin = 9
        self.assertEqual((kline.wakeup_pin, self.adapter.kline(1).wakeup_pin), (9, 1))
        with self.assertRaises(varnel.VarnelError) as caught:
            kline.fast_init()  # the virtual unit listens on pin 3
        self.assertEqual(caught.exception.code, -5)
        with self.assertRaises(varnel.VarnelError) as caught:
            kline.wakeup_pin = 32
        self.assertEqual(caught.exception.code, -7)


if __name__ == "__main__":
    unittest.main()
