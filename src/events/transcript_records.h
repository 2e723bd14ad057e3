#ifndef KERROW_EVENTS_TRANSCRIPT_RECORDS_H_
#define KERROW_EVENTS_TRANSCRIPT_RECORDS_H_

#include <string>
#include <vector>

#include "events/segment_result.h"

namespace kerrow {

// Builders of the transcript lines the host reads: "first-pass" partials,
// "punctuated" rewrites of partials and second-pass "result" records. They
// return one line of JSON without its newline, to be handed to
// EventEmitter::EmitRawJson. Keys come in a fixed order; numbers and booleans
// are bare. A negative identifier means absent and leaves its key out, except
// the first-pass and punctuated "segment_id", which is always written.

// True when something other than white space is left once punctuation is
// removed. Bytes of 128 and above count as content.
bool HasContentText(const std::string& text);

std::string BuildFirstPassEventJson(int segment_id, const std::string& text, bool is_final,
                                    int session_id);

std::string BuildPunctuatedEventJson(int segment_id, const std::string& text, int session_id);

// Segments without content are left out. "merged_text" is written only for
// final or whole-file results: `merged_text` when given (and it has content),
// else the texts of the written segments joined by single spaces.
// "segment_count" is written only when it is 1 or more.
std::string BuildSecondPassResultJson(const std::vector<SegmentResult>& segments,
                                      bool offline_2pass, bool is_final, int segment_id,
                                      int segment_start_id, int segment_count,
                                      const std::string* merged_text, int session_id);

}  // namespace kerrow

#endif  // KERROW_EVENTS_TRANSCRIPT_RECORDS_H_
