#ifndef KERROW_TESTS_SPEAKER_SPEAKER_FIXTURES_H_
#define KERROW_TESTS_SPEAKER_SPEAKER_FIXTURES_H_

// Recordings, models and small file builders shared by the speaker tests.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "speaker/speaker_identifier.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {

constexpr int kRate = 16000;

// Trained on espeak-ng voices; 128-dimensional, "same voice" above about 0.5.
inline std::string TrainedModel() {
  return testing::ModelPath("trained/speaker-embedding/model.onnx");
}
// Made-up weights in the same format, 80-dimensional.
inline std::string StubModel() { return testing::ModelPath("stubs/embedding/model.onnx"); }

inline std::string DialogClip(const std::string& name) {
  return testing::AudioPath("espeak-dialog/" + name);
}

// A canonical 44-byte-header mono 16-bit WAV.
inline std::string Wav16Bytes(const std::vector<float>& samples, uint32_t rate = kRate) {
  auto put32 = [](std::string* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) out->push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
  };
  auto put16 = [](std::string* out, uint16_t value) {
    out->push_back(static_cast<char>(value & 0xFF));
    out->push_back(static_cast<char>(value >> 8));
  };
  const uint32_t data_bytes = static_cast<uint32_t>(samples.size() * 2);
  std::string wav = "RIFF";
  put32(&wav, 36 + data_bytes);
  wav += "WAVEfmt ";
  put32(&wav, 16);
  put16(&wav, 1);
  put16(&wav, 1);
  put32(&wav, rate);
  put32(&wav, rate * 2);
  put16(&wav, 2);
  put16(&wav, 16);
  wav += "data";
  put32(&wav, data_bytes);
  for (float sample : samples) {
    const float clamped = sample > 0.999f ? 0.999f : (sample < -1.0f ? -1.0f : sample);
    put16(&wav, static_cast<uint16_t>(static_cast<int16_t>(clamped * 32768.0f)));
  }
  return wav;
}

inline SpeakerIdentifierOptions TrainedOptions(const std::string& enroll_db = "",
                                               float threshold = 0.5f) {
  SpeakerIdentifierOptions options;
  options.model = TrainedModel();
  options.enroll_db = enroll_db;
  options.threshold = threshold;
  return options;
}

// The embedding of a whole recording through an identifier with nobody enrolled.
inline std::vector<float> EmbeddingOf(const std::vector<float>& samples,
                                      const std::string& model = TrainedModel()) {
  SpeakerIdentifierOptions options;
  options.model = model;
  SpeakerIdentifier identifier;
  std::string error;
  EXPECT_TRUE(identifier.Init(options, &error)) << error;
  std::vector<float> embedding;
  EXPECT_TRUE(identifier.ComputeEmbedding(samples, kRate, &embedding, &error)) << error;
  return embedding;
}

inline std::vector<float> EmbeddingOfClip(const std::string& clip) {
  return EmbeddingOf(testing::LoadWavForTest(DialogClip(clip)));
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SPEAKER_SPEAKER_FIXTURES_H_
