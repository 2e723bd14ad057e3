#include "offline/windowed_decode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/offline_decoder_backend.h"
#include "offline/pipeline_fixtures.h"
#include "offline/vad_grouping.h"
#include "support/test_audio.h"

namespace kerrow::testing {
namespace {


constexpr char kStubScript[] = "Hello world, this is a stub café.";

Options WhisperOptions() {
  Options options;
  options.second_type = "whisper";
  return options;
}

std::vector<SampleSpan> WindowPieces(const Options& options, int64_t samples) {
  return RecognizerWindowPieces(MakeVadGroupingLimits(options, samples), {0, samples});
}

MATCHER_P2(SpanIs, start, end, "") { return arg.start == start && arg.end == end; }

TEST(SplitIntoPieces, CutsConsecutivePiecesOfAtMostTheGivenLength) {
  const std::vector<SampleSpan> pieces = SplitIntoPieces({10, 35}, 10);
  ASSERT_EQ(pieces.size(), 3u);
  EXPECT_THAT(pieces[0], SpanIs(10, 20));
  EXPECT_THAT(pieces[1], SpanIs(20, 30));
  EXPECT_THAT(pieces[2], SpanIs(30, 35));
}

TEST(SplitIntoPieces, EmptySpanHasNoPiecesAndALengthBelowOneIsTakenAsOne) {
  EXPECT_TRUE(SplitIntoPieces({5, 5}, 10).empty());
  EXPECT_EQ(SplitIntoPieces({0, 3}, 0).size(), 3u);
}

TEST(RecognizerWindowPieces, WhisperGetsPiecesOfAtMost29Seconds) {
  const std::vector<SampleSpan> pieces = WindowPieces(WhisperOptions(), 40 * kSampleRate);
  ASSERT_EQ(pieces.size(), 2u);
  EXPECT_THAT(pieces[0], SpanIs(0, 29 * kSampleRate));
  EXPECT_THAT(pieces[1], SpanIs(29 * kSampleRate, 40 * kSampleRate));
  EXPECT_EQ(WindowPieces(WhisperOptions(), 29 * kSampleRate).size(), 1u);
  EXPECT_EQ(WindowPieces(WhisperOptions(), 29 * kSampleRate + 1).size(), 2u);
}

TEST(RecognizerWindowPieces, SenseVoiceDecodesAnyLengthWhole) {
  const std::vector<SampleSpan> pieces = WindowPieces(Options(), 90 * kSampleRate);
  ASSERT_EQ(pieces.size(), 1u);
  EXPECT_THAT(pieces[0], SpanIs(0, 90 * kSampleRate));
  EXPECT_TRUE(WindowPieces(Options(), 0).empty());
}

TEST(ChunkFallbackPieces, WhisperChunksStayInsideTheWindowWhateverTheMaximumSpeechLength) {
  Options options = WhisperOptions();
  options.vad_max_speech = 40.0;
  const std::vector<SampleSpan> pieces =
      ChunkFallbackPieces(MakeVadGroupingLimits(options, 60 * kSampleRate));
  ASSERT_EQ(pieces.size(), 3u);
  EXPECT_THAT(pieces[0], SpanIs(0, 29 * kSampleRate));
  EXPECT_THAT(pieces[2], SpanIs(58 * kSampleRate, 60 * kSampleRate));
  // SenseVoice keeps the chunk length it was given.
  options.second_type = "sensevoice";
  EXPECT_EQ(ChunkFallbackPieces(MakeVadGroupingLimits(options, 60 * kSampleRate)).size(), 2u);
}

TEST(DecodeWithinRecognizerWindow, Whisper40SecondsGivesTheTextOfBothPiecesJoined) {
  std::string text;
  std::string error;
  ASSERT_TRUE(DecodeWithinRecognizerWindow(WhisperOptions(), StubWhisper(), SilenceSeconds(40),
                                           &text, &error))
      << error;
  // The stub plays its whole script in each piece; the pieces meet at a full
  // stop and a capital, which is Latin text on both sides.
  EXPECT_EQ(text, std::string(kStubScript) + " " + kStubScript);
}

TEST(DecodeWithinRecognizerWindow, WhisperWithinItsWindowIsOneDecode) {
  std::string text;
  ASSERT_TRUE(DecodeWithinRecognizerWindow(WhisperOptions(), StubWhisper(), SilenceSeconds(20),
                                           &text, nullptr));
  EXPECT_EQ(text, kStubScript);
}

TEST(DecodeWithinRecognizerWindow, SenseVoiceIsDecodedWholeEvenPast29Seconds) {
  // The pattern stub writes one letter per 120 ms and starts over at "a":
  // whole, 30 s give the same text as decoding the 30 s directly.
  const std::vector<float> audio = SilenceSeconds(30);
  std::string whole;
  ASSERT_TRUE(PatternSenseVoice()->Decode(audio, &whole, nullptr));
  std::string text;
  ASSERT_TRUE(DecodeWithinRecognizerWindow(Options(), PatternSenseVoice(), audio, &text, nullptr));
  EXPECT_EQ(text, whole);
}

TEST(DecodeWithinRecognizerWindow, MissingOrUnloadedDecoderFails) {
  std::string error;
  std::string text;
  EXPECT_FALSE(
      DecodeWithinRecognizerWindow(WhisperOptions(), nullptr, SilenceSeconds(40), &text, &error));
  EXPECT_EQ(error, "Decoder is not initialized");
  OfflineDecoderBackend not_loaded;
  error.clear();
  EXPECT_FALSE(DecodeWithinRecognizerWindow(WhisperOptions(), &not_loaded, SilenceSeconds(40),
                                            &text, &error));
  EXPECT_EQ(error, "Decoder is not initialized");
}

}  // namespace
}  // namespace kerrow::testing
