#!/usr/bin/env python3
"""Plants known faults one at a time and reports which tests catch each.

A fault is one or more edits of exact fragments (whitespace free, so formatting
does not lose them) in the product or in a test's set-up. Each is planted, the
trees rebuilt and their ctest suites run, every failing ctest entry and
GoogleTest case recorded, and the source put back, also when the run is
interrupted; the last step rebuilds the unchanged tree. A fault no test
catches is a gap.

  scripts/plant-faults.py                 all faults (about 3 minutes each)
  scripts/plant-faults.py --only 3,7      some of them
  scripts/plant-faults.py --only 4 --trees build/win --targets logger_test --tests logger
                                          one tree, some targets, the ctest
                                          entries matching a regex
  scripts/plant-faults.py --list          the faults, without running anything
  scripts/plant-faults.py --markdown F    also write the results as a table to F

Needs built trees (scripts/build.sh); QX_JOBS sets the build's parallel jobs.
Exit code: 0 when every fault was caught, 1 when one was missed, 2 on a usage
or set-up error.
"""
import argparse
import os
import pathlib
import re
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent

# Each fault: what it breaks, and the edits that plant it (file, old, new).
FAULTS = [
    ("wrong line number in one record (\"invalid status value\" as line 286, not 268)",
     [("plugin/AttentionPlugin.cpp",
       'QX_LOG(LogInfo, 268, L"invalid status value: %d", status);',
       'QX_LOG(LogInfo, 286, L"invalid status value: %d", status);')]),
    ("status 3 accepted by set_attention_status",
     [("plugin/ActionParams.cpp",
       "return static_cast<unsigned>(status) - 1u <= 1u;",
       "return static_cast<unsigned>(status) - 1u <= 2u;")]),
    ("the 400 ms InitFusion retry on any non-zero code",
     [("attention/AttentionFuntion.cpp",
       "if (code == kInitRetryCode) {",
       "if (code != 0) {")]),
    ("the log size check on every 99th record instead of every 100th",
     [("log/Logger.cpp",
       "++g_recordCounter % 100 == 0",
       "++g_recordCounter % 99 == 0")]),
    ("the \".normal\" plain-text sibling left in place",
     [("log/Logger.cpp",
       "if (PathFileExistsW(normal.c_str())) DeleteFileW(normal.c_str());",
       "(void)normal;")]),
    ("opnum 2 (SetFusionDelay) sending 8 bytes instead of 4",
     [("fusion/FusionClient.cpp",
       "FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, 4,",
       "FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, 8,")]),
    ("the change filter reporting a change to 1 as a look-away",
     [("attention/AttentionFuntion.cpp",
       "if (status != 0) return;",
       "if (status > 1) return;"),
      ("attention/AttentionFuntion.cpp",
       "if (callback) callback(status + 1, g_lastAttentionStatus);",
       "if (callback) callback(1, g_lastAttentionStatus);")]),
    ("the ability cache written to HKLM instead of HKCU",
     [("attention/AttentionFuntion.cpp",
       "if (RegCreateKeyExW(HKEY_CURRENT_USER, kProductKey, 0, nullptr, 0, KEY_ALL_ACCESS,",
       "if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kProductKey, 0, nullptr, 0, KEY_ALL_ACCESS,")]),
    ("\"init\" skipping the service restart",
     [("attention/AttentionFuntion.cpp",
       "Fusion_service_check();\n  // Every set-up restarts the service, also when the check found it running.\n"
       "  Fusion_service_restart();",
       "Fusion_service_check();")]),
    ("the two-pass record formatting done in one pass",
     [("log/Logger.cpp",
       "static_cast<int>(line), format);\n  return FormatMs(layout.c_str(), args);",
       "static_cast<int>(line), FormatMs(format, args).c_str());\n  return layout;")]),
    ("the exception guard removed around one remote call (SetFusionDelay)",
     [("fusion/FusionClient.cpp",
       "std::int32_t result = Guarded(kExceptionText, [&] {\n"
       "    return FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, 4,\n"
       "                                   Bytes(const_cast<std::uint32_t*>(delay)));\n  });",
       "std::int32_t result = FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, 4,"
       " Bytes(const_cast<std::uint32_t*>(delay)));")]),
    ("the reply count check removed (a record of another size copied)",
     [("fusion/FusionClient.cpp",
       "if (record.size != size || size < 0 ||",
       "if (size < 0 ||")]),
    ("\"close\" not ending the waiting thread (no stop event set)",
     [("fusion/FusionClient.cpp",
       "if ((copy & 1u) && g_fusion.stopEvents[index]) {\n      SetEvent(g_fusion.stopEvents[index]);",
       "if ((copy & 1u) && g_fusion.stopEvents[index]) {")]),
    ("the log mutex dropped around the size check",
     [("log/Logger.cpp",
       "if (m_mutex) WaitForSingleObject(m_mutex, INFINITE);  // abandoned counts as taken\n"
       "  try {\n    if (m_sizeCheck && ++g_recordCounter % 100 == 0) CheckSize();",
       "if (m_sizeCheck && ++g_recordCounter % 100 == 0) CheckSize();\n"
       "  if (m_mutex) WaitForSingleObject(m_mutex, INFINITE);\n  try {")]),
    ("the frame decoder's length cap off by one (a record of the cap's length refused)",
     [("log/LogFrameReader.cpp",
       "if (length > kMaxRecordLength) {",
       "if (length >= kMaxRecordLength) {")]),
    ("--follow dropping a partial frame between two looks",
     [("tools/logread/LogInput.cpp",
       "if (format_known_ && format_ != logframe::LogFormat::kLogdat) FlushRecord(records);\n}",
       "if (format_known_ && format_ != logframe::LogFormat::kLogdat) FlushRecord(records);\n"
       "  if (decoder_.has_partial_frame()) decoder_ = logframe::FrameDecoder();\n}")]),
    ("the sensor library log's milliseconds padded to 3 digits",
     [("fusion/SensorLibLog.cpp",
       '"[%02d-%02d-%02d-%02d-%02d:%d]"',
       '"[%02d-%02d-%02d-%02d-%02d:%03d]"')]),
    ("a failed start not counted as working (w:0 at the next start)",
     [("attention/AttentionFuntion.cpp",
       "g_attentionWorking = 1;",
       "g_attentionWorking = result == 0;")]),
    ("the log mutex dropped around the size check, the writer 2 s slow to its hundredth record",
     [("log/Logger.cpp",
       "if (m_mutex) WaitForSingleObject(m_mutex, INFINITE);  // abandoned counts as taken\n"
       "  try {\n    if (m_sizeCheck && ++g_recordCounter % 100 == 0) CheckSize();",
       "if (m_sizeCheck && ++g_recordCounter % 100 == 0) CheckSize();\n"
       "  if (m_mutex) WaitForSingleObject(m_mutex, INFINITE);\n  try {"),
      ("tests/log/logger_test.cpp",
       "!NoteMutexWaits() || !step(go)) return 3;",
       "!NoteMutexWaits() || !step(go)) return 3;\n  Sleep(2000);")]),
    ("the contention test's ctest entry selecting no test (a filter typo)",
     [("tests/log/CMakeLists.txt", "--gtest_filter=LogContention.*)", "--gtest_filter=LogContentoin.*)")]),
    ("logread's cases under Wine selecting no test (a filter typo)",
     [("tests/native/wine-cases.sh", "--gtest_filter=LogreadCli.CasesOfTheTable",
       "--gtest_filter=LogreadCli.CasesOfTheTabel")]),
    ("the contention test's writers but the first writing a log of their own",
     [("tests/log/logger_test.cpp", 'children.push_back(StartSelf(L"writer", args));',
       'children.push_back(StartSelf(L"writer", w ? std::vector<std::wstring>{args[0] + L"-own",'
       ' args[1], args[2], args[3], args[4]} : args));')]),
    ("logread: access denied (5) not told from a service that does not answer",
     [("tools/logread/SummaryCodes.cpp",
       "case 5:\n      return ErrorClass::kRights;",
       "case 5:\n      return ErrorClass::kNoAnswer;")]),
    ("logread: 1825 not counted as an authentication failure",
     [("tools/logread/SummaryCodes.cpp",
       "case 1749:\n    case 1825:\n      return ErrorClass::kAuthentication;",
       "case 1749:\n      return ErrorClass::kAuthentication;")]),
    ("logread: net.exe start's failure counted on a running service",
     [("tools/logread/SummaryVerdict.cpp",
       "return (CheckNotRunning() || CheckNotFound()) && !f_.commands.empty()",
       "return !f_.commands.empty()")]),
    ("logread: the service check not looked at behind a code of no answer",
     [("tools/logread/SummaryVerdict.cpp",
       "case codes::ErrorClass::kNoAnswer:\n          if (!service().category.empty()) return v;",
       "case codes::ErrorClass::kNoAnswer:")]),
    ("logread: \"close\" hides the state the session had before it",
     [("tools/logread/SummaryVerdict.cpp",
       "v.closed = f.closed;",
       "v.closed = f.closed;\n  if (f.closed) return b.Root(\"off\", \"closed\", \"nothing is wrong\");")]),
    ("logread: a start that failed with 0x30000020 without its own cause",
     [("tools/logread/SummaryVerdict.cpp", "case 0x30000020u:", "case 0x30000021u:")]),
    ("logread: a plug-in log cut at its size limit read as a host that never set up",
     [("tools/logread/SummaryVerdict.cpp", "if (!f.from_init) {", "if (false) {")]),
    ("logread: a sensor log alone read as a host that never set up",
     [("tools/logread/SummaryVerdict.cpp", "if (!f.plugin_records) {", "if (false) {")]),
    ("logread: \"ability\" before \"init\" not noticed",
     [("tools/logread/Summary.cpp",
       "if (line == known::kEarlyAbility.line && !st.init) st.ability_before_init = true;", "")]),
    ("logread: the unfinished line before a NUL run joined to the line after it",
     [("tools/logread/LogInput.cpp",
       "if (!line_.empty()) ++cut_lines_;  // the line the NUL bytes cut off\n        line_.clear();", "")]),
    ("logread: a line that is no record folded into the record before it",
     [("tools/logread/LogInput.cpp",
       "if (!starts && choice_ == FormatChoice::kAuto && line != \"\\n\" && line != \"\\r\\n\") {",
       "if (false) {")]),
    ("logread: a gzip stream that ends early taken as whole",
     [("tools/logread/ByteSource.cpp",
       "cut_short_ = code == Z_BUF_ERROR;", "cut_short_ = false;")]),
    ("logread: the summary's record of the status query renumbered (105 as 106)",
     [("tools/logread/SummaryRecords.h",
       'kQuery{"AttentionFuntion", 105,', 'kQuery{"AttentionFuntion", 106,')]),
    ("THIRD-PARTY-NOTICES: zlib named for qxhost.exe instead of logread.exe",
     [("THIRD-PARTY-NOTICES",
       "zlib; linked into: logread.exe",
       "zlib; linked into: qxhost.exe")]),
    ("a development build without the pre-release flag",
     [("cmake/Version.cmake",
       "set(QX_RC_FLAGS VS_FF_PRERELEASE)",
       "set(QX_RC_FLAGS 0)")]),
    ("a development build claiming the bare release number",
     [("cmake/Version.cmake",
       "set(QX_VERSION_STRING ${PROJECT_VERSION}-dev+${_qx_short})",
       "set(QX_VERSION_STRING ${PROJECT_VERSION})")]),
    ("the archive's test build is the authenticated DLL",
     [("cmake/Release.cmake",
       "--strip-debug $<TARGET_FILE:QXAttentionPluginNoAuth>",
       "--strip-debug $<TARGET_FILE:QXAttentionPlugin>")]),
    ("the checksums' signature made over the inner list instead of SHA256SUMS",
     [("scripts/checksums.sh",
       '--output "$dist/SHA256SUMS.asc" "$dist/SHA256SUMS"',
       '--output "$dist/SHA256SUMS.asc" "$dist/$zip.contents.sha256"')]),
    ("PDBs with public symbols only (no CodeView from the compiler)",
     [("CMakeLists.txt",
       "add_compile_options(-gcodeview -gdwarf)",
       "add_compile_options(-gdwarf)")]),
    ("no inline sites in the fusion client's CodeView",
     [("fusion/CMakeLists.txt",
       "set_source_files_properties(FusionSehGuard.c PROPERTIES COMPILE_OPTIONS -fms-extensions)",
       "set_source_files_properties(FusionSehGuard.c PROPERTIES COMPILE_OPTIONS -fms-extensions)\n"
       "set_source_files_properties(FusionClient.cpp PROPERTIES COMPILE_OPTIONS"
       " -gno-inline-line-tables)")]),
    ("the PDBs naming objects by the build machine's folders",
     [("cmake/Reproducible.cmake",
       "add_link_options(-Wl,--no-insert-timestamp -Wl,-Xlink=-pdbsourcepath:${QX_BUILD_PREFIX})",
       "add_link_options(-Wl,--no-insert-timestamp)")]),
    ("the structured-exception guard passing exceptions on",
     [("fusion/FusionSehGuard.c",
       "return EXCEPTION_EXECUTE_HANDLER;",
       "return EXCEPTION_CONTINUE_SEARCH;")]),
    ("the sensor library log's stamp with month and day swapped",
     [("fusion/SensorLibLog.cpp",
       "t.wMonth, t.wDay,",
       "t.wDay, t.wMonth,")]),
    ("an exception line also written for a refused remote call",
     [("fusion/FusionClient.cpp",
       "  if (code != 0) {\n    SensorLibLogWrite(text, code, static_cast<long>(code));",
       "  if (code != 0 || result != 0) {\n    SensorLibLogWrite(text, code, static_cast<long>(code));")]),
    ("the telemetry callback's flags 1 instead of 0",
     [("plugin/AttentionState.cpp",
       'g_host_callback("BIGDATA", "BIGDATA", payload.c_str(), 0, 0);',
       'g_host_callback("BIGDATA", "BIGDATA", payload.c_str(), 0, 1);')]),
    ("the set-up retry's pause a tenth of 400 ms",
     [("attention/AttentionFuntion.cpp",
       "Sleep(kInitRetryPauseMs);",
       "Sleep(kInitRetryPauseMs / 10);")]),
    ("the service check's stop command skipped when the service is not running",
     [("attention/FusionService.cpp",
       "RunProcess(kNetCommand, kStopTofService, true);\n  Sleep(kCheckPauseMs);",
       "Sleep(kCheckPauseMs);")]),
    ("the restart's start command skipped",
     [("attention/FusionService.cpp",
       "RunProcess(kNetCommand, kStartFusionService, true);\n  Sleep(kRestartPauseMs);\n  return 0;",
       "Sleep(kRestartPauseMs);\n  return 0;")]),
    ("opnum 2 (SetFusionDelay) declaring 2 bytes instead of 4",
     [("fusion/FusionClient.cpp",
       "FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, 4,",
       "FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, 2,")]),
    ("the stored status written to HKLM instead of HKCU",
     [("plugin/AttentionState.cpp",
       "if (RegCreateKeyExW(HKEY_CURRENT_USER, kAttentionKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,",
       "if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kAttentionKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,")]),
    ("a record's line number not its catalogue row (setup_attention_client as line 26)",
     [("plugin/AttentionInfo.cpp",
       'QX_LOG(LogInfo, 25, L"setup_attention_client ");',
       'QX_LOG(LogInfo, 26, L"setup_attention_client ");')]),
    ("\"close\" stopping the wrong sensor's waiting thread",
     [("fusion/FusionClient.cpp",
       "if ((copy & 1u) && g_fusion.stopEvents[index]) {\n      SetEvent(g_fusion.stopEvents[index]);",
       "if ((copy & 2u) && g_fusion.stopEvents[index]) {\n      SetEvent(g_fusion.stopEvents[index]);")]),
    ("attention not enabled at \"init\" when the ability was never asked",
     [("plugin/AttentionInfo.cpp",
       "if (g_ability_cache == 0) return;",
       "if (g_ability_cache != 1) return;")]),
    ("the plug-in's log limit 2 MiB instead of 1 MiB",
     [("plugin/AttentionPlugin.cpp",
       'Setup(L"Quillomatic", L"QXAttentionPlugin.log", 0x100000, 1, 1);',
       'Setup(L"Quillomatic", L"QXAttentionPlugin.log", 0x200000, 1, 1);')]),
    ("the newest record never placed in the year after its file's (no slack across 31 December)",
     [("tools/logread/Clock.cpp",
       "int year = FromCivil(reference).year + 1;",
       "int year = FromCivil(reference).year;")]),
    ("files dated from now instead of their modification time",
     [("tools/logread/Timeline.cpp",
       "Anchor(*lane, scan->last, scan->count.steps, scan->modified ? scan->modified : LocalNow());",
       "Anchor(*lane, scan->last, scan->count.steps, LocalNow());")]),
    ("a relative minute of 59 seconds",
     [("tools/logread/Clock.cpp", ": unit == 'm' ? 60000", ": unit == 'm' ? 59000")]),
    ("a relative day of 23 hours",
     [("tools/logread/Clock.cpp", ": unit == 'd' ? kDay", ": unit == 'd' ? kDay - 3600000")]),
    ("\"yesterday\" two days back",
     [("tools/logread/Clock.cpp", "midnight - kDay;", "midnight - 2 * kDay;")]),
    ("--since MM-DD a minute, not the day",
     [("tools/logread/Clock.cpp",
       "limit.span = kDay;\n  if (!(Digits(s, at, 2, p.month)",
       "limit.span = 60000;\n  if (!(Digits(s, at, 2, p.month)")]),
    ("a year that is a guess placed silently",
     [("tools/logread/Timeline.cpp",
       "if (!year_ && modified - newest > kGuessGap)",
       "if (false)")]),
    ("-g smart case counting escapes (\\W) as capitals",
     [("tools/logread/Matcher.cpp",
       "i += i + 1 < pattern.size() && pattern[i + 1] == 'x' ? 3 : 1;  // \\W, \\xAB\n      continue;",
       "")]),
    ("several -g: only the last one used",
     [("tools/logread/RecordFilter.cpp",
       "for (const std::string& pattern : patterns)",
       "for (const std::string& pattern : std::vector<std::string>{patterns.back()})")]),
    ("-g x{n,m} matching at most m-1",
     [("tools/logread/Matcher.cpp", "for (int i = n.min; i < n.max; ++i) {", "for (int i = n.min; i + 1 < n.max; ++i) {")]),
    ("-g \\b true inside a word",
     [("tools/logread/Matcher.cpp", "ok = before != after;", "ok = before != after || after;")]),
    ("-g ignoring case only for lower-case letters in the pattern",
     [("tools/logread/Matcher.cpp", "if (Has(set, c) || Has(set, c - 32)) {", "if (Has(set, c)) {")]),
    ("an option taken once accepted twice",
     [("tools/logread/logread.cpp", "if (values.size() > 1)", "if (values.size() > 2)")]),
    ("a machine's folder kept with the logger's folders under it (one machine split in two)",
     [("tools/logread/LogFolders.cpp", "if (parts.empty()) break;", "break;")]),
    ("a host's own PROGRAM.log.logdat left out of a folder",
     [("tools/logread/LogFolders.cpp", "(EndsWith(name, \".log.logdat\") && name.size() > 11) ||", "")]),
    ("an unreadable subfolder ending the whole folder",
     [("tools/logread/LogFolders.cpp", "if (dir == root) {", "if (true) {")]),
    ("the bash completion without --year",
     [("tools/logread/share/logread.bash", "--source -g --grep -n --lines --year --time",
       "--source -g --grep -n --lines --time")]),
    ("logread: colour left on for TERM=dumb",
     [("tools/logread/logread.cpp", '!(term && std::string(term) == "dumb") &&', "")]),
    ("logread -g: the word flag lost after bytes passed over (\\b after a word)",
     [("tools/logread/Matcher.cpp", "const int word = IsWord(p[i - 1]) ? 1 : 0;", "const int word = 0;")]),
    ("logread: the years not read ahead for a merge of several files",
     [("tools/logread/logread.cpp", "const bool dates = files.size() > 1 ||", "const bool dates =")]),
]

