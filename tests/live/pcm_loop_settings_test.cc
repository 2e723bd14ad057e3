#include "live/pcm_loop_settings.h"

#include <gtest/gtest.h>

namespace kerrow::testing {
namespace {

TEST(PcmLoopSettings, DefaultsAt16k) {
  const PcmLoopSettings settings = ComputePcmLoopSettings(Options{});
  EXPECT_EQ(settings.sample_rate, 16000);
  EXPECT_EQ(settings.chunk_samples, 1600u);
  EXPECT_EQ(settings.keepalive_period, 80000u);
  EXPECT_EQ(settings.batch_size, 1);
  EXPECT_EQ(settings.trim_cap, 48000);
  EXPECT_EQ(settings.trim_keep, 19200);
  EXPECT_EQ(settings.max_window, 112000);
  EXPECT_EQ(settings.lookback, 3200);
  // Lookback, the VAD's minimum speech (0.25 s), two 512-sample windows...
  EXPECT_EQ(settings.speech_lead_in, 3200 + 4000 + 1024);
  // ... and a second.
  EXPECT_EQ(settings.recent_audio_keep, 3200 + 4000 + 1024 + 16000);
}

TEST(PcmLoopSettings, ChunkDurationBelowTwentyMsIsRaisedTo320Samples) {
  Options options;
  options.chunk_duration = 0.01;
  EXPECT_EQ(ComputePcmLoopSettings(options).chunk_samples, 320u);
}

TEST(PcmLoopSettings, NegativeSecondPassEveryMeansDisabled) {
  Options options;
  options.second_pass_every = -3;
  EXPECT_EQ(ComputePcmLoopSettings(options).batch_size, 0);
}

TEST(PcmLoopSettings, SmallMaxWindowGivesTrimCapPlusKeepPlusOne) {
  Options options;
  options.single_max_window = 2.0;
  EXPECT_EQ(ComputePcmLoopSettings(options).max_window, 67201);
}

TEST(PcmLoopSettings, TrimCapZeroDisablesRollingCommit) {
  Options options;
  options.single_trim_cap = 0.0;
  const PcmLoopSettings settings = ComputePcmLoopSettings(options);
  EXPECT_EQ(settings.trim_cap, 0);
  EXPECT_EQ(settings.max_window, 112000);
}

TEST(PcmLoopSettings, NonPositiveKeepAndWindowFallBackToDefaults) {
  Options options;
  options.single_trim_keep = 0.0;
  options.single_max_window = -1.0;
  const PcmLoopSettings settings = ComputePcmLoopSettings(options);
  EXPECT_EQ(settings.trim_keep, 16000);
  EXPECT_EQ(settings.max_window, 112000);
}

TEST(PcmLoopSettings, LiveLookbackIsCappedSoThatTheLoopNeverKeepsTheWholeCapture) {
  Options options;
  options.vad_lookback = 1e15;
  options.vad_min_speech = 1e15;
  const PcmLoopSettings settings = ComputePcmLoopSettings(options);
  EXPECT_EQ(settings.lookback, 30 * 16000);
  EXPECT_EQ(settings.speech_lead_in, 30 * 16000 + 30 * 16000 + 1024);
  EXPECT_EQ(settings.recent_audio_keep, 30 * 16000 + 30 * 16000 + 1024 + 16000);
}

TEST(PcmLoopSettings, SampleRateBelowOneMeans16k) {
  Options options;
  options.sample_rate = 0;
  const PcmLoopSettings settings = ComputePcmLoopSettings(options);
  EXPECT_EQ(settings.sample_rate, 16000);
  EXPECT_EQ(settings.chunk_samples, 1600u);
}

}  // namespace
}  // namespace kerrow::testing
