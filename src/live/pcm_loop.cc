#include "live/pcm_loop.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "audio/audio_buffer.h"
#include "audio/pcm_pipe_reader.h"
#include "common/sample_time.h"
#include "engine/offline_decoder_backend.h"
#include "engine/online_backend.h"
#include "engine/vad_backend.h"
#include "events/event_emitter.h"
#include "events/number_format.h"
#include "events/transcript_records.h"
#include "live/capture_buffers.h"
#include "live/pcm_loop_settings.h"
#include "live/realtime_batch.h"
#include "live/recent_audio.h"
#include "live/single_model_streaming.h"
#include "offline/manual_segment.h"
#include "offline/offline_two_pass.h"
#include "text/punc_refine.h"

namespace kerrow {

namespace {

// How long one wait for audio lasts before the loop looks at its requests and
// the quit flag again.
constexpr int kAudioPollMs = 10;
// The first-partial diagnostic shows only the head of long texts.
constexpr size_t kDiagTextBytes = 64;

const char* Bit(bool value) { return value ? "1" : "0"; }

std::string Seconds3(int64_t samples, int rate) {
  return FormatFixed(SamplesToSeconds(samples, rate), 3) + "s";
}

AudioFormat PipeFormat(const Options& options) {
  return options.audio_format == "f32le" ? AudioFormat::f32le : AudioFormat::s16le;
}

// The loop must never block in a read: while the host pauses its audio, a
// "stop" still has to flush the capture and "quit" still has to end the
// thread. With a non-blocking descriptor the reader keeps what has arrived of
// a chunk and reports "would block" instead of waiting for the rest.
void MakeNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

// Sleeps until the descriptor has bytes or the poll interval has passed.
void WaitForAudio(int fd) {
  pollfd waiting{fd, POLLIN, 0};
  poll(&waiting, 1, kAudioPollMs);
}

// The PCM thread's state for one run: backends, per-loop settings and the
// per-capture state that "start" empties.
class PcmSession {
 public:
  PcmSession(const Options& options, OnlineBackend* online, OfflineDecoderBackend* decoder,
             PuncBackend* punc, VadBackend* vad, DiarizationBackend* diarization,
             SpeakerIdentifier* speaker_id, EventEmitter* emitter, SharedState* state,
             AudioBuffer* audio)
      : options_(options),
        settings_(ComputePcmLoopSettings(options)),
        online_(online),
        decoder_(decoder),
        punc_(punc),
        vad_(vad),
        diarization_(diarization),
        speaker_id_(speaker_id),
        emitter_(emitter),
        state_(state),
        audio_(audio),
        reader_(options.audio_fd, PipeFormat(options)),
        buffers_(CaptureBuffersFor(options, ManualRealtimeWithVad())),
        batches_(options, decoder, punc, emitter),
        streamer_(options, settings_, decoder, emitter, state, audio,
                  buffers_.release_committed) {}

  void Run() {
    MakeNonBlocking(options_.audio_fd);
    while (!state_->quit.load()) {
      ApplyPendingResets("loop-top");
      HandleStopRequests();
      bool eof = false;
      if (!reader_.ReadChunk(settings_.chunk_samples, &chunk_, &eof)) {
        emitter_->EmitError("PCM pipe read failed");
        state_->quit.store(true);
        return;
      }
      if (eof) {
        state_->pcm_closed.store(true);
        Log("PCM pipe closed");
        state_->quit.store(true);
        return;
      }
      if (chunk_.empty()) {
        // Nothing complete yet: wait for more audio, at most one poll interval.
        WaitForAudio(options_.audio_fd);
        continue;
      }
      ProcessChunk();
    }
  }

 private:
  bool ManualRealtimeWithVad() const {
    return options_.manual_realtime && vad_ != nullptr && vad_->IsReady();
  }
  bool OnlineReady() const { return online_ != nullptr && online_->IsReady(); }
  void Log(const std::string& message) { emitter_->EmitLog(message); }
  int SessionId() const { return options_.session_id; }

