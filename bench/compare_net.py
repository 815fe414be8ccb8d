#!/usr/bin/env python3
"""Runs bench_net_roundtrip with repetitions (interleaved, so that a change in the machine's load
hits every benchmark alike) and prints, per packet size, the median round trip through the
library, the raw-socket floor against the same echo server, their ratio, and the round trip to
the virtual adapter's daemon for reference."""
import json
import subprocess
import sys

binary = sys.argv[1] if len(sys.argv) > 1 else "build/bench/bench_net_roundtrip"
out = subprocess.run([binary, "--benchmark_repetitions=15", "--benchmark_enable_random_interleaving=true",
                      "--benchmark_report_aggregates_only=true",
                      "--benchmark_format=json"], check=True, capture_output=True, text=True).stdout
medians = {}
for b in json.loads(out)["benchmarks"]:
    if b.get("aggregate_name") == "median":
        name, size = b["run_name"].split("/")[0:2]
        medians[(name, size)] = b["real_time"]
labels = {"0": "device time (8 B request, 16 B reply)", "1": "user data (16 B request, 1032 B reply)"}
for size, label in labels.items():
    lib = medians.get(("BM_LibraryRoundTrip", size))
    raw = medians.get(("BM_RawPingPong", size))
    daemon = medians.get(("BM_LibraryToDaemon", size))
    if lib and raw:
        print(f"{label}: library {lib / 1000:.1f} us, raw {raw / 1000:.1f} us, ratio {lib / raw:.2f}"
              + (f"; to the virtual adapter daemon {daemon / 1000:.1f} us" if daemon else ""))
