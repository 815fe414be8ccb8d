"""Finds and loads libvarnel.so and declares the prototypes of the calls the package wraps.

Where the library comes from, first match wins:
  1. the path in the environment variable VARNEL_LIBRARY;
  2. a build tree next to the package (python/../build*/libvarnel.so in a source checkout);
  3. the prefix the package was installed into (<prefix>/lib/libvarnel.so.0 above
     <prefix>/lib/python3.X/site-packages/varnel, as `cmake --install` and `pip install --prefix`
     lay them out);
  4. the system's search: the loader's own (LD_LIBRARY_PATH, ldconfig's cache) for libvarnel.so.0,
     then ctypes.util.find_library("varnel").
"""
import ctypes
import ctypes.util
import glob
import os
import threading

from .errors import I2cStatusError, VarnelError
from .records import (CAN_INIT_CONFIG, CAN_MSG, CAN_STATUS, CANFD_INIT_CONFIG, CANFD_MSG,
                      CAN_UDS_ADDR, CAN_UDS_CONFIG, DEVICE_INFO, IIC_CONFIG, SPI_CONFIG,
                      SPI_FLASH_CONFIG, UART_CONFIG, VARNEL_RECEIVE_STATS, LIN_EX_MSG,
                      LIN_UDS_ADDR, KWP_MSG, HEXFILE_SEGMENT)

_u8, _u32, _i32, _i64 = ctypes.c_uint8, ctypes.c_uint32, ctypes.c_int32, ctypes.c_int64
_int, _bool, _char_p = ctypes.c_int, ctypes.c_bool, ctypes.c_char_p

# The prototypes, one table per family: name -> (restype, argtypes, how a failure shows).
# `COUNT`: a negative result raises VarnelError with that code; `false_is(code)`: the boolean
# USB_ and DEV_ calls, whose false is reported as the common code saying what went wrong;
# None: the result is returned as it is. Handles are DevHandle (uint32_t), channels uint8_t.
COUNT = "count"
# `STATUS`: the I2C and SMBus transfers, whose positive result is the adapter's status byte; any
# non-zero result raises (I2cStatusError for a status).
STATUS = "status"


def false_is(code):
    return ("false", code)


_CAN_P, _FD_P = ctypes.POINTER(CAN_MSG), ctypes.POINTER(CANFD_MSG)

