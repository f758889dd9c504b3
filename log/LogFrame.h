// The obfuscated record framing of ".logdat" files, shared by the logger (which
// writes frames) and the log reader (which decodes them). No Windows API here:
// this builds natively too, for the reader, fuzzing and sanitizers.
//
// A ".logdat" file is a plain sequence of frames, no header or trailer:
//   4 bytes  N, the record's UTF-8 length, unsigned 32-bit little-endian
//   N bytes  the record's UTF-8 bytes, each stored as its complement (255 - b)
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace logframe {

constexpr std::size_t kHeaderSize = 4;

// Complements each of `count` bytes in place; a count below 1 changes nothing.
void Scramble(unsigned char* bytes, std::int32_t count);

// The 4-byte little-endian length header of a frame holding `length` bytes.
void EncodeLength(std::uint32_t length, unsigned char header[kHeaderSize]);
std::uint32_t DecodeLength(const unsigned char header[kHeaderSize]);

// One whole frame (header and complemented bytes) for a record's UTF-8 text.
std::string EncodeFrame(std::string_view record);

}  // namespace logframe
