#ifndef KERROW_TOOLS_HOST_KERROW_HOST_H_
#define KERROW_TOOLS_HOST_KERROW_HOST_H_

// Runs kerrow as a child process the way the desktop host does: commands on its
// standard input, raw PCM into an inherited pipe descriptor, JSON lines read from
// its standard output. Shared by the process-level tests and kerrow-replay, so it
// must not depend on a test framework.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kerrow::host {

struct LaunchConfig {
  std::string binary;
  std::vector<std::string> args;  // without argv[0]; the binary path is passed as argv[0]
  int audio_fd = -1;              // descriptor number of the audio pipe in the child; -1 = none
  std::string working_dir;        // empty = inherit
  // When non-zero, the child's address space is capped at this many bytes
  // (RLIMIT_AS, what `ulimit -v` sets) before exec, as a host may do.
  unsigned long long address_space_limit_bytes = 0;
};

// Exit status reported when the child was killed because a wait timed out.
constexpr int kTimedOut = -1;

class ChildProcess {
 public:
  using LineCallback = std::function<void(const std::string& line)>;

  ChildProcess();
  ~ChildProcess();  // kills the child if it is still running
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Called from the stdout reader thread for every complete line, before it is
  // stored. Must be set before Start.
  void set_stdout_line_callback(LineCallback callback);
  // A write into stdin or the audio pipe that cannot make progress for this long
  // fails instead of blocking forever on a child that stopped reading.
  void set_write_timeout(std::chrono::milliseconds timeout);

  bool Start(const LaunchConfig& launch, std::string* error);

  bool WriteStdin(const std::string& bytes);
  void CloseStdin();
  bool WriteAudio(const std::string& bytes);
  void CloseAudio();

  // Index of the first stdout line at or after `from` that satisfies pred, or -1
  // when none has arrived within timeout (or stdout ended without one).
  int WaitForLine(const std::function<bool(const std::string&)>& pred,
                  std::chrono::milliseconds timeout, size_t from = 0);
  std::vector<std::string> StdoutLines() const;
  std::string StderrText() const;

  // Exit status (WEXITSTATUS, or 128 + signal number). On timeout the child is
  // killed and kTimedOut is returned. Once the child has been reaped, the same
  // status is returned again without waiting.
  int Wait(std::chrono::milliseconds timeout);
  void Kill();
  pid_t pid() const { return pid_; }
  bool started() const { return pid_ > 0; }
  // Peak resident set size of the child in KiB: VmHWM while it runs, the
  // kernel's maximum RSS once reaped; 0 when unknown.
  long PeakRssKb() const;

 private:
  enum class Stream { kStdout, kStderr };

  void ReadLoop(int fd, Stream stream);
  void AppendOutput(Stream stream, const char* data, size_t size);
  void FinishOutput(Stream stream);
  bool WriteAll(int* fd, const std::string& bytes);
  bool ReapChild(bool block);
  void JoinReaders(std::chrono::steady_clock::time_point deadline);
  void CloseFd(int* fd);

  pid_t pid_ = -1;
  bool reaped_ = false;
  int exit_status_ = kTimedOut;
  long peak_rss_kb_ = 0;
  int stdin_fd_ = -1;
  int audio_fd_ = -1;
  int stop_pipe_[2] = {-1, -1};  // wakes the reader threads when the driver shuts down
  // Separate locks so that a command can be sent while audio is being played.
  std::mutex stdin_mutex_;
  std::mutex audio_mutex_;
  std::chrono::milliseconds write_timeout_{std::chrono::seconds(120)};
  LineCallback stdout_callback_;

  mutable std::mutex output_mutex_;
  std::condition_variable output_changed_;
  std::vector<std::string> stdout_lines_;
  std::string stdout_partial_;
  std::string stderr_text_;
  bool stdout_done_ = false;
  int open_streams_ = 0;
  std::vector<std::thread> readers_;
};

// Writes s16le samples into the child's audio pipe in chunks, pacing them so that
// audio flows at `speed` times real time at `sample_rate` (speed <= 0: as fast as
// the pipe accepts it). Paced like a microphone: a chunk goes out once its last
// sample has been "recorded", never before. When `sent_at` is given, it gets
// the moment each chunk was written. Returns false as soon as a write fails.
bool PlayS16(ChildProcess* child, const std::vector<float>& samples, int sample_rate,
             double speed, size_t chunk_samples,
             std::vector<std::chrono::steady_clock::time_point>* sent_at = nullptr);

// Ignores SIGPIPE in the calling process, so that writing into the pipe of a child
// that has exited fails with EPIPE instead of killing the host.
void IgnoreSigpipe();

}  // namespace kerrow::host

#endif  // KERROW_TOOLS_HOST_KERROW_HOST_H_
