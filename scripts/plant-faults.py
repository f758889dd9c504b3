#!/usr/bin/env python3
"""Plants known faults one at a time and reports which tests catch each: the
edits made (a fragment found once, whitespace-tolerant), the trees rebuilt,
their ctest suites run, every failing entry and GoogleTest case listed, the
source put back (also when interrupted) and the unchanged tree rebuilt.

  scripts/plant-faults.py --list          the faults, and any that no longer plant
  scripts/plant-faults.py [--only 3,7-9] [--trees build/win] [--targets logger_test]
                          [--tests REGEX] [--markdown FILE]

QX_JOBS: the build's jobs; the output goes to build/plant-faults.log (one run
per checkout at a time). Exit 0
when every fault was caught, 1 when one was missed or did not plant.
"""
import argparse
import codecs
import fcntl
import os
import pathlib
import re
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
# Each fault: what it breaks, then its edits, one a line: "  FILE | OLD | NEW", or
# "  FILE | A{{OLD => NEW}}B" for A OLD B made A NEW B (Python's escapes, \n a
# newline), or "  = N" for fault N's edits.
TABLE = r"""
wrong line number in one record ("invalid status value" as line 286, not 268)
  plugin/AttentionPlugin.cpp | QX_LOG(LogInfo, {{268 => 286}},
status 3 accepted by set_attention_status
  plugin/ActionParams.cpp | static_cast<unsigned>(status) - 1u <= {{1u => 2u}};
the 400 ms InitFusion retry on any non-zero code
  attention/AttentionFuntion.cpp | code == kInitRetryCode | code != 0
the log size check on every 99th record instead of every 100th
  log/Logger.cpp | ++g_recordCounter % {{100 => 99}}
the ".normal" plain-text sibling left in place
  log/Logger.cpp | if (PathFileExistsW(normal.c_str())) DeleteFileW(normal.c_str()); | (void)normal;
opnum 2 (SetFusionDelay) sending 8 bytes instead of 4
  fusion/FusionClient.cpp | FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, {{4 => 8}},
the change filter reporting a change to 1 as a look-away
  attention/AttentionFuntion.cpp | (status {{!= 0 => > 1}}) return;
  attention/AttentionFuntion.cpp | callback(status + 1, | callback(1,
the ability cache written to HKLM instead of HKCU
  attention/AttentionFuntion.cpp | (RegCreateKeyExW({{HKEY_CURRENT_USER => HKEY_LOCAL_MACHINE}},
"init" skipping the service restart
  attention/AttentionFuntion.cpp | Fusion_service_check();{{ // Every set-up restarts the service, also when the check found it running. Fusion_service_restart(); => }}
the two-pass record formatting done in one pass
  log/Logger.cpp | format); return FormatMs(layout.c_str(), args); | FormatMs(format, args).c_str());\n  return layout;
the exception guard removed around one remote call (SetFusionDelay)
  fusion/FusionClient.cpp | Guarded(kExceptionText, [&] { return FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, 4, Bytes(const_cast<std::uint32_t*>(delay))); }); | FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, 4, Bytes(const_cast<std::uint32_t*>(delay)));
the reply count check removed (a record of another size copied)
  fusion/FusionClient.cpp | (record.size != size || size | (size
"close" not ending the waiting thread (no stop event set)
  fusion/FusionClient.cpp | SetEvent(g_fusion.stopEvents[index]); |
the log mutex dropped around the size check
  log/Logger.cpp | (m_mutex) WaitForSingleObject(m_mutex, INFINITE); // abandoned counts as taken try { if (m_sizeCheck && ++g_recordCounter % 100 == 0) CheckSize(); | (m_sizeCheck && ++g_recordCounter % 100 == 0) CheckSize();\n  if (m_mutex) WaitForSingleObject(m_mutex, INFINITE);\n  try {
the frame decoder's length cap off by one (a record of the cap's length refused)
  log/LogFrameReader.cpp | >{{ => =}} kMaxRecordLength)
--follow dropping a partial frame between two looks
  tools/logread/LogInput.cpp | FlushRecord(records); } | FlushRecord(records);\n  if (decoder_.has_partial_frame()) decoder_ = logframe::FrameDecoder();\n}
the sensor library log's milliseconds padded to 3 digits
  fusion/SensorLibLog.cpp | "[%02d-%02d-%02d-%02d-%02d:%{{d => 03d}}]"
a failed start not counted as working (w:0 at the next start)
  attention/AttentionFuntion.cpp | g_attentionWorking = {{1 => result == 0}};
the log mutex dropped around the size check, the writer 2 s slow to its hundredth record
  = 14
  tests/log/logger_test.cpp | !step(go)) return 3;{{ => \n  Sleep(2000);}}
the contention test's ctest entry selecting no test (a filter typo)
  tests/log/CMakeLists.txt | --gtest_filter={{LogContention => LogContentoin}}.*)
logread's cases under Wine selecting no test (a filter typo)
  tests/native/wine-cases.sh | --gtest_filter=LogreadCli.{{CasesOfTheTable => CasesOfTheTabel}}
the contention test's writers but the first writing a log of their own
  tests/log/logger_test.cpp | children.push_back(StartSelf(L"writer",{{ =>  w ? std::vector<std::wstring>{args[0] + L"-own", args[1], args[2], args[3], args[4]} :}} args));
logread: access denied (5) not told from a service that does not answer
  tools/logread/SummaryCodes.cpp | ErrorClass::{{kRights => kNoAnswer}};
logread: 1825 not counted as an authentication failure
  tools/logread/SummaryCodes.cpp | {{case 1825:  => }}return ErrorClass::kAuthentication;
logread: net.exe start's failure counted on a running service
  tools/logread/SummaryVerdict.cpp | {{(CheckNotRunning() || CheckNotFound()) &&  => }}!f_.commands.empty()
logread: the service check not looked at behind a code of no answer
  tools/logread/SummaryVerdict.cpp | codes::ErrorClass::kNoAnswer:{{ if (!service().category.empty()) return v; => }}
logread: "close" hides the state the session had before it
  tools/logread/SummaryVerdict.cpp | v.closed = f.closed;{{ => \n  if (f.closed) return b.Root("off", "closed", "nothing is wrong");}}
logread: a start that failed with 0x30000020 without its own cause
  tools/logread/SummaryVerdict.cpp | case 0x30000020u: | case 0x30000021u:
logread: a plug-in log cut at its size limit read as a host that never set up
  tools/logread/SummaryVerdict.cpp | if (!f.from_init) { | if (false) {
logread: a sensor log alone read as a host that never set up
  tools/logread/SummaryVerdict.cpp | (!f.plugin_records) | (false)
logread: "ability" before "init" not noticed
  tools/logread/Summary.cpp | if (line == known::kEarlyAbility.line && !st.init) st.ability_before_init = true; |
logread: the unfinished line before a NUL run joined to the line after it
  tools/logread/LogInput.cpp | if (!line_.empty()) ++cut_lines_; // the line the NUL bytes cut off line_.clear(); |
logread: a line that is no record folded into the record before it
  tools/logread/LogInput.cpp | if (!starts && choice_ == FormatChoice::kAuto && line != "\\n" && line != "\\r\\n") { | if (false) {
logread: a gzip stream that ends early taken as whole
  tools/logread/ByteSource.cpp | cut_short_ = {{code == Z_BUF_ERROR => false}};
logread: the summary's record of the status query renumbered (105 as 106)
  tools/logread/SummaryRecords.h | kQuery{"AttentionFuntion", {{105 => 106}},
THIRD-PARTY-NOTICES: zlib named for qxhost.exe instead of logread.exe
  THIRD-PARTY-NOTICES | zlib; linked into: {{logread => qxhost}}.exe
a development build without the pre-release flag
  cmake/Version.cmake | set(QX_RC_FLAGS {{VS_FF_PRERELEASE => 0}})
a development build claiming the bare release number
  cmake/Version.cmake | ${PROJECT_VERSION}{{-dev+${_qx_short} => }})
the archive's test build is the authenticated DLL
  cmake/Release.cmake | $<TARGET_FILE:{{QXAttentionPluginNoAuth => QXAttentionPlugin}}>
the checksums' signature made over the inner list instead of SHA256SUMS
  scripts/checksums.sh | "$dist/SHA256SUMS.asc" "$dist/{{SHA256SUMS => $zip.contents.sha256}}"
PDBs with public symbols only (no CodeView from the compiler)
  CMakeLists.txt | add_compile_options({{-gcodeview  => }}-gdwarf)
no inline sites in the fusion client's CodeView
  fusion/CMakeLists.txt | COMPILE_OPTIONS -fms-extensions){{ => \nset_source_files_properties(FusionClient.cpp PROPERTIES COMPILE_OPTIONS -gno-inline-line-tables)}}
the PDBs naming objects by the build machine's folders
  cmake/Reproducible.cmake | add_link_options(-Wl,--no-insert-timestamp{{ -Wl,-Xlink=-pdbsourcepath:${QX_BUILD_PREFIX} => }})
the structured-exception guard passing exceptions on
  fusion/FusionSehGuard.c | EXCEPTION_EXECUTE_HANDLER; | EXCEPTION_CONTINUE_SEARCH;
the sensor library log's stamp with month and day swapped
  fusion/SensorLibLog.cpp | t.wMonth, t.wDay, | t.wDay, t.wMonth,
an exception line also written for a refused remote call
  fusion/FusionClient.cpp | code != 0) { | code != 0 || result != 0) {
the telemetry callback's flags 1 instead of 0
  plugin/AttentionState.cpp | payload.c_str(), 0, {{0 => 1}});
the set-up retry's pause a tenth of 400 ms
  attention/AttentionFuntion.cpp | Sleep(kInitRetryPauseMs{{ =>  / 10}});
the service check's stop command skipped when the service is not running
  attention/FusionService.cpp | {{RunProcess(kNetCommand, kStopTofService, true);  => }}Sleep(kCheckPauseMs);
the restart's start command skipped
  attention/FusionService.cpp | {{RunProcess(kNetCommand, kStartFusionService, true);  => }}Sleep(kRestartPauseMs);
opnum 2 (SetFusionDelay) declaring 2 bytes instead of 4
  fusion/FusionClient.cpp | FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, {{4 => 2}},
the stored status written to HKLM instead of HKCU
  plugin/AttentionState.cpp | (RegCreateKeyExW({{HKEY_CURRENT_USER => HKEY_LOCAL_MACHINE}},
a record's line number not its catalogue row (setup_attention_client as line 26)
  plugin/AttentionInfo.cpp | QX_LOG(LogInfo, {{25 => 26}},
"close" stopping the wrong sensor's waiting thread
  fusion/FusionClient.cpp | if ((copy & {{1u => 2u}}) &&
attention not enabled at "init" when the ability was never asked
  plugin/AttentionInfo.cpp | (g_ability_cache {{== 0 => != 1}})
the plug-in's log limit 2 MiB instead of 1 MiB
  plugin/AttentionPlugin.cpp | L"QXAttentionPlugin.log", {{0x100000 => 0x200000}},
the newest record never placed in the year after its file's (no slack across 31 December)
  tools/logread/Clock.cpp | FromCivil(reference).year{{ + 1 => }};
files dated from now instead of their modification time
  tools/logread/Timeline.cpp | scan->modified ? scan->modified : LocalNow()); | LocalNow());
a relative minute of 59 seconds
  tools/logread/Clock.cpp | unit == 'm' ? {{60000 => 59000}}
a relative day of 23 hours
  tools/logread/Clock.cpp | unit == 'd' ? kDay{{ =>  - 3600000}}
"yesterday" two days back
  tools/logread/Clock.cpp | midnight -{{ =>  2 *}} kDay;
--since MM-DD a minute, not the day
  tools/logread/Clock.cpp | kDay; if (!(Digits(s, | 60000;\n  if (!(Digits(s,
a year that is a guess placed silently
  tools/logread/Timeline.cpp | (!year_ && modified - newest > kGuessGap) | (false)
-g smart case counting escapes (\W) as capitals
  tools/logread/Matcher.cpp | i += i + 1 < pattern.size() && pattern[i + 1] == 'x' ? 3 : 1; // \\W, \\xAB continue; |
several -g: only the last one used
  tools/logread/RecordFilter.cpp | pattern : patterns) | pattern : std::vector<std::string>{patterns.back()})
-g x{n,m} matching at most m-1
  tools/logread/Matcher.cpp | i = n.min; i{{ =>  + 1}} < n.max
-g \b true inside a word
  tools/logread/Matcher.cpp | = before !={{ =>  after ||}} after;
-g ignoring case only for lower-case letters in the pattern
  tools/logread/Matcher.cpp | Has(set, c) || Has(set, c - 32) | Has(set, c)
an option taken once accepted twice
  tools/logread/logread.cpp | (values.size() > {{1 => 2}})
a machine's folder kept with the logger's folders under it (one machine split in two)
  tools/logread/LogFolders.cpp | if (parts.empty()) break; | break;
a host's own PROGRAM.log.logdat left out of a folder
  tools/logread/LogFolders.cpp | (EndsWith(name, ".log.logdat") && name.size() > 11) || |
an unreadable subfolder ending the whole folder
  tools/logread/LogFolders.cpp | if (dir == root) { | if (true) {
the bash completion without --year
  tools/logread/share/logread.bash | --source -g --grep -n --lines{{ --year => }} --time
logread: colour left on for TERM=dumb
  tools/logread/logread.cpp | !(term && std::string(term) == "dumb") && |
logread -g: the word flag lost after bytes passed over (\b after a word)
  tools/logread/Matcher.cpp | const int word ={{ IsWord(p[i - 1]) ? 1 : => }} 0;
logread: the years not read ahead for a merge of several files
  tools/logread/logread.cpp | const bool dates ={{ files.size() > 1 || => }}
logread: a session started by a record dated from its neighbour shown at 00-00 00:00:00.000
  tools/logread/Summary.cpp | if (!r.fields.has_time) { const CivilParts | if (false) {\n      const CivilParts
logread: the category of a start refused with 0x30000020 misnamed (sensor_unreached)
  tools/logread/SummaryVerdict.cpp | Root("off", "{{sensor_unreachable => sensor_unreached}}",
qxhost: "init" after "close" not starting the lifecycle over
  tools/qxhost/Lifecycle.cpp | if (name == "init"{{ =>  && state_ != State::Closed}}) state_
a development build numbered below CHANGELOG.md's newest release
  CHANGELOG.md | ## [Unreleased]{{ => \n\n## [9.0.0] - 2026-11-26}}
the sensor library's exception line without its own line end (no empty line after)
  fusion/FusionClient.cpp | kExceptionText[] = QX_SENSOR_EXCEPTION{{ "\\n" => }};
the stored delay's refusal at "init" not written
  plugin/AttentionPlugin.cpp | if (rc {{!= => <}} 0) QX_LOG(LogInfo, 233,
"""
FAULTS = []
for line in TABLE.strip().split("\n"):
    if not line.startswith("  "):
        FAULTS.append((line, []))
    elif line.startswith("  = "):
        FAULTS[-1][1].extend(FAULTS[int(line[4:]) - 1][1])
    else:
        edit = [codecs.decode(f, "unicode_escape") for f in re.split(r" \|(?: |$)", line[2:])]
        if len(edit) == 2:
            a, old, new, b = re.fullmatch(r"(.*)\{\{(.*) => (.*)\}\}(.*)", edit[1], re.S).groups()
            edit[1:] = [a + old + b, a + new + b]
        FAULTS[-1][1].append(edit)
