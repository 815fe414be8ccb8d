"""Diagnostic requests over ISO-TP on a CAN channel: `adapter.uds(channel, txid, rxid)`.

    with varnel.Adapter(0x12345678) as adapter:
        ecu = adapter.uds(0, 0x7E0, 0x7E8)
        print(ecu.request(bytes.fromhex("22F190")).hex(" "))

`request` sends one message and returns the final response, waiting through "response pending"
answers (7F xx 78); a negative response raises NegativeResponse, a transport failure VarnelError
(-101 no flow control or no response in time, -103 out of sequence, -105 not ISO-TP, -107 the ECU
overflowed).

Flow control is read as ISO 15765-2 reads it unless `iso_timing=False` (STmin F1-F9 are
100-900 us, a reserved STmin 127 ms, and each "wait" frame starts the wait again); the library's
calls alone keep the adapter's own reading.
"""
import ctypes

from .library import lib
from .records import CAN_UDS_ADDR, CAN_UDS_CONFIG, LIN_UDS_ADDR

_RESPONSE_LIMIT = 1 << 20
_PENDING = 0x78
_PENDING_TIMEOUT_MS = 5000  # P2*: how long an ECU that said "pending" may take


class NegativeResponse(Exception):
    """The ECU refused: `service` is the request's service identifier, `code` the negative
    response code (ISO 14229-1)."""

    def __init__(self, service, code):
        self.service, self.code = service, code
        super().__init__(f"negative response to service 0x{service:02X}: 0x{code:02X}")


class _Requests:
    """request() on top of a transport's send() and receive()."""

    def request(self, data, timeout=1.0):
        """Sends a request and returns the ECU's final positive response."""
        self.send(data)
        while True:
            response = self.receive(timeout)
            if len(response) == 3 and response[0] == 0x7F:
                if response[2] == _PENDING:
                    timeout = max(timeout, _PENDING_TIMEOUT_MS / 1000)
                    continue
                raise NegativeResponse(response[1], response[2])
            return response


class UdsClient(_Requests):
    def __init__(self, adapter, channel, txid, rxid, extended_address=None, fd=False, brs=False,
                 stmin=0, block_size=0, fill=0xCC, iso_timing=True):
        self.adapter, self.channel = adapter, channel
        extended = txid > 0x7FF or rxid > 0x7FF
        flags = (0x01 if extended else 0) | (0x02 if fd or brs else 0) | (0x04 if brs else 0)
        self._addr = CAN_UDS_ADDR(txid, rxid, flags, extended_address is not None,
                                  extended_address or 0, 64 if fd or brs else 8)
        config = CAN_UDS_CONFIG(STmin=stmin, BlockSize=block_size, FillByte=fill)
        self._call("CAN_UDS_Config", ctypes.byref(config))
        self._call("VARNEL_CAN_UDS_SetIsoTiming", int(bool(iso_timing)))

    def _call(self, name, *args):
        self.adapter.require_open(name)
        return getattr(lib(), name)(self.adapter.handle, self.channel, *args)

    def send(self, data):
        """Sends one message (any length up to 4 GiB), segmented as needed."""
        data = bytes(data)
        buffer = (ctypes.c_uint8 * max(len(data), 1)).from_buffer_copy(data or b"\0")
        self._call("CAN_UDS_Request", ctypes.byref(self._addr), buffer, len(data))

    def receive(self, timeout=1.0):
        """The next whole message from the ECU's identifier, as bytes."""
        buffer = (ctypes.c_uint8 * _RESPONSE_LIMIT)()
        n = self._call("VARNEL_CAN_UDS_ResponseN", ctypes.byref(self._addr), buffer,
                       _RESPONSE_LIMIT, int(timeout * 1000))
        return bytes(buffer[:n])


class LinUdsClient(_Requests):
    """Diagnostic requests to the LIN node `nad` over a master channel (the LIN diagnostic
    transport: master requests on 3C, slave responses on 3D, classic checksums)."""

    def __init__(self, lin_channel, nad, frame_spacing_ms=0):
        self.lin = lin_channel
        self._addr = LIN_UDS_ADDR(0x3C, 0x3D, nad, 0, frame_spacing_ms)

    def send(self, data):
        """Sends one message of up to 4095 bytes (longer ones are cut to 4095)."""
        data = bytes(data)
        buffer = (ctypes.c_uint8 * max(len(data), 1)).from_buffer_copy(data or b"\0")
        self.lin._call("LIN_UDS_Request", ctypes.byref(self._addr), buffer, len(data))

    def receive(self, timeout=1.0):
        buffer = (ctypes.c_uint8 * _RESPONSE_LIMIT)()
        n = self.lin._call("VARNEL_LIN_UDS_ResponseN", ctypes.byref(self._addr), buffer,
                           _RESPONSE_LIMIT, int(timeout * 1000))
        return bytes(buffer[:n])
