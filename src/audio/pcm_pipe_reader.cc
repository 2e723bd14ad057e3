#include "audio/pcm_pipe_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "audio/sample_convert.h"

namespace kerrow {

namespace {

// Large enough that a 0.1 s chunk of s16le audio (3200 bytes) normally arrives in
// one read.
constexpr size_t kMaxReadBytes = 4096;

}  // namespace

PcmPipeReader::PcmPipeReader(int fd, AudioFormat format)
    : fd_(fd), format_(format), bytes_per_sample_(format == AudioFormat::f32le ? 4 : 2) {}

bool PcmPipeReader::ReadChunk(size_t samples, std::vector<float>* out, bool* eof) {
  if (out == nullptr || eof == nullptr) return false;
  size_t wanted = bytes_per_sample_ * std::max<size_t>(samples, 1);

  uint8_t buffer[kMaxReadBytes];
  while (!eof_ && pending_.size() < wanted) {
    // Take whatever the pipe holds, even past this chunk: the surplus waits in
    // pending for the next call instead of costing another system call.
    const ssize_t got = read(fd_, buffer, sizeof(buffer));
    if (got < 0) {
      if (errno == EINTR) continue;  // a signal is not the end of the stream
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        // A non-blocking descriptor with the rest of the chunk still on its
        // way: keep what came and hand back nothing yet, so that the caller
        // can attend to its other work and call again.
        out->clear();
        *eof = false;
        return true;
      }
      return false;
    }
    if (got == 0) {
      eof_ = true;
      break;
    }
    pending_.insert(pending_.end(), buffer, buffer + got);
  }

  if (eof_ && pending_.size() < bytes_per_sample_) {
    out->clear();
    *eof = true;
    return true;
  }
  if (pending_.size() < wanted) {
    // Only possible at end of stream: deliver the whole samples that are left;
    // a trailing partial sample never becomes audio.
    wanted = pending_.size() / bytes_per_sample_ * bytes_per_sample_;
  }
  BytesToFloat32(pending_.data(), wanted, format_, out);
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(wanted));
  *eof = false;
  return true;
}

size_t PcmPipeReader::ClearPending() {
  const size_t dropped = pending_.size();
  pending_.clear();
  return dropped;
}

void PcmPipeReader::BytesToFloat32(const uint8_t* data, size_t size, AudioFormat format,
                                   std::vector<float>* out) {
  if (out == nullptr) return;
  out->clear();
  if (data == nullptr || size == 0) return;
  if (format == AudioFormat::f32le) {
    out->resize(size / 4);
    F32leToFloat(data, out->size(), out->data());
  } else {
    out->resize(size / 2);
    S16leToFloat(data, out->size(), out->data());
  }
}

}  // namespace kerrow
