// The frame codec and the incremental decoder, driven directly: exact frame
// bytes, decoding across every possible split of the input, torn frames, and
// the sanity checks that stop at corrupt or foreign data.
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

// Feeds `input` to a fresh decoder in pieces of `piece` bytes (0: all at once).
std::vector<Record> DecodeInPieces(const std::string& input, std::size_t piece, FrameDecoder& decoder) {
  std::vector<Record> records;
  if (piece == 0) piece = input.size() ? input.size() : 1;
  for (std::size_t at = 0; at < input.size(); at += piece)
    decoder.Feed(input.data() + at, std::min(piece, input.size() - at), records);
  return records;
}

const std::string kRecord61 = "11-14 09:05:07:042 : [INF][04242] Bridge.cpp(57) get_ability\n";

TEST(LogFrame, SixtyOneByteRecordMakesSixtyFiveByteFrame) {
  ASSERT_EQ(kRecord61.size(), 61u);
  const std::string frame = logframe::EncodeFrame(kRecord61);
  ASSERT_EQ(frame.size(), 65u);
  EXPECT_EQ(frame.substr(0, 4), Bytes({0x3D, 0x00, 0x00, 0x00}));
  for (std::size_t i = 0; i < kRecord61.size(); ++i)
    EXPECT_EQ(static_cast<unsigned char>(frame[4 + i]), 255 - static_cast<unsigned char>(kRecord61[i])) << i;
  EXPECT_EQ(static_cast<unsigned char>(frame.back()), 0xF5);  // the line feed

  FrameDecoder decoder;
  const auto records = DecodeInPieces(frame, 0, decoder);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, kRecord61);
  EXPECT_EQ(records[0].offset, 0u);
  EXPECT_FALSE(decoder.has_partial_frame());
  EXPECT_EQ(decoder.bytes_fed(), 65u);
}

TEST(LogFrame, MultiByteUtf8IsComplementedByteByByteAndCountedInBytes) {
  const std::string record = "12-01 00:00:00:000 : [INF][04242] B.cpp(1) Grüße 注意 😀\n";
  const std::string frame = logframe::EncodeFrame(record);
  const unsigned char* header = reinterpret_cast<const unsigned char*>(frame.data());
  EXPECT_EQ(logframe::DecodeLength(header), record.size());
  // "ü" is C3 BC in UTF-8, stored as 3C 43.
  const std::size_t u = record.find("\xC3\xBC");
  ASSERT_NE(u, std::string::npos);
  EXPECT_EQ(frame.substr(4 + u, 2), Bytes({0x3C, 0x43}));
  FrameDecoder decoder;
  const auto records = DecodeInPieces(frame, 0, decoder);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, record);
}

TEST(LogFrame, ScrambleIgnoresCountsBelowOne) {
  unsigned char bytes[2] = {0x12, 0x34};
  logframe::Scramble(bytes, 0);
  logframe::Scramble(bytes, -5);
  EXPECT_EQ(bytes[0], 0x12);
  EXPECT_EQ(bytes[1], 0x34);
  logframe::Scramble(bytes, 1);
  EXPECT_EQ(bytes[0], 0xED);
  EXPECT_EQ(bytes[1], 0x34);
}

// Three records of different sizes, the middle one longer than 255 bytes so
// that its length uses two bytes.
std::vector<std::string> SampleRecords() {
  return {kRecord61, "11-14 09:05:07:043 : [WAR][04242] A.cpp(2) " + std::string(300, 'x') + "\n",
          "11-14 09:05:07:044 : [ERR][04242] A.cpp(3) é\n"};
}

