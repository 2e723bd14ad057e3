#include "speaker/uuid.h"

#include <array>
#include <cstdint>
#include <random>

namespace kerrow {

std::string GenerateUuidV4() {
  // One value from the system device seeds the generator; ids only need to be
  // unique within one person's database, not unguessable.
  std::random_device device("/dev/urandom");
  std::mt19937_64 engine(device());
  std::uniform_int_distribution<int> byte_distribution(0, 255);
  std::array<uint8_t, 16> bytes{};
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(byte_distribution(engine));

  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant

  static const char kHexDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(36);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kHexDigits[bytes[i] >> 4]);
    text.push_back(kHexDigits[bytes[i] & 0x0f]);
  }
  return text;
}

}  // namespace kerrow
