#include "speaker/enroll_db.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <limits>
#include <regex>
#include <string>
#include <vector>

#include "speaker/enroll_db_test_util.h"
#include "speaker/uuid.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


// Alice (two voiceprints, one without md5) and Bob Smith, dimension 3.
std::string TwoSpeakerDb() {
  return Lines({"speaker-enroll v2", "dim 3", "speaker Alice", std::string("id ") + kIdA,
                std::string("emb ") + kMd5A + " 1.250000000e-01 -2.500000000e-01 3.000000000e+00",
                "emb - 5.000000000e-01 5.000000000e-01 5.000000000e-01", "speaker Bob Smith",
                std::string("id ") + kIdB,
                std::string("emb ") + kMd5B + " 1.000000000e+00 0.000000000e+00 -1.000000000e+00"});
}

struct LoadedDb {
  bool ok = false;
  int dim = -7;
  std::vector<EnrollEntry> entries;
  std::string error;
};

LoadedDb Load(const std::string& path) {
  LoadedDb db;
  db.ok = LoadEnrollDb(path, &db.dim, &db.entries, &db.error);
  return db;
}

// Loads a database written from `text` and returns the load's message.
std::string LoadErrorOf(const std::string& text) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"), text);
  LoadedDb db = Load(dir.File("db.txt"));
  EXPECT_FALSE(db.ok);
  EXPECT_EQ(db.dim, 0);
  EXPECT_TRUE(db.entries.empty());
  return db.error;
}

bool IsUuidV4Text(const std::string& text) {
  static const std::regex kForm("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  return std::regex_match(text, kForm);
}

// ---- Loading -------------------------------------------------------------

TEST(LoadEnrollDb, MissingPathLoadsAsEmptyDatabase) {
  TempDir dir;
  std::vector<EnrollEntry> entries(2);
  int dim = 9;
  std::string error;
  EXPECT_TRUE(LoadEnrollDb(dir.File("absent.txt"), &dim, &entries, &error));
  EXPECT_EQ(dim, 0);
  EXPECT_TRUE(entries.empty());
  EXPECT_EQ(error, "");
}

TEST(LoadEnrollDb, ReadsSpeakersIdsAndVoiceprintsInFileOrder) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"), TwoSpeakerDb());
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  EXPECT_EQ(db.dim, 3);
  ASSERT_EQ(db.entries.size(), 2u);
  EXPECT_EQ(db.entries[0].id, kIdA);
  EXPECT_EQ(db.entries[0].name, "Alice");
  ASSERT_EQ(db.entries[0].samples.size(), 2u);
  EXPECT_EQ(db.entries[0].samples[0].md5, kMd5A);
  EXPECT_EQ(db.entries[0].samples[0].embedding, (std::vector<float>{0.125f, -0.25f, 3.0f}));
  EXPECT_EQ(db.entries[0].samples[1].md5, "");
  EXPECT_EQ(db.entries[0].samples[1].embedding, (std::vector<float>{0.5f, 0.5f, 0.5f}));
  EXPECT_EQ(db.entries[1].id, kIdB);
  EXPECT_EQ(db.entries[1].name, "Bob Smith");
  ASSERT_EQ(db.entries[1].samples.size(), 1u);
  EXPECT_EQ(db.entries[1].samples[0].embedding, (std::vector<float>{1.0f, 0.0f, -1.0f}));
}

TEST(LoadEnrollDb, DimLineWithoutHeaderLoads) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"), "dim 4\n");
  LoadedDb db = Load(dir.File("db.txt"));
  EXPECT_TRUE(db.ok) << db.error;
  EXPECT_EQ(db.dim, 4);
  EXPECT_TRUE(db.entries.empty());
}

TEST(LoadEnrollDb, SpeakerWithoutHeaderFailsWithHeaderMessage) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"), "dim 4\nspeaker Alice\n");
  LoadedDb db = Load(dir.File("db.txt"));
  EXPECT_FALSE(db.ok);
  EXPECT_EQ(db.error, "missing 'speaker-enroll' header in " + dir.File("db.txt"));
  EXPECT_EQ(db.dim, 0);
  EXPECT_TRUE(db.entries.empty());
}

TEST(LoadEnrollDb, LegacyBareHeaderCountsAsHeader) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"), "speaker-enroll\ndim 2\nspeaker Old\nemb 1 2\n");
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 1u);
  EXPECT_EQ(db.entries[0].name, "Old");
}

TEST(LoadEnrollDb, SpeakerLineWithTwoSpacesKeepsOneLeadingSpace) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"), "speaker-enroll v2\nspeaker  Alice  \r\n");
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 1u);
  EXPECT_EQ(db.entries[0].name, " Alice");
}

TEST(LoadEnrollDb, TrailingTabStaysPartOfName) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"), "speaker-enroll v2\nspeaker Alice\t\n");
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 1u);
  EXPECT_EQ(db.entries[0].name, "Alice\t");
}

