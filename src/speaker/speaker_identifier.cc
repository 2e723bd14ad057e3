#include "speaker/speaker_identifier.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <limits>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "engine/model_file_check.h"
#include "engine/sherpa_handles.h"
#include "engine/sherpa_onnx_c_api.h"
#include "speaker/enroll_db.h"

namespace kerrow {

struct SpeakerIdentifier::Impl {
  EmbeddingExtractorHandle extractor;
  EmbeddingManagerHandle manager;
  // The extractor config points into these while Create runs.
  std::string model;
  std::string provider;
  int32_t dim = 0;
  float threshold = 0.5f;
  bool ready = false;
  uint64_t registered_names = 0;
  // The manager only answers "who, if anyone"; scores are computed here from
  // our own copy of the enrolled voiceprints.
  std::unordered_map<std::string, std::vector<std::vector<float>>> embeddings_by_name;

  // The manager was built for the extractor; release it first.
  ~Impl() {
    manager.reset();
    extractor.reset();
  }
};

namespace {

// The library is handed only files we have opened and read ourselves, so the
// host gets a precise reason for the commonest set-up mistakes.
bool CheckModelReadable(const std::string& path, std::string* error) {
  // Opening a FIFO or a device would block or stream; such paths are left to
  // CheckModelFile, which refuses anything but a regular file.
  std::error_code status_error;
  const std::filesystem::file_type type = std::filesystem::status(path, status_error).type();
  if (type != std::filesystem::file_type::regular &&
      type != std::filesystem::file_type::directory &&
      type != std::filesystem::file_type::not_found && !status_error) {
    return true;
  }
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    *error = "speaker embedding model not found or unreadable: " + path;
    return false;
  }
  const int first_byte = std::fgetc(file);
  const bool read_failed = first_byte == EOF && std::ferror(file) != 0;
  std::fclose(file);
  if (read_failed) {
    *error = "speaker embedding model is unreadable: " + path;
    return false;
  }
  if (first_byte == EOF) {
    *error = "speaker embedding model is empty: " + path;
    return false;
  }
  return true;
}

std::string LoadFailure(const std::string& path, const std::string& reason) {
  return "failed to load speaker embedding model '" + path + "': " + reason +
         " (not a valid .onnx? check it's the real model, not a git-lfs pointer or a truncated "
         "download)";
}

// The pinned library ends the whole process on a file that is not an ONNX model
// (its exception escapes the C layer), so a pointer file, a text file or another
// model family must be turned away before Create sees it.
bool CreateExtractor(const std::string& model, const std::string& provider, int32_t num_threads,
                     EmbeddingExtractorHandle* extractor, std::string* error) {
  std::string reason;
  if (!CheckModelFile(model, ModelFamily::kSpeakerEmbedding, &reason)) {
    *error = LoadFailure(model, reason);
    return false;
  }
  SherpaOnnxSpeakerEmbeddingExtractorConfig config{};
  config.model = model.c_str();
  config.num_threads = num_threads < 1 ? 1 : num_threads;
  config.debug = 0;
  config.provider = provider.c_str();
  try {
    extractor->reset(SherpaOnnxCreateSpeakerEmbeddingExtractor(&config));
  } catch (const std::exception& exception) {
    *error = LoadFailure(model, exception.what());
    return false;
  } catch (...) {
    *error = "failed to load speaker embedding model '" + model +
             "': unknown error (not a valid .onnx?)";
    return false;
  }
  if (!*extractor) {
    *error = "failed to create speaker embedding extractor from " + model;
    return false;
  }
  return true;
}

float CosineSimilarity(const std::vector<float>& a, const std::vector<float>& b) {
  double dot = 0.0;
  double norm_a = 0.0;
  double norm_b = 0.0;
  for (size_t i = 0; i < a.size(); ++i) {
    dot += static_cast<double>(a[i]) * b[i];
    norm_a += static_cast<double>(a[i]) * a[i];
    norm_b += static_cast<double>(b[i]) * b[i];
  }
  if (norm_a <= 0.0 || norm_b <= 0.0) return 0.0f;
  return static_cast<float>(dot / (std::sqrt(norm_a) * std::sqrt(norm_b)));
}

// A speaker with several voiceprints is scored against their mean, which is
// what the manager's own reference vector stands for.
float ScoreAgainst(const std::vector<std::vector<float>>& voiceprints,
                   const std::vector<float>& query) {
  std::vector<float> mean(query.size(), 0.0f);
  size_t count = 0;
  for (const std::vector<float>& voiceprint : voiceprints) {
    if (voiceprint.size() != query.size()) continue;
    for (size_t i = 0; i < mean.size(); ++i) mean[i] += voiceprint[i];
    ++count;
  }
  if (count == 0) return 0.0f;
  const float scale = 1.0f / static_cast<float>(count);
  for (float& value : mean) value *= scale;
  return CosineSimilarity(query, mean);
}

}  // namespace

