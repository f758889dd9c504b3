// logread run from the shell as a support engineer runs it, on files made here:
// the cases of data/cases.txt (recorded sessions among them) and the follow
// scenarios of data/follow.txt.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <signal.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "LogFrame.h"

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
// A data file's bytes; "F*N": N times over.
std::string Data(const std::string& name) {
  const std::size_t star = name.find('*');
  EXPECT_TRUE(fs::is_regular_file(kData / name.substr(0, star))) << "no data file " << name;
  std::string out;
  for (int n = star == std::string::npos ? 1 : std::stoi(name.substr(star + 1)); n > 0; --n)
    out += Read(kData / name.substr(0, star));
  return out;
}
// A frame: the byte count in 4 bytes, little-endian, then each byte as 255 - b.
std::string Frame(const std::string& text) {
  std::string out;
  for (int i = 0; i < 4; ++i) out += static_cast<char>(text.size() >> 8 * i);
  for (char c : text) out += static_cast<char>(255 - static_cast<unsigned char>(c));
  return out;
}
std::string Hex(const std::string& text) {
  std::string out;
  std::istringstream words(text);
  for (std::string word; words >> word;) out += static_cast<char>(std::stoi(word, nullptr, 16));
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

struct Scratch {
  std::string pattern = (fs::path(testing::TempDir()) / "logread-XXXXXX").string();
  const fs::path path = mkdtemp(pattern.data());
  ~Scratch() { fs::remove_all(path); }
};

// QX_LOGREAD runs another build in its place ("wine .../logread.exe").
const bool kWine = std::getenv("QX_LOGREAD") != nullptr;
const std::string kLogread = kWine ? std::getenv("QX_LOGREAD") : QX_LOGREAD_PATH;
const std::string kStamp = "touch -d '2026-11-20 12:00' input* 2>/dev/null; ";

// logread ARGS in `dir` (30 s at most, into dir/out and dir/err), to its end or
// in the background until the object goes; `before` runs after the stamping.
struct Tool {
  Tool(const fs::path& dir, const std::string& args, bool background = false,
       const std::string& before = "", const std::string& runner = "")
      : dir(dir) {
    // What a corrupt length announces dies here, not only on a machine short of memory.
    const std::string limit = QX_SANITIZED || kWine ? "" : "ulimit -v 65536 && ";
    const int status = std::system(("cd '" + dir.string() + "' && { " + limit + kStamp + before +
                                    "exec timeout 30 " + runner + kLogread + " " + args +
                                    " >out 2>err" + (background ? " & echo $! >pid" : "") + "; }")
                                       .c_str());
    code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  ~Tool() { fs::exists(dir / "pid") && kill(std::stoi(Read(dir / "pid")), SIGTERM); }
  // Waits up to 10 s for `text` in dir/`stream`.
  bool Holds(const std::string& stream, const std::string& text) const {
    for (auto end = std::chrono::steady_clock::now() + 10s;
         Read(dir / stream).find(text) == std::string::npos; std::this_thread::sleep_for(10ms))
      if (std::chrono::steady_clock::now() > end) return false;
    return true;
  }
  const fs::path dir;
  int code;
};

// `row` of the '|' columns of each line of data file `name` but blank and '#' ones.
template <class Row>
void ForEachRow(const std::string& name, Row row) {
  std::istringstream in(Data(name));
  std::string line;
  for (int number = 1; std::getline(in, line) && !testing::Test::HasFatalFailure(); ++number) {
    if (line.find_first_not_of(" \t") == std::string::npos || line[0] == '#') continue;
    SCOPED_TRACE(name + ":" + std::to_string(number) + ": " + line);
    row(Split(line, '|'));
  }
}

// Parts joined by '+': frames:F (a frame per line of F, an empty line a line
// feed of the record before), raw:F, hex:F, bytes:HEX or "empty".
std::string Input(const std::string& entry) {
  std::string out;
  for (const auto& part : Split(entry, '+')) {
    const std::string kind = part.substr(0, part.find(':')), arg = part.substr(part.find(':') + 1);
    if (kind == "raw" || kind == "hex" || kind == "bytes")
      out += kind == "raw" ? Data(arg) : Hex(kind == "hex" ? Data(arg) : arg);
    else if (kind != "frames" && part != "empty")
      ADD_FAILURE() << "no such input: " << part;
    std::istringstream lines(kind == "frames" ? Data(arg) : "");
    std::vector<std::string> records;
    for (std::string line; std::getline(lines, line);)
      line.empty() && !records.empty() ? records.back() += "\n" : records.emplace_back(line + "\n");
    for (const auto& record : records) out += Frame(record);
  }
  return out;
}

// A folder recorded by scripts/record-sessions.sh, damaged as machines leave
// logs: the sensor log cut inside its last line ("cut"), a power loss's NUL run where a
// line ended ("nul"), a line that is no record ("foreign"), the plug-in log
// packed with its stream's last third lost ("gz"), or deleted at its size
// limit after "init", the next record starting a new file ("limit").
void Damage(const fs::path& dir, const std::string& how) {
  const fs::path sensor = dir / "SensorLibLog.log", plugin = dir / "QXAttentionPlugin.log.logdat";
  std::string s = Read(sensor), p = Read(plugin);
  const auto line = [&s](int n) {
    std::size_t at = 0;
    while (n-- > 0) at = s.find("\r\n", at) + 2;
    return at;
  };
  if (how == "cut") s.erase(s.rfind("= 1722") + 4);
  if (how == "nul") s.replace(line(3) + 20, s.find("\r\n", line(3)) - line(3) - 20, 4096, '\0');
  if (how == "foreign") s.insert(line(2), "\x01\x02 copied over\r\n");
  for (std::size_t at = 0, n; how == "limit"; at += 4 + n) {
    std::string text = p.substr(
        at + 4, n = logframe::DecodeLength(reinterpret_cast<const unsigned char*>(&p[at])));
    for (char& c : text) c = static_cast<char>(255 - static_cast<unsigned char>(c));
    if (text.find("status value") != std::string::npos) {
      Write(plugin, p.substr(at));
      break;
    }
  }
  if (how == "gz") {
    ASSERT_EQ(0, std::system(("gzip -n '" + plugin.string() + "'").c_str()));
    p = Read(plugin.string() + ".gz");
    Write(plugin.string() + ".gz", p.substr(0, p.size() * 2 / 3));
  }
  Write(sensor, s);
}

// Files (';' between) are input0.logdat ...: an input, "missing", "stdin=INPUT"
// (as "-"), "PATH=INPUT" at PATH that only the options name, "PATH=locked" a
// folder logread may not read, "sessions/FOLDER[+HOW]" a recorded session's
// folder (Damage), "tty=TERM" a terminal; "@STAMP" its modification time.
// "=input": the input.
TEST(LogreadCli, CasesOfTheTable) {
  ForEachRow("cases.txt", [](const std::vector<std::string>& c) {
    ASSERT_EQ(5u, c.size());
    Scratch dir;
    std::string args = c[1], input, before, runner;
    int count = 0;
    for (std::string file : Split(c[0], ';')) {
      const std::size_t at = file.find('@'), eq = file.find('='), plus = file.find('+');
      if (file.rfind("tty=", 0) == 0) {  // on a pseudo-terminal (script(1)) of that TERM
        if (kWine) return;               // the Windows console decides there
        runner = "env -u NO_COLOR TERM=" + file.substr(4) + " script -qec '";
        continue;
      }
      if (file.rfind("sessions/", 0) == 0) {
        const fs::path copy = dir.path / fs::path(file.substr(0, plus)).filename();
        fs::copy(kData / file.substr(0, plus), copy);
        if (plus != std::string::npos) Damage(copy, file.substr(plus + 1));
        continue;
      }
      const std::string stamp = at == std::string::npos ? "" : file.substr(at + 1);
      file.resize(std::min(at, file.size()));
      std::string name = "input" + std::to_string(count++) + ".logdat";
      const bool stdin = file.rfind("stdin=", 0) == 0, placed = !stdin && eq != std::string::npos;
      if (placed) {
        name = file.substr(0, eq), file.erase(0, eq + 1);
        fs::create_directories((dir.path / name).parent_path());
      } else {
        args += (stdin ? " - <" : " ") + name;
      }
      if (file == "locked") {
        if (kWine) return;  // Wine runs as the prefix's owner: no other user
        fs::create_directories(dir.path / name);
        fs::permissions(dir.path / name, fs::perms::none);
        fs::permissions(dir.path,
                        fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
        if (geteuid() == 0) runner = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
        continue;
      }
      if (file != "missing") Write(dir.path / name, input = Input(stdin ? file.substr(6) : file));
      if (placed || !stamp.empty())
        before +=
            "touch -d '" + (stamp.empty() ? "2026-11-20 12:00" : stamp) + "' '" + name + "'; ";
    }
    if (runner.find("script") != std::string::npos) args += "' /dev/null </dev/null";
    const Tool tool(dir.path, args, false, before, runner);
    const std::string out = Read(dir.path / "out"), err = Read(dir.path / "err");
    EXPECT_EQ(std::stoi(c[2]), tool.code) << "stderr: " << err;
    const bool texts = c[3][0] == '~';  // texts stdout holds, or with '!' lacks
    std::string expected = c[3] == "=input" ? input : "";
    for (const auto& name : Split(c[3].substr(texts), texts ? ';' : '+'))
      if (texts)
        EXPECT_EQ(name[0] == '!', out.find(name.substr(name[0] == '!')) == std::string::npos)
            << name << " in:\n"
            << out;
      else if (c[3] != "-" && c[3] != "=input")
        expected += Data(name);
    EXPECT_TRUE(texts || out == expected) << "stdout differs:\n" << out;
    EXPECT_TRUE(c[4].empty() ? err.empty() : err.find(c[4]) != std::string::npos) << err;
  });
}

// A step's bytes: KIND "frame", "plain" or "hex" of TEXT; "[:N]" the first N, "[N:]" the rest.
std::string Bytes(const std::string& kind, const std::string& text) {
  const std::string all = kind[0] == 'f' ? Frame(text) : kind[0] == 'h' ? Hex(text) : text;
  const std::size_t digit = kind.find_first_of("0123456789");
  if (digit == std::string::npos) return all;
  const std::size_t n = std::stoul(kind.substr(digit));
  return kind[digit - 1] == ':' ? all.substr(0, n) : all.substr(n);
}

// Waits (10 s at most) until logread, which opens the file for each look, has
// opened and closed `name` after a writer's last close: it has read it all.
bool ReadAgain(int watch, const std::string& name) {
  char buffer[4096];
  for (int state = 0; state < 2;) {  // 1: opened after the last write; 2: and closed
    pollfd p = {watch, POLLIN, 0};
    const ssize_t n = poll(&p, 1, 10000) == 1 ? read(watch, buffer, sizeof buffer) : -1;
    if (n <= 0) return false;
    for (ssize_t at = 0; at < n;) {
      const auto* e = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof *e + e->len);
      if (e->len == 0 || name != e->name) continue;
      if (e->mask & IN_CLOSE_WRITE) state = 0;
      if (e->mask & IN_OPEN && state == 0) state = 1;
      if (e->mask & IN_CLOSE_NOWRITE && state == 1) state = 2;
    }
  }
  return true;
}

// Steps of follow.txt ("\n" a line feed): scenario | NAME (a new folder); start |
// ARGS (logread in the background); write or append | FILE | KIND | TEXT; remove |
// FILE; rename | FILE | NEW; read | FILE (read again since its last change); out
// or err | TEXT (waits for it); stdout or stderr | TEXT (all of it, now).
TEST(LogreadFollow, ScenariosOfTheScript) {
  std::unique_ptr<Scratch> dir;
  std::unique_ptr<Tool> tool;  // declared last, so that it stops before its folder goes
  int watch = -1;
  ForEachRow("follow.txt", [&](const std::vector<std::string>& c) {
    const std::string& step = c[0];
    ASSERT_NE(std::string::npos,
              std::string(" scenario start write append remove rename read out err stdout stderr ")
                  .find(" " + step + " "));
    std::string text = c.back();
    for (std::size_t at; (at = text.find("\\n")) != std::string::npos;) text.replace(at, 2, "\n");
    if (step == "scenario") {
      tool.reset(), dir = std::make_unique<Scratch>(), close(watch);
      watch = inotify_init1(IN_CLOEXEC);
      inotify_add_watch(watch, dir->path.c_str(), IN_OPEN | IN_CLOSE);
    }
    if (step == "start") tool = std::make_unique<Tool>(dir->path, text, true);
    if (step == "write" || step == "append")
      Write(dir->path / c[1], Bytes(c[2], text), step == "append");
    if (step == "remove") fs::remove(dir->path / c[1]);
    if (step == "rename") fs::rename(dir->path / c[1], dir->path / c[2]);
    ASSERT_TRUE(step != "read" || ReadAgain(watch, text)) << "logread did not read it again";
    ASSERT_TRUE((step != "out" && step != "err") || (!text.empty() && tool->Holds(step, text)))
        << step << ":\n"
        << Read(dir->path / step);
    if (step == "stdout" || step == "stderr") {
      EXPECT_EQ(text, Read(dir->path / step.substr(3)));
    }
  });
  tool.reset();
  close(watch);
}

}  // namespace
