#ifndef KERROW_ENGINE_SHERPA_HANDLES_H_
#define KERROW_ENGINE_SHERPA_HANDLES_H_

// One owning holder per kind of object the sherpa-onnx library hands out.
// Each deleter calls the library's own Destroy / Free function for that kind:
// the objects are allocated with C++ new inside the library, so releasing
// them any other way (free, delete, another kind's Destroy) corrupts its heap.
// Every Destroy function of the library accepts NULL, but unique_ptr never
// calls the deleter on NULL anyway.

#include <memory>

#include "engine/sherpa_onnx_c_api.h"

namespace kerrow {

// Builds a stateless deleter type around a library release function.
template <typename T, void (*Release)(const T*)>
struct SherpaDeleter {
  void operator()(const T* object) const { Release(object); }
};

template <typename T, void (*Release)(const T*)>
using SherpaHandle = std::unique_ptr<const T, SherpaDeleter<T, Release>>;

// Recognizers and their streams. A stream must be released before the
// recognizer that made it; declare the stream holder after the recognizer
// holder so destruction order takes care of that.
using OfflineRecognizerHandle =
    SherpaHandle<SherpaOnnxOfflineRecognizer,
                 SherpaOnnxDestroyOfflineRecognizer>;
using OfflineStreamHandle =
    SherpaHandle<SherpaOnnxOfflineStream, SherpaOnnxDestroyOfflineStream>;
using OfflineResultHandle =
    SherpaHandle<SherpaOnnxOfflineRecognizerResult,
                 SherpaOnnxDestroyOfflineRecognizerResult>;

using OnlineRecognizerHandle =
    SherpaHandle<SherpaOnnxOnlineRecognizer,
                 SherpaOnnxDestroyOnlineRecognizer>;
// Also owns the streams made by the speaker embedding extractor, which are
// online streams.
using OnlineStreamHandle =
    SherpaHandle<SherpaOnnxOnlineStream, SherpaOnnxDestroyOnlineStream>;
using OnlineResultHandle =
    SherpaHandle<SherpaOnnxOnlineRecognizerResult,
                 SherpaOnnxDestroyOnlineRecognizerResult>;

// Punctuation model and the strings AddPunct returns.
using PunctuationHandle =
    SherpaHandle<SherpaOnnxOfflinePunctuation,
                 SherpaOnnxDestroyOfflinePunctuation>;
using PunctuatedTextHandle =
    SherpaHandle<char, SherpaOfflinePunctuationFreeText>;

// Voice activity detector and the segment copies Front returns.
using VoiceActivityDetectorHandle =
    SherpaHandle<SherpaOnnxVoiceActivityDetector,
                 SherpaOnnxDestroyVoiceActivityDetector>;
using SpeechSegmentHandle =
    SherpaHandle<SherpaOnnxSpeechSegment, SherpaOnnxDestroySpeechSegment>;

// Offline diarization: the pipeline, one run's result, and the sorted segment
// array (which is independent of the result it came from).
using SpeakerDiarizationHandle =
    SherpaHandle<SherpaOnnxOfflineSpeakerDiarization,
                 SherpaOnnxDestroyOfflineSpeakerDiarization>;
using DiarizationResultHandle =
    SherpaHandle<SherpaOnnxOfflineSpeakerDiarizationResult,
                 SherpaOnnxOfflineSpeakerDiarizationDestroyResult>;
using DiarizationSegmentsHandle =
    SherpaHandle<SherpaOnnxOfflineSpeakerDiarizationSegment,
                 SherpaOnnxOfflineSpeakerDiarizationDestroySegment>;

// Speaker embeddings: the extractor, one computed vector, the enrolment
// manager and the name a search returns.
using EmbeddingExtractorHandle =
    SherpaHandle<SherpaOnnxSpeakerEmbeddingExtractor,
                 SherpaOnnxDestroySpeakerEmbeddingExtractor>;
using EmbeddingHandle =
    SherpaHandle<float, SherpaOnnxSpeakerEmbeddingExtractorDestroyEmbedding>;
using EmbeddingManagerHandle =
    SherpaHandle<SherpaOnnxSpeakerEmbeddingManager,
                 SherpaOnnxDestroySpeakerEmbeddingManager>;
using SpeakerSearchResultHandle =
    SherpaHandle<char, SherpaOnnxSpeakerEmbeddingManagerFreeSearch>;

}  // namespace kerrow

#endif  // KERROW_ENGINE_SHERPA_HANDLES_H_
