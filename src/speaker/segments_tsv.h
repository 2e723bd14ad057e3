#ifndef KERROW_SPEAKER_SEGMENTS_TSV_H_
#define KERROW_SPEAKER_SEGMENTS_TSV_H_

#include <istream>
#include <string>
#include <vector>

#include "diarization/diarization_backend.h"

namespace kerrow {

// Reads the labelled turns handed to identify-only: one "start<TAB>end<TAB>label"
// per line. Lines that do not look like a turn (too few tabs, a field that is
// not a number, end not after start, empty label) are skipped without a word,
// so a header line or stray notes in the file do no harm.
std::vector<DiarizationSegment> ParseSegmentsTsv(std::istream& input);

// One line of that file, without its newline. Returns false when the line is
// not a turn that should be kept.
bool ParseSegmentsTsvLine(const std::string& line, DiarizationSegment* turn);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_SEGMENTS_TSV_H_
