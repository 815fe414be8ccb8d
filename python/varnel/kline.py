"""KWP2000 on a channel's K-line: `adapter.kline(channel)`.

    with varnel.Adapter(0x12345678) as adapter:
        kline = adapter.kline(0)                       # target 0x10, tester 0xF1
        print(kline.fast_init().hex(" "))              # StartCommunication: c1 ef 8f
        print(kline.request(bytes.fromhex("1A90")))    # the final positive response
        kline.five_baud_init(0x33)                     # (KB1, KB2), about 2.5 s on the wire

Requests are SID and data; they go out as KWP2000 frames with the addresses (or without, with
addresses=False). `request` waits through "response pending" (7F xx 78) and raises
NegativeResponse for a negative answer; a failed call raises VarnelError with its code (-5 no
response before the time-out, -6 wrong sync byte, inverted address or an incomplete response, -7
echo missing or different, -8 checksum error).
"""
import ctypes

from .library import lib
from .records import KLINE_DATA_SIZE, KWP_MSG
from .uds import _Requests

_START_COMMUNICATION = b"\x81"


class KLine(_Requests):
    def __init__(self, adapter, channel, target=0x10, source=0xF1, addresses=True, p4_ms=5):
        self.adapter, self.channel = adapter, channel
        self.target, self.source, self.addresses, self.p4_ms = target, source, addresses, p4_ms

    def _call(self, name, *args):
        self.adapter.require_open(name)
        return getattr(lib(), name)(self.adapter.handle, self.channel, *args)

    def _record(self, data):
        data = bytes(data)
        if not 1 <= len(data) <= 1 + KLINE_DATA_SIZE:
            raise ValueError("a request is SID and up to %d data bytes" % KLINE_DATA_SIZE)
        m = KWP_MSG()
        m.Fmt = (0x80 if self.addresses else 0) | (len(data) if len(data) <= 63 else 0)
        m.Tgt, m.Src, m.Len, m.SID, m.P4 = self.target, self.source, len(data), data[0], self.p4_ms
        m.Data[:len(data) - 1] = list(data[1:])
        return m

    @staticmethod
    def _message(m):
        return bytes([m.SID]) + bytes(m.Data[:max(m.Len - 1, 0)])

    @property
    def wakeup_pin(self):
        """The digital output (bit of the DIO_ masks) drawing this channel's wake-up patterns:
        pin `channel` unless set; an extension (see docs/kline.md)."""
        return self._call("VARNEL_KLINE_GetWakeupPin")

    @wakeup_pin.setter
    def wakeup_pin(self, pin):
        self._call("VARNEL_KLINE_SetWakeupPin", pin)

    def init(self, baud=10400, mode=1):
        """Configures the channel's UART (mode 0 'R', 2 'Z', others 'B')."""
        self._call("KWP_Init", baud, mode)

    def fast_init(self, request=_START_COMMUNICATION, baud=10400, timeout=1.0):
        """The fast-init pattern, then `request`; returns the unit's response (SID and data)."""
        init, req, resp = KWP_MSG(), self._record(request), KWP_MSG()
        self._call("KWP_FastInit", baud, ctypes.byref(init), ctypes.byref(req),
                   ctypes.byref(resp), int(timeout * 1000))
        return self._message(resp)

    def five_baud_init(self, address, baud=10400, timeout=1.0):
        """Sends `address` at 5 baud; returns the unit's key bytes (KB1, KB2)."""
        m = KWP_MSG()
        m.Tgt = address
        self._call("KWP_5BaudInit", baud, ctypes.byref(m), int(timeout * 1000))
        return m.Data[1], m.Data[2]

    def send(self, data):
        """Sends one request (SID and data)."""
        m = self._record(data)
        self._call("KWP_Request", ctypes.byref(m))

    def receive(self, timeout=1.0):
        """The next response frame's SID and data."""
        m = KWP_MSG()
        self._call("KWP_Response", ctypes.byref(m), int(timeout * 1000))
        return self._message(m)

    response = receive
