#include "RecordFilter.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>

namespace logread {

namespace {

constexpr const char* kTags[] = {"ERR", "WAR", "INF", "TRA", "DBG", "NONE", "untagged"};

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

// The end of the minute, or of the second when seconds are given, in ms after
// the start of the time.
std::int64_t Span(const std::string& time) {
  return std::count(time.begin(), time.end(), ':') >= 2 ? 1000 : 60000;
}

}  // namespace

bool FilterOptions::any() const {
  return !levels.empty() || !since.empty() || !until.empty() || !threads.empty() ||
         !sources.empty();
}

std::string FilterOptions::Check() const {
  for (const auto& level : levels)
    if (std::none_of(std::begin(kTags), std::end(kTags),
                     [&](const char* tag) { return SameText(level, tag); }))
      return "--level takes ERR, WAR, INF, TRA, DBG, NONE or untagged, not \"" + level + "\"";
  logrecord::Time t;
  if (!since.empty() && !logrecord::ParseTimeArgument(since, t))
    return "--since takes \"MM-DD hh:mm\" or \"MM-DD hh:mm:ss\", not \"" + since + "\"";
  if (!until.empty() && !logrecord::ParseTimeArgument(until, t))
    return "--until takes \"MM-DD hh:mm\" or \"MM-DD hh:mm:ss\", not \"" + until + "\"";
  long long n = 0;
  for (const auto& thread : threads)
    if (!Number(thread, n)) return "--thread takes thread ids (numbers), not \"" + thread + "\"";
  return {};
}

RecordFilter::RecordFilter(const Timeline& timeline, const FilterOptions& options, RecordSink& next)
    : timeline_(timeline), options_(options), next_(next) {
  for (const auto& thread : options_.threads) {
    long long n = 0;
    if (Number(thread, n)) threads_.push_back(n);
  }
}

void RecordFilter::Write(const Record& record) {
  if (Passes(record)) next_.Write(record);
}

bool RecordFilter::Passes(const Record& r) {
  const logrecord::Fields& f = r.fields;
  if (!options_.levels.empty()) {
    const std::string_view level = f.level.empty() ? std::string_view("untagged") : f.level;
    if (std::none_of(options_.levels.begin(), options_.levels.end(),
                     [&](const std::string& wanted) { return SameText(wanted, level); }))
      return false;
  }
  if (!options_.since.empty() || !options_.until.empty()) {
    if (!r.has_time) return false;
    // Placed with the first record: only then is the reference year known.
    if (!placed_) {
      placed_ = true;
      logrecord::Time t;
      since_ = std::numeric_limits<std::int64_t>::min();
      until_ = std::numeric_limits<std::int64_t>::max();
      if (logrecord::ParseTimeArgument(options_.since, t)) since_ = timeline_.Place(t);
      if (logrecord::ParseTimeArgument(options_.until, t))
        until_ = timeline_.Place(t) + Span(options_.until);
    }
    if (r.when < since_ || r.when >= until_) return false;
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
  return true;
}

}  // namespace logread
