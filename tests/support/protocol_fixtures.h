#ifndef KERROW_TESTS_SUPPORT_PROTOCOL_FIXTURES_H_
#define KERROW_TESTS_SUPPORT_PROTOCOL_FIXTURES_H_

// Shared by the process-level tests: model paths, recording builders and line
// matchers that read like the protocol they check.

#include <gtest/gtest.h>

#include <cstdint>
#include <regex>
#include <string>
#include <vector>

#include "common/thread_count_cap.h"
#include "support/json_fields.h"
#include "support/kerrow_process.h"
#include "support/output_lines.h"
#include "support/test_audio.h"

namespace kerrow::testing {

inline std::string TrainedSenseVoiceModel() { return ModelPath("trained/sensevoice-en-char/model.onnx"); }
inline std::string TrainedSenseVoiceTokens() { return ModelPath("trained/sensevoice-en-char/tokens.txt"); }
inline std::string TrainedPunctuationModel() { return ModelPath("trained/punct-en/model.onnx"); }
inline std::string StubPunctuationModel() { return ModelPath("stubs/punct/model.onnx"); }
inline std::string PatternSenseVoiceModel() { return ModelPath("stubs/sensevoice-pattern/model.onnx"); }
inline std::string PatternSenseVoiceTokens() { return ModelPath("stubs/sensevoice-pattern/tokens.txt"); }
inline std::string WhisperStubEncoder() { return ModelPath("stubs/whisper/encoder.onnx"); }
inline std::string WhisperStubDecoder() { return ModelPath("stubs/whisper/decoder.onnx"); }
inline std::string WhisperStubTokens() { return ModelPath("stubs/whisper/tokens.txt"); }
inline std::string SileroVadModel() { return KERROW_VAD_MODEL; }

inline std::vector<std::string> TrainedSenseVoiceArgs() {
  return {"--second-model", TrainedSenseVoiceModel(), "--second-tokens", TrainedSenseVoiceTokens(),
          "--num-threads-second", "1"};
}

inline std::vector<std::string> Concat(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A canonical 44-byte-header WAV; the fields are parameters so that tests can
// build exactly the malformed file they describe.
inline std::string WavBytes(const std::vector<int16_t>& samples, uint32_t sample_rate = 16000,
                            uint16_t channels = 1, uint16_t format_tag = 1,
                            uint16_t bits_per_sample = 16) {
  auto put32 = [](std::string* out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out->push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
  };
  auto put16 = [](std::string* out, uint16_t v) {
    out->push_back(static_cast<char>(v & 0xFF));
    out->push_back(static_cast<char>(v >> 8));
  };
  const uint32_t data_bytes = static_cast<uint32_t>(samples.size() * 2);
  std::string out = "RIFF";
  put32(&out, 36 + data_bytes);
  out += "WAVEfmt ";
  put32(&out, 16);
  put16(&out, format_tag);
  put16(&out, channels);
  put32(&out, sample_rate);
  put32(&out, sample_rate * channels * bits_per_sample / 8);
  put16(&out, static_cast<uint16_t>(channels * bits_per_sample / 8));
  put16(&out, bits_per_sample);
  out += "data";
  put32(&out, data_bytes);
  for (int16_t s : samples) put16(&out, static_cast<uint16_t>(s));
  return out;
}

// The set-up line saying that a thread-count option asked for more threads
// than this process may use; none when the request fits. The core count comes
// from the same place as kerrow's, so the expectation holds on any machine.
inline std::vector<std::string> LoweredThreadsLines(const std::string& tag, const std::string& option,
                                                    int32_t requested) {
  const int32_t granted = CapThreadCount(requested, UsableCoreCount());
  if (granted == requested) return {};
  return {LogLine(tag + " " + option + " " + std::to_string(requested) + " lowered to " + std::to_string(granted) +
                  ", the number of cores this process may use")};
}
// The same for the second pass, whose default count (4) is the one most runs
// give; it comes first, before the second-pass model loads.
inline std::vector<std::string> LoweredSecondPassThreadsLines(int32_t requested = 4) {
  return LoweredThreadsLines("[M2]", "--num-threads-second", requested);
}

// Index of the first line at or after `from` that fully matches the regex, or -1.
inline int IndexOfMatch(const std::vector<std::string>& lines, const std::string& pattern, size_t from = 0) {
  const std::regex re(pattern);
  for (size_t i = from; i < lines.size(); ++i) {
    if (std::regex_match(lines[i], re)) return static_cast<int>(i);
  }
  return -1;
}

inline int CountMatches(const std::vector<std::string>& lines, const std::string& pattern) {
  const std::regex re(pattern);
  int count = 0;
  for (const auto& line : lines) count += std::regex_match(line, re) ? 1 : 0;
  return count;
}

inline std::string JoinLines(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& line : lines) out += line + "\n";
  return out;
}

// The result record of a whole-file decode is the only line that starts this way.
inline int IndexOfResult(const std::vector<std::string>& lines) {
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].rfind("{\"type\":\"result\"", 0) == 0) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_PROTOCOL_FIXTURES_H_