PUNCT = set("(){}[],;<>=!+-*/%&|:?\"'.")


def fragment_regex(text):
    """Any whitespace where `text` has some, optional whitespace at punctuation."""
    out = ""
    for c, nxt in zip(text, text[1:] + " "):
        if not c.isspace():
            out += re.escape(c) + (r"\s*" if not nxt.isspace() and {c, nxt} & PUNCT else "")
        elif not out.endswith(r"\s+"):
            out += r"\s+"
    return re.compile(out)


def planted(edits):
    """The texts with the edits made, by path; raises if a fragment is not found once."""
    texts = {}
    for rel, old, new in edits:
        text = texts.get(rel) or (ROOT / rel).read_text()
        found = list(fragment_regex(old).finditer(text))
        if len(found) != 1:
            raise RuntimeError(f"{rel}: {old!r} occurs {len(found)} times, not once")
        texts[rel] = text[:found[0].start()] + new + text[found[0].end():]
    return texts


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--list", action="store_true")
    ap.add_argument("--only", help="fault numbers, such as 1,4,36-43")
    ap.add_argument("--trees", default="build/win,build/native")
    ap.add_argument("--targets", help="build targets (default: all)")
    ap.add_argument("--tests", help="ctest entries matching this regex")
    ap.add_argument("--markdown", help="also write the results as a table")
    args = ap.parse_args()
    results = []
    if args.list:
        for n, (what, edits) in enumerate(FAULTS, 1):
            try:
                planted(edits)
                print(f"{n:2}. {what}")
            except RuntimeError as e:
                results.append(n)
                print(f"{n:2}. {what}\n    CANNOT PLANT: {e}")
        return 1 if results else 0
    try:
        spans = [[int(n) for n in x.split("-")] for x in args.only.split(",")] if args.only else [[1, len(FAULTS)]]
        chosen = [n for span in spans for n in range(span[0], span[-1] + 1)]
        assert chosen and all(1 <= n <= len(FAULTS) for n in chosen)
    except (ValueError, AssertionError):
        ap.error(f"--only takes fault numbers from 1 to {len(FAULTS)}")
    trees = args.trees.split(",")
    for tree in trees:
        if not (ROOT / tree / "CMakeCache.txt").exists():
            ap.error(f"{tree} is not configured; run scripts/build.sh first")
    # Faults are planted in the checkout's own sources: one run at a time.
    log = open(ROOT / "build" / "plant-faults.log", "a")
    try:
        fcntl.flock(log, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        sys.exit("plant-faults: another run is planting faults in this checkout")
    log.truncate(0)

    def run(cmd, cwd):
        proc = subprocess.run(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace")
        log.write(f"$ {' '.join(cmd)}  (in {cwd})\n{proc.stdout}\n")
        return proc.returncode == 0, proc.stdout

    build = ["-j", os.environ.get("QX_JOBS", str(os.cpu_count()))] + (["--target", *args.targets.split(",")] if args.targets else [])
    ctest = ["ctest", "--output-on-failure"] + (["-R", args.tests] if args.tests else [])
    built = lambda: all(run(["cmake", "--build", tree, *build], ROOT)[0] for tree in trees)
    for n in chosen:
        what, edits = FAULTS[n - 1]
        print(f"[{n}/{len(FAULTS)}] {what}", flush=True)
        started, failed = time.monotonic(), None
        try:
            texts = planted(edits)
        except RuntimeError as e:
            texts = {}
            print(f"    cannot plant: {e}", flush=True)
        originals = {rel: (ROOT / rel).read_text() for rel in texts}
        try:
            for rel, text in texts.items():
                (ROOT / rel).write_text(text)
            if texts and built():
                failed = []
                for tree in sorted(trees, reverse=True):
                    out = run(ctest, ROOT / tree)[1]
                    # ctest's list of failures (a skipped entry, exit 77, is in another list)
                    failed += re.findall(r"^\s*\d+ - (\S+) \(", out.partition("The following tests FAILED:")[2], re.M)
                    failed += sorted(set(re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", out, re.M)))
            elif texts:
                print("    the build failed with the fault planted (see the log)", flush=True)
        finally:
            for rel, text in originals.items():
                (ROOT / rel).write_text(text)
        if failed is not None:
            print(f"    {'caught' if failed else 'MISSED'} in {time.monotonic() - started:.0f} s", flush=True)
            print("".join(f"      {name}\n" for name in failed), end="", flush=True)
        results.append((n, what, failed))
    print("rebuilding the unchanged tree", flush=True)
    built()
    if args.markdown:
        with open(args.markdown, "w") as md:
            md.write("| # | Fault | Caught by |\n|---|---|---|\n")
            for n, what, failed in results:
                cell = "not planted" if failed is None else "<br>".join(failed) or "**missed**"
                md.write(f"| {n} | {what} | {cell} |\n")
    missed = [n for n, _, failed in results if not failed]
    print(f"{len(results) - len(missed)} of {len(results)} faults caught"
          + (f"; missed or not planted: {missed}" if missed else ""))
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
