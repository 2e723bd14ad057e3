// Measures the live session's latency at real-time pace, as the host sees it:
// from the end of an utterance's audio to the "result" line that covers it, and
// from the first audio of a capture to its first partial. Beside them, the time
// the second-pass recognizer alone needs for the same utterances (decoded here,
// in-process, with the same model and thread count), so that the share of the
// VAD's closing silence and of the pipeline is visible.
//
// usage: live_latency_bench [ROUNDS] [realtime|single]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "bench_recordings.h"
#include "engine/offline_decoder_backend.h"
#include "host/kerrow_host.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRate = 16000;
constexpr double kPauseSeconds = 2.0;

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double Percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const size_t rank = static_cast<size_t>(std::ceil(fraction * values.size()));
  return values[std::min(values.size(), std::max<size_t>(rank, 1)) - 1];
}

void PrintFigure(const char* name, const std::vector<double>& values) {
  std::printf("%-34s n=%-4zu p50=%8.1f ms  p95=%8.1f ms\n", name, values.size(),
              Percentile(values, 0.5), Percentile(values, 0.95));
}

double NumberAfter(const std::string& line, const std::string& key) {
  const size_t at = line.find(key);
  return at == std::string::npos ? -1.0 : std::strtod(line.c_str() + at + key.size(), nullptr);
}

// Lines with the moment the host read them.
class TimedLines {
 public:
  void Add(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back({Clock::now(), line});
  }
  struct Entry {
    Clock::time_point at;
    std::string line;
  };
  std::vector<Entry> Snapshot() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> lines_;
};

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 2;
  const bool single_model = argc > 2 && std::string(argv[2]) == "single";
  kerrow::host::IgnoreSigpipe();

  const std::string models = KERROW_MODELS_DIR;
  const std::string sense_voice = models + "/trained/sensevoice-en-char/model.onnx";
  const std::string tokens = models + "/trained/sensevoice-en-char/tokens.txt";
  const std::vector<std::vector<float>> utterances = {
      kerrow::bench::LoadRecording("espeak/en_short.wav"), kerrow::bench::LoadRecording("espeak-dialog/a_test.wav"),
      kerrow::bench::LoadRecording("espeak-dialog/b_test.wav")};

  kerrow::host::LaunchConfig launch;
  launch.binary = KERROW_BINARY;
  launch.audio_fd = 3;
  launch.args = {"--manual-mode", "--manual-realtime", "--start-paused", "--silero-vad-model",
                 KERROW_VAD_MODEL, "--second-model", sense_voice, "--second-tokens", tokens,
                 "--num-threads-second", "1"};
  if (single_model) {
    launch.args.push_back("--single-model-streaming");
  } else {
    const std::string first = models + "/stubs/streaming-transducer/";
    for (const std::string& arg :
         {std::string("--first-encoder"), first + "encoder.onnx", std::string("--first-decoder"),
          first + "decoder.onnx", std::string("--first-joiner"), first + "joiner.onnx",
          std::string("--first-tokens"), first + "tokens.txt", std::string("--ct-transformer"),
          models + "/trained/punct-en/model.onnx"}) {
      launch.args.push_back(arg);
    }
  }

  TimedLines timed;
  kerrow::host::ChildProcess child;
  child.set_stdout_line_callback([&](const std::string& line) { timed.Add(line); });
  std::string error;
  if (!child.Start(launch, &error)) {
    std::fprintf(stderr, "cannot start kerrow: %s\n", error.c_str());
    return 1;
  }
  const auto wait = std::chrono::seconds(120);
  if (child.WaitForLine([](const std::string& l) { return l == "{\"type\":\"ready\"}"; }, wait) < 0) {
    std::fprintf(stderr, "kerrow never became ready\n");
    return 1;
  }

  std::vector<double> first_partial_ms;
  std::vector<double> result_ms;
  for (int round = 1; round <= rounds; ++round) {
    const size_t from = timed.Snapshot().size();
    child.WriteStdin("start\n");
    const std::string reset = (single_model ? "vad-reset-applied seq=" : "online-reset-applied seq=") +
                              std::to_string(round) + " ";
    child.WaitForLine([&](const std::string& l) { return l.find(reset) != std::string::npos; },
                      wait, from);
    // Capture-relative end of each utterance, and when its last sample went out.
    std::vector<double> ends_s;
    std::vector<Clock::time_point> ends_at;
    const Clock::time_point first_audio = Clock::now();
    size_t position = 0;
    for (const auto& utterance : utterances) {
      kerrow::host::PlayS16(&child, utterance, kRate, 1.0, 1600);
      position += utterance.size();
      ends_s.push_back(static_cast<double>(position) / kRate);
      ends_at.push_back(Clock::now());
      const std::vector<float> pause(static_cast<size_t>(kPauseSeconds * kRate), 0.0f);
      kerrow::host::PlayS16(&child, pause, kRate, 1.0, 1600);
      position += pause.size();
    }
    child.WriteStdin("stop\n");
    child.WaitForLine([](const std::string& l) { return l.find("Capture stopped") != std::string::npos; },
                      wait, from);

    const std::vector<TimedLines::Entry> lines = timed.Snapshot();
    for (size_t i = from; i < lines.size(); ++i) {
      if (lines[i].line.rfind("{\"type\":\"first-pass\"", 0) == 0) {
        first_partial_ms.push_back(Ms(lines[i].at - first_audio));
        break;
      }
    }
    for (size_t k = 0; k < ends_s.size(); ++k) {
      // The first result reaching the utterance's end; the VAD's segment ends
      // a little before the recording does.
      for (size_t i = from; i < lines.size(); ++i) {
        if (lines[i].line.rfind("{\"type\":\"result\"", 0) != 0) continue;
        if (NumberAfter(lines[i].line, "\"end_time\":") < ends_s[k] - 0.6) continue;
        result_ms.push_back(Ms(lines[i].at - ends_at[k]));
        break;
      }
    }
  }
  child.WriteStdin("quit\n");
  child.Wait(std::chrono::seconds(60));

  // The second pass alone on the same utterances, for comparison.
  kerrow::OfflineDecoderBackend decoder;
  kerrow::DecoderInitOptions options;
  options.sense_voice_model = sense_voice;
  options.tokens = tokens;
  options.num_threads = 1;
  std::vector<double> decode_ms;
  if (decoder.Init(options, &error)) {
    for (int round = 0; round < rounds; ++round) {
      for (const auto& utterance : utterances) {
        std::string text;
        const Clock::time_point begin = Clock::now();
        decoder.Decode(utterance, &text, nullptr);
        decode_ms.push_back(Ms(Clock::now() - begin));
      }
    }
  }

  std::printf("live_latency_bench: %s, %d captures of %zu utterances at real-time pace, "
              "%.1f s pauses\n",
              single_model ? "single-model streaming" : "manual realtime (stub first pass)", rounds,
              utterances.size(), kPauseSeconds);
  PrintFigure("first audio -> first partial", first_partial_ms);
  PrintFigure("end of utterance -> result", result_ms);
  PrintFigure("second-pass decode of an utterance", decode_ms);
  std::printf("the result waits for the VAD's closing silence (--vad-min-silence, 0.5 s) or, in\n"
              "single-model streaming, for the commit silence; the rest is decode and emission\n");
  return result_ms.size() == static_cast<size_t>(rounds) * utterances.size() ? 0 : 1;
}
