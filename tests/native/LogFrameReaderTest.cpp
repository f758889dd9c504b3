// The frame codec and the incremental decoder, driven directly: the frame
// bytes against their definition, every split of the input, a corrupt length,
// the form detection's borders. Torn, corrupt and foreign files through
// logread: data/cases.txt.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogFrame.h"
#include "LogFrameReader.h"

namespace {

using logframe::Detection;
using logframe::FrameDecoder;
using logframe::Record;
using Status = logframe::FrameDecoder::Status;

// A frame by its definition: the byte count in 4 bytes, little-endian, then
// each byte of the record stored as 255 - b.
std::string Frame(const std::string& text, std::uint32_t length) {
  std::string out;
  for (int i = 0; i < 4; ++i) out += static_cast<char>(length >> 8 * i);
  for (char c : text) out += static_cast<char>(255 - static_cast<unsigned char>(c));
  return out;
}
std::string Frame(const std::string& text) {
  return Frame(text, static_cast<std::uint32_t>(text.size()));
}

const std::string kRecord61 = "11-14 09:05:07:042 : [INF][04242] Bridge.cpp(57) get_ability\n";
// Longer than 255 bytes, so its length field uses two bytes; and UTF-8.
const std::string kLong =
    "11-14 09:05:07:043 : [WAR][04242] A.cpp(2) " + std::string(300, 'x') + " \xC3\xA9\n";

TEST(LogFrame, EncodesByTheDefinition) {
  EXPECT_EQ(Frame(kRecord61), logframe::EncodeFrame(kRecord61));
  EXPECT_EQ(std::string("\x3D\0\0\0", 4), Frame(kRecord61).substr(0, 4));
  EXPECT_EQ(Frame(kLong), logframe::EncodeFrame(kLong));
}

TEST(FrameDecoder, SameRecordsAndOffsetsWhateverTheSplit) {
  const std::string stream = Frame(kRecord61) + Frame(kLong) + Frame(kRecord61);
  const std::vector<std::uint64_t> offsets = {0, 65, 65 + 4 + kLong.size()};
  for (std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{65}, stream.size()}) {
    FrameDecoder decoder;
    std::vector<Record> records;
    for (std::size_t at = 0; at < stream.size(); at += piece)
      decoder.Feed(stream.data() + at, std::min(piece, stream.size() - at), records);
    ASSERT_EQ(3u, records.size()) << piece;
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(offsets[i], records[i].offset) << piece;
    EXPECT_EQ(kLong, records[1].text);
    EXPECT_FALSE(decoder.has_partial_frame());
    EXPECT_EQ(stream.size(), decoder.bytes_fed());
  }
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    FrameDecoder decoder;
    std::vector<Record> records;
    decoder.Feed(stream.data(), cut, records);
    decoder.Feed(stream.data() + cut, stream.size() - cut, records);
    ASSERT_EQ(3u, records.size()) << "cut at " << cut;
    EXPECT_EQ(kLong, records[1].text) << "cut at " << cut;
  }
}

// 0xFFFFFFFF also catches a size computed in 32 bits (length + 4 wraps).
TEST(FrameDecoder, LengthOverTheCapStopsUntilReset) {
  for (std::uint32_t length : {logframe::kMaxRecordLength + 1, 0xFFFFFFFFu}) {
    const std::string input = Frame(kRecord61) + Frame(std::string(100, '1'), length);
    FrameDecoder decoder;
    std::vector<Record> records;
    EXPECT_EQ(Status::kBadLength, decoder.Feed(input.data(), input.size(), records));
    EXPECT_EQ(1u, records.size());
    EXPECT_EQ(4u, decoder.pending_bytes()) << "only the length field is held";
    EXPECT_NE(std::string::npos, decoder.ErrorMessage().find("corrupt length at offset 65"))
        << decoder.ErrorMessage();
    EXPECT_NE(std::string::npos, decoder.ErrorMessage().find(std::to_string(length)))
        << decoder.ErrorMessage();
    EXPECT_EQ(Status::kBadLength, decoder.Feed(input.data(), 65, records));
    decoder.Reset();
    EXPECT_EQ(Status::kOk, decoder.Feed(input.data(), 65, records));
    EXPECT_EQ(2u, records.size());
  }
}

TEST(DetectFormat, TellsFramesFromPlainRecordsFromTheFirstFiveBytes) {
  const struct {
    std::string head;
    Detection expected;
  } cases[] = {
      {Frame(kRecord61).substr(0, 5), Detection::kLogdat},
      {Frame(std::string(48, '1') + "\n"), Detection::kLogdat},  // its length byte is the digit '1'
      {kRecord61.substr(0, 5), Detection::kPlain},
      {"[11-14-09-05-08:790]InitFusion:FusionMask: 0x40\r\n", Detection::kSensorLib},
      {"Version:0.0.0.3\r\n", Detection::kSensorLib},
      {"", Detection::kUndecided},
      {"[11-", Detection::kUndecided},
      {"11-1", Detection::kUndecided},
      {Frame(kRecord61).substr(0, 4), Detection::kUndecided},
      {"[ERR] x", Detection::kNeither},
      {std::string("\0\0\0\2", 4), Detection::kNeither},  // a length over the cap
      {std::string("\x3D\0\0\0"
                   "11",
                   6),
       Detection::kNeither},                              // not complemented
      {"\xEF\xBB\xBF" + kRecord61, Detection::kNeither},  // a byte-order mark
      {"11/14 09:05", Detection::kNeither},
      {std::string(8, '\0'), Detection::kNeither},  // zeros, as a file after a crash
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.expected, logframe::DetectFormat(c.head)) << testing::PrintToString(c.head);
}

}  // namespace
