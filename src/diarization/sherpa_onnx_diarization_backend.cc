#include "diarization/sherpa_onnx_diarization_backend.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include "engine/library_call.h"
#include "engine/model_file_check.h"
#include "engine/sherpa_handles.h"
#include "engine/sherpa_onnx_c_api.h"
#include "common/ascii_case.h"

namespace kerrow {

namespace {

namespace fs = std::filesystem;

// The cosine-distance cut used when the number of speakers is unknown. It
// suits real embedding models; callers who know the count pass it instead.
constexpr float kClusteringThreshold = 0.5f;

// Embedding model names tried in a model directory, most wanted first.
struct NamedModel {
  const char* preferred_name;
  const char* hint;
};
constexpr NamedModel kEmbeddingCandidates[] = {
    {"wenet-campplus.onnx", "campplus"},
    {"embedding.onnx", "embed"},
    {"resnet34.onnx", "resnet"},
    {"wespeaker.onnx", "wespeaker"},
};

bool IsRegularFile(const fs::path& path) {
  std::error_code ec;
  return fs::is_regular_file(path, ec);  // follows symbolic links
}

bool EndsWithOnnx(const std::string& name) {
  static const std::string kSuffix = ".onnx";
  return name.size() >= kSuffix.size() &&
         name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) ==
             0;
}

std::string FindEmbeddingModel(const std::string& dir) {
  for (const NamedModel& candidate : kEmbeddingCandidates) {
    std::string path =
        ResolveModelFile(dir, candidate.preferred_name, candidate.hint);
    if (!path.empty()) return path;
  }
  return "";
}

int32_t ClusterCount(const DiarizationInitOptions& options) {
  if (options.max_speakers >= 1) return options.max_speakers;
  if (options.min_speakers >= 1) return options.min_speakers;
  return -1;  // let the threshold decide
}

// Fills in model paths from the directory where the explicit ones are
// missing. Returns false with the message naming what was not found.
bool ResolveModelPaths(DiarizationInitOptions* options, std::string* error) {
  const std::string& dir = options->model;
  if (options->segmentation_model.empty() && !dir.empty()) {
    options->segmentation_model =
        ResolveModelFile(dir, "segmentation-3.1.onnx", "segment");
  }
  if (options->embedding_model.empty() && !dir.empty()) {
    options->embedding_model = FindEmbeddingModel(dir);
  }
  if (options->segmentation_model.empty()) {
    SetError(error, "Diarization segmentation model not found in " + dir);
    return false;
  }
  if (options->embedding_model.empty()) {
    SetError(error, "Diarization embedding model not found in " + dir);
    return false;
  }
  return true;
}

// The library aborts on a segmentation file that is not ONNX and exits on one
// without the pyannote metadata; the embedding model has its own fatal keys.
// So whatever the paths came from, both are checked before the library sees
// them.
bool CheckModels(const DiarizationInitOptions& options, std::string* error) {
  return CheckModelFile(options.segmentation_model, ModelFamily::kSegmentation,
                        error) &&
         CheckModelFile(options.embedding_model,
                        ModelFamily::kSpeakerEmbedding, error);
}

SherpaOnnxOfflineSpeakerDiarizationConfig MakeConfig(
    const DiarizationInitOptions& options) {
  const int32_t threads = std::max<int32_t>(options.num_threads, 1);
  SherpaOnnxOfflineSpeakerDiarizationConfig config{};
  config.segmentation.pyannote.model = options.segmentation_model.c_str();
  config.segmentation.num_threads = threads;
  config.segmentation.debug = 0;
  config.segmentation.provider = options.provider.c_str();
  config.embedding.model = options.embedding_model.c_str();
  config.embedding.num_threads = threads;
  config.embedding.debug = 0;
  config.embedding.provider = options.provider.c_str();
  config.clustering.num_clusters = ClusterCount(options);
  config.clustering.threshold = kClusteringThreshold;
  config.min_duration_on = options.min_duration_on;
  config.min_duration_off = options.min_duration_off;
  return config;
}

std::string SpeakerLabel(size_t index) {
  char label[32];
  std::snprintf(label, sizeof(label), "SPEAKER_%02zu", index);
  return label;
}

// Runs the library over the samples and collects its turns. On failure out
// is left empty.
bool DiarizeSamples(const SherpaOnnxOfflineSpeakerDiarization* diarizer,
                    const std::vector<float>& samples,
                    std::vector<DiarizationSegment>* out, std::string* error) {
  DiarizationResultHandle result;
  const char* const kProcess = "SherpaOnnxOfflineSpeakerDiarizationProcess()";
  if (!CallLibrary(
          kProcess,
          [&] {
            result.reset(SherpaOnnxOfflineSpeakerDiarizationProcess(
                diarizer, samples.data(),
                static_cast<int32_t>(samples.size())));
          },
          error)) {
    return false;
  }
  if (!result) {
    SetError(error, std::string(kProcess) + " failed");
    return false;
  }
  // Sorting copies the segments into a new array, which may fail too.
  const bool sorted = CallLibrary(
      "SherpaOnnxOfflineSpeakerDiarizationResultSortByStartTime()",
      [&] {
        const int32_t count =
            SherpaOnnxOfflineSpeakerDiarizationResultGetNumSegments(
                result.get());
        const DiarizationSegmentsHandle segments(
            SherpaOnnxOfflineSpeakerDiarizationResultSortByStartTime(
                result.get()));
        if (segments) AppendLabelledTurns(segments.get(), count, out);
      },
      error);
  if (!sorted) out->clear();
  return sorted;
}

}  // namespace

