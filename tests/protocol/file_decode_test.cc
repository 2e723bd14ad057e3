// Whole-file transcription as the host runs it: kerrow --wav-input / --pcm-input
// as a child process, asserting the exact event stream and exit status.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string>
#include <vector>

#include "support/bad_model_files.h"
#include "support/protocol_fixtures.h"

namespace kerrow::testing {
namespace {

const char kResultPrefix[] =
    "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\",\"is_final\":true,"
    "\"offline_2pass\":true,\"segments\":[";

ProcessResult DecodeWav(const std::string& wav, const std::vector<std::string>& model_args) {
  return RunKerrow(Concat({"--manual-mode", "--wav-input", wav}, model_args));
}

std::vector<std::string> WhisperStubArgs() {
  return {"--second-type", "whisper", "--second-encoder", WhisperStubEncoder(),
          "--second-decoder", WhisperStubDecoder(), "--second-tokens", WhisperStubTokens()};
}

// A run that leaves --num-threads-second at its default (4) first says whether
// that was lowered to the cores; checks that line and returns what follows it.
std::vector<std::string> AfterSecondPassThreadsLine(const std::vector<std::string>& lines) {
  const std::vector<std::string> lowered = LoweredSecondPassThreadsLines();
  if (lines.size() < lowered.size()) {
    ADD_FAILURE() << JoinLines(lines);
    return {};
  }
  const auto after = lines.begin() + static_cast<long>(lowered.size());
  EXPECT_EQ(std::vector<std::string>(lines.begin(), after), lowered);
  return std::vector<std::string>(after, lines.end());
}

std::vector<std::string> PatternStubArgs() {
  return {"--second-model", PatternSenseVoiceModel(), "--second-tokens", PatternSenseVoiceTokens(),
          "--num-threads-second", "1"};
}

TEST(FileDecode, WhisperStubWithoutVadDecodesTheWholeFileAsOneChunk) {
  const ProcessResult r = DecodeWav(AudioPath("format-checks/3s.wav"), WhisperStubArgs());
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  const std::vector<std::string> lines = AfterSecondPassThreadsLine(r.stdout_lines);
  ASSERT_EQ(lines.size(), 9u) << JoinLines(r.stdout_lines);
  EXPECT_EQ(lines[0], LogLine("Creating recognizers. Please wait..."));
  EXPECT_EQ(lines[1], LogLine("[M2] Offline decoder initialized"));
  EXPECT_EQ(lines[2], ReadyLine());
  EXPECT_EQ(lines[3], LogLine("WAV input: using unified offline_2pass decode path"));
  EXPECT_TRUE(std::regex_match(
      lines[4],
      std::regex(LogPattern("\\[TIMING\\]\\[VAD_AND_ASR\\] ms=\\d+ asr_decode_ms_sum=0 punc_group_ms_sum=0 groups=0"))))
      << lines[4];
  // "café" is 5 bytes: the count is in bytes.
  EXPECT_TRUE(std::regex_match(lines[5], std::regex(LogPattern("\\[TIMING\\]\\[PUNC_MERGED\\] ms=\\d+ chars=34"))))
      << lines[5];
  EXPECT_EQ(lines[6],
            std::string(kResultPrefix) +
                "{\"start_time\":0.00,\"end_time\":3.00,\"start_ms\":0,\"end_ms\":3000,"
                "\"text\":\"Hello world, this is a stub café.\"}],"
                "\"merged_text\":\"Hello world, this is a stub café.\"}");
  EXPECT_TRUE(std::regex_match(lines[7], std::regex(LogPattern("\\[TIMING\\]\\[TOTAL\\] ms=\\d+"))));
  EXPECT_EQ(lines[8], CompleteLine("WAV decode done"));
  EXPECT_EQ(r.stderr_text, "");
}

TEST(FileDecode, PatternStubGivesOneLetterEveryOneHundredTwentyMilliseconds) {
  const ProcessResult r = DecodeWav(AudioPath("format-checks/1s.wav"), PatternStubArgs());
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  const int result = IndexOfResult(r.stdout_lines);
  ASSERT_GE(result, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines[result],
            std::string(kResultPrefix) +
                "{\"start_time\":0.00,\"end_time\":1.00,\"start_ms\":0,\"end_ms\":1000,"
                "\"text\":\"abcdefghi\"}],\"merged_text\":\"abcdefghi\"}");
}

TEST(FileDecode, TrainedModelWithVadAndPunctuationTranscribesTheRecording) {
  const ProcessResult r = DecodeWav(
      AudioPath("espeak/en10s.wav"),
      Concat(TrainedSenseVoiceArgs(),
             {"--ct-transformer", TrainedPunctuationModel(), "--silero-vad-model", SileroVadModel()}));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  const auto& lines = r.stdout_lines;
  EXPECT_EQ(lines[0], LogLine("Creating recognizers. Please wait..."));
  EXPECT_EQ(lines[1], LogLine("[M2] Offline decoder initialized"));
  EXPECT_EQ(lines[2], LogLine("[M3] Offline punctuation initialized"));
  EXPECT_EQ(lines[3], ReadyLine());
  EXPECT_EQ(lines[4], LogLine("WAV input: using unified offline_2pass decode path"));

  const std::string s = "\\d+\\.\\d{6}s";
  const int vad_lines = CountMatches(
      lines, LogPattern("\\[OFFLINE2PASS\\]\\[VAD\\] start=" + s + " end=" + s + " raw=" + s + " added=" + s +
                 " acc=" + s + " max=8\\.000000s span=" + s + " span_max=disabled"));
  EXPECT_GE(vad_lines, 1) << JoinLines(lines);
  const std::string cut = LogPattern("\\[OFFLINE2PASS\\]\\[CUT\\] reason=(silence_gap|max_duration|flush) group_start=" + s +
                              " group_end=" + s + " padded_start=" + s + " padded_end=" + s + " acc=" + s +
                              " max=8\\.000000s span=" + s + " span_max=disabled");
  const int cuts = CountMatches(lines, cut);
  EXPECT_GE(cuts, 1);
  const int asr_lines = CountMatches(lines, LogPattern("\\[TIMING\\]\\[ASR_DECODE\\] group_idx=\\d+ chunk_s=[0-9.]+ ms=\\d+"));
  EXPECT_EQ(asr_lines, cuts);
  const int summary = IndexOfMatch(
      lines, LogPattern("\\[TIMING\\]\\[VAD_AND_ASR\\] ms=\\d+ asr_decode_ms_sum=\\d+ punc_group_ms_sum=\\d+ groups=" +
                 std::to_string(asr_lines)));
  ASSERT_GT(summary, 4) << JoinLines(lines);
  const int merged = IndexOfMatch(lines, LogPattern("\\[TIMING\\]\\[PUNC_MERGED\\] ms=\\d+ chars=\\d+"));
  const int result = IndexOfResult(lines);
  const int total = IndexOfMatch(lines, LogPattern("\\[TIMING\\]\\[TOTAL\\] ms=\\d+"));
  EXPECT_LT(summary, merged);
  EXPECT_EQ(result, merged + 1);
  EXPECT_EQ(total, result + 1);
  ASSERT_EQ(lines.back(), CompleteLine("WAV decode done"));
  EXPECT_EQ(static_cast<int>(lines.size()), total + 2);

  const std::string text = JsonStringField(lines[result], "merged_text");
  const std::string reference = PlainWords(ReadFileBytes(AudioPath("espeak/en10s.txt")));
  EXPECT_LT(CharacterErrorRate(reference, PlainWords(text)), 0.25) << text;
  EXPECT_NE(text.find("。"), std::string::npos) << "the punctuation model marks sentence ends: " << text;

  // Every segment lies inside the 11.7 s recording, in order.
  const std::regex segment("\"start_time\":(\\d+\\.\\d\\d),\"end_time\":(\\d+\\.\\d\\d)");
  double previous_end = 0;
  int segments = 0;
  for (auto it = std::sregex_iterator(lines[result].begin(), lines[result].end(), segment);
       it != std::sregex_iterator(); ++it, ++segments) {
    const double start = std::stod((*it)[1]);
    const double end = std::stod((*it)[2]);
    EXPECT_LE(start, end);
    EXPECT_GE(start + 0.3, previous_end);  // padding may overlap the previous piece slightly
    EXPECT_LE(end, 11.75);
    previous_end = end;
  }
  EXPECT_GE(segments, 1);
}

TEST(FileDecode, WithoutPunctuationModelTheTextStaysUnpunctuated) {
  const ProcessResult r = DecodeWav(AudioPath("espeak/en_short.wav"),
                                    Concat(TrainedSenseVoiceArgs(), {"--silero-vad-model", SileroVadModel()}));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(IndexOfMatch(r.stdout_lines, LogPattern("\\[M3\\].*")), -1);
  const int result = IndexOfResult(r.stdout_lines);
  ASSERT_GE(result, 0);
  const std::string text = JsonStringField(r.stdout_lines[result], "merged_text");
  EXPECT_EQ(text.find("。"), std::string::npos) << text;
  EXPECT_LT(CharacterErrorRate("hello world this is a test of the second pass recognizer", PlainWords(text)),
            0.3)
      << text;
}

TEST(FileDecode, WithoutVadModelFallsBackToChunkDecoding) {
  const ProcessResult r = DecodeWav(AudioPath("espeak/en_short.wav"), TrainedSenseVoiceArgs());
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(CountMatches(r.stdout_lines, LogPattern("\\[OFFLINE2PASS\\].*")), 0);
  EXPECT_GE(IndexOfMatch(r.stdout_lines,
                         LogPattern("\\[TIMING\\]\\[VAD_AND_ASR\\] ms=\\d+ asr_decode_ms_sum=0 punc_group_ms_sum=0 groups=0")),
            0);
  const int result = IndexOfResult(r.stdout_lines);
  ASSERT_GE(result, 0);
  // 4.3 s fits in one 8 s chunk: one segment from 0 to the end of the file.
  EXPECT_NE(r.stdout_lines[result].find("\"start_time\":0.00,\"end_time\":4.32"), std::string::npos)
      << r.stdout_lines[result];
  EXPECT_LT(CharacterErrorRate("hello world this is a test of the second pass recognizer",
                               PlainWords(JsonStringField(r.stdout_lines[result], "merged_text"))),
            0.3);
}

TEST(FileDecode, VadModelThatFailsToLoadFallsBackToChunkDecoding) {
  TempDir dir;
  const std::string bad_vad = dir.File("vad.onnx");
  WriteFileBytes(bad_vad, "this is not a model\n");
  const ProcessResult r =
      DecodeWav(AudioPath("espeak/en_short.wav"), Concat(TrainedSenseVoiceArgs(), {"--silero-vad-model", bad_vad}));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_GE(IndexOfMatch(r.stdout_lines, LogPattern("offline_2pass VAD init failed, fallback to chunk decode: .+")), 0)
      << JoinLines(r.stdout_lines);
  EXPECT_GE(IndexOfResult(r.stdout_lines), 0);
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

// Speech that runs to the very end of the file is still transcribed: the part
// after the last detected segment is decoded by tail compensation.
TEST(FileDecode, SpeechOnlyAtTheEndIsTranscribed) {
  std::vector<float> speech = LoadWavForTest(AudioPath("espeak/en_short.wav"));
  while (!speech.empty() && std::fabs(speech.back()) < 0.02f) speech.pop_back();
  std::vector<float> samples(4 * 16000, 0.0f);
  samples.insert(samples.end(), speech.begin(), speech.end());
  TempDir dir;
  const std::string wav = dir.File("late.wav");
  WriteFileBytes(wav, WavBytes(ToS16(samples)));

  const ProcessResult r = DecodeWav(wav, Concat(TrainedSenseVoiceArgs(), {"--silero-vad-model", SileroVadModel()}));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  const int result = IndexOfResult(r.stdout_lines);
  ASSERT_GE(result, 0);
  const std::string& line = r.stdout_lines[result];
  EXPECT_LT(CharacterErrorRate("hello world this is a test of the second pass recognizer",
                               PlainWords(JsonStringField(line, "merged_text"))),
            0.35)
      << line;
  // Nothing is transcribed in the leading silence.
  std::smatch first;
  ASSERT_TRUE(std::regex_search(line, first, std::regex("\"start_time\":(\\d+\\.\\d\\d)")));
  EXPECT_GE(std::stod(first[1]), 3.0) << line;
}

TEST(FileDecode, RecordingWithoutSpeechIsDecodedWholeAndGivesAnEmptyResult) {
  const ProcessResult r = DecodeWav(AudioPath("format-checks/sil.wav"),
                                    Concat(TrainedSenseVoiceArgs(), {"--silero-vad-model", SileroVadModel()}));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  const auto& lines = r.stdout_lines;
  const int tail = IndexOfLine(lines, LogLine("offline_2pass tail compensation enabled"));
  EXPECT_GE(tail, 0) << JoinLines(lines);
  EXPECT_GE(IndexOfMatch(lines, LogPattern("\\[TIMING\\]\\[ASR_DECODE\\] group_idx=0 chunk_s=1(\\.0+)? ms=\\d+")), 0)
      << JoinLines(lines);
  const int empty = IndexOfLine(lines, LogLine("offline_2pass finished with empty text"));
  ASSERT_GE(empty, 0) << JoinLines(lines);
  EXPECT_EQ(lines[empty + 1], std::string(kResultPrefix) + "]}");
  EXPECT_EQ(lines.back(), CompleteLine("WAV decode done"));
}

TEST(FileDecode, PcmInputTakesTheSameDecodePath) {
  TempDir dir;
  const std::string pcm = dir.File("clip.pcm");
  WriteFileBytes(pcm, S16leBytes(LoadWavForTest(AudioPath("format-checks/3s.wav"))));
  const ProcessResult r = RunKerrow(Concat({"--manual-mode", "--pcm-input", pcm}, WhisperStubArgs()));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(AfterSecondPassThreadsLine(r.stdout_lines)[3], LogLine("PCM input: using unified offline_2pass decode path"));
  const int result = IndexOfResult(r.stdout_lines);
  ASSERT_GE(result, 0);
  EXPECT_EQ(JsonStringField(r.stdout_lines[result], "merged_text"), "Hello world, this is a stub café.");
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("PCM decode done"));
}

TEST(FileDecode, F32lePcmInputIsDecoded) {
  TempDir dir;
  const std::string pcm = dir.File("clip.f32");
  const std::vector<float> samples = LoadWavForTest(AudioPath("format-checks/3s.wav"));
  WriteFileBytes(pcm, std::string(reinterpret_cast<const char*>(samples.data()), samples.size() * sizeof(float)));
  const ProcessResult r = RunKerrow(Concat({"--manual-mode", "--pcm-input", pcm, "--audio-format", "f32le"}, WhisperStubArgs()));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(JsonStringField(r.stdout_lines[IndexOfResult(r.stdout_lines)], "merged_text"),
            "Hello world, this is a stub café.");
}

// ---- the decoder failing to load -------------------------------------------

TEST(FileDecode, FailedDecoderRefusesTheFileWithItsInitError) {
  const std::string missing = "/nonexistent/kerrow/model.onnx";
  const ProcessResult r = RunKerrow(
      {"--manual-mode", "--wav-input", AudioPath("format-checks/1s.wav"), "--second-model", missing, "--second-tokens",
       TrainedSenseVoiceTokens()});
  ASSERT_EQ(r.exit_status, 1);
  const std::vector<std::string> lines = AfterSecondPassThreadsLine(r.stdout_lines);
  ASSERT_EQ(lines.size(), 6u) << JoinLines(r.stdout_lines);
  EXPECT_EQ(lines[0], LogLine("Creating recognizers. Please wait..."));
  const std::string prefix = "{\"message\":\"[M2] Offline decoder init failed: ";
  ASSERT_EQ(lines[1].rfind(prefix, 0), 0u) << lines[1];
  const std::string init_error = lines[1].substr(prefix.size(), lines[1].size() - prefix.size() - std::string("\",\"type\":\"log\"}").size());
  EXPECT_NE(init_error.find(missing), std::string::npos) << init_error;
  EXPECT_EQ(lines[2], LogLine("[M2] Running in skeleton fallback mode"));
  EXPECT_EQ(lines[3], ReadyLine());
  EXPECT_EQ(lines[4], ErrorLine("Decoder is not ready for --wav-input: " + init_error));
  EXPECT_EQ(lines[5], CompleteLine("File decode failed"));
}

TEST(FileDecode, FailedDecoderRefusesPcmInputNamingTheOption) {
  TempDir dir;
  const std::string pcm = dir.File("clip.pcm");
  WriteFileBytes(pcm, std::string(3200, '\0'));
  const ProcessResult r =
      RunKerrow({"--manual-mode", "--pcm-input", pcm, "--second-model", dir.path(), "--second-tokens", TrainedSenseVoiceTokens()});
  ASSERT_EQ(r.exit_status, 1);
  ASSERT_GE(r.stdout_lines.size(), 2u);
  EXPECT_EQ(r.stdout_lines[r.stdout_lines.size() - 2].rfind(
                "{\"message\":\"Decoder is not ready for --pcm-input: ", 0),
            0u)
      << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("File decode failed"));
}

// ---- bad model files never take the process down ----------------------------

struct BadModelFile {
  const char* name;
  std::string (*make)(const TempDir& dir);
};

void PrintTo(const BadModelFile& file, std::ostream* out) { *out << file.name; }

std::string MakeMissing(const TempDir& dir) { return dir.File("no-such-model.onnx"); }
std::string MakeEmpty(const TempDir& dir) {
  WriteFileBytes(dir.File("empty.onnx"), "");
  return dir.File("empty.onnx");
}
std::string MakeDirectory(const TempDir& dir) { return dir.path(); }
std::string MakeText(const TempDir& dir) {
  WriteFileBytes(dir.File("text.onnx"), "this is a text file, not a model\n");
  return dir.File("text.onnx");
}
std::string MakeRandomBytes(const TempDir& dir) {
  WriteFileBytes(dir.File("random.onnx"), PseudoRandomBytes(8192));
  return dir.File("random.onnx");
}
std::string MakeLfsPointer(const TempDir& dir) {
  WriteFileBytes(dir.File("lfs.onnx"),
                 GitLfsPointerText("fdf60619843862a05603299c7435e928962e29aa6305e0a3f889583d7bacdc11", 8199965));
  return dir.File("lfs.onnx");
}
std::string MakeTruncated(const TempDir& dir) {
  const std::string model = ReadFileBytes(TrainedSenseVoiceModel());
  WriteFileBytes(dir.File("truncated.onnx"), model.substr(0, model.size() / 2));
  return dir.File("truncated.onnx");
}

const BadModelFile kBadModelFiles[] = {
    {"missing", MakeMissing}, {"empty", MakeEmpty},       {"directory", MakeDirectory},
    {"text", MakeText},       {"random", MakeRandomBytes}, {"lfs_pointer", MakeLfsPointer},
    {"truncated", MakeTruncated},
};

class BadModelFileTest : public ::testing::TestWithParam<BadModelFile> {};

TEST_P(BadModelFileTest, AsTheRecognizerItIsRefusedAndTheFileDecodeFails) {
  TempDir dir;
  const std::string model = GetParam().make(dir);
  const ProcessResult r =
      RunKerrow({"--manual-mode", "--wav-input", AudioPath("format-checks/1s.wav"), "--second-model", model, "--second-tokens",
                 TrainedSenseVoiceTokens()});
  EXPECT_EQ(r.exit_status, 1) << JoinLines(r.stdout_lines);
  const std::vector<std::string> lines = AfterSecondPassThreadsLine(r.stdout_lines);
  ASSERT_GE(lines.size(), 3u) << r.stderr_text;
  EXPECT_EQ(lines[1].rfind("{\"message\":\"[M2] Offline decoder init failed: ", 0), 0u) << lines[1];
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("File decode failed"));
}

