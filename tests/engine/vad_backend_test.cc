#include "engine/vad_backend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


constexpr int kRate = 16000;
// 0.1 s: the block size of both the PCM loop and the offline pipeline. The
// library dates a segment's start from the end of the block in which speech
// was first seen, so the golden starts below hold for this block size.
constexpr size_t kBlock = 1600;

VadInitOptions RealVad() {
  VadInitOptions options;
  options.model = KERROW_VAD_MODEL;
  return options;
}

std::vector<float> Recording(const std::string& relative) {
  return LoadWavForTest(AudioPath(relative));
}

std::vector<float> Slice(const std::vector<float>& samples, size_t begin,
                         size_t end) {
  end = std::min(end, samples.size());
  begin = std::min(begin, end);
  return std::vector<float>(samples.begin() + begin, samples.begin() + end);
}

std::vector<VadSegment> PopAll(VadBackend* vad) {
  std::vector<VadSegment> segments;
  VadSegment segment;
  std::string error;
  while (vad->PopSegment(&segment, &error)) segments.push_back(segment);
  EXPECT_EQ(error, "");
  return segments;
}

// Feeds the samples in 0.1 s blocks, popping after each block as the PCM
// loop does; flushes at the end when asked to.
std::vector<VadSegment> Segment(VadBackend* vad, const std::vector<float>& samples,
                                bool flush_at_end) {
  std::vector<VadSegment> segments;
  std::string error;
  for (size_t start = 0; start < samples.size(); start += kBlock) {
    EXPECT_TRUE(vad->AcceptWaveform(Slice(samples, start, start + kBlock), &error))
        << error;
    for (VadSegment& segment : PopAll(vad)) segments.push_back(std::move(segment));
  }
  if (flush_at_end) {
    EXPECT_TRUE(vad->Flush(&error)) << error;
    for (VadSegment& segment : PopAll(vad)) segments.push_back(std::move(segment));
  }
  return segments;
}

struct Span {
  int32_t start;
  size_t count;
  bool operator==(const Span& other) const {
    return start == other.start && count == other.count;
  }
};

std::ostream& operator<<(std::ostream& out, const Span& span) {
  return out << "{" << span.start << ", " << span.count << "}";
}

std::vector<Span> Spans(const std::vector<VadSegment>& segments) {
  std::vector<Span> spans;
  for (const VadSegment& segment : segments) {
    spans.push_back({segment.start, segment.samples.size()});
  }
  return spans;
}

std::string InitError(const VadInitOptions& options) {
  VadBackend vad;
  std::string error;
  EXPECT_FALSE(vad.Init(options, &error));
  EXPECT_FALSE(vad.IsReady());
  EXPECT_FALSE(vad.Detected());
  return error;
}

// ---------------------------------------------------------------------------
// The real silero model on real recordings.

TEST(VadBackend, DialogTurnsBecomeOneSegmentEach) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  const std::vector<VadSegment> segments =
      Segment(&vad, Recording("espeak-dialog/two-voices-dialog.wav"), true);

  // Turns of two-voices-dialog.rttm, in seconds.
  const double turns[][2] = {{0.500, 5.083},   {5.783, 10.650},
                             {11.349, 16.507}, {17.207, 21.888},
                             {22.588, 27.947}, {28.648, 32.706}};
  ASSERT_EQ(segments.size(), 6u);
  for (size_t i = 0; i < segments.size(); ++i) {
    const double start = segments[i].start / static_cast<double>(kRate);
    const double end =
        (segments[i].start + segments[i].samples.size()) / static_cast<double>(kRate);
    EXPECT_NEAR(start, turns[i][0], 0.15) << "turn " << i;
    EXPECT_NEAR(end, turns[i][1], 0.5) << "turn " << i;
  }
  // The exact cut of the pinned library and model, the last turn closed by
  // the flush.
  const std::vector<Span> expected = {{9184, 70368},   {92128, 77024},
                                      {181728, 80608}, {275936, 73952},
                                      {360928, 82144}, {458720, 72224}};
  EXPECT_EQ(Spans(segments), expected);
}

