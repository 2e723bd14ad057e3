#include "speaker/enroll_db.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <locale>
#include <map>
#include <sstream>
#include <utility>

#include "speaker/atomic_file_writer.h"
#include "speaker/md5.h"
#include "speaker/uuid.h"

namespace kerrow {
namespace {

constexpr char kHeaderKeyword[] = "speaker-enroll";
constexpr char kHeaderLine[] = "speaker-enroll v2";

void SetError(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
}

bool Fail(std::string* error, const std::string& message) {
  SetError(error, message);
  return false;
}

bool FailAtLine(std::string* error, const std::string& message, int line_number) {
  return Fail(error, message + std::to_string(line_number));
}

bool LooksLikeMd5(const std::string& word) {
  if (word.size() != 32) return false;
  for (char c : word) {
    const bool hex_digit = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    if (!hex_digit) return false;
  }
  return true;
}

// Names and ids run to the end of their line; the writer's separator space goes,
// and so do trailing blanks and the carriage return of files edited on Windows.
std::string ValueAfterKeyword(const std::string& rest_of_line) {
  std::string value = rest_of_line;
  if (!value.empty() && value[0] == ' ') value.erase(0, 1);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\r')) value.pop_back();
  return value;
}

bool IsBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

size_t FindWordStart(const std::string& text, size_t from) {
  while (from < text.size() && IsBlank(text[from])) ++from;
  return from;
}

size_t FindWordEnd(const std::string& text, size_t from) {
  while (from < text.size() && !IsBlank(text[from])) ++from;
  return from;
}

// The first component may sit where the md5 would be, in files from before
// voiceprints were tagged. Only overflow counts as out of range: a subnormal
// component is a valid float that the writer may well have produced.
bool ParseFirstComponent(const std::string& word, float* value) {
  errno = 0;
  char* end = nullptr;
  *value = std::strtof(word.c_str(), &end);
  if (end == word.c_str()) return false;
  return !(errno == ERANGE && std::isinf(*value));
}

// Reads the database one line at a time. Entries are looked up by name so that
// legacy files, which repeat a speaker's block to add voiceprints, merge them.
class EnrollDbParser {
 public:
  bool ParseLine(const std::string& line, int line_number, std::string* error) {
    if (line.empty()) return true;
    const size_t keyword_start = FindWordStart(line, 0);
    if (keyword_start == line.size()) return true;
    const size_t keyword_end = FindWordEnd(line, keyword_start);
    const std::string keyword = line.substr(keyword_start, keyword_end - keyword_start);
    const std::string rest = line.substr(keyword_end);
    std::istringstream words(rest);
    words.imbue(std::locale::classic());
    if (keyword == kHeaderKeyword) {
      header_seen_ = true;
      return true;
    }
    if (keyword == "dim") return ParseDim(&words, line_number, error);
    if (keyword == "speaker") return ParseSpeaker(rest, line_number, error);
    if (keyword == "id") return ParseId(rest, line_number, error);
    if (keyword == "emb") return ParseEmb(&words, line_number, error);
    return true;
  }

  bool header_seen() const { return header_seen_; }
  int dim() const { return dim_; }
  std::vector<EnrollEntry>& entries() { return entries_; }

 private:
  bool ParseDim(std::istringstream* words, int line_number, std::string* error) {
    int value = 0;
    if (!(*words >> value) || value < 1) return FailAtLine(error, "bad dim at line ", line_number);
    dim_ = value;
    return true;
  }

  bool ParseSpeaker(const std::string& rest, int line_number, std::string* error) {
    const std::string name = ValueAfterKeyword(rest);
    if (name.empty()) return FailAtLine(error, "empty speaker name at line ", line_number);
    const auto known = index_by_name_.find(name);
    if (known != index_by_name_.end()) {
      current_ = known->second;
    } else {
      current_ = static_cast<int>(entries_.size());
      entries_.push_back(EnrollEntry{"", name, {}});
      index_by_name_[name] = current_;
    }
    last_speaker_name_ = name;
    return true;
  }

