#include "engine/model_file_check.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


const std::string kLfsPointer =
    GitLfsPointerText("fdf60619843862a05603299c7435e928962e29aa6305e0a3f889583d7bacdc11", 8199965);

std::string CheckError(const std::string& path, ModelFamily family) {
  std::string error;
  EXPECT_FALSE(CheckModelFile(path, family, &error)) << path;
  return error;
}

void ExpectAccepted(const std::string& path, ModelFamily family) {
  std::string error;
  EXPECT_TRUE(CheckModelFile(path, family, &error)) << path << ": " << error;
  EXPECT_TRUE(error.empty());
}

TEST(CheckModelFile, AcceptsEveryBundledModelForItsFamily) {
  ExpectAccepted(ModelPath("trained/sensevoice-en-char/model.onnx"), ModelFamily::kSenseVoice);
  ExpectAccepted(ModelPath("stubs/sensevoice/model.onnx"), ModelFamily::kSenseVoice);
  ExpectAccepted(ModelPath("stubs/sensevoice-pattern/model.onnx"), ModelFamily::kSenseVoice);
  ExpectAccepted(ModelPath("stubs/whisper/encoder.onnx"), ModelFamily::kWhisperEncoder);
  ExpectAccepted(ModelPath("stubs/whisper/decoder.onnx"), ModelFamily::kWhisperDecoder);
  ExpectAccepted(ModelPath("stubs/streaming-transducer/encoder.onnx"),
                 ModelFamily::kOnlineTransducerEncoder);
  ExpectAccepted(ModelPath("stubs/streaming-transducer/decoder.onnx"),
                 ModelFamily::kOnlineTransducerDecoder);
  ExpectAccepted(ModelPath("stubs/streaming-transducer/joiner.onnx"),
                 ModelFamily::kOnlineTransducerJoiner);
  ExpectAccepted(ModelPath("stubs/streaming-paraformer/encoder.onnx"),
                 ModelFamily::kOnlineParaformerEncoder);
  ExpectAccepted(ModelPath("stubs/streaming-paraformer/decoder.onnx"),
                 ModelFamily::kOnlineParaformerDecoder);
  ExpectAccepted(ModelPath("stubs/punct/model.onnx"), ModelFamily::kPunctuation);
  ExpectAccepted(ModelPath("trained/punct-en/model.onnx"), ModelFamily::kPunctuation);
  ExpectAccepted(KERROW_VAD_MODEL, ModelFamily::kSileroVad);
  ExpectAccepted(ModelPath("stubs/embedding/model.onnx"), ModelFamily::kSpeakerEmbedding);
  ExpectAccepted(ModelPath("trained/speaker-embedding/model.onnx"),
                 ModelFamily::kSpeakerEmbedding);
  ExpectAccepted(ModelPath("stubs/segmentation/model.onnx"), ModelFamily::kSegmentation);
}

TEST(CheckModelFile, HandsBackTheMetadataItRead) {
  OnnxModelInfo info;
  std::string error;
  ASSERT_TRUE(CheckModelFile(ModelPath("stubs/whisper/encoder.onnx"), ModelFamily::kWhisperEncoder,
                             &info, &error))
      << error;
  ASSERT_NE(info.FindMetadata("is_multilingual"), nullptr);
  EXPECT_EQ(*info.FindMetadata("is_multilingual"), "0");
}

TEST(CheckModelFile, EmptyPathFails) {
  EXPECT_EQ(CheckError("", ModelFamily::kSenseVoice), "model path is empty");
}

TEST(CheckModelFile, MissingFileFails) {
  TempDir dir;
  const std::string path = dir.File("absent.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kSenseVoice), "model file not found: " + path);
}

TEST(CheckModelFile, DirectoryFails) {
  TempDir dir;
  EXPECT_EQ(CheckError(dir.path(), ModelFamily::kPunctuation),
            "model path is a directory: " + dir.path());
}

TEST(CheckModelFile, FifoFails) {
  TempDir dir;
  const std::string path = dir.File("pipe.onnx");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(CheckError(path, ModelFamily::kSileroVad), "model path is not a regular file: " + path);
}

TEST(CheckModelFile, UnreadableFileFails) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads files whatever their mode";
  TempDir dir;
  const std::string path = dir.File("locked.onnx");
  WriteFileBytes(path, ReadFileBytes(ModelPath("stubs/punct/model.onnx")));
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  EXPECT_EQ(CheckError(path, ModelFamily::kPunctuation), "model file is unreadable: " + path);
}

