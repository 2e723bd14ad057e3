// Soaks a live session the way a host uses it all day: one single capture of
// many hours of speech and pauses (eight by default), fed to the kerrow binary
// as fast as it takes it, in each mode. Prints the engine's resident memory
// after every simulated hour. Memory should stay flat in every mode except
// those that must keep the capture for a decode at "stop" (manual mode's
// segment buffer and offline_2pass's whole capture, about 0.23 GB an hour).
//
// usage: live_soak_bench [HOURS] [MINUTES_PER_REPORT] [MODE]
//   MODE: default, manual, realtime, offline2pass, single, or all (the default)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bench_recordings.h"
#include "host/kerrow_host.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRate = 16000;
// Audio is generated and sent a minute at a time, so that the bench itself
// never holds hours of samples.
constexpr size_t kPieceSamples = 60 * kRate;

struct Mode {
  const char* name;
  std::vector<std::string> args;
  // Whether the mode starts paused and needs "start" (every manual mode).
  bool manual;
};

std::vector<Mode> Modes(const std::string& models) {
  const std::string vad = KERROW_VAD_MODEL;
  const std::vector<std::string> second = {
      "--second-model", models + "/trained/sensevoice-en-char/model.onnx", "--second-tokens",
      models + "/trained/sensevoice-en-char/tokens.txt", "--num-threads-second", "1"};
  const std::vector<std::string> first = {
      "--first-encoder", models + "/trained/streaming-lstm-en-char/encoder.onnx",
      "--first-decoder", models + "/trained/streaming-lstm-en-char/decoder.onnx",
      "--first-joiner",  models + "/trained/streaming-lstm-en-char/joiner.onnx",
      "--first-tokens",  models + "/trained/streaming-lstm-en-char/tokens.txt",
      "--num-threads-first", "1"};
  const std::vector<std::string> punc = {"--ct-transformer", models + "/trained/punct-en/model.onnx"};
  auto join = [](std::vector<std::vector<std::string>> parts) {
    std::vector<std::string> all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
  };
  const std::vector<std::string> realtime = {"--manual-mode", "--manual-realtime",
                                             "--start-paused", "--silero-vad-model", vad};
  return {
      {"default", join({first, second, punc}), false},
      {"manual", join({{"--manual-mode", "--start-paused"}, second, punc}), true},
      {"realtime", join({realtime, first, second, punc}), true},
      {"offline2pass", join({realtime, {"--offline-2pass"}, first, second, punc}), true},
      {"single", join({realtime, {"--single-model-streaming"}, second}), true},
  };
}

// Minute `index` of the capture: utterances cycling through the recordings,
// separated by pauses of 0.5 to 1.5 s.
std::vector<float> Piece(size_t index) {
  static const std::vector<std::vector<float>> kUtterances = {
      kerrow::bench::LoadRecording("espeak/en_short.wav"),
      kerrow::bench::LoadRecording("espeak/en10s.wav"),
      kerrow::bench::LoadRecording("espeak-dialog/a_test.wav"),
      kerrow::bench::LoadRecording("espeak-dialog/b_test.wav")};
  std::vector<float> piece;
  for (size_t i = index; piece.size() < kPieceSamples; ++i) {
    const auto& utterance = kUtterances[i % kUtterances.size()];
    piece.insert(piece.end(), utterance.begin(), utterance.end());
    piece.resize(piece.size() + kRate / 2 + (i % 3) * kRate / 2, 0.0f);
  }
  piece.resize(kPieceSamples);
  return piece;
}

long ResidentKb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string key;
  while (status >> key) {
    if (key == "VmRSS:") {
      long kb = 0;
      status >> kb;
      return kb;
    }
    status.ignore(1 << 20, '\n');
  }
  return 0;
}

std::string Keepalive(uint64_t total_samples) {
  return "{\"message\":\"PCM keepalive: received " + std::to_string(total_samples / kRate) +
         ".000000s audio\",\"type\":\"log\"}";
}

