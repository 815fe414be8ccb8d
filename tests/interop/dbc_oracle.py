#!/usr/bin/python3
"""Real DBC files against canmatrix, in either of the library's readings.

--reading legacy: random in-range raw values set through the DBC_ calls and synced into a frame
must read back the same through canmatrix's bit extraction, and random 64-byte payloads synced in
must give canmatrix's physical values.
--reading standard: random payloads of each message's length decoded by varnel.dbc.Database
(VARNEL_DbcDecodeFrame) and by canmatrix's Frame.decode must select the same signals with the
same values; values in range must encode back to the bits canmatrix read them from.

What lies outside a reading's model or canmatrix's reach is counted as an exclusion with its
reason. Exit status 0 only when every compared signal agrees in every trial.

usage: dbc_oracle.py --reading legacy|standard FILE.dbc ...  (VARNEL_LIBRARY, PYTHONPATH=python)
"""
import argparse, contextlib, ctypes, io, logging, math, os, random, re, struct, sys
from collections import Counter

import varnel
from varnel.library import lib
from varnel.records import CANFD_MSG

try:
    import canmatrix.formats
    from canmatrix.canmatrix import Frame
except ImportError as e:  # the oracle must be there: no silent pass
    sys.exit("FAIL: canmatrix is missing (%s); install python3-canmatrix" % e)

failures, excluded, counts = [], Counter(), Counter()

# Where canmatrix and the standard reading read a file differently and neither is wrong; with why.
UNDEFINED = {
    ("opendbc__mazda_2017.dbc", "HVAC", "NEW_SIGNAL_4"):
        "runs 4 bits past the end of its frame: canmatrix drops the missing bits, we read zeros",
}


def close(a, b, tolerance):
    if math.isnan(a) or math.isnan(b):
        return math.isnan(a) and math.isnan(b)
    return a == b or abs(a - b) <= tolerance * max(1.0, abs(a), abs(b))


class Legacy:
    """A database read the legacy way, through the DBC_ calls; look-ups take the first of a name."""

    def __init__(self, path):
        db, self.lib, self.ids, self.signals = varnel.dbc.Database(path, legacy=True), lib(), {}, {}
        self.h = db.handle
        for key, (name, sigs) in db.messages.items():
            self.ids.setdefault(name, key)
            self.signals.setdefault(name, sigs)
        H, S, D, P = ctypes.c_uint64, ctypes.c_char_p, ctypes.c_double, ctypes.POINTER
        for name, args in [("DBC_SetSignalValue", [H, S, S, D]),
                           ("DBC_GetSignalValue", [H, S, S, P(D)]),
                           ("DBC_SyncCANFDMsgToValue", [H, P(CANFD_MSG), ctypes.c_int]),
                           ("DBC_SyncValueToCANFDMsg", [H, S, P(CANFD_MSG)])]:
            getattr(self.lib, name).restype, getattr(self.lib, name).argtypes = ctypes.c_int, args

    def __getattr__(self, call):  # ours.DBC_X(args) is lib.DBC_X(handle, args), names as bytes
        return lambda *a: getattr(self.lib, call)(self.h, *(x.encode() if isinstance(x, str)
                                                          else x for x in a))


def model_range(s):
    """The clamp range the legacy model applies: the file's, or the bit length's when empty."""
    lo, hi, f, o = float(s.min), float(s.max), float(s.factor), float(s.offset)
    return (lo, hi) if lo != hi else (o, float((1 << min(s.size, 64)) - 1) * f + o)


