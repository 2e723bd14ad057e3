// The register and identify-only commands run as the host runs them: one
// process per command, one JSON reply, the exit status, nothing on stderr.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "support/fifo_feeder.h"
#include "support/json_fields.h"
#include "support/kerrow_process.h"
#include "support/output_lines.h"

namespace kerrow::testing {
namespace {

constexpr char kMd5AEnroll[] = "214b53ad927720f21c30289fc3260c68";
constexpr char kMd5BEnroll[] = "07e7b232ff0b095c2b9296a6cf967127";
constexpr char kComplete[] = "{\"message\":\"Identification complete\",\"type\":\"complete\"}";
constexpr char kHint[] =
    " (not a valid .onnx? check it's the real model, not a git-lfs pointer or a truncated "
    "download)";

std::string EmbeddingModel() { return ModelPath("trained/speaker-embedding/model.onnx"); }
std::string Clip(const std::string& name) { return AudioPath("espeak-dialog/" + name); }


// The score a "[SPEAKER_ID] " log line reports, as written.
std::string LoggedScore(const std::string& line) {
  std::smatch match;
  if (!std::regex_search(line, match, std::regex("\\(score=([0-9.]+)\\)"))) return "?";
  return match[1];
}

// The diarizer's view of the dialog: voiceA is SPEAKER_00, voiceB SPEAKER_01,
// built from the recording's own turn file.
std::string DialogSegmentsTsv() {
  const std::string rttm = ReadFileBytes(Clip("two-voices-dialog.rttm"));
  std::regex turn("SPEAKER \\S+ 1 ([0-9.]+) ([0-9.]+) <NA> <NA> (voice[AB])");
  std::string tsv;
  for (std::sregex_iterator it(rttm.begin(), rttm.end(), turn), end; it != end; ++it) {
    const double start = std::stod((*it)[1]);
    const double duration = std::stod((*it)[2]);
    tsv += std::to_string(start) + "\t" + std::to_string(start + duration) + "\t" +
           ((*it)[3] == "voiceA" ? "SPEAKER_00" : "SPEAKER_01") + "\n";
  }
  return tsv;
}

class RegisterIdentifyProcess : public ::testing::Test {
 protected:
  ProcessResult Register(const std::string& name, const std::string& input,
                         const std::vector<std::string>& extra = {},
                         const std::string& model = EmbeddingModel()) {
    std::vector<std::string> args = {"--register-name", name, "--register-input", input,
                                     "--speaker-embedding-model", model, "--speaker-enroll-db",
                                     db_};
    args.insert(args.end(), extra.begin(), extra.end());
    return RunKerrow(args);
  }
  ProcessResult Identify(const std::string& wav, const std::string& segments_tsv,
                         const std::string& model = EmbeddingModel()) {
    WriteFileBytes(segments_, segments_tsv);
    return RunKerrow({"--identify-only", "--wav-input", wav, "--segments-input", segments_,
                      "--speaker-embedding-model", model, "--speaker-enroll-db", db_,
                      "--speaker-id-threshold", "0.5"});
  }
  // The id a "registered" reply carries.
  static std::string RegisteredId(const ProcessResult& result) {
    if (result.stdout_lines.empty()) return "";
    return JsonStringField(result.stdout_lines.back(), "id");
  }
  std::string RegisteredLine(const std::string& id, const std::string& name,
                             const std::string& md5) const {
    return "{\"type\":\"ok\",\"status\":\"registered\",\"id\":\"" + id + "\",\"name\":\"" + name +
           "\",\"md5\":\"" + md5 + "\",\"sample\":\"" + dir_.File("samples/" + md5 + ".wav") +
           "\"}";
  }

  TempDir dir_;
  std::string db_ = dir_.File("speakers.db");
  std::string segments_ = dir_.File("segments.tsv");
};

TEST_F(RegisterIdentifyProcess, EnrolledVoicesNameTheDialogClusters) {
  const ProcessResult a = Register("Voice A", Clip("a_enroll.wav"));
  EXPECT_EQ(a.exit_status, 0);
  EXPECT_EQ(a.stderr_text, "");
  const std::string id_a = RegisteredId(a);
  EXPECT_TRUE(std::regex_match(id_a, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]"
                                                "{3}-[0-9a-f]{12}")))
      << id_a;
  EXPECT_EQ(a.stdout_lines,
            (std::vector<std::string>{
                LogLine("[REGISTER] saved sample copy -> " +
                        dir_.File(std::string("samples/") + kMd5AEnroll + ".wav")),
                RegisteredLine(id_a, "Voice A", kMd5AEnroll)}));

