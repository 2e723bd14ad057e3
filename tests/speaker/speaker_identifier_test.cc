#include "speaker/speaker_identifier.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "speaker/enroll_db.h"
#include "speaker_fixtures.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


std::string InitError(const SpeakerIdentifierOptions& options) {
  SpeakerIdentifier identifier;
  std::string error;
  EXPECT_FALSE(identifier.Init(options, &error));
  EXPECT_FALSE(identifier.IsReady());
  return error;
}

std::string InitErrorForModel(const std::string& model) {
  SpeakerIdentifierOptions options;
  options.model = model;
  return InitError(options);
}

void Enroll(const std::string& db, const std::string& name, const std::vector<float>& embedding) {
  std::string error;
  ASSERT_TRUE(AppendEnrollEmbedding(db, "", name, "", embedding, &error, nullptr, nullptr))
      << error;
}

double Cosine(const std::vector<float>& a, const std::vector<float>& b) {
  double dot = 0.0, na = 0.0, nb = 0.0;
  for (size_t i = 0; i < a.size(); ++i) {
    dot += double(a[i]) * b[i];
    na += double(a[i]) * a[i];
    nb += double(b[i]) * b[i];
  }
  return dot / (std::sqrt(na) * std::sqrt(nb));
}

TEST(SpeakerIdentifier, FreshIdentifierIsNotReadyAndHasNoDim) {
  SpeakerIdentifier identifier;
  EXPECT_FALSE(identifier.IsReady());
  EXPECT_EQ(identifier.Dim(), 0);
}

TEST(SpeakerIdentifier, FreshOptionsHoldTheDocumentedDefaults) {
  SpeakerIdentifierOptions options;
  EXPECT_EQ(options.model, "");
  EXPECT_EQ(options.enroll_db, "");
  EXPECT_EQ(options.num_threads, 1);
  EXPECT_EQ(options.provider, "cpu");
  EXPECT_EQ(options.threshold, 0.7f);
}

TEST(SpeakerIdentifier, EmptyModelPathFails) {
  EXPECT_EQ(InitErrorForModel(""), "speaker embedding model path is empty");
}

TEST(SpeakerIdentifier, MissingModelFileFailsBeforeTheLibrary) {
  TempDir dir;
  const std::string path = dir.File("absent.onnx");
  EXPECT_EQ(InitErrorForModel(path), "speaker embedding model not found or unreadable: " + path);
}

TEST(SpeakerIdentifier, DirectoryAsModelFailsAsUnreadable) {
  TempDir dir;
  EXPECT_EQ(InitErrorForModel(dir.path()),
            "speaker embedding model is unreadable: " + dir.path());
}

TEST(SpeakerIdentifier, ZeroByteModelFailsAsEmpty) {
  TempDir dir;
  const std::string path = dir.File("empty.onnx");
  WriteFileBytes(path, "");
  EXPECT_EQ(InitErrorForModel(path), "speaker embedding model is empty: " + path);
}

// The pinned library would end the process on these files; they are turned
// away with the load message and its hint instead.
TEST(SpeakerIdentifier, GitLfsPointerAsModelFailsWithTheRealModelHint) {
  TempDir dir;
  const std::string path = dir.File("model.onnx");
  WriteFileBytes(path,
                 GitLfsPointerText("742fb04c40352ae44321764cab2638e9628d1505093a1661d8b84b2e22f38ed7", 2007351));
  EXPECT_EQ(InitErrorForModel(path),
            "failed to load speaker embedding model '" + path +
                "': model file is a git-lfs pointer, not the model: " + path +
                " (not a valid .onnx? check it's the real model, not a git-lfs pointer or a "
                "truncated download)");
}

TEST(SpeakerIdentifier, TextFileAsModelFailsWithTheRealModelHint) {
  TempDir dir;
  const std::string path = dir.File("notes.onnx");
  WriteFileBytes(path, "this is not a model\n");
  EXPECT_EQ(InitErrorForModel(path),
            "failed to load speaker embedding model '" + path + "': not a valid ONNX model: " +
                path +
                " (not a valid .onnx? check it's the real model, not a git-lfs pointer or a "
                "truncated download)");
}

TEST(SpeakerIdentifier, ModelOfAnotherFamilyFailsWithTheRealModelHint) {
  const std::string path = testing::ModelPath("stubs/punct/model.onnx");
  EXPECT_EQ(InitErrorForModel(path),
            "failed to load speaker embedding model '" + path + "': model " + path +
                " lacks metadata key 'framework' required for a speaker embedding model (wrong "
                "model family?) (not a valid .onnx? check it's the real model, not a git-lfs "
                "pointer or a truncated download)");
}

