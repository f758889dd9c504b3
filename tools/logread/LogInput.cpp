#include "LogInput.h"

#include "Console.h"
#include "YearScan.h"

#include <cstring>

namespace logread {

namespace {

// Bytes taken from the source at a time.
constexpr std::size_t kChunk = 64 * 1024;

}  // namespace

int Worse(int a, int b) {
  auto rank = [](int code) {
    return code == kExitIo ? 3 : code == kExitCorrupt ? 2 : code == kExitTorn ? 1 : 0;
  };
  return rank(b) > rank(a) ? b : a;
}

bool IsGzipName(const std::string& name) {
  return name.size() > 3 && (name.compare(name.size() - 3, 3, ".gz") == 0 ||
                             name.compare(name.size() - 3, 3, ".GZ") == 0);
}

LogSource::LogSource(PathString path, std::string name, FormatChoice choice)
    : path_(std::move(path)), name_(std::move(name)), choice_(choice) {
  StartOver();
}

LogSource::~LogSource() = default;

logrecord::Form LogSource::form() const {
  return format_known_ && format_ == logframe::LogFormat::kSensorLib ? logrecord::Form::kSensorLib
                                                                     : logrecord::Form::kPlugin;
}

void LogSource::StartOver() {
  offset_ = 0;
  decoder_.Reset();
  head_.clear();
  stalled_ = false;
  format_known_ = choice_ != FormatChoice::kAuto;
  format_ = choice_ == FormatChoice::kPlain       ? logframe::LogFormat::kPlain
            : choice_ == FormatChoice::kSensorLib ? logframe::LogFormat::kSensorLib
                                                  : logframe::LogFormat::kLogdat;
  status_ = kExitOk;
  record_.clear();
  line_.clear();
  text_offset_ = nul_bytes_ = nul_runs_ = first_nul_ = 0;
  cut_lines_ = foreign_lines_ = first_foreign_ = 0;
  in_nul_run_ = false;
}

std::unique_ptr<YearScanner> LogSource::ScanYears() const {
  if (standard_input()) return nullptr;
  std::string error;
  const std::unique_ptr<ByteSource> bytes = OpenBytes(path_, false, error);
  if (!bytes) return nullptr;
  std::vector<char> buffer(256 * 1024);
  std::unique_ptr<YearScanner> scan;
  std::string head;
  for (;;) {
    const long long got = bytes->Read(buffer.data(), buffer.size());
    if (got <= 0) break;
    const char* data = buffer.data();
    std::size_t size = static_cast<std::size_t>(got);
    if (!scan) {
      // The form, as reading will tell it.
      logframe::LogFormat format = logframe::LogFormat::kLogdat;
      if (choice_ == FormatChoice::kPlain) format = logframe::LogFormat::kPlain;
      if (choice_ == FormatChoice::kSensorLib) format = logframe::LogFormat::kSensorLib;
      if (choice_ == FormatChoice::kAuto) {
        head.append(data, size);
        const logframe::Detection found = logframe::DetectFormat(head);
        if (found == logframe::Detection::kUndecided) continue;
        if (found == logframe::Detection::kNeither) break;
        format = found == logframe::Detection::kPlain       ? logframe::LogFormat::kPlain
                 : found == logframe::Detection::kSensorLib ? logframe::LogFormat::kSensorLib
                                                            : logframe::LogFormat::kLogdat;
        data = head.data();
        size = head.size();
      }
      scan = std::make_unique<YearScanner>(format);
    }
    scan->Feed(data, size);
    head.clear();
  }
  if (!scan) scan = std::make_unique<YearScanner>(logframe::LogFormat::kLogdat);
  scan->Finish();
  scan->modified = bytes->modified();
  return scan;
}

bool LogSource::ReadMore(RecordBatch& records) {
  if (done_) return false;
  if (!opened_) {
    opened_ = true;
    buffer_.resize(kChunk);
    std::string error;
    bytes_ = OpenBytes(path_, standard_input(), error);
    if (!bytes_) {
      Error(name_, error);
      status_ = kExitIo;
      done_ = true;
      return false;
    }
    modified_ = bytes_->modified();
  }
  const long long got = bytes_->Read(buffer_.data(), buffer_.size());
  if (got < 0) {
    Error(name_, bytes_->error());
    status_ = kExitIo;
  }
  if (got <= 0) {
    done_ = true;
    return false;
  }
  offset_ += static_cast<std::uint64_t>(got);
  if (!Consume(buffer_.data(), static_cast<std::size_t>(got), records)) done_ = true;
  return !done_;
}

int LogSource::Finish(RecordBatch& records) {
  done_ = true;
  const bool cut_short = bytes_ && bytes_->cut_short();
  bytes_.reset();
  if (status_ == kExitOk && !format_known_ && !head_.empty()) {
    // Fewer than five bytes: no log record fits, so treat them as the
    // start of a frame and let the torn-frame report below say what is
    // there.
    format_known_ = true;
    format_ = logframe::LogFormat::kLogdat;
    std::string head;
    head.swap(head_);
    Decode(head.data(), head.size(), records);
  }
  // Plain text read before an error is handed back all the same.
  int text = kExitOk;
  if (format_known_ && format_ != logframe::LogFormat::kLogdat) text = EndText(records);
  if (status_ != kExitOk) return status_;
  if (cut_short) {
    Note(name_, "the compressed stream ends early: the end of the file is missing (" +
                    std::to_string(offset_) + " bytes unpacked)");
    return kExitTorn;
  }
  if (text != kExitOk) return text;
  if (format_ == logframe::LogFormat::kLogdat && decoder_.has_partial_frame()) {
    std::string text = "torn last frame at offset " + std::to_string(decoder_.frame_offset()) +
                       ": " + std::to_string(decoder_.pending_bytes()) + " of ";
    if (decoder_.expected_frame_size() > 0)
      text += std::to_string(decoder_.expected_frame_size()) + " bytes present";
    else
      text += "the 4 bytes of its length field present";
    text += ", " + std::to_string(decoder_.pending_bytes()) + " bytes ignored";
    Note(name_, text);
    return kExitTorn;
  }
  return kExitOk;
}

void LogSource::Poll(RecordBatch& records) {
  InputFile file;
  std::string error;
  bool missing = false;
  if (!file.Open(path_, error, missing)) {
    if (!gone_) {
      if (missing)
        Note(name_, seen_ ? "file was deleted; waiting for a new one"
                          : "does not exist yet; waiting for it");
      else
        Note(name_, "cannot open (" + error + "); trying again");
      gone_ = true;
    }
    return;
  }
  const char* restart = nullptr;
  if (seen_ && gone_)
    restart = "file was deleted and created again";
  else if (seen_ && !(file.id() == id_))
    restart = "file was replaced";
  else if (file.size() < offset_)
    restart = "file was shortened";
  if (restart) {
    std::string text = std::string(restart) + "; reading it from the beginning";
    if (decoder_.has_partial_frame())
      text += " (" + std::to_string(decoder_.pending_bytes()) +
              " bytes of an unfinished frame dropped)";
    Note(name_, text);
    StartOver();
  } else if (gone_ && !seen_) {
    Note(name_, "file appeared");
  }
  gone_ = false;
  seen_ = true;
  id_ = file.id();
  if (stalled_) return;  // waits for the file to be replaced

  buffer_.resize(kChunk);
  const std::unique_ptr<ByteSource> bytes = FileBytes(file, offset_);
  for (;;) {
    const long long got = bytes->Read(buffer_.data(), buffer_.size());
    if (got < 0) {
      Note(name_, bytes->error() + "; trying again");
      break;
    }
    if (got == 0) break;
    offset_ += static_cast<std::uint64_t>(got);
    if (!Consume(buffer_.data(), static_cast<std::size_t>(got), records)) {
      stalled_ = true;
      Note(name_, "stopped reading this file; waiting for it to be replaced");
      break;
    }
  }
  // While following, plain text goes out in whole lines only, so that
  // records of several files are never interleaved in the middle of a line.
  if (format_known_ && format_ != logframe::LogFormat::kLogdat) FlushRecord(records);
}

// Handles more bytes of the file; false after an error that ends reading it.
bool LogSource::Consume(const char* data, std::size_t size, RecordBatch& records) {
  if (!format_known_) {
    head_.append(data, size);
    switch (logframe::DetectFormat(head_)) {
      case logframe::Detection::kUndecided:
        return true;
      case logframe::Detection::kNeither:
        Error(name_,
              "not a log file: neither a .logdat file nor a plain log of the plug-in or the sensor "
              "library (use --format to force one)");
        status_ = kExitCorrupt;
        return false;
      case logframe::Detection::kLogdat:
        format_ = logframe::LogFormat::kLogdat;
        break;
      case logframe::Detection::kPlain:
        format_ = logframe::LogFormat::kPlain;
        break;
      case logframe::Detection::kSensorLib:
        format_ = logframe::LogFormat::kSensorLib;
        break;
    }
    format_known_ = true;
    std::string head;
    head.swap(head_);
    return Decode(head.data(), head.size(), records);
  }
  return Decode(data, size, records);
}

bool LogSource::Decode(const char* data, std::size_t size, RecordBatch& records) {
  if (format_ != logframe::LogFormat::kLogdat) {
    TakeText(data, size, records);
    return true;
  }
  frames_.clear();
  const auto status = decoder_.Feed(data, size, frames_);
  for (const auto& frame : frames_) records.Add(frame.text);
  if (status != logframe::FrameDecoder::Status::kOk) {
    Error(name_, decoder_.ErrorMessage());
    status_ = kExitCorrupt;
    return false;
  }
  return true;
}

void LogSource::TakeText(const char* data, std::size_t size, RecordBatch& records) {
  const bool guarded = choice_ == FormatChoice::kAuto;
  const char* p = data;
  const char* const end = data + size;
  const char* nul = nullptr;  // the next NUL byte at or after p, or end, once looked for
  while (p < end) {
    if (guarded && *p == '\0') {
      const char* run = p;
      while (run < end && *run == '\0') ++run;
      if (!in_nul_run_) {
        if (nul_runs_++ == 0) first_nul_ = text_offset_;
        if (!line_.empty()) ++cut_lines_;  // the line the NUL bytes cut off
        line_.clear();
      }
      in_nul_run_ = run == end;
      nul_bytes_ += static_cast<std::uint64_t>(run - p);
      text_offset_ += static_cast<std::uint64_t>(run - p);
      p = run;
      continue;
    }
    in_nul_run_ = false;
    const char* feed = static_cast<const char*>(std::memchr(p, '\n', end - p));
    const char* stop = feed ? feed : end;
    if (guarded) {
      // The next NUL byte, looked for once per piece of text rather than
      // once per line.
      if (!nul || nul < p) {
        nul = static_cast<const char*>(std::memchr(p, '\0', end - p));
        if (!nul) nul = end;
      }
      if (nul < stop) {
        stop = nul;
        feed = nullptr;
      }
    }
    const std::size_t n = static_cast<std::size_t>(stop - p) + (feed ? 1 : 0);
    text_offset_ += n;
    if (!feed) {
      line_.append(p, n);
    } else if (line_.empty()) {
      TakeLine(std::string_view(p, n), records);
    } else {
      line_.append(p, n);
      TakeLine(line_, records);
      line_.clear();
    }
    p += n;
  }
}

void LogSource::TakeLine(std::string_view line, RecordBatch& records) {
  const bool starts = logrecord::StartsRecord(form(), line);
  if (!starts && choice_ == FormatChoice::kAuto && line != "\n" && line != "\r\n") {
    if (foreign_lines_++ == 0) first_foreign_ = text_offset_ - line.size();
    FlushRecord(records);
    records.Add(line);
    return;
  }
  if (starts) FlushRecord(records);
  record_.append(line);
}

void LogSource::FlushRecord(RecordBatch& records) {
  if (record_.empty()) return;
  records.Add(record_);
  record_.clear();
}

int LogSource::EndText(RecordBatch& records) {
  int status = kExitOk;
  if (choice_ != FormatChoice::kAuto) {
    // A form forced on the command line: the last line as it is.
    if (!line_.empty()) TakeLine(line_, records);
    line_.clear();
    FlushRecord(records);
    return status;
  }
  if (!line_.empty()) {
    Note(name_, "last line has no line end: " + std::to_string(line_.size()) + " bytes at offset " +
                    std::to_string(text_offset_ - line_.size()) + " ignored");
    line_.clear();
    status = kExitTorn;
  }
  if (nul_runs_) {
    Note(name_, std::to_string(nul_bytes_) + " NUL bytes in " + std::to_string(nul_runs_) +
                    (nul_runs_ == 1 ? " run" : " runs") + " skipped (the first at offset " +
                    std::to_string(first_nul_) + ")" +
                    (cut_lines_ ? ", " + std::to_string(cut_lines_) +
                                      " unfinished line(s) before them ignored"
                                : ""));
    status = kExitTorn;
  }
  if (foreign_lines_) {
    Note(name_, std::to_string(foreign_lines_) +
                    " line(s) that are not records (the first at offset " +
                    std::to_string(first_foreign_) + ")");
    status = kExitTorn;
  }
  FlushRecord(records);
  return status;
}

}  // namespace logread
