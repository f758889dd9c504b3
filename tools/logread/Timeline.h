// The records of one or more log files on one timeline.
//
// Neither log writes the year, so the timeline works it out. A file only
// grows forward in time: within a file, a record whose month comes before
// the month of the record before it starts a new year; any other step,
// forward or back (a clock set back within a month), stays in the year. The
// newest record of a file anchors the count: it lies in the latest year that
// puts it at most a day after the file's modification time (standard input:
// now), or in the year given with --year. Every file of a merge is dated by
// the same rule, on its own. A record without a time of its own (the sensor
// library's "Version:" line, a line that is not a record) takes the time of
// the next record of its file, or of the one before it at the end of the
// file.
//
// Read once, each file is first scanned quickly for its months and its newest
// record (YearScan.h; standard input, which cannot be read twice, is held
// whole instead), then the files are merged in time order as they are read:
// records of equal time in the order of the files given; within a file its
// own order is kept, even where the file's times step back. Followed, records
// are handed on as they come, dated from now.
#pragma once

#include "Clock.h"
#include "LogInput.h"
#include "LogRecord.h"
#include "YearScan.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace logread {

struct Record {
  Record() = default;
  Record(const Record&) = delete;  // the fields point into the text
  Record& operator=(const Record&) = delete;

  // Parses `text` of `form` into the fields; the sensor library's lines that
  // report a failure (an exception of a remote call, a binding that could
  // not be made) get the level "ERR".
  void Parse();

  std::size_t file = 0;  // index of the file in the command line
  logrecord::Form form = logrecord::Form::kPlugin;
  std::string text;          // the record as written, line ends included
  logrecord::Fields fields;  // views into `text`
  bool parsed = false;       // false: a line that is not a record (fields.message only)
  bool has_time = false;     // its own time or one taken from a neighbour
  Civil when = 0;            // its time with the year (Clock.h)
  int year_step = 0;         // new years counted in its file before it
};

// The records read from a file and not yet handed on, in file order. Their
// slots are used again, text buffers and all: reading allocates nothing per
// record once the queue has reached its size.
class RecordQueue {
 public:
  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }
  Record& operator[](std::size_t i) { return *slots_[(head_ + i) % slots_.size()]; }
  Record& front() { return (*this)[0]; }
  // A slot at the back, holding whatever it held before.
  Record& push_back();
  void pop_front();
  void clear() { head_ = size_ = 0; }

 private:
  std::vector<std::unique_ptr<Record>> slots_;
  std::size_t head_ = 0, size_ = 0;
};

class RecordSink {
 public:
  virtual ~RecordSink() = default;
  virtual void Write(const Record& record) = 0;
  // The end of what there is for now: the end of the files read once, or of
  // one look at the files followed.
  virtual void Flush() {}
};

class Timeline {
 public:
  Timeline() = default;

  // Takes the files in command-line order.
  void Add(std::unique_ptr<LogSource> source);
  std::size_t size() const { return lanes_.size(); }
  const std::string& name(std::size_t file) const { return lanes_[file]->source->name(); }
  // The exit code of a file read once (after Load).
  int status(std::size_t file) const { return lanes_[file]->status; }

  // The newest record of every file is put in `year` instead of the year that
  // the file's modification time gives.
  void SetYear(int year) { year_ = year; }

  // Finds the years of every file (a quick pass ahead, or standard input
  // read whole). Without `dates` (one file, and nothing that shows or
  // compares the records' years) nothing is read ahead: the records are
  // dated as they come, and the note on a year that is a guess is given at
  // the end of the file.
  void Load(bool dates = true);
  // After Load: whether any record has a time, and the first and last time.
  bool any_time() const { return have_range_; }
  Civil first() const { return first_; }
  Civil last() const { return last_; }
  // Reads the files and hands their records to `sink` in time order;
  // returns the worst exit code of the files. Stops early when the output
  // fails.
  int Merge(RecordSink& sink);
  // Follows the files (every 200 ms) and hands on records as they come;
  // returns only when the output fails.
  int Follow(RecordSink& sink);

  // A year-less time of --since or --until: the latest year that puts it at
  // most a day after the last record (now, when there is none).
  Civil Place(const logrecord::Time& time) const;

 private:
  struct Lane {
    std::unique_ptr<LogSource> source;
    std::size_t index = 0;
    RecordQueue records;    // parsed, in file order
    std::size_t dated = 0;  // records at the front whose time is settled
    bool done = false;
    int status = kExitOk;
    YearCount years;                           // counted over the records read so far
    bool anchored = false;                     // base_year is known
    int base_year = 0;                         // the year of year_step 0
    int day_year = 0, day_month = 0, day = 0;  // the day of day_start
    Civil day_start = 0;
    bool have_last = false;  // last_when holds the time of a record
    Civil last_when = 0;
    bool scanned = false;    // its years were found ahead
    logrecord::Time newest;  // the time of the last timed record read
  };

  void Take(Lane& lane, RecordBatch& texts);
  // The note on a file whose newest record is much older than the file.
  void NoteGuess(const Lane& lane, const logrecord::Time& newest, Civil modified) const;
  void Anchor(Lane& lane, const logrecord::Time& newest, int step, Civil reference);
  void Date(Lane& lane, bool final, Civil reference);
  void Fill(Lane& lane);
  void Widen(Civil when);
  static Civil When(Lane& lane, int year, const logrecord::Time& time);

  std::vector<std::unique_ptr<Lane>> lanes_;
  RecordBatch texts_;  // what the last read handed back
  int year_ = 0;
  bool have_range_ = false;
  Civil first_ = 0, last_ = 0;
};

}  // namespace logread
