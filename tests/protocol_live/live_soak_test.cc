// A shortened soak of the live session: many captures back to back, audio fed
// as fast as the engine takes it, checking that every VAD segment gets exactly
// one id and is covered by exactly one second-pass result. The hour-long run
// with memory figures is bench/live_soak_bench.cc.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "protocol_live/live_fixtures.h"

namespace kerrow::testing {
namespace {

using std::chrono::seconds;

// The audio of one capture: utterances with pauses, ending inside speech so
// that "stop" always flushes a last segment, and padded in front with silence
// to whole five-second blocks so that a keepalive line marks its end.
std::vector<float> CaptureAudio(int variant) {
  const std::vector<float> short_speech = ShortSpeech();
  const std::vector<float> long_speech = LoadWavForTest(AudioPath("espeak/en10s.wav"));
  std::vector<float> body = Join(Join(long_speech, SilenceSeconds(1.0)), short_speech);
  if (variant % 2 == 1) body = Join(Join(short_speech, SilenceSeconds(0.8)), body);
  const size_t padded = (body.size() + 79999) / 80000 * 80000;
  return Join(SilenceSeconds(static_cast<double>(padded - body.size()) / 16000.0), body);
}

struct CaptureLedger {
  std::vector<long> segment_ids;             // from the "[VAD] seg" lines, in order
  std::vector<std::pair<long, long>> ranges;  // (segment_start_id, segment_id) of each result
};

// Splits the session's lines into captures at each "Capture started".
std::vector<CaptureLedger> Ledgers(const std::vector<std::string>& lines) {
  std::vector<CaptureLedger> ledgers;
  for (const auto& line : lines) {
    if (line == LogLine("Capture started")) ledgers.emplace_back();
    if (ledgers.empty()) continue;
    if (line.find("[VAD] seg source=") != std::string::npos) {
      ledgers.back().segment_ids.push_back(VadSegmentId(line));
    }
    if (IsResultLine(line)) {
      ledgers.back().ranges.emplace_back(JsonIntField(line, "segment_start_id"),
                                         JsonIntField(line, "segment_id"));
    }
  }
  return ledgers;
}

TEST(LiveSoak, ManyCapturesKeepSegmentIdsConsecutiveAndEveryIdDecodedOnce) {
  constexpr int kCaptures = 12;
  auto process = StartLive(Concat(ManualRealtimeArgs(), {"--second-pass-every", "2"}));
  uint64_t total_samples = 0;
  for (int capture = 1; capture <= kCaptures; ++capture) {
    SCOPED_TRACE(capture);
    const size_t from = process->Lines().size();
    ASSERT_TRUE(StartCaptureAndWait(process.get(), capture,
                                    {"online-reset-applied seq=" + std::to_string(capture)}));
    const std::vector<float> audio = CaptureAudio(capture);
    ASSERT_TRUE(process->WriteAudioS16(audio));
    total_samples += audio.size();
    ASSERT_GE(process->WaitForLine(
                  [&](const std::string& line) {
                    return line == KeepaliveLine(static_cast<int>(total_samples / 16000));
                  },
                  seconds(120), from),
              0);
    process->WriteCommand("stop");
    // The flushed last segment is forced out as the capture's last result.
    const int flushed = process->WaitForLineContaining("[VAD] seg source=flush", seconds(60), from);
    ASSERT_GE(flushed, 0) << JoinLines(process->Lines());
    const long last_id = VadSegmentId(process->Lines()[flushed]);
    ASSERT_GE(process->WaitForLine(
                  [&](const std::string& line) {
                    return IsResultLine(line) && JsonIntField(line, "segment_id") == last_id;
                  },
                  seconds(60), flushed),
              0);
  }
  QuitAndExpectCleanEnd(process.get());

  const std::vector<CaptureLedger> ledgers = Ledgers(process->Lines());
  ASSERT_EQ(ledgers.size(), static_cast<size_t>(kCaptures));
  for (size_t c = 0; c < ledgers.size(); ++c) {
    SCOPED_TRACE(c + 1);
    const CaptureLedger& ledger = ledgers[c];
    ASSERT_GE(ledger.segment_ids.size(), 3u);
    for (size_t i = 0; i < ledger.segment_ids.size(); ++i) {
      EXPECT_EQ(ledger.segment_ids[i], static_cast<long>(i + 1));
    }
    // Results cover 1..last without gaps or overlaps, in order.
    long next = 1;
    for (const auto& [first, last] : ledger.ranges) {
      EXPECT_EQ(first, next);
      EXPECT_GE(last, first);
      next = last + 1;
    }
    EXPECT_EQ(next, static_cast<long>(ledger.segment_ids.size()) + 1);
  }
}

}  // namespace
}  // namespace kerrow::testing
