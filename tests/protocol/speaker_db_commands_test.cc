// The speaker database commands as the host runs them: one process per command,
// one JSON line on stdout, the exit status, and the database file afterwards.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

const std::string kIdA = "11111111-1111-4111-8111-111111111111";
const std::string kIdB = "22222222-2222-4222-9222-222222222222";
const std::string kIdC = "33333333-3333-4333-a333-333333333333";
const std::string kMd5A = "0123456789abcdef0123456789abcdef";
const std::string kMd5B = "fedcba9876543210fedcba9876543210";
const std::string kMd5C = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";

// Sam (two voiceprints, one without md5), Kim, and a second Sam; dimension 2.
std::string ThreeSpeakerDb() {
  return "speaker-enroll v2\ndim 2\n"
         "speaker Sam\nid " + kIdA + "\nemb " + kMd5A + " 1.000000000e+00 0.000000000e+00\n"
         "emb - 0.000000000e+00 1.000000000e+00\n"
         "speaker Kim Lee\nid " + kIdC + "\nemb " + kMd5C + " 5.000000000e-01 5.000000000e-01\n"
         "speaker Sam\nid " + kIdB + "\nemb " + kMd5B + " -1.000000000e+00 0.000000000e+00\n";
}

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

class SpeakerDbProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFileBytes(Db(), ThreeSpeakerDb());
    std::filesystem::create_directory(dir_.File("samples"));
    for (const std::string& md5 : {kMd5A, kMd5B, kMd5C}) WriteFileBytes(Sample(md5), "RIFF");
  }
  std::string Db() const { return dir_.File("db.txt"); }
  std::string Sample(const std::string& md5) const { return dir_.File("samples/" + md5 + ".wav"); }
  ProcessResult Kerrow(std::vector<std::string> args) {
    args.push_back("--speaker-enroll-db");
    args.push_back(Db());
    return RunKerrow(args);
  }

  TempDir dir_;
};

TEST(SpeakerDbProcess, ListWithoutDatabaseIsAnErrorWithStatusOne) {
  ProcessResult result = RunKerrow({"--list-speakers"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"message\":\"--list-speakers requires --speaker-enroll-db\",\"type\":\"error\"}"});
  EXPECT_EQ(result.stderr_text, "");
}

TEST(SpeakerDbProcess, ListOfMissingDatabaseIsEmpty) {
  TempDir dir;
  ProcessResult result = RunKerrow({"--list-speakers", "--speaker-enroll-db", dir.File("none.txt")});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines, std::vector<std::string>{"{\"type\":\"speakers\",\"dim\":0,\"speakers\":[]}"});
  EXPECT_FALSE(Exists(dir.File("none.txt")));
}

TEST_F(SpeakerDbProcessTest, ListPrintsTheWholeDatabase) {
  ProcessResult result = Kerrow({"--list-speakers"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{
                "{\"type\":\"speakers\",\"dim\":2,\"speakers\":["
                "{\"id\":\"" + kIdA + "\",\"name\":\"Sam\",\"count\":2,\"voiceprints\":["
                "{\"md5\":\"" + kMd5A + "\",\"sample\":\"" + Sample(kMd5A) + "\"},{\"md5\":\"\",\"sample\":\"\"}]},"
                "{\"id\":\"" + kIdC + "\",\"name\":\"Kim Lee\",\"count\":1,\"voiceprints\":["
                "{\"md5\":\"" + kMd5C + "\",\"sample\":\"" + Sample(kMd5C) + "\"}]},"
                "{\"id\":\"" + kIdB + "\",\"name\":\"Sam\",\"count\":1,\"voiceprints\":["
                "{\"md5\":\"" + kMd5B + "\",\"sample\":\"" + Sample(kMd5B) + "\"}]}]}"});
  EXPECT_EQ(result.stderr_text, "");
  EXPECT_EQ(ReadFileBytes(Db()), ThreeSpeakerDb());
}

TEST_F(SpeakerDbProcessTest, ListOfUppercaseMd5FailsAndLeavesFile) {
  const std::string text = "speaker-enroll v2\ndim 1\nspeaker A\nemb D41D8CD98F00B204E9800998ECF8427E 1\n";
  WriteFileBytes(Db(), text);
  ProcessResult result = Kerrow({"--list-speakers"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"message\":\"list: bad emb token 'D41D8CD98F00B204E9800998ECF8427E' at line 4\",\"type\":\"error\"}"});
  EXPECT_EQ(ReadFileBytes(Db()), text);
}

TEST_F(SpeakerDbProcessTest, BareDatabaseNameFindsSamplesUnderWorkingDirectory) {
  ProcessResult list = RunKerrow({"--list-speakers", "--speaker-enroll-db", "db.txt"}, "", -1, "",
                                 std::chrono::seconds(60), dir_.path());
  EXPECT_EQ(list.exit_status, 0);
  ASSERT_EQ(list.stdout_lines.size(), 1u);
  EXPECT_NE(list.stdout_lines[0].find("\"sample\":\"samples/" + kMd5C + ".wav\""), std::string::npos)
      << list.stdout_lines[0];

  ProcessResult removal = RunKerrow({"--unregister-md5", kMd5C, "--speaker-enroll-db", "db.txt"}, "", -1,
                                    "", std::chrono::seconds(60), dir_.path());
  EXPECT_EQ(removal.exit_status, 0);
  EXPECT_EQ(removal.stdout_lines,
            std::vector<std::string>{"{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"\",\"name\":\"Kim Lee\",\"removed\":[\"" + kMd5C + "\"]}"});
  EXPECT_FALSE(Exists(Sample(kMd5C)));
}

TEST(SpeakerDbProcess, MigrateOfMissingDatabaseCreatesNothing) {
  TempDir dir;
  ProcessResult result = RunKerrow({"--migrate-speakers", "--speaker-enroll-db", dir.File("none.txt")});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines, std::vector<std::string>{"{\"type\":\"speakers\",\"dim\":0,\"speakers\":[]}"});
  EXPECT_FALSE(Exists(dir.File("none.txt")));
}

