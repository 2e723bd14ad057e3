#include "speaker/speaker_db_commands.h"

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "events/event_emitter.h"
#include "events/json_object.h"
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

std::string VoiceprintJson(const Options& options, const EnrollSample& sample) {
  const std::string sample_path = sample.md5.empty() ? "" : SampleFilePathFor(options, sample.md5);
  return JsonObject().AddString("md5", sample.md5).AddString("sample", sample_path).Text();
}

std::string SpeakerJson(const Options& options, const EnrollEntry& entry) {
  std::vector<std::string> voiceprints;
  for (const EnrollSample& sample : entry.samples) voiceprints.push_back(VoiceprintJson(options, sample));
  return JsonObject()
      .AddString("id", entry.id)
      .AddString("name", entry.name)
      .AddInt("count", static_cast<long long>(entry.samples.size()))
      .AddRaw("voiceprints", JsonArray(voiceprints))
      .Text();
}

std::string NotFoundJson(const std::string& key, const std::string& value) {
  return JsonObject().AddString("type", "ok").AddString("status", "not_found").AddString(key, value).Text();
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
  std::vector<std::string> speakers;
  for (const EnrollEntry& entry : entries) speakers.push_back(SpeakerJson(options, entry));
  return Reply(JsonObject()
                   .AddString("type", "speakers")
                   .AddInt("dim", dim)
                   .AddRaw("speakers", JsonArray(speakers))
                   .Text());
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
  return Reply(JsonObject()
                   .AddString("type", "ok")
                   .AddString("status", "renamed")
                   .AddString("id", options.rename_speaker_id)
                   .AddString("name", options.rename_speaker_name)
                   .Text());
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
  return Reply(JsonObject()
                   .AddString("type", "ok")
                   .AddString("status", "unregistered")
                   .AddString("id", options.unregister_speaker_id)
                   .AddString("name", removal.name)
                   .AddRaw("removed", JsonStringArray(removal.removed_md5s))
                   .Text());
}

}  // namespace kerrow
