// An edit never writes back less than it read: a database that cannot be read
// whole is refused by every edit and left byte for byte as it was, while readers
// still get what is readable. Only regular files are ever replaced.

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "speaker/enroll_db.h"
#include "speaker/enroll_db_test_util.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


std::string IdLine(const std::string& id) { return "id " + id; }
std::string EmbLine(const std::string& md5, const std::string& values) {
  return "emb " + md5 + " " + values;
}

// A sound database of dimension 2 with Ann (kIdA) and Ben (kIdB), to which each
// case below adds one flaw.
std::vector<std::string> SoundLines() {
  return {"speaker-enroll v2", "dim 2",
          "speaker Ann",       IdLine(kIdA),
          EmbLine(kMd5A, "1.000000000e+00 0.000000000e+00"),
          "speaker Ben",       IdLine(kIdB),
          EmbLine(kMd5B, "0.000000000e+00 1.000000000e+00")};
}

struct FlawCase {
  std::string what;
  std::string text;
  std::string message;  // what follows "refusing to rewrite ..., which would lose line N: "
  int line = 0;
};

std::string RefusalFor(const FlawCase& flaw) {
  return "refusing to rewrite the enroll DB, which would lose line " + std::to_string(flaw.line) +
         ": " + flaw.message;
}

std::vector<FlawCase> FlawCases() {
  auto with = [](std::vector<std::string> extra) {
    std::vector<std::string> lines = SoundLines();
    lines.insert(lines.end(), extra.begin(), extra.end());
    return Lines(lines);
  };
  return {
      {"second dim", with({"dim 3"}), "dim 3 conflicts with dim 2 above it", 9},
      {"nan value", with({EmbLine(kMd5C, "nan 1.0")}),
       "voiceprint holds a value that is not a finite number", 9},
      {"inf value", with({EmbLine("-", "1.0 -inf")}),
       "voiceprint holds a value that is not a finite number", 9},
      {"nan first value", with({"emb nan 1.0"}), "voiceprint holds a value that is not a finite number",
       9},
      {"short voiceprint", with({EmbLine(kMd5C, "1.0")}), "voiceprint has 1 values where dim is 2", 9},
      {"long voiceprint", with({EmbLine(kMd5C, "1.0 2.0 3.0")}),
       "voiceprint has 3 values where dim is 2", 9},
      {"text after values", with({EmbLine(kMd5C, "1.0 2.0 x")}),
       "voiceprint holds text that is not a number ('x')", 9},
      {"id of another name", with({"speaker Cy", IdLine(kIdA), EmbLine(kMd5C, "1 1")}),
       std::string("speaker id ") + kIdA + " is also the id of speaker 'Ann'", 10},
      {"second id", with({IdLine(kIdC)}), "second id for speaker 'Ben'", 9},
      {"id written twice", with({"speaker Ann", IdLine(kIdA), EmbLine(kMd5C, "1 1")}),
       std::string("speaker id ") + kIdA + " appears a second time", 10},
      {"id-less block of a shared name",
       with({"speaker Ann", IdLine(kIdC), EmbLine(kMd5C, "1 1"), "speaker Ann", "emb - 2 2"}),
       "speaker 'Ann' has no id line and several speakers have that name", 12},
  };
}

// Every edit, each asked to change something it could find in the sound part.
std::vector<std::pair<std::string, std::function<bool(const std::string&, std::string*)>>> Edits() {
  return {
      {"append", [](const std::string& path, std::string* error) {
         return AppendEnrollEmbedding(path, "", "Dee", "", {0.5f, 0.5f}, error, nullptr, nullptr);
       }},
      {"append to id", [](const std::string& path, std::string* error) {
         return AppendEnrollEmbedding(path, kIdA, "Ann", "", {0.5f, 0.5f}, error, nullptr, nullptr);
       }},
      {"rename", [](const std::string& path, std::string* error) {
         bool found = false;
         return RenameEnrollById(path, kIdB, "Benedict", &found, error);
       }},
      {"remove by id", [](const std::string& path, std::string* error) {
         bool found = false;
         return RemoveEnrollById(path, kIdB, nullptr, &found, nullptr, error);
       }},
      {"remove by name", [](const std::string& path, std::string* error) {
         bool found = false;
         return RemoveEnrollByName(path, "Ben", nullptr, &found, error);
       }},
      {"remove by md5", [](const std::string& path, std::string* error) {
         bool found = false;
         return RemoveEnrollByMd5(path, kMd5B, &found, nullptr, error);
       }},
      {"migrate", [](const std::string& path, std::string* error) {
         return MigrateEnrollDb(path, error);
       }},
  };
}

