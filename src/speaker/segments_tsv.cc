#include "speaker/segments_tsv.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace kerrow {
namespace {

// Leading blanks are allowed and the number ends wherever strtod stops, so
// "1.5s" reads as 1.5. A field with no number at its start, one that overflows,
// or "inf"/"nan" disqualifies the line: the times go into JSON, which has no
// spelling for them.
bool ParseSecondsField(const std::string& field, double* seconds) {
  const char* begin = field.c_str();
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(begin, &end);
  if (end == begin || errno == ERANGE || !std::isfinite(value)) return false;
  *seconds = value;
  return true;
}

}  // namespace

bool ParseSegmentsTsvLine(const std::string& line, DiarizationSegment* turn) {
  std::string text = line;
  if (!text.empty() && text.back() == '\r') text.pop_back();
  if (text.empty()) return false;

  const size_t first_tab = text.find('\t');
  if (first_tab == std::string::npos) return false;
  const size_t second_tab = text.find('\t', first_tab + 1);
  if (second_tab == std::string::npos) return false;

  double start = 0.0;
  double end = 0.0;
  if (!ParseSecondsField(text.substr(0, first_tab), &start)) return false;
  if (!ParseSecondsField(text.substr(first_tab + 1, second_tab - first_tab - 1), &end)) {
    return false;
  }
  // Everything after the second tab is the label, further tabs included.
  std::string label = text.substr(second_tab + 1);
  if (!(end > start) || label.empty()) return false;

  turn->start = start;
  turn->end = end;
  turn->speaker = std::move(label);
  return true;
}

std::vector<DiarizationSegment> ParseSegmentsTsv(std::istream& input) {
  std::vector<DiarizationSegment> turns;
  std::string line;
  while (std::getline(input, line)) {
    DiarizationSegment turn;
    if (ParseSegmentsTsvLine(line, &turn)) turns.push_back(std::move(turn));
  }
  return turns;
}

}  // namespace kerrow
