#include "live/pcm_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>

#include "live_harness.h"
#include "live_models.h"
#include "common/utf8_punc.h"

namespace kerrow::testing {
namespace {

using std::chrono::milliseconds;

const char kShortReference[] = "hello world this is a test of the second pass recognizer";

Options ManualRealtimeOptions() {
  Options options;
  options.manual_mode = true;
  options.manual_realtime = true;
  options.start_paused = true;
  return options;
}

std::vector<float> ShortSpeech() { return LoadWavForTest(AudioPath("espeak/en_short.wav")); }

// The models of the manual-realtime road: streaming first pass, VAD, trained
// second pass and punctuation.
struct RealtimeModels {
  explicit RealtimeModels(StreamingModel streaming = StreamingModel::kTransducerStub)
      : online(LoadStreaming(streaming)),
        decoder(LoadTrainedDecoder()),
        punc(LoadPunctuation("trained/punct-en/model.onnx")),
        vad(LoadVad()) {}
  LiveBackends backends() const { return {online.get(), decoder.get(), punc.get(), vad.get()}; }

  std::unique_ptr<OnlineBackend> online;
  std::unique_ptr<OfflineDecoderBackend> decoder;
  std::unique_ptr<PuncBackend> punc;
  std::unique_ptr<VadBackend> vad;
};

// Writes the audio, padded with silence to whole 0.1 s chunks (a partial chunk
// waits in the reader for more bytes), and waits until the PCM thread has read
// all of it.
void FeedAll(LiveHarness* harness, std::vector<float> samples) {
  samples.resize((samples.size() + 1599) / 1600 * 1600, 0.0f);
  const uint64_t target = harness->state().total_samples.load() + samples.size();
  ASSERT_TRUE(harness->WriteAudio(samples));
  ASSERT_TRUE(LiveHarness::WaitUntil(
      [&] { return harness->state().total_samples.load() >= target; }));
}

// "stop", then one more chunk: the PCM thread handles the stop request at the
// top of the pass that reads it, so once that chunk is counted the stop-time
// work is done.
void StopAndSettle(LiveHarness* harness) {
  harness->Command("stop");
  ASSERT_TRUE(LiveHarness::WaitUntil([&] { return !harness->state().capturing.load(); }));
  ASSERT_TRUE(LiveHarness::WaitUntil([&] {
    return !harness->state().pending_stop_flush.load();
  }));
  FeedAll(harness, SilenceSeconds(0.1));
}

void QuitAndJoin(LiveHarness* harness) {
  harness->Command("quit");
  ASSERT_TRUE(harness->WaitForEnd());
  harness->StopCapture();
}

// Consecutive partials never repeat a text. The closing first-pass event of a
// VAD segment repeats the last partial by design and is skipped.
void ExpectNoRepeatedPartial(const std::vector<std::string>& lines) {
  std::string previous;
  bool closing = false;
  for (const auto& line : lines) {
    if (line.find("[VAD] seg source=") != std::string::npos) closing = true;
    if (!IsFirstPass(line)) continue;
    if (closing) {
      closing = false;
      continue;
    }
    const std::string text = JsonTextField(line);
    EXPECT_NE(text, previous) << line;
    previous = text;
  }
}

TEST(PcmLoop, ManualRealtimeClosesEachVadSegmentAndDecodesItInTheSecondPass) {
  RealtimeModels models;
  LiveHarness harness(ManualRealtimeOptions(), models.backends());
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  const std::vector<float> speech = ShortSpeech();
  FeedAll(&harness, Join(Join(Join(speech, SilenceSeconds(1.0)), speech), SilenceSeconds(1.0)));
  StopAndSettle(&harness);
  QuitAndJoin(&harness);
  const std::vector<std::string> lines = harness.Lines();

  for (int id = 1; id <= 2; ++id) {
    SCOPED_TRACE(id);
    const int segment = harness.WaitForLineContaining(
        "[VAD] seg source=stream id=" + std::to_string(id) + " ", milliseconds(0));
    ASSERT_GE(segment, 0);
    // The partial that the segment closes: the last first-pass line before it.
    std::string last_partial;
    for (int i = segment - 1; i >= 0; --i) {
      if (IsFirstPass(lines[i])) {
        last_partial = JsonTextField(lines[i]);
        EXPECT_EQ(JsonIntField(lines[i], "segment_id"), id);
        break;
      }
    }
    ASSERT_FALSE(last_partial.empty());
    ASSERT_LT(segment + 3, static_cast<int>(lines.size()));
    EXPECT_TRUE(IsPunctuated(lines[segment + 1])) << lines[segment + 1];
    EXPECT_EQ(JsonIntField(lines[segment + 1], "segment_id"), id);
    // The closing event carries the finished stream's text: the last partial
    // and whatever the stream held back.
    EXPECT_EQ(lines[segment + 2].rfind("{\"type\":\"first-pass\",\"segment_id\":" +
                                           std::to_string(id) + ",\"text\":\"" + last_partial,
                                       0),
              0u)
        << lines[segment + 2];
    EXPECT_NE(lines[segment + 2].find("\",\"mode\":\"online_partial\",\"is_final\":false}"),
              std::string::npos);
    const std::string& result = lines[segment + 3];
    ASSERT_TRUE(IsResult(result)) << result;
    EXPECT_EQ(JsonIntField(result, "segment_id"), id);
    EXPECT_EQ(JsonIntField(result, "segment_start_id"), id);
    EXPECT_EQ(JsonIntField(result, "segment_count"), 1);
    EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(result))), 0.3)
        << result;
  }
  EXPECT_EQ(CountContaining(lines, "\"type\":\"result\""), 2);
  ExpectNoRepeatedPartial(lines);
}

