#include "speaker/enroll_db.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iomanip>
#include <locale>
#include <map>
#include <sstream>
#include <utility>

#include "common/error_text.h"
#include "speaker/atomic_file_writer.h"
#include "speaker/enroll_db_lock.h"
#include "speaker/md5.h"
#include "speaker/uuid.h"

namespace kerrow {
namespace {

constexpr char kHeaderKeyword[] = "speaker-enroll";
constexpr char kHeaderLine[] = "speaker-enroll v2";

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

std::vector<std::string> SplitWords(const std::string& text) {
  std::vector<std::string> words;
  size_t start = FindWordStart(text, 0);
  while (start < text.size()) {
    const size_t end = FindWordEnd(text, start);
    words.push_back(text.substr(start, end - start));
    start = FindWordStart(text, end);
  }
  return words;
}

bool AllFinite(const std::vector<float>& values) {
  return std::all_of(values.begin(), values.end(), [](float v) { return std::isfinite(v); });
}

// Why a voiceprint line cannot come back exactly as it was written, judged on
// its value words one by one; empty when every word is a finite number and
// there are dim of them.
std::string VoiceprintLineProblem(const std::vector<std::string>& value_words, int dim) {
  for (const std::string& word : value_words) {
    char* end = nullptr;
    const float value = std::strtof(word.c_str(), &end);
    if (end != word.c_str() + word.size()) return "voiceprint holds text that is not a number ('" + word + "')";
    if (!std::isfinite(value)) return "voiceprint holds a value that is not a finite number";
  }
  if (static_cast<int>(value_words.size()) != dim) {
    return "voiceprint has " + std::to_string(value_words.size()) + " values where dim is " +
           std::to_string(dim);
  }
  return "";
}

// One "speaker" line and the "id" and "emb" lines under it.
struct SpeakerBlock {
  std::string name;
  int name_line = 0;
  std::string id;
  int id_line = 0;
  std::vector<EnrollSample> samples;
};

// Reads the database one line at a time. A block with an id belongs to the
// entry of that id, so two people who share a name stay two entries; a block
// without one (legacy files repeat a speaker's block to add voiceprints) joins
// the entry of its name. Whatever a reader has to leave out or guess at is
// noted (the first such line), so that an edit can refuse to write back a
// database that would come out with less in it.
class EnrollDbParser {
 public:
  bool ParseLine(const std::string& line, int line_number, std::string* error) {
    if (line.empty()) return true;
    const size_t keyword_start = FindWordStart(line, 0);
    if (keyword_start == line.size()) return true;
    const size_t keyword_end = FindWordEnd(line, keyword_start);
    const std::string keyword = line.substr(keyword_start, keyword_end - keyword_start);
    const std::string rest = line.substr(keyword_end);
    if (keyword == kHeaderKeyword) {
      header_seen_ = true;
      return true;
    }
    if (keyword == "dim") return ParseDim(rest, line_number, error);
    if (keyword == "speaker") return ParseSpeaker(rest, line_number, error);
    if (keyword == "id") return ParseId(rest, line_number, error);
    if (keyword == "emb") return ParseEmb(rest, line_number, error);
    return true;
  }

  // Files the last block and drops voiceprints that an overriding dim line
  // left with the wrong length (that dim line was noted as a loss).
  void Finish() {
    CloseBlock();
    for (EnrollEntry& entry : entries_) {
      auto& samples = entry.samples;
      samples.erase(std::remove_if(samples.begin(), samples.end(),
                                   [this](const EnrollSample& sample) {
                                     return static_cast<int>(sample.embedding.size()) != dim_;
                                   }),
                    samples.end());
    }
  }

  bool header_seen() const { return header_seen_; }
  int dim() const { return dim_; }
  std::vector<EnrollEntry>& entries() { return entries_; }
  int loss_line() const { return loss_line_; }
  const std::string& loss() const { return loss_; }

 private:
  void NoteLoss(int line_number, const std::string& what) {
    if (loss_line_ != 0) return;
    loss_line_ = line_number;
    loss_ = what;
  }

