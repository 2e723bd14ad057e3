#ifndef KERROW_TESTS_OFFLINE_PIPELINE_FIXTURES_H_
#define KERROW_TESTS_OFFLINE_PIPELINE_FIXTURES_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "audio/wav_reader.h"
#include "engine/offline_decoder_backend.h"
#include "engine/punc_backend.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {

constexpr int kSampleRate = 16000;

// The second-pass recognizers the tests run, loaded once per process: model
// loading dominates the run time otherwise.
inline OfflineDecoderBackend* LoadDecoder(const DecoderInitOptions& options) {
  auto* decoder = new OfflineDecoderBackend();
  std::string error;
  if (!decoder->Init(options, &error)) ADD_FAILURE() << "decoder init: " << error;
  return decoder;
}

inline OfflineDecoderBackend* TrainedSenseVoice() {
  static OfflineDecoderBackend* decoder = [] {
    DecoderInitOptions options;
    options.sense_voice_model = ModelPath("trained/sensevoice-en-char/model.onnx");
    options.tokens = ModelPath("trained/sensevoice-en-char/tokens.txt");
    options.language = "en";
    return LoadDecoder(options);
  }();
  return decoder;
}

// Ignores the audio: letters a, b, c, ... on every second 60 ms frame.
inline OfflineDecoderBackend* PatternSenseVoice() {
  static OfflineDecoderBackend* decoder = [] {
    DecoderInitOptions options;
    options.sense_voice_model = ModelPath("stubs/sensevoice-pattern/model.onnx");
    options.tokens = ModelPath("stubs/sensevoice-pattern/tokens.txt");
    return LoadDecoder(options);
  }();
  return decoder;
}

// Plays "Hello world, this is a stub café." over 3 s of audio.
inline OfflineDecoderBackend* StubWhisper() {
  static OfflineDecoderBackend* decoder = [] {
    DecoderInitOptions options;
    options.model_type = "whisper";
    options.whisper_encoder = ModelPath("stubs/whisper/encoder.onnx");
    options.whisper_decoder = ModelPath("stubs/whisper/decoder.onnx");
    options.tokens = ModelPath("stubs/whisper/tokens.txt");
    return LoadDecoder(options);
  }();
  return decoder;
}

inline PuncBackend* LoadPunc(const std::string& model) {
  auto* punc = new PuncBackend();
  PuncInitOptions options;
  options.model = model;
  std::string error;
  if (!punc->Init(options, &error)) ADD_FAILURE() << "punctuation init: " << error;
  return punc;
}

inline PuncBackend* TrainedPunc() {
  static PuncBackend* punc = LoadPunc(ModelPath("trained/punct-en/model.onnx"));
  return punc;
}

inline std::vector<float> ReadRecording(const std::string& relative) {
  std::vector<float> samples;
  std::string error;
  if (!ReadWavMono(AudioPath(relative), kSampleRate, &samples, &error)) {
    ADD_FAILURE() << "cannot read " << relative << ": " << error;
  }
  return samples;
}

inline std::string ReadTextFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

// Lowercase letters and single blanks only: what the trained recognizer can
// spell, so that its transcript and a reference compare by sound alone.
inline std::string NormalizeForCer(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (std::isalpha(c)) {
      out.push_back(static_cast<char>(std::tolower(c)));
    } else if ((std::isspace(c) || c == '.' || c == ',' || c >= 0x80) && !out.empty() &&
               out.back() != ' ') {
      out.push_back(' ');
    }
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

// CharacterErrorRate of the two texts after NormalizeForCer; 0 when nothing
// of the reference is left to compare.
inline double NormalisedCharacterErrorRate(const std::string& reference, const std::string& hypothesis) {
  const std::string ref = NormalizeForCer(reference);
  return ref.empty() ? 0.0 : CharacterErrorRate(ref, NormalizeForCer(hypothesis));
}

// One element of the "segments" array of a result record.
struct ParsedSegment {
  double start_time = 0.0;
  double end_time = 0.0;
  long start_ms = 0;
  long end_ms = 0;
  std::string text;
  std::string speaker;
};

inline std::vector<ParsedSegment> ParseSegments(const std::string& result_line) {
  static const std::regex kSegment(
      R"re(\{"start_time":([0-9.]+),"end_time":([0-9.]+),"start_ms":([0-9]+),"end_ms":([0-9]+),"text":"((?:[^"\\]|\\.)*)"(?:,"speaker":"((?:[^"\\]|\\.)*)")?\})re");
  std::vector<ParsedSegment> segments;
  for (std::sregex_iterator it(result_line.begin(), result_line.end(), kSegment), end;
       it != end; ++it) {
    ParsedSegment segment;
    segment.start_time = std::stod((*it)[1]);
    segment.end_time = std::stod((*it)[2]);
    segment.start_ms = std::stol((*it)[3]);
    segment.end_ms = std::stol((*it)[4]);
    segment.text = (*it)[5];
    segment.speaker = (*it)[6];
    segments.push_back(segment);
  }
  return segments;
}

// The "merged_text" of a result record, empty when it has none.
inline std::string MergedText(const std::string& result_line) {
  static const std::regex kMerged(R"re("merged_text":"((?:[^"\\]|\\.)*)"\}$)re");
  std::smatch match;
  return std::regex_search(result_line, match, kMerged) ? match[1].str() : std::string();
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_OFFLINE_PIPELINE_FIXTURES_H_
