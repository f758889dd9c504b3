#include "Logger.h"

#include <shlobj.h>
#include <shlwapi.h>

#include <cwchar>
#include <string>

#include "LogFrame.h"

namespace {

constexpr wchar_t kRecordFormat[] = L"%.2d-%.2d %.2d:%.2d:%.2d:%.3d : %s[%.5d] %s(%d) %s\n";
constexpr wchar_t kConfigSection[] = L"config";
constexpr DWORD kReparsePoint = FILE_ATTRIBUTE_REPARSE_POINT;  // 0x400

// Counts the records of the whole process while the size check is on; never
// reset. Every hundredth record checks the size before it is written.
std::int32_t g_recordCounter = 0;

// Microsoft-semantics formatting (%s = wide string): the msvcrt functions, not
// the C99 ones that mingw's headers select for the unprefixed names.
std::wstring FormatMs(const wchar_t* format, va_list args) {
  va_list sizing;
  va_copy(sizing, args);
  int length = _vscwprintf(format, sizing);
  va_end(sizing);
  if (length <= 0) return std::wstring();
  std::wstring out(static_cast<std::size_t>(length) + 1, L'\0');
  _vsnwprintf(out.data(), out.size(), format, args);
  out.resize(static_cast<std::size_t>(length));
  return out;
}

std::wstring FormatMsList(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  std::wstring out = FormatMs(format, args);
  va_end(args);
  return out;
}

std::wstring CommonAppDataFolder() {
  wchar_t folder[MAX_PATH] = {};
  // The result is not examined: without the folder every path starts at the
  // root of the current drive.
  SHGetSpecialFolderPathW(nullptr, folder, CSIDL_COMMON_APPDATA, FALSE);
  return folder;
}

std::wstring ExecutableLogName() {
  wchar_t module[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, module, MAX_PATH);
  return std::wstring(PathFindFileNameW(module)) + L".log";
}

WORD EchoColour(int level) {
  switch (level) {
    case LogError:
      return 4;  // red
    case LogWarning:
      return 9;  // bright blue
    case LogInfo:
      return 10;  // bright green
    case LogTrace:
      return 14;  // yellow
    default:
      return 7;  // grey
  }
}

}  // namespace

Logger& Logger::Instance() {
  static Logger instance;
  return instance;
}

const wchar_t* Logger::LevelTag(int level) {
  switch (level) {
    case LogError:
      return L"[ERR]";
    case LogWarning:
      return L"[WAR]";
    case LogInfo:
      return L"[INF]";
    case LogTrace:
      return L"[TRA]";
    case LogDebug:
      return L"[DBG]";
    default:
      return L"[NONE]";
  }
}

void Logger::Scramble(unsigned char* bytes, std::int32_t count) {
  logframe::Scramble(bytes, count);
}

void Logger::Setup(const wchar_t* productFolder, const wchar_t* fileName, std::int64_t maxSize,
                   std::uint8_t encrypt, std::uint8_t sizeCheck) {
  m_sizeCheck = sizeCheck;
  m_maxSize = maxSize;
  m_encrypt = encrypt;
  m_level = LogInfo;  // the fresh singleton says 5; a set-up log starts at 3

  const std::wstring appData = CommonAppDataFolder();
  const std::wstring config = appData + L"\\Vantoq\\Quillomatic\\config\\config.ini";
  if (PathFileExistsW(config.c_str())) {
    const wchar_t* ini = config.c_str();
    m_level = static_cast<std::int32_t>(
        GetPrivateProfileIntW(kConfigSection, L"g_vantoq_global_log_level", m_level, ini));
    // A 32-bit answer, zero-extended; the default is the argument's low 32 bits.
    m_maxSize = static_cast<std::uint32_t>(GetPrivateProfileIntW(
        kConfigSection, L"g_vantoq_global_max_size", static_cast<INT>(m_maxSize), ini));
    // "encryped" is the key existing configuration files use.
    m_encrypt = static_cast<std::int32_t>(
        GetPrivateProfileIntW(kConfigSection, L"g_vantoq_log_encryped", m_encrypt, ini));
    m_printf = static_cast<std::int32_t>(
        GetPrivateProfileIntW(kConfigSection, L"g_vantoq_log_printf", m_printf, ini));
  }

  const std::wstring name = (fileName && *fileName) ? std::wstring(fileName) : ExecutableLogName();

  std::wstring folder;
  std::wstring path;
  const std::size_t lastSlash = name.rfind(L'\\');
  if (lastSlash != std::wstring::npos && lastSlash != 0) {
    folder = name.substr(0, lastSlash + 1);
    path = name;
  } else {
    if (productFolder && *productFolder)
      folder = appData + L"\\Vantoq\\" + productFolder + L"\\logs\\";
    else
      folder = appData + L"\\Vantoq\\Quillomatic\\logs\\";
    path = folder + name;
  }

  if (!PathIsDirectoryW(folder.c_str())) SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);

  // A log folder that is (or was replaced by) a junction or symbolic link is
  // not written to. A failed query has every bit set, so a folder that could
  // not be created stops here as well.
  // The query names the folder without its trailing backslash: Windows reports
  // a junction's own attributes either way, but Wine resolves a link when the
  // name ends in a separator and would report the target instead.
  std::wstring folderName = folder;
  while (folderName.size() > 1 && folderName.back() == L'\\' &&
         folderName[folderName.size() - 2] != L':')
    folderName.pop_back();
  if (GetFileAttributesW(folderName.c_str()) & kReparsePoint) return;

  if (m_encrypt) {
    // The plain-text sibling of an obfuscated log ("X.normal.log" beside
    // "X.log") would leak what the obfuscation hides: remove it.
    const std::size_t dot = path.rfind(L'.');
    if (dot != std::wstring::npos) {
      const std::wstring normal = path.substr(0, dot) + L".normal" + path.substr(dot);
      if (PathFileExistsW(normal.c_str())) DeleteFileW(normal.c_str());
    }
    path += L".logdat";
  }

  wcsncpy(m_path, path.c_str(), MAX_PATH - 1);
  m_path[MAX_PATH - 1] = L'\0';

  CheckSize();

  if (!m_mutex) {
    // Any account (services and users alike) may open the mutex: null DACL.
    SECURITY_DESCRIPTOR descriptor;
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE);
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), &descriptor, TRUE};
    const std::wstring mutexName = std::wstring(L"Global\\VQMLOG_") + PathFindFileNameW(m_path);
    m_mutex = CreateMutexW(&attributes, FALSE, mutexName.c_str());
  }
}

