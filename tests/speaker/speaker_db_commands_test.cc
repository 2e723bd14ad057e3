#include "speaker/speaker_db_commands.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/options.h"
#include "speaker/enroll_db.h"
#include "speaker/enroll_db_test_util.h"
#include "speaker/samples_dir.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


struct Outcome {
  int status = -1;
  std::string stdout_text;
};

Outcome RunCaptured(int (*command)(const Options&), const Options& options) {
  Outcome outcome;
  ::testing::internal::CaptureStdout();
  outcome.status = command(options);
  outcome.stdout_text = ::testing::internal::GetCapturedStdout();
  return outcome;
}

std::string S(const char* text) { return text; }

// Sam (two voiceprints, one without md5), Kim, and a second Sam; dimension 1.
std::string ThreeSpeakerDb() {
  return "speaker-enroll v2\ndim 1\n"
         "speaker Sam\nid " + S(kIdA) + "\nemb " + kMd5A + " 1.000000000e+00\nemb - 2.000000000e+00\n"
         "speaker Kim \"K\"\nid " + S(kIdC) + "\nemb " + kMd5C + " 3.000000000e+00\n"
         "speaker Sam\nid " + S(kIdB) + "\nemb " + kMd5B + " 4.000000000e+00\n";
}

class SpeakerDbCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    options_.speaker_enroll_db = dir_.File("db.txt");
    WriteFileBytes(dir_.File("db.txt"), ThreeSpeakerDb());
    ASSERT_TRUE(std::filesystem::create_directory(dir_.File("samples")));
    for (const char* md5 : {kMd5A, kMd5B, kMd5C}) WriteFileBytes(Sample(md5), "RIFF");
  }
  std::string Sample(const std::string& md5) const { return dir_.File("samples/" + md5 + ".wav"); }

  TempDir dir_;
  Options options_;
};

// ---- Samples directory ------------------------------------------------------

TEST(SamplesDirectoryFor, DefaultsToSamplesBesideTheDatabase) {
  Options options;
  options.speaker_enroll_db = "/data/voices/db.txt";
  EXPECT_EQ(SamplesDirectoryFor(options), "/data/voices/samples");
  EXPECT_EQ(SampleFilePathFor(options, kMd5A), S("/data/voices/samples/") + kMd5A + ".wav");
}

TEST(SamplesDirectoryFor, BareDatabaseNameUsesSamplesUnderWorkingDirectory) {
  Options options;
  options.speaker_enroll_db = "db.txt";
  EXPECT_EQ(SamplesDirectoryFor(options), "samples");
  EXPECT_EQ(SampleFilePathFor(options, kMd5A), S("samples/") + kMd5A + ".wav");
}

TEST(SamplesDirectoryFor, ExplicitDirectoryWins) {
  Options options;
  options.speaker_enroll_db = "/data/voices/db.txt";
  options.speaker_samples_dir = "/elsewhere/copies";
  EXPECT_EQ(SamplesDirectoryFor(options), "/elsewhere/copies");
  EXPECT_EQ(SampleFilePathFor(options, kMd5B), S("/elsewhere/copies/") + kMd5B + ".wav");
}

// ---- List -----------------------------------------------------------------

TEST(RunListSpeakers, WithoutDatabaseOptionIsAnError) {
  Outcome out = RunCaptured(RunListSpeakers, Options());
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text, "{\"message\":\"--list-speakers requires --speaker-enroll-db\",\"type\":\"error\"}\n");
}

TEST(RunListSpeakers, MissingDatabaseListsAsEmpty) {
  TempDir dir;
  Options options;
  options.speaker_enroll_db = dir.File("absent.txt");
  Outcome out = RunCaptured(RunListSpeakers, options);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"speakers\",\"dim\":0,\"speakers\":[]}\n");
  EXPECT_FALSE(FileExists(dir.File("absent.txt")));
}

TEST_F(SpeakerDbCommandsTest, ListShowsEverySpeakerAndVoiceprintInFileOrder) {
  Outcome out = RunCaptured(RunListSpeakers, options_);
  EXPECT_EQ(out.status, 0);
  const std::string samples = dir_.File("samples/");
  EXPECT_EQ(out.stdout_text,
            "{\"type\":\"speakers\",\"dim\":1,\"speakers\":["
            "{\"id\":\"" + S(kIdA) + "\",\"name\":\"Sam\",\"count\":2,\"voiceprints\":["
            "{\"md5\":\"" + kMd5A + "\",\"sample\":\"" + samples + kMd5A + ".wav\"},"
            "{\"md5\":\"\",\"sample\":\"\"}]},"
            "{\"id\":\"" + S(kIdC) + "\",\"name\":\"Kim \\\"K\\\"\",\"count\":1,\"voiceprints\":["
            "{\"md5\":\"" + kMd5C + "\",\"sample\":\"" + samples + kMd5C + ".wav\"}]},"
            "{\"id\":\"" + S(kIdB) + "\",\"name\":\"Sam\",\"count\":1,\"voiceprints\":["
            "{\"md5\":\"" + kMd5B + "\",\"sample\":\"" + samples + kMd5B + ".wav\"}]}]}\n");
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), ThreeSpeakerDb());
}

