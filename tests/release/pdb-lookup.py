#!/usr/bin/env python3
"""Resolves an address of a shipped binary through its PDB in the archive's
symbol store (llvm-symbolizer, with nothing else beside it) and judges the
answer against the source text:

  pdb-lookup.py PKG SRC BINARY FUNCTION [--local]
      an address inside FUNCTION's own code resolves to FUNCTION, in its
      source file, at a line of its body; --local: FUNCTION is file-local
      (static or in an anonymous namespace);
  pdb-lookup.py PKG SRC BINARY FUNCTION --inlined-into CALLER
      an address where FUNCTION was inlined into CALLER resolves to both
      frames, FUNCTION innermost, each at a line of its own body.

The addresses come from the DWARF file, debug/BINARY.debug (llvm-dwarfdump).
A function's body is its definition in SRC: the line that starts in column 0
and names FUNCTION followed by "(", to the next line that is "}" (FUNCTION@DIR
looks in SRC/DIR only). The PDB must name the file as it sits under /qx/src.
"""
import glob
import os
import re
import subprocess
import sys

MINGW = "x86_64-w64-mingw32"
# Folders of SRC that hold no shipped code (or build trees).
SKIPPED = {"build", ".git", "tests", "fuzz", "bench", "examples"}


def fail(message):
    sys.exit("pdb-lookup: " + message)


def run(*cmd, cwd=None, data=None):
    proc = subprocess.run(cmd, cwd=cwd, input=data, capture_output=True, text=True)
    if proc.returncode != 0:
        fail("%s failed: %s" % (cmd[0], proc.stderr.strip()))
    return proc.stdout


def names(function, text):
    """Whether a (demangled, maybe qualified) name is FUNCTION's."""
    return re.search(r"(^|::|')%s(\(|$)" % re.escape(function), text.strip()) is not None


def body(src, function):
    """(path relative to SRC, first line, last line) of FUNCTION's definition."""
    function, _, folder = function.partition("@")
    found = []
    start = re.compile(r"^[A-Za-z_].*\b%s\(" % re.escape(function))
    src = os.path.normpath(src)
    for top, folders, files in os.walk(os.path.normpath(os.path.join(src, folder))):
        if top == src:
            folders[:] = [f for f in folders if f not in SKIPPED]
        for path in (os.path.join(top, f) for f in files if f.endswith((".cpp", ".c", ".h"))):
            rel = os.path.relpath(path, src)
            lines = open(path, errors="replace").read().split("\n")
            for i, line in enumerate(lines):
                if start.match(line) and not line.rstrip().endswith(";"):
                    end = next((j for j in range(i, len(lines)) if lines[j] == "}"), None)
                    if end is not None:
                        found.append((rel, i + 1, end + 1))
    if len(found) != 1:
        fail("%s: %d definitions in the sources, expected one: %s" % (function, len(found), found))
    return found[0]


def dies(debug, function):
    """[(tag, text)] of the DWARF entries named FUNCTION (inlined copies too)."""
    out = run("llvm-dwarfdump", "--name=" + function, debug)
    found = []
    for die in re.split(r"\n(?=0x[0-9a-f]+: )", out):
        m = re.match(r"0x[0-9a-f]+: +(DW_TAG_\w+)", die)
        if m:
            found.append((m.group(1), die))
    return found


def ranges(die):
    """[(start, end)] of an entry's code."""
    low = re.search(r"DW_AT_low_pc\t\(0x([0-9a-f]+)\)", die)
    high = re.search(r"DW_AT_high_pc\t\(0x([0-9a-f]+)\)", die)
    if low and high:
        return [(int(low.group(1), 16), int(high.group(1), 16))]
    return [(int(a, 16), int(b, 16)) for a, b in re.findall(r"\[0x([0-9a-f]+), 0x([0-9a-f]+)\)", die)]


def own_code(debug, function, local):
    """[start, end) of FUNCTION's out-of-line code."""
    found = dies(debug, function)
    code = [r for tag, die in found if tag == "DW_TAG_subprogram" for r in ranges(die)]
    if len(code) != 1:
        fail("%s: %d out-of-line copies in the DWARF file, expected one" % (function, len(code)))
    if local and any("DW_AT_external\t(true)" in die for _, die in found):
        fail("%s is not file-local" % function)
    return code[0]