  bool ParseDim(const std::string& rest, int line_number, std::string* error) {
    std::istringstream words(rest);
    words.imbue(std::locale::classic());
    int value = 0;
    if (!(words >> value) || value < 1) return FailAtLine(error, "bad dim at line ", line_number);
    if (dim_ >= 1 && value != dim_) {
      NoteLoss(line_number, "dim " + std::to_string(value) + " conflicts with dim " +
                                std::to_string(dim_) + " above it");
    }
    dim_ = value;
    return true;
  }

  bool ParseSpeaker(const std::string& rest, int line_number, std::string* error) {
    const std::string name = ValueAfterKeyword(rest);
    if (name.empty()) return FailAtLine(error, "empty speaker name at line ", line_number);
    CloseBlock();
    block_ = SpeakerBlock{name, line_number, "", 0, {}};
    has_block_ = true;
    return true;
  }

  bool ParseId(const std::string& rest, int line_number, std::string* error) {
    if (!has_block_) return FailAtLine(error, "id before any speaker at line ", line_number);
    const std::string id = ValueAfterKeyword(rest);
    if (id.empty()) return FailAtLine(error, "empty speaker id at line ", line_number);
    if (!block_.id.empty() && block_.id != id) {
      NoteLoss(line_number, "second id for speaker '" + block_.name + "'");
      // Voiceprints already read belong to the first id; what follows is
      // taken as another speaker of the same name.
      if (!block_.samples.empty()) {
        const std::string name = block_.name;
        CloseBlock();
        block_ = SpeakerBlock{name, line_number, "", 0, {}};
        has_block_ = true;
      }
    }
    block_.id = id;
    block_.id_line = line_number;
    return true;
  }

  bool ParseEmb(const std::string& rest, int line_number, std::string* error) {
    if (!has_block_) return FailAtLine(error, "emb before any speaker at line ", line_number);
    if (dim_ < 1) return FailAtLine(error, "emb before dim at line ", line_number);
    std::istringstream words(rest);
    words.imbue(std::locale::classic());
    std::string word;
    if (!(words >> word)) return FailAtLine(error, "empty emb at line ", line_number);

    std::vector<std::string> value_words = SplitWords(rest);
    EnrollSample sample;
    if (word == "-") {
      value_words.erase(value_words.begin());  // voiceprint of unknown origin
    } else if (LooksLikeMd5(word)) {
      sample.md5 = word;
      value_words.erase(value_words.begin());
    } else {
      float first = 0.0f;
      if (!ParseFirstComponent(word, &first)) {
        return Fail(error, "bad emb token '" + word + "' at line " + std::to_string(line_number));
      }
      sample.embedding.push_back(first);
    }
    float component = 0.0f;
    while (words >> component) sample.embedding.push_back(component);
    // A voiceprint of another length, or one that is not a vector of numbers,
    // cannot be compared with the rest; a reader skips it.
    const bool usable =
        static_cast<int>(sample.embedding.size()) == dim_ && AllFinite(sample.embedding);
    std::string problem = VoiceprintLineProblem(value_words, dim_);
    if (problem.empty() && !usable) problem = "voiceprint values cannot be read";
    if (!problem.empty()) NoteLoss(line_number, problem);
    if (usable) block_.samples.push_back(std::move(sample));
    return true;
  }

  int AddEntry(const std::string& id, const std::string& name) {
    const int index = static_cast<int>(entries_.size());
    entries_.push_back(EnrollEntry{id, name, {}});
    indices_by_name_[name].push_back(index);
    if (id.empty()) {
      index_without_id_by_name_[name] = index;
    } else {
      index_by_id_.emplace(id, index);
    }
    return index;
  }

