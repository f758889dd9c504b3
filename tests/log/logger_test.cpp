// Logger: record text, level filter, set-up from config.ini, obfuscated
// framing and the periodic size check. Several processes writing one file:
// tests/faults/LogContentionTest.cpp.
//
// The program re-launches itself (--role NAME ...) when a case needs a fresh
// process (a singleton that was never set up, a second writer).
#include <gtest/gtest.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <cstdarg>
#include <regex>
#include <string>

#include "LogFrame.h"
#include "Logger.h"
#include "TestSupport.h"

using namespace testsupport;

namespace {

constexpr wchar_t kLogSource[] = L"LoggerTest.cpp";

std::wstring Record(const SYSTEMTIME& t, DWORD tid, int level, const wchar_t* source, unsigned line,
                    const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  std::wstring text = Logger::FormatRecord(t, tid, level, format, source, line, args);
  va_end(args);
  return text;
}

SYSTEMTIME KnownTime() {
  SYSTEMTIME t = {};
  t.wYear = 2026; t.wMonth = 11; t.wDay = 14;
  t.wHour = 9; t.wMinute = 5; t.wSecond = 7; t.wMilliseconds = 42;
  return t;
}

std::wstring ConfigIni() { return CommonAppData() + L"\\Vantoq\\Quillomatic\\config\\config.ini"; }
std::wstring DefaultLogs() { return CommonAppData() + L"\\Vantoq\\Quillomatic\\logs"; }

void WriteConfig(const std::string& body) {
  SHCreateDirectoryExW(nullptr, (CommonAppData() + L"\\Vantoq\\Quillomatic\\config").c_str(), nullptr);
  WriteFileBytes(ConfigIni(), "[config]\r\n" + body);
}
void RemoveConfig() { DeleteFileW(ConfigIni().c_str()); }

// Decodes a .logdat file into its records; a torn tail fails the check.
std::vector<std::string> Frames(const std::wstring& path) {
  const std::string bytes = ReadFileBytes(path);
  std::vector<std::string> records;
  size_t at = 0;
  while (at + logframe::kHeaderSize <= bytes.size()) {
    const uint32_t n = logframe::DecodeLength(reinterpret_cast<const unsigned char*>(bytes.data() + at));
    if (at + logframe::kHeaderSize + n > bytes.size()) break;
    std::string text = bytes.substr(at + logframe::kHeaderSize, n);
    logframe::Scramble(reinterpret_cast<unsigned char*>(text.data()), static_cast<int32_t>(n));
    records.push_back(text);
    at += logframe::kHeaderSize + n;
  }
  EXPECT_EQ(bytes.size(), at) << "torn frame";
  return records;
}

// A plain-text log in a folder of its own, set up through a full path.
struct PlainLog {
  std::wstring dir, path;
  explicit PlainLog(const wchar_t* name, std::int64_t maxSize = 0x100000, bool sizeCheck = true) {
    RemoveConfig();
    dir = TempDir(name);
    path = dir + L"\\" + name + L".log";
    Logger::Instance().Setup(L"Quillomatic", path.c_str(), maxSize, 0, sizeCheck ? 1 : 0);
  }
  std::string Text() const { return ReadFileBytes(path); }
};

const std::regex kRecordShape(
    R"((\d\d)-(\d\d) (\d\d):(\d\d):(\d\d):(\d\d\d) : \[INF\]\[(\d{5,})\] LoggerTest\.cpp\(77\) hello 5 wide\n)");

}  // namespace

// ---- Record text -----------------------------------------------------------

TEST(RecordText, KnownTimeThreadLineAndLevelTags) {
  EXPECT_EQ(L"11-14 09:05:07:042 : [INF][04242] Bridge.cpp(57) set_attention_ctrl 1\n",
            Record(KnownTime(), 4242, LogInfo, L"Bridge.cpp", 57, L"set_attention_ctrl %d", 1));
  // The folder part of the source is dropped; long thread ids print in full.
  EXPECT_EQ(L"11-14 09:05:07:042 : [ERR][1234567] Bridge.cpp(3183) x\n",
            Record(KnownTime(), 1234567, LogError, L"impl\\src\\Bridge.cpp", 3183, L"x"));
  EXPECT_EQ(L"11-14 09:05:07:042 : [DBG][00007] CommonHelper(1) \n",
            Record(KnownTime(), 7, LogDebug, L"impl\\CommonHelper", 1, L""));
  const wchar_t* tags[] = {L"[NONE]", L"[NONE]", L"[ERR]", L"[WAR]", L"[INF]", L"[TRA]", L"[DBG]", L"[NONE]"};
  for (int level = -1; level <= 6; ++level) EXPECT_STREQ(tags[level + 1], Logger::LevelTag(level)) << level;
}

