"""The virtual diagnostic ECU against a tester written from ISO 15765-2 and ISO 14229-1 alone
(isotp_tester, through python-can): a whole reprogramming sequence, every answer held byte for
byte to what the standard defines for it, and the ECU's own frames (flow control, response
pending, consecutive frames under the tester's block size) as they lie on the bus."""
import os
import unittest
import zlib

os.environ["VARNEL_SIM_CAN_ECU"] = "7E0/7E8"  # read when the virtual bus starts

import can  # noqa: E402

from buses import CLASSIC  # noqa: E402
from isotp_tester import IsoTpClient  # noqa: E402

FILL = 0xAA  # the ECU pads its frames with AA


def key_for(seed):
    """The documented default key routine: the seed (big-endian) rotated left by 7 bits, XOR
    5A5AA5A5."""
    s = int.from_bytes(seed, "big")
    return ((((s << 7) | (s >> 25)) & 0xFFFFFFFF) ^ 0x5A5AA5A5).to_bytes(4, "big")


def as_bytes(value):
    return bytes.fromhex(value) if isinstance(value, str) else value


def be32(value):
    return value.to_bytes(4, "big")


class ReprogrammingAsTheStandardHasIt(unittest.TestCase):
    def setUp(self):
        self.bus = can.Bus(interface="varnel", channel=f"0x{CLASSIC:08X}:0", bitrate=500000)
        self.addCleanup(self.bus.shutdown)
        self.tester = IsoTpClient(self.bus)

    def exchange(self, request, answer):
        request, answer = as_bytes(request), as_bytes(answer)
        self.assertEqual(self.tester.request(request).hex(" "), answer.hex(" "), request.hex(" "))

    def test_session_security_download_check_and_read_back(self):
        # diagnosticSessionControl: 50, the session, P2 0032 (50 ms), P2* 01F4 (5000 ms in 10s)
        self.exchange("10 03", "50 03 00 32 01 F4")
        seed = self.tester.request(b"\x27\x01")
        self.assertEqual(seed[:2], b"\x67\x01")
        self.assertEqual(len(seed), 6)
        self.exchange(b"\x27\x02" + key_for(seed[2:]), "67 02")
        self.exchange("10 02", "50 02 00 32 01 F4")
        self.exchange("27 01", "67 01 00 00 00 00")  # unlocked already: an all-zero seed

        image = bytes((i * 31 + (i >> 8)) & 0xFF for i in range(3 * 2048))
        # erase: routineControl start FF00 with address and size; "response pending" before
        # the answer 71 01 FF00 and its status
        self.exchange(b"\x31\x01\xFF\x00" + be32(0x20000) + be32(len(image)), "71 01 FF 00 00")
        self.assertEqual(self.tester.pending, [b"\x7F\x31\x78"])
        self.assertIn(bytes([0x03, 0x7F, 0x31, 0x78]) + bytes([FILL]) * 4, self.tester.frames)
        # requestDownload: dataFormatIdentifier 00, addressAndLengthFormatIdentifier 44; the
        # answer's lengthFormatIdentifier 20 puts maxNumberOfBlockLength in two bytes: 0802
        self.exchange(b"\x34\x00\x44" + be32(0x20000) + be32(len(image)), "74 20 08 02")
        self.tester.frames.clear()
        self.exchange(b"\x36\x01" + image[:2048], "76 01")
        # a 2050-byte request: the ECU's flow control lets all of it come, without a gap
        self.assertEqual(self.tester.frames[0], bytes([0x30, 0, 0]) + bytes([FILL]) * 5)
        self.exchange(b"\x36\x03" + image[2048:4096], "7F 36 73")  # wrongBlockSequenceCounter
        self.exchange(b"\x36\x02" + image[2048:4096], "76 02")
        self.exchange(b"\x36\x03" + image[4096:], "76 03")
        self.exchange("37", "77")
        self.exchange("31 01 02 02", b"\x71\x01\x02\x02" + be32(zlib.crc32(image)))

        # readMemoryByAddress, with our flow control asking for blocks of 40 frames: the ECU
        # stops after each block until the next flow control
        self.tester.block_size = 40
        self.tester.frames.clear()
        back = b"".join(self.tester.request(b"\x23\x44" + be32(0x20000 + at) + be32(2048))
                        for at in range(0, len(image), 2048))
        self.assertEqual(back, (b"\x63" + image[:2048]) + (b"\x63" + image[2048:4096]) +
                         (b"\x63" + image[4096:]))
        # after its flow control to our 10-byte request, a first frame of 2049 bytes (801)
        self.assertEqual(self.tester.frames[1], bytes([0x18, 0x01, 0x63]) + image[:5])
        self.exchange("11 01", "51 01")
        self.exchange("22 F1 86", "62 F1 86 01")  # hardReset: the default session again

    def test_refusals_name_service_and_code(self):
        for request, answer in [
            ("34 00 44 00020000 00000010", "7F 34 7F"),  # not in the default session
            ("27 01", "7F 27 7F"),
            ("10 02", "7F 10 22"),  # programming only from the extended session
            ("22 F1", "7F 22 13"),
            ("22 F1 FF", "7F 22 31"),
            ("85 01", "7F 85 11"),
        ]:
            with self.subTest(request=request):
                self.exchange(request, answer)


if __name__ == "__main__":
    unittest.main()
