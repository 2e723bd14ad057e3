#include "live/single_model_streaming.h"

#include <gtest/gtest.h>

#include "live_harness.h"
#include "live_models.h"
#include "common/utf8_punc.h"

namespace kerrow::testing {
namespace {

using std::chrono::milliseconds;

const char kLongReference[] =
    "the quick brown fox jumps over the lazy dog speech recognition converts spoken words into "
    "text today is monday and the meeting starts at ten o'clock in the morning";
const char kShortReference[] = "hello world this is a test of the second pass recognizer";

Options SingleModelOptions() {
  Options options;
  options.manual_mode = true;
  options.manual_realtime = true;
  options.single_model_streaming = true;
  options.start_paused = true;
  return options;
}

struct SingleModelRun {
  std::vector<std::string> lines;
  std::vector<std::string> results;
  std::vector<std::string> partials;
};

// One capture: start, the audio (padded to whole chunks), optionally stop,
// quit. `between` runs after `first` has been read and before `second` is sent.
SingleModelRun RunCapture(const Options& options, OfflineDecoderBackend* decoder,
                          const std::vector<float>& first, bool stop,
                          const std::function<void(LiveHarness*)>& between = nullptr,
                          const std::vector<float>& second = {}) {
  auto vad = LoadVad();
  LiveHarness harness(options, {nullptr, decoder, nullptr, vad.get()});
  harness.Start();
  EXPECT_TRUE(harness.StartCaptureAndWait(1));
  auto feed = [&](std::vector<float> samples) {
    samples.resize((samples.size() + 1599) / 1600 * 1600, 0.0f);
    const uint64_t target = harness.state().total_samples.load() + samples.size();
    EXPECT_TRUE(harness.WriteAudio(samples));
    EXPECT_TRUE(LiveHarness::WaitUntil([&] { return harness.state().total_samples.load() >= target; }));
  };
  feed(first);
  if (between) between(&harness);
  if (!second.empty()) feed(second);
  if (stop) {
    harness.Command("stop");
    EXPECT_TRUE(LiveHarness::WaitUntil([&] { return !harness.state().capturing.load(); }));
    EXPECT_TRUE(LiveHarness::WaitUntil([&] { return !harness.state().pending_stop_flush.load(); }));
    feed(SilenceSeconds(0.1));
  }
  harness.Command("quit");
  EXPECT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  SingleModelRun run;
  run.lines = harness.Lines();
  for (const auto& line : run.lines) {
    if (IsResult(line)) run.results.push_back(line);
    if (IsFirstPass(line)) run.partials.push_back(line);
  }
  return run;
}

std::string JoinedResultText(const SingleModelRun& run) {
  std::string text;
  for (const auto& line : run.results) text += JsonTextField(line) + " ";
  return PlainWords(text);
}

// Result ids run 1, 2, 3, ... each naming itself as a one-segment range.
void ExpectConsecutiveIds(const SingleModelRun& run) {
  long expected = 1;
  for (const auto& line : run.results) {
    EXPECT_EQ(JsonIntField(line, "segment_id"), expected) << line;
    EXPECT_EQ(JsonIntField(line, "segment_start_id"), expected) << line;
    EXPECT_EQ(JsonIntField(line, "segment_count"), 1) << line;
    ++expected;
  }
}

std::vector<float> LongSpeech() { return LoadWavForTest(AudioPath("espeak/en10s.wav")); }
std::vector<float> ShortSpeech() { return LoadWavForTest(AudioPath("espeak/en_short.wav")); }

double StartTime(const std::string& line) { return JsonNumberField(line, "start_time"); }
double EndTime(const std::string& line) { return JsonNumberField(line, "end_time"); }

// Consecutive partials never repeat a text.
void ExpectNoRepeatedPartial(const SingleModelRun& run) {
  for (size_t i = 1; i < run.partials.size(); ++i) {
    EXPECT_NE(JsonTextField(run.partials[i]), JsonTextField(run.partials[i - 1]))
        << run.partials[i];
  }
}

TEST(SingleModelStreaming, RollingCommitsStableChunksLongerThanTheTrimCapWhileSpeechGoesOn) {
  auto decoder = LoadTrainedDecoder();
  const SingleModelRun run = RunCapture(SingleModelOptions(), decoder.get(),
                                        Join(LongSpeech(), SilenceSeconds(1.5)), false);
  ASSERT_GE(run.results.size(), 3u);
  ExpectConsecutiveIds(run);
  // The first commit comes while the speech (11.6 s) still runs, and is a
  // stretch of more than the 3 s trim cap.
  EXPECT_LT(EndTime(run.results[0]), 10.0) << run.results[0];
  EXPECT_GT(EndTime(run.results[0]) - StartTime(run.results[0]), 3.0) << run.results[0];
  for (size_t i = 1; i < run.results.size(); ++i) {
    // Committed audio is never decoded again.
    EXPECT_GE(StartTime(run.results[i]), EndTime(run.results[i - 1])) << run.results[i];
  }
  EXPECT_LT(CharacterErrorRate(kLongReference, JoinedResultText(run)), 0.3)
      << JoinedResultText(run);
  ExpectNoRepeatedPartial(run);
  // Partials carry the id that the next commit will take.
  for (const auto& partial : run.partials) EXPECT_LE(JsonIntField(partial, "segment_id"),
                                                     static_cast<long>(run.results.size()));
}

TEST(SingleModelStreaming, TrimCapZeroCommitsOnlyAtTheWindowCapAndTheEndOfSpeech) {
  Options options = SingleModelOptions();
  options.single_trim_cap = 0.0;
  auto decoder = LoadTrainedDecoder();
  const SingleModelRun run =
      RunCapture(options, decoder.get(), Join(LongSpeech(), SilenceSeconds(1.5)), false);
  ASSERT_EQ(run.results.size(), 2u);
  ExpectConsecutiveIds(run);
  // The 7 s window cap, with nothing committed yet, commits the whole window.
  // The cap is checked at partial decodes, one 0.5 s step apart.
  EXPECT_GE(EndTime(run.results[0]), 7.0) << run.results[0];
  EXPECT_LE(EndTime(run.results[0]), 7.5) << run.results[0];
  // The end of speech commits the rest.
  EXPECT_GT(EndTime(run.results[1]), 11.0) << run.results[1];
  EXPECT_LT(CharacterErrorRate(kLongReference, JoinedResultText(run)), 0.3)
      << JoinedResultText(run);
}

TEST(SingleModelStreaming, SmallMaxWindowCapsTheDecodeWindow) {
  // Without rolling commits the window is max(0 + 1.2 s + 1 sample, 2 s) = 2 s.
  Options options = SingleModelOptions();
  options.single_trim_cap = 0.0;
  options.single_max_window = 2.0;
  auto decoder = LoadTrainedDecoder();
  const SingleModelRun run =
      RunCapture(options, decoder.get(), Join(LongSpeech(), SilenceSeconds(1.5)), false);
  ASSERT_GE(run.results.size(), 5u);
  ExpectConsecutiveIds(run);
  for (size_t i = 0; i + 1 < run.results.size(); ++i) {
    EXPECT_LE(EndTime(run.results[i]) - StartTime(run.results[i]), 2.6) << run.results[i];
  }
}

TEST(SingleModelStreaming, SilenceAfterSpeechCommitsTheWholeWindowOnce) {
  Options options = SingleModelOptions();
  options.single_trim_cap = 0.0;
  auto decoder = LoadTrainedDecoder();
  const SingleModelRun run =
      RunCapture(options, decoder.get(), Join(ShortSpeech(), SilenceSeconds(1.5)), false);
  ASSERT_EQ(run.results.size(), 1u);
  EXPECT_EQ(run.results[0].rfind("{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":"
                                 "\"offline_final\",\"segment_id\":1,\"segment_start_id\":1,"
                                 "\"segment_count\":1,\"segments\":[{\"start_time\":",
                                 0),
            0u)
      << run.results[0];
  // It ends where the VAD last heard speech, not at the end of the silence.
  EXPECT_LT(EndTime(run.results[0]), 5.0) << run.results[0];
  EXPECT_LT(CharacterErrorRate(kShortReference, JoinedResultText(run)), 0.3)
      << JoinedResultText(run);
  // Nothing is published for the silence after the commit.
  EXPECT_TRUE(IsResult(run.lines[run.lines.size() - 2]) ||
              run.lines[run.lines.size() - 2].find("keepalive") != std::string::npos)
      << run.lines[run.lines.size() - 2];
  ExpectNoRepeatedPartial(run);
}

TEST(SingleModelStreaming, StopCommitsTheUtteranceInProgress) {
  Options options = SingleModelOptions();
  options.single_trim_cap = 0.0;
  auto decoder = LoadTrainedDecoder();
  const SingleModelRun run = RunCapture(options, decoder.get(), ShortSpeech(), /*stop=*/true);
  ASSERT_EQ(run.results.size(), 1u);
  const int stopped = IndexOfLine(run.lines, LogLine("Capture stopped"));
  ASSERT_GE(stopped, 0);
  EXPECT_GT(IndexOfLine(run.lines, run.results[0]), stopped);
  // Committed up to the end of the capture: 4.32 s padded to 4.4 s.
  EXPECT_NE(run.results[0].find("\"end_time\":4.40,"), std::string::npos) << run.results[0];
  EXPECT_LT(CharacterErrorRate(kShortReference, JoinedResultText(run)), 0.3)
      << JoinedResultText(run);
}

TEST(SingleModelStreaming, CommittedResultsCarryRawRecognizerTextWithoutPunctuation) {
  auto decoder = LoadTrainedDecoder();
  auto punc = LoadPunctuation("trained/punct-en/model.onnx");
  auto vad = LoadVad();
  LiveHarness harness(SingleModelOptions(), {nullptr, decoder.get(), punc.get(), vad.get()});
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  std::vector<float> audio = Join(LongSpeech(), SilenceSeconds(1.5));
  audio.resize((audio.size() + 1599) / 1600 * 1600, 0.0f);
  ASSERT_TRUE(harness.WriteAudio(audio));
  ASSERT_TRUE(LiveHarness::WaitUntil([&] { return harness.state().total_samples.load() >= audio.size(); }));
  harness.Command("quit");
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  int results = 0;
  for (const auto& line : harness.Lines()) {
    if (!IsResult(line) && !IsFirstPass(line)) continue;
    results += IsResult(line) ? 1 : 0;
    const std::string text = JsonTextField(line);
    EXPECT_EQ(StripPuncForPuncModel(text), text) << line;
  }
  EXPECT_GE(results, 2);
  EXPECT_EQ(CountContaining(harness.Lines(), "\"type\":\"punctuated\""), 0);
}

TEST(SingleModelStreaming, SetPartialIntervalTakesEffectOnTheNextChunk) {
  // The pattern stub writes one letter per 120 ms of window whatever it hears,
  // so a partial's length tells how much audio its decode saw.
  Options options = SingleModelOptions();
  options.single_trim_cap = 0.0;
  options.single_max_window = 30.0;
  auto decoder = LoadPatternDecoder();
  const std::vector<float> speech = LongSpeech();
  const std::vector<float> first(speech.begin(), speech.begin() + 48000);
  const std::vector<float> second(speech.begin() + 48000, speech.begin() + 176000);
  size_t lines_before_set = 0;
  const SingleModelRun run = RunCapture(
      options, decoder.get(), first, false,
      [&](LiveHarness* harness) {
        harness->Command("set single-partial-interval 2");
        EXPECT_GE(harness->WaitForLineContaining("single-partial-interval updated to 2.000s"), 0);
        lines_before_set = harness->Lines().size();
      },
      second);
  std::vector<size_t> before;
  std::vector<size_t> after;
  for (size_t i = 0; i < run.lines.size(); ++i) {
    if (!IsFirstPass(run.lines[i])) continue;
    (i < lines_before_set ? before : after).push_back(JsonTextField(run.lines[i]).size());
  }
  ASSERT_GE(before.size(), 3u);
  ASSERT_GE(after.size(), 3u);
  // Half-second steps before: about four letters between partials.
  for (size_t i = 1; i < before.size(); ++i) EXPECT_LE(before[i] - before[i - 1], 6u);
  // Two-second steps from the first chunk after the command: about sixteen.
  for (size_t i = 1; i < after.size(); ++i) EXPECT_GE(after[i] - after[i - 1], 14u);
  EXPECT_EQ(CountContaining(run.lines, "(inactive"), 0);
}

}  // namespace
}  // namespace kerrow::testing

