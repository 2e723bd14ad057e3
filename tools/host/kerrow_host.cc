#include "host/kerrow_host.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "audio/sample_convert.h"

namespace kerrow::host {

namespace {

using Clock = std::chrono::steady_clock;

// How long Wait keeps collecting output after the child has exited. Output only
// outlives the child when a grandchild inherited the pipes.
constexpr std::chrono::seconds kOutputDrainGrace(5);

bool MakePipe(int fds[2]) {
  if (pipe(fds) != 0) return false;
  // Close-on-exec keeps these pipes out of any other child started meanwhile;
  // the child of this driver gets its ends back through dup2, which clears it.
  fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  fcntl(fds[1], F_SETFD, FD_CLOEXEC);
  return true;
}

void ClosePipe(int fds[2]) {
  for (int i = 0; i < 2; ++i) {
    if (fds[i] >= 0) close(fds[i]);
    fds[i] = -1;
  }
}

int RemainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<long long>(0, left.count()));
}

// Everything the child does between fork and exec, limited to async-signal-safe
// calls: the parent may have other threads holding locks.
struct ChildPlan {
  const char* binary = nullptr;
  char* const* argv = nullptr;
  const char* working_dir = nullptr;  // null = inherit
  int stdin_read = -1;
  int stdout_write = -1;
  int stderr_write = -1;
  int audio_read = -1;
  int audio_fd = -1;
  int exec_error_write = -1;
  long max_fd = 1024;
  unsigned long long address_space_limit_bytes = 0;  // 0 = inherit
};

void CloseFdRange(int first, long last, long max_fd) {
  if (first > last) return;
#ifdef SYS_close_range
  if (syscall(SYS_close_range, static_cast<unsigned>(first), static_cast<unsigned>(last), 0u) == 0) {
    return;
  }
#endif
  for (long fd = first; fd <= std::min(last, max_fd); ++fd) close(static_cast<int>(fd));
}

[[noreturn]] void FailInChild(int exec_error_write) {
  const int code = errno;
  ssize_t ignored = write(exec_error_write, &code, sizeof(code));
  (void)ignored;
  _exit(127);
}

[[noreturn]] void RunChild(const ChildPlan& plan) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  // An ignored disposition survives exec; the child decides about SIGPIPE itself.
  signal(SIGPIPE, SIG_DFL);

  // Lift every source descriptor above all target numbers first, so that no
  // dup2 onto 0, 1, 2 or the audio number can clobber a source still needed
  // (the audio pipe's own descriptor may well be 3).
  const int floor = std::max(3, plan.audio_fd + 1);
  const int error_fd = fcntl(plan.exec_error_write, F_DUPFD_CLOEXEC, floor);
  if (error_fd < 0) _exit(127);
  const int sources[4] = {plan.stdin_read, plan.stdout_write, plan.stderr_write, plan.audio_read};
  int lifted[4] = {-1, -1, -1, -1};
  for (int i = 0; i < 4; ++i) {
    if (sources[i] < 0) continue;
    lifted[i] = fcntl(sources[i], F_DUPFD_CLOEXEC, floor);
    if (lifted[i] < 0) FailInChild(error_fd);
  }
  const int targets[4] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, plan.audio_fd};
  for (int i = 0; i < 4; ++i) {
    if (lifted[i] < 0) continue;
    if (dup2(lifted[i], targets[i]) < 0) FailInChild(error_fd);
  }

  if (plan.working_dir != nullptr && chdir(plan.working_dir) != 0) FailInChild(error_fd);
  if (plan.address_space_limit_bytes != 0) {
    const rlimit limit{static_cast<rlim_t>(plan.address_space_limit_bytes),
                       static_cast<rlim_t>(plan.address_space_limit_bytes)};
    if (setrlimit(RLIMIT_AS, &limit) != 0) FailInChild(error_fd);
  }

  // Nothing but the four streams may leak into kerrow: an inherited write end of
  // another child's pipe would keep that pipe from ever reaching end of file.
  if (plan.audio_fd >= 3) {
    CloseFdRange(3, plan.audio_fd - 1, plan.max_fd);
    CloseFdRange(plan.audio_fd + 1, error_fd - 1, plan.max_fd);
  } else {
    CloseFdRange(3, error_fd - 1, plan.max_fd);
  }
  CloseFdRange(error_fd + 1, 0x7FFFFFFF, plan.max_fd);

  execv(plan.binary, plan.argv);
  FailInChild(error_fd);
}

