#include "speaker/md5.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "speaker/enroll_db.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


// The reference digest comes from the system's md5sum, run on the same bytes.
std::string SystemMd5(const std::string& file_path) {
  const std::string command = "md5sum '" + file_path + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "popen failed";
  char buffer[128] = {};
  const size_t got = fread(buffer, 1, sizeof(buffer) - 1, pipe);
  pclose(pipe);
  return std::string(buffer, got).substr(0, 32);
}

// Bytes that differ from position to position, so a misplaced block shows.
std::string PatternBytes(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + 7) % 256);
  return bytes;
}

TEST(Md5, Rfc1321TestSuite) {
  EXPECT_EQ(Md5Hex(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(Md5Hex("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(Md5Hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Md5Hex("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(Md5Hex("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  EXPECT_EQ(Md5Hex("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "d174ab98d277d9f5a5611c2c9f419d9f");
  EXPECT_EQ(Md5Hex("1234567890123456789012345678901234567890123456789012345678901234567890"
                   "1234567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5, PaddingEdgesMatchMd5sum) {
  TempDir dir;
  for (size_t size : {0u, 55u, 56u, 63u, 64u, 65u}) {
    const std::string bytes = PatternBytes(size);
    const std::string file = dir.File("edge_" + std::to_string(size));
    WriteFileBytes(file, bytes);
    EXPECT_EQ(Md5Hex(bytes), SystemMd5(file)) << size << " bytes";
  }
}

TEST(Md5, PaddingEdgesOfRepeatedLetterAreKnownDigests) {
  // Digests of 55, 56 and 64 times "a", taken from md5sum.
  EXPECT_EQ(Md5Hex(std::string(55, 'a')), "ef1772b6dff9a122358552954ad0df65");
  EXPECT_EQ(Md5Hex(std::string(56, 'a')), "3b0c8ac703f828b04c6c197006d17218");
  EXPECT_EQ(Md5Hex(std::string(64, 'a')), "014842d480b571495a4a0363793f7367");
}

TEST(Md5, FeedingInPiecesGivesTheSameDigestAsOneUpdate) {
  const std::string bytes = PatternBytes(1000);
  for (size_t piece : {1u, 3u, 63u, 64u, 65u, 999u}) {
    Md5 md5;
    for (size_t offset = 0; offset < bytes.size(); offset += piece) {
      md5.Update(bytes.data() + offset, std::min(piece, bytes.size() - offset));
    }
    EXPECT_EQ(md5.HexDigest(), Md5Hex(bytes)) << "pieces of " << piece;
  }
}

TEST(Md5File, MultiMegabyteFileMatchesMd5sum) {
  TempDir dir;
  const std::string file = dir.File("big.bin");
  // Not a multiple of the read chunk or the block size.
  WriteFileBytes(file, PatternBytes(5 * 1024 * 1024 + 77));
  std::string error;
  EXPECT_EQ(Md5File(file, &error), SystemMd5(file));
  EXPECT_EQ(error, "");
}

TEST(Md5File, MissingFileGivesEmptyDigestAndMessage) {
  TempDir dir;
  const std::string file = dir.File("absent.wav");
  std::string error;
  EXPECT_EQ(Md5File(file, &error), "");
  EXPECT_EQ(error, "cannot open file for md5: " + file);
}

TEST(Md5File, DirectoryIsNotHashedAsEmptyFile) {
  TempDir dir;
  std::string error;
  EXPECT_EQ(Md5File(dir.path(), &error), "");
  EXPECT_EQ(error, "cannot open file for md5: " + dir.path());
}

TEST(Md5File, NullErrorPointerIsAllowed) {
  TempDir dir;
  EXPECT_EQ(Md5File(dir.File("absent"), nullptr), "");
}

}  // namespace
}  // namespace kerrow::testing
