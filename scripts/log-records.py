#!/usr/bin/env python3
"""Writes docs/log-records.md, the catalogue of every record the plug-in and
the fusion client can write, from the code.

The plug-in's records are the QX_LOG calls (level, the record's line number,
format) in plugin/, attention/ and impl/, with the source name of each file's
kLogSource as the record shows it (its file-name part). The sensor library's
lines are the SensorLibLogWrite calls in fusion/, the exception texts passed to
Guarded, and the "Version:" line of SensorLibLogOpen. When each record is
written comes from scripts/log-records-when.txt, written by hand: the script
fails when a record has no description there or a description no record.

  scripts/log-records.py           rewrite docs/log-records.md
  scripts/log-records.py --check   exit 1 when docs/log-records.md is stale
"""
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PLUGIN_DIRS = ["plugin", "attention", "impl"]
FUSION_DIRS = ["fusion"]
WHEN_FILE = os.path.join(ROOT, "scripts", "log-records-when.txt")
OUTPUT = os.path.join(ROOT, "docs", "log-records.md")
LEVELS = {"LogError": (1, "ERR"), "LogWarning": (2, "WAR"), "LogInfo": (3, "INF"),
          "LogTrace": (4, "TRA"), "LogDebug": (5, "DBG")}


class Stale(Exception):
    pass


def sources(dirs, ends=(".cpp", ".c")):
    for d in dirs:
        folder = os.path.join(ROOT, d)
        for name in sorted(os.listdir(folder)):
            if name.endswith(ends):
                path = os.path.join(folder, name)
                with open(path, encoding="utf-8") as f:
                    yield d + "/" + name, f.read()


def strip_comments(text):
    """The text with comments blanked out (line structure kept)."""
    out = []
    i = 0
    while i < len(text):
        c = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = len(text) if j < 0 else j
            out.append(" " * (j - i))
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2) + 2
            out.append(re.sub(r"[^\n]", " ", text[i:j]))
            i = j
        elif c == '"' or (c == "'"):
            j = i + 1
            while text[j] != c:
                j += 2 if text[j] == "\\" else 1
            out.append(text[i:j + 1])
            i = j + 1
        else:
            out.append(c)
            i += 1
    return "".join(out)


def call_arguments(text, start):
    """The arguments (as source text) of the call whose "(" is at `start`."""
    args, depth, i, begin = [], 0, start, start + 1
    while True:
        c = text[i]
        if c in "\"'":
            j = i + 1
            while text[j] != c:
                j += 2 if text[j] == "\\" else 1
            i = j
        elif c in "([{":
            depth += 1
        elif c in ")]}":
            depth -= 1
            if depth == 0:
                args.append(text[begin:i].strip())
                return args
        elif c == "," and depth == 1:
            args.append(text[begin:i].strip())
            begin = i + 1
        i += 1


def literal(arg, constants):
    """The text of a (wide) string literal, of a constant holding one, or of
    adjacent literals and constants (a format built from a shared one)."""
    parts = re.findall(r'L?"(?:[^"\\]|\\.)*"|\w+|\S', arg.strip(), re.S)
    if len(parts) > 1:
        texts = [literal(part, constants) for part in parts]
        return None if None in texts else "".join(texts)
    arg = arg.strip()
    if arg in constants:
        return constants[arg]
    m = re.fullmatch(r'L?"((?:[^"\\]|\\.)*)"', arg, re.S)
    if not m:
        return None
    body, out, i = m.group(1), [], 0
    while i < len(body):
        if body[i] != "\\":
            out.append(body[i])
            i += 1
            continue
        e = body[i + 1]
        if e == "x":
            h = re.match(r"[0-9a-fA-F]+", body[i + 2:]).group(0)
            out.append(chr(int(h, 16)))
            i += 2 + len(h)
        else:
            out.append({"n": "\n", "t": "\t", "\\": "\\", '"': '"', "'": "'"}[e])
            i += 2
    return "".join(out)


