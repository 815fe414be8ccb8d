"""python-can reaching network adapters: the varnel-sim daemon serves them on loopback, on ports of
its own choosing, and the bus finds them through net= or VARNEL_NET."""
import os
import re
import subprocess
import unittest

import can

from buses import RECV_TIMEOUT, expected, fields

ADAPTER = 0x55000170
daemon = None


def setUpModule():
    global daemon
    daemon = subprocess.Popen(
        [os.environ["VARNEL_SIM_PROGRAM"], "--adapter", f"0x{ADAPTER:08X}", "--discovery-port", "0",
         "--tcp-port", "0", "--first-address", "127.0.0.70"],
        stdout=subprocess.PIPE, text=True)
    ports = re.match(r"varnel-sim: discovery on 127\.0\.0\.255:(\d+), TCP port (\d+)",
                     daemon.stdout.readline())
    # the library reads its ports once, at its first network call
    os.environ["VARNEL_NET_DISCOVERY_PORT"], os.environ["VARNEL_NET_TCP_PORT"] = ports.groups()


def tearDownModule():
    daemon.terminate()
    daemon.wait(10)
    daemon.stdout.close()


class NetworkAdapters(unittest.TestCase):
    def test_frames_cross_between_the_channels_of_a_network_adapter(self):
        # the discovery address from the environment (the adapter is then known to the process)
        os.environ["VARNEL_NET"] = "127.0.0.1"
        self.addCleanup(os.environ.pop, "VARNEL_NET")
        receiver = can.Bus(interface="varnel", channel=f"0x{ADAPTER:08X}:1")
        self.addCleanup(receiver.shutdown)
        sender = can.Bus(interface="varnel", channel=f"0x{ADAPTER:08X}:0", net="127.0.0.1")
        self.addCleanup(sender.shutdown)
        msg = can.Message(arbitration_id=0x321, data=[0xCA, 0xFE], is_extended_id=False)
        sender.send(msg)
        self.assertEqual(fields(receiver.recv(RECV_TIMEOUT)), expected(msg, f"0x{ADAPTER:08X}:1"))

    def test_a_network_adapter_that_cannot_be_found_is_refused_with_minus_1(self):
        cases = [
            (ADAPTER + 0x10, "127.0.0.1", "not found on the network of 127.0.0.1"),
            (ADAPTER + 0x20, None, "give net=LOCAL_IP"),
            (ADAPTER + 0x30, "1.2.3", "network scan"),  # not an address: the library's -1
        ]
        for handle, net, text in cases:
            with self.subTest(handle=hex(handle)):
                with self.assertRaises(can.CanInitializationError) as raised:
                    can.Bus(interface="varnel", channel=f"0x{handle:08X}:0", net=net)
                self.assertEqual(raised.exception.error_code, -1)
                self.assertIn(text, str(raised.exception))


if __name__ == "__main__":
    unittest.main()
