#include "live/command_loop.h"

#include <unistd.h>

#include <chrono>
#include <thread>

#include "audio/audio_buffer.h"
#include "common/sample_time.h"
#include "events/event_emitter.h"
#include "events/number_format.h"
#include "live/host_command.h"
#include "live/line_reader.h"
#include "offline/manual_segment.h"
#include "offline/offline_two_pass.h"

namespace kerrow {

namespace {

using Clock = std::chrono::steady_clock;

// How long one wait for input lasts before the loop looks at the quit flag
// again: the PCM thread may end the session while the host keeps stdin open.
constexpr int kInputPollMs = 20;

struct CommandContext {
  const Options& options;
  OfflineDecoderBackend* decoder;
  PuncBackend* punc;
  DiarizationBackend* diarization;
  SpeakerIdentifier* speaker_id;
  EventEmitter* emitter;
  SharedState* state;
  AudioBuffer* audio;

  void Log(const std::string& message) const {
    if (emitter != nullptr) emitter->EmitLog(message);
  }
};

void StartCapture(const CommandContext& context) {
  SharedState* state = context.state;
  const uint64_t seq = state->session_seq.fetch_add(1) + 1;
  const uint64_t prev_total = state->total_samples.load();
  const uint64_t prev_captured = state->captured_samples.load();

  // The PCM thread applies these between two chunks, so the recognizers are
  // never reset in the middle of a decode.
  state->capturing.store(true);
  state->pending_vad_reset.store(true);
  state->pending_online_reset.store(true);
  state->pending_session_reset.store(true);
  state->pending_pcm_clear.store(true);
  state->pending_stop_flush.store(false);
  state->pcm_closed.store(false);
  state->next_segment_id.store(1);

  if (context.audio != nullptr) {
    std::lock_guard<std::mutex> lock(context.audio->mutex);
    context.audio->samples.clear();
    context.audio->capture_samples.clear();
  }
  state->captured_samples.store(0);

  context.Log("Capture started");
  context.Log("[SESSION-DIAG] cmd=start seq=" + std::to_string(seq) +
              " prev_total_samples=" + std::to_string(prev_total) +
              " prev_captured_samples=" + std::to_string(prev_captured) +
              " reset_applied_seq=" + std::to_string(state->reset_applied_seq.load()));
}

void EndCapture(const CommandContext& context) {
  context.state->capturing.store(false);
  context.Log("Capture stopped");
}

void StopCapture(const CommandContext& context) {
  const Options& options = context.options;
  SharedState* state = context.state;
  context.Log("[SESSION-DIAG] cmd=stop seq=" + std::to_string(state->session_seq.load()) +
              " captured_samples=" + std::to_string(state->captured_samples.load()) +
              " total_samples=" + std::to_string(state->total_samples.load()));

  if (!options.manual_mode) {
    // The streaming path has already published its results.
    EndCapture(context);
    return;
  }
  if (!options.manual_realtime) {
    EndCapture(context);
    DecodeAndEmitManualSegment(options, context.decoder, context.punc, context.emitter,
                               context.audio, &state->pending_stop_flush);
    return;
  }
  if (!options.offline_2pass) {
    EndCapture(context);
    // The VAD and the recognizers belong to the PCM thread: it flushes them.
    state->pending_stop_flush.store(true);
    return;
  }
  WaitForPcmDrainBeforeStopDecode(options, context.emitter, state);
  EndCapture(context);
  state->pending_stop_flush.store(false);
  state->pending_offline_decode.store(false);
  const bool decoded = DecodeAndEmitOffline2PassFull(options, context.decoder, context.punc,
                                                     context.diarization, context.speaker_id,
                                                     context.emitter, context.audio);
  if (!decoded) context.Log("offline_2pass requested but failed");
}

void SwitchMode(const CommandContext& context, const std::string& mode) {
  {
    std::lock_guard<std::mutex> lock(context.state->mode_mutex);
    context.state->mode = mode;
  }
  context.Log("Mode switched to " + mode);
}

void SetSinglePartialInterval(const CommandContext& context, double seconds) {
  const Options& options = context.options;
  const uint32_t step = SinglePartialStepSamples(seconds, options.sample_rate);
  context.state->single_partial_step_samples.store(step);
  std::string message =
      "single-partial-interval updated to " +
      FormatFixed(SamplesToSeconds(step, EffectiveSampleRate(options.sample_rate)), 3) + "s";
  if (!(options.single_model_streaming && options.manual_realtime)) {
    message += " (inactive until native single-model manual-realtime is used)";
  }
  context.Log(message);
}

// Returns true when the line ends the loop.
bool HandleCommand(const CommandContext& context, const std::string& line) {
  const HostCommand command = ParseHostCommand(line);
  switch (command.kind) {
    case HostCommandKind::kStart:
      StartCapture(context);
      break;
    case HostCommandKind::kStop:
      StopCapture(context);
      break;
    case HostCommandKind::kQuit:
      context.state->quit.store(true);
      context.Log("Quit requested");
      return true;
    case HostCommandKind::kManual:
    case HostCommandKind::kAuto:
      SwitchMode(context, line);
      break;
    case HostCommandKind::kSetSinglePartialInterval:
      SetSinglePartialInterval(context, command.seconds);
      break;
    case HostCommandKind::kBlank:
      // A stray newline is not a command, and not worth a log line either.
      break;
    case HostCommandKind::kUnknown:
      context.Log("Unknown command: " + line);
      break;
  }
  return false;
}

}  // namespace

void CommandLoopOnDescriptor(int input_fd, const Options& options, OfflineDecoderBackend* decoder,
                             PuncBackend* punc, DiarizationBackend* diarization,
                             SpeakerIdentifier* speaker_id, EventEmitter* emitter,
                             SharedState* state, AudioBuffer* audio) {
  if (state == nullptr) return;
  const CommandContext context{options, decoder, punc, diarization, speaker_id,
                               emitter, state,   audio};
  LineReader reader(input_fd, kInputPollMs);
  std::string line;
  while (!state->quit.load()) {
    const LineReader::Status status = reader.Next(&line);
    if (status == LineReader::Status::kNothingYet) continue;
    // The end of stdin is not the end of the session: the host may keep
    // streaming audio, and the run ends when the audio pipe closes.
    if (status == LineReader::Status::kEnd) return;
    if (HandleCommand(context, line)) return;
  }
}

void CommandLoop(const Options& options, OfflineDecoderBackend* decoder, PuncBackend* punc,
                 DiarizationBackend* diarization, SpeakerIdentifier* speaker_id,
                 EventEmitter* emitter, SharedState* state, AudioBuffer* audio) {
  CommandLoopOnDescriptor(STDIN_FILENO, options, decoder, punc, diarization, speaker_id, emitter,
                          state, audio);
}

void WaitForPcmDrainBeforeStopDecode(const Options& options, EventEmitter* emitter,
                                     SharedState* state) {
  if (!options.offline_2pass || state == nullptr) return;
  constexpr auto kLongestWait = std::chrono::milliseconds(300);
  // A hair under 120 ms, so that a quiet stretch measured as exactly 120 ms ends
  // the wait despite clock rounding.
  const std::chrono::duration<double, std::milli> kQuietWindow(119.999999);
  constexpr auto kPollInterval = std::chrono::milliseconds(10);

  const Clock::time_point start = Clock::now();
  uint64_t last_count = state->captured_samples.load();
  Clock::time_point last_change = start;
  while (!state->quit.load()) {
    if (state->pcm_closed.load()) break;
    const Clock::time_point now = Clock::now();
    if (now >= start + kLongestWait) break;
    const uint64_t count = state->captured_samples.load();
    if (count != last_count) {
      last_change = now;
      last_count = count;
    } else if (now - last_change > kQuietWindow) {
      break;
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  if (!state->pcm_closed.load() && emitter != nullptr) {
    emitter->EmitLog("offline_2pass stop drain finished by quiet window/timeout");
  }
}

}  // namespace kerrow
