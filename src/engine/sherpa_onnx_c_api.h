#ifndef KERROW_ENGINE_SHERPA_ONNX_C_API_H_
#define KERROW_ENGINE_SHERPA_ONNX_C_API_H_

// The slice of the sherpa-onnx C API (release 1.13.8, x86_64 / arm64 LP64)
// that kerrow calls. We keep our own declarations instead of the upstream
// header so that the exact layout we were built against is written down in
// one place: every struct below carries static assertions on its size and on
// the offsets that moved between releases, so linking against a library with
// a different layout fails at compile time instead of corrupting memory.
//
// Conventions of the library that shape these declarations:
//  * Handles are opaque and always passed as pointers to const.
//  * Flags are int32_t (never bool); 0 / NULL in a config field means "use the
//    built-in default" for almost every field, so configs are always
//    value-initialised before the few fields we care about are set.
//  * Every object returned by a Create / Get / Compute call is owned by the
//    caller and must go back through its matching Destroy / Free function
//    (see engine/sherpa_handles.h).

#include <cstddef>
#include <cstdint>

// Layout checks against the 1.13.8 library (LP64) sit beside each struct: a
// failure means these declarations no longer describe the library we link.
#define KERROW_SHERPA_LAYOUT(type, size) \
  static_assert(sizeof(type) == (size), #type " size changed")
#define KERROW_SHERPA_OFFSET(type, field, offset) \
  static_assert(offsetof(type, field) == (offset), #type "." #field " moved")

extern "C" {

// ---------------------------------------------------------------------------
// Opaque handles
// ---------------------------------------------------------------------------

typedef struct SherpaOnnxOfflineRecognizer SherpaOnnxOfflineRecognizer;
typedef struct SherpaOnnxOfflineStream SherpaOnnxOfflineStream;
typedef struct SherpaOnnxOnlineRecognizer SherpaOnnxOnlineRecognizer;
typedef struct SherpaOnnxOnlineStream SherpaOnnxOnlineStream;
typedef struct SherpaOnnxOfflinePunctuation SherpaOnnxOfflinePunctuation;
typedef struct SherpaOnnxVoiceActivityDetector SherpaOnnxVoiceActivityDetector;
typedef struct SherpaOnnxOfflineSpeakerDiarization
    SherpaOnnxOfflineSpeakerDiarization;
typedef struct SherpaOnnxOfflineSpeakerDiarizationResult
    SherpaOnnxOfflineSpeakerDiarizationResult;
typedef struct SherpaOnnxSpeakerEmbeddingExtractor
    SherpaOnnxSpeakerEmbeddingExtractor;
typedef struct SherpaOnnxSpeakerEmbeddingManager
    SherpaOnnxSpeakerEmbeddingManager;

// ---------------------------------------------------------------------------
// Structs shared by the offline and online recognizers
// ---------------------------------------------------------------------------

typedef struct SherpaOnnxFeatureConfig {
  int32_t sample_rate;  // 0 -> 16000
  int32_t feature_dim;  // 0 -> 80
} SherpaOnnxFeatureConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxFeatureConfig, 8);

typedef struct SherpaOnnxHomophoneReplacerConfig {
  const char* dict_dir;  // unused by the library, present for layout only
  const char* lexicon;
  const char* rule_fsts;
} SherpaOnnxHomophoneReplacerConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxHomophoneReplacerConfig, 24);

// ---------------------------------------------------------------------------
// Offline recognizer: per-family model configs
// ---------------------------------------------------------------------------

typedef struct SherpaOnnxOfflineTransducerModelConfig {
  const char* encoder;
  const char* decoder;
  const char* joiner;
} SherpaOnnxOfflineTransducerModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineTransducerModelConfig, 24);

typedef struct SherpaOnnxOfflineParaformerModelConfig {
  const char* model;
} SherpaOnnxOfflineParaformerModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineParaformerModelConfig, 8);

typedef struct SherpaOnnxOfflineNemoEncDecCtcModelConfig {
  const char* model;
} SherpaOnnxOfflineNemoEncDecCtcModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineNemoEncDecCtcModelConfig, 8);

