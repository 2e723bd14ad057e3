// kerrow-diarize end to end: the real helper executable, started by the real
// helper-process backend or run directly as the engine runs it, diarizing the
// bundled conversations with the trained models.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "audio/wav_writer.h"
#include "diarization/fluid_audio_subprocess_backend.h"
#include "diarization/helper_line_protocol.h"
#include "support/rttm_turns.h"
#include "support/kerrow_process.h"
#include "support/diarization_model_dir.h"

namespace kerrow::testing {
namespace {


DiarizationInitOptions HelperOptions(const std::string& model_dir) {
  DiarizationInitOptions options;
  options.helper_binary = KERROW_DIARIZE_BINARY;
  options.model = model_dir;
  return options;
}

std::vector<LabelledSpan> AsSpans(const std::vector<DiarizationSegment>& turns) {
  std::vector<LabelledSpan> spans;
  for (const DiarizationSegment& turn : turns) spans.push_back({turn.start, turn.end, turn.speaker});
  return spans;
}

TEST(KerrowDiarize, LabelsEachTurnOfATwoVoiceDialogThroughTheHelperBackend) {
  DiarizationModelDir models;
  FluidAudioSubprocessBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(HelperOptions(models.path()), &error)) << error;

  std::vector<DiarizationSegment> turns;
  ASSERT_TRUE(backend.Process(LoadWavForTest(AudioPath("espeak-dialog/two-voices-dialog.wav")), 16000,
                              &turns, &error))
      << error;
  const auto agreement =
      ScoreLabelAgreement(ReadRttm(AudioPath("espeak-dialog/two-voices-dialog.rttm")), AsSpans(turns));
  EXPECT_TRUE(agreement.voices_get_distinct_labels);
  EXPECT_GE(agreement.worst_turn_share, 0.8);
  EXPECT_EQ(agreement.label_of_voice.at("voiceA"), "SPEAKER_00");
  EXPECT_EQ(agreement.label_of_voice.at("voiceB"), "SPEAKER_01");
  EXPECT_TRUE(backend.IsReady());
}

TEST(KerrowDiarize, ServesOneRequestAfterAnother) {
  DiarizationModelDir models;
  FluidAudioSubprocessBackend backend;
  ASSERT_TRUE(backend.Init(HelperOptions(models.path()), nullptr));
  const std::vector<float> audio = LoadWavForTest(AudioPath("espeak-dialog/a_test.wav"));
  std::vector<DiarizationSegment> first;
  std::vector<DiarizationSegment> second;
  ASSERT_TRUE(backend.Process(audio, 16000, &first, nullptr));
  ASSERT_TRUE(backend.Process(audio, 16000, &second, nullptr));
  ASSERT_FALSE(first.empty());
  ASSERT_EQ(first.size(), second.size());
  for (const DiarizationSegment& turn : first) EXPECT_EQ(turn.speaker, "SPEAKER_00");
}

TEST(KerrowDiarize, AnUnknownBackendEndsTheHelperBeforeReady) {
  DiarizationModelDir models;
  DiarizationInitOptions options = HelperOptions(models.path());
  options.backend = "sortformer";
  FluidAudioSubprocessBackend backend;
  std::string error;
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(backend.Init(options, &error));
  const std::string helper_stderr = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(error, "diarization helper exited before READY");
  EXPECT_EQ(helper_stderr.rfind("kerrow-diarize: unknown backend: sortformer (available: offline)\n", 0), 0u)
      << helper_stderr;
}

TEST(KerrowDiarize, ADirectoryWithoutModelsEndsTheHelperBeforeReady) {
  TempDir empty;
  FluidAudioSubprocessBackend backend;
  std::string error;
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(backend.Init(HelperOptions(empty.path()), &error));
  const std::string helper_stderr = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(error, "diarization helper exited before READY");
  EXPECT_EQ(helper_stderr, "kerrow-diarize: cannot load the models in " + empty.path() +
                               ": Diarization segmentation model not found in " + empty.path() + "\n");
}

TEST(KerrowDiarize, AnswersRequestsItCannotServeWithDoneAndExitsWhenInputEnds) {
  DiarizationModelDir models;
  TempDir scratch;
  const std::string missing = scratch.File("missing.wav");
  const testing::ProcessResult result =
      RunKerrow({"--resident", "--model", models.path()},
                "not json\n\n{\"input\":\"" + missing + "\"}\n", -1, "", std::chrono::seconds(60), "",
                KERROW_DIARIZE_BINARY);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines, (std::vector<std::string>{"READY", "DONE", "DONE"}));
  EXPECT_EQ(result.stderr_text,
            "kerrow-diarize: bad request: request is not a JSON object\n"
            "kerrow-diarize: cannot read " + missing + ": WAV file not found: " + missing + "\n");
}

// Run as the engine runs it, on a real request: standard output holds READY,
// then nothing but turn lines in the helper's own format, then DONE, however
// much the libraries underneath print.
TEST(KerrowDiarize, StandardOutputCarriesOnlyProtocolLines) {
  DiarizationModelDir models;
  TempDir scratch;
  const std::string wav = scratch.File("dialog.wav");
  ASSERT_TRUE(WriteWavFloat32(wav, LoadWavForTest(AudioPath("espeak-dialog/two-voices-dialog.wav")),
                              16000, nullptr));
  const testing::ProcessResult result =
      RunKerrow({"--resident", "--model", models.path()}, FormatHelperRequest(wav) + "\n", -1, "",
                std::chrono::seconds(120), "", KERROW_DIARIZE_BINARY);
  EXPECT_EQ(result.exit_status, 0) << result.stderr_text;
  const std::vector<std::string>& lines = result.stdout_lines;
  ASSERT_GE(lines.size(), 3u) << result.stderr_text;
  EXPECT_EQ(lines.front(), "READY");
  EXPECT_EQ(lines.back(), "DONE");
  std::vector<DiarizationSegment> turns;
  for (size_t i = 1; i + 1 < lines.size(); ++i) {
    DiarizationSegment turn;
    ASSERT_TRUE(ParseHelperTurn(lines[i], &turn)) << lines[i];
    EXPECT_EQ(FormatHelperTurn(turn), lines[i]);
    turns.push_back(turn);
  }
  const auto agreement =
      ScoreLabelAgreement(ReadRttm(AudioPath("espeak-dialog/two-voices-dialog.rttm")), AsSpans(turns));
  EXPECT_TRUE(agreement.voices_get_distinct_labels);
  EXPECT_GE(agreement.worst_turn_share, 0.8);
}

TEST(KerrowDiarize, RefusesACommandLineWithoutResidentBeforeLoadingAnything) {
  const testing::ProcessResult result =
      RunKerrow({"--model", "/nowhere"}, "", -1, "", std::chrono::seconds(30), "", KERROW_DIARIZE_BINARY);
  EXPECT_EQ(result.exit_status, 2);
  EXPECT_TRUE(result.stdout_lines.empty());
  EXPECT_EQ(result.stderr_text.rfind("kerrow-diarize: --resident is required\nusage: kerrow-diarize", 0), 0u)
      << result.stderr_text;
}

}  // namespace
}  // namespace kerrow::testing
