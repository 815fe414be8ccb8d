"""The I2C module against the virtual adapter's channel 0: a 24C02 at 0x50, an SMBus device at
0x48, nothing at 0x23."""
import unittest

import varnel

HANDLE = 0x12345678


class I2c(unittest.TestCase):
    def setUp(self):
        self.adapter = varnel.Adapter(HANDLE).open()
        self.bus = self.adapter.i2c(0)

    def tearDown(self):
        self.adapter.close()

    def test_scan_and_eeprom_through_smbus2_names(self):
        self.assertEqual(self.bus.scan(), [0x48, 0x50, 0x54])
        self.bus.write_i2c_block_data(0x50, 0x20, [1, 2, 3])
        self.assertEqual(self.bus.read_i2c_block_data(0x50, 0x20, 3), [1, 2, 3])
        write, read = varnel.i2c_msg.write(0x50, [0x21]), varnel.i2c_msg.read(0x50, 2)
        self.bus.i2c_rdwr(write, read)
        self.assertEqual(list(read), [2, 3])

    def test_words_are_in_smbus_order_on_the_bus(self):
        self.bus.write_word_data(0x48, 0x11, 0x1234)
        self.assertEqual(self.bus.read_word_data(0x48, 0x11), 0x1234)
        self.bus.write_byte(0x48, 0x11)  # send byte: the command a receive byte reads
        self.assertEqual(self.bus.read_byte(0x48), 0x34)  # the low byte of the word register
        self.assertEqual(self.bus.process_call(0x48, 0x30, 0x00FF), 0xFF00)

    def test_blocks_with_pec(self):
        bus = self.adapter.i2c(0, pec=True)
        bus.write_block_data(0x48, 0x23, b"\x01\x02\x03")
        self.assertEqual(bus.read_block_data(0x48, 0x23), [1, 2, 3])
        self.assertEqual(bus.block_process_call(0x48, 0x31, [1, 2]), [2, 1])

    def test_missing_acknowledge_raises_the_status(self):
        with self.assertRaises(varnel.I2cStatusError) as caught:
            self.bus.read_byte_data(0x23, 0)
        self.assertEqual((caught.exception.code, caught.exception.call),
                         (1, "SMBUS_ReadByteProtocol"))
        with self.assertRaises(varnel.VarnelError) as caught:
            self.bus.write_block_data(0x48, 0x20, bytes(33))
        self.assertEqual(caught.exception.code, -7)
        with self.assertRaises(ValueError):  # not cut to 0x00 on the way
            self.bus.write_byte_data(0x48, 0x100, 1)


if __name__ == "__main__":
    unittest.main()
