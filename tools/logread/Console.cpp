#include "Console.h"

#include <cstdio>

#ifdef _WIN32
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#else
#include <unistd.h>
#endif

namespace logread {

namespace {

bool g_quiet = false;
bool g_output_failed = false;
// (name, text) of every note and error, the first few hundred.
std::vector<std::pair<std::string, std::string>> g_notes;

void Keep(const std::string& name, const std::string& text) {
  if (g_notes.size() < 500) g_notes.emplace_back(name, text);
}

}  // namespace

void SetQuiet(bool quiet) { g_quiet = quiet; }

void Error(const std::string& name, const std::string& text) {
  Keep(name, text);
  std::fflush(stdout);
  if (name.empty())
    std::fprintf(stderr, "logread: %s\n", text.c_str());
  else
    std::fprintf(stderr, "logread: %s: %s\n", name.c_str(), text.c_str());
}

void Note(const std::string& name, const std::string& text) {
  if (!g_quiet) return Error(name, text);
  Keep(name, text);
}

std::vector<std::string> NotesOf(const std::string& name) {
  std::vector<std::string> out;
  for (const auto& [file, text] : g_notes)
    if (file == name) out.push_back(text);
  return out;
}

void Emit(std::string_view bytes) {
  if (bytes.empty() || g_output_failed) return;
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) g_output_failed = true;
}

bool FlushOutput() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) g_output_failed = true;
  return !g_output_failed;
}

bool OutputFailed() { return g_output_failed; }

void BinaryStdio() {
#ifdef _WIN32
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stdin), _O_BINARY);
#endif
  // Records go out in large pieces; a full buffer instead of a line buffer
  // on a terminal as well.
  static char buffer[1 << 16];
  std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}

bool StdoutIsColourTerminal() {
#ifdef _WIN32
  HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  if (out == INVALID_HANDLE_VALUE || !GetConsoleMode(out, &mode)) return false;
  // ENABLE_VIRTUAL_TERMINAL_PROCESSING (Windows 10 and later); an older
  // console refuses it and gets no colour.
  return (mode & 0x0004) || SetConsoleMode(out, mode | 0x0004);
#else
  return isatty(STDOUT_FILENO) == 1;
#endif
}

}  // namespace logread