namespace kerrow::testing {
namespace {

// Committed audio is never decoded again, so it leaves the capture buffer:
// after three utterances only the stretch since the last commit is held.
TEST(SingleModelStreaming, CommittedAudioLeavesTheCaptureBuffer) {
  auto decoder = LoadTrainedDecoder();
  const std::vector<float> utterance = Join(LongSpeech(), SilenceSeconds(1.5));
  size_t held = 0;
  uint64_t captured = 0;
  const SingleModelRun run = RunCapture(
      SingleModelOptions(), decoder.get(), Join(utterance, utterance), false,
      [&](LiveHarness* harness) {
        std::lock_guard<std::mutex> lock(harness->audio().mutex);
        held = harness->audio().capture_samples.size();
        captured = harness->state().captured_samples.load();
      },
      utterance);
  EXPECT_GE(run.results.size(), 2u);
  EXPECT_GE(captured, 2 * utterance.size());
  // At most the silence after the last commit and a chunk of padding.
  EXPECT_LE(held, static_cast<size_t>(2 * 16000)) << "captured " << captured;
  const std::string reference(kLongReference);
  EXPECT_LT(CharacterErrorRate(reference + " " + reference + " " + reference,
                               JoinedResultText(run)),
            0.35)
      << JoinedResultText(run);
}

}  // namespace
}  // namespace kerrow::testing

