// logread: turns the plug-in's log files back into text.
//
// Reads ".logdat" files (length-prefixed, complemented records) and plain
// logs, writes the records' UTF-8 text to standard output exactly as the
// logger produced it, and can follow a file that is still being written,
// through the logger's deletions at its size limit. Builds for Windows and
// natively for Linux, where collected logs are usually read.
#include "LogFrame.h"
#include "LogFrameReader.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#ifdef _WIN32
#include <windows.h>  // before shellapi.h, which needs its definitions

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>
#else
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

constexpr char kHelp[] =
    "Usage: logread [OPTIONS] FILE...\n"
    "\n"
    "Turns the plug-in's log files back into text and writes it to standard output.\n"
    "\n"
    "A \".logdat\" file holds one frame per record: a 4-byte little-endian length,\n"
    "then the record's UTF-8 bytes, each stored as its complement. logread undoes\n"
    "this and prints the records exactly as the logger wrote them, byte for byte.\n"
    "A plain log (written with obfuscation off) is printed as it is. The form is\n"
    "told from the file's first bytes unless --format says otherwise.\n"
    "\n"
    "A frame cut short at the end of a file (the logger was stopped between its two\n"
    "writes, or the file was deleted at its size limit while being copied) is\n"
    "ignored: the records before it are printed and a note on standard error says\n"
    "how many bytes were left out.\n"
    "\n"
    "Options:\n"
    "  -f, --follow        keep reading as the file grows, like tail -f (checks every\n"
    "                      200 ms; stop with Ctrl+C). The logger deletes its file when\n"
    "                      it reaches its size limit and starts a new one: logread\n"
    "                      notices the file being deleted, replaced or shortened and\n"
    "                      reads the new file from its beginning. A frame still\n"
    "                      being written is waited for. A file that does not exist\n"
    "                      yet is waited for as well.\n"
    "      --format=FORM   auto (default): tell the form from the content;\n"
    "                      logdat: read as a \".logdat\" file; plain: copy as it is\n"
    "  -q, --quiet         no notes on standard error (errors are still reported)\n"
    "  -h, --help          show this text\n"
    "\n"
    "FILE may be \"-\" for standard input (not with --follow). Several files are\n"
    "read one after the other; with --follow they are watched together and their\n"
    "records are printed whole, as they come.\n"
    "\n"
    "Exit status (without --follow; with several files the most serious one,\n"
    "in the order 1, 2, 3):\n"
    "  0  all files read completely\n"
    "  1  usage error, or a file could not be opened, read or written\n"
    "  2  not a log file, or a corrupt frame (a length field beyond any record, or a\n"
    "     frame that holds no record); the records before it are printed\n"
    "  3  the last frame of a file was torn; the records before it are printed\n"
    "\n"
    "On a Windows console, non-ASCII text shows correctly after \"chcp 65001\", or\n"
    "redirect the output to a file.\n";

enum ExitCode { kExitOk = 0, kExitIo = 1, kExitCorrupt = 2, kExitTorn = 3 };

// The more serious of two exit codes: 1 over 2 over 3 over 0.
int Worse(int a, int b) {
  auto rank = [](int code) { return code == kExitIo ? 3 : code == kExitCorrupt ? 2 : code == kExitTorn ? 1 : 0; };
  return rank(b) > rank(a) ? b : a;
}

enum class FormatChoice { kAuto, kLogdat, kPlain };

bool g_quiet = false;

// Notes and errors go to standard error after the records printed before
// them, so that both read in order when they share a terminal.
void Error(const std::string& name, const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "logread: %s: %s\n", name.c_str(), text.c_str());
}

void Note(const std::string& name, const std::string& text) {
  if (!g_quiet) Error(name, text);
}

// ---------------------------------------------------------------------------
// Files. Each read opens the file, reads from an offset and closes it again.
// No handle is kept between reads while following: on Windows an open handle
// would stop the logger from deleting the file at its size limit (or, with
// delete sharing, from creating the new file under the same name until the
// handle is closed), and records would be lost.

#ifdef _WIN32
using PathString = std::wstring;

