// The logread tool run as a child process, as a support engineer runs it:
// the table of cases in data/cases.txt (input files made with the logger's
// own frame encoder, expected output and exit status), and following a file
// that grows, is deleted, recreated, replaced or shortened under the tool.
#include "LogFrame.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
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
const std::string kLogread = QX_LOGREAD_PATH;

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

std::string Trim(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t at = 0;
  for (;;) {
    const auto next = text.find(separator, at);
    parts.push_back(Trim(text.substr(at, next - at)));
    if (next == std::string::npos) return parts;
    at = next + 1;
  }
}

// Each line of a data file, line feed included, as one frame.
std::string Frames(const std::string& text) {
  std::string out;
  std::size_t at = 0;
  while (at < text.size()) {
    const auto end = text.find('\n', at);
    const auto stop = end == std::string::npos ? text.size() : end + 1;
    out += logframe::EncodeFrame(std::string_view(text).substr(at, stop - at));
    at = stop;
  }
  return out;
}

std::string FromHex(const std::string& text) {
  std::string out;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    line = line.substr(0, line.find('#'));
    std::istringstream words(line);
    std::string word;
    while (words >> word) out.push_back(static_cast<char>(std::stoi(word, nullptr, 16)));
  }
  return out;
}

// The bytes an input description of cases.txt stands for.
std::string BuildInput(const std::string& entry) {
  std::string out;
  for (const auto& part : Split(entry, '+')) {
    if (part == "empty") continue;
    const auto colon = part.find(':');
    const std::string kind = part.substr(0, colon);
    const std::string contents = ReadFile(kDataDir / part.substr(colon + 1));
    if (kind == "frames")
      out += Frames(contents);
    else if (kind == "raw")
      out += contents;
    else if (kind == "hex")
      out += FromHex(contents);
    else
      ADD_FAILURE() << "unknown input part " << part;
  }
  return out;
}

// A scratch directory for one test, removed afterwards.
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
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// logread as a child process with its standard output and error on pipes.
class Tool {
 public:
  // `stdin_path` empty: standard input is /dev/null.
  Tool(const std::vector<std::string>& args, const std::string& stdin_path = {}) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe failed";
      return;
    }
    std::vector<std::string> argv_text{kLogread};
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& arg : argv_text) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const std::string input = stdin_path.empty() ? "/dev/null" : stdin_path;

    pid_ = fork();
    if (pid_ == 0) {
      const int in = open(input.c_str(), O_RDONLY);
      if (in < 0 || dup2(in, 0) < 0 || dup2(out[1], 1) < 0 || dup2(err[1], 2) < 0) _exit(120);
#ifndef QX_SANITIZED
      // A tool that tried to allocate what a corrupt length field announces
      // would die here instead of passing quietly on a machine with memory
      // to spare. (AddressSanitizer needs far more address space.)
      struct rlimit limit = {64u << 20, 64u << 20};
      setrlimit(RLIMIT_AS, &limit);
#endif
      execv(argv[0], argv.data());
      _exit(121);
    }
    close(out[1]);
    close(err[1]);
    out_fd_ = out[0];
    err_fd_ = err[0];
    if (pid_ < 0) ADD_FAILURE() << "fork failed";
  }

  ~Tool() {
    if (pid_ > 0 && !exited_) {
      kill(pid_, SIGTERM);
      WaitForExit(5s);
      if (!exited_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
      }
    }
    if (out_fd_ >= 0) close(out_fd_);
    if (err_fd_ >= 0) close(err_fd_);
  }

  // Reads what the tool has written until `done` holds or `limit` passes.
  template <class Done>
  bool ReadUntil(Done done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
      const int ready = poll(fds, 2, static_cast<int>(std::min<long long>(left.count(), 100)));
      if (ready < 0) return false;
      bool open_pipe = false;
      for (int i = 0; i < 2; ++i) {
        int& fd = i == 0 ? out_fd_ : err_fd_;
        if (fd < 0) continue;
        open_pipe = true;
        if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        char buffer[4096];
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got > 0) {
          (i == 0 ? out_ : err_).append(buffer, static_cast<std::size_t>(got));
        } else {
          close(fd);
          fd = -1;
        }
      }
      if (!open_pipe) return done();
    }
    return true;
  }

  bool WaitForStdout(const std::string& text, std::chrono::milliseconds limit = 5s) {
    return ReadUntil([&] { return out_.find(text) != std::string::npos; }, limit);
  }
  bool WaitForStderr(const std::string& text, std::chrono::milliseconds limit = 5s) {
    return ReadUntil([&] { return err_.find(text) != std::string::npos; }, limit);
  }

  // Collects all output and the exit status; false if it did not end in time.
  bool Finish(std::chrono::milliseconds limit = 10s) {
    ReadUntil([&] { return out_fd_ < 0 && err_fd_ < 0; }, limit);
    return WaitForExit(1s);
  }

  bool WaitForExit(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!exited_) {
      int status = 0;
      const pid_t done = waitpid(pid_, &status, WNOHANG);
      if (done == pid_) {
        exited_ = true;
        exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        break;
      }
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(10ms);
    }
    return true;
  }

  const std::string& out() const { return out_; }
  const std::string& err() const { return err_; }
  int exit_code() const { return exit_code_; }

 private:
  pid_t pid_ = -1;
  int out_fd_ = -1;
  int err_fd_ = -1;
  bool exited_ = false;
  int exit_code_ = 0xdead;
  std::string out_;
  std::string err_;
};

