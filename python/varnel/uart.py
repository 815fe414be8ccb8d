"""A UART channel of an adapter, shaped like pyserial's Serial: `adapter.uart(channel)`.

    with varnel.Adapter(0x12345678) as adapter:
        with adapter.uart(0, baudrate=9600, timeout=0.5) as port:
            port.write(b"AT\\r\\n")
            print(port.readline())         # up to the line feed, waiting at most 0.5 s

`read(size)` returns when `size` bytes came or the time-out passed; bytes the adapter handed over
beyond what a read takes are kept for the next one. Setting `baudrate`, `parity` or `stopbits`
configures the channel again. A failed call raises VarnelError with its code.
"""
import ctypes
import time

from .library import lib
from .records import UART_CONFIG, UART_MAX_LENGTH, UART_READ_SIZE

PARITY_NONE, PARITY_ODD, PARITY_EVEN = "N", "O", "E"
BREAK_BITS_MAX = 255  # the break byte of the adapter's write counts bit times
_PARITY_CODES = {PARITY_NONE: 0, PARITY_ODD: 1, PARITY_EVEN: 2}


def _buffer(data):
    data = bytes(data)
    return (ctypes.c_uint8 * max(len(data), 1)).from_buffer_copy(data or b"\0"), len(data)


def _check_framing(parity, stopbits):
    if parity not in _PARITY_CODES or stopbits not in (1, 2):
        raise ValueError(f"unsupported framing: parity {parity!r}, {stopbits} stop bits")


def _chunks(data):
    data = bytes(data)
    for at in range(0, len(data), UART_MAX_LENGTH):
        yield data[at:at + UART_MAX_LENGTH]


class Uart:
    """`timeout` in seconds as pyserial has it (None: read waits until `size` bytes came).
    `mode` is the configuration's mode byte: 0, or a K-line letter such as b"B"."""

    def __init__(self, adapter, channel, baudrate=115200, parity=PARITY_NONE, stopbits=1,
                 mode=0, timeout=1.0):
        _check_framing(parity, stopbits)
        self.adapter, self.channel, self.timeout = adapter, channel, timeout
        self._pending = bytearray()
        self._baudrate, self._parity, self._stopbits = baudrate, parity, stopbits
        self._mode = mode[0] if isinstance(mode, (bytes, bytearray)) else mode
        self.is_open = False
        self.open()

    def _configure(self):
        config = UART_CONFIG(BaudRate=self._baudrate, Parity=_PARITY_CODES[self._parity],
                             StopBits=self._stopbits, Mode=self._mode)
        self._call("UART_Init", ctypes.byref(config))

    def _reconfigure(self, baudrate=None, parity=None, stopbits=None):
        # a closed port keeps the settings for open(); the old ones stay when the adapter refuses
        before = self._baudrate, self._parity, self._stopbits
        after = (self._baudrate if baudrate is None else baudrate,
                 self._parity if parity is None else parity,
                 self._stopbits if stopbits is None else stopbits)
        _check_framing(*after[1:])
        self._baudrate, self._parity, self._stopbits = after
        if not self.is_open:
            return
        try:
            self._configure()
        except Exception:
            self._baudrate, self._parity, self._stopbits = before
            raise

    def open(self):
        """Configures the channel again after close()."""
        if not self.is_open:
            self._configure()
            self.is_open = True

    @property
    def baudrate(self):
        return self._baudrate

    @baudrate.setter
    def baudrate(self, value):
        if not isinstance(value, int) or not 0 < value <= 0xFFFFFFFF:
            raise ValueError(f"baud rate {value!r}: expected a positive number of bit/s")
        self._reconfigure(baudrate=value)

    @property
    def parity(self):
        return self._parity

    @parity.setter
    def parity(self, value):
        self._reconfigure(parity=value)

    @property
    def stopbits(self):
        return self._stopbits

    @stopbits.setter
    def stopbits(self, value):
        self._reconfigure(stopbits=value)

    @property
    def timeout(self):
        """Seconds a read waits (None: until its bytes came; 0: what has arrived)."""
        return self._timeout

    @timeout.setter
    def timeout(self, value):
        if value is not None and value < 0:
            raise ValueError(f"timeout {value!r}: expected None or seconds >= 0")
        self._timeout = value

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
        return self._read(lambda pending: size if len(pending) >= size else None, timeout)

    def read_until(self, expected=b"\n", size=None):
        """Bytes up to and with `expected`, or `size` bytes, or what came within the time-out;
        what follows `expected` stays for the next read."""
        expected = bytes(expected)

        def end(pending):
            at = pending.find(expected)
            if at >= 0 and (size is None or at + len(expected) <= size):
                return at + len(expected)
            return size if size is not None and len(pending) >= size else None

        return self._read(end, None)

    def readline(self, size=-1):
        """A line up to and with b"\\n" (at most `size` bytes when size >= 0)."""
        return self.read_until(b"\n", None if size is None or size < 0 else size)

    def _read(self, end_of, timeout):
        # `end_of(pending)`: how many bytes make the answer, or None to wait for more
        timeout = self.timeout if timeout is None else timeout
        deadline = None if timeout is None else time.monotonic() + timeout
        polled = False
        while (count := end_of(self._pending)) is None:
            # at least one poll, also when the time is up: what has arrived is handed over
            if polled and deadline is not None and time.monotonic() >= deadline:
                count = len(self._pending)
                break
            left = 1.0 if deadline is None else max(0.0, deadline - time.monotonic())
            self._poll(left * 1000)
            polled = True
        out, self._pending = bytes(self._pending[:count]), self._pending[count:]
        return out

    def reset_input_buffer(self):
        """Drops what was received so far, here and on the adapter."""
        self._pending.clear()
        self._call("UART_ClearData")

    def flush(self):
        """Returns when every byte written so far has gone out, also those of write(wait=False):
        an empty write that waits, which the adapter answers once its transmitter is free."""
        self._call("UART_WriteBytes", *_buffer(b""))

    def send_break(self, duration=0.25):
        """Holds the line low for `duration` seconds, as far as the adapter can: its break is 1 to
        255 bit times at the channel's baud rate (2.2 ms at 115200), so a longer one is cut to
        that. Every receiver sees a break; a device that wants the line low for longer does
        not. Returns when the break (and the one bit of line high after it) is over."""
        bits = max(1, min(BREAK_BITS_MAX, round(duration * self._baudrate)))
        self._call("UART_WriteBytesWithBreak", bits, *_buffer(b""))