def line_values(expr):
    """The record line numbers an argument gives: 170, or both of `c ? 196 : 75`."""
    values = [int(v) for v in re.findall(r"\b\d+\b", expr)]
    if not values or (len(values) > 1 and "?" not in expr):
        raise Stale("cannot read the line number in %r" % expr)
    return values


def function_at(text, position):
    """The name of the function whose body holds `position`."""
    best = None
    for m in re.finditer(r"^[A-Za-z_][\w:<>,\s\*&]*?\b([A-Za-z_]\w*(?:::\w+)?)\s*\([^;{}]*\)\s*(?:const\s*)?\{",
                         text[:position], re.M):
        if m.group(1) not in ("if", "for", "while", "switch", "return"):
            best = m.group(1)
    return best or "?"


def constants_of(text, shared=None):
    """Character-array constants and string macros, over the shared ones."""
    consts = dict(shared or {})
    for m in re.finditer(r'^#define\s+(\w+)\s+(L?"(?:[^"\\]|\\.)*")\s*$', text, re.M):
        consts[m.group(1)] = literal(m.group(2), {})
    for m in re.finditer(r'constexpr\s+(?:w?char|wchar_t)\s+(\w+)\[\]\s*=\s*([^;]*);', text):
        value = literal(m.group(2), consts)
        if value is not None:
            consts[m.group(1)] = value
    return consts


def plugin_records():
    records = []
    for path, raw in sources(PLUGIN_DIRS):
        text = strip_comments(raw)
        consts = constants_of(text)
        for m in re.finditer(r"\bQX_LOG\s*\(", text):
            if text[max(0, m.start() - 8):m.start()].strip().endswith("define"):
                continue
            args = call_arguments(text, m.end() - 1)
            if "kLogSource" not in consts:
                raise Stale("%s writes records but has no kLogSource" % path)
            source = consts["kLogSource"].replace("/", "\\").split("\\")[-1]
            level = args[0]
            if level not in LEVELS:
                raise Stale("%s: unknown level %s" % (path, level))
            fmt = literal(args[2], consts)
            if fmt is None:
                raise Stale("%s: the format of a QX_LOG call is not a literal: %s" % (path, args[2]))
            for line in line_values(args[1]):
                records.append({"source": source, "line": line, "level": level, "text": fmt,
                                "file": path, "function": function_at(text, m.start())})
    records.sort(key=lambda r: (r["source"].lower(), r["line"]))
    seen = {}
    for r in records:
        key = (r["source"], r["line"])
        if key in seen and seen[key]["text"] != r["text"]:
            raise Stale("%s(%d) is written with two texts" % key)
        seen[key] = r
    return records


def sensor_records():
    records = []
    shared = {}  # the string macros of every header, such as SensorLibTexts.h
    for path, raw in sources(FUSION_DIRS, ".h"):
        shared = constants_of(strip_comments(raw), shared)
    for path, raw in sources(FUSION_DIRS):
        text = strip_comments(raw)
        consts = constants_of(text, shared)
        for m in re.finditer(r"\b(SensorLibLogWrite|Guarded)\s*\(", text):
            name = m.group(1)
            head = text[max(0, m.start() - 40):m.start()]
            if re.search(r"(void|int32_t|std::int32_t)\s*$", head):
                continue  # the definition itself
            args = call_arguments(text, m.end() - 1)
            fmt = literal(args[0], consts)
            function = function_at(text, m.start())
            if fmt is None:
                # Guarded writes the text it was given: its callers are listed.
                if name == "SensorLibLogWrite" and function == "Guarded" and args[0] == "text":
                    continue
                raise Stale("%s: SensorLibLogWrite with a text that is not a literal: %s" % (path, args[0]))
            records.append({"text": fmt, "file": path, "function": function,
                            "how": "exception guard" if name == "Guarded" else ""})
        for m in re.finditer(r'<<\s*"(Version:)"\s*<<\s*(\w+)', text):
            records.append({"text": m.group(1) + consts.get(m.group(2), "?"), "file": path,
                            "function": function_at(text, m.start()), "how": "no time prefix"})
    return records


