// The regular expressions of -g: a search whose time grows linearly with the
// text and never recurses on it, however long a message is.
//
// The pattern is compiled to an automaton of byte steps (a Thompson NFA),
// searched with its states followed all at once; the sets of states met are
// kept as the states of a deterministic automaton built as the text asks
// for them (at most a few thousand; the cache starts over when full), so a
// byte usually costs one table look-up.
//
// Syntax (a subset of the common extended syntax):
//   c          a character (UTF-8 characters are matched as their bytes)
//   .          any character but a line feed
//   [abc] [a-z] [^...]   a class (ASCII ranges; [^...] any character not in it)
//   \d \w \s \D \W \S    digits, word characters, white space, and their opposites
//   \t \n \r \.  ...     a control character, or the punctuation after \ itself
//   ^ $        start and end of the text; \b \B a word boundary, or none
//   (x) (?:x)  a group;  x|y  either
//   x* x+ x? x{n} x{n,} x{n,m}   repetition (m at most 1000; a "?" after it is allowed)
// A pattern becomes at most kMaxProgram steps; a larger one is refused.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace logread {

class Matcher {
 public:
  static constexpr std::size_t kMaxProgram = 20000;

  Matcher();
  ~Matcher();
  Matcher(Matcher&&) noexcept;
  Matcher& operator=(Matcher&&) noexcept;

  // Adds a pattern: the text then matches when any pattern added matches
  // it. `ignore_case`: ASCII letters match either case. An empty string, or
  // what is wrong with the pattern.
  std::string Add(std::string_view pattern, bool ignore_case);

  // Whether any pattern matches somewhere in `text`.
  bool Search(std::string_view text) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Smart case: whether a pattern has a capital letter of its own (a letter
// after "\" is an escape such as \W, not a capital).
bool HasCapital(std::string_view pattern);

}  // namespace logread