TEST(RecordText, SecondPassReadsPercentFromEveryField) {
  // Microsoft's wide printf: %s takes a wide string.
  EXPECT_EQ(L"11-14 09:05:07:042 : [INF][04242] a.cpp(9) name=wide\n",
            Record(KnownTime(), 4242, LogInfo, L"a.cpp", 9, L"name=%s", L"wide"));
  // A "%" in the source name is a placeholder in the second pass and consumes
  // the caller's first argument.
  EXPECT_EQ(L"11-14 09:05:07:042 : [INF][04242] Br7ge.cpp(9) v=9\n",
            Record(KnownTime(), 4242, LogInfo, L"Br%dge.cpp", 9, L"v=%d", 7, 9));
  // An argument's own "%s" is not formatted again in the file's record.
  EXPECT_EQ(L"11-14 09:05:07:042 : [INF][04242] a.cpp(9) a%sb\n",
            Record(KnownTime(), 4242, LogInfo, L"a.cpp", 9, L"%s", L"a%sb"));
  // Full-width comma survives as text.
  EXPECT_EQ(L"11-14 09:05:07:042 : [INF][04242] a.cpp(182) Set delay: 30 \xFF0Cresp:0\n",
            Record(KnownTime(), 4242, LogInfo, L"a.cpp", 182, L"Set delay: %d \xFF0Cresp:%d", 30, 0));
}

// ---- Writing to the file ---------------------------------------------------

TEST(Write, PlainRecordIsUtf8WithoutBomAndOneLineFeed) {
  PlainLog log(L"plain");
  SYSTEMTIME before, after;
  GetLocalTime(&before);
  QX_LOG(LogInfo, 77, L"hello %d %s", 5, L"wide");
  GetLocalTime(&after);
  const std::string text = log.Text();
  std::smatch m;
  ASSERT_TRUE(std::regex_match(text, m, kRecordShape)) << text;
  EXPECT_EQ(GetCurrentThreadId(), std::stoul(m[7].str()));
  EXPECT_GE(std::stoi(m[2].str()), before.wDay - (before.wDay != after.wDay));

  QX_LOG(LogInfo, 182, L"Set delay: %d \xFF0Cresp:%d", 30, 0);
  const std::string two = log.Text();
  EXPECT_NE(0xEF, static_cast<unsigned char>(two[0]));  // no BOM
  EXPECT_NE(std::string::npos, two.find("Set delay: 30 \xEF\xBC\x8Cresp:0\n"));
  EXPECT_EQ(std::string::npos, two.find('\r'));
}

TEST(Write, LevelFilterAfterSetup) {
  PlainLog log(L"filter");
  QX_LOG(LogDebug, 1, L"debug dropped");
  QX_LOG(LogTrace, 2, L"trace dropped");
  QX_LOG(LogWarning, 3, L"warning kept");
  QX_LOG(0, 4, L"level zero kept");
  QX_LOG(-7, 5, L"negative kept");
  const std::string text = log.Text();
  EXPECT_EQ(std::string::npos, text.find("dropped"));
  EXPECT_NE(std::string::npos, text.find("[WAR]"));
  EXPECT_NE(std::string::npos, text.find("[NONE][") );
  EXPECT_NE(std::string::npos, text.find("negative kept"));
  EXPECT_EQ(LogInfo, Logger::Instance().level());
}

