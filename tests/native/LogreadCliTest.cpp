// The logread tool run as a child process, as a support engineer runs it: the
// table of cases in data/cases.txt, a log of the size the logger cuts at, and
// following a file that grows, is torn, deleted, replaced or shortened.
#include "LogFrame.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const fs::path kDataDir = QX_TEST_DATA_DIR;

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "cannot read " << path;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const fs::path& path, const std::string& bytes, bool append = false) {
  std::ofstream out(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc));
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  ASSERT_TRUE(out.good()) << "cannot write " << path;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) {
    const auto begin = part.find_first_not_of(" \t");
    parts.push_back(begin == std::string::npos ? "" : part.substr(begin, part.find_last_not_of(" \t") - begin + 1));
  }
  if (!text.empty() && text.back() == separator) parts.push_back("");
  return parts;
}

// The bytes an input description of cases.txt stands for ("frames:F+hex:G").
std::string BuildInput(const std::string& entry) {
  std::string out;
  for (const auto& part : Split(entry, '+')) {
    if (part == "empty") continue;
    const auto colon = part.find(':');
    const std::string kind = part.substr(0, colon);
    std::istringstream lines(ReadFile(kDataDir / part.substr(colon + 1)));
    if (kind == "raw") {
      out += lines.str();
    } else if (kind == "frames") {  // each line, line feed included, as one frame;
      // an empty line is one more line feed of the record before it (the
      // JSON's own line feed of a "resp:" record)
      std::vector<std::string> records;
      for (std::string line; std::getline(lines, line);) {
        if (line.empty() && !records.empty())
          records.back() += "\n";
        else
          records.push_back(line + "\n");
      }
      for (const auto& record : records) out += logframe::EncodeFrame(record);
    } else if (kind == "hex") {
      for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        for (std::string word; words >> word;) out.push_back(static_cast<char>(std::stoi(word, nullptr, 16)));
      }
    } else {
      ADD_FAILURE() << "unknown input part " << part;
    }
  }
  return out;
}

class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (fs::path(testing::TempDir()) / "logread-XXXXXX").string();
    if (!mkdtemp(pattern.data())) ADD_FAILURE() << "mkdtemp failed";
    path_ = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  fs::path operator/(const std::string& name) const { return path_ / name; }

 private:
  fs::path path_;
};

