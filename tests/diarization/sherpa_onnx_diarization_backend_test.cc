#include "diarization/sherpa_onnx_diarization_backend.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "support/rttm_turns.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


const std::string kSegmentation = ModelPath("trained/segmentation-3spk/model.onnx");
const std::string kEmbedding = ModelPath("trained/speaker-embedding/model.onnx");
const std::string kStubSegmentation = ModelPath("stubs/segmentation/model.onnx");

void Link(const std::string& target, const std::string& link) {
  ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0) << link;
}

DiarizationInitOptions ExplicitModels() {
  DiarizationInitOptions options;
  options.segmentation_model = kSegmentation;
  options.embedding_model = kEmbedding;
  return options;
}

std::string InitError(const DiarizationInitOptions& options) {
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(options, &error));
  EXPECT_FALSE(backend.IsReady());
  return error;
}

std::vector<DiarizationSegment> Diarize(const DiarizationInitOptions& options,
                                        const std::string& wav) {
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  EXPECT_TRUE(backend.Init(options, &error)) << error;
  std::vector<DiarizationSegment> turns;
  EXPECT_TRUE(backend.Process(LoadWavForTest(AudioPath(wav)), 16000, &turns, &error)) << error;
  return turns;
}

std::set<std::string> Labels(const std::vector<DiarizationSegment>& turns) {
  std::set<std::string> labels;
  for (const DiarizationSegment& turn : turns) labels.insert(turn.speaker);
  return labels;
}

std::vector<LabelledSpan> AsSpans(const std::vector<DiarizationSegment>& turns) {
  std::vector<LabelledSpan> spans;
  for (const DiarizationSegment& turn : turns) spans.push_back({turn.start, turn.end, turn.speaker});
  return spans;
}

// --- the model directory search ---

TEST(ResolveModelFile, PreferredNameWins) {
  TempDir dir;
  WriteFileBytes(dir.File("a-segment.onnx"), "x");
  WriteFileBytes(dir.File("segmentation-3.1.onnx"), "x");
  EXPECT_EQ(ResolveModelFile(dir.path(), "segmentation-3.1.onnx", "segment"),
            dir.File("segmentation-3.1.onnx"));
}

TEST(ResolveModelFile, HintMatchesWithoutRegardToCase) {
  TempDir dir;
  WriteFileBytes(dir.File("my-Segment-model.onnx"), "x");
  WriteFileBytes(dir.File("CAMPPLUS.onnx"), "x");
  EXPECT_EQ(ResolveModelFile(dir.path(), "segmentation-3.1.onnx", "segment"),
            dir.File("my-Segment-model.onnx"));
  EXPECT_EQ(ResolveModelFile(dir.path(), "wenet-campplus.onnx", "campplus"),
            dir.File("CAMPPLUS.onnx"));
}

TEST(ResolveModelFile, SuffixIsCaseSensitiveAndOnlyRegularFilesCount) {
  TempDir dir;
  WriteFileBytes(dir.File("segment.ONNX"), "x");
  WriteFileBytes(dir.File("segment.onnx.txt"), "x");
  std::filesystem::create_directory(dir.File("segment-dir.onnx"));
  Link(dir.File("missing-target"), dir.File("dangling-segment.onnx"));
  EXPECT_EQ(ResolveModelFile(dir.path(), "segmentation-3.1.onnx", "segment"), "");
}

TEST(ResolveModelFile, SymbolicLinkCountsByItsTarget) {
  TempDir dir;
  Link(kSegmentation, dir.File("linked-segmentation.onnx"));
  EXPECT_EQ(ResolveModelFile(dir.path(), "segmentation-3.1.onnx", "segment"),
            dir.File("linked-segmentation.onnx"));
}

TEST(ResolveModelFile, PreferredNameThatIsADirectoryFallsBackToTheHint) {
  TempDir dir;
  std::filesystem::create_directory(dir.File("segmentation-3.1.onnx"));
  WriteFileBytes(dir.File("other-segmentation.onnx"), "x");
  EXPECT_EQ(ResolveModelFile(dir.path(), "segmentation-3.1.onnx", "segment"),
            dir.File("other-segmentation.onnx"));
}

TEST(ResolveModelFile, EmptyOrUnreadableDirectoryGivesNothing) {
  TempDir dir;
  EXPECT_EQ(ResolveModelFile("", "segmentation-3.1.onnx", "segment"), "");
  EXPECT_EQ(ResolveModelFile(dir.File("absent"), "segmentation-3.1.onnx", "segment"), "");
  EXPECT_EQ(ResolveModelFile(dir.path(), "segmentation-3.1.onnx", "segment"), "");
}

