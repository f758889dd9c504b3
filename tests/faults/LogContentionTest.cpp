// Several processes write one obfuscated log while the size check keeps
// deleting it. Every writer takes the log's global mutex for the size check
// and the append of one record, so what is left in the file must decode into
// whole records only (a frame cut short is accepted at the very end only).
// Sizes from the environment, so that scripts/log-integrity.sh runs the full
// size with this program: QX_LOG_WRITERS (4), QX_LOG_RECORDS per writer
// (10000), QX_LOG_MAX_SIZE in bytes (65536).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <regex>
#include <thread>

#include "LogFrameReader.h"
#include "Logger.h"
#include "TestSupport.h"

using namespace testsupport;

namespace {

constexpr wchar_t kLogSource[] = L"LogContention.cpp";
constexpr wchar_t kGoEvent[] = L"qxtest-log-contention-go";

int EnvInt(const char* name, int fallback) {
  char value[32] = {};
  return GetEnvironmentVariableA(name, value, sizeof(value)) ? std::atoi(value) : fallback;
}

// A writer: the log with the small limit and the size check on; waits for the
// start signal, then writes its records.
int RoleWriter(const std::wstring& path, int count, int maxSize) {
  Logger::Instance().Setup(nullptr, path.c_str(), maxSize, 1, 1);
  HANDLE go = OpenEventW(SYNCHRONIZE, FALSE, kGoEvent);
  if (!Logger::Instance().mutex() || !go || WaitForSingleObject(go, 30000) != WAIT_OBJECT_0)
    return 3;
  for (int i = 0; i < count; ++i)
    QX_LOG(LogInfo, 42, L"writer %d record %.5d of %d: contention payload",
           static_cast<int>(GetCurrentProcessId()), i, count);
  return 0;
}

TEST(LogContention, WritersWhileTheSizeCheckDeletesLeaveOnlyWholeRecords) {
  const int writers = EnvInt("QX_LOG_WRITERS", 4), count = EnvInt("QX_LOG_RECORDS", 10000);
  const int maxSize = EnvInt("QX_LOG_MAX_SIZE", 65536);
  const std::wstring path = TempDir(L"log-contention") + L"\\contention.log",
                     file = path + L".logdat";
  HANDLE go = CreateEventW(nullptr, TRUE, FALSE, kGoEvent);
  std::vector<HANDLE> children;
  for (int w = 0; w < writers; ++w)
    children.push_back(
        StartSelf(L"writer", {path, std::to_wstring(count), std::to_wstring(maxSize)}));
  ASSERT_EQ(children.end(), std::find(children.begin(), children.end(), nullptr));

  // Every time the file is seen shorter than at the last look, the size check
  // has deleted it in between: a lower bound of the deletions.
  std::atomic<bool> watching{true};
  int deletionsSeen = 0;
  std::int64_t largest = 0;
  std::thread watcher([&] {
    for (std::int64_t last = 0; watching; Sleep(1)) {
      WIN32_FILE_ATTRIBUTE_DATA data;
      if (!GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &data)) continue;
      const std::int64_t size =
          (static_cast<std::int64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
      deletionsSeen += size < last;
      largest = std::max(largest, last = size);
    }
  });
  Sleep(300);  // every writer reaches its wait
  const DWORD started = GetTickCount();
  SetEvent(go);
  for (HANDLE child : children) EXPECT_EQ(0, WaitChild(child, 600000));
  const DWORD elapsed = GetTickCount() - started;
  watching = false;
  watcher.join();
  CloseHandle(go);

  const std::string bytes = ReadFileBytes(file);
  logframe::FrameDecoder decoder;
  std::vector<logframe::Record> records;
  ASSERT_EQ(logframe::FrameDecoder::Status::kOk, decoder.Feed(bytes.data(), bytes.size(), records))
      << decoder.ErrorMessage();
  const std::regex shape(
      R"(\d\d-\d\d \d\d:\d\d:\d\d:\d{3} : \[INF\]\[\d{5,}\] LogContention\.cpp\(42\) )"
      R"(writer (\d+) record (\d{5}) of (\d+): contention payload\n)");
  std::map<int, std::vector<int>> byWriter;
  for (const logframe::Record& r : records) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(r.text, m, shape))
        << "record at offset " << r.offset << ": " << r.text;
    EXPECT_EQ(count, std::stoi(m[3].str()));
    byWriter[std::stoi(m[1].str())].push_back(std::stoi(m[2].str()));
  }
  ASSERT_FALSE(records.empty());
  // What was written since the last deletion: for each writer still present,
  // a gapless run of its records up to its last one.
  for (const auto& [pid, numbers] : byWriter) {
    for (std::size_t i = 1; i < numbers.size(); ++i)
      ASSERT_EQ(numbers[i - 1] + 1, numbers[i]) << "writer " << pid << " lost or reordered records";
    EXPECT_EQ(count - 1, numbers.back()) << "writer " << pid;
  }
  // Far more was written than the limit: many deletions, and the file never
  // grew past the limit plus 100 records of each writer (the check runs on
  // every hundredth record of a process).
  const std::int64_t frame = static_cast<std::int64_t>(bytes.size() / records.size());
  const std::int64_t total = frame * writers * count, cycle = maxSize + frame * 100 * writers;
  EXPECT_GE(deletionsSeen, std::max<std::int64_t>(1, total / (2 * cycle))) << "too few deletions";
  EXPECT_LE(largest, cycle);
  std::printf(
      "%d writers x %d records, limit %d bytes: %lld bytes written in %lu ms, "
      "%d deletions seen, %zu whole records left, largest file %lld bytes\n",
      writers, count, maxSize, static_cast<long long>(total), static_cast<unsigned long>(elapsed),
      deletionsSeen, records.size(), static_cast<long long>(largest));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 6 && std::string(argv[1]) == "--role" && std::string(argv[2]) == "writer")
    return RoleWriter(Widen(argv[3]), std::atoi(argv[4]), std::atoi(argv[5]));
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
