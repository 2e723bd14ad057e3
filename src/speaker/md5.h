#ifndef KERROW_SPEAKER_MD5_H_
#define KERROW_SPEAKER_MD5_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kerrow {

// RFC 1321 MD5, kept in the program so that voiceprint tags never depend on an
// outside crypto library. Feed bytes with Update (in pieces of any size), then
// call HexDigest once.
class Md5 {
 public:
  Md5();
  void Update(const void* data, size_t size);
  // Pads, finishes and returns the digest as 32 lowercase hex digits. The object
  // is spent afterwards.
  std::string HexDigest();

 private:
  void ProcessBlock(const uint8_t* block);

  std::array<uint32_t, 4> state_;
  std::array<uint8_t, 64> buffer_;
  size_t buffered_ = 0;
  uint64_t total_bytes_ = 0;
};

// MD5 of `bytes` as 32 lowercase hex digits.
std::string Md5Hex(const std::string& bytes);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_MD5_H_
