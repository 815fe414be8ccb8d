"""A CAN or CAN FD channel of an open adapter: init, send, and receive through the library's
receive poller (one thread per adapter that fetches every 10 ms into the channel's queue); a
receive that waits fetches on demand as well (VARNEL_CAN_WaitMsg), so an answer is not held
back by the poller's period."""
import ctypes
import logging
import time
import warnings
from dataclasses import dataclass

from .library import lib
from .errors import VarnelError
from .records import (CAN_INIT_CONFIG, CAN_MSG, CANFD_EVENT_ID, CANFD_INIT_CONFIG, CANFD_MSG,
                      VARNEL_RECEIVE_STATS)

# CAN FD data lengths; a frame of another length goes out padded with zeros to the next one.
FD_LENGTHS = (0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64)
# Records drained per library call; more wait in the library's queue for the next call.
RECEIVE_BATCH = 1000
# The longest single wait in the library: a receive that waits longer looks at the poller's
# state and the controller's status in between (every STATUS_CHECK_S).
RECEIVE_WAIT_SLICE_MS = 50
# How often a receiving channel asks for the poller's state and the controller's status (one
# transaction each time); classic controllers report error state changes only this way.
STATUS_CHECK_S = 0.25

# Option bytes passed to CANFD_Init2: the values the bit-rate tables carry (1 and 1).
_FD_DEVICE_OPTION = 1
_FD_OPTION = 1
# The init record's operating mode (bits 0-1): the adapters' firmware listens without
# acknowledging or sending in mode 2.
MODE_NORMAL = 0
MODE_LISTEN_ONLY = 2


@dataclass
class Frame:
    """One CAN or CAN FD frame as a Python value.

    `dlc` is the data length in bytes (for a remote frame, the length it asks for); `timestamp` is
    host wall-clock seconds (time.time() scale) of the frame's end on the bus. `echo` marks a
    frame this host sent that the adapter reports back; `event` an error state change (data: 1,
    transmit counter, receive counter, flags 1 warning, 2 passive, 4 bus off): a CAN FD adapter's
    device event, or what a classic channel's status showed when receive() looked at it."""

    id: int
    data: bytes = b""
    extended: bool = False
    remote: bool = False
    fd: bool = False
    brs: bool = False
    dlc: int = None
    timestamp: float = 0.0
    channel: int = 0
    echo: bool = False
    event: bool = False

    def __post_init__(self):
        self.data = bytes(self.data)
        if self.dlc is None:
            self.dlc = len(self.data)


def padded_fd_length(length):
    for valid in FD_LENGTHS:
        if valid >= length:
            return valid
    raise ValueError(f"{length} data bytes: a CAN FD frame carries at most 64")


def _bit_rate(value):
    # ctypes would cut a negative or oversized rate to 32 bits without a word
    if not isinstance(value, int) or not 0 < value <= 0xFFFFFFFF:
        raise ValueError(f"bit rate {value!r}: expected a positive number of bit/s")
    return value


def _check_frame(frame, fd_controller):
    limit = 0x1FFFFFFF if frame.extended else 0x7FF
    if not 0 <= frame.id <= limit:
        kind = "extended" if frame.extended else "standard"
        raise ValueError(f"identifier 0x{frame.id:X} does not fit a {kind} frame")
    if frame.fd and not fd_controller:
        raise ValueError("a CAN FD frame needs an adapter with a CAN FD controller")
    if frame.brs and not frame.fd:
        raise ValueError("bit-rate switch is for CAN FD frames only")
    if frame.remote and frame.fd:
        raise ValueError("CAN FD has no remote frames")
    if not frame.fd and len(frame.data) > 8:
        raise ValueError(f"{len(frame.data)} data bytes: a classic frame carries at most 8")
    if frame.remote and not 0 <= frame.dlc <= 8:
        raise ValueError(f"remote frame asks for {frame.dlc} bytes; at most 8")


