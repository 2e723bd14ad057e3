// Speaker-labelled and named transcripts as the host receives them: kerrow
// with --diarization (sherpa-onnx models given explicitly or found in a model
// directory), then with --speaker-id and a database in which both voices are
// enrolled, for a whole file and for a live capture decoded at "stop".

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <utility>
#include <set>
#include <string>
#include <vector>

#include "support/rttm_turns.h"
#include "protocol_live/live_fixtures.h"
#include "support/protocol_fixtures.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

using std::chrono::seconds;

const std::string kSegmentation = ModelPath("trained/segmentation-3spk/model.onnx");
const std::string kEmbedding = ModelPath("trained/speaker-embedding/model.onnx");

std::vector<std::string> FileDecodeArgs(const std::string& wav) {
  return Concat({"--manual-mode", "--wav-input", wav, "--silero-vad-model", SileroVadModel()},
                TrainedSenseVoiceArgs());
}

std::vector<std::string> ExplicitDiarizationArgs(int speakers) {
  return {"--diarization",
          "--diarization-segmentation-model", kSegmentation,
          "--diarization-embedding-model", kEmbedding,
          "--diarization-max-speakers", std::to_string(speakers)};
}

std::vector<std::string> SpeakerIdArgs(const std::string& db) {
  return {"--speaker-id", "--speaker-embedding-model", kEmbedding, "--speaker-enroll-db", db};
}

// The text of a JSON string field that starts at `from` (just after its
// opening quote), escapes left as they are; `from` ends after the closing quote.
std::string JsonStringAt(const std::string& json, size_t* from) {
  std::string text;
  for (size_t i = *from; i < json.size(); ++i) {
    if (json[i] == '\\' && i + 1 < json.size()) {
      text += json.substr(i, 2);
      ++i;
    } else if (json[i] == '"') {
      *from = i + 1;
      return text;
    } else {
      text += json[i];
    }
  }
  *from = json.size();
  return text;
}

// The result record's segments as labelled spans (no speaker key: empty
// label). Each segment object opens with its start and end times and may
// close with its speaker. (Read by hand: GCC's sanitizer build rejects
// std::regex.)
std::vector<LabelledSpan> ResultSegments(const std::string& result_line) {
  static const std::string kStart = "{\"start_time\":";
  static const std::string kEnd = ",\"end_time\":";
  static const std::string kText = "\"text\":\"";
  static const std::string kSpeaker = "\"speaker\":\"";
  std::vector<LabelledSpan> segments;
  for (size_t at = result_line.find(kStart); at != std::string::npos;
       at = result_line.find(kStart, at)) {
    LabelledSpan segment;
    segment.start = std::stod(result_line.substr(at + kStart.size()));
    const size_t end_at = result_line.find(kEnd, at);
    if (end_at == std::string::npos) break;
    segment.end = std::stod(result_line.substr(end_at + kEnd.size()));
    size_t cursor = result_line.find(kText, end_at);
    if (cursor == std::string::npos) break;
    cursor += kText.size();
    JsonStringAt(result_line, &cursor);
    if (result_line.compare(cursor, 1 + kSpeaker.size(), "," + kSpeaker) == 0) {
      cursor += 1 + kSpeaker.size();
      segment.label = JsonStringAt(result_line, &cursor);
    }
    segments.push_back(segment);
    at = cursor;
  }
  return segments;
}

// How many lines start with prefix and end with suffix.
int CountLines(const std::vector<std::string>& lines, const std::string& prefix,
               const std::string& suffix) {
  int count = 0;
  for (const std::string& line : lines) {
    if (line.size() >= prefix.size() + suffix.size() && line.rfind(prefix, 0) == 0 &&
        line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0) {
      ++count;
    }
  }
  return count;
}

// The log line of one cluster's identification, whatever its score.
int CountIdentificationLines(const std::vector<std::string>& lines, const std::string& label,
                             const std::string& name) {
  return CountLines(lines, "{\"message\":\"[SPEAKER_ID] " + label + " -> " + name + " (score=",
                    ")\",\"type\":\"log\"}");
}

std::set<std::string> Labels(const std::vector<LabelledSpan>& segments) {
  std::set<std::string> labels;
  for (const LabelledSpan& segment : segments) labels.insert(segment.label);
  return labels;
}