TEST(SherpaOnnxDiarizationInit, DirectoryWithPreferredNamesResolvesBoth) {
  TempDir dir;
  Link(kSegmentation, dir.File("segmentation-3.1.onnx"));
  Link(kEmbedding, dir.File("wespeaker.onnx"));
  DiarizationInitOptions options;
  options.model = dir.path();
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  EXPECT_TRUE(backend.Init(options, &error)) << error;
  EXPECT_TRUE(backend.IsReady());
}

TEST(SherpaOnnxDiarizationInit, DirectoryWithHintedNamesResolvesBoth) {
  TempDir dir;
  Link(kSegmentation, dir.File("my-Segment-model.onnx"));
  Link(kEmbedding, dir.File("CAMPPLUS.onnx"));
  DiarizationInitOptions options;
  options.model = dir.path();
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  EXPECT_TRUE(backend.Init(options, &error)) << error;
  EXPECT_TRUE(backend.IsReady());
}

// resnet34.onnx holds text: Init can only succeed by taking embedding.onnx,
// which comes earlier in the list of embedding names.
TEST(SherpaOnnxDiarizationInit, EmbeddingNameBeatsResnetName) {
  TempDir dir;
  Link(kSegmentation, dir.File("segmentation-3.1.onnx"));
  Link(kEmbedding, dir.File("embedding.onnx"));
  WriteFileBytes(dir.File("resnet34.onnx"), "not a model\n");
  DiarizationInitOptions options;
  options.model = dir.path();
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  EXPECT_TRUE(backend.Init(options, &error)) << error;
}

TEST(SherpaOnnxDiarizationInit, ExplicitPathWinsOverTheDirectory) {
  TempDir dir;
  WriteFileBytes(dir.File("segmentation-3.1.onnx"), "not a model\n");
  Link(kEmbedding, dir.File("wespeaker.onnx"));
  DiarizationInitOptions options;
  options.model = dir.path();
  options.segmentation_model = kSegmentation;
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  EXPECT_TRUE(backend.Init(options, &error)) << error;
}

TEST(SherpaOnnxDiarizationInit, NoPathsAtAll) {
  EXPECT_EQ(InitError(DiarizationInitOptions{}), "Diarization model path is empty");
}

TEST(SherpaOnnxDiarizationInit, SegmentationMissingFromTheDirectory) {
  TempDir dir;
  Link(kEmbedding, dir.File("wespeaker.onnx"));
  DiarizationInitOptions options;
  options.model = dir.path();
  EXPECT_EQ(InitError(options), "Diarization segmentation model not found in " + dir.path());
}

TEST(SherpaOnnxDiarizationInit, EmbeddingMissingFromTheDirectory) {
  TempDir dir;
  Link(kSegmentation, dir.File("segmentation-3.1.onnx"));
  DiarizationInitOptions options;
  options.model = dir.path();
  EXPECT_EQ(InitError(options), "Diarization embedding model not found in " + dir.path());
}

TEST(SherpaOnnxDiarizationInit, ExplicitEmbeddingWithoutAnySegmentation) {
  DiarizationInitOptions options;
  options.embedding_model = kEmbedding;
  EXPECT_EQ(InitError(options), "Diarization segmentation model not found in ");
}

TEST(SherpaOnnxDiarizationInit, WrongFamilyForEitherModelIsRefused) {
  DiarizationInitOptions swapped;
  swapped.segmentation_model = kEmbedding;
  swapped.embedding_model = kSegmentation;
  EXPECT_EQ(InitError(swapped), "model " + kEmbedding +
                                    " lacks metadata key 'window_size' required for a speaker "
                                    "segmentation model (wrong model family?)");
  DiarizationInitOptions embedding_is_segmentation = ExplicitModels();
  embedding_is_segmentation.embedding_model = kStubSegmentation;
  EXPECT_EQ(InitError(embedding_is_segmentation),
            "model " + kStubSegmentation +
                " lacks metadata key 'framework' required for a speaker embedding model "
                "(wrong model family?)");
}

TEST(SherpaOnnxDiarizationInit, InitAgainReplacesTheDiarizer) {
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(ExplicitModels(), &error)) << error;
  EXPECT_FALSE(backend.Init(DiarizationInitOptions{}, &error));
  EXPECT_FALSE(backend.IsReady());
  EXPECT_TRUE(backend.Init(ExplicitModels(), &error)) << error;
  EXPECT_TRUE(backend.IsReady());
}

