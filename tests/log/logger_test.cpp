// The logger, judged by the files it writes; other processes are this
// program with --role NAME.
#include <gtest/gtest.h>
#include <shlobj.h>

#include <cstring>
#include <map>
#include <regex>
#include <string>

#include "LogFrameReader.h"
#include "Logger.h"
#include "TestSupport.h"

using namespace testsupport;

namespace {

constexpr wchar_t kLogSource[] = L"LoggerTest.cpp";
Logger& Log() { return Logger::Instance(); }

std::wstring Record(int level, const wchar_t* source, unsigned line, const wchar_t* format, ...) {
  const SYSTEMTIME t = {2026, 11, 0, 14, 9, 5, 7, 42};
  va_list args;
  va_start(args, format);
  std::wstring text = Logger::FormatRecord(t, 4242, level, format, source, line, args);
  va_end(args);
  return text;
}

std::wstring Qx() { return CommonAppData() + L"\\Vantoq\\Quillomatic"; }
void Config(const std::string& body = "") {
  SHCreateDirectoryExW(nullptr, (Qx() + L"\\config").c_str(), nullptr);
  body.empty() ? (void)DeleteFileW((Qx() + L"\\config\\config.ini").c_str())
               : WriteFileBytes(Qx() + L"\\config\\config.ini", "[config]\r\n" + body);
}

std::wstring Fresh(const wchar_t* name, std::int64_t maxSize = 0x100000) {
  const std::wstring path = TempDir(name) + L"\\" + name + L".log";
  return Log().Setup(nullptr, path.c_str(), maxSize, 0, 1), path;
}

}  // namespace

TEST(RecordText, FieldsAndTheSecondFormattingPass) {
  const std::wstring at = L"11-14 09:05:07:042 : ";
  EXPECT_EQ(at + L"[ERR][04242] Bridge.cpp(57) set 1\n",
            Record(LogError, L"impl\\Bridge.cpp", 57, L"set %d", 1));
  // Layout first, arguments second: a "%" in the source name takes the first
  // argument, and an argument's "%s" is not formatted again.
  EXPECT_EQ(at + L"[INF][04242] Bridge.cpp(9) v=1%s\n",
            Record(LogInfo, L"Br%sge.cpp", 9, L"v=%s", L"id", L"1%s"));
}

// Records in UTF-8, kept up to the configured level (else 3); %s takes a wide string.
TEST(Write, PlainRecordsAndTheLevelFilter) {
  char thread[16];
  std::snprintf(thread, sizeof thread, "][%05lu] ", GetCurrentThreadId());
  const char* tags[] = {"[NONE", "[NONE", "[NONE", "[ERR",
                        "[WAR",  "[INF",  "[TRA",  "[DBG"};  // -2 to 5
  const std::regex stamp(R"(\d\d-\d\d \d\d:\d\d:\d\d:\d{3} : )");
  for (const char* setting : {"", "0", "-1", "5"}) {
    Config(*setting ? std::string("g_vantoq_global_log_level=") + setting + "\r\n" : "");
    const std::wstring path = Fresh(L"filter");
    for (int level = -2; level <= 6; ++level)
      QX_LOG(level, 1, L"level %d %s\xFF0C", level, L"wide");
    std::string kept;
    for (int level = -2; level <= (*setting ? std::stoi(setting) : LogInfo); ++level)
      kept += tags[level + 2] + std::string(thread) + "LoggerTest.cpp(1) level " +
              std::to_string(level) + " wide\xEF\xBC\x8C\n";
    EXPECT_EQ(kept, std::regex_replace(ReadFileBytes(path), stamp, ""));
  }
  Config();
}

// --role writer PATH MAX_SIZE ENCRYPT BEFORE AFTER: BEFORE records, ready; on "go"
// AFTER more (each wait for the log mutex sets "waiting"); on "last", if made, one more.
constexpr wchar_t kGo[] = L"qxtest-log-go", kLast[] = L"qxtest-log-last",
                  kWaiting[] = L"qxtest-log-waiting", kReady[] = L"qxtest-log-ready";
HANDLE g_waiting;
DWORD(WINAPI* g_wait)(HANDLE, DWORD);
DWORD WINAPI NoteWait(HANDLE handle, DWORD ms) {
  if (g_waiting && handle == Log().mutex()) SetEvent(g_waiting);
  return g_wait(handle, ms);
}

