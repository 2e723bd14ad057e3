#include "speaker/register_command.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
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


constexpr char kMd5AEnroll[] = "214b53ad927720f21c30289fc3260c68";
constexpr char kMd5ATest[] = "a2ff2713e01324d94aec67a1b8daeba5";
constexpr char kHint[] =
    " (not a valid .onnx? check it's the real model, not a git-lfs pointer or a truncated "
    "download)";

struct Outcome {
  int status = -1;
  std::vector<std::string> lines;
};

Outcome Register(const Options& options) {
  ::testing::internal::CaptureStdout();
  Outcome outcome;
  outcome.status = RunRegister(options);
  std::istringstream stream(::testing::internal::GetCapturedStdout());
  std::string line;
  while (std::getline(stream, line)) outcome.lines.push_back(line);
  return outcome;
}


std::vector<std::string> FilesIn(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(directory, ignored)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

class RegisterCommand : public ::testing::Test {
 protected:
  Options OptionsFor(const std::string& name, const std::string& clip) const {
    Options options;
    options.register_name = name;
    options.register_input = DialogClip(clip);
    options.speaker_embedding_model = TrainedModel();
    options.speaker_enroll_db = db_;
    options.diarization_num_threads = 1;
    return options;
  }
  // Registers Alice from a_enroll.wav and returns her id.
  std::string RegisterAlice() {
    const Outcome outcome = Register(OptionsFor("Alice", "a_enroll.wav"));
    EXPECT_EQ(outcome.status, 0);
    int dim = 0;
    std::vector<EnrollEntry> entries;
    std::string error;
    EXPECT_TRUE(LoadEnrollDb(db_, &dim, &entries, &error)) << error;
    return entries.empty() ? "" : entries[0].id;
  }
  // Runs a registration that must fail and leave the database as it was.
  void ExpectFailureLeavesDbUnchanged(const Options& options, const std::string& message) {
    const std::string before = ReadFileBytes(db_);
    const Outcome outcome = Register(options);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.lines, std::vector<std::string>{ErrorLine(message)});
    EXPECT_EQ(ReadFileBytes(db_), before);
  }

  TempDir dir_;
  std::string db_ = dir_.File("speakers.db");
  std::string samples_ = dir_.File("samples");
};

TEST_F(RegisterCommand, MissingEmbeddingModelIsReportedFirst) {
  Options options;
  options.register_name = "Alice";
  const Outcome outcome = Register(options);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.lines,
            std::vector<std::string>{ErrorLine("--register-name requires --speaker-embedding-model")});
}

TEST_F(RegisterCommand, MissingInputIsReportedSecond) {
  Options options = OptionsFor("Alice", "a_enroll.wav");
  options.register_input = "";
  options.speaker_enroll_db = "";
  const Outcome outcome = Register(options);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.lines, std::vector<std::string>{ErrorLine(
                               "--register-name requires --register-input (16 kHz mono WAV)")});
}

TEST_F(RegisterCommand, MissingDatabaseIsReportedThird) {
  Options options = OptionsFor("Alice", "a_enroll.wav");
  options.speaker_enroll_db = "";
  const Outcome outcome = Register(options);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.lines, std::vector<std::string>{ErrorLine(
                               "--register-name requires --speaker-enroll-db (output path)")});
}

TEST_F(RegisterCommand, InputThatCannotBeOpenedFailsAtTheChecksum) {
  Options options = OptionsFor("Alice", "a_enroll.wav");
  options.register_input = dir_.File("absent.wav");
  const Outcome outcome = Register(options);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.lines, std::vector<std::string>{ErrorLine(
                               "register: cannot open file for md5: " + options.register_input)});
  EXPECT_FALSE(std::filesystem::exists(db_));
}

TEST_F(RegisterCommand, DirectoryAsInputFailsAtTheChecksum) {
  Options options = OptionsFor("Alice", "a_enroll.wav");
  options.register_input = dir_.path();
  const Outcome outcome = Register(options);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.lines, std::vector<std::string>{ErrorLine(
                               "register: cannot open file for md5: " + options.register_input)});
  EXPECT_FALSE(std::filesystem::exists(db_));
}

