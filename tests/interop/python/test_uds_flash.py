"""varnel.uds.Client: a whole 256 KiB image flashed into the virtual ECU and read back equal; the
wire bytes of request download and the transfer counter's wrap seen by a server written here from
ISO 14229-1 alone (through python-can on the other channel); refusals named."""
import os
import random
import threading
import unittest

# the virtual ECU answers on 7E1/7E9, out of the way of the independent server on 7E0/7E8; the
# variable is read when the virtual bus starts
os.environ["VARNEL_SIM_CAN_ECU"] = "7E1/7E9"

import can  # noqa: E402

import varnel  # noqa: E402
from varnel.uds import Client, NegativeResponse  # noqa: E402
from buses import CLASSIC  # noqa: E402
from test_uds import peer  # noqa: E402


class FlashIntoTheVirtualEcu(unittest.TestCase):
    def setUp(self):
        self.adapter = varnel.Adapter(CLASSIC).open()
        self.addCleanup(self.adapter.close)
        self.channel = self.adapter.can(0, bitrate=500000)
        self.addCleanup(self.channel.close)
        self.client = Client(self.adapter.uds(0, 0x7E1, 0x7E9), timeout=2.0)

    def test_a_256_kib_image_reads_back_equal(self):
        image = random.Random(7).randbytes(256 * 1024)
        seen = []
        self.client.flash([(0x20000, image)], progress=lambda done, total: seen.append(done))
        self.assertEqual(seen[-1], len(image))
        self.client.change_session(3)
        back = b"".join(self.client.read_memory_by_address(0x20000 + at, 2048)
                        for at in range(0, len(image), 2048))
        self.assertEqual(back, image)

    def test_refusals_raise_with_the_code_named(self):
        with self.assertRaises(NegativeResponse) as caught:
            self.client.request_download(0x20000, 16)  # default session: no download service
        self.assertEqual((caught.exception.service, caught.exception.code), (0x34, 0x7F))
        self.assertIn("serviceNotSupportedInActiveSession", str(caught.exception))
        self.client.change_session(3)
        with self.assertRaises(NegativeResponse) as caught:
            self.client.unlock_security_access(key_routine=lambda seed: b"\0\0\0\1")
        self.assertEqual(caught.exception.name, "invalidKey")


class WireBytesToAnIndependentServer(unittest.TestCase):
    """A server that answers every flash step positively and keeps what it heard; its download
    answer offers maxNumberOfBlockLength 6 (4 data bytes a block)."""

    def setUp(self):
        self.adapter = varnel.Adapter(CLASSIC).open()
        self.addCleanup(self.adapter.close)
        self.channel = self.adapter.can(0, bitrate=500000)
        self.addCleanup(self.channel.close)
        self.bus = can.Bus(interface="varnel", channel=f"0x{CLASSIC:08X}:1", bitrate=500000)
        self.addCleanup(self.bus.shutdown)
        self.heard = []

    def serve(self, count):
        tester = peer(self.bus)
        for _ in range(count):
            request = tester.receive(5.0)
            self.heard.append(request)
            sid = request[0]
            if sid == 0x27 and request[1] == 1:
                answer = b"\x67\x01\0\0\0\0"  # a zero seed: unlocked already
            elif sid == 0x34:
                answer = b"\x74\x20\x00\x06"
            elif sid == 0x31 and request[2:4] == b"\x02\x02":
                answer = b"\x71\x01\x02\x02" + self.crc
            else:
                answer = bytes([sid + 0x40]) + request[1:2 if sid in (0x10, 0x11, 0x27, 0x36) else 1]
                if sid == 0x31:
                    answer = b"\x71" + request[1:4]
            tester.send(answer)

    def test_request_download_and_the_counter_wrap(self):
        import zlib
        image = bytes(range(256)) * 5  # 1280 bytes: 320 blocks of 4, counters 01..FF 00 01..40
        self.crc = zlib.crc32(image).to_bytes(4, "big")
        steps = 2 + 2 + 1 + 1 + 320 + 1 + 1 + 1  # sessions, seeds, erase, 34, 36s, 37, check, 11
        server = threading.Thread(target=self.serve, args=(steps,))
        server.start()
        Client(self.adapter.uds(0, 0x7E0, 0x7E8), timeout=5.0).flash([(0x00020000, image)])
        server.join(30)
        download = [r for r in self.heard if r[0] == 0x34]
        # 34, dataFormatIdentifier 00, addressAndLengthFormatIdentifier 44 (4-byte size, 4-byte
        # address), address 00020000 and size 00000500, most significant byte first
        self.assertEqual(download, [bytes.fromhex("34 00 44 00020000 00000500")])
        blocks = [r for r in self.heard if r[0] == 0x36]
        self.assertEqual([b[1] for b in blocks[253:258]], [0xFE, 0xFF, 0x00, 0x01, 0x02])
        self.assertEqual(blocks[255], bytes([0x36, 0x00]) + image[255 * 4:256 * 4])
        self.assertEqual(b"".join(b[2:] for b in blocks), image)


if __name__ == "__main__":
    unittest.main()
