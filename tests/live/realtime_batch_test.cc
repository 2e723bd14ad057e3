#include "live/realtime_batch.h"

#include <gtest/gtest.h>

#include "live_harness.h"
#include "live_models.h"
#include "common/utf8_punc.h"

namespace kerrow::testing {
namespace {

std::string Letters(const std::string& text) {
  std::string out;
  for (char c : text) {
    if ((c >= 'a' && c <= 'z') || c == ' ' || c == '\'') out.push_back(c);
  }
  return out;
}

std::string WithoutBlanks(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c != ' ') out.push_back(c);
  }
  return out;
}

PendingRealtimeSegment Slice(const std::vector<float>& audio, int32_t id, size_t start,
                             size_t count) {
  PendingRealtimeSegment segment;
  segment.segment_id = id;
  segment.start_sample = static_cast<int32_t>(start);
  segment.samples.assign(audio.begin() + start, audio.begin() + start + count);
  return segment;
}

class RealtimeBatch : public ::testing::Test {
 protected:
  std::vector<float> speech_ = LoadWavForTest(AudioPath("espeak/en_short.wav"));
  std::unique_ptr<OfflineDecoderBackend> decoder_ = LoadTrainedDecoder();
  EventEmitter emitter_;
};

TEST_F(RealtimeBatch, ShortPairWaitsForASecondOfAudioAndTheNextSegmentDecodesAllThree) {
  Options options;
  options.second_pass_every = 2;
  StdoutCapture capture;
  RealtimeBatchQueue queue(options, decoder_.get(), nullptr, &emitter_);
  queue.Add(Slice(speech_, 1, 0, 6400));     // 0.4 s
  queue.Add(Slice(speech_, 2, 6400, 4800));  // 0.3 s: 0.7 s in all
  EXPECT_EQ(queue.pending().size(), 2u);
  queue.Add(Slice(speech_, 3, 11200, 9600));
  EXPECT_TRUE(queue.pending().empty());
  capture.Stop();
  const std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], LogLine("[M3] realtime 2pass pending short segment samples=11200 min_samples=16000"));
  const std::string text = JsonTextField(lines[1]);
  EXPECT_FALSE(text.empty());
  EXPECT_EQ(lines[1],
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"segment_id\":3,\"segment_start_id\":1,\"segment_count\":3,\"segments\":[{"
            "\"start_time\":0.00,\"end_time\":1.30,\"start_ms\":0,\"end_ms\":1300,\"text\":\"" +
                text + "\"}]}");
}

TEST_F(RealtimeBatch, AtStopTheQueueIsDecodedWhateverItsLength) {
  Options options;
  options.second_pass_every = 3;
  StdoutCapture capture;
  RealtimeBatchQueue queue(options, decoder_.get(), nullptr, &emitter_);
  queue.Add(Slice(speech_, 1, 0, 12000));
  EXPECT_EQ(queue.pending().size(), 1u);
  queue.DecodePendingBatch(/*force=*/true);
  EXPECT_TRUE(queue.pending().empty());
  capture.Stop();
  const std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
                           "\"segment_id\":1,\"segment_start_id\":1,\"segment_count\":1,"
                           "\"segments\":[{\"start_time\":0.00,\"end_time\":0.75,",
                           0),
            0u)
      << lines[0];
}

TEST_F(RealtimeBatch, SegmentsSevenToNineGiveOneResultNamingTheirRange) {
  Options options;
  options.session_id = 4;
  const size_t third = speech_.size() / 3;
  std::vector<PendingRealtimeSegment> segments = {
      Slice(speech_, 7, 0, third), Slice(speech_, 8, third, third),
      Slice(speech_, 9, 2 * third, speech_.size() - 2 * third)};
  std::string context;
  StdoutCapture capture;
  EXPECT_TRUE(DecodeAndEmitRealtimeBatch(options, decoder_.get(), nullptr, &emitter_, segments,
                                         false, &context, 24, false));
  capture.Stop();
  const std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
                           "\"sessionId\":4,\"segment_id\":9,\"segment_start_id\":7,"
                           "\"segment_count\":3,\"segments\":[{\"start_time\":0.00,",
                           0),
            0u)
      << lines[0];
  // The three pieces joined are the whole recording: the trained recognizer
  // reads it back closely.
  EXPECT_LT(CharacterErrorRate("hello world this is a test of the second pass recognizer",
                               Letters(JsonTextField(lines[0]))),
            0.3)
      << lines[0];
}

TEST_F(RealtimeBatch, PunctuationContextCarriesTheTailOfTheBatchToTheNext) {
  Options options;
  auto punc = LoadPunctuation("trained/punct-en/model.onnx");
  StdoutCapture capture;
  RealtimeBatchQueue queue(options, decoder_.get(), punc.get(), &emitter_);
  queue.Add(Slice(speech_, 1, 0, speech_.size() / 2));
  capture.Stop();
  const std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 1u);
  // The context holds the end of the batch's own text before punctuation, at
  // most 24 code points; the emitted text differs from it only by the marks
  // (which may replace a blank).
  const std::string context = queue.punc_context();
  EXPECT_EQ(context.size(), 24u) << context;
  EXPECT_EQ(StripPuncForPuncModel(context), context);
  EXPECT_TRUE(EndsWith(WithoutBlanks(StripPuncForPuncModel(JsonTextField(lines[0]))),
                       WithoutBlanks(context)))
      << lines[0] << " / " << context;
  queue.Clear();
  EXPECT_TRUE(queue.punc_context().empty());
}

