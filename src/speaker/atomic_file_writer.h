#ifndef KERROW_SPEAKER_ATOMIC_FILE_WRITER_H_
#define KERROW_SPEAKER_ATOMIC_FILE_WRITER_H_

#include <functional>
#include <string>

namespace kerrow {

enum class AtomicWriteStatus {
  kWritten,
  kCannotCreate,    // the target is not writable or no temporary file could be made beside it
  kWriteFailed,     // writing, syncing or renaming failed; the old file is untouched
  kNotRegularFile,  // the path is a device, a FIFO, a directory or a dangling link; left as it is
};

// What a path names before it is replaced.
enum class ReplaceTargetKind {
  kMissing,       // nothing there yet: a new regular file will be created
  kRegularFile,   // a regular file, or a symbolic link to one
  kDanglingLink,  // a symbolic link whose target does not exist
  kOther,         // a device, a FIFO, a socket, a directory, or a link to one of those
};

struct ReplaceTarget {
  std::string path;  // the file that would really be replaced: a link is followed
  ReplaceTargetKind kind = ReplaceTargetKind::kMissing;
};

// Follows a symbolic link to the file it names and says what is there.
ReplaceTarget ResolveReplaceTarget(const std::string& path);

// Called after every step of a write (temporary file created, each chunk written,
// data synced, file renamed, directory synced). Only tests pass one, to interrupt
// a writer at each of those points.
using AtomicWriteObserver = std::function<void()>;

// Replaces the file at `path` by `contents` so that, whatever happens to the
// process, the path holds either the complete old or the complete new file: the
// contents go into a temporary file in the same directory, are synced to disk,
// and are renamed over the target, after which the directory is synced too. An
// existing file keeps its permission bits; a new one gets 0666 minus the umask. A
// symbolic link is followed, so the file it points at is replaced, not the link.
// Only a regular file (or a missing one) is ever replaced: anything else at the
// path is refused with kNotRegularFile and left exactly as it is. On failure the temporary file is removed. Temporary files left behind by
// writers that were killed are swept up by the next write to the same target.
AtomicWriteStatus ReplaceFileAtomically(const std::string& path, const std::string& contents,
                                        const AtomicWriteObserver& after_each_step = nullptr);

// The prefix of the temporary files a write to `path` creates (they are named
// prefix + pid + "." + a random suffix). Tests use it to look for leftovers.
std::string AtomicWriteTempPrefix(const std::string& path);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_ATOMIC_FILE_WRITER_H_