TEST_F(SpeakerDbProcessTest, MigrateWritesCurrentFormAndKeepsIdsTheSecondTime) {
  WriteFileBytes(Db(), "speaker-enroll\ndim 2\nspeaker Sam\nemb " + kMd5A + " 1 0\nspeaker Kim\nemb 0.5 0.5\n"
                       "speaker Sam\nemb -1 0\n");
  ProcessResult first = Kerrow({"--migrate-speakers"});
  EXPECT_EQ(first.exit_status, 0);
  ASSERT_EQ(first.stdout_lines.size(), 1u);
  const std::string migrated = ReadFileBytes(Db());
  // The ids are new; read them back from the file to write out the expected text.
  const size_t sam_id_at = migrated.find("\nid ") + 4;
  const std::string sam_id = migrated.substr(sam_id_at, 36);
  const std::string kim_id = migrated.substr(migrated.find("\nid ", sam_id_at) + 4, 36);
  EXPECT_EQ(migrated, "speaker-enroll v2\ndim 2\nspeaker Sam\nid " + sam_id + "\nemb " + kMd5A +
                          " 1.000000000e+00 0.000000000e+00\nemb - -1.000000000e+00 0.000000000e+00\n"
                          "speaker Kim\nid " + kim_id + "\nemb - 5.000000000e-01 5.000000000e-01\n");
  EXPECT_EQ(first.stdout_lines[0],
            "{\"type\":\"speakers\",\"dim\":2,\"speakers\":["
            "{\"id\":\"" + sam_id + "\",\"name\":\"Sam\",\"count\":2,\"voiceprints\":["
            "{\"md5\":\"" + kMd5A + "\",\"sample\":\"" + Sample(kMd5A) + "\"},{\"md5\":\"\",\"sample\":\"\"}]},"
            "{\"id\":\"" + kim_id + "\",\"name\":\"Kim\",\"count\":1,\"voiceprints\":["
            "{\"md5\":\"\",\"sample\":\"\"}]}]}");

  ProcessResult second = Kerrow({"--migrate-speakers"});
  EXPECT_EQ(second.exit_status, 0);
  EXPECT_EQ(second.stdout_lines, first.stdout_lines);
  EXPECT_EQ(ReadFileBytes(Db()), migrated);
}

TEST_F(SpeakerDbProcessTest, RenameRewritesOnlyThatName) {
  ProcessResult result = Kerrow({"--rename-speaker-id", kIdC, "--rename-speaker-name", "Kim \"the\" Lee"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"type\":\"ok\",\"status\":\"renamed\",\"id\":\"" + kIdC +
                                     "\",\"name\":\"Kim \\\"the\\\" Lee\"}"});
  std::string expected = ThreeSpeakerDb();
  expected.replace(expected.find("Kim Lee"), 7, "Kim \"the\" Lee");
  EXPECT_EQ(ReadFileBytes(Db()), expected);
}

TEST_F(SpeakerDbProcessTest, RenameOfUnknownIdIsNotFoundWithStatusZero) {
  ProcessResult result = Kerrow({"--rename-speaker-id", "nobody", "--rename-speaker-name", "X"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"type\":\"ok\",\"status\":\"not_found\",\"id\":\"nobody\"}"});
  EXPECT_EQ(ReadFileBytes(Db()), ThreeSpeakerDb());
}

TEST_F(SpeakerDbProcessTest, RenameWithoutNewNameIsAnError) {
  ProcessResult result = Kerrow({"--rename-speaker-id", kIdA});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"message\":\"rename requires --rename-speaker-id ID and --rename-speaker-name NAME\",\"type\":\"error\"}"});
  EXPECT_EQ(ReadFileBytes(Db()), ThreeSpeakerDb());
}