TEST(SpeakerIdentifier, TruncatedModelFailsWithTheRealModelHint) {
  TempDir dir;
  const std::string path = dir.File("truncated.onnx");
  WriteFileBytes(path, testing::ReadFileBytes(TrainedModel()).substr(0, 4096));
  EXPECT_EQ(InitErrorForModel(path),
            "failed to load speaker embedding model '" + path + "': not a valid ONNX model: " +
                path +
                " (not a valid .onnx? check it's the real model, not a git-lfs pointer or a "
                "truncated download)");
}

TEST(SpeakerIdentifier, TrainedModelReports128Dimensions) {
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(), &error)) << error;
  EXPECT_TRUE(identifier.IsReady());
  EXPECT_EQ(identifier.Dim(), 128);
}

TEST(SpeakerIdentifier, StubModelReports80Dimensions) {
  SpeakerIdentifierOptions options;
  options.model = StubModel();
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(options, &error)) << error;
  EXPECT_EQ(identifier.Dim(), 80);
}

TEST(SpeakerIdentifier, MovedIdentifierKeepsItsStateAndTheSourceIsEmpty) {
  SpeakerIdentifier source;
  std::string error;
  ASSERT_TRUE(source.Init(TrainedOptions(), &error)) << error;
  SpeakerIdentifier target(std::move(source));
  EXPECT_TRUE(target.IsReady());
  EXPECT_EQ(target.Dim(), 128);
  EXPECT_FALSE(source.IsReady());  // NOLINT(bugprone-use-after-move): moved-from is defined
  EXPECT_EQ(source.Dim(), 0);
}

TEST(SpeakerIdentifier, EmptyEnrollDbPathNeverMatchesAndScoresZero) {
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(""), &error)) << error;
  float score = -1.0f;
  EXPECT_EQ(identifier.Identify(LoadWavForTest(DialogClip("a_test.wav")), kRate, &score), "");
  EXPECT_EQ(score, 0.0f);
}

TEST(SpeakerIdentifier, MissingEnrollDbFileIsAnEmptyDatabase) {
  TempDir dir;
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(dir.File("none.db")), &error)) << error;
  float score = -1.0f;
  EXPECT_EQ(identifier.Identify(LoadWavForTest(DialogClip("a_test.wav")), kRate, &score), "");
  EXPECT_EQ(score, 0.0f);
}

TEST(SpeakerIdentifier, EnrollDbThatDoesNotLoadFailsWithItsMessage) {
  TempDir dir;
  const std::string db = dir.File("bad.db");
  WriteFileBytes(db, "speaker-enroll v2\ndim 0\n");
  EXPECT_EQ(InitError(TrainedOptions(db)), "failed to load enroll DB: bad dim at line 2");
}

TEST(SpeakerIdentifier, EnrollDbOfTheStubModelFailsWithTheTrainedModel) {
  TempDir dir;
  const std::string db = dir.File("stub.db");
  Enroll(db, "A", EmbeddingOf(LoadWavForTest(DialogClip("a_enroll.wav")), StubModel()));
  EXPECT_EQ(InitError(TrainedOptions(db)),
            "enroll DB dim (80) != model dim (128); rebuild enrollment with the same model");
}

TEST(SpeakerIdentifier, EnrollDbOfDimensionThreeFailsWithTheRebuildMessage) {
  TempDir dir;
  const std::string db = dir.File("dim3.db");
  WriteFileBytes(db,
                 "speaker-enroll v2\ndim 3\nspeaker A\nid 11111111-1111-4111-8111-111111111111\n"
                 "emb - 1.0 0.0 0.0\n");
  EXPECT_EQ(InitError(TrainedOptions(db)),
            "enroll DB dim (3) != model dim (128); rebuild enrollment with the same model");
}

// Each registration under a name without an id makes another entry of that
// name; together they are one speaker, scored against all their voiceprints.
TEST(SpeakerIdentifier, SpeakersSharingANameAreOneNameWithAllTheirVoiceprints) {
  TempDir dir;
  const std::string db = dir.File("shared.db");
  const std::vector<float> a = EmbeddingOfClip("a_enroll.wav");
  const std::vector<float> b = EmbeddingOfClip("b_enroll.wav");
  Enroll(db, "Sam", a);
  Enroll(db, "Kim", EmbeddingOfClip("a_test.wav"));
  Enroll(db, "Sam", b);
  std::string error;

  SpeakerIdentifier scorer;
  ASSERT_TRUE(scorer.Init(TrainedOptions(db, 1.5f), &error)) << error;
  EXPECT_TRUE(scorer.IsReady());
  float score = 0.0f;
  const std::vector<float> query_b = EmbeddingOfClip("b_test.wav");
  EXPECT_EQ(scorer.Identify(LoadWavForTest(DialogClip("b_test.wav")), kRate, &score), "");
  std::vector<float> mean(a.size());
  for (size_t i = 0; i < a.size(); ++i) mean[i] = (a[i] + b[i]) * 0.5f;
  EXPECT_NEAR(score, Cosine(query_b, mean), 1e-5);

  SpeakerIdentifier identifier;
  ASSERT_TRUE(identifier.Init(TrainedOptions(db, 0.3f), &error)) << error;
  EXPECT_EQ(identifier.Identify(LoadWavForTest(DialogClip("b_test.wav")), kRate, &score), "Sam");
  EXPECT_NEAR(score, Cosine(query_b, mean), 1e-5);
}

