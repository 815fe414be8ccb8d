"""CAN databases (DBC files), read as DBC tools read them.

    db = varnel.dbc.Database("car.dbc")
    db.decode(0x123, data)                 # {"Speed": 12.5, "Gear": "Drive", ...}
    db.decode(0x123, data, decode_choices=False)   # {"Speed": 12.5, "Gear": 3.0, ...}
    db.encode(0x123, {"Speed": 12.5})      # bytes of the message's length

Like cantools' decode_message/encode_message, by frame identifier. Values are physical floats,
except that a signal whose raw value has a name in its value table (VAL_) gives that name as a
str, as cantools does by default; decode_choices=False gives numbers only. A multiplexed signal
the frame does not select is left out. A frame shorter than its message,
or a value outside its signal's range on encode, raises ValueError. `legacy=True` reads the file the
way the DBC_ calls do (see docs/dbc.md). Extended identifiers: pass is_extended_id=True, as on
a python-can Message, or an identifier with bit 31 set.
"""
import ctypes
import math

from .errors import VarnelError
from .library import lib

STANDARD, CLAMP = 1, 1


class Database:
    def __init__(self, path, legacy=False):
        self.path = path
        self.handle = lib().VARNEL_DbcLoadFileEx(str(path).encode(), 0 if legacy else STANDARD)
        if not self.handle:
            raise VarnelError(-1, f"VARNEL_DbcLoadFileEx({path})")
        self.messages = {}  # identifier (bit 31: extended) -> (name, [signal names])
        text = ctypes.create_string_buffer(8704)
        for index in range(lib().DBC_GetMsgQuantity(self.handle)):
            lib().DBC_GetMsgName(self.handle, index, text)
            name = text.value
            frame_id = lib().DBC_GetMsgIDByName(self.handle, name) & 0xFFFFFFFF
            signals = []
            for k in range(lib().DBC_GetMsgSignalQuantity(self.handle, name)):
                lib().DBC_GetMsgSignalName(self.handle, name, k, text)
                signals.append(text.value.decode(errors="replace"))
            self.messages.setdefault(frame_id, (name.decode(errors="replace"), signals))

    @staticmethod
    def _key(frame_id, is_extended_id):
        return frame_id | 0x80000000 if is_extended_id else frame_id

    def _message(self, key):
        if key not in self.messages:
            raise KeyError(f"no message with identifier 0x{key & 0x1FFFFFFF:X} in {self.path}")
        return self.messages[key]

    def decode(self, frame_id, data, is_extended_id=False, decode_choices=True):
        key = self._key(frame_id, is_extended_id)
        signals = self._message(key)[1]
        values = (ctypes.c_double * max(len(signals), 1))()
        selected = (ctypes.c_uint8 * max(len(signals), 1))()
        data = bytes(data)
        try:
            lib().VARNEL_DbcDecodeFrame(self.handle, key, data, len(data), values, selected,
                                        len(signals))
        except VarnelError as e:
            if e.code == -6:
                raise ValueError(f"{len(data)}-byte frame is shorter than message "
                                 f"{self.messages[key][0]}") from None
            raise
        decoded = {name: v for name, v, on in zip(signals, values, selected) if on}
        if decode_choices:
            names = (ctypes.c_char_p * max(len(signals), 1))()
            lib().VARNEL_DbcDecodeChoices(self.handle, key, data, len(data), names, len(signals))
            for signal, choice in zip(signals, names):
                if choice is not None:
                    decoded[signal] = choice.decode(errors="replace")
        return decoded

    def encode(self, frame_id, signals, is_extended_id=False, clamp=False):
        """The frame's bytes; signals not given take their start value. A value outside its
        signal's range raises VarnelError -8 unless clamp=True."""
        key = self._key(frame_id, is_extended_id)
        names = self._message(key)[1]
        unknown = set(signals) - set(names)
        if unknown:
            raise KeyError(f"no signal {sorted(unknown)[0]} in message 0x{key & 0x1FFFFFFF:X}")
        values = (ctypes.c_double * max(len(names), 1))(
            *[float(signals.get(n, math.nan)) for n in names])
        out = ctypes.create_string_buffer(64)
        try:
            n = lib().VARNEL_DbcEncodeFrame(self.handle, key, values, len(names),
                                            CLAMP if clamp else 0, out, 64)
        except VarnelError as e:
            if e.code == -8:
                raise ValueError(f"a value is outside its signal's range in {signals} "
                                 "(clamp=True clamps)") from None
            if e.code == -6:
                raise ValueError(f"a signal in {signals} is not selected by the multiplexor "
                                 "values") from None
            raise
        return out.raw[:n]