  void ApplyPendingResets(const char* where) {
    const std::string at = where != nullptr ? where : "unknown";
    if (state_->pending_pcm_clear.exchange(false)) {
      // Bytes of the previous capture still in the carry-over must not open
      // the new one.
      const size_t dropped = reader_.ClearPending();
      std::string line = "[SESSION-DIAG] pcm-pending-cleared at=" + at +
                         " dropped_bytes=" + std::to_string(dropped);
      if (dropped > 0) {
        const size_t bytes_per_sample = PipeFormat(options_) == AudioFormat::f32le ? 4 : 2;
        line += " dropped_samples~=" + std::to_string(dropped / bytes_per_sample);
      }
      Log(line);
    }
    if (state_->pending_session_reset.exchange(false)) {
      const uint64_t seq = state_->session_seq.load();
      ResetCaptureState();
      state_->reset_applied_seq.store(seq);
      Log("[SESSION-DIAG] session-reset-consumed seq=" + std::to_string(seq) + " at=" + at +
          " pending_online_reset=" + Bit(state_->pending_online_reset.load()) +
          " pending_vad_reset=" + Bit(state_->pending_vad_reset.load()));
    }
    if (ManualRealtimeWithVad() && state_->pending_vad_reset.exchange(false)) {
      std::string error;
      if (vad_->Reset(&error)) {
        Log("[SESSION-DIAG] vad-reset-applied seq=" + std::to_string(state_->session_seq.load()) +
            " at=" + at);
      } else {
        Log("VAD reset failed: " + error);
      }
    }
    if (state_->pending_online_reset.exchange(false) && OnlineReady()) {
      std::string error;
      if (online_->Reset(&error)) {
        Log("[SESSION-DIAG] online-reset-applied seq=" +
            std::to_string(state_->session_seq.load()) + " at=" + at);
      } else {
        Log("Online reset failed: " + error);
      }
    }
  }

  void ResetCaptureState() {
    batches_.Clear();
    streamer_.Reset();
    recent_audio_.Clear();
    previous_segment_end_ = 0;
    last_partial_.clear();
    first_chunk_logged_seq_ = 0;
    first_partial_logged_seq_ = 0;
  }

  void HandleStopRequests() {
    if (options_.manual_realtime) {
      if (ManualRealtimeWithVad()) {
        if (state_->pending_stop_flush.exchange(false)) FlushAtStop();
      } else if (state_->pending_stop_flush.exchange(false)) {
        // Without a VAD the capture was only buffered: decode it whole.
        DecodeAndEmitManualSegment(options_, decoder_, punc_, emitter_, audio_,
                                   &state_->pending_stop_flush);
      }
    }
    if (state_->pending_offline_decode.exchange(false)) {
      if (!DecodeAndEmitOffline2PassFull(options_, decoder_, punc_, diarization_, speaker_id_,
                                         emitter_, audio_)) {
        Log("offline_2pass requested but failed");
      }
    }
  }

  void FlushAtStop() {
    std::string error;
    if (!vad_->Flush(&error)) {
      Log("VAD flush failed: " + error);
      return;
    }
    if (options_.single_model_streaming) {
      streamer_.CommitAtStop();
      DiscardVadSegments();
      return;
    }
    VadSegment segment;
    while (vad_->PopSegment(&segment, nullptr)) HandleVadSegment(std::move(segment), "flush");
    batches_.DecodePendingBatch(/*force=*/true);
    if (OnlineReady()) FinishOnlineStream();
    last_partial_.clear();
  }

  // The streaming recognizer holds back its last frames until it is told that
  // no more audio follows; whatever they add becomes the capture's last partial.
  void FinishOnlineStream() {
    std::string text;
    std::string error;
    if (!online_->InputFinishedAndDecode(&text, &error)) {
      Log("Online finalize failed: " + error);
    } else if (!text.empty() && text != last_partial_) {
      emitter_->EmitRawJson(BuildFirstPassEventJson(
          static_cast<int>(state_->next_segment_id.load()), text, /*is_final=*/false, SessionId()));
    }
    error.clear();
    if (!online_->Reset(&error)) Log("Online reset failed: " + error);
  }

  void ProcessChunk() {
    const uint64_t chunk_size = chunk_.size();
    const uint64_t new_total = state_->total_samples.fetch_add(chunk_size) + chunk_size;
    if (state_->capturing.load()) StoreAndRecognize(chunk_size);
    LogKeepalive(new_total);
  }

