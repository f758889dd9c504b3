#include "LogFrameReader.h"

#include "LogFrame.h"

#include <algorithm>

namespace logframe {

namespace {

constexpr unsigned char kStoredLineFeed = static_cast<unsigned char>(~'\n');  // 0xF5

bool IsDigit(unsigned char c) { return c >= '0' && c <= '9'; }

std::uint32_t HeaderLength(const std::string& pending) {
  return DecodeLength(reinterpret_cast<const unsigned char*>(pending.data()));
}

}  // namespace

FrameDecoder::Status FrameDecoder::Fail(Status status) {
  status_ = status;
  return status_;
}

void FrameDecoder::Reset() {
  status_ = Status::kOk;
  frame_offset_ = 0;
  bad_length_ = 0;
  pending_.clear();
  pending_.shrink_to_fit();
}

std::uint64_t FrameDecoder::expected_frame_size() const {
  if (pending_.size() < kHeaderSize) return 0;
  return kHeaderSize + static_cast<std::uint64_t>(HeaderLength(pending_));
}

FrameDecoder::Status FrameDecoder::Feed(const void* data, std::size_t size,
                                        std::vector<Record>& records) {
  if (status_ != Status::kOk) return status_;
  auto in = static_cast<const char*>(data);
  for (;;) {
    if (pending_.size() < kHeaderSize) {
      if (size == 0) break;
      const std::size_t take = std::min(kHeaderSize - pending_.size(), size);
      pending_.append(in, take);
      in += take;
      size -= take;
      if (pending_.size() < kHeaderSize) break;
      const std::uint32_t length = HeaderLength(pending_);
      if (length > kMaxRecordLength) {
        bad_length_ = length;
        return Fail(Status::kBadLength);
      }
    }
    const std::uint32_t length = HeaderLength(pending_);
    const std::size_t have = pending_.size() - kHeaderSize;
    const std::size_t missing = length - have;
    if (size < missing) {
      pending_.append(in, size);
      break;
    }
    Record record;
    if (have == 0) {
      record.text.assign(in, length);  // the whole text is in this piece
    } else {
      pending_.append(in, missing);
      record.text.assign(pending_, kHeaderSize, std::string::npos);
    }
    in += missing;
    size -= missing;
    // Every record the logger writes ends with a line feed; a frame whose text
    // does not is not one of its frames (also the case for an empty frame).
    if (record.text.empty() || static_cast<unsigned char>(record.text.back()) != kStoredLineFeed) {
      bad_length_ = length;
      return Fail(Status::kNotARecord);
    }
    Scramble(reinterpret_cast<unsigned char*>(record.text.data()),
             static_cast<std::int32_t>(record.text.size()));
    record.offset = frame_offset_;
    frame_offset_ += kHeaderSize + length;
    pending_.clear();
    records.push_back(std::move(record));
  }
  return status_;
}

std::string FrameDecoder::ErrorMessage() const {
  switch (status_) {
    case Status::kOk:
      return {};
    case Status::kBadLength:
      return "corrupt length at offset " + std::to_string(frame_offset_) +
             ": the frame announces " + std::to_string(bad_length_) +
             " bytes, more than any log record (limit " + std::to_string(kMaxRecordLength) +
             "); not a .logdat file, or a damaged one";
    case Status::kNotARecord:
      return "frame at offset " + std::to_string(frame_offset_) + " (" +
             std::to_string(bad_length_) +
             " bytes) does not hold a log record: its text does not end with a line feed; "
             "not a .logdat file, or a damaged one";
  }
  return {};
}

Detection DetectFormat(std::string_view head) {
  if (head.empty()) return Detection::kUndecided;
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(head[i]); };
  const std::size_t n = std::min<std::size_t>(head.size(), 5);

  // Plain: "MM-DD".
  bool plain = true;
  for (std::size_t i = 0; i < n; ++i) plain = plain && (i == 2 ? byte(i) == '-' : IsDigit(byte(i)));

  // Framed: a length of 1 to the cap, then the complement of a digit.
  bool framed = true;
  if (head.size() >= kHeaderSize) {
    const std::uint32_t length = DecodeLength(reinterpret_cast<const unsigned char*>(head.data()));
    framed = length >= 1 && length <= kMaxRecordLength;
  }
  if (head.size() > kHeaderSize)
    framed = framed && IsDigit(static_cast<unsigned char>(~byte(kHeaderSize)));

  // Sensor library: "[MM-D" (a time) or "Versi" (its version line).
  constexpr std::string_view kVersion = "Versi";
  bool sensor_version = head.substr(0, n) == kVersion.substr(0, n);
  bool sensor_time = true;
  for (std::size_t i = 0; i < n; ++i)
    sensor_time = sensor_time && (i == 0   ? byte(i) == '['
                                  : i == 3 ? byte(i) == '-'
                                           : IsDigit(byte(i)));
  const bool sensor = sensor_version || sensor_time;

  if (head.size() < 5)
    return plain || framed || sensor ? Detection::kUndecided : Detection::kNeither;
  // With five bytes no two can hold: the fourth byte is a digit in a plain
  // record, 0 or 1 in a frame's length, '-' or 's' in a sensor library line.
  if (framed) return Detection::kLogdat;
  if (plain) return Detection::kPlain;
  if (sensor) return Detection::kSensorLib;
  return Detection::kNeither;
}

}  // namespace logframe
