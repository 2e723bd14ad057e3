#include "speaker/cluster_identity.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "events/number_format.h"
#include "speaker/enroll_db.h"
#include "speaker_fixtures.h"
#include "support/kerrow_process.h"
#include "support/output_lines.h"

namespace kerrow::testing {
namespace {


void Enroll(const std::string& db, const std::string& name, const std::string& clip) {
  std::string error;
  ASSERT_TRUE(AppendEnrollEmbedding(db, "", name, "", EmbeddingOfClip(clip), &error, nullptr,
                                    nullptr))
      << error;
}

// The dialog's turn file names its voices voiceA and voiceB; a diarizer would
// call them SPEAKER_00 and SPEAKER_01.
std::vector<DiarizationSegment> DialogTurns() {
  std::ifstream rttm(DialogClip("two-voices-dialog.rttm"));
  std::vector<DiarizationSegment> turns;
  std::string line;
  while (std::getline(rttm, line)) {
    std::istringstream fields(line);
    std::string type, file, channel, voice, skip;
    double start = 0.0, duration = 0.0;
    fields >> type >> file >> channel >> start >> duration >> skip >> skip >> voice;
    turns.push_back({start, start + duration, voice == "voiceA" ? "SPEAKER_00" : "SPEAKER_01"});
  }
  return turns;
}

std::vector<float> Slice(const std::vector<float>& samples, double start, double end) {
  return std::vector<float>(samples.begin() + static_cast<long>(start * kRate),
                            samples.begin() + static_cast<long>(end * kRate));
}

std::vector<float> Concat(std::vector<float> a, const std::vector<float>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<std::string> CapturedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  std::string line;
  while (std::getline(stream, line)) lines.push_back(line);
  return lines;
}


class ClusterIdentity : public ::testing::Test {
 protected:
  // Voices A and B enrolled from their own enrolment clips.
  void InitWithBothVoices(float threshold = 0.5f) {
    Enroll(db_, "A", "a_enroll.wav");
    Enroll(db_, "B", "b_enroll.wav");
    std::string error;
    ASSERT_TRUE(identifier_.Init(TrainedOptions(db_, threshold), &error)) << error;
  }
  void InitWithVoiceAOnly() {
    Enroll(db_, "A", "a_enroll.wav");
    std::string error;
    ASSERT_TRUE(identifier_.Init(TrainedOptions(db_, 0.5f), &error)) << error;
  }
  float ScoreOf(const std::vector<float>& audio) {
    float score = 0.0f;
    identifier_.Identify(audio, kRate, &score);
    return score;
  }

  TempDir dir_;
  std::string db_ = dir_.File("enroll.db");
  SpeakerIdentifier identifier_;
  const std::vector<float> dialog_ = LoadWavForTest(DialogClip("two-voices-dialog.wav"));
};

TEST_F(ClusterIdentity, NullIdentifierNamesNobody) {
  std::map<std::string, float> scores;
  EXPECT_TRUE(
      BuildClusterIdentityMap(nullptr, dialog_, kRate, 15.0, DialogTurns(), nullptr, &scores)
          .empty());
  EXPECT_TRUE(scores.empty());
}

TEST_F(ClusterIdentity, IdentifierThatIsNotReadyNamesNobodyAndLogsNothing) {
  EventEmitter emitter;
  std::map<std::string, float> scores;
  ::testing::internal::CaptureStdout();
  const auto names = BuildClusterIdentityMap(&identifier_, dialog_, kRate, 15.0, DialogTurns(),
                                             &emitter, &scores);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(names.empty());
  EXPECT_TRUE(scores.empty());
}

TEST_F(ClusterIdentity, NoTurnsNamesNobody) {
  InitWithBothVoices();
  EXPECT_TRUE(BuildClusterIdentityMap(&identifier_, dialog_, kRate, 15.0, {}, nullptr, nullptr)
                  .empty());
}

TEST_F(ClusterIdentity, DialogClustersGetTheEnrolledNamesWithOneLogLineEachInLabelOrder) {
  InitWithBothVoices();
  EventEmitter emitter;
  std::map<std::string, float> scores;
  ::testing::internal::CaptureStdout();
  const auto names = BuildClusterIdentityMap(&identifier_, dialog_, kRate, 15.0, DialogTurns(),
                                             &emitter, &scores);
  const std::vector<std::string> lines = CapturedLines(::testing::internal::GetCapturedStdout());

  EXPECT_EQ(names, (std::map<std::string, std::string>{{"SPEAKER_00", "A"}, {"SPEAKER_01", "B"}}));
  ASSERT_EQ(scores.size(), 2u);
  EXPECT_GT(scores["SPEAKER_00"], 0.5f);
  EXPECT_GT(scores["SPEAKER_01"], 0.5f);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], LogLine("[SPEAKER_ID] SPEAKER_00 -> A (score=" +
                              FormatFixed(scores["SPEAKER_00"], 3) + ")"));
  EXPECT_EQ(lines[1], LogLine("[SPEAKER_ID] SPEAKER_01 -> B (score=" +
                              FormatFixed(scores["SPEAKER_01"], 3) + ")"));
}

