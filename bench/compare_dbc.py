#!/usr/bin/python3
"""DBC parse time and decode throughput: bench_dbc against canmatrix and candied, in one run.

usage: compare_dbc.py BENCH_DBC [--file F.dbc] [--candied DIR/node_modules/candied]
Each decoder parses the same file and decodes one random frame per message, every signal to its
physical value; the ratios are ours over theirs (how many times faster).
"""
import argparse
import contextlib
import io
import json
import logging
import os
import random
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_FILE = os.path.join(HERE, "..", "tests", "data", "dbc",
                            "opendbc__ford_lincoln_base_pt.dbc")

CANDIED = r"""
const {Dbc, Can} = require(process.argv[process.argv.length - 1]);
const fs = require('fs');
const file = process.argv[process.argv.length - 2];
const text = fs.readFileSync(file, 'latin1');
let best = Infinity, data;
for (let i = 0; i < 3; ++i) {
  const t = process.hrtime.bigint();
  data = new Dbc().load(text);
  best = Math.min(best, Number(process.hrtime.bigint() - t) / 1e6);
}
const can = new Can();
can.database = data;
const frames = [];
for (const [name, m] of data.messages) {
  const payload = [];
  for (let i = 0; i < Math.min(m.dlc, 64); ++i) payload.push((Math.random() * 256) | 0);
  frames.push(can.createFrame(m.id, payload, m.extended));
}
let n = 0;
const t0 = process.hrtime.bigint();
while (Number(process.hrtime.bigint() - t0) < 2e9) {
  for (const f of frames) {
    const bound = can.decode(f);
    if (bound) for (const [k, s] of bound.boundSignals) s.physValue;
    ++n;
  }
}
const secs = Number(process.hrtime.bigint() - t0) / 1e9;
process.stdout.write(JSON.stringify({parse_ms: best, frames_per_s: n / secs}));
"""


def ours(bench, path):
    env = dict(os.environ, VARNEL_DBC_BENCH_FILE=path)
    out = subprocess.run([bench, "--benchmark_format=json", "--benchmark_min_time=1"],
                         env=env, capture_output=True, check=True).stdout
    res = {b["name"]: b for b in json.loads(out)["benchmarks"]}
    return res["BM_ParseFile"]["real_time"], res["BM_DecodeFrames"]["frames_per_s"]


def canmatrix_numbers(path):
    import canmatrix.formats
    logging.disable(logging.CRITICAL)
    best = float("inf")
    for _ in range(3):
        t = time.perf_counter()
        with contextlib.redirect_stdout(io.StringIO()):
            cm = canmatrix.formats.loadp_flat(path)
        best = min(best, time.perf_counter() - t)
    rng = random.Random(7)
    frames = [(f, bytes(rng.getrandbits(8) for _ in range(f.size))) for f in cm.frames]
    n, t0 = 0, time.perf_counter()
    while time.perf_counter() - t0 < 2.0:
        for f, data in frames:
            for sig in f.decode(data).values():
                sig.phys_value
            n += 1
    return best * 1000.0, n / (time.perf_counter() - t0)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("bench")
    ap.add_argument("--file", default=DEFAULT_FILE)
    ap.add_argument("--candied")
    args = ap.parse_args()
    path = os.path.abspath(args.file)
    rows = [("varnel",) + ours(args.bench, path), ("canmatrix",) + canmatrix_numbers(path)]
    if args.candied:
        out = subprocess.run(["node", "-e", CANDIED, "--", path, os.path.abspath(args.candied)],
                             capture_output=True, check=True).stdout
        r = json.loads(out)
        rows.append(("candied", r["parse_ms"], r["frames_per_s"]))
    print("file: %s (%d bytes)" % (os.path.basename(path), os.path.getsize(path)))
    print("%-10s %12s %16s %14s %14s" % ("decoder", "parse ms", "decode frames/s", "parse ratio",
                                         "decode ratio"))
    base_parse, base_rate = rows[0][1], rows[0][2]
    for name, parse_ms, rate in rows:
        print("%-10s %12.2f %16.0f %13.1fx %13.1fx" % (name, parse_ms, rate, parse_ms / base_parse,
                                                       base_rate / rate))
    print("(ratios: how many times faster varnel is than each decoder)")


if __name__ == "__main__":
    sys.exit(main())