TEST(PcmLoop, StopFlushesTheOpenSegmentAndForcesTheLastBatch) {
  Options options = ManualRealtimeOptions();
  options.second_pass_every = 5;
  RealtimeModels models;
  LiveHarness harness(options, models.backends());
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  const std::vector<float> speech = ShortSpeech();
  // The second utterance is still open when "stop" arrives.
  FeedAll(&harness, Join(Join(speech, SilenceSeconds(1.0)), speech));
  StopAndSettle(&harness);
  QuitAndJoin(&harness);
  const std::vector<std::string> lines = harness.Lines();

  const int first = harness.WaitForLineContaining("[VAD] seg source=stream id=1 ", milliseconds(0));
  const int flushed = harness.WaitForLineContaining("[VAD] seg source=flush id=2 ", milliseconds(0));
  ASSERT_GE(first, 0);
  ASSERT_GT(flushed, first);
  // Neither segment is decoded before the stop: the batch waits for five.
  int result = -1;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (IsResult(lines[i])) {
      EXPECT_EQ(result, -1) << "a second result: " << lines[i];
      result = static_cast<int>(i);
    }
  }
  ASSERT_GT(result, flushed);
  EXPECT_EQ(lines[result].rfind("{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":"
                                "\"offline_final\",\"segment_id\":2,\"segment_start_id\":1,"
                                "\"segment_count\":2,\"segments\":[{",
                                0),
            0u)
      << lines[result];
  // The stop-time batch is final: its text ends in a sentence mark.
  const std::string text = JsonTextField(lines[result]);
  EXPECT_TRUE(EndsWith(text, "。") || EndsWith(text, "？")) << text;
  EXPECT_LT(CharacterErrorRate(std::string(kShortReference) + " " + kShortReference,
                               PlainWords(text)),
            0.3)
      << text;
  // The first pass was finished and reset: its next partial would be id 3.
  EXPECT_EQ(harness.state().next_segment_id.load(), 3u);
}

TEST(PcmLoop, TrainedStreamingPartialsGrowWithTheSpeechAndResembleIt) {
  RealtimeModels models(StreamingModel::kTrainedLstm);
  LiveHarness harness(ManualRealtimeOptions(), models.backends());
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  FeedAll(&harness, Join(ShortSpeech(), SilenceSeconds(1.0)));
  StopAndSettle(&harness);
  QuitAndJoin(&harness);
  const std::vector<std::string> lines = harness.Lines();
  const int segment = harness.WaitForLineContaining("[VAD] seg source=stream id=1 ", milliseconds(0));
  ASSERT_GE(segment, 0);
  std::vector<std::string> partials;
  for (int i = 0; i < segment; ++i) {
    if (IsFirstPass(lines[i])) partials.push_back(JsonTextField(lines[i]));
  }
  ASSERT_GE(partials.size(), 3u);
  for (size_t i = 1; i < partials.size(); ++i) {
    EXPECT_GE(partials[i].size(), partials[i - 1].size()) << partials[i - 1] << " -> " << partials[i];
  }
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(partials.back())), 0.3)
      << partials.back();
  // The closing event and the second pass carry the same utterance.
  ASSERT_LT(segment + 3, static_cast<int>(lines.size()));
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(lines[segment + 2]))), 0.3)
      << lines[segment + 2];
  ASSERT_TRUE(IsResult(lines[segment + 3])) << lines[segment + 3];
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(lines[segment + 3]))), 0.3)
      << lines[segment + 3];
  ExpectNoRepeatedPartial(lines);
}