def to_can_msg(frame, record):
    """Fills a classic record (zeroed by the caller) from a checked frame."""
    record.Id = frame.id
    record.Extended = 1 if frame.extended else 0
    record.Flags = 1 if frame.remote else 0
    record.DataLen = frame.dlc if frame.remote else len(frame.data)
    if not frame.remote:
        ctypes.memmove(record.Data, frame.data, len(frame.data))


def to_canfd_msg(frame, record):
    """Fills a CAN FD record (zeroed by the caller) from a checked frame."""
    record.Id = (frame.id | (0x80000000 if frame.extended else 0)
                 | (0x40000000 if frame.remote else 0))
    record.Flags = (0x04 if frame.fd else 0) | (0x01 if frame.brs else 0)
    if frame.remote:
        record.DataLen = frame.dlc
    else:
        record.DataLen = padded_fd_length(len(frame.data)) if frame.fd else len(frame.data)
        ctypes.memmove(record.Data, frame.data, len(frame.data))


def from_can_msg(record, start_ms):
    stamp = (record.TimeStampHigh << 32) | record.TimeStamp  # units of 10 us
    remote = bool(record.Flags & 0x01)
    return Frame(
        id=record.Id & 0x1FFFFFFF,
        data=b"" if remote else bytes(record.Data[: min(record.DataLen, 8)]),
        extended=bool(record.Extended & 1),
        remote=remote,
        dlc=record.DataLen,
        timestamp=(start_ms + stamp / 100.0) / 1000.0,
        channel=(record.Flags >> 5) & 3,
        echo=bool(record.Flags & 0x80),
    )


def from_canfd_msg(record, start_ms):
    stamp = (record.TimeStampHigh << 32) | record.TimeStamp  # units of 1 us
    timestamp = (start_ms + stamp / 1000.0) / 1000.0
    channel = (record.Flags >> 5) & 1
    if record.Id == CANFD_EVENT_ID:
        return Frame(id=CANFD_EVENT_ID, data=bytes(record.Data[:8]), timestamp=timestamp,
                     channel=channel, event=True)
    remote = bool(record.Id & 0x40000000)
    length = min(record.DataLen, 64)
    return Frame(
        id=record.Id & 0x1FFFFFFF,
        data=b"" if remote else bytes(record.Data[:length]),
        extended=bool(record.Id & 0x80000000),
        remote=remote,
        fd=bool(record.Flags & 0x04),
        brs=bool(record.Flags & 0x01),
        dlc=length,
        timestamp=timestamp,
        channel=channel,
        echo=bool(record.Flags & 0x80),
    )


