#include "offline/speaker_assign.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <map>
#include <string_view>

#include "events/event_emitter.h"
#include "events/number_format.h"
#include "common/utf8_punc.h"

namespace kerrow {
namespace {

// Shorter overlaps are noise at a turn boundary unless they still cover a
// tenth of the segment.
constexpr double kMinPieceSeconds = 0.25;
constexpr double kMinPieceShare = 0.1;
// Two stretches of one speaker closer than this are one stretch of speech.
constexpr double kMergeGapSeconds = 1.0;
// Overlaps of a millisecond or less are rounding, not speech.
constexpr double kMinOverlapSeconds = 0.001;

struct OverlapPiece {
  double start = 0.0;
  double end = 0.0;
  std::string speaker;

  double Duration() const { return end - start; }
};

bool IsAsciiBreak(unsigned char c) {
  return c == '!' || c == ',' || c == '.' || c == ':' || c == ';' || c == '?';
}

// Renumbers anonymous labels by first appearance within one call, so the
// first voice of the transcript reads SPEAKER_00 whatever the diarizer's
// cluster numbering was. Enrolled names pass through.
class LabelRenumberer {
 public:
  std::string Map(const std::string& label) {
    if (!IsAnonymousLabel(label)) return label;
    auto found = map_.find(label);
    if (found != map_.end()) return found->second;
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "SPEAKER_%02d", next_index_++);
    map_.emplace(label, buffer);
    return buffer;
  }

 private:
  static bool IsAnonymousLabel(const std::string& label) {
    static constexpr std::string_view kPrefix = "SPEAKER_";
    if (label.size() <= kPrefix.size() ||
        label.compare(0, kPrefix.size(), kPrefix) != 0) {
      return false;
    }
    return std::all_of(label.begin() + kPrefix.size(), label.end(),
                       [](char c) { return c >= '0' && c <= '9'; });
  }

