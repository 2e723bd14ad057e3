// Diarization of the bundled conversations: time per minute of audio and the
// diarization error rate against their reference turn files.
//
// Each row is one backend configuration (a DiarizationInitOptions); the
// backend is built through the same factory as the engine's, so a helper
// process row differs from the in-process one only in its options.
//
//   build/bench/diarization_bench
//
// The helper row starts kerrow-diarize, so its time includes writing the WAV
// and the round trip through the pipes.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "bench_recordings.h"
#include "diarization/diarization_backend.h"
#include "diarization_error_rate.h"

namespace kerrow::bench {
namespace {

struct Conversation {
  const char* name;  // under tests/data/audio/espeak-dialog/, without extension
};

constexpr Conversation kConversations[] = {
    {"two-voices-dialog"},
    {"heldout-2voices-a"},
    {"heldout-2voices-b"},
    {"heldout-3voices-a"},
};

struct BackendRow {
  std::string name;
  DiarizationInitOptions options;  // max_speakers is set per conversation
  bool known_count = true;         // pass the reference voice count
};

std::string ModelsDir() { return KERROW_MODELS_DIR; }

BackendRow InProcessRow(bool known_count) {
  BackendRow row;
  row.name = known_count ? "sherpa-onnx, known count" : "sherpa-onnx, threshold 0.5";
  row.options.segmentation_model = ModelsDir() + "/trained/segmentation-3spk/model.onnx";
  row.options.embedding_model = ModelsDir() + "/trained/speaker-embedding/model.onnx";
  row.known_count = known_count;
  return row;
}

// The same models behind kerrow-diarize, in a directory where its model search
// finds them by name. The helper protocol carries no speaker count, so this
// row always clusters by threshold.
BackendRow HelperRow(const std::string& model_dir) {
  BackendRow row;
  row.name = "kerrow-diarize helper";
  row.options.helper_binary = KERROW_DIARIZE_BINARY;
  row.options.model = model_dir;
  row.known_count = false;
  return row;
}

// A temporary model directory of symbolic links to the bundled models.
class LinkedModelDir {
 public:
  LinkedModelDir() {
    char name[] = "/tmp/kerrow-diarize-bench-XXXXXX";
    if (::mkdtemp(name) == nullptr) return;
    path_ = name;
    Link("/trained/segmentation-3spk/model.onnx", "segmentation-3.1.onnx");
    Link("/trained/speaker-embedding/model.onnx", "wespeaker.onnx");
  }
  ~LinkedModelDir() {
    if (path_.empty()) return;
    for (const std::string& link : links_) ::unlink(link.c_str());
    ::rmdir(path_.c_str());
  }
  const std::string& path() const { return path_; }

 private:
  void Link(const std::string& model, const std::string& name) {
    const std::string link = path_ + "/" + name;
    if (::symlink((ModelsDir() + model).c_str(), link.c_str()) == 0) links_.push_back(link);
  }
  std::string path_;
  std::vector<std::string> links_;
};

std::vector<testing::LabelledSpan> AsSpans(const std::vector<DiarizationSegment>& turns) {
  std::vector<testing::LabelledSpan> spans;
  for (const auto& turn : turns) spans.push_back({turn.start, turn.end, turn.speaker});
  return spans;
}

size_t VoiceCount(const std::vector<testing::LabelledSpan>& turns) {
  std::set<std::string> voices;
  for (const auto& turn : turns) voices.insert(turn.label);
  return voices.size();
}

// Diarizes one conversation with one backend row and prints its line.
void BenchConversation(const BackendRow& row, const Conversation& conversation) {
  const std::string base = std::string("espeak-dialog/") + conversation.name;
  const std::vector<float> samples = LoadRecording(base + ".wav");
  const auto reference =
      testing::ReadRttm(std::string(KERROW_TEST_DATA_DIR) + "/audio/" + base + ".rttm");
  DiarizationInitOptions options = row.options;
  if (row.known_count) options.max_speakers = static_cast<int32_t>(VoiceCount(reference));

  std::string error;
  const auto backend = CreateDiarizationBackend(options, &error);
  if (backend == nullptr) {
    std::printf("%-28s %-20s init failed: %s\n", row.name.c_str(), conversation.name,
                error.c_str());
    return;
  }
  std::vector<DiarizationSegment> turns;
  const auto start = std::chrono::steady_clock::now();
  const bool ok = backend->Process(samples, kBenchSampleRate, &turns, &error);
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  if (!ok) {
    std::printf("%-28s %-20s process failed: %s\n", row.name.c_str(), conversation.name,
                error.c_str());
    return;
  }
  const double audio_minutes = static_cast<double>(samples.size()) / kBenchSampleRate / 60.0;
  const DiarizationErrorRate der = ScoreDiarization(reference, AsSpans(turns));
  std::set<std::string> labels;
  for (const auto& turn : turns) labels.insert(turn.speaker);
  std::printf("%-28s %-20s %7.1f %4zu/%zu %9.0f %11.0f %7.1f%% %5.1f%% %5.1f%% %5.1f%%\n",
              row.name.c_str(), conversation.name, audio_minutes * 60.0, labels.size(),
              VoiceCount(reference), ms, ms / audio_minutes, 100.0 * der.Rate(),
              100.0 * der.missed_seconds / der.reference_seconds,
              100.0 * der.false_alarm_seconds / der.reference_seconds,
              100.0 * der.confusion_seconds / der.reference_seconds);
}

void BenchRow(const BackendRow& row) {
  for (const Conversation& conversation : kConversations) BenchConversation(row, conversation);
}

}  // namespace
}  // namespace kerrow::bench

int main() {
  using kerrow::bench::BenchRow;
  using kerrow::bench::InProcessRow;
  using kerrow::bench::HelperRow;
  using kerrow::bench::LinkedModelDir;
  std::printf("%-28s %-20s %7s %6s %9s %11s %8s %6s %6s %6s\n", "backend", "conversation",
              "audio_s", "spk", "ms", "ms/min", "DER", "miss", "FA", "conf");
  BenchRow(InProcessRow(true));
  BenchRow(InProcessRow(false));
  const LinkedModelDir helper_models;
  BenchRow(HelperRow(helper_models.path()));
  return 0;
}