TEST(Write, ObfuscatedFrameOfA61ByteRecord) {
  RemoveConfig();
  const std::wstring dir = TempDir(L"frame");
  const std::wstring name = dir + L"\\frame.log";
  Logger::Instance().Setup(L"Quillomatic", name.c_str(), 0x100000, 1, 1);
  ASSERT_EQ(name + L".logdat", Logger::Instance().path());

  // Fill the message so that the record is 60 characters plus the line feed.
  SYSTEMTIME t = KnownTime();
  const size_t prefix = Record(t, GetCurrentThreadId(), LogInfo, kLogSource, 12, L"").size() - 1;
  ASSERT_LT(prefix, 60u);
  const std::wstring message(60 - prefix, L'x');
  QX_LOG(LogInfo, 12, message.c_str());

  const std::string bytes = ReadFileBytes(name + L".logdat");
  ASSERT_EQ(65u, bytes.size());
  EXPECT_EQ(std::string("\x3D\x00\x00\x00", 4), bytes.substr(0, 4));
  EXPECT_EQ('\xF5', bytes.back());  // the line feed, complemented
  std::string text = bytes.substr(4);
  logframe::Scramble(reinterpret_cast<unsigned char*>(text.data()), 61);
  EXPECT_NE(std::string::npos, text.find(" : [INF]["));
  EXPECT_EQ(Narrow(message) + "\n", text.substr(text.size() - message.size() - 1));
}

TEST(Write, MultiByteCharactersAreFramedByByteCount) {
  RemoveConfig();
  const std::wstring name = TempDir(L"utf8") + L"\\u.log";
  Logger::Instance().Setup(nullptr, name.c_str(), 0x100000, 1, 0);
  QX_LOG(LogInfo, 1, L"\x00e9\xFF0C");  // 2 + 3 bytes in UTF-8
  auto records = Frames(name + L".logdat");
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("\xC3\xA9\xEF\xBC\x8C\n", records[0].substr(records[0].size() - 6));
}

// ---- Periodic size check ---------------------------------------------------

// Before each record the file is padded to `fill` bytes; a record that
// checked the size finds the file deleted and starts a new one.
static std::vector<int> DeletionsOver(int records, std::int64_t limit, std::int64_t fill, PlainLog& log) {
  std::vector<int> deleted;
  for (int i = 0; i < records; ++i) {
    WriteFileBytes(log.path, std::string(static_cast<size_t>(fill), '#'));
    QX_LOG(LogInfo, 1, L"r");
    const std::string text = log.Text();
    if (text.find('#') == std::string::npos) deleted.push_back(i);
  }
  return deleted;
}

TEST(SizeCheck, EveryHundredthRecordDeletesAFileAtTheLimit) {
  const std::int64_t limit = 4096;
  PlainLog log(L"size", limit);
  std::vector<int> atLimit = DeletionsOver(200, limit, limit, log);
  ASSERT_EQ(2u, atLimit.size());
  EXPECT_EQ(100, atLimit[1] - atLimit[0]);

  std::vector<int> belowLimit = DeletionsOver(100, limit, limit - 1, log);
  EXPECT_TRUE(belowLimit.empty());
}

TEST(SizeCheck, OffMeansCheckedOnlyAtSetup) {
  PlainLog log(L"nosize", 100, false);
  std::vector<int> deleted = DeletionsOver(150, 100, 200, log);
  EXPECT_TRUE(deleted.empty());
  // Set-up itself checks once.
  Logger::Instance().Setup(nullptr, log.path.c_str(), 100, 0, 0);
  EXPECT_FALSE(FileExists(log.path));
}

// ---- Set-up and config.ini -------------------------------------------------

TEST(Setup, DefaultsWithoutConfig) {
  RemoveConfig();
  RemoveTree(DefaultLogs());
  Logger::Instance().Setup(L"Quillomatic", L"QXAttentionPlugin.log", 0x100000, 1, 1);
  EXPECT_EQ(DefaultLogs() + L"\\QXAttentionPlugin.log.logdat", Logger::Instance().path());
  EXPECT_EQ(LogInfo, Logger::Instance().level());
  EXPECT_EQ(0x100000, Logger::Instance().maxSize());
  EXPECT_EQ(1, Logger::Instance().encrypt());
  EXPECT_EQ(0, Logger::Instance().consoleEcho());
  EXPECT_TRUE(PathIsDirectoryW(DefaultLogs().c_str()));
  // The product folder names the logs folder when the name is bare.
  Logger::Instance().Setup(L"Other", L"x.log", 0x100000, 0, 1);
  EXPECT_EQ(CommonAppData() + L"\\Vantoq\\Other\\logs\\x.log", Logger::Instance().path());
}

