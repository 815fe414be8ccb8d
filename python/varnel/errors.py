"""Result codes in words, and the exception raised for a failed call.

The words are the ones the command-line tool prints (tools/varnel/result_text.cpp); a test keeps
the two tables in step.
"""

RESULT_TEXT = {
    0: "success",
    -1: "unknown handle, or the adapter is not connected",
    -2: "the command could not be written to the adapter",
    -3: "the reply was missing, short or answered another command",
    -4: "the reply could not be read, had the wrong length or reported failure",
    -5: "the channel is not initialised",
    -7: "bad index or argument",
}


def result_text(code):
    """The meaning of a result code, as the command-line tool words it."""
    if code in RESULT_TEXT:
        return RESULT_TEXT[code]
    return "success (a count)" if code > 0 else "unknown result code"


class VarnelError(Exception):
    """A library call returned a negative result, or false (reported as the common code that says
    what went wrong: -1 for an adapter that cannot be reached, -4 for a reply that could not be
    used). Raised by the prototypes' errcheck (varnel/library.py)."""

    def __init__(self, code, call):
        self.code = code
        self.call = call
        super().__init__(f"{call}: {code} ({result_text(code)})")


# The status bytes of the virtual adapter's I2C firmware (VARNEL_IIC_STATUS_* in varnel.h).
I2C_STATUS_TEXT = {
    1: "no acknowledge of the address",
    2: "a data byte was not acknowledged",
    3: "bus error (the bus is held; try a bus reset)",
    4: "bus time-out",
    5: "packet error code mismatch",
    6: "the adapter refused the request",
    7: "the channel is not a master",
}


class I2cStatusError(VarnelError):
    """An I2C or SMBus transfer ended with the adapter's status byte `code` (positive): a missing
    acknowledge, a bus error, a PEC mismatch."""

    def __init__(self, code, call):
        Exception.__init__(self, f"{call}: status {code} ({I2C_STATUS_TEXT.get(code, 'adapter status')})")
        self.code = code
        self.call = call