TEST(LoadEnrollDb, WindowsLineEndingsLoadTheSame) {
  TempDir dir;
  std::string text = TwoSpeakerDb();
  std::string crlf;
  for (char c : text) crlf += (c == '\n') ? std::string("\r\n") : std::string(1, c);
  WriteFileBytes(dir.File("db.txt"), crlf);
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  EXPECT_EQ(db.dim, 3);
  ASSERT_EQ(db.entries.size(), 2u);
  EXPECT_EQ(db.entries[1].id, kIdB);
  EXPECT_EQ(db.entries[1].name, "Bob Smith");
  EXPECT_EQ(db.entries[0].samples.size(), 2u);
}

TEST(LoadEnrollDb, EmbLineWithTooFewOrTooManyComponentsIsDroppedSilently) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"),
                 Lines({"speaker-enroll v2", "dim 3", "speaker Alice", "emb - 1 2",
                        "emb - 1 2 3 4", "emb - 7 8 9"}));
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 1u);
  ASSERT_EQ(db.entries[0].samples.size(), 1u);
  EXPECT_EQ(db.entries[0].samples[0].embedding, (std::vector<float>{7, 8, 9}));
}

TEST(LoadEnrollDb, TextAfterTheLastFloatIsIgnored) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"),
                 Lines({"speaker-enroll v2", "dim 2", "speaker Alice", "emb - 1 2 trailing 5"}));
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries[0].samples.size(), 1u);
  EXPECT_EQ(db.entries[0].samples[0].embedding, (std::vector<float>{1, 2}));
}

TEST(LoadEnrollDb, UppercaseMd5FailsWithBadTokenMessage) {
  EXPECT_EQ(LoadErrorOf(Lines({"speaker-enroll v2", "dim 2", "speaker Alice",
                               "emb D41D8CD98F00B204E9800998ECF8427E 1 2"})),
            "bad emb token 'D41D8CD98F00B204E9800998ECF8427E' at line 4");
}

TEST(LoadEnrollDb, DigitLeadingUppercaseMd5IsReadAsNumberPrefixAndDropped) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"),
                 Lines({"speaker-enroll v2", "dim 2", "speaker Alice",
                        "emb 0123456789ABCDEF0123456789ABCDEF 1 2"}));
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 1u);
  EXPECT_TRUE(db.entries[0].samples.empty());
}

TEST(LoadEnrollDb, NumberPrefixOfFirstWordIsTheFirstComponent) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"),
                 Lines({"speaker-enroll v2", "dim 2", "speaker Alice", "emb 12AB 3"}));
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries[0].samples.size(), 1u);
  EXPECT_EQ(db.entries[0].samples[0].md5, "");
  EXPECT_EQ(db.entries[0].samples[0].embedding, (std::vector<float>{12, 3}));
}

TEST(LoadEnrollDb, LegacyEmbLineWithoutMd5LoadsWithEmptyMd5) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"),
                 Lines({"speaker-enroll", "dim 3", "speaker Alice", "emb 1.5 -2 0.25"}));
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries[0].samples.size(), 1u);
  EXPECT_EQ(db.entries[0].samples[0].md5, "");
  EXPECT_EQ(db.entries[0].samples[0].embedding, (std::vector<float>{1.5f, -2.0f, 0.25f}));
}

TEST(LoadEnrollDb, FirstComponentThatOverflowsIsABadToken) {
  EXPECT_EQ(LoadErrorOf(Lines({"speaker-enroll v2", "dim 2", "speaker Alice", "emb 1e99 2"})),
            "bad emb token '1e99' at line 4");
}

TEST(LoadEnrollDb, WordThatIsNoNumberIsABadToken) {
  EXPECT_EQ(LoadErrorOf(Lines({"speaker-enroll v2", "dim 2", "speaker Alice", "emb xyz 1 2"})),
            "bad emb token 'xyz' at line 4");
}

TEST(LoadEnrollDb, BadDimMessagesCountEmptyLines) {
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\n\ndim x\n"), "bad dim at line 3");
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\ndim 0\n"), "bad dim at line 2");
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\ndim -4\n"), "bad dim at line 2");
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\ndim\n"), "bad dim at line 2");
}

TEST(LoadEnrollDb, LaterDimLineReplacesEarlierOne) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"),
                 Lines({"speaker-enroll v2", "dim 3", "dim 2", "speaker Alice", "emb - 1 2"}));
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  EXPECT_EQ(db.dim, 2);
  EXPECT_EQ(db.entries[0].samples.size(), 1u);
}

TEST(LoadEnrollDb, LineErrorMessagesNameTheLine) {
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\nspeaker   \n"), "empty speaker name at line 2");
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\nspeaker\n"), "empty speaker name at line 2");
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\nid abc\n"), "id before any speaker at line 2");
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\nspeaker A\nid \r\n"), "empty speaker id at line 3");
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\ndim 2\nemb - 1 2\n"), "emb before any speaker at line 3");
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\nspeaker A\nemb - 1 2\n"), "emb before dim at line 3");
  EXPECT_EQ(LoadErrorOf("speaker-enroll v2\ndim 2\nspeaker A\n\nemb   \n"), "empty emb at line 5");
}

