#include "LogFrame.h"

namespace logframe {

void Scramble(unsigned char* bytes, std::int32_t count) {
  for (std::int32_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(~bytes[i]);
}

void EncodeLength(std::uint32_t length, unsigned char header[kHeaderSize]) {
  for (std::size_t i = 0; i < kHeaderSize; ++i)
    header[i] = static_cast<unsigned char>(length >> (8 * i));
}

std::uint32_t DecodeLength(const unsigned char header[kHeaderSize]) {
  std::uint32_t n = 0;
  for (std::size_t i = 0; i < kHeaderSize; ++i)
    n |= static_cast<std::uint32_t>(header[i]) << (8 * i);
  return n;
}

std::string EncodeFrame(std::string_view record) {
  std::string frame(kHeaderSize + record.size(), '\0');
  auto* out = reinterpret_cast<unsigned char*>(frame.data());
  EncodeLength(static_cast<std::uint32_t>(record.size()), out);
  for (std::size_t i = 0; i < record.size(); ++i)
    out[kHeaderSize + i] = static_cast<unsigned char>(~static_cast<unsigned char>(record[i]));
  return frame;
}

}  // namespace logframe
