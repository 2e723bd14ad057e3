#ifndef KERROW_AUDIO_BLOCK_SAMPLE_READER_H_
#define KERROW_AUDIO_BLOCK_SAMPLE_READER_H_

// The one-pass, front-to-back conversion both file readers share: bytes come off
// the stream in fixed blocks and each block is converted straight into the output
// vector, so a file is never held as bytes and as floats at the same time, and
// nothing needs a seek (a FIFO or process substitution reads like a file).

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace kerrow {

enum class SampleEncoding { kS16le, kF32le };

size_t BytesPerSample(SampleEncoding encoding);

// Appends the samples encoded in a byte sequence that arrives in pieces of any
// size. The bytes of a sample split across two pieces are carried over; bytes
// after the last whole sample stay in tail().
class SampleAppender {
 public:
  SampleAppender(SampleEncoding encoding, std::vector<float>* samples);

  void Append(const uint8_t* bytes, size_t size);
  const std::string& tail() const { return tail_; }
  SampleEncoding encoding() const { return encoding_; }

 private:
  void AppendWhole(const uint8_t* bytes, size_t sample_count);

  SampleEncoding encoding_;
  std::vector<float>* samples_;
  std::string tail_;
};

// Reads up to max_bytes (kToEndOfStream: until the stream ends) and hands them to
// appender in blocks. Returns the number of bytes read; *failed is set when the
// stream reported an error other than its end (a directory, an I/O error).
constexpr uint64_t kToEndOfStream = UINT64_MAX;
uint64_t ReadSampleBlocks(std::istream& in, uint64_t max_bytes, SampleAppender* appender, bool* failed);

// Reads up to max_bytes as they are, appending them to bytes.
uint64_t ReadRawBlocks(std::istream& in, uint64_t max_bytes, std::string* bytes, bool* failed);

// Reads and drops up to max_bytes; returns how many there were.
uint64_t DiscardBytes(std::istream& in, uint64_t max_bytes, bool* failed);

// The size of path when it is a regular file; 0 for anything whose size cannot
// be known ahead of reading it (a FIFO, a character device) or that is missing.
uint64_t RegularFileSizeOrZero(const std::string& path);

}  // namespace kerrow

#endif  // KERROW_AUDIO_BLOCK_SAMPLE_READER_H_
