#!/usr/bin/python3
"""Real DBC files against independent decoders.

For every file of the data set and every message: encode random in-range raw values through
libvarnel's DBC_ calls and decode the frame with canmatrix's bit extraction; decode random
payloads with both and compare the physical values. Messages and signals canmatrix does not
load are cross-checked with the npm package candied where it can (Intel integer signals of
frames up to 8 bytes). What lies outside our model or an oracle's reach is counted as an
exclusion with its reason.

Exit status 0 only when every compared signal agrees in every trial and every oracle was there.
"""
import argparse
import contextlib
import ctypes
import glob
import io
import json
import logging
import math
import os
import random
import struct
import subprocess
import sys
from collections import Counter, defaultdict

try:
    import canmatrix.formats
    from canmatrix.canmatrix import Frame
except ImportError as e:  # the oracle must be there: no silent pass
    sys.exit("FAIL: canmatrix is missing (%s); install python3-canmatrix" % e)

ENCODE_TRIALS = 6
DECODE_TRIALS = 6


class CANFD_MSG(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("Id", ctypes.c_uint32), ("DataLen", ctypes.c_uint8), ("Flags", ctypes.c_uint8),
                ("Res", ctypes.c_uint8), ("TimeStampHigh", ctypes.c_uint8),
                ("TimeStamp", ctypes.c_uint32), ("Data", ctypes.c_uint8 * 64)]


def open_library(path):
    lib = ctypes.CDLL(path)
    H, S, I, U = ctypes.c_uint64, ctypes.c_char_p, ctypes.c_int, ctypes.c_uint32
    proto = {
        "VARNEL_DbcLoadFile": (H, [S]),
        "DBC_GetMsgQuantity": (I, [H]),
        "DBC_GetMsgName": (I, [H, I, S]),
        "DBC_GetMsgIDByName": (I, [H, S]),
        "DBC_GetMsgSignalQuantity": (I, [H, S]),
        "DBC_GetMsgSignalName": (I, [H, S, U, S]),
        "DBC_SetSignalValue": (I, [H, S, S, ctypes.c_double]),
        "DBC_GetSignalValue": (I, [H, S, S, ctypes.POINTER(ctypes.c_double)]),
        "DBC_SyncCANFDMsgToValue": (I, [H, ctypes.POINTER(CANFD_MSG), I]),
        "DBC_SyncValueToCANFDMsg": (I, [H, S, ctypes.POINTER(CANFD_MSG)]),
    }
    for name, (res, args) in proto.items():
        fn = getattr(lib, name)
        fn.restype, fn.argtypes = res, args
    return lib


class Ours:
    """A database loaded through the exported calls."""

    def __init__(self, lib, path):
        self.lib = lib
        self.h = lib.VARNEL_DbcLoadFile(path.encode())
        if not self.h:
            raise RuntimeError("libvarnel could not load " + path)
        buf = ctypes.create_string_buffer(8704)
        self.messages = []  # (name, id) in file order
        for i in range(lib.DBC_GetMsgQuantity(self.h)):
            lib.DBC_GetMsgName(self.h, i, buf)
            name = buf.value
            self.messages.append((name, lib.DBC_GetMsgIDByName(self.h, name) & 0xFFFFFFFF))
        self.signals = {}
        for name, _ in self.messages:
            sigs = []
            for k in range(max(0, lib.DBC_GetMsgSignalQuantity(self.h, name))):
                lib.DBC_GetMsgSignalName(self.h, name, k, buf)
                sigs.append(buf.value)
            self.signals.setdefault(name, sigs)

    def first_id(self, name):
        for n, i in self.messages:
            if n == name:
                return i
        return None

    def set(self, msg, sig, value):
        return self.lib.DBC_SetSignalValue(self.h, msg, sig, value)

    def build(self, msg):
        rec = CANFD_MSG()
        assert self.lib.DBC_SyncValueToCANFDMsg(self.h, msg, ctypes.byref(rec)) == 0
        return bytes(rec.Data)

    def feed(self, ident, payload):
        rec = CANFD_MSG()
        rec.Id, rec.DataLen = ident, 64
        rec.Data[:] = payload
        assert self.lib.DBC_SyncCANFDMsgToValue(self.h, ctypes.byref(rec), 1) == 0

    def get(self, msg, sig):
        v = ctypes.c_double()
        ret = self.lib.DBC_GetSignalValue(self.h, msg, sig, ctypes.byref(v))
        return ret, v.value


def enc(s):
    return s.encode("latin-1", "replace")


def oracle_raws(frame, payload):
    """canmatrix's own bit extraction over the 64-byte data area, signal by signal."""
    little, big = Frame.bytes_to_bitstrings(payload)
    return Frame.bitstring_to_signal_list(frame.signals, big, little, 512)