  std::map<std::string, std::string> map_;
  int next_index_ = 0;
};

std::vector<OverlapPiece> ClipTurnsTo(
    const SegmentResult& segment,
    const std::vector<DiarizationSegment>& turns) {
  std::vector<OverlapPiece> pieces;
  for (const DiarizationSegment& turn : turns) {
    const double start = std::max(turn.start, segment.start_time);
    const double end = std::min(turn.end, segment.end_time);
    if (end > start + kMinOverlapSeconds) {
      pieces.push_back({start, end, turn.speaker});
    }
  }
  return pieces;
}

std::vector<OverlapPiece> MergeSameSpeakerPieces(
    std::vector<OverlapPiece> pieces) {
  std::sort(pieces.begin(), pieces.end(),
            [](const OverlapPiece& a, const OverlapPiece& b) {
              return a.start < b.start;
            });
  std::vector<OverlapPiece> merged;
  for (OverlapPiece& piece : pieces) {
    if (!merged.empty() && merged.back().speaker == piece.speaker &&
        piece.start - merged.back().end < kMergeGapSeconds) {
      merged.back().end = std::max(merged.back().end, piece.end);
    } else {
      merged.push_back(std::move(piece));
    }
  }
  return merged;
}

size_t NearestTurnByMidpoint(const SegmentResult& segment,
                             const std::vector<DiarizationSegment>& turns,
                             double* distance) {
  const double mid = (segment.start_time + segment.end_time) / 2.0;
  size_t best = 0;
  double best_distance = 0.0;
  for (size_t i = 0; i < turns.size(); ++i) {
    const double d = std::fabs((turns[i].start + turns[i].end) / 2.0 - mid);
    if (i == 0 || d < best_distance) {
      best = i;
      best_distance = d;
    }
  }
  *distance = best_distance;
  return best;
}

size_t LongestPiece(const std::vector<OverlapPiece>& pieces) {
  size_t longest = 0;
  for (size_t i = 1; i < pieces.size(); ++i) {
    if (pieces[i].Duration() > pieces[longest].Duration()) longest = i;
  }
  return longest;
}

std::string TrimBlanks(const std::string& text) {
  size_t first = 0;
  size_t last = text.size();
  while (first < last &&
         std::isspace(static_cast<unsigned char>(text[first])) != 0) {
    ++first;
  }
  while (last > first &&
         std::isspace(static_cast<unsigned char>(text[last - 1])) != 0) {
    --last;
  }
  return text.substr(first, last - first);
}

// Position p (in characters) near target at which the character before p is
// punctuation: nearer wins, and forward wins over backward at equal distance.
size_t FindBreakNear(const std::vector<Utf8Char>& chars, size_t target,
                     size_t radius) {
  const size_t n = chars.size();
  auto is_break_cut = [&](size_t p) {
    return p >= 1 && p <= n && chars[p - 1].is_break;
  };
  for (size_t d = 0; d < radius; ++d) {
    if (is_break_cut(target + d)) return target + d;
    if (d <= target && is_break_cut(target - d)) return target - d;
  }
  return target;
}

void KeepWhole(const SegmentResult& segment, const std::string& speaker,
               LabelRenumberer* labels, std::vector<SegmentResult>* assigned) {
  SegmentResult whole = segment;
  whole.speaker = labels->Map(speaker);
  assigned->push_back(std::move(whole));
}

// A segment no turn overlaps goes to the turn whose middle is nearest.
void AssignToNearestTurn(const SegmentResult& segment,
                         const std::vector<DiarizationSegment>& turns,
                         EventEmitter* emitter, LabelRenumberer* labels,
                         std::vector<SegmentResult>* assigned) {
  double distance = 0.0;
  const DiarizationSegment& nearest =
      turns[NearestTurnByMidpoint(segment, turns, &distance)];
  KeepWhole(segment, nearest.speaker, labels, assigned);
  if (emitter == nullptr) return;
  emitter->EmitLog("[DIARIZATION] no overlap for ASR [" +
                   FormatFixed(segment.start_time, 3) + "s," +
                   FormatFixed(segment.end_time, 3) +
                   "s]; nearest diar=" + nearest.speaker +
                   " dist=" + FormatFixed(distance, 3) + "s");
}

std::vector<OverlapPiece> KeepSubstantialPieces(
    const SegmentResult& segment, const std::vector<OverlapPiece>& merged) {
  const double segment_duration =
      std::max(segment.end_time - segment.start_time, 0.000001);
  std::vector<OverlapPiece> kept;
  for (const OverlapPiece& piece : merged) {
    if (piece.Duration() >= kMinPieceSeconds ||
        piece.Duration() / segment_duration >= kMinPieceShare) {
      kept.push_back(piece);
    }
  }
  return kept;
}

// One part per piece, the text cut in proportion to the pieces' durations.
void AppendSplitParts(const SegmentResult& segment,
                      const std::vector<OverlapPiece>& kept,
                      LabelRenumberer* labels,
                      std::vector<SegmentResult>* assigned) {
  std::vector<double> weights;
  for (const OverlapPiece& piece : kept) weights.push_back(piece.Duration());
  const std::vector<std::string> parts =
      SplitTextByWeights(segment.text, weights);
  for (size_t i = 0; i < kept.size(); ++i) {
    SegmentResult part;
    part.start_time = kept[i].start;
    part.end_time = kept[i].end;
    part.text = i < parts.size() ? TrimBlanks(parts[i]) : std::string();
    part.speaker = labels->Map(kept[i].speaker);
    assigned->push_back(std::move(part));
  }
}

// Appends the segment, whole or split at speaker changes; true when split.
bool AssignSegment(const SegmentResult& segment,
                   const std::vector<DiarizationSegment>& turns,
                   EventEmitter* emitter, LabelRenumberer* labels,
                   std::vector<SegmentResult>* assigned) {
  std::vector<OverlapPiece> pieces = ClipTurnsTo(segment, turns);
  if (pieces.empty()) {
    AssignToNearestTurn(segment, turns, emitter, labels, assigned);
    return false;
  }
  const std::vector<OverlapPiece> merged =
      MergeSameSpeakerPieces(std::move(pieces));
  if (merged.size() == 1) {
    KeepWhole(segment, merged.front().speaker, labels, assigned);
    return false;
  }
  const std::vector<OverlapPiece> kept = KeepSubstantialPieces(segment, merged);
  if (kept.size() < 2) {
    KeepWhole(segment,
              kept.empty() ? merged[LongestPiece(merged)].speaker
                           : kept.front().speaker,
              labels, assigned);
    return false;
  }
  AppendSplitParts(segment, kept, labels, assigned);
  return true;
}

}  // namespace

