// The platform's side of reading a log: opening a file without getting in the
// logger's way, its size, identity and modification time, reading at an
// offset, standard input, and zlib's reader of a path. Everything that differs
// between Windows and POSIX is here; ByteSource.h builds on it.
#pragma once

#include "Clock.h"

#include <cstdint>
#include <string>

namespace logread {

#ifdef _WIN32
using PathString = std::wstring;
#else
using PathString = std::string;
#endif

// Identity of a file, to notice that the name now refers to another file.
struct FileId {
  std::uint64_t volume = 0;
  std::uint64_t index = 0;
  bool operator==(const FileId&) const = default;
};

// An open file. No handle is kept longer than a read needs while following:
// on Windows an open handle would stop the logger from deleting the file at
// its size limit (or, with delete sharing, from creating the new file under
// the same name until the handle is closed), and records would be lost.
class InputFile {
 public:
  InputFile() = default;
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;
  ~InputFile() { Close(); }

  // Opens `path` for reading, sharing it with the writer. On failure returns
  // false and sets `error`; `missing` tells that the file is not there.
  bool Open(const PathString& path, std::string& error, bool& missing);
  std::uint64_t size() const { return size_; }
  const FileId& id() const { return id_; }
  // Local time; 0 when unknown.
  Civil modified() const { return modified_; }
  // Reads up to `count` bytes at `offset`: the number read (0 at the end),
  // or -1 with `error` set.
  long long ReadAt(std::uint64_t offset, char* buffer, std::size_t count, std::string& error);
  void Close();

 private:
#ifdef _WIN32
  void* handle_ = reinterpret_cast<void*>(-1);  // INVALID_HANDLE_VALUE
#else
  int fd_ = -1;
#endif
  std::uint64_t size_ = 0;
  FileId id_;
  Civil modified_ = 0;
};

// A descriptor of its own for standard input (in binary mode), or -1.
int DuplicateStandardInput();

// zlib's reader (a gzFile) of the file at `path`, or null.
void* OpenGzipPath(const PathString& path);

}  // namespace logread
