// The verdict's causes as a table (data/verdicts.txt): facts in, the state,
// the category and the exit status out.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "SummaryVerdict.h"

namespace {

using logread::Facts;
#define FACT(k) \
  std::make_pair(#k, [](Facts& f, long long v) { f.k = static_cast<decltype(f.k)>(v); })
const std::map<std::string, std::function<void(Facts&, long long)>> kFacts = {
    FACT(from_init),
    FACT(plugin_records),
    FACT(plugin_log),
    FACT(sensor_log),
    FACT(sensor_init),
    FACT(init),
    FACT(closed),
    FACT(cache_word_known),
    FACT(ability),
    FACT(ability_before_init),
    FACT(action_before_init),
    FACT(init_twice),
    FACT(cache_flag),
    FACT(action_after_close),
    FACT(cache_word),
    FACT(check_ret),
    FACT(enabled),
    FACT(start),
    FACT(query),
    FACT(answer),
    FACT(init_fusion),
    FACT(registry_status),
    FACT(status),
    FACT(sensor_lines),
    FACT(check_state),
    FACT(start_code)};

long long Number(const std::string& text) { return std::stoll(text, nullptr, 0); }
std::string Trim(const std::string& text) {
  const std::size_t a = text.find_first_not_of(' ');
  return a == std::string::npos ? "" : text.substr(a, text.find_last_not_of(' ') + 1 - a);
}

// KEY=VALUE, KEY_fault=KIND:CODE, KIND:CODE (an init fault) or commands=A/B/C.
void Set(Facts& f, const std::string& word) {
  const std::size_t eq = word.find_first_of("=:");
  ASSERT_NE(std::string::npos, eq) << word;
  const std::string key = word.substr(0, eq), value = word.substr(eq + 1);
  const std::size_t colon = value.find(':');
  if (word[eq] == ':' || key.find("_fault") != std::string::npos) {
    const logread::Cause c{word[eq] == ':' ? key : value.substr(0, colon),
                           Number(word[eq] == ':' ? value : value.substr(colon + 1)), ""};
    (key == "start_fault" ? f.start_faults : f.init_faults) = {c};
  } else if (key == "commands") {
    f.commands.clear();
    std::istringstream codes(value);
    for (std::string c; std::getline(codes, c, '/');) f.commands.push_back(std::stoi(c));
  } else {
    ASSERT_TRUE(kFacts.count(key)) << "no such fact: " << key;
    kFacts.at(key)(f, Number(value));
  }
}

TEST(Verdict, CausesOfTheTable) {
  std::ifstream in(std::string(QX_TEST_DATA_DIR) + "/verdicts.txt");
  std::string base;
  int rows = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> c;
    std::istringstream cols(line + "|");
    for (std::string col; std::getline(cols, col, '|');) c.push_back(Trim(col));
    ASSERT_EQ(5u, c.size()) << line;
    if (c[0] == "base") {
      base = c[1];
      continue;
    }
    SCOPED_TRACE(line);
    Facts f;
    std::istringstream words(base + " " + c[1]);
    for (std::string w; words >> w;) Set(f, w);
    if (c[1].find("status=-1") != std::string::npos) f.status.reset();
    const logread::Verdict v = logread::Decide(f);
    EXPECT_EQ(c[2], v.state);
    EXPECT_EQ(c[3], v.category);
    EXPECT_EQ(std::stoi(c[4]), v.exit);
    EXPECT_EQ(f.closed, v.closed);
    if (v.category != "working") {
      EXPECT_FALSE(v.chain.empty()) << "no cause named";
      if (v.category != "switched_off") {
        EXPECT_FALSE(v.todo.empty()) << "no do: line";
      }
    }
    ++rows;
  }
  EXPECT_GT(rows, 30);
}

}  // namespace
