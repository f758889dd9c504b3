#!/usr/bin/env python3
"""Checks that a notices file names every third-party component a shipped
binary carries, and only those:

  check-notices.py NOTICES BINARY=MAP[=NAME] ...

BINARY is the linked (unstripped) binary, MAP the link map the linker wrote
for it (-Wl,-Map), NAME the name it ships under (default: BINARY's). What a binary carries is read from the two:
  - the map: every archive member and object the linker took in;
  - the binary's DWARF line table: header-only libraries compiled into it
    (their headers appear as source directories).
Each path is sorted into a component below. The notices file declares each
component on a line "NAME; linked into: FILE, FILE" (in Debian's copyright
format after "Comment: "). Fails when a binary carries a component the file
does not declare for it, when the file declares one it does not carry, or
when a path belongs to no known component (a library added to the link).
"""
import os
import re
import subprocess
import sys

# Where a path comes from. None: part of the system the program runs on
# (a Linux program's C library start-up files and libgcc pieces, covered by
# the system's own licences), or of this project.
ORIGINS = [
    (r"(^|/)libqx_jsoncpp\.a$|(^|/)_deps/jsoncpp-[^/]*/", "jsoncpp"),
    (r"(^|/)_deps/cli11/include/CLI|^/usr/include/CLI(/|$)", "CLI11"),
    (r"/x86_64-w64-mingw32/lib/lib(win)?pthread\.a$", "winpthreads"),
    (r"/x86_64-w64-mingw32/lib/libz\.a$", "zlib"),
    (r"^/usr/lib/gcc/x86_64-w64-mingw32/", "GCC runtime libraries"),
    (r"^/usr/x86_64-w64-mingw32/lib/", "mingw-w64 runtime"),
    (r"^/usr/lib/gcc/x86_64-linux-gnu/|^/usr/lib/x86_64-linux-gnu/[^/]*\.o$"
     r"|^/usr/lib/x86_64-linux-gnu/libc_nonshared\.a$", None),
    (r"\.so(\.[0-9.]+)?$", None),  # shared libraries: not carried
    (r"^(?!/usr/)", None),  # the build tree: this project (LICENSE)
]


def origin(path):
    for pattern, name in ORIGINS:
        if re.search(pattern, path):
            return name
    raise LookupError(path)


# Where lld finds the archives and start-up objects an MSVC-style map names by
# their stem alone: gcc's runtime folder (the newest posix one, as the
# toolchain picks it), mingw-w64's, then the build tree.
def search_dirs(build):
    import glob
    gcc = sorted(glob.glob("/usr/lib/gcc/x86_64-w64-mingw32/*-posix"),
                 key=lambda d: [int(x) for x in re.findall(r"\d+", os.path.basename(d))])
    return gcc[-1:] + ["/usr/x86_64-w64-mingw32/lib", build]


def find(name, dirs):
    for d in dirs:
        for root, _, files in os.walk(d):
            if name in files:
                return os.path.join(root, name)
            if d.startswith("/usr/"):
                break  # the system folders are searched flat, as the linker does
    return None


def msvc_map_paths(text, build):
    """lld's MSVC-style map: each public names "archive:member" or its object."""
    dirs = search_dirs(build)
    paths = set()
    for token in set(re.findall(r"^ [0-9a-f]{4}:[0-9a-f]{8} .* (\S+)$", text, re.M)):
        if token.startswith("<"):
            continue  # <linker-defined>, <absolute>
        if ":" in token:
            stem = token.rsplit(":", 1)[0]
            path = find(stem + ".a", dirs)
        elif token.endswith((".o", ".obj")) and not token.endswith((".cpp.obj", ".c.obj", ".res.o")):
            path = find(token, dirs)
        else:
            continue  # this project's own objects
        paths.add(path or token)
    return paths


def map_paths(text, build="."):
    """The archives whose members the link took in, and the objects it loaded."""
    if "\n Timestamp is " in text[:200]:
        return msvc_map_paths(text, build)
    paths = set()
    part = text.split("\nAllocating common symbols", 1)[0]
    part = part.split("\nDiscarded input sections", 1)[0]
    for m in re.finditer(r"^(\S+\.a)\([^)]*\)$", part, re.M):
        paths.add(os.path.normpath(m.group(1)))
    for m in re.finditer(r"^LOAD (\S+\.o(bj)?)$", text, re.M):
        paths.add(os.path.normpath(m.group(1)))
    return paths


def dwarf_dirs(binary):
    objdump = os.environ.get("OBJDUMP", "objdump")
    out = subprocess.run([objdump, "--dwarf=rawline", binary], check=True,
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                         errors="replace").stdout
    dirs = set(re.findall(r"\(indirect line string, offset: 0x[0-9a-f]+\): (\S+)", out))
    # Build-tree folders are relative where the debug paths were mapped.
    dirs |= set(re.findall(r"^\s+\d+\s+(\S+)$", out, re.M))
    return {d for d in dirs if "CLI" in d or "jsoncpp" in d}


def main(argv):
    if len(argv) < 3 or any("=" not in a for a in argv[2:]):
        print(__doc__, file=sys.stderr)
        return 2
    notices = open(argv[1], encoding="utf-8").read()
    declared = {}
    for m in re.finditer(r"^(?:Comment: )?([^;\n]+); linked into: (.+)$", notices, re.M):
        declared[m.group(1).strip()] = {f.strip() for f in m.group(2).split(",")}
    if not declared:
        print(f"check-notices: {argv[1]} declares no component", file=sys.stderr)
        return 1
    carried = {}
    unknown = []
    names = set()
    for arg in argv[2:]:
        binary, linkmap, *shipped = arg.split("=", 2)
        name = shipped[0] if shipped else os.path.basename(binary)
        names.add(name)
        paths = map_paths(open(linkmap, encoding="utf-8", errors="replace").read(),
                          os.path.dirname(os.path.dirname(os.path.abspath(linkmap))))
        paths |= dwarf_dirs(binary)
        for path in sorted(paths):
            try:
                component = origin(path)
            except LookupError:
                unknown.append(f"{name}: {path}")
                continue
            if component:
                carried.setdefault(component, set()).add(name)
    problems = [f"no known origin (add its notice): {u}" for u in unknown]
    for component, binaries in sorted(carried.items()):
        print(f"check-notices: {component}: {', '.join(sorted(binaries))}")
        missing = binaries - declared.get(component, set())
        if missing:
            problems.append(f"{component} is linked into {', '.join(sorted(missing))}, "
                            f"which {argv[1]} does not say")
    for component, binaries in sorted(declared.items()):
        extra = (binaries & names) - carried.get(component, set())
        if extra:
            problems.append(f"{argv[1]} says {component} is linked into "
                            f"{', '.join(sorted(extra))}, which does not carry it")
    for p in problems:
        print(f"check-notices: FAIL {p}", file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