TEST(RealtimeBatchFailure, DecodeFailureEmptiesTheQueueAndTheNextSegmentStartsANewBatch) {
  Options options;
  auto decoder = BrokenDecoder();
  EventEmitter emitter;
  StdoutCapture capture;
  RealtimeBatchQueue queue(options, decoder.get(), nullptr, &emitter);
  queue.Add(Slice(SilenceSeconds(1.5), 1, 0, 20000));
  EXPECT_TRUE(queue.pending().empty());
  queue.Add(Slice(SilenceSeconds(1.5), 2, 0, 20000));
  EXPECT_TRUE(queue.pending().empty());
  capture.Stop();
  EXPECT_EQ(capture.Lines(),
            (std::vector<std::string>{
                "{\"message\":\"Realtime VAD decode failed: Decoder is not initialized\","
                "\"type\":\"error\"}",
                LogLine("[M3] realtime 2pass batch skipped after decode failure"),
                "{\"message\":\"Realtime VAD decode failed: Decoder is not initialized\","
                "\"type\":\"error\"}",
                LogLine("[M3] realtime 2pass batch skipped after decode failure")}));
}

TEST(RealtimeBatchFailure, EmptyListAndSilenceEmitNothing) {
  Options options;
  auto decoder = LoadTrainedDecoder();
  EventEmitter emitter;
  std::string context = "kept";
  StdoutCapture capture;
  EXPECT_TRUE(DecodeAndEmitRealtimeBatch(options, decoder.get(), nullptr, &emitter, {}, false,
                                         &context, 24, true));
  EXPECT_TRUE(DecodeAndEmitRealtimeBatch(options, decoder.get(), nullptr, &emitter,
                                         {Slice(SilenceSeconds(1.0), 1, 0, 16000)}, false,
                                         &context, 24, true));
  capture.Stop();
  EXPECT_TRUE(capture.Lines().empty());
  EXPECT_EQ(context, "kept");
}

TEST(RealtimeBatchFailure, SecondPassEveryZeroNeverDecodes) {
  Options options;
  options.second_pass_every = 0;
  auto decoder = BrokenDecoder();
  EventEmitter emitter;
  StdoutCapture capture;
  RealtimeBatchQueue queue(options, decoder.get(), nullptr, &emitter);
  queue.Add(Slice(SilenceSeconds(1.5), 1, 0, 20000));
  queue.DecodePendingBatch(/*force=*/true);
  capture.Stop();
  EXPECT_TRUE(capture.Lines().empty());
}

// Plays "Hello world, this is a stub café." whatever the audio.
std::unique_ptr<OfflineDecoderBackend> LoadWhisperStub() {
  DecoderInitOptions options;
  options.model_type = "whisper";
  options.whisper_encoder = ModelPath("stubs/whisper/encoder.onnx");
  options.whisper_decoder = ModelPath("stubs/whisper/decoder.onnx");
  options.tokens = ModelPath("stubs/whisper/tokens.txt");
  auto decoder = std::make_unique<OfflineDecoderBackend>();
  std::string error;
  EXPECT_TRUE(decoder->Init(options, &error)) << error;
  return decoder;
}

// Two 20 s utterances make a 40 s batch, past the 29.5 s the library would
// keep of one Whisper decode: it is decoded as a 29 s and an 11 s piece.
TEST(RealtimeBatchWhisper, BatchLongerThanTheWindowGivesTheTextOfBothPieces) {
  Options options;
  options.second_type = "whisper";
  auto decoder = LoadWhisperStub();
  EventEmitter emitter;
  const std::vector<float> audio = SilenceSeconds(40.0);
  const size_t half = audio.size() / 2;
  std::string context;
  StdoutCapture capture;
  EXPECT_TRUE(DecodeAndEmitRealtimeBatch(
      options, decoder.get(), nullptr, &emitter,
      {Slice(audio, 1, 0, half), Slice(audio, 2, half, audio.size() - half)}, false, &context,
      24, false));
  capture.Stop();
  EXPECT_EQ(capture.Lines(),
            std::vector<std::string>{
                R"({"type":"result","stage":"second-pass","mode":"offline_final",)"
                R"("segment_id":2,"segment_start_id":1,"segment_count":2,"segments":[)"
                R"({"start_time":0.00,"end_time":40.00,"start_ms":0,"end_ms":40000,)"
                R"("text":"Hello world, this is a stub café. Hello world, this is a stub café."}]})"});
}

}  // namespace
}  // namespace kerrow::testing
