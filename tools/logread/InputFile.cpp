#include "InputFile.h"

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

#ifdef _WIN32

namespace {

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

}  // namespace

bool InputFile::Open(const PathString& path, std::string& error, bool& missing) {
  missing = false;
  handle_ = CreateFileW(path.c_str(), GENERIC_READ,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
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
  return true;
}

long long InputFile::ReadAt(std::uint64_t offset, char* buffer, std::size_t count,
                            std::string& error) {
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
}

void InputFile::Close() {
  if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
  handle_ = INVALID_HANDLE_VALUE;
}

int DuplicateStandardInput() { return _dup(_fileno(stdin)); }

void* OpenGzipPath(const PathString& path) { return gzopen_w(path.c_str(), "rb"); }

#else

bool InputFile::Open(const PathString& path, std::string& error, bool& missing) {
  missing = false;
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
  return true;
}

long long InputFile::ReadAt(std::uint64_t offset, char* buffer, std::size_t count,
                            std::string& error) {
  for (;;) {
    const ssize_t got = ::pread(fd_, buffer, count, static_cast<off_t>(offset));
    if (got >= 0) return got;
    if (errno == EINTR) continue;
    error = std::strerror(errno);
    return -1;
  }
}

void InputFile::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

int DuplicateStandardInput() { return dup(fileno(stdin)); }

void* OpenGzipPath(const PathString& path) { return gzopen(path.c_str(), "rb"); }

#endif

}  // namespace logread
