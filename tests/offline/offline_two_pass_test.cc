#include "offline/offline_two_pass.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "audio/audio_buffer.h"
#include "diarization/diarization_backend.h"
#include "events/event_emitter.h"
#include "offline/pipeline_fixtures.h"
#include "support/json_fields.h"
#include "support/stdout_capture.h"
#include "speaker/enroll_db.h"
#include "speaker/speaker_identifier.h"

namespace kerrow::testing {
namespace {


struct PipelineOutput {
  bool ok = false;
  std::vector<std::string> lines;
};

PipelineOutput RunPipeline(const Options& options, OfflineDecoderBackend* decoder,
                           PuncBackend* punc, const std::vector<float>& samples,
                           DiarizationBackend* diarization = nullptr,
                           SpeakerIdentifier* speaker_id = nullptr) {
  EventEmitter emitter;
  AudioBuffer audio;
  audio.capture_samples = samples;
  PipelineOutput output;
  StdoutCapture capture;
  output.ok = DecodeAndEmitOffline2PassFull(options, decoder, punc, diarization, speaker_id,
                                            &emitter, &audio);
  output.lines = capture.Stop();
  return output;
}

Options WithVad() {
  Options options;
  options.silero_vad_model = KERROW_VAD_MODEL;
  return options;
}

std::string EscapeRegex(const std::string& literal) {
  static const std::regex kSpecial(R"([.^$|()\[\]{}*+?\\])");
  return std::regex_replace(literal, kSpecial, R"(\$&)");
}

// A log line whose message is given literally, except that "<ms>" stands for
// any whole number of milliseconds.
std::string LogPattern(const std::string& message) {
  std::string pattern = EscapeRegex(message);
  pattern = std::regex_replace(pattern, std::regex("<ms>"), "[0-9]+");
  return R"(\{"message":")" + pattern + R"(","type":"log"\})";
}

constexpr char kResultLine[] = "<result>";

// Checks the whole event sequence: every line against its pattern, in order.
// kResultLine stands for the one result record, checked by the caller.
void ExpectSequence(const std::vector<std::string>& lines,
                    const std::vector<std::string>& messages) {
  ASSERT_EQ(lines.size(), messages.size()) << ::testing::PrintToString(lines);
  for (size_t i = 0; i < lines.size(); ++i) {
    if (messages[i] == kResultLine) {
      EXPECT_EQ(lines[i].rfind(R"({"type":"result","stage":"second-pass",)", 0), 0u) << lines[i];
    } else {
      EXPECT_TRUE(std::regex_match(lines[i], std::regex(LogPattern(messages[i]))))
          << "line " << i << ": " << lines[i] << "\nexpected: " << messages[i];
    }
  }
}

std::string ResultLine(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    if (line.rfind(R"({"type":"result")", 0) == 0) return line;
  }
  return "";
}

bool AnyLineContains(const std::vector<std::string>& lines, const std::string& needle) {
  for (const std::string& line : lines) {
    if (line.find(needle) != std::string::npos) return true;
  }
  return false;
}

std::string JoinedText(const std::vector<ParsedSegment>& segments) {
  std::string text;
  for (const ParsedSegment& segment : segments) text += segment.text + " ";
  return text;
}

const std::string& En10sReference() {
  static const std::string reference = ReadTextFile(AudioPath("espeak/en10s.txt"));
  return reference;
}

TEST(Offline2Pass, VadGroupsAreDecodedPunctuatedAndEmittedAsOneResult) {
  const PipelineOutput out =
      RunPipeline(WithVad(), TrainedSenseVoice(), TrainedPunc(), ReadRecording("espeak/en10s.wav"));
  ASSERT_TRUE(out.ok);
  ExpectSequence(
      out.lines,
      {"offline_2pass tail compensation enabled",
       "[OFFLINE2PASS][VAD] start=0.062000s end=11.580000s raw=11.518000s added=11.518000s "
       "acc=11.518000s max=8.000000s span=11.518000s span_max=disabled",
       "[OFFLINE2PASS][CUT] reason=max_duration group_start=0.062000s group_end=11.580000s "
       "padded_start=0.000000s padded_end=11.680000s acc=11.518000s max=8.000000s "
       "span=11.518000s span_max=disabled",
       "[TIMING][ASR_DECODE] group_idx=0 chunk_s=11.680000 ms=<ms>",
       "[TIMING][PUNC_GROUP] group_idx=0 ms=<ms>",
       "[OFFLINE2PASS][VAD] start=11.580000s end=11.743063s raw=0.163062s added=0.163062s "
       "acc=0.163062s max=8.000000s span=0.163062s span_max=disabled",
       "[OFFLINE2PASS][CUT] reason=flush group_start=11.580000s group_end=11.743063s "
       "padded_start=11.380000s padded_end=11.743063s acc=0.163062s max=8.000000s "
       "span=0.163062s span_max=disabled",
       // The tail piece holds no words, so it is not punctuated.
       "[TIMING][ASR_DECODE] group_idx=1 chunk_s=0.363063 ms=<ms>",
       "[TIMING][VAD_AND_ASR] ms=<ms> asr_decode_ms_sum=<ms> punc_group_ms_sum=<ms> groups=2",
       "[TIMING][PUNC_MERGED] ms=<ms> chars=164", kResultLine, "[TIMING][TOTAL] ms=<ms>"});

  const std::string result = ResultLine(out.lines);
  EXPECT_NE(result.find(R"("is_final":true,"offline_2pass":true,"segments":[)"), std::string::npos);
  const std::vector<ParsedSegment> segments = ParseSegments(result);
  ASSERT_EQ(segments.size(), 1u);
  // Padding shows in the times: 0.2 s of lookback is clamped at 0, 0.1 s of
  // lookahead follows the speech.
  EXPECT_EQ(segments[0].start_ms, 0);
  EXPECT_EQ(segments[0].end_ms, 11680);
  EXPECT_EQ(segments[0].speaker, "");
  EXPECT_LT(NormalisedCharacterErrorRate(En10sReference(), segments[0].text), 0.25) << segments[0].text;
  EXPECT_NE(segments[0].text.find("。"), std::string::npos) << segments[0].text;
  const std::string merged = MergedText(result);
  EXPECT_NE(merged.find("。"), std::string::npos) << merged;
}

TEST(Offline2Pass, WithoutPunctuationModelTextStaysUnpunctuated) {
  const PipelineOutput out =
      RunPipeline(WithVad(), TrainedSenseVoice(), nullptr, ReadRecording("espeak/en10s.wav"));
  ASSERT_TRUE(out.ok);
  const std::vector<ParsedSegment> segments = ParseSegments(ResultLine(out.lines));
  ASSERT_EQ(segments.size(), 1u);
  EXPECT_LT(NormalisedCharacterErrorRate(En10sReference(), segments[0].text), 0.25) << segments[0].text;
  EXPECT_EQ(segments[0].text.find("。"), std::string::npos);
  EXPECT_EQ(segments[0].text.find("，"), std::string::npos);
  // The merged text is the plain join of the segments.
  EXPECT_EQ(MergedText(ResultLine(out.lines)), segments[0].text);
}

TEST(Offline2Pass, WithoutVadModelDecodesInMaxGroupChunks) {
  const PipelineOutput out =
      RunPipeline(Options(), TrainedSenseVoice(), TrainedPunc(), ReadRecording("espeak/en10s.wav"));
  ASSERT_TRUE(out.ok);
  ExpectSequence(out.lines,
                 {"[TIMING][VAD_AND_ASR] ms=<ms> asr_decode_ms_sum=0 punc_group_ms_sum=0 groups=0",
                  "[TIMING][PUNC_MERGED] ms=<ms> chars=<ms>", kResultLine,
                  "[TIMING][TOTAL] ms=<ms>"});
  const std::vector<ParsedSegment> segments = ParseSegments(ResultLine(out.lines));
  ASSERT_EQ(segments.size(), 2u);
  EXPECT_EQ(segments[0].start_ms, 0);
  EXPECT_EQ(segments[0].end_ms, 8000);
  EXPECT_EQ(segments[1].start_ms, 8000);
  EXPECT_EQ(segments[1].end_ms, 11743);
  // A chunk boundary can cut a word in two, hence the looser bound.
  EXPECT_LT(NormalisedCharacterErrorRate(En10sReference(), JoinedText(segments)), 0.35)
      << JoinedText(segments);
}

TEST(Offline2Pass, VadModelThatFailsToLoadFallsBackToChunks) {
  Options options;
  // A file that exists but is no model.
  options.silero_vad_model = ModelPath("trained/sensevoice-en-char/tokens.txt");
  const PipelineOutput out =
      RunPipeline(options, TrainedSenseVoice(), nullptr, ReadRecording("espeak/en_short.wav"));
  ASSERT_TRUE(out.ok);
  const std::vector<std::string> logs = LogMessages(out.lines);
  ASSERT_FALSE(logs.empty());
  EXPECT_EQ(logs[0].rfind("offline_2pass VAD init failed, fallback to chunk decode: ", 0), 0u)
      << logs[0];
  EXPECT_GT(logs[0].size(), std::string("offline_2pass VAD init failed, fallback to chunk decode: ").size());
  EXPECT_FALSE(AnyLineContains(out.lines, "[OFFLINE2PASS]"));
  EXPECT_TRUE(AnyLineContains(out.lines, "groups=0"));
  const std::vector<ParsedSegment> segments = ParseSegments(ResultLine(out.lines));
  ASSERT_EQ(segments.size(), 1u);
  EXPECT_LT(NormalisedCharacterErrorRate(ReadTextFile(AudioPath("espeak/en_short.txt")), segments[0].text),
            0.3)
      << segments[0].text;
}

TEST(Offline2Pass, MissingVadModelFileFallsBackToChunks) {
  Options options;
  options.silero_vad_model = "/nonexistent/silero_vad.onnx";
  const PipelineOutput out =
      RunPipeline(options, PatternSenseVoice(), nullptr, std::vector<float>(kSampleRate));
  ASSERT_TRUE(out.ok);
  const std::vector<std::string> logs = LogMessages(out.lines);
  ASSERT_FALSE(logs.empty());
  EXPECT_EQ(logs[0].rfind("offline_2pass VAD init failed, fallback to chunk decode: ", 0), 0u)
      << logs[0];
  EXPECT_EQ(ParseSegments(ResultLine(out.lines)).size(), 1u);
}

TEST(Offline2Pass, SpeechOnlyAtTheEndIsFoundWhereItIs) {
  std::vector<float> samples(3 * kSampleRate, 0.0f);
  const std::vector<float> speech = ReadRecording("espeak/en_short.wav");
  samples.insert(samples.end(), speech.begin(), speech.end());
  const PipelineOutput out = RunPipeline(WithVad(), TrainedSenseVoice(), TrainedPunc(), samples);
  ASSERT_TRUE(out.ok);
  const std::vector<ParsedSegment> segments = ParseSegments(ResultLine(out.lines));
  ASSERT_EQ(segments.size(), 1u);
  // Speech starts 3 s in; the segment opens at most the 0.2 s lookback early.
  EXPECT_GE(segments[0].start_time, 2.7);
  EXPECT_LE(segments[0].start_time, 3.2);
  EXPECT_LE(segments[0].end_ms, static_cast<long>(samples.size() * 1000 / kSampleRate));
  EXPECT_LT(NormalisedCharacterErrorRate(ReadTextFile(AudioPath("espeak/en_short.txt")), segments[0].text),
            0.3)
      << segments[0].text;
  EXPECT_NE(segments[0].text.find("。"), std::string::npos);
}

TEST(Offline2Pass, SilenceAfterLastSpeechIsDecodedByTailCompensation) {
  std::vector<float> samples = ReadRecording("espeak/en_short.wav");
  samples.resize(samples.size() + 3 * kSampleRate, 0.0f);
  const double total_seconds = static_cast<double>(samples.size()) / kSampleRate;
  const PipelineOutput out = RunPipeline(WithVad(), TrainedSenseVoice(), TrainedPunc(), samples);
  ASSERT_TRUE(out.ok);
  const std::vector<std::string> logs = LogMessages(out.lines);
  ASSERT_FALSE(logs.empty());
  EXPECT_EQ(logs[0], "offline_2pass tail compensation enabled");
  // The last group reaches the end of the recording.
  char group_end[64];
  std::snprintf(group_end, sizeof(group_end), "group_end=%.6fs", total_seconds);
  EXPECT_TRUE(AnyLineContains(out.lines, group_end)) << group_end;
  const std::vector<ParsedSegment> segments = ParseSegments(ResultLine(out.lines));
  ASSERT_FALSE(segments.empty());
  EXPECT_LT(NormalisedCharacterErrorRate(ReadTextFile(AudioPath("espeak/en_short.txt")),
                               JoinedText(segments)),
            0.3)
      << JoinedText(segments);
}

TEST(Offline2Pass, RecordingWithoutSpeechIsDecodedWholeAndGivesEmptyResult) {
  const PipelineOutput out = RunPipeline(WithVad(), TrainedSenseVoice(), TrainedPunc(),
                                         ReadRecording("format-checks/sil.wav"));
  ASSERT_TRUE(out.ok);
  ExpectSequence(
      out.lines,
      {"offline_2pass tail compensation enabled",
       "[OFFLINE2PASS][VAD] start=0.000000s end=1.000000s raw=1.000000s added=1.000000s "
       "acc=1.000000s max=8.000000s span=1.000000s span_max=disabled",
       "[OFFLINE2PASS][CUT] reason=flush group_start=0.000000s group_end=1.000000s "
       "padded_start=0.000000s padded_end=1.000000s acc=1.000000s max=8.000000s "
       "span=1.000000s span_max=disabled",
       "[TIMING][ASR_DECODE] group_idx=0 chunk_s=1.000000 ms=<ms>",
       "[TIMING][VAD_AND_ASR] ms=<ms> asr_decode_ms_sum=<ms> punc_group_ms_sum=0 groups=1",
       "offline_2pass finished with empty text", kResultLine, "[TIMING][TOTAL] ms=<ms>"});
  EXPECT_EQ(ResultLine(out.lines),
            R"({"type":"result","stage":"second-pass","mode":"offline_final","is_final":true,)"
            R"("offline_2pass":true,"segments":[]})");
}

TEST(Offline2Pass, EmptyRecordingGivesEmptyResult) {
  Options options = WithVad();
  options.session_id = 4;
  const PipelineOutput out = RunPipeline(options, TrainedSenseVoice(), TrainedPunc(), {});
  ASSERT_TRUE(out.ok);
  ExpectSequence(out.lines,
                 {"offline_2pass: no audio captured", kResultLine, "[TIMING][TOTAL] ms=<ms>"});
  EXPECT_EQ(ResultLine(out.lines),
            R"({"type":"result","stage":"second-pass","mode":"offline_final","sessionId":4,)"
            R"("is_final":true,"offline_2pass":true,"segments":[]})");
}

TEST(Offline2Pass, PatternStubChunksGiveExactSegmentsAndTimes) {
  const PipelineOutput out =
      RunPipeline(Options(), PatternSenseVoice(), nullptr, std::vector<float>(20 * kSampleRate));
  ASSERT_TRUE(out.ok);
  const std::string eight_seconds =
      "abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyzabcdefghijklmno";
  const std::string four_seconds = "abcdefghijklmnopqrstuvwxyzabcdefgh";
  EXPECT_EQ(ResultLine(out.lines),
            R"({"type":"result","stage":"second-pass","mode":"offline_final","is_final":true,)"
            R"("offline_2pass":true,"segments":[)"
            R"({"start_time":0.00,"end_time":8.00,"start_ms":0,"end_ms":8000,"text":")" +
                eight_seconds + R"("},)" +
                R"({"start_time":8.00,"end_time":16.00,"start_ms":8000,"end_ms":16000,"text":")" +
                eight_seconds + R"("},)" +
                R"({"start_time":16.00,"end_time":20.00,"start_ms":16000,"end_ms":20000,"text":")" +
                four_seconds + R"("}],"merged_text":")" + eight_seconds + " " + eight_seconds +
                " " + four_seconds + R"("})");
}

