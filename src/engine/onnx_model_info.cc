#include "engine/onnx_model_info.h"

#include <cstdint>
#include <fstream>
#include <sstream>

#include "engine/library_call.h"

namespace kerrow {

namespace {

// Field numbers of the onnx.proto messages we look into.
constexpr uint32_t kModelIrVersion = 1;
constexpr uint32_t kModelGraph = 7;
constexpr uint32_t kModelMetadataProps = 14;
constexpr uint32_t kGraphInput = 11;
constexpr uint32_t kValueInfoName = 1;
constexpr uint32_t kEntryKey = 1;
constexpr uint32_t kEntryValue = 2;

constexpr int kWireVarint = 0;
constexpr int kWireFixed64 = 1;
constexpr int kWireLengthDelimited = 2;
constexpr int kWireFixed32 = 5;

constexpr uint32_t kMaxFieldNumber = (1u << 29) - 1;
constexpr int kMaxVarintBytes = 10;

std::string AtByte(uint64_t offset) {
  return " at byte " + std::to_string(offset);
}

// A window [pos, end) of one protobuf message inside the stream. The stream
// position always equals pos while a cursor is in use; a nested message gets a
// cursor of its own, and its parent skips past it afterwards.
class WireCursor {
 public:
  WireCursor(std::istream* in, uint64_t pos, uint64_t end)
      : in_(in), pos_(pos), end_(end) {}

  bool AtEnd() const { return pos_ >= end_; }
  uint64_t pos() const { return pos_; }

  bool ReadVarint(uint64_t* value, std::string* error) {
    const uint64_t start = pos_;
    uint64_t result = 0;
    for (int i = 0; i < kMaxVarintBytes; ++i) {
      if (pos_ >= end_) {
        SetError(error, "truncated varint" + AtByte(start));
        return false;
      }
      const int byte = in_->get();
      if (byte == std::char_traits<char>::eof()) {
        SetError(error, "unexpected end of file" + AtByte(pos_));
        return false;
      }
      ++pos_;
      const uint64_t bits = static_cast<uint64_t>(byte & 0x7f);
      // The tenth byte may only carry the single top bit of a 64-bit value.
      if (i == kMaxVarintBytes - 1 && (byte & 0x7e) != 0) break;
      result |= bits << (7 * i);
      if ((byte & 0x80) == 0) {
        *value = result;
        return true;
      }
    }
    SetError(error, "varint longer than 64 bits" + AtByte(start));
    return false;
  }

  bool ReadTag(uint32_t* field, int* wire_type, std::string* error) {
    const uint64_t start = pos_;
    uint64_t tag = 0;
    if (!ReadVarint(&tag, error)) return false;
    const uint64_t number = tag >> 3;
    if (number == 0 || number > kMaxFieldNumber) {
      SetError(error, "invalid field number" + AtByte(start));
      return false;
    }
    *field = static_cast<uint32_t>(number);
    *wire_type = static_cast<int>(tag & 7);
    return true;
  }

  // A length prefix, refused when it points past the end of this message.
  bool ReadLength(uint64_t* length, std::string* error) {
    const uint64_t start = pos_;
    if (!ReadVarint(length, error)) return false;
    if (*length > end_ - pos_) {
      SetError(error, "length " + std::to_string(*length) +
                          " runs past the end of its message" + AtByte(start));
      return false;
    }
    return true;
  }

  bool ReadBytes(uint64_t length, std::string* out, std::string* error) {
    out->resize(static_cast<size_t>(length));
    if (length > 0 &&
        !in_->read(&(*out)[0], static_cast<std::streamsize>(length))) {
      SetError(error, "unexpected end of file" + AtByte(pos_));
      return false;
    }
    pos_ += length;
    return true;
  }

  bool Skip(uint64_t length, std::string* error) {
    if (length > end_ - pos_) {
      SetError(error, "field runs past the end of its message" + AtByte(pos_));
      return false;
    }
    pos_ += length;
    if (!in_->seekg(static_cast<std::streamoff>(pos_))) {
      SetError(error, "cannot seek" + AtByte(pos_));
      return false;
    }
    return true;
  }