TEST(LoadEnrollDb, UnknownLinesAndCommentsAreIgnored) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"),
                 Lines({"# voiceprints", "speaker-enroll v2", "   ", "dim 2", "note whatever",
                        "speaker Alice", "embx 1 2", "emb - 1 2"}));
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 1u);
  EXPECT_EQ(db.entries[0].samples.size(), 1u);
}

TEST(LoadEnrollDb, TwoSpeakersOfOneNameWithDifferentIdsStayApart) {
  TempDir dir;
  const std::string text =
      Lines({"speaker-enroll v2", "dim 2", "speaker Sam", std::string("id ") + kIdA,
             std::string("emb ") + kMd5A + " 1.000000000e+00 2.000000000e+00", "speaker Sam",
             std::string("id ") + kIdB,
             std::string("emb ") + kMd5B + " 3.000000000e+00 4.000000000e+00"});
  WriteFileBytes(dir.File("db.txt"), text);
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 2u);
  EXPECT_EQ(db.entries[0].id, kIdA);
  EXPECT_EQ(db.entries[0].samples[0].md5, kMd5A);
  EXPECT_EQ(db.entries[1].id, kIdB);
  EXPECT_EQ(db.entries[1].name, "Sam");
  EXPECT_EQ(db.entries[1].samples[0].md5, kMd5B);

  // A rewrite (renaming someone else) keeps both entries exactly.
  bool found = false;
  ASSERT_TRUE(RenameEnrollById(dir.File("db.txt"), kIdA, "Sam", &found, nullptr));
  EXPECT_TRUE(found);
  EXPECT_EQ(ReadFileBytes(dir.File("db.txt")), text);
}

TEST(LoadEnrollDb, LegacyRepeatedSpeakerBlocksMergeIntoOneEntry) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"),
                 Lines({"speaker-enroll", "dim 2", "speaker Sam", "emb 1 2", "speaker Kim",
                        "emb 5 6", "speaker Sam", "emb 3 4"}));
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 2u);
  EXPECT_EQ(db.entries[0].name, "Sam");
  ASSERT_EQ(db.entries[0].samples.size(), 2u);
  EXPECT_EQ(db.entries[0].samples[1].embedding, (std::vector<float>{3, 4}));
  EXPECT_EQ(db.entries[1].name, "Kim");
}

TEST(LoadEnrollDb, EntriesWithoutIdGetFreshIdsInMemoryOnly) {
  TempDir dir;
  const std::string text = Lines({"speaker-enroll", "dim 2", "speaker A", "emb 1 2", "speaker B"});
  WriteFileBytes(dir.File("db.txt"), text);
  LoadedDb first = Load(dir.File("db.txt"));
  LoadedDb second = Load(dir.File("db.txt"));
  ASSERT_TRUE(first.ok && second.ok);
  ASSERT_EQ(first.entries.size(), 2u);
  EXPECT_TRUE(IsUuidV4Text(first.entries[0].id)) << first.entries[0].id;
  EXPECT_TRUE(IsUuidV4Text(first.entries[1].id)) << first.entries[1].id;
  EXPECT_NE(first.entries[0].id, first.entries[1].id);
  EXPECT_NE(first.entries[0].id, second.entries[0].id);
  EXPECT_EQ(ReadFileBytes(dir.File("db.txt")), text);
}

TEST(LoadEnrollDb, LaterIdLineReplacesIdOfSpeakerWithoutVoiceprints) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"),
                 Lines({"speaker-enroll v2", "speaker A", std::string("id ") + kIdA,
                        std::string("id ") + kIdB}));
  LoadedDb db = Load(dir.File("db.txt"));
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 1u);
  EXPECT_EQ(db.entries[0].id, kIdB);
}

TEST(LoadEnrollDb, NullOutputsAreAllowed) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"), TwoSpeakerDb());
  EXPECT_TRUE(LoadEnrollDb(dir.File("db.txt"), nullptr, nullptr, nullptr));
  WriteFileBytes(dir.File("bad.txt"), "dim x\n");
  EXPECT_FALSE(LoadEnrollDb(dir.File("bad.txt"), nullptr, nullptr, nullptr));
}

// ---- Writing through the edits --------------------------------------------

TEST(AppendEnrollEmbedding, IntoMissingPathCreatesTheFileInExactForm) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  bool already = true;
  std::string id;
  std::string error;
  ASSERT_TRUE(AppendEnrollEmbedding(path, "", "Ana María", kMd5A, {0.125f, -0.25f, 3.0f}, &error,
                                    &already, &id))
      << error;
  EXPECT_FALSE(already);
  EXPECT_TRUE(IsUuidV4Text(id)) << id;
  ASSERT_TRUE(AppendEnrollEmbedding(path, id, "Ana María", "", {-0.125f, 1.0f, 0.0f}, &error,
                                    &already, nullptr))
      << error;
  EXPECT_EQ(ReadFileBytes(path),
            Lines({"speaker-enroll v2", "dim 3", "speaker Ana María", "id " + id,
                   std::string("emb ") + kMd5A + " 1.250000000e-01 -2.500000000e-01 3.000000000e+00",
                   "emb - -1.250000000e-01 1.000000000e+00 0.000000000e+00"}));
}

