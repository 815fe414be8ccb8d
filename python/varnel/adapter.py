"""Adapters: scanning, opening and closing, device information and the GPIO pins."""
import ctypes
import threading
from dataclasses import dataclass

from ._library import lib
from .errors import check, check_bool
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

    def info(self):
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

    def gpio_set_input(self, mask, pull=GPIO_PULL_NONE):
        check(lib().GPIO_SetInput(self.handle, mask, pull), "GPIO_SetInput")

    def gpio_set_output(self, mask, pull=GPIO_PULL_NONE):
        check(lib().GPIO_SetOutput(self.handle, mask, pull), "GPIO_SetOutput")

    def gpio_set_open_drain(self, mask, pull=GPIO_PULL_NONE):
        check(lib().GPIO_SetOpenDrain(self.handle, mask, pull), "GPIO_SetOpenDrain")

    def gpio_write(self, mask, value):
        check(lib().GPIO_Write(self.handle, mask, value), "GPIO_Write")

    def gpio_read(self, mask):
        """The levels of the selected pins (1 = high), other bits 0."""
        value = ctypes.c_uint32()
        check(lib().GPIO_Read(self.handle, mask, ctypes.byref(value)), "GPIO_Read")
        return value.value

    def gpio_pulses(self, mask, width_us, period_us, count):
        """Blocks until the adapter has sent `count` pulses."""
        check(lib().GPIO_SendPulses(self.handle, mask, width_us, period_us, count),
              "GPIO_SendPulses")

    def can(self, channel, bitrate=500000, data_bitrate=None, fd=None):
        """Initialises a CAN channel and starts receiving; see varnel.channel.CanChannel."""
        from .channel import CanChannel

        return CanChannel(self, channel, bitrate, data_bitrate=data_bitrate, fd=fd)
