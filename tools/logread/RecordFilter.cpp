#include "RecordFilter.h"

#include "Console.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>

namespace logread {

namespace {

constexpr const char* kTags[] = {"ERR", "WAR", "INF", "TRA", "DBG", "NONE", "untagged"};
constexpr char kTimeForms[] =
    "\"MM-DD[ hh:mm[:ss]]\", \"YYYY-MM-DD[ hh:mm[:ss]]\", today, yesterday, now or -N(s|m|h|d)";

bool SameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool Number(std::string_view text, long long& value) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  return ec == std::errc() && ptr == end;
}

// The patterns of -g; each without capitals of its own matches either case,
// as in journalctl. An empty string, or what is wrong with one of them.
std::string CompileGrep(const std::vector<std::string>& patterns, Matcher& matcher) {
  for (const std::string& pattern : patterns)
    if (std::string error = matcher.Add(pattern, !HasCapital(pattern)); !error.empty())
      return "-g \"" + pattern + "\": " + error;
  return {};
}

}  // namespace

bool FilterOptions::any() const {
  return !levels.empty() || time() || !threads.empty() || !sources.empty() || !grep.empty();
}

std::string FilterOptions::Check() const {
  for (const auto& level : levels)
    if (std::none_of(std::begin(kTags), std::end(kTags),
                     [&](const char* tag) { return SameText(level, tag); }))
      return "--level takes ERR, WAR, INF, TRA, DBG, NONE or untagged, not \"" + level + "\"";
  TimeLimit limit;
  for (const auto* option : {&since, &until}) {
    const std::string name = option == &since ? "--since" : "--until";
    if (option->empty()) continue;
    if (std::string error = ParseTimeLimit(*option, LocalNow(), limit); !error.empty())
      return name + " takes " + kTimeForms + ", not \"" + *option + "\" (" + error + ")";
  }
  long long n = 0;
  for (const auto& thread : threads)
    if (!Number(thread, n)) return "--thread takes thread ids (numbers), not \"" + thread + "\"";
  if (!grep.empty()) {
    Matcher matcher;
    if (std::string error = CompileGrep(grep, matcher); !error.empty()) return error;
  }
  return {};
}

RecordFilter::RecordFilter(const Timeline& timeline, const FilterOptions& options, RecordSink& next)
    : timeline_(timeline),
      options_(options),
      next_(next),
      since_(std::numeric_limits<Civil>::min()),
      until_(std::numeric_limits<Civil>::max()) {
  for (std::string level : options_.levels) {
    for (char& c : level) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    levels_.push_back(level);
  }
  for (const auto& thread : options_.threads) {
    long long n = 0;
    if (Number(thread, n)) threads_.push_back(n);
  }
  if (!options_.grep.empty()) {
    grep_ = std::make_unique<Matcher>();
    CompileGrep(options_.grep, *grep_);
  }
}

std::string RecordFilter::Place() {
  const Civil now = LocalNow();
  TimeLimit limit;
  if (!options_.since.empty() && ParseTimeLimit(options_.since, now, limit).empty())
    since_ = limit.yearless ? timeline_.Place(limit.time) : limit.start;
  if (!options_.until.empty() && ParseTimeLimit(options_.until, now, limit).empty())
    until_ = (limit.yearless ? timeline_.Place(limit.time) : limit.start) + limit.span;
  if (options_.time() && since_ >= until_)
    return "the window is empty: --since " + IsoTime(since_) + " is not before --until " +
           IsoTime(until_);
  return {};
}

void RecordFilter::Write(const Record& r) {
  if (options_.time() && (!r.has_time || !InWindow(r.when))) return;
  if (!Matches(r)) return;
  ++passed_;
  next_.Write(r);
}

void RecordFilter::Flush() {
  next_.Flush();
  // Read once and nothing in the window: say where the records are.
  if (passed_ || told_ || !options_.time() || !timeline_.any_time()) return;
  told_ = true;
  if (timeline_.last() < since_ || timeline_.first() >= until_) {
    const std::string from =
        since_ == std::numeric_limits<Civil>::min() ? "the start" : IsoTime(since_);
    const std::string to =
        until_ == std::numeric_limits<Civil>::max() ? "the end" : IsoTime(until_);
    Note("", "no record from " + from + " to " + to + "; the records run from " +
                 IsoTime(timeline_.first()) + " to " + IsoTime(timeline_.last()));
  }
}

bool RecordFilter::Matches(const Record& r) const {
  const logrecord::Fields& f = r.fields;
  if (!options_.levels.empty()) {
    // The tags wanted are upper case; a record's tag is as written.
    const std::string_view level = f.level.empty() ? std::string_view("UNTAGGED") : f.level;
    if (std::find(levels_.begin(), levels_.end(), level) == levels_.end()) return false;
  }
  if (!threads_.empty()) {
    long long thread = 0;
    if (f.thread.empty() || !Number(f.thread, thread) ||
        std::find(threads_.begin(), threads_.end(), thread) == threads_.end())
      return false;
  }
  if (!options_.sources.empty()) {
    if (f.source.empty()) return false;
    const std::string_view stem = f.source.substr(0, f.source.rfind('.'));
    if (std::none_of(options_.sources.begin(), options_.sources.end(),
                     [&](const std::string& wanted) {
                       return SameText(wanted, f.source) || SameText(wanted, stem);
                     }))
      return false;
  }
  if (grep_) {
    // A message's own line end is not part of it for "$".
    std::string_view message = f.message;
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r'))
      message.remove_suffix(1);
    if (!grep_->Search(message)) return false;
  }
  return true;
}

}  // namespace logread
