"""The Pythonic layer against the virtual adapters 0x12345678 (CAN) and 0x53000001 (CAN FD)."""
import unittest

import varnel

CLASSIC, FD = 0x12345678, 0x53000001


class Adapters(unittest.TestCase):
    def test_scan_lists_the_plugged_adapters_in_port_order(self):
        self.assertEqual(varnel.scan(), [CLASSIC, FD])

    def test_info_decodes_the_device_record(self):
        for handle in (CLASSIC, FD):
            with self.subTest(handle=hex(handle)), varnel.Adapter(handle) as adapter:
                info = adapter.info()
                self.assertEqual(info.firmware_name, "VARNEL virtual adapter")
                self.assertEqual(info.hardware_version, 0x00020001)
                self.assertEqual(info.firmware_version, 0x01050020)
                self.assertEqual(info.serial_number, (handle, 0x56524E4C, handle ^ 0xFFFFFFFF))
                self.assertIn("CANFD", info.functions)
                self.assertIn("GPIO", info.functions)
                self.assertEqual(adapter.is_fd, handle == FD)

    def test_unknown_handle_does_not_open(self):
        with self.assertRaises(varnel.VarnelError) as caught:
            varnel.Adapter(0x0BADBEEF).open()
        self.assertEqual((caught.exception.code, caught.exception.call), (-1, "USB_OpenDevice"))

    def test_adapter_stays_open_until_its_last_user_closes(self):
        first, second = varnel.Adapter(CLASSIC).open(), varnel.Adapter(CLASSIC).open()
        first.close()
        first.close()  # a second close of the same object changes nothing
        self.assertEqual(second.info().serial_number[0], CLASSIC)
        second.close()
        # the library would reopen the device behind a closed object: refused before the call
        for call, action in (("DEV_GetDeviceInfo", first.info),
                             ("GPIO_Read", lambda: second.gpio.read(1))):
            with self.subTest(call=call), self.assertRaises(varnel.VarnelError) as caught:
                action()
            self.assertEqual((caught.exception.code, caught.exception.call), (-1, call))


class Channels(unittest.TestCase):
    def test_frames_cross_between_the_channels_of_one_adapter(self):
        with varnel.Adapter(CLASSIC) as adapter:
            with adapter.can(0, bitrate=250000) as tx, adapter.can(1, bitrate=250000) as rx:
                sent = [varnel.Frame(id=0x7E0, data=b"\x02\x10\x03"),
                        varnel.Frame(id=0x18DB33F1, extended=True, remote=True, dlc=8)]
                self.assertEqual(tx.send(sent), 2)
                got = []
                while len(got) < 2:
                    batch = rx.receive(timeout=2.0)
                    self.assertTrue(batch)
                    got += batch
                for frame in got:
                    frame.timestamp = 0.0
                self.assertEqual(got, [varnel.Frame(id=0x7E0, data=b"\x02\x10\x03", channel=1),
                                       varnel.Frame(id=0x18DB33F1, extended=True, remote=True,
                                                    dlc=8, channel=1)])
            with self.assertRaises(varnel.VarnelError) as caught:
                rx.receive()
            self.assertEqual((caught.exception.code, caught.exception.call),
                             (-5, "CAN_GetMsgWithSize"))

    def test_channel_numbers_beyond_one_are_refused_before_the_library(self):
        # CANFD_Init2 keeps only bit 0 of the channel: 2 would silently become channel 0
        with varnel.Adapter(FD) as adapter:
            for channel in (2, -1, 256):
                with self.subTest(channel=channel), self.assertRaises(ValueError):
                    adapter.can(channel)


class Gpio(unittest.TestCase):
    def setUp(self):
        self.adapter = varnel.Adapter(CLASSIC).open()
        self.addCleanup(self.adapter.close)

    def test_levels_follow_mode_latch_and_pull(self):
        a = self.adapter
        a.gpio.set_output(0x000F)
        a.gpio.write(0x000F, 0b0101)
        a.gpio.set_input(0x0030, varnel.GPIO_PULL_UP)
        a.gpio.set_input(0x00C0, varnel.GPIO_PULL_DOWN)
        a.gpio.set_open_drain(0x0300, varnel.GPIO_PULL_UP)
        a.gpio.write(0x0300, 0b10 << 8)  # pin 8 pulled low, pin 9 let go (reads its pull)
        self.assertEqual(a.gpio.read(0x03FF), 0b10_0011_0101)
        self.assertEqual(a.gpio.read(0x0002), 0)  # only the masked pins are reported

    def test_refusals_raise_with_the_call_and_code(self):
        cases = [  # the call, what was asked, and the text that names what was refused
            ("GPIO_SetInput", lambda: self.adapter.gpio.set_input(1, 7), "reported failure"),
            ("GPIO_SetOutput", lambda: self.adapter.gpio.set_output(1 << 16), "reported failure"),
            ("GPIO_SendPulses", lambda: self.adapter.gpio.pulses(1 << 12, 10, 20, 3),
             "pulses on pins 0x00001000: a pin not set as output"),
        ]
        for call, action, text in cases:
            with self.subTest(call=call), self.assertRaises(varnel.VarnelError) as caught:
                action()
            self.assertEqual((caught.exception.code, caught.exception.call), (-4, call))
            self.assertIn(text, str(caught.exception))

    def test_values_beyond_the_argument_width_are_refused_not_cut(self):
        cases = [lambda: self.adapter.gpio.write(1 << 32, 0), lambda: self.adapter.gpio.read(-1),
                 lambda: self.adapter.gpio.set_input(1, 256),
                 lambda: self.adapter.gpio.pulses(1, 1, 2, 1 << 31)]
        for i, action in enumerate(cases):
            with self.subTest(case=i), self.assertRaises(ValueError):
                action()


if __name__ == "__main__":
    unittest.main()