DEVICE = {
    "USB_ScanDevice": (_int, [ctypes.POINTER(_u32)], COUNT),
    "USB_OpenDevice": (_bool, [_u32], false_is(-1)),
    "USB_CloseDevice": (_bool, [_u32], None),  # closing what is gone is not an error
    # extension: how often the library connected the adapter again (unplug, power cycle)
    "VARNEL_GetReconnectCount": (_i64, [_u32], None),
    "NET_ScanDevice": (_int, [_char_p, ctypes.POINTER(_u32), _int], COUNT),
    "NET_ConnectDevice": (_bool, [_u32], false_is(-1)),
    "NET_DisconnectDevice": (_bool, [_u32], None),  # as USB_CloseDevice
    "DEV_GetDeviceInfo": (_bool, [_u32, ctypes.POINTER(DEVICE_INFO), _char_p], false_is(-4)),
}
GPIO = {
    "GPIO_SetInput": (_int, [_u32, _u32, _u8], COUNT),
    "GPIO_SetOutput": (_int, [_u32, _u32, _u8], COUNT),
    "GPIO_SetOpenDrain": (_int, [_u32, _u32, _u8], COUNT),
    "GPIO_Write": (_int, [_u32, _u32, _u32], COUNT),
    "GPIO_Read": (_int, [_u32, _u32, ctypes.POINTER(_u32)], COUNT),
    "GPIO_SendPulses": (_int, [_u32, _u32, _u32, _u32, _i32], COUNT),
}
CAN = {
    "CAN_GetCANSpeedArg": (_int, [_u32, ctypes.POINTER(CAN_INIT_CONFIG), _u32], COUNT),
    "CAN_Init": (_int, [_u32, _u8, ctypes.POINTER(CAN_INIT_CONFIG)], COUNT),
    "CAN_Init2": (_int, [_u32, _u8, _u32], COUNT),
    "CAN_SendMsg": (_int, [_u32, _u8, _CAN_P, _u32], COUNT),
    "CAN_GetMsgWithSize": (_int, [_u32, _u8, _CAN_P, _i32], COUNT),
    "CAN_StartGetMsg": (_int, [_u32, _u8], COUNT),
    "CAN_StopGetMsg": (_int, [_u32, _u8], None),
    "CAN_GetStatus": (_int, [_u32, _u8, ctypes.POINTER(CAN_STATUS)], None),
    "CAN_Stop": (_int, [_u32, _u8], None),
    "CAN_GetStartTime": (_i64, [_u32, _u8], None),
    "CAN_SetSchedule": (_int, [_u32, _u8, _CAN_P, ctypes.POINTER(_u8), ctypes.POINTER(_u8), _u8],
                        COUNT),
    "CAN_StartSchedule": (_int, [_u32, _u8, _u8, _u8, _u8], COUNT),
    "CAN_StopSchedule": (_int, [_u32, _u8], COUNT),
    # extension: losses and poller state of a channel (classic or CAN FD)
    "VARNEL_CAN_GetReceiveStats": (_int, [_u32, _u8, ctypes.POINTER(VARNEL_RECEIVE_STATS)], COUNT),
    # extension: fetch from the adapter now, and again until a frame is queued or the time is up
    "VARNEL_CAN_WaitMsg": (_int, [_u32, _u8, _i32], COUNT),
}
CANFD = {
    "CANFD_GetCANSpeedArg": (_int, [_u32, ctypes.POINTER(CANFD_INIT_CONFIG), _u32, _u32], COUNT),
    "CANFD_Init": (_int, [_u32, _u8, ctypes.POINTER(CANFD_INIT_CONFIG)], COUNT),
    "CANFD_Init2": (_int, [_u32, _u8, _u32, _u32, _u8, _u8], COUNT),
    "CANFD_SendMsg": (_int, [_u32, _u8, _FD_P, _u32], COUNT),
    "CANFD_GetMsg": (_int, [_u32, _u8, _FD_P, _i32], COUNT),
    "CANFD_StartGetMsg": (_int, [_u32, _u8], COUNT),
    "CANFD_StopGetMsg": (_int, [_u32, _u8], None),
    "CANFD_Stop": (_int, [_u32, _u8], None),
    "CANFD_GetStartTime": (_i64, [_u32, _u8], None),
}
_u64, _dbl_p = ctypes.c_uint64, ctypes.POINTER(ctypes.c_double)
DBC = {
    "VARNEL_DbcLoadFileEx": (_u64, [_char_p, _u32], None),  # 0: the file cannot be read
    "DBC_GetMsgQuantity": (_int, [_u64], COUNT),
    "DBC_GetMsgName": (_int, [_u64, _int, _char_p], COUNT),
    "DBC_GetMsgIDByName": (_int, [_u64, _char_p], None),  # extended identifiers read negative
    "DBC_GetMsgSignalQuantity": (_int, [_u64, _char_p], COUNT),
    "DBC_GetMsgSignalName": (_int, [_u64, _char_p, _u32, _char_p], COUNT),
    "VARNEL_DbcDecodeFrame": (_int, [_u64, _u32, ctypes.c_char_p, _int, _dbl_p,
                                      ctypes.POINTER(_u8), _int], COUNT),
    "VARNEL_DbcEncodeFrame": (_int, [_u64, _u32, _dbl_p, _int, _u32, ctypes.c_char_p, _int],
                              COUNT),
    "VARNEL_DbcDecodeChoices": (_int, [_u64, _u32, ctypes.c_char_p, _int,
                                        ctypes.POINTER(ctypes.c_char_p), _int], COUNT),
}
_u8p, _u16, _u16p, _u32p = (ctypes.POINTER(_u8), ctypes.c_uint16, ctypes.POINTER(ctypes.c_uint16),
                            ctypes.POINTER(_u32))