def read_when():
    when = {}
    with open(WHEN_FILE, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line.strip() or line.startswith("#"):
                continue
            key, sep, text = line.partition(" | ")
            if not sep:
                raise Stale("%s:%d: expected KEY | WHEN" % (WHEN_FILE, number))
            when[key.strip()] = text.strip()
    return when


def shown(text):
    """A record text in a table cell: line feeds as \\n, pipes escaped."""
    return "`" + text.replace("\n", "\\n").replace("|", "\\|") + "`"


def catalogue():
    when = read_when()
    used = set()

    def describe(key):
        if key not in when:
            raise Stale("no description of %s in scripts/log-records-when.txt" % key)
        used.add(key)
        return when[key]

    out = ["# Log records", "",
           "Every record the plug-in and the fusion client can write, generated from the source code",
           "(\"Written in\": the source file and function). The source tree's log-records script makes",
           "it, and its test fails when this file is stale: do not edit it by hand.", "",
           "## The plug-in's log", "",
           "`QXAttentionPlugin.log.logdat` (or `QXAttentionPlugin.log` with obfuscation off). A record",
           "reads `MM-DD hh:mm:ss:mmm : [TAG][THREAD] SOURCE(LINE) TEXT`, the text's placeholders",
           "filled in. Only records at or below the configured level are written (3, `INF`, unless",
           "config.ini says otherwise), so `DBG` records are missing from a default log.", "",
           "| Source | Line | Level | Text | Written in | When |",
           "|---|---|---|---|---|---|"]
    for r in plugin_records():
        key = "%s(%d)" % (r["source"], r["line"])
        number, tag = LEVELS[r["level"]]
        out.append("| %s | %d | %d `%s` | %s | `%s` `%s` | %s |" % (
            r["source"], r["line"], number, tag, shown(r["text"]), os.path.basename(r["file"]), r["function"],
            describe(key)))
    out += ["", "## The sensor library's log", "",
            "`SensorLibLog.log` under `%ProgramData%\\Vantoq\\SensorFusion\\Logs\\`. A line reads",
            "`[MM-DD-hh-mm-ss:ms]TEXT` (milliseconds not padded) and carries no level, thread or source",
            "line; a text that ends in a line feed is followed by an empty line.", "",
            "| Text | Written in | When |",
            "|---|---|---|"]
    rows = {(r["text"], r["file"], r["function"], r["how"]): r for r in sensor_records()}
    for r in sorted(rows.values(), key=lambda r: (r["text"].lower(), r["file"], r["function"])):
        key = "sensor " + r["text"].replace("\n", "\\n")
        how = " (%s)" % r["how"] if r["how"] else ""
        out.append("| %s | `%s` `%s`%s | %s |" % (shown(r["text"]), os.path.basename(r["file"]), r["function"], how,
                                                  describe(key)))
    unused = sorted(set(when) - used)
    if unused:
        raise Stale("descriptions without a record in the code: " + ", ".join(unused))
    return "\n".join(out) + "\n"


def main():
    try:
        text = catalogue()
    except Stale as e:
        print("log-records: " + str(e), file=sys.stderr)
        return 1
    if "--check" in sys.argv[1:]:
        try:
            with open(OUTPUT, encoding="utf-8") as f:
                current = f.read()
        except OSError:
            current = None
        if current != text:
            print("log-records: docs/log-records.md is stale: run scripts/log-records.py", file=sys.stderr)
            return 1
        print("log-records: docs/log-records.md is up to date")
        return 0
    with open(OUTPUT, "w", encoding="utf-8") as f:
        f.write(text)
    print("log-records: wrote docs/log-records.md")
    return 0


if __name__ == "__main__":
    sys.exit(main())