// Points this program's (and so the logger's) WaitForSingleObject at NoteWait.
bool NoteMutexWaits() {
  auto* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(
      base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  auto* import = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(
      base + nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
  for (; import->Name; ++import) {
    auto* name = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + import->OriginalFirstThunk);
    auto* slot = reinterpret_cast<void**>(base + import->FirstThunk);
    for (DWORD old; name->u1.AddressOfData; ++name, ++slot)
      if (!IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal) &&
          !std::strcmp(
              reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData)->Name,
              "WaitForSingleObject") &&
          VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &old)) {
        g_wait = reinterpret_cast<decltype(g_wait)>(*slot);
        *slot = reinterpret_cast<void*>(NoteWait);
        return true;
      }
  }
  return false;
}

int RoleWriter(char** arg) {
  Log().Setup(nullptr, Widen(arg[0]).c_str(), std::atoi(arg[1]), std::atoi(arg[2]), 1);
  for (int i = std::atoi(arg[3]); i > 0; --i) QX_LOG(LogInfo, 4, L"before");
  HANDLE go = OpenEventW(SYNCHRONIZE, FALSE, kGo), last = OpenEventW(SYNCHRONIZE, FALSE, kLast);
  HANDLE ready = OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, kReady);
  g_waiting = OpenEventW(EVENT_MODIFY_STATE, FALSE, kWaiting);
  const auto step = [ready](HANDLE event) {
    return ReleaseSemaphore(ready, 1, nullptr) &&
           WaitForSingleObject(event, 600000) == WAIT_OBJECT_0;
  };
  const int n = std::atoi(arg[4]);
  if (!Log().mutex() || !go || !ready || !NoteMutexWaits() || !step(go)) return 3;
  for (int i = 0; i < n; ++i)
    QX_LOG(LogInfo, 42, L"writer %lu record %d", GetCurrentProcessId(), i);
  if (last && !step(last)) return 3;
  if (last) QX_LOG(LogInfo, 42, L"writer %lu record %d", GetCurrentProcessId(), n);
  return 0;
}

std::vector<HANDLE> Writers(int n, const std::vector<std::wstring>& args, HANDLE ready) {
  std::vector<HANDLE> children;
  for (int w = 0; w < n; ++w) children.push_back(StartSelf(L"writer", args));
  for (HANDLE child : children)
    EXPECT_TRUE(child && WaitForSingleObject(ready, 30000) == WAIT_OBJECT_0) << "not ready";
  return children;
}

// The records that deleted the file, each after padding it to `fill` bytes.
std::vector<int> Deletions(const std::wstring& path, int records, std::size_t fill) {
  std::vector<int> deleted;
  for (int i = 0; i < records; ++i) {
    WriteFileBytes(path, std::string(fill, '#'));
    QX_LOG(LogInfo, 1, L"r");
    if (ReadFileBytes(path).find('#') == std::string::npos) deleted.push_back(i);
  }
  return deleted;
}

TEST(SizeCheck, EveryHundredthRecordAndAtSetup) {
  Config();
  std::wstring path = Fresh(L"size", 4096);
  const std::vector<int> atLimit = Deletions(path, 200, 4096);
  ASSERT_EQ(2u, atLimit.size());
  EXPECT_EQ(100, atLimit[1] - atLimit[0]);
  EXPECT_TRUE(Deletions(path, 100, 4095).empty());
  path = TempDir(L"nosize") + L"\\n.log";  // check off: at set-up only
  Log().Setup(nullptr, path.c_str(), 100, 0, 0);
  EXPECT_TRUE(Deletions(path, 150, 200).empty());
  Log().Setup(nullptr, path.c_str(), 100, 0, 0);
  EXPECT_FALSE(FileExists(path));  // deleted, not emptied
}