TEST_F(SpeakerDbCommandsTest, ListUsesExplicitSamplesDirectoryWhetherOrNotFilesExist) {
  options_.speaker_samples_dir = "/nowhere/copies";
  WriteFileBytes(dir_.File("db.txt"), "speaker-enroll v2\ndim 1\nspeaker 名字\nid " + S(kIdA) +
                                          "\nemb " + kMd5A + " 1.0\n");
  Outcome out = RunCaptured(RunListSpeakers, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text,
            "{\"type\":\"speakers\",\"dim\":1,\"speakers\":[{\"id\":\"" + S(kIdA) +
                "\",\"name\":\"名字\",\"count\":1,\"voiceprints\":[{\"md5\":\"" + kMd5A +
                "\",\"sample\":\"/nowhere/copies/" + kMd5A + ".wav\"}]}]}\n");
}

TEST_F(SpeakerDbCommandsTest, ListOfMalformedDatabaseFailsAndNeverRewritesIt) {
  const std::string text = "speaker-enroll v2\ndim 1\nspeaker A\nemb ABCDEF 1\n";
  WriteFileBytes(dir_.File("db.txt"), text);
  const ino_t inode = InodeOf(dir_.File("db.txt"));
  Outcome out = RunCaptured(RunListSpeakers, options_);
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text, "{\"message\":\"list: bad emb token 'ABCDEF' at line 4\",\"type\":\"error\"}\n");
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), text);
  EXPECT_EQ(InodeOf(dir_.File("db.txt")), inode);
}

TEST_F(SpeakerDbCommandsTest, ListOfLegacyFileShowsFreshIdsWithoutWritingThem) {
  const std::string text = "speaker-enroll\ndim 1\nspeaker Old\nemb 1.5\n";
  WriteFileBytes(dir_.File("db.txt"), text);
  Outcome out = RunCaptured(RunListSpeakers, options_);
  EXPECT_EQ(out.status, 0);
  const size_t id_at = out.stdout_text.find("{\"id\":\"");
  ASSERT_NE(id_at, std::string::npos);
  const std::string id = out.stdout_text.substr(id_at + 7, 36);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"speakers\",\"dim\":1,\"speakers\":[{\"id\":\"" + id +
                                 "\",\"name\":\"Old\",\"count\":1,\"voiceprints\":[{\"md5\":\"\",\"sample\":\"\"}]}]}\n");
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), text);
}

// ---- Migrate ----------------------------------------------------------------

TEST(RunMigrateSpeakers, WithoutDatabaseOptionIsAnError) {
  Outcome out = RunCaptured(RunMigrateSpeakers, Options());
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text, "{\"message\":\"--migrate-speakers requires --speaker-enroll-db\",\"type\":\"error\"}\n");
}

TEST(RunMigrateSpeakers, MissingDatabaseCreatesNoFileAndListsEmpty) {
  TempDir dir;
  Options options;
  options.speaker_enroll_db = dir.File("absent.txt");
  Outcome out = RunCaptured(RunMigrateSpeakers, options);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"speakers\",\"dim\":0,\"speakers\":[]}\n");
  EXPECT_FALSE(FileExists(dir.File("absent.txt")));
}

