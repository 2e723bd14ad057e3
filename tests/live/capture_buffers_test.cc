#include "live/capture_buffers.h"

#include <gtest/gtest.h>

namespace kerrow::testing {
namespace {

Options Manual(bool realtime, bool offline_2pass, bool single_model) {
  Options options;
  options.manual_mode = true;
  options.manual_realtime = realtime;
  options.offline_2pass = offline_2pass;
  options.single_model_streaming = single_model;
  return options;
}

void ExpectUse(const CaptureBufferUse& use, bool samples, bool capture, bool release) {
  EXPECT_EQ(use.samples, samples);
  EXPECT_EQ(use.capture_samples, capture);
  EXPECT_EQ(use.release_committed, release);
}

TEST(CaptureBuffers, DefaultModeKeepsNothingSinceNothingDecodesAtStop) {
  ExpectUse(CaptureBuffersFor(Options{}, false), false, false, false);
}

TEST(CaptureBuffers, ManualModeKeepsOnlyTheSegmentForTheStopDecode) {
  ExpectUse(CaptureBuffersFor(Manual(false, false, false), false), true, false, false);
}

TEST(CaptureBuffers, ManualRealtimeKeepsNothing) {
  ExpectUse(CaptureBuffersFor(Manual(true, false, false), true), false, false, false);
}

TEST(CaptureBuffers, ManualRealtimeWithoutAVadFallsBackToTheStopDecode) {
  ExpectUse(CaptureBuffersFor(Manual(true, false, false), false), true, false, false);
}

TEST(CaptureBuffers, Offline2passKeepsTheWholeCapture) {
  ExpectUse(CaptureBuffersFor(Manual(true, true, false), true), false, true, false);
  ExpectUse(CaptureBuffersFor(Manual(true, true, false), false), false, true, false);
}

TEST(CaptureBuffers, SingleModelKeepsItsWindowAndReleasesCommittedAudio) {
  ExpectUse(CaptureBuffersFor(Manual(true, false, true), true), false, true, true);
}

TEST(CaptureBuffers, SingleModelWithOffline2passKeepsTheWholeCapture) {
  ExpectUse(CaptureBuffersFor(Manual(true, true, true), true), false, true, false);
}

}  // namespace
}  // namespace kerrow::testing