TEST(Offline2Pass, WhisperGroupsShowTheirSpanLimit) {
  Options options = WithVad();
  options.second_type = "whisper";
  const PipelineOutput out =
      RunPipeline(options, StubWhisper(), nullptr, ReadRecording("format-checks/3s.wav"));
  ASSERT_TRUE(out.ok);
  EXPECT_TRUE(AnyLineContains(out.lines, "span_max=29.000000s"));
  EXPECT_FALSE(AnyLineContains(out.lines, "span_max=disabled"));
  EXPECT_EQ(ResultLine(out.lines),
            R"({"type":"result","stage":"second-pass","mode":"offline_final","is_final":true,)"
            R"("offline_2pass":true,"segments":[{"start_time":0.00,"end_time":3.00,"start_ms":0,)"
            R"("end_ms":3000,"text":"Hello world, this is a stub café."}],)"
            R"("merged_text":"Hello world, this is a stub café."})");
}

TEST(Offline2Pass, WhisperGroupOf35SecondsIsDecodedAs29And6SecondPieces) {
  Options options = WithVad();
  options.second_type = "whisper";
  options.vad_max_speech = 40.0;
  const PipelineOutput out =
      RunPipeline(options, StubWhisper(), nullptr, std::vector<float>(35 * kSampleRate, 0.0f));
  ASSERT_TRUE(out.ok);
  std::vector<std::string> decodes;
  for (const std::string& message : LogMessages(out.lines)) {
    if (message.rfind("[TIMING][ASR_DECODE]", 0) == 0) {
      decodes.push_back(message.substr(0, message.find(" ms=")));
    }
  }
  EXPECT_EQ(decodes, (std::vector<std::string>{
                         "[TIMING][ASR_DECODE] group_idx=0 chunk_s=29.000000",
                         "[TIMING][ASR_DECODE] group_idx=1 chunk_s=6.000000"}));
  EXPECT_TRUE(AnyLineContains(out.lines, "groups=2"));
}

