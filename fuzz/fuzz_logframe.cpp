// libFuzzer target: the ".logdat" frame decoder, the log-form detection and
// the record parser.
//
// The input is used twice:
//  1. as the bytes of a log file: decoded in one piece, then again in pieces
//     whose sizes are drawn from the input itself, and byte by byte; all three
//     must agree, and every record handed back must re-encode to exactly the
//     bytes it came from;
//  2. as the text of a log: its lines are framed with the logger's encoder,
//     the stream is cut at a point drawn from the input, and decoding must give
//     back exactly the lines before the cut, the cut frame as a partial one.
//  3. as plain log text of either form: cut into records in pieces whose sizes
//     are drawn from the input, the records put together must give the input
//     back, and every record that parses must be rebuilt exactly from its
//     fields.
// Any disagreement aborts, so that libFuzzer keeps the input.
#include "LogFrame.h"
#include "LogFrameReader.h"
#include "LogRecord.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

using logframe::Detection;
using logframe::FrameDecoder;
using logframe::kHeaderSize;
using logframe::kMaxRecordLength;
using logframe::Record;

namespace {

#define CHECK(cond)                                                                  \
  do {                                                                               \
    if (!(cond)) {                                                                   \
      std::fprintf(stderr, "fuzz_logframe.cpp:%d: check failed: %s\n", __LINE__, #cond); \
      std::abort();                                                                  \
    }                                                                                \
  } while (0)

// A small deterministic generator seeded from the input, for piece sizes and
// cut points: the same input always takes the same path.
struct SplitMix {
  std::uint64_t state;
  std::uint64_t Next() {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
};

std::uint64_t Hash(const std::uint8_t* data, std::size_t size) {
  std::uint64_t h = 1469598103934665603ull;  // FNV-1a
  for (std::size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 1099511628211ull;
  return h;
}

struct Outcome {
  FrameDecoder::Status status;
  std::vector<Record> records;
  std::uint64_t frame_offset;
  std::size_t pending;
  std::uint64_t expected;
  std::string message;
};

Outcome Finish(const FrameDecoder& decoder, std::vector<Record> records) {
  return {decoder.status(), std::move(records), decoder.frame_offset(), decoder.pending_bytes(),
          decoder.expected_frame_size(), decoder.ErrorMessage()};
}

// After an error only the status, the records, the bad frame's offset and the
// message are defined; how much of the bad frame was buffered depends on how
// it was fed (has_partial_frame() is false then).
bool SameOutcome(const Outcome& a, const Outcome& b) {
  if (a.status != b.status || a.frame_offset != b.frame_offset || a.message != b.message ||
      a.records.size() != b.records.size())
    return false;
  if (a.status == FrameDecoder::Status::kOk && (a.pending != b.pending || a.expected != b.expected))
    return false;
  for (std::size_t i = 0; i < a.records.size(); ++i)
    if (a.records[i].offset != b.records[i].offset || a.records[i].text != b.records[i].text) return false;
  return true;
}

// Feeds `file` in pieces; `next_piece` gives each piece's size (0 allowed).
template <typename NextPiece>
Outcome DecodeInPieces(std::string_view file, NextPiece next_piece) {
  FrameDecoder decoder;
  std::vector<Record> records;
  std::size_t at = 0;
  while (at < file.size()) {
    const std::size_t piece = std::min(next_piece(), file.size() - at);
    const auto status = decoder.Feed(file.data() + at, piece, records);
    CHECK(status == decoder.status());
    // After an error nothing more is appended and the error stays.
    if (status != FrameDecoder::Status::kOk) {
      const std::size_t count = records.size();
      CHECK(decoder.Feed(file.data(), file.size(), records) == status);
      CHECK(records.size() == count);
    }
    at += piece;
  }
  return Finish(decoder, std::move(records));
}

// What must hold for any decoding of `file`, however it was fed.
void CheckAgainstFile(const Outcome& out, std::string_view file) {
  std::uint64_t offset = 0;
  for (const Record& record : out.records) {
    CHECK(record.offset == offset);
    CHECK(!record.text.empty() && record.text.back() == '\n');
    CHECK(record.text.size() <= kMaxRecordLength);
    // The record re-encodes to the very bytes of its frame.
    const std::string frame = logframe::EncodeFrame(record.text);
    CHECK(offset + frame.size() <= file.size());
    CHECK(file.substr(offset, frame.size()) == frame);
    offset += frame.size();
  }
  CHECK(out.frame_offset == offset);
  switch (out.status) {
    case FrameDecoder::Status::kOk:
      CHECK(out.message.empty());
      // Every byte is in a record or in the partial frame.
      CHECK(out.frame_offset + out.pending == file.size());
      if (out.pending < kHeaderSize) {
        CHECK(out.expected == 0);
      } else {
        CHECK(out.expected > out.pending);
        CHECK(out.expected <= kHeaderSize + kMaxRecordLength);
      }
      break;
    case FrameDecoder::Status::kBadLength: {
      CHECK(offset + kHeaderSize <= file.size());
      const auto length = logframe::DecodeLength(reinterpret_cast<const unsigned char*>(file.data() + offset));
      CHECK(length > kMaxRecordLength);
      CHECK(out.message.find("offset " + std::to_string(offset)) != std::string::npos);
      break;
    }
    case FrameDecoder::Status::kNotARecord: {
      CHECK(offset + kHeaderSize <= file.size());
      const auto length = logframe::DecodeLength(reinterpret_cast<const unsigned char*>(file.data() + offset));
      CHECK(offset + kHeaderSize + length <= file.size());
      CHECK(length == 0 || static_cast<unsigned char>(file[offset + kHeaderSize + length - 1]) != 0xF5);
      CHECK(out.message.find("offset " + std::to_string(offset)) != std::string::npos);
      break;
    }
  }
}

void FuzzDecoder(std::string_view file, SplitMix& rng) {
  FrameDecoder decoder;
  std::vector<Record> records;
  decoder.Feed(file.data(), file.size(), records);
  const Outcome whole = Finish(decoder, std::move(records));
  CheckAgainstFile(whole, file);

  // Reset forgets everything: the same bytes decode the same way again.
  decoder.Reset();
  CHECK(decoder.status() == FrameDecoder::Status::kOk && decoder.bytes_fed() == 0 &&
        !decoder.has_partial_frame());
  std::vector<Record> again;
  decoder.Feed(file.data(), file.size(), again);
  CHECK(SameOutcome(whole, Finish(decoder, std::move(again))));

  // Pieces of 0 to 16 bytes, or up to 1/4 of the input, as drawn.
  const Outcome pieces = DecodeInPieces(file, [&] {
    const std::uint64_t r = rng.Next();
    return (r & 1) ? static_cast<std::size_t>((r >> 1) % 17) : static_cast<std::size_t>((r >> 1) % (file.size() / 4 + 1));
  });
  CHECK(SameOutcome(whole, pieces));

  if (file.size() <= 4096) {
    const Outcome bytes = DecodeInPieces(file, [] { return std::size_t{1}; });
    CHECK(SameOutcome(whole, bytes));
  }
}

void FuzzDetection(std::string_view file) {
  // Only the first five bytes decide, and a decision never changes once made.
  Detection settled = Detection::kUndecided;
  for (std::size_t n = 0; n <= std::min<std::size_t>(file.size(), 8); ++n) {
    const Detection d = logframe::DetectFormat(file.substr(0, n));
    if (n == 0) CHECK(d == Detection::kUndecided);
    if (n >= 5) CHECK(d != Detection::kUndecided);
    if (settled != Detection::kUndecided) CHECK(d == settled);
    settled = d;
  }
  if (file.size() >= 5) {
    const Detection d = logframe::DetectFormat(file);
    const auto* bytes = reinterpret_cast<const unsigned char*>(file.data());
    const std::uint32_t length = logframe::DecodeLength(bytes);
    if (d == Detection::kLogdat) {
      CHECK(length >= 1 && length <= kMaxRecordLength);
      const unsigned char first = static_cast<unsigned char>(~bytes[kHeaderSize]);
      CHECK(first >= '0' && first <= '9');
    }
    if (d == Detection::kPlain) CHECK(file[2] == '-' && file[0] >= '0' && file[0] <= '9');
    if (d == Detection::kSensorLib) CHECK((file[0] == '[' && file[3] == '-') || file.substr(0, 5) == "Versi");
  }
}

// The input's lines, each with its line feed, framed by the logger's encoder.
void FuzzRoundTrip(std::string_view text, SplitMix& rng) {
  std::vector<std::string> lines;
  std::string stream;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    std::string line(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
    line += '\n';
    stream += logframe::EncodeFrame(line);
    lines.push_back(std::move(line));
    if (end == std::string_view::npos) break;
    start = end + 1;
  }

  // Cut the stream anywhere: what is before the cut comes back whole, the
  // frame the cut falls into waits as a partial frame (a torn last frame).
  const std::size_t cut = stream.empty() ? 0 : static_cast<std::size_t>(rng.Next() % (stream.size() + 1));
  const std::string_view torn(stream.data(), cut);
  const Outcome out = DecodeInPieces(torn, [&] { return static_cast<std::size_t>(rng.Next() % 64); });
  CHECK(out.status == FrameDecoder::Status::kOk);
  CheckAgainstFile(out, torn);
  std::uint64_t offset = 0;
  std::size_t whole = 0;
  while (whole < lines.size() && offset + kHeaderSize + lines[whole].size() <= cut) {
    offset += kHeaderSize + lines[whole].size();
    ++whole;
  }
  CHECK(out.records.size() == whole);
  for (std::size_t i = 0; i < whole; ++i) CHECK(out.records[i].text == lines[i]);
  CHECK(out.pending == cut - offset);
  if (out.pending >= kHeaderSize) CHECK(out.expected == kHeaderSize + lines[whole].size());

  // Uncut, with a plain text's first line: the detection agrees.
  if (!lines.empty() && lines[0].size() >= 2 && lines[0][0] >= '0' && lines[0][0] <= '9')
    CHECK(logframe::DetectFormat(stream) == Detection::kLogdat);
}

// A record's text rebuilt from its fields, without its final line end.
std::string Rebuild(logrecord::Form form, const logrecord::Fields& f) {
  if (!f.has_time) return std::string(f.message);
  char time[64];
  const logrecord::Time& t = f.time;
  if (form == logrecord::Form::kPlugin) {
    std::snprintf(time, sizeof time, "%02d-%02d %02d:%02d:%02d:%03d : ", t.month, t.day, t.hour, t.minute,
                  t.second, t.millisecond);
    return std::string(time) + "[" + std::string(f.level) + "][" + std::string(f.thread) + "] " +
           std::string(f.source) + "(" + std::string(f.line) + ") " + std::string(f.message);
  }
  std::snprintf(time, sizeof time, "[%02d-%02d-%02d-%02d-%02d:%d]", t.month, t.day, t.hour, t.minute, t.second,
                t.millisecond);
  return std::string(time) + std::string(f.message);
}

void FuzzRecords(std::string_view text, SplitMix& rng) {
  for (const auto form : {logrecord::Form::kPlugin, logrecord::Form::kSensorLib}) {
    logrecord::RecordSplitter splitter(form);
    std::vector<std::string> records;
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t piece = std::min<std::size_t>(rng.Next() % 40, text.size() - at);
      splitter.Feed(text.data() + at, piece, records);
      at += piece;
    }
    splitter.Flush(records);
    std::string joined;
    for (std::size_t i = 0; i < records.size(); ++i) {
      const std::string& r = records[i];
      CHECK(!r.empty());
      joined += r;
      // Only the first record may start with a line that starts no record.
      if (i > 0) CHECK(logrecord::StartsRecord(form, r));
      logrecord::Fields f;
      const bool parsed = logrecord::ParseRecord(form, r, f);
      // Sensor lines whose zero-padded fields were written differently
      // ("[1-2-3-4-5:6]") parse too; the rebuild pads them, so compare only
      // records that were written the way the writer writes them.
      const std::string rebuilt = Rebuild(form, f);
      std::string_view body(r);
      if (!body.empty() && body.back() == '\n') body.remove_suffix(1);
      if (!body.empty() && body.back() == '\r') body.remove_suffix(1);
      if (parsed && f.has_time && form == logrecord::Form::kPlugin) CHECK(rebuilt == body);
      if (!parsed) CHECK(f.message == body && !f.has_time);
      // Two-digit hours, minutes and seconds go up to 99.
      if (f.has_time) CHECK(f.time.Key() >= 0 && f.time.Key() < logrecord::kYearMs + 5 * logrecord::kDayMs);
    }
    CHECK(joined == text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  SplitMix rng{Hash(data, size)};
  FuzzDecoder(input, rng);
  FuzzDetection(input);
  FuzzRoundTrip(input, rng);
  FuzzRecords(input, rng);
  return 0;
}