  void StoreAndRecognize(uint64_t chunk_size) {
    ApplyPendingResets("pre-capture");
    const uint64_t previous_captured = state_->captured_samples.fetch_add(chunk_size);
    const uint64_t seq = state_->session_seq.load();
    if (previous_captured == 0 && seq != first_chunk_logged_seq_) {
      Log("[SESSION-DIAG] first-chunk seq=" + std::to_string(seq) +
          " reset_applied_seq=" + std::to_string(state_->reset_applied_seq.load()) +
          " chunk_samples=" + std::to_string(chunk_size) +
          " pending_session_reset=" + Bit(state_->pending_session_reset.load()) +
          " pending_online_reset=" + Bit(state_->pending_online_reset.load()) +
          " pending_vad_reset=" + Bit(state_->pending_vad_reset.load()));
      first_chunk_logged_seq_ = seq;
    }
    StoreCapturedChunk();
    if (!ManualRealtimeWithVad()) return;
    if (!options_.single_model_streaming && OnlineReady()) RunFirstPass();
    if (KeepsRecentAudio()) recent_audio_.Append(chunk_);
    std::string error;
    if (!vad_->AcceptWaveform(chunk_, &error)) Log("VAD accept failed: " + error);
    if (options_.single_model_streaming) {
      streamer_.OnChunk(vad_->Detected());
      // Only the speech flag matters on this path; the segments are not used.
      DiscardVadSegments();
      return;
    }
    VadSegment segment;
    while (vad_->PopSegment(&segment, nullptr)) HandleVadSegment(std::move(segment), "stream");
    if (KeepsRecentAudio() && !vad_->Detected()) {
      recent_audio_.ReleaseBefore(recent_audio_.end() - settings_.recent_audio_keep);
    }
  }

  // Only the realtime second pass reads the audio before a segment.
  bool KeepsRecentAudio() const {
    return !options_.single_model_streaming && settings_.batch_size > 0;
  }

  // The audio in front of a segment that its decode starts with: --vad-lookback
  // of it, never reaching back into the previous segment.
  std::vector<float> TakeLookback(int64_t start, int64_t end) {
    const int64_t from = std::max(start - settings_.lookback, previous_segment_end_);
    std::vector<float> lookback = recent_audio_.Copy(from, start);
    previous_segment_end_ = end;
    recent_audio_.ReleaseBefore(end);
    return lookback;
  }

  void StoreCapturedChunk() {
    if (!buffers_.capture_samples && !buffers_.samples) return;
    std::lock_guard<std::mutex> lock(audio_->mutex);
    if (buffers_.capture_samples) {
      audio_->capture_samples.insert(audio_->capture_samples.end(), chunk_.begin(), chunk_.end());
    }
    // Without the realtime path, "stop" decodes the capture as one segment.
    if (buffers_.samples) {
      audio_->samples.insert(audio_->samples.end(), chunk_.begin(), chunk_.end());
    }
  }

  void RunFirstPass() {
    std::string text;
    std::string error;
    if (!online_->AcceptAndDecode(chunk_, &text, /*is_endpoint=*/nullptr, &error)) {
      Log("Online accept/decode failed: " + error);
      return;
    }
    // Segments come from the VAD alone, so the recognizer's endpoint is not asked.
    if (text.empty() || text == last_partial_) return;
    const uint64_t seq = state_->session_seq.load();
    const uint32_t segment_id = state_->next_segment_id.load();
    if (seq != first_partial_logged_seq_) {
      const std::string shown =
          text.size() > kDiagTextBytes ? text.substr(0, kDiagTextBytes) + "..." : text;
      Log("[SESSION-DIAG] first-partial seq=" + std::to_string(seq) +
          " reset_applied_seq=" + std::to_string(state_->reset_applied_seq.load()) +
          " seg_id=" + std::to_string(segment_id) +
          " captured_samples=" + std::to_string(state_->captured_samples.load()) + " text=\"" +
          shown + "\"");
      first_partial_logged_seq_ = seq;
    }
    emitter_->EmitRawJson(BuildFirstPassEventJson(static_cast<int>(segment_id), text,
                                                  /*is_final=*/false, SessionId()));
    last_partial_ = text;
  }

