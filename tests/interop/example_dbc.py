#!/usr/bin/python3
"""The docs' example database: canmatrix loads all of it, and each command line of README.md and
docs/*.md naming it runs on the virtual adapter and prints what the page shows (stamps aside) or,
where the page shows nothing, a decoded line under each frame. usage: example_dbc.py --varnel BIN
"""
import argparse, glob, itertools, os, re, shlex, subprocess

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXAMPLE = "docs/examples/engine.dbc"
STAMP = re.compile(r"\(\d+\.\d+\)")


def examples():
    """(command line, the lines the page shows under it, or None for one in running text)."""
    for doc in [os.path.join(ROOT, "README.md")] + glob.glob(os.path.join(ROOT, "docs", "*.md")):
        lines = open(doc, encoding="utf-8").read().splitlines()
        for i, line in enumerate(lines):
            shell = re.match(r"\s+\$ (.*%s.*)$" % re.escape(EXAMPLE), line)
            if shell:
                shown = itertools.takewhile(lambda l: re.match(r"    (?!\s*\$ )", l),
                                            lines[i + 1:])
                yield shell.group(1), [l[4:] for l in shown]
            for command in re.findall(r"`((?:build/bin/)?varnel [^`]*)`", line):
                if EXAMPLE in command:
                    yield command, None


def main():
    import canmatrix.formats  # python3-canmatrix: a missing oracle fails the test
    text = open(os.path.join(ROOT, EXAMPLE)).read()
    matrix = canmatrix.formats.loadp_flat(os.path.join(ROOT, EXAMPLE))
    assert sorted(len(f.signals) for f in matrix.frames) == \
        sorted(len(re.findall(r"^ SG_ ", m, re.M)) for m in text.split("\nBO_ ")[1:]), \
        "canmatrix does not load every signal"
    ap = argparse.ArgumentParser()
    ap.add_argument("--varnel", required=True)
    varnel = os.path.abspath(ap.parse_args().varnel)
    env = {k: v for k, v in os.environ.items()
           if k not in ("LD_LIBRARY_PATH", "VARNEL_USBSIM_ADAPTERS", "VARNEL_SIM_ACTIVE")}
    ran = 0
    for command, shown in examples():
        result = subprocess.run([varnel] + shlex.split(command)[1:], cwd=ROOT, env=env,
                                capture_output=True, text=True, timeout=60)
        assert result.returncode == 0, "%s: %s" % (command, result.stderr)
        lines = STAMP.sub("(T)", result.stdout).splitlines()
        if shown is not None:
            assert lines == [STAMP.sub("(T)", l) for l in shown], \
                "%s printed\n%s" % (command, result.stdout)
        frames = [i for i, l in enumerate(lines) if re.match(r"\s*(\(T\)\s+)?can\d+ ", l)]
        decoded = [re.match(r"  \w+\(0x[0-9A-F]+\): \w+=", (lines + [""])[i + 1]) for i in frames]
        assert frames and all(decoded), "%s: a frame not decoded:\n%s" % (command, result.stdout)
        ran += 1
    assert ran >= 3, "the docs name %s in %d command lines" % (EXAMPLE, ran)
    print("%d passed, 0 failed" % ran)


if __name__ == "__main__":
    main()
