// Measures the live session's latency at real-time pace, as the host sees it:
// from the last speech sample of an utterance (not the end of its file, which
// may trail silence) to the "result" line that covers it, and from the first
// audio of a capture to its first partial.
//
// The capture is played as a microphone would deliver it: one stream of
// utterances and pauses, in blocks of kerrow's chunk size, each block sent
// once its last sample has been recorded.
//
// Beside each latency its floor, the part no engine could avoid:
//   - the wait for the audio the VAD needs to close the utterance: the same
//     silero model with the same settings, run here on the same capture, tells
//     after which sample the segment closes, and the floor counts from the
//     last speech sample to the moment the block holding that sample reached
//     kerrow (the VAD lets its speech probability fade and then waits its
//     minimum silence, so this is well above --vad-min-silence);
//   - the time the second-pass recognizer alone needs for the audio decoded
//     for that utterance (the segment behind its lookback), decoded here with
//     the same model and thread count, best of the rounds.
// What is left is kerrow's own share.
//
// usage: live_latency_bench [ROUNDS] [realtime|trained|single]
//   realtime: manual realtime with the stub streaming model as first pass
//   trained:  manual realtime with the trained lstm streaming model, whose
//             per-chunk work and end-of-utterance finish are real
//   single:   single-model streaming
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
#include "engine/vad_backend.h"
#include "host/kerrow_host.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRate = 16000;
constexpr double kPauseSeconds = 2.0;
// kerrow's default --chunk-duration (0.1 s); the player sends blocks of this size.
constexpr size_t kBlockSamples = 1600;
// kerrow's default --vad-lookback.
constexpr double kLookbackSeconds = 0.2;
// The silero window: the VAD decides once per this many samples.
constexpr size_t kVadWindowSamples = 512;
// Quieter than this counts as silence when looking for the last speech sample.
constexpr float kSpeechLevel = 0.01f;
// A result may end a little before the last speech sample: the VAD cuts its
// segment where the speech probability fell, not where the level did.
constexpr double kEndSlackSeconds = 0.3;

// Index one past the last sample louder than kSpeechLevel.
size_t SpeechEnd(const std::vector<float>& samples) {
  size_t end = samples.size();
  while (end > 0 && std::fabs(samples[end - 1]) < kSpeechLevel) --end;
  return end;
}

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

Clock::duration SamplesAsDuration(size_t samples) {
  return std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(static_cast<double>(samples) / kRate));
}

double Percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const size_t rank = static_cast<size_t>(std::ceil(fraction * values.size()));
  return values[std::min(values.size(), std::max<size_t>(rank, 1)) - 1];
}

