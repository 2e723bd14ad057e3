// The enrollment database through the commands the host runs: concurrent
// registrations, databases that cannot be rewritten whole, recordings whose
// voiceprint is not a number, speakers who share a name, and paths that are not
// regular files. Every refusal is one error event, status 1, and the file as it was.

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "support/protocol_fixtures.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

constexpr int kConcurrentRegistrations = 16;
const std::string kIdA = "11111111-1111-4111-8111-111111111111";
const std::string kIdB = "22222222-2222-4222-9222-222222222222";
const std::string kMd5A = "0123456789abcdef0123456789abcdef";
const std::string kMd5B = "fedcba9876543210fedcba9876543210";

std::string EmbeddingModel() { return ModelPath("trained/speaker-embedding/model.onnx"); }
std::string Clip(const std::string& name) { return AudioPath("espeak-dialog/" + name); }

// Ann and Ben in dimension 2, followed by one line that cannot be rewritten whole.
std::string FlawedDb(const std::string& flaw_line) {
  return "speaker-enroll v2\ndim 2\nspeaker Ann\nid " + kIdA + "\nemb " + kMd5A +
         " 1.000000000e+00 0.000000000e+00\nspeaker Ben\nid " + kIdB + "\nemb " + kMd5B +
         " 0.000000000e+00 1.000000000e+00\n" + flaw_line + "\n";
}

// A mono 32-bit float WAV whose every sample is NaN: each float's four bytes
// go in as two 16-bit words of the shared WAV builder.
std::string NanFloatWav(size_t samples) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  int16_t halves[2];
  std::memcpy(halves, &nan, sizeof(nan));
  std::vector<int16_t> words;
  for (size_t i = 0; i < samples; ++i) words.insert(words.end(), halves, halves + 2);
  return WavBytes(words, 16000, 1, /*format_tag=IEEE float*/ 3, /*bits_per_sample=*/32);
}

class EnrollDbSafetyProcess : public ::testing::Test {
 protected:
  std::vector<std::string> RegisterArgs(const std::string& name, const std::string& input) const {
    return {"--register-name", name, "--register-input", input, "--speaker-embedding-model",
            EmbeddingModel(), "--speaker-enroll-db", db_};
  }
  ProcessResult Command(std::vector<std::string> args) const {
    args.push_back("--speaker-enroll-db");
    args.push_back(db_);
    return RunKerrow(args);
  }
  // Every command that would rewrite the database, each aimed at something it
  // could change: the error prefix it answers with, and its arguments.
  std::vector<std::pair<std::string, std::vector<std::string>>> RewritingCommands() const {
    return {{"register", RegisterArgs("Cy", Clip("a_enroll.wav"))},
            {"migrate", {"--migrate-speakers", "--speaker-enroll-db", db_}},
            {"rename", {"--rename-speaker-id", kIdB, "--rename-speaker-name", "Benedict",
                        "--speaker-enroll-db", db_}},
            {"unregister", {"--unregister-speaker-id", kIdB, "--speaker-enroll-db", db_}},
            {"unregister", {"--unregister-name", "Ben", "--speaker-enroll-db", db_}},
            {"unregister", {"--unregister-md5", kMd5B, "--speaker-enroll-db", db_}}};
  }
  int SpeakerCount() const {
    const ProcessResult list = Command({"--list-speakers"});
    if (list.exit_status != 0 || list.stdout_lines.size() != 1) return -1;
    const std::regex speaker("\\{\"id\":\"[^\"]+\",\"name\":");
    const std::string& line = list.stdout_lines[0];
    return static_cast<int>(std::distance(std::sregex_iterator(line.begin(), line.end(), speaker),
                                          std::sregex_iterator()));
  }

  TempDir dir_;
  std::string db_ = dir_.File("speakers.db");
};

// Copies of one recording that differ in one sample, so each has its own md5.
std::vector<std::string> DistinctRecordings(const TempDir& dir, int count) {
  const std::string original = ReadFileBytes(Clip("a_enroll.wav"));
  std::vector<std::string> paths;
  for (int i = 0; i < count; ++i) {
    std::string copy = original;
    copy[copy.size() - 2] = static_cast<char>(i);
    paths.push_back(dir.File("voice" + std::to_string(i) + ".wav"));
    WriteFileBytes(paths.back(), copy);
  }
  return paths;
}

