"""A LIN channel: `adapter.lin(channel, baud=19200, master=True)`.

    with varnel.Adapter(0x12345678) as adapter:
        lin = adapter.lin(0)
        lin.write(0x3C, b"\\x01\\x02")          # classic checksum for 3C/3D, enhanced otherwise
        frame = lin.read(0x21)                 # a LinFrame, or None when nobody answered
        lin.start_schedule([(0x21, None, 10), (0x22, b"\\x05", 20)])   # (id, data or None, ms)
        lin.stop_schedule()
        monitor = adapter.lin(1, master=False)
        monitor.set_response(0x30, b"\\x11\\x22")  # the adapter answers this id
        for frame in monitor.receive():          # what the channel saw since the last call
            print(frame)

A failed call raises VarnelError with its code.
"""
import ctypes
import zlib
from dataclasses import dataclass

from .library import LIN_BOOT_KEY_ROUTINE, lib
from .records import HEXFILE_SEGMENT, LIN_EX_MSG

VERDICTS = ("classic", "enhanced", "unchecked", "none", "error")
_READ, _WRITE, _SLAVE = 2, 1, 3


@dataclass(frozen=True)
class LinFrame:
    id: int
    data: bytes
    check: int
    verdict: str  # classic, enhanced, unchecked, none or error
    timestamp: float  # host time in seconds

    def __str__(self):
        return "%02X#%s %s" % (self.id, self.data.hex().upper(), self.verdict)


def _check_type(frame_id, classic):
    if classic is None:
        classic = frame_id in (0x3C, 0x3D)
    return 0 if classic else 1


