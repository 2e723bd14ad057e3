#include "app/run.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app/library_busy_report.h"
#include "app/library_thread_counts.h"
#include "common/out_of_memory_guard.h"
#include "audio/audio_buffer.h"
#include "audio/pcm_file_reader.h"
#include "audio/wav_reader.h"
#include "common/thread_count_cap.h"
#include "diarization/diarization_backend.h"
#include "engine/offline_decoder_backend.h"
#include "engine/online_backend.h"
#include "engine/punc_backend.h"
#include "engine/vad_backend.h"
#include "events/event_emitter.h"
#include "events/number_format.h"
#include "live/command_loop.h"
#include "live/pcm_loop.h"
#include "live/shared_state.h"
#include "offline/offline_two_pass.h"
#include "speaker/speaker_identifier.h"

namespace kerrow {
namespace {

// The streaming recognizer's endpoint rules are fixed by design: no option
// reaches them (--disable-endpoint is honoured by the PCM loop instead).
constexpr float kRule1MinTrailingSilence = 1.8f;
constexpr float kRule2MinTrailingSilence = 0.8f;
constexpr float kRule3MinUtteranceLength = 8.0f;
constexpr auto kQuitPollInterval = std::chrono::milliseconds(30);

// What the set-up built. A component that failed to load stays null (or not
// ready) and the run goes on without it.
struct Components {
  // Always present: the live session keeps running on a decoder that failed to
  // load (its decodes then fail with a message); only file input refuses it.
  OfflineDecoderBackend* decoder = nullptr;
  bool decoder_ready = false;
  std::string decoder_error;
  PuncBackend* punc = nullptr;
  OnlineBackend* online = nullptr;
  VadBackend* vad = nullptr;
  DiarizationBackend* diarization = nullptr;
  SpeakerIdentifier* speaker_id = nullptr;
};

// What the host is told about one component's load: its success line, or its
// failure line followed, where the run falls back to something, by that.
struct InitReport {
  std::string success;
  std::string failure_prefix;
  std::string fallback;  // empty: nothing further to say
};

bool ReportInit(EventEmitter* emitter, bool ok, const std::string& error, const InitReport& report) {
  if (ok) {
    emitter->EmitLog(report.success);
    return true;
  }
  emitter->EmitLog(report.failure_prefix + error);
  if (!report.fallback.empty()) emitter->EmitLog(report.fallback);
  return false;
}

DecoderInitOptions MakeDecoderInitOptions(const Options& options, LibraryThreadCounts* threads) {
  DecoderInitOptions init;
  init.sample_rate = options.sample_rate;
  init.num_threads = threads->For("[M2]", "--num-threads-second", options.num_threads_second);
  init.provider = options.provider_second;
  init.model_type = options.second_type;
  init.sense_voice_model = options.second_model;
  init.whisper_encoder = options.second_encoder;
  init.whisper_decoder = options.second_decoder;
  init.tokens = options.second_tokens;
  init.language = options.second_language;
  init.whisper_task = options.second_task;
  init.use_itn = !options.disable_second_itn;
  return init;
}

// The "Creating recognizers" line deliberately follows the offline model load:
// the host reads it as "the long load is over, the rest follows".
void InitDecoder(const Options& options, LibraryThreadCounts* threads, EventEmitter* emitter,
                 OfflineDecoderBackend* decoder, std::string* error) {
  const bool ok = decoder->Init(MakeDecoderInitOptions(options, threads), error);
  emitter->EmitLog("Creating recognizers. Please wait...");
  ReportInit(emitter, ok, *error,
             {"[M2] Offline decoder initialized", "[M2] Offline decoder init failed: ",
              "[M2] Running in skeleton fallback mode"});
}

bool InitPunctuation(const Options& options, LibraryThreadCounts* threads, EventEmitter* emitter,
                     PuncBackend* punc) {
  PuncInitOptions init;
  init.model = options.ct_transformer;
  init.num_threads = threads->For("[M3]", "--num-threads-punc", options.num_threads_punc);
  init.provider = options.provider_punc;
  std::string error;
  const bool ok = punc->Init(init, &error);
  return ReportInit(emitter, ok, error,
                    {"[M3] Offline punctuation initialized", "[M3] Offline punctuation init failed: ", ""});
}

OnlineInitOptions MakeOnlineInitOptions(const Options& options, LibraryThreadCounts* threads) {
  OnlineInitOptions init;
  init.sample_rate = options.sample_rate;
  init.feature_dim = 80;
  init.num_threads = threads->For("[M3]", "--num-threads-first", options.num_threads_first);
  init.provider = options.provider_first;
  init.model_type = options.first_model_type;
  init.encoder = options.first_encoder;
  init.decoder = options.first_decoder;
  init.joiner = options.first_joiner;
  init.tokens = options.first_tokens;
  init.decoding_method = "greedy_search";
  init.max_active_paths = 4;
  init.enable_endpoint = true;
  init.rule1_min_trailing_silence = kRule1MinTrailingSilence;
  init.rule2_min_trailing_silence = kRule2MinTrailingSilence;
  init.rule3_min_utterance_length = kRule3MinUtteranceLength;
  return init;
}

bool InitOnline(const Options& options, LibraryThreadCounts* threads, EventEmitter* emitter,
                OnlineBackend* online) {
  std::string error;
  const bool ok = online->Init(MakeOnlineInitOptions(options, threads), &error);
  return ReportInit(emitter, ok, error,
                    {"[M3] Online recognizer initialized for first-pass partials",
                     "[M3] Online recognizer init failed: ", "[M3] first-pass will fallback to placeholder events"});
}

VadInitOptions MakeVadInitOptions(const Options& options) {
  VadInitOptions init;
  init.model = options.silero_vad_model;
  init.sample_rate = options.sample_rate;
  init.threshold = static_cast<float>(options.vad_threshold);
  init.min_silence_duration = static_cast<float>(options.vad_min_silence);
  init.min_speech_duration = static_cast<float>(options.vad_min_speech);
  init.max_speech_duration = static_cast<float>(options.vad_max_speech);
  init.window_size = 512;
  init.buffer_seconds = 120.0f;
  init.num_threads = 1;
  init.provider = options.provider_first;
  return init;
}

bool InitVad(const Options& options, EventEmitter* emitter, VadBackend* vad) {
  std::string error;
  const bool ok = vad->Init(MakeVadInitOptions(options), &error);
  return ReportInit(emitter, ok, error,
                    {"[M2] VAD initialized for manual-realtime", "[M2] VAD init failed: ",
                     "[M2] manual-realtime will fallback to legacy buffering"});
}

bool DiarizationRequested(const Options& options) {
  return options.diarization &&
         (!options.diarization_model.empty() ||
          (!options.diarization_segmentation_model.empty() && !options.diarization_embedding_model.empty()));
}

std::string DiarizationLabel(const Options& options) {
  if (options.diarization_helper_binary.empty()) return "sherpa-onnx";
  const std::string backend = options.diarization_backend.empty() ? "offline" : options.diarization_backend;
  return "fluidaudio-diar, backend=" + backend;
}

// The diarization thread count reaches the library through the in-process
// backend and the speaker identifier; a helper process is given no count.
int32_t DiarizationThreads(const Options& options, LibraryThreadCounts* threads) {
  return std::max(threads->For("[M2]", "--diarization-num-threads", options.diarization_num_threads), 1);
}

std::unique_ptr<DiarizationBackend> InitDiarization(const Options& options, LibraryThreadCounts* threads,
                                                    EventEmitter* emitter) {
  DiarizationInitOptions init;
  init.model = options.diarization_model;
  init.segmentation_model = options.diarization_segmentation_model;
  init.embedding_model = options.diarization_embedding_model;
  init.num_threads = options.diarization_helper_binary.empty() ? DiarizationThreads(options, threads)
                                                               : std::max(options.diarization_num_threads, 1);
  init.provider = options.provider_first;
  init.min_speakers = options.diarization_min_speakers;
  init.max_speakers = options.diarization_max_speakers;
  init.helper_binary = options.diarization_helper_binary;
  init.backend = options.diarization_backend;
  std::string error;
  std::unique_ptr<DiarizationBackend> backend = CreateDiarizationBackend(init, &error);
  ReportInit(emitter, backend != nullptr, error,
             {"[M2] Speaker diarization initialized (" + DiarizationLabel(options) + ")",
              "[M2] Speaker diarization init failed: ", ""});
  return backend;
}

bool SpeakerIdRequested(const Options& options) {
  return options.speaker_id && !options.speaker_embedding_model.empty() && !options.speaker_enroll_db.empty();
}

bool InitSpeakerId(const Options& options, LibraryThreadCounts* threads, EventEmitter* emitter,
                   SpeakerIdentifier* identifier) {
  SpeakerIdentifierOptions init;
  init.model = options.speaker_embedding_model;
  init.enroll_db = options.speaker_enroll_db;
  init.num_threads = DiarizationThreads(options, threads);
  init.provider = options.provider_first;
  init.threshold = static_cast<float>(options.speaker_id_threshold);
  std::string error;
  const bool ok = identifier->Init(init, &error);
  return ReportInit(emitter, ok, error,
                    {"[M2] Speaker identification initialized (threshold=" + FormatFixed(init.threshold, 6) + ")",
                     "[M2] Speaker identification init failed: ", ""});
}

// Every file, WAV or raw PCM, goes through the whole-recording two-pass decode.
int DecodeFileInput(const Options& options, const Components& components, EventEmitter* emitter) {
  const bool is_wav = !options.wav_input.empty();
  const std::string option_name = is_wav ? "--wav-input" : "--pcm-input";
  const std::string kind = is_wav ? "WAV" : "PCM";
  if (!components.decoder_ready) {
    emitter->EmitError("Decoder is not ready for " + option_name + ": " + components.decoder_error);
    emitter->EmitComplete("File decode failed");
    return 1;
  }

  std::vector<float> samples;
  std::string error;
  const bool read = is_wav ? ReadWavMono(options.wav_input, options.sample_rate, &samples, &error)
                           : ReadPcmMono(options.pcm_input, options.audio_format, &samples, &error);
  if (!read) {
    emitter->EmitError(error);
    emitter->EmitComplete("File decode failed");
    return 1;
  }
  // The decode reads the samples where they are: a file has no live session
  // appending to a capture buffer, so one copy of the recording is all it takes.
  emitter->EmitLog(kind + " input: using unified offline_2pass decode path");
  const LibraryBusyReport busy_report;
  if (!DecodeAndEmitOffline2PassSamples(options, components.decoder, components.punc, components.diarization,
                                        components.speaker_id, emitter, samples)) {
    emitter->EmitError("File decode failed");
    emitter->EmitComplete("File decode failed");
    return 1;
  }
  emitter->EmitComplete(kind + " decode done");
  return 0;
}

// A file decode that runs out of memory ends like any other failed decode.
int RunFileInput(const Options& options, const Components& components, EventEmitter* emitter) {
  int status = 1;
  if (RunUnlessOutOfMemory([&] { status = DecodeFileInput(options, components, emitter); })) return status;
  emitter->EmitError(kOutOfMemoryMessage);
  emitter->EmitComplete("File decode failed");
  return 1;
}

// Runs a live session's thread body; running out of memory in it ends the
// session the way "quit" does, after an error event, with a failed exit status.
template <typename Body>
void RunSessionThread(Body body, EventEmitter* emitter, SharedState* state, std::atomic<bool>* out_of_memory) {
  if (RunUnlessOutOfMemory(body)) return;
  out_of_memory->store(true);
  emitter->EmitError(kOutOfMemoryMessage);
  state->quit.store(true);
}

int RunLiveSession(const Options& options, const Components& components, EventEmitter* emitter,
                   SharedState* state, AudioBuffer* audio) {
  std::atomic<bool> out_of_memory{false};
  std::thread command_thread([&] {
    RunSessionThread(
        [&] {
          CommandLoop(options, components.decoder, components.punc, components.diarization, components.speaker_id,
                      emitter, state, audio);
        },
        emitter, state, &out_of_memory);
  });
  std::thread pcm_thread([&] {
    RunSessionThread(
        [&] {
          PcmLoop(options, components.online, components.decoder, components.punc, components.vad,
                  components.diarization, components.speaker_id, emitter, state, audio);
        },
        emitter, state, &out_of_memory);
  });
  while (!state->quit.load()) std::this_thread::sleep_for(kQuitPollInterval);
  if (command_thread.joinable()) command_thread.join();
  if (pcm_thread.joinable()) pcm_thread.join();
  emitter->EmitComplete("Session ended (partial M2)");
  return out_of_memory.load() ? 1 : 0;
}

}  // namespace

int Run(const Options& options) {
  // Declared in creation order so that they are destroyed in reverse: the
  // identifier first, the emitter last.
  EventEmitter emitter;
  SharedState state;
  AudioBuffer audio;
  OfflineDecoderBackend decoder;
  OnlineBackend online;
  VadBackend vad;
  PuncBackend punc;
  std::unique_ptr<DiarizationBackend> diarization;
  SpeakerIdentifier speaker_identifier;

  state.single_partial_step_samples = SinglePartialStepSamples(options.single_partial_interval, options.sample_rate);
  state.capturing = !(options.manual_mode && options.start_paused);
  {
    std::lock_guard<std::mutex> lock(state.mode_mutex);
    state.mode = "auto";
  }

  LibraryThreadCounts threads(UsableCoreCount(), &emitter);
  Components components;
  InitDecoder(options, &threads, &emitter, &decoder, &components.decoder_error);
  components.decoder = &decoder;
  components.decoder_ready = decoder.IsReady();

  if (!options.ct_transformer.empty() && InitPunctuation(options, &threads, &emitter, &punc)) components.punc = &punc;

  if (options.manual_realtime) {
    if (!options.single_model_streaming && InitOnline(options, &threads, &emitter, &online)) components.online = &online;
    if (InitVad(options, &emitter, &vad)) components.vad = &vad;
  }

  if (DiarizationRequested(options)) {
    diarization = InitDiarization(options, &threads, &emitter);
    components.diarization = diarization.get();
  }
  if (components.diarization != nullptr && SpeakerIdRequested(options) &&
      InitSpeakerId(options, &threads, &emitter, &speaker_identifier) && speaker_identifier.IsReady()) {
    components.speaker_id = &speaker_identifier;
  }

  emitter.EmitReady();

  if (!options.wav_input.empty() || !options.pcm_input.empty()) {
    return RunFileInput(options, components, &emitter);
  }
  return RunLiveSession(options, components, &emitter, &state, &audio);
}

}  // namespace kerrow
