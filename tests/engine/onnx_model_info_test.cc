#include "engine/onnx_model_info.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


// Hand-assembled wire bytes: tag = field << 3 | wire type.
std::string Varint(uint64_t value) {
  std::string out;
  while (value >= 0x80) {
    out.push_back(static_cast<char>((value & 0x7f) | 0x80));
    value >>= 7;
  }
  out.push_back(static_cast<char>(value));
  return out;
}

std::string LengthDelimited(uint32_t field, const std::string& body) {
  return Varint(field << 3 | 2) + Varint(body.size()) + body;
}

std::string IrVersion() { return Varint(1 << 3 | 0) + Varint(8); }

std::string MetadataEntry(const std::string& key, const std::string& value) {
  return LengthDelimited(14, LengthDelimited(1, key) + LengthDelimited(2, value));
}

std::string GraphWithInputs(const std::vector<std::string>& names) {
  std::string graph = LengthDelimited(2, "graph-name");
  for (const auto& name : names) graph += LengthDelimited(11, LengthDelimited(1, name));
  return LengthDelimited(7, graph);
}

TEST(OnnxModelInfo, ReadsMetadataOfTheTrainedSenseVoiceModel) {
  OnnxModelInfo info;
  std::string error;
  ASSERT_TRUE(ReadOnnxModelInfoFromFile(ModelPath("trained/sensevoice-en-char/model.onnx"), &info,
                                        &error))
      << error;
  ASSERT_NE(info.FindMetadata("vocab_size"), nullptr);
  EXPECT_EQ(*info.FindMetadata("vocab_size"), "38");
  EXPECT_EQ(*info.FindMetadata("lfr_window_shift"), "3");
  EXPECT_EQ(*info.FindMetadata("model_type"), "sense_voice_ctc");
  EXPECT_FALSE(info.HasMetadata("no_such_key"));
  EXPECT_EQ(info.graph_inputs, (std::vector<std::string>{"x", "x_length", "language", "text_norm"}));
}

TEST(OnnxModelInfo, ReadsGraphInputsOfTheSileroVadModel) {
  OnnxModelInfo info;
  std::string error;
  ASSERT_TRUE(ReadOnnxModelInfoFromFile(KERROW_VAD_MODEL, &info, &error)) << error;
  EXPECT_TRUE(info.metadata.empty());
  EXPECT_EQ(info.graph_inputs, (std::vector<std::string>{"input", "state", "sr"}));
}

TEST(OnnxModelInfo, ReadsPunctuationMetadataWithMultibyteValues) {
  OnnxModelInfo info;
  std::string error;
  ASSERT_TRUE(ReadOnnxModelInfoFromFile(ModelPath("stubs/punct/model.onnx"), &info, &error)) << error;
  EXPECT_EQ(*info.FindMetadata("punctuations"), "<unk>|_|，|。|？|、");
  EXPECT_EQ(*info.FindMetadata("unk_symbol"), "<unk>");
  EXPECT_EQ(*info.FindMetadata("vocab_size"), "15");
}

TEST(OnnxModelInfo, HandBuiltModelKeepsMetadataAndInputOrder) {
  const std::string bytes = IrVersion() + MetadataEntry("b", "2") + GraphWithInputs({"x", "y"}) +
                            MetadataEntry("a", "1");
  OnnxModelInfo info;
  std::string error;
  ASSERT_TRUE(ParseOnnxModelInfo(bytes, &info, &error)) << error;
  ASSERT_EQ(info.metadata.size(), 2u);
  EXPECT_EQ(info.metadata[0], std::make_pair(std::string("b"), std::string("2")));
  EXPECT_EQ(info.metadata[1], std::make_pair(std::string("a"), std::string("1")));
  EXPECT_EQ(info.graph_inputs, (std::vector<std::string>{"x", "y"}));
  EXPECT_TRUE(info.HasGraphInput("y"));
}

TEST(OnnxModelInfo, EmptyInputFails) {
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ParseOnnxModelInfo("", &info, &error));
  EXPECT_EQ(error, "empty input");
}

TEST(OnnxModelInfo, TextFileFails) {
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ParseOnnxModelInfo(GitLfsPointerText(), &info, &error));
  EXPECT_FALSE(error.empty());
}

TEST(OnnxModelInfo, MissingGraphFails) {
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ParseOnnxModelInfo(IrVersion() + MetadataEntry("a", "1"), &info, &error));
  EXPECT_EQ(error, "no graph field");
  EXPECT_TRUE(info.metadata.empty());
}

