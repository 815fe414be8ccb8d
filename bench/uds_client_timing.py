#!/usr/bin/env python3
"""A host-side ISO-TP client through python-can, held to the diagnostic ECU's own timing.

    bench/uds_client_timing.py [BUILD_DIR] [--rounds N] [--size BYTES]

A UDS client stack that runs in the host (as the Python ISO-TP and UDS packages do) sends and
receives every frame itself through can.Bus(interface="varnel"): the flow control after a first
frame, the consecutive frames after the ECU's flow control. Each round writes BYTES (1 KiB by
default) to a data identifier (2E 0100 ...) and reads it back (22 0100), with the ECU's P2 of
50 ms for each answer and ISO 15765-2's N_Bs/N_Cr of 1 s between frames. A round passes when both
answers come in time and the data read back is the data written. Prints the passes and the
median and 99th percentile of a round's duration.
"""
import argparse
import os
import statistics
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from can_recv_latency import CLASSIC, percentile, reexec_on_the_virtual_adapter  # noqa: E402

REQUEST_ID, RESPONSE_ID = 0x7E0, 0x7E8
P2_S, N_BS_S, N_CR_S = 0.050, 1.0, 1.0
PAD = 0xCC


class Timeout(Exception):
    pass


class IsoTpClient:
    """ISO 15765-2 on classic CAN, normal addressing, 8-byte frames padded with 0xCC."""

    def __init__(self, bus):
        self.bus = bus

    def frame(self, payload):
        import can
        data = bytes(payload) + bytes([PAD]) * (8 - len(payload))
        self.bus.send(can.Message(arbitration_id=REQUEST_ID, is_extended_id=False, data=data))

    def receive_frame(self, seconds):
        deadline = time.perf_counter() + seconds
        while True:
            left = deadline - time.perf_counter()
            if left <= 0:
                raise Timeout()
            msg = self.bus.recv(left)
            if msg is not None and msg.arbitration_id == RESPONSE_ID:
                return bytes(msg.data)

    def send(self, payload):
        if len(payload) <= 7:
            self.frame([len(payload)] + list(payload))
            return
        self.frame([0x10 | (len(payload) >> 8), len(payload) & 0xFF] + list(payload[:6]))
        at, sequence = 6, 1
        while at < len(payload):
            control = self.receive_frame(N_BS_S)
            while control[0] == 0x31:  # wait: N_Bs starts again
                control = self.receive_frame(N_BS_S)
            if control[0] != 0x30:
                raise RuntimeError("flow control expected, got %s" % control.hex())
            block, stmin = control[1], control[2]
            sent = 0
            while at < len(payload) and (block == 0 or sent < block):
                self.frame([0x20 | sequence] + list(payload[at:at + 7]))
                at, sequence, sent = at + 7, (sequence + 1) & 0x0F, sent + 1
                if stmin and at < len(payload):
                    time.sleep(stmin / 1000.0 if stmin <= 0x7F else 0.0001 * (stmin - 0xF0))

    def receive(self, first_wait):
        first = self.receive_frame(first_wait)
        kind = first[0] >> 4
        if kind == 0:
            return first[1:1 + (first[0] & 0x0F)]
        if kind != 1:
            raise RuntimeError("unexpected frame %s" % first.hex())
        length = ((first[0] & 0x0F) << 8) | first[1]
        data = bytearray(first[2:8])
        self.frame([0x30, 0x00, 0x00])  # all the rest, no gap
        sequence = 1
        while len(data) < length:
            frame = self.receive_frame(N_CR_S)
            if frame[0] != (0x20 | sequence):
                raise RuntimeError("consecutive frame %d expected, got %s" % (sequence, frame.hex()))
            data += frame[1:8]
            sequence = (sequence + 1) & 0x0F
        return bytes(data[:length])

    def request(self, payload):
        self.send(payload)
        answer = self.receive(P2_S)
        while len(answer) == 3 and answer[0] == 0x7F and answer[2] == 0x78:
            answer = self.receive(5.0)  # P2*
        return answer


def measure(rounds, size):
    import can
    bus = can.Bus(interface="varnel", channel=f"0x{CLASSIC:08X}:0", bitrate=500000)
    client = IsoTpClient(bus)
    durations, failures = [], []
    try:
        for k in range(rounds):
            data = bytes((k + i) & 0xFF for i in range(size))
            start = time.perf_counter()
            try:
                written = client.request(b"\x2E\x01\x00" + data)
                read = client.request(b"\x22\x01\x00")
            except (Timeout, RuntimeError) as e:
                failures.append("round %d: %s" % (k, e or "no answer within P2"))
                continue
            if written != b"\x6E\x01\x00" or read != b"\x62\x01\x00" + data:
                failures.append("round %d: answers %s / %s..." % (k, written.hex(), read[:8].hex()))
                continue
            durations.append(time.perf_counter() - start)
    finally:
        bus.shutdown()
    return durations, failures


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?", default=os.path.join(os.path.dirname(HERE), "build"))
    parser.add_argument("--rounds", type=int, default=50)
    parser.add_argument("--size", type=int, default=1024)
    args = parser.parse_args()
    if not os.environ.get("VARNEL_LATENCY_BENCH"):
        reexec_on_the_virtual_adapter(os.path.abspath(args.build))
    durations, failures = measure(args.rounds, args.size)
    print(f"{len(durations)} of {args.rounds} rounds passed ({args.size}-byte write and read back, "
          f"P2 {P2_S * 1000:.0f} ms)")
    for line in failures[:5]:
        print("  " + line)
    if durations:
        print(f"  round: median {statistics.median(durations) * 1000:.1f} ms, "
              f"p99 {percentile(durations, 0.99) * 1000:.1f} ms")
    return 0 if not failures else 1


if __name__ == "__main__":
    sys.exit(main())