TEST_F(RegisterCommand, RegistersTheVoiceprintAndKeepsACopyBesideTheDatabase) {
  const Outcome outcome = Register(OptionsFor("Alice", "a_enroll.wav"));
  int dim = 0;
  std::vector<EnrollEntry> entries;
  std::string error;
  ASSERT_TRUE(LoadEnrollDb(db_, &dim, &entries, &error)) << error;
  ASSERT_EQ(entries.size(), 1u);
  const std::string copy = samples_ + "/" + kMd5AEnroll + ".wav";

  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines,
            (std::vector<std::string>{
                LogLine("[REGISTER] saved sample copy -> " + copy),
                "{\"type\":\"ok\",\"status\":\"registered\",\"id\":\"" + entries[0].id +
                    "\",\"name\":\"Alice\",\"md5\":\"" + kMd5AEnroll + "\",\"sample\":\"" + copy +
                    "\"}"}));
  EXPECT_EQ(dim, 128);
  EXPECT_EQ(entries[0].name, "Alice");
  ASSERT_EQ(entries[0].samples.size(), 1u);
  EXPECT_EQ(entries[0].samples[0].md5, kMd5AEnroll);
  const std::vector<float> expected = EmbeddingOfClip("a_enroll.wav");
  ASSERT_EQ(entries[0].samples[0].embedding.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_NEAR(entries[0].samples[0].embedding[i], expected[i], 1e-6);
  }
  EXPECT_EQ(ReadFileBytes(copy), ReadFileBytes(DialogClip("a_enroll.wav")));
}

TEST_F(RegisterCommand, SameWavTwiceGivesTheShortReplyAndTouchesNothing) {
  RegisterAlice();
  // With the copy gone, a second registration that wrote anything would bring it back.
  std::filesystem::remove(samples_ + "/" + kMd5AEnroll + ".wav");
  const std::string before = ReadFileBytes(db_);

  const Outcome outcome = Register(OptionsFor("Someone Else", "a_enroll.wav"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines,
            std::vector<std::string>{
                std::string("{\"type\":\"ok\",\"status\":\"already_registered\",\"name\":"
                            "\"Someone Else\",\"md5\":\"") +
                kMd5AEnroll + "\"}"});
  EXPECT_EQ(ReadFileBytes(db_), before);
  EXPECT_TRUE(FilesIn(samples_).empty());
}

TEST_F(RegisterCommand, AlreadyRegisteredCheckNeedsNeitherAudioNorModel) {
  RegisterAlice();
  Options options = OptionsFor("Alice", "a_enroll.wav");
  options.speaker_embedding_model = dir_.File("no-such-model.onnx");
  const Outcome outcome = Register(options);
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(outcome.lines.size(), 1u);
  EXPECT_NE(outcome.lines[0].find("\"status\":\"already_registered\""), std::string::npos);
}

TEST_F(RegisterCommand, NewFileForAnExistingIdAddsAVoiceprintAndRenames) {
  const std::string id = RegisterAlice();
  Options options = OptionsFor("Alicia", "a_test.wav");
  options.register_speaker_id = id;
  const Outcome outcome = Register(options);
  const std::string copy = samples_ + "/" + kMd5ATest + ".wav";
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines,
            (std::vector<std::string>{
                LogLine("[REGISTER] saved sample copy -> " + copy),
                "{\"type\":\"ok\",\"status\":\"registered\",\"id\":\"" + id +
                    "\",\"name\":\"Alicia\",\"md5\":\"" + kMd5ATest + "\",\"sample\":\"" + copy +
                    "\"}"}));
  int dim = 0;
  std::vector<EnrollEntry> entries;
  std::string error;
  ASSERT_TRUE(LoadEnrollDb(db_, &dim, &entries, &error)) << error;
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].id, id);
  EXPECT_EQ(entries[0].name, "Alicia");
  EXPECT_EQ(entries[0].samples.size(), 2u);
}

