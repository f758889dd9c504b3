#include "LogInput.h"

#include "Console.h"
#include "YearScan.h"

#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#ifdef _WIN32
#include <io.h>
#include <windows.h>
#else
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace logread {

namespace {

constexpr std::size_t kChunk = 64 * 1024;

#ifdef _WIN32
std::string ToUtf8(const std::wstring& text) {
  if (text.empty()) return {};
  const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr,
                                    0, nullptr, nullptr);
  std::string out(n > 0 ? n : 0, '\0');
  if (n > 0)
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n,
                        nullptr, nullptr);
  return out;
}

std::string SystemMessage(DWORD code) {
  wchar_t* buffer = nullptr;
  const DWORD n = FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, code, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
  std::wstring text = n && buffer ? std::wstring(buffer, n) : std::wstring();
  if (buffer) LocalFree(buffer);
  while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L'.'))
    text.pop_back();
  if (text.empty()) return "system error " + std::to_string(code);
  return ToUtf8(text);
}
#endif

}  // namespace

int Worse(int a, int b) {
  auto rank = [](int code) {
    return code == kExitIo ? 3 : code == kExitCorrupt ? 2 : code == kExitTorn ? 1 : 0;
  };
  return rank(b) > rank(a) ? b : a;
}

// ---------------------------------------------------------------------------
// Files. Each read opens the file, reads from an offset and closes it again.
// No handle is kept between reads while following: on Windows an open handle
// would stop the logger from deleting the file at its size limit (or, with
// delete sharing, from creating the new file under the same name until the
// handle is closed), and records would be lost.

class LogSource::InputFile {
 public:
  InputFile() = default;
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;
  ~InputFile() { Close(); }

  // Opens `path` for reading without getting in the logger's way. On
  // failure returns false and sets `error`; `missing` tells that the file is
  // not there.
  bool Open(const PathString& path, std::string& error, bool& missing) {
    missing = false;
#ifdef _WIN32
    handle_ = CreateFileW(path.c_str(), GENERIC_READ,
                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle_ == INVALID_HANDLE_VALUE) {
      const DWORD code = GetLastError();
      missing = code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND;
      error = SystemMessage(code);
      return false;
    }
    BY_HANDLE_FILE_INFORMATION info;
    if (!GetFileInformationByHandle(handle_, &info)) {
      error = SystemMessage(GetLastError());
      Close();
      return false;
    }
    if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
      error = "is a directory";
      Close();
      return false;
    }
    size_ = (static_cast<std::uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
    SYSTEMTIME utc, local;
    if (FileTimeToSystemTime(&info.ftLastWriteTime, &utc) &&
        SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local))
      modified_ = ToCivil(CivilParts{local.wYear, local.wMonth, local.wDay, local.wHour,
                                     local.wMinute, local.wSecond, local.wMilliseconds});
    id_.volume = info.dwVolumeSerialNumber;
    id_.index = (static_cast<std::uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
#else
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
      missing = errno == ENOENT;
      error = std::strerror(errno);
      return false;
    }
    struct stat st;
    if (::fstat(fd_, &st) != 0) {
      error = std::strerror(errno);
      Close();
      return false;
    }
    if (S_ISDIR(st.st_mode)) {
      error = "is a directory";
      Close();
      return false;
    }
    size_ = static_cast<std::uint64_t>(st.st_size);
    std::tm local{};
    if (localtime_r(&st.st_mtim.tv_sec, &local))
      modified_ = ToCivil(CivilParts{local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                                     local.tm_hour, local.tm_min, local.tm_sec,
                                     static_cast<int>(st.st_mtim.tv_nsec / 1000000)});
    id_.volume = static_cast<std::uint64_t>(st.st_dev);
    id_.index = static_cast<std::uint64_t>(st.st_ino);
#endif
    return true;
  }

  std::uint64_t size() const { return size_; }
  const FileId& id() const { return id_; }
  Civil modified() const { return modified_; }

  // Reads up to `count` bytes at `offset`; returns the number read (0 at
  // the end) or -1 with `error` set.
  long long ReadAt(std::uint64_t offset, char* buffer, std::size_t count, std::string& error) {
#ifdef _WIN32
    OVERLAPPED at = {};
    at.Offset = static_cast<DWORD>(offset);
    at.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD got = 0;
    if (!ReadFile(handle_, buffer, static_cast<DWORD>(count), &got, &at)) {
      const DWORD code = GetLastError();
      if (code == ERROR_HANDLE_EOF) return 0;
      error = SystemMessage(code);
      return -1;
    }
    return got;
#else
    for (;;) {
      const ssize_t got = ::pread(fd_, buffer, count, static_cast<off_t>(offset));
      if (got >= 0) return got;
      if (errno == EINTR) continue;
      error = std::strerror(errno);
      return -1;
    }
#endif
  }

  void Close() {
#ifdef _WIN32
    if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
    handle_ = INVALID_HANDLE_VALUE;
#else
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
#endif
  }

 private:
