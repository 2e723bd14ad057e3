// The live audio descriptor: the host's writes arrive in any split, chunks are
// asked for in any size, and captures reset at any moment. Every sample handed
// out must be the one at its place in the stream, with nothing skipped but the
// bytes a reset dropped.
#include <fcntl.h>
#include <unistd.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "audio/pcm_pipe_reader.h"
#include "audio/sample_convert.h"
#include "fuzz_check.h"

namespace {

// Stays under the pipe's capacity, so that a write never blocks the harness.
constexpr size_t kMaxStreamBytes = 60000;

class PipeSession {
 public:
  explicit PipeSession(kerrow::AudioFormat format)
      : bytes_per_sample_(format == kerrow::AudioFormat::s16le ? 2 : 4) {
    FUZZ_CHECK(pipe(fds_) == 0, "pipe failed");
    FUZZ_CHECK(fcntl(fds_[0], F_SETFL, O_NONBLOCK) == 0, "fcntl failed");
    reader_ = new kerrow::PcmPipeReader(fds_[0], format);
  }
  ~PipeSession() {
    delete reader_;
    close(fds_[0]);
    if (fds_[1] >= 0) close(fds_[1]);
  }

  void Write(const std::vector<uint8_t>& bytes) {
    if (bytes.empty()) return;
    FUZZ_CHECK(write(fds_[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
               "short write into the pipe");
    stream_.insert(stream_.end(), bytes.begin(), bytes.end());
  }

  void CloseWriter() {
    close(fds_[1]);
    fds_[1] = -1;
  }

  void Reset() {
    consumed_ += reader_->ClearPending();
    FUZZ_CHECK(consumed_ <= stream_.size(), "dropped bytes that were never written");
  }

  // Returns eof.
  bool Read(size_t samples) {
    std::vector<float> out;
    bool eof = false;
    FUZZ_CHECK(reader_->ReadChunk(samples, &out, &eof), "a read on a healthy pipe failed");
    const size_t wanted = std::max<size_t>(samples, 1);
    const size_t available = (stream_.size() - consumed_) / bytes_per_sample_;
    if (eof) {
      FUZZ_CHECK(out.empty(), "samples together with the end of stream");
      FUZZ_CHECK(stream_.size() - consumed_ < bytes_per_sample_, "whole samples lost at the end");
      return true;
    }
    if (fds_[1] >= 0) {
      FUZZ_CHECK(out.size() == (available >= wanted ? wanted : 0), "a chunk of the wrong size");
    } else {
      FUZZ_CHECK(out.size() == std::min(wanted, available), "a final chunk of the wrong size");
    }
    CheckSamples(out);
    return false;
  }

  bool WriterOpen() const { return fds_[1] >= 0; }
  size_t StreamBytes() const { return stream_.size(); }

 private:
  void CheckSamples(const std::vector<float>& out) {
    if (out.empty()) return;
    std::vector<float> expected(out.size());
    const uint8_t* at = stream_.data() + consumed_;
    if (bytes_per_sample_ == 2) {
      kerrow::S16leToFloat(at, out.size(), expected.data());
    } else {
      kerrow::F32leToFloat(at, out.size(), expected.data());
    }
    FUZZ_CHECK(std::memcmp(out.data(), expected.data(), out.size() * sizeof(float)) == 0,
               "a sample differs from the bytes at its place in the stream");
    consumed_ += out.size() * bytes_per_sample_;
  }

  size_t bytes_per_sample_;
  int fds_[2] = {-1, -1};
  kerrow::PcmPipeReader* reader_ = nullptr;
  std::vector<uint8_t> stream_;
  size_t consumed_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const kerrow::AudioFormat format =
      input.ConsumeBool() ? kerrow::AudioFormat::f32le : kerrow::AudioFormat::s16le;
  PipeSession session(format);
  while (input.remaining_bytes() > 0) {
    switch (input.ConsumeIntegralInRange<int>(0, 3)) {
      case 0: {
        if (!session.WriterOpen()) break;
        const size_t room = kMaxStreamBytes - session.StreamBytes();
        session.Write(input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, std::min<size_t>(room, 700))));
        break;
      }
      case 1:
        session.Read(input.ConsumeIntegralInRange<size_t>(0, 400));
        break;
      case 2:
        session.Reset();
        break;
      default:
        if (session.WriterOpen()) session.CloseWriter();
        break;
    }
  }
  if (session.WriterOpen()) session.CloseWriter();
  while (!session.Read(97)) {
  }
  FUZZ_CHECK(session.Read(1), "the end of stream was not reported again");
  return 0;
}
