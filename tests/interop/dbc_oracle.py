#!/usr/bin/python3
"""Real DBC files against independent decoders.

For every signal of every file of the data set: random in-range raw values encoded through
libvarnel's DBC_ calls must read back the same through canmatrix's bit extraction, and random
payloads must decode to the same physical values in both. What lies outside our model or the
oracle's reach (signals canmatrix does not load among them) is counted as an exclusion with its
reason.

Exit status 0 only when every compared signal agrees in every trial.
"""
import argparse, contextlib, ctypes, glob, io, logging, math, os, random, struct, sys
from collections import Counter

try:
    import canmatrix.formats
    from canmatrix.canmatrix import Frame
except ImportError as e:  # the oracle must be there: no silent pass
    sys.exit("FAIL: canmatrix is missing (%s); install python3-canmatrix" % e)

TRIALS = 6  # encoded frames and decoded payloads per message
failures, excluded, counts = [], Counter(), Counter()


class CANFD_MSG(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("Id", ctypes.c_uint32), ("DataLen", ctypes.c_uint8), ("Flags", ctypes.c_uint8),
                ("Res", ctypes.c_uint8), ("TimeStampHigh", ctypes.c_uint8),
                ("TimeStamp", ctypes.c_uint32), ("Data", ctypes.c_uint8 * 64)]


def open_library(path):
    lib = ctypes.CDLL(path)
    H, S, I, U, P = ctypes.c_uint64, ctypes.c_char_p, ctypes.c_int, ctypes.c_uint32, ctypes.POINTER
    for name, res, args in [
            ("VARNEL_DbcLoadFile", H, [S]), ("DBC_GetMsgQuantity", I, [H]),
            ("DBC_GetMsgName", I, [H, I, S]), ("DBC_GetMsgIDByName", I, [H, S]),
            ("DBC_GetMsgSignalQuantity", I, [H, S]), ("DBC_GetMsgSignalName", I, [H, S, U, S]),
            ("DBC_SetSignalValue", I, [H, S, S, ctypes.c_double]),
            ("DBC_GetSignalValue", I, [H, S, S, P(ctypes.c_double)]),
            ("DBC_SyncCANFDMsgToValue", I, [H, P(CANFD_MSG), I]),
            ("DBC_SyncValueToCANFDMsg", I, [H, S, P(CANFD_MSG)])]:
        getattr(lib, name).restype, getattr(lib, name).argtypes = res, args
    return lib


class Ours:
    """A database loaded through the exported calls; look-ups take the first of a name."""

    def __init__(self, lib, path):
        self.lib, self.h = lib, lib.VARNEL_DbcLoadFile(path.encode())
        if not self.h:
            sys.exit("FAIL: libvarnel could not load " + path)
        buf = ctypes.create_string_buffer(8704)
        self.ids, self.signals = {}, {}
        for i in range(lib.DBC_GetMsgQuantity(self.h)):
            lib.DBC_GetMsgName(self.h, i, buf)
            name = buf.value
            self.ids.setdefault(name, lib.DBC_GetMsgIDByName(self.h, name) & 0xFFFFFFFF)
            sigs = []
            for k in range(max(0, lib.DBC_GetMsgSignalQuantity(self.h, name))):
                lib.DBC_GetMsgSignalName(self.h, name, k, buf)
                sigs.append(buf.value)
            self.signals.setdefault(name, sigs)

    def set(self, msg, sig, value):
        return self.lib.DBC_SetSignalValue(self.h, msg, sig, value)

    def build(self, msg):
        rec = CANFD_MSG()
        assert self.lib.DBC_SyncValueToCANFDMsg(self.h, msg, ctypes.byref(rec)) == 0
        return bytes(rec.Data)

    def feed(self, ident, payload):
        rec = CANFD_MSG(Id=ident, DataLen=64)
        rec.Data[:] = payload
        assert self.lib.DBC_SyncCANFDMsgToValue(self.h, ctypes.byref(rec), 1) == 0

    def get(self, msg, sig):
        v = ctypes.c_double()
        return self.lib.DBC_GetSignalValue(self.h, msg, sig, ctypes.byref(v)), v.value


def enc(s):
    return s.encode("latin-1", "replace")


def model_range(s):
    """The clamp range our model applies: the file's, or the bit length's when it is empty."""
    lo, hi, f, o = float(s.min), float(s.max), float(s.factor), float(s.offset)
    return (lo, hi) if lo != hi else (o, float((1 << min(s.size, 64)) - 1) * f + o)


def random_raw(rng, s):
    """A raw value the model does not clamp, or None when there is none."""
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


def close(a, b):
    return a == b or abs(a - b) <= 1e-12 * max(1.0, abs(a), abs(b))


def same(s, ours, theirs):
    if s.is_float:  # the IEEE value itself: factor and offset do not apply
        return ours == float(theirs) or (math.isnan(ours) and math.isnan(theirs))
    return close(ours, float(theirs) * float(s.factor) + float(s.offset))


