// The process-wide diagnostic log.
//
// One Logger per process (Logger::Instance()). Logger::Setup settles the file
// (config.ini in the common application-data folder may override the caller's
// settings), Logger::Write appends one record per call, plain UTF-8 or in the
// obfuscated ".logdat" framing, under a global named mutex shared by every
// process that writes the same file name. Errors inside the log are swallowed:
// the log cannot report on itself.
//
// Callers write through QX_LOG with their own source name (a file-scope
// kLogSource) and the line number that support engineers know the record by:
//   QX_LOG(LogInfo, 57, L"set_attention_ctrl %d", status);
// Formats are wide printf formats with Microsoft's meaning: %s is a wide string.
#pragma once

#include <windows.h>

#include <cstdarg>
#include <cstdint>
#include <string>

enum LogLevel {
  LogError = 1,
  LogWarning = 2,
  LogInfo = 3,
  LogTrace = 4,
  LogDebug = 5,
};

class Logger {
 public:
  static Logger& Instance();

  void Setup(const wchar_t* productFolder, const wchar_t* fileName, std::int64_t maxSize,
             std::uint8_t encrypt, std::uint8_t sizeCheck);
  void Write(int level, const wchar_t* format, const wchar_t* sourceFile, unsigned line, ...);
  void CheckSize();

  static const wchar_t* LevelTag(int level);
  static void Scramble(unsigned char* bytes, std::int32_t count);

  // Steps 5-7 of a write without the clock, the thread and the file: the record
  // text for a given local time and thread. Write uses it; tests pin it down.
  static std::wstring FormatRecord(const SYSTEMTIME& time, DWORD threadId, int level,
                                   const wchar_t* format, const wchar_t* sourceFile, unsigned line,
                                   va_list args);

  // Read-only views for tools and tests.
  int encrypt() const { return m_encrypt; }
  int consoleEcho() const { return m_printf; }
  int level() const { return m_level; }
  std::int64_t maxSize() const { return m_maxSize; }
  const wchar_t* path() const { return m_path; }
  bool sizeCheck() const { return m_sizeCheck != 0; }
  HANDLE mutex() const { return m_mutex; }

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

 private:
  Logger() = default;
  void Echo(int level, const std::wstring& record);
  void Append(const std::wstring& record);

  std::int32_t m_encrypt = 0;
  std::int32_t m_printf = 0;
  std::int32_t m_level = LogDebug;
  std::int64_t m_maxSize = 0;
  wchar_t m_path[MAX_PATH] = {};
  std::uint8_t m_sizeCheck = 0;
  HANDLE m_mutex = nullptr;
};

#define QX_LOG(level, line, format, ...) \
  ::Logger::Instance().Write((level), (format), kLogSource, (line)__VA_OPT__(, ) __VA_ARGS__)
