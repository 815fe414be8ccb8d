"""Diagnostic requests over ISO-TP on a CAN channel: `adapter.uds(channel, txid, rxid)`.

    with varnel.Adapter(0x12345678) as adapter:
        ecu = adapter.uds(0, 0x7E0, 0x7E8)
        print(ecu.request(bytes.fromhex("22F190")).hex(" "))

`request` sends one message and returns the final response, waiting through "response pending"
answers (7F xx 78); a negative response raises NegativeResponse, a transport failure VarnelError
(-101 no flow control or no response in time, -103 out of sequence, -105 not ISO-TP, -107 the ECU
overflowed).

`Client(transport)` puts the services on top, with udsoncan's method names, and `flash()` runs a
whole reprogramming (see docs/uds.md):

    client = varnel.uds.Client(adapter.uds(0, 0x7E0, 0x7E8))
    client.change_session(3)
    print(client.read_data_by_identifier(0xF190))
    client.flash([(0x20000, image)], verify=True, progress=print)

Flow control is read as ISO 15765-2 reads it unless `iso_timing=False` (STmin F1-F9 are
100-900 us, a reserved STmin 127 ms, and each "wait" frame starts the wait again); the library's
calls alone keep the adapter's own reading.
"""
import ctypes
import zlib

from .library import lib
from .records import CAN_UDS_ADDR, CAN_UDS_CONFIG, LIN_UDS_ADDR

_RESPONSE_LIMIT = 1 << 20
_PENDING = 0x78
_PENDING_TIMEOUT_MS = 5000  # P2*: how long an ECU that said "pending" may take


# Negative response codes of ISO 14229-1.
NRC_NAMES = {
    0x10: "generalReject", 0x11: "serviceNotSupported", 0x12: "subFunctionNotSupported",
    0x13: "incorrectMessageLengthOrInvalidFormat", 0x14: "responseTooLong",
    0x21: "busyRepeatRequest", 0x22: "conditionsNotCorrect", 0x24: "requestSequenceError",
    0x25: "noResponseFromSubnetComponent", 0x26: "failurePreventsExecutionOfRequestedAction",
    0x31: "requestOutOfRange", 0x33: "securityAccessDenied", 0x35: "invalidKey",
    0x36: "exceedNumberOfAttempts", 0x37: "requiredTimeDelayNotExpired",
    0x70: "uploadDownloadNotAccepted", 0x71: "transferDataSuspended",
    0x72: "generalProgrammingFailure", 0x73: "wrongBlockSequenceCounter",
    0x78: "requestCorrectlyReceived-ResponsePending",
    0x7E: "subFunctionNotSupportedInActiveSession", 0x7F: "serviceNotSupportedInActiveSession",
}


class NegativeResponse(Exception):
    """The ECU refused: `service` is the request's service identifier, `code` the negative
    response code (ISO 14229-1), `name` that code's name."""

    def __init__(self, service, code):
        self.service, self.code = service, code
        self.name = NRC_NAMES.get(code, "unknown negative response code")
        super().__init__(f"negative response to service 0x{service:02X}: 0x{code:02X} "
                         f"({self.name})")


class UnexpectedResponse(Exception):
    """A positive answer that is not the one the request asks for (another identifier, a block
    counter not echoed, a check value that differs)."""


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


def key_rotate7(seed):
    """The virtual ECU's default key routine: the 4-byte seed rotated left by 7 bits, XOR
    0x5A5AA5A5."""
    s = int.from_bytes(seed, "big")
    return ((((s << 7) | (s >> 25)) & 0xFFFFFFFF) ^ 0x5A5AA5A5).to_bytes(4, "big")


