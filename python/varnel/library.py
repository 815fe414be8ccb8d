"""Finds and loads libvarnel.so and declares the prototypes of the calls the package wraps.

Where the library comes from, first match wins:
  1. the path in the environment variable VARNEL_LIBRARY;
  2. a build tree next to the package (python/../build*/libvarnel.so in a source checkout);
  3. the system's search (ctypes.util.find_library("varnel")).
"""
import ctypes
import ctypes.util
import glob
import os
import threading

from .records import CAN_MSG, CAN_STATUS, CANFD_MSG, DEVICE_INFO

_u8, _u32, _i32, _i64 = ctypes.c_uint8, ctypes.c_uint32, ctypes.c_int32, ctypes.c_int64
_int, _bool, _char_p = ctypes.c_int, ctypes.c_bool, ctypes.c_char_p

# name: (restype, argtypes). Handles are DevHandle (uint32_t), channels uint8_t.
PROTOTYPES = {
    "USB_ScanDevice": (_int, [ctypes.POINTER(_u32)]),
    "USB_OpenDevice": (_bool, [_u32]),
    "USB_CloseDevice": (_bool, [_u32]),
    "DEV_GetDeviceInfo": (_bool, [_u32, ctypes.POINTER(DEVICE_INFO), ctypes.c_char_p]),
    "GPIO_SetInput": (_int, [_u32, _u32, _u8]),
    "GPIO_SetOutput": (_int, [_u32, _u32, _u8]),
    "GPIO_SetOpenDrain": (_int, [_u32, _u32, _u8]),
    "GPIO_Write": (_int, [_u32, _u32, _u32]),
    "GPIO_Read": (_int, [_u32, _u32, ctypes.POINTER(_u32)]),
    "GPIO_SendPulses": (_int, [_u32, _u32, _u32, _u32, _i32]),
    "CAN_Init2": (_int, [_u32, _u8, _u32]),
    "CAN_SendMsg": (_int, [_u32, _u8, ctypes.POINTER(CAN_MSG), _u32]),
    "CAN_GetMsgWithSize": (_int, [_u32, _u8, ctypes.POINTER(CAN_MSG), _i32]),
    "CAN_StartGetMsg": (_int, [_u32, _u8]),
    "CAN_StopGetMsg": (_int, [_u32, _u8]),
    "CAN_GetStatus": (_int, [_u32, _u8, ctypes.POINTER(CAN_STATUS)]),
    "CAN_Stop": (_int, [_u32, _u8]),
    "CAN_GetStartTime": (_i64, [_u32, _u8]),
    "CANFD_Init2": (_int, [_u32, _u8, _u32, _u32, _u8, _u8]),
    "CANFD_SendMsg": (_int, [_u32, _u8, ctypes.POINTER(CANFD_MSG), _u32]),
    "CANFD_GetMsg": (_int, [_u32, _u8, ctypes.POINTER(CANFD_MSG), _i32]),
    "CANFD_StartGetMsg": (_int, [_u32, _u8]),
    "CANFD_StopGetMsg": (_int, [_u32, _u8]),
    "CANFD_Stop": (_int, [_u32, _u8]),
    "CANFD_GetStartTime": (_i64, [_u32, _u8]),
}

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
    system = ctypes.util.find_library("varnel")
    if system:
        found.append(system)
    return found


def _declare(library):
    for name, (restype, argtypes) in PROTOTYPES.items():
        function = getattr(library, name)
        function.restype = restype
        function.argtypes = argtypes
    return library


def lib():
    """The loaded library with its prototypes; loaded on first use."""
    global _loaded
    with _lock:
        if _loaded is None:
            paths = candidates()
            if not paths:
                raise OSError("libvarnel.so not found: set VARNEL_LIBRARY to its path")
            _loaded = _declare(ctypes.CDLL(paths[0]))
        return _loaded
