#ifndef KERROW_TESTS_LIVE_LIVE_HARNESS_H_
#define KERROW_TESTS_LIVE_LIVE_HARNESS_H_

// Runs the live session's two threads inside the test process, wired the way
// Run wires them: commands arrive through a pipe standing in for stdin, audio
// through a pipe whose read end is options.audio_fd, and the emitter's lines
// (standard output) are captured in a file while the threads run.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "audio/audio_buffer.h"
#include "common/options.h"
#include "engine/online_backend.h"
#include "engine/vad_backend.h"
#include "events/event_emitter.h"
#include "live/command_loop.h"
#include "live/pcm_loop.h"
#include "live/shared_state.h"
#include "support/json_fields.h"
#include "support/kerrow_process.h"
#include "support/stdout_capture.h"
#include "support/output_lines.h"
#include "support/test_audio.h"

namespace kerrow::testing {

// The backends a live session runs with; null members were not built.
struct LiveBackends {
  OnlineBackend* online = nullptr;
  OfflineDecoderBackend* decoder = nullptr;
  PuncBackend* punc = nullptr;
  VadBackend* vad = nullptr;
};

class LiveHarness {
 public:
  LiveHarness(Options options, LiveBackends backends)
      : options_(std::move(options)), backends_(backends) {
    int command_pipe[2];
    int audio_pipe[2];
    EXPECT_EQ(pipe(command_pipe), 0);
    EXPECT_EQ(pipe(audio_pipe), 0);
    command_read_ = command_pipe[0];
    command_write_ = command_pipe[1];
    audio_read_ = audio_pipe[0];
    audio_write_ = audio_pipe[1];
    options_.audio_fd = audio_read_;
    // Writes give up instead of hanging when the PCM thread has already ended.
    fcntl(audio_write_, F_SETFL, fcntl(audio_write_, F_GETFL) | O_NONBLOCK);
    // As Run sets them up.
    state_.capturing.store(!(options_.manual_mode && options_.start_paused));
    state_.single_partial_step_samples.store(
        SinglePartialStepSamples(options_.single_partial_interval, options_.sample_rate));
  }

  ~LiveHarness() {
    if (command_write_ >= 0) close(command_write_);
    if (audio_write_ >= 0) close(audio_write_);
    if (threads_started_) {
      state_.quit.store(true);
      JoinThreads();
    }
    close(command_read_);
    close(audio_read_);
  }

  // Reads audio from `fd` (owned by the caller) instead of the harness pipe.
  void UseAudioDescriptor(int fd) { options_.audio_fd = fd; }

  void Start() {
    // Asked before the PCM thread runs: its resets replace what these read.
    vad_resets_ = options_.manual_realtime && backends_.vad != nullptr && backends_.vad->IsReady();
    online_resets_ = backends_.online != nullptr && backends_.online->IsReady();
    command_thread_ = std::thread([this] {
      CommandLoopOnDescriptor(command_read_, options_, backends_.decoder, backends_.punc, nullptr,
                              nullptr, &emitter_, &state_, &audio_);
    });
    pcm_thread_ = std::thread([this] {
      PcmLoop(options_, backends_.online, backends_.decoder, backends_.punc, backends_.vad,
              nullptr, nullptr, &emitter_, &state_, &audio_);
    });
    threads_started_ = true;
  }

  void Command(const std::string& line) { WriteAll(command_write_, line + "\n"); }

  // Sends "start" and waits until the PCM thread has taken up every request it
  // raises that this session consumes: the drop of the reader's carry-over and
  // the capture reset always, the VAD and streaming resets when those run. The
  // requests may straddle two passes, and audio written before the carry-over
  // drop may be cut by it.
  bool StartCaptureAndWait(uint64_t seq) {
    Command("start");
    return WaitUntil([&] {
      return state_.reset_applied_seq.load() == seq && !state_.pending_pcm_clear.load() &&
             !(vad_resets_ && state_.pending_vad_reset.load()) &&
             !(online_resets_ && state_.pending_online_reset.load());
    });
  }
  void CloseCommands() {
    close(command_write_);
    command_write_ = -1;
  }