typedef struct SherpaOnnxOfflineWhisperModelConfig {
  const char* encoder;
  const char* decoder;
  // One language code or empty (auto-detect). A comma-separated list is not
  // understood and ends the process at the first decode on a multilingual
  // model, so callers validate this before Create.
  const char* language;
  const char* task;  // "" / "transcribe" / "translate"; anything else: NULL
  int32_t tail_paddings;
  int32_t enable_token_timestamps;
  int32_t enable_segment_timestamps;
} SherpaOnnxOfflineWhisperModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineWhisperModelConfig, 48);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineWhisperModelConfig, language, 16);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineWhisperModelConfig, tail_paddings, 32);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineWhisperModelConfig,
                     enable_segment_timestamps, 40);

typedef struct SherpaOnnxOfflineTdnnModelConfig {
  const char* model;
} SherpaOnnxOfflineTdnnModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineTdnnModelConfig, 8);

typedef struct SherpaOnnxOfflineSenseVoiceModelConfig {
  const char* model;
  const char* language;
  int32_t use_itn;
} SherpaOnnxOfflineSenseVoiceModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineSenseVoiceModelConfig, 24);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineSenseVoiceModelConfig, use_itn, 16);

typedef struct SherpaOnnxOfflineMoonshineModelConfig {
  const char* preprocessor;
  const char* encoder;
  const char* uncached_decoder;
  const char* cached_decoder;
  const char* merged_decoder;
} SherpaOnnxOfflineMoonshineModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineMoonshineModelConfig, 40);

typedef struct SherpaOnnxOfflineFireRedAsrModelConfig {
  const char* encoder;
  const char* decoder;
} SherpaOnnxOfflineFireRedAsrModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineFireRedAsrModelConfig, 16);

typedef struct SherpaOnnxOfflineDolphinModelConfig {
  const char* model;
} SherpaOnnxOfflineDolphinModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineDolphinModelConfig, 8);

typedef struct SherpaOnnxOfflineZipformerCtcModelConfig {
  const char* model;
} SherpaOnnxOfflineZipformerCtcModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineZipformerCtcModelConfig, 8);

typedef struct SherpaOnnxOfflineCanaryModelConfig {
  const char* encoder;
  const char* decoder;
  const char* src_lang;
  const char* tgt_lang;
  int32_t use_pnc;
} SherpaOnnxOfflineCanaryModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineCanaryModelConfig, 40);

typedef struct SherpaOnnxOfflineWenetCtcModelConfig {
  const char* model;
} SherpaOnnxOfflineWenetCtcModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineWenetCtcModelConfig, 8);

typedef struct SherpaOnnxOfflineOmnilingualAsrCtcModelConfig {
  const char* model;
} SherpaOnnxOfflineOmnilingualAsrCtcModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineOmnilingualAsrCtcModelConfig, 8);

typedef struct SherpaOnnxOfflineMedAsrCtcModelConfig {
  const char* model;
} SherpaOnnxOfflineMedAsrCtcModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineMedAsrCtcModelConfig, 8);

typedef struct SherpaOnnxOfflineFunASRNanoModelConfig {
  const char* encoder_adaptor;
  const char* llm;
  const char* embedding;
  const char* tokenizer;
  const char* system_prompt;
  const char* user_prompt;
  int32_t max_new_tokens;
  float temperature;
  float top_p;
  int32_t seed;
  const char* language;
  int32_t itn;
  const char* hotwords;
} SherpaOnnxOfflineFunASRNanoModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineFunASRNanoModelConfig, 88);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineFunASRNanoModelConfig, language, 64);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineFunASRNanoModelConfig, hotwords, 80);

typedef struct SherpaOnnxOfflineFireRedAsrCtcModelConfig {
  const char* model;
} SherpaOnnxOfflineFireRedAsrCtcModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineFireRedAsrCtcModelConfig, 8);

typedef struct SherpaOnnxOfflineQwen3ASRModelConfig {
  const char* conv_frontend;
  const char* encoder;
  const char* decoder;
  const char* tokenizer;
  int32_t max_total_len;
  int32_t max_new_tokens;
  float temperature;
  float top_p;
  int32_t seed;
  const char* hotwords;
} SherpaOnnxOfflineQwen3ASRModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineQwen3ASRModelConfig, 64);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineQwen3ASRModelConfig, hotwords, 56);

