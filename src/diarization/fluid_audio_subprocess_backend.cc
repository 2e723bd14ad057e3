#include "diarization/fluid_audio_subprocess_backend.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "audio/wav_writer.h"
#include "common/error_text.h"
#include "diarization/descriptor_write.h"
#include "diarization/helper_line_protocol.h"

namespace kerrow {
namespace {

// A reply line longer than this is not a turn: the helper is misbehaving.
constexpr size_t kMaxReplyLineBytes = 65536;
// The helper gets about half a second to leave by itself once its input is
// closed, then about a second after SIGTERM, before SIGKILL.
constexpr int kPollsBeforeTerm = 10;
constexpr int kPollsBeforeKill = 20;
constexpr useconds_t kPollSleepMicros = 50 * 1000;

std::string SystemError() { return std::strerror(errno); }

void CloseDescriptor(int* fd) {
  if (*fd >= 0) ::close(*fd);
  *fd = -1;
}

// A dead helper must turn our writes into EPIPE errors, not kill the engine.
void IgnoreSigpipeOnce() {
  static std::once_flag once;
  std::call_once(once, [] { ::signal(SIGPIPE, SIG_IGN); });
}

// Reads one line a byte at a time, so that nothing beyond the line is taken
// from the pipe. Carriage returns are dropped, which accepts CRLF helpers.
bool ReadLine(int fd, std::string* line) {
  line->clear();
  for (;;) {
    char c = 0;
    const ssize_t n = ::read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    if (c == '\n') return true;
    if (c == '\r') continue;
    if (line->size() >= kMaxReplyLineBytes) return false;
    line->push_back(c);
  }
}

// Pipes whose ends must not leak into processes started later (a second
// helper, or anything another thread starts): the helper gets its ends as
// standard input and output, which dup2 leaves inheritable.
bool MakePipe(int ends[2]) {
  if (::pipe(ends) != 0) return false;
  ::fcntl(ends[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(ends[1], F_SETFD, FD_CLOEXEC);
  return true;
}

// Polls a child without blocking; true once it has been reaped.
bool ReapedWithin(pid_t pid, int polls) {
  for (int i = 0; i < polls; ++i) {
    int status = 0;
    const pid_t result = ::waitpid(pid, &status, WNOHANG);
    if (result == pid || (result < 0 && errno != EINTR)) return true;
    ::usleep(kPollSleepMicros);
  }
  return false;
}

// The audio of one request: a name reserved with mkstemp, and that name plus
// ".wav" for the helper to read. Both go when the request ends.
class RequestWavFile {
 public:
  bool Create(std::string* error) {
    char name[] = "/tmp/fluiddiar-XXXXXX";
    const int fd = ::mkstemp(name);
    if (fd < 0) return Fail(error, "mkstemp failed: " + SystemError());
    ::close(fd);
    reserved_name_ = name;
    wav_path_ = reserved_name_ + ".wav";
    return true;
  }
  ~RequestWavFile() {
    if (!wav_path_.empty()) ::unlink(wav_path_.c_str());
    if (!reserved_name_.empty()) ::unlink(reserved_name_.c_str());
  }
  const std::string& path() const { return wav_path_; }

 private:
  std::string reserved_name_;
  std::string wav_path_;
};

}  // namespace

struct FluidAudioSubprocessBackend::Impl {
  pid_t pid = -1;
  int to_helper = -1;
  int from_helper = -1;
  bool ready = false;

  bool Start(const DiarizationInitOptions& options, std::string* error);
  bool AwaitReady(std::string* error);
  bool ReadReply(std::vector<DiarizationSegment>* out, std::string* error);
  void Shutdown();
};

bool FluidAudioSubprocessBackend::Impl::Start(const DiarizationInitOptions& options,
                                              std::string* error) {
  int request_pipe[2];
  int reply_pipe[2];
  if (!MakePipe(request_pipe)) return Fail(error, "pipe(in) failed: " + SystemError());
  if (!MakePipe(reply_pipe)) {
    const std::string message = "pipe(out) failed: " + SystemError();
    ::close(request_pipe[0]);
    ::close(request_pipe[1]);
    return Fail(error, message);
  }
  // Everything the child needs is built before fork: after it, the child may
  // only exec or leave.
  std::vector<std::string> args = {options.helper_binary, "--resident", "--model", options.model};
  if (!options.backend.empty()) {
    args.push_back("--backend");
    args.push_back(options.backend);
  }
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);

  const pid_t child = ::fork();
  if (child < 0) {
    const std::string message = "fork failed: " + SystemError();
    for (int fd : {request_pipe[0], request_pipe[1], reply_pipe[0], reply_pipe[1]}) ::close(fd);
    return Fail(error, message);
  }
  if (child == 0) {
    ::dup2(request_pipe[0], STDIN_FILENO);
    ::dup2(reply_pipe[1], STDOUT_FILENO);
    for (int fd : {request_pipe[0], request_pipe[1], reply_pipe[0], reply_pipe[1]}) ::close(fd);
    ::execv(argv[0], argv.data());
    char line[4096];
    const int length = std::snprintf(line, sizeof(line), "execv %s failed: %s\n", argv[0],
                                     std::strerror(errno));
    if (length > 0) {
      const ssize_t ignored = ::write(STDERR_FILENO, line, static_cast<size_t>(length));
      (void)ignored;
    }
    ::_exit(127);
  }
  ::close(request_pipe[0]);
  ::close(reply_pipe[1]);
  pid = child;
  to_helper = request_pipe[1];
  from_helper = reply_pipe[0];
  return true;
}

bool FluidAudioSubprocessBackend::Impl::AwaitReady(std::string* error) {
  std::string line;
  if (!ReadLine(from_helper, &line)) {
    Shutdown();
    return Fail(error, "diarization helper exited before READY");
  }
  if (line != kHelperReadyLine) {
    return Fail(error, "expected READY from diarization helper, got: " + line);
  }
  ready = true;
  return true;
}

bool FluidAudioSubprocessBackend::Impl::ReadReply(std::vector<DiarizationSegment>* out,
                                                  std::string* error) {
  HelperLabelMap labels;
  std::string line;
  for (;;) {
    if (!ReadLine(from_helper, &line)) {
      ready = false;
      return Fail(error, "diarization helper closed stdout before DONE");
    }
    if (line == kHelperDoneLine) return true;
    DiarizationSegment turn;
    if (line.empty() || !ParseHelperTurn(line, &turn)) continue;
    turn.speaker = labels.Map(turn.speaker);
    out->push_back(turn);
  }
}

void FluidAudioSubprocessBackend::Impl::Shutdown() {
  // A closed standard input is the helper's signal to leave.
  CloseDescriptor(&to_helper);
  CloseDescriptor(&from_helper);
  if (pid >= 1) {
    if (!ReapedWithin(pid, kPollsBeforeTerm)) {
      ::kill(pid, SIGTERM);
      if (!ReapedWithin(pid, kPollsBeforeKill)) {
        ::kill(pid, SIGKILL);
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
      }
    }
    pid = -1;
  }
  ready = false;
}

FluidAudioSubprocessBackend::FluidAudioSubprocessBackend() = default;

FluidAudioSubprocessBackend::~FluidAudioSubprocessBackend() {
  if (impl_ != nullptr) impl_->Shutdown();
}

bool FluidAudioSubprocessBackend::Init(const DiarizationInitOptions& options,
                                       std::string* error) {
  if (impl_ != nullptr) impl_->Shutdown();
  impl_ = std::make_unique<Impl>();

  if (options.helper_binary.empty()) {
    return Fail(error,
                "diarization helper_binary is empty (macOS requires "
                "--diarization-helper-binary)");
  }
  if (options.model.empty()) return Fail(error, "diarization model_dir is empty");
  if (::access(options.helper_binary.c_str(), X_OK) != 0) {
    return Fail(error, "diarization helper not executable: " + options.helper_binary + " (" +
                           SystemError() + ")");
  }
  IgnoreSigpipeOnce();
  if (!impl_->Start(options, error)) return false;
  return impl_->AwaitReady(error);
}

bool FluidAudioSubprocessBackend::IsReady() const {
  return impl_ != nullptr && impl_->ready;
}

bool FluidAudioSubprocessBackend::Process(const std::vector<float>& samples, int sample_rate,
                                          std::vector<DiarizationSegment>* out,
                                          std::string* error) {
  if (out == nullptr) return Fail(error, "out is null");
  out->clear();
  if (!IsReady()) return Fail(error, "diarization backend not ready");
  if (samples.empty()) return true;

  RequestWavFile wav;
  if (!wav.Create(error)) return false;
  if (!WriteWavFloat32(wav.path(), samples, sample_rate, error)) return false;
  if (!WriteAllToDescriptor(impl_->to_helper, FormatHelperRequest(wav.path()) + "\n")) {
    impl_->ready = false;
    return Fail(error, "write to helper failed: " + SystemError());
  }
  if (!impl_->ReadReply(out, error)) {
    // Turns of a reply that never finished are not a diarization of the block.
    out->clear();
    return false;
  }
  std::stable_sort(out->begin(), out->end(),
                   [](const DiarizationSegment& a, const DiarizationSegment& b) {
                     return a.start < b.start;
                   });
  return true;
}

std::unique_ptr<DiarizationBackend> MakeFluidAudioDiarizationBackend() {
  return std::make_unique<FluidAudioSubprocessBackend>();
}

}  // namespace kerrow