PUNCT = set("(){}[],;<>=!+-*/%&|:?\"'.")


def fragment_regex(text):
    """A regex for `text` that allows any whitespace (line breaks included)
    wherever `text` has whitespace, and optional whitespace around punctuation,
    so that reformatting the source does not lose the fragment."""
    out = []
    i = 0
    while i < len(text):
        c = text[i]
        if c.isspace():
            while i < len(text) and text[i].isspace():
                i += 1
            out.append(r"\s+")
            continue
        out.append(re.escape(c))
        nxt = text[i + 1] if i + 1 < len(text) else ""
        if (c in PUNCT or nxt in PUNCT) and nxt and not nxt.isspace():
            out.append(r"\s*")
        i += 1
    return re.compile("".join(out))


def plant(edits):
    """Applies the edits; returns the original contents by path."""
    originals = {}
    for rel, old, new in edits:
        path = ROOT / rel
        if rel not in originals:
            originals[rel] = path.read_text()
        current = path.read_text()
        matches = list(fragment_regex(old).finditer(current))
        if len(matches) != 1:
            restore(originals)
            raise RuntimeError(f"{rel}: the fragment {old!r} occurs {len(matches)} times, expected once")
        m = matches[0]
        path.write_text(current[:m.start()] + new + current[m.end():])
    return originals