TEST(AppendEnrollEmbedding, EmptyNameAndEmptyEmbeddingAreRefused) {
  TempDir dir;
  std::string error;
  bool already = true;
  EXPECT_FALSE(AppendEnrollEmbedding(dir.File("db.txt"), "", "", kMd5A, {1.0f}, &error, &already,
                                     nullptr));
  EXPECT_EQ(error, "register name is empty");
  EXPECT_FALSE(already);
  EXPECT_FALSE(AppendEnrollEmbedding(dir.File("db.txt"), "", "A", kMd5A, {}, &error, nullptr,
                                     nullptr));
  EXPECT_EQ(error, "register embedding is empty");
  EXPECT_FALSE(FileExists(dir.File("db.txt")));
}

TEST(AppendEnrollEmbedding, SameMd5TwiceReportsFirstSpeakerAndDoesNotRewrite) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  const ino_t inode = InodeOf(path);
  bool already = false;
  std::string id;
  std::string error;
  ASSERT_TRUE(AppendEnrollEmbedding(path, "", "Someone Else", kMd5B, {9, 9, 9}, &error, &already,
                                    &id));
  EXPECT_TRUE(already);
  EXPECT_EQ(id, kIdB);
  EXPECT_EQ(ReadFileBytes(path), TwoSpeakerDb());
  EXPECT_EQ(InodeOf(path), inode);
}

TEST(AppendEnrollEmbedding, EmptyMd5IsNeverADuplicate) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  bool already = true;
  ASSERT_TRUE(AppendEnrollEmbedding(path, kIdA, "Alice", "", {1, 1, 1}, nullptr, &already, nullptr));
  EXPECT_FALSE(already);
  EXPECT_EQ(Load(path).entries[0].samples.size(), 3u);
}

TEST(AppendEnrollEmbedding, DimensionMismatchIsRefused) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  std::string error;
  EXPECT_FALSE(AppendEnrollEmbedding(path, "", "C", kMd5C, {1, 2}, &error, nullptr, nullptr));
  EXPECT_EQ(error, "embedding dim 2 != existing DB dim 3");
  EXPECT_EQ(ReadFileBytes(path), TwoSpeakerDb());
}

TEST(AppendEnrollEmbedding, EmptyDatabaseTakesTheEmbeddingsDimension) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, "speaker-enroll v2\ndim 5\n");
  std::string error;
  ASSERT_TRUE(AppendEnrollEmbedding(path, "", "C", kMd5C, {1, 2}, &error, nullptr, nullptr)) << error;
  LoadedDb db = Load(path);
  EXPECT_EQ(db.dim, 2);
  ASSERT_EQ(db.entries.size(), 1u);
  EXPECT_EQ(db.entries[0].samples.size(), 1u);
}

TEST(AppendEnrollEmbedding, UnknownIdIsRefused) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  std::string error;
  EXPECT_FALSE(AppendEnrollEmbedding(path, kIdC, "C", kMd5C, {1, 2, 3}, &error, nullptr, nullptr));
  EXPECT_EQ(error, std::string("speaker id not found: ") + kIdC);
  EXPECT_EQ(ReadFileBytes(path), TwoSpeakerDb());
}

TEST(AppendEnrollEmbedding, ExistingIdGetsVoiceprintAndNewName) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  std::string id;
  ASSERT_TRUE(AppendEnrollEmbedding(path, kIdB, "Robert", kMd5C, {2, 2, 2}, nullptr, nullptr, &id));
  EXPECT_EQ(id, kIdB);
  LoadedDb db = Load(path);
  ASSERT_EQ(db.entries.size(), 2u);
  EXPECT_EQ(db.entries[1].name, "Robert");
  ASSERT_EQ(db.entries[1].samples.size(), 2u);
  EXPECT_EQ(db.entries[1].samples[1].md5, kMd5C);
}

TEST(AppendEnrollEmbedding, SameNameWithoutIdCreatesSecondSpeaker) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  std::string id;
  ASSERT_TRUE(AppendEnrollEmbedding(path, "", "Alice", kMd5C, {2, 2, 2}, nullptr, nullptr, &id));
  LoadedDb db = Load(path);
  ASSERT_EQ(db.entries.size(), 3u);
  EXPECT_EQ(db.entries[2].name, "Alice");
  EXPECT_EQ(db.entries[2].id, id);
  EXPECT_NE(id, kIdA);
  EXPECT_EQ(db.entries[0].samples.size(), 2u);
}

TEST(AppendEnrollEmbedding, MalformedDatabasePassesLoadMessageAndStaysUnchanged) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  const std::string text = "speaker-enroll v2\ndim 2\nspeaker A\nemb ZZ 1 2\n";
  WriteFileBytes(path, text);
  std::string error;
  EXPECT_FALSE(AppendEnrollEmbedding(path, "", "B", kMd5C, {1, 2}, &error, nullptr, nullptr));
  EXPECT_EQ(error, "bad emb token 'ZZ' at line 4");
  EXPECT_EQ(ReadFileBytes(path), text);
}

