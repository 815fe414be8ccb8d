"""python-can interface: can.Bus(interface="varnel", channel="0x12345678:0", bitrate=500000).

The channel text is the adapter's handle (hexadecimal with 0x, or decimal) and the channel
number, 0 or 1. CAN FD adapters (handle top nibble 0x5) also take fd=True and data_bitrate=.
Network adapters (handles 0x55xxxxxx/0x56xxxxxx with bit 0 clear) are found through this host's
address on their network: net="192.168.1.10", or the environment variable VARNEL_NET.
Library errors become can.CanInitializationError / can.CanOperationError whose error_code is
the library's result code (-7 for arguments this module refuses before calling the library).
"""
import collections
import dataclasses
import os
import threading
import time

import can

from .adapter import Adapter, is_fd_adapter, is_network_handle, net_scan, scan
from .channel import CanChannel, Frame
from .errors import VarnelError

BAD_ARGUMENT = -7
UNKNOWN_HANDLE = -1
# How long opening a network adapter probes for it: adapters answer at once, the probe always
# runs its whole time.
NET_SCAN_MS = 500

# Channels with a bus in this process: a second bus would split the frames with the first and
# initialise the controller again under it.
_open_channels = set()
_open_lock = threading.Lock()


def parse_channel(channel):
    """(handle, channel number) from "0x12345678:0"; ValueError for anything else."""
    if not isinstance(channel, str) or channel.count(":") != 1:
        raise ValueError(f"channel {channel!r}: expected \"HANDLE:CHANNEL\", e.g. \"0x12345678:0\"")
    handle_text, number_text = (part.strip() for part in channel.split(":"))
    try:
        handle = int(handle_text, 0)
        number = int(number_text, 10)
    except ValueError:
        raise ValueError(f"channel {channel!r}: expected \"HANDLE:CHANNEL\", e.g. \"0x12345678:0\"")
    if not 0 <= handle <= 0xFFFFFFFF:
        raise ValueError(f"channel {channel!r}: the handle is a 32-bit number")
    if number not in (0, 1):
        raise ValueError(f"channel {channel!r}: the adapters have CAN channels 0 and 1")
    return handle, number


def _frame_of(msg):
    if msg.is_error_frame:
        raise ValueError("error frames cannot be sent")
    return Frame(id=msg.arbitration_id, data=bytes(msg.data or b""), extended=msg.is_extended_id,
                 remote=msg.is_remote_frame, fd=msg.is_fd, brs=msg.bitrate_switch, dlc=msg.dlc)


def _find_network_adapter(handle, local_ip):
    """Probes the network of `local_ip` unless the library knows the adapter from an earlier
    scan in this process; CanInitializationError when it is not there."""
    try:
        if handle in net_scan_cache:
            return
        if not local_ip:
            raise can.CanInitializationError(
                f"adapter 0x{handle:08X} is a network adapter: give net=LOCAL_IP (this host's "
                "address on its network) or set VARNEL_NET", error_code=UNKNOWN_HANDLE)
        found = net_scan(str(local_ip), NET_SCAN_MS)
    except VarnelError as error:
        raise can.CanInitializationError(f"network scan from {local_ip!r}: {error}",
                                         error_code=error.code) from error
    except (OSError, UnicodeError) as error:
        raise can.CanInitializationError(str(error), error_code=BAD_ARGUMENT) from error
    net_scan_cache.update(found)
    if handle not in found:
        raise can.CanInitializationError(
            f"adapter 0x{handle:08X}: not found on the network of {local_ip} "
            f"({len(found)} adapter(s) answered)", error_code=UNKNOWN_HANDLE)


# Network adapters found by a scan in this process; the library keeps them listed for its life.
net_scan_cache = set()


