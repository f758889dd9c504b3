// logread: turns the plug-in's log files back into text, for support
// engineers.
//
// Reads ".logdat" files (length-prefixed, complemented records), plain logs of
// the plug-in and the sensor library's log, telling each file's form from its
// content. One file without filters is printed exactly as the writer produced
// it; several files are merged into one timeline, and records can be filtered,
// written as JSON Lines or summed up per process session. A file that is
// still being written can be followed, through the logger's deletions at its
// size limit. Builds for Windows and natively for Linux, where collected logs
// are usually read.
#include "Console.h"
#include "LogFolders.h"
#include "LogInput.h"
#include "RecordFilter.h"
#include "RecordWriter.h"
#include "Summary.h"
#include "Timeline.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#ifdef _WIN32
#include <windows.h>  // before shellapi.h, which needs its definitions

#include <shellapi.h>
#endif

namespace logread {

namespace {

namespace fs = std::filesystem;

constexpr char kDescription[] =
    "logread - reads the plug-in's log files and the sensor library's log\n"
    "\n"
    "Turns the plug-in's \".logdat\" files back into text, reads its plain logs and\n"
    "the sensor library's log (SensorLibLog.log), merges several files into one\n"
    "timeline, filters records, writes them as JSON Lines, or sums them up per\n"
    "process session.\n";

constexpr char kFooter[] =
    "Forms (told from each file's first bytes; --format overrides):\n"
    "  logdat  the plug-in's obfuscated log (QXAttentionPlugin.log.logdat): one frame\n"
    "          per record, a 4-byte little-endian length, then the record's UTF-8\n"
    "          bytes, each stored as its complement\n"
    "  plain   the plug-in's plain log (QXAttentionPlugin.log), one record a line:\n"
    "          \"MM-DD hh:mm:ss:mmm : [TAG][THREAD] SOURCE(LINE) MESSAGE\"\n"
    "  sensor  the sensor library's log (SensorLibLog.log): \"[MM-DD-hh-mm-ss:ms]MESSAGE\"\n"
    "          lines and a \"Version:\" line each time it is opened\n"
    "  --format FORM applies to every file; --format FORM:FILE to FILE alone (as\n"
    "  given on the command line). A file forced to plain or sensor is copied as\n"
    "  it is when it is printed alone.\n"
    "\n"
    "Output:\n"
    "  One file, no filter, no --json or --summary: the records exactly as the\n"
    "  writer produced them, byte for byte.\n"
    "  Otherwise every record is one line: line feeds inside a message (the JSON of\n"
    "  a \"resp:\" record, the sensor library's messages that end in a line feed)\n"
    "  show as \\n. With several files each line starts with its file's name and\n"
    "  \": \", and the files are merged in time order.\n"
    "  --json writes one JSON object per record, one per line: file, time with\n"
    "  its year (\"2026-11-14T09:05:07.042\"), level (\"ERR\", ...), thread, source,\n"
    "  line, message; null where the record has no such field (a sensor library\n"
    "  line has no thread, source or line; a \"Version:\" line no time).\n"
    "  --time=iso starts every line with the record's time and its year.\n"
    "  --summary starts with a verdict: is attention working in the newest process\n"
    "  session, and if not, the chain of causes the records show and what to do;\n"
    "  then damage found in the files, and per session (from \" attention plugin\n"
    "  init... \") the \"init\" actions and how long each took, the service check,\n"
    "  the ability decisions, status and delay changes, telemetry reports, the\n"
    "  sensor library's lines and version, and every failure with its code named.\n"
    "  Sessions come from every record: --level, --thread and --source choose what\n"
    "  is listed, --since and --until the sessions shown (those overlapping the\n"
    "  window). With --json, one JSON object on one line (machine, files, verdict,\n"
    "  sessions; times with the year), for fleet queries. Exit status: 4 attention\n"
    "  off for a cause the records show, 5 they cannot tell (see logread.md).\n"
    "\n"
    "Time: the records carry no year. A file only grows forward in time: a\n"
    "record whose month comes before the month of the record before it starts a\n"
    "new year; any other step stays in the year. The newest record of each file\n"
    "lies in the latest year that puts it at most a day after the file's\n"
    "modification time (01-01 00:28 in a file of 12-31 23:10: the new year), or in\n"
    "the year given with --year; a newest record more than a month older than its\n"
    "file gets a note that its year is a guess. A record without a time (a \"Version:\"\n"
    "line) is ordered with the record after it. A year-less --since or --until\n"
    "is put in the latest year that is at most a day after the newest record;\n"
    "relative times count back from now. The sensor library's exception and\n"
    "binding-failure lines have the level ERR.\n"
    "\n"
    "Folders and compressed files: a folder given as FILE stands for the logs\n"
    "inside it (at any depth) named QXAttentionPlugin.log.logdat,\n"
    "QXAttentionPlugin.log, SensorLibLog.log, PROGRAM.log.logdat or PROGRAM.exe.log\n"
    "(a host that wrote before setting the log up), each also with \".gz\"; a file\n"
    "compressed with gzip is read as it is decompressed. A subfolder that cannot be\n"
    "read is reported (exit 1) and the rest is read. A folder of several machines'\n"
    "folders: the records are merged, each line naming its file (whose path names\n"
    "the machine's folder); --summary sums up each machine on its own (one JSON\n"
    "line each with --json, \"machine\" naming its folder).\n"
    "\n"
    "Torn and corrupt files: a frame cut short at the end of a file (the logger was\n"
    "stopped between its two writes, or the file was deleted at its size limit\n"
    "while being copied) is ignored: the records before it are printed and a note\n"
    "on standard error says how many bytes were left out.\n"
    "\n"
    "Following (-f): checks every 200 ms; stop with Ctrl+C. The logger deletes its\n"
    "file when it reaches its size limit and starts a new one: logread notices the\n"
    "file being deleted, replaced or shortened and reads the new file from its\n"
    "beginning. A frame still being written is waited for, and so is a file that\n"
    "does not exist yet. Several files are watched together and their records\n"
    "printed whole, as they come (not merged in time order), dated from now.\n"
    "\n"
    "FILE may be \"-\" for standard input (not with --follow), dated from now.\n"
    "Colour: --color=auto colours on a terminal unless the environment variable\n"
    "NO_COLOR is set (not empty) or TERM is dumb.\n"
    "\n"
    "Patterns (-g), searched in time linear in the message: . [abc] [a-z] [^...]\n"
    "[[:digit:]] \\d \\w \\s \\D \\W \\S \\t \\n \\xHH ^ $ \\b \\B (x) (?:x) x|y x* x+ x?\n"
    "x{n} x{n,} x{n,m} (counts up to 1000). A pattern without capitals of its own\n"
    "(escapes such as \\W do not count) matches either case.\n"
    "\n"
    "Exit status (without --follow; with several files the most serious one, in\n"
    "the order 1, 2, 3):\n"
    "  0  all files read completely\n"
    "  1  usage error (an unknown option included), or a file or folder could not be\n"
    "     opened, read or written\n"
    "  2  not a log file, or a corrupt frame (a length field beyond any record, or a\n"
    "     frame that holds no record); the records before it are printed\n"
    "  3  damage skipped: the last frame of a file was torn, or a plain or sensor\n"
    "     log held NUL bytes, lines that are no record or an unfinished last line,\n"
    "     or a gzip stream ended early; the rest is read\n"
    "  4  --summary: attention is off, and the records say why\n"
    "  5  --summary: the records cannot tell (with --summary, 4 and 5 come before\n"
    "     1 to 3; several machines: the highest)\n"
    "\n"
    "Examples:\n"
    "  logread QXAttentionPlugin.log.logdat\n"
    "  logread --level ERR,WAR QXAttentionPlugin.log.logdat SensorLibLog.log\n"
    "  logread --since \"11-14 09:00\" --until \"11-14 09:30\" --json *.logdat | jq .\n"
    "  logread --since -1h -g \"exception|failed\" --time=iso collected-logs/\n"
    "  logread -n 20 --level ERR,WAR QXAttentionPlugin.log.logdat.gz SensorLibLog.log\n"
    "  logread --summary QXAttentionPlugin.log.logdat SensorLibLog.log\n"
    "\n"
    "On a Windows console, non-ASCII text shows correctly after \"chcp 65001\", or\n"
    "redirect the output to a file.";

struct Options {
  std::vector<std::string> files;
  std::vector<std::string> formats;
  bool follow = false;
  bool quiet = false;
  bool json = false;
  bool summary = false;
  std::string colour = "auto";
  std::string time = "record";
  int year = 0;
  long long lines = -1;
  FilterOptions filters;
  // The values of the options taken once, as given, to be checked by hand.
  std::vector<std::string> since, until, colours, times, years, counts;
};

// One value of an option taken once: the last of `values` in `value`; an
// empty string, or the error of an option given more than once.
std::string Once(const char* name, const std::vector<std::string>& values, std::string& value) {
  if (values.size() > 1)
    return std::string(name) + " is given " + std::to_string(values.size()) +
           " times; give it once";
  if (!values.empty()) value = values[0];
  return {};
}

// A whole number from `low` to `high` in `text`.
bool Whole(const std::string& text, long long low, long long high, long long& value) {
  if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  value = std::stoll(text);
  return value >= low && value <= high;
}

// Checks and takes the options given once; an empty string or the error.
std::string TakeSingles(Options& o) {
  std::string error, lines, year;
  for (auto [name, values, value] : {std::tuple{"--since", &o.since, &o.filters.since},
                                     {"--until", &o.until, &o.filters.until},
                                     {"--color", &o.colours, &o.colour},
                                     {"--time", &o.times, &o.time},
                                     {"--year", &o.years, &year},
                                     {"-n", &o.counts, &lines}})
    if (error = Once(name, *values, *value); !error.empty()) return error;
  if (o.colour != "auto" && o.colour != "always" && o.colour != "never")
    return "--color takes auto, always or never, not \"" + o.colour + "\"";
  if (o.time != "record" && o.time != "iso")
    return "--time takes record or iso, not \"" + o.time + "\"";
  long long n = 0;
  if (!year.empty()) {
    if (!Whole(year, 1970, 9999, n))
      return "--year takes a year from 1970 to 9999, not \"" + year + "\"";
    o.year = static_cast<int>(n);
  }
  if (!lines.empty()) {
    if (!Whole(lines, 0, 1000000000000000LL, n))
      return "-n takes a number of records, 0 or more, not \"" + lines + "\"";
    o.lines = n;
  }
  return {};
}

// CLI11's own errors, in logread's words.
std::string ParseFailure(const CLI::ParseError& e) {
  const std::string what = e.what(), name = e.get_name();
  const std::string tail =
      what.substr(what.rfind(": ") == std::string::npos ? 0 : what.rfind(": ") + 2);
  if (what.find("not expected") != std::string::npos) return "unknown option or argument: " + tail;
  if (name == "RequiredError")
    return "no FILE given: name a log file, a folder of logs, or - for standard input";
  if (name == "ArgumentMismatch") return what.substr(0, what.find(':')) + " needs a value";
  return what;
}

bool ParseForm(const std::string& text, FormatChoice& choice) {
  if (text == "auto")
    choice = FormatChoice::kAuto;
  else if (text == "logdat")
    choice = FormatChoice::kLogdat;
  else if (text == "plain")
    choice = FormatChoice::kPlain;
  else if (text == "sensor")
    choice = FormatChoice::kSensorLib;
  else
    return false;
  return true;
}

// The form of each file from the --format values; an empty string or a usage
// error.
std::string FormsOfFiles(const Options& o, std::vector<FormatChoice>& forms) {
  forms.assign(o.files.size(), FormatChoice::kAuto);
  for (const std::string& value : o.formats) {
    FormatChoice choice;
    const std::size_t colon = value.find(':');
    if (!ParseForm(value.substr(0, colon), choice))
      return "--format takes auto, logdat, plain or sensor (FORM or FORM:FILE), not \"" + value +
             "\"";
    if (colon == std::string::npos) {
      forms.assign(o.files.size(), choice);
      continue;
    }
    const std::string file = value.substr(colon + 1);
    bool found = false;
    for (std::size_t i = 0; i < o.files.size(); ++i) {
      if (o.files[i] == file) {
        forms[i] = choice;
        found = true;
      }
    }
    if (!found) return "--format " + value + ": \"" + file + "\" is not one of the files given";
  }
  return {};
}

PathString NativePath(const std::string& name) {
#ifdef _WIN32
  const int n =
      MultiByteToWideChar(CP_UTF8, 0, name.data(), static_cast<int>(name.size()), nullptr, 0);
  std::wstring out(n > 0 ? n : 0, L'\0');
  if (n > 0)
    MultiByteToWideChar(CP_UTF8, 0, name.data(), static_cast<int>(name.size()), out.data(), n);
  return out;
#else
  return name;
#endif
}

int Usage(const std::string& error) {
  std::fprintf(stderr, "logread: %s\nTry \"logread --help\".\n", error.c_str());
  return kExitIo;
}

constexpr int kUsageError = -1;

// Reads `files` (of one machine, with --summary) and writes them out as the
// options say; the exit status, or kUsageError after a usage error's message.
int Read(const Options& o, const std::vector<std::string>& files,
         const std::vector<FormatChoice>& forms, const std::string* machine) {
  Timeline timeline;
  timeline.SetYear(o.year);
  for (std::size_t i = 0; i < files.size(); ++i)
    timeline.Add(std::make_unique<LogSource>(NativePath(files[i]), files[i], forms[i]));

  // NO_COLOR (any value but empty) and TERM=dumb turn the automatic colour off.
  const char* no_colour = std::getenv("NO_COLOR");
  const char* term = std::getenv("TERM");
  const bool colour = !o.json && !o.summary &&
                      (o.colour == "always" ||
                       (o.colour == "auto" && !(no_colour && *no_colour) &&
                        !(term && std::string(term) == "dumb") && StdoutIsColourTerminal()));
  std::unique_ptr<Summary> summary;
  std::unique_ptr<RecordSink> writer;
  RecordSink* sink = nullptr;
  if (o.summary) {
    summary = std::make_unique<Summary>(timeline, o.json);
    if (machine) summary->SetMachine(*machine);
    sink = summary.get();
  } else {
    if (o.json)
      writer = std::make_unique<JsonWriter>(timeline);
    else if (files.size() == 1 && !o.filters.any() && o.time == "record")
      writer = std::make_unique<RawWriter>(colour);
    else
      writer = std::make_unique<LineWriter>(timeline, colour, o.time == "iso");
    sink = writer.get();
  }
  std::unique_ptr<TailWriter> tail;
  if (o.lines >= 0) {
    tail = std::make_unique<TailWriter>(static_cast<std::size_t>(o.lines), *sink);
    sink = tail.get();
  }
  std::unique_ptr<RecordFilter> filter;
  if (o.filters.any()) {
    filter = std::make_unique<RecordFilter>(timeline, o.filters, *sink);
    // The summary reads every record, so that filters never split a session,
    // and asks the filter which records to list and which sessions to show.
    if (summary)
      summary->SetFilter(filter.get());
    else
      sink = filter.get();
  }

  // The years are found ahead only where the output depends on them: the
  // merge of several files, the time window, and every output that shows
  // the year.
  const bool dates = files.size() > 1 || o.filters.time() || o.json || o.summary || o.time == "iso";
  if (!o.follow) timeline.Load(dates);
  if (filter) {
    if (std::string window = filter->Place(); !window.empty()) {
      Usage(window);
      return kUsageError;
    }
  }
  if (o.follow) return timeline.Follow(*sink);
  const int code = timeline.Merge(*sink);
  return summary ? summary->Print() : code;
}

int Run(int argc, char** argv) {
  Options o;
  CLI::App app(kDescription, "logread");
  app.footer(kFooter);
  app.get_formatter()->column_width(26);
  app.add_flag("-f,--follow", o.follow, "keep reading as the files grow, like tail -f");
  app.add_option("--format", o.formats,
                 "FORM or FORM:FILE: auto (default), logdat, plain or sensor")
      ->type_name("FORM[:FILE]")
      ->allow_extra_args(false);
  app.add_option(
         "--level", o.filters.levels,
         "only records of these levels: ERR, WAR, INF, TRA, DBG, NONE, and untagged for lines "
         "without a level (the sensor library's, but for its failures: ERR)")
      ->type_name("TAG[,TAG...]")
      ->delimiter(',')
      ->allow_extra_args(false);
  app.add_option("--since", o.since,
                 "only records at or after this time: \"MM-DD[ hh:mm[:ss]]\", \"YYYY-MM-DD[ "
                 "hh:mm[:ss]]\", today, yesterday, now, or relative to now: -30m, -1h, -2d")
      ->type_name("TIME")
      ->allow_extra_args(false);
  app.add_option("--until", o.until,
                 "only records before the end of this time (the whole minute, second or day "
                 "that it names)")
      ->type_name("TIME")
      ->allow_extra_args(false);
  app.add_option("--thread", o.filters.threads, "only records of these thread ids")
      ->type_name("ID[,ID...]")
      ->delimiter(',')
      ->allow_extra_args(false);
  app.add_option("--source", o.filters.sources,
                 "only records of these sources (\"AttentionPlugin.cpp\", \"AttentionPlugin\", "
                 "\"AttentionFuntion\", ...)")
      ->type_name("NAME[,NAME...]")
      ->delimiter(',')
      ->allow_extra_args(false);
  app.add_option("-g,--grep", o.filters.grep,
                 "only records whose message matches this regular expression (see below); "
                 "one without capitals of its own matches either case; several: any of them")
      ->type_name("REGEX")
      ->allow_extra_args(false);
  app.add_option("-n,--lines", o.counts,
                 "only the last N records (after the filters); with -f, the last N before "
                 "following")
      ->type_name("N")
      ->allow_extra_args(false);
  app.add_option("--year", o.years,
                 "the year of the newest record of each file (default: the year that the "
                 "file's modification time gives)")
      ->type_name("YYYY")
      ->allow_extra_args(false);
  app.add_option("--time", o.times,
                 "record: times as the records write them (no year); iso: each line also "
                 "starts with the time and its year, \"2026-11-14T09:05:07.042\"")
      ->type_name("FORM")
      ->allow_extra_args(false);
  app.add_flag("--json", o.json, "JSON Lines: one object per record (with --summary, one object)");
  app.add_flag("--summary", o.summary, "sum the records up per process session");
  app.add_option("--color", o.colours,
                 "colour records by level: auto (on a terminal, unless NO_COLOR is set), always "
                 "or never")
      ->type_name("WHEN")
      ->allow_extra_args(false);
  app.add_flag("-q,--quiet", o.quiet, "no notes on standard error (errors are still reported)");
  app.set_version_flag("--version", "logread " QX_VERSION, "print the version and exit");
  app.add_option("FILE", o.files,
                 "log files (.gz too); a folder stands for the logs inside it; \"-\" is "
                 "standard input")
      ->required()
      ->type_name("");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::fputs(app.help().c_str(), stdout);
    return FlushOutput() ? kExitOk : kExitIo;
  } catch (const CLI::CallForVersion& e) {
    std::printf("%s\n", e.what());
    return FlushOutput() ? kExitOk : kExitIo;
  } catch (const CLI::ParseError& e) {
    return Usage(ParseFailure(e));
  }
  if (std::string error = TakeSingles(o); !error.empty()) return Usage(error);