TEST(PcmLoop, ParaformerHeldBackTailClosesTheFlushedSegment) {
  Options options = ManualRealtimeOptions();
  options.second_pass_every = 0;
  RealtimeModels models(StreamingModel::kParaformerStub);
  LiveHarness harness(options, models.backends());
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  FeedAll(&harness, ShortSpeech());
  const size_t before_stop = harness.Lines().size();
  StopAndSettle(&harness);
  QuitAndJoin(&harness);
  const std::vector<std::string> lines = harness.Lines();
  std::string last_partial_before_stop;
  for (size_t i = 0; i < before_stop; ++i) {
    if (IsFirstPass(lines[i])) last_partial_before_stop = JsonTextField(lines[i]);
  }
  // The stream is finished when the segment closes, so the closing event
  // carries the text the stream held back; the stream then starts over and
  // has nothing left to say at stop.
  const int closing = harness.WaitForLineContaining("[VAD] seg source=flush id=1 ", milliseconds(0));
  ASSERT_GE(closing, 0);
  int closing_event = -1;
  for (size_t i = closing + 1; i < lines.size(); ++i) {
    if (IsFirstPass(lines[i])) {
      EXPECT_EQ(JsonIntField(lines[i], "segment_id"), 1) << lines[i];
      if (closing_event < 0) closing_event = static_cast<int>(i);
    }
  }
  ASSERT_GE(closing_event, 0);
  EXPECT_NE(JsonTextField(lines[closing_event]), last_partial_before_stop);
  EXPECT_FALSE(JsonTextField(lines[closing_event]).empty());
  EXPECT_NE(lines[closing_event].find("\"is_final\":false"), std::string::npos);
  ExpectNoRepeatedPartial(lines);
}

TEST(PcmLoop, PartialThatDoesNotChangeBetweenChunksIsEmittedOnce) {
  // The paraformer stub's text changes once per 60 feature frames (0.6 s),
  // while chunks are 0.1 s: most chunks leave the partial unchanged.
  Options options = ManualRealtimeOptions();
  options.second_pass_every = 0;
  RealtimeModels models(StreamingModel::kParaformerStub);
  LiveHarness harness(options, models.backends());
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  const std::vector<float> speech = ShortSpeech();
  FeedAll(&harness, speech);
  QuitAndJoin(&harness);
  const std::vector<std::string> lines = harness.Lines();
  const int partials = CountContaining(lines, "\"mode\":\"online_partial\"");
  EXPECT_GT(partials, 1);
  EXPECT_LT(static_cast<size_t>(partials), speech.size() / 1600 / 2);
  ExpectNoRepeatedPartial(lines);
}

