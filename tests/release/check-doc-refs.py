#!/usr/bin/env python3
"""check-doc-refs.py UNPACKED_ARCHIVE: fails when a document of the archive
(*.md, *.h, *.c) names a file it lacks: a path from a folder of the archive
or the source tree, or a bare name of a kind it ships. NAME, <...> and * are
wildcards; Windows's files and what a command writes (-o FILE) are skipped.
"""
import fnmatch
import os
import re
import sys

ROOTS = ("bin include lib debug docs share examples symbols scripts tests tools build dist "
         "packaging plugin fusion log attention impl cmake bench fuzz").split()
KINDS = "md c h dll exe lib a pdb debug json sh".split()
OTHER_FILES = {"net.exe", "link.exe", "kernel32.dll", "ntdll.dll"}  # Windows's own
BEFORE = r"(?<![\w$%\\.:/-])"
PATH = BEFORE + r"((?:" + "|".join(ROOTS) + r")[/\\][\w.<>*/\\-]*)"
BARE = BEFORE + r"([\w<>-][\w.<>-]*\.(?:" + "|".join(KINDS) + r"))(?![\w/-])"

root = sys.argv[1]
files = []
for folder, _, names in os.walk(root):
    for name in names:
        files.append(os.path.relpath(os.path.join(folder, name), root).replace(os.sep, "/"))
basenames = {f.rsplit("/", 1)[-1] for f in files}


def pattern(ref):
    ref = re.sub(r"<[^>]*>", "*", ref)
    return re.sub(r"\b[A-Z][A-Z_]+\b", "*", ref)  # placeholders: NAME, GUID


def exists(ref):
    glob = pattern(ref.replace("\\", "/").rstrip(".,;:)"))
    if glob.endswith("/"):  # a folder
        glob += "*"
    return any(fnmatch.fnmatchcase(f, glob) for f in files)


docs = [f for f in files if f.endswith((".md", ".h", ".c"))]
missing = 0
for doc in sorted(docs):
    made = set()  # what the document's own commands write (-o FILE)
    with open(os.path.join(root, doc), encoding="utf-8", errors="replace") as text:
        for number, line in enumerate(text, 1):
            made.update(os.path.basename(f) for f in re.findall(r"\s-o\s+(\S+)", line))
            bad = [ref for ref in re.findall(PATH, line) if not exists(ref)]
            for ref in re.findall(BARE, line):
                if ref.lower() in OTHER_FILES or ref in made or (ref.startswith("<") and ">" not in ref):
                    continue
                if not any(fnmatch.fnmatchcase(b, pattern(ref)) for b in basenames):
                    bad.append(ref)
            for ref in bad:
                print(f"{doc}:{number}: names {ref}, which the archive lacks")
            missing += len(bad)
print(f"doc-refs: {len(docs)} documents, {missing} missing references")
sys.exit(1 if missing else 0)