#ifdef _WIN32
  HANDLE handle_ = INVALID_HANDLE_VALUE;
#else
  int fd_ = -1;
#endif
  std::uint64_t size_ = 0;
  FileId id_;
  Civil modified_ = 0;
};

bool LogSource::IsGzip(InputFile& file) {
  char magic[2] = {};
  std::string error;
  return file.ReadAt(0, magic, 2, error) == 2 && magic[0] == '\x1f' && magic[1] == '\x8b';
}

void* LogSource::OpenGzip(const PathString& path) {
#ifdef _WIN32
  return gzopen_w(path.c_str(), "rb");
#else
  return gzopen(path.c_str(), "rb");
#endif
}

// ---------------------------------------------------------------------------

LogSource::LogSource(PathString path, std::string name, FormatChoice choice, bool follow)
    : path_(std::move(path)), name_(std::move(name)), choice_(choice), follow_(follow) {
  StartOver();
}

LogSource::~LogSource() {
  if (gz_) gzclose(static_cast<gzFile>(gz_));
}

bool IsGzipName(const std::string& name) {
  return name.size() > 3 && (name.compare(name.size() - 3, 3, ".gz") == 0 ||
                             name.compare(name.size() - 3, 3, ".GZ") == 0);
}

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
  splitter_ = logrecord::RecordSplitter(form());
  status_ = kExitOk;
  line_.clear();
  text_offset_ = nul_bytes_ = nul_runs_ = first_nul_ = 0;
  cut_lines_ = foreign_lines_ = first_foreign_ = 0;
  in_nul_run_ = false;
}

bool LogSource::OpenForReading() {
  opened_ = true;
  buffer_.resize(kChunk);
  if (name_ == "-") {
    // Standard input goes through zlib too, which passes text that is not
    // gzip through as it is: a .gz file may come on standard input.
#ifdef _WIN32
    const int fd = _dup(_fileno(stdin));
#else
    const int fd = dup(fileno(stdin));
#endif
    gz_ = fd < 0 ? nullptr : gzdopen(fd, "rb");
    if (!gz_) {
      Error(name_, "cannot read standard input");
      status_ = kExitIo;
      return false;
    }
    gzbuffer(static_cast<gzFile>(gz_), 128 * 1024);
    return true;
  }
  file_ = std::make_unique<InputFile>();
  std::string error;
  bool missing = false;
  if (!file_->Open(path_, error, missing)) {
    Error(name_, "cannot open: " + error);
    status_ = kExitIo;
    return false;
  }
  if (IsGzip(*file_)) {
    // Compressed with gzip: zlib reads it from its own handle.
    file_.reset();
    gz_ = OpenGzip(path_);
    if (!gz_) {
      Error(name_, "cannot open as a gzip file");
      status_ = kExitIo;
      return false;
    }
    gzbuffer(static_cast<gzFile>(gz_), 128 * 1024);
  }
  return true;
}

