// A broken segmentation or embedding model, given on the command line or
// found in the diarization model directory, costs only the speaker labels:
// kerrow logs why diarization is off, transcribes the file and exits 0.

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/bad_model_files.h"
#include "support/protocol_fixtures.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

const std::string kSegmentation = ModelPath("trained/segmentation-3spk/model.onnx");
const std::string kEmbedding = ModelPath("trained/speaker-embedding/model.onnx");
constexpr char kInitFailedPrefix[] =
    "[M2] Speaker diarization init failed: sherpa-onnx backend init failed: ";

enum class BrokenModel { kSegmentation, kEmbedding };
enum class Source { kExplicit, kModelDirectory };
using BadModelCase = std::tuple<BrokenModel, Source, BadModelKind>;

class DiarizationBadModelProcess : public ::testing::TestWithParam<BadModelCase> {};

// The diarization arguments for one case: the broken model by its explicit
// path, or by its preferred name in the model directory beside the good one
// given explicitly (an explicit path is what selects this backend).
std::vector<std::string> DiarizationArgs(const BadModelCase& param, const TempDir& dir,
                                         std::string* bad_path) {
  const auto [broken, source, kind] = param;
  const bool segmentation_broken = broken == BrokenModel::kSegmentation;
  *bad_path = dir.File(segmentation_broken ? "segmentation-3.1.onnx" : "wespeaker.onnx");
  WriteBadModel(kind, *bad_path, segmentation_broken ? kSegmentation : kEmbedding,
                segmentation_broken ? kEmbedding : kSegmentation);
  if (source == Source::kExplicit) {
    return {"--diarization", "--diarization-segmentation-model",
            segmentation_broken ? *bad_path : kSegmentation, "--diarization-embedding-model",
            segmentation_broken ? kEmbedding : *bad_path};
  }
  return {"--diarization", "--diarization-model", dir.path(),
          segmentation_broken ? "--diarization-embedding-model" : "--diarization-segmentation-model",
          segmentation_broken ? kEmbedding : kSegmentation};
}

int IndexOfLineStartingWith(const std::vector<std::string>& lines, const std::string& prefix) {
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].rfind(prefix, 0) == 0) return static_cast<int>(i);
  }
  return -1;
}

TEST_P(DiarizationBadModelProcess, RunGoesOnWithoutSpeakerLabels) {
  TempDir dir;
  std::string bad_path;
  const std::vector<std::string> diarization = DiarizationArgs(GetParam(), dir, &bad_path);
  const ProcessResult r = RunKerrow(Concat(
      Concat({"--manual-mode", "--wav-input", AudioPath("format-checks/1s.wav"), "--second-model",
              PatternSenseVoiceModel(), "--second-tokens", PatternSenseVoiceTokens()},
             diarization),
      {"--speaker-id", "--speaker-embedding-model", kEmbedding, "--speaker-enroll-db",
       dir.File("speakers.txt")}));

  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stderr_text, "");
  const int failed = IndexOfLineStartingWith(r.stdout_lines, std::string("{\"message\":\"") + kInitFailedPrefix);
  ASSERT_GE(failed, 0) << JoinLines(r.stdout_lines);
  const std::string& line = r.stdout_lines[failed];
  const auto [broken, source, kind] = GetParam();
  const bool skipped_by_search =
      source == Source::kModelDirectory &&
      (kind == BadModelKind::kMissing || kind == BadModelKind::kDirectory);
  if (skipped_by_search) {
    const std::string which = broken == BrokenModel::kSegmentation ? "segmentation" : "embedding";
    EXPECT_EQ(line, LogLine(kInitFailedPrefix + ("Diarization " + which + " model not found in ") +
                            dir.path()));
  } else {
    EXPECT_NE(line.find(bad_path), std::string::npos) << line;
  }
  // Without diarization there is no speaker identification either, and the
  // transcript comes out without speakers.
  for (const std::string& any : r.stdout_lines) {
    EXPECT_EQ(any.find("Speaker identification"), std::string::npos) << any;
  }
  EXPECT_EQ(r.stdout_lines[failed + 1], ReadyLine());
  const int result = IndexOfResult(r.stdout_lines);
  ASSERT_GE(result, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines[result].find("\"speaker\""), std::string::npos);
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

std::string CaseName(const ::testing::TestParamInfo<BadModelCase>& info) {
  const auto [broken, source, kind] = info.param;
  return std::string(broken == BrokenModel::kSegmentation ? "Segmentation" : "Embedding") +
         (source == Source::kExplicit ? "Explicit" : "InModelDirectory") + BadModelKindName(kind);
}

INSTANTIATE_TEST_SUITE_P(
    EveryKind, DiarizationBadModelProcess,
    ::testing::Combine(::testing::Values(BrokenModel::kSegmentation, BrokenModel::kEmbedding),
                       ::testing::Values(Source::kExplicit, Source::kModelDirectory),
                       ::testing::ValuesIn(kAllBadModelKinds)),
    CaseName);

}  // namespace
}  // namespace kerrow::testing
