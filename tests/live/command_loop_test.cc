#include "live/command_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "live/shared_state.h"
#include "live_harness.h"

namespace kerrow::testing {
namespace {

using std::chrono::milliseconds;

Options ManualOptions() {
  Options options;
  options.manual_mode = true;
  return options;
}

std::vector<float> Silence(size_t samples) { return std::vector<float>(samples, 0.0f); }

TEST(ParseSinglePartialIntervalCommand, AcceptsTheTwoWordsAndANumber) {
  double seconds = 0.0;
  EXPECT_TRUE(ParseSinglePartialIntervalCommand("set single-partial-interval 0.3", &seconds));
  EXPECT_DOUBLE_EQ(seconds, 0.3);
}

TEST(ParseSinglePartialIntervalCommand, IgnoresTextAfterTheNumber) {
  double seconds = 0.0;
  EXPECT_TRUE(ParseSinglePartialIntervalCommand("set single-partial-interval 1.5 please", &seconds));
  EXPECT_DOUBLE_EQ(seconds, 1.5);
}

TEST(ParseSinglePartialIntervalCommand, RejectsOtherWordsAndMissingNumbers) {
  double seconds = 0.0;
  EXPECT_FALSE(ParseSinglePartialIntervalCommand("set single-partial-interval abc", &seconds));
  EXPECT_FALSE(ParseSinglePartialIntervalCommand("set single-partial-interval", &seconds));
  EXPECT_FALSE(ParseSinglePartialIntervalCommand("set partial-interval 0.3", &seconds));
  EXPECT_FALSE(ParseSinglePartialIntervalCommand("Set single-partial-interval 0.3", &seconds));
}

TEST(CommandLoop, IntervalBelowMinimumStoresPointTwoSeconds) {
  LiveHarness harness(Options{}, {});
  harness.Start();
  harness.Command("set single-partial-interval 0.05");
  ASSERT_GE(harness.WaitForLineContaining("single-partial-interval updated"), 0);
  EXPECT_EQ(harness.state().single_partial_step_samples.load(), 3200u);
  harness.Command("quit");
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  EXPECT_EQ(harness.Lines(),
            (std::vector<std::string>{
                LogLine("single-partial-interval updated to 0.200s (inactive until native "
                    "single-model manual-realtime is used)"),
                LogLine("Quit requested")}));
}

TEST(CommandLoop, IntervalOfZeroOrMinusOneStoresHalfASecond) {
  Options options;
  options.manual_realtime = true;
  options.single_model_streaming = true;
  options.single_partial_interval = 1.0;
  LiveHarness harness(options, {});
  harness.Start();
  harness.Command("set single-partial-interval -1");
  ASSERT_GE(harness.WaitForLineContaining("updated to"), 0);
  EXPECT_EQ(harness.state().single_partial_step_samples.load(), 8000u);
  harness.Command("set single-partial-interval 1");
  ASSERT_GE(harness.WaitForLineContaining("updated to 1.000s"), 0);
  harness.Command("set single-partial-interval 0");
  ASSERT_GE(harness.WaitForLineContaining("updated to", milliseconds(60000), 2), 0);
  EXPECT_EQ(harness.state().single_partial_step_samples.load(), 8000u);
  harness.Command("quit");
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  // Active in single-model manual-realtime: no "inactive" note.
  EXPECT_EQ(harness.Lines(), (std::vector<std::string>{
                                 LogLine("single-partial-interval updated to 0.500s"),
                                 LogLine("single-partial-interval updated to 1.000s"),
                                 LogLine("single-partial-interval updated to 0.500s"),
                                 LogLine("Quit requested")}));
}

TEST(CommandLoop, IntervalThatDoesNotParseIsAnUnknownCommand) {
  LiveHarness harness(Options{}, {});
  harness.Start();
  harness.Command("set single-partial-interval abc");
  harness.Command("quit");
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  EXPECT_EQ(harness.Lines(),
            (std::vector<std::string>{LogLine("Unknown command: set single-partial-interval abc"),
                                      LogLine("Quit requested")}));
  EXPECT_EQ(harness.state().single_partial_step_samples.load(), 8000u);
}

TEST(CommandLoop, CommandsAreComparedExactlyWithoutTrimming) {
  LiveHarness harness(Options{}, {});
  harness.Start();
  harness.Command("start ");
  harness.Command("Start");
  harness.Command("");
  harness.Command("manual");
  harness.Command("auto");
  harness.Command("quit");
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  EXPECT_EQ(harness.Lines(),
            (std::vector<std::string>{LogLine("Unknown command: start "), LogLine("Unknown command: Start"),
                                      LogLine("Mode switched to manual"), LogLine("Mode switched to auto"),
                                      LogLine("Quit requested")}));
  EXPECT_EQ(harness.state().session_seq.load(), 0u);
  std::lock_guard<std::mutex> lock(harness.state().mode_mutex);
  EXPECT_EQ(harness.state().mode, "auto");
}

TEST(CommandLoop, StopWithoutStartInManualModeDecodesAnEmptyBuffer) {
  LiveHarness harness(ManualOptions(), {});
  harness.Start();
  harness.Command("stop");
  harness.Command("quit");
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  EXPECT_EQ(harness.Lines(),
            (std::vector<std::string>{
                LogLine("[SESSION-DIAG] cmd=stop seq=0 captured_samples=0 total_samples=0"),
                LogLine("Capture stopped"), LogLine("No audio captured in this segment"),
                LogLine("Quit requested")}));
}

TEST(CommandLoop, StartTwiceGrowsTheSequenceAndEmptiesTheBufferEachTime) {
  LiveHarness harness(ManualOptions(), {});
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  ASSERT_TRUE(harness.WriteAudio(Silence(4800)));
  ASSERT_TRUE(LiveHarness::WaitUntil([&] { return harness.state().captured_samples.load() == 4800; }));
  {
    std::lock_guard<std::mutex> lock(harness.audio().mutex);
    // Manual mode decodes `samples` at "stop"; the whole-capture buffer is
    // only filled for the offline two-pass decode.
    EXPECT_TRUE(harness.audio().capture_samples.empty());
    EXPECT_EQ(harness.audio().samples.size(), 4800u);
  }
  harness.Command("start");
  const int second = harness.WaitForLineContaining("cmd=start seq=2");
  ASSERT_GE(second, 0);
  {
    std::lock_guard<std::mutex> lock(harness.audio().mutex);
    EXPECT_TRUE(harness.audio().capture_samples.empty());
    EXPECT_TRUE(harness.audio().samples.empty());
  }
  EXPECT_EQ(harness.state().captured_samples.load(), 0u);
  EXPECT_EQ(harness.state().next_segment_id.load(), 1u);
  harness.Command("quit");
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  const std::vector<std::string> lines = harness.Lines();
  // The interrupted capture's samples are reported by the second start.
  EXPECT_EQ(lines[second],
            LogLine("[SESSION-DIAG] cmd=start seq=2 prev_total_samples=4800 "
                "prev_captured_samples=4800 reset_applied_seq=1"));
  const int first = IndexOfLine(lines, LogLine("[SESSION-DIAG] cmd=start seq=1 prev_total_samples=0 "
                                           "prev_captured_samples=0 reset_applied_seq=0"));
  EXPECT_GT(first, IndexOfLine(lines, LogLine("Capture started")));
  EXPECT_GT(second, IndexOfLine(lines, LogLine("Capture started"), first));
  EXPECT_EQ(harness.state().session_seq.load(), 2u);
}

TEST(CommandLoop, QuitWithACaptureRunningEndsTheRunWithoutDecoding) {
  LiveHarness harness(ManualOptions(), {});
  harness.Start();
  ASSERT_TRUE(harness.StartCaptureAndWait(1));
  ASSERT_TRUE(harness.WriteAudio(Silence(16000)));
  ASSERT_TRUE(LiveHarness::WaitUntil([&] { return harness.state().captured_samples.load() == 16000; }))
      << harness.state().captured_samples.load() << " " << harness.state().total_samples.load();
  harness.Command("quit");
  // The audio pipe stays open: quit alone must end both threads.
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  const std::vector<std::string> lines = harness.Lines();
  EXPECT_EQ(lines.back(), LogLine("Quit requested"));
  EXPECT_EQ(CountContaining(lines, "\"type\":\"result\""), 0);
  EXPECT_EQ(CountContaining(lines, "Capture stopped"), 0);
  std::lock_guard<std::mutex> lock(harness.audio().mutex);
  EXPECT_EQ(harness.audio().samples.size(), 16000u);
}

TEST(CommandLoop, ClosingStdinAloneDoesNotEndTheRunWhileThePipeStaysOpen) {
  LiveHarness harness(Options{}, {});
  harness.Start();
  harness.CloseCommands();
  // Audio keeps flowing after stdin has ended: five seconds of it are counted.
  ASSERT_TRUE(harness.WriteAudio(Silence(80000)));
  ASSERT_GE(harness.WaitForLineContaining("PCM keepalive: received 5.000000s audio"), 0);
  EXPECT_FALSE(harness.state().quit.load());
  harness.CloseAudio();
  ASSERT_TRUE(harness.WaitForEnd());
  harness.StopCapture();
  EXPECT_EQ(harness.Lines(),
            (std::vector<std::string>{LogLine("PCM keepalive: received 5.000000s audio"),
                                      LogLine("PCM pipe closed")}));
  EXPECT_TRUE(harness.state().pcm_closed.load());
}

TEST(WaitForPcmDrainBeforeStopDecode, ReturnsAtOnceWithoutOffline2pass) {
  Options options;
  SharedState state;
  StdoutCapture capture;
  EventEmitter emitter;
  WaitForPcmDrainBeforeStopDecode(options, &emitter, &state);
  capture.Stop();
  EXPECT_TRUE(capture.Lines().empty());
}

TEST(WaitForPcmDrainBeforeStopDecode, ClosedPipeEndsTheWaitWithoutALogLine) {
  Options options;
  options.offline_2pass = true;
  SharedState state;
  state.pcm_closed.store(true);
  StdoutCapture capture;
  EventEmitter emitter;
  WaitForPcmDrainBeforeStopDecode(options, &emitter, &state);
  capture.Stop();
  EXPECT_TRUE(capture.Lines().empty());
}

TEST(WaitForPcmDrainBeforeStopDecode, QuietPipeEndsTheWaitAfterTheQuietWindow) {
  Options options;
  options.offline_2pass = true;
  SharedState state;
  StdoutCapture capture;
  EventEmitter emitter;
  const auto begin = std::chrono::steady_clock::now();
  WaitForPcmDrainBeforeStopDecode(options, &emitter, &state);
  const auto waited = std::chrono::steady_clock::now() - begin;
  capture.Stop();
  // A lower bound only: the wait cannot end before 120 ms without audio.
  EXPECT_GE(waited, milliseconds(120));
  EXPECT_EQ(capture.Lines(), (std::vector<std::string>{
                                 LogLine("offline_2pass stop drain finished by quiet window/timeout")}));
}

TEST(WaitForPcmDrainBeforeStopDecode, SteadyAudioIsWaitedForUntilTheCap) {
  Options options;
  options.offline_2pass = true;
  SharedState state;
  std::atomic<bool> feeding{true};
  std::thread feeder([&] {
    while (feeding.load()) {
      state.captured_samples.fetch_add(160);
      std::this_thread::sleep_for(milliseconds(5));
    }
  });
  StdoutCapture capture;
  EventEmitter emitter;
  const auto begin = std::chrono::steady_clock::now();
  WaitForPcmDrainBeforeStopDecode(options, &emitter, &state);
  const auto waited = std::chrono::steady_clock::now() - begin;
  feeding.store(false);
  feeder.join();
  capture.Stop();
  // Audio never paused for 120 ms, so only the 300 ms cap can have ended it
  // (the wait did end: this line is reached).
  EXPECT_GE(waited, milliseconds(300));
  EXPECT_EQ(capture.Lines(), (std::vector<std::string>{
                                 LogLine("offline_2pass stop drain finished by quiet window/timeout")}));
}

}  // namespace
}  // namespace kerrow::testing