def model_range(sig):
    """The clamp range our model applies: the file's, or the bit length's when it is empty."""
    lo, hi = float(sig.min), float(sig.max)
    f, o = float(sig.factor), float(sig.offset)
    if lo == hi:
        mask = (1 << sig.size) - 1 if sig.size < 64 else (1 << 64) - 1
        lo, hi = o, float(mask) * f + o
    return lo, hi


def raw_limits(sig):
    n = sig.size
    lo, hi = (-(1 << (n - 1)), (1 << (n - 1)) - 1) if sig.is_signed else (0, (1 << n) - 1)
    plo, phi = model_range(sig)
    f, o = float(sig.factor), float(sig.offset)
    if f == 0:
        return None
    if plo > phi:
        # An inverted range (a negative factor widened from [0|0]) clamps every value to its
        # minimum: that is the only value a caller can set.
        phi = plo
    a, b = (plo - o) / f, (phi - o) / f
    if a > b:
        a, b = b, a
    lo, hi = max(lo, math.ceil(a)), min(hi, math.floor(b))
    return (lo, hi) if lo <= hi else None


def random_raw(rng, sig):
    lim = raw_limits(sig)
    if lim is None:
        return None
    if sig.size > 53:
        # A physical value is a double: use raws a double holds exactly.
        lo, hi = -((-lim[0]) >> 11), lim[1] >> 11
        return rng.randint(lo, hi) << 11 if lo <= hi else None
    return rng.randint(*lim)


