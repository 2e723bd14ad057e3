#include "speaker/identify_only_command.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "common/options.h"
#include "speaker/enroll_db.h"
#include "speaker_fixtures.h"
#include "support/kerrow_process.h"
#include "support/output_lines.h"

namespace kerrow::testing {
namespace {


constexpr char kComplete[] = "{\"message\":\"Identification complete\",\"type\":\"complete\"}";

// The dialog's turns as a diarizer would label them: voice A is SPEAKER_00.
constexpr char kDialogSegments[] =
    "0.500\t5.083\tSPEAKER_00\n"
    "5.783\t10.650\tSPEAKER_01\n"
    "11.349\t16.507\tSPEAKER_00\n"
    "17.207\t21.888\tSPEAKER_01\n"
    "22.588\t27.947\tSPEAKER_00\n"
    "28.648\t32.706\tSPEAKER_01\n";

struct Outcome {
  int status = -1;
  std::vector<std::string> lines;
};

Outcome IdentifyOnly(const Options& options) {
  ::testing::internal::CaptureStdout();
  Outcome outcome;
  outcome.status = RunIdentifyOnly(options);
  std::istringstream stream(::testing::internal::GetCapturedStdout());
  std::string line;
  while (std::getline(stream, line)) outcome.lines.push_back(line);
  return outcome;
}

// The score a "[SPEAKER_ID] " log line reports, as written.
std::string LoggedScore(const std::string& line) {
  std::smatch match;
  if (!std::regex_search(line, match, std::regex("\\(score=([0-9.]+)\\)"))) return "?";
  return match[1];
}

class IdentifyOnlyCommand : public ::testing::Test {
 protected:
  void Enroll(const std::string& name, const std::string& clip) {
    std::string error;
    ASSERT_TRUE(AppendEnrollEmbedding(db_, "", name, "", EmbeddingOfClip(clip), &error, nullptr,
                                      nullptr))
        << error;
  }
  Options OptionsFor(const std::string& segments_text) const {
    WriteFileBytes(segments_, segments_text);
    Options options;
    options.identify_only = true;
    options.speaker_embedding_model = TrainedModel();
    options.speaker_enroll_db = db_;
    options.wav_input = DialogClip("two-voices-dialog.wav");
    options.segments_input = segments_;
    options.speaker_id_threshold = 0.5;
    options.diarization_num_threads = 1;
    return options;
  }
  void ExpectError(const Options& options, const std::string& message) {
    const Outcome outcome = IdentifyOnly(options);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.lines, std::vector<std::string>{ErrorLine(message)});
  }