TEST_F(ClusterIdentity, CapOfFifteenSecondsKeepsOnlyTheStartOfTheLongestTurn) {
  InitWithBothVoices(1.5f);  // nobody matches: the score is the nearest cosine
  // 20 s of voice A's material with voice B's last 5 s, then 3 s more of voice B.
  std::vector<float> voice_a = Concat(LoadWavForTest(DialogClip("a_enroll.wav")),
                                      LoadWavForTest(DialogClip("a_test.wav")));
  while (voice_a.size() < 15u * kRate) voice_a = Concat(voice_a, voice_a);
  voice_a.resize(15u * kRate);
  std::vector<float> voice_b = LoadWavForTest(DialogClip("b_test.wav"));
  voice_b = Concat(voice_b, voice_b);
  voice_b.resize(8u * kRate);
  const std::vector<float> audio = Concat(voice_a, voice_b);
  const std::vector<DiarizationSegment> turns = {{20.0, 23.0, "X"}, {0.0, 20.0, "X"}};

  std::map<std::string, float> capped;
  BuildClusterIdentityMap(&identifier_, audio, kRate, 15.0, turns, nullptr, &capped);
  std::map<std::string, float> uncapped;
  BuildClusterIdentityMap(&identifier_, audio, kRate, 0.0, turns, nullptr, &uncapped);

  // 15 s at 16 kHz is 240,000 samples: exactly the first 15 s of the 20 s turn.
  EXPECT_EQ(capped["X"], ScoreOf(std::vector<float>(audio.begin(), audio.begin() + 240000)));
  EXPECT_NE(capped["X"], uncapped["X"]);
}

TEST_F(ClusterIdentity, WithoutCapEveryTurnIsUsedLongestFirst) {
  InitWithBothVoices(1.5f);
  const std::vector<DiarizationSegment> turns = {
      {0.5, 2.0, "SPEAKER_00"}, {11.349, 16.507, "SPEAKER_00"}, {22.588, 25.0, "SPEAKER_00"}};
  std::map<std::string, float> scores;
  BuildClusterIdentityMap(&identifier_, dialog_, kRate, 0.0, turns, nullptr, &scores);
  const std::vector<float> longest_first =
      Concat(Concat(Slice(dialog_, 11.349, 16.507), Slice(dialog_, 22.588, 25.0)),
             Slice(dialog_, 0.5, 2.0));
  EXPECT_EQ(scores["SPEAKER_00"], ScoreOf(longest_first));
}

TEST_F(ClusterIdentity, ReversedOrEndlessTurnsContributeNothing) {
  InitWithBothVoices(1.5f);
  const double audio_seconds = static_cast<double>(dialog_.size()) / kRate;
  const std::vector<DiarizationSegment> turns = {
      {5.0, 4.0, "SPEAKER_00"},                                  // end before start
      {audio_seconds + 1.0, audio_seconds + 30.0, "SPEAKER_00"},  // wholly past the end
      {0.5, 5.083, "SPEAKER_00"},
      {audio_seconds + 1.0, audio_seconds + 2.0, "SPEAKER_09"},  // only turn past the end
  };
  EventEmitter emitter;
  std::map<std::string, float> scores;
  ::testing::internal::CaptureStdout();
  BuildClusterIdentityMap(&identifier_, dialog_, kRate, 15.0, turns, &emitter, &scores);
  const std::vector<std::string> lines = CapturedLines(::testing::internal::GetCapturedStdout());

  // SPEAKER_09 had no audio: no score, no log line.
  ASSERT_EQ(scores.size(), 1u);
  EXPECT_EQ(scores["SPEAKER_00"], ScoreOf(Slice(dialog_, 0.5, 5.083)));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], LogLine("[SPEAKER_ID] SPEAKER_00 -> (unmatched) (score=" +
                              FormatFixed(scores["SPEAKER_00"], 3) + ")"));
}