TEST_F(RegisterCommand, UnknownSpeakerIdFailsAndLeavesTheDatabaseUnchanged) {
  RegisterAlice();
  Options options = OptionsFor("Bob", "b_enroll.wav");
  options.register_speaker_id = "no-such-id";
  ExpectFailureLeavesDbUnchanged(options, "register: speaker id not found: no-such-id");
  EXPECT_EQ(FilesIn(samples_), std::vector<std::string>{std::string(kMd5AEnroll) + ".wav"});
}

TEST_F(RegisterCommand, DatabaseInAMissingDirectoryFailsAtTheWrite) {
  Options options = OptionsFor("Alice", "a_enroll.wav");
  const std::string missing = dir_.File("missing");
  options.speaker_enroll_db = missing + "/speakers.db";
  const Outcome outcome = Register(options);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.lines,
            std::vector<std::string>{ErrorLine(
                "register: enroll DB directory does not exist: " + missing +
                " (create it first, or pass a path under an existing directory)")});
  EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(RegisterCommand, InputThatIsNotAWavFailsWithTheReaderMessage) {
  RegisterAlice();
  Options options = OptionsFor("Bob", "b_enroll.wav");
  options.register_input = dir_.File("notes.wav");
  WriteFileBytes(options.register_input, "hello, this is text\n");
  ExpectFailureLeavesDbUnchanged(options, "register: Not a RIFF/WAVE file");
}

TEST_F(RegisterCommand, WavAtAnotherRateFailsWithTheReaderMessage) {
  RegisterAlice();
  Options options = OptionsFor("Bob", "b_enroll.wav");
  options.register_input = dir_.File("8k.wav");
  WriteFileBytes(options.register_input, Wav16Bytes(std::vector<float>(8000, 0.1f), 8000));
  ExpectFailureLeavesDbUnchanged(options, "register: WAV sample rate must be 16000");
}

TEST_F(RegisterCommand, EmptyModelFileFailsAndLeavesTheDatabaseUnchanged) {
  RegisterAlice();
  Options options = OptionsFor("Bob", "b_enroll.wav");
  options.speaker_embedding_model = dir_.File("empty.onnx");
  WriteFileBytes(options.speaker_embedding_model, "");
  ExpectFailureLeavesDbUnchanged(
      options, "register: speaker embedding model is empty: " + options.speaker_embedding_model);
}

TEST_F(RegisterCommand, GitLfsPointerModelFailsWithoutEndingTheProcess) {
  RegisterAlice();
  Options options = OptionsFor("Bob", "b_enroll.wav");
  const std::string model = dir_.File("model.onnx");
  options.speaker_embedding_model = model;
  WriteFileBytes(model, GitLfsPointerText("00", 1));
  ExpectFailureLeavesDbUnchanged(options, "register: failed to load speaker embedding model '" +
                                              model +
                                              "': model file is a git-lfs pointer, not the model: " +
                                              model + kHint);
}

TEST_F(RegisterCommand, AudioTooShortForAnEmbeddingFails) {
  RegisterAlice();
  Options options = OptionsFor("Bob", "b_enroll.wav");
  options.register_input = dir_.File("blip.wav");
  WriteFileBytes(options.register_input, Wav16Bytes(std::vector<float>(40, 0.1f)));
  ExpectFailureLeavesDbUnchanged(options,
                                 "register: not enough audio to compute a speaker embedding");
}

TEST_F(RegisterCommand, DatabaseOfAnotherDimensionRefusesTheVoiceprint) {
  WriteFileBytes(db_,
                 "speaker-enroll v2\ndim 3\nspeaker Old\nid 11111111-1111-4111-8111-111111111111\n"
                 "emb - 1.000000000e+00 0.000000000e+00 0.000000000e+00\n");
  ExpectFailureLeavesDbUnchanged(OptionsFor("Alice", "a_enroll.wav"),
                                 "register: embedding dim 128 != existing DB dim 3");
  EXPECT_FALSE(std::filesystem::exists(samples_));
}

