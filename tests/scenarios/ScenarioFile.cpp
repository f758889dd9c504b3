#include "ScenarioFile.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace scenario {
namespace {

// The words that start a step, and those that start an expectation below one.
const std::string kSteps =
    " config service write delete host qx_plugin_init qx_plugin_new action action-in-thread join"
    " storm sim peer client ";
const std::string kExpectations =
    " result log sensorlog rpc pipe callback stdout reg service-state within no-extra-threads"
    " callbacks-match-fetches ";
bool Among(const std::string& words, const std::string& word) {
  return !word.empty() && words.find(" " + word + " ") != std::string::npos;
}

// Reads the text of a backtick token starting at line[at]; leaves `at` after it.
bool ReadText(const std::string& line, std::size_t& at, std::string* text) {
  for (++at; at < line.size(); ++at) {
    char c = line[at];
    if (c == '`') return ++at, true;
    if (c != '\\' || at + 1 == line.size()) {
      *text += c;
      continue;
    }
    if ((c = line[++at]) == 'x') {
      *text += static_cast<char>(std::strtol(line.substr(at + 1, 2).c_str(), nullptr, 16));
      at += 2;
    } else if (c == '*') {  // "\*5000[": 5000 times "["
      char* end = nullptr;
      const long count = std::strtol(line.c_str() + at + 1, &end, 10);
      at = static_cast<std::size_t>(end - line.c_str());
      if (at < line.size()) text->append(static_cast<std::size_t>(count), line[at]);
    } else {
      *text += c == 'n' ? '\n' : c;  // "\\" is "\", "\`" is "`"
    }
  }
  return false;
}

bool Tokenize(const std::string& line, Tokens* out) {
  for (std::size_t at = 0; (at = line.find_first_not_of(" \t\r", at)) != std::string::npos;) {
    if (line[at] == '#') break;  // a comment to the end of the line
    if (line[at] == '`') {
      std::string text;
      if (!ReadText(line, at, &text)) return false;
      out->push_back(Quote(text));
    } else {
      const std::size_t end = line.find_first_of(" \t\r`", at);
      out->push_back(line.substr(at, end - at));
      at = end;
    }
  }
  return true;
}

bool TokenMatches(const std::string& e, const std::string& a) {
  if (e[0] != '`' && a[0] != '`') {
    char* eEnd = nullptr;
    char* aEnd = nullptr;
    const long long x = std::strtoll(e.c_str(), &eEnd, 0), y = std::strtoll(a.c_str(), &aEnd, 0);
    if (!*eEnd && !*aEnd && eEnd != e.c_str() && aEnd != a.c_str())
      return static_cast<std::uint32_t>(x) == static_cast<std::uint32_t>(y);
  }
  std::size_t i = 0, j = 0, star = std::string::npos, resume = 0;
  while (j < a.size()) {
    if (i < e.size() && e[i] == '*') {
      star = i++;
      resume = j;
    } else if (i < e.size() && e[i] == a[j]) {
      ++i, ++j;
    } else if (star != std::string::npos) {
      i = star + 1;
      j = ++resume;
    } else {
      return false;
    }
  }
  while (i < e.size() && e[i] == '*') ++i;
  return i == e.size();
}

// A "+N" second token (log lines) asks for at least N ms since the record
// before, less 16 ms for clocks that tick in steps; the actual line carries
// its gap when it is 50 ms or more.
bool LineMatches(Tokens e, Tokens a) {
  const bool eGap = e.size() > 1 && e[1][0] == '+', aGap = a.size() > 1 && a[1][0] == '+';
  if (eGap && (!aGap || std::stol(a[1]) < std::stol(e[1]) - 16)) return false;
  if (eGap) e.erase(e.begin() + 1);
  if (aGap) a.erase(a.begin() + 1);
  if (e.size() != a.size()) return false;
  for (std::size_t i = 0; i < e.size(); ++i)
    if (!TokenMatches(e[i], a[i])) return false;
  return true;
}

bool MatchFrom(const std::vector<Tokens>& e, std::size_t i, const std::vector<Tokens>& a,
               std::size_t j) {
  if (i == e.size()) return j == a.size();
  if (e[i].size() == 2 && e[i][1] == "...")
    return MatchFrom(e, i + 1, a, j) || (j < a.size() && MatchFrom(e, i, a, j + 1));
  return j < a.size() && LineMatches(e[i], a[j]) && MatchFrom(e, i + 1, a, j + 1);
}

}  // namespace

std::string Quote(const std::string& text) {
  std::string out = "`";
  char hex[8];
  for (const unsigned char c : text) {
    const bool control = c < 0x20 || c == 0x7f;
    std::snprintf(hex, sizeof(hex),
                  c == '\n'               ? "\\n"
                  : c == '\\' || c == '`' ? "\\%c"
                  : control               ? "\\x%02x"
                                          : "%c",
                  c);
    out += hex;
  }
  return out + "`";
}

std::string Unquote(const std::string& token) {
  std::string text;
  std::size_t at = 0;
  return token.empty() || token[0] != '`' || !ReadText(token, at, &text) ? token : text;
}

std::string Join(const Tokens& tokens) {
  std::string out;
  for (const std::string& t : tokens) out += (out.empty() ? "" : " ") + t;
  return out;
}

bool Matches(const std::vector<Tokens>& expected, const std::vector<Tokens>& actual) {
  return MatchFrom(expected, 0, actual, 0);
}

std::vector<Scenario> Parse(const std::string& text, std::string* error) {
  std::vector<Scenario> out;
  std::istringstream in(text);
  std::string raw;
  for (int number = 1; std::getline(in, raw); ++number) {
    Line line{number, {}};
    const bool closed = Tokenize(raw, &line.tokens);
    if (closed && line.tokens.empty()) continue;
    const std::string word = closed ? line.tokens[0] : "";
    if (word == "scenario" && line.tokens.size() == 2) {
      out.push_back({line.tokens[1], {}, 0});
    } else if (!out.empty() && Among(kSteps, word)) {
      out.back().steps.push_back({line, {}});
      out.back().sessions += word == "host";
    } else if (!out.empty() && !out.back().steps.empty() && Among(kExpectations, word)) {
      // "log 26x TEXT": 26 lines of TEXT.
      Tokens& t = line.tokens;
      char* x = nullptr;
      const long n = t.size() > 2 ? std::strtol(t[1].c_str(), &x, 10) : 0;
      const bool repeat = n > 0 && std::string(x) == "x";
      if (repeat) t.erase(t.begin() + 1);
      for (long i = 0; i < (repeat ? n : 1); ++i) out.back().steps.back().expect.push_back(line);
    } else {
      *error = "line " + std::to_string(number) + ": " +
               (closed ? "unknown line: " : "a text not closed: ") + raw;
      return {};
    }
  }
  return out;
}

}  // namespace scenario