// Several enrolled speakers may share a name (each registration under a name
// without an id adds one); to the host they are one person, so their
// voiceprints are pooled under that name, names in order of first appearance.
std::vector<NamedVoiceprints> GroupVoiceprintsByName(const std::vector<EnrollEntry>& entries) {
  std::vector<NamedVoiceprints> speakers;
  std::unordered_map<std::string, size_t> index_by_name;
  for (const EnrollEntry& entry : entries) {
    if (entry.samples.empty()) continue;
    const auto inserted = index_by_name.emplace(entry.name, speakers.size());
    if (inserted.second) speakers.push_back(NamedVoiceprints{entry.name, {}});
    NamedVoiceprints& speaker = speakers[inserted.first->second];
    for (const EnrollSample& sample : entry.samples) speaker.voiceprints.push_back(&sample.embedding);
  }
  return speakers;
}

SpeakerIdentifier::SpeakerIdentifier() : impl_(std::make_unique<Impl>()) {}
SpeakerIdentifier::~SpeakerIdentifier() = default;
SpeakerIdentifier::SpeakerIdentifier(SpeakerIdentifier&& other) noexcept = default;
SpeakerIdentifier& SpeakerIdentifier::operator=(SpeakerIdentifier&& other) noexcept = default;

bool SpeakerIdentifier::Init(const SpeakerIdentifierOptions& options, std::string* error) {
  std::string ignored;
  if (error == nullptr) error = &ignored;
  // A second Init starts from nothing: the old handles go with the old Impl.
  impl_ = std::make_unique<Impl>();
  Impl& impl = *impl_;

  if (options.model.empty()) {
    *error = "speaker embedding model path is empty";
    return false;
  }
  impl.model = options.model;
  impl.provider = options.provider.empty() ? "cpu" : options.provider;
  impl.threshold = options.threshold;

  if (!CheckModelReadable(impl.model, error)) return false;
  if (!CreateExtractor(impl.model, impl.provider, options.num_threads, &impl.extractor, error)) {
    return false;
  }

  impl.dim = SherpaOnnxSpeakerEmbeddingExtractorDim(impl.extractor.get());
  if (impl.dim < 1) {
    *error = "speaker embedding extractor reported invalid dim";
    return false;
  }
  impl.manager.reset(SherpaOnnxCreateSpeakerEmbeddingManager(impl.dim));
  if (!impl.manager) {
    *error = "failed to create speaker embedding manager";
    return false;
  }

  if (options.enroll_db.empty()) {
    impl.ready = true;
    return true;
  }
  return LoadEnrolledSpeakers(options.enroll_db, error);
}

bool SpeakerIdentifier::LoadEnrolledSpeakers(const std::string& enroll_db, std::string* error) {
  Impl& impl = *impl_;
  int db_dim = 0;
  std::vector<EnrollEntry> entries;
  std::string db_error;
  if (!LoadEnrollDb(enroll_db, &db_dim, &entries, &db_error)) {
    *error = "failed to load enroll DB: " + db_error;
    return false;
  }
  if (!entries.empty() && db_dim != impl.dim) {
    *error = "enroll DB dim (" + std::to_string(db_dim) + ") != model dim (" +
             std::to_string(impl.dim) + "); rebuild enrollment with the same model";
    return false;
  }

  for (const EnrollEntry& entry : entries) {
    for (const EnrollSample& sample : entry.samples) {
      if (sample.embedding.size() != static_cast<size_t>(impl.dim)) {
        *error = "enroll DB entry '" + entry.name + "' has a wrong-length embedding";
        return false;
      }
    }
  }
  for (const NamedVoiceprints& speaker : GroupVoiceprintsByName(entries)) {
    if (!RegisterName(speaker, error)) return false;
  }
  impl.ready = true;
  return true;
}