TEST(Setup, MutexIsNamedAfterTheFirstFileAndKept) {
  // Earlier cases already set up this process's logger: the mutex of the
  // first file stays whatever later set-ups name.
  HANDLE first = Logger::Instance().mutex();
  ASSERT_NE(nullptr, first);
  Logger::Instance().Setup(L"Quillomatic", L"another.log", 0x100000, 1, 1);
  EXPECT_EQ(first, Logger::Instance().mutex());
  HANDLE other = OpenMutexW(SYNCHRONIZE, FALSE, L"Global\\VQMLOG_another.log.logdat");
  EXPECT_EQ(nullptr, other);
}

TEST(Setup, ConfigKeysOverrideTheArguments) {
  WriteConfig("g_vantoq_global_log_level=5\r\ng_vantoq_global_max_size=777\r\n"
              "g_vantoq_log_encryped=0\r\n");
  Logger::Instance().Setup(L"Quillomatic", L"QXAttentionPlugin.log", 0x100000, 1, 1);
  EXPECT_EQ(5, Logger::Instance().level());
  EXPECT_EQ(777, Logger::Instance().maxSize());
  EXPECT_EQ(0, Logger::Instance().encrypt());
  EXPECT_EQ(DefaultLogs() + L"\\QXAttentionPlugin.log", Logger::Instance().path());

  // The key is read as 32 bits; without it the argument is cut to 32 bits.
  WriteConfig("g_vantoq_global_log_level=1\r\n");
  Logger::Instance().Setup(L"Quillomatic", L"QXAttentionPlugin.log", 0x100000000LL + 5, 1, 1);
  EXPECT_EQ(1, Logger::Instance().level());
  EXPECT_EQ(5, Logger::Instance().maxSize());
  EXPECT_EQ(1, Logger::Instance().encrypt());
  RemoveConfig();
}

TEST(Setup, LevelZeroAndNegativeLevels) {
  const std::wstring name = TempDir(L"levels") + L"\\levels.log";
  WriteConfig("g_vantoq_global_log_level=0\r\ng_vantoq_log_encryped=0\r\n");
  Logger::Instance().Setup(nullptr, name.c_str(), 0x100000, 1, 1);
  EXPECT_EQ(0, Logger::Instance().level());
  QX_LOG(LogError, 1, L"error dropped");
  QX_LOG(0, 2, L"zero kept");

  WriteConfig("g_vantoq_global_log_level=-1\r\ng_vantoq_log_encryped=0\r\n");
  Logger::Instance().Setup(nullptr, name.c_str(), 0x100000, 1, 1);
  EXPECT_EQ(-1, Logger::Instance().level());
  QX_LOG(0, 3, L"zero dropped");
  QX_LOG(-2, 4, L"minus two kept");
  RemoveConfig();

  const std::string text = ReadFileBytes(name);
  EXPECT_EQ(std::string::npos, text.find("dropped"));
  EXPECT_NE(std::string::npos, text.find("[NONE]")) << text;
  EXPECT_NE(std::string::npos, text.find("zero kept"));
  EXPECT_NE(std::string::npos, text.find("minus two kept"));
}

// Obfuscating deletes the ".normal" sibling; switching it off by config
// writes a plain file and leaves the ".logdat" as it was.
TEST(Setup, EncryptSwitchAndNormalSibling) {
  RemoveConfig();
  const std::wstring dir = TempDir(L"switch");
  const std::wstring name = dir + L"\\s.log", normal = dir + L"\\s.normal.log";
  WriteFileBytes(normal, "old plain text\n");
  Logger::Instance().Setup(nullptr, name.c_str(), 0x100000, 0, 1);
  EXPECT_TRUE(FileExists(normal));
  Logger::Instance().Setup(nullptr, name.c_str(), 0x100000, 1, 1);
  EXPECT_FALSE(FileExists(normal));
  QX_LOG(LogInfo, 1, L"obfuscated");
  const std::string logdat = ReadFileBytes(name + L".logdat");
  ASSERT_FALSE(logdat.empty());

  WriteConfig("g_vantoq_log_encryped=0\r\n");
  Logger::Instance().Setup(nullptr, name.c_str(), 0x100000, 1, 1);
  RemoveConfig();
  QX_LOG(LogInfo, 2, L"plain");
  EXPECT_EQ(logdat, ReadFileBytes(name + L".logdat"));
  EXPECT_NE(std::string::npos, ReadFileBytes(name).find(") plain\n"));
}

