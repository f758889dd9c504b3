#include "LogFolders.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>

namespace logread {

namespace {

namespace fs = std::filesystem;

std::string Utf8(const fs::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

bool IsSensorLog(const std::string& name) { return Lower(name).rfind("sensorliblog.log", 0) == 0; }

// The machine's folder of a log in `dir` (relative to the folder given):
// `dir` less the folders the logger keeps its logs in, from the innermost.
fs::path MachineFolder(const fs::path& dir) {
  static const char* const kLayout[][2] = {{"logs", nullptr},
                                           {"quillomatic", "sensorfusion"},
                                           {"vantoq", nullptr},
                                           {"programdata", nullptr}};
  std::vector<fs::path> parts(dir.begin(), dir.end());
  while (!parts.empty() && parts.back().empty()) parts.pop_back();
  for (const auto& names : kLayout) {
    if (parts.empty()) break;
    const std::string last = Lower(Utf8(parts.back()));
    if (last != names[0] && !(names[1] && last == names[1])) break;
    parts.pop_back();
  }
  fs::path out;
  for (const auto& part : parts) out /= part;
  return out;
}

// Walks `root` (a folder) without following links to folders; the folders
// it cannot list are added to `unreadable`. False when `root` itself cannot
// be listed (`error` says why).
bool Walk(const fs::path& root, std::vector<fs::path>& logs, std::vector<std::string>& unreadable,
          std::error_code& error) {
  std::vector<fs::path> pending{root};
  while (!pending.empty()) {
    const fs::path dir = pending.back();
    pending.pop_back();
    std::error_code ec;
    fs::directory_iterator it(dir, ec);
    for (const fs::directory_iterator end; !ec && it != end; it.increment(ec)) {
      std::error_code ignored;
      if (it->is_directory(ignored) && !it->is_symlink(ignored))
        pending.push_back(it->path());
      else if (it->is_regular_file(ignored) && IsLogName(Utf8(it->path().filename())))
        logs.push_back(it->path());
    }
    if (ec) {
      if (dir == root) {
        error = ec;
        return false;
      }
      unreadable.push_back(Utf8(dir) + ": cannot read the folder: " + ec.message());
    }
  }
  return true;
}

}  // namespace

bool IsLogName(std::string name) {
  name = Lower(name);
  if (EndsWith(name, ".gz")) name.resize(name.size() - 3);
  return name == "qxattentionplugin.log" || name == "sensorliblog.log" ||
         (EndsWith(name, ".log.logdat") && name.size() > 11) ||
         (EndsWith(name, ".exe.log") && name.size() > 8);
}

std::vector<std::string> FoundLogs::Files() const {
  std::vector<std::string> out;
  for (const auto& machine : machines)
    out.insert(out.end(), machine.files.begin(), machine.files.end());
  return out;
}

std::string FindLogs(const std::vector<std::string>& given, FoundLogs& found) {
  found = FoundLogs();
  MachineLogs named;  // the files given by name, in the place of the first
  std::size_t named_at = 0;
  for (const std::string& arg : given) {
    std::error_code error;
    const fs::path folder(std::u8string(arg.begin(), arg.end()));
    if (arg == "-" || !fs::is_directory(folder, error)) {
      if (named.files.empty()) named_at = found.machines.size();
      named.files.push_back(arg);
      continue;
    }
    std::vector<fs::path> logs;
    const std::size_t skipped = found.unreadable.size();
    if (!Walk(folder, logs, found.unreadable, error))
      return arg + ": cannot read the folder: " + error.message();
    if (logs.empty()) {
      if (found.unreadable.size() > skipped) continue;  // said as it is
      return arg +
             ": no log in this folder (QXAttentionPlugin.log.logdat, QXAttentionPlugin.log, "
             "SensorLibLog.log, PROGRAM.log.logdat, PROGRAM.exe.log, or the same with .gz)";
    }
    // Machines in path order; within one, the plug-in's logs before the
    // sensor library's.
    std::map<fs::path, std::vector<fs::path>> machines;
    for (const fs::path& log : logs)
      machines[MachineFolder(log.parent_path().lexically_relative(folder))].push_back(log);
    for (auto& [relative, files] : machines) {
      std::sort(files.begin(), files.end(), [](const fs::path& a, const fs::path& b) {
        const bool sa = IsSensorLog(Utf8(a.filename())), sb = IsSensorLog(Utf8(b.filename()));
        return sa != sb ? sb : a < b;
      });
      MachineLogs machine;
      machine.folder = Utf8((folder / relative).lexically_normal());
      if (machine.folder.size() > 1 &&
          (machine.folder.back() == '/' || machine.folder.back() == '\\'))
        machine.folder.pop_back();
      for (const fs::path& file : files) machine.files.push_back(Utf8(file));
      found.machines.push_back(std::move(machine));
    }
  }
  if (!named.files.empty())
    found.machines.insert(found.machines.begin() + named_at, std::move(named));
  return {};
}

}  // namespace logread