TEST(EnrollDbRewrite, EveryEditRefusesAFlawedDatabaseAndLeavesItByteForByte) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  for (const FlawCase& flaw : FlawCases()) {
    for (const auto& [edit_name, edit] : Edits()) {
      SCOPED_TRACE(flaw.what + " / " + edit_name);
      WriteFileBytes(path, flaw.text);
      std::string error;
      EXPECT_FALSE(edit(path, &error));
      EXPECT_EQ(error, RefusalFor(flaw));
      EXPECT_EQ(ReadFileBytes(path), flaw.text);
    }
  }
}

TEST(EnrollDbRewrite, ReadersStillGetEveryUsableVoiceprintOfAFlawedDatabase) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  for (const FlawCase& flaw : FlawCases()) {
    SCOPED_TRACE(flaw.what);
    WriteFileBytes(path, flaw.text);
    int dim = 0;
    std::vector<EnrollEntry> entries;
    std::string error;
    ASSERT_TRUE(LoadEnrollDb(path, &dim, &entries, &error)) << error;
    ASSERT_GE(entries.size(), 2u);
    EXPECT_EQ(entries[0].name, "Ann");
    EXPECT_EQ(entries[1].name, "Ben");
    for (const EnrollEntry& entry : entries) {
      for (const EnrollSample& sample : entry.samples) {
        EXPECT_EQ(static_cast<int>(sample.embedding.size()), dim);
        for (float value : sample.embedding) EXPECT_TRUE(std::isfinite(value));
      }
    }
    EXPECT_FALSE(LoadEnrollDbForRewrite(path, nullptr, nullptr, &error));
    EXPECT_EQ(error, RefusalFor(flaw));
  }
}

TEST(EnrollDbRewrite, SoundDatabaseLoadsTheSameBothWays) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, Lines(SoundLines()));
  int dim = 0;
  std::vector<EnrollEntry> entries;
  std::string error;
  ASSERT_TRUE(LoadEnrollDbForRewrite(path, &dim, &entries, &error)) << error;
  EXPECT_EQ(dim, 2);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[1].id, kIdB);
  EXPECT_EQ(entries[1].samples[0].embedding, (std::vector<float>{0.0f, 1.0f}));
}

TEST(EnrollDbRewrite, LegacyFilesAreNotFlawed) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, Lines({"speaker-enroll", "dim 2", "speaker Sam", "emb 1 2", "speaker Kim",
                              "emb 5 6", "speaker Sam", "emb 3 4", "speaker Sam", IdLine(kIdA)}));
  std::string error;
  ASSERT_TRUE(MigrateEnrollDb(path, &error)) << error;
  int dim = 0;
  std::vector<EnrollEntry> entries;
  ASSERT_TRUE(LoadEnrollDbForRewrite(path, &dim, &entries, &error)) << error;
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].id, kIdA);
  EXPECT_EQ(entries[0].samples.size(), 2u);
  EXPECT_EQ(entries[1].name, "Kim");
}

// Ann without a voiceprint, then a second Ann: reading by name alone would fold
// the two into one entry and lose the first id.
TEST(EnrollDbRewrite, SpeakersWhoShareANameKeepTheirOwnIdentity) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  const std::string text = Lines({"speaker-enroll v2", "dim 2", "speaker Ann", IdLine(kIdA),
                                  "speaker Ann", IdLine(kIdB), EmbLine(kMd5B, "1.000000000e+00 2.000000000e+00")});
  WriteFileBytes(path, text);
  std::vector<EnrollEntry> entries;
  ASSERT_TRUE(LoadEnrollDb(path, nullptr, &entries, nullptr));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].id, kIdA);
  EXPECT_TRUE(entries[0].samples.empty());
  EXPECT_EQ(entries[1].id, kIdB);

  bool found = false;
  std::string error;
  ASSERT_TRUE(RenameEnrollById(path, kIdB, "Anna", &found, &error)) << error;
  ASSERT_TRUE(LoadEnrollDb(path, nullptr, &entries, nullptr));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].id, kIdA);
  EXPECT_EQ(entries[0].name, "Ann");
  EXPECT_EQ(entries[1].id, kIdB);
  EXPECT_EQ(entries[1].name, "Anna");
  EXPECT_EQ(entries[1].samples[0].md5, kMd5B);

  ASSERT_TRUE(RenameEnrollById(path, kIdA, "Anna", &found, &error)) << error;
  ASSERT_TRUE(LoadEnrollDb(path, nullptr, &entries, nullptr));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].id, kIdA);
  EXPECT_EQ(entries[1].id, kIdB);
}

TEST(EnrollDbRewrite, NonFiniteEmbeddingIsNeverStored) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  const float kNan = std::numeric_limits<float>::quiet_NaN();
  const float kInf = std::numeric_limits<float>::infinity();
  for (const std::vector<float>& embedding : {std::vector<float>{kNan, 1.0f},
                                              std::vector<float>{1.0f, -kInf}}) {
    std::string error;
    EXPECT_FALSE(AppendEnrollEmbedding(path, "", "Ann", kMd5A, embedding, &error, nullptr, nullptr));
    EXPECT_EQ(error, "register embedding holds a value that is not a finite number");
  }
  EXPECT_FALSE(FileExists(path));
}

