// The turns file of identify-only: whatever it holds, every turn kept has
// finite times that go forward and a label, because they go straight into JSON.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "speaker/segments_tsv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::istringstream input(text);
  const std::vector<kerrow::DiarizationSegment> turns = kerrow::ParseSegmentsTsv(input);

  size_t kept_lines = 0;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    kerrow::DiarizationSegment turn;
    if (kerrow::ParseSegmentsTsvLine(line, &turn)) ++kept_lines;
  }
  FUZZ_CHECK(kept_lines == turns.size(), "the file and its lines disagree");

  for (const kerrow::DiarizationSegment& turn : turns) {
    FUZZ_CHECK(std::isfinite(turn.start) && std::isfinite(turn.end), "a time JSON cannot spell");
    FUZZ_CHECK(turn.end > turn.start, "a turn that does not go forward");
    FUZZ_CHECK(!turn.speaker.empty(), "a turn without a label");
    FUZZ_CHECK(turn.speaker.find('\n') == std::string::npos, "a label that spans lines");
  }
  return 0;
}