TEST(Offline2Pass, DecodeFailureInVadPathFailsWithoutResult) {
  OfflineDecoderBackend not_loaded;
  const PipelineOutput out =
      RunPipeline(WithVad(), &not_loaded, nullptr, ReadRecording("espeak/en_short.wav"));
  EXPECT_FALSE(out.ok);
  EXPECT_TRUE(AnyLineContains(
      out.lines, R"({"message":"offline_2pass VAD decode failed: Decoder is not initialized","type":"log"})"));
  EXPECT_EQ(ResultLine(out.lines), "");
  EXPECT_FALSE(AnyLineContains(out.lines, "[TIMING][TOTAL]"));
}

TEST(Offline2Pass, DecodeFailureInChunkPathEmitsErrorWithoutResult) {
  OfflineDecoderBackend not_loaded;
  const PipelineOutput out =
      RunPipeline(Options(), &not_loaded, nullptr, ReadRecording("espeak/en_short.wav"));
  EXPECT_FALSE(out.ok);
  EXPECT_EQ(out.lines, std::vector<std::string>{
                           R"({"message":"offline_2pass decode failed: Decoder is not initialized","type":"error"})"});
}

// A diarizer with scripted turns: these tests are about what the pipeline
// does with the turns it is given, whatever a real diarizer would find.
class ScriptedDiarization : public DiarizationBackend {
 public:
  bool Init(const DiarizationInitOptions&, std::string*) override { return true; }
  bool IsReady() const override { return true; }
  bool Process(const std::vector<float>&, int, std::vector<DiarizationSegment>* out,
               std::string* error) override {
    if (!error_message.empty()) {
      *error = error_message;
      return false;
    }
    *out = turns;
    return true;
  }

