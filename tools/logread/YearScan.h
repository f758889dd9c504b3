// A quick pass over a log before it is read: the months of its timed records,
// in the order written, and its first and newest record's time. That is all
// that dating the records needs (Timeline.h), so the records themselves can
// then be read and merged as they come instead of all being held first. No
// record is built: a frame's length and the time at the start of its text
// are all that is looked at, or the lines that start a record.
#pragma once

#include "LogFrameReader.h"
#include "LogRecord.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace logread {

// The new years of a file, counted as its timed records come in the order
// written: a record whose month comes before the month of the one before it
// starts one. The quick pass and the reading count with this one rule.
struct YearCount {
  bool any = false;  // a timed record has been seen
  int month = 0;     // the month of the last one
  int steps = 0;

  void Add(const logrecord::Time& time) {
    if (any && time.month < month) ++steps;
    any = true;
    month = time.month;
  }
};

class YearScanner {
 public:
  explicit YearScanner(logframe::LogFormat format) : format_(format) {}

  void Feed(const char* data, std::size_t size);
  // The end of the file: a last line without a line feed counts too.
  void Finish();

  // The new years (count.any: whether any record has a time), and the first
  // and newest record's time.
  YearCount count;
  logrecord::Time first, last;
  // The file's modification time (local), 0 when unknown.
  std::int64_t modified = 0;

 private:
  void Take(const logrecord::Time& time);
  void FeedFrames(const char* data, std::size_t size);
  void Line(std::string_view line);

  logframe::LogFormat format_;
  // Frames: the header and the first bytes of the current frame, then the
  // rest of it skipped; its time counts once the whole frame is there.
  std::string head_;
  std::uint64_t skip_ = 0;
  bool timed_ = false;
  logrecord::Time pending_;
  bool stopped_ = false;  // a length no frame can have: the reader stops there too
  // Text: the start of a line that the next bytes continue.
  std::string line_;
};

}  // namespace logread
