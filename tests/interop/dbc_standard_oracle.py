#!/usr/bin/python3
"""The standard DBC reading against canmatrix, signal by signal, on every file given.

For every message canmatrix loads: random payloads of the message's length are decoded by both
(varnel.dbc.Database, the package over VARNEL_DbcDecodeFrame, and canmatrix's Frame.decode), and
the selected signals and their physical values must agree; then values decoded by canmatrix are
encoded by us and must come back as the same frame bits canmatrix read them from.
Signals canmatrix does not load are reported as exclusions with the reason.

usage: dbc_standard_oracle.py FILE.dbc ...   (VARNEL_LIBRARY and PYTHONPATH=python set)
"""
import contextlib
import io
import logging
import math
import random
import sys

import varnel

try:
    import canmatrix.formats
except ImportError as e:  # the oracle must be there: no silent pass
    sys.exit("FAIL: canmatrix is missing (%s); install python3-canmatrix" % e)

TRIALS = 20

# Where canmatrix and we read a file differently and neither reading is wrong; each with why.
UNDEFINED = {
    ("opendbc__mazda_2017.dbc", "HVAC", "NEW_SIGNAL_4"):
        "runs 4 bits past the end of its frame: canmatrix drops the missing bits, we read zeros",
}


def theirs(frame, payload):
    return {name: float(d.phys_value) for name, d in frame.decode(bytearray(payload)).items()}


def same(a, b):
    if math.isnan(a) or math.isnan(b):
        return math.isnan(a) and math.isnan(b)
    return a == b or abs(a - b) <= 1e-9 * max(1.0, abs(a), abs(b))


def check_file(path, rng):
    logging.disable(logging.CRITICAL)
    with contextlib.redirect_stdout(io.StringIO()), contextlib.redirect_stderr(io.StringIO()):
        matrix = canmatrix.formats.loadp_flat(path)
    ours = varnel.dbc.Database(path)
    compared, encoded, problems, excluded, seen = 0, 0, [], [], set()
    for frame in matrix.frames:
        key = frame.arbitration_id.id | (0x80000000 if frame.arbitration_id.extended else 0)
        if key in seen:  # a repeated identifier: both tools use the first
            continue
        seen.add(key)
        by_name = {name: k for k, (name, _) in ours.messages.items()}
        if frame.name == "VECTOR__INDEPENDENT_SIG_MSG":
            excluded.append("%s: holds signals of no frame" % frame.name)
            continue
        if key not in ours.messages and by_name.get(frame.name, 0) & 0x60000000:
            # bits 29-30 of a file's identifier belong to no CAN identifier: canmatrix drops
            # them; we keep the number as the file writes it
            excluded.append("%s: identifier 0x%X in the file" % (frame.name, by_name[frame.name]))
            continue
        if key not in ours.messages:
            problems.append("%s: message %s missing" % (path, frame.name))
            continue
        names = ours.messages[key][1]
        lost = set(names) - {s.name for s in frame.signals}
        excluded += ["%s.%s: canmatrix does not load the line" % (frame.name, n) for n in lost]
        # canmatrix adds the signals of a message whose file identifier has bit 30 set to the
        # message with the same low bits; they are compared under their own message
        merged = {s.name for s in frame.signals} - set(names)
        if merged:
            excluded.append("%s: canmatrix merges in %d signals of another message"
                            % (frame.name, len(merged)))
        for (file, message, signal), why in UNDEFINED.items():
            if path.endswith(file) and frame.name == message:
                lost.add(signal)
                excluded.append("%s.%s: %s" % (message, signal, why))
        for _ in range(TRIALS):
            payload = bytes(rng.getrandbits(8) for _ in range(frame.size))
            try:
                want = {n: v for n, v in theirs(frame, payload).items()
                        if n not in merged and n not in lost}
            except (ValueError, IndexError, KeyError) as e:
                excluded.append("%s: canmatrix cannot decode it (%r)" % (frame.name, e))
                break
            got = {n: v for n, v in ours.decode(key, payload).items() if n not in lost}
            compared += len(want)
            if got.keys() != want.keys() or not all(same(got[n], want[n]) for n in want):
                problems.append("%s %s %s: ours %s, canmatrix %s"
                                % (path, frame.name, payload.hex(), got, want))
                break
            # A frame whose values are all in range comes back through our encoder unchanged.
            ranges = {s.name: (float(s.min), float(s.max)) for s in frame.signals}
            if merged or lost or not all(ranges[n][0] <= v <= ranges[n][1]
                                         for n, v in want.items()):
                continue
            encoded += 1
            back = {n: v for n, v in theirs(frame, ours.encode(key, want)).items() if n in want}
            if back.keys() != want.keys() or not all(same(back[n], want[n]) for n in want):
                problems.append("%s %s: %s encodes back as %s" % (path, frame.name, want, back))
                break
    return compared, encoded, problems, excluded


def main():
    rng = random.Random(2026)
    total, frames, failed = 0, 0, []
    for path in sys.argv[1:]:
        compared, encoded, problems, excluded = check_file(path, rng)
        total += compared
        frames += encoded
        failed += problems
        for reason in excluded:
            print("excluded:", path, reason)
    for p in failed[:20]:
        print("MISMATCH:", p)
    print("%d files: %d signal values decoded alike, %d frames re-encoded, %d mismatches"
          % (len(sys.argv) - 1, total, frames, len(failed)))
    return 1 if failed or total == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