  std::vector<DiarizationSegment> turns;
  std::string error_message;
};

TEST(Offline2Pass, DiarizationTurnsSplitTheTranscriptBySpeaker) {
  Options options = WithVad();
  options.diarization = true;
  ScriptedDiarization diarization;
  diarization.turns = {{0.0, 6.0, "SPEAKER_01"}, {6.0, 11.74, "SPEAKER_00"}};
  const PipelineOutput out = RunPipeline(options, TrainedSenseVoice(), TrainedPunc(),
                                         ReadRecording("espeak/en10s.wav"), &diarization);
  ASSERT_TRUE(out.ok);
  const std::vector<std::string> logs = LogMessages(out.lines);
  const std::vector<std::string> expected_in_order = {
      "diarization segments=2 audio_s=11.743063",
      "[TIMING][DIARIZATION] ms=<ms> raw_segments=2",
      "[DIARIZATION][RAW] start=0s end=6s speaker=SPEAKER_01",
      "[DIARIZATION][RAW] start=6s end=11.74s speaker=SPEAKER_00",
      "[DIARIZATION][RAW] total_segments=2",
      "[DIARIZATION] split 1 ASR segment(s) across speaker boundaries",
      "[TIMING][SPEAKER_ASSIGN_SPLIT] ms=<ms>"};
  size_t found = 0;
  for (const std::string& line : out.lines) {
    if (found < expected_in_order.size() &&
        std::regex_match(line, std::regex(LogPattern(expected_in_order[found])))) {
      ++found;
    }
  }
  EXPECT_EQ(found, expected_in_order.size()) << ::testing::PrintToString(logs);

  const std::vector<ParsedSegment> segments = ParseSegments(ResultLine(out.lines));
  ASSERT_EQ(segments.size(), 2u);
  EXPECT_EQ(segments[0].speaker, "SPEAKER_00");
  EXPECT_EQ(segments[0].start_ms, 0);
  EXPECT_EQ(segments[0].end_ms, 6000);
  EXPECT_EQ(segments[1].speaker, "SPEAKER_01");
  EXPECT_EQ(segments[1].start_ms, 6000);
  EXPECT_EQ(segments[1].end_ms, 11680);
  // Splitting shares the words out; none is lost.
  EXPECT_LT(NormalisedCharacterErrorRate(En10sReference(), JoinedText(segments)), 0.25)
      << JoinedText(segments);
}

