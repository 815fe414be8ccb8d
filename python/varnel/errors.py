"""Result codes in words, and the exceptions raised for a failed call.

The words are the ones the command-line tool prints (tools/varnel/core/result_text.cpp); a test keeps
the two tables in step.
"""
import errno

RESULT_TEXT = {
    0: "success",
    -1: "unknown handle, or the adapter is not connected",
    -2: "the command could not be written to the adapter",
    -3: "the reply was missing, short or answered another command",
    -4: "the reply could not be read, had the wrong length or reported failure",
    -5: "the channel is not initialised",
    -7: "bad index or argument",
}


# What a code means for one call, naming what the call was asked ({name} stands for the argument
# of that name): the command-line tool's words (kCallMeanings in tools/varnel/core/result_text.cpp).
CALL_TEXT = {
    ("CAN_GetCANSpeedArg", -4): "no bit timing for bit rate {bit rate}: not a rate this adapter has",
    ("CANFD_GetCANSpeedArg", -4): "no bit timing for bit rate {bit rate} with data bit rate "
    "{data bit rate}: not a pair this adapter has",
    ("IIC_Init", -4): "the adapter refused I2C channel {channel} (no such channel, or its "
    "settings), or its reply could not be read",
    ("GPIO_SendPulses", -4): "the adapter refused pulses on pins {pins}: a pin not set as output, "
    "or its reply could not be read",
}


def result_text(code, call=None, arguments=None):
    """The meaning of a result code, as the command-line tool words it; for the code of `call`
    asked `arguments` ({"bit rate": "123456"}), naming what was refused where the code tells."""
    text = CALL_TEXT.get((call, code))
    if text is not None:
        for name, value in (arguments or {}).items():
            text = text.replace("{" + name + "}", str(value))
        return text
    if code in RESULT_TEXT:
        return RESULT_TEXT[code]
    return "success (a count)" if code > 0 else "unknown result code"


class VarnelError(Exception):
    """A library call returned a negative result, or false (reported as the common code that says
    what went wrong: -1 for an adapter that cannot be reached, -4 for a reply that could not be
    used). Raised by the prototypes' errcheck (varnel/library.py)."""

    def __init__(self, code, call, arguments=None):
        self.code = code
        self.call = call
        self.arguments = dict(arguments or {})
        super().__init__(f"{call}: {code} ({result_text(code, call, self.arguments)})")

    def about(self, arguments):
        """The same failure, told with what the call was asked."""
        return type(self)(self.code, self.call, {**self.arguments, **arguments})


# The status bytes of the virtual adapter's I2C firmware (VARNEL_IIC_STATUS_* in varnel.h).
I2C_STATUS_ADDRESS_NACK = 1
I2C_STATUS_TEXT = {
    1: "no acknowledge of the address",
    2: "a data byte was not acknowledged",
    3: "bus error (the bus is held; try a bus reset)",
    4: "bus time-out",
    5: "packet error code mismatch",
    6: "the adapter refused the request",
    7: "the channel is not a master",
}


class I2cError(VarnelError, OSError):
    """A failed I2C or SMBus transfer, also an OSError as smbus2's failures are, so that the
    usual `except OSError` of a bus scan catches it: `errno` is ENXIO when no device acknowledged
    the address, EIO for everything else (a data byte not acknowledged, a bus error, a PEC
    mismatch, a reply that could not be read). `code` is the library's result: the adapter's
    status byte (positive), or a negative result code."""

    def __init__(self, code, call, arguments=None):
        VarnelError.__init__(self, code, call, arguments)
        if code > 0:
            text = f"{call}: status {code} ({I2C_STATUS_TEXT.get(code, 'adapter status')})"
        else:
            text = f"{call}: {code} ({result_text(code, call, self.arguments)})"
        self.errno = errno.ENXIO if code == I2C_STATUS_ADDRESS_NACK else errno.EIO
        self.strerror = text
        self.args = (self.errno, text)


class I2cStatusError(I2cError):
    """An I2C or SMBus transfer that ended with the adapter's status byte `code` (positive): a
    missing acknowledge, a bus error, a PEC mismatch."""
