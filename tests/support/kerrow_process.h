#ifndef KERROW_TESTS_SUPPORT_KERROW_PROCESS_H_
#define KERROW_TESTS_SUPPORT_KERROW_PROCESS_H_

// Runs the built kerrow binary the way the desktop host does, for process-level
// tests and benchmarks: commands on stdin, raw PCM into the audio descriptor,
// JSON lines collected from stdout.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kerrow::host {
class ChildProcess;
}

namespace kerrow::testing {

struct ProcessResult {
  int exit_status = -1;                   // WEXITSTATUS, or 128+signal when killed by a signal
  std::vector<std::string> stdout_lines;  // each line without its '\n'
  std::string stderr_text;                // everything written to stderr
};

// Runs `binary` (default: KERROW_BINARY) with args to completion. stdin receives
// stdin_text and is then closed. If audio_fd >= 0, a pipe is installed as that
// descriptor in the child; audio_bytes is written into it and then it is closed.
// Both are written concurrently, as a host would, so a child that reads one only
// after the other cannot deadlock. working_dir: child's cwd when non-empty.
// Kills the child after `timeout` (status -1).
ProcessResult RunKerrow(const std::vector<std::string>& args, const std::string& stdin_text = "",
                        int audio_fd = -1, const std::string& audio_bytes = "",
                        std::chrono::milliseconds timeout = std::chrono::seconds(120),
                        const std::string& working_dir = "", const std::string& binary = "");

// A live child process, as the host runs it.
class KerrowProcess {
 public:
  struct Config {
    std::vector<std::string> args;
    int audio_fd = 3;          // descriptor number of the audio pipe in the child; -1 = none
    std::string working_dir;   // empty = inherit
    std::string binary;        // empty = KERROW_BINARY
    unsigned long long address_space_limit_bytes = 0;  // RLIMIT_AS of the child; 0 = inherit
  };

  explicit KerrowProcess(Config config);
  ~KerrowProcess();  // kills the child if still running
  KerrowProcess(const KerrowProcess&) = delete;
  KerrowProcess& operator=(const KerrowProcess&) = delete;

  bool Start(std::string* error);
  bool WriteCommand(const std::string& line);  // writes line + "\n" to stdin
  void CloseStdin();
  bool WriteAudioBytes(const std::string& bytes);  // raw bytes into the audio pipe
  bool WriteAudioS16(const std::vector<float>& samples);
  bool WriteAudioF32(const std::vector<float>& samples);
  // Plays samples into the pipe in chunks of chunk_samples, sleeping so that audio
  // flows at `speed` x real time at 16 kHz (speed <= 0: as fast as the pipe takes it).
  bool PlayAudioS16(const std::vector<float>& samples, double speed, size_t chunk_samples = 1600);
  void CloseAudio();
  // Waits until some stdout line (from index `from` on) contains needle / matches
  // pred. Returns the index of that line, or -1 after timeout.
  int WaitForLineContaining(const std::string& needle, std::chrono::milliseconds timeout,
                            size_t from = 0);
  int WaitForLine(const std::function<bool(const std::string&)>& pred,
                  std::chrono::milliseconds timeout, size_t from = 0);
  std::vector<std::string> Lines() const;  // snapshot of all stdout lines so far
  std::string Stderr() const;
  int Wait(std::chrono::milliseconds timeout);  // exit status; kills and returns -1 on timeout
  pid_t pid() const;
  long PeakRssKb() const;  // peak RSS of the child in KiB (0 if unavailable); for benchmarks

 private:
  Config config_;
  std::unique_ptr<host::ChildProcess> child_;
};

// Small helpers
std::string ModelPath(const std::string& relative);  // KERROW_MODELS_DIR + "/" + relative
std::string AudioPath(const std::string& relative);  // KERROW_TEST_DATA_DIR + "/audio/" + relative
// 16-bit or float mono WAV -> floats; a tiny reader of its own so that tests of
// the engine's WAV reader do not grade themselves. Fails the test on bad input.
std::vector<float> LoadWavForTest(const std::string& path);

class TempDir {
 public:
  TempDir();
  ~TempDir();  // removes the folder and everything in it
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const;
  std::string File(const std::string& name) const;  // path() + "/" + name

 private:
  std::string path_;
};

void WriteFileBytes(const std::string& path, const std::string& bytes);
std::string ReadFileBytes(const std::string& path);
// Minimal character error rate (Levenshtein over bytes / reference length) for
// transcript checks.
double CharacterErrorRate(const std::string& reference, const std::string& hypothesis);

// The text a git checkout without LFS leaves in place of a large file: what a
// user may hand kerrow instead of the model itself.
std::string GitLfsPointerText(const std::string& sha256_hex = std::string(64, '0'), size_t size = 1);

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_KERROW_PROCESS_H_