TEST(VadBackend, SegmentSamplesAreTheRecordingsOwn) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  const std::vector<float> recording = Recording("espeak-dialog/two-voices-dialog.wav");
  const std::vector<VadSegment> segments = Segment(&vad, recording, true);
  ASSERT_FALSE(segments.empty());
  for (const VadSegment& segment : segments) {
    ASSERT_GE(segment.start, 0);
    EXPECT_EQ(segment.samples,
              Slice(recording, segment.start, segment.start + segment.samples.size()));
  }
}

TEST(VadBackend, SpeechRecordingGivesSegmentWhereSpeechIs) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  const std::vector<float> recording = Recording("espeak/en10s.wav");
  // The sentences follow each other with pauses shorter than the minimum
  // silence, so the 11.7 s recording is one run of speech, closed by the
  // trailing silence before the end of the file.
  const std::vector<VadSegment> segments = Segment(&vad, recording, false);
  EXPECT_EQ(Spans(segments), (std::vector<Span>{{992, 184288}}));
}

TEST(VadBackend, SilenceGivesNoSegment) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  const std::vector<float> silence = Recording("format-checks/sil.wav");
  for (size_t start = 0; start < silence.size(); start += kBlock) {
    ASSERT_TRUE(vad.AcceptWaveform(Slice(silence, start, start + kBlock), &error));
    EXPECT_FALSE(vad.Detected()) << "block at " << start;
  }
  ASSERT_TRUE(vad.Flush(&error)) << error;
  EXPECT_TRUE(PopAll(&vad).empty());
}

TEST(VadBackend, DetectedIsTrueInsideSpeechOnly) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  const std::vector<float> recording = Recording("espeak-dialog/two-voices-dialog.wav");
  // 0-0.3 s is before the first turn; 2-3 s is inside it; 11.2 s is in the
  // pause between the second and third turns, after the second has closed.
  ASSERT_TRUE(vad.AcceptWaveform(Slice(recording, 0, 3 * kBlock), &error));
  EXPECT_FALSE(vad.Detected());
  ASSERT_TRUE(vad.AcceptWaveform(Slice(recording, 3 * kBlock, 3 * kRate), &error));
  EXPECT_TRUE(vad.Detected());
  for (size_t start = 3 * kRate; start < 11 * kRate + 2 * kBlock; start += kBlock) {
    ASSERT_TRUE(vad.AcceptWaveform(Slice(recording, start, start + kBlock), &error));
  }
  EXPECT_FALSE(vad.Detected());
}

TEST(VadBackend, FlushClosesTheOpenSegment) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  // The recording ends inside speech: nothing is queued until the flush.
  const std::vector<VadSegment> before = Segment(&vad, Recording("espeak/en_short.wav"), false);
  EXPECT_TRUE(before.empty());
  EXPECT_TRUE(vad.Detected());
  ASSERT_TRUE(vad.Flush(&error)) << error;
  EXPECT_EQ(Spans(PopAll(&vad)), (std::vector<Span>{{992, 67616}}));
  EXPECT_FALSE(vad.Detected());
}

TEST(VadBackend, FlushWithoutSpeechQueuesNothing) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  ASSERT_TRUE(vad.Flush(&error)) << error;
  EXPECT_TRUE(PopAll(&vad).empty());
}

TEST(VadBackend, ResetRestartsTheSampleIndex) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  const std::vector<float> recording = Recording("espeak/en_short.wav");
  Segment(&vad, recording, true);
  ASSERT_TRUE(vad.Reset(&error)) << error;
  // Without the reset the same speech would start 69142 samples later.
  EXPECT_EQ(Spans(Segment(&vad, recording, true)),
            (std::vector<Span>{{992, 67616}}));
}

