#include "offline/offline_two_pass.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "audio/audio_buffer.h"
#include "common/sample_time.h"
#include "diarization/diarization_backend.h"
#include "engine/offline_decoder_backend.h"
#include "engine/vad_backend.h"
#include "events/event_emitter.h"
#include "events/number_format.h"
#include "events/segment_result.h"
#include "events/transcript_records.h"
#include "offline/offline_diarization.h"
#include "offline/speaker_assign.h"
#include "offline/speech_search.h"
#include "offline/speech_search_thread.h"
#include "offline/vad_grouping.h"
#include "speaker/cluster_identity.h"
#include "speaker/speaker_identifier.h"
#include "text/punc_refine.h"

namespace kerrow {
namespace {

using Clock = std::chrono::steady_clock;

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
              const Offline2PassSchedule& run_schedule,
              Clock::time_point run_started)
      : options(run_options),
        decoder(run_decoder),
        punc(run_punc),
        emitter(run_emitter),
        samples(run_samples),
        schedule(run_schedule),
        started(run_started) {}

  const Options& options;
  OfflineDecoderBackend* decoder;
  PuncBackend* punc;
  EventEmitter* emitter;
  const std::vector<float>& samples;
  const Offline2PassSchedule& schedule;
  Clock::time_point started;

  std::vector<SegmentResult> results;
  int64_t group_index = 0;
  int64_t asr_decode_ms_sum = 0;
  int64_t punc_group_ms_sum = 0;

  void Log(const std::string& line) const { emitter->EmitLog(line); }

  bool Decode(const std::vector<float>& audio, std::string* text,
              std::string* error) const {
    if (schedule.decode) return schedule.decode(audio, text, error);
    return decoder->Decode(audio, text, error);
  }

  void AppendIfContent(const SampleSpan& piece, const std::string& text) {
    if (!HasContentText(text)) return;
    SegmentResult segment;
    segment.start_time = SamplesToSeconds(piece.start, options.sample_rate);
    segment.end_time = SamplesToSeconds(piece.end, options.sample_rate);
    segment.text = text;
    results.push_back(std::move(segment));
  }
};

// One piece of a VAD group, decoded, whose lines are not written yet.
struct DecodedPiece {
  SampleSpan piece;
  bool ok = false;
  std::string text;
  std::string error;
  int64_t decode_ms = 0;
};

// Only decodes: writes nothing, so that it may run before the lines that
// precede it in the event stream are known.
DecodedPiece DecodePiece(const PipelineRun& run, const SampleSpan& piece) {
  DecodedPiece decoded;
  decoded.piece = piece;
  const std::vector<float> audio = CopySpan(run.samples, piece);
  const Clock::time_point decode_start = Clock::now();
  decoded.ok = run.Decode(audio, &decoded.text, &decoded.error);
  decoded.decode_ms = MsSince(decode_start);
  return decoded;
}

// Writes a decoded piece's timing line, then punctuates its text and keeps
// it; or writes the failure, which ends the decode.
bool FinishPiece(PipelineRun* run, const DecodedPiece& decoded) {
  const int64_t index = run->group_index++;
  const SampleSpan& piece = decoded.piece;
  run->asr_decode_ms_sum += decoded.decode_ms;
  run->Log("[TIMING][ASR_DECODE] group_idx=" + std::to_string(index) +
           " chunk_s=" +
           FormatSixDecimals(SamplesToSeconds(piece.end - piece.start,
                                              run->options.sample_rate)) +
           " ms=" + std::to_string(decoded.decode_ms));
  if (!decoded.ok) {
    run->Log("offline_2pass VAD decode failed: " + decoded.error);
    return false;
  }
  if (!HasContentText(decoded.text)) return true;

  const Clock::time_point punc_start = Clock::now();
  const std::string refined =
      RefineTextWithPunc(run->punc, run->emitter, decoded.text);
  const int64_t punc_ms = MsSince(punc_start);
  run->punc_group_ms_sum += punc_ms;
  run->Log("[TIMING][PUNC_GROUP] group_idx=" + std::to_string(index) +
           " ms=" + std::to_string(punc_ms));
  run->AppendIfContent(piece, refined);
  return true;
}

bool RunPlan(PipelineRun* run, const std::vector<VadPlanStep>& plan) {
  for (const VadPlanStep& step : plan) {
    if (step.kind == VadPlanStep::Kind::kLog) {
      run->Log(step.log_line);
    } else if (!FinishPiece(run, DecodePiece(*run, step.piece))) {
      return false;
    }
  }
  return true;
}

