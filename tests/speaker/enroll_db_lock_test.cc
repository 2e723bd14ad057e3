// Edits of one database from processes started at the same moment take turns:
// none of them writes back a database that misses another's change.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "speaker/enroll_db.h"
#include "speaker/enroll_db_lock.h"
#include "speaker/enroll_db_test_util.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


constexpr int kWriters = 16;

// 32 lowercase hex digits that differ for every writer.
std::string Md5For(int writer) {
  std::string md5(32, 'a');
  md5[30] = "0123456789abcdef"[writer / 16];
  md5[31] = "0123456789abcdef"[writer % 16];
  return md5;
}

// Forks `count` children that each wait at a shared gate (a pipe that the parent
// closes once all exist), then run `body(i)` and exit with 0 when it succeeded.
// Returns how many children succeeded.
int RunAtOnceInChildren(int count, const std::function<bool(int)>& body) {
  int gate[2];
  if (pipe(gate) != 0) return -1;
  std::vector<pid_t> children;
  for (int i = 0; i < count; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      close(gate[1]);
      char byte = 0;
      while (read(gate[0], &byte, 1) < 0 && errno == EINTR) {
      }
      _exit(body(i) ? 0 : 1);
    }
    children.push_back(pid);
  }
  close(gate[0]);
  close(gate[1]);
  int succeeded = 0;
  for (pid_t pid : children) {
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) ++succeeded;
  }
  return succeeded;
}

TEST(EnrollDbLock, ConcurrentRegistrationsAllSurvive) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  const int succeeded = RunAtOnceInChildren(kWriters, [&path](int writer) {
    const float value = static_cast<float>(writer + 1);
    return AppendEnrollEmbedding(path, "", "Speaker " + std::to_string(writer), Md5For(writer),
                                 {value, -value, 0.5f}, nullptr, nullptr, nullptr);
  });
  EXPECT_EQ(succeeded, kWriters);
  std::vector<EnrollEntry> entries;
  std::string error;
  ASSERT_TRUE(LoadEnrollDbForRewrite(path, nullptr, &entries, &error)) << error;
  std::set<std::string> names;
  for (const EnrollEntry& entry : entries) names.insert(entry.name);
  EXPECT_EQ(entries.size(), static_cast<size_t>(kWriters));
  EXPECT_EQ(names.size(), static_cast<size_t>(kWriters));
}

// Half the writers rename, half add: every rename and every addition lands.
TEST(EnrollDbLock, ConcurrentRenamesAndAdditionsAllLand) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  std::vector<std::string> ids(kWriters / 2);
  for (int i = 0; i < kWriters / 2; ++i) {
    std::string id;
    ASSERT_TRUE(AppendEnrollEmbedding(path, "", "Old " + std::to_string(i), Md5For(i), {1, 2, 3},
                                      nullptr, nullptr, &id));
    ids[static_cast<size_t>(i)] = id;
  }
  const int succeeded = RunAtOnceInChildren(kWriters, [&](int writer) {
    const int half = kWriters / 2;
    if (writer < half) {
      bool found = false;
      return RenameEnrollById(path, ids[static_cast<size_t>(writer)], "New " + std::to_string(writer),
                              &found, nullptr) &&
             found;
    }
    return AppendEnrollEmbedding(path, "", "Added " + std::to_string(writer), Md5For(writer),
                                 {3, 2, 1}, nullptr, nullptr, nullptr);
  });
  EXPECT_EQ(succeeded, kWriters);
  std::vector<EnrollEntry> entries;
  ASSERT_TRUE(LoadEnrollDb(path, nullptr, &entries, nullptr));
  ASSERT_EQ(entries.size(), static_cast<size_t>(kWriters));
  for (int i = 0; i < kWriters / 2; ++i) {
    EXPECT_EQ(entries[static_cast<size_t>(i)].name, "New " + std::to_string(i));
  }
}

TEST(EnrollDbLock, HeldLockExcludesOthersUntilReleased) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  const std::string lock_path = EnrollDbLock::LockPathFor(path);
  EXPECT_EQ(lock_path, path + ".lock");
  auto try_lock = [&lock_path] {
    const int fd = open(lock_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool taken = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return taken;
  };
  {
    EnrollDbLock lock;
    std::string error;
    ASSERT_TRUE(lock.Acquire(path, &error)) << error;
    EXPECT_FALSE(try_lock());
  }
  EXPECT_TRUE(try_lock());
}

TEST(EnrollDbLock, LinksToOneDatabaseShareOneLock) {
  TempDir dir;
  WriteFileBytes(dir.File("real.txt"), "speaker-enroll v2\n");
  ASSERT_EQ(symlink("real.txt", dir.File("link.txt").c_str()), 0);
  EXPECT_EQ(EnrollDbLock::LockPathFor(dir.File("link.txt")), dir.File("real.txt") + ".lock");
}

TEST(EnrollDbLock, MissingDirectoryNeedsNoLockFile) {
  TempDir dir;
  EnrollDbLock lock;
  std::string error;
  EXPECT_TRUE(lock.Acquire(dir.File("missing/db.txt"), &error)) << error;
  EXPECT_FALSE(FileExists(dir.File("missing")));
}

// Edits that find nothing to do on a database that does not exist yet leave
// nothing behind, not even a lock file.
TEST(EnrollDbLock, NoOpEditOfAMissingDatabaseCreatesNoFile) {
  TempDir dir;
  const std::string path = dir.File("db.txt");
  bool found = true;
  EXPECT_TRUE(RenameEnrollById(path, "some-id", "X", &found, nullptr));
  EXPECT_FALSE(found);
  EXPECT_TRUE(MigrateEnrollDb(path, nullptr));
  EXPECT_TRUE(RemoveEnrollByName(path, "X", nullptr, &found, nullptr));
  EXPECT_TRUE(FilesStartingWith(dir.path(), "db.txt").empty());
}

}  // namespace
}  // namespace kerrow::testing
