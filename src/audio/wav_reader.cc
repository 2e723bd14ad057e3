#include "audio/wav_reader.h"

#include <algorithm>
#include <fstream>
#include <new>
#include <stdexcept>

#include "audio/block_sample_reader.h"
#include "audio/sample_convert.h"
#include "common/error_text.h"

namespace kerrow {

namespace {

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatIeeeFloat = 3;
// What a writer that streams (and so cannot seek back to patch the header) puts
// in the data chunk's size.
constexpr uint32_t kDataSizeUnknown = 0xFFFFFFFFu;

struct WavFormat {
  uint16_t format_tag = 0;
  uint16_t channels = 0;
  uint32_t sample_rate = 0;
  uint16_t bits_per_sample = 0;
};

bool EncodingOf(const WavFormat& format, SampleEncoding* encoding) {
  if (format.format_tag == kFormatPcm && format.bits_per_sample == 16) {
    *encoding = SampleEncoding::kS16le;
    return true;
  }
  if (format.format_tag == kFormatIeeeFloat && format.bits_per_sample == 32) {
    *encoding = SampleEncoding::kF32le;
    return true;
  }
  return false;
}

// The last data chunk read. It is converted while it is read when a fmt chunk
// came first (the usual layout); otherwise, or when the format known then is not
// one we decode, its bytes are kept as they are until the walk ends.
struct WavData {
  bool converted = false;
  SampleEncoding encoding = SampleEncoding::kS16le;
  std::vector<float> samples;  // when converted
  std::string bytes;           // when converted: those after the last whole sample; else all of them
  uint64_t byte_count = 0;
};

// Little-endian field reads over a stream read strictly front to back; each
// returns false on a short read. Counts the bytes consumed, since a pipe cannot
// say where it is.
class LeReader {
 public:
  explicit LeReader(std::istream* in) : in_(in) {}

  bool Bytes(char* out, size_t size) {
    in_->read(out, static_cast<std::streamsize>(size));
    position_ += static_cast<uint64_t>(in_->gcount());
    return static_cast<size_t>(in_->gcount()) == size;
  }
  bool U16(uint16_t* value) { return Unsigned(value, 2); }
  bool U32(uint32_t* value) { return Unsigned(value, 4); }
  bool Tag(std::string* tag) {
    tag->assign(4, '\0');
    return Bytes(&(*tag)[0], 4);
  }
  void Skip(uint64_t size) {
    bool failed = false;
    position_ += DiscardBytes(*in_, size, &failed);
  }
  void Advance(uint64_t size) { position_ += size; }
  std::istream& stream() { return *in_; }
  uint64_t position() const { return position_; }

 private:
  template <typename T>
  bool Unsigned(T* value, size_t size) {
    unsigned char raw[4] = {0, 0, 0, 0};
    if (!Bytes(reinterpret_cast<char*>(raw), size)) return false;
    uint32_t assembled = 0;
    for (size_t i = 0; i < size; ++i) assembled |= static_cast<uint32_t>(raw[i]) << (8 * i);
    *value = static_cast<T>(assembled);
    return true;
  }