// The result's segments follow the reference turns: every turn carries its
// voice's label for the large majority of its duration, and different voices
// have different labels. Returns the label of each reference voice.
std::map<std::string, std::string> ExpectLabelsFollowTheTurns(const std::string& result_line,
                                                              const std::string& rttm) {
  const std::vector<LabelledSpan> segments = ResultSegments(result_line);
  EXPECT_FALSE(segments.empty()) << result_line;
  const LabelAgreement agreement = ScoreLabelAgreement(ReadRttm(AudioPath(rttm)), segments);
  EXPECT_TRUE(agreement.voices_get_distinct_labels) << result_line;
  EXPECT_GE(agreement.worst_turn_share, 0.7) << result_line;
  return agreement.label_of_voice;
}

ProcessResult DecodeExpectingSuccess(const std::vector<std::string>& args) {
  ProcessResult r = RunKerrow(args);
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_FALSE(r.stdout_lines.empty());
  if (!r.stdout_lines.empty()) {
    EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
  }
  return r;
}

std::string ResultLine(const ProcessResult& r) {
  const int result = IndexOfResult(r.stdout_lines);
  EXPECT_GE(result, 0) << JoinLines(r.stdout_lines);
  return result < 0 ? "" : r.stdout_lines[result];
}

// A database in which voice A of the dialog is Alice and voice B is Bob.
void EnrollBothVoices(const std::string& db) {
  for (const auto& [name, clip] : {std::pair<std::string, std::string>{"Alice", "a_enroll.wav"},
                                   {"Bob", "b_enroll.wav"}}) {
    const ProcessResult r =
        RunKerrow({"--register-name", name, "--register-input", AudioPath("espeak-dialog/" + clip),
                   "--speaker-embedding-model", kEmbedding, "--speaker-enroll-db", db});
    ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  }
}

TEST(DiarizedTranscript, ExplicitModelsLabelEveryTurnOfTheDialog) {
  const ProcessResult r = DecodeExpectingSuccess(
      Concat(FileDecodeArgs(AudioPath("espeak-dialog/two-voices-dialog.wav")),
             ExplicitDiarizationArgs(2)));
  EXPECT_GE(IndexOfLine(r.stdout_lines, LogLine("[M2] Speaker diarization initialized (sherpa-onnx)")),
            0);
  EXPECT_EQ(CountLines(r.stdout_lines, "{\"message\":\"[M2] Speaker identification", ""), 0);
  EXPECT_GE(IndexOfLine(r.stdout_lines, LogLine("[DIARIZATION][RAW] total_segments=6")), 0);
  const std::string result = ResultLine(r);
  const auto label_of_voice =
      ExpectLabelsFollowTheTurns(result, "espeak-dialog/two-voices-dialog.rttm");
  // The first voice heard is SPEAKER_00.
  EXPECT_EQ(label_of_voice.at("voiceA"), "SPEAKER_00");
  EXPECT_EQ(label_of_voice.at("voiceB"), "SPEAKER_01");
  EXPECT_EQ(Labels(ResultSegments(result)), (std::set<std::string>{"SPEAKER_00", "SPEAKER_01"}));
}

// The segmentation model is found in the model directory by the hint in its
// name; the explicit embedding path selects the in-process backend.
TEST(DiarizedTranscript, SegmentationModelFoundInTheModelDirectory) {
  TempDir dir;
  ASSERT_EQ(::symlink(kSegmentation.c_str(), dir.File("espeak-Segmentation-3spk.onnx").c_str()), 0);
  WriteFileBytes(dir.File("segmentation-notes.txt"), "not a model\n");
  const ProcessResult r = DecodeExpectingSuccess(
      Concat(FileDecodeArgs(AudioPath("espeak-dialog/heldout-2voices-a.wav")),
             {"--diarization", "--diarization-model", dir.path(), "--diarization-embedding-model",
              kEmbedding, "--diarization-max-speakers", "2"}));
  EXPECT_GE(IndexOfLine(r.stdout_lines, LogLine("[M2] Speaker diarization initialized (sherpa-onnx)")),
            0);
  ExpectLabelsFollowTheTurns(ResultLine(r), "espeak-dialog/heldout-2voices-a.rttm");
}

TEST(DiarizedTranscript, ThreeVoicesGetThreeLabels) {
  const ProcessResult r = DecodeExpectingSuccess(
      Concat(FileDecodeArgs(AudioPath("espeak-dialog/heldout-3voices-a.wav")),
             ExplicitDiarizationArgs(3)));
  const std::string result = ResultLine(r);
  ExpectLabelsFollowTheTurns(result, "espeak-dialog/heldout-3voices-a.rttm");
  EXPECT_EQ(Labels(ResultSegments(result)),
            (std::set<std::string>{"SPEAKER_00", "SPEAKER_01", "SPEAKER_02"}));
}

