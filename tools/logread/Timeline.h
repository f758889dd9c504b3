// The records of one or more log files on one timeline.
//
// Neither log writes the year, so the timeline counts years itself: within a
// file, a step back in time of more than half a year (12-31 to 01-01) starts
// the next year and a step forward of more than half a year goes back one;
// each file's first record is put in the year that brings it nearest to the
// first record of the first file given (so files collected together are
// taken to lie within half a year of each other). A record without a time of
// its own (the sensor library's "Version:" line, a line that is not a record)
// takes the time of the next record of its file, or of the one before it at
// the end of the file.
//
// Read once, the files are merged in time order (records of equal time in the
// order of the files given; within a file its own order is kept, even where
// the file's times step back). Followed, records are handed on as they come.
#pragma once

#include "LogInput.h"
#include "LogRecord.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace logread {

struct Record {
  Record() = default;
  Record(const Record&) = delete;  // the fields point into the text
  Record& operator=(const Record&) = delete;

  std::size_t file = 0;  // index of the file in the command line
  logrecord::Form form = logrecord::Form::kPlugin;
  std::string text;          // the record as written, line ends included
  logrecord::Fields fields;  // views into `text`
  bool parsed = false;       // false: a line that is not a record (fields.message only)
  bool has_time = false;     // its own time or one taken from a neighbour
  std::int64_t when = 0;     // milliseconds on the timeline (years counted as above)
};

class RecordSink {
 public:
  virtual ~RecordSink() = default;
  virtual void Write(const Record& record) = 0;
};

class Timeline {
 public:
  Timeline() = default;

  // Takes the files in command-line order.
  void Add(std::unique_ptr<LogSource> source);
  std::size_t size() const { return lanes_.size(); }
  const std::string& name(std::size_t file) const { return lanes_[file]->source->name(); }

  // Reads every file once and hands the records to `sink` in time order;
  // returns the worst exit code of the files. Stops early when the output
  // fails.
  int ReadMerged(RecordSink& sink);
  // Follows the files (every 200 ms) and hands on records as they come;
  // returns only when the output fails.
  int Follow(RecordSink& sink);

  // Puts a year-less time on the timeline: in the year nearest the
  // timeline's first record (the year of that record when there is none yet).
  std::int64_t Place(const logrecord::Time& time) const;

 private:
  struct Lane {
    std::unique_ptr<LogSource> source;
    std::size_t index = 0;
    std::deque<Record> records;  // parsed, in file order
    std::size_t untimed = 0;     // records at the back still waiting for a time
    bool done = false;
    int status = kExitOk;
    bool any_time = false;  // a timed record has been seen
    int year = 0;
    std::int64_t last_key = 0;
    std::int64_t last_when = 0;
  };

  void Take(Lane& lane, std::vector<std::string>& texts, bool hold_untimed);
  void Fill(Lane& lane);
  std::int64_t Unwrap(Lane& lane, std::int64_t key);

  std::vector<std::unique_ptr<Lane>> lanes_;
  bool have_reference_ = false;
  std::int64_t reference_ = 0;
};

}  // namespace logread