TEST_F(ClusterIdentity, TurnStartingBeforeTheAudioIsClampedToItsFirstSample) {
  InitWithBothVoices(1.5f);
  std::map<std::string, float> scores;
  BuildClusterIdentityMap(&identifier_, dialog_, kRate, 0.0, {{-3.0, 2.0, "SPEAKER_00"}}, nullptr,
                          &scores);
  EXPECT_EQ(scores["SPEAKER_00"], ScoreOf(Slice(dialog_, 0.0, 2.0)));
}

TEST_F(ClusterIdentity, NoClusterMatchedKeepsLabelsAndLogsEveryClusterAsUnmatched) {
  InitWithBothVoices(1.5f);
  std::vector<DiarizationSegment> turns = DialogTurns();
  const std::vector<DiarizationSegment> before = turns;
  EventEmitter emitter;
  ::testing::internal::CaptureStdout();
  IdentifyAndRelabelSpeakers(&identifier_, dialog_, kRate, 15.0, &turns, &emitter);
  const std::vector<std::string> lines = CapturedLines(::testing::internal::GetCapturedStdout());

  ASSERT_EQ(turns.size(), before.size());
  for (size_t i = 0; i < turns.size(); ++i) EXPECT_EQ(turns[i].speaker, before[i].speaker);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].rfind("{\"message\":\"[SPEAKER_ID] SPEAKER_00 -> (unmatched) (score=0.", 0),
            0u)
      << lines[0];
  EXPECT_EQ(lines[1].rfind("{\"message\":\"[SPEAKER_ID] SPEAKER_01 -> (unmatched) (score=0.", 0),
            0u)
      << lines[1];
}

TEST_F(ClusterIdentity, RelabellingRenamesMatchedTurnsOnlyAndKeepsTimesAndOrder) {
  InitWithVoiceAOnly();
  std::vector<DiarizationSegment> turns = DialogTurns();
  const std::vector<DiarizationSegment> before = turns;
  IdentifyAndRelabelSpeakers(&identifier_, dialog_, kRate, 15.0, &turns, nullptr);
  ASSERT_EQ(turns.size(), before.size());
  for (size_t i = 0; i < turns.size(); ++i) {
    EXPECT_EQ(turns[i].start, before[i].start);
    EXPECT_EQ(turns[i].end, before[i].end);
    EXPECT_EQ(turns[i].speaker, before[i].speaker == "SPEAKER_00" ? "A" : "SPEAKER_01");
  }
}

TEST_F(ClusterIdentity, RelabellingWithoutTurnsDoesNothing) {
  InitWithBothVoices();
  IdentifyAndRelabelSpeakers(&identifier_, dialog_, kRate, 15.0, nullptr, nullptr);
}

TEST_F(ClusterIdentity, LabelsDifferingOnlyInZeroPaddingAreDifferentClusters) {
  InitWithBothVoices();
  const std::vector<DiarizationSegment> turns = {{0.5, 5.083, "SPEAKER_0"},
                                                 {11.349, 16.507, "SPEAKER_00"}};
  std::map<std::string, float> scores;
  const auto names =
      BuildClusterIdentityMap(&identifier_, dialog_, kRate, 15.0, turns, nullptr, &scores);
  EXPECT_EQ(names, (std::map<std::string, std::string>{{"SPEAKER_0", "A"}, {"SPEAKER_00", "A"}}));
  EXPECT_EQ(scores.size(), 2u);
}

TEST_F(ClusterIdentity, ClusterWithTooLittleAudioIsUnmatchedWithScoreZero) {
  InitWithBothVoices(-1.0f);  // any embedding at all would match
  const std::vector<DiarizationSegment> turns = {{1.0, 1.0025, "SPEAKER_00"}};  // 40 samples
  EventEmitter emitter;
  std::map<std::string, float> scores;
  ::testing::internal::CaptureStdout();
  const auto names =
      BuildClusterIdentityMap(&identifier_, dialog_, kRate, 15.0, turns, &emitter, &scores);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_TRUE(names.empty());
  EXPECT_EQ(scores, (std::map<std::string, float>{{"SPEAKER_00", 0.0f}}));
  EXPECT_EQ(out, LogLine("[SPEAKER_ID] SPEAKER_00 -> (unmatched) (score=0.000)") + "\n");
}

}  // namespace
}  // namespace kerrow::testing