TEST_F(SpeakerDbCommandsTest, MigrateRewritesLegacyFileAndListsTheStoredIds) {
  WriteFileBytes(dir_.File("db.txt"), "speaker-enroll\ndim 1\nspeaker Sam\nemb " + S(kMd5A) +
                                          " 1\nspeaker Kim\nemb 2\nspeaker Sam\nemb 3\n");
  Outcome out = RunCaptured(RunMigrateSpeakers, options_);
  EXPECT_EQ(out.status, 0);
  int dim = 0;
  std::vector<EnrollEntry> entries;
  ASSERT_TRUE(LoadEnrollDb(dir_.File("db.txt"), &dim, &entries, nullptr));
  ASSERT_EQ(entries.size(), 2u);
  const std::string migrated = ReadFileBytes(dir_.File("db.txt"));
  EXPECT_EQ(migrated, "speaker-enroll v2\ndim 1\nspeaker Sam\nid " + entries[0].id + "\nemb " + kMd5A +
                          " 1.000000000e+00\nemb - 3.000000000e+00\nspeaker Kim\nid " + entries[1].id +
                          "\nemb - 2.000000000e+00\n");
  EXPECT_EQ(out.stdout_text,
            "{\"type\":\"speakers\",\"dim\":1,\"speakers\":["
            "{\"id\":\"" + entries[0].id + "\",\"name\":\"Sam\",\"count\":2,\"voiceprints\":["
            "{\"md5\":\"" + kMd5A + "\",\"sample\":\"" + Sample(kMd5A) + "\"},{\"md5\":\"\",\"sample\":\"\"}]},"
            "{\"id\":\"" + entries[1].id + "\",\"name\":\"Kim\",\"count\":1,\"voiceprints\":["
            "{\"md5\":\"\",\"sample\":\"\"}]}]}\n");

  Outcome again = RunCaptured(RunMigrateSpeakers, options_);
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.stdout_text, out.stdout_text);
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), migrated);
}

TEST_F(SpeakerDbCommandsTest, MigrateOfMalformedDatabaseFailsAndLeavesIt) {
  const std::string text = "speaker-enroll\nspeaker A\nid\n";
  WriteFileBytes(dir_.File("db.txt"), text);
  Outcome out = RunCaptured(RunMigrateSpeakers, options_);
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text, "{\"message\":\"migrate: empty speaker id at line 3\",\"type\":\"error\"}\n");
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), text);
}

// ---- Rename -----------------------------------------------------------------

TEST(RunRenameSpeaker, MissingOptionsAreErrors) {
  Options options;
  options.rename_speaker_id = kIdA;
  options.rename_speaker_name = "X";
  Outcome out = RunCaptured(RunRenameSpeaker, options);
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text, "{\"message\":\"rename requires --speaker-enroll-db\",\"type\":\"error\"}\n");

  options.speaker_enroll_db = "/tmp/never-written-db.txt";
  options.rename_speaker_name = "";
  out = RunCaptured(RunRenameSpeaker, options);
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text,
            "{\"message\":\"rename requires --rename-speaker-id ID and --rename-speaker-name NAME\",\"type\":\"error\"}\n");
  options.rename_speaker_name = "X";
  options.rename_speaker_id = "";
  out = RunCaptured(RunRenameSpeaker, options);
  EXPECT_EQ(out.stdout_text,
            "{\"message\":\"rename requires --rename-speaker-id ID and --rename-speaker-name NAME\",\"type\":\"error\"}\n");
  EXPECT_FALSE(FileExists("/tmp/never-written-db.txt"));
}

TEST_F(SpeakerDbCommandsTest, RenameChangesOnlyThatSpeaker) {
  options_.rename_speaker_id = kIdB;
  options_.rename_speaker_name = "Samuel \"Two\"";
  Outcome out = RunCaptured(RunRenameSpeaker, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"renamed\",\"id\":\"" + S(kIdB) +
                                 "\",\"name\":\"Samuel \\\"Two\\\"\"}\n");
  std::string expected = ThreeSpeakerDb();
  expected.replace(expected.rfind("speaker Sam"), 11, "speaker Samuel \"Two\"");
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), expected);
}

TEST_F(SpeakerDbCommandsTest, RenameOfUnknownIdIsNotFoundAndLeavesFile) {
  options_.rename_speaker_id = "no-such-id";
  options_.rename_speaker_name = "X";
  const ino_t inode = InodeOf(dir_.File("db.txt"));
  Outcome out = RunCaptured(RunRenameSpeaker, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"not_found\",\"id\":\"no-such-id\"}\n");
  EXPECT_EQ(InodeOf(dir_.File("db.txt")), inode);
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), ThreeSpeakerDb());
}

TEST_F(SpeakerDbCommandsTest, RenameOfMalformedDatabaseFails) {
  const std::string text = "speaker-enroll v2\ndim 0\n";
  WriteFileBytes(dir_.File("db.txt"), text);
  options_.rename_speaker_id = kIdA;
  options_.rename_speaker_name = "X";
  Outcome out = RunCaptured(RunRenameSpeaker, options_);
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text, "{\"message\":\"rename: bad dim at line 2\",\"type\":\"error\"}\n");
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), text);
}

