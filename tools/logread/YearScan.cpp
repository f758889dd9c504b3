#include "YearScan.h"

#include <algorithm>
#include <cstring>

namespace logread {

namespace {

// "MM-DD hh:mm:ss:mmm", the start of a plug-in record.
constexpr std::size_t kStampSize = 18;

bool Stamp(const char* s, logrecord::Time& t) {
  static constexpr char kShape[] = "dd-dd dd:dd:dd:ddd";
  int fields[7] = {}, field = 0;
  for (std::size_t i = 0; i < kStampSize; ++i) {
    if (kShape[i] != 'd') {
      if (s[i] != kShape[i]) return false;
      ++field;
    } else if (s[i] >= '0' && s[i] <= '9') {
      fields[field] = fields[field] * 10 + (s[i] - '0');
    } else {
      return false;
    }
  }
  t = logrecord::Time{fields[0], fields[1], fields[2], fields[3], fields[4], fields[5]};
  return true;
}

}  // namespace

void YearScanner::Take(const logrecord::Time& t) {
  if (!count.any) first = t;
  count.Add(t);
  last = t;
}

void YearScanner::Feed(const char* data, std::size_t size) {
  if (format_ == logframe::LogFormat::kLogdat) return FeedFrames(data, size);
  while (size > 0) {
    const char* end = static_cast<const char*>(std::memchr(data, '\n', size));
    if (!end) {
      line_.append(data, size);
      return;
    }
    const std::size_t n = static_cast<std::size_t>(end - data);
    if (line_.empty()) {
      Line(std::string_view(data, n));
    } else {
      line_.append(data, n);
      Line(line_);
      line_.clear();
    }
    data += n + 1;
    size -= n + 1;
  }
}

void YearScanner::Finish() {
  if (format_ != logframe::LogFormat::kLogdat && !line_.empty()) Line(line_);
  line_.clear();
}

void YearScanner::Line(std::string_view line) {
  const logrecord::Form form = format_ == logframe::LogFormat::kSensorLib
                                   ? logrecord::Form::kSensorLib
                                   : logrecord::Form::kPlugin;
  if (!logrecord::StartsRecord(form, line)) return;
  logrecord::Fields fields;
  if (logrecord::ParseRecord(form, line, fields) && fields.has_time) Take(fields.time);
}

void YearScanner::FeedFrames(const char* data, std::size_t size) {
  while (size > 0 && !stopped_) {
    if (skip_ == 0 && head_.empty() && size >= 4 + kStampSize) {
      // A whole header in the buffer: no copy.
      const auto* b = reinterpret_cast<const unsigned char*>(data);
      const std::uint32_t length = b[0] | b[1] << 8 | b[2] << 16 | std::uint32_t(b[3]) << 24;
      if (length < kStampSize || length > logframe::kMaxRecordLength) {
        if (length == 0 || length > logframe::kMaxRecordLength) stopped_ = true;
        if (stopped_) return;
      } else {
        char text[kStampSize];
        for (std::size_t i = 0; i < kStampSize; ++i) text[i] = static_cast<char>(~b[4 + i]);
        timed_ = Stamp(text, pending_);
        if (4 + std::size_t{length} <= size) {
          if (timed_) Take(pending_);
          data += 4 + length;
          size -= 4 + length;
        } else {
          skip_ = 4 + std::uint64_t{length} - size;
          size = 0;
        }
        continue;
      }
    }
    if (skip_ > 0) {
      const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(skip_, size));
      skip_ -= n;
      data += n;
      size -= n;
      if (skip_ == 0 && timed_) Take(pending_);
      continue;
    }
    std::size_t want = 4;
    std::uint32_t length = 0;
    if (head_.size() >= 4) {
      for (int i = 3; i >= 0; --i) length = length << 8 | static_cast<unsigned char>(head_[i]);
      if (length == 0 || length > logframe::kMaxRecordLength) {
        stopped_ = true;
        return;
      }
      want = 4 + std::min<std::size_t>(length, kStampSize);
    }
    const std::size_t n = std::min(want - head_.size(), size);
    head_.append(data, n);
    data += n;
    size -= n;
    if (head_.size() < want || want == 4) continue;
    // The header and the first bytes of the text: its time, complemented.
    char text[kStampSize];
    const std::size_t have = want - 4;
    for (std::size_t i = 0; i < have; ++i) text[i] = static_cast<char>(~head_[4 + i]);
    timed_ = have == kStampSize && Stamp(text, pending_);
    skip_ = length - have;
    head_.clear();
    if (skip_ == 0 && timed_) Take(pending_);
  }
}

}  // namespace logread