std::unique_ptr<YearScanner> LogSource::ScanYears() const {
  if (name_ == "-") return nullptr;
  InputFile file;
  std::string error;
  bool missing = false;
  if (!file.Open(path_, error, missing)) return nullptr;
  const Civil modified = file.modified();
  std::vector<char> buffer(256 * 1024);
  gzFile gz = nullptr;
  if (IsGzip(file)) {
    file.Close();
    gz = static_cast<gzFile>(OpenGzip(path_));
    if (!gz) return nullptr;
  }
  std::unique_ptr<YearScanner> scan;
  std::string head;
  std::uint64_t offset = 0;
  for (;;) {
    const long long got = gz ? gzread(gz, buffer.data(), static_cast<unsigned>(buffer.size()))
                             : file.ReadAt(offset, buffer.data(), buffer.size(), error);
    if (got <= 0) break;
    offset += static_cast<std::uint64_t>(got);
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
  if (gz) gzclose(gz);
  if (!scan) scan = std::make_unique<YearScanner>(logframe::LogFormat::kLogdat);
  scan->Finish();
  scan->modified = modified;
  return scan;
}

bool LogSource::ReadMore(std::vector<std::string>& records) {
  if (done_) return false;
  if (!opened_ && !OpenForReading()) {
    done_ = true;
    return false;
  }
  std::size_t got = 0;
  if (gz_) {
    const int n =
        gzread(static_cast<gzFile>(gz_), buffer_.data(), static_cast<unsigned>(buffer_.size()));
    if (n < 0) {
      int code = 0;
      const char* text = gzerror(static_cast<gzFile>(gz_), &code);
      Error(name_, "cannot decompress after " + std::to_string(offset_) + " bytes: " +
                       (code == Z_DATA_ERROR ? "corrupt gzip data"
                        : text               ? text
                                             : "error"));
      status_ = kExitIo;
      done_ = true;
    } else {
      got = static_cast<std::size_t>(n);
      int code = Z_OK;
      if (n == 0) gzerror(static_cast<gzFile>(gz_), &code);
      gz_truncated_ = code == Z_BUF_ERROR;  // "unexpected end of file"
    }
  } else {
    std::string error;
    const long long n = file_->ReadAt(offset_, buffer_.data(), buffer_.size(), error);
    if (n < 0) {
      Error(name_, "cannot read at offset " + std::to_string(offset_) + ": " + error);
      status_ = kExitIo;
      done_ = true;
    } else {
      got = static_cast<std::size_t>(n);
    }
  }
  if (got == 0) {
    done_ = true;
    return false;
  }
  offset_ += got;
  if (!Consume(buffer_.data(), got, records)) done_ = true;
  return !done_;
}

int LogSource::Finish(std::vector<std::string>& records) {
  done_ = true;
  file_.reset();
  if (gz_) {
    gzclose(static_cast<gzFile>(gz_));
    gz_ = nullptr;
  }
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
  if (format_known_ && format_ != logframe::LogFormat::kLogdat) {
    if (choice_ == FormatChoice::kAuto) text = EndText();
    splitter_.Flush(records);
  }
  if (status_ != kExitOk) return status_;
  if (gz_truncated_) {
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

void LogSource::Poll(std::vector<std::string>& records) {
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

  std::vector<char> buffer(kChunk);
  for (;;) {
    const long long got = file.ReadAt(offset_, buffer.data(), buffer.size(), error);
    if (got < 0) {
      Note(name_,
           "cannot read at offset " + std::to_string(offset_) + " (" + error + "); trying again");
      break;
    }
    if (got == 0) break;
    offset_ += static_cast<std::uint64_t>(got);
    if (!Consume(buffer.data(), static_cast<std::size_t>(got), records)) {
      stalled_ = true;
      Note(name_, "stopped reading this file; waiting for it to be replaced");
      break;
    }
  }
  // While following, plain text goes out in whole lines only, so that
  // records of several files are never interleaved in the middle of a line.
  if (format_known_ && format_ != logframe::LogFormat::kLogdat) splitter_.FlushLines(records);
}

// Handles more bytes of the file; false after an error that ends reading it.
bool LogSource::Consume(const char* data, std::size_t size, std::vector<std::string>& records) {
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
    splitter_ = logrecord::RecordSplitter(form());
    std::string head;
    head.swap(head_);
    return Decode(head.data(), head.size(), records);
  }
  return Decode(data, size, records);
}

bool LogSource::Decode(const char* data, std::size_t size, std::vector<std::string>& records) {
  if (format_ != logframe::LogFormat::kLogdat) {
    // A form forced on the command line copies the file as it is.
    if (choice_ == FormatChoice::kAuto)
      TakeText(data, size, records);
    else
      splitter_.Feed(data, size, records);
    return true;
  }
  frames_.clear();
  const auto status = decoder_.Feed(data, size, frames_);
  for (auto& frame : frames_) records.push_back(std::move(frame.text));
  if (status != logframe::FrameDecoder::Status::kOk) {
    Error(name_, decoder_.ErrorMessage());
    status_ = kExitCorrupt;
    return false;
  }
  return true;
}

void LogSource::TakeText(const char* data, std::size_t size, std::vector<std::string>& records) {
  for (std::size_t i = 0; i < size;) {
    if (data[i] == '\0') {
      std::size_t end = i;
      while (end < size && data[end] == '\0') ++end;
      if (!in_nul_run_) {
        if (nul_runs_++ == 0) first_nul_ = text_offset_;
        if (!line_.empty()) ++cut_lines_;  // the line the NUL bytes cut off
        line_.clear();
      }
      in_nul_run_ = end == size;
      nul_bytes_ += end - i;
      text_offset_ += end - i;
      i = end;
      continue;
    }
    in_nul_run_ = false;
    std::size_t end = i;
    while (end < size && data[end] != '\n' && data[end] != '\0') ++end;
    const bool whole = end < size && data[end] == '\n';
    line_.append(data + i, end - i + (whole ? 1 : 0));
    text_offset_ += end - i + (whole ? 1 : 0);
    i = end + (whole ? 1 : 0);
    if (whole) TakeLine(records);
  }
}

void LogSource::TakeLine(std::vector<std::string>& records) {
  const std::string_view line = line_;
  const bool empty = line == "\n" || line == "\r\n";
  if (empty || logrecord::StartsRecord(form(), line)) {
    splitter_.Feed(line_.data(), line_.size(), records);
  } else {
    if (foreign_lines_++ == 0) first_foreign_ = text_offset_ - line_.size();
    splitter_.FlushLines(records);
    records.push_back(line_);
  }
  line_.clear();
}

int LogSource::EndText() {
  int status = kExitOk;
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
  return status;
}

}  // namespace logread