typedef struct SherpaOnnxOfflineCohereTranscribeModelConfig {
  const char* encoder;
  const char* decoder;
  const char* language;
  int32_t use_punct;
  int32_t use_itn;
} SherpaOnnxOfflineCohereTranscribeModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineCohereTranscribeModelConfig, 32);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineCohereTranscribeModelConfig, use_itn,
                     28);

// ---------------------------------------------------------------------------
// Offline recognizer: top-level configs
// ---------------------------------------------------------------------------

typedef struct SherpaOnnxOfflineModelConfig {
  SherpaOnnxOfflineTransducerModelConfig transducer;
  SherpaOnnxOfflineParaformerModelConfig paraformer;
  SherpaOnnxOfflineNemoEncDecCtcModelConfig nemo_ctc;
  SherpaOnnxOfflineWhisperModelConfig whisper;
  SherpaOnnxOfflineTdnnModelConfig tdnn;
  const char* tokens;
  int32_t num_threads;  // 0 -> 1
  int32_t debug;
  const char* provider;  // "" -> "cpu"
  const char* model_type;
  const char* modeling_unit;
  const char* bpe_vocab;
  const char* telespeech_ctc;
  SherpaOnnxOfflineSenseVoiceModelConfig sense_voice;
  SherpaOnnxOfflineMoonshineModelConfig moonshine;
  SherpaOnnxOfflineFireRedAsrModelConfig fire_red_asr;
  SherpaOnnxOfflineDolphinModelConfig dolphin;
  SherpaOnnxOfflineZipformerCtcModelConfig zipformer_ctc;
  SherpaOnnxOfflineCanaryModelConfig canary;
  SherpaOnnxOfflineWenetCtcModelConfig wenet_ctc;
  SherpaOnnxOfflineOmnilingualAsrCtcModelConfig omnilingual;
  SherpaOnnxOfflineMedAsrCtcModelConfig medasr;
  SherpaOnnxOfflineFunASRNanoModelConfig funasr_nano;
  SherpaOnnxOfflineFireRedAsrCtcModelConfig fire_red_asr_ctc;
  SherpaOnnxOfflineQwen3ASRModelConfig qwen3_asr;
  SherpaOnnxOfflineCohereTranscribeModelConfig cohere_transcribe;
} SherpaOnnxOfflineModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineModelConfig, 504);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, paraformer, 24);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, whisper, 40);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, tokens, 96);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, num_threads, 104);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, provider, 112);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, model_type, 120);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, sense_voice, 152);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, moonshine, 176);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, canary, 248);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, funasr_nano, 312);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, fire_red_asr_ctc, 400);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, qwen3_asr, 408);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineModelConfig, cohere_transcribe, 472);

typedef struct SherpaOnnxOfflineLMConfig {
  const char* model;
  float scale;  // 0 -> 1.0
} SherpaOnnxOfflineLMConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineLMConfig, 16);

typedef struct SherpaOnnxOfflineRecognizerConfig {
  SherpaOnnxFeatureConfig feat_config;
  SherpaOnnxOfflineModelConfig model_config;
  SherpaOnnxOfflineLMConfig lm_config;
  const char* decoding_method;  // "" -> "greedy_search"
  int32_t max_active_paths;
  const char* hotwords_file;
  float hotwords_score;
  const char* rule_fsts;
  const char* rule_fars;
  float blank_penalty;
  SherpaOnnxHomophoneReplacerConfig hr;
} SherpaOnnxOfflineRecognizerConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineRecognizerConfig, 608);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerConfig, model_config, 8);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerConfig, lm_config, 512);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerConfig, decoding_method, 528);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerConfig, hotwords_score, 552);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerConfig, blank_penalty, 576);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerConfig, hr, 584);

