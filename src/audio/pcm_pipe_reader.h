#ifndef KERROW_AUDIO_PCM_PIPE_READER_H_
#define KERROW_AUDIO_PCM_PIPE_READER_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kerrow {

// Sample encoding of the headerless PCM the host writes into the audio descriptor.
enum class AudioFormat { s16le = 0, f32le = 1 };

// Cuts the host's unframed PCM byte stream into chunks of whole samples. A pipe
// may deliver any number of bytes per read, so bytes read past the last returned
// sample are carried over to the next call. Owned and used by one thread. The
// descriptor is borrowed, never closed.
class PcmPipeReader {
 public:
  PcmPipeReader(int fd, AudioFormat format);

  // Blocks until `samples` samples (0 counts as 1) are available and returns them
  // in out. At end of stream the last, possibly short, chunk is returned with
  // eof = false; the following call reports eof = true with an empty out. On a
  // non-blocking descriptor a chunk that has not fully arrived yet gives an empty
  // out with eof = false (the bytes so far are kept). Returns false only when a
  // read fails with an error other than EINTR or EAGAIN, or when out or eof is null.
  bool ReadChunk(size_t samples, std::vector<float>* out, bool* eof);

  // Drops the carried-over bytes so that audio from before a reset cannot leak
  // into the next capture. Returns how many bytes were dropped.
  size_t ClearPending();

  // Converts size bytes of format into out (cleared first); trailing bytes that
  // do not make a whole sample are ignored.
  static void BytesToFloat32(const uint8_t* data, size_t size, AudioFormat format,
                             std::vector<float>* out);

 private:
  int32_t fd_;
  AudioFormat format_;
  size_t bytes_per_sample_;
  std::vector<uint8_t> pending_;
  bool eof_ = false;
};

}  // namespace kerrow

#endif  // KERROW_AUDIO_PCM_PIPE_READER_H_
