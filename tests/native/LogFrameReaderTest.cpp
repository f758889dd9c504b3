// The frame codec and the incremental decoder, driven directly: exact frame
// bytes, every split of the input, torn frames, and the checks that stop at
// corrupt or foreign data. logread's behaviour on files is in LogreadCliTest.
#include "LogFrame.h"
#include "LogFrameReader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using logframe::Detection;
using logframe::FrameDecoder;
using logframe::Record;
using Status = logframe::FrameDecoder::Status;

std::string Bytes(std::initializer_list<int> values) {
  std::string out;
  for (int v : values) out.push_back(static_cast<char>(v));
  return out;
}

// Feeds `input` to `decoder` in pieces of `piece` bytes (0: all at once).
std::vector<Record> Decode(const std::string& input, std::size_t piece, FrameDecoder& decoder) {
  std::vector<Record> records;
  if (piece == 0) piece = input.empty() ? 1 : input.size();
  for (std::size_t at = 0; at < input.size(); at += piece)
    decoder.Feed(input.data() + at, std::min(piece, input.size() - at), records);
  return records;
}

const std::string kRecord61 = "11-14 09:05:07:042 : [INF][04242] Bridge.cpp(57) get_ability\n";
// Longer than 255 bytes, so its length field uses two bytes.
const std::string kRecordLong = "11-14 09:05:07:043 : [WAR][04242] A.cpp(2) " + std::string(300, 'x') + "\n";

TEST(LogFrame, ExactBytesOfAFrame) {
  const std::string frame = logframe::EncodeFrame(kRecord61);
  ASSERT_EQ(frame.size(), 65u);
  EXPECT_EQ(frame.substr(0, 4), Bytes({0x3D, 0x00, 0x00, 0x00}));
  for (std::size_t i = 0; i < kRecord61.size(); ++i)
    EXPECT_EQ(static_cast<unsigned char>(frame[4 + i]), 255 - static_cast<unsigned char>(kRecord61[i])) << i;

  unsigned char bytes[2] = {0x12, 0x34};
  logframe::Scramble(bytes, -5);  // a count below 1 changes nothing
  logframe::Scramble(bytes, 1);
  EXPECT_EQ(bytes[0], 0xED);
  EXPECT_EQ(bytes[1], 0x34);
}

TEST(FrameDecoder, SameRecordsAndOffsetsWhateverTheSplit) {
  const std::vector<std::string> texts = {kRecord61, kRecordLong, "11-14 09:05:07:044 : [ERR][04242] A.cpp(3) é\n"};
  std::string stream;
  std::vector<std::uint64_t> offsets;
  for (const auto& text : texts) {
    offsets.push_back(stream.size());
    stream += logframe::EncodeFrame(text);
  }
  for (std::size_t piece : {1u, 3u, 65u, 0u}) {
    SCOPED_TRACE("piece " + std::to_string(piece));
    FrameDecoder decoder;
    const auto records = Decode(stream, piece, decoder);
    ASSERT_EQ(records.size(), texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
      EXPECT_EQ(records[i].text, texts[i]);
      EXPECT_EQ(records[i].offset, offsets[i]);
    }
    EXPECT_FALSE(decoder.has_partial_frame());
    EXPECT_EQ(decoder.bytes_fed(), stream.size());
  }
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    FrameDecoder decoder;
    std::vector<Record> records;
    decoder.Feed(stream.data(), cut, records);
    decoder.Feed(stream.data() + cut, stream.size() - cut, records);
    ASSERT_EQ(records.size(), texts.size()) << "cut at " << cut;
    EXPECT_EQ(records[2].text, texts[2]) << "cut at " << cut;
  }
}

TEST(FrameDecoder, TornFrameIsReportedWithItsSizeAndCompletedLater) {
  const std::string first = logframe::EncodeFrame(kRecord61);
  const std::string second = logframe::EncodeFrame(kRecordLong);
  // Torn inside the length field (the whole size is not known yet), then
  // inside the text.
  for (std::size_t keep : {std::size_t{1}, std::size_t{3}, std::size_t{4}, second.size() - 1}) {
    SCOPED_TRACE(keep);
    FrameDecoder decoder;
    EXPECT_EQ(Decode(first + second.substr(0, keep), 1, decoder).size(), 1u);
    EXPECT_TRUE(decoder.has_partial_frame());
    EXPECT_EQ(decoder.frame_offset(), 65u);
    EXPECT_EQ(decoder.pending_bytes(), keep);
    EXPECT_EQ(decoder.expected_frame_size(), keep < 4 ? 0u : second.size());
  }
  // What following a file relies on: the rest arrives later.
  FrameDecoder decoder;
  std::vector<Record> records;
  const std::string all = first + second;
  decoder.Feed(all.data(), 70, records);
  decoder.Feed(all.data() + 70, all.size() - 70, records);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].offset, 65u);
  EXPECT_FALSE(decoder.has_partial_frame());
}

