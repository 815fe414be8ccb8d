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

sys.path.insert(0, os.path.join(os.path.dirname(HERE), "tests", "interop", "python"))
from isotp_tester import IsoTpClient, P2_S, Timeout  # noqa: E402


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