// logread as a child process, its standard output and error in files that are
// read back while it runs; every wait is bounded and the destructor ends a
// tool that is still running.
class Tool {
 public:
  // Runs in `cwd` when one is given, so that file names can be relative.
  explicit Tool(std::vector<std::string> args, const std::string& stdin_path = "/dev/null",
                const std::string& cwd = "") {
    args.insert(args.begin(), QX_LOGREAD_PATH);
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      const int in = open(stdin_path.c_str(), O_RDONLY);
      const int out = open((dir_ / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err = open((dir_ / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(120);
      if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(122);
#ifndef QX_SANITIZED
      // A tool that allocated what a corrupt length field announces dies here
      // instead of passing on a machine with memory to spare.
      struct rlimit limit = {64u << 20, 64u << 20};
      setrlimit(RLIMIT_AS, &limit);
#endif
      execv(argv[0], argv.data());
      _exit(121);
    }
    EXPECT_GT(pid_, 0) << "fork failed";
  }
  ~Tool() {
    if (pid_ > 0 && exit_code_ < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  std::string out() const { return Read("out"); }
  std::string err() const { return Read("err"); }
  bool WaitForStdout(const std::string& text) {
    return WaitUntil([&] { return out().find(text) != std::string::npos; }, 5s);
  }
  bool WaitForStderr(const std::string& text) {
    return WaitUntil([&] { return err().find(text) != std::string::npos; }, 5s);
  }
  // Waits for the exit; false if the tool did not end in time.
  bool Finish() {
    return WaitUntil([&] {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_)
        exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return exit_code_ >= 0;
    }, 10s);
  }
  int exit_code_ = -1;

 private:
  template <class Done>
  static bool WaitUntil(Done done, std::chrono::milliseconds limit) {
    for (auto end = std::chrono::steady_clock::now() + limit; !done(); std::this_thread::sleep_for(10ms))
      if (std::chrono::steady_clock::now() > end) return false;
    return true;
  }
  std::string Read(const char* name) const {
    std::ifstream in(dir_ / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  ScratchDir dir_;
  pid_t pid_ = -1;
};

// ---------------------------------------------------------------------------
// The table of cases.

struct CliCase {
  std::vector<std::string> columns;  // name, files, options, exit, stdout, stderr
  int line = 0;
};
void PrintTo(const CliCase& c, std::ostream* out) { *out << c.columns[0]; }

std::vector<CliCase> LoadCases() {
  std::vector<CliCase> cases;
  std::ifstream in(kDataDir / "cases.txt");
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.find_first_not_of(" \t") == std::string::npos || line[0] == '#') continue;
    cases.push_back({Split(line, '|'), number});
    if (cases.back().columns.size() != 6) ADD_FAILURE() << "cases.txt:" << number << ": expected 6 columns";
  }
  return cases;
}

class CliCaseTest : public testing::TestWithParam<CliCase> {};

TEST_P(CliCaseTest, OutputAndExitStatus) {
  const auto& c = GetParam().columns;
  SCOPED_TRACE("cases.txt:" + std::to_string(GetParam().line));
  ScratchDir dir;
  std::vector<std::string> args;
  // Words separated by blanks; "double quotes" keep blanks in a word.
  std::string word;
  bool quoted = false, in_word = false;
  for (char ch : c[2] + " ") {
    if (ch == '"') {
      quoted = !quoted;
      in_word = true;
    } else if (ch == ' ' && !quoted) {
      if (in_word) args.push_back(word);
      word.clear();
      in_word = false;
    } else {
      word += ch;
      in_word = true;
    }
  }

  std::string stdin_path = "/dev/null", single_input;
  int index = 0;
  for (auto entry : Split(c[1], ';')) {
    if (entry.empty()) continue;
    const std::string name = "input" + std::to_string(index++) + ".logdat";
    const std::string path = (dir / name).string();
    const bool on_stdin = entry.rfind("stdin=", 0) == 0;
    args.push_back(on_stdin ? "-" : name);
    if (entry == "missing") continue;
    single_input = BuildInput(on_stdin ? entry.substr(6) : entry);
    WriteFile(path, single_input);
    if (on_stdin) stdin_path = path;
  }
  std::string expected_out = c[4] == "=input" ? single_input : "";
  if (c[4] != "-" && c[4] != "=input")
    for (const auto& name : Split(c[4], '+')) expected_out += ReadFile(kDataDir / name);

  Tool tool(args, stdin_path, (dir / "").string());
  ASSERT_TRUE(tool.Finish()) << "logread did not end in time";
  EXPECT_EQ(tool.exit_code_, std::stoi(c[3])) << "stderr: " << tool.err();
  EXPECT_TRUE(tool.out() == expected_out) << "stdout differs:\n" << tool.out();
  if (c[5].empty())
    EXPECT_EQ(tool.err(), "");
  else
    EXPECT_NE(tool.err().find(c[5]), std::string::npos) << "stderr: " << tool.err();
}

INSTANTIATE_TEST_SUITE_P(Cases, CliCaseTest, testing::ValuesIn(LoadCases()),
                         [](const testing::TestParamInfo<CliCase>& info) {
                           std::string name = info.param.columns[0];
                           for (char& ch : name)
                             if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
                           return name;
                         });

// A log of the size the logger cuts its files at, read by the tool in many
// pieces whose borders fall inside frames.
TEST(LogreadCli, LargeFileDecodesCompletely) {
  ScratchDir dir;
  std::string text, frames;
  for (int i = 0; text.size() < (1u << 20); ++i) {
    const std::string record = "11-14 09:05:07:042 : [INF][04242] Bridge.cpp(57) record " + std::to_string(i) +
                               std::string(static_cast<std::size_t>(i % 97), '.') + "\n";
    text += record;
    frames += logframe::EncodeFrame(record);
  }
  WriteFile(dir / "big.logdat", frames);
  Tool tool({(dir / "big.logdat").string()});
  ASSERT_TRUE(tool.Finish());
  EXPECT_EQ(tool.exit_code_, 0) << tool.err();
  EXPECT_TRUE(tool.out() == text) << "decoded " << tool.out().size() << " of " << text.size() << " bytes";
}

// ---------------------------------------------------------------------------
// Following.

std::string Record(int n) {
  return "11-14 09:05:07:" + std::to_string(100 + n) + " : [INF][04242] Bridge.cpp(57) record " +
         std::to_string(n) + "\n";
}
std::string Frame(int n) { return logframe::EncodeFrame(Record(n)); }

TEST(LogreadFollow, WaitsForATornFrameThenStartsAgainWhenTheFileIsDeletedReplacedOrShortened) {
  ScratchDir dir;
  const fs::path log = dir / "QXAttentionPlugin.log.logdat";
  WriteFile(log, Frame(1));
  Tool tool({"--follow", log.string()});
  ASSERT_TRUE(tool.WaitForStdout(Record(1)));

  // The logger writes the length and the text with two writes; the tool may
  // look in between and must wait for the rest, not report or skip it.
  WriteFile(log, Frame(2).substr(0, 4), true);
  std::this_thread::sleep_for(500ms);
  WriteFile(log, Frame(2).substr(4), true);
  ASSERT_TRUE(tool.WaitForStdout(Record(2)));

  // Deleted at the size limit with a torn frame in it; the next record
  // creates a new file.
  WriteFile(log, Frame(3).substr(0, 6), true);
  std::this_thread::sleep_for(500ms);
  fs::remove(log);
  ASSERT_TRUE(tool.WaitForStderr("file was deleted"));
  WriteFile(log, Frame(4));
  ASSERT_TRUE(tool.WaitForStdout(Record(4)));
  EXPECT_NE(tool.err().find("created again; reading it from the beginning (6 bytes of an unfinished frame dropped)"),
            std::string::npos)
      << tool.err();

  // Replaced in one step (rename over it), then shortened in place.
  WriteFile(dir / "next.logdat", Frame(5));
  fs::rename(dir / "next.logdat", log);
  ASSERT_TRUE(tool.WaitForStdout(Record(5)));
  EXPECT_NE(tool.err().find("file was replaced"), std::string::npos) << tool.err();
  const std::string shorter = "11-14 09:05:09:000 : [INF][00001] B.cpp(1) short\n";
  WriteFile(log, logframe::EncodeFrame(shorter));
  ASSERT_TRUE(tool.WaitForStdout(shorter));
  EXPECT_NE(tool.err().find("file was shortened"), std::string::npos) << tool.err();

  EXPECT_EQ(tool.out(), Record(1) + Record(2) + Record(4) + Record(5) + shorter);
}

TEST(LogreadFollow, PlainAndFramedLogsTogetherPrintWholeLinesTaggedWithTheirFile) {
  ScratchDir dir;
  const fs::path plain = dir / "QXAttentionPlugin.log";
  const fs::path framed = dir / "QXAttentionPlugin.log.logdat";
  const auto tagged = [](const fs::path& file, int n) { return file.string() + ": " + Record(n); };
  WriteFile(plain, Record(1));
  WriteFile(framed, Frame(2));
  Tool tool({"-q", "-f", plain.string(), framed.string()});
  ASSERT_TRUE(tool.WaitForStdout(tagged(framed, 2)));
  ASSERT_TRUE(tool.WaitForStdout(tagged(plain, 1)));

  // Half a plain line is held back until its line feed arrives, so that the
  // other file's records cannot land in the middle of it.
  WriteFile(plain, Record(3).substr(0, 20), true);
  WriteFile(framed, Frame(4), true);
  ASSERT_TRUE(tool.WaitForStdout(tagged(framed, 4)));
  std::this_thread::sleep_for(300ms);
  WriteFile(plain, Record(3).substr(20), true);
  ASSERT_TRUE(tool.WaitForStdout(tagged(plain, 3)));
  EXPECT_NE(tool.out().find(tagged(framed, 4) + tagged(plain, 3)), std::string::npos) << tool.out();
  EXPECT_EQ(tool.err(), "");
}

TEST(LogreadFollow, CorruptFileIsReportedAndItsReplacementRead) {
  ScratchDir dir;
  const fs::path log = dir / "QXAttentionPlugin.log.logdat";
  WriteFile(log, Frame(1) + std::string("\xFF\xFF\xFF\x7F", 4));
  Tool tool({"-f", log.string()});
  ASSERT_TRUE(tool.WaitForStderr("waiting for it to be replaced"));
  ASSERT_TRUE(tool.WaitForStdout(Record(1)));
  EXPECT_NE(tool.err().find("corrupt length at offset"), std::string::npos) << tool.err();

  fs::remove(log);
  WriteFile(log, Frame(2));
  ASSERT_TRUE(tool.WaitForStdout(Record(2)));
  EXPECT_EQ(tool.out(), Record(1) + Record(2));
}

}  // namespace