TEST_F(RegisterCommand, DatabaseBuiltWithTheStubModelRefusesATrainedVoiceprint) {
  Options stub = OptionsFor("Alice", "a_enroll.wav");
  stub.speaker_embedding_model = StubModel();
  ASSERT_EQ(Register(stub).status, 0);
  ExpectFailureLeavesDbUnchanged(OptionsFor("Bob", "b_enroll.wav"),
                                 "register: embedding dim 128 != existing DB dim 80");
}

TEST_F(RegisterCommand, DatabaseThatDoesNotLoadFailsWithItsMessage) {
  WriteFileBytes(db_, "speaker-enroll v2\ndim zero\n");
  ExpectFailureLeavesDbUnchanged(OptionsFor("Alice", "a_enroll.wav"),
                                 "register: bad dim at line 2");
}

TEST_F(RegisterCommand, SamplesDirectoryOptionReceivesTheCopy) {
  Options options = OptionsFor("Alice", "a_enroll.wav");
  options.speaker_samples_dir = dir_.File("elsewhere/copies");
  const Outcome outcome = Register(options);
  const std::string copy = options.speaker_samples_dir + "/" + kMd5AEnroll + ".wav";
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(outcome.lines.size(), 2u);
  EXPECT_EQ(outcome.lines[0], LogLine("[REGISTER] saved sample copy -> " + copy));
  EXPECT_NE(outcome.lines[1].find(",\"sample\":\"" + copy + "\"}"), std::string::npos);
  EXPECT_EQ(ReadFileBytes(copy), ReadFileBytes(DialogClip("a_enroll.wav")));
}

TEST_F(RegisterCommand, CopyThatCannotBeSavedOnlyWarnsAndLeavesTheSampleEmpty) {
  Options options = OptionsFor("Alice", "a_enroll.wav");
  const std::string blocker = dir_.File("plain-file");
  WriteFileBytes(blocker, "x");
  options.speaker_samples_dir = blocker + "/samples";
  const Outcome outcome = Register(options);
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(outcome.lines.size(), 2u);
  EXPECT_EQ(outcome.lines[0],
            LogLine("[REGISTER] warning: could not save sample copy under " + blocker + "/samples"));
  EXPECT_NE(outcome.lines[1].find("\"status\":\"registered\""), std::string::npos);
  EXPECT_NE(outcome.lines[1].find(",\"sample\":\"\"}"), std::string::npos);
}

TEST_F(RegisterCommand, NameIsEscapedInTheReply) {
  const Outcome outcome = Register(OptionsFor("Al \"the voice\" \\ A", "a_enroll.wav"));
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(outcome.lines.size(), 2u);
  EXPECT_NE(outcome.lines[1].find(",\"name\":\"Al \\\"the voice\\\" \\\\ A\","), std::string::npos)
      << outcome.lines[1];
}

// Restores the working directory when the test ends, however it ends.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::string& path) : saved_(std::filesystem::current_path()) {
    std::filesystem::current_path(path);
  }
  ~WorkingDirectory() { std::filesystem::current_path(saved_); }

 private:
  std::filesystem::path saved_;
};

TEST_F(RegisterCommand, BareDatabaseFileNamePutsCopiesUnderSamplesInTheWorkingDirectory) {
  WorkingDirectory in_temp(dir_.path());
  Options options = OptionsFor("Alice", "a_enroll.wav");
  options.speaker_enroll_db = "speakers.db";
  const Outcome outcome = Register(options);
  const std::string copy = std::string("samples/") + kMd5AEnroll + ".wav";
  EXPECT_EQ(outcome.status, 0);
  ASSERT_EQ(outcome.lines.size(), 2u);
  EXPECT_EQ(outcome.lines[0], LogLine("[REGISTER] saved sample copy -> " + copy));
  EXPECT_NE(outcome.lines[1].find(",\"sample\":\"" + copy + "\"}"), std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(dir_.File(copy)));
  EXPECT_TRUE(std::filesystem::exists(dir_.File("speakers.db")));
}

}  // namespace
}  // namespace kerrow::testing