TEST(Offline2Pass, DiarizationFailureKeepsTranscriptWithoutSpeakers) {
  Options options = WithVad();
  options.diarization = true;
  ScriptedDiarization diarization;
  diarization.error_message = "no embeddings";
  const PipelineOutput out = RunPipeline(options, TrainedSenseVoice(), TrainedPunc(),
                                         ReadRecording("espeak/en_short.wav"), &diarization);
  ASSERT_TRUE(out.ok);
  const std::vector<std::string> logs = LogMessages(out.lines);
  const auto at = [&](const std::string& message) {
    return std::find(logs.begin(), logs.end(), message) - logs.begin();
  };
  ASSERT_LT(at("diarization failed: no embeddings"), static_cast<long>(logs.size()));
  EXPECT_EQ(at("diarization failed; continue without speaker labels"),
            at("diarization failed: no embeddings") + 1);
  EXPECT_TRUE(AnyLineContains(out.lines, "raw_segments=0"));
  EXPECT_FALSE(AnyLineContains(out.lines, "[DIARIZATION][RAW]"));
  EXPECT_FALSE(AnyLineContains(out.lines, R"("speaker":)"));
  EXPECT_EQ(ParseSegments(ResultLine(out.lines)).size(), 1u);
}

TEST(Offline2Pass, DiarizationWithoutBackendIsSkipped) {
  Options options = WithVad();
  options.diarization = true;
  const PipelineOutput out = RunPipeline(options, TrainedSenseVoice(), nullptr,
                                         ReadRecording("espeak/en_short.wav"), nullptr);
  ASSERT_TRUE(out.ok);
  EXPECT_TRUE(AnyLineContains(
      out.lines, R"({"message":"diarization skipped: backend not initialized","type":"log"})"));
  EXPECT_TRUE(AnyLineContains(out.lines, "raw_segments=0"));
  EXPECT_FALSE(AnyLineContains(out.lines, R"("speaker":)"));
}

