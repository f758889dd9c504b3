#include "TestLog.h"

#include <shlobj.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include "Logger.h"

namespace testlog {
namespace {

std::wstring g_path;

std::wstring ConfigFolder() {
  wchar_t folder[MAX_PATH] = {};
  SHGetSpecialFolderPathW(nullptr, folder, CSIDL_COMMON_APPDATA, FALSE);
  return std::wstring(folder) + L"\\Vantoq\\Quillomatic\\config\\";
}

std::string ReadAll() {
  HANDLE file = CreateFileW(g_path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                            nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return std::string();
  std::string bytes;
  char buffer[65536];
  DWORD got = 0;
  while (ReadFile(file, buffer, sizeof(buffer), &got, nullptr) && got > 0) bytes.append(buffer, got);
  CloseHandle(file);
  return bytes;
}

}  // namespace

std::wstring SetUp(const wchar_t* fileName) {
  wchar_t temp[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, temp);
  g_path = std::wstring(temp) + fileName;
  DeleteFileW(g_path.c_str());

  // The logger reads config.ini only while it is set up; other programs of the
  // same test run must not inherit this one, so it is removed again at once.
  const std::wstring folder = ConfigFolder();
  const std::wstring ini = folder + L"config.ini";
  const bool hadConfig = GetFileAttributesW(ini.c_str()) != INVALID_FILE_ATTRIBUTES;
  if (!hadConfig) {
    SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);
    WritePrivateProfileStringW(L"config", L"g_vantoq_global_log_level", L"5", ini.c_str());
    WritePrivateProfileStringW(L"config", L"g_vantoq_log_encryped", L"0", ini.c_str());
    WritePrivateProfileStringW(L"config", L"g_vantoq_log_printf", L"0", ini.c_str());
    WritePrivateProfileStringW(nullptr, nullptr, nullptr, ini.c_str());  // flush the profile cache
  }
  Logger::Instance().Setup(L"Quillomatic", g_path.c_str(), 0x40000000, 0, 0);
  if (!hadConfig) DeleteFileW(ini.c_str());
  return g_path;
}

std::size_t Mark() { return ReadAll().size(); }

std::vector<Record> Since(std::size_t mark) {
  const std::string all = ReadAll();
  std::vector<Record> records;
  if (mark > all.size()) return records;
  // "MM-DD hh:mm:ss:mmm : [TAG][thread] Source(line) text"
  static const std::regex kRecord(
      R"(^\d\d-\d\d (\d\d):(\d\d):(\d\d):(\d\d\d) : (\[[A-Z]+\])\[\d+\] (\S+)\((\d+)\) (.*)$)");
  std::istringstream lines(all.substr(mark));
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::smatch m;
    if (!std::regex_match(line, m, kRecord)) continue;
    Record r;
    r.msOfDay = ((std::stol(m[1]) * 60 + std::stol(m[2])) * 60 + std::stol(m[3])) * 1000 + std::stol(m[4]);
    r.tag = m[5];
    r.source = m[6];
    r.line = std::stoi(m[7]);
    r.text = m[8];
    records.push_back(r);
  }
  return records;
}

std::vector<Record> From(const std::vector<Record>& records, const std::string& source) {
  std::vector<Record> out;
  for (const Record& r : records)
    if (r.source == source) out.push_back(r);
  return out;
}

std::string Dump(const std::vector<Record>& records) {
  std::string out;
  for (const Record& r : records)
    out += "  " + r.tag + " " + r.source + "(" + std::to_string(r.line) + ") " + r.text + "\n";
  return out;
}

}  // namespace testlog