// A database this user cannot read would otherwise look empty, and the next
// registration would replace it with one speaker.
TEST(EnrollDbRewrite, UnreadableDatabaseIsRefusedNotTakenForEmpty) {
  TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, Lines(SoundLines()));
  ASSERT_EQ(chmod(path.c_str(), 0222), 0);
  const std::string message = RunInChild(
      [&path] {
        std::string error;
        AppendEnrollEmbedding(path, "", "Dee", kMd5C, {0.5f, 0.5f}, &error, nullptr, nullptr);
        return error;
      },
      /*as_nobody=*/true);
  EXPECT_EQ(message, "cannot read enroll DB: " + path);
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
  EXPECT_EQ(ReadFileBytes(path), Lines(SoundLines()));
}

// ---- Kinds of path ----------------------------------------------------------

std::vector<std::string> EditErrors(const std::string& path) {
  std::vector<std::string> errors;
  for (const auto& [edit_name, edit] : Edits()) {
    std::string error;
    EXPECT_FALSE(edit(path, &error)) << edit_name;
    errors.push_back(error);
  }
  return errors;
}

TEST(EnrollDbRewrite, CharacterDeviceIsRefusedByEveryEditAndReader) {
  const std::string message = "enroll DB is not a regular file: /dev/null";
  for (const std::string& error : EditErrors("/dev/null")) EXPECT_EQ(error, message);
  std::string error;
  EXPECT_FALSE(LoadEnrollDb("/dev/null", nullptr, nullptr, &error));
  EXPECT_EQ(error, message);
  struct stat status {};
  ASSERT_EQ(stat("/dev/null", &status), 0);
  EXPECT_TRUE(S_ISCHR(status.st_mode));
}

// A FIFO with nobody writing would hang a plain open; it is refused at once.
TEST(EnrollDbRewrite, FifoIsRefusedWithoutBlockingAndStaysAFifo) {
  TempDir dir;
  const std::string path = dir.File("db.fifo");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  for (const std::string& error : EditErrors(path)) {
    EXPECT_EQ(error, "enroll DB is not a regular file: " + path);
  }
  std::string error;
  EXPECT_FALSE(LoadEnrollDb(path, nullptr, nullptr, &error));
  EXPECT_EQ(error, "enroll DB is not a regular file: " + path);
  struct stat status {};
  ASSERT_EQ(lstat(path.c_str(), &status), 0);
  EXPECT_TRUE(S_ISFIFO(status.st_mode));
}

TEST(EnrollDbRewrite, DirectoryIsRefused) {
  TempDir dir;
  for (const std::string& error : EditErrors(dir.path())) {
    EXPECT_EQ(error, "enroll DB is not a regular file: " + dir.path());
  }
}

TEST(EnrollDbRewrite, DanglingSymbolicLinkIsRefusedAndStaysALink) {
  TempDir dir;
  const std::string link = dir.File("db.txt");
  ASSERT_EQ(symlink("elsewhere/db.txt", link.c_str()), 0);
  for (const std::string& error : EditErrors(link)) {
    EXPECT_EQ(error, "enroll DB is a symbolic link to nothing: " + link);
  }
  // A reader sees an empty database, as for any missing file.
  std::vector<EnrollEntry> entries;
  EXPECT_TRUE(LoadEnrollDb(link, nullptr, &entries, nullptr));
  EXPECT_TRUE(entries.empty());
  struct stat status {};
  ASSERT_EQ(lstat(link.c_str(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
}

TEST(EnrollDbRewrite, SymbolicLinkToADeviceIsRefused) {
  TempDir dir;
  const std::string link = dir.File("db.txt");
  ASSERT_EQ(symlink("/dev/null", link.c_str()), 0);
  for (const std::string& error : EditErrors(link)) {
    EXPECT_EQ(error, "enroll DB is not a regular file: " + link);
  }
  struct stat status {};
  ASSERT_EQ(lstat(link.c_str(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
}

TEST(EnrollDbRewrite, SymbolicLinkToAFileIsWrittenThroughToItsTarget) {
  TempDir dir;
  const std::string target = dir.File("real.txt");
  const std::string link = dir.File("db.txt");
  WriteFileBytes(target, Lines(SoundLines()));
  ASSERT_EQ(symlink("real.txt", link.c_str()), 0);
  std::string error;
  ASSERT_TRUE(AppendEnrollEmbedding(link, "", "Dee", kMd5C, {0.5f, 0.5f}, &error, nullptr, nullptr))
      << error;
  struct stat status {};
  ASSERT_EQ(lstat(link.c_str(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
  std::vector<EnrollEntry> entries;
  ASSERT_TRUE(LoadEnrollDb(target, nullptr, &entries, nullptr));
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[2].name, "Dee");
}

}  // namespace
}  // namespace kerrow::testing