TEST(PcmLoop, StartDuringACaptureAppliesEveryResetBetweenTwoChunks) {
  RealtimeModels models;
  LiveHarness harness(ManualRealtimeOptions(), models.backends());
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  const std::vector<float> speech = ShortSpeech();
  FeedAll(&harness, std::vector<float>(speech.begin(), speech.begin() + 24000));
  const size_t before_restart = harness.Lines().size();
  ASSERT_TRUE(harness.StartCaptureAndWait(2));
  FeedAll(&harness, speech);
  QuitAndJoin(&harness);
  const std::vector<std::string> lines = harness.Lines();

  // The PCM thread's four lines, in order, all at the same point of the pass.
  std::vector<std::string> resets;
  for (size_t i = before_restart; i < lines.size(); ++i) {
    if (lines[i].find("[SESSION-DIAG] pcm-pending-cleared") != std::string::npos ||
        lines[i].find("[SESSION-DIAG] session-reset-consumed") != std::string::npos ||
        lines[i].find("[SESSION-DIAG] vad-reset-applied") != std::string::npos ||
        lines[i].find("[SESSION-DIAG] online-reset-applied") != std::string::npos) {
      resets.push_back(lines[i]);
    }
  }
  ASSERT_EQ(resets.size(), 4u);
  const std::string at = resets[1].find("at=pre-capture") != std::string::npos ? "pre-capture"
                                                                                : "loop-top";
  EXPECT_EQ(resets[0], LogLine("[SESSION-DIAG] pcm-pending-cleared at=" + at + " dropped_bytes=0"));
  EXPECT_EQ(resets[1], LogLine("[SESSION-DIAG] session-reset-consumed seq=2 at=" + at +
                           " pending_online_reset=1 pending_vad_reset=1"));
  EXPECT_EQ(resets[2], LogLine("[SESSION-DIAG] vad-reset-applied seq=2 at=" + at));
  EXPECT_EQ(resets[3], LogLine("[SESSION-DIAG] online-reset-applied seq=2 at=" + at));
  // The new capture's first partial starts over, under id 1 again.
  const int first_partial = harness.WaitForLineContaining("first-partial seq=2", milliseconds(0));
  ASSERT_GE(first_partial, 0);
  EXPECT_NE(lines[first_partial].find(" seg_id=1 "), std::string::npos) << lines[first_partial];
  EXPECT_NE(lines[first_partial].find("text=\\\"hello"), std::string::npos) << lines[first_partial];
}

TEST(PcmLoop, SecondPassEveryZeroEmitsFirstPassResultsOnlyAndSaysSoOnce) {
  Options options = ManualRealtimeOptions();
  options.second_pass_every = 0;
  RealtimeModels models;
  LiveHarness harness(options, models.backends());
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  const std::vector<float> speech = ShortSpeech();
  FeedAll(&harness, Join(Join(Join(speech, SilenceSeconds(1.0)), speech), SilenceSeconds(1.0)));
  QuitAndJoin(&harness);
  const std::vector<std::string> lines = harness.Lines();
  EXPECT_EQ(CountContaining(lines, "[VAD] seg source=stream"), 2);
  EXPECT_EQ(CountContaining(lines, "\"type\":\"result\""), 0);
  EXPECT_EQ(CountContaining(lines, "\"type\":\"punctuated\""), 2);
  EXPECT_EQ(CountContaining(lines, "realtime 2pass disabled by config"), 1);
  EXPECT_GE(IndexOfLine(lines, LogLine("[M3] realtime 2pass disabled by config (second_pass_every=0)")),
            0);
}

TEST(PcmLoop, AudioBeforeTheFirstStartInManualModeIsCountedButNeverStored) {
  RealtimeModels models;
  LiveHarness harness(ManualRealtimeOptions(), models.backends());
  harness.Start();
  FeedAll(&harness, ShortSpeech());
  FeedAll(&harness, SilenceSeconds(1.0));
  EXPECT_EQ(harness.state().captured_samples.load(), 0u);
  {
    std::lock_guard<std::mutex> lock(harness.audio().mutex);
    EXPECT_TRUE(harness.audio().capture_samples.empty());
    EXPECT_TRUE(harness.audio().samples.empty());
  }
  QuitAndJoin(&harness);
  const std::vector<std::string> lines = harness.Lines();
  EXPECT_EQ(lines, (std::vector<std::string>{LogLine("PCM keepalive: received 5.000000s audio"),
                                             LogLine("Quit requested")}));
  // 4.32 s of speech padded to whole chunks (4.4 s), then 1 s of silence.
  EXPECT_EQ(harness.state().total_samples.load(), 86400u);
}

TEST(PcmLoop, ChunkDurationOfTenMillisecondsReadsChunksOf320Samples) {
  Options options;
  options.manual_mode = true;
  options.chunk_duration = 0.01;
  LiveHarness harness(options, {});
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  FeedAll(&harness, SilenceSeconds(0.1));
  QuitAndJoin(&harness);
  EXPECT_GE(IndexOfLine(harness.Lines(),
                        LogLine("[SESSION-DIAG] first-chunk seq=1 reset_applied_seq=1 chunk_samples=320 "
                            "pending_session_reset=0 pending_online_reset=0 pending_vad_reset=1")),
            0);
}

