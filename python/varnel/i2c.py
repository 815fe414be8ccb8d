"""An I2C channel of an adapter, used as smbus2's SMBus is used: `adapter.i2c(channel)`, or
`varnel.SMBus("HANDLE:CHANNEL")` (varnel.smbus), which opens the adapter itself and closes it
with the bus.

    with varnel.SMBus("0x12345678:0") as bus:
        bus.write_i2c_block_data(0x50, 0x00, [1, 2, 3])
        print(bus.read_i2c_block_data(0x50, 0x00, 3))

The methods take smbus2's names and keywords (`i2c_addr`, `register`, `value`, `data`, `length`,
`force`); words are in SMBus order (low byte first on the bus), as smbus2 has them. `force` is
accepted and has nothing to do: no kernel driver holds an address here. `pec` (or
`enable_pec()`) adds the packet error code to the SMBus transfers, as Linux does: not to quick
commands nor to the plain I2C block transfers.

A failed transfer raises I2cError, an OSError: errno ENXIO when no device acknowledged the
address, EIO otherwise (I2cStatusError when the adapter reported a status), so that

    for address in range(0x08, 0x78):
        try:
            bus.read_byte(address)
        except OSError:
            continue

scans as it does with smbus2.
"""
import ctypes

from .errors import I2cError, VarnelError
from .library import lib
from .records import IIC_CONFIG, IIC_MAX_ADDRESSES, SMBUS_BLOCK_MAX

_TIMEOUT_MS = 100
I2C_M_RD = 0x0001  # a read message of i2c_rdwr, as Linux flags it


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
    """One message of i2c_rdwr, as smbus2 builds them: i2c_msg.write(address, buf) or
    i2c_msg.read(address, length). After the transfer, list(msg) and bytes(msg) give a read's
    data."""

    def __init__(self, addr, flags, buf, length):
        self.addr, self.flags, self.buf, self.len = addr, int(flags), bytes(buf), length

    @property
    def read_flag(self):
        return bool(self.flags & I2C_M_RD)

    @staticmethod
    def write(address, buf):
        buf = bytes(map(ord, buf)) if isinstance(buf, str) else bytes(buf)
        return i2c_msg(address, 0, buf, len(buf))

    @staticmethod
    def read(address, length):
        return i2c_msg(address, I2C_M_RD, b"", length)

    def __iter__(self):
        return iter(self.buf)

    def __len__(self):
        return self.len

    def __bytes__(self):
        return self.buf

    def __repr__(self):
        return f"i2c_msg({self.addr},{self.flags},{self.buf!r})"


class I2cBus:
    """A channel initialised as a 7-bit master. Closing it (also at the end of a `with`) makes
    further calls fail; the adapter stays open unless the bus opened it (SMBus)."""

    def __init__(self, adapter, channel, clock_hz=100000, pec=False):
        self.adapter, self.channel, self.pec = adapter, channel, pec
        self.is_open = True
        config = IIC_CONFIG(ClockSpeedHz=_fits(clock_hz, 32), Master=1, AddrBits=7)
        try:
            self._channel_call("IIC_Init", ctypes.byref(config))
        except I2cError as error:
            raise (error.about({"channel": channel}) if error.code < 0 else error) from None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def close(self):
        self.is_open = False

    @property
    def pec(self):
        """Packet error checking on the SMBus transfers (smbus2's name)."""
        return self._pec

    @pec.setter
    def pec(self, enable):
        self._pec = bool(enable)

    def enable_pec(self, enable=True):
        self.pec = enable

    def _channel_call(self, name, *args):
        # every failure of a transfer is an OSError, also one the library reports with a code
        try:
            if not self.is_open:
                raise VarnelError(-5, name)  # the channel was closed
            self.adapter.require_open(name)
            return getattr(lib(), name)(self.adapter.handle, _fits(self.channel, 8), *args)
        except I2cError:
            raise
        except VarnelError as error:
            raise I2cError(error.code, error.call, error.arguments) from None

    def _call(self, name, addr, *args):
        return self._channel_call(name, _fits(addr, 16), *args)

    def scan(self):
        """The addresses that acknowledge an empty write, ascending."""
        found = (ctypes.c_uint16 * IIC_MAX_ADDRESSES)()
        return list(found[: self._channel_call("IIC_GetSlaveAddr", found)])

    def write_quick(self, i2c_addr, force=None):
        self._call("SMBUS_QuickCommand", i2c_addr, 1)

    def read_byte(self, i2c_addr, force=None):
        value = ctypes.c_uint8()
        self._call("SMBUS_ReadByte", i2c_addr, ctypes.byref(value), self.pec)
        return value.value

    def write_byte(self, i2c_addr, value, force=None):
        self._call("SMBUS_WriteByte", i2c_addr, _fits(value, 8), self.pec)

    def read_byte_data(self, i2c_addr, register, force=None):
        value = ctypes.c_uint8()
        self._call("SMBUS_ReadByteProtocol", i2c_addr, _fits(register, 8), ctypes.byref(value),
                   self.pec)
        return value.value

    def write_byte_data(self, i2c_addr, register, value, force=None):
        self._call("SMBUS_WriteByteProtocol", i2c_addr, _fits(register, 8), _fits(value, 8),
                   self.pec)

    def read_word_data(self, i2c_addr, register, force=None):
        value = ctypes.c_uint16()
        self._call("SMBUS_ReadWordProtocol", i2c_addr, _fits(register, 8), ctypes.byref(value),
                   self.pec)
        return _swap(value.value)

    def write_word_data(self, i2c_addr, register, value, force=None):
        self._call("SMBUS_WriteWordProtocol", i2c_addr, _fits(register, 8), _swap(_fits(value, 16)),
                   self.pec)

    def process_call(self, i2c_addr, register, value, force=None):
        result = ctypes.c_uint16()
        self._call("SMBUS_ProcessCall", i2c_addr, _fits(register, 8), _swap(_fits(value, 16)),
                   ctypes.byref(result), self.pec)
        return _swap(result.value)

    def read_block_data(self, i2c_addr, register, force=None):
        out, count = (ctypes.c_uint8 * SMBUS_BLOCK_MAX)(), ctypes.c_uint32()
        self._call("SMBUS_BlockRead", i2c_addr, _fits(register, 8), out, ctypes.byref(count),
                   self.pec)
        return list(out[: count.value])

    def write_block_data(self, i2c_addr, register, data, force=None):
        buffer, length = _bytes(data)
        self._call("SMBUS_BlockWrite", i2c_addr, _fits(register, 8), buffer, length, self.pec)

    def block_process_call(self, i2c_addr, register, data, force=None):
        buffer, length = _bytes(data)
        out, count = (ctypes.c_uint8 * SMBUS_BLOCK_MAX)(), ctypes.c_uint32()
        self._call("SMBUS_BlockProcessCall", i2c_addr, _fits(register, 8), buffer, length, out,
                   ctypes.byref(count), self.pec)
        return list(out[: count.value])

    def read_i2c_block_data(self, i2c_addr, register, length, force=None):
        """`length` bytes from `register` on: a write of the register, a repeated start, a read."""
        return self._write_read(i2c_addr, [_fits(register, 8)], length)

    def write_i2c_block_data(self, i2c_addr, register, data, force=None):
        buffer, length = _bytes([_fits(register, 8)] + list(data))
        self._call("IIC_WriteBytes", i2c_addr, buffer, length, _TIMEOUT_MS)

    def i2c_rdwr(self, *i2c_msgs):
        """Runs the messages in order; a write followed by a read of the same address is one
        transfer with a repeated start. Read messages get their data in .buf."""
        messages, i = i2c_msgs, 0
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