// ---------------------------------------------------------------------------
// The table of cases.

struct CliCase {
  std::string name;
  std::string files;
  std::string options;
  int exit_code = 0;
  std::string expected_out;
  std::string expected_err;
  int line = 0;
};

std::vector<CliCase> LoadCases() {
  std::vector<CliCase> cases;
  std::ifstream in(kDataDir / "cases.txt");
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (Trim(line).empty() || Trim(line)[0] == '#') continue;
    const auto columns = Split(line, '|');
    if (columns.size() != 6) {
      ADD_FAILURE() << "cases.txt:" << number << ": expected 6 columns";
      continue;
    }
    cases.push_back({columns[0], columns[1], columns[2], std::stoi(columns[3]), columns[4], columns[5], number});
  }
  return cases;
}

// Names the case in failure messages instead of dumping its bytes.
void PrintTo(const CliCase& c, std::ostream* out) { *out << c.name; }

class CliCaseTest : public testing::TestWithParam<CliCase> {};

TEST_P(CliCaseTest, OutputAndExitStatus) {
  const CliCase& c = GetParam();
  SCOPED_TRACE("cases.txt:" + std::to_string(c.line));
  ScratchDir dir;
  std::vector<std::string> args;
  std::istringstream options(c.options);
  for (std::string word; options >> word;) args.push_back(word);

  std::string stdin_path, single_input;
  int index = 0;
  for (auto entry : Split(c.files, ';')) {
    if (entry.empty()) continue;
    const fs::path path = dir.path() / ("input" + std::to_string(index++) + ".logdat");
    if (entry == "missing") {
      args.push_back(path.string());
      continue;
    }
    const bool on_stdin = entry.rfind("stdin=", 0) == 0;
    if (on_stdin) entry = entry.substr(6);
    single_input = BuildInput(entry);
    WriteFile(path, single_input);
    if (on_stdin) {
      stdin_path = path.string();
      args.push_back("-");
    } else {
      args.push_back(path.string());
    }
  }

  std::string expected_out;
  if (c.expected_out == "=input") {
    expected_out = single_input;
  } else if (c.expected_out != "-") {
    for (const auto& name : Split(c.expected_out, '+')) expected_out += ReadFile(kDataDir / name);
  }

  Tool tool(args, stdin_path);
  ASSERT_TRUE(tool.Finish()) << "logread did not end in time";
  EXPECT_EQ(tool.exit_code(), c.exit_code) << "stderr: " << tool.err();
  EXPECT_TRUE(tool.out() == expected_out) << "stdout differs:\n" << tool.out();
  if (c.expected_err.empty())
    EXPECT_EQ(tool.err(), "");
  else
    EXPECT_NE(tool.err().find(c.expected_err), std::string::npos) << "stderr: " << tool.err();
}