std::wstring Logger::FormatRecord(const SYSTEMTIME& t, DWORD threadId, int level,
                                  const wchar_t* format, const wchar_t* sourceFile, unsigned line,
                                  va_list args) {
  // Two passes, deliberately: the first lays out the line with the caller's
  // format inserted as text; the second uses that whole line as the format for
  // the caller's arguments, so a "%" from the tag, the source name or the
  // caller's format is a placeholder there.
  const std::wstring layout =
      FormatMsList(kRecordFormat, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds,
                   LevelTag(level), static_cast<int>(threadId), PathFindFileNameW(sourceFile),
                   static_cast<int>(line), format);
  return FormatMs(layout.c_str(), args);
}

void Logger::Echo(int level, const std::wstring& record) {
  SetConsoleTextAttribute(GetStdHandle(STD_OUTPUT_HANDLE), EchoColour(level));
  // The record is the format of a third formatting, on the console only.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  __ms_wprintf(record.c_str());
#pragma GCC diagnostic pop
}

void Logger::Append(const std::wstring& record) {
  HANDLE file = CreateFileW(m_path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return;
  if (GetFileAttributesW(m_path) & kReparsePoint) {
    CloseHandle(file);
    return;
  }
  SetFilePointer(file, 0, nullptr, FILE_END);

  std::string bytes;
  const int wideLength = static_cast<int>(record.size());
  const int length =
      WideCharToMultiByte(CP_UTF8, 0, record.data(), wideLength, nullptr, 0, nullptr, nullptr);
  if (length > 0) {
    bytes.resize(static_cast<std::size_t>(length));
    WideCharToMultiByte(CP_UTF8, 0, record.data(), wideLength, bytes.data(), length, nullptr,
                        nullptr);
  }

  DWORD written = 0;
  if (m_encrypt) {
    unsigned char header[logframe::kHeaderSize];
    logframe::EncodeLength(static_cast<std::uint32_t>(bytes.size()), header);
    Scramble(reinterpret_cast<unsigned char*>(bytes.data()),
             static_cast<std::int32_t>(bytes.size()));
    WriteFile(file, header, sizeof(header), &written, nullptr);
  }
  WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  CloseHandle(file);
}

void Logger::Write(int level, const wchar_t* format, const wchar_t* sourceFile, unsigned line,
                   ...) {
  if (level > m_level) return;
  if (m_path[0] == L'\0') {
    Instance().Setup(nullptr, nullptr, 0x100000, 1, 1);
    if (m_path[0] == L'\0') return;
  }
  if (m_mutex) WaitForSingleObject(m_mutex, INFINITE);  // abandoned counts as taken
  try {
    if (m_sizeCheck && ++g_recordCounter % 100 == 0) CheckSize();
    SYSTEMTIME now;
    GetLocalTime(&now);
    va_list args;
    va_start(args, line);
    const std::wstring record =
        FormatRecord(now, GetCurrentThreadId(), level, format, sourceFile, line, args);
    va_end(args);
    if (m_printf) Echo(level, record);
    Append(record);
  } catch (...) {
    // The record is lost; the log has no one to tell.
  }
  ReleaseMutex(m_mutex);
}

void Logger::CheckSize() {
  HANDLE file = CreateFileW(m_path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return;
  LARGE_INTEGER size = {};
  GetFileSizeEx(file, &size);
  CloseHandle(file);
  if (size.QuadPart >= m_maxSize) DeleteFileW(m_path);
}
