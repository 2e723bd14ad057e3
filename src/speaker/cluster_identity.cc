#include "speaker/cluster_identity.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>

#include "common/sample_time.h"
#include "events/number_format.h"

namespace kerrow {
namespace {

// Turn times come from the diarizer or from a user's file, so they may lie
// before the audio, past its end or be absurdly large; the saturating
// conversion and the clamp keep every index inside the audio.
size_t SampleIndexAt(double seconds, int sample_rate, size_t sample_count) {
  return static_cast<size_t>(std::min<int64_t>(
      SecondsToSamples(seconds, sample_rate, SampleRounding::kTowardZero), static_cast<int64_t>(sample_count)));
}

// max_seconds of 0 or less means no cap at all.
std::optional<size_t> SampleCap(int sample_rate, double max_seconds) {
  if (!(max_seconds > 0.0)) return std::nullopt;
  return static_cast<size_t>(std::min<int64_t>(
      SecondsToSamples(max_seconds, sample_rate, SampleRounding::kTowardZero),
      std::numeric_limits<uint32_t>::max()));
}

// Longest turns first: they carry the most reliable voice, and under a cap they
// are the ones that make it into the buffer.
std::vector<float> GatherClusterAudio(const std::vector<float>& samples, int sample_rate,
                                      std::optional<size_t> cap,
                                      const std::vector<DiarizationSegment>& turns,
                                      std::vector<size_t> turn_indices) {
  std::sort(turn_indices.begin(), turn_indices.end(), [&turns](size_t a, size_t b) {
    return turns[a].end - turns[a].start > turns[b].end - turns[b].start;
  });
  std::vector<float> gathered;
  for (size_t index : turn_indices) {
    const size_t first = SampleIndexAt(turns[index].start, sample_rate, samples.size());
    const size_t last = SampleIndexAt(turns[index].end, sample_rate, samples.size());
    if (last <= first) continue;
    gathered.insert(gathered.end(), samples.begin() + static_cast<std::ptrdiff_t>(first),
                    samples.begin() + static_cast<std::ptrdiff_t>(last));
    if (cap && gathered.size() >= *cap) {
      gathered.resize(*cap);
      break;
    }
  }
  return gathered;
}

}  // namespace

std::map<std::string, std::string> BuildClusterIdentityMap(
    const SpeakerIdentifier* identifier, const std::vector<float>& samples, int sample_rate,
    double max_seconds, const std::vector<DiarizationSegment>& turns, EventEmitter* emitter,
    std::map<std::string, float>* scores) {
  std::map<std::string, std::string> names;
  if (identifier == nullptr || !identifier->IsReady() || turns.empty()) return names;

  // An ordered map, so clusters (and their log lines) come in label order.
  std::map<std::string, std::vector<size_t>> turns_by_label;
  for (size_t i = 0; i < turns.size(); ++i) turns_by_label[turns[i].speaker].push_back(i);

  const std::optional<size_t> cap = SampleCap(sample_rate, max_seconds);
  for (const auto& [label, turn_indices] : turns_by_label) {
    const std::vector<float> audio =
        GatherClusterAudio(samples, sample_rate, cap, turns, turn_indices);
    if (audio.empty()) continue;

    float score = 0.0f;
    const std::string name = identifier->Identify(audio, sample_rate, &score);
    if (scores != nullptr) (*scores)[label] = score;
    if (emitter != nullptr) {
      emitter->EmitLog("[SPEAKER_ID] " + label + " -> " + (name.empty() ? "(unmatched)" : name) +
                       " (score=" + FormatFixed(score, 3) + ")");
    }
    // Two clusters may well map to one enrolled name; they are left as two.
    if (!name.empty()) names[label] = name;
  }
  return names;
}

void IdentifyAndRelabelSpeakers(const SpeakerIdentifier* identifier,
                                const std::vector<float>& samples, int sample_rate,
                                double max_seconds, std::vector<DiarizationSegment>* turns,
                                EventEmitter* emitter) {
  if (turns == nullptr) return;
  const std::map<std::string, std::string> names =
      BuildClusterIdentityMap(identifier, samples, sample_rate, max_seconds, *turns, emitter,
                              nullptr);
  if (names.empty()) return;
  for (DiarizationSegment& turn : *turns) {
    const auto found = names.find(turn.speaker);
    if (found != names.end()) turn.speaker = found->second;
  }
}

}  // namespace kerrow
