// logread's -g matcher against std::regex (ECMAScript) on random patterns and
// texts over small alphabets, where both mean the same.
#include <gtest/gtest.h>

#include <random>
#include <regex>

#include "Matcher.h"

namespace {

// Every construct the matcher reads, and texts over the characters they name.
const char* const kAtoms[] = {"a",   "b",   "A",   ".",   "[ab]", "[^a]", "[a-c]", "\\d", "\\w",
                              "\\W", "\\s", "\\b", "\\B", "^",    "$",    "1",     " ",   "\\."};
const char* const kRepeats[] = {"", "", "", "*", "+", "?", "{2}", "{1,3}", "{0,}", "{2,}"};
const char kText[] = "aabAB1 .-";

std::string Pattern(std::mt19937& random, int depth) {
  std::string out;
  for (int n = random() % 4 + 1; n > 0; --n) {
    // No repeated group: the reference backtracks without end on empty matches.
    if (depth < 2 && random() % 5 == 0) {
      out += "(" + Pattern(random, depth + 1) + ")";
    } else {
      const std::string atom = kAtoms[random() % std::size(kAtoms)];
      const bool assertion = atom == "^" || atom == "$" || atom == "\\b" || atom == "\\B";
      out += atom + (assertion ? "" : kRepeats[random() % std::size(kRepeats)]);
    }
    if (random() % 8 == 0) out += "|";
  }
  return out;
}

TEST(Matcher, AgreesWithTheReference) {
  std::mt19937 random(20261125);
  int matched = 0;
  for (int i = 0; i < 3000; ++i) {
    const std::string pattern = Pattern(random, 0);
    const bool icase = random() % 2;
    logread::Matcher matcher;
    ASSERT_EQ("", matcher.Add(pattern, icase)) << pattern;
    const std::regex reference(
        pattern, icase ? std::regex::ECMAScript | std::regex::icase : std::regex::ECMAScript);
    for (int j = 0; j < 8; ++j) {
      std::string text;
      for (int n = random() % 12; n > 0; --n) text += kText[random() % (sizeof kText - 1)];
      const bool expected = std::regex_search(text, reference);
      matched += expected;
      ASSERT_EQ(expected, matcher.Search(text))
          << "pattern \"" << pattern << "\" icase " << icase << " text \"" << text << "\"";
    }
  }
  EXPECT_GT(matched, 3000);  // both outcomes are judged
}

}  // namespace
