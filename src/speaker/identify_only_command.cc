#include "speaker/identify_only_command.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "audio/wav_reader.h"
#include "common/thread_count_cap.h"
#include "diarization/diarization_backend.h"
#include "events/event_emitter.h"
#include "events/json_object.h"
#include "events/number_format.h"
#include "speaker/cluster_identity.h"
#include "speaker/segments_tsv.h"
#include "speaker/speaker_identifier.h"

namespace kerrow {
namespace {

std::string MissingIdentifyOption(const Options& options) {
  if (options.speaker_embedding_model.empty()) {
    return "--identify-only requires --speaker-embedding-model";
  }
  if (options.speaker_enroll_db.empty()) return "--identify-only requires --speaker-enroll-db";
  if (options.wav_input.empty()) return "--identify-only requires --wav-input (16 kHz mono WAV)";
  if (options.segments_input.empty()) {
    return "--identify-only requires --segments-input (TSV start\\tend\\tlabel)";
  }
  return "";
}

int FailIdentify(EventEmitter* emitter, const std::string& message) {
  emitter->EmitError("identify: " + message);
  return 1;
}

SpeakerIdentifierOptions IdentifierOptionsFrom(const Options& options) {
  SpeakerIdentifierOptions identifier_options;
  identifier_options.model = options.speaker_embedding_model;
  identifier_options.enroll_db = options.speaker_enroll_db;
  // A one-shot reply has no set-up log to mention the lowering in.
  identifier_options.num_threads =
      std::max(CapThreadCount(options.diarization_num_threads, UsableCoreCount()), 1);
  identifier_options.provider = options.provider_first;
  identifier_options.threshold = static_cast<float>(options.speaker_id_threshold);
  return identifier_options;
}

// {"type":"identify-result","speakers":{label:name,...},"segments":[...]}: the
// matched labels in label order, then every kept turn in file order with the
// name it resolved to (its own label when unmatched) and its cluster's score.
std::string BuildIdentifiedTurnJson(const DiarizationSegment& turn,
                                    const std::map<std::string, std::string>& names,
                                    const std::map<std::string, float>& scores) {
  const auto name = names.find(turn.speaker);
  const auto score = scores.find(turn.speaker);
  return JsonObject()
      .AddRaw("start_time", FormatFixed(turn.start, 3))
      .AddRaw("end_time", FormatFixed(turn.end, 3))
      .AddString("label", turn.speaker)
      .AddString("speaker", name != names.end() ? name->second : turn.speaker)
      .AddRaw("score", FormatFixed(score != scores.end() ? score->second : 0.0, 3))
      .Text();
}

std::string BuildIdentifyResultJson(const std::vector<DiarizationSegment>& turns,
                                    const std::map<std::string, std::string>& names,
                                    const std::map<std::string, float>& scores) {
  JsonObject speakers;
  for (const auto& [label, name] : names) speakers.AddString(label, name);
  std::vector<std::string> segments;
  for (const DiarizationSegment& turn : turns) {
    segments.push_back(BuildIdentifiedTurnJson(turn, names, scores));
  }
  return JsonObject()
      .AddString("type", "identify-result")
      .AddRaw("speakers", speakers.Text())
      .AddRaw("segments", JsonArray(segments))
      .Text();
}

}  // namespace

int RunIdentifyOnly(const Options& options) {
  EventEmitter emitter;
  const std::string missing = MissingIdentifyOption(options);
  if (!missing.empty()) {
    emitter.EmitError(missing);
    return 1;
  }

  std::string error;
  std::vector<float> samples;
  if (!ReadWavMono(options.wav_input, options.sample_rate, &samples, &error)) {
    return FailIdentify(&emitter, error);
  }
  std::ifstream segments_file(options.segments_input);
  if (!segments_file.is_open()) {
    return FailIdentify(&emitter, "cannot open --segments-input: " + options.segments_input);
  }
  const std::vector<DiarizationSegment> turns = ParseSegmentsTsv(segments_file);

  SpeakerIdentifier identifier;
  if (!identifier.Init(IdentifierOptionsFrom(options), &error)) {
    return FailIdentify(&emitter, error);
  }

  // The "[SPEAKER_ID] " lines are emitted here, so the host sees them before the result.
  std::map<std::string, float> scores;
  const std::map<std::string, std::string> names =
      BuildClusterIdentityMap(&identifier, samples, options.sample_rate,
                              options.speaker_id_max_seconds, turns, &emitter, &scores);
  emitter.EmitRawJson(BuildIdentifyResultJson(turns, names, scores));
  emitter.EmitComplete("Identification complete");
  return 0;
}

}  // namespace kerrow
