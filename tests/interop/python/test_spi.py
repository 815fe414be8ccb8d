"""The SPI module against the virtual adapter's port 0 and its 1 MiB SPI NOR flash."""
import unittest

import varnel

HANDLE = 0x12345678


class Spi(unittest.TestCase):
    def setUp(self):
        self.adapter = varnel.Adapter(HANDLE).open()
        self.addCleanup(self.adapter.close)
        self.port = self.adapter.spi(0)

    def test_flash_programs_erased_cells_and_reads_them_back(self):
        flash = self.port.flash()
        self.assertEqual(flash.read_id(), b"\xef\x40\x14")
        flash.erase(0x20F0, 0x20)  # two sectors
        flash.write(0x20F0, bytes(range(0x20)))
        self.assertEqual(flash.read(0x20F0, 0x20), bytes(range(0x20)))
        self.assertEqual(self.port.transfer(b"\x05", 1), b"\x00")  # idle, latch cleared

    def test_bits_and_refusals(self):
        self.assertEqual(self.port.read_bits(12), "101001011010")  # the A5 pattern
        with self.assertRaises(varnel.VarnelError) as caught:
            self.port.write_bits("0120")
        self.assertEqual((caught.exception.code, caught.exception.call), (-5, "SPI_WriteBits"))


if __name__ == "__main__":
    unittest.main()