// Everything inside is owned by the result object and released together with
// it by SherpaOnnxDestroyOfflineRecognizerResult.
typedef struct SherpaOnnxOfflineRecognizerResult {
  const char* text;  // never NULL
  float* timestamps;  // NULL unless the model gave one start time per token
  int32_t count;
  const char* tokens;
  const char* const* tokens_arr;
  const char* json;
  const char* lang;
  const char* emotion;
  const char* event;
  float* durations;  // NULL for SenseVoice and most other models
  float* ys_log_probs;
  const float* segment_timestamps;
  const float* segment_durations;
  const char* segment_texts;
  const char* const* segment_texts_arr;
  int32_t segment_count;
} SherpaOnnxOfflineRecognizerResult;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineRecognizerResult, 128);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerResult, count, 16);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerResult, tokens_arr, 32);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerResult, lang, 48);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerResult, durations, 72);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerResult, ys_log_probs, 80);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineRecognizerResult, segment_count, 120);

// ---------------------------------------------------------------------------
// Online (streaming) recognizer
// ---------------------------------------------------------------------------

typedef struct SherpaOnnxOnlineTransducerModelConfig {
  const char* encoder;
  const char* decoder;
  const char* joiner;
} SherpaOnnxOnlineTransducerModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOnlineTransducerModelConfig, 24);

typedef struct SherpaOnnxOnlineParaformerModelConfig {
  const char* encoder;
  const char* decoder;
} SherpaOnnxOnlineParaformerModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOnlineParaformerModelConfig, 16);

typedef struct SherpaOnnxOnlineZipformer2CtcModelConfig {
  const char* model;
} SherpaOnnxOnlineZipformer2CtcModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOnlineZipformer2CtcModelConfig, 8);

typedef struct SherpaOnnxOnlineNemoCtcModelConfig {
  const char* model;
} SherpaOnnxOnlineNemoCtcModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOnlineNemoCtcModelConfig, 8);

typedef struct SherpaOnnxOnlineToneCtcModelConfig {
  const char* model;
} SherpaOnnxOnlineToneCtcModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOnlineToneCtcModelConfig, 8);

typedef struct SherpaOnnxOnlineModelConfig {
  SherpaOnnxOnlineTransducerModelConfig transducer;
  SherpaOnnxOnlineParaformerModelConfig paraformer;
  SherpaOnnxOnlineZipformer2CtcModelConfig zipformer2_ctc;
  const char* tokens;
  int32_t num_threads;
  const char* provider;
  int32_t debug;
  const char* model_type;
  const char* modeling_unit;
  const char* bpe_vocab;
  // Read only when non-NULL and tokens_buf_size > 0 (a byte count).
  const char* tokens_buf;
  int32_t tokens_buf_size;
  SherpaOnnxOnlineNemoCtcModelConfig nemo_ctc;
  SherpaOnnxOnlineToneCtcModelConfig t_one_ctc;
} SherpaOnnxOnlineModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOnlineModelConfig, 136);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineModelConfig, tokens, 48);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineModelConfig, provider, 64);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineModelConfig, debug, 72);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineModelConfig, tokens_buf_size, 112);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineModelConfig, t_one_ctc, 128);

typedef struct SherpaOnnxOnlineCtcFstDecoderConfig {
  const char* graph;
  int32_t max_active;
} SherpaOnnxOnlineCtcFstDecoderConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOnlineCtcFstDecoderConfig, 16);

typedef struct SherpaOnnxOnlineRecognizerConfig {
  SherpaOnnxFeatureConfig feat_config;
  SherpaOnnxOnlineModelConfig model_config;
  const char* decoding_method;
  int32_t max_active_paths;
  int32_t enable_endpoint;  // 0: IsEndpoint never fires
  float rule1_min_trailing_silence;  // seconds, 0 -> 2.4
  float rule2_min_trailing_silence;  // seconds, 0 -> 1.2
  float rule3_min_utterance_length;  // seconds, 0 -> 20
  const char* hotwords_file;
  float hotwords_score;
  SherpaOnnxOnlineCtcFstDecoderConfig ctc_fst_decoder_config;
  const char* rule_fsts;
  const char* rule_fars;
  float blank_penalty;
  const char* hotwords_buf;
  int32_t hotwords_buf_size;
  SherpaOnnxHomophoneReplacerConfig hr;
} SherpaOnnxOnlineRecognizerConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOnlineRecognizerConfig, 272);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineRecognizerConfig, decoding_method, 144);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineRecognizerConfig, enable_endpoint, 156);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineRecognizerConfig,
                     rule3_min_utterance_length, 168);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineRecognizerConfig, ctc_fst_decoder_config,
                     192);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineRecognizerConfig, hotwords_buf_size, 240);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineRecognizerConfig, hr, 248);