TEST(DiarizedTranscript, EnrolledVoicesAppearByName) {
  TempDir dir;
  const std::string db = dir.File("speakers.txt");
  EnrollBothVoices(db);
  const ProcessResult r = DecodeExpectingSuccess(
      Concat(Concat(FileDecodeArgs(AudioPath("espeak-dialog/two-voices-dialog.wav")),
                    ExplicitDiarizationArgs(2)),
             SpeakerIdArgs(db)));
  EXPECT_GE(IndexOfLine(r.stdout_lines,
                        LogLine("[M2] Speaker identification initialized (threshold=0.700000)")),
            0);
  EXPECT_EQ(CountIdentificationLines(r.stdout_lines, "SPEAKER_00", "Alice"), 1)
      << JoinLines(r.stdout_lines);
  EXPECT_EQ(CountIdentificationLines(r.stdout_lines, "SPEAKER_01", "Bob"), 1);
  const std::string result = ResultLine(r);
  const auto label_of_voice =
      ExpectLabelsFollowTheTurns(result, "espeak-dialog/two-voices-dialog.rttm");
  EXPECT_EQ(label_of_voice.at("voiceA"), "Alice");
  EXPECT_EQ(label_of_voice.at("voiceB"), "Bob");
  EXPECT_EQ(Labels(ResultSegments(result)), (std::set<std::string>{"Alice", "Bob"}));
}

// A database that knows neither voice leaves the anonymous labels in place and
// says so once per cluster.
TEST(DiarizedTranscript, UnknownVoicesKeepTheirLabels) {
  TempDir dir;
  const std::string db = dir.File("speakers.txt");
  const ProcessResult enrolled =
      RunKerrow({"--register-name", "Carol", "--register-input", AudioPath("espeak/en10s.wav"),
                 "--speaker-embedding-model", kEmbedding, "--speaker-enroll-db", db});
  ASSERT_EQ(enrolled.exit_status, 0) << JoinLines(enrolled.stdout_lines);
  const ProcessResult r = DecodeExpectingSuccess(
      Concat(Concat(FileDecodeArgs(AudioPath("espeak-dialog/two-voices-dialog.wav")),
                    ExplicitDiarizationArgs(2)),
             Concat(SpeakerIdArgs(db), {"--speaker-id-threshold", "0.99"})));
  EXPECT_EQ(CountIdentificationLines(r.stdout_lines, "SPEAKER_00", "(unmatched)") +
                CountIdentificationLines(r.stdout_lines, "SPEAKER_01", "(unmatched)"),
            2)
      << JoinLines(r.stdout_lines);
  EXPECT_EQ(Labels(ResultSegments(ResultLine(r))),
            (std::set<std::string>{"SPEAKER_00", "SPEAKER_01"}));
}

// A live capture in manual-realtime mode with --offline-2pass: "stop" decodes
// the whole capture, and its segments carry the enrolled names too.
TEST(DiarizedTranscript, LiveOffline2passStopCarriesNames) {
  TempDir dir;
  const std::string db = dir.File("speakers.txt");
  EnrollBothVoices(db);
  auto process = StartLive(Concat(Concat(Concat(ManualRealtimeArgs(), {"--offline-2pass"}),
                                         ExplicitDiarizationArgs(2)),
                                  SpeakerIdArgs(db)));
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  // Voice A's first turn and voice B's first turn, then silence that a stop
  // arriving before the pipe is drained may cut without losing speech.
  const std::vector<float> dialog = LoadWavForTest(AudioPath("espeak-dialog/two-voices-dialog.wav"));
  const std::vector<float> two_turns(dialog.begin(), dialog.begin() + 11 * 16000);
  ASSERT_TRUE(process->WriteAudioS16(Join(two_turns, SilenceSeconds(2.5))));
  process->WriteCommand("stop");
  const int result = process->WaitForLine(
      [](const std::string& line) {
        return IsResultLine(line) && line.find("\"offline_2pass\":true") != std::string::npos;
      },
      seconds(120));
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  const std::string line = process->Lines()[result];
  const std::vector<LabelledSpan> segments = ResultSegments(line);
  ASSERT_FALSE(segments.empty()) << line;
  EXPECT_EQ(segments.front().label, "Alice") << line;
  EXPECT_EQ(segments.back().label, "Bob") << line;
  EXPECT_EQ(Labels(segments), (std::set<std::string>{"Alice", "Bob"})) << line;
}

}  // namespace
}  // namespace kerrow::testing
