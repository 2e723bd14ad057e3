#include "app/arg_parser.h"

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <algorithm>
#include <iostream>
#include <sstream>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "common/ascii_case.h"
#include "common/error_text.h"

namespace kerrow {

namespace {

using FlagTable = std::unordered_map<std::string_view, bool Options::*>;
using TextTable = std::unordered_map<std::string_view, std::string Options::*>;
using IntTable = std::unordered_map<std::string_view, int32_t Options::*>;
using RealTable = std::unordered_map<std::string_view, double Options::*>;

// Options that take no value; their presence sets the field to true.
FlagTable MakeFlagTable() {
  return {
      {"--disable-endpoint", &Options::disable_endpoint},
      {"--manual-mode", &Options::manual_mode},
      {"--manual-realtime", &Options::manual_realtime},
      {"--offline-2pass", &Options::offline_2pass},
      {"--diarization", &Options::diarization},
      {"--speaker-id", &Options::speaker_id},
      {"--identify-only", &Options::identify_only},
      {"--list-speakers", &Options::list_speakers},
      {"--migrate-speakers", &Options::migrate_speakers},
      {"--start-paused", &Options::start_paused},
      {"--disable-second-itn", &Options::disable_second_itn},
      {"--single-model-streaming", &Options::single_model_streaming},
  };
}

TextTable MakeTextTable() {
  return {
      {"--first-model-type", &Options::first_model_type},
      {"--first-encoder", &Options::first_encoder},
      {"--first-decoder", &Options::first_decoder},
      {"--first-joiner", &Options::first_joiner},
      {"--first-tokens", &Options::first_tokens},
      {"--second-type", &Options::second_type},
      {"--second-model", &Options::second_model},
      {"--second-encoder", &Options::second_encoder},
      {"--second-decoder", &Options::second_decoder},
      {"--second-tokens", &Options::second_tokens},
      {"--second-language", &Options::second_language},
      {"--second-task", &Options::second_task},
      {"--provider-first", &Options::provider_first},
      {"--provider-second", &Options::provider_second},
      {"--ct-transformer", &Options::ct_transformer},
      {"--provider-punc", &Options::provider_punc},
      {"--audio-format", &Options::audio_format},
      {"--silero-vad-model", &Options::silero_vad_model},
      {"--wav-input", &Options::wav_input},
      {"--pcm-input", &Options::pcm_input},
      {"--diarization-model", &Options::diarization_model},
      {"--diarization-segmentation-model", &Options::diarization_segmentation_model},
      {"--diarization-embedding-model", &Options::diarization_embedding_model},
      {"--diarization-helper-binary", &Options::diarization_helper_binary},
      {"--diarization-backend", &Options::diarization_backend},
      {"--speaker-embedding-model", &Options::speaker_embedding_model},
      {"--speaker-enroll-db", &Options::speaker_enroll_db},
      {"--register-speaker-id", &Options::register_speaker_id},
      {"--register-name", &Options::register_name},
      {"--register-input", &Options::register_input},
      // Older hosts still spell registration this way.
      {"--enroll-name", &Options::register_name},
      {"--enroll-input", &Options::register_input},
      {"--speaker-samples-dir", &Options::speaker_samples_dir},
      {"--unregister-speaker-id", &Options::unregister_speaker_id},
      {"--unregister-name", &Options::unregister_name},
      {"--unregister-md5", &Options::unregister_md5},
      {"--rename-speaker-id", &Options::rename_speaker_id},
      {"--rename-speaker-name", &Options::rename_speaker_name},
      {"--segments-input", &Options::segments_input},
  };
}

IntTable MakeIntTable() {
  return {
      {"--num-threads-first", &Options::num_threads_first},
      {"--num-threads-second", &Options::num_threads_second},
      {"--num-threads-punc", &Options::num_threads_punc},
      {"--second-pass-every", &Options::second_pass_every},
      {"--tail-padding", &Options::tail_padding},
      {"--sample-rate", &Options::sample_rate},
      {"--audio-fd", &Options::audio_fd},
      {"--session-id", &Options::session_id},
      {"--diarization-min-speakers", &Options::diarization_min_speakers},
      {"--diarization-max-speakers", &Options::diarization_max_speakers},
      {"--diarization-num-threads", &Options::diarization_num_threads},
  };
}

RealTable MakeRealTable() {
  return {
      {"--chunk-duration", &Options::chunk_duration},
      {"--vad-threshold", &Options::vad_threshold},
      {"--vad-min-silence", &Options::vad_min_silence},
      {"--vad-min-speech", &Options::vad_min_speech},
      {"--vad-max-speech", &Options::vad_max_speech},
      {"--vad-lookback", &Options::vad_lookback},
      {"--vad-lookahead", &Options::vad_lookahead},
      {"--speaker-id-threshold", &Options::speaker_id_threshold},
      {"--speaker-id-max-seconds", &Options::speaker_id_max_seconds},
      {"--single-partial-interval", &Options::single_partial_interval},
      {"--single-trim-cap", &Options::single_trim_cap},
      {"--single-trim-keep", &Options::single_trim_keep},
      {"--single-max-window", &Options::single_max_window},
  };
}

template <typename Table>
void AppendDescriptions(const Table& table, OptionKind kind,
                        std::vector<OptionDescription>* out) {
  const Options defaults;
  for (const auto& [name, field] : table) {
    std::ostringstream value;
    value << std::boolalpha << defaults.*field;
    out->push_back({std::string(name), kind, value.str()});
  }
}

// Walks argv and writes every recognised option into `options`. Returns false
// with "help" or a missing-value message; unknown arguments are skipped
// without a word so that a newer host can pass options this build lacks.
bool ScanArguments(int argc, char** argv, Options* options, std::string* error) {
  const FlagTable flags = MakeFlagTable();
  const TextTable texts = MakeTextTable();
  const IntTable ints = MakeIntTable();
  const RealTable reals = MakeRealTable();

  if (argv == nullptr) return true;
  for (int index = 1; index < argc; ++index) {
    const std::string_view arg = argv[index] != nullptr ? argv[index] : "";
    if (arg == "-h" || arg == "--help") {
      return Fail(error, "help");
    }
    if (const auto flag = flags.find(arg); flag != flags.end()) {
      options->*(flag->second) = true;
      continue;
    }
    const auto text = texts.find(arg);
    const auto integer = ints.find(arg);
    const auto real = reals.find(arg);
    if (text == texts.end() && integer == ints.end() && real == reals.end()) continue;

    if (index + 1 >= argc || argv[index + 1] == nullptr) {
      return Fail(error, "Missing value for " + std::string(arg));
    }
    // The next argument is the value whatever it looks like, even "--help".
    const char* value = argv[++index];
    if (text != texts.end()) {
      options->*(text->second) = value;
    } else if (integer != ints.end()) {
      // Unchecked on purpose: a non-number reads as 0 (or its numeric prefix).
      options->*(integer->second) = std::atoi(value);
    } else {
      options->*(real->second) = std::atof(value);
    }
  }
  return true;
}

}  // namespace

std::vector<OptionDescription> DescribeOptions() {
  std::vector<OptionDescription> options;
  AppendDescriptions(MakeFlagTable(), OptionKind::kFlag, &options);
  AppendDescriptions(MakeTextTable(), OptionKind::kText, &options);
  AppendDescriptions(MakeIntTable(), OptionKind::kInteger, &options);
  AppendDescriptions(MakeRealTable(), OptionKind::kReal, &options);
  std::sort(options.begin(), options.end(),
            [](const OptionDescription& a, const OptionDescription& b) { return a.name < b.name; });
  return options;
}

namespace {

bool IsOneShotCommand(const Options& options) {
  return !options.register_name.empty() || options.identify_only || options.list_speakers ||
         options.migrate_speakers || !options.unregister_speaker_id.empty() ||
         !options.unregister_name.empty() || !options.unregister_md5.empty() ||
         !options.rename_speaker_id.empty();
}

// Canonicalises first_model_type in place; an empty value (only possible from
// an explicit empty argument) is inferred from whether a joiner was given.
bool ResolveFirstModelType(Options* options, std::string* error) {
  const std::string given = options->first_model_type;
  std::string resolved = NormalizeFirstModelType(given);
  if (resolved.empty()) {
    if (!given.empty()) {
      return Fail(error,
                  "Unsupported --first-model-type: " + given + " (expect transducer|paraformer)");
    }
    resolved = options->first_joiner.empty() ? "paraformer" : "transducer";
  }
  options->first_model_type = resolved;
  return true;
}

// Canonicalises second_type in place; an empty value is inferred from whether
// Whisper's encoder or decoder was given.
bool ResolveSecondType(Options* options, std::string* error) {
  const std::string given = options->second_type;
  std::string resolved = NormalizeSecondType(given);
  if (resolved.empty()) {
    if (!given.empty()) {
      return Fail(error, "Unsupported --second-type: " + given + " (expect sensevoice|whisper)");
    }
    const bool has_whisper_parts =
        !options->second_encoder.empty() || !options->second_decoder.empty();
    resolved = has_whisper_parts ? "whisper" : "sensevoice";
  }
  options->second_type = resolved;
  return true;
}

bool CheckSecondPassModel(const Options& options, std::string* error) {
  if (options.second_tokens.empty()) {
    return Fail(error, "--second-tokens is required");
  }
  if (options.second_type == "whisper") {
    if (options.second_encoder.empty() || options.second_decoder.empty()) {
      return Fail(error,
                  "--second-encoder and --second-decoder are required when --second-type is whisper");
    }
    return true;
  }
  if (options.second_model.empty()) {
    return Fail(error, "--second-model is required when --second-type is sensevoice");
  }
  return true;
}

bool CheckStreamingModel(const Options& options, std::string* error) {
  const bool is_transducer = options.first_model_type == "transducer";
  const bool complete = !options.first_encoder.empty() && !options.first_decoder.empty() &&
                        !options.first_tokens.empty() &&
                        (!is_transducer || !options.first_joiner.empty());
  if (complete) return true;
  return Fail(error, options.first_model_type == "paraformer"
                         ? "Streaming paraformer model paths are required when not in --manual-mode"
                         : "Streaming transducer model paths are required when not in --manual-mode");
}

// The rules run in a fixed order and only the first failure is reported.
bool Validate(Options* options, std::string* error) {
  // The engine and every model are trained for 16 kHz; even the one-shot
  // commands read audio at that rate.
  if (options->sample_rate != 16000) {
    return Fail(error, "Only 16 kHz sample_rate is supported");
  }
  // The speaker-database commands and identify-only load no recognizer.
  if (IsOneShotCommand(*options)) return true;

  if (options->audio_format != "s16le" && options->audio_format != "f32le") {
    return Fail(error, "Unsupported audio format: " + options->audio_format);
  }
  if (!options->wav_input.empty() && !options->pcm_input.empty()) {
    return Fail(error, "--wav-input and --pcm-input cannot be used together");
  }
  if (!ResolveFirstModelType(options, error)) return false;
  if (!ResolveSecondType(options, error)) return false;
  if (!CheckSecondPassModel(*options, error)) return false;
  // Manual mode decodes captured audio with the second pass only, and the
  // single-model mode lets the second pass drive the partials too.
  if (options->manual_mode || options->single_model_streaming) return true;
  return CheckStreamingModel(*options, error);
}

// Backslash-t in the identify-only line is literal text describing the TSV
// columns, not a tab character.
constexpr const char* kUsageText =
    "kerrow (M2 in progress)\n"
    "First-pass:\n"
    "  --first-model-type transducer|paraformer (default: transducer)\n"
    "  transducer needs --first-encoder --first-decoder --first-joiner --first-tokens\n"
    "  paraformer needs --first-encoder --first-decoder --first-tokens\n"
    "Required (sensevoice):\n"
    "  --second-type sensevoice --second-model PATH --second-tokens PATH\n"
    "Required (whisper):\n"
    "  --second-type whisper --second-encoder PATH --second-decoder PATH --second-tokens PATH\n"
    "Optional:\n"
    "  --manual-mode --manual-realtime --start-paused\n"
    "  --single-model-streaming [--single-partial-interval 0.5]\n"
    "    (one model: SenseVoice second pass also drives realtime partials; no first-pass "
    "model)\n"
    "    [--single-trim-cap 3.0 --single-trim-keep 1.2]  (rolling commit chunk; 0 disables)\n"
    "    [--single-max-window 7.0]  (decode-window hard cap secs; smaller = less CPU)\n"
    "  --audio-fd 3 --audio-format s16le|f32le --chunk-duration 0.1\n"
    "  --wav-input /path/to/audio.wav | --pcm-input /path/to/audio.pcm\n"
    "  --diarization --diarization-model DIR [--diarization-segmentation-model PATH "
    "--diarization-embedding-model PATH]\n"
    "    macOS only: --diarization-helper-binary PATH (fluidaudio-diar helper)\n"
    "    macOS only: --diarization-backend offline|sortformer (default offline)\n"
    "  --speaker-id --speaker-embedding-model PATH --speaker-enroll-db PATH\n"
    "    [--speaker-id-threshold 0.7] [--speaker-id-max-seconds 15]\n"
    "    replaces SPEAKER_XX labels with enrolled names (all platforms; sherpa embedding)\n"
    "Register a speaker (one-shot, then exits; prints {\"type\":\"ok\"} or "
    "{\"type\":\"error\"}):\n"
    "  --register-name NAME --register-input PATH.wav --speaker-embedding-model PATH "
    "--speaker-enroll-db PATH\n"
    "  (legacy aliases: --enroll-name / --enroll-input)\n"
    "Manage the speaker DB (no ASR/diarization):\n"
    "  --list-speakers --speaker-enroll-db PATH\n"
    "  --migrate-speakers --speaker-enroll-db PATH          (backfill speaker ids)\n"
    "  --rename-speaker-id ID --rename-speaker-name NAME --speaker-enroll-db PATH\n"
    "  --unregister-speaker-id ID --speaker-enroll-db PATH (remove a speaker)\n"
    "  --unregister-name NAME --speaker-enroll-db PATH   (remove a speaker)\n"
    "  --unregister-md5 MD5 --speaker-enroll-db PATH     (remove one voiceprint)\n"
    "Identify-only (no ASR/diarization; audio + pre-labeled segments -> names):\n"
    "  --identify-only --wav-input PATH.wav --segments-input PATH.tsv (start\\tend\\tlabel)\n"
    "    --speaker-embedding-model PATH --speaker-enroll-db PATH [--speaker-id-threshold 0.7]\n";

}  // namespace

bool ParseArgs(int argc, char** argv, Options* options, std::string* error) {
  if (options == nullptr || error == nullptr) return false;
  if (!ScanArguments(argc, argv, options, error)) return false;
  return Validate(options, error);
}

void PrintUsage() { std::cerr << kUsageText << std::flush; }

std::string NormalizeFirstModelType(std::string value) {
  const std::string lowered = ToLowerAscii(std::move(value));
  if (lowered == "transducer" || lowered == "zipformer") return "transducer";
  if (lowered == "paraformer") return "paraformer";
  return std::string();
}

std::string NormalizeSecondType(std::string value) {
  const std::string lowered = ToLowerAscii(std::move(value));
  if (lowered == "sensevoice" || lowered == "sense-voice") return "sensevoice";
  if (lowered == "whisper") return "whisper";
  return std::string();
}

}  // namespace kerrow
