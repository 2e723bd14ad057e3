#ifndef KERROW_SPEAKER_ENROLL_DB_H_
#define KERROW_SPEAKER_ENROLL_DB_H_

// The enrollment database: a "speaker-enroll v2" text file of enrolled speakers,
// each with a stable id, a display name and one or more voiceprints. Every edit
// loads the whole file, changes it in memory and replaces the file as a whole, so
// a reader (or a process killed mid-write) only ever sees a complete database.
// An edit holds the database's lock (see EnrollDbLock) from its load to its
// write, so concurrent edits take turns, and it refuses a file it could not write
// back without losing something; it only ever replaces a regular file.
//
// Every function takes the database path first. Fallible ones return false and
// store one message in *error when error is not null; out-pointers may be null.

#include <string>
#include <vector>

namespace kerrow {

// One voiceprint: the embedding of one audio file, tagged with that file's MD5.
struct EnrollSample {
  std::string md5;               // 32 lowercase hex digits, empty when unknown
  std::vector<float> embedding;  // length == the database's dim
};

// One enrolled speaker. Several entries may share a name; ids are unique.
struct EnrollEntry {
  std::string id;  // 8-4-4-4-12 lowercase UUID; never empty after a load
  std::string name;
  std::vector<EnrollSample> samples;
};

// A missing file loads as an empty database (dim 0, no entries). On failure both
// outputs are left empty. Entries without an id get a fresh one in memory only.
// A block with an id line is the entry of that id, so speakers who share a name
// stay apart. What cannot be read whole (a voiceprint of the wrong length or
// with a value that is not a finite number, ...) is left out, so that readers
// get every usable voiceprint. A path that is not a regular file is refused.
bool LoadEnrollDb(const std::string& path, int* dim, std::vector<EnrollEntry>* entries,
                  std::string* error);

// Loads as LoadEnrollDb, but fails wherever that would leave something out or
// have to guess (a voiceprint it cannot read whole, a dim line that contradicts
// an earlier one, an id that appears in two blocks, an id-less block whose name
// belongs to several speakers, two ids for one speaker), naming the first such
// line, and when an existing file cannot be read. What it returns can be
// written back without losing anything; every edit below loads this way.
bool LoadEnrollDbForRewrite(const std::string& path, int* dim,
                            std::vector<EnrollEntry>* entries, std::string* error);

// Adds one voiceprint: to the speaker `id` (renaming it to `name`) when id is not
// empty, else to a new speaker. When a voiceprint with the same non-empty md5 is
// already enrolled, nothing is written, *already_registered becomes true and
// *out_id names the speaker that holds it. An embedding holding NaN or infinity
// is refused.
bool AppendEnrollEmbedding(const std::string& path, const std::string& id,
                           const std::string& name, const std::string& md5,
                           const std::vector<float>& embedding, std::string* error,
                           bool* already_registered, std::string* out_id);

// True when some voiceprint carries this md5. False for an empty md5, and false
// with *error set when the database does not load.
bool EnrollDbContainsMd5(const std::string& path, const std::string& md5, std::string* error);

// RFC 1321 MD5 of the file's bytes as 32 lowercase hex digits; empty on failure.
std::string Md5File(const std::string& path, std::string* error);

// Removes every speaker with exactly this name; *removed_md5s gets their non-empty
// voiceprint md5s in database order.
bool RemoveEnrollByName(const std::string& path, const std::string& name,
                        std::vector<std::string>* removed_md5s, bool* found, std::string* error);

bool RemoveEnrollById(const std::string& path, const std::string& id,
                      std::vector<std::string>* removed_md5s, bool* found,
                      std::string* removed_name, std::string* error);

// Removes every voiceprint with this md5; a speaker this leaves without
// voiceprints is dropped (one that had none before stays). *name is the (last)
// speaker that lost one.
bool RemoveEnrollByMd5(const std::string& path, const std::string& md5, bool* found,
                       std::string* name, std::string* error);

bool RenameEnrollById(const std::string& path, const std::string& id,
                      const std::string& new_name, bool* found, std::string* error);

// Rewrites a legacy database in the current form with every id present. An empty
// or missing database is left alone (no file is created).
bool MigrateEnrollDb(const std::string& path, std::string* error);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_ENROLL_DB_H_
