#include "offline/manual_segment.h"

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "audio/audio_buffer.h"
#include "common/sample_time.h"
#include "events/event_emitter.h"
#include "events/segment_result.h"
#include "events/transcript_records.h"
#include "offline/windowed_decode.h"
#include "text/punc_refine.h"

namespace kerrow {
namespace {

// Shorter captures are a click of the start/stop buttons, not speech.
constexpr double kMinSegmentSeconds = 0.05;

}  // namespace

bool DecodeAndEmitManualSegment(const Options& options,
                                OfflineDecoderBackend* decoder,
                                PuncBackend* punc, EventEmitter* emitter,
                                AudioBuffer* audio,
                                std::atomic<bool>* pending_stop_flush) {
  std::vector<float> samples;
  {
    std::lock_guard<std::mutex> lock(audio->mutex);
    if (audio->samples.empty()) {
      emitter->EmitLog("No audio captured in this segment");
      return true;
    }
    // Taking the samples out leaves the buffer empty for the next segment.
    samples = std::move(audio->samples);
    audio->samples.clear();
  }

  const double duration = SamplesToSeconds(static_cast<int64_t>(samples.size()), options.sample_rate);
  if (duration < kMinSegmentSeconds) {
    emitter->EmitLog("Recording too short, skipping decode");
    return true;
  }

  std::string text;
  std::string error;
  if (!DecodeWithinRecognizerWindow(options, decoder, samples, &text, &error)) {
    emitter->EmitError("Second-pass decode failed: " + error);
    return false;
  }
  if (!HasContentText(text)) {
    emitter->EmitLog("Second-pass decode finished with empty text");
    return true;
  }

  const std::string refined =
      RefineRealtimeTextWithPunc(punc, emitter, text, /*is_final=*/false);
  if (!HasContentText(refined)) {
    emitter->EmitLog("Second-pass decode finished with punctuation-only text");
    return true;
  }

  SegmentResult segment;
  segment.start_time = 0.0;
  segment.end_time = duration;
  segment.text = refined;
  emitter->EmitRawJson(BuildSecondPassResultJson(
      {segment}, /*offline_2pass=*/false, /*is_final=*/false,
      /*segment_id=*/-1, /*segment_start_id=*/-1, /*segment_count=*/-1,
      /*merged_text=*/nullptr, options.session_id));

  // The segment that a stop asked for is out; a pending flush request for the
  // PCM thread would only decode an empty buffer again.
  if (pending_stop_flush != nullptr) pending_stop_flush->store(false);
  return true;
}

}  // namespace kerrow
