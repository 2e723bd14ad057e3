#ifndef KERROW_OFFLINE_SPEAKER_ASSIGN_H_
#define KERROW_OFFLINE_SPEAKER_ASSIGN_H_

#include <cstdint>
#include <string>
#include <vector>

#include "diarization/diarization_backend.h"
#include "events/segment_result.h"

namespace kerrow {

class EventEmitter;

// Gives every transcript segment a speaker from the diarization turns. A
// segment that spans a speaker change is cut into one segment per speaker,
// its text shared out by each speaker's share of time. Anonymous labels are
// renumbered by first appearance so the first voice heard is SPEAKER_00;
// enrolled names pass through. emitter may be null (no log lines then).
void AssignAndSplitBySpeakers(std::vector<SegmentResult>* segments,
                              const std::vector<DiarizationSegment>& turns,
                              EventEmitter* emitter);

// Cuts text into one piece per weight, sized by the weights, preferring to cut
// just after punctuation near each proportional position. A single piece
// holding the whole text when there are no weights or they sum to 0 or less.
std::vector<std::string> SplitTextByWeights(const std::string& text,
                                            const std::vector<double>& weights);

// One character of a text as SplitTextByWeights sees it.
struct Utf8Char {
  uint64_t offset = 0;  // byte offset in the text
  uint64_t length = 0;  // bytes
  bool is_break = false;  // punctuation after which a cut may fall
};

// The characters of text in order; a malformed or truncated sequence is taken
// one byte at a time.
std::vector<Utf8Char> Utf8Scan(const std::string& text);

}  // namespace kerrow

#endif  // KERROW_OFFLINE_SPEAKER_ASSIGN_H_