TEST(FrameDecoder, SameRecordsAndOffsetsWhateverTheSplit) {
  const auto texts = SampleRecords();
  std::string stream;
  std::vector<std::uint64_t> offsets;
  for (const auto& text : texts) {
    offsets.push_back(stream.size());
    stream += logframe::EncodeFrame(text);
  }
  // Byte by byte, and in pieces of many sizes.
  for (std::size_t piece : {1u, 2u, 3u, 4u, 5u, 7u, 64u, 65u, 66u, 400u, 0u}) {
    SCOPED_TRACE("piece " + std::to_string(piece));
    FrameDecoder decoder;
    const auto records = DecodeInPieces(stream, piece, decoder);
    ASSERT_EQ(records.size(), texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
      EXPECT_EQ(records[i].text, texts[i]);
      EXPECT_EQ(records[i].offset, offsets[i]);
    }
    EXPECT_FALSE(decoder.has_partial_frame());
    EXPECT_EQ(decoder.status(), Status::kOk);
  }
  // Two pieces, split at every position.
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    FrameDecoder decoder;
    std::vector<Record> records;
    decoder.Feed(stream.data(), cut, records);
    decoder.Feed(stream.data() + cut, stream.size() - cut, records);
    ASSERT_EQ(records.size(), texts.size()) << "cut at " << cut;
    EXPECT_EQ(records[2].text, texts[2]) << "cut at " << cut;
  }
}

TEST(FrameDecoder, TornFrameIsReportedWithItsSize) {
  const std::string first = logframe::EncodeFrame(kRecord61);
  const std::string second = logframe::EncodeFrame(SampleRecords()[1]);  // 4 + 344 bytes

  // Torn inside the length field.
  for (std::size_t keep = 1; keep < 4; ++keep) {
    FrameDecoder decoder;
    const auto records = DecodeInPieces(first + second.substr(0, keep), 1, decoder);
    EXPECT_EQ(records.size(), 1u);
    EXPECT_TRUE(decoder.has_partial_frame());
    EXPECT_EQ(decoder.frame_offset(), 65u);
    EXPECT_EQ(decoder.pending_bytes(), keep);
    EXPECT_EQ(decoder.expected_frame_size(), 0u);
  }
  // Torn inside the text, also with nothing but the length field.
  for (std::size_t keep : {std::size_t{4}, std::size_t{5}, second.size() - 1}) {
    FrameDecoder decoder;
    const auto records = DecodeInPieces(first + second.substr(0, keep), 0, decoder);
    EXPECT_EQ(records.size(), 1u);
    EXPECT_TRUE(decoder.has_partial_frame());
    EXPECT_EQ(decoder.pending_bytes(), keep);
    EXPECT_EQ(decoder.expected_frame_size(), second.size());
    EXPECT_EQ(decoder.status(), Status::kOk);
  }
  // Completing the torn frame later yields it (what following a file relies on).
  FrameDecoder decoder;
  std::vector<Record> records;
  const std::string all = first + second;
  decoder.Feed(all.data(), 70, records);
  EXPECT_EQ(records.size(), 1u);
  decoder.Feed(all.data() + 70, all.size() - 70, records);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].offset, 65u);
  EXPECT_FALSE(decoder.has_partial_frame());
}

TEST(FrameDecoder, HugeLengthStopsWithoutBufferingItsText) {
  for (std::uint32_t length : {logframe::kMaxRecordLength + 1, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    SCOPED_TRACE(length);
    unsigned char header[4];
    logframe::EncodeLength(length, header);
    const std::string input = logframe::EncodeFrame(kRecord61) +
                              std::string(reinterpret_cast<char*>(header), 4) + std::string(100, '\xCE');
    FrameDecoder decoder;
    std::vector<Record> records;
    EXPECT_EQ(decoder.Feed(input.data(), input.size(), records), Status::kBadLength);
    ASSERT_EQ(records.size(), 1u);  // the good record before it
    EXPECT_EQ(records[0].text, kRecord61);
    EXPECT_EQ(decoder.frame_offset(), 65u);
    EXPECT_EQ(decoder.pending_bytes(), 4u);  // the header only, nothing reserved for the text
    EXPECT_FALSE(decoder.has_partial_frame());
    const std::string message = decoder.ErrorMessage();
    EXPECT_NE(message.find("corrupt length at offset 65"), std::string::npos) << message;
    EXPECT_NE(message.find(std::to_string(length)), std::string::npos) << message;

    // The decoder stays stopped until it is reset.
    const std::string more = logframe::EncodeFrame(kRecord61);
    EXPECT_EQ(decoder.Feed(more.data(), more.size(), records), Status::kBadLength);
    EXPECT_EQ(records.size(), 1u);
    decoder.Reset();
    EXPECT_EQ(decoder.Feed(more.data(), more.size(), records), Status::kOk);
    EXPECT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].offset, 0u);
  }
}