TEST_F(EnrollDbSafetyProcess, SixteenRegistrationsStartedAtOnceAllRemain) {
  const std::vector<std::string> recordings = DistinctRecordings(dir_, kConcurrentRegistrations);
  std::vector<std::unique_ptr<KerrowProcess>> processes;
  for (int i = 0; i < kConcurrentRegistrations; ++i) {
    KerrowProcess::Config config;
    config.args = RegisterArgs("Speaker " + std::to_string(i), recordings[static_cast<size_t>(i)]);
    config.audio_fd = -1;
    processes.push_back(std::make_unique<KerrowProcess>(config));
    std::string error;
    ASSERT_TRUE(processes.back()->Start(&error)) << error;
    processes.back()->CloseStdin();
  }
  for (int i = 0; i < kConcurrentRegistrations; ++i) {
    KerrowProcess& process = *processes[static_cast<size_t>(i)];
    EXPECT_EQ(process.Wait(std::chrono::seconds(180)), 0) << i;
    const std::vector<std::string> lines = process.Lines();
    ASSERT_FALSE(lines.empty()) << i;
    EXPECT_EQ(JsonStringField(lines.back(), "status"), "registered") << lines.back();
    EXPECT_EQ(JsonStringField(lines.back(), "name"), "Speaker " + std::to_string(i));
    EXPECT_EQ(process.Stderr(), "");
  }
  EXPECT_EQ(SpeakerCount(), kConcurrentRegistrations);
}

TEST_F(EnrollDbSafetyProcess, DatabaseThatCannotBeRewrittenWholeIsRefusedAndLeftByteForByte) {
  struct Flaw {
    std::string line;
    std::string message;
  };
  const std::vector<Flaw> flaws = {
      {"dim 3", "refusing to rewrite the enroll DB, which would lose line 9: dim 3 conflicts "
                "with dim 2 above it"},
      {"emb - nan 1.0", "refusing to rewrite the enroll DB, which would lose line 9: voiceprint "
                        "holds a value that is not a finite number"},
      {"emb - 1.0", "refusing to rewrite the enroll DB, which would lose line 9: voiceprint has 1 "
                    "values where dim is 2"},
      {"id 33333333-3333-4333-a333-333333333333",
       "refusing to rewrite the enroll DB, which would lose line 9: second id for speaker 'Ben'"},
  };
  for (const Flaw& flaw : flaws) {
    const std::string text = FlawedDb(flaw.line);
    for (const auto& [prefix, args] : RewritingCommands()) {
      SCOPED_TRACE(flaw.line + " / " + args[0]);
      WriteFileBytes(db_, text);
      const ProcessResult result = RunKerrow(args);
      EXPECT_EQ(result.exit_status, 1);
      EXPECT_EQ(result.stdout_lines, std::vector<std::string>{ErrorLine(prefix + ": " + flaw.message)});
      EXPECT_EQ(result.stderr_text, "");
      EXPECT_EQ(ReadFileBytes(db_), text);
    }
    // Reading is still possible: both speakers are listed.
    const ProcessResult list = Command({"--list-speakers"});
    EXPECT_EQ(list.exit_status, 0);
    ASSERT_EQ(list.stdout_lines.size(), 1u);
    EXPECT_NE(list.stdout_lines[0].find("\"id\":\"" + kIdA + "\",\"name\":\"Ann\""), std::string::npos);
    EXPECT_NE(list.stdout_lines[0].find("\"id\":\"" + kIdB + "\",\"name\":\"Ben\""), std::string::npos);
  }
}

TEST_F(EnrollDbSafetyProcess, SpeakerIdOfTwoNamesIsRefusedByRename) {
  const std::string text = FlawedDb("speaker Cy\nid " + kIdA + "\nemb - 1 1");
  WriteFileBytes(db_, text);
  const ProcessResult result =
      Command({"--rename-speaker-id", kIdA, "--rename-speaker-name", "Anne"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{ErrorLine(
                "rename: refusing to rewrite the enroll DB, which would lose line 10: speaker id " +
                kIdA + " is also the id of speaker 'Ann'")});
  EXPECT_EQ(ReadFileBytes(db_), text);
}

TEST_F(EnrollDbSafetyProcess, RecordingOfNanSamplesIsRefused) {
  const std::string wav = dir_.File("nan.wav");
  WriteFileBytes(wav, NanFloatWav(32000));
  const ProcessResult result = RunKerrow(RegisterArgs("Nan", wav));
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{ErrorLine(
                "register: speaker embedding is not finite (the audio holds samples that are not "
                "numbers)")});
  EXPECT_EQ(result.stderr_text, "");
  EXPECT_FALSE(std::filesystem::exists(db_));
}