typedef struct SherpaOnnxOnlineRecognizerResult {
  const char* text;  // never NULL
  const char* tokens;
  const char* const* tokens_arr;
  float* timestamps;
  int32_t count;
  const char* json;
} SherpaOnnxOnlineRecognizerResult;
KERROW_SHERPA_LAYOUT(SherpaOnnxOnlineRecognizerResult, 48);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineRecognizerResult, timestamps, 24);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineRecognizerResult, count, 32);
KERROW_SHERPA_OFFSET(SherpaOnnxOnlineRecognizerResult, json, 40);

// ---------------------------------------------------------------------------
// Punctuation
// ---------------------------------------------------------------------------

typedef struct SherpaOnnxOfflinePunctuationModelConfig {
  const char* ct_transformer;
  int32_t num_threads;
  int32_t debug;
  const char* provider;
} SherpaOnnxOfflinePunctuationModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflinePunctuationModelConfig, 24);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflinePunctuationModelConfig, provider, 16);

typedef struct SherpaOnnxOfflinePunctuationConfig {
  SherpaOnnxOfflinePunctuationModelConfig model;
} SherpaOnnxOfflinePunctuationConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflinePunctuationConfig, 24);

// ---------------------------------------------------------------------------
// Voice activity detection
// ---------------------------------------------------------------------------

typedef struct SherpaOnnxSileroVadModelConfig {
  const char* model;
  float threshold;
  float min_silence_duration;
  float min_speech_duration;
  // Samples. A Silero v5 model at 16 kHz accepts only 512; any other value
  // ends the process inside Create.
  int32_t window_size;
  float max_speech_duration;
} SherpaOnnxSileroVadModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxSileroVadModelConfig, 32);
KERROW_SHERPA_OFFSET(SherpaOnnxSileroVadModelConfig, window_size, 20);
KERROW_SHERPA_OFFSET(SherpaOnnxSileroVadModelConfig, max_speech_duration, 24);

typedef struct SherpaOnnxTenVadModelConfig {
  const char* model;
  float threshold;
  float min_silence_duration;
  float min_speech_duration;
  int32_t window_size;
  float max_speech_duration;
} SherpaOnnxTenVadModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxTenVadModelConfig, 32);

typedef struct SherpaOnnxVadModelConfig {
  SherpaOnnxSileroVadModelConfig silero_vad;
  int32_t sample_rate;  // Silero: anything but 16000 ends the process
  int32_t num_threads;
  const char* provider;
  int32_t debug;
  SherpaOnnxTenVadModelConfig ten_vad;
} SherpaOnnxVadModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxVadModelConfig, 88);
KERROW_SHERPA_OFFSET(SherpaOnnxVadModelConfig, sample_rate, 32);
KERROW_SHERPA_OFFSET(SherpaOnnxVadModelConfig, provider, 40);
KERROW_SHERPA_OFFSET(SherpaOnnxVadModelConfig, ten_vad, 56);

typedef struct SherpaOnnxSpeechSegment {
  int32_t start;  // sample index since Create or the last Reset
  float* samples;
  int32_t n;
} SherpaOnnxSpeechSegment;
KERROW_SHERPA_LAYOUT(SherpaOnnxSpeechSegment, 24);
KERROW_SHERPA_OFFSET(SherpaOnnxSpeechSegment, samples, 8);
KERROW_SHERPA_OFFSET(SherpaOnnxSpeechSegment, n, 16);

// ---------------------------------------------------------------------------
// Speaker embeddings and diarization
// ---------------------------------------------------------------------------

typedef struct SherpaOnnxSpeakerEmbeddingExtractorConfig {
  const char* model;
  int32_t num_threads;
  int32_t debug;
  const char* provider;
} SherpaOnnxSpeakerEmbeddingExtractorConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxSpeakerEmbeddingExtractorConfig, 24);

