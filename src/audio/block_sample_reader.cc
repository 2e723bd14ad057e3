#include "audio/block_sample_reader.h"

#include <sys/stat.h>

#include <algorithm>

#include "audio/sample_convert.h"

namespace kerrow {

namespace {

// Large enough that the per-block overhead vanishes, small enough to stay in cache
// next to the floats it becomes.
constexpr size_t kBlockBytes = 1 << 16;

// Reads blocks of at most max_bytes in total, calling consume(bytes, size) on each.
template <typename Consume>
uint64_t ReadInBlocks(std::istream& in, uint64_t max_bytes, bool* failed, Consume consume) {
  std::vector<char> block(static_cast<size_t>(std::min<uint64_t>(kBlockBytes, max_bytes)));
  uint64_t total = 0;
  *failed = false;
  while (total < max_bytes) {
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(kBlockBytes, max_bytes - total));
    in.read(block.data(), static_cast<std::streamsize>(wanted));
    const size_t got = static_cast<size_t>(in.gcount());
    consume(reinterpret_cast<const uint8_t*>(block.data()), got);
    total += got;
    if (got < wanted) {
      *failed = in.bad();
      break;
    }
  }
  return total;
}

}  // namespace

size_t BytesPerSample(SampleEncoding encoding) { return encoding == SampleEncoding::kS16le ? 2 : 4; }

SampleAppender::SampleAppender(SampleEncoding encoding, std::vector<float>* samples)
    : encoding_(encoding), samples_(samples) {}

void SampleAppender::Append(const uint8_t* bytes, size_t size) {
  const size_t width = BytesPerSample(encoding_);
  if (!tail_.empty()) {
    const size_t missing = std::min(width - tail_.size(), size);
    tail_.append(reinterpret_cast<const char*>(bytes), missing);
    bytes += missing;
    size -= missing;
    if (tail_.size() < width) return;
    AppendWhole(reinterpret_cast<const uint8_t*>(tail_.data()), 1);
    tail_.clear();
  }
  const size_t whole = size / width;
  AppendWhole(bytes, whole);
  tail_.assign(reinterpret_cast<const char*>(bytes + whole * width), size - whole * width);
}

void SampleAppender::AppendWhole(const uint8_t* bytes, size_t sample_count) {
  if (sample_count == 0) return;
  const size_t start = samples_->size();
  samples_->resize(start + sample_count);
  if (encoding_ == SampleEncoding::kS16le) {
    S16leToFloat(bytes, sample_count, samples_->data() + start);
  } else {
    F32leToFloat(bytes, sample_count, samples_->data() + start);
  }
}

uint64_t ReadSampleBlocks(std::istream& in, uint64_t max_bytes, SampleAppender* appender, bool* failed) {
  return ReadInBlocks(in, max_bytes, failed,
                      [appender](const uint8_t* bytes, size_t size) { appender->Append(bytes, size); });
}

uint64_t ReadRawBlocks(std::istream& in, uint64_t max_bytes, std::string* bytes, bool* failed) {
  return ReadInBlocks(in, max_bytes, failed, [bytes](const uint8_t* block, size_t size) {
    bytes->append(reinterpret_cast<const char*>(block), size);
  });
}

uint64_t DiscardBytes(std::istream& in, uint64_t max_bytes, bool* failed) {
  return ReadInBlocks(in, max_bytes, failed, [](const uint8_t*, size_t) {});
}

uint64_t RegularFileSizeOrZero(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size < 0) return 0;
  return static_cast<uint64_t>(info.st_size);
}

}  // namespace kerrow
