"""The ADC module against the virtual adapter: input 0 a ramp from 0 (one count a sample, modulo
4096), input 1 a 50 Hz sine; numpy arrays when numpy is there, lists when it is not."""
import math
import threading
import time
import unittest

import varnel
import varnel.adc

HANDLE = 0x12345678


def sine(k, rate):
    return round(2048 + 2047 * math.sin(2 * math.pi * 50 * k / rate))


class Adc(unittest.TestCase):
    def setUp(self):
        self.adapter = varnel.Adapter(HANDLE).open()
        self.addCleanup(self.adapter.close)
        self.adc = self.adapter.adc()

    def check_block_and_stream(self):
        block = self.adc.read(4, mask=0x03, rate=1000)
        self.assertEqual([list(map(int, row)) for row in block],
                         [[k, sine(k, 1000)] for k in range(4)])
        with self.adc.stream(mask=0x01, rate=1000000, packet_samples=500) as stream:
            got = []
            deadline = time.monotonic() + 2
            while len(got) < 5000 and time.monotonic() < deadline:
                got += list(stream.get())
                time.sleep(0.005)
        self.assertGreaterEqual(len(got), 5000)
        self.assertEqual([int(v) for v in got[:5000]], [k % 4096 for k in range(5000)])
        self.assertEqual(stream.dropped, 0)
        return block

    def test_numpy_arrays(self):
        if varnel.adc.numpy is None:
            self.skipTest("numpy is not installed")
        block = self.check_block_and_stream()
        self.assertEqual((block.shape, str(block.dtype)), ((4, 2), "uint16"))

    def test_lists_without_numpy(self):
        saved, varnel.adc.numpy = varnel.adc.numpy, None
        self.addCleanup(setattr, varnel.adc, "numpy", saved)
        self.assertIsInstance(self.check_block_and_stream(), list)

    def test_callback_receives_each_packet_on_the_library_thread(self):
        packets, done = [], threading.Event()

        def on_packet(samples):
            packets.append(list(samples))
            if len(packets) == 10:
                done.set()

        stream = self.adc.stream(mask=0x01, rate=1000000, packet_samples=100, callback=on_packet)
        self.assertTrue(done.wait(2))
        stream.stop()
        flat = [v for p in packets for v in p]
        self.assertEqual(flat[:1000], [k % 4096 for k in range(1000)])


if __name__ == "__main__":
    unittest.main()
