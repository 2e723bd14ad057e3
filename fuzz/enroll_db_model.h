#ifndef KERROW_FUZZ_ENROLL_DB_MODEL_H_
#define KERROW_FUZZ_ENROLL_DB_MODEL_H_

#include <cstring>
#include <string>
#include <vector>

#include "speaker/enroll_db.h"

namespace kerrow {

// A loaded enrollment database, and what each edit should make of it. The
// edits here are written from the promises of enroll_db.h, independently of
// its code, so that the two can be held against each other.
class EnrollDbSnapshot {
 public:
  bool Load(const std::string& path) { return LoadEnrollDb(path, &dim_, &entries_, nullptr); }

  int dim() const { return dim_; }

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const EnrollEntry& entry : entries_) names.push_back(entry.name);
    return names;
  }
  std::vector<std::string> Ids() const {
    std::vector<std::string> ids;
    for (const EnrollEntry& entry : entries_) ids.push_back(entry.id);
    return ids;
  }
  std::vector<std::string> Md5s() const {
    std::vector<std::string> md5s;
    for (const EnrollEntry& entry : entries_) {
      for (const EnrollSample& sample : entry.samples) {
        if (!sample.md5.empty()) md5s.push_back(sample.md5);
      }
    }
    return md5s;
  }
  bool HasMd5(const std::string& md5) const {
    for (const std::string& known : Md5s()) {
      if (known == md5) return true;
    }
    return false;
  }

  void Append(const std::string& id, const std::string& name, const EnrollSample& sample) {
    if (entries_.empty()) dim_ = static_cast<int>(sample.embedding.size());
    for (EnrollEntry& entry : entries_) {
      if (entry.id == id) {
        entry.name = AsReloaded(name);
        entry.samples.push_back(sample);
        return;
      }
    }
    entries_.push_back(EnrollEntry{id, AsReloaded(name), {sample}});
  }

  size_t RemoveByName(const std::string& name) {
    return RemoveIf([&](const EnrollEntry& entry) { return entry.name == name; });
  }
  size_t RemoveById(const std::string& id) {
    return RemoveIf([&](const EnrollEntry& entry) { return entry.id == id; });
  }

  // A speaker left without voiceprints goes too, and so does one that had none.
  // Only a speaker whose last voiceprint this removal takes goes with it; a
  // speaker that had no voiceprint before was not asked about and stays.
  bool RemoveByMd5(const std::string& md5) {
    bool removed = false;
    std::vector<EnrollEntry> kept_entries;
    for (EnrollEntry& entry : entries_) {
      std::vector<EnrollSample> kept;
      for (const EnrollSample& sample : entry.samples) {
        if (sample.md5 != md5) kept.push_back(sample);
      }
      const bool lost_some = kept.size() != entry.samples.size();
      removed = removed || lost_some;
      entry.samples.swap(kept);
      if (!lost_some || !entry.samples.empty()) kept_entries.push_back(std::move(entry));
    }
    entries_.swap(kept_entries);
    return removed;
  }

  bool Rename(const std::string& id, const std::string& name) {
    bool found = false;
    for (EnrollEntry& entry : entries_) {
      if (entry.id == id) {
        entry.name = AsReloaded(name);
        found = true;
      }
    }
    return found;
  }

  bool SameAs(const EnrollDbSnapshot& other) const { return Same(other, true); }
  bool SameSpeakersIgnoringIds(const EnrollDbSnapshot& other) const { return Same(other, false); }

 private:
  // Trailing blanks and carriage returns of a name do not survive the file.
  static std::string AsReloaded(std::string name) {
    while (!name.empty() && (name.back() == ' ' || name.back() == '\r')) name.pop_back();
    return name;
  }

  template <typename Predicate>
  size_t RemoveIf(Predicate matches) {
    std::vector<EnrollEntry> kept;
    for (const EnrollEntry& entry : entries_) {
      if (!matches(entry)) kept.push_back(entry);
    }
    const size_t removed = entries_.size() - kept.size();
    entries_.swap(kept);
    return removed;
  }

  // Embeddings compare bit for bit: the file keeps every float exactly.
  static bool SameSamples(const std::vector<EnrollSample>& a, const std::vector<EnrollSample>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
      if (a[i].md5 != b[i].md5 || a[i].embedding.size() != b[i].embedding.size()) return false;
      if (std::memcmp(a[i].embedding.data(), b[i].embedding.data(),
                      a[i].embedding.size() * sizeof(float)) != 0) {
        return false;
      }
    }
    return true;
  }

  bool Same(const EnrollDbSnapshot& other, bool compare_ids) const {
    if (dim_ != other.dim_ || entries_.size() != other.entries_.size()) return false;
    for (size_t i = 0; i < entries_.size(); ++i) {
      const EnrollEntry& mine = entries_[i];
      const EnrollEntry& theirs = other.entries_[i];
      if (compare_ids && mine.id != theirs.id) return false;
      if (mine.name != theirs.name || !SameSamples(mine.samples, theirs.samples)) return false;
    }
    return true;
  }

  int dim_ = 0;
  std::vector<EnrollEntry> entries_;
};

}  // namespace kerrow

#endif  // KERROW_FUZZ_ENROLL_DB_MODEL_H_
