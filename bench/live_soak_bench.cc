// Soaks a live session: an hour of audio (by default) fed to the kerrow binary
// as fast as it takes it, in many start/stop captures, as the host drives it.
// Prints the engine's resident memory after every capture, the segment-id
// ledger (ids consecutive per capture, each covered by exactly one result) and
// the speed. Memory should level off once the capture buffer has reached the
// longest capture: the buffer keeps its capacity by design.
//
// usage: live_soak_bench [MINUTES_OF_AUDIO] [SECONDS_PER_CAPTURE]
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

void Append(std::vector<float>* to, const std::vector<float>& from) {
  to->insert(to->end(), from.begin(), from.end());
}

// Utterances separated by pauses, cycling through the recordings, until the
// capture lasts about `seconds`; it ends inside speech so that "stop" flushes a
// last segment, and is padded in front to whole 5 s keepalive blocks.
std::vector<float> CaptureAudio(double seconds, int capture) {
  static const std::vector<std::vector<float>> kUtterances = {
      kerrow::bench::LoadRecording("espeak/en_short.wav"), kerrow::bench::LoadRecording("espeak/en10s.wav"),
      kerrow::bench::LoadRecording("espeak-dialog/a_test.wav"), kerrow::bench::LoadRecording("espeak-dialog/b_test.wav")};
  std::vector<float> body;
  for (size_t i = static_cast<size_t>(capture); body.size() < seconds * kRate; ++i) {
    Append(&body, kUtterances[i % kUtterances.size()]);
    body.resize(body.size() + kRate * (i % 3 == 0 ? 1 : 2) / 2 + kRate / 2, 0.0f);
  }
  // en_short's speech runs to its last samples, so the VAD is still inside it
  // when "stop" arrives.
  Append(&body, kUtterances[0]);
  const size_t padded = (body.size() + 5 * kRate - 1) / (5 * kRate) * (5 * kRate);
  std::vector<float> audio(padded - body.size(), 0.0f);
  Append(&audio, body);
  return audio;
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

long NumberAfter(const std::string& line, const std::string& key) {
  const size_t at = line.find(key);
  return at == std::string::npos ? -1 : std::strtol(line.c_str() + at + key.size(), nullptr, 10);
}

bool StartsWith(const std::string& line, const std::string& prefix) {
  return line.rfind(prefix, 0) == 0;
}

std::string Keepalive(uint64_t total_samples) {
  return "{\"message\":\"PCM keepalive: received " + std::to_string(total_samples / kRate) +
         ".000000s audio\",\"type\":\"log\"}";
}

struct Ledger {
  long segments = 0;
  long results = 0;
  long id_errors = 0;     // VAD ids not 1, 2, 3, ... within a capture
  long range_errors = 0;  // results that skip or repeat an id
  long uncovered = 0;     // ids of a capture no result covered
};

// Checks the lines of one capture.
void CheckCapture(const std::vector<std::string>& lines, size_t from, size_t to, Ledger* ledger) {
  long expected_segment = 1;
  long next_covered = 1;
  for (size_t i = from; i < to; ++i) {
    const std::string& line = lines[i];
    if (line.find("[VAD] seg source=") != std::string::npos) {
      ++ledger->segments;
      if (NumberAfter(line, " id=") != expected_segment) ++ledger->id_errors;
      ++expected_segment;
    } else if (StartsWith(line, "{\"type\":\"result\"")) {
      ++ledger->results;
      if (NumberAfter(line, "\"segment_start_id\":") != next_covered) ++ledger->range_errors;
      next_covered = NumberAfter(line, "\"segment_id\":") + 1;
    }
  }
  ledger->uncovered += std::max(0L, expected_segment - next_covered);
}

}  // namespace

