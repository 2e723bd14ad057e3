#include "fake_punc_backend.h"

#include <string>
#include <vector>

#include "engine/punc_backend.h"
#include "common/utf8_punc.h"

namespace kerrow {
namespace {

std::vector<uint8_t>& Script() {
  static std::vector<uint8_t> script;
  return script;
}

size_t& ScriptPosition() {
  static size_t position = 0;
  return position;
}

uint8_t NextChoice() {
  const std::vector<uint8_t>& script = Script();
  if (script.empty()) return 0;
  const uint8_t choice = script[ScriptPosition() % script.size()];
  ++ScriptPosition();
  return choice;
}

const char* const kMarks[] = {"，", "。", "？", "！", "、", ",", ".", "?", "!", ";"};

bool IsSentenceMark(const std::string& mark) {
  return mark == "。" || mark == "？" || mark == "！" || mark == "." || mark == "?" || mark == "!";
}

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

bool IsLeadByte(unsigned char byte) { return byte < 0x80 || (byte >= 0xC2 && byte <= 0xF4); }

// A whole character: a valid lead byte, then as many continuation bytes as it says.
bool IsWholeCharacter(const std::string& text, size_t pos, size_t step) {
  const unsigned char lead = static_cast<unsigned char>(text[pos]);
  if (!IsLeadByte(lead) || step != Utf8CharLen(lead)) return false;
  for (size_t i = 1; i < step; ++i) {
    if (!IsContinuation(static_cast<unsigned char>(text[pos + i]))) return false;
  }
  return true;
}

// Where a real model may put a mark: after a whole character that ends a word
// (before a blank or at the end of the text), or between two characters of a
// script without blanks. A model reads characters, so it never puts one
// inside a broken byte sequence.
bool IsWordEnd(const std::string& text, size_t start, size_t end) {
  if (!IsWholeCharacter(text, start, end - start)) return false;
  if (end >= text.size()) return true;
  const unsigned char next = static_cast<unsigned char>(text[end]);
  if (next == ' ') return true;
  const bool ascii_before = static_cast<unsigned char>(text[start]) < 0x80;
  return !ascii_before && next >= 0x80 && IsLeadByte(next);
}

std::string Punctuate(const std::string& text, bool drop_tail) {
  std::string out;
  size_t after_last_sentence_mark = std::string::npos;
  for (size_t pos = 0; pos < text.size();) {
    const size_t step = Utf8StepAt(text, pos);
    out.append(text, pos, step);
    const size_t start = pos;
    pos += step;
    if (!IsWordEnd(text, start, pos)) continue;
    const uint8_t choice = NextChoice();
    if (choice % 3 != 0) continue;
    const std::string mark = kMarks[(choice / 3) % (sizeof kMarks / sizeof kMarks[0])];
    out += mark;
    if (IsSentenceMark(mark)) after_last_sentence_mark = out.size();
  }
  if (drop_tail && after_last_sentence_mark != std::string::npos) out.resize(after_last_sentence_mark);
  return out;
}

}  // namespace

void SetFakePuncScript(const uint8_t* data, size_t size) {
  Script().assign(data, data + size);
  ScriptPosition() = 0;
}

struct PuncBackend::Impl {};

PuncBackend::PuncBackend() = default;
PuncBackend::~PuncBackend() = default;

bool PuncBackend::Init(const PuncInitOptions&, std::string*) {
  impl_ = std::make_unique<Impl>();
  return true;
}

bool PuncBackend::IsReady() const { return impl_ != nullptr; }

bool PuncBackend::AddPunctuation(const std::string& text, std::string* out, std::string* error) {
  if (out != nullptr) *out = text;
  const uint8_t behaviour = NextChoice();
  if (behaviour % 16 == 0) {
    if (error != nullptr) *error = "fake model failure";
    return false;
  }
  if (out != nullptr) *out = Punctuate(text, behaviour % 4 == 1);
  return true;
}

}  // namespace kerrow