TEST(AppendEnrollEmbedding, OddNamesSurviveARoundTrip) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  const std::vector<std::string> names = {"Ana María", " leading space", "名字 测试", "tab\tinside",
                                          "ends with tab\t", "quote \" and \\ backslash", "a"};
  std::vector<std::string> ids;
  for (size_t i = 0; i < names.size(); ++i) {
    std::string id;
    std::string error;
    ASSERT_TRUE(AppendEnrollEmbedding(path, "", names[i], "", {static_cast<float>(i), 1}, &error,
                                      nullptr, &id))
        << error;
    ids.push_back(id);
  }
  LoadedDb db = Load(path);
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), names.size());
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(db.entries[i].name, names[i]);
    EXPECT_EQ(db.entries[i].id, ids[i]);
  }
}

TEST(AppendEnrollEmbedding, NameThatWouldNotReloadIsRefusedAndFileUnchanged) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  std::string error;
  EXPECT_FALSE(AppendEnrollEmbedding(path, "", "   ", kMd5C, {1, 2, 3}, &error, nullptr, nullptr));
  EXPECT_EQ(error, "speaker name is blank or holds a line break: '   '");
  EXPECT_FALSE(
      AppendEnrollEmbedding(path, "", "x\ndim 0", kMd5C, {1, 2, 3}, &error, nullptr, nullptr));
  EXPECT_EQ(error, "speaker name is blank or holds a line break: 'x\ndim 0'");
  EXPECT_EQ(ReadFileBytes(path), TwoSpeakerDb());
}

TEST(AppendEnrollEmbedding, FloatsSurviveARoundTripBitForBit) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  const std::vector<float> values = {std::numeric_limits<float>::denorm_min(),
                                     std::numeric_limits<float>::max(),
                                     -std::numeric_limits<float>::min(),
                                     -0.0f,
                                     0.1f,
                                     1.0f / 3.0f,
                                     -123456.789f};
  ASSERT_TRUE(AppendEnrollEmbedding(path, "", "A", kMd5A, values, nullptr, nullptr, nullptr));
  // The first component is read by a different conversion than the rest.
  std::vector<float> reversed(values.rbegin(), values.rend());
  ASSERT_TRUE(AppendEnrollEmbedding(path, "", "B", "", reversed, nullptr, nullptr, nullptr));
  WriteFileBytes(dir.File("legacy.txt"),
                 "speaker-enroll\ndim 2\nspeaker L\nemb 1.401298464e-45 1.401298464e-45\n");
  LoadedDb db = Load(path);
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 2u);
  ASSERT_EQ(db.entries[0].samples.size(), 1u);
  ASSERT_EQ(db.entries[1].samples.size(), 1u);
  EXPECT_EQ(std::memcmp(db.entries[0].samples[0].embedding.data(), values.data(),
                        values.size() * sizeof(float)),
            0);
  EXPECT_EQ(std::memcmp(db.entries[1].samples[0].embedding.data(), reversed.data(),
                        reversed.size() * sizeof(float)),
            0);
  LoadedDb legacy = Load(dir.File("legacy.txt"));
  ASSERT_TRUE(legacy.ok) << legacy.error;
  EXPECT_EQ(legacy.entries[0].samples.size(), 1u);
}

TEST(WriteEnrollDb, DatabaseInMissingDirectoryIsRefused) {
  TempDir dir;
  const std::string path = dir.File("nope/db.txt");
  std::string error;
  EXPECT_FALSE(AppendEnrollEmbedding(path, "", "A", kMd5A, {1, 2}, &error, nullptr, nullptr));
  EXPECT_EQ(error, "enroll DB directory does not exist: " + dir.File("nope") +
                       " (create it first, or pass a path under an existing directory)");
  EXPECT_FALSE(FileExists(dir.File("nope")));
}

TEST(WriteEnrollDb, ParentThatIsAFileIsRefused) {
  TempDir dir;
  WriteFileBytes(dir.File("plain"), "x");
  std::string error;
  EXPECT_FALSE(
      AppendEnrollEmbedding(dir.File("plain/db.txt"), "", "A", kMd5A, {1, 2}, &error, nullptr, nullptr));
  EXPECT_EQ(error, "enroll DB parent is not a directory: " + dir.File("plain"));
}

TEST(WriteEnrollDb, UnwritableDirectoryGivesCannotOpenAndLeavesFileAlone) {
  TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  const std::string message = RunInChild(
      [&path] {
        std::string error;
        AppendEnrollEmbedding(path, "", "C", kMd5C, {1, 2, 3}, &error, nullptr, nullptr);
        return error;
      },
      /*as_nobody=*/true);
  EXPECT_EQ(message, "cannot open enroll DB for write: " + path);
  EXPECT_EQ(ReadFileBytes(path), TwoSpeakerDb());
}

TEST(WriteEnrollDb, WriteProtectedFileIsNotReplaced) {
  TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  ASSERT_EQ(chmod(path.c_str(), 0444), 0);
  const std::string message = RunInChild(
      [&path] {
        std::string error;
        bool found = false;
        RenameEnrollById(path, kIdA, "Zed", &found, &error);
        return error;
      },
      /*as_nobody=*/true);
  EXPECT_EQ(message, "cannot open enroll DB for write: " + path);
  EXPECT_EQ(ReadFileBytes(path), TwoSpeakerDb());
  EXPECT_EQ(PermissionsOf(path), 0444u);
}

