"""Adapters: scanning, opening and closing, device information and the GPIO pins."""
import ctypes
import threading
from dataclasses import dataclass

from .library import lib
from .errors import VarnelError, check, check_bool
from .records import DEVICE_INFO, FUNCTION_STRING_SIZE, MAX_DEVICES, GPIO_PULL_NONE

# Opens per handle in this process. Two python-can buses on the channels of one adapter each hold
# an Adapter; the USB device must stay open until the last of them closes.
_open_count = {}
_open_lock = threading.Lock()


def scan():
    """Handles of every adapter on USB, in discovery order."""
    handles = (ctypes.c_uint32 * MAX_DEVICES)()
    count = check(lib().USB_ScanDevice(handles), "USB_ScanDevice")
    return list(handles[:count])


def is_fd_adapter(handle):
    """Adapters whose handle has the top nibble 0x5 carry CAN FD controllers."""
    return (handle >> 28) == 0x5


@dataclass(frozen=True)
class DeviceInfo:
    firmware_name: str
    build_date: str
    hardware_version: int
    firmware_version: int
    serial_number: tuple
    functions: tuple  # family names from the function string, e.g. ("CAN", "CANFD", "GPIO")


def _u32(value):
    # ctypes would silently cut a larger number to 32 bits
    if not 0 <= value <= 0xFFFFFFFF:
        raise ValueError(f"{value} does not fit 32 bits")
    return value


def _u8(value):
    if not 0 <= value <= 0xFF:
        raise ValueError(f"{value} does not fit 8 bits")
    return value


def _text(raw):
    return raw.split(b"\0", 1)[0].decode("latin-1")


class Adapter:
    """One adapter, opened by `open()` or by `with Adapter(handle) as adapter:`."""

    def __init__(self, handle):
        if not isinstance(handle, int) or not 0 <= handle <= 0xFFFFFFFF:
            raise ValueError(f"not an adapter handle: {handle!r}")
        self.handle = handle
        self.is_open = False

    def __repr__(self):
        return f"Adapter(0x{self.handle:08X})"

    @property
    def is_fd(self):
        return is_fd_adapter(self.handle)

    def open(self):
        if self.is_open:
            return self
        with _open_lock:
            if _open_count.get(self.handle, 0) == 0:
                check_bool(lib().USB_OpenDevice(self.handle), "USB_OpenDevice", -1)
            _open_count[self.handle] = _open_count.get(self.handle, 0) + 1
        self.is_open = True
        return self

    def close(self):
        if not self.is_open:
            return
        self.is_open = False
        with _open_lock:
            _open_count[self.handle] -= 1
            if _open_count[self.handle] == 0:
                del _open_count[self.handle]
                lib().USB_CloseDevice(self.handle)

    def __enter__(self):
        return self.open()

    def __exit__(self, *exc):
        self.close()

    def _require_open(self, call):
        # The library's write retry reconnects a closed USB device on its own; a call through a
        # closed Adapter would leave the device open with nobody to close it.
        if not self.is_open:
            raise VarnelError(-1, call)

    def info(self):
        self._require_open("DEV_GetDeviceInfo")
        record = DEVICE_INFO()
        functions = ctypes.create_string_buffer(FUNCTION_STRING_SIZE)
        ok = lib().DEV_GetDeviceInfo(self.handle, ctypes.byref(record), functions)
        check_bool(ok, "DEV_GetDeviceInfo", -4)
        names = _text(functions.raw)
        return DeviceInfo(
            firmware_name=_text(record.FirmwareName),
            build_date=_text(record.BuildDate),
            hardware_version=record.HardwareVersion,
            firmware_version=record.FirmwareVersion,
            serial_number=tuple(record.SerialNumber),
            functions=tuple(n for n in names.split(",") if n),
        )

    # GPIO: bit n of a mask is pin n; only the selected pins change. The adapter refuses what it
    # cannot do (a pin it lacks, an unknown pull mode), which raises VarnelError -4.

    def _gpio(self, call, *args):
        self._require_open(call)
        return check(getattr(lib(), call)(self.handle, *args), call)

    def gpio_set_input(self, mask, pull=GPIO_PULL_NONE):
        self._gpio("GPIO_SetInput", _u32(mask), _u8(pull))

    def gpio_set_output(self, mask, pull=GPIO_PULL_NONE):
        self._gpio("GPIO_SetOutput", _u32(mask), _u8(pull))

    def gpio_set_open_drain(self, mask, pull=GPIO_PULL_NONE):
        self._gpio("GPIO_SetOpenDrain", _u32(mask), _u8(pull))

    def gpio_write(self, mask, value):
        self._gpio("GPIO_Write", _u32(mask), _u32(value))

    def gpio_read(self, mask):
        """The levels of the selected pins (1 = high), other bits 0."""
        value = ctypes.c_uint32()
        self._gpio("GPIO_Read", _u32(mask), ctypes.byref(value))
        return value.value

    def gpio_pulses(self, mask, width_us, period_us, count):
        """Blocks until the adapter has sent `count` pulses."""
        if not -(1 << 31) <= count < (1 << 31):
            raise ValueError(f"pulse count {count} does not fit 32 bits")
        self._gpio("GPIO_SendPulses", _u32(mask), _u32(width_us), _u32(period_us), count)

    def can(self, channel, bitrate=500000, data_bitrate=None, fd=None):
        """Initialises a CAN channel and starts receiving; see varnel.channel.CanChannel."""
        from .channel import CanChannel

        return CanChannel(self, channel, bitrate, data_bitrate=data_bitrate, fd=fd)
