// Test side of the diagnostic log: set the process's logger up on a plain-text
// file of the test's own, at the debug level, and read back the records that a
// step wrote.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace testlog {

struct Record {
  std::string tag;     // "[INF]", "[DBG]", ...
  std::string source;  // as the record shows it, e.g. "AttentionFuntion"
  int line = 0;
  std::string text;    // UTF-8, without the line end
  long msOfDay = 0;    // the record's local time, milliseconds since midnight
};

// Sets Logger::Instance() up on `fileName` in the temporary folder, plain text,
// level 5 (through a config.ini that exists only for the set-up). Returns the
// full path. Any old file of that name is removed first.
std::wstring SetUp(const wchar_t* fileName);

// Current size of the log file: a mark to read from.
std::size_t Mark();

// Records written since `mark`.
std::vector<Record> Since(std::size_t mark);

// Records of `source` only.
std::vector<Record> From(const std::vector<Record>& records, const std::string& source);

// "tag source(line) text" of each record, one per line, for failure messages.
std::string Dump(const std::vector<Record>& records);

}  // namespace testlog
