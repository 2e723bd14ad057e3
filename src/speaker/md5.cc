#include "speaker/md5.h"

#include <algorithm>
#include <cstring>

namespace kerrow {
namespace {

// Per-step left rotations, four per round.
constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// floor(abs(sin(i + 1)) * 2^32), written out so the digest never depends on libm.
constexpr uint32_t kSineTable[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613,
    0xfd469501, 0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193,
    0xa679438e, 0x49b40821, 0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d,
    0x02441453, 0xd8a1e681, 0xe7d3fbc8, 0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed,
    0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122,
    0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, 0x289b7ec6, 0xeaa127fa,
    0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665, 0xf4292244,
    0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb,
    0xeb86d391};

uint32_t RotateLeft(uint32_t value, int bits) {
  return (value << bits) | (value >> (32 - bits));
}

// MD5 reads its input as little-endian words whatever the host's byte order.
uint32_t LoadLittleEndian32(const uint8_t* bytes) {
  return static_cast<uint32_t>(bytes[0]) | (static_cast<uint32_t>(bytes[1]) << 8) |
         (static_cast<uint32_t>(bytes[2]) << 16) | (static_cast<uint32_t>(bytes[3]) << 24);
}

void StoreLittleEndian32(uint32_t value, uint8_t* bytes) {
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

}  // namespace

Md5::Md5() : state_{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, buffer_{} {}

void Md5::Update(const void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  total_bytes_ += size;
  while (size > 0) {
    const size_t take = std::min(size, buffer_.size() - buffered_);
    std::memcpy(buffer_.data() + buffered_, bytes, take);
    buffered_ += take;
    bytes += take;
    size -= take;
    if (buffered_ == buffer_.size()) {
      ProcessBlock(buffer_.data());
      buffered_ = 0;
    }
  }
}

std::string Md5::HexDigest() {
  // The message is padded with 0x80, then zeros up to 56 bytes mod 64, then its
  // length in bits as a little-endian 64-bit number.
  const uint64_t bit_length = total_bytes_ * 8;
  const uint8_t first_pad = 0x80;
  Update(&first_pad, 1);
  const uint8_t zero = 0;
  while (buffered_ != 56) Update(&zero, 1);
  uint8_t length_bytes[8];
  for (int i = 0; i < 8; ++i) length_bytes[i] = static_cast<uint8_t>(bit_length >> (8 * i));
  Update(length_bytes, sizeof(length_bytes));

  uint8_t digest[16];
  for (int i = 0; i < 4; ++i) StoreLittleEndian32(state_[i], digest + 4 * i);
  static const char kHexDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(32);
  for (uint8_t byte : digest) {
    hex.push_back(kHexDigits[byte >> 4]);
    hex.push_back(kHexDigits[byte & 0x0f]);
  }
  return hex;
}

void Md5::ProcessBlock(const uint8_t* block) {
  uint32_t words[16];
  for (int i = 0; i < 16; ++i) words[i] = LoadLittleEndian32(block + 4 * i);

  uint32_t a = state_[0];
  uint32_t b = state_[1];
  uint32_t c = state_[2];
  uint32_t d = state_[3];
  for (int step = 0; step < 64; ++step) {
    const int round = step / 16;
    uint32_t mixed = 0;
    int word_index = 0;
    switch (round) {
      case 0:
        mixed = (b & c) | (~b & d);
        word_index = step;
        break;
      case 1:
        mixed = (d & b) | (~d & c);
        word_index = (5 * step + 1) % 16;
        break;
      case 2:
        mixed = b ^ c ^ d;
        word_index = (3 * step + 5) % 16;
        break;
      default:
        mixed = c ^ (b | ~d);
        word_index = (7 * step) % 16;
        break;
    }
    const uint32_t sum = a + mixed + kSineTable[step] + words[word_index];
    a = d;
    d = c;
    c = b;
    b = b + RotateLeft(sum, kShifts[round][step % 4]);
  }
  state_[0] += a;
  state_[1] += b;
  state_[2] += c;
  state_[3] += d;
}

std::string Md5Hex(const std::string& bytes) {
  Md5 md5;
  md5.Update(bytes.data(), bytes.size());
  return md5.HexDigest();
}

}  // namespace kerrow