TEST(CheckModelFile, EmptyFileFails) {
  TempDir dir;
  const std::string path = dir.File("empty.onnx");
  WriteFileBytes(path, "");
  EXPECT_EQ(CheckError(path, ModelFamily::kSenseVoice), "model file is empty: " + path);
}

TEST(CheckModelFile, GitLfsPointerFails) {
  TempDir dir;
  const std::string path = dir.File("model.onnx");
  WriteFileBytes(path, kLfsPointer);
  EXPECT_EQ(CheckError(path, ModelFamily::kSenseVoice),
            "model file is a git-lfs pointer, not the model: " + path);
}

TEST(CheckModelFile, TextFileFails) {
  TempDir dir;
  const std::string path = dir.File("notes.onnx");
  WriteFileBytes(path, "this is not a model\n");
  EXPECT_EQ(CheckError(path, ModelFamily::kWhisperDecoder), "not a valid ONNX model: " + path);
}

TEST(CheckModelFile, RandomBytesFail) {
  TempDir dir;
  const std::string path = dir.File("random.onnx");
  std::string bytes;
  uint32_t state = 2463534242u;
  for (int i = 0; i < 4096; ++i) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    bytes.push_back(static_cast<char>(state & 0xff));
  }
  WriteFileBytes(path, bytes);
  EXPECT_EQ(CheckError(path, ModelFamily::kSegmentation), "not a valid ONNX model: " + path);
}

TEST(CheckModelFile, TruncatedModelFails) {
  TempDir dir;
  const std::string path = dir.File("half.onnx");
  const std::string whole = ReadFileBytes(ModelPath("trained/sensevoice-en-char/model.onnx"));
  WriteFileBytes(path, whole.substr(0, whole.size() / 2));
  EXPECT_EQ(CheckError(path, ModelFamily::kSenseVoice), "not a valid ONNX model: " + path);
}

TEST(CheckModelFile, PunctuationModelIsNotASenseVoiceModel) {
  const std::string path = ModelPath("stubs/punct/model.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kSenseVoice),
            "model " + path +
                " lacks metadata key 'lfr_window_size' required for a SenseVoice model (wrong "
                "model family?)");
}

TEST(CheckModelFile, SenseVoiceModelIsNotAPunctuationModel) {
  const std::string path = ModelPath("stubs/sensevoice/model.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kPunctuation),
            "model " + path +
                " lacks metadata key 'tokens' required for a punctuation model (wrong model "
                "family?)");
}

TEST(CheckModelFile, WhisperDecoderIsNotAWhisperEncoder) {
  const std::string path = ModelPath("stubs/whisper/decoder.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kWhisperEncoder),
            "model " + path +
                " lacks metadata key 'n_mels' required for a Whisper encoder model (wrong model "
                "family?)");
}

TEST(CheckModelFile, ParaformerEncoderIsNotATransducerEncoder) {
  const std::string path = ModelPath("stubs/streaming-paraformer/encoder.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kOnlineTransducerEncoder),
            "model " + path +
                " lacks metadata key 'model_type' required for a streaming transducer encoder "
                "model (wrong model family?)");
}

TEST(CheckModelFile, SegmentationModelTypeIsNotATransducerEncoderType) {
  const std::string path = ModelPath("stubs/segmentation/model.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kOnlineTransducerEncoder),
            "model " + path +
                " has model_type 'pyannote-segmentation-3.0', which is not a streaming "
                "transducer encoder (expected conformer, ebranchformer, lstm, zipformer or "
                "zipformer2)");
}

TEST(CheckModelFile, TransducerEncoderIsNotAParaformerEncoder) {
  const std::string path = ModelPath("stubs/streaming-transducer/encoder.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kOnlineParaformerEncoder),
            "model " + path +
                " lacks metadata key 'vocab_size' required for a streaming Paraformer encoder "
                "model (wrong model family?)");
}

TEST(CheckModelFile, TransducerJoinerIsNotATransducerDecoder) {
  const std::string path = ModelPath("stubs/streaming-transducer/joiner.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kOnlineTransducerDecoder),
            "model " + path +
                " lacks metadata key 'vocab_size' required for a streaming transducer decoder "
                "model (wrong model family?)");
}

TEST(CheckModelFile, SegmentationModelIsNotASpeakerEmbeddingModel) {
  const std::string path = ModelPath("stubs/segmentation/model.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kSpeakerEmbedding),
            "model " + path +
                " lacks metadata key 'framework' required for a speaker embedding model (wrong "
                "model family?)");
}

