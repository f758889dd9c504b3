#!/usr/bin/env python3
"""pdb-lookup.py PKG SRC BINARY LOOKUP...: an address (from debug/BINARY.debug)
resolved through the archive's symbol store alone (llvm-symbolizer) must give
the function, its file under /qx/src and a line of its body in SRC: from the
line that starts in column 0 and names it followed by "(" to the next "}".
  NAME[@DIR]             inside NAME's own code (defined in SRC/DIR)
  NAME:local             the same, NAME file-local
  NAME:in:CALLER[@DIR]   where NAME is inlined into CALLER: both frames, NAME innermost
"""
import glob
import os
import re
import subprocess
import sys

SKIPPED = {"build", ".git", "tests", "fuzz", "bench", "examples"}  # no shipped code


def fail(message):
    sys.exit("pdb-lookup: " + message)


def run(*cmd, **options):
    proc = subprocess.run(cmd, capture_output=True, text=True, **options)
    return proc.stdout if proc.returncode == 0 else fail(f"{cmd[0]} failed: {proc.stderr.strip()}")


def body(src, function):
    function, _, folder = function.partition("@")
    start = re.compile(r"^[A-Za-z_].*\b%s\(" % re.escape(function))
    found = []
    for top, folders, files in os.walk(os.path.normpath(os.path.join(src, folder))):
        folders[:] = [f for f in folders if top != src or f not in SKIPPED]
        for path in (os.path.join(top, f) for f in files if f.endswith((".cpp", ".c", ".h"))):
            lines = open(path, errors="replace").read().split("\n")
            found += [(os.path.relpath(path, src), i + 1, lines.index("}", i) + 1) for i, line in enumerate(lines)
                      if start.match(line) and not line.rstrip().endswith(";") and "}" in lines[i:]]
    return found[0] if len(found) == 1 else fail(f"{function}: {len(found)} definitions in the sources: {found}")


def dies(debug, function):
    out = run("llvm-dwarfdump", "--name=" + function, debug)
    return re.findall(r"^0x[0-9a-f]+: +(DW_TAG_\w+)(.*?)(?=^0x[0-9a-f]+: |\Z)", out, re.M | re.S)


def ranges(die):
    pc = re.search(r"DW_AT_low_pc\t\(0x([0-9a-f]+)\).*DW_AT_high_pc\t\(0x([0-9a-f]+)\)", die, re.S)
    return [(int(a, 16), int(b, 16))
            for a, b in ([pc.groups()] if pc else re.findall(r"\[0x([0-9a-f]+), 0x([0-9a-f]+)\)", die))]


def own_code(debug, function, local=False):
    """[start, end) of FUNCTION's one out-of-line copy."""
    found = dies(debug, function)
    code = [r for tag, die in found if tag == "DW_TAG_subprogram" for r in ranges(die)]
    if len(code) != 1:
        fail(f"{function}: {len(code)} out-of-line copies in the DWARF file, expected one")
    if local and any("DW_AT_external\t(true)" in die for _, die in found):
        fail(function + " is not file-local")
    return code[0]


def lined(debug, addresses):
    """The addresses with a line, not 0, in every inlined frame by GNU addr2line
    (compiler-made code such as shared epilogues has line 0 in both formats)."""
    out = run("x86_64-w64-mingw32-addr2line", "-a", "-i", "-e", debug, input="".join(f"0x{a:x}\n" for a in addresses))
    return [int(address, 16) for address, *frames in (b.splitlines() for b in re.split(r"^(?=0x[0-9a-f]+$)", out,
            flags=re.M)[1:]) if all(re.search(r":[1-9][0-9]*( \(discriminator \d+\))?$", f) for f in frames)]


def judge(frame, function, src):
    name, where = frame
    rel, first, last = body(src, function)
    function = function.split("@")[0]
    m = re.match(r"(.*?):(\d+)(:\d+)?$", where)
    path, line = (m.group(1), int(m.group(2))) if m else (where, 0)
    if not re.search(r"(^|::|')%s(\(|$)" % re.escape(function), name.strip()) or path != "/qx/src/" + rel \
            or not first <= line <= last:
        fail(f"got {name} at {where}, expected {function} at /qx/src/{rel}:{first}-{last}")
    print(f"{name} at {where} (body {first}-{last})")


def main():
    if len(sys.argv) < 5:
        fail("usage: pdb-lookup.py PKG SRC BINARY LOOKUP...")
    pkg, src, name = sys.argv[1], os.path.normpath(sys.argv[2]), sys.argv[3]
    debug = os.path.join(pkg, "debug", name + ".debug")
    stores = glob.glob(os.path.join(pkg, "symbols", os.path.splitext(name)[0] + ".pdb", "*"))
    if len(stores) != 1:
        fail(f"symbols/: {len(stores)} folders for {name}'s PDB, expected one")
    base = int(re.search(r"^ImageBase\s+([0-9a-fA-F]+)", run("x86_64-w64-mingw32-objdump", "-p", debug), re.M)[1], 16)
    for lookup in sys.argv[4:]:
        function, kind, caller = (lookup.split(":") + ["", ""])[:3]
        bare = function.split("@")[0]
        if kind == "in":
            start, end = own_code(debug, caller.split("@")[0])
            sites = lined(debug, [a for tag, die in dies(debug, bare) if tag == "DW_TAG_inlined_subroutine"
                                  for r in ranges(die) if start <= r[0] < end for a in range(*r)])
            address = sites[0] if sites else fail(f"{bare} is inlined nowhere in {caller} [0x{start:x}, 0x{end:x})")
        else:
            start, end = own_code(debug, bare, kind == "local")
            candidates = lined(debug, range(start, end)) or fail(f"{bare}: no address with a line in the DWARF file")
            address = candidates[len(candidates) // 2]
        out = run("llvm-symbolizer", "--obj=" + os.path.abspath(os.path.join(pkg, "bin", name)), "--inlines",
                  "--relative-address", hex(address - base), cwd=stores[0]).strip().splitlines()
        got = list(zip(out[0::2], out[1::2]))
        print(f"0x{address:x} in {bare} [0x{start:x}, 0x{end:x}): {got}")
        if len(got) < 1 + (kind == "in"):
            fail(f"llvm-symbolizer gave {len(got)} frames")
        judge(got[-1], caller if kind == "in" else function, src)
        if kind == "in":
            judge(got[0], function, src)


if __name__ == "__main__":
    main()