class VarnelBus(can.BusABC):
    """One CAN or CAN FD channel of a VARNEL adapter.

    Frames the adapter reports back after sending them (CAN FD adapters do) are dropped unless
    receive_own_messages=True, where they come with is_rx=False; classic adapters report nothing
    back, so there the bus makes the echo itself once the adapter has confirmed the send. Error
    state changes (device events of CAN FD adapters, status changes that classic ones report when
    asked) arrive as SocketCAN error frames. `state = BusState.PASSIVE` initialises the channel
    again listening only; ACTIVE takes it back onto the bus."""

    def __init__(self, channel, can_filters=None, bitrate=500000, fd=False, data_bitrate=None,
                 receive_own_messages=False, net=None, **kwargs):
        try:
            handle, number = parse_channel(channel)
        except ValueError as error:
            raise can.CanInitializationError(str(error), error_code=BAD_ARGUMENT) from error
        self.channel = f"0x{handle:08X}:{number}"
        if is_network_handle(handle):
            _find_network_adapter(handle, net or os.environ.get("VARNEL_NET"))
        with _open_lock:
            if (handle, number) in _open_channels:
                raise can.CanInitializationError(
                    f"channel {self.channel} already has a bus in this process",
                    error_code=BAD_ARGUMENT)
            _open_channels.add((handle, number))
        self._key = (handle, number)
        self._receive_own = bool(receive_own_messages)
        self._pending = collections.deque()
        self._adapter = Adapter(handle)
        self._channel = None
        try:
            self._adapter.open()
            self._channel = CanChannel(self._adapter, number, bitrate, data_bitrate=data_bitrate,
                                       fd=bool(fd))
        except VarnelError as error:
            self._release()
            raise can.CanInitializationError(str(error), error_code=error.code) from error
        except (ValueError, TypeError) as error:
            self._release()
            raise can.CanInitializationError(str(error), error_code=BAD_ARGUMENT) from error
        except OSError as error:  # the library itself could not be loaded
            self._release()
            raise can.CanInterfaceNotImplementedError(str(error)) from error
        kind = "CAN FD" if self._channel.fd else "CAN"
        rates = f"{self._channel.bitrate} bit/s"
        if self._channel.fd:
            rates += f", data {self._channel.data_bitrate} bit/s"
        self.channel_info = f"VARNEL {self.channel} ({kind}, {rates})"
        super().__init__(channel=channel, can_filters=can_filters, **kwargs)

    def send(self, msg, timeout=None):
        if self._channel is not None and self._channel.listen_only:
            raise can.CanOperationError(f"channel {self.channel} only listens (BusState.PASSIVE)",
                                        error_code=BAD_ARGUMENT)
        try:
            sent = self._channel.send([_frame_of(msg)])
        except VarnelError as error:
            raise can.CanOperationError(str(error), error_code=error.code) from error
        except (ValueError, TypeError) as error:
            raise can.CanOperationError(f"frame 0x{msg.arbitration_id:X}: {error}",
                                        error_code=BAD_ARGUMENT) from error
        if sent != 1:
            raise can.CanOperationError(
                f"frame 0x{msg.arbitration_id:X} did not go out (did any node acknowledge it?)",
                error_code=sent)
        if self._receive_own and not self._channel.fd_controller:
            # classic adapters report nothing back: the echo is made here, stamped when the
            # adapter confirmed the frame
            echo = dataclasses.replace(_frame_of(msg), timestamp=time.time(), echo=True)
            self._pending.append(echo)

    def _message_of(self, frame):
        if frame.event:
            return self._error_frame_of(frame)
        return can.Message(
            timestamp=frame.timestamp,
            arbitration_id=frame.id,
            is_extended_id=frame.extended,
            is_remote_frame=frame.remote,
            is_error_frame=frame.event,
            channel=self.channel,
            dlc=frame.dlc,
            data=frame.data,
            is_fd=frame.fd,
            bitrate_switch=frame.brs,
            is_rx=not frame.echo,
        )

    def _error_frame_of(self, event):
        """An error state change (data: 1, transmit errors, receive errors, state flags 1 warning,
        2 passive, 4 bus off) as SocketCAN's error frame for the same change: a controller
        problem (0x04) with the counters (0x200), bus-off (0x40) when it is; data byte 1 the
        warning/passive bits per direction, bytes 6 and 7 the transmit and receive counters."""
        tec, rec, flags = event.data[1], event.data[2], event.data[3]
        data = bytearray(8)
        data[1] = ((0x04 if rec >= 96 else 0) | (0x08 if tec >= 96 else 0) |
                   (0x10 if rec >= 128 else 0) | (0x20 if tec >= 128 else 0))
        data[6], data[7] = tec, rec
        return can.Message(timestamp=event.timestamp, arbitration_id=0x204 | (0x40 if flags & 4 else 0),
                           is_extended_id=False, is_error_frame=True, channel=self.channel, dlc=8,
                           data=bytes(data))

    def _recv_internal(self, timeout):
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            while self._pending:
                frame = self._pending.popleft()
                if frame.echo and not self._receive_own:
                    continue
                return self._message_of(frame), False
            left = None if deadline is None else max(0.0, deadline - time.monotonic())
            try:
                frames = self._channel.receive(left)
            except VarnelError as error:
                raise can.CanOperationError(str(error), error_code=error.code) from error
            if not frames:
                return None, False
            self._pending.extend(frames)

    def _release(self):
        self._adapter.close()
        with _open_lock:
            _open_channels.discard(self._key)

    def _stats(self):
        try:
            return self._channel.receive_stats()
        except VarnelError as error:
            raise can.CanOperationError(str(error), error_code=error.code) from error

    @property
    def reconnects(self):
        """How often the library connected the adapter again since the bus opened. An unplugged
        or power-cycled adapter comes back this way with its channels stopped, so frames stop
        without an error; recv() also logs an error and issues a RuntimeWarning when it sees
        the count change (checked every 0.25 s, and when it gives up)."""
        try:
            return self._channel.reconnects
        except VarnelError as error:
            raise can.CanOperationError(str(error), error_code=error.code) from error

    @property
    def dropped_frames(self):
        """Frames lost on the host since the channel opened: dropped by the full receive queue
        or in fetches too large to be true."""
        stats = self._stats()
        return stats.ApplicationDropped + stats.FetchesDropped

    @property
    def state(self):
        """PASSIVE while the channel only listens; else the controller's state: ERROR when it is
        error-warning, error-passive or bus-off (python-can 4.1 has no state of its own for
        bus-off), else ACTIVE."""
        if self._channel is not None and self._channel.listen_only:
            return can.BusState.PASSIVE
        stats = self._stats()
        if stats.StatusResult < 0:
            raise can.CanOperationError("controller status not read", error_code=stats.StatusResult)
        return can.BusState.ERROR if stats.Status.ErrorFlags & 7 else can.BusState.ACTIVE

    @state.setter
    def state(self, new_state):
        """PASSIVE initialises the channel again listening only (the init record's mode 2), as
        `python -m can.logger --passive` asks; ACTIVE takes it back onto the bus. Frames not yet
        received are dropped with the controller's queue."""
        if new_state not in (can.BusState.ACTIVE, can.BusState.PASSIVE):
            raise ValueError(f"{new_state}: a bus can be set ACTIVE or PASSIVE")
        try:
            self._channel.set_listen_only(new_state == can.BusState.PASSIVE)
        except VarnelError as error:
            raise can.CanOperationError(str(error), error_code=error.code) from error

    def shutdown(self):
        # both closes do nothing the second time; send/recv after this raise -5
        if self._channel is not None:
            self._channel.close()
        self._release()
        super().shutdown()

    @staticmethod
    def _detect_available_configs():
        try:
            handles = scan()
            if os.environ.get("VARNEL_NET"):
                found = net_scan(os.environ["VARNEL_NET"], NET_SCAN_MS)
                net_scan_cache.update(found)
                handles += found
        except (OSError, VarnelError, UnicodeError):
            return []
        return [{"interface": "varnel", "channel": f"0x{h:08X}:{n}", "fd": is_fd_adapter(h)}
                for h in handles for n in (0, 1)]
