#include "audio/wav_reader.h"

#include <cstdint>
#include <fstream>

#include "audio/sample_convert.h"

namespace kerrow {

namespace {

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatIeeeFloat = 3;

struct WavFormat {
  uint16_t format_tag = 0;
  uint16_t channels = 0;
  uint32_t sample_rate = 0;
  uint16_t bits_per_sample = 0;
};

// Little-endian field reads over a stream; each returns false on a short read.
class LeReader {
 public:
  explicit LeReader(std::ifstream* in) : in_(in) {}

  bool Bytes(char* out, size_t size) {
    in_->read(out, static_cast<std::streamsize>(size));
    return static_cast<size_t>(in_->gcount()) == size;
  }
  bool U16(uint16_t* value) { return Unsigned(value, 2); }
  bool U32(uint32_t* value) { return Unsigned(value, 4); }
  bool Tag(std::string* tag) {
    tag->assign(4, '\0');
    return Bytes(&(*tag)[0], 4);
  }
  void Skip(uint64_t size) { in_->seekg(static_cast<std::streamoff>(size), std::ios::cur); }
  uint64_t Remaining() {
    const std::streampos here = in_->tellg();
    in_->seekg(0, std::ios::end);
    const std::streampos end = in_->tellg();
    in_->seekg(here);
    return (here < 0 || end < here) ? 0 : static_cast<uint64_t>(end - here);
  }

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

  std::ifstream* in_;
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

bool ReadDataChunk(LeReader* reader, uint32_t chunk_size, std::vector<char>* data) {
  // A truncated file with a huge declared size must fail as a short read, not
  // by first allocating gigabytes for bytes that are not there.
  if (chunk_size > reader->Remaining()) return false;
  data->assign(chunk_size, '\0');
  return chunk_size == 0 || reader->Bytes(data->data(), chunk_size);
}

bool Fail(const std::string& message, std::string* error) {
  *error = message;
  return false;
}

}  // namespace

bool ReadWavMono(const std::string& path, int expected_sample_rate, std::vector<float>* samples,
                 std::string* error) {
  if (samples == nullptr || error == nullptr) return false;
  samples->clear();

  std::ifstream in(path, std::ios::binary);
  if (!in) return Fail("WAV file not found: " + path, error);
  LeReader reader(&in);

  std::string riff_id, form_type;
  uint32_t riff_size = 0;
  if (!reader.Tag(&riff_id) || !reader.U32(&riff_size) || !reader.Tag(&form_type)) {
    return Fail("Invalid WAV header", error);
  }
  if (riff_id != "RIFF" || form_type != "WAVE") return Fail("Not a RIFF/WAVE file", error);

  WavFormat format;
  std::vector<char> data;
  std::string chunk_id;
  uint32_t chunk_size = 0;
  // Walk every chunk to the end of the file: writers put LIST/fact chunks and even
  // the fmt chunk after the data, and a later fmt or data chunk replaces an earlier one.
  while (reader.Tag(&chunk_id) && reader.U32(&chunk_size)) {
    if (chunk_id == "fmt ") {
      if (!ReadFmtChunk(&reader, chunk_size, &format)) return Fail("Invalid WAV fmt chunk", error);
    } else if (chunk_id == "data") {
      if (!ReadDataChunk(&reader, chunk_size, &data)) return Fail("Invalid WAV data chunk", error);
    } else {
      reader.Skip(chunk_size);
    }
    if (chunk_size % 2 == 1) reader.Skip(1);  // RIFF pads odd-sized chunks to even
  }

  if (format.channels != 1) return Fail("WAV must be mono", error);
  if (format.sample_rate != static_cast<uint32_t>(expected_sample_rate)) {
    return Fail("WAV sample rate must be " + std::to_string(expected_sample_rate), error);
  }
  if (data.empty()) return Fail("WAV has no data", error);

  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(data.data());
  if (format.format_tag == kFormatPcm && format.bits_per_sample == 16) {
    samples->resize(data.size() / 2);
    S16leToFloat(bytes, samples->size(), samples->data());
  } else if (format.format_tag == kFormatIeeeFloat && format.bits_per_sample == 32) {
    samples->resize(data.size() / 4);
    F32leToFloat(bytes, samples->size(), samples->data());
  } else {
    return Fail("Unsupported WAV format. Expect mono 16-bit PCM or mono 32-bit float", error);
  }
  return true;
}

}  // namespace kerrow
