// One log file being read: its form (told from its content unless the
// command line says otherwise), the frame decoder or the record splitter, and
// how far it has got. Its bytes come from a ByteSource (a file, a gzip file,
// standard input); a file is read whole once, or followed as it grows,
// through the logger's deletions at its size limit. Either way it hands back
// records: the text of each, byte for byte as the writer produced it.
#pragma once

#include "ByteSource.h"
#include "Clock.h"
#include "LogFrameReader.h"
#include "LogRecord.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace logread {

enum ExitCode { kExitOk = 0, kExitIo = 1, kExitCorrupt = 2, kExitTorn = 3 };

// The more serious of two exit codes: 1 over 2 over 3 over 0.
int Worse(int a, int b);

enum class FormatChoice { kAuto, kLogdat, kPlain, kSensorLib };

class YearScanner;

// A name that ends in ".gz" (never followed; any file that starts as a
// gzip file does is read through zlib).
bool IsGzipName(const std::string& name);

// The records one read handed back, their texts one after the other in one
// buffer that is kept from read to read: once grown, it allocates nothing per
// record.
class RecordBatch {
 public:
  void Add(std::string_view text) {
    bytes_.append(text);
    ends_.push_back(bytes_.size());
  }
  std::size_t size() const { return ends_.size(); }
  bool empty() const { return ends_.empty(); }
  std::string_view operator[](std::size_t i) const {
    const std::size_t start = i ? ends_[i - 1] : 0;
    return std::string_view(bytes_).substr(start, ends_[i] - start);
  }
  void clear() {
    bytes_.clear();
    ends_.clear();
  }

 private:
  std::string bytes_;
  std::vector<std::size_t> ends_;
};

class LogSource {
 public:
  // `name` is the file as given on the command line ("-": standard input).
  LogSource(PathString path, std::string name, FormatChoice choice);
  ~LogSource();
  LogSource(const LogSource&) = delete;
  LogSource& operator=(const LogSource&) = delete;

  const std::string& name() const { return name_; }
  bool standard_input() const { return name_ == "-"; }
  // The kind of text of the records handed back so far (plug-in records
  // until the form is known).
  logrecord::Form form() const;
  // The file's modification time once reading has opened it; 0 for standard
  // input or before.
  Civil modified() const { return modified_; }

  // A quick pass over the whole file ahead of reading it (YearScan.h);
  // null for standard input, which cannot be read twice, and for a file that
  // cannot be opened (reading reports it).
  std::unique_ptr<YearScanner> ScanYears() const;

  // Reading a whole file once (or standard input). ReadMore hands back the
  // records that the next piece of the file completed; false when the file
  // is done (read to its end, or an error ended it); then Finish hands back
  // what is left and returns the file's exit code.
  bool ReadMore(RecordBatch& records);
  int Finish(RecordBatch& records);

  // One look at a followed file: notices deletion, replacement and
  // shortening, and hands back the records added since the last look.
  void Poll(RecordBatch& records);

 private:
  void StartOver();
  bool Consume(const char* data, std::size_t size, RecordBatch& records);
  bool Decode(const char* data, std::size_t size, RecordBatch& records);
  // Plain text, cut into lines. Guarded against damage (the form told from
  // the content): a NUL run is skipped with the unfinished line before it; a
  // line that neither starts a record nor is the empty line that ends a
  // message of its own stands alone (it never joins the record before it).
  // A form forced on the command line takes every line as it comes.
  void TakeText(const char* data, std::size_t size, RecordBatch& records);
  void TakeLine(std::string_view line, RecordBatch& records);
  // Hands back the record still open (whole lines).
  void FlushRecord(RecordBatch& records);
  // The end of the text: an unfinished last line is dropped (guarded) or
  // taken; the notes on the damage found. Returns kExitTorn when there was
  // any.
  int EndText(RecordBatch& records);

  PathString path_;
  std::string name_;
  FormatChoice choice_;

  bool format_known_ = false;
  logframe::LogFormat format_ = logframe::LogFormat::kLogdat;
  std::string head_;  // first bytes while the form is not yet known
  // Plain text: the open record (whole lines), the start of a line that the
  // next bytes continue, the offset of the text taken, the damage.
  std::string record_;
  std::string line_;
  std::uint64_t text_offset_ = 0;
  std::uint64_t nul_bytes_ = 0, nul_runs_ = 0, first_nul_ = 0;
  std::uint64_t cut_lines_ = 0, foreign_lines_ = 0, first_foreign_ = 0;
  bool in_nul_run_ = false;
  logframe::FrameDecoder decoder_;
  std::vector<logframe::Record> frames_;
  std::uint64_t offset_ = 0;  // bytes of the file consumed
  int status_ = kExitOk;

  std::vector<char> buffer_;
  Civil modified_ = 0;

  // Reading once.
  bool opened_ = false;
  bool done_ = false;
  std::unique_ptr<ByteSource> bytes_;

  // Following only.
  FileId id_;
  bool seen_ = false;     // the file has been opened at least once
  bool gone_ = false;     // the last look did not find it
  bool stalled_ = false;  // a corrupt frame: nothing more is read until the file changes
};

}  // namespace logread