  std::vector<FormatChoice> forms;
  FoundLogs found;
  std::string error = FindLogs(o.files, found);
  if (error.empty()) {
    // The records of several machines are merged like any files: each line
    // names its file, whose path names the machine's folder.
    o.files = found.Files();
    if (o.files.empty()) error = "no log could be read in the folders given";
  }
  if (error.empty()) error = FormsOfFiles(o, forms);
  if (error.empty()) error = o.filters.Check();
  if (error.empty() && o.follow) {
    for (const auto& name : o.files) {
      if (name == "-") error = "standard input cannot be followed";
      if (IsGzipName(name)) error = name + ": a .gz file cannot be followed";
    }
    if (o.summary) error = "--summary sums up files read once; it cannot follow them";
  }
  if (error.empty() && o.summary && o.lines >= 0)
    error = "-n picks records to print; --summary reads them all";
  if (!error.empty()) return Usage(error);
  SetQuiet(o.quiet);
  for (const auto& folder : found.unreadable) Error("", folder);

  int code = kExitOk;
  if (o.summary) {
    // One summary per machine (a JSON line each), the most serious status.
    std::size_t first = 0;
    for (const auto& machine : found.machines) {
      const std::size_t n = machine.files.size();
      const std::vector<std::string> files(o.files.begin() + first, o.files.begin() + first + n);
      const std::vector<FormatChoice> machine_forms(forms.begin() + first,
                                                    forms.begin() + first + n);
      first += n;
      code = std::max(code, Read(o, files, machine_forms, &machine.folder));
      if (code == kUsageError) return kExitIo;
    }
  } else {
    code = Read(o, o.files, forms, nullptr);
    if (code == kUsageError) return kExitIo;
  }
  if (!found.unreadable.empty())
    code = o.summary ? std::max<int>(code, kExitIo) : Worse(code, kExitIo);
  if (!FlushOutput()) {
    std::fprintf(stderr, "logread: cannot write to standard output\n");
    return kExitIo;
  }
  return code;
}

}  // namespace

}  // namespace logread

int main(int argc, char** argv) {
  logread::BinaryStdio();
#ifdef _WIN32
  // The arguments come from the wide command line, as UTF-8, so that any
  // file name works; paths are made wide again from them.
  int count = 0;
  wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
  if (wide) {
    std::vector<std::string> args;
    for (int i = 0; i < count; ++i) {
      const int n = WideCharToMultiByte(CP_UTF8, 0, wide[i], -1, nullptr, 0, nullptr, nullptr);
      std::string arg(n > 0 ? n - 1 : 0, '\0');
      if (n > 1) WideCharToMultiByte(CP_UTF8, 0, wide[i], -1, arg.data(), n, nullptr, nullptr);
      args.push_back(std::move(arg));
    }
    LocalFree(wide);
    std::vector<char*> pointers;
    for (auto& arg : args) pointers.push_back(arg.data());
    pointers.push_back(nullptr);
    return logread::Run(count, pointers.data());
  }
#endif
  return logread::Run(argc, argv);
}
