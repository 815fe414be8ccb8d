"""What the virtual adapter received, read through the usbsim loaded in place of libusb."""
import ctypes


def last_payload(handle, command):
    """The payload of the last packet with `command` the adapter received (None: none yet)."""
    usbsim = ctypes.CDLL("libusb-1.0.so.0")
    out = (ctypes.c_uint8 * 4096)()
    length = usbsim.varnel_usbsim_last_payload(handle, command, out, len(out))
    return None if length < 0 else bytes(out[:length])
