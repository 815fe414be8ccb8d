#!/usr/bin/env python3
"""How soon a frame the virtual diagnostic ECU sends reaches python-can's bus.recv().

    bench/can_recv_latency.py [BUILD_DIR] [--rounds N] [--fd]

Single-frame UDS round trips (tester present, 3E 00 -> 7E 00) through can.Bus(interface="varnel")
on the virtual adapter, with the ECU on 7E0/7E8. Prints the median and 99th percentile of
- the round trip: bus.send() called until bus.recv() returned the answer (two frames of about
  0.2 ms each on the bus at 500 kbit/s and the ECU's 0.1 ms answer delay included);
- the answer's delivery: bus.recv() returned, less the frame's own time stamp (its end on the bus).
"""
import argparse
import os
import statistics
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
CLASSIC, FD = 0x12345678, 0x53000001


def reexec_on_the_virtual_adapter(build, ecu="7E0/7E8"):
    """The usbsim must be in the loader's path when the process starts."""
    # PYTHONPATH, when set, names the package to measure (another checkout's, for a comparison)
    python = os.environ.get("PYTHONPATH") or os.path.join(SOURCE, "python")
    env = dict(os.environ, VARNEL_LATENCY_BENCH="1", PYTHONPATH=python,
               VARNEL_LIBRARY=os.path.join(build, "libvarnel.so"),
               LD_LIBRARY_PATH=os.path.join(build, "usbsim"),
               VARNEL_USBSIM_ADAPTERS=f"0x{CLASSIC:08X},0x{FD:08X}", VARNEL_SIM_CAN_ECU=ecu,
               VARNEL_SIM_CAN_PEER="500000/2000000")
    os.execve("/usr/bin/python3", ["/usr/bin/python3"] + sys.argv, env)


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def measure(handle, rounds):
    import can

    bus = can.Bus(interface="varnel", channel=f"0x{handle:08X}:0", bitrate=500000)
    request = can.Message(arbitration_id=0x7E0, is_extended_id=False,
                          data=[0x02, 0x3E, 0x00, 0, 0, 0, 0, 0])
    trips, deliveries, lost = [], [], 0
    try:
        for _ in range(rounds + 20):
            start = time.perf_counter()
            bus.send(request)
            answer = None
            while answer is None:
                msg = bus.recv(1.0)
                if msg is None:
                    break
                if msg.arbitration_id == 0x7E8 and bytes(msg.data[:3]) == b"\x02\x7E\x00":
                    answer = msg
            if answer is None:
                lost += 1
                continue
            trips.append(time.perf_counter() - start)
            deliveries.append(time.time() - answer.timestamp)
    finally:
        bus.shutdown()
    return trips[20:], deliveries[20:], lost  # the first rounds warm up


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?", default=os.path.join(SOURCE, "build"))
    parser.add_argument("--rounds", type=int, default=500)
    parser.add_argument("--fd", action="store_true", help="the CAN FD adapter")
    args = parser.parse_args()
    if not os.environ.get("VARNEL_LATENCY_BENCH"):
        reexec_on_the_virtual_adapter(os.path.abspath(args.build))
    trips, deliveries, lost = measure(FD if args.fd else CLASSIC, args.rounds)
    ms = 1000.0
    print(f"{len(trips)} round trips ({lost} unanswered), adapter 0x{FD if args.fd else CLASSIC:08X}")
    print(f"  round trip  send -> recv: median {statistics.median(trips) * ms:.2f} ms, "
          f"p99 {percentile(trips, 0.99) * ms:.2f} ms")
    print(f"  delivery  bus end -> recv: median {statistics.median(deliveries) * ms:.2f} ms, "
          f"p99 {percentile(deliveries, 0.99) * ms:.2f} ms")


if __name__ == "__main__":
    main()
