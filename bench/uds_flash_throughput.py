#!/usr/bin/env python3
"""Flash throughput against the bus: an image (256 KiB by default) flashed into the virtual
diagnostic ECU with varnel.uds.Client.flash(), at 500 kbit/s on classic CAN (8-byte frames) and
at 500 kbit/s / 2 Mbit/s on CAN FD (64-byte frames, bit-rate switch).

    bench/uds_flash_throughput.py [BUILD_DIR] [--size BYTES] [--runs N] [--block N]

The virtual bus keeps bus time on the host's clock: a frame occupies the bus for as long as its
bits take, so the flash cannot go faster than the bus. Reported per mode (median of the runs):
- transfer: the bytes of the transfer data blocks after the first, over the time from the first
  block's answer to the last one's (the progress callbacks), in bytes/s, and its ratio to the
  ISO-TP ceiling;
- whole flash: the image over the whole flash() (sessions, security access, erase with its
  "response pending", download, exit, check routine, reset).

The ceiling, computed here from the frame formats of ISO 11898-1 (not from the simulator): one
transfer data request of maxNumberOfBlockLength L bytes (L - 2 of them data) is a first frame
and ceil((L - FF) / CF) consecutive frames (FF, CF: the data bytes a first and a consecutive frame
carry: 6 and 7 on 8-byte frames, 62 and 63 on 64-byte ones), one flow control frame per block of
BS consecutive frames (one in all with BS 0), STmin between consecutive frames, and the answer
(76 counter) in a single frame; flow control and answer are 8-byte frames. Frame bits:
- classic, 11-bit identifier: SOF, identifier, RTR, IDE, r0, DLC, data, CRC-15 (34 + 8n bits,
  stuffed), CRC delimiter, ACK slot and delimiter, EOF, intermission (13 bits);
- CAN FD, 11-bit identifier, bit-rate switch: at the nominal rate SOF, identifier, RRS, IDE, FDF,
  res, BRS (17 bits) and ACK slot and delimiter, EOF, intermission (12); at the data rate ESI,
  DLC, data (5 + 8n), the stuff count (4), CRC-17 (n <= 16) or CRC-21, its fixed stuff bits (one
  before the stuff count and one after every 4 bits) and the CRC delimiter.
Stuffing: the ceiling takes the worst case, one stuff bit after every 4 bits of the stuffed
fields (what the bus guarantees whatever the data); the ceiling without any stuff bits is printed
beside it as the bound no data can beat.
"""
import argparse
import math
import os
import random
import statistics
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from can_recv_latency import CLASSIC, FD, reexec_on_the_virtual_adapter  # noqa: E402

NOMINAL, DATA = 500000, 2000000
ECU_BLOCK_SIZE, ECU_STMIN_US = 0, 0  # the virtual ECU's flow control: 30 00 00
ADDRESS = 0x00020000


def stuff_bits(stuffed, worst):
    return (stuffed - 1) // 4 if worst else 0


def classic_frame_us(n, worst=True):
    stuffed = 34 + 8 * n
    return (stuffed + stuff_bits(stuffed, worst) + 13) * 1e6 / NOMINAL


def fd_frame_us(n, worst=True):
    arbitration = 17
    payload = 5 + 8 * n
    dynamic = stuff_bits(arbitration + payload, worst)
    nominal_stuff = stuff_bits(arbitration, worst)
    crc = 17 if n <= 16 else 21
    fixed = 1 + (4 + crc - 1) // 4
    nominal_bits = arbitration + nominal_stuff + 12
    data_bits = payload + (dynamic - nominal_stuff) + 4 + crc + fixed + 1
    return nominal_bits * 1e6 / NOMINAL + data_bits * 1e6 / DATA


def ceiling_bytes_per_s(block_length, fd, worst=True):
    frame_us = fd_frame_us if fd else classic_frame_us
    length = 64 if fd else 8
    first, consecutive = length - 2, length - 1
    cfs = math.ceil((block_length - first) / consecutive)
    flows = 1 + (math.ceil(cfs / ECU_BLOCK_SIZE) - 1 if ECU_BLOCK_SIZE else 0)
    us = ((1 + cfs) * frame_us(length, worst) + flows * frame_us(8, worst) +
          frame_us(8, worst) + (cfs - 1) * ECU_STMIN_US)
    return (block_length - 2) / (us / 1e6)


def flash_once(fd, size, seed):
    import varnel
    from varnel.uds import Client

    image = random.Random(seed).randbytes(size)
    stamps = []
    with varnel.Adapter(FD if fd else CLASSIC) as adapter:
        channel = adapter.can(0, bitrate=NOMINAL, data_bitrate=DATA if fd else None,
                              fd=True if fd else None)
        try:
            client = Client(adapter.uds(0, 0x7E0, 0x7E8, brs=fd), timeout=2.0)
            start = time.perf_counter()
            client.flash([(ADDRESS, image)],
                         progress=lambda done, total: stamps.append((time.perf_counter(), done)))
            whole = time.perf_counter() - start
        finally:
            channel.close()
    (t0, d0), (t1, d1) = stamps[0], stamps[-1]
    return (d1 - d0) / (t1 - t0), size / whole


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?", default=os.path.join(os.path.dirname(HERE), "build"))
    parser.add_argument("--size", type=int, default=256 * 1024)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--block", type=int, default=0x802,
                        help="the ECU's maxNumberOfBlockLength (2050: 2048 data bytes a block)")
    args = parser.parse_args()
    if not os.environ.get("VARNEL_LATENCY_BENCH"):
        reexec_on_the_virtual_adapter(os.path.abspath(args.build), f"7E0/7E8,block={args.block}")
    print(f"{args.size} bytes flashed at 0x{ADDRESS:08X}, maxNumberOfBlockLength {args.block}, "
          f"the ECU's flow control BS {ECU_BLOCK_SIZE} STmin {ECU_STMIN_US} us; median of "
          f"{args.runs} runs")
    for fd, name in [(False, "classic 500 kbit/s, 8-byte frames"),
                     (True, "CAN FD 500 kbit/s / 2 Mbit/s, 64-byte frames")]:
        runs = [flash_once(fd, args.size, seed) for seed in range(args.runs)]
        transfer = statistics.median(r[0] for r in runs)
        whole = statistics.median(r[1] for r in runs)
        ceiling = ceiling_bytes_per_s(args.block, fd)
        bound = ceiling_bytes_per_s(args.block, fd, worst=False)
        print(f"{name}:\n"
              f"  ceiling {ceiling:9.0f} B/s (worst-case stuffing; {bound:.0f} without stuff bits)\n"
              f"  transfer {transfer:8.0f} B/s  ratio {transfer / ceiling:.3f} "
              f"({transfer / bound:.3f} of the bound)\n"
              f"  whole flash {whole:5.0f} B/s  ratio {whole / ceiling:.3f}")


if __name__ == "__main__":
    main()
