#include "speaker/enroll_db_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "common/error_text.h"
#include "speaker/atomic_file_writer.h"

namespace kerrow {
namespace {

// Errors after which this process could not write the database either.
bool CannotWriteHere(int error_number) {
  return error_number == ENOENT || error_number == ENOTDIR || error_number == EACCES ||
         error_number == EPERM || error_number == EROFS;
}

int OpenLockFile(const std::string& lock_path) {
  const int fd = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd >= 0 || !CannotWriteHere(errno)) return fd;
  // A lock file someone else created still serialises us with them.
  const int create_errno = errno;
  const int read_only = open(lock_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (read_only < 0) errno = create_errno;
  return read_only;
}

}  // namespace

EnrollDbLock::~EnrollDbLock() {
  if (fd_ >= 0) close(fd_);
}

std::string EnrollDbLock::LockPathFor(const std::string& db_path) {
  return ResolveReplaceTarget(db_path).path + ".lock";
}

bool EnrollDbLock::Acquire(const std::string& db_path, std::string* error) {
  const std::string lock_path = LockPathFor(db_path);
  fd_ = OpenLockFile(lock_path);
  if (fd_ < 0) {
    if (CannotWriteHere(errno)) return true;
    return Fail(error, "cannot open enroll DB lock file: " + lock_path);
  }
  while (flock(fd_, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    SetError(error, "cannot lock enroll DB: " + lock_path);
    close(fd_);
    fd_ = -1;
    return false;
  }
  return true;
}

}  // namespace kerrow