TEST_F(SpeakerDbCommandsTest, RenameToBlankNameIsRefusedAndLeavesFile) {
  options_.rename_speaker_id = kIdA;
  options_.rename_speaker_name = "  ";
  Outcome out = RunCaptured(RunRenameSpeaker, options_);
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text,
            "{\"message\":\"rename: speaker name is blank or holds a line break: '  '\",\"type\":\"error\"}\n");
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), ThreeSpeakerDb());
}

// ---- Unregister -------------------------------------------------------------

TEST(RunUnregister, MissingOptionsAreErrors) {
  Options options;
  options.unregister_name = "Sam";
  Outcome out = RunCaptured(RunUnregister, options);
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text, "{\"message\":\"unregister requires --speaker-enroll-db\",\"type\":\"error\"}\n");
  options.unregister_name = "";
  options.speaker_enroll_db = "/tmp/never-written-db.txt";
  out = RunCaptured(RunUnregister, options);
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text,
            "{\"message\":\"unregister requires --unregister-name NAME or --unregister-md5 MD5\",\"type\":\"error\"}\n");
}

TEST_F(SpeakerDbCommandsTest, UnregisterByIdRemovesSpeakerAndItsSampleCopies) {
  options_.unregister_speaker_id = kIdA;
  Outcome out = RunCaptured(RunUnregister, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"" + S(kIdA) +
                                 "\",\"name\":\"Sam\",\"removed\":[\"" + kMd5A + "\"]}\n");
  EXPECT_FALSE(FileExists(Sample(kMd5A)));
  EXPECT_TRUE(FileExists(Sample(kMd5B)));
  EXPECT_TRUE(FileExists(Sample(kMd5C)));
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")),
            "speaker-enroll v2\ndim 1\nspeaker Kim \"K\"\nid " + S(kIdC) + "\nemb " + kMd5C +
                " 3.000000000e+00\nspeaker Sam\nid " + kIdB + "\nemb " + kMd5B + " 4.000000000e+00\n");
}

TEST_F(SpeakerDbCommandsTest, UnregisterByNameSharedByTwoSpeakersRemovesBoth) {
  options_.unregister_name = "Sam";
  Outcome out = RunCaptured(RunUnregister, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"\",\"name\":\"Sam\","
                             "\"removed\":[\"" + S(kMd5A) + "\",\"" + kMd5B + "\"]}\n");
  EXPECT_FALSE(FileExists(Sample(kMd5A)));
  EXPECT_FALSE(FileExists(Sample(kMd5B)));
  EXPECT_TRUE(FileExists(Sample(kMd5C)));
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), "speaker-enroll v2\ndim 1\nspeaker Kim \"K\"\nid " +
                                                    S(kIdC) + "\nemb " + kMd5C + " 3.000000000e+00\n");
}

TEST_F(SpeakerDbCommandsTest, UnregisterWithIdAndNameUsesOnlyTheId) {
  options_.unregister_speaker_id = kIdC;
  options_.unregister_name = "Sam";
  Outcome out = RunCaptured(RunUnregister, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"" + S(kIdC) +
                                 "\",\"name\":\"Kim \\\"K\\\"\",\"removed\":[\"" + kMd5C + "\"]}\n");
  int dim = 0;
  std::vector<EnrollEntry> entries;
  ASSERT_TRUE(LoadEnrollDb(dir_.File("db.txt"), &dim, &entries, nullptr));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].id, kIdA);
  EXPECT_EQ(entries[1].id, kIdB);
  EXPECT_TRUE(FileExists(Sample(kMd5A)));
}

TEST_F(SpeakerDbCommandsTest, UnregisterOnlyVoiceprintByMd5RemovesSpeakerAndSample) {
  options_.unregister_md5 = kMd5C;
  Outcome out = RunCaptured(RunUnregister, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"\",\"name\":\"Kim \\\"K\\\"\","
                             "\"removed\":[\"" + S(kMd5C) + "\"]}\n");
  EXPECT_FALSE(FileExists(Sample(kMd5C)));
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")),
            "speaker-enroll v2\ndim 1\nspeaker Sam\nid " + S(kIdA) + "\nemb " + kMd5A +
                " 1.000000000e+00\nemb - 2.000000000e+00\nspeaker Sam\nid " + kIdB + "\nemb " + kMd5B +
                " 4.000000000e+00\n");
}

