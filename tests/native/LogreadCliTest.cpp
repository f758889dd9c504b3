// The logread tool run from the shell, as a support engineer runs it: the
// table of cases in data/cases.txt, a log of the size the logger cuts at, and
// following files that grow, are torn, deleted, replaced, shortened or
// corrupt. The frames are made here from their definition, not by the codec.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const fs::path kData = QX_TEST_DATA_DIR;

std::string Read(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
void Write(const fs::path& path, const std::string& bytes, bool append = false) {
  std::ofstream(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc)) << bytes;
}
// A frame: the byte count in 4 bytes, little-endian, then each byte as 255 - b.
std::string Frame(const std::string& text) {
  std::string out;
  for (int i = 0; i < 4; ++i) out += static_cast<char>(text.size() >> 8 * i);
  for (char c : text) out += static_cast<char>(255 - static_cast<unsigned char>(c));
  return out;
}
std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text + separator);
  for (std::string part; std::getline(in, part, separator);) {
    part.erase(0, part.find_first_not_of(" \t"));
    parts.push_back(part.erase(part.find_last_not_of(" \t") + 1));
  }
  return parts;
}

// A fresh folder, removed with the object.
struct Scratch {
  Scratch() {
    std::string pattern = (fs::path(testing::TempDir()) / "logread-XXXXXX").string();
    path = mkdtemp(pattern.data());
  }
  ~Scratch() { fs::remove_all(path); }
  fs::path path;
};

// logread with ARGS (shell words) in `dir`, for 30 s at most, its standard
// output and error in dir/out and dir/err: run to its end, or in the
// background until the object goes.
struct Tool {
  Tool(const fs::path& dir, const std::string& args, bool background = false) : dir(dir) {
#ifndef QX_SANITIZED
    // A tool that allocates what a corrupt length field announces dies here,
    // not only on a machine short of memory.
    const std::string limit = "ulimit -v 65536 && ";
#else
    const std::string limit;
#endif
    const int status = std::system(("cd '" + dir.string() + "' && { " + limit +
                                    "exec timeout 30 " QX_LOGREAD_PATH " " + args + " >out 2>err" +
                                    (background ? " & echo $! >pid" : "") + "; }")
                                       .c_str());
    code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  ~Tool() {
    if (fs::exists(dir / "pid")) kill(std::stoi(Read(dir / "pid")), SIGTERM);
  }
  std::string out() const { return Read(dir / "out"); }
  std::string err() const { return Read(dir / "err"); }
  bool Out(const std::string& text) const {
    return Until([&] { return out().find(text) != std::string::npos; });
  }
  bool Err(const std::string& text) const {
    return Until([&] { return err().find(text) != std::string::npos; });
  }
  template <class Done>
  static bool Until(Done done) {
    for (auto end = std::chrono::steady_clock::now() + 10s; !done();
         std::this_thread::sleep_for(10ms))
      if (std::chrono::steady_clock::now() > end) return false;
    return true;
  }
  const fs::path dir;
  int code;
};

// The bytes an input of cases.txt stands for ("frames:F+hex:G").
std::string Input(const std::string& entry) {
  std::string out;
  for (const auto& part : Split(entry, '+')) {
    const std::string kind = part.substr(0, part.find(':'));
    std::istringstream lines(kind == "empty" ? "" : Read(kData / part.substr(part.find(':') + 1)));
    if (kind == "raw") out += lines.str();
    std::vector<std::string> records;  // frames: an empty line is a line feed of the record before
    for (std::string line; kind == "frames" && std::getline(lines, line);)
      line.empty() && !records.empty() ? records.back() += "\n" : records.emplace_back(line + "\n");
    for (const auto& record : records) out += Frame(record);
    for (std::string line; kind == "hex" && std::getline(lines, line);) {
      std::istringstream words(line.substr(0, line.find('#')));
      for (std::string word; words >> word;) out += static_cast<char>(std::stoi(word, nullptr, 16));
    }
  }
  return out;
}

// Every case of cases.txt (its head tells the columns).
TEST(LogreadCli, CasesOfTheTable) {
  std::ifstream in(kData / "cases.txt");
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.find_first_not_of(" \t") == std::string::npos || line[0] == '#') continue;
    const std::vector<std::string> c =
        Split(line, '|');  // name, files, options, exit, stdout, stderr
    SCOPED_TRACE("cases.txt:" + std::to_string(number) + ": " + c[0]);
    ASSERT_EQ(6u, c.size());
    Scratch dir;
    std::string args = c[2], input;  // inputs named input0.logdat ... in the tool's folder
    for (std::size_t i = 0; i < Split(c[1], ';').size(); ++i) {
      const std::string entry = Split(c[1], ';')[i], name = "input" + std::to_string(i) + ".logdat";
      const bool stdin = entry.rfind("stdin=", 0) == 0;
      args += (stdin ? " - <" : " ") + name;
      if (entry != "missing")
        Write(dir.path / name, input = Input(stdin ? entry.substr(6) : entry));
    }
    std::string expected = c[4] == "=input" ? input : "";
    for (const auto& name : Split(c[4], '+'))
      expected += c[4] == "-" || c[4] == "=input" ? "" : Read(kData / name);
    const Tool tool(dir.path, args);
    EXPECT_EQ(std::stoi(c[3]), tool.code) << "stderr: " << tool.err();
    EXPECT_TRUE(tool.out() == expected) << "stdout differs:\n" << tool.out();
    EXPECT_TRUE(c[5].empty() ? tool.err().empty() : tool.err().find(c[5]) != std::string::npos)
        << tool.err();
  }
}