// Returns 0 when exec succeeded (the pipe closed empty), else the child's errno.
int ReadExecError(int fd) {
  int code = 0;
  size_t got = 0;
  while (got < sizeof(code)) {
    const ssize_t n = read(fd, reinterpret_cast<char*>(&code) + got, sizeof(code) - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  return got == sizeof(code) ? (code != 0 ? code : EIO) : 0;
}

void SetError(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
}

}  // namespace

void IgnoreSigpipe() { signal(SIGPIPE, SIG_IGN); }

ChildProcess::ChildProcess() = default;

ChildProcess::~ChildProcess() {
  if (started() && !reaped_) {
    Kill();
    ReapChild(true);
  }
  JoinReaders(Clock::now());
  CloseFd(&stdin_fd_);
  CloseFd(&audio_fd_);
  ClosePipe(stop_pipe_);
}

void ChildProcess::set_stdout_line_callback(LineCallback callback) {
  stdout_callback_ = std::move(callback);
}

void ChildProcess::set_write_timeout(std::chrono::milliseconds timeout) { write_timeout_ = timeout; }

bool ChildProcess::Start(const LaunchConfig& launch, std::string* error) {
  if (started()) {
    SetError(error, "child already started");
    return false;
  }
  if (launch.binary.empty()) {
    SetError(error, "no binary to start");
    return false;
  }
  if (launch.audio_fd >= 0 && launch.audio_fd < 3) {
    SetError(error, "audio descriptor must be -1 or at least 3, got " + std::to_string(launch.audio_fd));
    return false;
  }
  IgnoreSigpipe();

  std::vector<std::string> arg_storage;
  arg_storage.push_back(launch.binary);
  arg_storage.insert(arg_storage.end(), launch.args.begin(), launch.args.end());
  std::vector<char*> argv;
  for (std::string& arg : arg_storage) argv.push_back(&arg[0]);
  argv.push_back(nullptr);

  int in_pipe[2] = {-1, -1}, out_pipe[2] = {-1, -1}, err_pipe[2] = {-1, -1};
  int audio_pipe[2] = {-1, -1}, exec_pipe[2] = {-1, -1};
  const bool pipes_ok = MakePipe(in_pipe) && MakePipe(out_pipe) && MakePipe(err_pipe) &&
                        MakePipe(exec_pipe) && MakePipe(stop_pipe_) &&
                        (launch.audio_fd < 0 || MakePipe(audio_pipe));
  if (!pipes_ok) {
    SetError(error, std::string("pipe failed: ") + std::strerror(errno));
    for (int* fds : {in_pipe, out_pipe, err_pipe, audio_pipe, exec_pipe}) ClosePipe(fds);
    ClosePipe(stop_pipe_);
    return false;
  }

  ChildPlan plan;
  plan.binary = arg_storage[0].c_str();
  plan.argv = argv.data();
  plan.working_dir = launch.working_dir.empty() ? nullptr : launch.working_dir.c_str();
  plan.stdin_read = in_pipe[0];
  plan.stdout_write = out_pipe[1];
  plan.stderr_write = err_pipe[1];
  plan.audio_read = audio_pipe[0];
  plan.audio_fd = launch.audio_fd;
  plan.exec_error_write = exec_pipe[1];
  const long open_max = sysconf(_SC_OPEN_MAX);
  plan.max_fd = open_max > 0 ? open_max : 1024;
  plan.address_space_limit_bytes = launch.address_space_limit_bytes;

  const pid_t pid = fork();
  if (pid == 0) RunChild(plan);
  const int fork_errno = errno;

  for (int* fd : {&in_pipe[0], &out_pipe[1], &err_pipe[1], &audio_pipe[0], &exec_pipe[1]}) CloseFd(fd);
  if (pid < 0) {
    SetError(error, std::string("fork failed: ") + std::strerror(fork_errno));
    for (int* fds : {in_pipe, out_pipe, err_pipe, audio_pipe, exec_pipe}) ClosePipe(fds);
    ClosePipe(stop_pipe_);
    return false;
  }
  pid_ = pid;

  const int exec_errno = ReadExecError(exec_pipe[0]);
  ClosePipe(exec_pipe);
  if (exec_errno != 0) {
    ReapChild(true);
    for (int* fds : {in_pipe, out_pipe, err_pipe, audio_pipe}) ClosePipe(fds);
    SetError(error, "cannot start " + launch.binary + ": " + std::strerror(exec_errno));
    return false;
  }

  // Writes never block indefinitely: a full pipe is waited on with poll and the
  // write timeout, so a child that stops reading cannot hang the host.
  stdin_fd_ = in_pipe[1];
  audio_fd_ = audio_pipe[1];
  fcntl(stdin_fd_, F_SETFL, fcntl(stdin_fd_, F_GETFL) | O_NONBLOCK);
  if (audio_fd_ >= 0) fcntl(audio_fd_, F_SETFL, fcntl(audio_fd_, F_GETFL) | O_NONBLOCK);

  open_streams_ = 2;
  readers_.emplace_back(&ChildProcess::ReadLoop, this, out_pipe[0], Stream::kStdout);
  readers_.emplace_back(&ChildProcess::ReadLoop, this, err_pipe[0], Stream::kStderr);
  return true;
}

bool ChildProcess::WriteStdin(const std::string& bytes) {
  std::lock_guard<std::mutex> lock(stdin_mutex_);
  return WriteAll(&stdin_fd_, bytes);
}

void ChildProcess::CloseStdin() {
  std::lock_guard<std::mutex> lock(stdin_mutex_);
  CloseFd(&stdin_fd_);
}

bool ChildProcess::WriteAudio(const std::string& bytes) {
  std::lock_guard<std::mutex> lock(audio_mutex_);
  return WriteAll(&audio_fd_, bytes);
}

void ChildProcess::CloseAudio() {
  std::lock_guard<std::mutex> lock(audio_mutex_);
  CloseFd(&audio_fd_);
}

bool ChildProcess::WriteAll(int* fd, const std::string& bytes) {
  if (*fd < 0) return false;
  const Clock::time_point deadline = Clock::now() + write_timeout_;
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = write(*fd, bytes.data() + written, bytes.size() - written);
    if (n > 0) {
      written += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (Clock::now() >= deadline) return false;
      pollfd waiting{*fd, POLLOUT, 0};
      poll(&waiting, 1, RemainingMs(deadline));
      continue;
    }
    return false;  // EPIPE: the child closed its end or exited
  }
  return true;
}