TEST(SpeakerIdentifier, VoiceprintsArePooledByNameInOrderOfFirstAppearance) {
  const std::vector<EnrollEntry> entries = {
      {"id-1", "Sam", {{"", {1, 0}}}},
      {"id-2", "Kim", {{"", {0, 1}}}},
      {"id-3", "Nobody", {}},
      {"id-4", "Sam", {{"", {2, 0}}, {"", {3, 0}}}},
  };
  const std::vector<NamedVoiceprints> pooled = GroupVoiceprintsByName(entries);
  ASSERT_EQ(pooled.size(), 2u);
  EXPECT_EQ(pooled[0].name, "Sam");
  ASSERT_EQ(pooled[0].voiceprints.size(), 3u);
  EXPECT_EQ(*pooled[0].voiceprints[2], (std::vector<float>{3, 0}));
  EXPECT_EQ(pooled[1].name, "Kim");
  EXPECT_EQ(pooled[1].voiceprints.size(), 1u);
}

// A recording of NaN samples has no voiceprint.
TEST(SpeakerIdentifier, NanAudioGivesNoEmbedding) {
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(), &error)) << error;
  std::vector<float> nan_audio(kRate * 2, std::numeric_limits<float>::quiet_NaN());
  std::vector<float> embedding;
  EXPECT_FALSE(identifier.ComputeEmbedding(nan_audio, kRate, &embedding, &error));
  EXPECT_EQ(error, "speaker embedding is not finite (the audio holds samples that are not numbers)");
  EXPECT_TRUE(embedding.empty());
  float score = -1.0f;
  EXPECT_EQ(identifier.Identify(nan_audio, kRate, &score), "");
  EXPECT_EQ(score, 0.0f);
}

TEST(SpeakerIdentifier, EnrolledVoicesAreRecognisedOnOtherSentences) {
  TempDir dir;
  const std::string db = dir.File("ab.db");
  Enroll(db, "A", EmbeddingOfClip("a_enroll.wav"));
  Enroll(db, "B", EmbeddingOfClip("b_enroll.wav"));
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(db, 0.5f), &error)) << error;

  float score_a = 0.0f;
  EXPECT_EQ(identifier.Identify(LoadWavForTest(DialogClip("a_test.wav")), kRate, &score_a), "A");
  EXPECT_GT(score_a, 0.9f);
  float score_b = 0.0f;
  EXPECT_EQ(identifier.Identify(LoadWavForTest(DialogClip("b_test.wav")), kRate, &score_b), "B");
  EXPECT_GT(score_b, 0.7f);
}

TEST(SpeakerIdentifier, MatchScoreIsTheCosineToTheEnrolledVoiceprint) {
  TempDir dir;
  const std::string db = dir.File("a.db");
  const std::vector<float> enrolled = EmbeddingOfClip("a_enroll.wav");
  Enroll(db, "A", enrolled);
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(db, 0.5f), &error)) << error;
  float score = 0.0f;
  ASSERT_EQ(identifier.Identify(LoadWavForTest(DialogClip("a_test.wav")), kRate, &score), "A");
  EXPECT_NEAR(score, Cosine(EmbeddingOfClip("a_test.wav"), enrolled), 1e-5);
}

TEST(SpeakerIdentifier, VoiceNotEnrolledStaysUnmatchedWithTheNearestScoreFlooredAtZero) {
  TempDir dir;
  const std::string db = dir.File("a.db");
  const std::vector<float> enrolled = EmbeddingOfClip("a_enroll.wav");
  Enroll(db, "A", enrolled);
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(db, 0.5f), &error)) << error;
  float score = -1.0f;
  EXPECT_EQ(identifier.Identify(LoadWavForTest(DialogClip("b_test.wav")), kRate, &score), "");
  // Voice B lies on the far side of voice A (negative cosine): the score starts at 0.
  ASSERT_LT(Cosine(EmbeddingOfClip("b_test.wav"), enrolled), 0.0);
  EXPECT_EQ(score, 0.0f);
}

