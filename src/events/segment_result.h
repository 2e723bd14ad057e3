#ifndef KERROW_EVENTS_SEGMENT_RESULT_H_
#define KERROW_EVENTS_SEGMENT_RESULT_H_

#include <string>

namespace kerrow {

// One segment decoded by the second pass, as it goes into a "result" record.
struct SegmentResult {
  double start_time = 0.0;  // seconds from the start of the audio or session
  double end_time = 0.0;    // seconds
  std::string text;         // UTF-8
  std::string speaker;      // diarization label or enrolled name; empty when unknown
};

}  // namespace kerrow

#endif  // KERROW_EVENTS_SEGMENT_RESULT_H_