  bool SkipField(int wire_type, std::string* error) {
    uint64_t ignored = 0;
    switch (wire_type) {
      case kWireVarint:
        return ReadVarint(&ignored, error);
      case kWireFixed64:
        return Skip(8, error);
      case kWireLengthDelimited:
        return ReadLength(&ignored, error) && Skip(ignored, error);
      case kWireFixed32:
        return Skip(4, error);
      default:
        // Groups (3, 4) do not occur in ONNX; 6 and 7 do not exist.
        SetError(error, "unsupported wire type " + std::to_string(wire_type) +
                            AtByte(pos_));
        return false;
    }
  }

  // Opens the length-delimited field that starts at the cursor. The parent
  // must call Skip(length) once the child is done with it.
  bool OpenMessage(uint64_t* length, WireCursor* child, std::string* error) {
    if (!ReadLength(length, error)) return false;
    *child = WireCursor(in_, pos_, pos_ + *length);
    return true;
  }

  // Moves the cursor past a child message opened with OpenMessage.
  bool FinishMessage(uint64_t length, std::string* error) {
    return Skip(length, error);
  }

 private:
  std::istream* in_;
  uint64_t pos_;
  uint64_t end_;
};

bool ExpectWireType(uint32_t field, int wire_type, int expected,
                    uint64_t offset, std::string* error) {
  if (wire_type == expected) return true;
  SetError(error, "field " + std::to_string(field) + " has wire type " +
                      std::to_string(wire_type) + AtByte(offset));
  return false;
}

// Reads the string fields wanted[i] of one small message into values[i].
bool ReadStringFields(WireCursor* cursor, const uint32_t* wanted,
                      std::string** values, int count, std::string* error) {
  while (!cursor->AtEnd()) {
    const uint64_t start = cursor->pos();
    uint32_t field = 0;
    int wire_type = 0;
    if (!cursor->ReadTag(&field, &wire_type, error)) return false;
    int slot = -1;
    for (int i = 0; i < count; ++i) {
      if (wanted[i] == field) slot = i;
    }
    if (slot < 0) {
      if (!cursor->SkipField(wire_type, error)) return false;
      continue;
    }
    uint64_t length = 0;
    if (!ExpectWireType(field, wire_type, kWireLengthDelimited, start,
                        error) ||
        !cursor->ReadLength(&length, error) ||
        !cursor->ReadBytes(length, values[slot], error)) {
      return false;
    }
  }
  return true;
}

bool ReadMetadataEntry(WireCursor* cursor, OnnxModelInfo* info,
                       std::string* error) {
  std::string key;
  std::string value;
  const uint32_t wanted[] = {kEntryKey, kEntryValue};
  std::string* values[] = {&key, &value};
  if (!ReadStringFields(cursor, wanted, values, 2, error)) return false;
  info->metadata.emplace_back(std::move(key), std::move(value));
  return true;
}

bool ReadGraphInput(WireCursor* cursor, OnnxModelInfo* info,
                    std::string* error) {
  std::string name;
  const uint32_t wanted[] = {kValueInfoName};
  std::string* values[] = {&name};
  if (!ReadStringFields(cursor, wanted, values, 1, error)) return false;
  info->graph_inputs.push_back(std::move(name));
  return true;
}

// Runs read_child over the length-delimited field at the cursor, then puts
// the cursor right after it.
template <typename ReadChild>
bool ReadNested(WireCursor* cursor, ReadChild read_child, std::string* error) {
  uint64_t length = 0;
  WireCursor child(nullptr, 0, 0);
  if (!cursor->OpenMessage(&length, &child, error)) return false;
  if (!read_child(&child)) return false;
  return cursor->FinishMessage(length, error);
}

bool ReadGraph(WireCursor* cursor, OnnxModelInfo* info, std::string* error) {
  while (!cursor->AtEnd()) {
    const uint64_t start = cursor->pos();
    uint32_t field = 0;
    int wire_type = 0;
    if (!cursor->ReadTag(&field, &wire_type, error)) return false;
    if (field != kGraphInput) {
      if (!cursor->SkipField(wire_type, error)) return false;
      continue;
    }
    if (!ExpectWireType(field, wire_type, kWireLengthDelimited, start,
                        error) ||
        !ReadNested(
            cursor,
            [&](WireCursor* child) { return ReadGraphInput(child, info, error); },
            error)) {
      return false;
    }
  }
  return true;
}

bool ReadModel(WireCursor* cursor, OnnxModelInfo* info, std::string* error) {
  bool saw_ir_version = false;
  bool saw_graph = false;
  while (!cursor->AtEnd()) {
    const uint64_t start = cursor->pos();
    uint32_t field = 0;
    int wire_type = 0;
    if (!cursor->ReadTag(&field, &wire_type, error)) return false;
    if (field == kModelIrVersion) {
      uint64_t ignored = 0;
      if (!ExpectWireType(field, wire_type, kWireVarint, start, error) ||
          !cursor->ReadVarint(&ignored, error)) {
        return false;
      }
      saw_ir_version = true;
    } else if (field == kModelGraph) {
      if (!ExpectWireType(field, wire_type, kWireLengthDelimited, start,
                          error) ||
          !ReadNested(
              cursor,
              [&](WireCursor* child) { return ReadGraph(child, info, error); },
              error)) {
        return false;
      }
      saw_graph = true;
    } else if (field == kModelMetadataProps) {
      if (!ExpectWireType(field, wire_type, kWireLengthDelimited, start,
                          error) ||
          !ReadNested(cursor,
                      [&](WireCursor* child) {
                        return ReadMetadataEntry(child, info, error);
                      },
                      error)) {
        return false;
      }
    } else if (!cursor->SkipField(wire_type, error)) {
      return false;
    }
  }
  // Any byte string can happen to parse as some protobuf message; every ONNX
  // exporter writes both of these, so requiring them rejects look-alikes.
  if (!saw_ir_version) {
    SetError(error, "no ir_version field");
    return false;
  }
  if (!saw_graph) {
    SetError(error, "no graph field");
    return false;
  }
  return true;
}

}  // namespace

bool OnnxModelInfo::HasMetadata(const std::string& key) const {
  return FindMetadata(key) != nullptr;
}

const std::string* OnnxModelInfo::FindMetadata(const std::string& key) const {
  for (const auto& entry : metadata) {
    if (entry.first == key) return &entry.second;
  }
  return nullptr;
}

bool OnnxModelInfo::HasGraphInput(const std::string& name) const {
  for (const auto& input : graph_inputs) {
    if (input == name) return true;
  }
  return false;
}

bool ReadOnnxModelInfo(std::istream& in, std::streamoff total_size,
                       OnnxModelInfo* info, std::string* error) {
  *info = OnnxModelInfo();
  if (total_size <= 0) {
    SetError(error, "empty input");
    return false;
  }
  if (!in.seekg(0)) {
    SetError(error, "cannot seek to the start");
    return false;
  }
  WireCursor cursor(&in, 0, static_cast<uint64_t>(total_size));
  if (!ReadModel(&cursor, info, error)) {
    *info = OnnxModelInfo();
    return false;
  }
  return true;
}

bool ReadOnnxModelInfoFromFile(const std::string& path, OnnxModelInfo* info,
                               std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    SetError(error, "cannot open " + path);
    return false;
  }
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size < 0) {
    SetError(error, "cannot determine the size of " + path);
    return false;
  }
  return ReadOnnxModelInfo(in, size, info, error);
}

bool ParseOnnxModelInfo(const std::string& bytes, OnnxModelInfo* info,
                        std::string* error) {
  std::istringstream in(bytes);
  return ReadOnnxModelInfo(in, static_cast<std::streamoff>(bytes.size()), info,
                           error);
}

}  // namespace kerrow