// Two voices enrolled under one name are one speaker to the host: each of the
// dialog's voices is named after it, and identification does not fail.
TEST_F(EnrollDbSafetyProcess, SpeakersWhoShareANameAreIdentifiedUnderIt) {
  ASSERT_EQ(RunKerrow(RegisterArgs("Sam", Clip("a_enroll.wav"))).exit_status, 0);
  ASSERT_EQ(RunKerrow(RegisterArgs("Sam", Clip("b_enroll.wav"))).exit_status, 0);
  ASSERT_EQ(SpeakerCount(), 2);
  WriteFileBytes(dir_.File("turns.tsv"), "0\t4.5\tSPEAKER_00\n");
  for (const char* clip : {"a_test.wav", "b_test.wav"}) {
    SCOPED_TRACE(clip);
    const ProcessResult result =
        RunKerrow({"--identify-only", "--wav-input", Clip(clip), "--segments-input",
                   dir_.File("turns.tsv"), "--speaker-embedding-model", EmbeddingModel(),
                   "--speaker-enroll-db", db_, "--speaker-id-threshold", "0.3"});
    EXPECT_EQ(result.exit_status, 0);
    ASSERT_EQ(result.stdout_lines.size(), 3u) << JoinLines(result.stdout_lines);
    EXPECT_EQ(IndexOfMatch(result.stdout_lines, "\\{\"message\":\"\\[SPEAKER_ID\\] SPEAKER_00 -> "
                                                "Sam \\(score=[0-9.]+\\)\",\"type\":\"log\"\\}"),
              0);
    EXPECT_NE(result.stdout_lines[1].find("\"speakers\":{\"SPEAKER_00\":\"Sam\"}"), std::string::npos)
        << result.stdout_lines[1];
  }
}

TEST_F(EnrollDbSafetyProcess, CharacterDeviceAsDatabaseIsRefusedAndLeftAlone) {
  db_ = "/dev/null";
  const std::string message = "enroll DB is not a regular file: /dev/null";
  for (const auto& [prefix, args] : RewritingCommands()) {
    SCOPED_TRACE(args[0]);
    const ProcessResult result = RunKerrow(args);
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.stdout_lines, std::vector<std::string>{ErrorLine(prefix + ": " + message)});
  }
  const ProcessResult list = Command({"--list-speakers"});
  EXPECT_EQ(list.exit_status, 1);
  EXPECT_EQ(list.stdout_lines, std::vector<std::string>{ErrorLine("list: " + message)});
  struct stat status {};
  ASSERT_EQ(stat("/dev/null", &status), 0);
  EXPECT_TRUE(S_ISCHR(status.st_mode));
}

TEST_F(EnrollDbSafetyProcess, FifoAsDatabaseIsRefusedAtOnceAndStaysAFifo) {
  db_ = dir_.File("speakers.fifo");
  ASSERT_EQ(mkfifo(db_.c_str(), 0600), 0);
  for (const auto& [prefix, args] : RewritingCommands()) {
    SCOPED_TRACE(args[0]);
    const ProcessResult result = RunKerrow(args);
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.stdout_lines,
              std::vector<std::string>{ErrorLine(prefix + ": enroll DB is not a regular file: " + db_)});
  }
  struct stat status {};
  ASSERT_EQ(lstat(db_.c_str(), &status), 0);
  EXPECT_TRUE(S_ISFIFO(status.st_mode));
}

TEST_F(EnrollDbSafetyProcess, DanglingSymbolicLinkAsDatabaseIsRefusedAndStaysALink) {
  ASSERT_EQ(symlink("gone/speakers.db", db_.c_str()), 0);
  const ProcessResult result = RunKerrow(RegisterArgs("Ann", Clip("a_enroll.wav")));
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{
                ErrorLine("register: enroll DB is a symbolic link to nothing: " + db_)});
  const ProcessResult rename =
      Command({"--rename-speaker-id", kIdA, "--rename-speaker-name", "X"});
  EXPECT_EQ(rename.exit_status, 1);
  EXPECT_EQ(rename.stdout_lines, std::vector<std::string>{ErrorLine(
                                     "rename: enroll DB is a symbolic link to nothing: " + db_)});
  struct stat status {};
  ASSERT_EQ(lstat(db_.c_str(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
  EXPECT_FALSE(std::filesystem::exists(dir_.File("gone")));
}

}  // namespace
}  // namespace kerrow::testing