INSTANTIATE_TEST_SUITE_P(Cases, CliCaseTest, testing::ValuesIn(LoadCases()),
                         [](const testing::TestParamInfo<CliCase>& info) {
                           std::string name = info.param.name;
                           for (char& ch : name)
                             if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
                           return name;
                         });

TEST(LogreadCli, HelpExplainsOptionsAndExitStatus) {
  Tool tool({"--help"});
  ASSERT_TRUE(tool.Finish());
  EXPECT_EQ(tool.exit_code(), 0);
  for (const char* text : {"--follow", "--format=FORM", "-q, --quiet", "Exit status", "torn", "  3  "})
    EXPECT_NE(tool.out().find(text), std::string::npos) << text;
  EXPECT_EQ(tool.err(), "");
}

// A log of the size the logger cuts its files at decodes whole, read in many
// pieces by the tool.
TEST(LogreadCli, LargeFileDecodesCompletely) {
  ScratchDir dir;
  std::string text, frames;
  for (int i = 0; text.size() < (1u << 20); ++i) {
    const std::string record = "11-14 09:05:07:042 : [INF][04242] Bridge.cpp(57) record " + std::to_string(i) +
                               std::string(static_cast<std::size_t>(i % 97), '.') + "\n";
    text += record;
    frames += logframe::EncodeFrame(record);
  }
  WriteFile(dir.path() / "big.logdat", frames);
  Tool tool({(dir.path() / "big.logdat").string()});
  ASSERT_TRUE(tool.Finish());
  EXPECT_EQ(tool.exit_code(), 0) << tool.err();
  EXPECT_TRUE(tool.out() == text) << "decoded " << tool.out().size() << " of " << text.size() << " bytes";
}

// ---------------------------------------------------------------------------
// Following.

std::string Record(int n) {
  return "11-14 09:05:07:" + std::to_string(100 + n) + " : [INF][04242] Bridge.cpp(57) record " +
         std::to_string(n) + "\n";
}

TEST(LogreadFollow, PrintsAppendedFramesAndWaitsForATornOne) {
  ScratchDir dir;
  const fs::path log = dir.path() / "QXAttentionPlugin.log.logdat";
  WriteFile(log, logframe::EncodeFrame(Record(1)));
  Tool tool({"-f", log.string()});
  ASSERT_TRUE(tool.WaitForStdout(Record(1)));

  // The logger writes the length and the text with two writes; the tool may
  // look in between and must wait for the rest, not report or skip it.
  const std::string frame = logframe::EncodeFrame(Record(2));
  WriteFile(log, frame.substr(0, 4), true);
  std::this_thread::sleep_for(500ms);
  WriteFile(log, frame.substr(4, 10), true);
  std::this_thread::sleep_for(500ms);
  WriteFile(log, frame.substr(14), true);
  WriteFile(log, logframe::EncodeFrame(Record(3)), true);
  ASSERT_TRUE(tool.WaitForStdout(Record(3)));
  EXPECT_EQ(tool.out(), Record(1) + Record(2) + Record(3));
  EXPECT_EQ(tool.err(), "");
}