def bit_positions(sig):
    """Payload bit positions (byte * 8 + bit) canmatrix reads the signal from."""
    if sig.is_little_endian:
        js = range(512 - sig.start_bit - sig.size, 512 - sig.start_bit)
        return {(63 - j // 8) * 8 + 7 - j % 8 for j in js}
    return {(i // 8) * 8 + 7 - i % 8 for i in range(sig.start_bit, sig.start_bit + sig.size)}


def overlapping(sigs):
    """Signals sharing bits with another signal that can be in the same frame."""
    pos = [bit_positions(s) for s in sigs]
    hit = set()
    for a in range(len(sigs)):
        for b in range(a + 1, len(sigs)):
            ma, mb = sigs[a].mux_val, sigs[b].mux_val
            if ma is not None and mb is not None and ma != mb:
                continue
            if pos[a] & pos[b]:
                hit.update((sigs[a].name, sigs[b].name))
    return hit


def same_float(a, b):
    return (math.isnan(a) and math.isnan(b)) or a == b


def close(a, b):
    return a == b or abs(a - b) <= 1e-12 * max(1.0, abs(a), abs(b))


class FileReport:
    def __init__(self, name):
        self.name = name
        self.compared = set()
        self.failed = {}
        self.excluded = Counter()
        self.candied = set()
        self.candied_failed = {}
        self.checks = 0
        self.encode_skipped = 0


def check_file(path, lib, rng, candied_jobs):
    rep = FileReport(os.path.basename(path))
    out = io.StringIO()
    with contextlib.redirect_stdout(out), contextlib.redirect_stderr(out):
        cm = canmatrix.formats.loadp_flat(path)
    ours = Ours(lib, path)

    names = Counter(f.name for f in cm.frames)
    ids = Counter((f.arbitration_id.id, f.arbitration_id.extended) for f in cm.frames)
    covered = set()
    for frame in cm.frames:
        name = enc(frame.name)
        key = frame.arbitration_id.id | (0x80000000 if frame.arbitration_id.extended else 0)
        sigs = list(frame.signals)
        if names[frame.name] > 1 or ids[(frame.arbitration_id.id,
                                         frame.arbitration_id.extended)] > 1:
            rep.excluded["duplicate message name or identifier (look-ups take the first)"] += len(sigs)
            covered.update((name, enc(s.name)) for s in sigs)
            continue
        our_id = ours.first_id(name)
        if our_id is not None and (our_id & 0x1FFFFFFF) == (key & 0x1FFFFFFF) and our_id != key:
            # Identifiers with bit 30 set (pseudo messages such as VECTOR__INDEPENDENT_SIG_MSG):
            # canmatrix drops the high bits; ours keeps them. Compared under our identifier.
            key = our_id
        if our_id is None or our_id != key:
            rep.failed[(name, b"*")] = "message missing or identifier %r != %r" % (our_id, key)
            continue
        our_sigs = set(ours.signals.get(name, []))
        if any(enc(s.name) not in our_sigs for s in sigs):
            # canmatrix hung signals of a message it could not read onto this one.
            continue
        if frame.is_complex_multiplexed:
            rep.excluded["extended multiplexing (SG_MUL_VAL_), outside the model"] += len(sigs)
            covered.update((name, enc(s.name)) for s in sigs)
            continue
        usable = []
        for s in sigs:
            covered.add((name, enc(s.name)))
            if s.is_float and not s.is_signed:
                rep.excluded["float value type on an unsigned signal (read as integer)"] += 1
            elif s.is_float and s.size not in (32, 64):
                rep.excluded["float value type of odd length"] += 1
            elif sum(1 for t in sigs if t.name == s.name) > 1:
                rep.excluded["duplicate signal name in a message"] += 1
            else:
                usable.append(s)
        check_frame(rep, ours, frame, name, our_id, usable, rng)

    # What canmatrix did not load goes to candied when it can read it.
    for name, key in ours.messages:
        for sig in ours.signals.get(name, []):
            if (name, sig) not in covered:
                candied_jobs.append((rep, ours, name, key, sig))
    return rep


def check_frame(rep, ours, frame, name, key, sigs, rng):
    mux = next((s for s in frame.signals if s.is_multiplexer), None)
    mux_values = sorted({s.mux_val for s in sigs if s.mux_val is not None})
    index = {s.name: i for i, s in enumerate(frame.signals)}

    def fail(sig, what):
        rep.failed.setdefault((name, enc(sig.name)), what)

    def active(s, mux_raw):
        return s.mux_val is None or (mux is not None and s.mux_val == mux_raw)

    for s in sigs:
        rep.compared.add((name, enc(s.name)))
    if not sigs:
        return
    # Where signals share bits the one written last wins; they are checked decoding only.
    shared = overlapping(list(frame.signals))
    rep.encode_skipped += sum(1 for s in sigs if s.name in shared)

    for _ in range(ENCODE_TRIALS):
        v = rng.choice(mux_values) if (mux is not None and mux_values) else None
        intended = {}
        for s in sigs:
            if s.mux_val is not None and s.mux_val != v:
                continue
            if s is mux:
                raw = v if v is not None else 0
            elif s.is_float:
                lo, hi = model_range(s)
                x = rng.uniform(max(lo, -1e30), min(hi, 1e30))
                raw = struct.unpack("<f", struct.pack("<f", x))[0] if s.size == 32 else x
            else:
                raw = random_raw(rng, s)
                if raw is None:
                    continue
            phys = raw if s.is_float else float(raw) * float(s.factor) + float(s.offset)
            if ours.set(name, enc(s.name), phys) != 0:
                fail(s, "DBC_SetSignalValue refused")
            intended[s.name] = raw
        payload = ours.build(name)
        got = oracle_raws(frame, payload)
        for s in sigs:
            if s.name not in intended or s.name in shared:
                continue
            o = got[index[s.name]]
            ok = same_float(o, intended[s.name]) if s.is_float else o == intended[s.name]
            rep.checks += 1
            if not ok:
                fail(s, "encode: raw %r, canmatrix read %r from %s" %
                     (intended[s.name], o, payload[:16].hex()))

    for _ in range(DECODE_TRIALS):
        payload = bytes(rng.getrandbits(8) for _ in range(64))
        ours.feed(key, payload)
        got = oracle_raws(frame, payload)
        mux_raw = got[index[mux.name]] if mux is not None else None
        for s in sigs:
            ret, value = ours.get(name, enc(s.name))
            rep.checks += 1
            if not active(s, mux_raw):
                if ret != -6:
                    fail(s, "decode: inactive multiplexed signal gave %d" % ret)
                continue
            if ret != 0:
                fail(s, "decode: status %d" % ret)
                continue
            o = got[index[s.name]]
            if s.is_float:
                # Float signals are the IEEE value itself: factor and offset do not apply.
                if not same_float(value, float(o)):
                    fail(s, "decode: %r vs canmatrix float %r" % (value, o))
            else:
                expect = float(o) * float(s.factor) + float(s.offset)
                if not close(value, expect):
                    fail(s, "decode: %r vs canmatrix %r (raw %d) from %s" %
                         (value, expect, o, payload[:16].hex()))


CANDIED_SCRIPT = r"""
const {Dbc, Can} = require(process.argv[process.argv.length - 1]);
const fs = require('fs');
const jobs = JSON.parse(fs.readFileSync(0, 'latin1'));
const can = new Can();
const out = [];
const cache = {};
for (const job of jobs) {
  if (!cache[job.file]) cache[job.file] = new Dbc().load(fs.readFileSync(job.file, 'latin1'));
  const msg = cache[job.file].messages.get(job.message);
  const sig = msg && msg.signals.get(job.signal);
  if (!sig) { out.push(null); continue; }
  const r = {endian: sig.endian, length: sig.length, dlc: msg.dlc, multiplex: sig.multiplex,
             multiplexer: sig.multiplexer, factor: sig.factor, offset: sig.offset, raws: []};
  if (sig.endian === 'Intel')
    for (const p of job.payloads)
      r.raws.push(can.extractValFromPayload(p, sig.startBit, sig.length, 'Intel', sig.signed));
  out.push(r);
}
process.stdout.write(JSON.stringify(out));
"""


def run_candied(jobs, candied, rng):
    if not jobs:
        return
    if not candied or not os.path.isdir(candied):
        for rep, _, name, _, sig in jobs:
            rep.candied_failed[(name, sig)] = "candied is not installed"
        return
    requests, payloads = [], []
    for rep, ours, name, key, sig in jobs:
        p = [[rng.getrandbits(8) for _ in range(8)] for _ in range(DECODE_TRIALS)]
        payloads.append(p)
        requests.append({"file": rep.path, "message": name.decode("latin-1"),
                         "signal": sig.decode("latin-1"), "payloads": p})
    res = subprocess.run(["node", "-e", CANDIED_SCRIPT, "--", candied],
                         input=json.dumps(requests).encode("latin-1"), capture_output=True)
    if res.returncode != 0:
        sys.exit("FAIL: candied run failed: " + res.stderr.decode(errors="replace")[-2000:])
    answers = json.loads(res.stdout)
    for (rep, ours, name, key, sig), ans, ps in zip(jobs, answers, payloads):
        if ans is None:
            rep.excluded["signal no oracle loads (candied has no such message/signal)"] += 1
            continue
        if ans["endian"] != "Intel":
            rep.excluded["not loaded by canmatrix; Motorola is out of candied's reach"] += 1
            continue
        if ans["dlc"] > 8 or ans["length"] > 52:
            rep.excluded["not loaded by canmatrix; frame > 8 bytes or > 52 bits for candied"] += 1
            continue
        if ans["multiplex"] or ans["multiplexer"]:
            rep.excluded["not loaded by canmatrix; multiplexed, out of candied's reach"] += 1
            continue
        rep.candied.add((name, sig))
        for p, raw in zip(ps, ans["raws"]):
            ours.feed(key, bytes(p) + bytes(56))
            ret, value = ours.get(name, sig)
            expect = float(raw) * float(ans["factor"]) + float(ans["offset"])
            rep.checks += 1
            if ret != 0 or not close(value, expect):
                rep.candied_failed[(name, sig)] = "decode %d %r vs candied %r from %s" % (
                    ret, value, expect, bytes(p).hex())


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--lib", required=True)
    ap.add_argument("--data", required=True)
    ap.add_argument("--candied", help="directory of the installed candied package")
    ap.add_argument("--seed", type=int, default=20240611)
    args = ap.parse_args()
    logging.disable(logging.CRITICAL)
    rng = random.Random(args.seed)
    lib = open_library(args.lib)
    files = sorted(glob.glob(os.path.join(args.data, "*.dbc")))
    if not files:
        sys.exit("FAIL: no DBC files under " + args.data)
    reports, jobs = [], []
    for path in files:
        rep = check_file(path, lib, rng, jobs)
        rep.path = path
        reports.append(rep)
    run_candied(jobs, args.candied, rng)

    total_ok = total = 0
    all_excl = Counter()
    bad = False
    print("%-48s %8s %8s %7s %8s %8s" % ("file", "signals", "agree", "rate", "candied", "excluded"))
    for rep in reports:
        n = len(rep.compared) + len(rep.candied)
        failed = set(rep.failed) | set(rep.candied_failed)
        ok = n - len(failed & (rep.compared | rep.candied))
        total_ok += ok
        total += n
        all_excl.update(rep.excluded)
        rate = 100.0 * ok / n if n else 100.0
        print("%-48s %8d %8d %6.1f%% %8d %8d" % (rep.name, n, ok, rate, len(rep.candied),
                                                sum(rep.excluded.values())))
        for key, what in list(rep.failed.items())[:5] + list(rep.candied_failed.items())[:5]:
            print("    MISMATCH %s.%s: %s" % (key[0].decode("latin-1"), key[1].decode("latin-1"),
                                             what))
        if failed:
            bad = True
    print("\ntotal: %d of %d signals agree (%.2f%%), %d trials" %
          (total_ok, total, 100.0 * total_ok / max(total, 1), sum(r.checks for r in reports)))
    print("checked decoding only (bits shared with another signal): %d signals" %
          sum(r.encode_skipped for r in reports))
    print("exclusions:")
    for reason, count in sorted(all_excl.items()):
        print("  %6d  %s" % (count, reason))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