TEST_F(SpeakerDbCommandsTest, UnregisterOneOfTwoVoiceprintsKeepsTheSpeaker) {
  options_.unregister_md5 = kMd5A;
  Outcome out = RunCaptured(RunUnregister, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"\",\"name\":\"Sam\","
                             "\"removed\":[\"" + S(kMd5A) + "\"]}\n");
  int dim = 0;
  std::vector<EnrollEntry> entries;
  ASSERT_TRUE(LoadEnrollDb(dir_.File("db.txt"), &dim, &entries, nullptr));
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].samples.size(), 1u);
}

TEST_F(SpeakerDbCommandsTest, UnregisterSpeakerWithoutTaggedVoiceprintsListsNothingRemoved) {
  WriteFileBytes(dir_.File("db.txt"), "speaker-enroll v2\ndim 1\nspeaker Old\nid " + S(kIdA) + "\nemb - 1.0\n");
  options_.unregister_name = "Old";
  Outcome out = RunCaptured(RunUnregister, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"\",\"name\":\"Old\",\"removed\":[]}\n");
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), "speaker-enroll v2\ndim 1\n");
  EXPECT_TRUE(FileExists(Sample(kMd5A)));
}

TEST_F(SpeakerDbCommandsTest, UnregisterWithMissingSampleCopyStillSucceeds) {
  ASSERT_TRUE(std::filesystem::remove(Sample(kMd5B)));
  options_.unregister_speaker_id = kIdB;
  Outcome out = RunCaptured(RunUnregister, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":\"" + S(kIdB) +
                                 "\",\"name\":\"Sam\",\"removed\":[\"" + kMd5B + "\"]}\n");
}

TEST_F(SpeakerDbCommandsTest, UnregisterDeletesCopiesInExplicitSamplesDirectory) {
  ASSERT_TRUE(std::filesystem::create_directory(dir_.File("copies")));
  WriteFileBytes(dir_.File("copies/" + S(kMd5C) + ".wav"), "RIFF");
  options_.speaker_samples_dir = dir_.File("copies");
  options_.unregister_md5 = kMd5C;
  Outcome out = RunCaptured(RunUnregister, options_);
  EXPECT_EQ(out.status, 0);
  EXPECT_FALSE(FileExists(dir_.File("copies/" + S(kMd5C) + ".wav")));
  EXPECT_TRUE(FileExists(Sample(kMd5C)));
}

TEST_F(SpeakerDbCommandsTest, UnregisterNotFoundRepliesByKindAndLeavesEverything) {
  const ino_t inode = InodeOf(dir_.File("db.txt"));
  Options by_id = options_;
  by_id.unregister_speaker_id = "nobody-id";
  Outcome out = RunCaptured(RunUnregister, by_id);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"not_found\",\"id\":\"nobody-id\"}\n");

  Options by_name = options_;
  by_name.unregister_name = "Nobody \"N\"";
  out = RunCaptured(RunUnregister, by_name);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"not_found\",\"name\":\"Nobody \\\"N\\\"\"}\n");

  Options by_md5 = options_;
  by_md5.unregister_md5 = "ABCDEF";
  out = RunCaptured(RunUnregister, by_md5);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"not_found\",\"md5\":\"ABCDEF\"}\n");

  EXPECT_EQ(InodeOf(dir_.File("db.txt")), inode);
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), ThreeSpeakerDb());
  for (const char* md5 : {kMd5A, kMd5B, kMd5C}) EXPECT_TRUE(FileExists(Sample(md5)));
}

TEST_F(SpeakerDbCommandsTest, UnregisterFromMalformedDatabaseFailsAndLeavesIt) {
  const std::string text = "speaker-enroll v2\nemb - 1\n";
  WriteFileBytes(dir_.File("db.txt"), text);
  options_.unregister_md5 = kMd5A;
  Outcome out = RunCaptured(RunUnregister, options_);
  EXPECT_EQ(out.status, 1);
  EXPECT_EQ(out.stdout_text, "{\"message\":\"unregister: emb before any speaker at line 2\",\"type\":\"error\"}\n");
  EXPECT_EQ(ReadFileBytes(dir_.File("db.txt")), text);
  EXPECT_TRUE(FileExists(Sample(kMd5A)));
}

TEST(RunUnregister, DatabaseInMissingDirectoryIsNotFoundAndCreatesNothing) {
  TempDir dir;
  Options options;
  options.speaker_enroll_db = dir.File("missing/db.txt");
  options.unregister_name = "Sam";
  Outcome out = RunCaptured(RunUnregister, options);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.stdout_text, "{\"type\":\"ok\",\"status\":\"not_found\",\"name\":\"Sam\"}\n");
  EXPECT_FALSE(FileExists(dir.File("missing")));
}

}  // namespace
}  // namespace kerrow::testing
