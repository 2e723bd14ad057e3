#include "engine/punc_backend.h"

#include <gtest/gtest.h>

#include <string>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


PuncInitOptions StubPunctuation() {
  PuncInitOptions options;
  options.model = ModelPath("stubs/punct/model.onnx");
  return options;
}

PuncInitOptions TrainedPunctuation() {
  PuncInitOptions options;
  options.model = ModelPath("trained/punct-en/model.onnx");
  return options;
}

std::string InitError(const PuncInitOptions& options) {
  PuncBackend punc;
  std::string error;
  EXPECT_FALSE(punc.Init(options, &error));
  EXPECT_FALSE(punc.IsReady());
  return error;
}

std::string Punctuate(PuncBackend* punc, const std::string& text) {
  std::string out;
  std::string error;
  EXPECT_TRUE(punc->AddPunctuation(text, &out, &error)) << error;
  return out;
}

TEST(PuncBackend, EmptyModelPathFailsAndLeavesItNotReady) {
  EXPECT_EQ(InitError(PuncInitOptions()), "punctuation model path is empty");
}

TEST(PuncBackend, AddPunctuationBeforeInitFailsButKeepsTheInputInOut) {
  PuncBackend punc;
  std::string out;
  std::string error;
  EXPECT_FALSE(punc.AddPunctuation("hello world", &out, &error));
  EXPECT_EQ(error, "Punctuation backend is not initialized");
  EXPECT_EQ(out, "hello world");
}

TEST(PuncBackend, EmptyTextSucceedsWithEmptyOutput) {
  PuncBackend punc;
  std::string out = "stale";
  std::string error;
  EXPECT_TRUE(punc.AddPunctuation("", &out, &error));
  EXPECT_EQ(out, "");
}

TEST(PuncBackend, ZeroThreadsCreatesTheModel) {
  PuncInitOptions options = StubPunctuation();
  options.num_threads = 0;
  PuncBackend punc;
  std::string error;
  ASSERT_TRUE(punc.Init(options, &error)) << error;
  EXPECT_TRUE(punc.IsReady());
  EXPECT_EQ(Punctuate(&punc, "hello world how are you"), "hello world，how are you？");
}

TEST(PuncBackend, StubPunctuatesMixedEnglishAndChinese) {
  PuncBackend punc;
  std::string error;
  ASSERT_TRUE(punc.Init(StubPunctuation(), &error)) << error;
  EXPECT_EQ(Punctuate(&punc, "hello world how are you 你好吗 I am fine 我很好"),
            "hello world，how are you？你好，吗？I am fine。我很好。");
}

TEST(PuncBackend, StubTreatsAsciiPunctuationAsItsOwnToken) {
  PuncBackend punc;
  std::string error;
  ASSERT_TRUE(punc.Init(StubPunctuation(), &error)) << error;
  EXPECT_EQ(Punctuate(&punc, "hello, world how are you"), "hello , world，how are you？");
}

TEST(PuncBackend, TrainedModelPunctuatesEnglishSentences) {
  PuncBackend punc;
  std::string error;
  ASSERT_TRUE(punc.Init(TrainedPunctuation(), &error)) << error;
  EXPECT_EQ(Punctuate(&punc, "hello world this is a test of the second pass recognizer"),
            "hello world。this is a test of the second pass。recognizer。");
  EXPECT_EQ(Punctuate(&punc, "where are you going i am going home"),
            "where are you going？i am going home。");
}

TEST(PuncBackend, NullOutAndNullErrorAreAllowed) {
  PuncBackend punc;
  EXPECT_FALSE(punc.AddPunctuation("hello", nullptr, nullptr));
  std::string error;
  ASSERT_TRUE(punc.Init(StubPunctuation(), &error)) << error;
  EXPECT_TRUE(punc.AddPunctuation("hello", nullptr, nullptr));
}

TEST(PuncBackend, MissingModelFileFails) {
  TempDir dir;
  PuncInitOptions options;
  options.model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "model file not found: " + dir.File("model.onnx"));
}

TEST(PuncBackend, DirectoryAsModelFails) {
  TempDir dir;
  PuncInitOptions options;
  options.model = dir.path();
  EXPECT_EQ(InitError(options), "model path is a directory: " + dir.path());
}

TEST(PuncBackend, EmptyModelFileFails) {
  TempDir dir;
  WriteFileBytes(dir.File("model.onnx"), "");
  PuncInitOptions options;
  options.model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "model file is empty: " + dir.File("model.onnx"));
}

TEST(PuncBackend, GitLfsPointerAsModelFails) {
  TempDir dir;
  WriteFileBytes(dir.File("model.onnx"), GitLfsPointerText("00", 8122671));
  PuncInitOptions options;
  options.model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options),
            "model file is a git-lfs pointer, not the model: " + dir.File("model.onnx"));
}

TEST(PuncBackend, TextFileAsModelFails) {
  TempDir dir;
  WriteFileBytes(dir.File("model.onnx"), "punctuation please\n");
  PuncInitOptions options;
  options.model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "not a valid ONNX model: " + dir.File("model.onnx"));
}

TEST(PuncBackend, RandomBytesAsModelFail) {
  TempDir dir;
  std::string bytes;
  for (int i = 0; i < 2048; ++i) bytes.push_back(static_cast<char>((i * 104729 + 7) % 253));
  WriteFileBytes(dir.File("model.onnx"), bytes);
  PuncInitOptions options;
  options.model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "not a valid ONNX model: " + dir.File("model.onnx"));
}

TEST(PuncBackend, TruncatedModelFails) {
  TempDir dir;
  const std::string whole = ReadFileBytes(ModelPath("trained/punct-en/model.onnx"));
  WriteFileBytes(dir.File("model.onnx"), whole.substr(0, whole.size() / 2));
  PuncInitOptions options;
  options.model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "not a valid ONNX model: " + dir.File("model.onnx"));
}

TEST(PuncBackend, SenseVoiceModelAsPunctuationFails) {
  PuncInitOptions options;
  options.model = ModelPath("trained/sensevoice-en-char/model.onnx");
  EXPECT_EQ(InitError(options),
            "model " + options.model +
                " lacks metadata key 'tokens' required for a punctuation model (wrong model "
                "family?)");
}

TEST(PuncBackend, FailedReinitLeavesItNotReady) {
  PuncBackend punc;
  std::string error;
  ASSERT_TRUE(punc.Init(StubPunctuation(), &error)) << error;
  EXPECT_FALSE(punc.Init(PuncInitOptions(), &error));
  EXPECT_EQ(error, "punctuation model path is empty");
  EXPECT_FALSE(punc.IsReady());
  std::string out;
  EXPECT_FALSE(punc.AddPunctuation("hello world", &out, &error));
  EXPECT_EQ(out, "hello world");
}

}  // namespace
}  // namespace kerrow::testing
