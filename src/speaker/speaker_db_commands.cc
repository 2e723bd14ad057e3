#include "speaker/speaker_db_commands.h"

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "events/event_emitter.h"
#include "events/json_escape.h"
#include "speaker/enroll_db.h"
#include "speaker/samples_dir.h"

namespace kerrow {
namespace {

constexpr int kStatusOk = 0;
constexpr int kStatusError = 1;

int ReplyError(const std::string& message) {
  EventEmitter emitter;
  emitter.EmitError(message);
  return kStatusError;
}

int Reply(const std::string& json) {
  EventEmitter emitter;
  emitter.EmitRawJson(json);
  return kStatusOk;
}

std::string Quoted(const std::string& text) { return "\"" + JsonEscape(text) + "\""; }

std::string VoiceprintJson(const Options& options, const EnrollSample& sample) {
  const std::string sample_path = sample.md5.empty() ? "" : SampleFilePathFor(options, sample.md5);
  return "{\"md5\":" + Quoted(sample.md5) + ",\"sample\":" + Quoted(sample_path) + "}";
}

std::string SpeakerJson(const Options& options, const EnrollEntry& entry) {
  std::string json = "{\"id\":" + Quoted(entry.id) + ",\"name\":" + Quoted(entry.name) +
                     ",\"count\":" + std::to_string(entry.samples.size()) + ",\"voiceprints\":[";
  for (size_t i = 0; i < entry.samples.size(); ++i) {
    if (i > 0) json += ",";
    json += VoiceprintJson(options, entry.samples[i]);
  }
  return json + "]}";
}

std::string NotFoundJson(const std::string& key, const std::string& value) {
  return "{\"type\":\"ok\",\"status\":\"not_found\",\"" + key + "\":" + Quoted(value) + "}";
}

// The copies are conveniences for the host; one that is already gone (or cannot
// be removed) must not turn a successful removal into an error.
void DeleteSampleCopies(const Options& options, const std::vector<std::string>& md5s) {
  for (const std::string& md5 : md5s) {
    std::error_code ignored;
    std::filesystem::remove(SampleFilePathFor(options, md5), ignored);
  }
}

// Which of the three unregister options decides, and what it found.
struct Removal {
  std::string key;    // "id", "name" or "md5": the kind of removal
  std::string value;  // the value asked for
  bool found = false;
  std::string name;
  std::vector<std::string> removed_md5s;
};

bool RemoveChosen(const Options& options, Removal* removal, std::string* error) {
  const std::string& db = options.speaker_enroll_db;
  if (!options.unregister_speaker_id.empty()) {
    removal->key = "id";
    removal->value = options.unregister_speaker_id;
    return RemoveEnrollById(db, removal->value, &removal->removed_md5s, &removal->found,
                            &removal->name, error);
  }
  if (!options.unregister_name.empty()) {
    removal->key = "name";
    removal->value = options.unregister_name;
    removal->name = options.unregister_name;
    return RemoveEnrollByName(db, removal->value, &removal->removed_md5s, &removal->found, error);
  }
  removal->key = "md5";
  removal->value = options.unregister_md5;
  if (!RemoveEnrollByMd5(db, removal->value, &removal->found, &removal->name, error)) return false;
  if (removal->found) removal->removed_md5s.push_back(removal->value);
  return true;
}

}  // namespace

int RunListSpeakers(const Options& options) {
  if (options.speaker_enroll_db.empty()) {
    return ReplyError("--list-speakers requires --speaker-enroll-db");
  }
  int dim = 0;
  std::vector<EnrollEntry> entries;
  std::string error;
  if (!LoadEnrollDb(options.speaker_enroll_db, &dim, &entries, &error)) {
    return ReplyError("list: " + error);
  }
  std::string json = "{\"type\":\"speakers\",\"dim\":" + std::to_string(dim) + ",\"speakers\":[";
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i > 0) json += ",";
    json += SpeakerJson(options, entries[i]);
  }
  return Reply(json + "]}");
}

int RunMigrateSpeakers(const Options& options) {
  if (options.speaker_enroll_db.empty()) {
    return ReplyError("--migrate-speakers requires --speaker-enroll-db");
  }
  std::string error;
  if (!MigrateEnrollDb(options.speaker_enroll_db, &error)) return ReplyError("migrate: " + error);
  // The reply is the migrated database itself, so the host sees every new id.
  return RunListSpeakers(options);
}

int RunRenameSpeaker(const Options& options) {
  if (options.speaker_enroll_db.empty()) return ReplyError("rename requires --speaker-enroll-db");
  if (options.rename_speaker_id.empty() || options.rename_speaker_name.empty()) {
    return ReplyError("rename requires --rename-speaker-id ID and --rename-speaker-name NAME");
  }
  bool found = false;
  std::string error;
  if (!RenameEnrollById(options.speaker_enroll_db, options.rename_speaker_id,
                        options.rename_speaker_name, &found, &error)) {
    return ReplyError("rename: " + error);
  }
  if (!found) return Reply(NotFoundJson("id", options.rename_speaker_id));
  return Reply("{\"type\":\"ok\",\"status\":\"renamed\",\"id\":" + Quoted(options.rename_speaker_id) +
               ",\"name\":" + Quoted(options.rename_speaker_name) + "}");
}

int RunUnregister(const Options& options) {
  if (options.speaker_enroll_db.empty()) return ReplyError("unregister requires --speaker-enroll-db");
  if (options.unregister_speaker_id.empty() && options.unregister_name.empty() &&
      options.unregister_md5.empty()) {
    return ReplyError("unregister requires --unregister-name NAME or --unregister-md5 MD5");
  }
  Removal removal;
  std::string error;
  if (!RemoveChosen(options, &removal, &error)) return ReplyError("unregister: " + error);
  if (!removal.found) return Reply(NotFoundJson(removal.key, removal.value));

  DeleteSampleCopies(options, removal.removed_md5s);
  std::string removed_list;
  for (size_t i = 0; i < removal.removed_md5s.size(); ++i) {
    if (i > 0) removed_list += ",";
    removed_list += Quoted(removal.removed_md5s[i]);
  }
  return Reply("{\"type\":\"ok\",\"status\":\"unregistered\",\"id\":" +
               Quoted(options.unregister_speaker_id) + ",\"name\":" + Quoted(removal.name) +
               ",\"removed\":[" + removed_list + "]}");
}

}  // namespace kerrow
