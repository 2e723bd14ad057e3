#ifndef KERROW_TESTS_SUPPORT_RTTM_TURNS_H_
#define KERROW_TESTS_SUPPORT_RTTM_TURNS_H_

// Reference turns of the bundled conversations (RTTM lines: "SPEAKER file 1
// start duration <NA> <NA> name ...") and how well a labelled hypothesis
// agrees with them. Shared by the diarization tests, the process tests and
// the diarization benchmark.

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace kerrow::testing {

struct LabelledSpan {
  double start = 0.0;
  double end = 0.0;
  std::string label;
};

inline std::vector<LabelledSpan> ReadRttm(const std::string& path) {
  std::vector<LabelledSpan> turns;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string type, file, channel, na1, na2, name;
    double start = 0.0, duration = 0.0;
    if (!(fields >> type >> file >> channel >> start >> duration >> na1 >>
          na2 >> name) ||
        type != "SPEAKER") {
      continue;
    }
    turns.push_back({start, start + duration, name});
  }
  return turns;
}

inline double Overlap(double a0, double a1, double b0, double b1) {
  return std::max(0.0, std::min(a1, b1) - std::max(a0, b0));
}

// For one reference turn: how long each hypothesis label covers it.
inline std::map<std::string, double> CoverageByLabel(
    const LabelledSpan& turn, const std::vector<LabelledSpan>& hypothesis) {
  std::map<std::string, double> coverage;
  for (const LabelledSpan& span : hypothesis) {
    const double shared = Overlap(turn.start, turn.end, span.start, span.end);
    if (shared > 0.0) coverage[span.label] += shared;
  }
  return coverage;
}

// What the label of each reference voice turned out to be, and how much of
// each reference turn carries it.
struct LabelAgreement {
  // Reference voice -> the hypothesis label covering most of its speech.
  std::map<std::string, std::string> label_of_voice;
  // Per reference turn (in file order): the share of its duration that carries
  // its voice's label.
  std::vector<double> turn_share;
  double worst_turn_share = 1.0;
  bool voices_get_distinct_labels = true;
};

inline LabelAgreement ScoreLabelAgreement(
    const std::vector<LabelledSpan>& reference,
    const std::vector<LabelledSpan>& hypothesis) {
  std::map<std::string, std::map<std::string, double>> per_voice;
  for (const LabelledSpan& turn : reference) {
    for (const auto& [label, seconds] : CoverageByLabel(turn, hypothesis)) {
      per_voice[turn.label][label] += seconds;
    }
  }
  LabelAgreement agreement;
  std::set<std::string> used;
  for (const auto& [voice, coverage] : per_voice) {
    const auto best = std::max_element(
        coverage.begin(), coverage.end(),
        [](const auto& a, const auto& b) { return a.second < b.second; });
    agreement.label_of_voice[voice] = best->first;
    if (!used.insert(best->first).second) {
      agreement.voices_get_distinct_labels = false;
    }
  }
  for (const LabelledSpan& turn : reference) {
    const auto coverage = CoverageByLabel(turn, hypothesis);
    const auto label = agreement.label_of_voice.find(turn.label);
    double share = 0.0;
    if (label != agreement.label_of_voice.end()) {
      const auto found = coverage.find(label->second);
      if (found != coverage.end()) share = found->second / (turn.end - turn.start);
    }
    agreement.turn_share.push_back(share);
    agreement.worst_turn_share = std::min(agreement.worst_turn_share, share);
  }
  return agreement;
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_RTTM_TURNS_H_