class LinChannel:
    def __init__(self, adapter, channel, baud=19200, master=True):
        self.adapter, self.channel, self._baud = adapter, channel, baud
        self._call("LIN_EX_Init", baud, 1 if master else 0)

    def _call(self, name, *args):
        self.adapter.require_open(name)
        return getattr(lib(), name)(self.adapter.handle, self.channel, *args)

    def _frame(self, msg):
        start = self._call("LIN_EX_GetStartTime")
        return LinFrame(msg.PID & 0x3F, bytes(msg.Data[:min(msg.DataLen, 8)]), msg.Check,
                        VERDICTS[msg.CheckType] if msg.CheckType < 5 else "?",
                        (start + msg.TimeStamp) / 1000.0)

    def write(self, frame_id, data, classic=None):
        data = bytes(data)
        buffer = (ctypes.c_uint8 * 8).from_buffer_copy(data.ljust(8, b"\0")[:8])
        self._call("LIN_EX_MasterWrite", frame_id, buffer, len(data),
                   _check_type(frame_id, classic))

    def read(self, frame_id, classic=None):
        """The answer to a header, or None when nobody answered."""
        request, reply = LIN_EX_MSG(), LIN_EX_MSG()
        request.TimeStamp, request.MsgType, request.PID = 1, _READ, frame_id
        request.CheckType, request.BreakBits = _check_type(frame_id, classic), 13
        self._call("LIN_EX_MasterSync", ctypes.byref(request), ctypes.byref(reply), 1)
        return self._frame(reply) if reply.DataLen else None

    def start_schedule(self, entries, runs=0):
        """entries: (id, data or None for a read header, period in ms); runs 0: forever."""
        records = (LIN_EX_MSG * len(entries))()
        for record, (frame_id, data, period_ms) in zip(records, entries):
            record.TimeStamp, record.PID, record.BreakBits, record.Tag = period_ms, frame_id, 13, 1
            record.MsgType = _READ if data is None else _WRITE
            if data is not None:
                record.DataLen = len(data)
                record.Data[:len(data)] = list(data)
                record.CheckType = _check_type(frame_id, None)
        self._call("LIN_EX_MasterSetSchRunTimes", runs)
        self._call("LIN_EX_MasterStartSch", records, len(entries))

    def stop_schedule(self):
        self._call("LIN_EX_MasterStopSch")

    def set_response(self, frame_id, data, classic=None):
        """The adapter answers `frame_id` headers with `data` (the channel as slave)."""
        record = LIN_EX_MSG()
        record.MsgType, record.PID, record.DataLen = _SLAVE, frame_id, len(data)
        record.Data[:len(data)] = list(data)
        record.CheckType = _check_type(frame_id, classic)
        self._call("LIN_EX_SlaveSetIDMode", ctypes.byref(record), 1)

    def stop_response(self, frame_id):
        self._call("LIN_EX_StopSlaveResp", frame_id)

    def receive(self, max_frames=1024):
        """The frames the channel saw since the last call, oldest first."""
        records = (LIN_EX_MSG * max_frames)()
        n = self._call("LIN_EX_GetMsg", records, max_frames)
        return [self._frame(records[i]) for i in range(n)]

    def uds(self, nad, frame_spacing_ms=0):
        """A diagnostic client for node `nad`; see varnel.uds.LinUdsClient."""
        from .uds import LinUdsClient

        return LinUdsClient(self, nad, frame_spacing_ms)

    def set_key_routine(self, routine):
        """The boot loader's key routine for security access on this channel: a callable
        routine(seed, key_constant) -> 16-bit key, or None for the library's default (the seed
        rotated left by 5 bits, XOR the constant)."""
        if routine is None:
            callback = ctypes.cast(None, LIN_BOOT_KEY_ROUTINE)  # NULL: the default
        else:
            callback = LIN_BOOT_KEY_ROUTINE(lambda seed, k: routine(seed, k) & 0xFFFF)
        self._call("VARNEL_USDLINBoot_SetKeyRoutine", callback)
        self._key_routine = callback  # the library calls it later: it must stay alive

    def flash(self, nad, image, key_constant=0xBEEF, timeout_ms=2000, progress=None,
              piece=1024, key_routine=None):
        """Reprograms node `nad` through its boot loader: `image` is a file (S-records, Intel HEX
        or text, read by the library) or a list of (address, bytes). Each segment is erased,
        written in pieces and checked with the unit's CRC-32 check; progress(done, total) is
        called after each piece. `key_routine` as for set_key_routine (None keeps the one set).
        Raises VarnelError, or ValueError when a check disagrees."""
        segments = read_image(image) if isinstance(image, str) else list(image)
        total, done = sum(len(data) for _, data in segments), 0
        if key_routine is not None:
            self.set_key_routine(key_routine)
        self._call("USDLINBoot_Init", self._baud)
        self._call("USDLINBoot_Start", nad, key_constant, timeout_ms)
        for address, data in segments:
            self._call("USDLINBoot_Erase", nad, address, len(data))
            for at in range(0, len(data), piece):
                chunk = bytes(data[at:at + piece])
                buffer = (ctypes.c_uint8 * len(chunk)).from_buffer_copy(chunk)
                self._call("USDLINBoot_WriteData", nad, address + at, buffer, len(chunk))
                status = ctypes.c_uint8(0xFF)
                self._call("VARNEL_USDLINBoot_MemCheckResult", nad, zlib.crc32(chunk),
                           ctypes.byref(status))
                if status.value:
                    raise ValueError("the unit's check disagrees at 0x%08X" % (address + at))
                done += len(chunk)
                if progress:
                    progress(done, total)
        self._call("USDLINBoot_ResetECU", nad)

    def stop(self):
        self._call("LIN_EX_Stop")


def read_image(path, max_segments=256):
    """The segments of an image file as [(address, bytes)], read by the library's converters
    (the format from the first line: ':' Intel HEX, 'S' and a digit S-records, else text)."""
    with open(path, "rb") as f:
        text = f.read()
    first = text.lstrip()[:2]
    name = ("hexfile_convert_ihx" if first[:1] == b":" else
            "hexfile_convert_s19" if first[:1] == b"S" and first[1:2].isdigit() else
            "hexfile_convert_txt")
    segments = (HEXFILE_SEGMENT * max_segments)()
    n = getattr(lib(), name)(text, len(text), segments, max_segments, 1)
    try:
        if n <= 0:
            raise ValueError("%s: not a readable image" % path)
        return [(s.StartAddr, bytes(s.pData[:s.DataLen])) for s in segments[:n]]
    finally:
        lib().hexfile_free_data(segments, max_segments)