IIC = {
    "IIC_Init": (_int, [_u32, _u8, ctypes.POINTER(IIC_CONFIG)], STATUS),
    "IIC_GetSlaveAddr": (_int, [_u32, _u8, _u16p], COUNT),
    "IIC_WriteBytes": (_int, [_u32, _u8, _u16, _u8p, _i32, _u32], STATUS),
    "IIC_ReadBytes": (_int, [_u32, _u8, _u16, _u8p, _i32, _u32], STATUS),
    "IIC_WriteReadBytes": (_int, [_u32, _u8, _u16, _u8p, _i32, _u8p, _i32, _u32], STATUS),
}
SMBUS = {
    "SMBUS_Init": (_int, [_u32, _u8, _u32, _u8], STATUS),
    "SMBUS_QuickCommand": (_int, [_u32, _u8, _u16, _u8], STATUS),
    "SMBUS_WriteByte": (_int, [_u32, _u8, _u16, _u8, _u8], STATUS),
    "SMBUS_ReadByte": (_int, [_u32, _u8, _u16, _u8p, _u8], STATUS),
    "SMBUS_WriteByteProtocol": (_int, [_u32, _u8, _u16, _u8, _u8, _u8], STATUS),
    "SMBUS_WriteWordProtocol": (_int, [_u32, _u8, _u16, _u8, _u16, _u8], STATUS),
    "SMBUS_ReadByteProtocol": (_int, [_u32, _u8, _u16, _u8, _u8p, _u8], STATUS),
    "SMBUS_ReadWordProtocol": (_int, [_u32, _u8, _u16, _u8, _u16p, _u8], STATUS),
    "SMBUS_ProcessCall": (_int, [_u32, _u8, _u16, _u8, _u16, _u16p, _u8], STATUS),
    "SMBUS_BlockWrite": (_int, [_u32, _u8, _u16, _u8, _u8p, _u32, _u8], STATUS),
    "SMBUS_BlockRead": (_int, [_u32, _u8, _u16, _u8, _u8p, _u32p, _u8], STATUS),
    "SMBUS_BlockProcessCall": (_int, [_u32, _u8, _u16, _u8, _u8p, _u32, _u8p, _u32p, _u8],
                               STATUS),
}
_ADDR_P = ctypes.POINTER(CAN_UDS_ADDR)
UDS = {
    "CAN_UDS_Config": (_int, [_u32, _u8, ctypes.POINTER(CAN_UDS_CONFIG)], COUNT),
    "CAN_UDS_Request": (_int, [_u32, _u8, _ADDR_P, _u8p, _i32], COUNT),
    "VARNEL_CAN_UDS_ResponseN": (_int, [_u32, _u8, _ADDR_P, _u8p, _u32, _i32], COUNT),
    "VARNEL_CAN_UDS_SetIsoTiming": (_int, [_u32, _u8, _int], COUNT),
}
SPI = {
    "SPI_Init": (_int, [_u32, _u8, ctypes.POINTER(SPI_CONFIG)], COUNT),
    "SPI_WriteBytes": (_int, [_u32, _u8, _u8p, _i32], COUNT),
    "SPI_ReadBytes": (_int, [_u32, _u8, _u8p, _i32], COUNT),
    "SPI_WriteReadBytes": (_int, [_u32, _u8, _u8p, _i32, _u8p, _i32, _i32], COUNT),
    "SPI_WriteBits": (_int, [_u32, _u8, _char_p], COUNT),
    "SPI_ReadBits": (_int, [_u32, _u8, _char_p, _i32], COUNT),
    "SPI_FlashInit": (_int, [_u32, _u8, _u32, ctypes.POINTER(SPI_FLASH_CONFIG)], COUNT),
    "VARNEL_SPI_NorFlashConfig": (_int, [ctypes.POINTER(SPI_FLASH_CONFIG), ctypes.c_uint64], COUNT),
    "SPI_FlashReadID": (_int, [_u32, _u8, _u8p], COUNT),
    "SPI_FlashRead": (_int, [_u32, _u8, _u32, _u8p, _i32], COUNT),
    "SPI_FlashWrite": (_int, [_u32, _u8, _u32, _u8p, _i32], COUNT),
    "SPI_FlashErase": (_int, [_u32, _u8, _u32, _i32, _i32], COUNT),
    "SPI_FlashEraseChip": (_int, [_u32, _u8, _i32], COUNT),
}
_u16p = ctypes.POINTER(ctypes.c_uint16)
ADC_CALLBACK = ctypes.CFUNCTYPE(None, _u32, _u16p, _i32)
ADC = {
    "ADC_Init": (_int, [_u32, _u8, _u32], COUNT),
    "ADC_Read": (_int, [_u32, _u16p, _u32], COUNT),
    "ADC_StartContinueRead": (_int, [_u32, _u8, _u32, _u32, ADC_CALLBACK], COUNT),
    "ADC_StopContinueRead": (_int, [_u32], COUNT),
    "ADC_GetData": (_int, [_u32, _u16p, _i32], COUNT),
    "VARNEL_ADC_Dropped": (_i64, [_u32], COUNT),
}
_LIN_P = ctypes.POINTER(LIN_EX_MSG)
LIN = {
    "LIN_EX_Init": (_int, [_u32, _u8, _u32, _u8], COUNT),
    "LIN_EX_Stop": (_int, [_u32, _u8], COUNT),
    "LIN_EX_MasterSync": (_int, [_u32, _u8, _LIN_P, _LIN_P, _u32], COUNT),
    "LIN_EX_MasterWrite": (_int, [_u32, _u8, _u8, _u8p, _u8, _u8], COUNT),
    "LIN_EX_MasterStartSch": (_int, [_u32, _u8, _LIN_P, _u32], COUNT),
    "LIN_EX_MasterStopSch": (_int, [_u32, _u8], COUNT),
    "LIN_EX_MasterSetSchRunTimes": (_int, [_u32, _u8, _u32], COUNT),
    "LIN_EX_SlaveSetIDMode": (_int, [_u32, _u8, _LIN_P, _u32], COUNT),
    "LIN_EX_StopSlaveResp": (_int, [_u32, _u8, _u8], COUNT),
    "LIN_EX_GetMsg": (_int, [_u32, _u8, _LIN_P, _i32], COUNT),
    "LIN_EX_GetStartTime": (_i64, [_u32, _u8], COUNT),
    "LIN_UDS_Request": (_int, [_u32, _u8, ctypes.POINTER(LIN_UDS_ADDR), _u8p, _i32], COUNT),
    "VARNEL_LIN_UDS_ResponseN": (_int, [_u32, _u8, ctypes.POINTER(LIN_UDS_ADDR), _u8p, _u32,
                                        _i32], COUNT),
}
UART = {
    "UART_Init": (_int, [_u32, _u8, ctypes.POINTER(UART_CONFIG)], COUNT),
    "UART_WriteBytes": (_int, [_u32, _u8, _u8p, _i32], COUNT),
    "UART_WriteBytesAsync": (_int, [_u32, _u8, _u8p, _i32], COUNT),
    "UART_ReadBytes": (_int, [_u32, _u8, _u8p, _i32], COUNT),
    "UART_ClearData": (_int, [_u32, _u8], COUNT),
    "UART_WriteBytesInterval": (_int, [_u32, _u8, _u8p, _i32, _u8], COUNT),
    "UART_WriteBytesIntervalUs": (_int, [_u32, _u8, _u8p, _i32, _u8], COUNT),
    "UART_WriteBytesWithBreak": (_int, [_u32, _u8, _u8, _u8p, _i32], COUNT),
    "UART_WriteBytesAsyncWithBreak": (_int, [_u32, _u8, _u8, _u8p, _i32], COUNT),
    "UART_WriteReadBytesWithBreak": (_int, [_u32, _u8, _u8, _u8p, _i32, _u8p, _u16, _u16],
                                     COUNT),
    "UART_Stop": (_int, [_u32, _u8], COUNT),
}
_SEG_P = ctypes.POINTER(HEXFILE_SEGMENT)
IMAGES = {
    "hexfile_convert_s19": (_int, [_char_p, _i32, _SEG_P, _u32, ctypes.c_int8], None),
    "hexfile_convert_ihx": (_int, [_char_p, _i32, _SEG_P, _u32, ctypes.c_int8], None),
    "hexfile_convert_txt": (_int, [_char_p, _i32, _SEG_P, _u32, ctypes.c_int8], None),
    "hexfile_free_data": (_int, [_SEG_P, _i32], None),
}
# The target's key routine for security access: (seed, key constant) -> key.
LIN_BOOT_KEY_ROUTINE = ctypes.CFUNCTYPE(_u16, _u16, _u16)
LIN_BOOT = {
    "USDLINBoot_Init": (_int, [_u32, _u8, _u32], COUNT),
    "USDLINBoot_Start": (_int, [_u32, _u8, _u8, ctypes.c_uint16, _u32], COUNT),
    "USDLINBoot_Erase": (_int, [_u32, _u8, _u8, _u32, _u32], COUNT),
    "USDLINBoot_WriteData": (_int, [_u32, _u8, _u8, _u32, _u8p, _u32], COUNT),
    "VARNEL_USDLINBoot_MemCheckResult": (_int, [_u32, _u8, _u8, _u32, _u8p], COUNT),
    "USDLINBoot_ResetECU": (_int, [_u32, _u8, _u8], COUNT),
    "VARNEL_USDLINBoot_SetKeyRoutine": (_int, [_u32, _u8, LIN_BOOT_KEY_ROUTINE], COUNT),
}
_KWP_P = ctypes.POINTER(KWP_MSG)
KLINE = {
    "KWP_Init": (_int, [_u32, _u8, _u32, _u8], COUNT),
    "KWP_5BaudInit": (_int, [_u32, _u8, _u32, _KWP_P, _i32], COUNT),
    "KWP_FastInit": (_int, [_u32, _u8, _u32, _KWP_P, _KWP_P, _KWP_P, _u32], COUNT),
    "KWP_Request": (_int, [_u32, _u8, _KWP_P], COUNT),
    "KWP_Response": (_int, [_u32, _u8, _KWP_P, _u32], COUNT),
    "VARNEL_KLINE_SetWakeupPin": (_int, [_u32, _u8, _u8], COUNT),
    "VARNEL_KLINE_GetWakeupPin": (_int, [_u32, _u8], COUNT),
}
FAMILIES = (DEVICE, GPIO, CAN, CANFD, IIC, SMBUS, DBC, UDS, SPI, ADC, LIN, IMAGES, LIN_BOOT, UART,
            KLINE)