void PrintFigure(const char* name, const std::vector<double>& values) {
  if (values.empty()) {
    std::printf("%-42s n=0\n", name);
    return;
  }
  std::printf("%-42s n=%-4zu p50=%7.1f ms  p95=%7.1f ms  min=%7.1f  max=%7.1f\n", name,
              values.size(), Percentile(values, 0.5), Percentile(values, 0.95),
              *std::min_element(values.begin(), values.end()),
              *std::max_element(values.begin(), values.end()));
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

// One utterance of the capture, and what the floor of its latency is made of.
struct Utterance {
  size_t speech_end = 0;  // capture index one past its last speech sample
  size_t vad_close = 0;   // samples the VAD had been fed when the segment closed
  std::vector<float> decoded_audio;  // the segment behind its lookback
  double best_decode_ms = 0.0;
};

// Utterances with pauses after each, as one capture; records where each
// utterance's speech ends.
std::vector<float> BuildCapture(const std::vector<std::vector<float>>& recordings,
                                std::vector<Utterance>* utterances) {
  std::vector<float> capture;
  for (const auto& recording : recordings) {
    Utterance utterance;
    utterance.speech_end = capture.size() + SpeechEnd(recording);
    utterances->push_back(std::move(utterance));
    capture.insert(capture.end(), recording.begin(), recording.end());
    capture.resize(capture.size() + static_cast<size_t>(kPauseSeconds * kRate), 0.0f);
  }
  return capture;
}

struct ClosedSegment {
  size_t start = 0;
  size_t end = 0;
  size_t closed_after = 0;  // samples fed when it could be popped
};

// Runs the VAD kerrow runs (default settings) over the capture, one silero
// window at a time, and notes after which sample each segment came out.
bool FindVadSegments(const std::vector<float>& capture, std::vector<ClosedSegment>* segments) {
  kerrow::VadBackend vad;
  kerrow::VadInitOptions options;
  options.model = KERROW_VAD_MODEL;
  std::string error;
  if (!vad.Init(options, &error)) {
    std::fprintf(stderr, "cannot start the VAD: %s\n", error.c_str());
    return false;
  }
  for (size_t fed = 0; fed < capture.size();) {
    const size_t end = std::min(capture.size(), fed + kVadWindowSamples);
    vad.AcceptWaveform(std::vector<float>(capture.begin() + static_cast<std::ptrdiff_t>(fed),
                                          capture.begin() + static_cast<std::ptrdiff_t>(end)),
                       &error);
    fed = end;
    kerrow::VadSegment segment;
    while (vad.PopSegment(&segment, &error)) {
      const size_t start = static_cast<size_t>(std::max(segment.start, 0));
      segments->push_back({start, start + segment.samples.size(), fed});
    }
  }
  return true;
}

// Gives each utterance the segment that closes it and the audio kerrow
// decodes for it: the segment behind its lookback, which never reaches back
// into the segment before.
bool MatchSegments(const std::vector<float>& capture, const std::vector<ClosedSegment>& segments,
                   std::vector<Utterance>* utterances) {
  const size_t lookback = static_cast<size_t>(kLookbackSeconds * kRate);
  const size_t slack = static_cast<size_t>(kEndSlackSeconds * kRate);
  for (Utterance& utterance : *utterances) {
    size_t previous_end = 0;
    bool found = false;
    for (const ClosedSegment& segment : segments) {
      if (segment.end + slack < utterance.speech_end) {
        previous_end = segment.end;
        continue;
      }
      const size_t from = std::max(segment.start > lookback ? segment.start - lookback : 0, previous_end);
      utterance.vad_close = segment.closed_after;
      utterance.decoded_audio.assign(capture.begin() + static_cast<std::ptrdiff_t>(from),
                                     capture.begin() + static_cast<std::ptrdiff_t>(segment.end));
      found = true;
      break;
    }
    if (!found) {
      std::fprintf(stderr, "the VAD closes no segment at an utterance's end\n");
      return false;
    }
  }
  return true;
}

bool MeasureBareDecodes(const std::string& model, const std::string& tokens, int rounds,
                        std::vector<Utterance>* utterances, std::vector<double>* decode_ms) {
  kerrow::OfflineDecoderBackend decoder;
  kerrow::DecoderInitOptions options;
  options.sense_voice_model = model;
  options.tokens = tokens;
  options.num_threads = 1;
  std::string error;
  if (!decoder.Init(options, &error)) {
    std::fprintf(stderr, "cannot start the decoder: %s\n", error.c_str());
    return false;
  }
  for (int round = 0; round < rounds; ++round) {
    for (Utterance& utterance : *utterances) {
      std::string text;
      const Clock::time_point begin = Clock::now();
      decoder.Decode(utterance.decoded_audio, &text, nullptr);
      decode_ms->push_back(Ms(Clock::now() - begin));
      if (round == 0 || decode_ms->back() < utterance.best_decode_ms) {
        utterance.best_decode_ms = decode_ms->back();
      }
    }
  }
  return true;
}

std::vector<std::string> LaunchArgs(const std::string& models, const std::string& sense_voice,
                                    const std::string& tokens, const std::string& mode) {
  std::vector<std::string> args = {"--manual-mode", "--manual-realtime", "--start-paused",
                                   "--silero-vad-model", KERROW_VAD_MODEL, "--second-model",
                                   sense_voice, "--second-tokens", tokens,
                                   "--num-threads-second", "1"};
  if (mode == "single") {
    args.push_back("--single-model-streaming");
    return args;
  }
  const std::string first = models + (mode == "trained" ? "/trained/streaming-lstm-en-char/"
                                                        : "/stubs/streaming-transducer/");
  for (const std::string& arg :
       {std::string("--first-encoder"), first + "encoder.onnx", std::string("--first-decoder"),
        first + "decoder.onnx", std::string("--first-joiner"), first + "joiner.onnx",
        std::string("--first-tokens"), first + "tokens.txt", std::string("--num-threads-first"),
        std::string("1"), std::string("--ct-transformer"),
        models + "/trained/punct-en/model.onnx"}) {
    args.push_back(arg);
  }
  return args;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 2;
  const std::string mode = argc > 2 ? argv[2] : "realtime";
  const bool single_model = mode == "single";
  kerrow::host::IgnoreSigpipe();

  const std::string models = KERROW_MODELS_DIR;
  const std::string sense_voice = models + "/trained/sensevoice-en-char/model.onnx";
  const std::string tokens = models + "/trained/sensevoice-en-char/tokens.txt";
  std::vector<Utterance> utterances;
  const std::vector<float> capture = BuildCapture(
      {kerrow::bench::LoadRecording("espeak/en_short.wav"),
       kerrow::bench::LoadRecording("espeak-dialog/a_test.wav"),
       kerrow::bench::LoadRecording("espeak-dialog/b_test.wav")},
      &utterances);
  std::vector<ClosedSegment> segments;
  if (!FindVadSegments(capture, &segments) || !MatchSegments(capture, segments, &utterances)) return 1;

  kerrow::host::LaunchConfig launch;
  launch.binary = KERROW_BINARY;
  launch.audio_fd = 3;
  launch.args = LaunchArgs(models, sense_voice, tokens, mode);

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
  std::vector<double> closing_audio_ms;  // last speech sample -> VAD's closing block at kerrow
  std::vector<size_t> result_utterance;  // which utterance each latency belongs to
  for (int round = 1; round <= rounds; ++round) {
    const size_t from = timed.Snapshot().size();
    child.WriteStdin("start\n");
    const std::string reset = (single_model ? "vad-reset-applied seq=" : "online-reset-applied seq=") +
                              std::to_string(round) + " ";
    child.WaitForLine([&](const std::string& l) { return l.find(reset) != std::string::npos; },
                      wait, from);
    // Sample i of the capture is "recorded" at capture_begin + i / rate.
    std::vector<Clock::time_point> sent_at;
    const Clock::time_point capture_begin = Clock::now();
    kerrow::host::PlayS16(&child, capture, kRate, 1.0, kBlockSamples, &sent_at);
    child.WriteStdin("stop\n");
    child.WaitForLine([](const std::string& l) { return l.find("Capture stopped") != std::string::npos; },
                      wait, from);

    const std::vector<TimedLines::Entry> lines = timed.Snapshot();
    for (size_t i = from; i < lines.size(); ++i) {
      if (lines[i].line.rfind("{\"type\":\"first-pass\"", 0) == 0) {
        first_partial_ms.push_back(Ms(lines[i].at - capture_begin));
        break;
      }
    }
    for (size_t k = 0; k < utterances.size(); ++k) {
      const Utterance& utterance = utterances[k];
      const Clock::time_point speech_end_at = capture_begin + SamplesAsDuration(utterance.speech_end);
      const double speech_end_s = static_cast<double>(utterance.speech_end) / kRate;
      const size_t closing_block = (utterance.vad_close - 1) / kBlockSamples;
      if (closing_block >= sent_at.size()) continue;
      for (size_t i = from; i < lines.size(); ++i) {
        if (lines[i].line.rfind("{\"type\":\"result\"", 0) != 0) continue;
        if (NumberAfter(lines[i].line, "\"end_time\":") < speech_end_s - kEndSlackSeconds) continue;
        result_ms.push_back(Ms(lines[i].at - speech_end_at));
        closing_audio_ms.push_back(Ms(sent_at[closing_block] - speech_end_at));
        result_utterance.push_back(k);
        break;
      }
    }
  }
  child.WriteStdin("quit\n");
  child.Wait(std::chrono::seconds(60));

  std::vector<double> decode_ms;
  if (!MeasureBareDecodes(sense_voice, tokens, std::max(rounds, 3), &utterances, &decode_ms)) return 1;

  std::vector<double> vad_delay_ms;
  for (const Utterance& utterance : utterances) {
    vad_delay_ms.push_back(1000.0 * static_cast<double>(utterance.vad_close - utterance.speech_end) / kRate);
  }
  // Per result: the floor it cannot beat, and what kerrow added on top.
  std::vector<double> floor_ms;
  std::vector<double> share_ms;
  for (size_t i = 0; i < result_ms.size(); ++i) {
    floor_ms.push_back(closing_audio_ms[i] + utterances[result_utterance[i]].best_decode_ms);
    share_ms.push_back(result_ms[i] - floor_ms.back());
  }

  std::printf("live_latency_bench: %s, %d captures of %zu utterances at real-time pace, "
              "%.1f s pauses, %zu-sample blocks\n",
              single_model           ? "single-model streaming"
              : mode == "trained"    ? "manual realtime (trained lstm first pass)"
                                     : "manual realtime (stub first pass)",
              rounds,
              utterances.size(), kPauseSeconds, kBlockSamples);
  PrintFigure("first audio -> first partial", first_partial_ms);
  PrintFigure("last speech sample -> result", result_ms);
  PrintFigure("VAD's closing audio after the last speech", vad_delay_ms);
  PrintFigure("last speech -> closing block at kerrow", closing_audio_ms);
  PrintFigure("bare decode of segment + lookback", decode_ms);
  PrintFigure("floor (closing block + best decode)", floor_ms);
  PrintFigure("kerrow's own share", share_ms);
  std::printf("the floor waits for the block that holds the sample at which the VAD closes the\n"
              "utterance, then adds the bare decode of the audio decoded for it; kerrow's share\n"
              "is each result's latency minus its floor\n");
  return result_ms.size() == static_cast<size_t>(rounds) * utterances.size() ? 0 : 1;
}
