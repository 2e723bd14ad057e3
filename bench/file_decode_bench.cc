// Measures one whole-file decode as the host runs it: the kerrow binary on a
// recording with the bundled trained models. Prints, per run, the wall time, the
// time spent inside model calls (from kerrow's own [TIMING] lines), the overhead
// ratio of everything else in the decode phase, and the peak resident memory.
//
// usage: file_decode_bench [WAV] [RUNS]
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

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
  long total_ms = 0;       // [TIMING][TOTAL]: the decode phase, after set-up
  long vad_and_asr_ms = 0; // [TIMING][VAD_AND_ASR]: VAD inference, decodes and group punctuation
  long asr_ms = 0;         // sum of second-pass decodes
  long punc_ms = 0;        // punctuation of groups plus the merged text
  long punc_merged_ms = 0;
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

// Runs kerrow with its stdout in a temporary file; wait4 gives the child's peak RSS.
RunFigures RunOnce(const std::string& wav) {
  RunFigures figures;
  char out_path[] = "/tmp/kerrow-bench-XXXXXX";
  const int out_fd = mkstemp(out_path);
  if (out_fd < 0) return figures;

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
  std::vector<std::string> args = KerrowArgs(wav);
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    figures.wall_ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    figures.peak_rss_kb = usage.ru_maxrss;
    figures.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  posix_spawn_file_actions_destroy(&actions);
  close(out_fd);

  std::ifstream out(out_path);
  std::stringstream text;
  text << out.rdbuf();
  std::remove(out_path);
  const std::string log = text.str();
  figures.total_ms = FirstNumberAfter(log, "\\[TIMING\\]\\[TOTAL\\] ms=");
  figures.vad_and_asr_ms = FirstNumberAfter(log, "\\[TIMING\\]\\[VAD_AND_ASR\\] ms=");
  figures.asr_ms = FirstNumberAfter(log, "asr_decode_ms_sum=");
  figures.punc_merged_ms = FirstNumberAfter(log, "\\[TIMING\\]\\[PUNC_MERGED\\] ms=");
  figures.punc_ms = FirstNumberAfter(log, "punc_group_ms_sum=") + figures.punc_merged_ms;
  return figures;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string wav = argc > 1 && argv[1][0] != '\0' ? argv[1]
                                   : std::string(KERROW_TEST_DATA_DIR) +
                                         "/audio/espeak-dialog/two-voices-dialog.wav";
  const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
  const double audio_s = AudioSeconds(wav);
  std::printf("file_decode_bench: %s (%.2f s of audio), %d runs\n", wav.c_str(), audio_s, runs);
  std::printf("%4s %9s %9s %10s %9s %8s %8s %8s %9s %9s %9s %8s\n", "run", "wall_ms", "setup_ms",
              "decode_ms", "model_ms", "asr_ms", "vad_ms", "punc_ms", "other_ms", "overhead", "rtf",
              "rss_mb");
  for (int run = 1; run <= runs; ++run) {
    const RunFigures f = RunOnce(wav);
    if (f.exit_status != 0) {
      std::printf("run %d failed: exit status %d\n", run, f.exit_status);
      return 1;
    }
    // The VAD's own inference is the part of the VAD-and-decode phase that is
    // neither a second-pass decode nor group punctuation.
    const long vad_ms = f.vad_and_asr_ms - f.asr_ms - (f.punc_ms - f.punc_merged_ms);
    const long model_ms = f.asr_ms + f.punc_ms + vad_ms;
    const long other_ms = f.total_ms - model_ms;
    const double overhead = model_ms > 0 ? static_cast<double>(other_ms) / model_ms : 0.0;
    const double rtf = audio_s > 0 ? f.total_ms / 1000.0 / audio_s : 0.0;
    std::printf("%4d %9.1f %9.1f %10ld %9ld %8ld %8ld %8ld %9ld %9.3f %9.4f %8.1f\n", run, f.wall_ms,
                f.wall_ms - f.total_ms, f.total_ms, model_ms, f.asr_ms, vad_ms, f.punc_ms, other_ms,
                overhead, rtf, f.peak_rss_kb / 1024.0);
  }
  std::printf("setup = process start and model loads; model = second-pass decodes + VAD inference +\n"
              "punctuation; other = grouping, merging and emission; overhead = other / model;\n"
              "rtf = decode / audio; rss = peak resident memory of the kerrow process\n");
  return 0;
}