typedef struct SherpaOnnxOfflineSpeakerSegmentationPyannoteModelConfig {
  const char* model;
  float window_shift_ratio;  // added in 1.13.8; 0 -> 0.1, must be in (0, 1]
} SherpaOnnxOfflineSpeakerSegmentationPyannoteModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineSpeakerSegmentationPyannoteModelConfig,
                     16);

typedef struct SherpaOnnxOfflineSpeakerSegmentationModelConfig {
  SherpaOnnxOfflineSpeakerSegmentationPyannoteModelConfig pyannote;
  int32_t num_threads;
  int32_t debug;
  const char* provider;
} SherpaOnnxOfflineSpeakerSegmentationModelConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineSpeakerSegmentationModelConfig, 32);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineSpeakerSegmentationModelConfig,
                     num_threads, 16);

typedef struct SherpaOnnxFastClusteringConfig {
  int32_t num_clusters;  // > 0 forces the count; 0 -> -1 (use threshold)
  float threshold;       // cosine distance cut; 0 -> 0.5
  int32_t compute_confidence;  // added in 1.13.8
} SherpaOnnxFastClusteringConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxFastClusteringConfig, 12);
KERROW_SHERPA_OFFSET(SherpaOnnxFastClusteringConfig, compute_confidence, 8);

typedef struct SherpaOnnxOfflineSpeakerDiarizationConfig {
  SherpaOnnxOfflineSpeakerSegmentationModelConfig segmentation;
  SherpaOnnxSpeakerEmbeddingExtractorConfig embedding;
  SherpaOnnxFastClusteringConfig clustering;
  float min_duration_on;   // a segment survives only if strictly longer
  float min_duration_off;  // same-speaker gaps up to this are merged
} SherpaOnnxOfflineSpeakerDiarizationConfig;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineSpeakerDiarizationConfig, 80);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineSpeakerDiarizationConfig, embedding, 32);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineSpeakerDiarizationConfig, clustering,
                     56);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineSpeakerDiarizationConfig,
                     min_duration_on, 68);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineSpeakerDiarizationConfig,
                     min_duration_off, 72);

typedef struct SherpaOnnxOfflineSpeakerDiarizationSegment {
  float start;  // seconds
  float end;    // seconds
  int32_t speaker;  // 0-based cluster index
  float confidence;  // added in 1.13.8; -2 when not computed
} SherpaOnnxOfflineSpeakerDiarizationSegment;
KERROW_SHERPA_LAYOUT(SherpaOnnxOfflineSpeakerDiarizationSegment, 16);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineSpeakerDiarizationSegment, speaker, 8);
KERROW_SHERPA_OFFSET(SherpaOnnxOfflineSpeakerDiarizationSegment, confidence,
                     12);

// ---------------------------------------------------------------------------
// Functions
// ---------------------------------------------------------------------------

// Version stamps; static strings, never freed.
const char* SherpaOnnxGetVersionStr(void);
const char* SherpaOnnxGetGitSha1(void);
const char* SherpaOnnxGetGitDate(void);

// Offline recognizer.
const SherpaOnnxOfflineRecognizer* SherpaOnnxCreateOfflineRecognizer(
    const SherpaOnnxOfflineRecognizerConfig* config);
void SherpaOnnxDestroyOfflineRecognizer(
    const SherpaOnnxOfflineRecognizer* recognizer);
const SherpaOnnxOfflineStream* SherpaOnnxCreateOfflineStream(
    const SherpaOnnxOfflineRecognizer* recognizer);
void SherpaOnnxDestroyOfflineStream(const SherpaOnnxOfflineStream* stream);
void SherpaOnnxOfflineStreamSetOption(const SherpaOnnxOfflineStream* stream,
                                      const char* key, const char* value);
void SherpaOnnxAcceptWaveformOffline(const SherpaOnnxOfflineStream* stream,
                                     int32_t sample_rate, const float* samples,
                                     int32_t n);
void SherpaOnnxDecodeOfflineStream(
    const SherpaOnnxOfflineRecognizer* recognizer,
    const SherpaOnnxOfflineStream* stream);
const SherpaOnnxOfflineRecognizerResult* SherpaOnnxGetOfflineStreamResult(
    const SherpaOnnxOfflineStream* stream);
void SherpaOnnxDestroyOfflineRecognizerResult(
    const SherpaOnnxOfflineRecognizerResult* result);