  std::istream* in_;
  uint64_t position_ = 0;
};

bool ReadFmtChunk(LeReader* reader, uint32_t chunk_size, WavFormat* format) {
  uint32_t byte_rate = 0;
  uint16_t block_align = 0;
  if (!reader->U16(&format->format_tag) || !reader->U16(&format->channels) ||
      !reader->U32(&format->sample_rate) || !reader->U32(&byte_rate) ||
      !reader->U16(&block_align) || !reader->U16(&format->bits_per_sample)) {
    return false;
  }
  // Extension fields (cbSize and beyond) carry nothing a mono reader needs.
  if (chunk_size > 16) reader->Skip(chunk_size - 16);
  return true;
}

// Sizes the sample vector once, but only from a size the file can back: a header
// alone may claim 4 GiB for a file of a few bytes.
void ReserveForChunk(uint64_t wanted, uint64_t position, uint64_t size_hint, WavData* data) {
  if (size_hint <= position) return;
  const uint64_t available = size_hint - position;
  if (wanted != kToEndOfStream && wanted > available) return;
  data->samples.reserve(static_cast<size_t>(std::min(wanted, available) / BytesPerSample(data->encoding)));
}

bool ReadDataChunk(LeReader* reader, uint32_t chunk_size, const WavFormat& format, uint64_t size_hint,
                   WavData* data) {
  *data = WavData{};  // a later data chunk replaces an earlier one
  const uint64_t wanted = chunk_size == kDataSizeUnknown ? kToEndOfStream : chunk_size;
  bool failed = false;
  uint64_t got = 0;
  if (EncodingOf(format, &data->encoding)) {
    data->converted = true;
    ReserveForChunk(wanted, reader->position(), size_hint, data);
    SampleAppender appender(data->encoding, &data->samples);
    got = ReadSampleBlocks(reader->stream(), wanted, &appender, &failed);
    data->bytes = appender.tail();
  } else {
    got = ReadRawBlocks(reader->stream(), wanted, &data->bytes, &failed);
  }
  reader->Advance(got);
  data->byte_count = got;
  return !failed && (wanted == kToEndOfStream || got == wanted);
}

// The data's bytes as they were in the file, for data converted under a format
// that a later fmt chunk replaced. Both conversions are exact, so this is lossless.
std::string OriginalBytes(WavData* data) {
  if (!data->converted) return std::move(data->bytes);
  std::string bytes = data->encoding == SampleEncoding::kS16le ? FloatToS16le(data->samples)
                                                                : FloatToF32le(data->samples);
  std::vector<float>().swap(data->samples);
  return bytes + data->bytes;
}

bool FinishSamples(const WavFormat& format, int expected_sample_rate, WavData* data, std::vector<float>* samples,
                   std::string* error) {
  if (format.channels != 1) return Fail(error, "WAV must be mono");
  if (format.sample_rate != static_cast<uint32_t>(expected_sample_rate)) {
    return Fail(error, "WAV sample rate must be " + std::to_string(expected_sample_rate));
  }
  if (data->byte_count == 0) return Fail(error, "WAV has no data");
  SampleEncoding encoding = SampleEncoding::kS16le;
  if (!EncodingOf(format, &encoding)) {
    return Fail(error, "Unsupported WAV format. Expect mono 16-bit PCM or mono 32-bit float");
  }
  if (data->converted && data->encoding == encoding) {
    samples->swap(data->samples);
    return true;
  }
  const std::string bytes = OriginalBytes(data);
  SampleAppender(encoding, samples).Append(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return true;
}

bool ReadWav(std::istream& in, int expected_sample_rate, uint64_t size_hint, std::vector<float>* samples,
             std::string* error) {
  LeReader reader(&in);
  std::string riff_id, form_type;
  uint32_t riff_size = 0;
  if (!reader.Tag(&riff_id) || !reader.U32(&riff_size) || !reader.Tag(&form_type)) {
    return Fail(error, "Invalid WAV header");
  }
  if (riff_id != "RIFF" || form_type != "WAVE") return Fail(error, "Not a RIFF/WAVE file");

  WavFormat format;
  WavData data;
  std::string chunk_id;
  uint32_t chunk_size = 0;
  // Walk every chunk to the end of the file: writers put LIST/fact chunks and even
  // the fmt chunk after the data, and a later fmt or data chunk replaces an earlier one.
  while (reader.Tag(&chunk_id) && reader.U32(&chunk_size)) {
    if (chunk_id == "fmt ") {
      if (!ReadFmtChunk(&reader, chunk_size, &format)) return Fail(error, "Invalid WAV fmt chunk");
    } else if (chunk_id == "data") {
      if (!ReadDataChunk(&reader, chunk_size, format, size_hint, &data)) {
        return Fail(error, "Invalid WAV data chunk");
      }
    } else {
      reader.Skip(chunk_size);
    }
    if (chunk_size % 2 == 1) reader.Skip(1);  // RIFF pads odd-sized chunks to even
  }
  return FinishSamples(format, expected_sample_rate, &data, samples, error);
}

}  // namespace

bool ReadWavMonoFromStream(std::istream& in, int expected_sample_rate, uint64_t size_hint,
                           std::vector<float>* samples, std::string* error) {
  if (samples == nullptr || error == nullptr) return false;
  samples->clear();
  try {
    return ReadWav(in, expected_sample_rate, size_hint, samples, error);
  } catch (const std::bad_alloc&) {
  } catch (const std::length_error&) {
  }
  std::vector<float>().swap(*samples);
  return Fail(error, "Out of memory reading WAV data");
}

bool ReadWavMono(const std::string& path, int expected_sample_rate, std::vector<float>* samples,
                 std::string* error) {
  if (samples == nullptr || error == nullptr) return false;
  samples->clear();
  std::ifstream in(path, std::ios::binary);
  if (!in) return Fail(error, "WAV file not found: " + path);
  return ReadWavMonoFromStream(in, expected_sample_rate, RegularFileSizeOrZero(path), samples, error);
}

}  // namespace kerrow
