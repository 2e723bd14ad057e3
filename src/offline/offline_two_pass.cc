#include "offline/offline_two_pass.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/sample_time.h"
#include "diarization/diarization_backend.h"
#include "engine/offline_decoder_backend.h"
#include "engine/vad_backend.h"
#include "events/event_emitter.h"
#include "events/number_format.h"
#include "events/segment_result.h"
#include "events/transcript_records.h"
#include "live/shared_state.h"
#include "offline/offline_diarization.h"
#include "offline/speaker_assign.h"
#include "offline/vad_grouping.h"
#include "speaker/cluster_identity.h"
#include "speaker/speaker_identifier.h"
#include "text/punc_refine.h"

namespace kerrow {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int32_t kVadWindowSamples = 512;
constexpr float kVadBufferSeconds = 120.0f;

int64_t MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() -
                                                               start)
      .count();
}

std::vector<float> CopySpan(const std::vector<float>& samples,
                            const SampleSpan& span) {
  return std::vector<float>(samples.begin() + span.start,
                            samples.begin() + span.end);
}

// Everything one whole-recording decode carries from step to step.
struct PipelineRun {
  PipelineRun(const Options& run_options, OfflineDecoderBackend* run_decoder,
              PuncBackend* run_punc, EventEmitter* run_emitter,
              const std::vector<float>& run_samples,
              Clock::time_point run_started)
      : options(run_options),
        decoder(run_decoder),
        punc(run_punc),
        emitter(run_emitter),
        samples(run_samples),
        started(run_started) {}

  const Options& options;
  OfflineDecoderBackend* decoder;
  PuncBackend* punc;
  EventEmitter* emitter;
  const std::vector<float>& samples;
  Clock::time_point started;

  std::vector<SegmentResult> results;
  int64_t group_index = 0;
  int64_t asr_decode_ms_sum = 0;
  int64_t punc_group_ms_sum = 0;

  void Log(const std::string& line) const { emitter->EmitLog(line); }

  void AppendIfContent(const SampleSpan& piece, const std::string& text) {
    if (!HasContentText(text)) return;
    SegmentResult segment;
    segment.start_time = SamplesToSeconds(piece.start, options.sample_rate);
    segment.end_time = SamplesToSeconds(piece.end, options.sample_rate);
    segment.text = text;
    results.push_back(std::move(segment));
  }
};

// Moves the bounds of every segment the detector has closed into speech.
void TakeClosedSegments(VadBackend* vad, int64_t total_samples,
                        std::vector<SampleSpan>* speech) {
  VadSegment segment;
  std::string error;
  while (vad->PopSegment(&segment, &error)) {
    if (segment.samples.empty()) continue;
    const int64_t start = std::max<int64_t>(segment.start, 0);
    const int64_t end = std::min<int64_t>(
        start + static_cast<int64_t>(segment.samples.size()), total_samples);
    speech->push_back({start, end});
  }
}

// Runs the VAD over the whole recording. False means "decode in fixed chunks
// instead": no VAD model, or the VAD failed (which is logged).
bool FindSpeech(const PipelineRun& run, std::vector<SampleSpan>* speech) {
  const Options& options = run.options;
  if (options.silero_vad_model.empty()) return false;

  VadInitOptions vad_options;
  vad_options.sample_rate = options.sample_rate;
  vad_options.num_threads = 1;
  vad_options.provider = options.provider_first;
  vad_options.model = options.silero_vad_model;
  vad_options.threshold = static_cast<float>(options.vad_threshold);
  vad_options.min_silence_duration =
      static_cast<float>(options.vad_min_silence);
  vad_options.min_speech_duration = static_cast<float>(options.vad_min_speech);
  vad_options.max_speech_duration =
      static_cast<float>(std::max(options.vad_max_speech, 0.0));
  vad_options.window_size = kVadWindowSamples;
  vad_options.buffer_seconds = kVadBufferSeconds;

  VadBackend vad;
  std::string error;
  if (!vad.Init(vad_options, &error)) {
    run.Log("offline_2pass VAD init failed, fallback to chunk decode: " +
            error);
    return false;
  }

  // Fed in 100 ms blocks, as live audio would arrive. Segments are taken off
  // the detector's queue as soon as it closes them: only their bounds are
  // kept, so their samples never pile up in the queue.
  const size_t block = static_cast<size_t>(
      std::max<int32_t>(options.sample_rate / 10, 1));
  const std::vector<float>& samples = run.samples;
  const int64_t total = static_cast<int64_t>(samples.size());
  std::vector<float> chunk;
  chunk.reserve(block);
  for (size_t pos = 0; pos < samples.size(); pos += block) {
    const size_t end = std::min(pos + block, samples.size());
    chunk.assign(samples.begin() + pos, samples.begin() + end);
    if (!vad.AcceptWaveform(chunk, &error)) {
      run.Log("offline_2pass VAD accept failed, fallback to chunk decode: " +
              error);
      return false;
    }
    TakeClosedSegments(&vad, total, speech);
  }
  if (!vad.Flush(&error)) {
    run.Log("offline_2pass VAD flush failed, fallback to chunk decode: " +
            error);
    return false;
  }
  TakeClosedSegments(&vad, total, speech);
  return true;
}

