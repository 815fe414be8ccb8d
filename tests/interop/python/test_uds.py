"""The library's ISO-TP against a peer written from ISO 15765-2 alone (isotp_tester): the
library's diagnostic client on channel 0, the peer on channel 1 through python-can, multi-frame
messages both ways; and frames the adapter schedules on channel 0 reaching python-can on
channel 1."""
import threading
import unittest

import can

import varnel
from buses import CLASSIC
from isotp_tester import IsoTpClient

TX, RX = 0x7E0, 0x7E8  # the client sends on TX; the peer answers on RX


def peer(bus, block_size=0):
    """The independent ISO-TP of the tests, answering on RX what the client sends on TX."""
    return IsoTpClient(bus, request_id=RX, response_id=TX, block_size=block_size)


class IsoTpBothWays(unittest.TestCase):
    def setUp(self):
        self.adapter = varnel.Adapter(CLASSIC).open()
        self.addCleanup(self.adapter.close)
        self.channel = self.adapter.can(0, bitrate=500000)  # initialised, its poller receiving
        self.addCleanup(self.channel.close)
        self.peer_bus = can.Bus(interface="varnel", channel=f"0x{CLASSIC:08X}:1", bitrate=500000)
        self.addCleanup(self.peer_bus.shutdown)
        self.client = self.adapter.uds(0, TX, RX)

    def test_long_messages_both_ways(self):
        for length, block_size in [(7, 0), (100, 0), (4095, 4), (5000, 0)]:
            with self.subTest(length=length, block_size=block_size):
                tester = peer(self.peer_bus, block_size)
                message = bytes((i * 7 + length) & 0xFF for i in range(length))
                received = []
                listener = threading.Thread(
                    target=lambda: received.append(tester.receive(5.0)))
                listener.start()
                self.client.send(message)
                listener.join(20)
                self.assertEqual(received, [message])

                answer = bytes(reversed(message))
                talker = threading.Thread(target=tester.send, args=(answer,))
                talker.start()
                self.assertEqual(self.client.receive(timeout=5.0), answer)
                talker.join(10)

    def test_scheduled_frames_reach_python_can(self):
        self.channel.start_schedule([(varnel.Frame(0x123, b"\x11"), 10)], periods=3)
        got = [self.peer_bus.recv(2.0) for _ in range(3)]
        self.assertEqual([(m.arbitration_id, bytes(m.data)) for m in got], [(0x123, b"\x11")] * 3)
        self.channel.stop_schedule()

    def test_negative_answer_raises_with_its_code(self):
        tester = peer(self.peer_bus)
        talker = threading.Thread(
            target=lambda: (tester.receive(5.0), tester.send(b"\x7f\x22\x31")))
        talker.start()
        with self.assertRaises(varnel.NegativeResponse) as caught:
            self.client.request(b"\x22\xf1\x90")
        talker.join(10)
        self.assertEqual((caught.exception.service, caught.exception.code), (0x22, 0x31))


if __name__ == "__main__":
    unittest.main()