TEST(VadBackend, ResetDropsQueuedSegmentsAndOpenSpeech) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  const std::vector<float> recording = Recording("espeak-dialog/two-voices-dialog.wav");
  // Through 6.5 s: the first turn is queued and the second has begun.
  for (size_t start = 0; start < 6 * kRate + 5 * kBlock; start += kBlock) {
    ASSERT_TRUE(vad.AcceptWaveform(Slice(recording, start, start + kBlock), &error));
  }
  ASSERT_TRUE(vad.Detected());
  ASSERT_TRUE(vad.Reset(&error)) << error;
  EXPECT_FALSE(vad.Detected());
  VadSegment segment;
  error.clear();
  EXPECT_FALSE(vad.PopSegment(&segment, &error));
  EXPECT_EQ(error, "");
  ASSERT_TRUE(vad.Flush(&error)) << error;
  EXPECT_TRUE(PopAll(&vad).empty());
}

TEST(VadBackend, ZeroOrNegativeThreadCountRunsWithOneThread) {
  const std::vector<float> recording = Recording("espeak-dialog/two-voices-dialog.wav");
  VadBackend reference_vad;
  std::string error;
  ASSERT_TRUE(reference_vad.Init(RealVad(), &error)) << error;
  const std::vector<Span> reference = Spans(Segment(&reference_vad, recording, true));
  for (int threads : {0, -2}) {
    VadInitOptions options = RealVad();
    options.num_threads = threads;
    VadBackend vad;
    ASSERT_TRUE(vad.Init(options, &error)) << error;
    EXPECT_EQ(Spans(Segment(&vad, recording, true)), reference) << threads;
  }
}

TEST(VadBackend, InitAgainStartsAFreshDetector) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  const std::vector<float> recording = Recording("espeak/en_short.wav");
  Segment(&vad, recording, false);
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  EXPECT_FALSE(vad.Detected());
  EXPECT_EQ(Spans(Segment(&vad, recording, true)),
            (std::vector<Span>{{992, 67616}}));
}

// ---------------------------------------------------------------------------
// The queue.

TEST(VadBackend, PopFromEmptyQueueFailsWithoutMessage) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  VadSegment segment;
  segment.start = 77;
  segment.samples = {0.5f};
  EXPECT_FALSE(vad.PopSegment(&segment, &error));
  EXPECT_EQ(error, "");
  EXPECT_EQ(segment.start, 0);
  EXPECT_TRUE(segment.samples.empty());
}

TEST(VadBackend, PopIntoNullFails) {
  VadBackend vad;
  std::string error;
  EXPECT_FALSE(vad.PopSegment(nullptr, &error));
  EXPECT_EQ(error, "out is null");
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  EXPECT_FALSE(vad.PopSegment(nullptr, &error));
  EXPECT_EQ(error, "out is null");
}

TEST(VadBackend, SegmentsComeOutOldestFirstAndOnce) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  const std::vector<float> recording = Recording("espeak-dialog/two-voices-dialog.wav");
  // Feed through 17 s without popping: three turns wait in the queue.
  for (size_t start = 0; start < 17 * kRate; start += kBlock) {
    ASSERT_TRUE(vad.AcceptWaveform(Slice(recording, start, start + kBlock), &error));
  }
  EXPECT_EQ(Spans(PopAll(&vad)),
            (std::vector<Span>{{9184, 70368}, {92128, 77024}, {181728, 80608}}));
  EXPECT_TRUE(PopAll(&vad).empty());
}

// ---------------------------------------------------------------------------
// Calls without a detector.

TEST(VadBackend, UninitialisedBackendRefusesWorkButIsNotInSpeech) {
  VadBackend vad;
  EXPECT_FALSE(vad.IsReady());
  EXPECT_FALSE(vad.Detected());
  std::string error;
  EXPECT_TRUE(vad.AcceptWaveform({}, &error));
  EXPECT_EQ(error, "");
  EXPECT_FALSE(vad.AcceptWaveform({0.1f, 0.2f}, &error));
  EXPECT_EQ(error, "VAD is not initialized");
  error.clear();
  EXPECT_FALSE(vad.Flush(&error));
  EXPECT_EQ(error, "VAD is not initialized");
  error.clear();
  EXPECT_FALSE(vad.Reset(&error));
  EXPECT_EQ(error, "VAD is not initialized");
  error.clear();
  VadSegment segment;
  segment.start = 5;
  segment.samples = {1.0f};
  EXPECT_FALSE(vad.PopSegment(&segment, &error));
  EXPECT_EQ(error, "VAD is not initialized");
  EXPECT_EQ(segment.start, 0);
  EXPECT_TRUE(segment.samples.empty());
}