namespace kerrow::testing {
namespace {

// A pause is not part of any utterance: while the VAD hears nothing, the
// window keeps only the lead-in the next utterance may need, so a pause longer
// than the window cap neither lands in the next decode nor cuts its first
// words off, and the buffer stays that short however long the pause lasts.
TEST(SingleModelStreaming, ALongPauseIsNeitherKeptNorDecodedWithTheNextUtterance) {
  // Without the rolling commit each utterance gives exactly one result.
  Options options = SingleModelOptions();
  options.single_trim_cap = 0.0;
  auto decoder = LoadTrainedDecoder();
  const std::vector<float> pause = SilenceSeconds(12.0);
  size_t held = 0;
  uint64_t captured = 0;
  const SingleModelRun run = RunCapture(
      options, decoder.get(), Join(ShortSpeech(), pause), false,
      [&](LiveHarness* harness) {
        std::lock_guard<std::mutex> lock(harness->audio().mutex);
        held = harness->audio().capture_samples.size();
        captured = harness->state().captured_samples.load();
      },
      Join(ShortSpeech(), SilenceSeconds(1.5)));
  const PcmLoopSettings settings = ComputePcmLoopSettings(options);
  EXPECT_LE(held, static_cast<size_t>(settings.speech_lead_in) + settings.chunk_samples)
      << "captured " << captured;
  ASSERT_EQ(run.results.size(), 2u) << JoinedResultText(run);
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(run.results[1]))), 0.3)
      << JsonTextField(run.results[1]);
  // The second result starts where the second utterance does, not in the pause.
  const double second_utterance_s = static_cast<double>(ShortSpeech().size() + pause.size()) / 16000;
  EXPECT_GT(StartTime(run.results[1]), second_utterance_s - 0.5) << run.results[1];
}

}  // namespace
}  // namespace kerrow::testing