  // A VAD segment closes the current partial: its punctuated form and the
  // closing first-pass event go out under a fresh id, then the audio waits for
  // the second pass.
  void HandleVadSegment(VadSegment segment, const char* source) {
    const int id = static_cast<int>(state_->next_segment_id.fetch_add(1));
    const int64_t start = segment.start < 0 ? 0 : segment.start;
    const int64_t count = static_cast<int64_t>(segment.samples.size());
    const int rate = settings_.sample_rate;
    Log(std::string("[VAD] seg source=") + source + " id=" + std::to_string(id) +
        " start=" + Seconds3(start, rate) + " end=" + Seconds3(start + count, rate) +
        " raw=" + Seconds3(count, rate) + " start_sample=" + std::to_string(start) +
        " end_sample=" + std::to_string(start + count) + " raw_samples=" + std::to_string(count));
    FinishUtteranceText();
    EmitPunctuatedForPartial(punc_, emitter_, id, last_partial_, SessionId());
    emitter_->EmitRawJson(
        BuildFirstPassEventJson(id, last_partial_, /*is_final=*/false, SessionId()));
    StartNextUtterance();
    if (settings_.batch_size > 0) {
      PendingRealtimeSegment pending;
      pending.segment_id = id;
      pending.start_sample = static_cast<int32_t>(start);
      pending.samples = std::move(segment.samples);
      pending.lookback = TakeLookback(start, start + count);
      batches_.Add(std::move(pending));
    } else if (!second_pass_disabled_logged_) {
      Log("[M3] realtime 2pass disabled by config (second_pass_every=0)");
      second_pass_disabled_logged_ = true;
    }
  }

  // Streaming models hold back their last frames until told that the input
  // ended; finishing the stream here gives the closing records the whole
  // utterance.
  void FinishUtteranceText() {
    if (!OnlineReady()) return;
    std::string text;
    std::string error;
    if (!online_->InputFinishedAndDecode(&text, &error)) {
      Log("Online finalize failed: " + error);
    } else if (!text.empty()) {
      last_partial_ = text;
    }
  }

  // The closed segment's text is out; the next segment's partials must hold
  // only its own words, or each partial (and the punctuation model's input)
  // would grow with every utterance of the capture.
  void StartNextUtterance() {
    last_partial_.clear();
    if (!OnlineReady()) return;
    std::string error;
    if (!online_->Reset(&error)) Log("Online reset failed: " + error);
  }

  void DiscardVadSegments() {
    VadSegment segment;
    while (vad_->PopSegment(&segment, nullptr)) {
    }
  }

  void LogKeepalive(uint64_t total) {
    const uint64_t period = settings_.keepalive_period;
    if (period == 0) return;
    const uint64_t k = total / period;
    if (k <= last_keepalive_) return;
    last_keepalive_ = k;
    Log("PCM keepalive: received " +
        FormatSixDecimals(SamplesToSeconds(static_cast<int64_t>(total), settings_.sample_rate)) + "s audio");
  }

  const Options& options_;
  const PcmLoopSettings settings_;
  OnlineBackend* online_;
  OfflineDecoderBackend* decoder_;
  PuncBackend* punc_;
  VadBackend* vad_;
  DiarizationBackend* diarization_;
  SpeakerIdentifier* speaker_id_;
  EventEmitter* emitter_;
  SharedState* state_;
  AudioBuffer* audio_;

  PcmPipeReader reader_;
  std::vector<float> chunk_;
  uint64_t last_keepalive_ = 0;
  bool second_pass_disabled_logged_ = false;

  const CaptureBufferUse buffers_;

  // Per capture, emptied by a session reset.
  RealtimeBatchQueue batches_;
  SingleModelStreamer streamer_;
  std::string last_partial_;
  // The newest captured audio and where the last closed segment ended: the
  // source of each segment's lookback.
  RecentAudio recent_audio_;
  int64_t previous_segment_end_ = 0;
  uint64_t first_chunk_logged_seq_ = 0;
  uint64_t first_partial_logged_seq_ = 0;
};

}  // namespace

void PcmLoop(const Options& options, OnlineBackend* online, OfflineDecoderBackend* decoder,
             PuncBackend* punc, VadBackend* vad, DiarizationBackend* diarization,
             SpeakerIdentifier* speaker_id, EventEmitter* emitter, SharedState* state,
             AudioBuffer* audio) {
  if (emitter == nullptr || state == nullptr || audio == nullptr) return;
  PcmSession session(options, online, decoder, punc, vad, diarization, speaker_id, emitter, state,
                     audio);
  session.Run();
}

}  // namespace kerrow