def check_file(path, lib, rng):
    with contextlib.redirect_stdout(io.StringIO()), contextlib.redirect_stderr(io.StringIO()):
        cm = canmatrix.formats.loadp_flat(path)
    ours = Ours(lib, path)
    names = Counter(f.name for f in cm.frames)
    ids = Counter((f.arbitration_id.id, f.arbitration_id.extended) for f in cm.frames)
    covered = set()
    for frame in cm.frames:
        name, aid, sigs = enc(frame.name), frame.arbitration_id, list(frame.signals)
        key = aid.id | (0x80000000 if aid.extended else 0)
        if names[frame.name] > 1 or ids[(aid.id, aid.extended)] > 1:
            excluded["duplicate message name or identifier"] += len(sigs)
            covered.update((name, enc(s.name)) for s in sigs)
            continue
        our_id = ours.ids.get(name)
        # Identifiers with bit 30 set (pseudo messages such as VECTOR__INDEPENDENT_SIG_MSG):
        # canmatrix drops the high bits; ours keeps them. Compared under our identifier.
        if our_id is None or our_id & 0x1FFFFFFF != key & 0x1FFFFFFF:
            failures.append((path, name, b"*", "missing, or identifier %r" % our_id))
            continue
        if any(enc(s.name) not in ours.signals[name] for s in sigs):
            continue  # canmatrix hung signals of a message it could not read onto this one
        covered.update((name, enc(s.name)) for s in sigs)
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
        check_frame(path, ours, frame, name, our_id, usable, rng)
    for name, sigs in ours.signals.items():
        excluded["not loaded by canmatrix"] += sum((name, s) not in covered for s in sigs)


def check_frame(path, ours, frame, name, key, sigs, rng):
    mux = next((s for s in frame.signals if s.is_multiplexer), None)
    mux_values = sorted({s.mux_val for s in sigs if s.mux_val is not None})
    index = {s.name: i for i, s in enumerate(frame.signals)}
    counts["signals"] += len(sigs)
    if not sigs:
        return

    def fail(s, what, payload):
        failures.append((path, name, enc(s.name), what + " from " + payload[:16].hex()))

    def oracle(payload):  # canmatrix's own bit extraction over the 64-byte data area
        little, big = Frame.bytes_to_bitstrings(payload)
        return Frame.bitstring_to_signal_list(frame.signals, big, little, 512)

    # Where signals share bits the one written last wins; they are checked decoding only.
    masks = [(s, bit_mask(s)) for s in frame.signals]
    shared = {a.name for a, ma in masks for b, mb in masks if a is not b and ma & mb and
              (a.mux_val is None or b.mux_val is None or a.mux_val == b.mux_val)}
    counts["decoding only (bits shared)"] += sum(s.name in shared for s in sigs)

    for _ in range(TRIALS):
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
            if ours.set(name, enc(s.name), phys) != 0:
                failures.append((path, name, enc(s.name), "DBC_SetSignalValue refused"))
            intended[s.name] = raw
        payload = ours.build(name)
        got = oracle(payload)
        for s in sigs:
            if s.name in intended and s.name not in shared:
                counts["trials"] += 1
                o = got[index[s.name]]
                want = intended[s.name]
                if o != want and not (s.is_float and math.isnan(o) and math.isnan(want)):
                    fail(s, "encode: raw %r, canmatrix read %r" % (want, o), payload)

    for _ in range(TRIALS):
        payload = rng.randbytes(64)
        ours.feed(key, payload)
        got = oracle(payload)
        mux_raw = got[index[mux.name]] if mux is not None else None
        for s in sigs:
            ret, value = ours.get(name, enc(s.name))
            counts["trials"] += 1
            if s.mux_val is not None and s.mux_val != mux_raw:
                if ret != -6:
                    fail(s, "decode: inactive multiplexed signal gave %d" % ret, payload)
            elif ret != 0 or not same(s, value, got[index[s.name]]):
                fail(s, "decode: status %d, %r vs raw %r" % (ret, value, got[index[s.name]]), payload)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--lib", required=True)
    ap.add_argument("--data", required=True)
    ap.add_argument("--seed", type=int, default=20240611)
    args = ap.parse_args()
    logging.disable(logging.CRITICAL)
    rng = random.Random(args.seed)
    lib = open_library(args.lib)
    files = sorted(glob.glob(os.path.join(args.data, "*.dbc")))
    if not files:
        sys.exit("FAIL: no DBC files under " + args.data)
    for path in files:
        check_file(path, lib, rng)

    for path, msg, sig, what in failures[:40]:
        print("MISMATCH %s %s.%s: %s" % (os.path.basename(path), msg.decode("latin-1"),
                                         sig.decode("latin-1"), what))
    bad = {(p, m, s) for p, m, s, _ in failures}
    print("%d files, %d failing signals, %s" % (len(files), len(bad), dict(counts)))
    for reason, count in sorted(excluded.items()):
        print("  excluded %6d  %s" % (count, reason))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
