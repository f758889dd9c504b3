#include "LogRecord.h"

#include <algorithm>

namespace logrecord {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Reads one to `most` digits at `at`; advances `at`.
bool SomeDigits(std::string_view text, std::size_t& at, std::size_t most, int& value) {
  std::size_t n = 0;
  value = 0;
  while (at + n < text.size() && n < most && IsDigit(text[at + n])) {
    value = value * 10 + (text[at + n] - '0');
    ++n;
  }
  at += n;
  return n > 0;
}

bool Literal(std::string_view text, std::size_t& at, std::string_view literal) {
  if (text.size() - at < literal.size()) return false;
  for (std::size_t i = 0; i < literal.size(); ++i)
    if (text[at + i] != literal[i]) return false;
  at += literal.size();
  return true;
}

// The text without the line end that closes a record ("\n" or "\r\n").
std::string_view WithoutLineEnd(std::string_view text) {
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
  return text;
}

// "MM-DD hh:mm:ss:mmm" of a plug-in record: a fixed shape, checked without
// a branch per byte (every line of a log passes here).
bool PluginTime(std::string_view text, std::size_t& at, Time& t) {
  if (text.size() - at < 18) return false;
  const char* s = text.data() + at;
  const auto d = [s](int i) { return static_cast<unsigned>(s[i] - '0'); };
  const auto bad = [&](int i) { return static_cast<unsigned>(d(i) > 9); };
  const unsigned nondigit = bad(0) | bad(1) | bad(3) | bad(4) | bad(6) | bad(7) | bad(9) | bad(10) |
                            bad(12) | bad(13) | bad(15) | bad(16) | bad(17);
  if (nondigit || s[2] != '-' || s[5] != ' ' || s[8] != ':' || s[11] != ':' || s[14] != ':')
    return false;
  t.month = static_cast<int>(d(0) * 10 + d(1));
  t.day = static_cast<int>(d(3) * 10 + d(4));
  t.hour = static_cast<int>(d(6) * 10 + d(7));
  t.minute = static_cast<int>(d(9) * 10 + d(10));
  t.second = static_cast<int>(d(12) * 10 + d(13));
  t.millisecond = static_cast<int>(d(15) * 100 + d(16) * 10 + d(17));
  at += 18;
  return true;
}

// "[MM-DD-hh-mm-ss:ms]" of a sensor library line.
bool SensorTime(std::string_view text, std::size_t& at, Time& t) {
  return Literal(text, at, "[") && SomeDigits(text, at, 2, t.month) && Literal(text, at, "-") &&
         SomeDigits(text, at, 2, t.day) && Literal(text, at, "-") &&
         SomeDigits(text, at, 2, t.hour) && Literal(text, at, "-") &&
         SomeDigits(text, at, 2, t.minute) && Literal(text, at, "-") &&
         SomeDigits(text, at, 2, t.second) && Literal(text, at, ":") &&
         SomeDigits(text, at, 3, t.millisecond) && Literal(text, at, "]");
}

constexpr std::string_view kVersion = "Version:";

}  // namespace

