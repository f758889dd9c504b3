// Where a log's bytes come from, behind one small interface: a file, a file
// compressed with gzip, or standard input (which may be compressed too). The
// readers of frames, plain logs and the sensor library's log take bytes from
// a ByteSource and never ask which it is.
#pragma once

#include "InputFile.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace logread {

class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Up to `size` bytes into `buffer`: the number read, 0 at the end, or -1
  // after an error (error() says what).
  virtual long long Read(char* buffer, std::size_t size) = 0;
  const std::string& error() const { return error_; }
  // A compressed stream that ended before its end: what came out is all
  // there is.
  virtual bool cut_short() const { return false; }
  // The file's modification time (local), 0 when there is none (standard
  // input).
  Civil modified() const { return modified_; }

 protected:
  std::string error_;
  Civil modified_ = 0;
};

// The bytes of the file at `path` (unpacked when it starts as gzip's files
// do), or of standard input when `standard_input` (through zlib, which
// passes bytes that are not gzip through unchanged). Null with `error` set
// when it cannot be opened.
std::unique_ptr<ByteSource> OpenBytes(const PathString& path, bool standard_input,
                                      std::string& error);

// The bytes of an open file from `offset` on, as they are (following a file
// as it grows reads it this way, one look at a time).
std::unique_ptr<ByteSource> FileBytes(InputFile& file, std::uint64_t offset);

}  // namespace logread