  int EntryForBlockWithId() {
    const auto known = index_by_id_.find(block_.id);
    if (known != index_by_id_.end()) {
      const std::string& holder = entries_[static_cast<size_t>(known->second)].name;
      // Two blocks of one id may be one speaker written twice or two people
      // given the same id; a reader takes the first, a rewrite cannot tell.
      if (holder == block_.name) {
        NoteLoss(block_.id_line, "speaker id " + block_.id + " appears a second time");
        return known->second;
      }
      NoteLoss(block_.id_line, "speaker id " + block_.id + " is also the id of speaker '" + holder + "'");
      return AddEntry(block_.id, block_.name);
    }
    // A legacy block of this name read earlier gets its id from this one.
    const auto unnamed = index_without_id_by_name_.find(block_.name);
    if (unnamed == index_without_id_by_name_.end()) return AddEntry(block_.id, block_.name);
    const int index = unnamed->second;
    index_without_id_by_name_.erase(unnamed);
    entries_[static_cast<size_t>(index)].id = block_.id;
    index_by_id_.emplace(block_.id, index);
    return index;
  }

  int EntryForBlockWithoutId() {
    const auto named = indices_by_name_.find(block_.name);
    if (named == indices_by_name_.end()) return AddEntry("", block_.name);
    if (named->second.size() > 1) {
      NoteLoss(block_.name_line, "speaker '" + block_.name +
                                     "' has no id line and several speakers have that name");
    }
    return named->second.front();
  }

  void CloseBlock() {
    if (!has_block_) return;
    has_block_ = false;
    const int index = block_.id.empty() ? EntryForBlockWithoutId() : EntryForBlockWithId();
    std::vector<EnrollSample>& samples = entries_[static_cast<size_t>(index)].samples;
    for (EnrollSample& sample : block_.samples) samples.push_back(std::move(sample));
    block_ = SpeakerBlock{};
  }

