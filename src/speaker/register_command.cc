#include "speaker/register_command.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "audio/wav_reader.h"
#include "common/thread_count_cap.h"
#include "events/event_emitter.h"
#include "events/json_object.h"
#include "speaker/enroll_db.h"
#include "speaker/md5.h"
#include "speaker/register_input.h"
#include "speaker/samples_dir.h"
#include "speaker/speaker_identifier.h"

namespace kerrow {
namespace {

// Names the option the host forgot, in the order it should fix them.
std::string MissingRegisterOption(const Options& options) {
  if (options.speaker_embedding_model.empty()) {
    return "--register-name requires --speaker-embedding-model";
  }
  if (options.register_input.empty()) {
    return "--register-name requires --register-input (16 kHz mono WAV)";
  }
  if (options.speaker_enroll_db.empty()) {
    return "--register-name requires --speaker-enroll-db (output path)";
  }
  return "";
}

int FailRegister(EventEmitter* emitter, const std::string& message) {
  emitter->EmitError("register: " + message);
  return 1;
}

// Registration must work whatever the database holds (even one built with
// another model), so the identifier is started without it: only the
// extractor is needed here.
bool ComputeRegisterEmbedding(const Options& options, const std::vector<float>& samples,
                              std::vector<float>* embedding, std::string* error) {
  SpeakerIdentifierOptions identifier_options;
  identifier_options.model = options.speaker_embedding_model;
  // A one-shot reply has no set-up log to mention the lowering in.
  identifier_options.num_threads = std::max(1, CapThreadCount(options.diarization_num_threads, UsableCoreCount()));
  identifier_options.provider = options.provider_first;
  identifier_options.threshold = 0.7f;
  SpeakerIdentifier identifier;
  if (!identifier.Init(identifier_options, error)) return false;
  return identifier.ComputeEmbedding(samples, options.sample_rate, embedding, error);
}

// The copy lets the host play back or re-enrol a voiceprint later. Returns the
// copy's path, or "" when it could not be made; registration succeeds either way.
// It is written from the bytes already read: the input may be a pipe that
// cannot be read a second time.
std::string SaveSampleCopy(const Options& options, const std::string& md5, const std::string& bytes,
                           EventEmitter* emitter) {
  const std::string directory = SamplesDirectoryFor(options);
  const std::string copy_path = SampleFilePathFor(options, md5);
  std::error_code failure;
  std::filesystem::create_directories(directory, failure);
  bool saved = false;
  if (!failure) {
    std::ofstream copy(copy_path, std::ios::binary | std::ios::trunc);
    copy.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    copy.close();
    saved = !copy.fail();
  }
  if (!saved) {
    emitter->EmitLog("[REGISTER] warning: could not save sample copy under " + directory);
    return "";
  }
  emitter->EmitLog("[REGISTER] saved sample copy -> " + copy_path);
  return copy_path;
}

bool ReadRegisterSamples(const Options& options, const std::string& bytes, std::vector<float>* samples,
                         std::string* error) {
  std::istringstream wav(bytes);
  return ReadWavMonoFromStream(wav, options.sample_rate, bytes.size(), samples, error);
}

// Decodes the recording, computes its voiceprint and appends it to the
// database; `already_registered` when another registration of the same file
// landed first.
bool EnrollRecording(const Options& options, const std::string& input, const std::string& md5,
                     std::string* id, bool* already_registered, std::string* error) {
  std::vector<float> samples;
  if (!ReadRegisterSamples(options, input, &samples, error)) return false;
  std::vector<float> embedding;
  if (!ComputeRegisterEmbedding(options, samples, &embedding, error)) return false;
  return AppendEnrollEmbedding(options.speaker_enroll_db, options.register_speaker_id,
                               options.register_name, md5, embedding, error, already_registered, id);
}

// The "ok" reply; `id` is left out when null (a file found enrolled before
// any id was read).
JsonObject RegisterReply(const char* status, const std::string* id, const Options& options,
                         const std::string& md5) {
  JsonObject reply;
  reply.AddString("type", "ok").AddString("status", status);
  if (id != nullptr) reply.AddString("id", *id);
  reply.AddString("name", options.register_name).AddString("md5", md5);
  return reply;
}

}  // namespace

int RunRegister(const Options& options) {
  EventEmitter emitter;
  const std::string missing = MissingRegisterOption(options);
  if (!missing.empty()) {
    emitter.EmitError(missing);
    return 1;
  }

  std::string error;
  std::string input;
  if (!ReadRegisterInput(options.register_input, &input, &error)) return FailRegister(&emitter, error);
  const std::string md5 = Md5Hex(input);

  // A file already enrolled is answered before its audio is decoded or any
  // model is touched.
  error.clear();
  if (EnrollDbContainsMd5(options.speaker_enroll_db, md5, &error)) {
    emitter.EmitRawJson(RegisterReply("already_registered", nullptr, options, md5).Text());
    return 0;
  }
  if (!error.empty()) return FailRegister(&emitter, error);

  bool already_registered = false;
  std::string id;
  if (!EnrollRecording(options, input, md5, &id, &already_registered, &error)) {
    return FailRegister(&emitter, error);
  }
  if (already_registered) {
    emitter.EmitRawJson(RegisterReply("already_registered", &id, options, md5).Text());
    return 0;
  }

  const std::string sample_path = SaveSampleCopy(options, md5, input, &emitter);
  emitter.EmitRawJson(RegisterReply("registered", &id, options, md5).AddString("sample", sample_path).Text());
  return 0;
}

}  // namespace kerrow