TEST(LogreadFollow, StartsAgainWhenTheFileIsDeletedReplacedOrShortened) {
  ScratchDir dir;
  const fs::path log = dir.path() / "QXAttentionPlugin.log.logdat";
  WriteFile(log, logframe::EncodeFrame(Record(1)) + logframe::EncodeFrame(Record(2)));
  Tool tool({"--follow", log.string()});
  ASSERT_TRUE(tool.WaitForStdout(Record(2)));

  // Deleted at the size limit; the next record creates a new file. A torn
  // frame left in the old file is dropped.
  WriteFile(log, logframe::EncodeFrame(Record(3)).substr(0, 6), true);
  std::this_thread::sleep_for(500ms);
  fs::remove(log);
  ASSERT_TRUE(tool.WaitForStderr("file was deleted"));
  WriteFile(log, logframe::EncodeFrame(Record(4)));
  ASSERT_TRUE(tool.WaitForStdout(Record(4)));
  EXPECT_NE(tool.err().find("created again; reading it from the beginning (6 bytes of an unfinished frame "
                            "dropped)"),
            std::string::npos)
      << tool.err();

  // Replaced by another file in one step (rename over it).
  WriteFile(dir.path() / "next.logdat", logframe::EncodeFrame(Record(5)));
  fs::rename(dir.path() / "next.logdat", log);
  ASSERT_TRUE(tool.WaitForStdout(Record(5)));
  EXPECT_NE(tool.err().find("file was replaced"), std::string::npos) << tool.err();

  // Shortened in place (same file, now smaller than what was read).
  const std::string shorter = "11-14 09:05:09:000 : [INF][00001] B.cpp(1) short\n";
  WriteFile(log, logframe::EncodeFrame(shorter));
  ASSERT_TRUE(tool.WaitForStdout(shorter));
  EXPECT_NE(tool.err().find("file was shortened"), std::string::npos) << tool.err();

  EXPECT_EQ(tool.out(), Record(1) + Record(2) + Record(4) + Record(5) + shorter);
}

TEST(LogreadFollow, WaitsForAFileThatDoesNotExistYet) {
  ScratchDir dir;
  const fs::path log = dir.path() / "late.logdat";
  Tool tool({"-f", log.string()});
  ASSERT_TRUE(tool.WaitForStderr("does not exist yet"));
  WriteFile(log, logframe::EncodeFrame(Record(1)));
  ASSERT_TRUE(tool.WaitForStdout(Record(1)));
}

TEST(LogreadFollow, PlainLogAndFramedLogTogetherPrintWholeLines) {
  ScratchDir dir;
  const fs::path plain = dir.path() / "QXAttentionPlugin.log";
  const fs::path framed = dir.path() / "QXAttentionPlugin.log.logdat";
  WriteFile(plain, Record(1));
  WriteFile(framed, logframe::EncodeFrame(Record(2)));
  Tool tool({"-q", "-f", plain.string(), framed.string()});
  ASSERT_TRUE(tool.WaitForStdout(Record(2)));
  ASSERT_TRUE(tool.WaitForStdout(Record(1)));

  // Half a plain line is held back until its line feed arrives, so that the
  // other file's records cannot land in the middle of it.
  const std::string line = Record(3);
  WriteFile(plain, line.substr(0, 20), true);
  WriteFile(framed, logframe::EncodeFrame(Record(4)), true);
  ASSERT_TRUE(tool.WaitForStdout(Record(4)));
  std::this_thread::sleep_for(300ms);
  WriteFile(plain, line.substr(20), true);
  ASSERT_TRUE(tool.WaitForStdout(Record(3)));
  EXPECT_NE(tool.out().find(Record(4) + Record(3)), std::string::npos) << tool.out();
  EXPECT_EQ(tool.err(), "");
}

TEST(LogreadFollow, CorruptFileIsReportedAndItsReplacementRead) {
  ScratchDir dir;
  const fs::path log = dir.path() / "QXAttentionPlugin.log.logdat";
  WriteFile(log, logframe::EncodeFrame(Record(1)) + std::string("\xFF\xFF\xFF\x7F", 4));
  Tool tool({"-f", log.string()});
  ASSERT_TRUE(tool.WaitForStderr("waiting for it to be replaced"));
  tool.WaitForStdout(Record(1), 1s);
  EXPECT_NE(tool.err().find("corrupt length at offset"), std::string::npos) << tool.err();
  EXPECT_EQ(tool.out(), Record(1));

  fs::remove(log);
  WriteFile(log, logframe::EncodeFrame(Record(2)));
  ASSERT_TRUE(tool.WaitForStdout(Record(2)));
}

}  // namespace
