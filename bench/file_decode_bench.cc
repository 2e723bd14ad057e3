// Measures one whole-file decode as the host runs it: the kerrow binary on a
// recording with the bundled trained models. Prints, per run, the wall time, the
// time spent inside model calls, the share of the decode phase outside them,
// and the peak resident memory. The VAD runs on a thread of its own beside the
// decoder, so model time is the union of the library calls of both threads, which
// kerrow reports to the file named by KERROW_LIBRARY_BUSY_REPORT; the per-model
// sums come from its own [TIMING] lines.
//
// usage: file_decode_bench [WAV] [RUNS]
//        file_decode_bench --compare [MINUTES...]   (default 1 5 20 60)
// The second form sets kerrow beside the peer pipeline a sherpa-onnx user would
// write (bench/peer_file_decode.js, same models, same threads) on espeak-ng
// recordings of the given lengths, made on first use and kept in the build tree.
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct RunFigures {
  double wall_ms = 0;
  double cpu_ms = 0;       // user + system time of the child
  std::string output;      // the child's stdout
  long total_ms = 0;       // [TIMING][TOTAL]: the decode phase, after set-up
  long asr_ms = 0;         // sum of second-pass decodes
  long punc_ms = 0;        // punctuation of groups plus the merged text
  long punc_merged_ms = 0;
  long library_busy_ms = 0; // the decode phase's time with at least one library call running
  long peak_rss_kb = 0;
  int exit_status = -1;
};

long FirstNumberAfter(const std::string& text, const std::string& key) {
  std::smatch match;
  if (std::regex_search(text, match, std::regex(key + "(\\d+)"))) return std::stol(match[1]);
  return 0;
}

double AudioSeconds(const std::string& wav_path) {
  std::ifstream file(wav_path, std::ios::binary | std::ios::ate);
  const auto bytes = static_cast<double>(file.tellg());
  return bytes > 44 ? (bytes - 44) / 2.0 / 16000.0 : 0.0;
}

std::vector<std::string> KerrowArgs(const std::string& wav) {
  const std::string models = KERROW_MODELS_DIR;
  return {KERROW_BINARY,
          "--manual-mode",
          "--wav-input", wav,
          "--second-model", models + "/trained/sensevoice-en-char/model.onnx",
          "--second-tokens", models + "/trained/sensevoice-en-char/tokens.txt",
          "--num-threads-second", "1",
          "--ct-transformer", models + "/trained/punct-en/model.onnx",
          "--silero-vad-model", KERROW_VAD_MODEL};
}

double MsOf(const timeval& time) { return time.tv_sec * 1000.0 + time.tv_usec / 1000.0; }

// Runs a program with its stdout in a temporary file; wait4 gives the child's
// peak RSS and CPU time. env: the environment, or null for ours.
RunFigures Spawn(std::vector<std::string> args, char** env = nullptr) {
  RunFigures figures;
  char out_path[] = "/tmp/kerrow-bench-XXXXXX";
  const int out_fd = mkstemp(out_path);
  if (out_fd < 0) return figures;

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), env != nullptr ? env : environ) == 0) {
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    figures.wall_ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    figures.cpu_ms = MsOf(usage.ru_utime) + MsOf(usage.ru_stime);
    figures.peak_rss_kb = usage.ru_maxrss;
    figures.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  posix_spawn_file_actions_destroy(&actions);
  close(out_fd);

  std::ifstream out(out_path);
  std::stringstream text;
  text << out.rdbuf();
  std::remove(out_path);
  figures.output = text.str();
  return figures;
}

// Our environment plus the given variables, which replace ours of the same name.
class Environment {
 public:
  explicit Environment(const std::vector<std::string>& overrides) : storage_(overrides) {
    for (char** var = environ; *var != nullptr; ++var) {
      const std::string entry(*var);
      const std::string name = entry.substr(0, entry.find('=') + 1);
      bool overridden = false;
      for (const std::string& override_entry : overrides) overridden |= override_entry.rfind(name, 0) == 0;
      if (!overridden) storage_.push_back(entry);
    }
    for (auto& var : storage_) pointers_.push_back(var.data());
    pointers_.push_back(nullptr);
  }
  char** get() { return pointers_.data(); }

 private:
  std::vector<std::string> storage_;
  std::vector<char*> pointers_;
};

std::string ReadAndRemove(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  std::remove(path.c_str());
  return text.str();
}

RunFigures RunOnce(const std::string& wav) {
  char report_path[] = "/tmp/kerrow-bench-busy-XXXXXX";
  const int report_fd = mkstemp(report_path);
  if (report_fd >= 0) close(report_fd);
  Environment env({std::string("KERROW_LIBRARY_BUSY_REPORT=") + report_path});
  RunFigures figures = Spawn(KerrowArgs(wav), env.get());
  figures.library_busy_ms = FirstNumberAfter(ReadAndRemove(report_path), "library_busy_ms=");
  const std::string& log = figures.output;
  figures.total_ms = FirstNumberAfter(log, "\\[TIMING\\]\\[TOTAL\\] ms=");
  figures.asr_ms = FirstNumberAfter(log, "asr_decode_ms_sum=");
  figures.punc_merged_ms = FirstNumberAfter(log, "\\[TIMING\\]\\[PUNC_MERGED\\] ms=");
  figures.punc_ms = FirstNumberAfter(log, "punc_group_ms_sum=") + figures.punc_merged_ms;
  return figures;
}

// The decode phase outside library calls, as a share of it.
double OverheadShare(const RunFigures& f) {
  return f.total_ms > 0 ? std::max(0.0, static_cast<double>(f.total_ms - f.library_busy_ms)) / f.total_ms : 0.0;
}

