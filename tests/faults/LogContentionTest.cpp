// Several processes write one obfuscated log while the size check keeps
// deleting it. Every writer takes the log's global mutex for the size check
// and the append of one record, so whatever is left in the file must decode
// into whole records only; a frame cut short is accepted at the very end of
// the file only.
//
// The sizes come from the environment so that scripts/log-integrity.sh can run
// the full-size case with the same program:
//   QX_LOG_WRITERS (default 4), QX_LOG_RECORDS per writer (default 10000),
//   QX_LOG_MAX_SIZE in bytes (default 65536).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
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
  if (GetEnvironmentVariableA(name, value, sizeof(value)) == 0) return fallback;
  return std::atoi(value);
}

// A writer process: sets the log up with the small size limit and the size
// check on, waits for the start signal, then writes its records.
int RoleWriter(const std::wstring& path, int count, int maxSize) {
  Logger::Instance().Setup(nullptr, path.c_str(), maxSize, 1, 1);
  if (!Logger::Instance().mutex()) return 3;
  HANDLE go = OpenEventW(SYNCHRONIZE, FALSE, kGoEvent);
  if (!go || WaitForSingleObject(go, 30000) != WAIT_OBJECT_0) return 4;
  const int pid = static_cast<int>(GetCurrentProcessId());
  for (int i = 0; i < count; ++i)
    QX_LOG(LogInfo, 42, L"writer %d record %.5d of %d: contention payload", pid, i, count);
  return 0;
}

std::int64_t FileSize(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) return -1;
  return (static_cast<std::int64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

TEST(LogContention, WritersWhileTheSizeCheckDeletesLeaveOnlyWholeRecords) {
  const int writers = EnvInt("QX_LOG_WRITERS", 4);
  const int count = EnvInt("QX_LOG_RECORDS", 10000);
  const int maxSize = EnvInt("QX_LOG_MAX_SIZE", 65536);
  const std::wstring path = TempDir(L"log-contention") + L"\\contention.log";
  const std::wstring file = path + L".logdat";

  HANDLE go = CreateEventW(nullptr, TRUE, FALSE, kGoEvent);
  ASSERT_NE(nullptr, go);
  std::vector<HANDLE> children;
  for (int w = 0; w < writers; ++w) {
    HANDLE child = StartSelf(L"writer", {path, std::to_wstring(count), std::to_wstring(maxSize)});
    ASSERT_NE(nullptr, child);
    children.push_back(child);
  }

  // Watches the file from outside: every time it is seen shorter than at the
  // last look, the size check has deleted it in between (a failed look, the
  // file being gone or busy, is not counted). A lower bound of the deletions.
  std::atomic<bool> watching{true};
  int deletionsSeen = 0;
  std::int64_t largest = 0;
  std::thread watcher([&] {
    std::int64_t last = 0;
    while (watching) {
      const std::int64_t size = FileSize(file);
      if (size >= 0) {
        if (size < last) ++deletionsSeen;
        if (size > largest) largest = size;
        last = size;
      }
      Sleep(1);
    }
  });

  Sleep(300);  // let every writer reach its wait
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
  // A torn frame is acceptable at the end only; the decoder holds it back
  // and has handed out every whole record before it.
  if (decoder.has_partial_frame())
    std::printf("torn frame at the end: %zu of %llu bytes\n", decoder.pending_bytes(),
                static_cast<unsigned long long>(decoder.expected_frame_size()));

  const std::regex shape(
      R"((\d\d)-(\d\d) (\d\d):(\d\d):(\d\d):(\d{3}) : \[INF\]\[\d{5,}\] LogContention\.cpp\(42\) )"
      R"(writer (\d+) record (\d{5}) of (\d+): contention payload\n)");
  std::map<int, std::vector<int>> byWriter;
  for (const logframe::Record& r : records) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(r.text, m, shape)) << "record at offset " << r.offset << ": " << r.text;
    EXPECT_EQ(count, std::stoi(m[9].str()));
    byWriter[std::stoi(m[7].str())].push_back(std::stoi(m[8].str()));
  }

  // The file holds what was written since its last deletion: for each writer
  // still present, a gapless run of its records up to its last one.
  EXPECT_LE(byWriter.size(), static_cast<std::size_t>(writers));
  for (const auto& [pid, numbers] : byWriter) {
    for (std::size_t i = 1; i < numbers.size(); ++i)
      ASSERT_EQ(numbers[i - 1] + 1, numbers[i]) << "writer " << pid << " lost or reordered records";
    EXPECT_EQ(count - 1, numbers.back()) << "writer " << pid;
  }
  ASSERT_FALSE(records.empty());

  // Many deletions really happened: the writers produced far more than the
  // limit, and the file never grew much past it (the check runs on every
  // hundredth record of each process).
  const std::int64_t frame = static_cast<std::int64_t>(bytes.size() / (records.size() ? records.size() : 1));
  const std::int64_t total = frame * writers * count;
  // A cycle is at most the limit plus 100 records of each writer.
  const std::int64_t atLeast = std::max<std::int64_t>(1, total / (2 * (maxSize + frame * 100 * writers)));
  EXPECT_GE(deletionsSeen, atLeast) << "the size check did not delete the file often enough";
  EXPECT_LE(largest, maxSize + frame * 100 * writers);
  std::printf("%d writers x %d records, limit %d bytes: %lld bytes written in %lu ms, "
              "%d deletions seen, %zu whole records left, largest file %lld bytes\n",
              writers, count, maxSize, static_cast<long long>(total), static_cast<unsigned long>(elapsed),
              deletionsSeen, records.size(), static_cast<long long>(largest));
}

}  // namespace

int main(int argc, char** argv) {
  SetArgs(argc, argv);
  if (argc >= 6 && std::string(argv[1]) == "--role" && std::string(argv[2]) == "writer")
    return RoleWriter(Widen(argv[3]), std::atoi(argv[4]), std::atoi(argv[5]));
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
