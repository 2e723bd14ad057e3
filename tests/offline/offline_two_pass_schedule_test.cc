// The whole-recording decode runs its VAD on a thread of its own while the
// groups found so far are decoded. The event stream must stay exactly what
// the VAD-first order writes: the same lines in the same order, the same
// result record, only measured milliseconds differing.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "diarization/diarization_backend.h"
#include "engine/offline_decoder_backend.h"
#include "events/event_emitter.h"
#include "offline/offline_two_pass.h"
#include "offline/pipeline_fixtures.h"
#include "support/stdout_capture.h"
#include "support/timing_mask.h"

namespace kerrow::testing {
namespace {


struct Decoded {
  bool ok = false;
  std::vector<std::string> lines;  // timings masked
};

struct DecodeSetup {
  Options options;
  OfflineDecoderBackend* decoder = nullptr;
  PuncBackend* punc = nullptr;
  DiarizationBackend* diarization = nullptr;
  Offline2PassSchedule schedule;
};

Decoded Run(const DecodeSetup& setup, const std::vector<float>& samples, bool vad_alongside_decode) {
  Offline2PassSchedule schedule = setup.schedule;
  schedule.vad_alongside_decode = vad_alongside_decode;
  EventEmitter emitter;
  Decoded decoded;
  StdoutCapture capture;
  decoded.ok = DecodeAndEmitOffline2PassSamples(setup.options, setup.decoder, setup.punc,
                                                setup.diarization, nullptr, &emitter, samples,
                                                schedule);
  decoded.lines = MaskTimings(capture.Stop());
  return decoded;
}

// Decodes the recording both ways; both must succeed or fail alike and write
// the same lines. Returns the lines of the VAD-first order.
std::vector<std::string> ExpectSameStream(const DecodeSetup& setup, const std::string& recording) {
  const std::vector<float> samples = ReadRecording(recording);
  const Decoded vad_first = Run(setup, samples, /*vad_alongside_decode=*/false);
  const Decoded alongside = Run(setup, samples, /*vad_alongside_decode=*/true);
  EXPECT_EQ(alongside.ok, vad_first.ok) << recording;
  EXPECT_EQ(alongside.lines, vad_first.lines) << recording;
  return vad_first.lines;
}

bool HasLine(const std::vector<std::string>& lines, const std::string& needle) {
  for (const std::string& line : lines) {
    if (line.find(needle) != std::string::npos) return true;
  }
  return false;
}

DecodeSetup TrainedWithVad() {
  DecodeSetup setup;
  setup.options.silero_vad_model = KERROW_VAD_MODEL;
  setup.decoder = TrainedSenseVoice();
  setup.punc = TrainedPunc();
  return setup;
}

TEST(Offline2PassSchedule, WithVadEveryBundledEnglishRecordingGivesTheSameStream) {
  for (const std::string recording :
       {"espeak/en10s.wav", "espeak/en_short.wav", "espeak/apostrophes.wav",
        "espeak-dialog/two-voices-dialog.wav", "format-checks/two_voices.wav",
        "format-checks/sil.wav", "pyannote-sample/sample.wav"}) {
    const std::vector<std::string> lines = ExpectSameStream(TrainedWithVad(), recording);
    EXPECT_TRUE(HasLine(lines, R"({"type":"result")")) << recording;
    EXPECT_TRUE(HasLine(lines, "[OFFLINE2PASS][CUT]")) << recording;
  }
}

TEST(Offline2PassSchedule, SilenceAfterTheLastSpeechKeepsTheTailLineFirst) {
  // en10s ends in silence the VAD closes no segment for, so the tail line
  // must come before group lines decoded long before the VAD reached it.
  const std::vector<std::string> lines = ExpectSameStream(TrainedWithVad(), "espeak/en10s.wav");
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), R"({"message":"offline_2pass tail compensation enabled","type":"log"})");
}

TEST(Offline2PassSchedule, WithoutVadTheChunkDecodeGivesTheSameStream) {
  DecodeSetup setup;
  setup.decoder = PatternSenseVoice();
  const std::vector<std::string> lines = ExpectSameStream(setup, "format-checks/3s.wav");
  EXPECT_TRUE(HasLine(lines, R"({"type":"result")"));
  EXPECT_FALSE(HasLine(lines, "[OFFLINE2PASS]"));
}

