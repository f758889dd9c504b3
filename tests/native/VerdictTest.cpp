// The verdict's causes as a table (data/verdicts.txt): facts in, the state,
// the category and the exit status out.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "SummaryVerdict.h"

namespace {

long long Number(const std::string& text) { return std::stoll(text, nullptr, 0); }
std::string Trim(const std::string& text) {
  const std::size_t a = text.find_first_not_of(' ');
  return a == std::string::npos ? "" : text.substr(a, text.find_last_not_of(' ') + 1 - a);
}

void Set(logread::Facts& f, const std::string& word) {
  const std::size_t eq = word.find_first_of("=:");
  ASSERT_NE(std::string::npos, eq) << word;
  const std::string key = word.substr(0, eq), value = word.substr(eq + 1);
  if (word[eq] == ':' || key.find("_fault") != std::string::npos) {
    const std::size_t colon = value.find(':');
    const logread::Cause c{word[eq] == ':' ? key : value.substr(0, colon),
                           Number(word[eq] == ':' ? value : value.substr(colon + 1)), ""};
    (key == "start_fault" ? f.start_faults : f.init_faults) = {c};
    return;
  }
  std::map<std::string, bool*> flags = {{"from_init", &f.from_init},
                                        {"plugin_records", &f.plugin_records},
                                        {"plugin_log", &f.plugin_log},
                                        {"sensor_log", &f.sensor_log},
                                        {"sensor_init", &f.sensor_init},
                                        {"init", &f.init},
                                        {"closed", &f.closed},
                                        {"cache_word_known", &f.cache_word_known},
                                        {"ability_before_init", &f.ability_before_init},
                                        {"action_before_init", &f.action_before_init},
                                        {"init_twice", &f.init_twice},
                                        {"action_after_close", &f.action_after_close}};
  std::map<std::string, int*> ints = {{"ability", &f.ability},       {"cache_flag", &f.cache_flag},
                                      {"cache_word", &f.cache_word}, {"check_ret", &f.check_ret},
                                      {"enabled", &f.enabled},       {"start", &f.start}};
  std::map<std::string, std::optional<long long>*> optionals = {
      {"query", &f.query},
      {"answer", &f.answer},
      {"init_fusion", &f.init_fusion},
      {"registry_status", &f.registry_status},
      {"status", &f.status}};
  if (flags.count(key))
    *flags[key] = value == "1";
  else if (ints.count(key))
    *ints[key] = static_cast<int>(Number(value));
  else if (optionals.count(key))
    *optionals[key] = Number(value);
  else if (key == "sensor_lines")
    f.sensor_lines = Number(value);
  else if (key == "check_state")
    f.check_state = static_cast<unsigned>(Number(value));
  else if (key == "start_code")
    f.start_code = Number(value);
  else if (key == "commands") {
    f.commands.clear();
    std::istringstream codes(value);
    for (std::string c; std::getline(codes, c, '/');) f.commands.push_back(std::stoi(c));
  } else
    FAIL() << "no such fact: " << key;
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
    logread::Facts f;
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
