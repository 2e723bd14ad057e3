#include "live/single_model_streaming.h"

#include <algorithm>

#include "audio/audio_buffer.h"
#include "common/sample_time.h"
#include "engine/offline_decoder_backend.h"
#include "events/event_emitter.h"
#include "events/segment_result.h"
#include "events/transcript_records.h"
#include "live/token_word_start.h"

namespace kerrow {

namespace {

std::string JoinTokens(const std::vector<std::string>& tokens, size_t from, size_t to) {
  std::string text;
  for (size_t i = from; i < to && i < tokens.size(); ++i) text += tokens[i];
  return text;
}

size_t CommonPrefixLength(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  const size_t limit = std::min(a.size(), b.size());
  size_t length = 0;
  while (length < limit && a[length] == b[length]) ++length;
  return length;
}

}  // namespace

size_t StableCommitEnd(const std::vector<std::string>& previous_tokens,
                       const std::vector<std::string>& tokens,
                       const std::vector<int64_t>& boundaries, size_t committed,
                       int64_t newest_allowed) {
  const size_t stable = CommonPrefixLength(previous_tokens, tokens);
  size_t end = committed;
  for (size_t k = committed + 1; k < tokens.size(); ++k) {
    if (k > stable) break;
    if (k >= boundaries.size() || boundaries[k] > newest_allowed) break;
    // Ending anywhere else would cut a word in two results.
    if (TokenStartsWord(tokens[k])) end = k;
  }
  return end;
}

SingleModelStreamer::SingleModelStreamer(const Options& options, const PcmLoopSettings& settings,
                                         OfflineDecoderBackend* decoder, EventEmitter* emitter,
                                         SharedState* state, AudioBuffer* audio,
                                         bool release_committed)
    : options_(options),
      settings_(settings),
      decoder_(decoder),
      emitter_(emitter),
      state_(state),
      audio_(audio),
      release_committed_(release_committed) {}

void SingleModelStreamer::Reset() {
  released_ = 0;
  window_start_ = 0;
  committed_tokens_ = 0;
  last_decode_position_ = 0;
  last_speech_position_ = 0;
  speech_active_ = false;
  previous_tokens_.clear();
  last_partial_.clear();
}

int64_t SingleModelStreamer::CaptureLength() const {
  std::lock_guard<std::mutex> lock(audio_->mutex);
  return released_ + static_cast<int64_t>(audio_->capture_samples.size());
}

std::vector<float> SingleModelStreamer::CopyCapture(int64_t from, int64_t to) const {
  std::lock_guard<std::mutex> lock(audio_->mutex);
  const int64_t size = static_cast<int64_t>(audio_->capture_samples.size());
  // "start" may have emptied the capture since the length was read.
  from = std::clamp<int64_t>(from - released_, 0, size);
  to = std::clamp<int64_t>(to - released_, from, size);
  return std::vector<float>(audio_->capture_samples.begin() + from,
                            audio_->capture_samples.begin() + to);
}

int64_t SingleModelStreamer::TokenSamplePosition(float seconds) const {
  return window_start_ + SecondsToSamples(seconds, settings_.sample_rate);
}

std::vector<int64_t> SingleModelStreamer::TokenBoundaries(const std::vector<float>& timestamps,
                                                          size_t token_count,
                                                          int64_t capture_length) const {
  std::vector<int64_t> boundaries;
  boundaries.reserve(token_count + 1);
  for (size_t i = 0; i < token_count; ++i) boundaries.push_back(TokenSamplePosition(timestamps[i]));
  boundaries.push_back(capture_length);
  return boundaries;
}

void SingleModelStreamer::OnChunk(bool speech_detected) {
  const int64_t capture_length = CaptureLength();
  if (speech_detected) {
    last_speech_position_ = capture_length;
    speech_active_ = true;
  }

  // A "set single-partial-interval" takes effect here, on the next chunk.
  const int64_t step = std::max<uint32_t>(state_->single_partial_step_samples.load(), 1);
  const bool decoder_ready = decoder_ != nullptr && decoder_->IsReady();
  if (decoder_ready && speech_detected && window_start_ < capture_length &&
      capture_length - last_decode_position_ >= step) {
    DecodePartial(capture_length);
  }

  // The VAD lowers its flag only after its own minimum silence: the utterance
  // has ended now, and waiting any longer would only delay its result.
  if (!speech_detected && speech_active_ && last_speech_position_ > window_start_ &&
      last_speech_position_ <= capture_length) {
    CommitAll(last_speech_position_);
    speech_active_ = false;
  }
  if (!speech_detected && !speech_active_) SkipPause(capture_length);
}

void SingleModelStreamer::SkipPause(int64_t capture_length) {
  // Between utterances the window holds no uncommitted speech. Left where the
  // last commit put it, it would grow with the pause: the next utterance's
  // first decode would cover the whole pause (slower, and past the window cap
  // it commits the utterance's first word on its own), and the buffer would
  // keep it. Only the lead-in that the VAD's late flag and the lookback need
  // stays in front of the speech to come; every decode pays for what is
  // kept, so there is no margin beyond it.
  const int64_t lead_in_start = capture_length - settings_.speech_lead_in;
  if (lead_in_start > window_start_) RestartWindowAt(lead_in_start);
}

void SingleModelStreamer::DecodePartial(int64_t capture_length) {
  last_decode_position_ = capture_length;
  DecodedTokens decoded;
  std::string error;
  if (!decoder_->DecodeWithTokens(CopyCapture(window_start_, capture_length), &decoded, &error)) {
    if (emitter_ != nullptr) emitter_->EmitLog("[single-model] partial decode failed: " + error);
    return;
  }

  const std::string partial = JoinTokens(decoded.tokens, committed_tokens_, decoded.tokens.size());
  if (!partial.empty() && partial != last_partial_) {
    if (emitter_ != nullptr) {
      emitter_->EmitRawJson(BuildFirstPassEventJson(static_cast<int>(state_->next_segment_id.load()),
                                                    partial, /*is_final=*/false,
                                                    options_.session_id));
    }
    last_partial_ = partial;
  }

  CommitStablePrefix(decoded.tokens, decoded.timestamps, capture_length);
  previous_tokens_ = decoded.tokens;
  CapWindow(decoded.tokens, decoded.timestamps, capture_length);
}

void SingleModelStreamer::CommitStablePrefix(const std::vector<std::string>& tokens,
                                             const std::vector<float>& timestamps,
                                             int64_t capture_length) {
  if (settings_.trim_cap <= 0 || timestamps.size() != tokens.size() ||
      tokens.size() <= committed_tokens_) {
    return;
  }
  const std::vector<int64_t> boundaries =
      TokenBoundaries(timestamps, tokens.size(), capture_length);
  // Text that close to the newest audio may still change with the next chunk.
  const int64_t newest_allowed =
      capture_length < settings_.trim_keep ? 0 : capture_length - settings_.trim_keep;
  const size_t end_token =
      StableCommitEnd(previous_tokens_, tokens, boundaries, committed_tokens_, newest_allowed);
  if (end_token <= committed_tokens_) return;
  const int64_t start = boundaries[committed_tokens_];
  const int64_t end = boundaries[end_token];
  // Short chunks are not worth a result of their own; they wait to grow.
  if (end - start <= settings_.trim_cap) return;
  EmitCommitted(JoinTokens(tokens, committed_tokens_, end_token), start, end);
  committed_tokens_ = end_token;
}

void SingleModelStreamer::CapWindow(const std::vector<std::string>& tokens,
                                    const std::vector<float>& timestamps,
                                    int64_t capture_length) {
  if (capture_length - window_start_ <= settings_.max_window) return;
  const bool can_slide = committed_tokens_ > 0 && committed_tokens_ < tokens.size() &&
                         timestamps.size() == tokens.size();
  if (can_slide) {
    // The committed tokens' audio leaves the window; the next decode starts at
    // the first token nobody has seen as a result yet.
    MoveWindowStart(TokenSamplePosition(timestamps[committed_tokens_]));
    committed_tokens_ = 0;
    previous_tokens_.clear();
    last_partial_.clear();
    return;
  }
  if (CommitUpToLastWordStart(tokens, timestamps)) return;
  CommitAll(capture_length);
}

bool SingleModelStreamer::CommitUpToLastWordStart(const std::vector<std::string>& tokens,
                                                  const std::vector<float>& timestamps) {
  if (timestamps.size() != tokens.size()) return false;
  size_t word_start = tokens.size();
  for (size_t k = tokens.size(); k-- > committed_tokens_ + 1;) {
    if (TokenStartsWord(tokens[k])) {
      word_start = k;
      break;
    }
  }
  if (word_start == tokens.size()) return false;
  // The window is full and nothing is stable: commit the words that are
  // complete rather than cutting the window (and a word) at the newest audio.
  const int64_t start = TokenSamplePosition(timestamps[committed_tokens_]);
  const int64_t end = TokenSamplePosition(timestamps[word_start]);
  EmitCommitted(JoinTokens(tokens, committed_tokens_, word_start), start, end);
  RestartWindowAt(end);
  return true;
}

void SingleModelStreamer::CommitAtStop() {
  const int64_t capture_length = CaptureLength();
  if (speech_active_ && capture_length > window_start_) CommitAll(capture_length);
  speech_active_ = false;
}

void SingleModelStreamer::CommitAll(int64_t end) {
  if (decoder_ != nullptr && decoder_->IsReady() && window_start_ < end) {
    const std::vector<float> samples = CopyCapture(window_start_, end);
    DecodedTokens decoded;
    // A failed decode drops this stretch: the window moves on regardless, so
    // that one bad stretch cannot stall the session.
    if (!samples.empty() && decoder_->DecodeWithTokens(samples, &decoded, nullptr)) {
      const bool timed = decoded.timestamps.size() == decoded.tokens.size();
      const int64_t start = (committed_tokens_ < decoded.tokens.size() && timed)
                                ? TokenSamplePosition(decoded.timestamps[committed_tokens_])
                                : window_start_;
      EmitCommitted(JoinTokens(decoded.tokens, committed_tokens_, decoded.tokens.size()), start,
                    end);
    }
  }
  RestartWindowAt(end);
}

void SingleModelStreamer::MoveWindowStart(int64_t position) {
  window_start_ = position;
  if (!release_committed_) return;
  // Audio before the window has been committed and is never decoded again.
  std::lock_guard<std::mutex> lock(audio_->mutex);
  std::vector<float>& capture = audio_->capture_samples;
  const int64_t drop =
      std::clamp<int64_t>(position - released_, 0, static_cast<int64_t>(capture.size()));
  capture.erase(capture.begin(), capture.begin() + drop);
  released_ += drop;
}

void SingleModelStreamer::RestartWindowAt(int64_t position) {
  MoveWindowStart(position);
  committed_tokens_ = 0;
  last_decode_position_ = position;
  previous_tokens_.clear();
  last_partial_.clear();
}

void SingleModelStreamer::EmitCommitted(const std::string& text, int64_t start, int64_t end) {
  if (end <= start || !HasContentText(text)) return;
  SegmentResult result;
  result.start_time = SamplesToSeconds(start, settings_.sample_rate);
  result.end_time = SamplesToSeconds(end, settings_.sample_rate);
  result.text = text;
  const int id = static_cast<int>(state_->next_segment_id.fetch_add(1));
  if (emitter_ != nullptr) {
    emitter_->EmitRawJson(BuildSecondPassResultJson({result}, /*offline_2pass=*/false,
                                                    /*is_final=*/false, id, id, 1,
                                                    /*merged_text=*/nullptr, options_.session_id));
  }
}

}  // namespace kerrow