def _raise_on_negative(result, function, _args):
    if result < 0:
        raise VarnelError(result, function.__name__)
    return result


def _raise_on_status(result, function, _args):
    if result < 0:
        raise VarnelError(result, function.__name__)
    if result > 0:
        raise I2cStatusError(result, function.__name__)
    return result


def _raise_on_false(code):
    def errcheck(ok, function, _args):
        if not ok:
            raise VarnelError(code, function.__name__)
        return ok

    return errcheck


_lock = threading.Lock()
_loaded = None


def candidates():
    """The paths tried, in order (the last one a bare name for the system's search)."""
    found = []
    if os.environ.get("VARNEL_LIBRARY"):
        found.append(os.environ["VARNEL_LIBRARY"])
    package_dir = os.path.dirname(os.path.abspath(__file__))
    source_root = os.path.dirname(os.path.dirname(package_dir))
    # the plain build first, then the other presets' trees
    found += sorted(glob.glob(os.path.join(source_root, "build*", "libvarnel.so")),
                    key=lambda p: (os.path.basename(os.path.dirname(p)) != "build", p))
    # <prefix>/lib/python3.X/site-packages/varnel (or lib/python3/dist-packages) -> <prefix>/lib
    installed = os.path.join(package_dir, "..", "..", "..", "libvarnel.so.0")
    if os.path.exists(installed):
        found.append(os.path.abspath(installed))
    found.append("libvarnel.so.0")  # the loader searches LD_LIBRARY_PATH and its cache
    system = ctypes.util.find_library("varnel")
    if system:
        found.append(system)
    return found


def _declare(library):
    for family in FAMILIES:
        for name, (restype, argtypes, failure) in family.items():
            function = getattr(library, name)
            function.restype = restype
            function.argtypes = argtypes
            if failure == COUNT:
                function.errcheck = _raise_on_negative
            elif failure == STATUS:
                function.errcheck = _raise_on_status
            elif failure:
                function.errcheck = _raise_on_false(failure[1])
    return library


def lib():
    """The loaded library with its prototypes; loaded on first use."""
    global _loaded
    with _lock:
        if _loaded is None:
            paths = candidates()
            if os.environ.get("VARNEL_LIBRARY"):
                paths = paths[:1]  # what the user named, and nothing else
            errors = []
            for path in paths:
                try:
                    _loaded = _declare(ctypes.CDLL(path))
                    break
                except OSError as error:
                    errors.append(str(error))
            else:
                raise OSError("libvarnel not found (set VARNEL_LIBRARY to its path): " +
                              "; ".join(errors))
        return _loaded