TEST_F(SpeakerDbProcessTest, UnregisterByNameSharedByTwoRemovesBothAndTheirSamples) {
  ProcessResult result = Kerrow({"--unregister-name", "Sam"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"\",\"name\":\"Sam\","
                                     "\"removed\":[\"" + kMd5A + "\",\"" + kMd5B + "\"]}"});
  EXPECT_EQ(ReadFileBytes(Db()), "speaker-enroll v2\ndim 2\nspeaker Kim Lee\nid " + kIdC + "\nemb " + kMd5C +
                                     " 5.000000000e-01 5.000000000e-01\n");
  EXPECT_FALSE(Exists(Sample(kMd5A)));
  EXPECT_FALSE(Exists(Sample(kMd5B)));
  EXPECT_TRUE(Exists(Sample(kMd5C)));
}

TEST_F(SpeakerDbProcessTest, UnregisterWithIdAndNameUsesOnlyTheId) {
  ProcessResult result = Kerrow({"--unregister-speaker-id", kIdB, "--unregister-name", "Kim Lee"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"" + kIdB +
                                     "\",\"name\":\"Sam\",\"removed\":[\"" + kMd5B + "\"]}"});
  EXPECT_EQ(ReadFileBytes(Db()), "speaker-enroll v2\ndim 2\n"
                                 "speaker Sam\nid " + kIdA + "\nemb " + kMd5A + " 1.000000000e+00 0.000000000e+00\n"
                                 "emb - 0.000000000e+00 1.000000000e+00\n"
                                 "speaker Kim Lee\nid " + kIdC + "\nemb " + kMd5C + " 5.000000000e-01 5.000000000e-01\n");
  EXPECT_FALSE(Exists(Sample(kMd5B)));
  EXPECT_TRUE(Exists(Sample(kMd5C)));
}

TEST_F(SpeakerDbProcessTest, UnregisterOnlyVoiceprintByMd5RemovesSpeaker) {
  ProcessResult result = Kerrow({"--unregister-md5", kMd5C});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"\",\"name\":\"Kim Lee\","
                                     "\"removed\":[\"" + kMd5C + "\"]}"});
  EXPECT_EQ(ReadFileBytes(Db()).find("Kim Lee"), std::string::npos);
  EXPECT_FALSE(Exists(Sample(kMd5C)));
}

TEST_F(SpeakerDbProcessTest, UnregisterOfUnknownMd5IsNotFoundAndTouchesNothing) {
  ProcessResult result = Kerrow({"--unregister-md5", kMd5A.substr(0, 31) + "0"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"type\":\"ok\",\"status\":\"not_found\",\"md5\":\"" + kMd5A.substr(0, 31) + "0\"}"});
  EXPECT_EQ(ReadFileBytes(Db()), ThreeSpeakerDb());
  EXPECT_TRUE(Exists(Sample(kMd5A)));
}

TEST_F(SpeakerDbProcessTest, UnregisterFromMalformedDatabaseFailsWithStatusOne) {
  const std::string text = "speaker-enroll v2\ndim 2\nid " + kIdA + "\n";
  WriteFileBytes(Db(), text);
  ProcessResult result = Kerrow({"--unregister-speaker-id", kIdA});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"message\":\"unregister: id before any speaker at line 3\",\"type\":\"error\"}"});
  EXPECT_EQ(ReadFileBytes(Db()), text);
  EXPECT_TRUE(Exists(Sample(kMd5A)));
}

TEST(SpeakerDbProcess, UnregisterInMissingDirectoryIsNotFoundAndCreatesNothing) {
  TempDir dir;
  ProcessResult result =
      RunKerrow({"--unregister-name", "Sam", "--speaker-enroll-db", dir.File("missing/db.txt")});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines,
            std::vector<std::string>{"{\"type\":\"ok\",\"status\":\"not_found\",\"name\":\"Sam\"}"});
  EXPECT_FALSE(Exists(dir.File("missing")));
}

TEST_F(SpeakerDbProcessTest, ListComesBeforeMigrateWhenBothAreGiven) {
  const std::string legacy = "speaker-enroll\ndim 1\nspeaker Old\nemb 1\n";
  WriteFileBytes(Db(), legacy);
  ProcessResult result = Kerrow({"--migrate-speakers", "--list-speakers"});
  EXPECT_EQ(result.exit_status, 0);
  ASSERT_EQ(result.stdout_lines.size(), 1u);
  EXPECT_EQ(result.stdout_lines[0].rfind("{\"type\":\"speakers\",\"dim\":1,\"speakers\":[{\"id\":\"", 0), 0u);
  EXPECT_EQ(ReadFileBytes(Db()), legacy);
}

}  // namespace
}  // namespace kerrow::testing