TEST(Offline2PassSchedule, WithDiarizationGivesTheSameStream) {
  DiarizationInitOptions diarization_options;
  diarization_options.segmentation_model = ModelPath("trained/segmentation-3spk/model.onnx");
  diarization_options.embedding_model = ModelPath("trained/speaker-embedding/model.onnx");
  std::string error;
  const std::unique_ptr<DiarizationBackend> diarization =
      CreateDiarizationBackend(diarization_options, &error);
  ASSERT_NE(diarization, nullptr) << error;

  DecodeSetup setup = TrainedWithVad();
  setup.options.diarization = true;
  setup.diarization = diarization.get();
  const std::vector<std::string> lines =
      ExpectSameStream(setup, "espeak-dialog/two-voices-dialog.wav");
  EXPECT_TRUE(HasLine(lines, "[DIARIZATION][RAW] total_segments="));
  EXPECT_TRUE(HasLine(lines, R"("speaker":"SPEAKER_)"));
}

// Decodes with the recognizer, except that the decode numbered fail_at
// (from 0) fails; *calls receives the number of decodes asked for.
Decoded RunFailingAt(DecodeSetup setup, const std::vector<float>& samples, int fail_at,
                     bool vad_alongside_decode, int* calls) {
  auto count = std::make_shared<int>(0);
  setup.schedule.decode = [fail_at, count](const std::vector<float>& audio, std::string* text,
                                           std::string* error) {
    if ((*count)++ == fail_at) {
      *error = "injected failure";
      return false;
    }
    return TrainedSenseVoice()->Decode(audio, text, error);
  };
  const Decoded decoded = Run(setup, samples, vad_alongside_decode);
  *calls = *count;
  return decoded;
}

TEST(Offline2PassSchedule, DecodeFailingInTheMiddleIsReportedAsBefore) {
  const std::vector<float> samples = ReadRecording("espeak-dialog/two-voices-dialog.wav");
  int calls_vad_first = 0;
  const Decoded vad_first = RunFailingAt(TrainedWithVad(), samples, 2, false, &calls_vad_first);
  int calls_alongside = 0;
  const Decoded alongside = RunFailingAt(TrainedWithVad(), samples, 2, true, &calls_alongside);

  EXPECT_FALSE(vad_first.ok);
  EXPECT_FALSE(alongside.ok);
  EXPECT_EQ(alongside.lines, vad_first.lines);
  // Nothing is decoded past the failing piece, and nothing is written after
  // its failure line.
  EXPECT_EQ(calls_vad_first, 3);
  EXPECT_EQ(calls_alongside, 3);
  ASSERT_FALSE(vad_first.lines.empty());
  EXPECT_TRUE(HasLine(vad_first.lines, "[TIMING][ASR_DECODE] group_idx=1 "));
  EXPECT_EQ(vad_first.lines.back(),
            R"({"message":"offline_2pass VAD decode failed: injected failure","type":"log"})");
}

TEST(Offline2PassSchedule, DecodeFailingWithoutVadIsReportedAsBefore) {
  const std::vector<float> samples = ReadRecording("espeak/en10s.wav");
  DecodeSetup setup;
  setup.decoder = TrainedSenseVoice();
  int calls = 0;
  const Decoded vad_first = RunFailingAt(setup, samples, 1, false, &calls);
  const Decoded alongside = RunFailingAt(setup, samples, 1, true, &calls);
  EXPECT_FALSE(alongside.ok);
  EXPECT_EQ(alongside.lines, vad_first.lines);
  EXPECT_EQ(alongside.lines, std::vector<std::string>{
                                 R"({"message":"offline_2pass decode failed: injected failure","type":"error"})"});
}

TEST(Offline2PassSchedule, DecoderThatIsNotLoadedFailsAsBefore) {
  OfflineDecoderBackend not_loaded;
  DecodeSetup setup = TrainedWithVad();
  setup.decoder = &not_loaded;
  const std::vector<std::string> lines = ExpectSameStream(setup, "espeak/en_short.wav");
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(),
            R"({"message":"offline_2pass VAD decode failed: Decoder is not initialized","type":"log"})");
}

}  // namespace
}  // namespace kerrow::testing
