#include "offline/offline_diarization.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "events/event_emitter.h"
#include "support/json_fields.h"
#include "support/stdout_capture.h"

namespace kerrow::testing {
namespace {


// A diarizer with scripted answers that counts its calls: the rules under
// test are about when the backend is asked at all, not about diarization.
class ScriptedDiarization : public DiarizationBackend {
 public:
  bool Init(const DiarizationInitOptions&, std::string*) override { return true; }
  bool IsReady() const override { return ready; }
  bool Process(const std::vector<float>& samples, int sample_rate,
               std::vector<DiarizationSegment>* out, std::string* error) override {
    ++process_calls;
    last_sample_count = samples.size();
    last_sample_rate = sample_rate;
    if (!succeed) {
      *error = "segmentation exploded";
      return false;
    }
    *out = turns;
    return true;
  }

  bool ready = true;
  bool succeed = true;
  std::vector<DiarizationSegment> turns;
  int process_calls = 0;
  size_t last_sample_count = 0;
  int last_sample_rate = 0;
};

TEST(RunOfflineDiarization, OffReturnsTrueWithoutCallingBackendOrLogging) {
  Options options;
  options.diarization = false;
  ScriptedDiarization backend;
  std::vector<DiarizationSegment> out = {{0.0, 1.0, "stale"}};
  EventEmitter emitter;
  StdoutCapture capture;
  const bool ok = RunOfflineDiarization(options, &backend, std::vector<float>(16000), &emitter, &out);
  const std::vector<std::string> lines = capture.Stop();
  EXPECT_TRUE(ok);
  EXPECT_EQ(backend.process_calls, 0);
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(lines.empty());
}

TEST(RunOfflineDiarization, MissingOrUnreadyBackendIsSkippedWithLogLine) {
  Options options;
  options.diarization = true;
  ScriptedDiarization unready;
  unready.ready = false;
  std::vector<DiarizationSegment> out;
  EventEmitter emitter;
  StdoutCapture capture;
  EXPECT_TRUE(RunOfflineDiarization(options, nullptr, std::vector<float>(10), &emitter, &out));
  EXPECT_TRUE(RunOfflineDiarization(options, &unready, std::vector<float>(10), &emitter, &out));
  const std::vector<std::string> lines = capture.Stop();
  EXPECT_EQ(unready.process_calls, 0);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       R"({"message":"diarization skipped: backend not initialized","type":"log"})",
                       R"({"message":"diarization skipped: backend not initialized","type":"log"})"}));
}

TEST(RunOfflineDiarization, SuccessLogsTurnCountAndAudioSeconds) {
  Options options;
  options.diarization = true;
  ScriptedDiarization backend;
  backend.turns = {{0.0, 0.5, "SPEAKER_00"}, {0.5, 1.5, "SPEAKER_01"}};
  std::vector<DiarizationSegment> out;
  EventEmitter emitter;
  StdoutCapture capture;
  EXPECT_TRUE(RunOfflineDiarization(options, &backend, std::vector<float>(24000), &emitter, &out));
  const std::vector<std::string> lines = capture.Stop();
  EXPECT_EQ(backend.last_sample_count, 24000u);
  EXPECT_EQ(backend.last_sample_rate, 16000);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1].speaker, "SPEAKER_01");
  EXPECT_EQ(lines, std::vector<std::string>{
                       R"({"message":"diarization segments=2 audio_s=1.500000","type":"log"})"});
}

TEST(RunOfflineDiarization, ProcessFailureIsLoggedAndReported) {
  Options options;
  options.diarization = true;
  ScriptedDiarization backend;
  backend.succeed = false;
  std::vector<DiarizationSegment> out;
  EventEmitter emitter;
  StdoutCapture capture;
  EXPECT_FALSE(RunOfflineDiarization(options, &backend, std::vector<float>(10), &emitter, &out));
  EXPECT_EQ(capture.Stop(),
            std::vector<std::string>{
                R"({"message":"diarization failed: segmentation exploded","type":"log"})"});
}

TEST(RunOfflineDiarizationOnSpeechRanges, DiarizesWholeRecordingIgnoringRanges) {
  Options options;
  options.diarization = true;
  ScriptedDiarization backend;
  backend.turns = {{0.0, 2.0, "SPEAKER_00"}};
  std::vector<DiarizationSegment> out;
  EventEmitter emitter;
  StdoutCapture capture;
  EXPECT_TRUE(RunOfflineDiarizationOnSpeechRanges(options, &backend, std::vector<float>(32000),
                                                  {{100, 200}}, &emitter, &out));
  capture.Stop();
  EXPECT_EQ(backend.last_sample_count, 32000u);
  EXPECT_EQ(out.size(), 1u);
}

TEST(RunOfflineDiarizationOnSpeechRanges, OffClearsOutputAndReturnsTrue) {
  Options options;
  ScriptedDiarization backend;
  std::vector<DiarizationSegment> out = {{0.0, 1.0, "stale"}};
  EXPECT_TRUE(RunOfflineDiarizationOnSpeechRanges(options, &backend, {}, {}, nullptr, &out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(backend.process_calls, 0);
}

std::vector<std::pair<int32_t, int32_t>> AsPairs(const std::vector<SampleRange>& ranges) {
  std::vector<std::pair<int32_t, int32_t>> pairs;
  for (const SampleRange& range : ranges) pairs.emplace_back(range.start, range.end);
  return pairs;
}

TEST(MergeSpeechRanges, TouchingRangesJoinWithZeroPadAndGap) {
  EXPECT_EQ(AsPairs(MergeSpeechRanges({{0, 10}, {10, 20}}, 100, 0, 0)),
            (std::vector<std::pair<int32_t, int32_t>>{{0, 20}}));
}

TEST(MergeSpeechRanges, RangesOneSampleApartStaySeparateWithZeroGap) {
  EXPECT_EQ(AsPairs(MergeSpeechRanges({{0, 10}, {11, 20}}, 100, 0, 0)),
            (std::vector<std::pair<int32_t, int32_t>>{{0, 10}, {11, 20}}));
}

TEST(MergeSpeechRanges, PadsClampsSortsAndDropsEmpty) {
  EXPECT_EQ(AsPairs(MergeSpeechRanges({{90, 98}, {5, 10}, {50, 50}, {120, 130}}, 100, 5, 0)),
            (std::vector<std::pair<int32_t, int32_t>>{{0, 15}, {45, 55}, {85, 100}}));
}

TEST(MergeSpeechRanges, GapWithinMaxGapJoinsAndKeepsLargerEnd) {
  EXPECT_EQ(AsPairs(MergeSpeechRanges({{0, 50}, {10, 20}, {55, 60}}, 100, 0, 5)),
            (std::vector<std::pair<int32_t, int32_t>>{{0, 60}}));
}

TEST(MergeSpeechRanges, EmptyInputGivesEmptyList) {
  EXPECT_TRUE(MergeSpeechRanges({}, 100, 10, 10).empty());
}

}  // namespace
}  // namespace kerrow::testing
