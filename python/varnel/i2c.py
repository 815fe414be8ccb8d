"""An I2C channel of an adapter with smbus2's method names: `adapter.i2c(channel)`.

    with varnel.Adapter(0x12345678) as adapter:
        bus = adapter.i2c(0)
        bus.write_i2c_block_data(0x50, 0x00, [1, 2, 3])
        print(bus.read_i2c_block_data(0x50, 0x00, 3))

Words are in SMBus order (low byte first on the bus), as smbus2 has them. A transfer that ends
with the adapter's status (no acknowledge, bus error, PEC mismatch) raises I2cStatusError, any
other failure VarnelError.
"""
import ctypes

from .errors import I2cStatusError, VarnelError
from .library import lib
from .records import IIC_CONFIG, IIC_MAX_ADDRESSES, SMBUS_BLOCK_MAX

_TIMEOUT_MS = 100


def _fits(value, bits):
    # ctypes would silently cut a larger number
    if not 0 <= value < (1 << bits):
        raise ValueError(f"{value} does not fit {bits} bits")
    return value


def _swap(word):
    # the library puts words on the bus high byte first; SMBus wants the low byte first
    return ((word & 0xFF) << 8) | (word >> 8)


def _bytes(data):
    data = bytes(data)
    return (ctypes.c_uint8 * max(len(data), 1)).from_buffer_copy(data or b"\0"), len(data)


class i2c_msg:  # noqa: N801 - smbus2's name
    """One message of i2c_rdwr: i2c_msg.write(address, data) or i2c_msg.read(address, length)."""

    def __init__(self, addr, read, data, length):
        self.addr, self.read_flag, self.buf, self.len = addr, read, bytes(data), length

    @staticmethod
    def write(addr, data):
        return i2c_msg(addr, False, data, len(data))

    @staticmethod
    def read(addr, length):
        return i2c_msg(addr, True, b"", length)

    def __iter__(self):
        return iter(self.buf)


class I2cBus:
    def __init__(self, adapter, channel, clock_hz=100000, pec=False):
        self.adapter, self.channel, self.pec = adapter, channel, pec
        config = IIC_CONFIG(ClockSpeedHz=_fits(clock_hz, 32), Master=1, AddrBits=7)
        try:
            self._channel_call("IIC_Init", ctypes.byref(config))
        except I2cStatusError:
            raise
        except VarnelError as error:
            raise error.about({"channel": channel}) from None

    def _channel_call(self, name, *args):
        self.adapter.require_open(name)
        return getattr(lib(), name)(self.adapter.handle, _fits(self.channel, 8), *args)

    def _call(self, name, addr, *args):
        self.adapter.require_open(name)
        return getattr(lib(), name)(self.adapter.handle, self.channel, _fits(addr, 16), *args)

    def scan(self):
        """The addresses that acknowledge an empty write, ascending."""
        found = (ctypes.c_uint16 * IIC_MAX_ADDRESSES)()
        return list(found[: self._channel_call("IIC_GetSlaveAddr", found)])

    def write_quick(self, addr):
        self._call("SMBUS_QuickCommand", addr, 1)

    def read_byte(self, addr):
        value = ctypes.c_uint8()
        self._call("SMBUS_ReadByte", addr, ctypes.byref(value), self.pec)
        return value.value

    def write_byte(self, addr, value):
        self._call("SMBUS_WriteByte", addr, _fits(value, 8), self.pec)

    def read_byte_data(self, addr, register):
        value = ctypes.c_uint8()
        self._call("SMBUS_ReadByteProtocol", addr, _fits(register, 8), ctypes.byref(value),
                   self.pec)
        return value.value

    def write_byte_data(self, addr, register, value):
        self._call("SMBUS_WriteByteProtocol", addr, _fits(register, 8), _fits(value, 8), self.pec)

    def read_word_data(self, addr, register):
        value = ctypes.c_uint16()
        self._call("SMBUS_ReadWordProtocol", addr, _fits(register, 8), ctypes.byref(value),
                   self.pec)
        return _swap(value.value)

    def write_word_data(self, addr, register, value):
        self._call("SMBUS_WriteWordProtocol", addr, _fits(register, 8), _swap(_fits(value, 16)),
                   self.pec)

    def process_call(self, addr, register, value):
        result = ctypes.c_uint16()
        self._call("SMBUS_ProcessCall", addr, _fits(register, 8), _swap(_fits(value, 16)),
                   ctypes.byref(result), self.pec)
        return _swap(result.value)

    def read_block_data(self, addr, register):
        out, count = (ctypes.c_uint8 * SMBUS_BLOCK_MAX)(), ctypes.c_uint32()
        self._call("SMBUS_BlockRead", addr, _fits(register, 8), out, ctypes.byref(count), self.pec)
        return list(out[: count.value])

    def write_block_data(self, addr, register, data):
        buffer, length = _bytes(data)
        self._call("SMBUS_BlockWrite", addr, _fits(register, 8), buffer, length, self.pec)

    def block_process_call(self, addr, register, data):
        buffer, length = _bytes(data)
        out, count = (ctypes.c_uint8 * SMBUS_BLOCK_MAX)(), ctypes.c_uint32()
        self._call("SMBUS_BlockProcessCall", addr, _fits(register, 8), buffer, length, out,
                   ctypes.byref(count), self.pec)
        return list(out[: count.value])

    def read_i2c_block_data(self, addr, register, length):
        """`length` bytes from `register` on: a write of the register, a repeated start, a read."""
        return self._write_read(addr, [_fits(register, 8)], length)

    def write_i2c_block_data(self, addr, register, data):
        buffer, length = _bytes([_fits(register, 8)] + list(data))
        self._call("IIC_WriteBytes", addr, buffer, length, _TIMEOUT_MS)

    def i2c_rdwr(self, *messages):
        """Runs the messages in order; a write followed by a read of the same address is one
        transfer with a repeated start. Read messages get their data in .buf."""
        i = 0
        while i < len(messages):
            m = messages[i]
            following = messages[i + 1] if i + 1 < len(messages) else None
            if not m.read_flag and following and following.read_flag and following.addr == m.addr:
                following.buf = bytes(self._write_read(m.addr, m.buf, following.len))
                i += 2
                continue
            if m.read_flag:
                out = (ctypes.c_uint8 * max(_fits(m.len, 31), 1))()
                self._call("IIC_ReadBytes", m.addr, out, m.len, _TIMEOUT_MS)
                m.buf = bytes(out[: m.len])
            else:
                buffer, length = _bytes(m.buf)
                self._call("IIC_WriteBytes", m.addr, buffer, length, _TIMEOUT_MS)
            i += 1

    def _write_read(self, addr, data, length):
        buffer, write_length = _bytes(data)
        out = (ctypes.c_uint8 * max(_fits(length, 31), 1))()
        self._call("IIC_WriteReadBytes", addr, buffer, write_length, out, length, _TIMEOUT_MS)
        return list(out[:length])