TEST(VadBackend, FailedInitAfterGoodOneLeavesNoDetector) {
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(RealVad(), &error)) << error;
  VadInitOptions options = RealVad();
  options.model = "";
  EXPECT_FALSE(vad.Init(options, &error));
  EXPECT_EQ(error, "VAD model path is empty");
  EXPECT_FALSE(vad.IsReady());
  EXPECT_FALSE(vad.AcceptWaveform({0.1f}, &error));
  EXPECT_EQ(error, "VAD is not initialized");
}

TEST(VadBackend, NullErrorPointersAreAllowed) {
  VadBackend vad;
  EXPECT_FALSE(vad.Init(VadInitOptions{}, nullptr));
  EXPECT_FALSE(vad.AcceptWaveform({0.1f}, nullptr));
  EXPECT_FALSE(vad.Flush(nullptr));
  EXPECT_FALSE(vad.Reset(nullptr));
  VadSegment segment;
  EXPECT_FALSE(vad.PopSegment(&segment, nullptr));
  EXPECT_FALSE(vad.PopSegment(nullptr, nullptr));
  ASSERT_TRUE(vad.Init(RealVad(), nullptr));
  EXPECT_TRUE(vad.AcceptWaveform({0.1f}, nullptr));
  EXPECT_TRUE(vad.Flush(nullptr));
  EXPECT_TRUE(vad.Reset(nullptr));
}

// ---------------------------------------------------------------------------
// Settings refused before the library sees them.

TEST(VadBackend, EmptyModelPathFails) {
  EXPECT_EQ(InitError(VadInitOptions{}), "VAD model path is empty");
}

TEST(VadBackend, SampleRateOtherThan16000IsRefused) {
  for (int32_t rate : {8000, 0, -16000, 48000}) {
    VadInitOptions options = RealVad();
    options.sample_rate = rate;
    EXPECT_EQ(InitError(options),
              "VAD sample rate must be 16000 for the silero model, got " +
                  std::to_string(rate));
  }
}

TEST(VadBackend, WindowSizeOtherThan512IsRefused) {
  for (int32_t window : {256, 0, 1024, -512}) {
    VadInitOptions options = RealVad();
    options.window_size = window;
    EXPECT_EQ(InitError(options),
              "VAD window size must be 512 samples for the silero model, got " +
                  std::to_string(window));
  }
}

TEST(VadBackend, NonPositiveBufferSecondsAreRefused) {
  for (float seconds : {0.0f, -1.0f}) {
    VadInitOptions options = RealVad();
    options.buffer_seconds = seconds;
    EXPECT_EQ(InitError(options), "VAD buffer seconds must be greater than 0");
  }
}

TEST(VadBackend, ThresholdOutsideItsRangeIsRefused) {
  // The library would turn 0 into 0.5 and fail Create on the others. It
  // compares in double precision, so 0.01f (0.0099999998) is already too low.
  for (float threshold : {0.0f, 0.01f, 0.005f, -0.5f, 1.0f, 1.5f}) {
    VadInitOptions options = RealVad();
    options.threshold = threshold;
    EXPECT_EQ(InitError(options),
              "VAD threshold must be at least 0.01 and below 1")
        << threshold;
  }
}

TEST(VadBackend, ThresholdAtTheEdgesOfItsRangeIsAccepted) {
  for (float threshold : {0.0101f, 0.999f}) {
    VadInitOptions options = RealVad();
    options.threshold = threshold;
    VadBackend vad;
    std::string error;
    EXPECT_TRUE(vad.Init(options, &error)) << threshold << ": " << error;
  }
}