  bool ParseId(const std::string& rest, int line_number, std::string* error) {
    if (current_ < 0) return FailAtLine(error, "id before any speaker at line ", line_number);
    const std::string id = ValueAfterKeyword(rest);
    if (id.empty()) return FailAtLine(error, "empty speaker id at line ", line_number);
    EnrollEntry& entry = entries_[static_cast<size_t>(current_)];
    // A finished entry of the same name with another id: a second person who
    // happens to share the name, not a re-opened block.
    if (!entry.id.empty() && !entry.samples.empty() && entry.id != id) {
      current_ = static_cast<int>(entries_.size());
      entries_.push_back(EnrollEntry{id, last_speaker_name_, {}});
      return true;
    }
    entry.id = id;
    return true;
  }

  bool ParseEmb(std::istringstream* words, int line_number, std::string* error) {
    if (current_ < 0) return FailAtLine(error, "emb before any speaker at line ", line_number);
    if (dim_ < 1) return FailAtLine(error, "emb before dim at line ", line_number);
    std::string word;
    if (!(*words >> word)) return FailAtLine(error, "empty emb at line ", line_number);

    EnrollSample sample;
    if (word == "-") {
      // Voiceprint of unknown origin.
    } else if (LooksLikeMd5(word)) {
      sample.md5 = word;
    } else {
      float first = 0.0f;
      if (!ParseFirstComponent(word, &first)) {
        return Fail(error, "bad emb token '" + word + "' at line " + std::to_string(line_number));
      }
      sample.embedding.push_back(first);
    }
    float component = 0.0f;
    while (*words >> component) sample.embedding.push_back(component);
    // A voiceprint of another length cannot be compared with the rest; it is
    // skipped rather than failing the whole database.
    if (static_cast<int>(sample.embedding.size()) == dim_) {
      entries_[static_cast<size_t>(current_)].samples.push_back(std::move(sample));
    }
    return true;
  }