TEST(FrameDecoder, LengthOverTheCapStopsWithoutBufferingItsText) {
  unsigned char header[4];
  // 0xFFFFFFFF also catches a size computed in 32 bits (length + 4 wraps).
  for (std::uint32_t length : {logframe::kMaxRecordLength + 1, 0xFFFFFFFFu}) {
    SCOPED_TRACE(length);
    logframe::EncodeLength(length, header);
    const std::string input = logframe::EncodeFrame(kRecord61) + std::string(reinterpret_cast<char*>(header), 4) +
                              std::string(100, '\xCE');
    FrameDecoder decoder;
    std::vector<Record> records;
    EXPECT_EQ(decoder.Feed(input.data(), input.size(), records), Status::kBadLength);
    ASSERT_EQ(records.size(), 1u);  // the good record before it
    EXPECT_EQ(decoder.pending_bytes(), 4u);
    EXPECT_FALSE(decoder.has_partial_frame());
    const std::string message = decoder.ErrorMessage();
    EXPECT_NE(message.find("corrupt length at offset 65"), std::string::npos) << message;
    EXPECT_NE(message.find(std::to_string(length)), std::string::npos) << message;

    // Stopped until reset.
    const std::string more = logframe::EncodeFrame(kRecord61);
    EXPECT_EQ(decoder.Feed(more.data(), more.size(), records), Status::kBadLength);
    decoder.Reset();
    EXPECT_EQ(decoder.Feed(more.data(), more.size(), records), Status::kOk);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].offset, 0u);
  }
}

TEST(FrameDecoder, FrameWithoutLineFeedIsNotARecord) {
  const std::pair<const char*, std::string> cases[] = {
      {"no line feed", Bytes({3, 0, 0, 0, 0xCE, 0xCE, 0xD2})},
      {"empty frame", Bytes({0, 0, 0, 0})},
      {"uncomplemented line feed", Bytes({2, 0, 0, 0, 0xCE, 0x0A})},
  };
  for (const auto& [name, frame] : cases) {
    SCOPED_TRACE(name);
    const std::string input = logframe::EncodeFrame(kRecord61) + frame + logframe::EncodeFrame(kRecord61);
    for (std::size_t piece : {1u, 0u}) {
      FrameDecoder decoder;
      EXPECT_EQ(Decode(input, piece, decoder).size(), 1u);
      EXPECT_EQ(decoder.status(), Status::kNotARecord);
      EXPECT_NE(decoder.ErrorMessage().find("frame at offset 65"), std::string::npos);
    }
  }
}

// Whole files of each form are cases of data/cases.txt; these are the borders.
TEST(DetectFormat, TellsFramesFromPlainRecords) {
  const std::string framed = logframe::EncodeFrame(kRecord61);
  const struct {
    const char* name;
    std::string head;
    Detection expected;
  } cases[] = {
      {"frame, first five bytes", framed.substr(0, 5), Detection::kLogdat},
      // A record of 49 bytes has the length byte '1', a digit.
      {"frame whose length byte is a digit", logframe::EncodeFrame(std::string(48, '1') + "\n"), Detection::kLogdat},
      {"plain, first five bytes", kRecord61.substr(0, 5), Detection::kPlain},
      {"sensor library line", "[11-14-09-05-08:790]InitFusion:FusionMask: 0x40\r\n", Detection::kSensorLib},
      {"sensor library version line", "Version:0.0.0.3\r\n", Detection::kSensorLib},
      {"sensor library, four bytes", "[11-", Detection::kUndecided},
      {"bracket, not a sensor line", "[ERR] x", Detection::kNeither},
      {"empty", "", Detection::kUndecided},
      {"plain, four bytes", "11-1", Detection::kUndecided},
      {"frame, four bytes", framed.substr(0, 4), Detection::kUndecided},
      {"four bytes, length over the cap", Bytes({0, 0, 0, 2}), Detection::kNeither},
      {"frame of plain text (not complemented)", Bytes({0x3D, 0, 0, 0, '1', '1'}), Detection::kNeither},
      {"byte-order mark then record", "\xEF\xBB\xBF" + kRecord61, Detection::kNeither},
      {"date with a slash", "11/14 09:05", Detection::kNeither},
      {"zeros, as a zero-filled file after a crash", std::string(8, '\0'), Detection::kNeither},
  };
  for (const auto& c : cases) EXPECT_EQ(logframe::DetectFormat(c.head), c.expected) << c.name;
}

}  // namespace
