#ifndef KERROW_SPEAKER_ENROLL_DB_LOCK_H_
#define KERROW_SPEAKER_ENROLL_DB_LOCK_H_

#include <string>

namespace kerrow {

// An exclusive advisory lock on one enrollment database, held from the load of
// an edit to the rename that ends it, so that one-shot commands started at once
// on the same database take turns instead of each writing back what it read
// before the others wrote. The lock lives on a file beside the database,
// "<database>.lock" (beside the file a symbolic link points at, so that two
// links to one database share it). The lock file is never removed: removing it
// would let a late writer lock a new file while another still holds the old one.
class EnrollDbLock {
 public:
  EnrollDbLock() = default;
  ~EnrollDbLock();  // releases the lock
  EnrollDbLock(const EnrollDbLock&) = delete;
  EnrollDbLock& operator=(const EnrollDbLock&) = delete;

  // Waits until the lock is ours. Where no lock file can be made or opened
  // because the directory is missing or not writable, proceeds without one:
  // this process cannot replace the database there either, so it has no update
  // to lose. Fails only on an unexpected error, with a message naming the file.
  bool Acquire(const std::string& db_path, std::string* error);

  // The lock file used for `db_path`.
  static std::string LockPathFor(const std::string& db_path);

 private:
  int fd_ = -1;
};

}  // namespace kerrow

#endif  // KERROW_SPEAKER_ENROLL_DB_LOCK_H_
