#ifndef KERROW_SPEAKER_SPEAKER_IDENTIFIER_H_
#define KERROW_SPEAKER_SPEAKER_IDENTIFIER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kerrow {

struct EnrollEntry;

// The voiceprints of every enrolled speaker of one name, pointing into the
// entries they were gathered from.
struct NamedVoiceprints {
  std::string name;
  std::vector<const std::vector<float>*> voiceprints;
};

// The entries' voiceprints pooled by name, names in order of first appearance;
// entries without voiceprints are left out.
std::vector<NamedVoiceprints> GroupVoiceprintsByName(const std::vector<EnrollEntry>& entries);

struct SpeakerIdentifierOptions {
  std::string model;      // speaker embedding model (.onnx)
  std::string enroll_db;  // enrollment database; empty: nobody is enrolled
  int32_t num_threads = 1;
  std::string provider = "cpu";
  float threshold = 0.7f;  // cosine similarity needed for a match
};

// Computes speaker embeddings and names the enrolled speaker a stretch of audio
// belongs to. The enrolled voiceprints are read once, at Init.
// Not thread-safe: one thread at a time per identifier.
class SpeakerIdentifier {
 public:
  SpeakerIdentifier();
  ~SpeakerIdentifier();
  SpeakerIdentifier(SpeakerIdentifier&& other) noexcept;
  SpeakerIdentifier& operator=(SpeakerIdentifier&& other) noexcept;
  SpeakerIdentifier(const SpeakerIdentifier&) = delete;
  SpeakerIdentifier& operator=(const SpeakerIdentifier&) = delete;

  bool Init(const SpeakerIdentifierOptions& options, std::string* error);
  bool IsReady() const;
  int Dim() const;

  // samples: mono floats in [-1, 1] at sample_rate Hz.
  bool ComputeEmbedding(const std::vector<float>& samples, int sample_rate,
                        std::vector<float>* embedding, std::string* error) const;

  // The enrolled name, or "" when nobody is similar enough. *score receives the
  // cosine similarity to the returned name, or when nobody matched the best
  // similarity to any enrolled name (never below 0); 0 when no embedding could
  // be computed.
  std::string Identify(const std::vector<float>& samples, int sample_rate, float* score) const;

 private:
  struct Impl;
  // Registers every enrolled name of the database in the manager.
  bool LoadEnrolledSpeakers(const std::string& enroll_db, std::string* error);
  bool RegisterName(const NamedVoiceprints& speaker, std::string* error);

  std::unique_ptr<Impl> impl_;
};

}  // namespace kerrow

#endif  // KERROW_SPEAKER_SPEAKER_IDENTIFIER_H_