TEST(WriteEnrollDb, FailedWriteGivesWriteErrorKeepsOldFileAndLeavesNoTempFile) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  const std::string message = RunInChild(
      [&path] {
        // The file-size limit makes the kernel refuse the write part-way through.
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        limit.rlim_cur = limit.rlim_max = 200;
        setrlimit(RLIMIT_FSIZE, &limit);
        std::string error;
        AppendEnrollEmbedding(path, "", "C", kMd5C, {1, 2, 3}, &error, nullptr, nullptr);
        return error;
      },
      /*as_nobody=*/false);
  EXPECT_EQ(message, "write error on " + path);
  EXPECT_EQ(ReadFileBytes(path), TwoSpeakerDb());
  EXPECT_EQ(LeftoverTempFiles(dir.path(), "db.txt").size(), 0u);
}

TEST(WriteEnrollDb, RewriteKeepsPermissionBits) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  bool found = false;
  ASSERT_TRUE(RenameEnrollById(path, kIdA, "Alicia", &found, nullptr));
  EXPECT_TRUE(found);
  EXPECT_EQ(PermissionsOf(path), 0640u);
  EXPECT_EQ(Load(path).entries[0].name, "Alicia");
}

TEST(WriteEnrollDb, NewFileGetsDefaultPermissionsUnderUmask) {
  TempDir dir;
  const mode_t old_mask = umask(027);
  const bool ok =
      AppendEnrollEmbedding(dir.File("db.txt"), "", "A", kMd5A, {1, 2}, nullptr, nullptr, nullptr);
  umask(old_mask);
  ASSERT_TRUE(ok);
  EXPECT_EQ(PermissionsOf(dir.File("db.txt")), 0640u);
}

TEST(WriteEnrollDb, SymbolicLinkKeepsPointingAtTheRewrittenFile) {
  TempDir dir;
  ASSERT_EQ(mkdir(dir.File("real").c_str(), 0755), 0);
  WriteFileBytes(dir.File("real/db.txt"), TwoSpeakerDb());
  ASSERT_EQ(symlink("real/db.txt", dir.File("link.txt").c_str()), 0);
  bool found = false;
  ASSERT_TRUE(RenameEnrollById(dir.File("link.txt"), kIdB, "Bobby", &found, nullptr));
  struct stat link_status {};
  ASSERT_EQ(lstat(dir.File("link.txt").c_str(), &link_status), 0);
  EXPECT_TRUE(S_ISLNK(link_status.st_mode));
  EXPECT_EQ(Load(dir.File("real/db.txt")).entries[1].name, "Bobby");
}

TEST(WriteEnrollDb, SuccessfulWritesLeaveNoTempFiles) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(AppendEnrollEmbedding(path, "", "A", "", {1, 2}, nullptr, nullptr, nullptr));
  }
  EXPECT_TRUE(LeftoverTempFiles(dir.path(), "db.txt").empty());
}

// ---- Queries and removals --------------------------------------------------

TEST(EnrollDbContainsMd5, AnswersForPresentAbsentAndEmptyMd5) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  std::string error;
  EXPECT_TRUE(EnrollDbContainsMd5(path, kMd5B, &error));
  EXPECT_FALSE(EnrollDbContainsMd5(path, kMd5C, &error));
  EXPECT_FALSE(EnrollDbContainsMd5(path, "", &error));
  EXPECT_EQ(error, "");
  EXPECT_FALSE(EnrollDbContainsMd5(dir.File("absent.txt"), kMd5A, &error));
  EXPECT_EQ(error, "");
}

TEST(EnrollDbContainsMd5, UnloadableDatabaseGivesFalseWithMessage) {
  TempDir dir;
  WriteFileBytes(dir.File("db.txt"), "dim nope\n");
  std::string error;
  EXPECT_FALSE(EnrollDbContainsMd5(dir.File("db.txt"), kMd5A, &error));
  EXPECT_EQ(error, "bad dim at line 1");
}

TEST(RemoveEnrollByName, RemovesEverySpeakerOfTheNameAndCollectsTheirMd5s) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path,
                 Lines({"speaker-enroll v2", "dim 1", "speaker Sam", std::string("id ") + kIdA,
                        std::string("emb ") + kMd5A + " 1.000000000e+00", "emb - 2.000000000e+00",
                        "speaker Kim", std::string("id ") + kIdC,
                        std::string("emb ") + kMd5C + " 5.000000000e+00", "speaker Sam",
                        std::string("id ") + kIdB, std::string("emb ") + kMd5B + " 3.000000000e+00"}));
  std::vector<std::string> removed;
  bool found = false;
  std::string error;
  ASSERT_TRUE(RemoveEnrollByName(path, "Sam", &removed, &found, &error)) << error;
  EXPECT_TRUE(found);
  EXPECT_EQ(removed, (std::vector<std::string>{kMd5A, kMd5B}));
  EXPECT_EQ(ReadFileBytes(path),
            Lines({"speaker-enroll v2", "dim 1", "speaker Kim", std::string("id ") + kIdC,
                   std::string("emb ") + kMd5C + " 5.000000000e+00"}));
}

