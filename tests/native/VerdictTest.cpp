// The verdict's causes as a table (data/verdicts.txt): facts in; the state,
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
// clang-format off
const std::map<std::string, std::function<void(Facts&, long long)>> kFacts = {
    FACT(from_init), FACT(plugin_records), FACT(plugin_log), FACT(sensor_log), FACT(sensor_init),
    FACT(init), FACT(closed), FACT(ability), FACT(ability_before_init), FACT(action_before_init),
    FACT(cache_flag), FACT(cache_word), FACT(check_ret), FACT(enabled), FACT(start), FACT(query),
    FACT(answer), FACT(init_fusion), FACT(status), FACT(sensor_lines), FACT(check_state),
    FACT(start_code)};
// clang-format on

long long Number(const std::string& text) { return std::stoll(text, nullptr, 0); }

// KEY=VALUE, init_fault or start_fault=KIND:CODE, or commands=A/B/C.
void Set(Facts& f, const std::string& word) {
  const std::size_t eq = word.find('='), colon = word.find(':');
  ASSERT_NE(std::string::npos, eq) << word;
  const std::string key = word.substr(0, eq), value = word.substr(eq + 1);
  if (key.find("_fault") != std::string::npos) {
    const logread::Cause c{word.substr(eq + 1, colon - eq - 1), Number(word.substr(colon + 1)), ""};
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

// Rows of facts added to the base lines' words, each row judged alone.
TEST(Verdict, CausesOfTheTable) {
  std::ifstream in(std::string(QX_TEST_DATA_DIR) + "/verdicts.txt");
  std::string base;
  int rows = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const std::size_t bar = line.find('|');
    ASSERT_NE(std::string::npos, bar) << line;
    const std::string facts = line.substr(0, bar);
    std::istringstream out(line.substr(bar + 1));
    if (facts.rfind("base", 0) == 0) {
      base += " " + out.str();
      continue;
    }
    SCOPED_TRACE(line);
    Facts f;
    std::istringstream words(base + " " + facts);
    for (std::string w; words >> w;) Set(f, w);
    if (facts.find("status=-1") != std::string::npos) f.status.reset();
    const logread::Verdict v = logread::Decide(f);
    std::string state, category;
    int exit = -1;
    out >> state >> category >> exit;
    EXPECT_EQ(state + " " + category + " " + std::to_string(exit),
              v.state + " " + v.category + " " + std::to_string(v.exit));
    EXPECT_EQ(f.closed, v.closed);
    EXPECT_TRUE(v.category == "working" || !v.chain.empty()) << "no cause named";
    EXPECT_TRUE(v.category == "working" || v.category == "switched_off" || !v.todo.empty())
        << "no do: line";
    ++rows;
  }
  EXPECT_GT(rows, 30);
}

}  // namespace