// Decodes one piece of a VAD group and punctuates it, with its timing lines.
bool DecodeGroupPiece(PipelineRun* run, const SampleSpan& piece) {
  const int64_t index = run->group_index++;
  const std::vector<float> audio = CopySpan(run->samples, piece);

  std::string text;
  std::string error;
  const Clock::time_point decode_start = Clock::now();
  const bool decoded = run->decoder->Decode(audio, &text, &error);
  const int64_t decode_ms = MsSince(decode_start);
  run->asr_decode_ms_sum += decode_ms;
  run->Log("[TIMING][ASR_DECODE] group_idx=" + std::to_string(index) +
           " chunk_s=" +
           FormatSixDecimals(SamplesToSeconds(piece.end - piece.start,
                                              run->options.sample_rate)) +
           " ms=" + std::to_string(decode_ms));
  if (!decoded) {
    run->Log("offline_2pass VAD decode failed: " + error);
    return false;
  }
  if (!HasContentText(text)) return true;

  const Clock::time_point punc_start = Clock::now();
  const std::string refined = RefineTextWithPunc(run->punc, run->emitter, text);
  const int64_t punc_ms = MsSince(punc_start);
  run->punc_group_ms_sum += punc_ms;
  run->Log("[TIMING][PUNC_GROUP] group_idx=" + std::to_string(index) +
           " ms=" + std::to_string(punc_ms));
  run->AppendIfContent(piece, refined);
  return true;
}

bool DecodeWithVadPlan(PipelineRun* run, const std::vector<SampleSpan>& speech,
                       const VadGroupingLimits& limits) {
  for (const VadPlanStep& step : PlanVadDecode(limits, speech)) {
    if (step.kind == VadPlanStep::Kind::kLog) {
      run->Log(step.log_line);
    } else if (!DecodeGroupPiece(run, step.piece)) {
      return false;
    }
  }
  return true;
}

bool DecodeInChunks(PipelineRun* run, const VadGroupingLimits& limits) {
  for (const SampleSpan& piece : ChunkFallbackPieces(limits)) {
    std::string text;
    std::string error;
    if (!run->decoder->Decode(CopySpan(run->samples, piece), &text, &error)) {
      run->emitter->EmitError("offline_2pass decode failed: " + error);
      return false;
    }
    if (!HasContentText(text)) continue;
    run->AppendIfContent(piece,
                         RefineTextWithPunc(run->punc, run->emitter, text));
  }
  return true;
}

// Diarization, speaker identification and the split of the transcript by
// speaker. A diarization failure only costs the speaker labels.
void LabelSpeakers(PipelineRun* run, DiarizationBackend* diarization,
                   SpeakerIdentifier* speaker_id) {
  const Options& options = run->options;
  std::vector<DiarizationSegment> turns;
  if (options.diarization) {
    const Clock::time_point start = Clock::now();
    if (!RunOfflineDiarization(options, diarization, run->samples,
                               run->emitter, &turns)) {
      run->Log("diarization failed; continue without speaker labels");
      turns.clear();
    }
    run->Log("[TIMING][DIARIZATION] ms=" + std::to_string(MsSince(start)) +
             " raw_segments=" + std::to_string(turns.size()));
  }

  if (speaker_id != nullptr && speaker_id->IsReady() && !turns.empty()) {
    const Clock::time_point start = Clock::now();
    IdentifyAndRelabelSpeakers(speaker_id, run->samples, options.sample_rate,
                               options.speaker_id_max_seconds, &turns,
                               run->emitter);
    run->Log("[TIMING][SPEAKER_ID] ms=" + std::to_string(MsSince(start)));
  }

  if (turns.empty()) return;
  for (const DiarizationSegment& turn : turns) {
    run->Log("[DIARIZATION][RAW] start=" + FormatDefaultDouble(turn.start) +
             "s end=" + FormatDefaultDouble(turn.end) +
             "s speaker=" + turn.speaker);
  }
  run->Log("[DIARIZATION][RAW] total_segments=" +
           std::to_string(turns.size()));
  const Clock::time_point start = Clock::now();
  AssignAndSplitBySpeakers(&run->results, turns, run->emitter);
  run->Log("[TIMING][SPEAKER_ASSIGN_SPLIT] ms=" +
           std::to_string(MsSince(start)));
}

