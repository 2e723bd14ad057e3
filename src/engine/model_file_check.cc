#include "engine/model_file_check.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "engine/library_call.h"

namespace kerrow {

namespace {

namespace fs = std::filesystem;

// What a git checkout without git-lfs leaves in place of a large file.
constexpr char kLfsPointerPrefix[] = "version https://git-lfs";

// The metadata keys sherpa-onnx 1.13.8 reads unconditionally when it loads a
// model of each family; a missing one ends the process inside Create.
const std::vector<std::string>& RequiredKeys(ModelFamily family) {
  static const std::vector<std::string> kNone;
  static const std::vector<std::string> kSenseVoice = {
      "vocab_size", "lfr_window_size", "lfr_window_shift",
      "normalize_samples", "with_itn", "without_itn",
      "lang_auto", "lang_zh", "lang_en",
      "lang_ja", "lang_ko", "lang_yue",
      "neg_mean", "inv_stddev"};
  static const std::vector<std::string> kWhisperEncoder = {
      "n_mels", "n_text_layer", "n_text_ctx", "n_text_state",
      "n_vocab", "sot", "eot", "blank_id",
      "translate", "transcribe", "is_multilingual", "no_timestamps",
      "no_speech", "sot_sequence"};
  static const std::vector<std::string> kTransducerDecoder = {"vocab_size",
                                                              "context_size"};
  static const std::vector<std::string> kParaformerEncoder = {
      "vocab_size", "lfr_window_size", "lfr_window_shift",
      "encoder_output_size", "decoder_num_blocks", "decoder_kernel_size",
      "neg_mean", "inv_stddev"};
  static const std::vector<std::string> kPunctuation = {
      "tokens", "vocab_size", "punctuations", "unk_symbol"};
  static const std::vector<std::string> kSpeakerEmbedding = {
      "framework", "output_dim", "sample_rate", "normalize_samples",
      "language"};
  static const std::vector<std::string> kSegmentation = {
      "sample_rate", "window_size", "receptive_field_size",
      "receptive_field_shift", "num_speakers", "powerset_max_classes",
      "num_classes"};
  // The transducer encoder's keys depend on its model_type; see
  // TransducerEncoderKeys.
  static const std::vector<std::string> kTransducerEncoder = {"model_type"};

  switch (family) {
    case ModelFamily::kSenseVoice:
      return kSenseVoice;
    case ModelFamily::kWhisperEncoder:
      return kWhisperEncoder;
    case ModelFamily::kOnlineTransducerEncoder:
      return kTransducerEncoder;
    case ModelFamily::kOnlineTransducerDecoder:
      return kTransducerDecoder;
    case ModelFamily::kOnlineParaformerEncoder:
      return kParaformerEncoder;
    case ModelFamily::kPunctuation:
      return kPunctuation;
    case ModelFamily::kSpeakerEmbedding:
      return kSpeakerEmbedding;
    case ModelFamily::kSegmentation:
      return kSegmentation;
    case ModelFamily::kWhisperDecoder:
    case ModelFamily::kOnlineTransducerJoiner:
    case ModelFamily::kOnlineParaformerDecoder:
    case ModelFamily::kSileroVad:
      return kNone;
  }
  return kNone;
}

// Each streaming transducer architecture reads its own shape keys from the
// encoder. Returns false for a model_type the library does not know (it then
// fails to build the model and later dereferences the missing one).
bool TransducerEncoderKeys(const std::string& model_type,
                           std::vector<std::string>* keys) {
  if (model_type == "lstm") {
    *keys = {"num_encoder_layers", "T", "decode_chunk_len", "rnn_hidden_size",
             "d_model"};
  } else if (model_type == "zipformer2") {
    *keys = {"encoder_dims", "query_head_dims", "value_head_dims",
             "num_heads", "num_encoder_layers", "cnn_module_kernels",
             "left_context_len", "T", "decode_chunk_len"};
  } else if (model_type == "zipformer") {
    *keys = {"encoder_dims", "attention_dims", "num_encoder_layers",
             "cnn_module_kernels", "left_context_len", "T",
             "decode_chunk_len"};
  } else if (model_type == "conformer") {
    *keys = {"num_encoder_layers", "T", "decode_chunk_len", "left_context",
             "encoder_dim", "pad_length", "cnn_module_kernel"};
  } else if (model_type == "ebranchformer") {
    *keys = {"decode_chunk_len", "T", "num_hidden_layers",
             "hidden_size", "intermediate_size", "csgu_kernel_size",
             "merge_conv_kernel", "left_context_len", "num_heads",
             "head_dim"};
  } else {
    return false;
  }
  return true;
}

std::string MissingKeyMessage(const std::string& path, const std::string& key,
                              ModelFamily family) {
  return "model " + path + " lacks metadata key '" + key +
         "' required for a " + ModelFamilyName(family) +
         " model (wrong model family?)";
}

bool HasKeys(const OnnxModelInfo& info, const std::vector<std::string>& keys,
             const std::string& path, ModelFamily family, std::string* error) {
  for (const auto& key : keys) {
    if (!info.HasMetadata(key)) {
      SetError(error, MissingKeyMessage(path, key, family));
      return false;
    }
  }
  return true;
}

bool IsNonZeroNumber(const std::string& text) {
  return std::strtol(text.c_str(), nullptr, 10) != 0;
}

bool CheckWhisperEncoder(const OnnxModelInfo& info, const std::string& path,
                         std::string* error) {
  // Multilingual models also map language codes to tokens; the library reads
  // both lists only when is_multilingual is set.
  if (!IsNonZeroNumber(*info.FindMetadata("is_multilingual"))) return true;
  return HasKeys(info, {"all_language_tokens", "all_language_codes"}, path,
                 ModelFamily::kWhisperEncoder, error);
}

bool CheckTransducerEncoder(const OnnxModelInfo& info, const std::string& path,
                            std::string* error) {
  const std::string& model_type = *info.FindMetadata("model_type");
  std::vector<std::string> keys;
  if (!TransducerEncoderKeys(model_type, &keys)) {
    SetError(error, "model " + path + " has model_type '" + model_type +
                        "', which is not a streaming transducer encoder "
                        "(expected conformer, ebranchformer, lstm, zipformer "
                        "or zipformer2)");
    return false;
  }
  return HasKeys(info, keys, path, ModelFamily::kOnlineTransducerEncoder,
                 error);
}

// Silero VAD carries no metadata; its graph inputs tell it apart. v5 takes
// (input, state, sr), v4 takes (input, sr, h, c).
bool CheckSileroVad(const OnnxModelInfo& info, const std::string& path,
                    std::string* error) {
  for (const char* name : {"input", "sr"}) {
    if (!info.HasGraphInput(name)) {
      SetError(error, "model " + path + " lacks graph input '" + name +
                          "' required for a Silero VAD model (wrong model "
                          "family?)");
      return false;
    }
  }
  const bool v5 = info.HasGraphInput("state");
  const bool v4 = info.HasGraphInput("h") && info.HasGraphInput("c");
  if (!v5 && !v4) {
    SetError(error, "model " + path +
                        " has neither a 'state' input (Silero v5) nor 'h' and "
                        "'c' inputs (Silero v4), so it is not a Silero VAD "
                        "model (wrong model family?)");
    return false;
  }
  return true;
}

// The library knows one feature normalisation for embedding models and ends
// the process on any other name.
bool CheckSpeakerEmbedding(const OnnxModelInfo& info, const std::string& path,
                           std::string* error) {
  const std::string* normalize = info.FindMetadata("feature_normalize_type");
  if (normalize == nullptr || normalize->empty() ||
      *normalize == "global-mean") {
    return true;
  }
  SetError(error, "model " + path + " has feature_normalize_type '" +
                      *normalize +
                      "', which sherpa-onnx does not support (expected "
                      "global-mean or none)");
  return false;
}

bool CheckFamily(const OnnxModelInfo& info, const std::string& path,
                 ModelFamily family, std::string* error) {
  if (!HasKeys(info, RequiredKeys(family), path, family, error)) return false;
  switch (family) {
    case ModelFamily::kWhisperEncoder:
      return CheckWhisperEncoder(info, path, error);
    case ModelFamily::kOnlineTransducerEncoder:
      return CheckTransducerEncoder(info, path, error);
    case ModelFamily::kSileroVad:
      return CheckSileroVad(info, path, error);
    case ModelFamily::kSpeakerEmbedding:
      return CheckSpeakerEmbedding(info, path, error);
    default:
      return true;
  }
}

// The checks shared by model and tokens files. what is "model" or "tokens";
// the LFS message names what the real file would have been.
bool CheckPlainFile(const std::string& path, const std::string& what,
                    const std::string& real_thing, std::string* error) {
  if (path.empty()) {
    SetError(error, what + " path is empty");
    return false;
  }
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  if (status.type() == fs::file_type::not_found) {
    SetError(error, what + " file not found: " + path);
    return false;
  }
  if (ec) {
    SetError(error, what + " file is unreadable: " + path);
    return false;
  }
  if (status.type() == fs::file_type::directory) {
    SetError(error, what + " path is a directory: " + path);
    return false;
  }
  // A FIFO or device would block or stream forever when read.
  if (status.type() != fs::file_type::regular) {
    SetError(error, what + " path is not a regular file: " + path);
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    SetError(error, what + " file is unreadable: " + path);
    return false;
  }
  std::string head(sizeof(kLfsPointerPrefix) - 1, '\0');
  in.read(&head[0], static_cast<std::streamsize>(head.size()));
  const std::streamsize got = in.gcount();
  if (got == 0) {
    if (in.bad()) {
      SetError(error, what + " file is unreadable: " + path);
    } else {
      SetError(error, what + " file is empty: " + path);
    }
    return false;
  }
  if (got == static_cast<std::streamsize>(head.size()) &&
      head == kLfsPointerPrefix) {
    SetError(error, what + " file is a git-lfs pointer, not " + real_thing +
                        ": " + path);
    return false;
  }
  return true;
}

}  // namespace

const char* ModelFamilyName(ModelFamily family) {
  switch (family) {
    case ModelFamily::kSenseVoice:
      return "SenseVoice";
    case ModelFamily::kWhisperEncoder:
      return "Whisper encoder";
    case ModelFamily::kWhisperDecoder:
      return "Whisper decoder";
    case ModelFamily::kOnlineTransducerEncoder:
      return "streaming transducer encoder";
    case ModelFamily::kOnlineTransducerDecoder:
      return "streaming transducer decoder";
    case ModelFamily::kOnlineTransducerJoiner:
      return "streaming transducer joiner";
    case ModelFamily::kOnlineParaformerEncoder:
      return "streaming Paraformer encoder";
    case ModelFamily::kOnlineParaformerDecoder:
      return "streaming Paraformer decoder";
    case ModelFamily::kPunctuation:
      return "punctuation";
    case ModelFamily::kSileroVad:
      return "Silero VAD";
    case ModelFamily::kSpeakerEmbedding:
      return "speaker embedding";
    case ModelFamily::kSegmentation:
      return "speaker segmentation";
  }
  return "unknown";
}

bool CheckModelFile(const std::string& path, ModelFamily family,
                    std::string* error) {
  return CheckModelFile(path, family, nullptr, error);
}

bool CheckModelFile(const std::string& path, ModelFamily family,
                    OnnxModelInfo* info, std::string* error) {
  if (!CheckPlainFile(path, "model", "the model", error)) return false;
  OnnxModelInfo read;
  if (!ReadOnnxModelInfoFromFile(path, &read, nullptr)) {
    SetError(error, "not a valid ONNX model: " + path);
    return false;
  }
  if (!CheckFamily(read, path, family, error)) return false;
  if (info != nullptr) *info = std::move(read);
  return true;
}

bool CheckTokensFile(const std::string& path, std::string* error) {
  return CheckPlainFile(path, "tokens", "the tokens", error);
}

}  // namespace kerrow
