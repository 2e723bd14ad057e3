// A process killed at any moment of a database write must leave either the old
// or the new complete file behind, byte for byte, and never a truncated one.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "speaker/atomic_file_writer.h"
#include "speaker/enroll_db.h"
#include "speaker/enroll_db_test_util.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


constexpr int kDim = 192;

// A database of `speakers` entries in the current form: written once as plain
// text, then normalised by a migration (one read and one write).
std::string BuildLargeDatabase(const std::string& path, int speakers) {
  std::string text = "speaker-enroll\ndim " + std::to_string(kDim) + "\n";
  for (int s = 0; s < speakers; ++s) {
    text += "speaker Speaker " + std::to_string(s) + "\nemb -";
    for (int i = 0; i < kDim; ++i) text += " " + std::to_string(((s * 31 + i) % 97) / 97.0 - 0.5);
    text += "\n";
  }
  WriteFileBytes(path, text);
  std::string error;
  EXPECT_TRUE(MigrateEnrollDb(path, &error)) << error;
  return ReadFileBytes(path);
}

void ExpectLoads(const std::string& path) {
  int dim = 0;
  std::vector<EnrollEntry> entries;
  std::string error;
  EXPECT_TRUE(LoadEnrollDb(path, &dim, &entries, &error)) << error;
  EXPECT_EQ(dim, kDim);
}

int WaitForChild(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

// Counts the steps of one uninterrupted write, so the next test can stop a
// writer after each of them.
int CountWriteSteps(const std::string& path, const std::string& contents) {
  int steps = 0;
  EXPECT_EQ(ReplaceFileAtomically(path, contents, [&steps] { ++steps; }), AtomicWriteStatus::kWritten);
  return steps;
}

TEST(EnrollDbCrashSafety, WriterKilledAfterEachStepLeavesOldOrNewFile) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  const std::string old_text = BuildLargeDatabase(path, 100);
  // The new content: the same database with one more speaker.
  std::vector<float> extra(kDim, 0.25f);
  ASSERT_TRUE(AppendEnrollEmbedding(path, "", "Late Comer", "", extra, nullptr, nullptr, nullptr));
  const std::string new_text = ReadFileBytes(path);
  ASSERT_GT(new_text.size(), 3u * 64 * 1024);  // several chunks, so kills land mid-data

  WriteFileBytes(path, old_text);
  const int steps = CountWriteSteps(dir.File("scratch.txt"), new_text);
  ASSERT_GE(steps, 6);
  // Steps in order: temp created, each chunk, synced, renamed, directory synced.
  const int rename_step = steps - 1;

  for (int kill_at = 1; kill_at <= steps; ++kill_at) {
    WriteFileBytes(path, old_text);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      int seen = 0;
      ReplaceFileAtomically(path, new_text, [&seen, kill_at] {
        if (++seen == kill_at) raise(SIGKILL);
      });
      _exit(0);
    }
    const int status = WaitForChild(pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "step " << kill_at;
    const std::string after = ReadFileBytes(path);
    if (kill_at < rename_step) {
      EXPECT_TRUE(after == old_text) << "killed after step " << kill_at << " of " << steps;
    } else {
      EXPECT_TRUE(after == new_text) << "killed after step " << kill_at << " of " << steps;
    }
    ExpectLoads(path);
    // At most the killed writer's own temporary file is left; earlier ones were
    // swept by the writers that came after them.
    EXPECT_LE(LeftoverTempFiles(dir.path(), "db.txt").size(), 1u) << "step " << kill_at;
  }

  ASSERT_TRUE(MigrateEnrollDb(path, nullptr));
  EXPECT_TRUE(LeftoverTempFiles(dir.path(), "db.txt").empty());
}

TEST(EnrollDbCrashSafety, EditKilledAtVaryingMomentsLeavesOldOrNewFile) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  const std::string old_text = BuildLargeDatabase(path, 600);
  int dim = 0;
  std::vector<EnrollEntry> entries;
  ASSERT_TRUE(LoadEnrollDb(path, &dim, &entries, nullptr));
  const std::string renamed_id = entries[300].id;

  // The edit under test renames one speaker; its result is known in advance.
  bool found = false;
  ASSERT_TRUE(RenameEnrollById(path, renamed_id, "Renamed Speaker", &found, nullptr));
  ASSERT_TRUE(found);
  const std::string new_text = ReadFileBytes(path);
  ASSERT_NE(new_text, old_text);

  // One uninterrupted edit tells how long the kill delays should spread over.
  WriteFileBytes(path, old_text);
  const auto started = std::chrono::steady_clock::now();
  const pid_t probe = fork();
  ASSERT_GE(probe, 0);
  if (probe == 0) _exit(RenameEnrollById(path, renamed_id, "Renamed Speaker", nullptr, nullptr) ? 0 : 1);
  WaitForChild(probe);
  const auto full_edit = std::chrono::steady_clock::now() - started;
  ASSERT_EQ(ReadFileBytes(path), new_text);

  constexpr int kTrials = 20;
  int saw_old = 0;
  int saw_new = 0;
  for (int trial = 0; trial < kTrials; ++trial) {
    WriteFileBytes(path, old_text);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      _exit(RenameEnrollById(path, renamed_id, "Renamed Speaker", nullptr, nullptr) ? 0 : 1);
    }
    std::this_thread::sleep_for(full_edit * trial / kTrials);
    kill(pid, SIGKILL);
    WaitForChild(pid);
    const std::string after = ReadFileBytes(path);
    const bool is_old = after == old_text;
    const bool is_new = after == new_text;
    EXPECT_TRUE(is_old || is_new) << "trial " << trial << ": " << after.size() << " bytes";
    saw_old += is_old ? 1 : 0;
    saw_new += is_new ? 1 : 0;
    ExpectLoads(path);
    EXPECT_LE(LeftoverTempFiles(dir.path(), "db.txt").size(), 1u) << "trial " << trial;
  }
  // Which outcome each kill produced depends on scheduling; both are correct.
  EXPECT_EQ(saw_old + saw_new, kTrials);

  ASSERT_TRUE(MigrateEnrollDb(path, nullptr));
  EXPECT_TRUE(LeftoverTempFiles(dir.path(), "db.txt").empty());
}

}  // namespace
}  // namespace kerrow::testing