  bool WriteAudioBytes(const std::string& bytes) { return WriteAll(audio_write_, bytes); }
  bool WriteAudio(const std::vector<float>& samples) { return WriteAudioBytes(S16leBytes(samples)); }
  // Writes the samples at `speed` times real time (16 kHz) in 0.1 s pieces.
  bool PlayAudio(const std::vector<float>& samples, double speed) {
    constexpr size_t kPiece = 1600;
    const auto begin = std::chrono::steady_clock::now();
    for (size_t offset = 0; offset < samples.size(); offset += kPiece) {
      const size_t end = std::min(samples.size(), offset + kPiece);
      if (!WriteAudio(std::vector<float>(samples.begin() + offset, samples.begin() + end))) {
        return false;
      }
      const auto due = begin + std::chrono::microseconds(
                                   static_cast<int64_t>(end * 1e6 / 16000.0 / speed));
      std::this_thread::sleep_until(due);
    }
    return true;
  }
  void CloseAudio() {
    close(audio_write_);
    audio_write_ = -1;
  }

  // Waits for the session to end the way Run does (quit polled every 30 ms),
  // then joins the command thread and the PCM thread. False after the timeout.
  bool WaitForEnd(std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!state_.quit.load()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    JoinThreads();
    return true;
  }

  // Index of the first captured line from `from` on that satisfies pred, or -1
  // after the timeout.
  int WaitForLine(const std::function<bool(const std::string&)>& pred,
                  std::chrono::milliseconds timeout = std::chrono::seconds(60), size_t from = 0) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      const std::vector<std::string> lines = capture_.Lines();
      for (size_t i = from; i < lines.size(); ++i) {
        if (pred(lines[i])) return static_cast<int>(i);
      }
      if (std::chrono::steady_clock::now() > deadline) return -1;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  int WaitForLineContaining(const std::string& needle,
                            std::chrono::milliseconds timeout = std::chrono::seconds(60),
                            size_t from = 0) {
    return WaitForLine(
        [&](const std::string& line) { return line.find(needle) != std::string::npos; }, timeout,
        from);
  }

  // Polls a condition on the shared state; false after the timeout.
  static bool WaitUntil(const std::function<bool()>& condition,
                        std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
  }

  std::vector<std::string> Lines() const { return capture_.Lines(); }
  void StopCapture() { capture_.Stop(); }

  SharedState& state() { return state_; }
  AudioBuffer& audio() { return audio_; }
  EventEmitter& emitter() { return emitter_; }
  const Options& options() const { return options_; }

 private:
  void JoinThreads() {
    if (command_thread_.joinable()) command_thread_.join();
    if (pcm_thread_.joinable()) pcm_thread_.join();
    threads_started_ = false;
  }

  // Blocks (polling) until every byte is written; false when the reader is gone
  // or 30 s pass without progress.
  static bool WriteAll(int fd, const std::string& bytes) {
    size_t written = 0;
    while (written < bytes.size()) {
      const ssize_t n = write(fd, bytes.data() + written, bytes.size() - written);
      if (n > 0) {
        written += static_cast<size_t>(n);
        continue;
      }
      if (n < 0 && errno != EAGAIN && errno != EINTR) return false;
      pollfd waiting{fd, POLLOUT, 0};
      if (poll(&waiting, 1, 30000) <= 0) return false;
    }
    return true;
  }

  Options options_;
  LiveBackends backends_;
  StdoutCapture capture_;
  EventEmitter emitter_;
  SharedState state_;
  AudioBuffer audio_;
  int command_read_ = -1;
  int command_write_ = -1;
  int audio_read_ = -1;
  int audio_write_ = -1;
  std::thread command_thread_;
  std::thread pcm_thread_;
  bool vad_resets_ = false;
  bool online_resets_ = false;
  bool threads_started_ = false;
};

// Lines of one kind, in order: those starting with `prefix`.
inline std::vector<std::string> LinesStartingWith(const std::vector<std::string>& lines,
                                                  const std::string& prefix) {
  std::vector<std::string> out;
  for (const auto& line : lines) {
    if (line.rfind(prefix, 0) == 0) out.push_back(line);
  }
  return out;
}

inline int CountContaining(const std::vector<std::string>& lines, const std::string& needle) {
  int count = 0;
  for (const auto& line : lines) count += line.find(needle) != std::string::npos ? 1 : 0;
  return count;
}

inline bool IsFirstPass(const std::string& line) {
  return line.rfind("{\"type\":\"first-pass\"", 0) == 0;
}
inline bool IsResult(const std::string& line) {
  return line.rfind("{\"type\":\"result\"", 0) == 0;
}
inline bool IsPunctuated(const std::string& line) {
  return line.rfind("{\"type\":\"punctuated\"", 0) == 0;
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_LIVE_LIVE_HARNESS_H_