class CanChannel:
    """A started channel. On CAN FD adapters every frame goes through the CAN FD calls (classic
    frames too, with the FD format bit clear); elsewhere through the classic calls."""

    def __init__(self, adapter, channel, bitrate=500000, data_bitrate=None, fd=None,
                 listen_only=False):
        if channel not in (0, 1):
            raise ValueError(f"CAN channel {channel!r}: the adapters have channels 0 and 1")
        adapter.require_open("CANFD_Init2" if adapter.is_fd else "CAN_Init2")
        self.adapter = adapter
        self.handle = adapter.handle
        self.channel = channel
        self.fd_controller = adapter.is_fd
        if fd and not self.fd_controller:
            raise ValueError(f"adapter 0x{self.handle:08X} has no CAN FD controller")
        self.fd = self.fd_controller if fd is None else bool(fd)
        self.bitrate = _bit_rate(bitrate)
        self.data_bitrate = _bit_rate(data_bitrate or (2000000 if self.fd else bitrate))
        self.listen_only = bool(listen_only)
        self._started = False
        self._init()
        self._reconnects_at_start = self._reconnects_seen

    def _init(self):
        # what CAN_Init2/CANFD_Init2 do, with the operating mode set in the record
        library, h, ch = lib(), self.handle, self.channel
        mode = MODE_LISTEN_ONLY if self.listen_only else MODE_NORMAL
        if self.fd_controller:
            config = CANFD_INIT_CONFIG()
            try:
                library.CANFD_GetCANSpeedArg(h, ctypes.byref(config), self.bitrate,
                                             self.data_bitrate)
            except VarnelError as error:
                raise error.about({"bit rate": self.bitrate,
                                   "data bit rate": self.data_bitrate}) from None
            config.Mode = mode
            config.DeviceOption, config.Option = _FD_DEVICE_OPTION, _FD_OPTION
            library.CANFD_Init(h, ch, ctypes.byref(config))
            library.CANFD_StartGetMsg(h, ch)
            self._buffer = (CANFD_MSG * RECEIVE_BATCH)()
        else:
            config = CAN_INIT_CONFIG()
            try:
                library.CAN_GetCANSpeedArg(h, ctypes.byref(config), self.bitrate)
            except VarnelError as error:
                raise error.about({"bit rate": self.bitrate}) from None
            config.Mode = (config.Mode & ~3) | mode  # bit 7 stays the table's device option
            library.CAN_Init(h, ch, ctypes.byref(config))
            library.CAN_StartGetMsg(h, ch)
            self._buffer = (CAN_MSG * RECEIVE_BATCH)()
        self._started = True
        self._reconnects_seen = lib().VARNEL_GetReconnectCount(h)
        self._error_flags = 0  # the controller starts error-active with its counters at zero
        self._events = []
        self._next_check = time.monotonic() + STATUS_CHECK_S

    def set_listen_only(self, listen_only):
        """Initialises the controller again, listening only (no acknowledgements, no sending)
        or taking part in the bus. Frames not yet read are dropped."""
        if not self._started:
            raise VarnelError(-5, "CANFD_Init" if self.fd_controller else "CAN_Init")
        if bool(listen_only) != self.listen_only:
            self.listen_only = bool(listen_only)
            self._init()

    def send(self, frames):
        """Sends the frames in order; returns how many went out (the library's count)."""
        if not self._started:
            raise VarnelError(-5, "CANFD_SendMsg" if self.fd_controller else "CAN_SendMsg")
        frames = list(frames)
        for frame in frames:
            _check_frame(frame, self.fd_controller)
        if not frames:
            return 0
        if self.fd_controller:
            records = (CANFD_MSG * len(frames))()
            for frame, record in zip(frames, records):
                to_canfd_msg(frame, record)
            return lib().CANFD_SendMsg(self.handle, self.channel, records, len(frames))
        records = (CAN_MSG * len(frames))()
        for frame, record in zip(frames, records):
            to_can_msg(frame, record)
        return lib().CAN_SendMsg(self.handle, self.channel, records, len(frames))

    def start_schedule(self, frames, periods=0):
        """Has the adapter send classic frames cyclically on its own: `frames` are
        (Frame, period_ms) pairs, each a table of its own; `periods` 0 plays until
        stop_schedule()."""
        frames = list(frames)
        records = (CAN_MSG * max(len(frames), 1))()
        counts = (ctypes.c_uint8 * max(len(frames), 1))(*([1] * len(frames)))
        times = (ctypes.c_uint8 * max(2 * len(frames), 2))()
        for i, (frame, period_ms) in enumerate(frames):
            _check_frame(frame, False)
            if not 0 < period_ms <= 0xFFFF:
                raise ValueError(f"period {period_ms} ms: 1 to 65535")
            to_can_msg(frame, records[i])
            times[2 * i], times[2 * i + 1] = period_ms & 0xFF, period_ms >> 8
        library = lib()
        library.CAN_SetSchedule(self.handle, self.channel, records, counts, times, len(frames))
        library.CAN_StartSchedule(self.handle, self.channel, 0xFF, periods, 0)

    def stop_schedule(self):
        lib().CAN_StopSchedule(self.handle, self.channel)

    def _drain(self):
        library, h, ch = lib(), self.handle, self.channel
        if self.fd_controller:
            count = library.CANFD_GetMsg(h, ch, self._buffer, RECEIVE_BATCH)
            start_ms = library.CANFD_GetStartTime(h, ch)
            return [from_canfd_msg(self._buffer[i], start_ms) for i in range(count)]
        count = library.CAN_GetMsgWithSize(h, ch, self._buffer, RECEIVE_BATCH)
        start_ms = library.CAN_GetStartTime(h, ch)
        return [from_can_msg(self._buffer[i], start_ms) for i in range(count)]

    def receive(self, timeout=0.0):
        """Frames received so far, oldest first; waits up to `timeout` seconds (None: without end)
        for the first one. An empty list when none came in time."""
        if not self._started:
            raise VarnelError(-5, "CANFD_GetMsg" if self.fd_controller else "CAN_GetMsgWithSize")
        deadline = None if timeout is None else time.monotonic() + max(0.0, timeout)
        while True:
            # (costs a transaction: checked when giving up, and every STATUS_CHECK_S, also while
            # frames keep coming, so that state changes are not held back by traffic)
            if time.monotonic() >= self._next_check:
                self._check_status()
            frames = self._take_events() + self._drain()
            if frames:
                return frames
            wait_ms = RECEIVE_WAIT_SLICE_MS
            if deadline is not None:
                left = deadline - time.monotonic()
                if left <= 0:
                    self._check_status()
                    return self._take_events()
                wait_ms = min(wait_ms, max(1, int(left * 1000 + 0.999)))
            # fetches from the adapter until a frame is queued (ctypes lets go of the GIL)
            lib().VARNEL_CAN_WaitMsg(self.handle, self.channel, wait_ms)

    def receive_stats(self):
        """The channel's losses and state (varnel.records.VARNEL_RECEIVE_STATS): frames the host
        queues dropped, whether the receive poller runs and the result that stopped it, and the
        controller's status."""
        stats = VARNEL_RECEIVE_STATS()
        lib().VARNEL_CAN_GetReceiveStats(self.handle, self.channel, ctypes.byref(stats))
        return stats

    def _take_events(self):
        events, self._events = self._events, []
        return events

    @property
    def reconnects(self):
        """How often the library connected the adapter again since this channel started."""
        return lib().VARNEL_GetReconnectCount(self.handle) - self._reconnects_at_start

    def _check_reconnects(self):
        # An unplugged or power-cycled adapter comes back through the library's reconnection with
        # its channels stopped: receiving goes on without an error and without a frame.
        count = lib().VARNEL_GetReconnectCount(self.handle)
        if count == self._reconnects_seen:
            return
        self._reconnects_seen = count
        text = (f"adapter 0x{self.handle:08X} was connected again (unplugged or power-cycled?): "
                "frames it received meanwhile are lost, and after a power cycle channel "
                f"{self.channel} receives nothing until it is initialised again")
        logging.getLogger("can.varnel").error(text)
        warnings.warn(text, RuntimeWarning, stacklevel=4)

    def _check_status(self):
        self._next_check = time.monotonic() + STATUS_CHECK_S
        self._check_reconnects()
        stats = self.receive_stats()
        # The poller stops for good on a failed fetch; frames would then stop without a word.
        if not stats.PollerRunning and stats.PollerStopResult < 0:
            raise VarnelError(stats.PollerStopResult, "receive poller")
        if self.fd_controller or stats.StatusResult < 0:
            return  # CAN FD controllers send their own events
        # A classic controller's error state change becomes the event its CAN FD siblings send:
        # 1, transmit counter, receive counter, flags (1 warning, 2 passive, 4 bus off).
        status = stats.Status
        flags = status.ErrorFlags & 7
        if flags != self._error_flags:
            self._error_flags = flags
            data = bytes([1, status.TxErrorCounter, status.RxErrorCounter, flags, 0, 0, 0, 0])
            self._events.append(Frame(id=CANFD_EVENT_ID, data=data, timestamp=time.time(),
                                      channel=self.channel, event=True))

    def close(self):
        """Stops receiving and takes the controller off the bus."""
        if not self._started:
            return
        self._started = False
        library, h, ch = lib(), self.handle, self.channel
        if self.fd_controller:
            library.CANFD_StopGetMsg(h, ch)
            library.CANFD_Stop(h, ch)
        else:
            library.CAN_StopGetMsg(h, ch)
            library.CAN_Stop(h, ch)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
