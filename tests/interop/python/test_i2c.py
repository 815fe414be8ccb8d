"""The I2C module against the virtual adapter's channel 0: a 24C02 at 0x50, an SMBus device at
0x48, nothing at 0x23."""
import errno
import inspect
import unittest

import varnel
from support import last_payload, parameters

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

    def test_failures_are_oserrors_with_linux_i2c_errnos_so_scan_loops_work(self):
        cases = [  # (transfer, errno, the library's code)
            (lambda: self.bus.read_byte(0x23), errno.ENXIO, 1),  # nobody at 0x23
            (lambda: self.bus.write_byte_data(0x48, 0x50, 1), errno.EIO, 2),  # unknown command
            (lambda: self.bus.write_block_data(0x48, 0x20, bytes(33)), errno.EIO, -7),
        ]
        for transfer, number, code in cases:
            # a positive code is the adapter's status byte, a negative one the library's result
            expected = varnel.I2cStatusError if code > 0 else varnel.I2cError
            with self.subTest(code=code), self.assertRaises(expected) as caught:
                transfer()
            error = caught.exception
            self.assertTrue(isinstance(error, OSError) and isinstance(error, varnel.VarnelError))
            self.assertEqual((error.errno, error.code), (number, code))
        found = []
        for address in range(0x08, 0x78):  # i2cdetect's range, as smbus2 users scan it
            try:
                self.bus.read_byte(address)
                found.append(address)
            except OSError:
                pass
        self.assertEqual(found, [0x48, 0x50, 0x54])
        with self.assertRaises(ValueError):  # not cut to 0x00 on the way
            self.bus.write_byte_data(0x48, 0x100, 1)

    def test_pec_property_sets_the_flag_of_smbus_transfers_on_the_wire(self):
        # write-read 0x703: channel, address u16, time-out u32 (10 ms), read length u32, the
        # PEC flag in the event byte, then the command
        self.bus.pec = True
        self.bus.read_byte_data(i2c_addr=0x48, register=0x05, force=True)
        self.assertEqual(last_payload(HANDLE, 0x703).hex(),
                         "000048" "0000000a" "00000001" "01" "05")
        self.bus.enable_pec(False)
        self.bus.read_byte_data(0x48, 0x05)
        self.assertEqual(last_payload(HANDLE, 0x703)[11], 0)

    def test_smbus_closes_its_adapter_at_the_end_of_a_with_block(self):
        with varnel.SMBus(f"0x{HANDLE:08X}:1") as bus:
            self.assertEqual(bus.read_word_data(0x48, 0x10), 0)
        self.assertFalse(bus.adapter.is_open)
        with self.assertRaises(OSError):
            bus.read_byte(0x48)

    def test_methods_take_smbus2s_parameters(self):
        import smbus2  # python3-smbus2: its shape only, never used at run time
        names = [n for n, _ in inspect.getmembers(smbus2.SMBus, inspect.isfunction)
                 if not n.startswith("_") and n != "open"]  # open(bus): SMBus(bus) opens
        for ours, theirs, name in [(varnel.SMBus, smbus2.SMBus, n) for n in names] + \
                [(varnel.i2c_msg, smbus2.i2c_msg, n) for n in ("read", "write")]:
            with self.subTest(method=name):
                self.assertEqual(parameters(getattr(ours, name)), parameters(getattr(theirs, name)))
        self.assertIsInstance(varnel.SMBus.pec, property)


if __name__ == "__main__":
    unittest.main()
