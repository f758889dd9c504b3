// One log file being read: its form (told from its content unless the
// command line says otherwise), the frame decoder or the record splitter, and
// how far it has got. A file is read whole once, or followed as it grows,
// through the logger's deletions at its size limit. Either way it hands back
// records: the text of each, byte for byte as the writer produced it.
#pragma once

#include "Clock.h"
#include "LogFrameReader.h"
#include "LogRecord.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace logread {

#ifdef _WIN32
using PathString = std::wstring;
#else
using PathString = std::string;
#endif

enum ExitCode { kExitOk = 0, kExitIo = 1, kExitCorrupt = 2, kExitTorn = 3 };

// The more serious of two exit codes: 1 over 2 over 3 over 0.
int Worse(int a, int b);

enum class FormatChoice { kAuto, kLogdat, kPlain, kSensorLib };

class YearScanner;

// A name that ends in ".gz" (never followed; any file that starts as a
// gzip file does is read through zlib).
bool IsGzipName(const std::string& name);

// Identity of a file, to notice that the name now refers to another file.
struct FileId {
  std::uint64_t volume = 0;
  std::uint64_t index = 0;
  bool operator==(const FileId&) const = default;
};

class LogSource {
 public:
  // `name` is the file as given on the command line ("-": standard input).
  LogSource(PathString path, std::string name, FormatChoice choice, bool follow);
  ~LogSource();
  LogSource(const LogSource&) = delete;
  LogSource& operator=(const LogSource&) = delete;

  const std::string& name() const { return name_; }
  // The kind of text of the records handed back so far (plug-in records
  // until the form is known).
  logrecord::Form form() const;

  // A quick pass over the whole file ahead of reading it (YearScan.h);
  // null for standard input, which cannot be read twice, and for a file that
  // cannot be opened (reading reports it).
  std::unique_ptr<YearScanner> ScanYears() const;

  // Reading a whole file once (or standard input). ReadMore hands back the
  // records that the next piece of the file completed; false when the file
  // is done (read to its end, or an error ended it); then Finish hands back
  // what is left and returns the file's exit code.
  bool ReadMore(std::vector<std::string>& records);
  int Finish(std::vector<std::string>& records);

  // One look at a followed file: notices deletion, replacement and
  // shortening, and hands back the records added since the last look.
  void Poll(std::vector<std::string>& records);

 private:
  class InputFile;
  // Whether the file starts as gzip's files do; zlib's reader of it (a
  // gzFile), or null.
  static bool IsGzip(InputFile& file);
  static void* OpenGzip(const PathString& path);

  void StartOver();
  bool Consume(const char* data, std::size_t size, std::vector<std::string>& records);
  bool Decode(const char* data, std::size_t size, std::vector<std::string>& records);
  // Plain text, guarded against damage: whole lines go to the splitter; a NUL
  // run is skipped with the unfinished line before it; a line that neither
  // starts a record nor is the empty line that ends a message of its own
  // stands alone (it never joins the record before it).
  void TakeText(const char* data, std::size_t size, std::vector<std::string>& records);
  void TakeLine(std::vector<std::string>& records);
  // The end of the text: an unfinished last line is dropped; the notes on
  // the damage found. Returns kExitTorn when there was any.
  int EndText();
  bool OpenForReading();

  PathString path_;
  std::string name_;
  FormatChoice choice_;
  bool follow_;

  bool format_known_ = false;
  logframe::LogFormat format_ = logframe::LogFormat::kLogdat;
  std::string head_;  // first bytes while the form is not yet known
  logrecord::RecordSplitter splitter_;
  // Plain text: the unfinished line, the offset of the text taken, the damage.
  std::string line_;
  std::uint64_t text_offset_ = 0;
  std::uint64_t nul_bytes_ = 0, nul_runs_ = 0, first_nul_ = 0;
  std::uint64_t cut_lines_ = 0, foreign_lines_ = 0, first_foreign_ = 0;
  bool in_nul_run_ = false;
  logframe::FrameDecoder decoder_;
  std::vector<logframe::Record> frames_;
  std::uint64_t offset_ = 0;  // bytes of the file consumed
  int status_ = kExitOk;

  // Reading once.
  bool opened_ = false;
  bool done_ = false;
  std::vector<char> buffer_;
  std::unique_ptr<InputFile> file_;
  void* gz_ = nullptr;         // gzFile of a ".gz" file, or of standard input
  bool gz_truncated_ = false;  // the compressed stream ended early

  // Following only.
  FileId id_;
  bool seen_ = false;     // the file has been opened at least once
  bool gone_ = false;     // the last look did not find it
  bool stalled_ = false;  // a corrupt frame: nothing more is read until the file changes
};

}  // namespace logread