TEST(CheckModelFile, EmbeddingModelIsNotASegmentationModel) {
  const std::string path = ModelPath("stubs/embedding/model.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kSegmentation),
            "model " + path +
                " lacks metadata key 'window_size' required for a speaker segmentation model "
                "(wrong model family?)");
}

// An ONNX model is a protobuf message, so one more metadata_props entry
// (field 14) appended to the file adds a key without touching the rest.
std::string WithExtraMetadata(const std::string& model_bytes, const std::string& key,
                              const std::string& value) {
  auto length_prefixed = [](unsigned char tag, const std::string& bytes) {
    std::string out(1, static_cast<char>(tag));
    size_t length = bytes.size();
    do {
      unsigned char byte = length & 0x7f;
      length >>= 7;
      if (length != 0) byte |= 0x80;
      out.push_back(static_cast<char>(byte));
    } while (length != 0);
    return out + bytes;
  };
  const std::string entry = length_prefixed(0x0a, key) + length_prefixed(0x12, value);
  return model_bytes + length_prefixed(0x72, entry);
}

TEST(CheckModelFile, EmbeddingModelWithUnknownFeatureNormalisationIsRefused) {
  TempDir dir;
  const std::string path = dir.File("embedding.onnx");
  WriteFileBytes(path, WithExtraMetadata(ReadFileBytes(ModelPath("trained/speaker-embedding/model.onnx")),
                                         "feature_normalize_type", "per-utterance"));
  EXPECT_EQ(CheckError(path, ModelFamily::kSpeakerEmbedding),
            "model " + path +
                " has feature_normalize_type 'per-utterance', which sherpa-onnx does not "
                "support (expected global-mean or none)");
}

TEST(CheckModelFile, EmbeddingModelWithGlobalMeanNormalisationIsAccepted) {
  TempDir dir;
  const std::string path = dir.File("embedding.onnx");
  WriteFileBytes(path, WithExtraMetadata(ReadFileBytes(ModelPath("trained/speaker-embedding/model.onnx")),
                                         "feature_normalize_type", "global-mean"));
  ExpectAccepted(path, ModelFamily::kSpeakerEmbedding);
}

TEST(CheckModelFile, PunctuationModelIsNotASileroVad) {
  const std::string path = ModelPath("stubs/punct/model.onnx");
  EXPECT_EQ(CheckError(path, ModelFamily::kSileroVad),
            "model " + path +
                " lacks graph input 'input' required for a Silero VAD model (wrong model "
                "family?)");
}

TEST(CheckTokensFile, AcceptsBundledTokens) {
  std::string error;
  EXPECT_TRUE(CheckTokensFile(ModelPath("trained/sensevoice-en-char/tokens.txt"), &error)) << error;
}

TEST(CheckTokensFile, MissingEmptyDirectoryAndLfsPointerFail) {
  TempDir dir;
  std::string error;
  EXPECT_FALSE(CheckTokensFile(dir.File("tokens.txt"), &error));
  EXPECT_EQ(error, "tokens file not found: " + dir.File("tokens.txt"));

  WriteFileBytes(dir.File("empty.txt"), "");
  EXPECT_FALSE(CheckTokensFile(dir.File("empty.txt"), &error));
  EXPECT_EQ(error, "tokens file is empty: " + dir.File("empty.txt"));

  EXPECT_FALSE(CheckTokensFile(dir.path(), &error));
  EXPECT_EQ(error, "tokens path is a directory: " + dir.path());

  WriteFileBytes(dir.File("lfs.txt"), kLfsPointer);
  EXPECT_FALSE(CheckTokensFile(dir.File("lfs.txt"), &error));
  EXPECT_EQ(error, "tokens file is a git-lfs pointer, not the tokens: " + dir.File("lfs.txt"));

  EXPECT_FALSE(CheckTokensFile("", &error));
  EXPECT_EQ(error, "tokens path is empty");
}

TEST(CheckModelFile, NullErrorIsAllowed) {
  EXPECT_FALSE(CheckModelFile("/nonexistent/model.onnx", ModelFamily::kSenseVoice, nullptr));
  EXPECT_TRUE(CheckModelFile(ModelPath("stubs/punct/model.onnx"), ModelFamily::kPunctuation, nullptr));
}

}  // namespace
}  // namespace kerrow::testing
