// libFuzzer target: the input as a ".logdat" file (whole, after Reset and in
// drawn pieces), as the bytes that decide a log's form, and as plain log text.
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "LogFrame.h"
#include "LogFrameReader.h"
#include "LogRecord.h"

using namespace logframe;
using Status = FrameDecoder::Status;

namespace {

// Feeds `file` in pieces of the sizes `next` draws (0 allowed); judges what
// holds however it was fed.
template <typename Next>
void Decode(std::string_view file, Next next, FrameDecoder& decoder) {
  std::vector<Record> records;
  for (std::size_t at = 0, piece; at < file.size(); at += piece) {
    piece = std::min<std::size_t>(next(), file.size() - at);
    const Status status = decoder.Feed(file.data() + at, piece, records);
    CHECK(status == decoder.status());
    const std::size_t count = records.size();  // after an error nothing is appended
    CHECK(status == Status::kOk ||
          (decoder.Feed(file.data(), file.size(), records) == status && records.size() == count));
  }
  std::uint64_t offset = 0;
  for (const auto& record : records) {
    CHECK(record.offset == offset && !record.text.empty() && record.text.back() == '\n');
    const std::string frame = EncodeFrame(record.text);
    CHECK(file.substr(offset, frame.size()) == frame);
    offset += frame.size();
  }
  CHECK(decoder.frame_offset() == offset);
  const std::uint32_t length =
      offset + kHeaderSize <= file.size()
          ? DecodeLength(reinterpret_cast<const unsigned char*>(file.data() + offset))
          : 0;
  const std::string message = decoder.ErrorMessage();
  const std::uint64_t pending = decoder.pending_bytes(), expected = decoder.expected_frame_size();
  if (decoder.status() == Status::kOk) {  // the rest is one partial frame
    CHECK(message.empty() && offset + pending == file.size());
    CHECK(pending < kHeaderSize ? expected == 0
                                : expected == kHeaderSize + length && pending < expected &&
                                      length <= kMaxRecordLength);
  } else {
    CHECK(offset + kHeaderSize <= file.size() &&
          message.find("offset " + std::to_string(offset)) != std::string::npos);
    // A bad length exceeds the cap; a frame that is no record lacks its line feed.
    if (decoder.status() == Status::kBadLength) CHECK(length > kMaxRecordLength);
    if (decoder.status() == Status::kNotARecord)
      CHECK(offset + kHeaderSize + length <= file.size() &&
            (length == 0 ||
             static_cast<unsigned char>(file[offset + kHeaderSize + length - 1]) != 0xF5));
  }
}

void FuzzDecoder(std::string_view file, std::mt19937_64& rng) {
  FrameDecoder decoder, pieces;
  const auto all_at_once = [&] { return file.size(); };
  Decode(file, all_at_once, decoder);
  decoder.Reset();  // the same bytes decode the same way again
  Decode(file, all_at_once, decoder);
  const auto drawn = [&] { return rng() & 1 ? rng() % 17 : rng() % (file.size() / 4 + 1); };
  Decode(file, drawn, pieces);
}

// Five bytes decide, and a decision never changes as more bytes come.
void FuzzDetection(std::string_view file) {
  Detection settled = Detection::kUndecided;
  for (std::size_t n = 0; n <= std::min<std::size_t>(file.size(), 8); ++n) {
    const Detection d = DetectFormat(file.substr(0, n));
    CHECK((n > 0 || d == Detection::kUndecided) && (n < 5 || d != Detection::kUndecided));
    CHECK(settled == Detection::kUndecided || d == settled);
    settled = d;
  }
}

void FuzzRecords(std::string_view text, std::mt19937_64& rng) {
  for (const auto form : {logrecord::Form::kPlugin, logrecord::Form::kSensorLib}) {
    logrecord::RecordSplitter splitter(form);
    std::vector<std::string> records;
    for (std::size_t at = 0, piece; at < text.size(); at += piece)
      splitter.Feed(text.data() + at, piece = std::min<std::size_t>(rng() % 40, text.size() - at),
                    records);
    splitter.Flush(records);
    std::string joined;
    for (std::size_t i = 0; i < records.size(); ++i) {
      // Only the first record may begin with a line that starts none.
      CHECK(!records[i].empty() && (i == 0 || logrecord::StartsRecord(form, records[i])));
      joined += records[i];
      logrecord::Fields f;
      const bool parsed = logrecord::ParseRecord(form, records[i], f);
      std::string_view body(records[i]);
      if (body.back() == '\n') body.remove_suffix(1);
      if (!body.empty() && body.back() == '\r') body.remove_suffix(1);
      if (!parsed) CHECK(f.message == body && !f.has_time);
    }
    CHECK(joined == text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::mt19937_64 rng(std::hash<std::string_view>()(input));  // one input, one path
  FuzzDecoder(input, rng);
  FuzzDetection(input);
  FuzzRecords(input, rng);
  return 0;
}
