// The scenario files (tests/scenarios/*.scn): reading them, and comparing what
// happened with what they expect. The format is described in README.md here.
#pragma once

#include <string>
#include <vector>

namespace scenario {

// A line's words; a text written in backticks is one word, in the form Quote() gives.
using Tokens = std::vector<std::string>;
struct Line {
  int number = 0;
  Tokens tokens;
};
struct Step {
  Line line;
  std::vector<Line> expect;  // the expectations written below it
};
struct Scenario {
  std::string name;
  std::vector<Step> steps;
  int sessions = 0;  // "host" steps
};

// Reads a file's scenarios; on a syntax error `error` says where.
std::vector<Scenario> Parse(const std::string& text, std::string* error);

std::string Quote(const std::string& text);  // `text`, escaped
std::string Unquote(const std::string& token);
std::string Join(const Tokens& tokens);

// Whether `actual` fits `expected`: token by token, numbers by value (modulo
// 2^32), "*" in a token matching any characters; a "..." line stands for any
// number of lines.
bool Matches(const std::vector<Tokens>& expected, const std::vector<Tokens>& actual);

}  // namespace scenario