  bool header_seen_ = false;
  int dim_ = 0;
  int current_ = -1;
  std::string last_speaker_name_;
  std::vector<EnrollEntry> entries_;
  std::map<std::string, int> index_by_name_;
};

// A name the reader would see as empty, or one that would spill onto a second
// line, would leave a file that no longer loads; such a name is never written.
bool NameSurvivesReload(const std::string& name) {
  return name.find('\n') == std::string::npos && !ValueAfterKeyword(" " + name).empty();
}

std::string FormatEnrollDb(int dim, const std::vector<EnrollEntry>& entries) {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << kHeaderLine << "\n";
  // "dim 0" would not load again; a database without voiceprints simply has no dim line.
  if (dim >= 1) out << "dim " << dim << "\n";
  out << std::scientific << std::setprecision(9);
  for (const EnrollEntry& entry : entries) {
    out << "speaker " << entry.name << "\n";
    out << "id " << (entry.id.empty() ? GenerateUuidV4() : entry.id) << "\n";
    for (const EnrollSample& sample : entry.samples) {
      out << "emb " << (sample.md5.empty() ? "-" : sample.md5);
      for (float component : sample.embedding) out << ' ' << component;
      out << "\n";
    }
  }
  return out.str();
}

// The database is never written into a directory that does not exist: a typo in
// the path must not scatter voiceprints into a new folder somewhere.
bool CheckParentDirectory(const std::string& path, std::string* error) {
  const size_t separator = path.find_last_of("/\\");
  if (separator == std::string::npos || separator == 0) return true;
  const std::string parent = path.substr(0, separator);
  struct stat status {};
  if (stat(parent.c_str(), &status) != 0) {
    return Fail(error, "enroll DB directory does not exist: " + parent +
                           " (create it first, or pass a path under an existing directory)");
  }
  if (!S_ISDIR(status.st_mode)) return Fail(error, "enroll DB parent is not a directory: " + parent);
  return true;
}

bool WriteEnrollDb(const std::string& path, int dim, const std::vector<EnrollEntry>& entries,
                   std::string* error) {
  for (const EnrollEntry& entry : entries) {
    if (!NameSurvivesReload(entry.name)) {
      return Fail(error, "speaker name is blank or holds a line break: '" + entry.name + "'");
    }
  }
  if (!CheckParentDirectory(path, error)) return false;
  switch (ReplaceFileAtomically(path, FormatEnrollDb(dim, entries))) {
    case AtomicWriteStatus::kWritten:
      return true;
    case AtomicWriteStatus::kCannotCreate:
      return Fail(error, "cannot open enroll DB for write: " + path);
    case AtomicWriteStatus::kWriteFailed:
      break;
  }
  return Fail(error, "write error on " + path);
}

bool AnySampleHasMd5(const std::vector<EnrollEntry>& entries, const std::string& md5,
                     const EnrollEntry** holder) {
  for (const EnrollEntry& entry : entries) {
    for (const EnrollSample& sample : entry.samples) {
      if (sample.md5 == md5) {
        if (holder != nullptr) *holder = &entry;
        return true;
      }
    }
  }
  return false;
}

void CollectMd5s(const EnrollEntry& entry, std::vector<std::string>* md5s) {
  if (md5s == nullptr) return;
  for (const EnrollSample& sample : entry.samples) {
    if (!sample.md5.empty()) md5s->push_back(sample.md5);
  }
}

// Removes the entries `matches` selects, collecting their md5s; returns how many went.
template <typename Predicate>
size_t RemoveEntries(std::vector<EnrollEntry>* entries, Predicate matches,
                     std::vector<std::string>* removed_md5s, std::string* removed_name) {
  std::vector<EnrollEntry> kept;
  size_t removed = 0;
  for (EnrollEntry& entry : *entries) {
    if (!matches(entry)) {
      kept.push_back(std::move(entry));
      continue;
    }
    CollectMd5s(entry, removed_md5s);
    if (removed_name != nullptr) *removed_name = entry.name;
    ++removed;
  }
  *entries = std::move(kept);
  return removed;
}

}  // namespace

bool LoadEnrollDb(const std::string& path, int* dim, std::vector<EnrollEntry>* entries,
                  std::string* error) {
  if (dim != nullptr) *dim = 0;
  if (entries != nullptr) entries->clear();

  std::ifstream file(path);
  if (!file.is_open()) return true;

  EnrollDbParser parser;
  std::string line;
  int line_number = 0;
  while (std::getline(file, line)) {
    ++line_number;
    if (!parser.ParseLine(line, line_number, error)) return false;
  }
  if (!parser.header_seen() && !parser.entries().empty()) {
    return Fail(error, std::string("missing '") + kHeaderKeyword + "' header in " + path);
  }
  for (EnrollEntry& entry : parser.entries()) {
    if (entry.id.empty()) entry.id = GenerateUuidV4();
  }
  if (dim != nullptr) *dim = parser.dim();
  if (entries != nullptr) *entries = std::move(parser.entries());
  return true;
}

bool AppendEnrollEmbedding(const std::string& path, const std::string& id,
                           const std::string& name, const std::string& md5,
                           const std::vector<float>& embedding, std::string* error,
                           bool* already_registered, std::string* out_id) {
  if (already_registered != nullptr) *already_registered = false;
  if (name.empty()) return Fail(error, "register name is empty");
  if (embedding.empty()) return Fail(error, "register embedding is empty");

  int dim = 0;
  std::vector<EnrollEntry> entries;
  if (!LoadEnrollDb(path, &dim, &entries, error)) return false;

  const EnrollEntry* holder = nullptr;
  if (!md5.empty() && AnySampleHasMd5(entries, md5, &holder)) {
    if (already_registered != nullptr) *already_registered = true;
    if (out_id != nullptr) *out_id = holder->id;
    return true;
  }

  const int length = static_cast<int>(embedding.size());
  if (entries.empty()) {
    dim = length;
  } else if (length != dim) {
    return Fail(error, "embedding dim " + std::to_string(length) + " != existing DB dim " +
                           std::to_string(dim));
  }

  if (!id.empty()) {
    auto target = entries.begin();
    while (target != entries.end() && target->id != id) ++target;
    if (target == entries.end()) return Fail(error, "speaker id not found: " + id);
    target->name = name;
    target->samples.push_back(EnrollSample{md5, embedding});
    if (out_id != nullptr) *out_id = target->id;
  } else {
    entries.push_back(EnrollEntry{GenerateUuidV4(), name, {EnrollSample{md5, embedding}}});
    if (out_id != nullptr) *out_id = entries.back().id;
  }
  return WriteEnrollDb(path, dim, entries, error);
}

bool EnrollDbContainsMd5(const std::string& path, const std::string& md5, std::string* error) {
  if (md5.empty()) return false;
  std::vector<EnrollEntry> entries;
  if (!LoadEnrollDb(path, nullptr, &entries, error)) return false;
  return AnySampleHasMd5(entries, md5, nullptr);
}

std::string Md5File(const std::string& path, std::string* error) {
  std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) {
    SetError(error, "cannot open file for md5: " + path);
    return "";
  }
  Md5 md5;
  std::string chunk(1 << 20, '\0');
  while (file) {
    file.read(&chunk[0], static_cast<std::streamsize>(chunk.size()));
    md5.Update(chunk.data(), static_cast<size_t>(file.gcount()));
  }
  // A directory opens like a file but cannot be read; its "digest" would be that
  // of no bytes at all.
  if (file.bad()) {
    SetError(error, "cannot open file for md5: " + path);
    return "";
  }
  return md5.HexDigest();
}