TEST(RemoveEnrollByName, NoMatchDoesNotRewrite) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  const ino_t inode = InodeOf(path);
  std::vector<std::string> removed;
  bool found = true;
  ASSERT_TRUE(RemoveEnrollByName(path, "alice", &removed, &found, nullptr));
  EXPECT_FALSE(found);
  EXPECT_TRUE(removed.empty());
  EXPECT_EQ(InodeOf(path), inode);
}

TEST(RemoveEnrollByName, NullFoundPointerWritesAnEmptyDatabaseThatStillLoads) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  ASSERT_TRUE(RemoveEnrollByName(path, "nobody", nullptr, nullptr, nullptr));
  EXPECT_EQ(ReadFileBytes(path), "speaker-enroll v2\n");
  EXPECT_TRUE(Load(path).ok);
}

TEST(RemoveEnrollById, RemovesTheSpeakerAndReportsItsName) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  std::vector<std::string> removed;
  bool found = false;
  std::string name;
  ASSERT_TRUE(RemoveEnrollById(path, kIdA, &removed, &found, &name, nullptr));
  EXPECT_TRUE(found);
  EXPECT_EQ(name, "Alice");
  EXPECT_EQ(removed, (std::vector<std::string>{kMd5A}));
  LoadedDb db = Load(path);
  ASSERT_EQ(db.entries.size(), 1u);
  EXPECT_EQ(db.entries[0].id, kIdB);
}

TEST(RemoveEnrollById, EmptyIdIsRefusedAndUnknownIdDoesNotRewrite) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  const ino_t inode = InodeOf(path);
  std::string error;
  bool found = true;
  EXPECT_FALSE(RemoveEnrollById(path, "", nullptr, &found, nullptr, &error));
  EXPECT_EQ(error, "speaker id is empty");
  EXPECT_TRUE(RemoveEnrollById(path, kIdC, nullptr, &found, nullptr, &error));
  EXPECT_FALSE(found);
  EXPECT_EQ(InodeOf(path), inode);
}

TEST(RemoveEnrollByMd5, RemovingLastVoiceprintRemovesTheSpeaker) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  bool found = false;
  std::string name;
  ASSERT_TRUE(RemoveEnrollByMd5(path, kMd5B, &found, &name, nullptr));
  EXPECT_TRUE(found);
  EXPECT_EQ(name, "Bob Smith");
  LoadedDb db = Load(path);
  ASSERT_EQ(db.entries.size(), 1u);
  EXPECT_EQ(db.entries[0].name, "Alice");
  EXPECT_EQ(db.entries[0].samples.size(), 2u);
}

// Only the speakers that lose their last voiceprint to this removal go; one
// that had none before was not asked about and stays.
TEST(RemoveEnrollByMd5, DropsOnlySpeakersItEmptiedAndNamesTheLastLoser) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path,
                 Lines({"speaker-enroll v2", "dim 1", "speaker Empty", std::string("id ") + kIdC,
                        "speaker A", std::string("id ") + kIdA,
                        std::string("emb ") + kMd5A + " 1.000000000e+00", "emb - 2.000000000e+00",
                        "speaker B", std::string("id ") + kIdB,
                        std::string("emb ") + kMd5A + " 3.000000000e+00"}));
  bool found = false;
  std::string name;
  ASSERT_TRUE(RemoveEnrollByMd5(path, kMd5A, &found, &name, nullptr));
  EXPECT_TRUE(found);
  EXPECT_EQ(name, "B");
  EXPECT_EQ(ReadFileBytes(path),
            Lines({"speaker-enroll v2", "dim 1", "speaker Empty", std::string("id ") + kIdC,
                   "speaker A", std::string("id ") + kIdA, "emb - 2.000000000e+00"}));
}

TEST(RemoveEnrollByMd5, EmptyMd5IsRefusedAndUnknownMd5DoesNotRewrite) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  const ino_t inode = InodeOf(path);
  std::string error;
  bool found = true;
  EXPECT_FALSE(RemoveEnrollByMd5(path, "", &found, nullptr, &error));
  EXPECT_EQ(error, "unregister md5 is empty");
  EXPECT_TRUE(RemoveEnrollByMd5(path, kMd5C, &found, nullptr, &error));
  EXPECT_FALSE(found);
  EXPECT_EQ(InodeOf(path), inode);
}

TEST(RenameEnrollById, RenamesOnlyThatSpeaker) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  bool found = false;
  ASSERT_TRUE(RenameEnrollById(path, kIdB, "Robert Smith", &found, nullptr));
  EXPECT_TRUE(found);
  std::string expected = TwoSpeakerDb();
  expected.replace(expected.find("Bob Smith"), 9, "Robert Smith");
  EXPECT_EQ(ReadFileBytes(path), expected);
}