// ---- Fresh processes -------------------------------------------------------

// Roles run in a child process; their exit code is the verdict.
static int RoleBeforeSetup(const std::string& mode) {
  if (mode == "filtered") {
    // Level 6 exceeds the fresh singleton's 5: no set-up, nothing written.
    QX_LOG(6, 1, L"never");
    return Logger::Instance().path()[0] == L'\0' ? 0 : 1;
  }
  // Level 5 passes the fresh filter and triggers the fall-back set-up: the
  // file is named after the executable, obfuscated, and the record written.
  QX_LOG(LogDebug, 2, L"fallback %d", 7);
  return Logger::Instance().path()[0] != L'\0' ? 0 : 1;
}

static int RoleReparseFolder() {
  // The logs folder is a link: set-up settles no path and makes no mutex.
  Logger::Instance().Setup(nullptr, L"C:\\qx-reparse\\logs\\r.log", 0x100000, 0, 1);
  const bool refused = Logger::Instance().path()[0] == L'\0' && Logger::Instance().mutex() == nullptr;
  return refused ? 0 : 1;
}

static int RoleEcho() {
  WriteConfig("g_vantoq_log_printf=1\r\ng_vantoq_log_encryped=0\r\n");
  const std::wstring name = TempDir(L"echo") + L"\\echo.log";
  Logger::Instance().Setup(nullptr, name.c_str(), 0x100000, 1, 1);
  RemoveConfig();
  QX_LOG(LogInfo, 5, L"echo %s", L"100%d");
  return Logger::Instance().consoleEcho() == 1 ? 0 : 1;
}

TEST(FreshProcess, LevelFilterRunsBeforeSetup) {
  RemoveConfig();
  EXPECT_EQ(0, WaitChild(StartSelf(L"before-setup", {L"filtered"}), 30000));

  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  const std::wstring fallback = DefaultLogs() + L"\\" + PathFindFileNameW(self) + L".log.logdat";
  DeleteFileW(fallback.c_str());
  EXPECT_EQ(0, WaitChild(StartSelf(L"before-setup", {L"fallback"}), 30000));
  auto records = Frames(fallback);
  ASSERT_EQ(1u, records.size());
  EXPECT_NE(std::string::npos, records[0].find("[DBG]"));
  EXPECT_NE(std::string::npos, records[0].find("LoggerTest.cpp(2) fallback 7\n"));
}

// C:\qx-reparse\logs is a link to the folder "real" beside it (made by the
// test's fixture); Wine reports a linked folder as a reparse point.
TEST(FreshProcess, LinkedLogFolderStopsSetup) {
  RemoveConfig();
  EXPECT_EQ(0, WaitChild(StartSelf(L"reparse-folder", {}), 30000));
  EXPECT_FALSE(FileExists(L"C:\\qx-reparse\\real\\r.log"));
}

TEST(FreshProcess, ConsoleEchoFormatsTheRecordOnceMore) {
  const std::wstring out = TempDir(L"echo-out") + L"\\stdout.txt";
  ASSERT_EQ(0, WaitChild(StartSelf(L"echo", {}, out), 30000));
  const std::string console = ReadFileBytes(out);
  // The file keeps "100%d"; the console formats it again (with no argument the
  // runtime prints whatever it finds, so only the absence of "%d" is certain).
  EXPECT_NE(std::string::npos, console.find("LoggerTest.cpp(5) echo 100")) << console;
  EXPECT_EQ(std::string::npos, console.find("100%d")) << console;
}

int main(int argc, char** argv) {
  SetArgs(argc, argv);
  if (argc >= 3 && std::string(argv[1]) == "--role") {
    const std::string role = argv[2];
    if (role == "before-setup") return RoleBeforeSetup(argc > 3 ? argv[3] : "");
    if (role == "echo") return RoleEcho();
    if (role == "reparse-folder") return RoleReparseFolder();
    return 2;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
