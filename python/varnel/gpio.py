"""The GPIO pins of an adapter: `adapter.gpio`.

Bit n of a mask is pin n; only the selected pins change. The adapter refuses what it cannot do (a
pin it lacks, an unknown pull mode), which raises VarnelError -4.
"""
import ctypes

from .errors import VarnelError
from .library import lib
from .records import GPIO_PULL_NONE


def _u32(value):
    # ctypes would silently cut a larger number to 32 bits
    if not 0 <= value <= 0xFFFFFFFF:
        raise ValueError(f"{value} does not fit 32 bits")
    return value


def _u8(value):
    if not 0 <= value <= 0xFF:
        raise ValueError(f"{value} does not fit 8 bits")
    return value


class Gpio:
    def __init__(self, adapter):
        self.adapter = adapter

    def _call(self, name, *args):
        self.adapter.require_open(name)
        return getattr(lib(), name)(self.adapter.handle, *args)

    def set_input(self, mask, pull=GPIO_PULL_NONE):
        self._call("GPIO_SetInput", _u32(mask), _u8(pull))

    def set_output(self, mask, pull=GPIO_PULL_NONE):
        self._call("GPIO_SetOutput", _u32(mask), _u8(pull))

    def set_open_drain(self, mask, pull=GPIO_PULL_NONE):
        self._call("GPIO_SetOpenDrain", _u32(mask), _u8(pull))

    def write(self, mask, value):
        self._call("GPIO_Write", _u32(mask), _u32(value))

    def read(self, mask):
        """The levels of the selected pins (1 = high), other bits 0."""
        value = ctypes.c_uint32()
        self._call("GPIO_Read", _u32(mask), ctypes.byref(value))
        return value.value

    def pulses(self, mask, width_us, period_us, count):
        """Blocks until the adapter has sent `count` pulses."""
        if not -(1 << 31) <= count < (1 << 31):
            raise ValueError(f"pulse count {count} does not fit 32 bits")
        try:
            self._call("GPIO_SendPulses", _u32(mask), _u32(width_us), _u32(period_us), count)
        except VarnelError as error:
            raise error.about({"pins": f"0x{mask:08X}"}) from None