// --- Process ---

TEST(SherpaOnnxDiarizationProcess, NullOutputIsRefused) {
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Process({0.0f}, 16000, nullptr, &error));
  EXPECT_EQ(error, "out is null");
}

TEST(SherpaOnnxDiarizationProcess, UninitialisedBackendIsRefused) {
  SherpaOnnxDiarizationBackend backend;
  std::vector<DiarizationSegment> turns = {{0.0, 1.0, "SPEAKER_00"}};
  std::string error;
  EXPECT_FALSE(backend.Process({0.0f}, 16000, &turns, &error));
  EXPECT_EQ(error, "Diarization is not initialized");
  EXPECT_TRUE(turns.empty());
}

TEST(SherpaOnnxDiarizationProcess, EmptyAudioHasNoTurns) {
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(ExplicitModels(), &error)) << error;
  std::vector<DiarizationSegment> turns = {{0.0, 1.0, "SPEAKER_00"}};
  EXPECT_TRUE(backend.Process({}, 16000, &turns, &error)) << error;
  EXPECT_TRUE(turns.empty());
}

TEST(SherpaOnnxDiarizationProcess, OtherSampleRateNamesBothRates) {
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(ExplicitModels(), &error)) << error;
  std::vector<DiarizationSegment> turns;
  EXPECT_FALSE(backend.Process(std::vector<float>(8000, 0.0f), 8000, &turns, &error));
  EXPECT_EQ(error, "Diarization sample rate mismatch: expected 16000, got 8000");
}

TEST(SherpaOnnxDiarizationProcess, SilenceHasNoTurns) {
  SherpaOnnxDiarizationBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(ExplicitModels(), &error)) << error;
  std::vector<DiarizationSegment> turns;
  EXPECT_TRUE(backend.Process(LoadWavForTest(AudioPath("format-checks/sil.wav")), 16000, &turns,
                              &error))
      << error;
  EXPECT_TRUE(turns.empty());
}

TEST(SherpaOnnxDiarizationProcess, KnownTwoVoiceCountLabelsEveryTurnOfTheDialog) {
  DiarizationInitOptions options = ExplicitModels();
  options.max_speakers = 2;
  const auto turns = Diarize(options, "espeak-dialog/two-voices-dialog.wav");
  ASSERT_FALSE(turns.empty());
  EXPECT_EQ(turns.front().speaker, "SPEAKER_00");
  EXPECT_EQ(Labels(turns), (std::set<std::string>{"SPEAKER_00", "SPEAKER_01"}));
  for (size_t i = 1; i < turns.size(); ++i) EXPECT_LE(turns[i - 1].start, turns[i].start);
  const auto agreement = testing::ScoreLabelAgreement(
      testing::ReadRttm(AudioPath("espeak-dialog/two-voices-dialog.rttm")), AsSpans(turns));
  EXPECT_TRUE(agreement.voices_get_distinct_labels);
  EXPECT_GE(agreement.worst_turn_share, 0.8);
  EXPECT_EQ(agreement.label_of_voice.at("voiceA"), "SPEAKER_00");
}

TEST(SherpaOnnxDiarizationProcess, MinimumOfThreeSpeakersGivesExactlyThree) {
  DiarizationInitOptions options = ExplicitModels();
  options.min_speakers = 3;
  const auto turns = Diarize(options, "espeak-dialog/heldout-3voices-a.wav");
  EXPECT_EQ(Labels(turns), (std::set<std::string>{"SPEAKER_00", "SPEAKER_01", "SPEAKER_02"}));
  const auto agreement = testing::ScoreLabelAgreement(
      testing::ReadRttm(AudioPath("espeak-dialog/heldout-3voices-a.rttm")), AsSpans(turns));
  EXPECT_TRUE(agreement.voices_get_distinct_labels);
  EXPECT_GE(agreement.worst_turn_share, 0.6);
}

// The same audio with a minimum of three would give three speakers; with no
// count the 0.5 cut finds the dialog's two voices.
TEST(SherpaOnnxDiarizationProcess, UnknownCountIsLeftToTheThreshold) {
  const auto by_threshold = Diarize(ExplicitModels(), "espeak-dialog/two-voices-dialog.wav");
  EXPECT_EQ(Labels(by_threshold).size(), 2u);
  DiarizationInitOptions three = ExplicitModels();
  three.min_speakers = 3;
  EXPECT_EQ(Labels(Diarize(three, "espeak-dialog/two-voices-dialog.wav")).size(), 3u);
}

