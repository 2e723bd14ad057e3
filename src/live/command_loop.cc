#include "live/command_loop.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <sstream>
#include <thread>

#include "events/event_emitter.h"
#include "events/number_format.h"
#include "offline/manual_segment.h"
#include "offline/offline_two_pass.h"

namespace kerrow {

namespace {

using Clock = std::chrono::steady_clock;

// How long one wait for input lasts before the loop looks at the quit flag
// again: the PCM thread may end the session while the host keeps stdin open.
constexpr int kInputPollMs = 20;

// Splits a descriptor's bytes into '\n'-terminated lines. A last line without
// a terminator still counts as a line, as std::getline would return it.
class LineReader {
 public:
  enum class Status { kLine, kNothingYet, kEnd };

  explicit LineReader(int fd) : fd_(fd) {}

  Status Next(std::string* line) {
    for (;;) {
      const size_t newline = buffer_.find('\n');
      if (newline != std::string::npos) {
        line->assign(buffer_, 0, newline);
        buffer_.erase(0, newline + 1);
        return Status::kLine;
      }
      if (eof_) {
        if (buffer_.empty()) return Status::kEnd;
        line->swap(buffer_);
        buffer_.clear();
        return Status::kLine;
      }
      const Status filled = Fill();
      if (filled != Status::kLine) return filled;
    }
  }

 private:
  // kLine here means "bytes or the end arrived, look again".
  Status Fill() {
    pollfd waiting{fd_, POLLIN, 0};
    const int ready = poll(&waiting, 1, kInputPollMs);
    if (ready == 0) return Status::kNothingYet;
    if (ready < 0) return errno == EINTR ? Status::kNothingYet : Status::kEnd;
    char bytes[4096];
    const ssize_t got = read(fd_, bytes, sizeof bytes);
    if (got < 0) return (errno == EINTR || errno == EAGAIN) ? Status::kNothingYet : Status::kEnd;
    if (got == 0) {
      eof_ = true;
    } else {
      buffer_.append(bytes, static_cast<size_t>(got));
    }
    return Status::kLine;
  }

  int fd_;
  std::string buffer_;
  bool eof_ = false;
};

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

int EffectiveSampleRate(const Options& options) {
  return options.sample_rate < 1 ? 16000 : options.sample_rate;
}

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
                               context.audio, state);
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
      FormatFixed(static_cast<double>(step) / EffectiveSampleRate(options), 3) + "s";
  if (!(options.single_model_streaming && options.manual_realtime)) {
    message += " (inactive until native single-model manual-realtime is used)";
  }
  context.Log(message);
}

// Returns true when the line ends the loop.
bool HandleCommand(const CommandContext& context, const std::string& line) {
  if (line == "start") {
    StartCapture(context);
  } else if (line == "stop") {
    StopCapture(context);
  } else if (line == "quit") {
    context.state->quit.store(true);
    context.Log("Quit requested");
    return true;
  } else if (line == "manual" || line == "auto") {
    SwitchMode(context, line);
  } else if (line.empty()) {
    // A stray newline is not a command, and not worth a log line either.
  } else {
    double seconds = 0.0;
    if (ParseSinglePartialIntervalCommand(line, &seconds)) {
      SetSinglePartialInterval(context, seconds);
    } else {
      context.Log("Unknown command: " + line);
    }
  }
  return false;
}

}  // namespace

bool ParseSinglePartialIntervalCommand(const std::string& line, double* seconds) {
  std::istringstream words(line);
  std::string verb;
  std::string name;
  double value = 0.0;
  if (!(words >> verb >> name >> value)) return false;
  if (verb != "set" || name != "single-partial-interval") return false;
  if (seconds != nullptr) *seconds = value;
  return true;
}

void CommandLoopOnDescriptor(int input_fd, const Options& options, OfflineDecoderBackend* decoder,
                             PuncBackend* punc, DiarizationBackend* diarization,
                             SpeakerIdentifier* speaker_id, EventEmitter* emitter,
                             SharedState* state, AudioBuffer* audio) {
  if (state == nullptr) return;
  const CommandContext context{options, decoder, punc, diarization, speaker_id,
                               emitter, state,   audio};
  LineReader reader(input_fd);
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