def random_raw(rng, s):
    """A raw value the legacy model does not clamp, or None when there is none."""
    f, o, n = float(s.factor), float(s.offset), s.size
    if f == 0:
        return None
    plo, phi = model_range(s)
    # An inverted range (a negative factor widened from [0|0]) clamps every value to its minimum.
    a, b = sorted(((plo - o) / f, (max(plo, phi) - o) / f))
    lo, hi = (-(1 << (n - 1)), (1 << (n - 1)) - 1) if s.is_signed else (0, (1 << n) - 1)
    k = 11 if n > 53 else 0  # a physical value is a double: use raws a double holds exactly
    lo, hi = -((-max(lo, math.ceil(a))) >> k), min(hi, math.floor(b)) >> k
    return rng.randint(lo, hi) << k if lo <= hi else None


def bit_mask(s):
    """The payload bits (byte * 8 + bit) canmatrix reads the signal from."""
    if s.is_little_endian:
        js = range(512 - s.start_bit - s.size, 512 - s.start_bit)
        return sum(1 << p for p in {(63 - j // 8) * 8 + 7 - j % 8 for j in js})
    bits = range(s.start_bit, s.start_bit + s.size)
    return sum(1 << p for p in {(i // 8) * 8 + 7 - i % 8 for i in bits})


def check_legacy(path, cm, rng):
    ours = Legacy(path)
    names = Counter(f.name for f in cm.frames)
    ids = Counter((f.arbitration_id.id, f.arbitration_id.extended) for f in cm.frames)
    covered = set()
    for frame in cm.frames:
        name, aid, sigs = frame.name, frame.arbitration_id, list(frame.signals)
        key = aid.id | (0x80000000 if aid.extended else 0)
        if names[frame.name] > 1 or ids[(aid.id, aid.extended)] > 1:
            excluded["duplicate message name or identifier"] += len(sigs)
            covered.update((name, s.name) for s in sigs)
            continue
        our_id = ours.ids.get(name)
        # Identifiers with bit 30 set (pseudo messages such as VECTOR__INDEPENDENT_SIG_MSG):
        # canmatrix drops the high bits; ours keeps them. Compared under our identifier.
        if our_id is None or our_id & 0x1FFFFFFF != key & 0x1FFFFFFF:
            failures.append("%s %s: missing, or identifier %r" % (path, name, our_id))
            continue
        if any(s.name not in ours.signals[name] for s in sigs):
            continue  # canmatrix hung signals of a message it could not read onto this one
        covered.update((name, s.name) for s in sigs)
        if frame.is_complex_multiplexed:
            excluded["extended multiplexing (SG_MUL_VAL_), outside the model"] += len(sigs)
            continue
        usable = []
        for s in sigs:
            if s.is_float and not s.is_signed:
                excluded["float value type on an unsigned signal (read as integer)"] += 1
            elif s.is_float and s.size not in (32, 64):
                excluded["float value type of odd length"] += 1
            elif sum(t.name == s.name for t in sigs) > 1:
                excluded["duplicate signal name in a message"] += 1
            else:
                usable.append(s)
        check_legacy_frame(path, ours, frame, our_id, usable, rng)
    for name, sigs in ours.signals.items():
        excluded["not loaded by canmatrix"] += sum((name, s) not in covered for s in sigs)


def check_legacy_frame(path, ours, frame, key, sigs, rng, trials=6):
    mux = next((s for s in frame.signals if s.is_multiplexer), None)
    mux_values = sorted({s.mux_val for s in sigs if s.mux_val is not None})
    index = {s.name: i for i, s in enumerate(frame.signals)}
    counts["signals"] += len(sigs)
    if not sigs:
        return

    def fail(s, what, payload):
        failures.append("%s %s.%s: %s from %s" % (path, frame.name, s.name, what, payload[:16].hex()))

    def oracle(payload):  # canmatrix's own bit extraction over the 64-byte data area
        little, big = Frame.bytes_to_bitstrings(payload)
        return Frame.bitstring_to_signal_list(frame.signals, big, little, 512)

    # Where signals share bits the one written last wins; they are checked decoding only.
    masks = [(s, bit_mask(s)) for s in frame.signals]
    shared = {a.name for a, ma in masks for b, mb in masks if a is not b and ma & mb and
              (a.mux_val is None or b.mux_val is None or a.mux_val == b.mux_val)}
    counts["decoding only (bits shared)"] += sum(s.name in shared for s in sigs)

    for _ in range(trials):
        v = rng.choice(mux_values) if mux is not None and mux_values else None
        intended = {}
        for s in sigs:
            if s.mux_val is not None and s.mux_val != v:
                continue
            if s is mux:
                raw = v or 0
            elif s.is_float:
                lo, hi = model_range(s)
                raw = rng.uniform(max(lo, -1e30), min(hi, 1e30))
                raw = struct.unpack("<f", struct.pack("<f", raw))[0] if s.size == 32 else raw
            elif (raw := random_raw(rng, s)) is None:
                continue
            phys = raw if s.is_float else float(raw) * float(s.factor) + float(s.offset)
            if ours.DBC_SetSignalValue(frame.name, s.name, phys) != 0:
                fail(s, "DBC_SetSignalValue refused", b"")
            intended[s.name] = raw
        rec = CANFD_MSG()
        assert ours.DBC_SyncValueToCANFDMsg(frame.name, ctypes.byref(rec)) == 0
        payload = bytes(rec.Data)
        got = oracle(payload)
        for s in sigs:
            if s.name in intended and s.name not in shared:
                counts["compared"] += 1
                if not close(got[index[s.name]], intended[s.name], 0):
                    fail(s, "encode: raw %r, canmatrix read %r"
                         % (intended[s.name], got[index[s.name]]), payload)

    for _ in range(trials):
        payload = rng.randbytes(64)
        rec = CANFD_MSG(Id=key, DataLen=64, Data=(ctypes.c_uint8 * 64)(*payload))
        assert ours.DBC_SyncCANFDMsgToValue(ctypes.byref(rec), 1) == 0
        got = oracle(payload)
        mux_raw = got[index[mux.name]] if mux is not None else None
        for s in sigs:
            value = ctypes.c_double()
            ret, value = ours.DBC_GetSignalValue(frame.name, s.name, ctypes.byref(value)), value.value
            raw = got[index[s.name]]
            # A float value type is the IEEE value itself: factor and offset do not apply.
            want = float(raw) if s.is_float else float(raw) * float(s.factor) + float(s.offset)
            counts["compared"] += 1
            if s.mux_val is not None and s.mux_val != mux_raw:
                if ret != -6:
                    fail(s, "decode: inactive multiplexed signal gave %d" % ret, payload)
            elif ret != 0 or not close(value, want, 0 if s.is_float else 1e-12):
                fail(s, "decode: status %d, %r vs raw %r" % (ret, value, raw), payload)


def same_text(text, ours=False):
    """A choice name as file bytes (ours are decoded as UTF-8, canmatrix's as Latin-1), with blank
    runs taken as one blank: the loader collapses them, as its tokens do."""
    if text is None:
        return None
    raw = text.encode("utf-8", "surrogateescape") if ours else text.encode("latin-1", "replace")
    return re.sub(rb" +", b" ", raw)


def check_standard(path, matrix, rng, trials=20):
    ours = varnel.dbc.Database(path)
    by_name = {name: k for k, (name, _) in ours.messages.items()}
    seen = set()

    def exclude(what):
        excluded["%s %s" % (os.path.basename(path), what)] += 1

    def theirs(frame, payload):
        return {name: float(d.phys_value) for name, d in frame.decode(bytearray(payload)).items()}

    def alike(a, b):
        return a.keys() == b.keys() and all(close(a[n], b[n], 1e-9) for n in b)

    for frame in matrix.frames:
        key = frame.arbitration_id.id | (0x80000000 if frame.arbitration_id.extended else 0)
        if key in seen:  # a repeated identifier: both tools use the first
            continue
        seen.add(key)
        if frame.name == "VECTOR__INDEPENDENT_SIG_MSG":
            exclude("%s: holds signals of no frame" % frame.name)
            continue
        if key not in ours.messages:
            failures.append("%s: message %s missing" % (path, frame.name))
            continue
        names = ours.messages[key][1]
        lost = set(names) - {s.name for s in frame.signals}
        for n in lost:
            exclude("%s.%s: canmatrix does not load the line" % (frame.name, n))
        # what a switch canmatrix lost selects is beyond its reach
        for s in frame.signals:
            if s.muxer_for_signal in lost:
                lost.add(s.name)
                exclude("%s.%s: selected by a switch canmatrix does not load"
                        % (frame.name, s.name))
        # canmatrix adds the signals of a message whose file identifier has bit 30 set to the
        # message with the same low bits; they are compared under their own message
        merged = {s.name for s in frame.signals} - set(names)
        if merged:
            exclude("%s: canmatrix merges in %d signals of another message"
                    % (frame.name, len(merged)))
        for (file, message, signal), why in UNDEFINED.items():
            if path.endswith(file) and frame.name == message:
                lost.add(signal)
                exclude("%s.%s: %s" % (message, signal, why))
        ranges = {s.name: (float(s.min), float(s.max)) for s in frame.signals}
        for _ in range(trials):
            payload = bytes(rng.getrandbits(8) for _ in range(frame.size))
            try:
                want = {n: v for n, v in theirs(frame, payload).items()
                        if n not in merged and n not in lost}
            except (ValueError, IndexError, KeyError) as e:
                exclude("%s: canmatrix cannot decode it (%r)" % (frame.name, e))
                break
            got = {n: v for n, v in ours.decode(key, payload, decode_choices=False).items()
                   if n not in lost}
            counts["compared"] += len(want)
            if not alike(got, want):
                failures.append("%s %s %s: ours %s, canmatrix %s"
                                % (path, frame.name, payload.hex(), got, want))
                break
            # choice names: canmatrix's value table entry for the raw value it read
            named = ours.decode(key, payload)
            for n, d in frame.decode(bytearray(payload)).items():
                if n not in want or not d.signal.values or d.signal.is_float:
                    continue
                expected = same_text(d.signal.values.get(int(d.raw_value)))
                counts["choices compared"] += 1
                if same_text(named[n] if isinstance(named[n], str) else None, ours=True) != expected:
                    failures.append("%s %s.%s raw %r: choice %r, canmatrix %r"
                                    % (path, frame.name, n, d.raw_value, named[n], expected))
            # A frame whose values are all in range comes back through our encoder unchanged.
            if merged or lost or not all(ranges[n][0] <= v <= ranges[n][1]
                                         for n, v in want.items()):
                continue
            counts["frames re-encoded"] += 1
            back = {n: v for n, v in theirs(frame, ours.encode(key, want)).items() if n in want}
            if not alike(back, want):
                failures.append("%s %s: %s encodes back as %s" % (path, frame.name, want, back))
                break


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--reading", choices=("legacy", "standard"), required=True)
    ap.add_argument("--seed", type=int, default=20240611)
    ap.add_argument("files", nargs="+")
    args = ap.parse_args()
    logging.disable(logging.CRITICAL)
    rng = random.Random(args.seed)
    for path in args.files:
        with contextlib.redirect_stdout(io.StringIO()), contextlib.redirect_stderr(io.StringIO()):
            matrix = canmatrix.formats.loadp_flat(path)
        (check_legacy if args.reading == "legacy" else check_standard)(path, matrix, rng)
    for reason, count in sorted(excluded.items()):
        print("  excluded %6d  %s" % (count, reason))
    for what in failures[:40]:
        print("MISMATCH", what)
    print("%d files, %d mismatches, %s" % (len(args.files), len(failures), dict(counts)))
    return 1 if failures or not counts["compared"] else 0


if __name__ == "__main__":
    sys.exit(main())
