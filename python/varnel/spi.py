"""An SPI port and its SPI NOR flash: `adapter.spi(channel)`.

    with varnel.Adapter(0x12345678) as adapter:
        port = adapter.spi(0)
        print(port.transfer(b"\\x9f", 3).hex())      # write, then read 3 bytes
        flash = port.flash()                         # the common NOR commands
        flash.erase(0, 4096)
        flash.write(0, b"hello")
        print(flash.read(0, 5))

A failed call raises VarnelError with its code (-6: the flash stayed busy).
"""
import ctypes

from .library import lib
from .records import SPI_CONFIG, SPI_FLASH_CONFIG

_ERASE_TIMEOUT_MS = 5000


def _buffer(data):
    data = bytes(data)
    return (ctypes.c_uint8 * max(len(data), 1)).from_buffer_copy(data or b"\0"), len(data)


class SpiPort:
    def __init__(self, adapter, channel, clock_hz=10000000, mode=0):
        self.adapter, self.channel, self.clock_hz = adapter, channel, clock_hz
        self._call("SPI_Init", ctypes.byref(SPI_CONFIG(Mode=mode, Master=1, ClockSpeedHz=clock_hz)))

    def _call(self, name, *args):
        self.adapter.require_open(name)
        return getattr(lib(), name)(self.adapter.handle, self.channel, *args)

    def write(self, data):
        self._call("SPI_WriteBytes", *_buffer(data))

    def read(self, length):
        out = (ctypes.c_uint8 * max(length, 1))()
        self._call("SPI_ReadBytes", out, length)
        return bytes(out[:length])

    def transfer(self, data, read_length, interval_us=0):
        """Writes `data`, then reads `read_length` bytes."""
        out = (ctypes.c_uint8 * max(read_length, 1))()
        self._call("SPI_WriteReadBytes", *_buffer(data), out, read_length, interval_us)
        return bytes(out[:read_length])

    def write_bits(self, bits):
        """`bits`: a text of 0 and 1, first bit first."""
        self._call("SPI_WriteBits", bits.encode("ascii"))

    def read_bits(self, count):
        out = ctypes.create_string_buffer(count + 1)
        self._call("SPI_ReadBits", out, count)
        return out.value.decode("ascii")

    def flash(self, size=1 << 20):
        """The SPI NOR flash on this port's chip select, with the common NOR commands."""
        return SpiFlash(self, size)


class SpiFlash:
    def __init__(self, port, size):
        self.port, self.size = port, size
        config = SPI_FLASH_CONFIG()
        lib().VARNEL_SPI_NorFlashConfig(ctypes.byref(config), size)
        port._call("SPI_FlashInit", port.clock_hz, ctypes.byref(config))

    def read_id(self):
        out = (ctypes.c_uint8 * 8)()
        self.port._call("SPI_FlashReadID", out)
        return bytes(out[:3])

    def read(self, address, length):
        out = (ctypes.c_uint8 * max(length, 1))()
        self.port._call("SPI_FlashRead", address, out, length)
        return bytes(out[:length])

    def write(self, address, data):
        """Programs erased cells (erase first: programming only clears bits)."""
        self.port._call("SPI_FlashWrite", address, *_buffer(data))

    def erase(self, address, length, timeout_ms=_ERASE_TIMEOUT_MS):
        """Erases every 4 KiB sector the range touches."""
        self.port._call("SPI_FlashErase", address, length, timeout_ms)

    def erase_chip(self, timeout_ms=20 * _ERASE_TIMEOUT_MS):
        self.port._call("SPI_FlashEraseChip", timeout_ms)
