"""Adapters: scanning, opening and closing, device information. The families hang off an open
adapter, one module each: `adapter.gpio` (varnel.gpio), `adapter.i2c(...)` (varnel.i2c),
`adapter.uart(...)` (varnel.uart), `adapter.can(...)` (varnel.channel)."""
import ctypes
import threading
from dataclasses import dataclass

from .library import lib
from .errors import VarnelError
from .records import DEVICE_INFO, FUNCTION_STRING_SIZE, MAX_DEVICES

# Opens per handle in this process. Two python-can buses on the channels of one adapter each hold
# an Adapter; the USB device must stay open until the last of them closes.
_open_count = {}
_open_lock = threading.Lock()


def scan():
    """Handles of every adapter on USB, in discovery order."""
    handles = (ctypes.c_uint32 * MAX_DEVICES)()
    count = lib().USB_ScanDevice(handles)
    return list(handles[:count])


def net_scan(local_ip, timeout_ms=500):
    """Handles of every network adapter found so far on the /24 network of `local_ip` (this
    host's IPv4 address on it); the probe runs its whole time-out. Adapters found stay known to
    the library for the process's life, so they can be opened afterwards."""
    handles = (ctypes.c_uint32 * MAX_DEVICES)()
    count = lib().NET_ScanDevice(local_ip.encode("ascii"), handles, timeout_ms)
    return list(handles[:count])


def is_network_handle(handle):
    """Network adapters: top byte 0x55 or 0x56 with bit 0 clear."""
    return (handle & 0xFF000001) in (0x55000000, 0x56000000)


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
                if is_network_handle(self.handle):
                    lib().NET_ConnectDevice(self.handle)  # -1 unless a scan found it
                else:
                    lib().USB_OpenDevice(self.handle)
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
                if is_network_handle(self.handle):
                    lib().NET_DisconnectDevice(self.handle)
                else:
                    lib().USB_CloseDevice(self.handle)

    def __enter__(self):
        return self.open()

    def __exit__(self, *exc):
        self.close()

    def require_open(self, call):
        # The library's write retry reconnects a closed USB device on its own; a call through a
        # closed Adapter would leave the device open with nobody to close it.
        if not self.is_open:
            raise VarnelError(-1, call)

    def info(self):
        self.require_open("DEV_GetDeviceInfo")
        record = DEVICE_INFO()
        functions = ctypes.create_string_buffer(FUNCTION_STRING_SIZE)
        lib().DEV_GetDeviceInfo(self.handle, ctypes.byref(record), functions)
        names = _text(functions.raw)
        return DeviceInfo(
            firmware_name=_text(record.FirmwareName),
            build_date=_text(record.BuildDate),
            hardware_version=record.HardwareVersion,
            firmware_version=record.FirmwareVersion,
            serial_number=tuple(record.SerialNumber),
            functions=tuple(n for n in names.split(",") if n),
        )

    @property
    def gpio(self):
        """The adapter's pins; see varnel.gpio.Gpio."""
        from .gpio import Gpio

        return Gpio(self)

    def i2c(self, channel, clock_hz=100000, pec=False):
        """Initialises an I2C channel as a 7-bit master; see varnel.i2c.I2cBus."""
        from .i2c import I2cBus

        return I2cBus(self, channel, clock_hz=clock_hz, pec=pec)

    def spi(self, channel, clock_hz=10000000, mode=0):
        """Initialises an SPI port as a master; see varnel.spi.SpiPort."""
        from .spi import SpiPort

        return SpiPort(self, channel, clock_hz=clock_hz, mode=mode)

    def lin(self, channel, baud=19200, master=True):
        """Initialises a LIN channel; see varnel.lin.LinChannel."""
        from .lin import LinChannel

        return LinChannel(self, channel, baud=baud, master=master)

    def kline(self, channel, **options):
        """KWP2000 on a channel's K-line; see varnel.kline.KLine."""
        from .kline import KLine

        return KLine(self, channel, **options)

    def adc(self):
        """The analogue inputs; see varnel.adc.Adc."""
        from .adc import Adc

        return Adc(self)

    def uart(self, channel, baudrate=115200, **options):
        """Configures a UART channel; see varnel.uart.Uart."""
        from .uart import Uart

        return Uart(self, channel, baudrate=baudrate, **options)

    def uds(self, channel, txid, rxid, **options):
        """A diagnostic client on an initialised CAN channel; see varnel.uds.UdsClient."""
        from .uds import UdsClient

        return UdsClient(self, channel, txid, rxid, **options)

    def can(self, channel, bitrate=500000, data_bitrate=None, fd=None):
        """Initialises a CAN channel and starts receiving; see varnel.channel.CanChannel."""
        from .channel import CanChannel

        return CanChannel(self, channel, bitrate, data_bitrate=data_bitrate, fd=fd)