std::int64_t Time::Key() const {
  static constexpr int kDaysBefore[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  const int m = std::clamp(month, 1, 12);
  const int d = std::clamp(day, 1, 31);
  const std::int64_t days = kDaysBefore[m - 1] + d - 1;
  return ((days * 24 + hour) * 60 + minute) * 60000LL + second * 1000LL + millisecond;
}

namespace {

// Every field empty (member by member: a whole new Fields copied over costs
// more than the parse, once per record).
void Clear(Fields& f) {
  f.has_time = false;
  f.time = Time();
  f.level = f.thread = f.source = f.line = f.message = std::string_view();
}

}  // namespace

bool ParsePluginRecord(std::string_view text, Fields& f) {
  Clear(f);
  f.message = WithoutLineEnd(text);
  std::size_t at = 0;
  Time t;
  if (!PluginTime(text, at, t) || !Literal(text, at, " : [")) return false;
  const std::size_t tag = at;
  while (at < text.size() && at - tag < 8 && text[at] >= 'A' && text[at] <= 'Z') ++at;
  if (at == tag || !Literal(text, at, "][")) return false;
  const std::string_view level = text.substr(tag, at - tag - 2);
  const std::size_t thread = at;
  if (at < text.size() && text[at] == '-') ++at;
  while (at < text.size() && IsDigit(text[at])) ++at;
  if (at == thread || !IsDigit(text[at - 1]) || !Literal(text, at, "] ")) return false;
  const std::string_view threadDigits = text.substr(thread, at - thread - 2);

  // The source is the text up to the first "(digits) ": a source name may
  // hold blanks or parentheses of its own, a line number never anything
  // but digits.
  const std::size_t source = at;
  for (std::size_t open = text.find('(', at); open != std::string_view::npos;
       open = text.find('(', open + 1)) {
    std::size_t close = open + 1;
    while (close < text.size() && IsDigit(text[close])) ++close;
    if (close == open + 1 || text.substr(close, 2) != ") ") continue;
    f.has_time = true;
    f.time = t;
    f.level = level;
    f.thread = threadDigits;
    f.source = text.substr(source, open - source);
    f.line = text.substr(open + 1, close - open - 1);
    f.message = WithoutLineEnd(text.substr(close + 2));
    return true;
  }
  return false;
}

bool ParseSensorRecord(std::string_view text, Fields& f) {
  Clear(f);
  f.message = WithoutLineEnd(text);
  if (text.substr(0, kVersion.size()) == kVersion) return true;
  std::size_t at = 0;
  Time t;
  if (!SensorTime(text, at, t)) return false;
  f.has_time = true;
  f.time = t;
  f.message = WithoutLineEnd(text.substr(at));
  return true;
}

bool ParseRecord(Form form, std::string_view text, Fields& fields) {
  return form == Form::kPlugin ? ParsePluginRecord(text, fields) : ParseSensorRecord(text, fields);
}

bool StartsRecord(Form form, std::string_view line) {
  std::size_t at = 0;
  Time t;
  if (form == Form::kPlugin) return PluginTime(line, at, t) && Literal(line, at, " : [");
  return line.substr(0, kVersion.size()) == kVersion || SensorTime(line, at, t);
}

bool ParseTimeArgument(std::string_view text, Time& t) {
  t = Time();
  std::size_t at = 0;
  if (!(SomeDigits(text, at, 2, t.month) && Literal(text, at, "-") &&
        SomeDigits(text, at, 2, t.day)))
    return false;
  while (at < text.size() && (text[at] == ' ' || text[at] == 'T')) ++at;
  if (!(SomeDigits(text, at, 2, t.hour) && Literal(text, at, ":") &&
        SomeDigits(text, at, 2, t.minute)))
    return false;
  if (at < text.size() && !(Literal(text, at, ":") && SomeDigits(text, at, 2, t.second)))
    return false;
  return at == text.size() && t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= 31 &&
         t.hour <= 23 && t.minute <= 59 && t.second <= 59;
}

void RecordSplitter::TakeLine(std::string_view line, std::vector<std::string>& records) {
  if (!current_.empty() && StartsRecord(form_, line)) {
    records.push_back(std::move(current_));
    current_.clear();
  }
  current_.append(line);
}

void RecordSplitter::Feed(const char* data, std::size_t size, std::vector<std::string>& records) {
  std::string_view in(data, size);
  while (!in.empty()) {
    const std::size_t end = in.find('\n');
    if (end == std::string_view::npos) {
      partial_.append(in);
      return;
    }
    if (partial_.empty()) {
      TakeLine(in.substr(0, end + 1), records);
    } else {
      partial_.append(in.substr(0, end + 1));
      std::string line;
      line.swap(partial_);
      TakeLine(line, records);
    }
    in.remove_prefix(end + 1);
  }
}

void RecordSplitter::FlushLines(std::vector<std::string>& records) {
  if (!current_.empty()) {
    records.push_back(std::move(current_));
    current_.clear();
  }
}

void RecordSplitter::Flush(std::vector<std::string>& records) {
  if (!partial_.empty()) {
    std::string line;
    line.swap(partial_);
    TakeLine(line, records);
  }
  FlushLines(records);
}

void RecordSplitter::Reset() {
  current_.clear();
  partial_.clear();
}

}  // namespace logrecord