class Client:
    """The UDS services over a transport with request() (UdsClient, LinUdsClient), named as
    udsoncan's client names them. Each returns the positive response's data (after the service
    and echoed parameters); a negative response raises NegativeResponse."""

    def __init__(self, transport, timeout=1.0):
        self.transport, self.timeout = transport, timeout

    def _request(self, data, echo=1):
        response = self.transport.request(bytes(data), self.timeout)
        if not response or response[0] != data[0] + 0x40 or response[1:echo] != bytes(data[1:echo]):
            raise UnexpectedResponse(f"answer {response.hex(' ')} to {bytes(data[:echo]).hex(' ')}")
        return response[echo:]

    def change_session(self, session):
        return self._request([0x10, session], 2)

    def ecu_reset(self, reset_type=1):
        return self._request([0x11, reset_type], 2)

    def tester_present(self):
        self._request([0x3E, 0x00], 2)

    def unlock_security_access(self, level=1, key_routine=key_rotate7):
        """Seed (level), key (level + 1) through `key_routine(seed) -> key bytes`; a seed of
        zeros means unlocked already."""
        seed = self._request([0x27, level], 2)
        if any(seed):
            self._request([0x27, level + 1] + list(key_routine(seed)), 2)

    def read_data_by_identifier(self, did):
        return self._request([0x22, did >> 8, did & 0xFF], 3)

    def write_data_by_identifier(self, did, value):
        self._request([0x2E, did >> 8, did & 0xFF] + list(value), 3)

    def get_dtc_by_status_mask(self, mask=0xFF):
        """[(dtc, status)] with the 3-byte DTC as an int."""
        data = self._request([0x19, 0x02, mask], 2)[1:]  # after the availability mask
        return [(int.from_bytes(data[i:i + 3], "big"), data[i + 3]) for i in range(0, len(data) - 3, 4)]

    def clear_dtc(self, group=0xFFFFFF):
        self._request([0x14] + list(group.to_bytes(3, "big")))

    def routine_control(self, routine_id, control_type=1, data=b""):
        return self._request([0x31, control_type, routine_id >> 8, routine_id & 0xFF] + list(data), 4)

    def request_download(self, address, size, address_bytes=4, size_bytes=4):
        """34 without compression or encryption; the ECU's maxNumberOfBlockLength."""
        request = [0x34, 0x00, size_bytes << 4 | address_bytes]
        request += list(address.to_bytes(address_bytes, "big")) + list(size.to_bytes(size_bytes, "big"))
        data = self._request(request)
        count = data[0] >> 4 if data else 0
        if not 1 <= count <= 4 or len(data) != 1 + count:
            raise UnexpectedResponse(f"request download answered {data.hex(' ')}")
        return int.from_bytes(data[1:], "big")

    def transfer_data(self, sequence_number, data=b""):
        return self._request([0x36, sequence_number] + list(data), 2)

    def request_transfer_exit(self, data=b""):
        return self._request([0x37] + list(data))

    def read_memory_by_address(self, address, size, address_bytes=4, size_bytes=4):
        request = [0x23, size_bytes << 4 | address_bytes]
        request += list(address.to_bytes(address_bytes, "big")) + list(size.to_bytes(size_bytes, "big"))
        return self._request(request)

    def flash(self, image, key_routine=key_rotate7, erase_routine=0xFF00, check_routine=0x0202,
              verify=False, progress=None):
        """Reprograms the ECU with `image`, segments as (address, bytes): extended session,
        security access, programming session, every segment erased, then each downloaded (34,
        36 in blocks of maxNumberOfBlockLength with the counter wrapping FF to 00, 37) and
        checked (the ECU's CRC-32 of the range against the image's), read back with 23 when
        `verify`, and an ECU reset. `progress(done, total)` after each block."""
        segments = [(address, bytes(data)) for address, data in image]
        total, done = sum(len(data) for _, data in segments), 0
        self.change_session(3)
        self.unlock_security_access(key_routine=key_routine)
        self.change_session(2)
        self.unlock_security_access(key_routine=key_routine)  # an ECU that locked on the change
        span = lambda address, data: address.to_bytes(4, "big") + len(data).to_bytes(4, "big")
        for address, data in segments:
            self.routine_control(erase_routine, 1, span(address, data))
        for address, data in segments:
            per_block = self.request_download(address, len(data)) - 2
            if per_block < 1:
                raise UnexpectedResponse("a maxNumberOfBlockLength with no room for data")
            for index, at in enumerate(range(0, len(data), per_block)):
                counter = (index + 1) & 0xFF
                self.transfer_data(counter, data[at:at + per_block])
                done += len(data[at:at + per_block])
                if progress:
                    progress(done, total)
            self.request_transfer_exit()
            status = self.routine_control(check_routine, 1, span(address, data))
            if status != zlib.crc32(data).to_bytes(4, "big"):
                raise UnexpectedResponse(f"check at 0x{address:08X}: the ECU's CRC-32 "
                                         f"{status.hex()}, the image's {zlib.crc32(data):08X}")
            if verify:
                back = b"".join(self.read_memory_by_address(address + at, len(data[at:at + per_block]))
                                for at in range(0, len(data), per_block))
                if back != data:
                    raise UnexpectedResponse(f"read-back of 0x{address:08X} differs")
        self.ecu_reset(1)