TEST(RenameEnrollById, EmptyArgumentsAreRefused) {
  TempDir dir;
  std::string error;
  EXPECT_FALSE(RenameEnrollById(dir.File("db.txt"), "", "X", nullptr, &error));
  EXPECT_EQ(error, "speaker id is empty");
  EXPECT_FALSE(RenameEnrollById(dir.File("db.txt"), kIdA, "", nullptr, &error));
  EXPECT_EQ(error, "speaker name is empty");
}

TEST(RenameEnrollById, UnknownIdDoesNotRewriteWhenFoundIsAsked) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  const ino_t inode = InodeOf(path);
  bool found = true;
  ASSERT_TRUE(RenameEnrollById(path, kIdC, "X", &found, nullptr));
  EXPECT_FALSE(found);
  EXPECT_EQ(InodeOf(path), inode);
}

TEST(RenameEnrollById, UnknownIdWithoutFoundPointerWritesTheSameDatabaseBack) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, TwoSpeakerDb());
  const ino_t inode = InodeOf(path);
  ASSERT_TRUE(RenameEnrollById(path, kIdC, "X", nullptr, nullptr));
  EXPECT_NE(InodeOf(path), inode);
  EXPECT_EQ(ReadFileBytes(path), TwoSpeakerDb());
}

// ---- Migration -------------------------------------------------------------

TEST(MigrateEnrollDb, MissingPathCreatesNoFile) {
  TempDir dir;
  std::string error;
  EXPECT_TRUE(MigrateEnrollDb(dir.File("db.txt"), &error));
  EXPECT_FALSE(FileExists(dir.File("db.txt")));
}

TEST(MigrateEnrollDb, LegacyFileGetsHeaderAndIdsAndSecondRunKeepsThem) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, Lines({"speaker-enroll", "dim 2", "speaker Sam", "emb 1 2", "speaker Kim",
                              std::string("emb ") + kMd5A + " 3 4", "speaker Sam", "emb 5 6"}));
  std::string error;
  ASSERT_TRUE(MigrateEnrollDb(path, &error)) << error;
  const std::string migrated = ReadFileBytes(path);
  LoadedDb db = Load(path);
  ASSERT_EQ(db.entries.size(), 2u);
  EXPECT_EQ(migrated,
            Lines({"speaker-enroll v2", "dim 2", "speaker Sam", "id " + db.entries[0].id,
                   "emb - 1.000000000e+00 2.000000000e+00", "emb - 5.000000000e+00 6.000000000e+00",
                   "speaker Kim", "id " + db.entries[1].id,
                   std::string("emb ") + kMd5A + " 3.000000000e+00 4.000000000e+00"}));
  EXPECT_TRUE(IsUuidV4Text(db.entries[0].id));
  EXPECT_TRUE(IsUuidV4Text(db.entries[1].id));

  ASSERT_TRUE(MigrateEnrollDb(path, &error)) << error;
  EXPECT_EQ(ReadFileBytes(path), migrated);
}

TEST(MigrateEnrollDb, DatabaseWithDimButNoSpeakersIsRewrittenInCurrentForm) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, "dim 4\n");
  ASSERT_TRUE(MigrateEnrollDb(path, nullptr));
  EXPECT_EQ(ReadFileBytes(path), "speaker-enroll v2\ndim 4\n");
}

TEST(MigrateEnrollDb, SpeakersWithoutAnyDimStillReloadAfterMigration) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  WriteFileBytes(path, "speaker-enroll\nspeaker Sam\n");
  ASSERT_TRUE(MigrateEnrollDb(path, nullptr));
  LoadedDb db = Load(path);
  ASSERT_TRUE(db.ok) << db.error;
  ASSERT_EQ(db.entries.size(), 1u);
  EXPECT_EQ(ReadFileBytes(path), "speaker-enroll v2\nspeaker Sam\nid " + db.entries[0].id + "\n");
}

TEST(MigrateEnrollDb, MalformedFileFailsAndStaysUnchanged) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  const std::string text = "speaker-enroll\ndim 2\nspeaker Sam\nemb ABC 1 2\n";
  WriteFileBytes(path, text);
  std::string error;
  EXPECT_FALSE(MigrateEnrollDb(path, &error));
  EXPECT_EQ(error, "bad emb token 'ABC' at line 4");
  EXPECT_EQ(ReadFileBytes(path), text);
}

// ---- Ids ------------------------------------------------------------------

TEST(GenerateUuidV4, HasVersionFourAndRfcVariantInLowercase8_4_4_4_12Form) {
  for (int i = 0; i < 2000; ++i) {
    const std::string id = GenerateUuidV4();
    ASSERT_EQ(id.size(), 36u);
    EXPECT_EQ(id[14], '4') << id;
    EXPECT_NE(std::string("89ab").find(id[19]), std::string::npos) << id;
    EXPECT_TRUE(IsUuidV4Text(id)) << id;
  }
}

TEST(GenerateUuidV4, SuccessiveIdsDiffer) {
  std::vector<std::string> ids;
  for (int i = 0; i < 200; ++i) ids.push_back(GenerateUuidV4());
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
}

}  // namespace
}  // namespace kerrow::testing