// Online recognizer.
const SherpaOnnxOnlineRecognizer* SherpaOnnxCreateOnlineRecognizer(
    const SherpaOnnxOnlineRecognizerConfig* config);
void SherpaOnnxDestroyOnlineRecognizer(
    const SherpaOnnxOnlineRecognizer* recognizer);
const SherpaOnnxOnlineStream* SherpaOnnxCreateOnlineStream(
    const SherpaOnnxOnlineRecognizer* recognizer);
void SherpaOnnxDestroyOnlineStream(const SherpaOnnxOnlineStream* stream);
void SherpaOnnxOnlineStreamSetOption(const SherpaOnnxOnlineStream* stream,
                                     const char* key, const char* value);
void SherpaOnnxOnlineStreamAcceptWaveform(const SherpaOnnxOnlineStream* stream,
                                          int32_t sample_rate,
                                          const float* samples, int32_t n);
int32_t SherpaOnnxIsOnlineStreamReady(
    const SherpaOnnxOnlineRecognizer* recognizer,
    const SherpaOnnxOnlineStream* stream);
void SherpaOnnxDecodeOnlineStream(const SherpaOnnxOnlineRecognizer* recognizer,
                                  const SherpaOnnxOnlineStream* stream);
const SherpaOnnxOnlineRecognizerResult* SherpaOnnxGetOnlineStreamResult(
    const SherpaOnnxOnlineRecognizer* recognizer,
    const SherpaOnnxOnlineStream* stream);
void SherpaOnnxDestroyOnlineRecognizerResult(
    const SherpaOnnxOnlineRecognizerResult* result);
int32_t SherpaOnnxOnlineStreamIsEndpoint(
    const SherpaOnnxOnlineRecognizer* recognizer,
    const SherpaOnnxOnlineStream* stream);
void SherpaOnnxOnlineStreamReset(const SherpaOnnxOnlineRecognizer* recognizer,
                                 const SherpaOnnxOnlineStream* stream);
void SherpaOnnxOnlineStreamInputFinished(const SherpaOnnxOnlineStream* stream);

// Punctuation. Note the "SherpaOffline" prefix of the two text functions.
const SherpaOnnxOfflinePunctuation* SherpaOnnxCreateOfflinePunctuation(
    const SherpaOnnxOfflinePunctuationConfig* config);
void SherpaOnnxDestroyOfflinePunctuation(
    const SherpaOnnxOfflinePunctuation* punct);
const char* SherpaOfflinePunctuationAddPunct(
    const SherpaOnnxOfflinePunctuation* punct, const char* text);
void SherpaOfflinePunctuationFreeText(const char* text);

// Voice activity detection. buffer_size_in_seconds <= 0 ends the process.
const SherpaOnnxVoiceActivityDetector* SherpaOnnxCreateVoiceActivityDetector(
    const SherpaOnnxVadModelConfig* config, float buffer_size_in_seconds);
void SherpaOnnxDestroyVoiceActivityDetector(
    const SherpaOnnxVoiceActivityDetector* vad);
void SherpaOnnxVoiceActivityDetectorAcceptWaveform(
    const SherpaOnnxVoiceActivityDetector* vad, const float* samples,
    int32_t n);
int32_t SherpaOnnxVoiceActivityDetectorEmpty(
    const SherpaOnnxVoiceActivityDetector* vad);
int32_t SherpaOnnxVoiceActivityDetectorDetected(
    const SherpaOnnxVoiceActivityDetector* vad);
// Undefined behaviour when Empty() is 1.
void SherpaOnnxVoiceActivityDetectorPop(
    const SherpaOnnxVoiceActivityDetector* vad);
// A copy the caller owns; Front does not remove it from the queue.
const SherpaOnnxSpeechSegment* SherpaOnnxVoiceActivityDetectorFront(
    const SherpaOnnxVoiceActivityDetector* vad);
void SherpaOnnxDestroySpeechSegment(const SherpaOnnxSpeechSegment* segment);
void SherpaOnnxVoiceActivityDetectorReset(
    const SherpaOnnxVoiceActivityDetector* vad);
void SherpaOnnxVoiceActivityDetectorFlush(
    const SherpaOnnxVoiceActivityDetector* vad);