void ChildProcess::ReadLoop(int fd, Stream stream) {
  char buffer[4096];
  pollfd watched[2] = {{fd, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
  while (true) {
    if (poll(watched, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (watched[1].revents != 0) break;
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    AppendOutput(stream, buffer, static_cast<size_t>(n));
  }
  close(fd);
  FinishOutput(stream);
}

void ChildProcess::AppendOutput(Stream stream, const char* data, size_t size) {
  if (stream == Stream::kStderr) {
    std::lock_guard<std::mutex> lock(output_mutex_);
    stderr_text_.append(data, size);
    output_changed_.notify_all();
    return;
  }
  std::vector<std::string> complete;
  {
    std::lock_guard<std::mutex> lock(output_mutex_);
    stdout_partial_.append(data, size);
    size_t line_start = 0;
    for (size_t newline = stdout_partial_.find('\n'); newline != std::string::npos;
         newline = stdout_partial_.find('\n', line_start)) {
      complete.push_back(stdout_partial_.substr(line_start, newline - line_start));
      line_start = newline + 1;
    }
    stdout_partial_.erase(0, line_start);
  }
  // The callback runs before the lines become visible to waiters, so a tool that
  // prints lines as they arrive prints them in order and before any reaction.
  if (stdout_callback_) {
    for (const std::string& line : complete) stdout_callback_(line);
  }
  std::lock_guard<std::mutex> lock(output_mutex_);
  stdout_lines_.insert(stdout_lines_.end(), complete.begin(), complete.end());
  output_changed_.notify_all();
}

void ChildProcess::FinishOutput(Stream stream) {
  std::string unterminated;
  {
    std::lock_guard<std::mutex> lock(output_mutex_);
    if (stream == Stream::kStdout) unterminated.swap(stdout_partial_);
  }
  // A last line without its newline is still a line the host would have seen.
  if (!unterminated.empty() && stdout_callback_) stdout_callback_(unterminated);
  std::lock_guard<std::mutex> lock(output_mutex_);
  if (!unterminated.empty()) stdout_lines_.push_back(unterminated);
  if (stream == Stream::kStdout) stdout_done_ = true;
  --open_streams_;
  output_changed_.notify_all();
}

int ChildProcess::WaitForLine(const std::function<bool(const std::string&)>& pred,
                              std::chrono::milliseconds timeout, size_t from) {
  const Clock::time_point deadline = Clock::now() + timeout;
  std::unique_lock<std::mutex> lock(output_mutex_);
  size_t next = from;
  while (true) {
    for (; next < stdout_lines_.size(); ++next) {
      if (pred(stdout_lines_[next])) return static_cast<int>(next);
    }
    if (stdout_done_ || !started()) return -1;
    if (output_changed_.wait_until(lock, deadline) == std::cv_status::timeout &&
        next >= stdout_lines_.size()) {
      return -1;
    }
  }
}

std::vector<std::string> ChildProcess::StdoutLines() const {
  std::lock_guard<std::mutex> lock(output_mutex_);
  return stdout_lines_;
}

std::string ChildProcess::StderrText() const {
  std::lock_guard<std::mutex> lock(output_mutex_);
  return stderr_text_;
}

int ChildProcess::Wait(std::chrono::milliseconds timeout) {
  if (!started()) return kTimedOut;
  const Clock::time_point deadline = Clock::now() + timeout;
  bool timed_out = false;
  while (!reaped_ && !ReapChild(false)) {
    if (Clock::now() >= deadline) {
      Kill();
      ReapChild(true);
      timed_out = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  JoinReaders(std::max(deadline, Clock::now() + kOutputDrainGrace));
  return timed_out ? kTimedOut : exit_status_;
}

void ChildProcess::Kill() {
  if (started() && !reaped_) kill(pid_, SIGKILL);
}

long ChildProcess::PeakRssKb() const {
  if (!started()) return 0;
  if (reaped_) return peak_rss_kb_;
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "VmHWM:") == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

bool ChildProcess::ReapChild(bool block) {
  if (reaped_) return true;
  int status = 0;
  rusage usage{};
  pid_t result;
  do {
    result = wait4(pid_, &status, block ? 0 : WNOHANG, &usage);
  } while (result < 0 && errno == EINTR);
  if (result == 0) return false;
  reaped_ = true;
  if (result < 0) return true;  // someone else reaped it; the status is unknown
  if (WIFEXITED(status)) exit_status_ = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) exit_status_ = 128 + WTERMSIG(status);
#ifdef __APPLE__
  peak_rss_kb_ = usage.ru_maxrss / 1024;  // bytes on macOS
#else
  peak_rss_kb_ = usage.ru_maxrss;
#endif
  return true;
}

void ChildProcess::JoinReaders(Clock::time_point deadline) {
  if (readers_.empty()) return;
  {
    std::unique_lock<std::mutex> lock(output_mutex_);
    output_changed_.wait_until(lock, deadline, [this] { return open_streams_ == 0; });
  }
  if (stop_pipe_[1] >= 0) {
    const char wake = 'x';
    ssize_t ignored = write(stop_pipe_[1], &wake, 1);
    (void)ignored;
  }
  for (std::thread& reader : readers_) reader.join();
  readers_.clear();
}

void ChildProcess::CloseFd(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

bool PlayS16(ChildProcess* child, const std::vector<float>& samples, int sample_rate,
             double speed, size_t chunk_samples, std::vector<Clock::time_point>* sent_at) {
  if (chunk_samples == 0) chunk_samples = 1;
  const bool paced = speed > 0 && sample_rate > 0;
  const Clock::time_point start = Clock::now();
  for (size_t offset = 0; offset < samples.size(); offset += chunk_samples) {
    const size_t end = std::min(samples.size(), offset + chunk_samples);
    if (paced) {
      // A microphone hands over a block only once it has recorded all of it;
      // sending it at its first sample would give the child audio from the future.
      const double seconds = static_cast<double>(end) / (sample_rate * speed);
      std::this_thread::sleep_until(
          start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
    }
    const std::vector<float> chunk(samples.begin() + static_cast<std::ptrdiff_t>(offset),
                                   samples.begin() + static_cast<std::ptrdiff_t>(end));
    if (!child->WriteAudio(FloatToS16le(chunk))) return false;
    if (sent_at != nullptr) sent_at->push_back(Clock::now());
  }
  return true;
}

}  // namespace kerrow::host
