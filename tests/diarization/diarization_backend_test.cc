#include "diarization/diarization_backend.h"

#include <gtest/gtest.h>

#include <string>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

constexpr char kNothingSelected[] =
    "no diarization backend selected: pass either --diarization-helper-binary (fluidaudio) "
    "or --diarization-segmentation-model + --diarization-embedding-model (sherpa-onnx)";

TEST(CreateDiarizationBackend, HelperBinaryWinsOverModelPaths) {
  DiarizationInitOptions options;
  options.helper_binary = "/usr/local/bin/diarize-helper";
  options.segmentation_model = "/models/segmentation.onnx";
  options.embedding_model = "/models/embedding.onnx";
  std::string error;
  // The helper-process backend's Init refuses the missing model directory
  // before it starts anything: its message shows which backend was chosen.
  EXPECT_EQ(CreateDiarizationBackend(options, &error), nullptr);
  EXPECT_EQ(error, "fluidaudio backend init failed: diarization model_dir is empty");
}

// The sherpa-onnx backend's Init then looks for the other model, which the
// empty model directory cannot provide: its message shows which backend ran.
TEST(CreateDiarizationBackend, EmbeddingModelAloneSelectsSherpaOnnx) {
  DiarizationInitOptions options;
  options.embedding_model = "/models/embedding.onnx";
  std::string error;
  EXPECT_EQ(CreateDiarizationBackend(options, &error), nullptr);
  EXPECT_EQ(error,
            "sherpa-onnx backend init failed: Diarization segmentation model not found in ");
}

TEST(CreateDiarizationBackend, SegmentationModelAloneSelectsSherpaOnnx) {
  DiarizationInitOptions options;
  options.segmentation_model = "/models/segmentation.onnx";
  std::string error;
  EXPECT_EQ(CreateDiarizationBackend(options, &error), nullptr);
  EXPECT_EQ(error,
            "sherpa-onnx backend init failed: Diarization embedding model not found in ");
}

TEST(CreateDiarizationBackend, BothRealModelsGiveAReadySherpaOnnxBackend) {
  DiarizationInitOptions options;
  options.segmentation_model = testing::ModelPath("trained/segmentation-3spk/model.onnx");
  options.embedding_model = testing::ModelPath("trained/speaker-embedding/model.onnx");
  std::string error;
  const auto backend = CreateDiarizationBackend(options, &error);
  ASSERT_NE(backend, nullptr) << error;
  EXPECT_TRUE(backend->IsReady());
}

TEST(CreateDiarizationBackend, FailedInitIsNamedAfterTheBackend) {
  DiarizationInitOptions options;
  options.segmentation_model = "/nonexistent/segmentation.onnx";
  options.embedding_model = testing::ModelPath("trained/speaker-embedding/model.onnx");
  std::string error;
  EXPECT_EQ(CreateDiarizationBackend(options, &error), nullptr);
  EXPECT_EQ(error,
            "sherpa-onnx backend init failed: model file not found: "
            "/nonexistent/segmentation.onnx");
}

TEST(CreateDiarizationBackend, ModelDirectoryAloneSelectsNothing) {
  DiarizationInitOptions options;
  options.model = "/models/diarization";
  std::string error;
  EXPECT_EQ(CreateDiarizationBackend(options, &error), nullptr);
  EXPECT_EQ(error, kNothingSelected);
}

TEST(CreateDiarizationBackend, NullErrorPointerIsAllowed) {
  DiarizationInitOptions options;
  EXPECT_EQ(CreateDiarizationBackend(options, nullptr), nullptr);
}

TEST(DiarizationInitOptions, DefaultsMatchTheCommandLineDefaults) {
  const DiarizationInitOptions options;
  EXPECT_EQ(options.num_threads, 1);
  EXPECT_EQ(options.provider, "cpu");
  EXPECT_EQ(options.min_speakers, 0);
  EXPECT_EQ(options.max_speakers, 0);
  EXPECT_FLOAT_EQ(options.min_duration_on, 0.3f);
  EXPECT_FLOAT_EQ(options.min_duration_off, 0.5f);
  EXPECT_EQ(options.backend, "offline");
  EXPECT_TRUE(options.helper_binary.empty());
}

TEST(MakeDiarizationBackends, SherpaOnnxBackendIsBuiltInAndStartsUninitialised) {
  const auto backend = MakeSherpaOnnxDiarizationBackend();
  ASSERT_NE(backend, nullptr);
  EXPECT_FALSE(backend->IsReady());
}

}  // namespace
}  // namespace kerrow::testing