bool RemoveEnrollByName(const std::string& path, const std::string& name,
                        std::vector<std::string>* removed_md5s, bool* found, std::string* error) {
  if (found != nullptr) *found = false;
  int dim = 0;
  std::vector<EnrollEntry> entries;
  if (!LoadEnrollDb(path, &dim, &entries, error)) return false;
  const size_t removed = RemoveEntries(
      &entries, [&name](const EnrollEntry& entry) { return entry.name == name; }, removed_md5s,
      nullptr);
  if (removed > 0 && found != nullptr) *found = true;
  if (removed == 0 && found != nullptr) return true;
  return WriteEnrollDb(path, dim, entries, error);
}

bool RemoveEnrollById(const std::string& path, const std::string& id,
                      std::vector<std::string>* removed_md5s, bool* found,
                      std::string* removed_name, std::string* error) {
  if (found != nullptr) *found = false;
  if (id.empty()) return Fail(error, "speaker id is empty");
  int dim = 0;
  std::vector<EnrollEntry> entries;
  if (!LoadEnrollDb(path, &dim, &entries, error)) return false;
  const size_t removed = RemoveEntries(
      &entries, [&id](const EnrollEntry& entry) { return entry.id == id; }, removed_md5s,
      removed_name);
  if (removed > 0 && found != nullptr) *found = true;
  if (removed == 0 && found != nullptr) return true;
  return WriteEnrollDb(path, dim, entries, error);
}

bool RemoveEnrollByMd5(const std::string& path, const std::string& md5, bool* found,
                       std::string* name, std::string* error) {
  if (found != nullptr) *found = false;
  if (md5.empty()) return Fail(error, "unregister md5 is empty");
  int dim = 0;
  std::vector<EnrollEntry> entries;
  if (!LoadEnrollDb(path, &dim, &entries, error)) return false;

  bool erased_any = false;
  for (EnrollEntry& entry : entries) {
    const size_t before = entry.samples.size();
    auto& samples = entry.samples;
    samples.erase(std::remove_if(samples.begin(), samples.end(),
                                 [&md5](const EnrollSample& sample) { return sample.md5 == md5; }),
                  samples.end());
    if (samples.size() != before) {
      erased_any = true;
      if (name != nullptr) *name = entry.name;
    }
  }
  if (!erased_any) return true;
  if (found != nullptr) *found = true;
  // Speakers without any voiceprint left cannot be recognised; they go too.
  entries.erase(std::remove_if(entries.begin(), entries.end(),
                               [](const EnrollEntry& entry) { return entry.samples.empty(); }),
                entries.end());
  return WriteEnrollDb(path, dim, entries, error);
}

bool RenameEnrollById(const std::string& path, const std::string& id,
                      const std::string& new_name, bool* found, std::string* error) {
  if (found != nullptr) *found = false;
  if (id.empty()) return Fail(error, "speaker id is empty");
  if (new_name.empty()) return Fail(error, "speaker name is empty");
  int dim = 0;
  std::vector<EnrollEntry> entries;
  if (!LoadEnrollDb(path, &dim, &entries, error)) return false;
  for (EnrollEntry& entry : entries) {
    if (entry.id != id) continue;
    entry.name = new_name;
    if (found != nullptr) *found = true;
    return WriteEnrollDb(path, dim, entries, error);
  }
  if (found != nullptr) return true;
  return WriteEnrollDb(path, dim, entries, error);
}

bool MigrateEnrollDb(const std::string& path, std::string* error) {
  int dim = 0;
  std::vector<EnrollEntry> entries;
  if (!LoadEnrollDb(path, &dim, &entries, error)) return false;
  if (entries.empty() && dim < 1) return true;
  return WriteEnrollDb(path, dim, entries, error);
}

}  // namespace kerrow
