#include "ByteSource.h"

#include <zlib.h>

#include <algorithm>

namespace logread {

namespace {

class PlainFile : public ByteSource {
 public:
  // Reads `file`, owned (`own`) or borrowed, from `offset`.
  PlainFile(std::unique_ptr<InputFile> own, InputFile& file, std::uint64_t offset)
      : own_(std::move(own)), file_(file), offset_(offset) {
    modified_ = file.modified();
  }

  long long Read(char* buffer, std::size_t size) override {
    const long long got = file_.ReadAt(offset_, buffer, size, error_);
    if (got < 0) error_ = "cannot read at offset " + std::to_string(offset_) + ": " + error_;
    if (got > 0) offset_ += static_cast<std::uint64_t>(got);
    return got;
  }

 private:
  std::unique_ptr<InputFile> own_;
  InputFile& file_;
  std::uint64_t offset_;
};

class Gzip : public ByteSource {
 public:
  Gzip(gzFile gz, Civil modified) : gz_(gz) {
    modified_ = modified;
    gzbuffer(gz_, 256 * 1024);
  }
  ~Gzip() override { gzclose(gz_); }

  long long Read(char* buffer, std::size_t size) override {
    const int n = gzread(gz_, buffer, static_cast<unsigned>(std::min<std::size_t>(size, 1 << 30)));
    if (n < 0) {
      int code = 0;
      const char* text = gzerror(gz_, &code);
      error_ = "cannot decompress after " + std::to_string(unpacked_) + " bytes: " +
               (code == Z_DATA_ERROR ? "corrupt gzip data"
                : text               ? text
                                     : "error");
      return -1;
    }
    unpacked_ += static_cast<std::uint64_t>(n);
    if (n == 0) {
      int code = Z_OK;
      gzerror(gz_, &code);
      cut_short_ = code == Z_BUF_ERROR;  // "unexpected end of file"
    }
    return n;
  }

  bool cut_short() const override { return cut_short_; }

 private:
  gzFile gz_;
  std::uint64_t unpacked_ = 0;
  bool cut_short_ = false;
};

bool StartsAsGzip(InputFile& file) {
  char magic[2] = {};
  std::string error;
  return file.ReadAt(0, magic, 2, error) == 2 && magic[0] == '\x1f' && magic[1] == '\x8b';
}

}  // namespace

std::unique_ptr<ByteSource> OpenBytes(const PathString& path, bool standard_input,
                                      std::string& error) {
  if (standard_input) {
    const int fd = DuplicateStandardInput();
    gzFile gz = fd < 0 ? nullptr : gzdopen(fd, "rb");
    if (!gz) {
      error = "cannot read standard input";
      return nullptr;
    }
    return std::make_unique<Gzip>(gz, 0);
  }
  auto file = std::make_unique<InputFile>();
  bool missing = false;
  if (!file->Open(path, error, missing)) {
    error = "cannot open: " + error;
    return nullptr;
  }
  if (!StartsAsGzip(*file)) {
    InputFile& ref = *file;
    return std::make_unique<PlainFile>(std::move(file), ref, 0);
  }
  // Compressed with gzip: zlib reads it from its own handle.
  const Civil modified = file->modified();
  file.reset();
  gzFile gz = static_cast<gzFile>(OpenGzipPath(path));
  if (!gz) {
    error = "cannot open as a gzip file";
    return nullptr;
  }
  return std::make_unique<Gzip>(gz, modified);
}

std::unique_ptr<ByteSource> FileBytes(InputFile& file, std::uint64_t offset) {
  return std::make_unique<PlainFile>(nullptr, file, offset);
}

}  // namespace logread
