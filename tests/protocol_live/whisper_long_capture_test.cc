// A push-to-talk capture longer than Whisper's 30 s window: the library would
// keep only its first 29.5 s (and warn on standard error), so the engine
// decodes it as consecutive pieces of at most 29 s and joins their texts.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol_live/live_fixtures.h"

namespace kerrow::testing {
namespace {

using std::chrono::seconds;

TEST(WhisperLongCapture, FortySecondPushToTalkGivesTheTextOfBothPieces) {
  // One decoder thread: this test also runs under ThreadSanitizer, which cannot
  // see how the prebuilt onnxruntime's own thread pool synchronises its workers
  // and reports their hand-over as a race.
  auto process = StartLive({"--manual-mode", "--start-paused", "--second-type", "whisper",
                            "--second-encoder", WhisperStubEncoder(), "--second-decoder",
                            WhisperStubDecoder(), "--second-tokens", WhisperStubTokens(),
                            "--num-threads-second", "1"});
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  // The stub plays its script whatever the audio; silence keeps this quick.
  ASSERT_TRUE(process->WriteAudioS16(SilenceSeconds(40.0)));
  ASSERT_GE(process->WaitForLine(
                [](const std::string& line) { return line == KeepaliveLine(40); }, seconds(60)),
            0)
      << JoinLines(process->Lines());
  process->WriteCommand("stop");
  const int result = process->WaitForLine(IsResultLine, seconds(120));
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  // Also checks that standard error stayed empty: no truncation warning.
  QuitAndExpectCleanEnd(process.get());
  // A 29 s and an 11 s piece, each the stub's whole script; the growing text
  // of a manual segment drops only its final full stop.
  EXPECT_EQ(process->Lines()[result],
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"segments\":[{\"start_time\":0.00,\"end_time\":40.00,\"start_ms\":0,\"end_ms\":40000,"
            "\"text\":\"Hello world, this is a stub café. Hello world, this is a stub café\"}]}");
}

}  // namespace
}  // namespace kerrow::testing
