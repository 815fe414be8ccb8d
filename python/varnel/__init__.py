"""VARNEL adapters from Python, over libvarnel.so with ctypes.

    import varnel
    for handle in varnel.scan():
        with varnel.Adapter(handle) as adapter:
            print(adapter.info())

The python-can interface is varnel.can_plugin.VarnelBus (interface name "varnel"). The low
level: varnel.lib() is the loaded libvarnel.so with the prototypes of the wrapped calls, and
varnel.records holds the records they take.
"""
from .adapter import Adapter, DeviceInfo, is_fd_adapter, is_network_handle, net_scan, scan
from .channel import CanChannel, Frame
from . import dbc
from . import records
from .errors import I2cError, I2cStatusError, RESULT_TEXT, VarnelError, result_text
from .gpio import Gpio
from .i2c import I2cBus, i2c_msg
from .smbus import SMBus
from .library import lib
from .records import GPIO_PULL_DOWN, GPIO_PULL_NONE, GPIO_PULL_UP
from .uart import Uart
from .uds import NegativeResponse, UdsClient

__version__ = "0.1.0"
__all__ = [
    "Adapter", "CanChannel", "dbc", "DeviceInfo", "Frame", "GPIO_PULL_DOWN", "GPIO_PULL_NONE",
    "GPIO_PULL_UP", "Gpio", "I2cBus", "I2cError", "I2cStatusError", "i2c_msg", "RESULT_TEXT",
    "VarnelError", "is_fd_adapter", "is_network_handle", "lib", "NegativeResponse", "net_scan", "records",
    "result_text", "scan", "SMBus", "Uart",
    "UdsClient",
]
