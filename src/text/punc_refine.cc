#include "text/punc_refine.h"

#include <cctype>
#include <cstddef>
#include <vector>

#include "common/error_text.h"
#include "engine/punc_backend.h"
#include "events/event_emitter.h"
#include "events/transcript_records.h"
#include "text/in_word_marks.h"
#include "text/piece_join.h"
#include "common/utf8_punc.h"
#include "text/word_chars.h"

namespace kerrow {
namespace {

bool PuncUsable(const PuncBackend* punc) {
  return punc != nullptr && punc->IsReady();
}

void LogLine(EventEmitter* emitter, const std::string& message) {
  if (emitter != nullptr) emitter->EmitLog(message);
}

bool IsAsciiAlnum(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

// The text the punctuation model is given: the text without its punctuation,
// except that a full-width mark standing between two ASCII words becomes a
// blank. The library writes "world，how" with no blank after the mark, so
// plain stripping would weld "world" and "how" into one word when an already
// punctuated text (a merged transcript) is punctuated again.
std::string PlainTextForPuncModel(const std::string& text) {
  std::string plain;
  plain.reserve(text.size());
  bool word_break = false;
  for (size_t pos = 0; pos < text.size();) {
    const size_t step = Utf8StepAt(text, pos);
    if (ShouldStripPuncToken(text, pos, step)) {
      if (step > 1 && !plain.empty() && IsAsciiAlnum(plain.back())) word_break = true;
    } else {
      if (word_break && step == 1 && IsAsciiAlnum(text[pos])) plain.push_back(' ');
      word_break = false;
      plain.append(text, pos, step);
    }
    pos += step;
  }
  return plain;
}

// A text of blanks and marks only gives the model nothing to punctuate, and
// a blank alone would match any blank of the context in front of it.
bool HasWords(const std::string& plain) {
  return !CollectWordChars(plain).chars.empty();
}

enum class TailFate { kPunctuated, kLeftPlain };

// Punctuates the words the model dropped, on their own and again checked, and
// appends them to *text. A tail that loses words once more is worked off piece
// by piece; it shrinks every round, so this ends.
TailFate AppendLostTail(PuncBackend* punc, std::string tail,
                        std::string* text) {
  TailFate fate = TailFate::kPunctuated;
  while (!tail.empty()) {
    std::string output;
    if (!punc->AddPunctuation(tail, &output, nullptr)) {
      AppendTextPiece(tail, text);
      return TailFate::kLeftPlain;
    }
    const WordChars want = CollectWordChars(tail);
    const WordChars got = CollectWordChars(output);
    if (got.chars == want.chars) {
      AppendTextPiece(output, text);
      return fate;
    }
    if (got.chars.empty() || !IsPrefixOf(got.chars, want.chars)) {
      AppendTextPiece(tail, text);
      return TailFate::kLeftPlain;
    }
    AppendTextPiece(output, text);
    tail = tail.substr(want.offsets[got.chars.size()]);
  }
  return fate;
}

}  // namespace

bool PunctuateKeepingEveryWord(PuncBackend* punc, EventEmitter* emitter,
                               const std::string& input, std::string* output,
                               std::string* error) {
  std::string result;
  if (punc == nullptr) {
    if (output != nullptr) *output = input;
    return Fail(error, "Punctuation backend is not initialized");
  }
  if (!punc->AddPunctuation(input, &result, error)) {
    if (output != nullptr) *output = input;
    return false;
  }

  const WordChars want = CollectWordChars(input);
  const WordChars got = CollectWordChars(result);
  if (got.chars == want.chars) {
    if (output != nullptr) *output = result;
    return true;
  }
  if (got.chars.empty() || !IsPrefixOf(got.chars, want.chars)) {
    if (output != nullptr) *output = input;
    return Fail(error, "punctuation model changed the words of its input");
  }

  // The lost words start at the first character the output is missing.
  const std::string lost = input.substr(want.offsets[got.chars.size()]);
  const TailFate fate = AppendLostTail(punc, lost, &result);
  LogLine(emitter,
          "[PUNC] model dropped the words \"" + lost + "\" after its last "
          "sentence mark; " +
              (fate == TailFate::kPunctuated
                   ? "punctuated them on their own and appended them"
                   : "appended them unpunctuated"));
  if (output != nullptr) *output = result;
  return true;
}

std::string RefineTextWithPunc(PuncBackend* punc, EventEmitter* emitter,
                               const std::string& text) {
  if (!PuncUsable(punc) || text.empty()) return text;
  const std::string plain = PlainTextForPuncModel(text);
  if (!HasWords(plain)) return text;

  std::string punctuated;
  std::string error;
  if (!PunctuateKeepingEveryWord(punc, emitter, plain, &punctuated, &error)) {
    LogLine(emitter, "Punctuation refine failed: " + error);
    return text;
  }
  return RestoreInWordMarks(text, punctuated);
}

std::string RefineRealtimeTextWithPunc(PuncBackend* punc,
                                       EventEmitter* emitter,
                                       const std::string& text,
                                       bool is_final) {
  const std::string refined = RefineTextWithPunc(punc, emitter, text);
  // A final text closes a sentence; a growing one must not look finished.
  return is_final ? EnsureTerminalPunc(refined) : StripTerminalPunc(refined);
}

std::string ApplyRealtimePunc(PuncBackend* punc, EventEmitter* emitter,
                              const std::string& text, std::string* context,
                              int context_codepoints, bool is_final) {
  if (!PuncUsable(punc) || text.empty()) return text;
  const std::string plain = PlainTextForPuncModel(text);
  if (!HasWords(plain)) return text;

  const std::string ctx = context != nullptr ? *context : std::string();
  // No separator: the context is the plain end of the previous segment, and
  // the model decides what mark (if any) belongs between the two.
  const std::string input = ctx.empty() ? plain : ctx + plain;

  std::string punctuated;
  std::string error;
  if (!PunctuateKeepingEveryWord(punc, emitter, input, &punctuated, &error)) {
    LogLine(emitter, "Punctuation refine failed: " + error);
    return text;
  }

  std::string result =
      ctx.empty() ? punctuated : ExtractTailByPlain(punctuated, plain, text);
  result = RestoreInWordMarks(text, result);
  result = is_final ? EnsureTerminalPunc(result) : StripTerminalPunc(result);

  if (context != nullptr) {
    *context = context_codepoints >= 1
                   ? Utf8SuffixByCodepoints(plain, context_codepoints)
                   : std::string();
  }
  return result;
}

std::string ExtractTailByPlain(const std::string& punctuated,
                               const std::string& plain_tail,
                               const std::string& fallback) {
  if (plain_tail.empty()) return punctuated;
  const std::string& not_found = fallback.empty() ? punctuated : fallback;

  // Blanks are left out of the match: the model may drop or replace the
  // blank between two words (the guard that checks its output ignores
  // blanks too), and a tail that no longer matches blank for blank must not
  // fall back to an earlier match that drags the context along.
  const WordChars words = CollectWordChars(punctuated);
  const std::vector<std::string> needle = CollectWordChars(plain_tail).chars;
  if (needle.empty()) return not_found;

  const size_t match = FindLastTokenSubseq(words.chars, needle);
  if (match == std::string::npos) return not_found;

  // The mark the model put between context and tail belongs to the tail (the
  // "，" opening a new clause), and so does white space after that mark;
  // white space in front of the mark stays behind.
  size_t cut = words.offsets[match];
  size_t pos = cut;
  while (pos > 0) {
    const size_t prev = PrevUtf8Start(punctuated, pos);
    const size_t len = pos - prev;
    if (ShouldStripPuncToken(punctuated, prev, len)) {
      cut = prev;
    } else if (len != 1 || std::isspace(static_cast<unsigned char>(
                               punctuated[prev])) == 0) {
      break;
    }
    pos = prev;
  }
  return punctuated.substr(cut);
}

void EmitPunctuatedForPartial(PuncBackend* punc, EventEmitter* emitter,
                              int segment_id, const std::string& text,
                              int session_id) {
  if (!PuncUsable(punc) || emitter == nullptr || text.empty()) return;

  std::string punctuated;
  std::string error;
  if (!PunctuateKeepingEveryWord(punc, emitter, text, &punctuated, &error)) {
    emitter->EmitLog("Punc failed (seg=" + std::to_string(segment_id) +
                     "): " + error);
    return;
  }
  punctuated = RestoreInWordMarks(text, punctuated);
  if (!HasContentText(punctuated)) return;
  emitter->EmitRawJson(
      BuildPunctuatedEventJson(segment_id, punctuated, session_id));
}

}  // namespace kerrow