// The writer's hundredth record waits for the mutex held here (the file open)
// and then deletes the file; a check outside the mutex fails on the open file.
TEST(SizeCheck, WaitsForTheLogMutex) {
  const std::wstring path = TempDir(L"held") + L"\\held.log";
  HANDLE go = CreateEventW(nullptr, TRUE, FALSE, kGo),
         ready = CreateSemaphoreW(nullptr, 0, 1, kReady),
         waiting = CreateEventW(nullptr, TRUE, FALSE, kWaiting);
  const std::vector<HANDLE> writer = Writers(1, {path, L"100", L"0", L"99", L"1"}, ready);
  HANDLE mutex = OpenMutexW(SYNCHRONIZE, FALSE, L"Global\\VQMLOG_held.log");
  ASSERT_TRUE(mutex && WaitForSingleObject(mutex, 10000) == WAIT_OBJECT_0);
  HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                            nullptr, OPEN_EXISTING, 0, nullptr);
  SetEvent(go);
  EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(waiting, 30000));
  CloseHandle(file);
  ReleaseMutex(mutex);
  EXPECT_EQ(0, WaitChild(writer[0], 30000));
  const std::string text = ReadFileBytes(path);
  EXPECT_EQ(std::string::npos, text.find(") before\n")) << text;
  EXPECT_NE(std::string::npos, text.find(") writer ")) << text;
  for (HANDLE h : {go, ready, waiting, mutex}) CloseHandle(h);
}

TEST(Setup, SizeLimitAndTheMutex) {
  const auto setup = [](std::int64_t maxSize) {
    Log().Setup(nullptr, L"size.log", maxSize, 1, 1);
    return Log().maxSize();
  };
  Config("g_vantoq_global_max_size=777\r\n");
  EXPECT_EQ(777, setup(0x100000));
  Config("g_vantoq_global_log_level=3\r\n");  // without the key: cut to 32 bits
  EXPECT_EQ(5, setup(0x100000000LL + 5));
  Config();
  // The mutex is named after the first file set up, and kept.
  Log().Setup(nullptr, L"another.log", 0x100000, 1, 1);
  EXPECT_EQ(nullptr, OpenMutexW(SYNCHRONIZE, FALSE, L"Global\\VQMLOG_another.log.logdat"));
}

// Obfuscating deletes the ".normal" sibling; switched off by config, the plain
// file is written and the ".logdat" left alone.
TEST(Setup, EncryptSwitchAndNormalSibling) {
  Config();
  const std::wstring dir = TempDir(L"switch"), name = dir + L"\\s.log",
                     normal = dir + L"\\s.normal.log";
  WriteFileBytes(normal, "old plain text\n");
  Log().Setup(nullptr, name.c_str(), 0x100000, 0, 1);
  EXPECT_TRUE(FileExists(normal));
  Log().Setup(nullptr, name.c_str(), 0x100000, 1, 1);
  EXPECT_FALSE(FileExists(normal));
  QX_LOG(LogInfo, 1, L"obfuscated");
  const std::string logdat = ReadFileBytes(name + L".logdat");
  ASSERT_FALSE(logdat.empty());
  Config("g_vantoq_log_encryped=0\r\n");
  Log().Setup(nullptr, name.c_str(), 0x100000, 1, 1);
  Config();
  QX_LOG(LogInfo, 2, L"plain");
  EXPECT_EQ(logdat, ReadFileBytes(name + L".logdat"));
  EXPECT_NE(std::string::npos, ReadFileBytes(name).find(") plain\n"));
}

int Role(const std::string& role) {
  if (role == "reparse") {  // no mutex, and no file through the link
    Log().Setup(nullptr, L"C:\\qx-reparse\\logs\\r.log", 0x100000, 0, 1);
    QX_LOG(LogInfo, 3, L"after the link");
    return OpenMutexW(SYNCHRONIZE, FALSE, L"Global\\VQMLOG_r.log") != nullptr;
  }
  // Level 6 exceeds the fresh logger's 5: no set-up (which would filter debug).
  QX_LOG(6, 1, L"never");
  QX_LOG(LogDebug, 2, L"fallback \x00e9\xFF0C");  // 2 + 3 bytes in UTF-8
  Config("g_vantoq_log_printf=1\r\n");
  Fresh(L"echo");
  Config();
  QX_LOG(LogInfo, 5, L"echo %s", L"100%% sure");
  return 0;
}

