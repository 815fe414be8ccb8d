"""The LIN module against the virtual adapter, whose buses carry a node answering 0x21 with
11 22 33 44 (enhanced checksum: 0x61 + 0xAA = 0x10B -> 0x0C, inverted 0xF3)."""
import os
import time
import unittest

import varnel

HANDLE = 0x12345678


class Lin(unittest.TestCase):
    def setUp(self):
        self.adapter = varnel.Adapter(HANDLE).open()
        self.addCleanup(self.adapter.close)
        self.lin = self.adapter.lin(0)

    def test_read_write_and_a_schedule_seen_by_the_channel(self):
        frame = self.lin.read(0x21)
        self.assertEqual((frame.id, frame.data, frame.check, frame.verdict),
                         (0x21, b"\x11\x22\x33\x44", 0xF3, "enhanced"))
        self.assertIsNone(self.lin.read(0x22))
        self.lin.write(0x3C, b"\x01\x02")
        self.lin.receive()  # the frames so far
        self.lin.start_schedule([(0x21, None, 10), (0x22, b"\x05", 10)], runs=2)
        frames, deadline = [], time.monotonic() + 2
        while len(frames) < 4 and time.monotonic() < deadline:
            frames += self.lin.receive()
            time.sleep(0.01)
        self.assertEqual([str(f) for f in frames],
                         ["21#11223344 enhanced", "22#05 enhanced"] * 2)

    def test_diagnostic_requests_to_the_control_unit(self):
        ecu = self.lin.uds(0x10)
        self.assertEqual(ecu.request(bytes.fromhex("22F190"))[3:], b"VARNELSIMECU00001")
        with self.assertRaises(varnel.NegativeResponse) as caught:
            ecu.request(bytes.fromhex("2201FF"))
        self.assertEqual((caught.exception.service, caught.exception.code), (0x22, 0x31))

    def test_flashing_an_image_file_with_progress(self):
        image = os.path.join(os.path.dirname(__file__), "..", "..", "cli", "data", "gapped.hex")
        seen = []
        self.lin.flash(0x20, image, progress=lambda done, total: seen.append((done, total)))
        self.assertEqual(seen, [(16, 20), (20, 20)])
        with self.assertRaises(varnel.VarnelError) as caught:
            self.lin.flash(0x20, [(0x100, b"\x01")], key_constant=0x1111)
        self.assertEqual(caught.exception.code, -10)

    def test_a_key_routine_of_the_callers(self):
        self.addCleanup(self.lin.set_key_routine, None)
        self.lin.set_key_routine(lambda seed, constant: seed ^ constant)  # not the unit's
        with self.assertRaises(varnel.VarnelError) as caught:
            self.lin.flash(0x20, [(0x100, b"\x01")])
        self.assertEqual(caught.exception.code, -10)
        rotate5 = lambda seed, constant: ((seed << 5 | seed >> 11) & 0xFFFF) ^ constant
        self.lin.flash(0x20, [(0x100, b"\x01")], key_routine=rotate5)  # the unit's own

    def test_bad_channel_raises_with_its_code(self):
        with self.assertRaises(varnel.VarnelError) as caught:
            self.adapter.lin(8)
        self.assertEqual(caught.exception.code, -7)


if __name__ == "__main__":
    unittest.main()