// The stub segmentation model hears every stretch of energy as one local
// speaker; the forced count still decides how many labels come out.
TEST(SherpaOnnxDiarizationProcess, ForcedCountHoldsWhateverTheSegmentationSays) {
  DiarizationInitOptions options = ExplicitModels();
  options.segmentation_model = kStubSegmentation;
  options.max_speakers = 2;
  options.min_speakers = 5;  // the maximum wins when both are given
  const auto turns = Diarize(options, "format-checks/two_voices.wav");
  EXPECT_EQ(Labels(turns), (std::set<std::string>{"SPEAKER_00", "SPEAKER_01"}));
}

// Every bundled conversation, its number of voices known: each reference turn
// carries its voice's label for most of its duration, and each voice has a
// label of its own.
class BundledConversation : public ::testing::TestWithParam<std::string> {};

TEST_P(BundledConversation, KnownCountGivesEachVoiceItsOwnLabelOnEveryTurn) {
  const std::string base = "espeak-dialog/" + GetParam();
  const std::vector<LabelledSpan> reference = testing::ReadRttm(AudioPath(base + ".rttm"));
  std::set<std::string> voices;
  for (const LabelledSpan& turn : reference) voices.insert(turn.label);
  ASSERT_GE(voices.size(), 2u) << base;

  DiarizationInitOptions options = ExplicitModels();
  options.max_speakers = static_cast<int32_t>(voices.size());
  const auto turns = Diarize(options, base + ".wav");
  EXPECT_EQ(Labels(turns).size(), voices.size());
  const auto agreement = testing::ScoreLabelAgreement(reference, AsSpans(turns));
  EXPECT_TRUE(agreement.voices_get_distinct_labels);
  EXPECT_GE(agreement.worst_turn_share, 0.8) << base;
}

std::string ConversationTestName(const ::testing::TestParamInfo<std::string>& info) {
  std::string name = info.param;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(SherpaOnnxDiarizationProcess, BundledConversation,
                         ::testing::Values("two-voices-dialog", "heldout-2voices-a",
                                           "heldout-2voices-b", "heldout-3voices-a"),
                         ConversationTestName);

// --- renumbering of the library's cluster ids ---

TEST(AppendLabelledTurns, ClusterIdsAreRenumberedByFirstAppearance) {
  const SherpaOnnxOfflineSpeakerDiarizationSegment segments[] = {
      {0.5f, 1.5f, 4, -2.0f}, {1.5f, 2.5f, 1, -2.0f}, {2.5f, 3.0f, 4, -2.0f}};
  std::vector<DiarizationSegment> turns;
  AppendLabelledTurns(segments, 3, &turns);
  ASSERT_EQ(turns.size(), 3u);
  EXPECT_EQ(turns[0].speaker, "SPEAKER_00");
  EXPECT_EQ(turns[1].speaker, "SPEAKER_01");
  EXPECT_EQ(turns[2].speaker, "SPEAKER_00");
  EXPECT_DOUBLE_EQ(turns[0].start, 0.5);
  EXPECT_DOUBLE_EQ(turns[2].end, 3.0);
}

TEST(AppendLabelledTurns, TurnsThatDoNotEndAfterTheyStartAreDropped) {
  const SherpaOnnxOfflineSpeakerDiarizationSegment segments[] = {
      {1.0f, 1.0f, 7, -2.0f}, {1.0f, 0.5f, 7, -2.0f}, {2.0f, 3.0f, 3, -2.0f}};
  std::vector<DiarizationSegment> turns;
  AppendLabelledTurns(segments, 3, &turns);
  ASSERT_EQ(turns.size(), 1u);
  EXPECT_EQ(turns[0].speaker, "SPEAKER_00");
}

TEST(AppendLabelledTurns, MoreThanAHundredSpeakersKeepEveryDigit) {
  std::vector<SherpaOnnxOfflineSpeakerDiarizationSegment> segments;
  for (int i = 0; i < 101; ++i) {
    segments.push_back({static_cast<float>(i), static_cast<float>(i) + 0.5f, i, -2.0f});
  }
  std::vector<DiarizationSegment> turns;
  AppendLabelledTurns(segments.data(), 101, &turns);
  ASSERT_EQ(turns.size(), 101u);
  EXPECT_EQ(turns[9].speaker, "SPEAKER_09");
  EXPECT_EQ(turns[100].speaker, "SPEAKER_100");
}

}  // namespace
}  // namespace kerrow::testing
