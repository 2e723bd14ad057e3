#include "speaker/atomic_file_writer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <random>

namespace kerrow {
namespace {

constexpr char kTempMarker[] = ".kerrow-tmp.";
// Large enough to keep the number of write calls small, small enough that a
// killed writer can be observed between chunks.
constexpr size_t kChunkBytes = 64 * 1024;
constexpr int kTempNameAttempts = 16;

void Notify(const AtomicWriteObserver& observer) {
  if (observer) observer();
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string BaseNameOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool IsProcessGone(pid_t pid) { return kill(pid, 0) != 0 && errno == ESRCH; }

// A writer killed between creating its temporary file and renaming it leaves the
// file behind. Its name carries the writer's pid, so a later writer can tell a
// leftover (its writer is gone) from a write still in flight.
void RemoveLeftoverTempFiles(const std::string& target) {
  const std::string directory = DirectoryOf(target);
  const std::string prefix = BaseNameOf(target) + kTempMarker;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    const std::string pid_text = name.substr(prefix.size(), name.find('.', prefix.size()) - prefix.size());
    char* end = nullptr;
    const long pid = std::strtol(pid_text.c_str(), &end, 10);
    if (pid_text.empty() || *end != '\0' || pid <= 0 || pid == getpid()) continue;
    if (IsProcessGone(static_cast<pid_t>(pid))) unlink((directory + "/" + name).c_str());
  }
  closedir(dir);
}

std::string RandomSuffix() {
  static const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device device("/dev/urandom");
  std::uniform_int_distribution<int> pick(0, static_cast<int>(sizeof(kAlphabet)) - 2);
  std::string suffix(8, 'x');
  for (char& c : suffix) c = kAlphabet[pick(device)];
  return suffix;
}

bool WriteAll(int fd, const std::string& contents, const AtomicWriteObserver& observer) {
  size_t offset = 0;
  while (offset < contents.size()) {
    const size_t want = std::min(kChunkBytes, contents.size() - offset);
    const ssize_t written = write(fd, contents.data() + offset, want);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    offset += static_cast<size_t>(written);
    Notify(observer);
  }
  return true;
}

// Owns the temporary file until it has been renamed into place, so that every
// early return closes and removes it.
class TempFile {
 public:
  TempFile() = default;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile() {
    if (fd_ >= 0) close(fd_);
    if (!path_.empty()) unlink(path_.c_str());
  }

  // O_EXCL with mode 0666 lets the kernel apply the umask, as for any new file.
  bool Create(const std::string& target) {
    const std::string prefix = target + kTempMarker + std::to_string(getpid()) + ".";
    for (int attempt = 0; attempt < kTempNameAttempts; ++attempt) {
      const std::string candidate = prefix + RandomSuffix();
      fd_ = open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
      if (fd_ >= 0) {
        path_ = candidate;
        return true;
      }
      if (errno != EEXIST) return false;
    }
    return false;
  }

  bool SyncAndClose() {
    const bool synced = fsync(fd_) == 0;
    const bool closed = close(fd_) == 0;
    fd_ = -1;
    return synced && closed;
  }

  bool RenameOver(const std::string& target) {
    if (rename(path_.c_str(), target.c_str()) != 0) return false;
    path_.clear();
    return true;
  }

  int fd() const { return fd_; }

 private:
  int fd_ = -1;
  std::string path_;
};

// Makes the rename itself durable. Filesystems that cannot sync a directory
// answer with something other than EIO; only a real I/O error counts as failure.
bool SyncDirectory(const std::string& directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return true;
  const bool failed = fsync(fd) != 0 && errno == EIO;
  close(fd);
  return !failed;
}

ReplaceTargetKind KindOf(const struct stat& status) {
  return S_ISREG(status.st_mode) ? ReplaceTargetKind::kRegularFile : ReplaceTargetKind::kOther;
}

}  // namespace

// A link to the database is a deliberate choice of the user (the file may live
// on another volume); replacing the link by a plain file would silently split it.
// A link to nothing is refused for the same reason: writing a file in its place
// would break the link the user made.
ReplaceTarget ResolveReplaceTarget(const std::string& path) {
  ReplaceTarget target{path, ReplaceTargetKind::kMissing};
  struct stat link_status {};
  if (lstat(path.c_str(), &link_status) != 0) return target;
  if (!S_ISLNK(link_status.st_mode)) {
    target.kind = KindOf(link_status);
    return target;
  }
  char resolved[PATH_MAX];
  struct stat status {};
  if (realpath(path.c_str(), resolved) == nullptr || stat(resolved, &status) != 0) {
    target.kind = ReplaceTargetKind::kDanglingLink;
    return target;
  }
  target.path = resolved;
  target.kind = KindOf(status);
  return target;
}

std::string AtomicWriteTempPrefix(const std::string& path) {
  return ResolveReplaceTarget(path).path + kTempMarker;
}

AtomicWriteStatus ReplaceFileAtomically(const std::string& path, const std::string& contents,
                                        const AtomicWriteObserver& after_each_step) {
  const ReplaceTarget resolved = ResolveReplaceTarget(path);
  if (resolved.kind != ReplaceTargetKind::kMissing &&
      resolved.kind != ReplaceTargetKind::kRegularFile) {
    return AtomicWriteStatus::kNotRegularFile;
  }
  const std::string& target = resolved.path;
  struct stat existing {};
  const bool target_exists = stat(target.c_str(), &existing) == 0;
  // Rewriting in place would fail on a read-only file; replacing it by rename
  // would not, so refuse here to keep a write-protected database protected.
  if (target_exists && access(target.c_str(), W_OK) != 0) return AtomicWriteStatus::kCannotCreate;

  RemoveLeftoverTempFiles(target);
  TempFile temp;
  if (!temp.Create(target)) return AtomicWriteStatus::kCannotCreate;
  Notify(after_each_step);

  if (target_exists && fchmod(temp.fd(), existing.st_mode & 07777) != 0) {
    return AtomicWriteStatus::kWriteFailed;
  }
  if (!WriteAll(temp.fd(), contents, after_each_step)) return AtomicWriteStatus::kWriteFailed;
  if (!temp.SyncAndClose()) return AtomicWriteStatus::kWriteFailed;
  Notify(after_each_step);
  if (!temp.RenameOver(target)) return AtomicWriteStatus::kWriteFailed;
  Notify(after_each_step);
  if (!SyncDirectory(DirectoryOf(target))) return AtomicWriteStatus::kWriteFailed;
  Notify(after_each_step);
  return AtomicWriteStatus::kWritten;
}

}  // namespace kerrow