  const ProcessResult b = Register("Voice B", Clip("b_enroll.wav"));
  EXPECT_EQ(b.exit_status, 0);
  EXPECT_EQ(b.stdout_lines.back(), RegisteredLine(RegisteredId(b), "Voice B", kMd5BEnroll));

  const ProcessResult identified = Identify(Clip("two-voices-dialog.wav"), DialogSegmentsTsv());
  EXPECT_EQ(identified.exit_status, 0);
  EXPECT_EQ(identified.stderr_text, "");
  ASSERT_EQ(identified.stdout_lines.size(), 4u);
  const std::string score_a = LoggedScore(identified.stdout_lines[0]);
  const std::string score_b = LoggedScore(identified.stdout_lines[1]);
  EXPECT_GT(std::stod(score_a), 0.5);
  EXPECT_GT(std::stod(score_b), 0.5);
  const auto turn = IdentifiedTurnJson;
  EXPECT_EQ(identified.stdout_lines,
            (std::vector<std::string>{
                LogLine("[SPEAKER_ID] SPEAKER_00 -> Voice A (score=" + score_a + ")"),
                LogLine("[SPEAKER_ID] SPEAKER_01 -> Voice B (score=" + score_b + ")"),
                "{\"type\":\"identify-result\",\"speakers\":{\"SPEAKER_00\":\"Voice A\","
                "\"SPEAKER_01\":\"Voice B\"},\"segments\":[" +
                    turn("0.500", "5.083", "SPEAKER_00", "Voice A", score_a) + "," +
                    turn("5.783", "10.650", "SPEAKER_01", "Voice B", score_b) + "," +
                    turn("11.349", "16.507", "SPEAKER_00", "Voice A", score_a) + "," +
                    turn("17.207", "21.888", "SPEAKER_01", "Voice B", score_b) + "," +
                    turn("22.588", "27.947", "SPEAKER_00", "Voice A", score_a) + "," +
                    turn("28.648", "32.706", "SPEAKER_01", "Voice B", score_b) + "]}",
                kComplete}));
}

TEST_F(RegisterIdentifyProcess, TestClipsAreNamedAfterTheirOwnVoice) {
  ASSERT_EQ(Register("A", Clip("a_enroll.wav")).exit_status, 0);
  ASSERT_EQ(Register("B", Clip("b_enroll.wav")).exit_status, 0);
  const ProcessResult a = Identify(Clip("a_test.wav"), "0\t4.5\tSPEAKER_00\n");
  ASSERT_EQ(a.stdout_lines.size(), 3u);
  EXPECT_EQ(JsonStringField(a.stdout_lines[1], "type"), "identify-result");
  EXPECT_NE(a.stdout_lines[1].find("\"speakers\":{\"SPEAKER_00\":\"A\"}"), std::string::npos);
  const ProcessResult b = Identify(Clip("b_test.wav"), "0\t4.5\tSPEAKER_00\n");
  ASSERT_EQ(b.stdout_lines.size(), 3u);
  EXPECT_NE(b.stdout_lines[1].find("\"speakers\":{\"SPEAKER_00\":\"B\"}"), std::string::npos);
}

TEST_F(RegisterIdentifyProcess, VoiceThatWasNotEnrolledStaysUnmatched) {
  ASSERT_EQ(Register("A", Clip("a_enroll.wav")).exit_status, 0);
  const ProcessResult result = Identify(Clip("b_test.wav"), "0.000\t4.500\tSPEAKER_00\n");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines,
            (std::vector<std::string>{
                LogLine("[SPEAKER_ID] SPEAKER_00 -> (unmatched) (score=0.000)"),
                "{\"type\":\"identify-result\",\"speakers\":{},\"segments\":[{\"start_time\":0.000,"
                "\"end_time\":4.500,\"label\":\"SPEAKER_00\",\"speaker\":\"SPEAKER_00\","
                "\"score\":0.000}]}",
                kComplete}));
}

