// Test side of the diagnostic log: the process's logger set up on a file of
// the test's own, obfuscated as the plug-in writes it, at the debug level; the
// records a step wrote are read back through the frame decoder logread uses.
#pragma once

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

// Sets Logger::Instance() up on "<temp>\<fileName>.logdat" (any old file removed).
void SetUp(const wchar_t* fileName);
// Current size of the log file: a mark to read from.
std::size_t Mark();
// Records written since `mark`.
std::vector<Record> Since(std::size_t mark);
// One "tag source(line) text" line per record, for failure messages.
std::string Dump(const std::vector<Record>& records);

}  // namespace testlog