TEST(OnnxModelInfo, MissingIrVersionFails) {
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ParseOnnxModelInfo(GraphWithInputs({"x"}), &info, &error));
  EXPECT_EQ(error, "no ir_version field");
}

TEST(OnnxModelInfo, HugeLengthVarintFailsWithoutAllocating) {
  // A metadata entry claiming 2^62 bytes.
  const std::string bytes = IrVersion() + Varint(14 << 3 | 2) + Varint(uint64_t{1} << 62) + "ab";
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ParseOnnxModelInfo(bytes, &info, &error));
  EXPECT_EQ(error, "length 4611686018427387904 runs past the end of its message at byte 3");
}

TEST(OnnxModelInfo, NestedLengthPastItsParentFails) {
  // The graph is 4 bytes long but its input claims 10.
  const std::string graph_body = Varint(11 << 3 | 2) + Varint(10) + "ab";
  const std::string bytes = IrVersion() + LengthDelimited(7, graph_body) + std::string(20, '\0');
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ParseOnnxModelInfo(bytes, &info, &error));
  EXPECT_EQ(error, "length 10 runs past the end of its message at byte 5");
}

TEST(OnnxModelInfo, OverlongVarintFails) {
  const std::string bytes = IrVersion() + Varint(3 << 3 | 0) + std::string(11, '\xff');
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ParseOnnxModelInfo(bytes, &info, &error));
  EXPECT_EQ(error, "varint longer than 64 bits at byte 3");
}

TEST(OnnxModelInfo, TruncatedVarintFails) {
  const std::string bytes = IrVersion() + Varint(3 << 3 | 0) + "\x80\x80";
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ParseOnnxModelInfo(bytes, &info, &error));
  EXPECT_EQ(error, "truncated varint at byte 3");
}

TEST(OnnxModelInfo, GroupWireTypeFails) {
  const std::string bytes = IrVersion() + Varint(3 << 3 | 3);
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ParseOnnxModelInfo(bytes, &info, &error));
  EXPECT_EQ(error, "unsupported wire type 3 at byte 3");
}

TEST(OnnxModelInfo, WrongWireTypeForMetadataFails) {
  const std::string bytes = IrVersion() + Varint(14 << 3 | 0) + Varint(5) + GraphWithInputs({"x"});
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ParseOnnxModelInfo(bytes, &info, &error));
  EXPECT_EQ(error, "field 14 has wire type 0 at byte 2");
}

TEST(OnnxModelInfo, EveryTruncationOfARealModelFailsCleanly) {
  const std::string whole = ReadFileBytes(ModelPath("stubs/streaming-transducer/encoder.onnx"));
  OnnxModelInfo info;
  std::string error;
  ASSERT_TRUE(ParseOnnxModelInfo(whole, &info, &error)) << error;
  EXPECT_EQ(*info.FindMetadata("model_type"), "lstm");
  for (size_t cut = 1; cut < whole.size(); ++cut) {
    // Cuts that end exactly on a top-level field boundary after the graph
    // and ir_version are still well-formed messages; all others must fail.
    OnnxModelInfo partial;
    std::string partial_error;
    if (!ParseOnnxModelInfo(whole.substr(0, cut), &partial, &partial_error)) {
      EXPECT_FALSE(partial_error.empty()) << "cut at " << cut;
      EXPECT_TRUE(partial.metadata.empty());
    }
  }
  // Half the file is never a complete model.
  EXPECT_FALSE(ParseOnnxModelInfo(whole.substr(0, whole.size() / 2), &info, &error));
}

TEST(OnnxModelInfo, RandomBytesNeverCrash) {
  std::mt19937 generator(12345);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<int> length(1, 400);
  int accepted = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string bytes(static_cast<size_t>(length(generator)), '\0');
    for (auto& c : bytes) c = static_cast<char>(byte(generator));
    OnnxModelInfo info;
    std::string error;
    if (ParseOnnxModelInfo(bytes, &info, &error)) ++accepted;
  }
  EXPECT_EQ(accepted, 0);
}

TEST(OnnxModelInfo, MissingFileFails) {
  OnnxModelInfo info;
  std::string error;
  EXPECT_FALSE(ReadOnnxModelInfoFromFile("/nonexistent/model.onnx", &info, &error));
  EXPECT_EQ(error, "cannot open /nonexistent/model.onnx");
}

}  // namespace
}  // namespace kerrow::testing
