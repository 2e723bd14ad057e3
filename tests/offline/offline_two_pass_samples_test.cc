// The whole-recording decode over samples the caller holds (file input) must
// emit exactly what the decode of the same audio in a capture buffer emits.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "audio/audio_buffer.h"
#include "events/event_emitter.h"
#include "offline/offline_two_pass.h"
#include "offline/pipeline_fixtures.h"
#include "support/json_fields.h"
#include "support/stdout_capture.h"
#include "support/timing_mask.h"

namespace kerrow::testing {
namespace {


std::vector<std::string> DecodeFromCaptureBuffer(const Options& options, OfflineDecoderBackend* decoder,
                                                 PuncBackend* punc, const std::vector<float>& samples) {
  EventEmitter emitter;
  AudioBuffer audio;
  audio.capture_samples = samples;
  StdoutCapture capture;
  EXPECT_TRUE(DecodeAndEmitOffline2PassFull(options, decoder, punc, nullptr, nullptr, &emitter, &audio));
  return MaskTimings(capture.Stop());
}

std::vector<std::string> DecodeFromSamples(const Options& options, OfflineDecoderBackend* decoder, PuncBackend* punc,
                                           const std::vector<float>& samples) {
  EventEmitter emitter;
  StdoutCapture capture;
  EXPECT_TRUE(DecodeAndEmitOffline2PassSamples(options, decoder, punc, nullptr, nullptr, &emitter, samples));
  return MaskTimings(capture.Stop());
}

TEST(Offline2PassSamples, WithVadEmitsWhatTheCaptureBufferDecodeEmits) {
  Options options;
  options.silero_vad_model = KERROW_VAD_MODEL;
  const std::vector<float> samples = ReadRecording("espeak/en10s.wav");
  const std::vector<std::string> expected = DecodeFromCaptureBuffer(options, TrainedSenseVoice(), TrainedPunc(), samples);
  ASSERT_GT(expected.size(), 3u);
  EXPECT_EQ(DecodeFromSamples(options, TrainedSenseVoice(), TrainedPunc(), samples), expected);
}

TEST(Offline2PassSamples, WithoutVadEmitsWhatTheCaptureBufferDecodeEmits) {
  const Options options;
  const std::vector<float> samples = ReadRecording("format-checks/3s.wav");
  const std::vector<std::string> expected = DecodeFromCaptureBuffer(options, PatternSenseVoice(), nullptr, samples);
  ASSERT_GT(expected.size(), 1u);
  EXPECT_EQ(DecodeFromSamples(options, PatternSenseVoice(), nullptr, samples), expected);
}

TEST(Offline2PassSamples, NoSamplesGiveTheEmptyResult) {
  const Options options;
  EXPECT_EQ(DecodeFromSamples(options, PatternSenseVoice(), nullptr, {}),
            DecodeFromCaptureBuffer(options, PatternSenseVoice(), nullptr, {}));
}

}  // namespace
}  // namespace kerrow::testing