RunFigures RunPeer(const std::string& wav) {
  const std::string models = KERROW_MODELS_DIR;
  Environment env({std::string("NODE_PATH=") + KERROW_NODE_MODULES});
  RunFigures figures =
      Spawn({"node", std::string(KERROW_SOURCE_DIR) + "/bench/peer_file_decode.js", wav, KERROW_VAD_MODEL,
             models + "/trained/sensevoice-en-char/model.onnx", models + "/trained/sensevoice-en-char/tokens.txt",
             models + "/trained/punct-en/model.onnx", "1"},
            env.get());
  figures.total_ms = FirstNumberAfter(figures.output, "\"wall_ms\":") - FirstNumberAfter(figures.output, "\"load_ms\":");
  return figures;
}

std::string RecordingOfMinutes(int minutes) {
  const std::string path = std::string(KERROW_BENCH_RECORDINGS_DIR) + "/speech-" + std::to_string(minutes) + "min.wav";
  const std::string command = std::string(KERROW_SOURCE_DIR) + "/bench/make_speech_recording.sh '" + path + "' " +
                              std::to_string(minutes);
  return std::system(command.c_str()) == 0 ? path : std::string();
}

double Ratio(double a, double b) { return b > 0 ? a / b : 0.0; }

int Compare(const std::vector<int>& minutes_list) {
  std::printf("file_decode_bench --compare: kerrow --wav-input vs the Node peer pipeline (1 model thread each)\n");
  std::printf("%4s | %9s %9s %6s | %9s %9s %6s | %8s %8s %6s | %9s %9s %8s\n", "min", "k_wall_ms", "p_wall_ms",
              "wall", "k_cpu_ms", "p_cpu_ms", "cpu", "k_rss_mb", "p_rss_mb", "rss", "k_decode", "k_model", "k_ovh");
  for (int minutes : minutes_list) {
    const std::string wav = RecordingOfMinutes(minutes);
    if (wav.empty()) {
      std::printf("%4d | could not make the recording (espeak-ng and sox are needed)\n", minutes);
      return 1;
    }
    const RunFigures k = RunOnce(wav);
    const RunFigures p = RunPeer(wav);
    if (k.exit_status != 0 || p.exit_status != 0) {
      std::printf("%4d | failed: kerrow status %d, peer status %d\n", minutes, k.exit_status, p.exit_status);
      return 1;
    }
    std::printf("%4d | %9.0f %9.0f %6.3f | %9.0f %9.0f %6.3f | %8.1f %8.1f %6.3f | %9ld %9ld %7.2f%%\n", minutes,
                k.wall_ms, p.wall_ms, Ratio(k.wall_ms, p.wall_ms), k.cpu_ms, p.cpu_ms, Ratio(k.cpu_ms, p.cpu_ms),
                k.peak_rss_kb / 1024.0, p.peak_rss_kb / 1024.0, Ratio(k.peak_rss_kb, p.peak_rss_kb), k.total_ms,
                k.library_busy_ms, 100.0 * OverheadShare(k));
  }
  std::printf("k_ = kerrow, p_ = peer; ratios are kerrow / peer; wall, cpu and rss of the whole process\n"
              "(model loads included); k_decode = kerrow's decode phase, k_model = the time in it with\n"
              "at least one VAD, decode or punctuation call running (on either thread), k_ovh = the rest\n"
              "of the decode phase as a share of it\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--compare") {
    std::vector<int> minutes;
    for (int i = 2; i < argc; ++i) minutes.push_back(std::max(1, std::atoi(argv[i])));
    if (minutes.empty()) minutes = {1, 5, 20, 60};
    return Compare(minutes);
  }
  const std::string wav = argc > 1 && argv[1][0] != '\0' ? argv[1]
                                   : std::string(KERROW_TEST_DATA_DIR) +
                                         "/audio/espeak-dialog/two-voices-dialog.wav";
  const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
  const double audio_s = AudioSeconds(wav);
  std::printf("file_decode_bench: %s (%.2f s of audio), %d runs\n", wav.c_str(), audio_s, runs);
  std::printf("%4s %9s %9s %10s %9s %8s %8s %9s %9s %9s %8s\n", "run", "wall_ms", "setup_ms", "decode_ms",
              "model_ms", "asr_ms", "punc_ms", "other_ms", "overhead", "rtf", "rss_mb");
  for (int run = 1; run <= runs; ++run) {
    const RunFigures f = RunOnce(wav);
    if (f.exit_status != 0) {
      std::printf("run %d failed: exit status %d\n", run, f.exit_status);
      return 1;
    }
    const long other_ms = std::max(0L, f.total_ms - f.library_busy_ms);
    const double rtf = audio_s > 0 ? f.total_ms / 1000.0 / audio_s : 0.0;
    std::printf("%4d %9.1f %9.1f %10ld %9ld %8ld %8ld %9ld %8.2f%% %9.4f %8.1f\n", run, f.wall_ms,
                f.wall_ms - f.total_ms, f.total_ms, f.library_busy_ms, f.asr_ms, f.punc_ms, other_ms,
                100.0 * OverheadShare(f), rtf, f.peak_rss_kb / 1024.0);
  }
  std::printf("setup = process start, file read and model loads; decode = the decode phase;\n"
              "model = the time in it with at least one library call running (VAD, second-pass\n"
              "decodes, punctuation; the VAD runs beside the decoder); asr and punc = those calls' own\n"
              "sums; other = decode - model; overhead = other / decode; rtf = decode / audio;\n"
              "rss = peak resident memory of the kerrow process\n");
  return 0;
}
