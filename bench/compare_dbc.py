#!/usr/bin/python3
"""DBC parse time and decode throughput: bench_dbc against canmatrix and candied, in one run.

usage: compare_dbc.py BENCH_DBC [--file F.dbc] [--candied DIR/node_modules/candied]
       compare_dbc.py BENCH_DBC --scaling [300,1000,10000]
Each decoder parses the same file and decodes one random frame per message, every signal to its
physical value; the ratios are ours over theirs (how many times faster).
--scaling writes generated files of that many messages (each with comments, value tables, a float
signal and attributes, as exported databases have them) and prints the load time per message of
both parsers (CPU time: ours the median of 5 runs, canmatrix the best of 3): a loader whose
references search every message grows with the file.
--scaling --instructions counts our loader's instructions per message instead, under
valgrind's callgrind (one load, less the count for an empty file): the same figure whatever else
the machine runs, so it shows the loader's own growth apart from the memory hierarchy's.
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
import tempfile
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


def synthetic_dbc(messages):
    """A database of `messages` messages of 8 signals; references follow all messages, as exported
    files order them, so each one must be found among all messages."""
    def frame_id(i):  # the first 2048 standard, the rest extended
        return i if i < 2048 else 0x80000000 | (0x18000000 + i)
    out = ['VERSION ""', "", "NS_ :", "", "BS_:", "", "BU_: ECU", ""]
    for i in range(messages):
        out.append("BO_ %d Message_%d: 8 ECU" % (frame_id(i), i))
        out.append(" SG_ Mode_%d : 0|4@1+ (1,0) [0|15] \"\" ECU" % i)
        for k in range(1, 7):
            out.append(" SG_ Signal_%d_%d : %d|4@1+ (0.5,-10) [-10|-2.5] \"km/h\" ECU" % (i, k, 4 * k))
        out.append(" SG_ Level_%d : 32|32@1- (1,0) [-1000|1000] \"V\" ECU" % i)
        out.append("")
    for i in range(messages):
        out.append('CM_ BO_ %d "Message number %d";' % (frame_id(i), i))
        out.append('CM_ SG_ %d Mode_%d "Operating mode";' % (frame_id(i), i))
    out.append('BA_DEF_ BO_ "GenMsgCycleTime" INT 0 10000;')
    out.append('BA_DEF_ SG_ "GenSigStartValue" INT 0 10000;')
    out.append('BA_DEF_DEF_ "GenMsgCycleTime" 100;')
    out.append('BA_DEF_DEF_ "GenSigStartValue" 0;')
    for i in range(messages):
        out.append('BA_ "GenMsgCycleTime" BO_ %d %d;' % (frame_id(i), 10 + i % 90))
        out.append('BA_ "GenSigStartValue" SG_ %d Signal_%d_1 20;' % (frame_id(i), i))
    for i in range(messages):
        out.append('VAL_ %d Mode_%d 0 "Off" 1 "Standby" 2 "Run" 3 "Fault" ;' % (frame_id(i), i))
    for i in range(messages):
        out.append("SIG_VALTYPE_ %d Level_%d : 1;" % (frame_id(i), i))
    return "\n".join(out) + "\n"


def load_instructions(bench, path):
    """Instructions of the bench program loading `path` once (callgrind's total)."""
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "callgrind.out")
        env = dict(os.environ, VARNEL_DBC_BENCH_FILE=path)
        run = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out, bench,
                              "--benchmark_filter=BM_ParseFile$", "--benchmark_min_time=0"],
                             env=env, capture_output=True, text=True, check=True)
        for line in run.stderr.splitlines():
            if "Collected :" in line:
                return int(line.split(":")[-1])
    raise RuntimeError("callgrind printed no total")


def scaling_instructions(bench, sizes):
    print("%8s %18s %12s" % ("messages", "instructions/msg", "x at first"))
    first = None
    with tempfile.TemporaryDirectory() as tmp:
        def write(n):
            path = os.path.join(tmp, "synthetic_%d.dbc" % n)
            with open(path, "w") as f:
                f.write(synthetic_dbc(n))
            return path
        baseline = load_instructions(bench, write(0))
        for n in sizes:
            per_msg = (load_instructions(bench, write(n)) - baseline) / n
            first = first or per_msg
            print("%8d %18.0f %11.3fx" % (n, per_msg, per_msg / first))


def scaling(bench, sizes):
    print("%8s %10s %14s %12s %16s" % ("messages", "bytes", "varnel us/msg", "x at first",
                                       "canmatrix us/msg"))
    first = None
    with tempfile.TemporaryDirectory() as tmp:
        for n in sizes:
            path = os.path.join(tmp, "synthetic_%d.dbc" % n)
            with open(path, "w") as f:
                f.write(synthetic_dbc(n))
            env = dict(os.environ, VARNEL_DBC_BENCH_FILE=path)
            out = subprocess.run([bench, "--benchmark_format=json", "--benchmark_min_time=1",
                                  "--benchmark_repetitions=5", "--benchmark_filter=BM_ParseFile$"],
                                 env=env, capture_output=True, check=True).stdout
            runs = [b for b in json.loads(out)["benchmarks"] if b.get("run_type") == "iteration"]
            # CPU time, the median of the runs: on a shared machine the wall clock mostly
            # measures the other processes
            ours_ms = sorted(b["cpu_time"] for b in runs)[len(runs) // 2]
            theirs_ms = canmatrix_numbers(path, decode=False, clock=time.process_time)[0]
            per_msg = ours_ms * 1000.0 / n
            first = first or per_msg
            print("%8d %10d %14.2f %11.2fx %16.1f" % (n, os.path.getsize(path), per_msg,
                                                      per_msg / first, theirs_ms * 1000.0 / n))


def ours(bench, path):
    env = dict(os.environ, VARNEL_DBC_BENCH_FILE=path)
    out = subprocess.run([bench, "--benchmark_format=json", "--benchmark_min_time=1"],
                         env=env, capture_output=True, check=True).stdout
    res = {b["name"]: b for b in json.loads(out)["benchmarks"]}
    return res["BM_ParseFile"]["real_time"], res["BM_DecodeFrames"]["frames_per_s"]


def canmatrix_numbers(path, decode=True, clock=time.perf_counter):
    import canmatrix.formats
    logging.disable(logging.CRITICAL)
    best = float("inf")
    for _ in range(3):
        t = clock()
        with contextlib.redirect_stdout(io.StringIO()):
            cm = canmatrix.formats.loadp_flat(path)
        best = min(best, clock() - t)
    if not decode:
        return best * 1000.0, None
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
    ap.add_argument("--scaling", nargs="?", const="300,1000,10000")
    ap.add_argument("--instructions", action="store_true",
                    help="with --scaling: callgrind's instruction counts instead of CPU time")
    args = ap.parse_args()
    if args.scaling and args.instructions:
        return scaling_instructions(args.bench, [int(n) for n in args.scaling.split(",")])
    if args.scaling:
        return scaling(args.bench, [int(n) for n in args.scaling.split(",")])
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