TEST(SpeakerIdentifier, UnmatchedScoreReportsHowCloseTheNearestSpeakerCame) {
  TempDir dir;
  const std::string db = dir.File("a.db");
  const std::vector<float> enrolled = EmbeddingOfClip("a_enroll.wav");
  Enroll(db, "A", enrolled);
  SpeakerIdentifier identifier;
  std::string error;
  // A threshold above any cosine: voice A itself is then unmatched.
  ASSERT_TRUE(identifier.Init(TrainedOptions(db, 1.5f), &error)) << error;
  float score = 0.0f;
  EXPECT_EQ(identifier.Identify(LoadWavForTest(DialogClip("a_test.wav")), kRate, &score), "");
  EXPECT_NEAR(score, Cosine(EmbeddingOfClip("a_test.wav"), enrolled), 1e-5);
  EXPECT_GT(score, 0.9f);
}

TEST(SpeakerIdentifier, SpeakerWithSeveralVoiceprintsIsScoredAgainstTheirAverage) {
  TempDir dir;
  const std::string db = dir.File("mix.db");
  const std::vector<float> a = EmbeddingOfClip("a_enroll.wav");
  const std::vector<float> b = EmbeddingOfClip("b_enroll.wav");
  std::string error;
  std::string id;
  ASSERT_TRUE(AppendEnrollEmbedding(db, "", "Mix", "", a, &error, nullptr, &id)) << error;
  ASSERT_TRUE(AppendEnrollEmbedding(db, id, "Mix", "", b, &error, nullptr, nullptr)) << error;

  SpeakerIdentifier identifier;
  ASSERT_TRUE(identifier.Init(TrainedOptions(db, 1.5f), &error)) << error;
  float score = 0.0f;
  EXPECT_EQ(identifier.Identify(LoadWavForTest(DialogClip("a_test.wav")), kRate, &score), "");

  std::vector<float> mean(a.size());
  for (size_t i = 0; i < a.size(); ++i) mean[i] = (a[i] + b[i]) * 0.5f;
  const std::vector<float> query = EmbeddingOfClip("a_test.wav");
  EXPECT_NEAR(score, Cosine(query, mean), 1e-5);
  // Clearly below the best single voiceprint, which would have scored above 0.9.
  EXPECT_LT(score, Cosine(query, a) - 0.1);
}

TEST(SpeakerIdentifier, VeryShortAudioIsNotEnoughForAnEmbedding) {
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(), &error)) << error;
  const std::vector<float> forty_samples(40, 0.1f);
  std::vector<float> embedding;
  EXPECT_FALSE(identifier.ComputeEmbedding(forty_samples, kRate, &embedding, &error));
  EXPECT_EQ(error, "not enough audio to compute a speaker embedding");
}

TEST(SpeakerIdentifier, VeryShortAudioIdentifiesNobodyWithScoreZero) {
  TempDir dir;
  const std::string db = dir.File("a.db");
  Enroll(db, "A", EmbeddingOfClip("a_enroll.wav"));
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(db, -1.0f), &error)) << error;
  float score = -1.0f;
  EXPECT_EQ(identifier.Identify(std::vector<float>(40, 0.1f), kRate, &score), "");
  EXPECT_EQ(score, 0.0f);
}

TEST(SpeakerIdentifier, EmptyAudioFailsTheEmbedding) {
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(), &error)) << error;
  std::vector<float> embedding;
  EXPECT_FALSE(identifier.ComputeEmbedding({}, kRate, &embedding, &error));
  EXPECT_EQ(error, "empty audio for embedding");
}

TEST(SpeakerIdentifier, EmbeddingNeedsAnOutVector) {
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(), &error)) << error;
  EXPECT_FALSE(identifier.ComputeEmbedding({0.1f}, kRate, nullptr, &error));
  EXPECT_EQ(error, "embedding out is null");
}

TEST(SpeakerIdentifier, EmbeddingBeforeInitFails) {
  SpeakerIdentifier identifier;
  std::vector<float> embedding;
  std::string error;
  EXPECT_FALSE(identifier.ComputeEmbedding({0.1f}, kRate, &embedding, &error));
  EXPECT_EQ(error, "speaker identifier not initialized");
}

TEST(SpeakerIdentifier, EmbeddingHasTheModelsDimension) {
  const std::vector<float> embedding = EmbeddingOfClip("a_enroll.wav");
  EXPECT_EQ(embedding.size(), 128u);
}

TEST(SpeakerIdentifier, FailedSecondInitLeavesTheIdentifierNotReady) {
  SpeakerIdentifier identifier;
  std::string error;
  ASSERT_TRUE(identifier.Init(TrainedOptions(), &error)) << error;
  SpeakerIdentifierOptions broken;
  EXPECT_FALSE(identifier.Init(broken, &error));
  EXPECT_FALSE(identifier.IsReady());
}

}  // namespace
}  // namespace kerrow::testing
