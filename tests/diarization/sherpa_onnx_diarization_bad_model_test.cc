#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/bad_model_files.h"
#include "diarization/sherpa_onnx_diarization_backend.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


const std::string kSegmentation = ModelPath("trained/segmentation-3spk/model.onnx");
const std::string kEmbedding = ModelPath("trained/speaker-embedding/model.onnx");

enum class BrokenModel { kSegmentation, kEmbedding };
// In the model directory the bad file has the preferred name or only a name
// that the search's hint matches.
enum class Source { kExplicit, kModelDirectory, kHintedNameInModelDirectory };

using BadModelCase = std::tuple<BrokenModel, Source, BadModelKind>;

class SherpaOnnxDiarizationBadModel : public ::testing::TestWithParam<BadModelCase> {};

// Every broken file, whichever model it stands for and however it was found,
// is refused by Init with a message; reaching the assertions at all shows the
// process survived it.
TEST_P(SherpaOnnxDiarizationBadModel, InitRefusesItAndTheProcessGoesOn) {
  const auto [broken, source, kind] = GetParam();
  TempDir dir;
  const bool segmentation_broken = broken == BrokenModel::kSegmentation;
  const bool hinted = source == Source::kHintedNameInModelDirectory;
  const std::string bad_name = segmentation_broken ? (hinted ? "my-Segment.onnx" : "segmentation-3.1.onnx")
                                                   : (hinted ? "speaker-embed.onnx" : "wespeaker.onnx");
  const std::string bad_path = dir.File(bad_name);
  testing::WriteBadModel(kind, bad_path, segmentation_broken ? kSegmentation : kEmbedding,
                         segmentation_broken ? kEmbedding : kSegmentation);

  DiarizationInitOptions options;
  if (source == Source::kExplicit) {
    options.segmentation_model = segmentation_broken ? bad_path : kSegmentation;
    options.embedding_model = segmentation_broken ? kEmbedding : bad_path;
  } else {
    options.model = dir.path();
    (segmentation_broken ? options.embedding_model : options.segmentation_model) =
        segmentation_broken ? kEmbedding : kSegmentation;
  }

  SherpaOnnxDiarizationBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(options, &error));
  EXPECT_FALSE(backend.IsReady());
  // A file the directory search skips (missing, a directory) is reported as
  // not found there; everything else is named with its path.
  const bool skipped_by_search = source != Source::kExplicit &&
                                 (kind == BadModelKind::kMissing ||
                                  kind == BadModelKind::kDirectory);
  if (skipped_by_search) {
    EXPECT_EQ(error, std::string("Diarization ") +
                         (segmentation_broken ? "segmentation" : "embedding") +
                         " model not found in " + dir.path());
  } else {
    EXPECT_NE(error.find(bad_path), std::string::npos) << error;
  }
}

std::string CaseName(const ::testing::TestParamInfo<BadModelCase>& info) {
  const auto [broken, source, kind] = info.param;
  return std::string(broken == BrokenModel::kSegmentation ? "Segmentation" : "Embedding") +
         (source == Source::kExplicit         ? "Explicit"
          : source == Source::kModelDirectory ? "InModelDirectory"
                                              : "HintedInModelDirectory") +
         testing::BadModelKindName(kind);
}

INSTANTIATE_TEST_SUITE_P(
    EveryKind, SherpaOnnxDiarizationBadModel,
    ::testing::Combine(::testing::Values(BrokenModel::kSegmentation, BrokenModel::kEmbedding),
                       ::testing::Values(Source::kExplicit, Source::kModelDirectory,
                                         Source::kHintedNameInModelDirectory),
                       ::testing::ValuesIn(testing::kAllBadModelKinds)),
    CaseName);

}  // namespace
}  // namespace kerrow::testing
