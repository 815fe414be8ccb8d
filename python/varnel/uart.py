"""A UART channel of an adapter, shaped like pyserial's Serial: `adapter.uart(channel)`.

    with varnel.Adapter(0x12345678) as adapter:
        with adapter.uart(0, baudrate=9600, timeout=0.5) as port:
            port.write(b"AT\\r\\n")
            print(port.read(64))           # up to 64 bytes, waiting at most 0.5 s

`read(size)` returns when `size` bytes came or the time-out passed; bytes the adapter handed over
beyond `size` are kept for the next read. A failed call raises VarnelError with its code.
"""
import ctypes
import time

from .library import lib
from .records import UART_CONFIG, UART_MAX_LENGTH, UART_READ_SIZE

PARITY_NONE, PARITY_ODD, PARITY_EVEN = "N", "O", "E"
_PARITY_CODES = {PARITY_NONE: 0, PARITY_ODD: 1, PARITY_EVEN: 2}


def _buffer(data):
    data = bytes(data)
    return (ctypes.c_uint8 * max(len(data), 1)).from_buffer_copy(data or b"\0"), len(data)


def _chunks(data):
    data = bytes(data)
    for at in range(0, len(data), UART_MAX_LENGTH):
        yield data[at:at + UART_MAX_LENGTH]


class Uart:
    """`timeout` in seconds as pyserial has it (None: read waits until `size` bytes came).
    `mode` is the configuration's mode byte: 0, or a K-line letter such as b"B"."""

    def __init__(self, adapter, channel, baudrate=115200, parity=PARITY_NONE, stopbits=1,
                 mode=0, timeout=1.0):
        if parity not in _PARITY_CODES or stopbits not in (1, 2):
            raise ValueError(f"unsupported framing: parity {parity!r}, {stopbits} stop bits")
        self.adapter, self.channel, self.timeout = adapter, channel, timeout
        self._pending = bytearray()
        mode = mode[0] if isinstance(mode, (bytes, bytearray)) else mode
        config = UART_CONFIG(BaudRate=baudrate, Parity=_PARITY_CODES[parity], StopBits=stopbits,
                             Mode=mode)
        self._call("UART_Init", ctypes.byref(config))
        self.is_open = True

    def _call(self, name, *args):
        self.adapter.require_open(name)
        return getattr(lib(), name)(self.adapter.handle, self.channel, *args)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def close(self):
        """Stops the channel (UART_Stop)."""
        if self.is_open:
            self.is_open = False
            self._call("UART_Stop")

    def write(self, data, wait=True):
        """Sends the bytes: returns when they are out, or at once with wait=False. Their count."""
        name = "UART_WriteBytes" if wait else "UART_WriteBytesAsync"
        for chunk in _chunks(data):
            self._call(name, *_buffer(chunk))
        return len(data)

    def write_with_break(self, data, break_bits=13):
        """A break of `break_bits` bit times, then the bytes."""
        self._call("UART_WriteBytesWithBreak", break_bits, *_buffer(data))

    def write_paced(self, data, interval_ms=0, interval_us=0):
        """The bytes with a pause between them, of interval_ms or else interval_us (at most 255)."""
        if interval_ms:
            self._call("UART_WriteBytesInterval", *_buffer(data), interval_ms)
        else:
            self._call("UART_WriteBytesIntervalUs", *_buffer(data), interval_us)

    def write_read(self, data, size, timeout_ms, break_bits=0):
        """Break, bytes, then what comes back within timeout_ms, up to `size` bytes."""
        out = (ctypes.c_uint8 * max(size, 1))()
        count = self._call("UART_WriteReadBytesWithBreak", break_bits, *_buffer(data), out, size,
                           timeout_ms)
        return bytes(out[:count])

    def _poll(self, timeout_ms):
        buffer = (ctypes.c_uint8 * UART_READ_SIZE)()
        count = self._call("UART_ReadBytes", buffer, int(timeout_ms))
        self._pending += bytes(buffer[:count])
        return count

    @property
    def in_waiting(self):
        """Bytes ready to read now (asks the adapter once)."""
        self._poll(0)
        return len(self._pending)

    def read(self, size=1, timeout=None):
        """Up to `size` bytes: returns when they came or `timeout` (else self.timeout) passed."""
        timeout = self.timeout if timeout is None else timeout
        deadline = None if timeout is None else time.monotonic() + timeout
        while len(self._pending) < size:
            if deadline is None:
                self._poll(1000)
                continue
            # at least one poll, also when the time is up: what has arrived is handed over
            if self._poll(max(0.0, (deadline - time.monotonic()) * 1000)) == 0:
                break
        out, self._pending = bytes(self._pending[:size]), self._pending[size:]
        return out

    def reset_input_buffer(self):
        """Drops what was received so far, here and on the adapter."""
        self._pending.clear()
        self._call("UART_ClearData")