TEST(Offline2Pass, DiarizationOffNeverAsksTheBackend) {
  Options options = WithVad();
  ScriptedDiarization diarization;
  diarization.error_message = "must not be called";
  const PipelineOutput out = RunPipeline(options, TrainedSenseVoice(), nullptr,
                                         ReadRecording("espeak/en_short.wav"), &diarization);
  ASSERT_TRUE(out.ok);
  EXPECT_FALSE(AnyLineContains(out.lines, "diarization"));
  EXPECT_FALSE(AnyLineContains(out.lines, "DIARIZATION"));
}

// Speakers are found only for text to label: a recording without speech, or
// without any audio, never reaches the diarizer.
TEST(Offline2Pass, DiarizationIsNotRunWhenThereIsNoTextToLabel) {
  Options options = WithVad();
  options.diarization = true;
  ScriptedDiarization diarization;
  diarization.error_message = "must not be called";
  for (const std::vector<float>& samples :
       {ReadRecording("format-checks/sil.wav"), std::vector<float>{}}) {
    const PipelineOutput out =
        RunPipeline(options, TrainedSenseVoice(), TrainedPunc(), samples, &diarization);
    ASSERT_TRUE(out.ok);
    EXPECT_FALSE(AnyLineContains(out.lines, "diarization")) << ::testing::PrintToString(out.lines);
    EXPECT_FALSE(AnyLineContains(out.lines, "DIARIZATION"));
    EXPECT_FALSE(AnyLineContains(out.lines, R"("speaker":)"));
    EXPECT_NE(ResultLine(out.lines), "");
  }
}