  TempDir dir_;
  std::string db_ = dir_.File("speakers.db");
  std::string segments_ = dir_.File("segments.tsv");
};

TEST_F(IdentifyOnlyCommand, MissingOptionsAreReportedInOrder) {
  Options options = OptionsFor("");
  options.speaker_embedding_model = "";
  options.speaker_enroll_db = "";
  options.wav_input = "";
  options.segments_input = "";
  ExpectError(options, "--identify-only requires --speaker-embedding-model");
  options.speaker_embedding_model = TrainedModel();
  ExpectError(options, "--identify-only requires --speaker-enroll-db");
  options.speaker_enroll_db = db_;
  ExpectError(options, "--identify-only requires --wav-input (16 kHz mono WAV)");
  options.wav_input = DialogClip("two-voices-dialog.wav");
  ExpectError(options, "--identify-only requires --segments-input (TSV start\\\\tend\\\\tlabel)");
}

TEST_F(IdentifyOnlyCommand, UnreadableWavFailsBeforeTheSegmentsAreOpened) {
  Options options = OptionsFor("");
  options.wav_input = dir_.File("absent.wav");
  options.segments_input = dir_.File("absent.tsv");
  ExpectError(options, "identify: WAV file not found: " + options.wav_input);
}

TEST_F(IdentifyOnlyCommand, SegmentsFileThatCannotBeOpenedFails) {
  Options options = OptionsFor("");
  options.segments_input = dir_.File("absent.tsv");
  ExpectError(options, "identify: cannot open --segments-input: " + options.segments_input);
}

TEST_F(IdentifyOnlyCommand, ModelThatFailsToLoadFailsWithTheIdentifierMessage) {
  Options options = OptionsFor(kDialogSegments);
  options.speaker_embedding_model = dir_.File("empty.onnx");
  WriteFileBytes(options.speaker_embedding_model, "");
  ExpectError(options,
              "identify: speaker embedding model is empty: " + options.speaker_embedding_model);
}

TEST_F(IdentifyOnlyCommand, DatabaseOfAnotherDimensionFailsWithTheRebuildMessage) {
  WriteFileBytes(db_,
                 "speaker-enroll v2\ndim 3\nspeaker Old\nid 11111111-1111-4111-8111-111111111111\n"
                 "emb - 1.0 0.0 0.0\n");
  ExpectError(OptionsFor(kDialogSegments),
              "identify: enroll DB dim (3) != model dim (128); rebuild enrollment with the same "
              "model");
}

TEST_F(IdentifyOnlyCommand, OnlyMalformedLinesGiveAnEmptyResult) {
  Enroll("A", "a_enroll.wav");
  const Outcome outcome = IdentifyOnly(OptionsFor("start\tend\tlabel\nnot a turn\n1\t2\n"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines, (std::vector<std::string>{
                               "{\"type\":\"identify-result\",\"speakers\":{},\"segments\":[]}",
                               kComplete}));
}

TEST_F(IdentifyOnlyCommand, TimesAreWrittenWithThreeDecimals) {
  const Outcome outcome = IdentifyOnly(OptionsFor("1.5\t3.25\tSPEAKER_00\n"));
  EXPECT_EQ(outcome.status, 0);
  // Nobody is enrolled: the label stands for itself with score 0, and its log
  // line still comes first because every cluster with audio is logged.
  ASSERT_EQ(outcome.lines.size(), 3u);
  EXPECT_EQ(outcome.lines[0],
            "{\"message\":\"[SPEAKER_ID] SPEAKER_00 -> (unmatched) (score=0.000)\","
            "\"type\":\"log\"}");
  EXPECT_EQ(outcome.lines[1],
            "{\"type\":\"identify-result\",\"speakers\":{},\"segments\":[{\"start_time\":1.500,"
            "\"end_time\":3.250,\"label\":\"SPEAKER_00\",\"speaker\":\"SPEAKER_00\","
            "\"score\":0.000}]}");
  EXPECT_EQ(outcome.lines[2], kComplete);
}

TEST_F(IdentifyOnlyCommand, TurnWhoseEndEqualsItsStartIsDropped) {
  const Outcome outcome = IdentifyOnly(OptionsFor("2.0\t2.0\tSPEAKER_00\n"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines, (std::vector<std::string>{
                               "{\"type\":\"identify-result\",\"speakers\":{},\"segments\":[]}",
                               kComplete}));
}

TEST_F(IdentifyOnlyCommand, DialogVoicesAreNamedWithLogLinesBeforeTheResult) {
  Enroll("A", "a_enroll.wav");
  Enroll("B", "b_enroll.wav");
  const Outcome outcome = IdentifyOnly(OptionsFor(kDialogSegments));
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(outcome.lines.size(), 4u);
  const std::string score_a = LoggedScore(outcome.lines[0]);
  const std::string score_b = LoggedScore(outcome.lines[1]);
  EXPECT_EQ(outcome.lines[0], "{\"message\":\"[SPEAKER_ID] SPEAKER_00 -> A (score=" + score_a +
                                  ")\",\"type\":\"log\"}");
  EXPECT_EQ(outcome.lines[1], "{\"message\":\"[SPEAKER_ID] SPEAKER_01 -> B (score=" + score_b +
                                  ")\",\"type\":\"log\"}");
  EXPECT_GT(std::stod(score_a), 0.5);
  EXPECT_GT(std::stod(score_b), 0.5);
  const auto turn = IdentifiedTurnJson;
  EXPECT_EQ(outcome.lines[2],
            "{\"type\":\"identify-result\",\"speakers\":{\"SPEAKER_00\":\"A\",\"SPEAKER_01\":"
            "\"B\"},\"segments\":[" +
                turn("0.500", "5.083", "SPEAKER_00", "A", score_a) + "," +
                turn("5.783", "10.650", "SPEAKER_01", "B", score_b) + "," +
                turn("11.349", "16.507", "SPEAKER_00", "A", score_a) + "," +
                turn("17.207", "21.888", "SPEAKER_01", "B", score_b) + "," +
                turn("22.588", "27.947", "SPEAKER_00", "A", score_a) + "," +
                turn("28.648", "32.706", "SPEAKER_01", "B", score_b) + "]}");
  EXPECT_EQ(outcome.lines[3], kComplete);
}

TEST_F(IdentifyOnlyCommand, UnmatchedLabelIsListedUnderItsOwnNameWithItsBestScore) {
  Enroll("A", "a_enroll.wav");
  const Outcome outcome = IdentifyOnly(OptionsFor("0.500\t5.083\tSPEAKER_00\n"
                                                  "5.783\t10.650\tSPEAKER_01\n"));
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(outcome.lines.size(), 4u);
  const std::string score_a = LoggedScore(outcome.lines[0]);
  const std::string score_b = LoggedScore(outcome.lines[1]);
  EXPECT_EQ(outcome.lines[1], "{\"message\":\"[SPEAKER_ID] SPEAKER_01 -> (unmatched) (score=" +
                                  score_b + ")\",\"type\":\"log\"}");
  // Voice B points away from voice A (negative cosine), so its best score is the floor.
  EXPECT_EQ(score_b, "0.000");
  EXPECT_EQ(outcome.lines[2],
            "{\"type\":\"identify-result\",\"speakers\":{\"SPEAKER_00\":\"A\"},\"segments\":["
            "{\"start_time\":0.500,\"end_time\":5.083,\"label\":\"SPEAKER_00\",\"speaker\":\"A\","
            "\"score\":" +
                score_a +
                "},{\"start_time\":5.783,\"end_time\":10.650,\"label\":\"SPEAKER_01\","
                "\"speaker\":\"SPEAKER_01\",\"score\":" +
                score_b + "}]}");
}

TEST_F(IdentifyOnlyCommand, LabelWithADoubleQuoteIsEscapedInBothPlaces) {
  Enroll("A \"the first\"", "a_enroll.wav");
  const Outcome outcome = IdentifyOnly(OptionsFor("0.500\t5.083\tSPK \"1\"\n"));
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(outcome.lines.size(), 3u);
  const std::string score = LoggedScore(outcome.lines[0]);
  EXPECT_EQ(outcome.lines[1],
            "{\"type\":\"identify-result\",\"speakers\":{\"SPK \\\"1\\\"\":\"A \\\"the "
            "first\\\"\"},\"segments\":[{\"start_time\":0.500,\"end_time\":5.083,\"label\":\"SPK "
            "\\\"1\\\"\",\"speaker\":\"A \\\"the first\\\"\",\"score\":" +
                score + "}]}");
}

TEST_F(IdentifyOnlyCommand, LabelWithoutAudioHasScoreZeroAndNoLogLine) {
  Enroll("A", "a_enroll.wav");
  const Outcome outcome = IdentifyOnly(OptionsFor("100\t101\tSPEAKER_07\n"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines,
            (std::vector<std::string>{
                "{\"type\":\"identify-result\",\"speakers\":{},\"segments\":[{\"start_time\":"
                "100.000,\"end_time\":101.000,\"label\":\"SPEAKER_07\",\"speaker\":\"SPEAKER_07\","
                "\"score\":0.000}]}",
                kComplete}));
}

TEST_F(IdentifyOnlyCommand, ThresholdOptionDecidesWhatCountsAsAMatch) {
  Enroll("A", "a_enroll.wav");
  Options options = OptionsFor("0.500\t5.083\tSPEAKER_00\n");
  options.speaker_id_threshold = 1.5;
  const Outcome outcome = IdentifyOnly(options);
  ASSERT_EQ(outcome.lines.size(), 3u);
  EXPECT_NE(outcome.lines[0].find("SPEAKER_00 -> (unmatched)"), std::string::npos);
  EXPECT_EQ(outcome.lines[1].rfind("{\"type\":\"identify-result\",\"speakers\":{},", 0), 0u);
}

}  // namespace
}  // namespace kerrow::testing