// The manager keys speakers by name and refuses a name it already holds, so a
// name is registered once, with every voiceprint it has.
bool SpeakerIdentifier::RegisterName(const NamedVoiceprints& speaker, std::string* error) {
  Impl& impl = *impl_;
  std::vector<float> flattened;
  flattened.reserve(speaker.voiceprints.size() * static_cast<size_t>(impl.dim));
  for (const std::vector<float>* voiceprint : speaker.voiceprints) {
    flattened.insert(flattened.end(), voiceprint->begin(), voiceprint->end());
  }
  const int32_t added = SherpaOnnxSpeakerEmbeddingManagerAddListFlattened(
      impl.manager.get(), speaker.name.c_str(), flattened.data(),
      static_cast<int32_t>(speaker.voiceprints.size()));
  if (added != 1) {
    *error = "failed to register enrolled speaker '" + speaker.name + "'";
    return false;
  }
  std::vector<std::vector<float>>& copies = impl.embeddings_by_name[speaker.name];
  for (const std::vector<float>* voiceprint : speaker.voiceprints) copies.push_back(*voiceprint);
  ++impl.registered_names;
  return true;
}

bool SpeakerIdentifier::IsReady() const { return impl_ != nullptr && impl_->ready; }

int SpeakerIdentifier::Dim() const { return impl_ != nullptr ? impl_->dim : 0; }

bool SpeakerIdentifier::ComputeEmbedding(const std::vector<float>& samples, int sample_rate,
                                         std::vector<float>* embedding,
                                         std::string* error) const {
  std::string ignored;
  if (error == nullptr) error = &ignored;
  if (embedding == nullptr) {
    *error = "embedding out is null";
    return false;
  }
  if (impl_ == nullptr || !impl_->extractor) {
    *error = "speaker identifier not initialized";
    return false;
  }
  if (samples.empty()) {
    *error = "empty audio for embedding";
    return false;
  }
  const SherpaOnnxSpeakerEmbeddingExtractor* extractor = impl_->extractor.get();
  OnlineStreamHandle stream(SherpaOnnxSpeakerEmbeddingExtractorCreateStream(extractor));
  if (!stream) {
    *error = "failed to create embedding stream";
    return false;
  }
  const size_t count = std::min<size_t>(samples.size(), std::numeric_limits<int32_t>::max());
  SherpaOnnxOnlineStreamAcceptWaveform(stream.get(), sample_rate, samples.data(),
                                       static_cast<int32_t>(count));
  SherpaOnnxOnlineStreamInputFinished(stream.get());
  if (SherpaOnnxSpeakerEmbeddingExtractorIsReady(extractor, stream.get()) != 1) {
    *error = "not enough audio to compute a speaker embedding";
    return false;
  }
  EmbeddingHandle computed(
      SherpaOnnxSpeakerEmbeddingExtractorComputeEmbedding(extractor, stream.get()));
  if (!computed) {
    *error = "embedding computation failed";
    return false;
  }
  embedding->assign(computed.get(), computed.get() + impl_->dim);
  // Audio holding NaN or infinite samples gives such an embedding; it matches
  // nobody and must never be enrolled.
  if (!std::all_of(embedding->begin(), embedding->end(), [](float v) { return std::isfinite(v); })) {
    embedding->clear();
    *error = "speaker embedding is not finite (the audio holds samples that are not numbers)";
    return false;
  }
  return true;
}

std::string SpeakerIdentifier::Identify(const std::vector<float>& samples, int sample_rate,
                                        float* score) const {
  if (score != nullptr) *score = 0.0f;
  if (impl_ == nullptr || !impl_->manager || impl_->registered_names == 0) return "";

  std::vector<float> query;
  if (!ComputeEmbedding(samples, sample_rate, &query, nullptr)) return "";

  SpeakerSearchResultHandle match(SherpaOnnxSpeakerEmbeddingManagerSearch(impl_->manager.get(),
                                                                   query.data(),
                                                                   impl_->threshold));
  if (!match) {
    // Even without a match the host learns how close the nearest speaker came.
    if (score != nullptr) {
      float best = 0.0f;
      for (const auto& [name, voiceprints] : impl_->embeddings_by_name) {
        best = std::max(best, ScoreAgainst(voiceprints, query));
      }
      *score = best;
    }
    return "";
  }
  std::string name = match.get();
  match.reset();
  if (score != nullptr) {
    const auto found = impl_->embeddings_by_name.find(name);
    *score = found != impl_->embeddings_by_name.end() ? ScoreAgainst(found->second, query) : 0.0f;
  }
  return name;
}

}  // namespace kerrow