TEST(VadBackend, NegativeDurationsAreRefused) {
  VadInitOptions options = RealVad();
  options.min_silence_duration = -1.0f;
  EXPECT_EQ(InitError(options), "VAD min silence duration must not be negative");
  options = RealVad();
  options.min_speech_duration = -0.25f;
  EXPECT_EQ(InitError(options), "VAD min speech duration must not be negative");
  options = RealVad();
  options.max_speech_duration = -8.0f;
  EXPECT_EQ(InitError(options), "VAD max speech duration must not be negative");
}

TEST(VadBackend, ZeroMaxSpeechDurationLeavesTheLibraryDefault) {
  // The offline pipeline passes max(max speech, 0); the library reads 0 as
  // its own default (20 s) and still cuts the dialog at its turns.
  VadInitOptions options = RealVad();
  options.max_speech_duration = 0.0f;
  VadBackend vad;
  std::string error;
  ASSERT_TRUE(vad.Init(options, &error)) << error;
  EXPECT_EQ(Segment(&vad, Recording("espeak-dialog/two-voices-dialog.wav"), true).size(),
            6u);
}

// ---------------------------------------------------------------------------
// Unusable model files: each must fail Init with its reason, never end the
// process.

std::string InitErrorWithModel(const std::string& path) {
  VadInitOptions options = RealVad();
  options.model = path;
  return InitError(options);
}

TEST(VadBackend, MissingModelFileFails) {
  TempDir dir;
  const std::string path = dir.File("silero_vad.onnx");
  EXPECT_EQ(InitErrorWithModel(path), "model file not found: " + path);
}

TEST(VadBackend, EmptyModelFileFails) {
  TempDir dir;
  const std::string path = dir.File("silero_vad.onnx");
  WriteFileBytes(path, "");
  EXPECT_EQ(InitErrorWithModel(path), "model file is empty: " + path);
}

TEST(VadBackend, DirectoryAsModelFails) {
  TempDir dir;
  EXPECT_EQ(InitErrorWithModel(dir.path()),
            "model path is a directory: " + dir.path());
}

TEST(VadBackend, TextFileAsModelFails) {
  TempDir dir;
  const std::string path = dir.File("silero_vad.onnx");
  WriteFileBytes(path, "voice activity detector goes here\n");
  EXPECT_EQ(InitErrorWithModel(path), "not a valid ONNX model: " + path);
}

TEST(VadBackend, RandomBytesAsModelFail) {
  TempDir dir;
  const std::string path = dir.File("silero_vad.onnx");
  std::mt19937 generator(7);
  std::string bytes(65536, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator() & 0xff);
  WriteFileBytes(path, bytes);
  EXPECT_EQ(InitErrorWithModel(path), "not a valid ONNX model: " + path);
}

TEST(VadBackend, GitLfsPointerAsModelFails) {
  TempDir dir;
  const std::string path = dir.File("silero_vad.onnx");
  WriteFileBytes(path, GitLfsPointerText("1a153a22f4509e292a94e67d6f9b85e8deb25b4988682b7e174c65279d8788e3", 2327524));
  EXPECT_EQ(InitErrorWithModel(path),
            "model file is a git-lfs pointer, not the model: " + path);
}

TEST(VadBackend, TruncatedModelFails) {
  TempDir dir;
  const std::string path = dir.File("silero_vad.onnx");
  const std::string real = ReadFileBytes(KERROW_VAD_MODEL);
  WriteFileBytes(path, real.substr(0, real.size() / 2));
  EXPECT_EQ(InitErrorWithModel(path), "not a valid ONNX model: " + path);
}

TEST(VadBackend, PunctuationModelAsVadFails) {
  const std::string path = ModelPath("stubs/punct/model.onnx");
  EXPECT_EQ(InitErrorWithModel(path),
            "model " + path +
                " lacks graph input 'input' required for a Silero VAD model "
                "(wrong model family?)");
}

}  // namespace
}  // namespace kerrow::testing
