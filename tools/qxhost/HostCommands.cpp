#include "HostCommands.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace qxhost {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string Trim(const std::string& text) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && IsBlank(text[begin])) ++begin;
  while (end > begin && IsBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

// Parses a non-negative decimal number of milliseconds.
bool ParseMs(const std::string& word, unsigned long* ms) {
  if (word.empty() || word.size() > 9) return false;
  for (char c : word)
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
  *ms = std::strtoul(word.c_str(), nullptr, 10);
  return true;
}

Command Invalid(const std::string& why) {
  Command c;
  c.kind = Command::Invalid;
  c.error = why;
  return c;
}

void SetParams(Command* c, const std::string& rest) {
  if (rest == "@null") {
    c->nullParams = true;
  } else {
    c->params = rest;
  }
}

}  // namespace

Command ParseCommand(const std::string& raw) {
  const std::string line = Trim(raw);
  Command c;
  if (line.empty() || line[0] == '#') return c;

  if (line[0] == '"') {
    const std::size_t close = line.find('"', 1);
    if (close == std::string::npos) return Invalid("unterminated quoted action name");
    c.kind = Command::Action;
    c.name = line.substr(1, close - 1);
    std::string rest = line.substr(close + 1);
    if (!rest.empty() && rest[0] == '=') rest.erase(0, 1);
    SetParams(&c, Trim(rest));
    return c;
  }

  // The first word ends at a blank or at '='.
  std::size_t end = 0;
  while (end < line.size() && !IsBlank(line[end]) && line[end] != '=') ++end;
  const std::string word = line.substr(0, end);
  std::string rest = line.substr(end);
  const bool withEquals = !rest.empty() && rest[0] == '=';
  if (withEquals) rest.erase(0, 1);
  rest = withEquals ? rest : Trim(rest);

  if (!withEquals) {
    if (word == "help") {
      c.kind = Command::Help;
      return c;
    }
    if (word == "quit" || word == "exit") {
      c.kind = Command::Quit;
      return c;
    }
    if (word == "sleep") {
      c.kind = Command::Sleep;
      if (!ParseMs(rest, &c.ms)) return Invalid("usage: sleep MS");
      return c;
    }
    if (word == "wait-callback") {
      c.kind = Command::WaitCallback;
      std::size_t blank = 0;
      while (blank < rest.size() && !IsBlank(rest[blank])) ++blank;
      if (!ParseMs(rest.substr(0, blank), &c.ms)) return Invalid("usage: wait-callback MS [KIND]");
      c.filter = Trim(rest.substr(blank));
      return c;
    }
  }
  c.kind = Command::Action;
  c.name = word;
  SetParams(&c, rest);
  return c;
}

const char* CommandHelp() {
  return "Commands (one per argument, script line or typed line):\n"
         "  NAME                         run action NAME with empty parameters \"\"\n"
         "  NAME=PARAMS  or  NAME PARAMS run action NAME with the JSON text PARAMS\n"
         "  NAME=@null                   run action NAME with a null parameter pointer\n"
         "  \"NAME\" [PARAMS]              quoted action name, byte for byte (\"init \")\n"
         "  sleep MS                     pause MS milliseconds\n"
         "  wait-callback MS [KIND]      wait up to MS ms for a host callback not yet\n"
         "                               waited for (of kind KIND, e.g. BIGDATA)\n"
         "  # text                       comment (scripts)\n"
         "  help                         this summary (interactive)\n"
         "  quit | exit                  leave (interactive, scripts)\n"
         "Actions of the attention plug-in: ability, init, close, get_attention,\n"
         "  set_attention_status={\"F4010\":{\"status\":2}},\n"
         "  set_attention_delay={\"F4010\":{\"delay\":30}}\n";
}

std::string Escape(const std::string& text) {
  std::string out;
  for (unsigned char ch : text) {
    switch (ch) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (ch < 0x20 || ch == 0x7f) {
          char hex[8];
          std::snprintf(hex, sizeof(hex), "\\x%02x", ch);
          out += hex;
        } else {
          out += static_cast<char>(ch);
        }
    }
  }
  return out;
}

}  // namespace qxhost