TEST(FreshProcess, BeforeSetupConsoleEchoAndLinkedFolder) {
  Config();
  const std::wstring fallback = Qx() + L"\\logs\\logger_test.exe.log.logdat";
  const std::wstring out = TempDir(L"fresh-out") + L"\\stdout.txt";
  DeleteFileW(fallback.c_str());
  ASSERT_EQ(0, WaitChild(StartSelf(L"fresh", {}, out), 30000));
  // Obfuscated, named after the program: a 4-byte length, then 255 - b.
  std::string text = ReadFileBytes(fallback);
  ASSERT_GT(text.size(), 4u);
  EXPECT_EQ(std::string({static_cast<char>(text.size() - 4), 0, 0, 0}), text.substr(0, 4));
  for (char& c : text) c = static_cast<char>(255 - static_cast<unsigned char>(c));
  EXPECT_TRUE(std::regex_match(text.substr(4), std::regex("[-0-9 :]{18} : \\[DBG\\]\\[\\d+\\] "
                                                          "LoggerTest\\.cpp\\(2\\) fallback "
                                                          "\xC3\xA9\xEF\xBC\x8C\n")))
      << text;
  // The console formats the record again: "100%%" shows as "100%".
  const std::string console = ReadFileBytes(out);
  EXPECT_NE(std::string::npos, console.find("LoggerTest.cpp(5) echo 100% sure")) << console;
  // C:\qx-reparse\logs links to "real" beside it (a ctest fixture).
  EXPECT_EQ(0, WaitChild(StartSelf(L"reparse", {}), 30000));
  EXPECT_FALSE(FileExists(L"C:\\qx-reparse\\real\\r.log"));
}

// Writers of one log while the size check keeps deleting it leave whole records;
// sizes from the environment (scripts/log-integrity.sh).
TEST(LogContention, WritersWhileTheSizeCheckDeletesLeaveOnlyWholeRecords) {
  const auto EnvInt = [](const char* name, int fallback) {
    const char* value = std::getenv(name);
    return value ? std::atoi(value) : fallback;
  };
  const int writers = EnvInt("QX_LOG_WRITERS", 4), count = EnvInt("QX_LOG_RECORDS", 10000);
  const int maxSize = EnvInt("QX_LOG_MAX_SIZE", 65536);
  const std::wstring path = TempDir(L"log-contention") + L"\\contention.log";
  HANDLE go = CreateEventW(nullptr, TRUE, FALSE, kGo),
         last = CreateEventW(nullptr, TRUE, FALSE, kLast),
         ready = CreateSemaphoreW(nullptr, 0, writers, kReady);
  const std::vector<HANDLE> children =
      Writers(writers, {path, std::to_wstring(maxSize), L"1", L"0", std::to_wstring(count)}, ready);
  SetEvent(go);
  for (int w = 0; w < writers; ++w)
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(ready, 600000)) << "records not written";
  SetEvent(last);  // each writer's last record comes after every other's records
  for (HANDLE child : children) EXPECT_EQ(0, WaitChild(child, 600000));
  for (HANDLE h : {go, last, ready}) CloseHandle(h);

  const std::string bytes = ReadFileBytes(path + L".logdat");
  logframe::FrameDecoder decoder;
  std::vector<logframe::Record> records;
  ASSERT_EQ(logframe::FrameDecoder::Status::kOk, decoder.Feed(bytes.data(), bytes.size(), records))
      << decoder.ErrorMessage();
  ASSERT_FALSE(records.empty());
  const std::regex shape(
      R"([-0-9 :]{18} : \[INF\]\[\d+\] LoggerTest\.cpp\(42\) writer (\d+) record (\d+)\n)");
  std::map<int, std::vector<int>> byWriter;
  for (const logframe::Record& r : records) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(r.text, m, shape)) << r.offset << ": " << r.text;
    byWriter[std::stoi(m[1].str())].push_back(std::stoi(m[2].str()));
  }
  // Since the last deletion: every writer, its records gapless to its last.
  EXPECT_EQ(static_cast<std::size_t>(writers), byWriter.size());
  for (const auto& [pid, numbers] : byWriter) {
    for (std::size_t i = 1; i < numbers.size(); ++i)
      ASSERT_EQ(numbers[i - 1] + 1, numbers[i]) << "writer " << pid << " lost records";
    EXPECT_EQ(count, numbers.back()) << "writer " << pid;
  }
  // Checked every 100 records of each writer.
  const std::size_t frame = bytes.size() / records.size();
  EXPECT_LE(bytes.size(), maxSize + frame * 100 * writers);
}

int main(int argc, char** argv) {
  if (argc >= 8 && std::string(argv[2]) == "writer") return RoleWriter(argv + 3);
  if (argc >= 3 && std::string(argv[1]) == "--role") return Role(argv[2]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