// A log of the size the logger cuts its files at, read in many pieces whose
// borders fall inside frames.
TEST(LogreadCli, LargeFileDecodesCompletely) {
  Scratch dir;
  std::string text, frames;
  for (int i = 0; text.size() < (1u << 20); ++i) {
    const std::string record =
        "11-14 09:05:07:042 : [INF][04242] Bridge.cpp(57) " + std::string(i % 97, '.') + "\n";
    text += record;
    frames += Frame(record);
  }
  Write(dir.path / "big.logdat", frames);
  const Tool tool(dir.path, "big.logdat");
  EXPECT_EQ(0, tool.code) << tool.err();
  EXPECT_TRUE(tool.out() == text) << "decoded " << tool.out().size() << " of " << text.size()
                                  << " bytes";
}

std::string Record(int n) {
  return "11-14 09:05:07:" + std::to_string(100 + n) + " : [INF][04242] Bridge.cpp(57) record " +
         std::to_string(n) + "\n";
}

TEST(LogreadFollow, TornDeletedReplacedShortenedAndCorruptFiles) {
  Scratch dir;
  const fs::path log = dir.path / "QXAttentionPlugin.log.logdat";
  Write(log, Frame(Record(1)));
  const Tool tool(dir.path, "--follow QXAttentionPlugin.log.logdat", true);
  ASSERT_TRUE(tool.Out(Record(1)));
  // The logger writes the length and the text with two writes; the tool may
  // look in between and must wait for the rest.
  Write(log, Frame(Record(2)).substr(0, 4), true);
  std::this_thread::sleep_for(500ms);
  Write(log, Frame(Record(2)).substr(4), true);
  ASSERT_TRUE(tool.Out(Record(2)));
  // Deleted at the size limit with a torn frame in it; the next record
  // creates a new file.
  Write(log, Frame(Record(3)).substr(0, 6), true);
  std::this_thread::sleep_for(500ms);
  fs::remove(log);
  ASSERT_TRUE(tool.Err("file was deleted"));
  Write(log, Frame(Record(4)));
  ASSERT_TRUE(tool.Out(Record(4)));
  EXPECT_TRUE(tool.Err(
      "created again; reading it from the beginning (6 bytes of an unfinished frame dropped)"));
  // Replaced in one step (rename over it), then shortened in place.
  Write(dir.path / "next", Frame(Record(5)));
  fs::rename(dir.path / "next", log);
  ASSERT_TRUE(tool.Out(Record(5)));
  EXPECT_TRUE(tool.Err("file was replaced"));
  const std::string shorter = "11-14 09:05:09:000 : [INF][00001] B.cpp(1) short\n";
  Write(log, Frame(shorter));
  ASSERT_TRUE(tool.Out(shorter));
  EXPECT_TRUE(tool.Err("file was shortened"));
  // A corrupt length: reported, and the file's replacement read.
  Write(log, std::string("\xFF\xFF\xFF\x7F", 4), true);
  ASSERT_TRUE(tool.Err("corrupt length at offset"));
  ASSERT_TRUE(tool.Err("waiting for it to be replaced"));
  Write(dir.path / "next", Frame(Record(6)));
  fs::rename(dir.path / "next", log);
  ASSERT_TRUE(tool.Out(Record(6)));
  EXPECT_EQ(Record(1) + Record(2) + Record(4) + Record(5) + shorter + Record(6), tool.out());
}

// Half a plain line is held back until its line feed arrives, so that the
// other file's records cannot land in the middle of it.
TEST(LogreadFollow, PlainAndFramedLogsTogetherPrintWholeLinesTaggedWithTheirFile) {
  Scratch dir;
  const fs::path plain = dir.path / "QXAttentionPlugin.log",
                 framed = dir.path / "QXAttentionPlugin.log.logdat";
  const auto tagged = [](const fs::path& file, int n) {
    return file.filename().string() + ": " + Record(n);
  };
  Write(plain, Record(1));
  Write(framed, Frame(Record(2)));
  const Tool tool(dir.path, "-q -f QXAttentionPlugin.log QXAttentionPlugin.log.logdat", true);
  ASSERT_TRUE(tool.Out(tagged(framed, 2)));
  ASSERT_TRUE(tool.Out(tagged(plain, 1)));
  Write(plain, Record(3).substr(0, 20), true);
  Write(framed, Frame(Record(4)), true);
  ASSERT_TRUE(tool.Out(tagged(framed, 4)));
  std::this_thread::sleep_for(300ms);
  Write(plain, Record(3).substr(20), true);
  ASSERT_TRUE(tool.Out(tagged(framed, 4) + tagged(plain, 3)));
  EXPECT_EQ("", tool.err());
}

}  // namespace
