// Measures the live session's latency at real-time pace, as the host sees it:
// from the last speech sample of an utterance (not the end of its file, which
// may trail silence) to the "result" line that covers it, and from the first
// audio of a capture to its first partial. Beside them the floor: the VAD's
// own closing silence (--vad-min-silence) plus the time the second-pass
// recognizer alone needs for the same utterance (decoded here, in-process,
// with the same model and thread count). What is left is kerrow's own share.
//
// usage: live_latency_bench [ROUNDS] [realtime|single]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
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
// The VAD's default minimum silence: it closes a segment only after this much.
constexpr double kVadMinSilenceSeconds = 0.5;
// Quieter than this counts as silence when looking for the last speech sample.
constexpr float kSpeechLevel = 0.01f;

// Index one past the last sample louder than kSpeechLevel.
size_t SpeechEnd(const std::vector<float>& samples) {
  size_t end = samples.size();
  while (end > 0 && std::fabs(samples[end - 1]) < kSpeechLevel) --end;
  return end;
}

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
  std::vector<size_t> result_utterance;  // which utterance each latency belongs to
  for (int round = 1; round <= rounds; ++round) {
    const size_t from = timed.Snapshot().size();
    child.WriteStdin("start\n");
    const std::string reset = (single_model ? "vad-reset-applied seq=" : "online-reset-applied seq=") +
                              std::to_string(round) + " ";
    child.WaitForLine([&](const std::string& l) { return l.find(reset) != std::string::npos; },
                      wait, from);
    // Capture-relative end of each utterance's speech, and when its last
    // speech sample went out (playing paces the audio at real time).
    std::vector<double> ends_s;
    std::vector<Clock::time_point> ends_at;
    const Clock::time_point first_audio = Clock::now();
    size_t position = 0;
    for (const auto& utterance : utterances) {
      const size_t speech_end = SpeechEnd(utterance);
      const Clock::time_point play_begin = Clock::now();
      kerrow::host::PlayS16(&child, utterance, kRate, 1.0, 1600);
      ends_s.push_back(static_cast<double>(position + speech_end) / kRate);
      ends_at.push_back(play_begin + std::chrono::microseconds(static_cast<int64_t>(
                                         1e6 * static_cast<double>(speech_end) / kRate)));
      position += utterance.size();
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
      // The first result reaching the utterance's last speech; the VAD may
      // end its segment a little before it.
      for (size_t i = from; i < lines.size(); ++i) {
        if (lines[i].line.rfind("{\"type\":\"result\"", 0) != 0) continue;
        if (NumberAfter(lines[i].line, "\"end_time\":") < ends_s[k] - 0.3) continue;
        result_ms.push_back(Ms(lines[i].at - ends_at[k]));
        result_utterance.push_back(k);
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
  std::vector<double> best_decode_ms(utterances.size(), 0.0);
  if (decoder.Init(options, &error)) {
    for (int round = 0; round < rounds; ++round) {
      for (size_t k = 0; k < utterances.size(); ++k) {
        std::string text;
        const Clock::time_point begin = Clock::now();
        decoder.Decode(utterances[k], &text, nullptr);
        decode_ms.push_back(Ms(Clock::now() - begin));
        if (round == 0 || decode_ms.back() < best_decode_ms[k]) best_decode_ms[k] = decode_ms.back();
      }
    }
  }
  // Per result: the floor it cannot beat, and what kerrow added on top.
  std::vector<double> floor_ms;
  std::vector<double> share_ms;
  for (size_t i = 0; i < result_ms.size(); ++i) {
    floor_ms.push_back(1000.0 * kVadMinSilenceSeconds + best_decode_ms[result_utterance[i]]);
    share_ms.push_back(result_ms[i] - floor_ms.back());
  }

  std::printf("live_latency_bench: %s, %d captures of %zu utterances at real-time pace, "
              "%.1f s pauses\n",
              single_model ? "single-model streaming" : "manual realtime (stub first pass)", rounds,
              utterances.size(), kPauseSeconds);
  PrintFigure("first audio -> first partial", first_partial_ms);
  PrintFigure("last speech sample -> result", result_ms);
  PrintFigure("floor (VAD silence + decode)", floor_ms);
  PrintFigure("kerrow's own share", share_ms);
  PrintFigure("second-pass decode of an utterance", decode_ms);
  std::printf("the floor is the VAD's closing silence (%.1f s) plus the bare decode of the\n"
              "utterance; kerrow's share is each result's latency minus its floor\n",
              kVadMinSilenceSeconds);
  return result_ms.size() == static_cast<size_t>(rounds) * utterances.size() ? 0 : 1;
}