TEST(FrameDecoder, LengthAtTheCapIsWaitedForAndOnlyWhatArrivedIsHeld) {
  unsigned char header[4];
  logframe::EncodeLength(logframe::kMaxRecordLength, header);
  FrameDecoder decoder;
  std::vector<Record> records;
  EXPECT_EQ(decoder.Feed(header, 4, records), Status::kOk);
  const std::string some(1000, '\xCE');
  EXPECT_EQ(decoder.Feed(some.data(), some.size(), records), Status::kOk);
  EXPECT_TRUE(decoder.has_partial_frame());
  EXPECT_EQ(decoder.pending_bytes(), 1004u);
  EXPECT_EQ(decoder.expected_frame_size(), 4u + logframe::kMaxRecordLength);
}

TEST(FrameDecoder, FrameWithoutLineFeedIsNotARecord) {
  struct Case {
    const char* name;
    std::string frame;
  };
  const Case cases[] = {
      {"no line feed", Bytes({3, 0, 0, 0, 0xCE, 0xCE, 0xD2})},
      {"empty frame", Bytes({0, 0, 0, 0})},
      {"uncomplemented line feed", Bytes({2, 0, 0, 0, 0xCE, 0x0A})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string input = logframe::EncodeFrame(kRecord61) + c.frame + logframe::EncodeFrame(kRecord61);
    for (std::size_t piece : {1u, 0u}) {
      FrameDecoder decoder;
      const auto records = DecodeInPieces(input, piece, decoder);
      EXPECT_EQ(records.size(), 1u);
      EXPECT_EQ(decoder.status(), Status::kNotARecord);
      EXPECT_EQ(decoder.frame_offset(), 65u);
      EXPECT_NE(decoder.ErrorMessage().find("frame at offset 65"), std::string::npos);
    }
  }
}

TEST(DetectFormat, TellsFramesFromPlainRecords) {
  struct Case {
    const char* name;
    std::string head;
    Detection expected;
  };
  const std::string framed = logframe::EncodeFrame(kRecord61);
  // A record of 49 bytes has the length byte '1', a digit.
  const std::string digit_length = logframe::EncodeFrame(std::string(48, '1') + "\n");
  const Case cases[] = {
      {"frame", framed, Detection::kLogdat},
      {"frame, first five bytes", framed.substr(0, 5), Detection::kLogdat},
      {"frame whose length byte is a digit", digit_length, Detection::kLogdat},
      {"plain record", kRecord61, Detection::kPlain},
      {"plain, first five bytes", kRecord61.substr(0, 5), Detection::kPlain},
      {"empty", "", Detection::kUndecided},
      {"plain, four bytes", "11-1", Detection::kUndecided},
      {"frame, four bytes", framed.substr(0, 4), Detection::kUndecided},
      {"one byte", "\x3D", Detection::kUndecided},
      {"text", "This is not a log\n", Detection::kNeither},
      {"zeros", std::string(8, '\0'), Detection::kNeither},
      {"four bytes, length over the cap", Bytes({0, 0, 0, 2}), Detection::kNeither},
      {"frame of plain text (not complemented)", Bytes({0x3D, 0, 0, 0, '1', '1'}), Detection::kNeither},
      {"byte-order mark then record", "\xEF\xBB\xBF" + kRecord61, Detection::kNeither},
      {"date with a slash", "11/14 09:05", Detection::kNeither},
  };
  for (const auto& c : cases) EXPECT_EQ(logframe::DetectFormat(c.head), c.expected) << c.name;
}

}  // namespace