// Offline speaker diarization.
const SherpaOnnxOfflineSpeakerDiarization*
SherpaOnnxCreateOfflineSpeakerDiarization(
    const SherpaOnnxOfflineSpeakerDiarizationConfig* config);
void SherpaOnnxDestroyOfflineSpeakerDiarization(
    const SherpaOnnxOfflineSpeakerDiarization* sd);
int32_t SherpaOnnxOfflineSpeakerDiarizationGetSampleRate(
    const SherpaOnnxOfflineSpeakerDiarization* sd);
const SherpaOnnxOfflineSpeakerDiarizationResult*
SherpaOnnxOfflineSpeakerDiarizationProcess(
    const SherpaOnnxOfflineSpeakerDiarization* sd, const float* samples,
    int32_t n);
int32_t SherpaOnnxOfflineSpeakerDiarizationResultGetNumSegments(
    const SherpaOnnxOfflineSpeakerDiarizationResult* result);
// A new array of GetNumSegments() elements, or NULL when there are none.
const SherpaOnnxOfflineSpeakerDiarizationSegment*
SherpaOnnxOfflineSpeakerDiarizationResultSortByStartTime(
    const SherpaOnnxOfflineSpeakerDiarizationResult* result);
void SherpaOnnxOfflineSpeakerDiarizationDestroySegment(
    const SherpaOnnxOfflineSpeakerDiarizationSegment* segments);
void SherpaOnnxOfflineSpeakerDiarizationDestroyResult(
    const SherpaOnnxOfflineSpeakerDiarizationResult* result);

// Speaker embedding extractor. Its streams are online streams and are freed
// with SherpaOnnxDestroyOnlineStream.
const SherpaOnnxSpeakerEmbeddingExtractor*
SherpaOnnxCreateSpeakerEmbeddingExtractor(
    const SherpaOnnxSpeakerEmbeddingExtractorConfig* config);
void SherpaOnnxDestroySpeakerEmbeddingExtractor(
    const SherpaOnnxSpeakerEmbeddingExtractor* extractor);
int32_t SherpaOnnxSpeakerEmbeddingExtractorDim(
    const SherpaOnnxSpeakerEmbeddingExtractor* extractor);
const SherpaOnnxOnlineStream* SherpaOnnxSpeakerEmbeddingExtractorCreateStream(
    const SherpaOnnxSpeakerEmbeddingExtractor* extractor);
int32_t SherpaOnnxSpeakerEmbeddingExtractorIsReady(
    const SherpaOnnxSpeakerEmbeddingExtractor* extractor,
    const SherpaOnnxOnlineStream* stream);
// Dim() floats, not normalised.
const float* SherpaOnnxSpeakerEmbeddingExtractorComputeEmbedding(
    const SherpaOnnxSpeakerEmbeddingExtractor* extractor,
    const SherpaOnnxOnlineStream* stream);
void SherpaOnnxSpeakerEmbeddingExtractorDestroyEmbedding(
    const float* embedding);

// Speaker embedding manager (cosine-similarity search over enrolled names).
const SherpaOnnxSpeakerEmbeddingManager* SherpaOnnxCreateSpeakerEmbeddingManager(
    int32_t dim);
void SherpaOnnxDestroySpeakerEmbeddingManager(
    const SherpaOnnxSpeakerEmbeddingManager* manager);
// embeddings holds n vectors of dim floats back to back. Returns 0 when the
// name is already enrolled or n is 0.
int32_t SherpaOnnxSpeakerEmbeddingManagerAddListFlattened(
    const SherpaOnnxSpeakerEmbeddingManager* manager, const char* name,
    const float* embeddings, int32_t n);
// The best name whose score reaches threshold, as a new string; else NULL.
const char* SherpaOnnxSpeakerEmbeddingManagerSearch(
    const SherpaOnnxSpeakerEmbeddingManager* manager, const float* embedding,
    float threshold);
void SherpaOnnxSpeakerEmbeddingManagerFreeSearch(const char* name);

}  // extern "C"

#undef KERROW_SHERPA_OFFSET
#undef KERROW_SHERPA_LAYOUT

#endif  // KERROW_ENGINE_SHERPA_ONNX_C_API_H_