bool DecodeInChunks(PipelineRun* run, const VadGroupingLimits& limits) {
  for (const SampleSpan& piece : ChunkFallbackPieces(limits)) {
    std::string text;
    std::string error;
    if (!run->Decode(CopySpan(run->samples, piece), &text, &error)) {
      run->emitter->EmitError("offline_2pass decode failed: " + error);
      return false;
    }
    if (!HasContentText(text)) continue;
    run->AppendIfContent(piece,
                         RefineTextWithPunc(run->punc, run->emitter, text));
  }
  return true;
}

bool FallBackToChunks(PipelineRun* run, const VadGroupingLimits& limits,
                      const std::string& log_line) {
  if (!log_line.empty()) run->Log(log_line);
  return DecodeInChunks(run, limits);
}

// A plan step met while the VAD was still searching, with its decode done.
struct HeldStep {
  VadPlanStep step;
  DecodedPiece decoded;  // for a decode step
};

// Groups and decodes the speech as the search finds it. Nothing is written
// meanwhile: whether the tail compensation line comes first is known only
// at the end, and a failing search throws the groups away for the chunk
// decode. After a failing decode nothing more is decoded, but the search
// goes on to its end, as it would have before the first decode.
std::vector<HeldStep> DecodeAsFound(const PipelineRun& run,
                                    SpeechSearchThread* search,
                                    VadGroupPlanner* planner) {
  std::vector<HeldStep> held;
  bool failed = false;
  SampleSpan span;
  std::vector<VadPlanStep> steps;
  while (search->Next(&span)) {
    steps.clear();
    planner->AddSpeech(span, &steps);
    for (VadPlanStep& step : steps) {
      if (failed) break;
      HeldStep item;
      item.step = std::move(step);
      if (item.step.kind == VadPlanStep::Kind::kDecode) {
        item.decoded = DecodePiece(run, item.step.piece);
        failed = !item.decoded.ok;
      }
      held.push_back(std::move(item));
    }
  }
  return held;
}

bool DecodeWhileSearching(PipelineRun* run, const VadGroupingLimits& limits,
                          std::unique_ptr<VadBackend> vad) {
  VadGroupPlanner planner(limits);
  std::vector<HeldStep> held;
  bool searched = false;
  std::string log_line;
  {
    SpeechSearchThread search(std::move(vad), run->samples,
                              run->options.sample_rate);
    held = DecodeAsFound(*run, &search, &planner);
    searched = search.Succeeded(&log_line);
  }
  if (!searched) return FallBackToChunks(run, limits, log_line);

  std::vector<VadPlanStep> rest;
  if (planner.Finish(&rest)) run->Log(TailCompensationStep().log_line);
  for (const HeldStep& item : held) {
    if (item.step.kind == VadPlanStep::Kind::kLog) {
      run->Log(item.step.log_line);
    } else if (!FinishPiece(run, item.decoded)) {
      return false;
    }
  }
  return RunPlan(run, rest);
}

// The VAD path, or the chunk decode when there is no usable VAD.
bool DecodeSpeech(PipelineRun* run, const VadGroupingLimits& limits) {
  auto vad = std::make_unique<VadBackend>();
  std::string log_line;
  if (!InitSpeechSearchVad(run->options, vad.get(), &log_line)) {
    return FallBackToChunks(run, limits, log_line);
  }
  if (run->schedule.vad_alongside_decode) {
    return DecodeWhileSearching(run, limits, std::move(vad));
  }
  std::vector<SampleSpan> speech;
  const std::atomic<bool> never_stop(false);
  if (!SearchSpeech(
          vad.get(), run->samples, run->options.sample_rate,
          [&speech](const SampleSpan& span) { speech.push_back(span); },
          never_stop, &log_line)) {
    return FallBackToChunks(run, limits, log_line);
  }
  return RunPlan(run, PlanVadDecode(limits, speech));
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

bool DecodeAndEmitOffline2PassSamples(const Options& options, OfflineDecoderBackend* decoder,
                                      PuncBackend* punc, DiarizationBackend* diarization,
                                      SpeakerIdentifier* speaker_id, EventEmitter* emitter,
                                      const std::vector<float>& samples,
                                      const Offline2PassSchedule& schedule) {
  const Clock::time_point started = Clock::now();
  PipelineRun run(options, decoder, punc, emitter, samples, schedule, started);
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
  if (!DecodeSpeech(&run, limits)) return false;

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
