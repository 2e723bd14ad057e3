#ifndef KERROW_COMMON_UTF8_PUNC_H_
#define KERROW_COMMON_UTF8_PUNC_H_

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kerrow {

// UTF-8 stepping and the punctuation rules shared by every text path. None of
// these functions validates UTF-8: recognizers occasionally emit broken
// sequences, and those bytes must survive untouched rather than fail a result.
// Positions and lengths are byte counts.

// Multi-byte punctuation. Every entry is three bytes except "·" (U+00B7, two
// bytes). The last one, the full-width full stop U+FF0E, is kept between two
// digits because it is then a decimal point.
inline constexpr std::array<std::string_view, 26> kUtf8Punc = {
    "，", "。", "！", "？", "、", "；", "：", "（", "）", "【", "】", "《", "》",
    "“", "”", "‘", "’", "「", "」", "『", "』", "…", "—", "～", "·", "．"};

// Sentence-final marks. The order matters: "…" is tried before ".", and the
// first entry that matches is the one removed.
inline constexpr std::array<std::string_view, 7> kTerms = {"。", "！", "？", "…",
                                                           ".",  "!",  "?"};

// Length of the character that `lead` starts: 1, 2, 3 or 4 by the lead-byte
// pattern, and 1 for a stray continuation byte or an invalid lead byte.
size_t Utf8CharLen(unsigned char lead);

// Length of the character at `pos` when walking `text` forward: Utf8CharLen of
// the byte there, cut to 1 when it would run past the end, so a truncated
// character at the end is walked byte by byte. 0 when `pos` is at or past the end.
size_t Utf8StepAt(std::string_view text, size_t pos);

// True when `token` equals one entry of kUtf8Punc exactly.
bool IsUtf8PuncToken(std::string_view token);

// True when the character at `pos` ("." or "．") is a decimal point, i.e. the
// byte right before it and the byte right after it are ASCII digits.
bool IsNumericDot(std::string_view text, size_t pos);

// True when the `len`-byte character at `pos` is punctuation to remove: an
// ASCII punctuation byte or a kUtf8Punc entry, except a decimal point.
bool ShouldStripPuncToken(std::string_view text, size_t pos, size_t len);

// Start of the character that ends just before `pos`; 0 when `pos` is 0 or
// beyond the end.
size_t PrevUtf8Start(std::string_view text, size_t pos);

// The text without its punctuation, as the punctuation model wants its input.
// Spaces, letters, digits, CJK characters, invalid bytes and decimal points stay.
std::string StripPuncForPuncModel(const std::string& text);

// Fills `tokens` with the text's non-punctuation characters, one string per
// character (spaces included), and `positions` (optional) with each one's byte
// offset. Does nothing when `tokens` is null.
void CollectPlainTokens(const std::string& text, std::vector<std::string>* tokens,
                        std::vector<size_t>* positions = nullptr);

// Start index of the last occurrence of `needle` as a contiguous run in
// `tokens`; 0 for an empty needle, std::string::npos when there is none.
size_t FindLastTokenSubseq(const std::vector<std::string>& tokens,
                           const std::vector<std::string>& needle);

// The last `count` code points of `text` (the whole text when it is shorter);
// empty when `count` is below 1.
std::string Utf8SuffixByCodepoints(const std::string& text, int count);

// Byte-wise suffix test. An empty suffix never matches, so an empty mark can
// never be taken for a sentence end.
bool EndsWith(std::string_view text, std::string_view suffix);

// Removes one sentence-final mark (the first kTerms entry the text ends with)
// in place. False when `text` is null, empty or ends in no mark.
bool PopOneTerminalPunc(std::string* text);

// The text without its trailing run of sentence-final marks; inner marks stay.
std::string StripTerminalPunc(const std::string& text);

// The text ending in a sentence-final mark: unchanged when it already ends in
// one, else with "。" appended (whatever the script). Empty stays empty.
std::string EnsureTerminalPunc(const std::string& text);

}  // namespace kerrow

#endif  // KERROW_COMMON_UTF8_PUNC_H_