void AppendLabelledTurns(
    const SherpaOnnxOfflineSpeakerDiarizationSegment* segments, int32_t count,
    std::vector<DiarizationSegment>* out) {
  std::map<int32_t, size_t> renumbered;
  for (int32_t i = 0; i < count; ++i) {
    const SherpaOnnxOfflineSpeakerDiarizationSegment& segment = segments[i];
    if (!(segment.end > segment.start)) continue;
    const auto found =
        renumbered.emplace(segment.speaker, renumbered.size()).first;
    out->push_back({static_cast<double>(segment.start),
                    static_cast<double>(segment.end),
                    SpeakerLabel(found->second)});
  }
}

std::string ResolveModelFile(const std::string& dir,
                             const std::string& preferred_name,
                             const std::string& hint) {
  if (dir.empty()) return "";
  const fs::path preferred = fs::path(dir) / preferred_name;
  if (IsRegularFile(preferred)) return preferred.string();

  const std::string lower_hint = ToLowerAscii(hint);
  std::error_code ec;
  fs::directory_iterator entries(dir, ec);
  if (ec) return "";
  for (const fs::directory_iterator end; entries != end;
       entries.increment(ec)) {
    if (ec) return "";
    const std::string name = entries->path().filename().string();
    if (!EndsWithOnnx(name)) continue;
    if (ToLowerAscii(name).find(lower_hint) == std::string::npos) continue;
    if (IsRegularFile(entries->path())) return entries->path().string();
  }
  return "";
}

struct SherpaOnnxDiarizationBackend::Impl {
  DiarizationInitOptions options;
  SpeakerDiarizationHandle diarizer;
};

SherpaOnnxDiarizationBackend::SherpaOnnxDiarizationBackend() = default;
SherpaOnnxDiarizationBackend::~SherpaOnnxDiarizationBackend() = default;

bool SherpaOnnxDiarizationBackend::Init(const DiarizationInitOptions& options,
                                        std::string* error) {
  impl_.reset();
  impl_ = std::make_unique<Impl>();
  if (options.model.empty() && options.segmentation_model.empty() &&
      options.embedding_model.empty()) {
    SetError(error, "Diarization model path is empty");
    return false;
  }
  impl_->options = options;
  if (!ResolveModelPaths(&impl_->options, error)) return false;
  if (!CheckModels(impl_->options, error)) return false;

  const SherpaOnnxOfflineSpeakerDiarizationConfig config =
      MakeConfig(impl_->options);
  const char* const kCreate = "SherpaOnnxCreateOfflineSpeakerDiarization()";
  if (!CallLibrary(
          kCreate,
          [&] {
            impl_->diarizer.reset(
                SherpaOnnxCreateOfflineSpeakerDiarization(&config));
          },
          error)) {
    return false;
  }
  if (!impl_->diarizer) {
    SetError(error, std::string(kCreate) + " failed");
    return false;
  }
  return true;
}

bool SherpaOnnxDiarizationBackend::IsReady() const {
  return impl_ != nullptr && impl_->diarizer != nullptr;
}

bool SherpaOnnxDiarizationBackend::Process(
    const std::vector<float>& samples, int sample_rate,
    std::vector<DiarizationSegment>* out, std::string* error) {
  if (out == nullptr) {
    SetError(error, "out is null");
    return false;
  }
  out->clear();
  if (!IsReady()) {
    SetError(error, "Diarization is not initialized");
    return false;
  }
  if (samples.empty()) return true;
  // The library counts samples in an int32.
  if (samples.size() > static_cast<size_t>(INT32_MAX)) {
    SetError(error, "Diarization input is too long");
    return false;
  }
  const SherpaOnnxOfflineSpeakerDiarization* diarizer = impl_->diarizer.get();
  int32_t expected = 0;
  if (!CallLibrary(
          "SherpaOnnxOfflineSpeakerDiarizationGetSampleRate()",
          [&] {
            expected = SherpaOnnxOfflineSpeakerDiarizationGetSampleRate(diarizer);
          },
          error)) {
    return false;
  }
  if (sample_rate != expected) {
    SetError(error, "Diarization sample rate mismatch: expected " +
                        std::to_string(expected) + ", got " +
                        std::to_string(sample_rate));
    return false;
  }

  return DiarizeSamples(diarizer, samples, out, error);
}

std::unique_ptr<DiarizationBackend> MakeSherpaOnnxDiarizationBackend() {
  return std::make_unique<SherpaOnnxDiarizationBackend>();
}

}  // namespace kerrow
