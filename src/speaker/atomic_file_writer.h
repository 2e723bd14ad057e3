#ifndef KERROW_SPEAKER_ATOMIC_FILE_WRITER_H_
#define KERROW_SPEAKER_ATOMIC_FILE_WRITER_H_

#include <functional>
#include <string>

namespace kerrow {

enum class AtomicWriteStatus {
  kWritten,
  kCannotCreate,  // the target is not writable or no temporary file could be made beside it
  kWriteFailed,   // writing, syncing or renaming failed; the old file is untouched
};

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
// On failure the temporary file is removed. Temporary files left behind by
// writers that were killed are swept up by the next write to the same target.
AtomicWriteStatus ReplaceFileAtomically(const std::string& path, const std::string& contents,
                                        const AtomicWriteObserver& after_each_step = nullptr);

// The prefix of the temporary files a write to `path` creates (they are named
// prefix + pid + "." + a random suffix). Tests use it to look for leftovers.
std::string AtomicWriteTempPrefix(const std::string& path);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_ATOMIC_FILE_WRITER_H_