TEST(PcmLoop, PipeReadFailureEndsTheRunWithAnErrorEvent) {
  // Reading a directory fails with EISDIR: a read error that is not an end of stream.
  const int directory = open("/", O_RDONLY | O_DIRECTORY);
  ASSERT_GE(directory, 0);
  LiveHarness harness(Options{}, {});
  harness.UseAudioDescriptor(directory);
  harness.Start();
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  close(directory);
  EXPECT_EQ(harness.Lines(),
            (std::vector<std::string>{"{\"message\":\"PCM pipe read failed\",\"type\":\"error\"}"}));
  EXPECT_TRUE(harness.state().quit.load());
  EXPECT_FALSE(harness.state().pcm_closed.load());
}

TEST(PcmLoop, PipeClosingEndsTheRunAndDeliversTheLastShortChunk) {
  LiveHarness harness(Options{}, {});
  harness.Start();
  ASSERT_TRUE(harness.WriteAudio(SilenceSeconds(0.25)));
  harness.CloseAudio();
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  EXPECT_EQ(harness.Lines(), (std::vector<std::string>{LogLine("PCM pipe closed")}));
  EXPECT_TRUE(harness.state().pcm_closed.load());
  EXPECT_EQ(harness.state().total_samples.load(), 4000u);
  EXPECT_EQ(harness.state().captured_samples.load(), 4000u);
  // Outside manual mode nothing decodes the capture at "stop", so none of it is kept.
  std::lock_guard<std::mutex> lock(harness.audio().mutex);
  EXPECT_TRUE(harness.audio().capture_samples.empty());
  EXPECT_TRUE(harness.audio().samples.empty());
}

TEST(PcmLoop, ManualRealtimeWithoutAVadBuffersAndDecodesTheCaptureAtStop) {
  auto decoder = LoadTrainedDecoder();
  LiveHarness harness(ManualRealtimeOptions(), {nullptr, decoder.get(), nullptr, nullptr});
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  FeedAll(&harness, ShortSpeech());
  StopAndSettle(&harness);
  QuitAndJoin(&harness);
  const std::vector<std::string> lines = harness.Lines();
  int result = -1;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (IsResult(lines[i])) result = static_cast<int>(i);
  }
  ASSERT_GE(result, 0);
  EXPECT_EQ(lines[result].rfind("{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":"
                                "\"offline_final\",\"segments\":[{\"start_time\":0.00,",
                                0),
            0u)
      << lines[result];
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(lines[result]))), 0.3);
}

TEST(PcmLoop, ManualModeStopDecodesTheCaptureOnTheCommandThread) {
  Options options;
  options.manual_mode = true;
  auto decoder = LoadTrainedDecoder();
  LiveHarness harness(options, {nullptr, decoder.get(), nullptr, nullptr});
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  FeedAll(&harness, ShortSpeech());
  harness.Command("stop");
  const int result = harness.WaitForLine(IsResult);
  QuitAndJoin(&harness);
  ASSERT_GE(result, 0);
  const std::vector<std::string> lines = harness.Lines();
  EXPECT_EQ(lines[result - 1], LogLine("Capture stopped"));
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(lines[result]))), 0.3)
      << lines[result];
}

TEST(PcmLoop, Offline2passStopDecodesTheWholeCaptureAfterThePipeDrains) {
  Options options = ManualRealtimeOptions();
  options.offline_2pass = true;
  options.silero_vad_model = KERROW_VAD_MODEL;
  RealtimeModels models;
  LiveHarness harness(options, models.backends());
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  const std::vector<float> speech = ShortSpeech();
  ASSERT_TRUE(harness.WriteAudio(Join(Join(speech, SilenceSeconds(1.0)), speech)));
  // No waiting for the audio to be read: "stop" itself waits for the pipe to drain.
  harness.Command("stop");
  const int result = harness.WaitForLine([](const std::string& line) {
    return IsResult(line) && line.find("\"offline_2pass\":true") != std::string::npos;
  });
  QuitAndJoin(&harness);
  ASSERT_GE(result, 0);
  const std::vector<std::string> lines = harness.Lines();
  EXPECT_GE(IndexOfLine(lines, LogLine("offline_2pass stop drain finished by quiet window/timeout")), 0);
  EXPECT_EQ(lines[result].rfind("{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":"
                                "\"offline_final\",\"is_final\":true,\"offline_2pass\":true,",
                                0),
            0u)
      << lines[result];
  EXPECT_LT(CharacterErrorRate(std::string(kShortReference) + " " + kShortReference,
                               PlainWords(JsonStringField(lines[result], "merged_text"))),
            0.3)
      << lines[result];
}

}  // namespace
}  // namespace kerrow::testing
