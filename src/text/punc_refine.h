#ifndef KERROW_TEXT_PUNC_REFINE_H_
#define KERROW_TEXT_PUNC_REFINE_H_

#include <string>

namespace kerrow {

class EventEmitter;
class PuncBackend;

// Punctuates a whole text: its own marks are stripped, the model adds new
// ones, and the marks inside words ("don't") are put back (RestoreInWordMarks),
// so no word changes. Without a ready model, for punctuation-only text, or when the model
// fails, the text comes back unchanged.
std::string RefineTextWithPunc(PuncBackend* punc, EventEmitter* emitter,
                               const std::string& text);

// RefineTextWithPunc, then the sentence end fixed for display: a final text
// always ends in a sentence mark, a growing one never does.
std::string RefineRealtimeTextWithPunc(PuncBackend* punc,
                                       EventEmitter* emitter,
                                       const std::string& text, bool is_final);

// Punctuates one live segment with the unpunctuated tail of the previous one
// in front, so the mark at the boundary is chosen with both sides in view,
// and keeps only this segment's part. Afterwards *context holds the last
// context_codepoints code points of this segment's plain text (emptied when
// context_codepoints is below 1).
std::string ApplyRealtimePunc(PuncBackend* punc, EventEmitter* emitter,
                              const std::string& text, std::string* context,
                              int context_codepoints, bool is_final);

// The part of punctuated that spells plain_tail (marks and blanks ignored),
// together with the mark just in front of it. fallback (or punctuated when
// fallback is empty) when the tail cannot be found.
std::string ExtractTailByPlain(const std::string& punctuated,
                               const std::string& plain_tail,
                               const std::string& fallback);

// Publishes the punctuated form of a first-pass text as a "punctuated" event.
void EmitPunctuatedForPartial(PuncBackend* punc, EventEmitter* emitter,
                              int segment_id, const std::string& text,
                              int session_id);

// The one way the refinement functions call the punctuation model. The pinned
// library's CT-Transformer can silently drop the words after the last
// sentence mark it predicts; a transcript must never lose words to
// punctuation. So the output's characters (marks and white space ignored) are
// checked against the input's: a lost tail is punctuated on its own and
// appended (unpunctuated when that fails too), and any other difference is
// reported as a failure. A repair is logged once through the emitter (may be
// null). Returns false with *error set when the model fails or changed the
// words; *output then holds the input.
bool PunctuateKeepingEveryWord(PuncBackend* punc, EventEmitter* emitter,
                               const std::string& input, std::string* output,
                               std::string* error);

}  // namespace kerrow

#endif  // KERROW_TEXT_PUNC_REFINE_H_