bool StartChild(const Mode& mode, kerrow::host::ChildProcess* child) {
  kerrow::host::LaunchConfig launch;
  launch.binary = KERROW_BINARY;
  launch.audio_fd = 3;
  launch.args = mode.args;
  std::string error;
  if (!child->Start(launch, &error)) {
    std::fprintf(stderr, "cannot start kerrow: %s\n", error.c_str());
    return false;
  }
  const auto wait = std::chrono::minutes(5);
  if (child->WaitForLine([](const std::string& l) { return l == "{\"type\":\"ready\"}"; }, wait) < 0) {
    return false;
  }
  if (!mode.manual) return true;
  child->WriteStdin("start\n");
  return child->WaitForLine(
             [](const std::string& l) {
               return l.find("session-reset-consumed seq=1 ") != std::string::npos;
             },
             wait) >= 0;
}

// One capture of `hours`, reporting every `report_pieces` minutes. Returns
// false when kerrow stopped reading or could not be started.
bool SoakMode(const Mode& mode, double hours, size_t report_pieces) {
  kerrow::host::ChildProcess child;
  if (!StartChild(mode, &child)) {
    std::printf("%s: kerrow did not start\n", mode.name);
    return false;
  }
  const size_t pieces = static_cast<size_t>(hours * 60.0 + 0.5);
  std::printf("\nmode %s: one capture of %.2f h, rss every %zu simulated minutes\n", mode.name,
              hours, report_pieces);
  std::printf("%10s %10s %10s\n", "audio_h", "wall_s", "rss_mb");
  const Clock::time_point begin = Clock::now();
  const long start_kb = ResidentKb(child.pid());
  std::printf("%10.2f %10.1f %10.1f\n", 0.0, 0.0, start_kb / 1024.0);
  uint64_t total = 0;
  bool ok = true;
  for (size_t piece = 0; piece < pieces && ok; ++piece) {
    ok = kerrow::host::PlayS16(&child, Piece(piece), kRate, 0.0, 1600);
    total += kPieceSamples;
    if (!ok || (piece + 1) % report_pieces != 0) continue;
    // The keepalive at this total says that kerrow has read all of it.
    const std::string keepalive = Keepalive(total);
    ok = child.WaitForLine([&](const std::string& l) { return l == keepalive; },
                           std::chrono::minutes(10), 0) >= 0;
    const double wall = std::chrono::duration<double>(Clock::now() - begin).count();
    std::printf("%10.2f %10.1f %10.1f\n", static_cast<double>(total) / kRate / 3600.0, wall,
                ResidentKb(child.pid()) / 1024.0);
    std::fflush(stdout);
  }
  child.WriteStdin("quit\n");
  const int status = child.Wait(std::chrono::minutes(2));
  const double wall = std::chrono::duration<double>(Clock::now() - begin).count();
  std::printf("%s: %.2f h of audio in %.1f s (%.0fx real time), exit status %d, peak rss %.1f MB\n",
              mode.name, static_cast<double>(total) / kRate / 3600.0, wall,
              wall > 0 ? static_cast<double>(total) / kRate / wall : 0.0, status,
              child.PeakRssKb() / 1024.0);
  return ok && status == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const double hours = argc > 1 ? std::max(1.0 / 60.0, std::atof(argv[1])) : 8.0;
  const size_t report_pieces =
      static_cast<size_t>(std::max(1.0, argc > 2 ? std::atof(argv[2]) : 60.0));
  const std::string wanted = argc > 3 ? argv[3] : "all";
  kerrow::host::IgnoreSigpipe();

  bool clean = true;
  for (const Mode& mode : Modes(KERROW_MODELS_DIR)) {
    if (wanted != "all" && wanted != mode.name) continue;
    clean = SoakMode(mode, hours, report_pieces) && clean;
  }
  return clean ? 0 : 1;
}