int main(int argc, char** argv) {
  const double minutes = argc > 1 ? std::max(0.1, std::atof(argv[1])) : 60.0;
  const double capture_seconds = argc > 2 ? std::max(5.0, std::atof(argv[2])) : 30.0;
  kerrow::host::IgnoreSigpipe();

  const std::string models = KERROW_MODELS_DIR;
  // The paraformer stub's partials grow slowly, which keeps the host's copy of
  // an hour of output small; the second pass is the trained recognizer.
  kerrow::host::LaunchConfig launch;
  launch.binary = KERROW_BINARY;
  launch.audio_fd = 3;
  launch.args = {"--manual-mode", "--manual-realtime", "--start-paused",
                 "--silero-vad-model", KERROW_VAD_MODEL,
                 "--first-model-type", "paraformer",
                 "--first-encoder", models + "/stubs/streaming-paraformer/encoder.onnx",
                 "--first-decoder", models + "/stubs/streaming-paraformer/decoder.onnx",
                 "--first-tokens", models + "/stubs/streaming-paraformer/tokens.txt",
                 "--num-threads-first", "1",
                 "--second-model", models + "/trained/sensevoice-en-char/model.onnx",
                 "--second-tokens", models + "/trained/sensevoice-en-char/tokens.txt",
                 "--num-threads-second", "1",
                 "--ct-transformer", models + "/trained/punct-en/model.onnx",
                 "--second-pass-every", "2"};
  kerrow::host::ChildProcess child;
  std::string error;
  if (!child.Start(launch, &error)) {
    std::fprintf(stderr, "cannot start kerrow: %s\n", error.c_str());
    return 1;
  }
  const auto long_wait = std::chrono::minutes(5);
  if (child.WaitForLine([](const std::string& l) { return l == "{\"type\":\"ready\"}"; }, long_wait) < 0) {
    std::fprintf(stderr, "kerrow never became ready\n");
    return 1;
  }

  std::printf("live_soak_bench: %.1f min of audio in captures of about %.0f s\n", minutes,
              capture_seconds);
  std::printf("%8s %10s %10s %10s\n", "capture", "audio_s", "wall_s", "rss_mb");
  const Clock::time_point begin = Clock::now();
  uint64_t total_samples = 0;
  long first_rss_kb = 0;
  // Taken once half the audio has gone through: the allocator and the
  // capture buffer have settled by then, so any later growth would be a leak.
  long halfway_rss_kb = 0;
  Ledger ledger;
  int capture = 0;
  for (; total_samples < minutes * 60 * kRate; ++capture) {
    const size_t from = child.StdoutLines().size();
    child.WriteStdin("start\n");
    // Audio written before the PCM thread has taken the "start" could be cut
    // by its drop of stale bytes; the host's microphone would just lose a chunk.
    const std::string reset = "online-reset-applied seq=" + std::to_string(capture + 1) + " ";
    if (child.WaitForLine([&](const std::string& l) { return l.find(reset) != std::string::npos; },
                          long_wait, from) < 0) {
      std::printf("capture %d: the resets of \"start\" were never applied\n", capture + 1);
      break;
    }
    const std::vector<float> audio = CaptureAudio(capture_seconds, capture);
    if (!kerrow::host::PlayS16(&child, audio, kRate, 0.0, 1600)) break;
    total_samples += audio.size();
    const std::string keepalive = Keepalive(total_samples);
    if (child.WaitForLine([&](const std::string& l) { return l == keepalive; }, long_wait, from) < 0) {
      std::printf("capture %d: the audio was not read within 5 minutes\n", capture + 1);
      break;
    }
    child.WriteStdin("stop\n");
    const int flushed = child.WaitForLine(
        [](const std::string& l) { return l.find("[VAD] seg source=flush") != std::string::npos; },
        long_wait, from);
    if (flushed < 0) {
      std::printf("capture %d: \"stop\" flushed no segment\n", capture + 1);
      break;
    }
    const long last_id = NumberAfter(child.StdoutLines()[flushed], " id=");
    if (child.WaitForLine(
            [&](const std::string& l) {
              return StartsWith(l, "{\"type\":\"result\"") &&
                     NumberAfter(l, "\"segment_id\":") == last_id;
            },
            long_wait, flushed) < 0) {
      std::printf("capture %d: no result for the flushed segment %ld\n", capture + 1, last_id);
      break;
    }
    const std::vector<std::string> lines = child.StdoutLines();
    CheckCapture(lines, from, lines.size(), &ledger);
    const long rss_kb = ResidentKb(child.pid());
    if (capture == 0) first_rss_kb = rss_kb;
    if (halfway_rss_kb == 0 && total_samples >= minutes * 30 * kRate) halfway_rss_kb = rss_kb;
    const double wall = std::chrono::duration<double>(Clock::now() - begin).count();
    std::printf("%8d %10.1f %10.1f %10.1f\n", capture + 1, static_cast<double>(total_samples) / kRate,
                wall, rss_kb / 1024.0);
    std::fflush(stdout);
  }
  const long last_rss_kb = ResidentKb(child.pid());
  const double wall = std::chrono::duration<double>(Clock::now() - begin).count();
  child.WriteStdin("quit\n");
  const int status = child.Wait(std::chrono::seconds(60));

  const double audio_s = static_cast<double>(total_samples) / kRate;
  std::printf("captures %d, audio %.1f s, wall %.1f s, speed %.1fx real time, exit status %d\n",
              capture, audio_s, wall, wall > 0 ? audio_s / wall : 0.0, status);
  std::printf("segments %ld, results %ld, id errors %ld, range errors %ld, uncovered ids %ld\n",
              ledger.segments, ledger.results, ledger.id_errors, ledger.range_errors,
              ledger.uncovered);
  std::printf("rss after capture 1: %.1f MB, halfway: %.1f MB, at the end: %.1f MB "
              "(growth over the second half: %+.1f MB), peak %.1f MB\n",
              first_rss_kb / 1024.0, halfway_rss_kb / 1024.0, last_rss_kb / 1024.0,
              (last_rss_kb - halfway_rss_kb) / 1024.0, child.PeakRssKb() / 1024.0);
  const bool clean = ledger.id_errors == 0 && ledger.range_errors == 0 && ledger.uncovered == 0 &&
                     status == 0;
  return clean ? 0 : 1;
}