std::string ToUtf8(const std::wstring& text) {
  if (text.empty()) return {};
  const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                    nullptr, nullptr);
  std::string out(n > 0 ? n : 0, '\0');
  if (n > 0)
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr,
                        nullptr);
  return out;
}

std::string SystemMessage(DWORD code) {
  wchar_t* buffer = nullptr;
  const DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                     FORMAT_MESSAGE_IGNORE_INSERTS,
                                 nullptr, code, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
  std::wstring text = n && buffer ? std::wstring(buffer, n) : std::wstring();
  if (buffer) LocalFree(buffer);
  while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L'.'))
    text.pop_back();
  if (text.empty()) return "system error " + std::to_string(code);
  return ToUtf8(text);
}
#else
using PathString = std::string;
#endif

// Identity of a file, to notice that the name now refers to another file.
struct FileId {
  std::uint64_t volume = 0;
  std::uint64_t index = 0;
  bool operator==(const FileId&) const = default;
};

class InputFile {
 public:
  InputFile() = default;
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;
  ~InputFile() { Close(); }

  // Opens `path` for reading without getting in the logger's way. On failure
  // returns false and sets `error`; `missing` tells that the file is not there.
  bool Open(const PathString& path, std::string& error, bool& missing) {
    missing = false;
#ifdef _WIN32
    handle_ = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                          nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
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
    id_.volume = static_cast<std::uint64_t>(st.st_dev);
    id_.index = static_cast<std::uint64_t>(st.st_ino);
#endif
    return true;
  }

  std::uint64_t size() const { return size_; }
  const FileId& id() const { return id_; }

  // Reads up to `count` bytes at `offset`; returns the number read (0 at the
  // end) or -1 with `error` set.
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
};

// ---------------------------------------------------------------------------
// Output: the decoded bytes, unchanged, to standard output.

bool g_output_failed = false;

void Emit(std::string_view bytes) {
  if (bytes.empty() || g_output_failed) return;
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) g_output_failed = true;
}

bool FlushOutput() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) g_output_failed = true;
  return !g_output_failed;
}

// ---------------------------------------------------------------------------
// One log file being read: its form, the decoder and how far it has got.

constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kDetectBytes = 5;

class LogSource {
 public:
  LogSource(PathString path, std::string name, FormatChoice choice, bool follow)
      : path_(std::move(path)), name_(std::move(name)), choice_(choice), follow_(follow) {
    StartOver();
  }

  const std::string& name() const { return name_; }
  bool is_stdin() const { return name_ == "-"; }