TEST_F(RegisterIdentifyProcess, SameWavTwiceIsAlreadyRegisteredAndChangesNothing) {
  ASSERT_EQ(Register("A", Clip("a_enroll.wav")).exit_status, 0);
  const std::string db_before = ReadFileBytes(db_);
  const std::string copy = dir_.File(std::string("samples/") + kMd5AEnroll + ".wav");
  std::filesystem::remove(copy);

  const ProcessResult again = Register("A again", Clip("a_enroll.wav"));
  EXPECT_EQ(again.exit_status, 0);
  EXPECT_EQ(again.stdout_lines,
            std::vector<std::string>{std::string("{\"type\":\"ok\",\"status\":\"already_registered\","
                                                 "\"name\":\"A again\",\"md5\":\"") +
                                     kMd5AEnroll + "\"}"});
  EXPECT_EQ(ReadFileBytes(db_), db_before);
  EXPECT_FALSE(std::filesystem::exists(copy));
}

// A recording handed over through a pipe (a shell's process substitution, a
// FIFO) can be read only once, yet gives the checksum, the voiceprint and the
// kept copy of the file it carries.
TEST_F(RegisterIdentifyProcess, RecordingThroughAFifoRegistersLikeTheFile) {
  const std::string recording = ReadFileBytes(Clip("a_enroll.wav"));
  const std::string fifo = dir_.File("a_enroll.fifo");
  ProcessResult result;
  {
    FifoFeeder feeder(fifo, recording);
    result = Register("A", fifo);
  }
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stderr_text, "");
  const std::string copy = dir_.File(std::string("samples/") + kMd5AEnroll + ".wav");
  EXPECT_EQ(result.stdout_lines,
            (std::vector<std::string>{LogLine("[REGISTER] saved sample copy -> " + copy),
                                      RegisteredLine(RegisteredId(result), "A", kMd5AEnroll)}));
  EXPECT_EQ(ReadFileBytes(copy), recording);

  // The voiceprint is the one the file itself gives: its own test clip is named after it.
  const ProcessResult identified = Identify(Clip("a_test.wav"), "0\t4.5\tSPEAKER_00\n");
  ASSERT_EQ(identified.stdout_lines.size(), 3u);
  EXPECT_NE(identified.stdout_lines[1].find("\"speakers\":{\"SPEAKER_00\":\"A\"}"), std::string::npos)
      << identified.stdout_lines[1];
}

TEST_F(RegisterIdentifyProcess, LegacyEnrollAliasesRegisterToo) {
  const ProcessResult result =
      RunKerrow({"--enroll-name", "A", "--enroll-input", Clip("a_enroll.wav"),
                 "--speaker-embedding-model", EmbeddingModel(), "--speaker-enroll-db", db_});
  EXPECT_EQ(result.exit_status, 0);
  ASSERT_FALSE(result.stdout_lines.empty());
  EXPECT_EQ(result.stdout_lines.back(), RegisteredLine(RegisteredId(result), "A", kMd5AEnroll));
}

TEST_F(RegisterIdentifyProcess, BareDatabaseNamePutsCopiesUnderTheWorkingDirectory) {
  const ProcessResult result =
      RunKerrow({"--register-name", "A", "--register-input", Clip("a_enroll.wav"),
                 "--speaker-embedding-model", EmbeddingModel(), "--speaker-enroll-db", "speakers.db"},
                "", -1, "", std::chrono::seconds(120), dir_.path());
  const std::string copy = std::string("samples/") + kMd5AEnroll + ".wav";
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines,
            (std::vector<std::string>{
                LogLine("[REGISTER] saved sample copy -> " + copy),
                "{\"type\":\"ok\",\"status\":\"registered\",\"id\":\"" + RegisteredId(result) +
                    "\",\"name\":\"A\",\"md5\":\"" + kMd5AEnroll + "\",\"sample\":\"" + copy +
                    "\"}"}));
  EXPECT_EQ(ReadFileBytes(dir_.File(copy)), ReadFileBytes(Clip("a_enroll.wav")));
  EXPECT_TRUE(std::filesystem::exists(dir_.File("speakers.db")));
}

