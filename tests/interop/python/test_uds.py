"""The library's ISO-TP against a peer written here from ISO 15765-2 alone: the library's
diagnostic client on channel 0, the peer on channel 1 through python-can, multi-frame messages
both ways; and frames the adapter schedules on channel 0 reaching python-can on channel 1."""
import threading
import time
import unittest

import can

import varnel
from buses import CLASSIC

TX, RX = 0x7E0, 0x7E8  # the client sends on TX; the peer answers on RX
FILL = 0xCC


class IsoTpPeer:
    """Normal addressing, 8-byte classic frames: single frame (PCI 0L), first frame (1L LL, or
    10 00 and a 32-bit length), consecutive frames (2N), flow control (30 BS ST, 31 wait)."""

    def __init__(self, bus, block_size=0, stmin_ms=0):
        self.bus, self.block_size, self.stmin_ms = bus, block_size, stmin_ms

    def _send(self, payload):
        data = bytes(payload) + bytes([FILL]) * (8 - len(payload))
        self.bus.send(can.Message(arbitration_id=RX, data=data, is_extended_id=False))

    def _next(self, deadline):
        while time.monotonic() < deadline:
            msg = self.bus.recv(0.05)
            if msg is not None and msg.arbitration_id == TX:
                return bytes(msg.data)
        raise TimeoutError("the client sent nothing more")

    def receive(self, timeout=5.0):
        deadline = time.monotonic() + timeout
        frame = self._next(deadline)
        kind = frame[0] >> 4
        if kind == 0:
            return frame[1:1 + (frame[0] & 0x0F)]
        assert kind == 1, frame.hex()
        length = (frame[0] & 0x0F) << 8 | frame[1]
        data = frame[2:]
        if length == 0:
            length, data = int.from_bytes(frame[2:6], "big"), frame[6:]
        self._send([0x30, self.block_size, self.stmin_ms])
        sequence, in_block = 1, 0
        while len(data) < length:
            frame = self._next(deadline)
            assert frame[0] == 0x20 | (sequence & 0x0F), f"frame {frame.hex()} expected {sequence}"
            data += frame[1:]
            sequence, in_block = sequence + 1, in_block + 1
            if self.block_size and in_block == self.block_size and len(data) < length:
                self._send([0x30, self.block_size, self.stmin_ms])
                in_block = 0
        return data[:length]

    def send(self, message, timeout=5.0):
        deadline = time.monotonic() + timeout
        if len(message) <= 7:
            self._send([len(message)] + list(message))
            return
        if len(message) <= 0xFFF:
            head = [0x10 | len(message) >> 8, len(message) & 0xFF]
        else:
            head = [0x10, 0x00] + list(len(message).to_bytes(4, "big"))
        first = 8 - len(head)
        self._send(head + list(message[:first]))
        rest, sequence = message[first:], 1
        while rest:
            flow = self._next(deadline)
            if flow[0] == 0x31:
                continue
            assert flow[0] == 0x30, flow.hex()
            block_size, gap = flow[1], flow[2] / 1000 if flow[2] <= 0x7F else 0
            for _ in range(block_size or len(rest)):
                if not rest:
                    break
                self._send([0x20 | (sequence & 0x0F)] + list(rest[:7]))
                rest, sequence = rest[7:], sequence + 1
                time.sleep(gap)


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
                peer = IsoTpPeer(self.peer_bus, block_size=block_size, stmin_ms=0)
                message = bytes((i * 7 + length) & 0xFF for i in range(length))
                received = []
                listener = threading.Thread(target=lambda: received.append(peer.receive()))
                listener.start()
                self.client.send(message)
                listener.join(10)
                self.assertEqual(received, [message])

                answer = bytes(reversed(message))
                talker = threading.Thread(target=peer.send, args=(answer,))
                talker.start()
                self.assertEqual(self.client.receive(timeout=5.0), answer)
                talker.join(10)

    def test_scheduled_frames_reach_python_can(self):
        self.channel.start_schedule([(varnel.Frame(0x123, b"\x11"), 10)], periods=3)
        got = [self.peer_bus.recv(2.0) for _ in range(3)]
        self.assertEqual([(m.arbitration_id, bytes(m.data)) for m in got], [(0x123, b"\x11")] * 3)
        self.channel.stop_schedule()

    def test_negative_answer_raises_with_its_code(self):
        peer = IsoTpPeer(self.peer_bus)
        talker = threading.Thread(target=lambda: (peer.receive(), peer.send(b"\x7f\x22\x31")))
        talker.start()
        with self.assertRaises(varnel.NegativeResponse) as caught:
            self.client.request(b"\x22\xf1\x90")
        talker.join(10)
        self.assertEqual((caught.exception.service, caught.exception.code), (0x22, 0x31))


if __name__ == "__main__":
    unittest.main()