TEST(Offline2Pass, IdentifiedSpeakersReplaceDiarizationLabels) {
  // Voice A of the dialog is enrolled as "Alice"; voice B is nobody we know.
  char db_template[] = "/tmp/kerrow-enroll-XXXXXX";
  const int fd = mkstemp(db_template);
  ASSERT_GE(fd, 0);
  close(fd);
  const std::string db_path = db_template;
  std::remove(db_path.c_str());

  SpeakerIdentifierOptions id_options;
  id_options.model = ModelPath("trained/speaker-embedding/model.onnx");
  id_options.threshold = 0.5f;
  std::string error;
  std::vector<float> alice;
  {
    SpeakerIdentifier embedder;
    ASSERT_TRUE(embedder.Init(id_options, &error)) << error;
    ASSERT_TRUE(embedder.ComputeEmbedding(ReadRecording("espeak-dialog/a_enroll.wav"),
                                          kSampleRate, &alice, &error))
        << error;
  }
  bool already = false;
  std::string id;
  ASSERT_TRUE(AppendEnrollEmbedding(db_path, "", "Alice", "0123456789abcdef0123456789abcdef",
                                    alice, &error, &already, &id))
      << error;
  id_options.enroll_db = db_path;
  SpeakerIdentifier identifier;
  ASSERT_TRUE(identifier.Init(id_options, &error)) << error;

  // The dialog's own turn file: voice A, then B, then A again.
  ScriptedDiarization diarization;
  diarization.turns = {{0.5, 5.083, "SPEAKER_00"},
                       {5.783, 10.65, "SPEAKER_01"},
                       {11.349, 16.507, "SPEAKER_00"}};
  Options options = WithVad();
  options.diarization = true;
  std::vector<float> samples = ReadRecording("espeak-dialog/two-voices-dialog.wav");
  samples.resize(17 * kSampleRate);
  const PipelineOutput out =
      RunPipeline(options, TrainedSenseVoice(), TrainedPunc(), samples, &diarization, &identifier);
  std::remove(db_path.c_str());
  ASSERT_TRUE(out.ok);

  const std::vector<std::string> logs = LogMessages(out.lines);
  bool alice_matched = false;
  for (const std::string& message : logs) {
    if (message.rfind("[SPEAKER_ID] SPEAKER_00 -> Alice (score=", 0) == 0) alice_matched = true;
  }
  EXPECT_TRUE(alice_matched) << ::testing::PrintToString(logs);
  EXPECT_TRUE(AnyLineContains(out.lines, "[TIMING][SPEAKER_ID] ms="));
  EXPECT_TRUE(AnyLineContains(out.lines, "[DIARIZATION][RAW] start=0.5s end=5.083s speaker=Alice"));

  const std::vector<ParsedSegment> segments = ParseSegments(ResultLine(out.lines));
  ASSERT_FALSE(segments.empty());
  std::vector<std::string> speakers;
  for (const ParsedSegment& segment : segments) speakers.push_back(segment.speaker);
  EXPECT_EQ(speakers.front(), "Alice") << ::testing::PrintToString(speakers);
  EXPECT_EQ(speakers.back(), "Alice") << ::testing::PrintToString(speakers);
  // The unknown voice keeps an anonymous label, renumbered from 00 since the
  // enrolled name took none.
  EXPECT_NE(std::find(speakers.begin(), speakers.end(), "SPEAKER_00"), speakers.end())
      << ::testing::PrintToString(speakers);
}

}  // namespace
}  // namespace kerrow::testing