TEST_P(BadModelFileTest, AsThePunctuationModelTheRunGoesOnWithoutPunctuation) {
  TempDir dir;
  const std::string model = GetParam().make(dir);
  const ProcessResult r = RunKerrow(
      Concat({"--manual-mode", "--wav-input", AudioPath("format-checks/3s.wav"), "--ct-transformer", model}, WhisperStubArgs()));
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  const std::vector<std::string> lines = AfterSecondPassThreadsLine(r.stdout_lines);
  ASSERT_GE(lines.size(), 3u) << r.stderr_text;
  EXPECT_EQ(lines[2].rfind("{\"message\":\"[M3] Offline punctuation init failed: ", 0), 0u) << lines[2];
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

TEST_P(BadModelFileTest, AsTheVadModelTheFileIsDecodedInChunks) {
  TempDir dir;
  const std::string model = GetParam().make(dir);
  const ProcessResult r = RunKerrow(
      Concat({"--manual-mode", "--wav-input", AudioPath("format-checks/3s.wav"), "--silero-vad-model", model}, WhisperStubArgs()));
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_GE(IndexOfMatch(r.stdout_lines, LogPattern("offline_2pass VAD init failed, fallback to chunk decode: .+")), 0)
      << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

INSTANTIATE_TEST_SUITE_P(AllKinds, BadModelFileTest, ::testing::ValuesIn(kBadModelFiles),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(FileDecode, ModelOfTheWrongFamilyIsRefusedForEachRole) {
  // The punctuation model as the recognizer, the recognizer as the punctuation
  // model and as the VAD: each valid ONNX, each lacking what its role needs.
  const ProcessResult as_recognizer =
      RunKerrow({"--manual-mode", "--wav-input", AudioPath("format-checks/1s.wav"), "--second-model", TrainedPunctuationModel(),
                 "--second-tokens", TrainedSenseVoiceTokens()});
  EXPECT_EQ(as_recognizer.exit_status, 1) << JoinLines(as_recognizer.stdout_lines);
  EXPECT_EQ(as_recognizer.stdout_lines.back(), CompleteLine("File decode failed"));

  const ProcessResult as_punctuation = RunKerrow(Concat(
      {"--manual-mode", "--wav-input", AudioPath("format-checks/3s.wav"), "--ct-transformer", TrainedSenseVoiceModel()},
      WhisperStubArgs()));
  EXPECT_EQ(as_punctuation.exit_status, 0) << JoinLines(as_punctuation.stdout_lines);
  const std::vector<std::string> punctuation_lines = AfterSecondPassThreadsLine(as_punctuation.stdout_lines);
  ASSERT_GE(punctuation_lines.size(), 3u) << JoinLines(as_punctuation.stdout_lines);
  EXPECT_EQ(punctuation_lines[2].rfind("{\"message\":\"[M3] Offline punctuation init failed: ", 0), 0u);

  const ProcessResult as_vad = RunKerrow(Concat(
      {"--manual-mode", "--wav-input", AudioPath("format-checks/3s.wav"), "--silero-vad-model", TrainedPunctuationModel()},
      WhisperStubArgs()));
  EXPECT_EQ(as_vad.exit_status, 0) << JoinLines(as_vad.stdout_lines);
  EXPECT_GE(IndexOfMatch(as_vad.stdout_lines, LogPattern("offline_2pass VAD init failed, fallback to chunk decode: .+")), 0);

  const ProcessResult whisper_as_sensevoice =
      RunKerrow({"--manual-mode", "--wav-input", AudioPath("format-checks/1s.wav"), "--second-model", WhisperStubEncoder(),
                 "--second-tokens", WhisperStubTokens()});
  EXPECT_EQ(whisper_as_sensevoice.exit_status, 1) << JoinLines(whisper_as_sensevoice.stdout_lines);
}

// ---- reader errors, end to end ---------------------------------------------

void ExpectReaderError(const std::vector<std::string>& input_args, const std::string& message) {
  const ProcessResult r = RunKerrow(Concat(Concat({"--manual-mode"}, input_args), PatternStubArgs()));
  EXPECT_EQ(r.exit_status, 1) << JoinLines(r.stdout_lines);
  ASSERT_EQ(r.stdout_lines.size(), 5u) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines[2], ReadyLine());
  EXPECT_EQ(r.stdout_lines[3], ErrorLine(message));
  EXPECT_EQ(r.stdout_lines[4], CompleteLine("File decode failed"));
}

TEST(FileDecodeReaderErrors, MissingWav) {
  ExpectReaderError({"--wav-input", "/nonexistent/a.wav"}, "WAV file not found: /nonexistent/a.wav");
}

TEST(FileDecodeReaderErrors, ShortHeader) {
  TempDir dir;
  WriteFileBytes(dir.File("short.wav"), "RIFF");
  ExpectReaderError({"--wav-input", dir.File("short.wav")}, "Invalid WAV header");
}

TEST(FileDecodeReaderErrors, NotRiffWave) {
  TempDir dir;
  WriteFileBytes(dir.File("text.wav"), "this is just some text, not audio\n");
  ExpectReaderError({"--wav-input", dir.File("text.wav")}, "Not a RIFF/WAVE file");
}

TEST(FileDecodeReaderErrors, StereoIsRefusedBeforeTheRate) {
  TempDir dir;
  WriteFileBytes(dir.File("stereo.wav"), WavBytes(std::vector<int16_t>(3200, 0), 44100, 2));
  ExpectReaderError({"--wav-input", dir.File("stereo.wav")}, "WAV must be mono");
}

TEST(FileDecodeReaderErrors, OtherSampleRate) {
  TempDir dir;
  WriteFileBytes(dir.File("44k.wav"), WavBytes(std::vector<int16_t>(4410, 0), 44100));
  ExpectReaderError({"--wav-input", dir.File("44k.wav")}, "WAV sample rate must be 16000");
}

TEST(FileDecodeReaderErrors, RealEightKilohertzRecording) {
  ExpectReaderError({"--wav-input", AudioPath("zh-en/8k.wav")}, "WAV sample rate must be 16000");
}

TEST(FileDecodeReaderErrors, HeaderOnlyFileHasNoChannels) {
  TempDir dir;
  WriteFileBytes(dir.File("bare.wav"), std::string("RIFF\x04\0\0\0WAVE", 12));
  ExpectReaderError({"--wav-input", dir.File("bare.wav")}, "WAV must be mono");
}

TEST(FileDecodeReaderErrors, EmptyDataChunk) {
  TempDir dir;
  WriteFileBytes(dir.File("nodata.wav"), WavBytes({}));
  ExpectReaderError({"--wav-input", dir.File("nodata.wav")}, "WAV has no data");
}

TEST(FileDecodeReaderErrors, TwentyFourBitPcm) {
  TempDir dir;
  WriteFileBytes(dir.File("24.wav"), WavBytes(std::vector<int16_t>(300, 0), 16000, 1, 1, 24));
  ExpectReaderError({"--wav-input", dir.File("24.wav")},
                    "Unsupported WAV format. Expect mono 16-bit PCM or mono 32-bit float");
}

TEST(FileDecodeReaderErrors, TruncatedDataChunk) {
  TempDir dir;
  std::string bytes = WavBytes(std::vector<int16_t>(1600, 0));
  bytes.resize(bytes.size() - 100);
  WriteFileBytes(dir.File("cut.wav"), bytes);
  ExpectReaderError({"--wav-input", dir.File("cut.wav")}, "Invalid WAV data chunk");
}

TEST(FileDecodeReaderErrors, MissingPcm) {
  ExpectReaderError({"--pcm-input", "/nonexistent/a.pcm"}, "PCM file not found: /nonexistent/a.pcm");
}

TEST(FileDecodeReaderErrors, EmptyPcm) {
  TempDir dir;
  WriteFileBytes(dir.File("empty.pcm"), "");
  ExpectReaderError({"--pcm-input", dir.File("empty.pcm")}, "PCM file is empty: " + dir.File("empty.pcm"));
}

TEST(FileDecodeReaderErrors, MisalignedS16le) {
  TempDir dir;
  WriteFileBytes(dir.File("odd.pcm"), "abc");
  ExpectReaderError({"--pcm-input", dir.File("odd.pcm")}, "PCM s16le byte length must be aligned to 2 bytes");
}

TEST(FileDecodeReaderErrors, MisalignedF32le) {
  TempDir dir;
  WriteFileBytes(dir.File("odd.f32"), "abcdef");
  ExpectReaderError({"--pcm-input", dir.File("odd.f32"), "--audio-format", "f32le"},
                    "PCM f32le byte length must be aligned to 4 bytes");
}

}  // namespace
}  // namespace kerrow::testing
