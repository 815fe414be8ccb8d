#!/usr/bin/python3
"""`varnel monitor` at full load: two channels at 1 Mbit/s through the monitor and a headless
Chromium on its page.

    bench/monitor_load.py [BUILD_DIR] [--seconds 60] [--ids 10] [--data 5A]

The virtual bus carries Engine (0x123, eight bytes, decoded through tests/cli/data/bench.dbc)
and IDS small frames of DATA, each every millisecond: about 11,000 frames/s and 69% load at
1 Mbit/s with the defaults; `--ids 13 --data ''` gives 14,000 frames/s, near the most the virtual
bus carries (it reckons a frame without data at 64 us, one of eight bytes at 135 us; more than a
millisecond's worth a millisecond and its frames fall behind the clock). can0 and can1 both hear
all of it. After the first sixth of the
run (the warm-up: queues, page and charts filled) it measures until the end:
- counts: per channel every identifier's count (all run at the same period from the same start,
  so they must agree within one, and the channel's frame total must be their sum) and the host
  queues' losses (must be 0);
- server CPU: utime + stime of the monitor process from /proc/PID/stat, as % of one core, and
  per 10,000 frames/s of the two channels together. On the virtual adapter the process also runs
  the virtual bus and adapter (inside the library's fetches), so this is the monitor's upper bound;
- the page: updates received per second, and its main thread's busy share from the DevTools
  protocol's Performance.getMetrics (TaskDuration and ScriptDuration deltas over the time);
- memory: the monitor's RSS at the end of the warm-up and at the end.
"""
import argparse
import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(SOURCE, "tests", "monitor"))
from monitor_page_test import monitor_page  # noqa: E402

TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS  # utime, stime


def rss_mib(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024
    return 0.0


def metrics(page):
    values = {m["name"]: m["value"] for m in page.call("Performance.getMetrics")["metrics"]}
    return values["TaskDuration"], values["ScriptDuration"]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?", default=os.path.join(SOURCE, "build"))
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--ids", type=int, default=10)
    parser.add_argument("--data", default="5A", help="the small frames' data (empty: DLC 0)")
    args = parser.parse_args()
    varnel = os.path.join(args.build, "bin", "varnel")
    dbc = os.path.join(SOURCE, "tests", "cli", "data", "bench.dbc")
    traffic = ",".join(["123#E803021E00000000@1"] + [f"{0x200 + i:03X}#{args.data}@1" for i in range(args.ids)])
    per_ms = 1 + args.ids
    command = [varnel, "--sim-can-peer", "1000000", "--sim-traffic", traffic, "monitor", "can0",
               "can1", "-b", "1000000", "--dbc", dbc, "--port", "0"]
    with monitor_page(command) as (monitor, page, _):
        page.wait_for("window.monitorState && window.monitorState.channels.length == 2")
        page.call("Performance.enable")
        # a signal on the chart, as a user watching the bus would have
        page.wait_for("!!document.querySelector('[data-signal=\"can0/Engine.Speed\"]')")
        page.js("document.querySelector('[data-signal=\"can0/Engine.Speed\"]').click()")
        time.sleep(args.seconds / 6)
        t0, cpu0, rss0 = time.monotonic(), cpu_seconds(monitor.pid), rss_mib(monitor.pid)
        task0, script0 = metrics(page)
        updates0 = page.js("window.monitorState.updates")
        rss_samples = [rss0]
        end = t0 + args.seconds * 5 / 6
        while time.monotonic() < end:
            time.sleep(min(5, max(0, end - time.monotonic())))
            rss_samples.append(rss_mib(monitor.pid))
        t1, cpu1 = time.monotonic(), cpu_seconds(monitor.pid)
        task1, script1 = metrics(page)
        updates1 = page.js("window.monitorState.updates")
        # both from the same update
        channels, rows = page.js("[window.monitorState.channels, "
                                 "[...window.monitorState.rows.values()].map(r => [r.ch, r.id, r.count])]")

    span = t1 - t0
    fps = sum(c["fps"] for c in channels)
    print(f"{args.seconds:.0f} s run, measured over the last {span:.1f} s; "
          f"{per_ms} frames/ms scheduled per channel")
    ok = True
    for i, c in enumerate(channels):
        counts = [n for ch, _, n in rows if ch == i]
        lost = c["app_dropped"] + c["fetch_dropped"]
        spread = max(counts) - min(counts) if counts else -1
        even = len(counts) == per_ms and spread <= 1 and c["frames"] == sum(counts)
        ok = ok and even and lost == 0
        print(f"  {c['name']}: {c['frames']} frames, {c['fps']:.0f} frames/s, load {c['load']:.1f} %,"
              f" {len(counts)} ids, counts spread {spread}, host queues lost {lost}"
              f" ({'ok' if even and lost == 0 else 'FRAMES MISSING'})")
    busy = (cpu1 - cpu0) / span * 100
    print(f"  server CPU: {busy:.1f} % of a core for {fps:.0f} frames/s: "
          f"{busy * 10000 / fps:.1f} % per 10,000 frames/s (goal < 20)")
    print(f"  page: {(updates1 - updates0) / span:.1f} updates/s, main thread busy "
          f"{(task1 - task0) / span * 100:.1f} % (script {(script1 - script0) / span * 100:.1f} %)"
          f" (goal < 30)")
    print(f"  RSS: {rss_samples[0]:.1f} MiB after the warm-up, {rss_samples[-1]:.1f} MiB at the end,"
          f" max {max(rss_samples):.1f} MiB")
    print("    every 5 s: " + " ".join(f"{r:.1f}" for r in rss_samples))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
