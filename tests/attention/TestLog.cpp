#include "TestLog.h"

#include <gtest/gtest.h>
#include <shlobj.h>
#include <windows.h>

#include <regex>

#include "LogFrameReader.h"
#include "Logger.h"
#include "TestSupport.h"

namespace testlog {

void SetUp(const wchar_t* fileName) {
  wchar_t temp[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, temp);
  DeleteFileW((std::wstring(temp) + fileName + L".logdat").c_str());
  // The logger reads config.ini only while it is set up (the debug level is
  // only reachable through it); other programs of the same test run must not
  // inherit this one, so it is removed again at once.
  const std::wstring folder = testsupport::CommonAppData() + L"\\Vantoq\\Quillomatic\\config\\";
  const std::wstring ini = folder + L"config.ini";
  const bool hadConfig = testsupport::FileExists(ini);
  if (!hadConfig) {
    SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);
    WritePrivateProfileStringW(L"config", L"g_vantoq_global_log_level", L"5", ini.c_str());
    WritePrivateProfileStringW(nullptr, nullptr, nullptr, ini.c_str());  // flush the profile cache
  }
  Logger::Instance().Setup(L"Quillomatic", (std::wstring(temp) + fileName).c_str(), 0x40000000, 1, 0);
  if (!hadConfig) DeleteFileW(ini.c_str());
}

std::size_t Mark() { return testsupport::ReadFileBytes(Logger::Instance().path()).size(); }

std::vector<Record> Since(std::size_t mark) {
  const std::string bytes = testsupport::ReadFileBytes(Logger::Instance().path());
  std::vector<logframe::Record> frames;
  logframe::FrameDecoder decoder;
  if (mark < bytes.size()) decoder.Feed(bytes.data() + mark, bytes.size() - mark, frames);
  // "MM-DD hh:mm:ss:mmm : [TAG][thread] Source(line) text"
  static const std::regex kRecord(
      R"(^\d\d-\d\d (\d\d):(\d\d):(\d\d):(\d\d\d) : (\[[A-Z]+\])\[\d+\] (\S+)\((\d+)\) (.*?)\r?\n$)");
  std::vector<Record> records;
  for (const auto& frame : frames) {
    std::smatch m;
    if (!std::regex_match(frame.text, m, kRecord)) {
      ADD_FAILURE_AT(__FILE__, __LINE__) << "not a record: " << frame.text;
      continue;
    }
    const long ms = ((std::stol(m[1]) * 60 + std::stol(m[2])) * 60 + std::stol(m[3])) * 1000 + std::stol(m[4]);
    records.push_back({m[5], m[6], std::stoi(m[7]), m[8], ms});
  }
  return records;
}

std::string Dump(const std::vector<Record>& records) {
  std::string out;
  for (const Record& r : records)
    out += "  " + r.tag + " " + r.source + "(" + std::to_string(r.line) + ") " + r.text + "\n";
  return out;
}

}  // namespace testlog