std::vector<Utf8Char> Utf8Scan(const std::string& text) {
  std::vector<Utf8Char> chars;
  size_t pos = 0;
  while (pos < text.size()) {
    const unsigned char lead = static_cast<unsigned char>(text[pos]);
    const size_t len = Utf8StepAt(text, pos);
    Utf8Char c;
    c.offset = pos;
    c.length = len;
    c.is_break = len == 1 ? IsAsciiBreak(lead)
                          : IsUtf8PuncToken(std::string_view(text).substr(pos, len));
    chars.push_back(c);
    pos += len;
  }
  return chars;
}

std::vector<std::string> SplitTextByWeights(
    const std::string& text, const std::vector<double>& weights) {
  if (weights.empty()) return {text};
  const std::vector<Utf8Char> chars = Utf8Scan(text);
  const size_t n = chars.size();
  if (n == 0) return std::vector<std::string>(weights.size());

  double total = 0.0;
  for (double w : weights) total += std::max(w, 0.0);
  if (total <= 0.0) return {text};

  const size_t radius = std::max<size_t>(n / 5, 2) + 1;
  std::vector<size_t> cuts;
  double running = 0.0;
  size_t previous_cut = 0;
  for (size_t i = 0; i + 1 < weights.size(); ++i) {
    running += std::max(weights[i], 0.0);
    long long rounded = std::llround(running / total * static_cast<double>(n));
    size_t target = static_cast<size_t>(std::max<long long>(rounded, 1));
    if (target >= n) target = n - 1;

    size_t cut = FindBreakNear(chars, target, radius);
    cut = std::min(std::max<size_t>(cut, 1), n);
    if (cut <= previous_cut) cut = previous_cut >= n ? n : previous_cut + 1;
    cuts.push_back(cut);
    previous_cut = cut;
  }
  cuts.push_back(n);

  auto byte_at = [&](size_t cut) {
    return cut >= n ? text.size() : static_cast<size_t>(chars[cut].offset);
  };
  std::vector<std::string> pieces;
  size_t from = 0;
  for (size_t cut : cuts) {
    const size_t to = byte_at(cut);
    pieces.push_back(text.substr(from, to - from));
    from = to;
  }
  return pieces;
}

void AssignAndSplitBySpeakers(std::vector<SegmentResult>* segments,
                              const std::vector<DiarizationSegment>& turns,
                              EventEmitter* emitter) {
  if (segments == nullptr || segments->empty() || turns.empty()) return;

  LabelRenumberer labels;
  std::vector<SegmentResult> assigned;
  assigned.reserve(segments->size());
  int split_count = 0;
  for (const SegmentResult& segment : *segments) {
    if (AssignSegment(segment, turns, emitter, &labels, &assigned)) ++split_count;
  }

  *segments = std::move(assigned);
  if (emitter != nullptr && split_count > 0) {
    emitter->EmitLog("[DIARIZATION] split " + std::to_string(split_count) +
                     " ASR segment(s) across speaker boundaries");
  }
}

}  // namespace kerrow