def restore(originals):
    for rel, text in originals.items():
        (ROOT / rel).write_text(text)


def run(cmd, cwd, log):
    proc = subprocess.run(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace")
    log.write(f"$ {' '.join(cmd)}  (in {cwd})\n{proc.stdout}\n")
    return proc.returncode, proc.stdout


TREES = ("build/win", "build/native")
CTEST = ["ctest", "--output-on-failure"]
TARGETS = []


def build(log):
    jobs = os.environ.get("QX_JOBS", str(os.cpu_count() or 1))
    for tree in TREES:
        rc, _ = run(["cmake", "--build", tree, "-j", jobs] + TARGETS, ROOT, log)
        if rc != 0:
            return False
    return True



def failures(log):
    """Runs both test suites; returns the failing ctest entries and GoogleTest cases."""
    failed = []
    for tree in sorted(TREES, reverse=True):
        _, out = run(CTEST, ROOT / tree, log)
        # A skipped entry (exit 77) is listed too, but caught nothing.
        entries = re.findall(r"^\s*\d+ - (\S+) \((?!Skipped\))", out, re.M)
        cases = sorted(set(re.findall(r"^\[  FAILED  \] ([A-Za-z0-9_/]+\.[A-Za-z0-9_/]+)", out, re.M)))
        failed += [(tree, e) for e in entries]
        failed += [(tree, "  " + c) for c in cases]
    return failed


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--only", help="comma-separated fault numbers (1-based)")
    ap.add_argument("--list", action="store_true", help="list the faults and exit")
    ap.add_argument("--trees", help="comma-separated build trees to rebuild and test"
                    " (default: build/win,build/native; build/native alone for logread's faults)")
    ap.add_argument("--targets", help="comma-separated build targets (default: all)")
    ap.add_argument("--tests", help="run only the ctest entries matching this regex (ctest -R)")
    ap.add_argument("--markdown", help="write a markdown table of the results to this file")
    ap.add_argument("--log", default=str(ROOT / "build" / "plant-faults.log"),
                    help="where the build and test output goes (default: build/plant-faults.log)")
    args = ap.parse_args()

    if args.list:
        for n, (what, _) in enumerate(FAULTS, 1):
            print(f"{n:2}. {what}")
        return 0
    global TREES
    if args.trees:
        TREES = tuple(args.trees.split(","))
    if args.tests:
        CTEST.extend(["-R", args.tests])
    if args.targets:
        TARGETS.extend(["--target"] + args.targets.split(","))
    chosen = range(1, len(FAULTS) + 1)
    if args.only:
        try:
            chosen = [int(x) for x in args.only.split(",")]
        except ValueError:
            print("plant-faults: --only takes numbers such as 1,4", file=sys.stderr)
            return 2
        bad = [n for n in chosen if not 1 <= n <= len(FAULTS)]
        if bad:
            print(f"plant-faults: no fault {bad[0]} (1..{len(FAULTS)})", file=sys.stderr)
            return 2
    for tree in TREES:
        if not (ROOT / tree / "CMakeCache.txt").exists():
            print(f"plant-faults: {tree} is not configured; run scripts/build.sh first", file=sys.stderr)
            return 2

    results = []
    with open(args.log, "w") as log:
        for n in chosen:
            what, edits = FAULTS[n - 1]
            print(f"[{n}/{len(FAULTS)}] {what}", flush=True)
            started = time.monotonic()
            try:
                originals = plant(edits)
            except RuntimeError as e:
                print(f"    cannot plant: {e}", flush=True)
                results.append((n, what, None))
                continue
            try:
                if not build(log):
                    print("    the build failed with the fault planted (see the log)", flush=True)
                    results.append((n, what, None))
                    continue
                failed = failures(log)
            finally:
                restore(originals)
            verdict = "caught" if failed else "MISSED"
            print(f"    {verdict} in {time.monotonic() - started:.0f} s", flush=True)
            for tree, name in failed:
                print(f"      {tree}: {name}", flush=True)
            results.append((n, what, failed))
        print("rebuilding the unchanged tree", flush=True)
        build(log)

    if args.markdown:
        with open(args.markdown, "w") as md:
            md.write("| # | Fault | Caught by |\n|---|---|---|\n")
            for n, what, failed in results:
                if failed is None:
                    cell = "not planted (see the run's output)"
                elif not failed:
                    cell = "**missed**"
                else:
                    cell = "<br>".join(name.strip() for _, name in failed)
                md.write(f"| {n} | {what} | {cell} |\n")
    missed = [n for n, _, failed in results if not failed]
    print(f"{len(results) - len(missed)} of {len(results)} faults caught"
          + (f"; missed or not planted: {missed}" if missed else ""))
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