def lined(debug, addresses):
    """The addresses for which the DWARF line table (GNU addr2line) has a line,
    not 0, in every inlined frame: compiler-made code such as shared epilogues
    has line 0 in both formats."""
    out = run(MINGW + "-addr2line", "-a", "-i", "-e", debug,
              data="".join("0x%x\n" % a for a in addresses))
    good, current = [], None
    for line in out.splitlines() + ["0x0"]:
        if re.match(r"^0x[0-9a-f]+$", line):
            if current is not None and ok:
                good.append(current)
            current, ok = int(line, 16), True
        elif not re.search(r":[1-9][0-9]*( \(discriminator \d+\))?$", line):
            ok = False
    return good


def frames(store, binary, rva):
    """[(function, file, line)] that llvm-symbolizer reads from the PDB, innermost first."""
    out = run("llvm-symbolizer", "--obj=" + binary, "--inlines", "--relative-address", hex(rva),
              cwd=store).strip().splitlines()
    result = []
    for name, where in zip(out[0::2], out[1::2]):
        m = re.match(r"(.*?):(\d+)(:\d+)?$", where)
        result.append((name, m.group(1) if m else where, int(m.group(2)) if m else 0))
    return result


def judge(frame, function, src):
    name, path, line = frame
    rel, first, last = body(src, function)
    function = function.split("@")[0]
    want = "/qx/src/" + rel
    if not names(function, name) or path != want or not first <= line <= last:
        fail("got %s at %s:%d, expected %s at %s:%d-%d" % (name, path, line, function, want,
                                                          first, last))
    print("%s at %s:%d (body %d-%d)" % (name, path, line, first, last))


def main():
    args = sys.argv[1:]
    if len(args) < 4:
        fail("usage: pdb-lookup.py PKG SRC BINARY FUNCTION [--local | --inlined-into CALLER]")
    pkg, src, name, function = args[:4]
    binary = os.path.abspath(os.path.join(pkg, "bin", name))
    debug = os.path.join(pkg, "debug", name + ".debug")
    stores = glob.glob(os.path.join(pkg, "symbols", os.path.splitext(name)[0] + ".pdb", "*"))
    if len(stores) != 1:
        fail("symbols/: %d folders for %s's PDB, expected one" % (len(stores), name))
    header = run(MINGW + "-objdump", "-p", debug)
    base = int(re.search(r"^ImageBase\s+([0-9a-fA-F]+)", header, re.M).group(1), 16)
    bare = function.split("@")[0]

    if args[4:5] != ["--inlined-into"]:
        start, end = own_code(debug, bare, args[4:] == ["--local"])
        candidates = lined(debug, range(start, end))
        if not candidates:
            fail("%s: no address with a line in the DWARF file" % bare)
        address = candidates[len(candidates) // 2]
        got = frames(stores[0], binary, address - base)
        print("0x%x, inside %s [0x%x, 0x%x):" % (address, bare, start, end))
        if not got:
            fail("llvm-symbolizer gave nothing")
        judge(got[-1], function, src)
        return
    caller = args[5]
    start, end = own_code(debug, caller.split("@")[0], False)
    sites = lined(debug, [a for tag, die in dies(debug, bare) if tag == "DW_TAG_inlined_subroutine"
                          for r in ranges(die) if start <= r[0] < end for a in range(*r)])
    if not sites:
        fail("the DWARF file has %s inlined nowhere in %s [0x%x, 0x%x)" % (bare, caller, start, end))
    got = frames(stores[0], binary, sites[0] - base)
    print("0x%x, where %s is inlined into %s:" % (sites[0], bare, caller))
    if len(got) < 2:
        fail("llvm-symbolizer gave %d frames, expected the inlined one and its caller: %s"
             % (len(got), got))
    judge(got[0], function, src)
    judge(got[-1], caller, src)


if __name__ == "__main__":
    main()