// Emits the one result record of the recording. Without merge_text (nothing
// was recognised) the record carries no merged text.
void EmitResult(PipelineRun* run, bool merge_text) {
  std::string merged;
  if (merge_text) {
    for (const SegmentResult& segment : run->results) {
      if (!HasContentText(segment.text)) continue;
      if (!merged.empty()) merged += ' ';
      merged += segment.text;
    }
  }
  // The per-group texts were punctuated alone; the joined text is punctuated
  // once more so that marks across group boundaries agree.
  if (!merged.empty()) {
    const Clock::time_point start = Clock::now();
    merged = RefineTextWithPunc(run->punc, run->emitter, merged);
    run->Log("[TIMING][PUNC_MERGED] ms=" + std::to_string(MsSince(start)) +
             " chars=" + std::to_string(merged.size()));
  }
  run->emitter->EmitRawJson(BuildSecondPassResultJson(
      run->results, /*offline_2pass=*/true, /*is_final=*/true,
      /*segment_id=*/-1, /*segment_start_id=*/-1, /*segment_count=*/-1,
      merge_text ? &merged : nullptr, run->options.session_id));
  run->Log("[TIMING][TOTAL] ms=" + std::to_string(MsSince(run->started)));
}

}  // namespace

bool DecodeAndEmitOffline2PassFull(const Options& options,
                                   OfflineDecoderBackend* decoder,
                                   PuncBackend* punc,
                                   DiarizationBackend* diarization,
                                   SpeakerIdentifier* speaker_id,
                                   EventEmitter* emitter, AudioBuffer* audio) {
  // A copy: the live session goes on appending to its capture buffer while
  // this capture is decoded.
  std::vector<float> samples;
  {
    std::lock_guard<std::mutex> lock(audio->mutex);
    samples = audio->capture_samples;
  }
  return DecodeAndEmitOffline2PassSamples(options, decoder, punc, diarization,
                                          speaker_id, emitter, samples);
}

bool DecodeAndEmitOffline2PassSamples(const Options& options,
                                      OfflineDecoderBackend* decoder,
                                      PuncBackend* punc,
                                      DiarizationBackend* diarization,
                                      SpeakerIdentifier* speaker_id,
                                      EventEmitter* emitter,
                                      const std::vector<float>& samples) {
  const Clock::time_point started = Clock::now();
  PipelineRun run(options, decoder, punc, emitter, samples, started);
  if (samples.empty()) {
    run.Log("offline_2pass: no audio captured");
    EmitResult(&run, /*merge_text=*/false);
    return true;
  }
  if (decoder == nullptr) {
    emitter->EmitError("offline_2pass decode failed: Decoder is not initialized");
    return false;
  }

  const VadGroupingLimits limits =
      MakeVadGroupingLimits(options, static_cast<int64_t>(samples.size()));
  std::vector<SampleSpan> speech;
  const bool decoded = FindSpeech(run, &speech)
                           ? DecodeWithVadPlan(&run, speech, limits)
                           : DecodeInChunks(&run, limits);
  if (!decoded) return false;

  run.Log("[TIMING][VAD_AND_ASR] ms=" + std::to_string(MsSince(started)) +
          " asr_decode_ms_sum=" + std::to_string(run.asr_decode_ms_sum) +
          " punc_group_ms_sum=" + std::to_string(run.punc_group_ms_sum) +
          " groups=" + std::to_string(run.group_index));

  if (run.results.empty()) {
    run.Log("offline_2pass finished with empty text");
    EmitResult(&run, /*merge_text=*/false);
    return true;
  }

  LabelSpeakers(&run, diarization, speaker_id);
  EmitResult(&run, /*merge_text=*/true);
  return true;
}

}  // namespace kerrow
