"""Helpers of the family tests: what the virtual adapter received (through the usbsim loaded in
place of libusb), and the parameters of a method, to hold ours against a peer library's."""
import ctypes
import inspect


def last_payload(handle, command):
    """The payload of the last packet with `command` the adapter received (None: none yet)."""
    out = (ctypes.c_uint8 * 4096)()
    length = ctypes.CDLL("libusb-1.0.so.0").varnel_usbsim_last_payload(handle, command, out, 4096)
    return None if length < 0 else bytes(out[:length])


def parameters(function):
    return [(p.name, p.default) for p in inspect.signature(function).parameters.values()]
