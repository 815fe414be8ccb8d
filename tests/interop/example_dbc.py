#!/usr/bin/python3
"""The example database the docs use (docs/examples/engine.dbc): every command line of README.md
and docs/*.md that names it runs as written on the virtual adapter, exits 0, prints what the doc
shows (time stamps aside) and decodes every frame it prints; each decoded line agrees with
canmatrix's reading of the same frame; and canmatrix loads every message of the file.

usage: example_dbc.py --varnel build/bin/varnel   (run from anywhere; commands run in the root)
"""
import argparse, glob, os, re, shlex, subprocess, sys

try:
    import canmatrix
    import canmatrix.formats
except ImportError as e:  # the oracle must be there: no silent pass
    sys.exit("FAIL: canmatrix is missing (%s); install python3-canmatrix" % e)

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXAMPLE = "docs/examples/engine.dbc"
STAMP = re.compile(r"\(\d+\.\d+\)")
FRAME = re.compile(r"^\s*(?:\(\S+\)\s+)?can\d+\s+([0-9A-F]+)\s+\[\d+\]\s+((?:[0-9A-F]{2} ?)*)$")
DECODED = re.compile(r"^  (\w+)\(0x([0-9A-F]+)\): (.*)$")


def doc_examples():
    """(doc, command line, the output lines the doc shows under it) for each use of EXAMPLE."""
    found = []
    for doc in [os.path.join(ROOT, "README.md")] + sorted(glob.glob(os.path.join(ROOT, "docs", "*.md"))):
        lines = open(doc, encoding="utf-8").read().splitlines()
        for i, line in enumerate(lines):
            if EXAMPLE not in line:
                continue
            shell = re.match(r"^\s+\$ (.*)$", line)
            if shell:
                shown = []
                for after in lines[i + 1:]:
                    if not after.startswith("    ") or after.lstrip().startswith("$ "):
                        break
                    shown.append(after[4:])
                found.append((doc, shell.group(1), shown))
            found += [(doc, cmd, None) for cmd in re.findall(r"`((?:build/bin/)?varnel [^`]*)`", line)
                      if EXAMPLE in cmd]
    return found


def canmatrix_values(frame, data):
    """{signal: (value, unit)} as canmatrix reads the frame: the value's name where the file
    gives one, else the physical value."""
    values = {}
    for name, value in frame.decode(bytearray(data)).items():
        signal = frame.signal_by_name(name)
        if value.raw_value in signal.values:
            values[name] = (signal.values[value.raw_value], None)
        else:
            values[name] = (float(value.phys_value), signal.unit or None)
    return values


def shown_values(text):
    """{signal: (value, unit)} from the tool's `Sig=1.5 unit Choice="name"` words."""
    values, last = {}, None
    for word in shlex.split(text):
        if "=" in word:
            last, value = word.split("=", 1)
            values[last] = (value, None)
        elif last is not None:
            values[last] = (values[last][0], word)
    return values


def agree(ours, theirs):
    if ours.keys() != theirs.keys():
        return False
    for name, (value, unit) in theirs.items():
        if isinstance(value, float):
            if ours[name][1] != unit or abs(float(ours[name][0]) - value) > 1e-9 * max(1, abs(value)):
                return False
        elif ours[name] != (value, None):
            return False
    return True


def check_decoded(output, matrix, where):
    lines, decoded = output.splitlines(), 0
    for i, line in enumerate(lines):
        frame_line = FRAME.match(line)
        if not frame_line:
            continue
        ident, data = int(frame_line.group(1), 16), bytes.fromhex(frame_line.group(2))
        frame = matrix.frame_by_id(canmatrix.ArbitrationId(ident))
        if frame is None:
            continue
        shown = DECODED.match(lines[i + 1]) if i + 1 < len(lines) else None
        if not shown or int(shown.group(2), 16) != ident or shown.group(1) != frame.name:
            raise AssertionError("%s: frame %s has no decoded line under it" % (where, line))
        ours, theirs = shown_values(shown.group(3)), canmatrix_values(frame, data)
        if not agree(ours, theirs):
            raise AssertionError("%s: %s decoded as %s, canmatrix reads %s"
                                 % (where, line.strip(), ours, theirs))
        decoded += 1
    if not decoded:
        raise AssertionError("%s: no frame decoded" % where)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--varnel", required=True)
    varnel = os.path.abspath(ap.parse_args().varnel)
    matrix = canmatrix.formats.loadp_flat(os.path.join(ROOT, EXAMPLE))
    in_file = {int(m) for m in re.findall(r"^BO_ (\d+) ", open(os.path.join(ROOT, EXAMPLE)).read(), re.M)}
    loaded = {f.arbitration_id.id for f in matrix.frames}
    if loaded != in_file:
        raise AssertionError("canmatrix loads messages %s of %s" % (sorted(loaded), sorted(in_file)))
    examples = doc_examples()
    if len(examples) < 2:
        raise AssertionError("the docs name %s in %d command lines" % (EXAMPLE, len(examples)))
    env = {k: v for k, v in os.environ.items()
           if k not in ("LD_LIBRARY_PATH", "VARNEL_USBSIM_ADAPTERS", "VARNEL_SIM_ACTIVE")}
    for doc, command, shown in examples:
        where = "%s: %s" % (os.path.relpath(doc, ROOT), command)
        argv = shlex.split(command)
        result = subprocess.run([varnel] + argv[1:], cwd=ROOT, env=env, capture_output=True,
                                text=True, timeout=60)
        if result.returncode != 0:
            raise AssertionError("%s: exit %d: %s" % (where, result.returncode, result.stderr))
        if shown is not None and STAMP.sub("(T)", result.stdout).splitlines() != \
                [STAMP.sub("(T)", line) for line in shown]:
            raise AssertionError("%s printed\n%s\nthe doc shows\n%s"
                                 % (where, result.stdout, "\n".join(shown)))
        check_decoded(result.stdout, matrix, where)
        print("ok:", where)
    print("%d passed, 0 failed" % len(examples))


if __name__ == "__main__":
    main()