TEST_F(RegisterIdentifyProcess, DatabaseInAMissingDirectoryIsAnError) {
  const std::string missing = dir_.File("missing");
  db_ = missing + "/speakers.db";
  const ProcessResult result = Register("A", Clip("a_enroll.wav"));
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{ErrorLine(
                "register: enroll DB directory does not exist: " + missing +
                " (create it first, or pass a path under an existing directory)")});
  EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(RegisterIdentifyProcess, UnknownSpeakerIdIsAnErrorAndTheDatabaseStaysAsItWas) {
  ASSERT_EQ(Register("A", Clip("a_enroll.wav")).exit_status, 0);
  const std::string before = ReadFileBytes(db_);
  const ProcessResult result =
      Register("B", Clip("b_enroll.wav"), {"--register-speaker-id", "no-such-id"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{ErrorLine("register: speaker id not found: no-such-id")});
  EXPECT_EQ(ReadFileBytes(db_), before);
}

TEST_F(RegisterIdentifyProcess, GitLfsPointerModelIsAnErrorNotACrash) {
  const std::string model = dir_.File("model.onnx");
  WriteFileBytes(model, GitLfsPointerText("00", 1));
  const ProcessResult result = Register("A", Clip("a_enroll.wav"), {}, model);
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stderr_text, "");
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{ErrorLine(
                "register: failed to load speaker embedding model '" + model +
                "': model file is a git-lfs pointer, not the model: " + model + kHint)});
  EXPECT_FALSE(std::filesystem::exists(db_));
}

TEST_F(RegisterIdentifyProcess, TextFileAsModelIsAnErrorNotACrash) {
  ASSERT_EQ(Register("A", Clip("a_enroll.wav")).exit_status, 0);
  const std::string model = dir_.File("model.onnx");
  WriteFileBytes(model, "just some words\n");
  const ProcessResult result =
      Identify(Clip("two-voices-dialog.wav"), DialogSegmentsTsv(), model);
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stderr_text, "");
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{ErrorLine("identify: failed to load speaker embedding model '" +
                                               model + "': not a valid ONNX model: " + model +
                                               kHint)});
}

TEST_F(RegisterIdentifyProcess, DirectoryAsModelIsAnError) {
  const ProcessResult result = Register("A", Clip("a_enroll.wav"), {}, dir_.path());
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines, std::vector<std::string>{ErrorLine(
                                     "register: speaker embedding model is unreadable: " +
                                     dir_.path())});
}

TEST_F(RegisterIdentifyProcess, DatabaseOfTheStubModelCannotBeUsedWithTheTrainedModel) {
  ASSERT_EQ(Register("A", Clip("a_enroll.wav"), {}, ModelPath("stubs/embedding/model.onnx"))
                .exit_status,
            0);
  const ProcessResult result = Identify(Clip("two-voices-dialog.wav"), DialogSegmentsTsv());
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{ErrorLine(
                "identify: enroll DB dim (80) != model dim (128); rebuild enrollment with the "
                "same model")});
}

TEST_F(RegisterIdentifyProcess, AudioTooShortForAVoiceprintIsAnError) {
  std::string wav = ReadFileBytes(Clip("a_enroll.wav")).substr(0, 44);
  // Header of the real clip, data cut to 40 samples.
  wav[40] = 80;
  wav[41] = wav[42] = wav[43] = 0;
  wav += std::string(80, '\x10');
  const std::string blip = dir_.File("blip.wav");
  WriteFileBytes(blip, wav);
  const ProcessResult result = Register("A", blip);
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{
                ErrorLine("register: not enough audio to compute a speaker embedding")});
  EXPECT_FALSE(std::filesystem::exists(db_));
}

TEST_F(RegisterIdentifyProcess, IdentifyOnlyWithoutSegmentsIsAnError) {
  const ProcessResult result =
      RunKerrow({"--identify-only", "--wav-input", Clip("two-voices-dialog.wav"),
                 "--speaker-embedding-model", EmbeddingModel(), "--speaker-enroll-db", db_});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{
                ErrorLine("--identify-only requires --segments-input (TSV start\\\\tend\\\\tlabel)")});
}

}  // namespace
}  // namespace kerrow::testing