  bool header_seen_ = false;
  int dim_ = 0;
  bool has_block_ = false;
  SpeakerBlock block_;
  std::vector<EnrollEntry> entries_;
  std::map<std::string, int> index_by_id_;
  std::map<std::string, int> index_without_id_by_name_;
  std::map<std::string, std::vector<int>> indices_by_name_;
  int loss_line_ = 0;
  std::string loss_;
};

// A name the reader would see as empty, or one that would spill onto a second
// line, would leave a file that no longer loads; such a name is never written.
bool NameSurvivesReload(const std::string& name) {
  return name.find('\n') == std::string::npos && !ValueAfterKeyword(" " + name).empty();
}

// The last guard before the file is replaced: whatever is written must load
// back whole, or the next edit would drop it.
bool CheckEntriesWritable(int dim, const std::vector<EnrollEntry>& entries, std::string* error) {
  for (const EnrollEntry& entry : entries) {
    if (!NameSurvivesReload(entry.name)) {
      return Fail(error, "speaker name is blank or holds a line break: '" + entry.name + "'");
    }
    for (const EnrollSample& sample : entry.samples) {
      if (!AllFinite(sample.embedding) || static_cast<int>(sample.embedding.size()) != dim) {
        return Fail(error, "voiceprint of speaker '" + entry.name +
                               "' is not a vector of dim finite numbers");
      }
    }
  }
  return true;
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

std::string NotRegularFileMessage(const std::string& path) {
  return "enroll DB is not a regular file: " + path;
}

// A device, a FIFO or a directory given as the database is a mistake that a
// rewrite would turn into data loss (or a hang); a link to nothing would be
// replaced by a file that is no longer where the link points.
bool CheckReplaceablePath(const std::string& path, std::string* error) {
  switch (ResolveReplaceTarget(path).kind) {
    case ReplaceTargetKind::kMissing:
    case ReplaceTargetKind::kRegularFile:
      return true;
    case ReplaceTargetKind::kDanglingLink:
      return Fail(error, "enroll DB is a symbolic link to nothing: " + path);
    case ReplaceTargetKind::kOther:
      break;
  }
  return Fail(error, NotRegularFileMessage(path));
}

bool WriteEnrollDb(const std::string& path, int dim, const std::vector<EnrollEntry>& entries,
                   std::string* error) {
  if (!CheckEntriesWritable(dim, entries, error)) return false;
  if (!CheckParentDirectory(path, error)) return false;
  switch (ReplaceFileAtomically(path, FormatEnrollDb(dim, entries))) {
    case AtomicWriteStatus::kWritten:
      return true;
    case AtomicWriteStatus::kCannotCreate:
      return Fail(error, "cannot open enroll DB for write: " + path);
    case AtomicWriteStatus::kNotRegularFile:
      return Fail(error, NotRegularFileMessage(path));
    case AtomicWriteStatus::kWriteFailed:
      break;
  }
  return Fail(error, "write error on " + path);
}

// Reads the whole file. A path that does not exist (or, for a reader, cannot be
// opened) is an empty database: *exists becomes false. O_NONBLOCK keeps a FIFO
// from hanging the open; it is then refused like any other non-regular file.
bool ReadEnrollDbText(const std::string& path, bool for_rewrite, std::string* text, bool* exists,
                      std::string* error) {
  *exists = false;
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    const bool absent = errno == ENOENT || errno == ENOTDIR;
    if (absent || !for_rewrite) return true;
    return Fail(error, "cannot read enroll DB: " + path);
  }
  struct stat status {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    close(fd);
    return Fail(error, NotRegularFileMessage(path));
  }
  char buffer[64 * 1024];
  ssize_t got = 0;
  while ((got = read(fd, buffer, sizeof(buffer))) != 0) {
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      close(fd);
      return Fail(error, "cannot read enroll DB: " + path);
    }
    text->append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  *exists = true;
  return true;
}

// Lines end at "\n"; a last line without one still counts, an empty tail does not.
bool ParseEnrollDbText(const std::string& text, EnrollDbParser* parser, std::string* error) {
  size_t start = 0;
  int line_number = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    ++line_number;
    if (!parser->ParseLine(text.substr(start, end - start), line_number, error)) return false;
    start = end + 1;
  }
  return true;
}

bool LoadEnrollDbAs(const std::string& path, bool for_rewrite, int* dim,
                    std::vector<EnrollEntry>* entries, std::string* error) {
  if (dim != nullptr) *dim = 0;
  if (entries != nullptr) entries->clear();
  std::string text;
  bool exists = false;
  if (!ReadEnrollDbText(path, for_rewrite, &text, &exists, error)) return false;
  if (!exists) return true;

  EnrollDbParser parser;
  if (!ParseEnrollDbText(text, &parser, error)) return false;
  parser.Finish();
  if (!parser.header_seen() && !parser.entries().empty()) {
    return Fail(error, std::string("missing '") + kHeaderKeyword + "' header in " + path);
  }
  if (for_rewrite && parser.loss_line() != 0) {
    return Fail(error, "refusing to rewrite the enroll DB, which would lose line " +
                           std::to_string(parser.loss_line()) + ": " + parser.loss());
  }
  for (EnrollEntry& entry : parser.entries()) {
    if (entry.id.empty()) entry.id = GenerateUuidV4();
  }
  if (dim != nullptr) *dim = parser.dim();
  if (entries != nullptr) *entries = std::move(parser.entries());
  return true;
}

// What an edit decided about the database it was handed.
enum class EditOutcome { kWrite, kLeaveUnchanged, kFailed };
using EnrollDbEdit =
    std::function<EditOutcome(int* dim, std::vector<EnrollEntry>* entries, std::string* error)>;

// Every edit is one read-modify-write under the database's lock, so that edits
// from processes started at once take turns and none writes back a database
// that misses another's change. The load refuses a file it could not write
// back whole.
bool EditEnrollDb(const std::string& path, const EnrollDbEdit& edit, std::string* error) {
  if (!CheckReplaceablePath(path, error)) return false;
  // With no database yet, most edits have nothing to do: they are answered
  // without creating a lock file. An edit that does write (a first
  // registration) runs again below, under the lock, on whatever is there then.
  if (ResolveReplaceTarget(path).kind == ReplaceTargetKind::kMissing) {
    int dim = 0;
    std::vector<EnrollEntry> entries;
    const EditOutcome trial = edit(&dim, &entries, error);
    if (trial != EditOutcome::kWrite) return trial == EditOutcome::kLeaveUnchanged;
  }
  EnrollDbLock lock;
  if (!lock.Acquire(path, error)) return false;
  int dim = 0;
  std::vector<EnrollEntry> entries;
  if (!LoadEnrollDbAs(path, true, &dim, &entries, error)) return false;
  const EditOutcome outcome = edit(&dim, &entries, error);
  if (outcome != EditOutcome::kWrite) return outcome == EditOutcome::kLeaveUnchanged;
  return WriteEnrollDb(path, dim, entries, error);
}

const EnrollEntry* FindSampleHolder(const std::vector<EnrollEntry>& entries, const std::string& md5) {
  for (const EnrollEntry& entry : entries) {
    for (const EnrollSample& sample : entry.samples) {
      if (sample.md5 == md5) return &entry;
    }
  }
  return nullptr;
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

// After a removal: write when something went, or when the caller did not ask
// whether anything was found (it then always gets the file written back).
EditOutcome OutcomeOfRemoval(size_t removed, bool* found) {
  if (removed > 0 && found != nullptr) *found = true;
  return removed == 0 && found != nullptr ? EditOutcome::kLeaveUnchanged : EditOutcome::kWrite;
}

// The voiceprint goes to speaker `id` (renamed to `name`), or to a new speaker.
EditOutcome AddVoiceprint(const std::string& id, const std::string& name, EnrollSample sample,
                          int* dim, std::vector<EnrollEntry>* entries, std::string* error,
                          std::string* out_id) {
  const int length = static_cast<int>(sample.embedding.size());
  if (entries->empty()) {
    *dim = length;
  } else if (length != *dim) {
    Fail(error, "embedding dim " + std::to_string(length) + " != existing DB dim " +
                    std::to_string(*dim));
    return EditOutcome::kFailed;
  }
  if (id.empty()) {
    entries->push_back(EnrollEntry{GenerateUuidV4(), name, {std::move(sample)}});
    if (out_id != nullptr) *out_id = entries->back().id;
    return EditOutcome::kWrite;
  }
  auto target = entries->begin();
  while (target != entries->end() && target->id != id) ++target;
  if (target == entries->end()) {
    Fail(error, "speaker id not found: " + id);
    return EditOutcome::kFailed;
  }
  target->name = name;
  target->samples.push_back(std::move(sample));
  if (out_id != nullptr) *out_id = target->id;
  return EditOutcome::kWrite;
}

}  // namespace

bool LoadEnrollDb(const std::string& path, int* dim, std::vector<EnrollEntry>* entries,
                  std::string* error) {
  return LoadEnrollDbAs(path, false, dim, entries, error);
}

bool LoadEnrollDbForRewrite(const std::string& path, int* dim, std::vector<EnrollEntry>* entries,
                            std::string* error) {
  return LoadEnrollDbAs(path, true, dim, entries, error);
}

bool AppendEnrollEmbedding(const std::string& path, const std::string& id,
                           const std::string& name, const std::string& md5,
                           const std::vector<float>& embedding, std::string* error,
                           bool* already_registered, std::string* out_id) {
  if (already_registered != nullptr) *already_registered = false;
  if (name.empty()) return Fail(error, "register name is empty");
  if (embedding.empty()) return Fail(error, "register embedding is empty");
  // A voiceprint of NaN or infinity matches nothing and would not load back.
  if (!AllFinite(embedding)) return Fail(error, "register embedding holds a value that is not a finite number");

  auto add = [&](int* dim, std::vector<EnrollEntry>* entries, std::string* edit_error) {
    const EnrollEntry* holder = md5.empty() ? nullptr : FindSampleHolder(*entries, md5);
    if (holder != nullptr) {
      if (already_registered != nullptr) *already_registered = true;
      if (out_id != nullptr) *out_id = holder->id;
      return EditOutcome::kLeaveUnchanged;
    }
    return AddVoiceprint(id, name, EnrollSample{md5, embedding}, dim, entries, edit_error, out_id);
  };
  return EditEnrollDb(path, add, error);
}

bool EnrollDbContainsMd5(const std::string& path, const std::string& md5, std::string* error) {
  if (md5.empty()) return false;
  std::vector<EnrollEntry> entries;
  if (!LoadEnrollDb(path, nullptr, &entries, error)) return false;
  return FindSampleHolder(entries, md5) != nullptr;
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
  auto remove = [&](int*, std::vector<EnrollEntry>* entries, std::string*) {
    const size_t removed = RemoveEntries(
        entries, [&name](const EnrollEntry& entry) { return entry.name == name; }, removed_md5s,
        nullptr);
    return OutcomeOfRemoval(removed, found);
  };
  return EditEnrollDb(path, remove, error);
}

bool RemoveEnrollById(const std::string& path, const std::string& id,
                      std::vector<std::string>* removed_md5s, bool* found,
                      std::string* removed_name, std::string* error) {
  if (found != nullptr) *found = false;
  if (id.empty()) return Fail(error, "speaker id is empty");
  auto remove = [&](int*, std::vector<EnrollEntry>* entries, std::string*) {
    const size_t removed = RemoveEntries(
        entries, [&id](const EnrollEntry& entry) { return entry.id == id; }, removed_md5s,
        removed_name);
    return OutcomeOfRemoval(removed, found);
  };
  return EditEnrollDb(path, remove, error);
}

bool RemoveEnrollByMd5(const std::string& path, const std::string& md5, bool* found,
                       std::string* name, std::string* error) {
  if (found != nullptr) *found = false;
  if (md5.empty()) return Fail(error, "unregister md5 is empty");
  auto remove = [&](int*, std::vector<EnrollEntry>* entries, std::string*) {
    std::vector<EnrollEntry> kept;
    bool erased_any = false;
    for (EnrollEntry& entry : *entries) {
      auto& samples = entry.samples;
      const size_t before = samples.size();
      samples.erase(std::remove_if(samples.begin(), samples.end(),
                                   [&md5](const EnrollSample& sample) { return sample.md5 == md5; }),
                    samples.end());
      const bool lost_some = samples.size() != before;
      if (lost_some) {
        erased_any = true;
        if (name != nullptr) *name = entry.name;
      }
      // A speaker this removal left without any voiceprint cannot be
      // recognised and goes too; one that had none before was not asked about.
      if (!lost_some || !samples.empty()) kept.push_back(std::move(entry));
    }
    if (!erased_any) return EditOutcome::kLeaveUnchanged;
    if (found != nullptr) *found = true;
    *entries = std::move(kept);
    return EditOutcome::kWrite;
  };
  return EditEnrollDb(path, remove, error);
}

bool RenameEnrollById(const std::string& path, const std::string& id,
                      const std::string& new_name, bool* found, std::string* error) {
  if (found != nullptr) *found = false;
  if (id.empty()) return Fail(error, "speaker id is empty");
  if (new_name.empty()) return Fail(error, "speaker name is empty");
  auto rename = [&](int*, std::vector<EnrollEntry>* entries, std::string*) {
    for (EnrollEntry& entry : *entries) {
      if (entry.id != id) continue;
      entry.name = new_name;
      if (found != nullptr) *found = true;
      return EditOutcome::kWrite;
    }
    return found != nullptr ? EditOutcome::kLeaveUnchanged : EditOutcome::kWrite;
  };
  return EditEnrollDb(path, rename, error);
}

bool MigrateEnrollDb(const std::string& path, std::string* error) {
  auto migrate = [](int* dim, std::vector<EnrollEntry>* entries, std::string*) {
    // Nothing to migrate, and no file is created for it.
    if (entries->empty() && *dim < 1) return EditOutcome::kLeaveUnchanged;
    return EditOutcome::kWrite;
  };
  return EditEnrollDb(path, migrate, error);
}

}  // namespace kerrow