  // Reads a whole file once (or standard input) and returns its exit code.
  int ReadOnce() {
    std::vector<char> buffer(kChunk);
    if (is_stdin()) {
      for (;;) {
        const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), stdin);
        if (got > 0 && !Consume(buffer.data(), got)) break;
        if (got < buffer.size()) {
          if (std::ferror(stdin)) {
            Error(name_, "cannot read standard input");
            return kExitIo;
          }
          break;
        }
      }
      return Finish();
    }
    InputFile file;
    std::string error;
    bool missing = false;
    if (!file.Open(path_, error, missing)) {
      Error(name_, "cannot open: " + error);
      return kExitIo;
    }
    for (;;) {
      const long long got = file.ReadAt(offset_, buffer.data(), buffer.size(), error);
      if (got < 0) {
        Error(name_, "cannot read at offset " + std::to_string(offset_) + ": " + error);
        return Worse(kExitIo, Finish());
      }
      if (got == 0) break;
      offset_ += static_cast<std::uint64_t>(got);
      if (!Consume(buffer.data(), static_cast<std::size_t>(got))) break;
    }
    return Finish();
  }

  // One look at a followed file: notices deletion, replacement and
  // shortening, and prints what has been added since the last look.
  void Poll() {
    InputFile file;
    std::string error;
    bool missing = false;
    if (!file.Open(path_, error, missing)) {
      if (!gone_) {
        if (missing)
          Note(name_, seen_ ? "file was deleted; waiting for a new one" : "does not exist yet; waiting for it");
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
        text += " (" + std::to_string(decoder_.pending_bytes()) + " bytes of an unfinished frame dropped)";
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
        Note(name_, "cannot read at offset " + std::to_string(offset_) + " (" + error + "); trying again");
        return;
      }
      if (got == 0) return;
      offset_ += static_cast<std::uint64_t>(got);
      if (!Consume(buffer.data(), static_cast<std::size_t>(got))) {
        stalled_ = true;
        Note(name_, "stopped reading this file; waiting for it to be replaced");
        return;
      }
    }
  }

 private:
  void StartOver() {
    offset_ = 0;
    decoder_.Reset();
    head_.clear();
    plain_tail_.clear();
    stalled_ = false;
    format_known_ = choice_ != FormatChoice::kAuto;
    format_ = choice_ == FormatChoice::kPlain ? logframe::LogFormat::kPlain : logframe::LogFormat::kLogdat;
    status_ = kExitOk;
  }

  // Handles more bytes of the file; false after an error that ends reading it.
  bool Consume(const char* data, std::size_t size) {
    if (!format_known_) {
      head_.append(data, size);
      switch (logframe::DetectFormat(head_)) {
        case logframe::Detection::kUndecided:
          return true;
        case logframe::Detection::kNeither:
          Error(name_, "not a log file: neither a .logdat file nor a plain log (use --format to force one)");
          status_ = kExitCorrupt;
          return false;
        case logframe::Detection::kLogdat:
          format_ = logframe::LogFormat::kLogdat;
          break;
        case logframe::Detection::kPlain:
          format_ = logframe::LogFormat::kPlain;
          break;
      }
      format_known_ = true;
      std::string head;
      head.swap(head_);
      return Decode(head.data(), head.size());
    }
    return Decode(data, size);
  }

  bool Decode(const char* data, std::size_t size) {
    if (format_ == logframe::LogFormat::kPlain) {
      if (!follow_) {
        Emit(std::string_view(data, size));
        return true;
      }
      // While following, print whole lines only, so that records of several
      // files are never interleaved in the middle of a line.
      plain_tail_.append(data, size);
      const std::size_t end = plain_tail_.rfind('\n');
      if (end != std::string::npos) {
        Emit(std::string_view(plain_tail_).substr(0, end + 1));
        plain_tail_.erase(0, end + 1);
      }
      return true;
    }
    records_.clear();
    const auto status = decoder_.Feed(data, size, records_);
    std::string out;
    for (const auto& record : records_) out += record.text;
    Emit(out);
    if (status != logframe::FrameDecoder::Status::kOk) {
      Error(name_, decoder_.ErrorMessage());
      status_ = kExitCorrupt;
      return false;
    }
    return true;
  }

  // End of a file read once: settles what is left over.
  int Finish() {
    if (status_ != kExitOk) return status_;
    if (!format_known_ && !head_.empty()) {
      // Fewer than five bytes: no log record fits, so treat them as the start
      // of a frame and let the torn-frame report below say what is there.
      format_known_ = true;
      format_ = logframe::LogFormat::kLogdat;
      std::string head;
      head.swap(head_);
      if (!Decode(head.data(), head.size())) return status_;
    }
    if (decoder_.has_partial_frame()) {
      std::string text = "torn last frame at offset " + std::to_string(decoder_.frame_offset()) + ": " +
                         std::to_string(decoder_.pending_bytes()) + " of ";
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

  PathString path_;
  std::string name_;
  FormatChoice choice_;
  bool follow_;

  bool format_known_ = false;
  logframe::LogFormat format_ = logframe::LogFormat::kLogdat;
  std::string head_;        // first bytes while the form is not yet known
  std::string plain_tail_;  // plain text after the last line feed (following only)
  logframe::FrameDecoder decoder_;
  std::vector<logframe::Record> records_;
  std::uint64_t offset_ = 0;  // bytes of the file consumed
  int status_ = kExitOk;

  // Following only.
  FileId id_;
  bool seen_ = false;     // the file has been opened at least once
  bool gone_ = false;     // the last look did not find it
  bool stalled_ = false;  // a corrupt frame: nothing more is read until the file changes
};

// ---------------------------------------------------------------------------
// Command line.

struct Options {
  FormatChoice format = FormatChoice::kAuto;
  bool follow = false;
  bool help = false;
  std::vector<PathString> files;
  std::vector<std::string> names;  // the same, as UTF-8, for messages
};

// Parses the arguments (as UTF-8, plus the native form of each for paths).
// Returns an empty string or a usage error.
std::string ParseArguments(const std::vector<std::string>& args, const std::vector<PathString>& native,
                           Options& options) {
  bool only_files = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (only_files || arg == "-" || arg.empty() || arg[0] != '-') {
      options.files.push_back(native[i]);
      options.names.push_back(arg);
      continue;
    }
    if (arg == "--") {
      only_files = true;
    } else if (arg == "--follow") {
      options.follow = true;
    } else if (arg == "--quiet") {
      g_quiet = true;
    } else if (arg == "--help") {
      options.help = true;
    } else if (arg.rfind("--format", 0) == 0) {
      std::string value;
      if (arg.size() > 8 && arg[8] == '=') {
        value = arg.substr(9);
      } else if (arg.size() == 8 && i + 1 < args.size()) {
        value = args[++i];
      } else if (arg.size() == 8) {
        return "--format needs a value: auto, logdat or plain";
      } else {
        return "unknown option " + arg;
      }
      if (value == "auto")
        options.format = FormatChoice::kAuto;
      else if (value == "logdat")
        options.format = FormatChoice::kLogdat;
      else if (value == "plain")
        options.format = FormatChoice::kPlain;
      else
        return "--format takes auto, logdat or plain, not \"" + value + "\"";
    } else if (arg[1] == '-') {
      return "unknown option " + arg;
    } else {
      for (std::size_t k = 1; k < arg.size(); ++k) {
        switch (arg[k]) {
          case 'f': options.follow = true; break;
          case 'q': g_quiet = true; break;
          case 'h': options.help = true; break;
          default: return std::string("unknown option -") + arg[k];
        }
      }
    }
  }
  if (options.help) return {};
  if (options.files.empty()) return "no file given";
  if (options.follow)
    for (const auto& name : options.names)
      if (name == "-") return "standard input cannot be followed";
  return {};
}

int Run(const std::vector<std::string>& args, const std::vector<PathString>& native) {
  Options options;
  const std::string usage_error = ParseArguments(args, native, options);
  if (!usage_error.empty()) {
    std::fprintf(stderr, "logread: %s\nTry \"logread --help\".\n", usage_error.c_str());
    return kExitIo;
  }
  if (options.help) {
    std::fputs(kHelp, stdout);
    return FlushOutput() ? kExitOk : kExitIo;
  }

  std::vector<LogSource> sources;
  sources.reserve(options.files.size());
  for (std::size_t i = 0; i < options.files.size(); ++i)
    sources.emplace_back(options.files[i], options.names[i], options.format, options.follow);

  if (!options.follow) {
    int code = kExitOk;
    for (auto& source : sources) {
      code = Worse(code, source.ReadOnce());
      if (!FlushOutput()) break;
    }
    if (g_output_failed) {
      std::fprintf(stderr, "logread: cannot write to standard output\n");
      return kExitIo;
    }
    return code;
  }

  for (;;) {
    for (auto& source : sources) source.Poll();
    if (!FlushOutput()) {
      std::fprintf(stderr, "logread: cannot write to standard output\n");
      return kExitIo;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args;
  std::vector<PathString> native;
#ifdef _WIN32
  // The decoded text goes out byte for byte: no "\n" to "\r\n" translation.
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stdin), _O_BINARY);
  // Paths come from the wide command line, so that any file name works.
  int count = 0;
  wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
  if (wide) {
    for (int i = 1; i < count; ++i) {
      native.emplace_back(wide[i]);
      args.push_back(ToUtf8(wide[i]));
    }
    LocalFree(wide);
  } else {
    for (int i = 1; i < argc; ++i) {
      args.emplace_back(argv[i]);
      native.emplace_back(argv[i], argv[i] + std::strlen(argv[i]));
    }
  }
#else
  for (int i = 1; i < argc; ++i) {
    args.emplace_back(argv[i]);
    native.emplace_back(argv[i]);
  }
#endif
  return Run(args, native);
}
