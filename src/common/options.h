#ifndef KERROW_COMMON_OPTIONS_H_
#define KERROW_COMMON_OPTIONS_H_

#include <cstdint>
#include <string>

namespace kerrow {

// Every command-line setting with its default. Filled once by ParseArgs, then
// read-only for the rest of the process and passed by const reference.
struct Options {
  std::string first_model_type = "transducer";
  std::string first_encoder;
  std::string first_decoder;
  std::string first_joiner;
  std::string first_tokens;
  std::string second_type = "sensevoice";
  std::string second_model;
  std::string second_encoder;
  std::string second_decoder;
  std::string second_tokens;
  std::string second_language;
  std::string second_task = "transcribe";
  bool disable_second_itn = false;
  std::string ct_transformer;
  int32_t num_threads_first = 2;
  int32_t num_threads_second = 4;
  int32_t num_threads_punc = 1;
  std::string provider_first = "cpu";
  std::string provider_second = "cpu";
  std::string provider_punc = "cpu";
  int32_t second_pass_every = 1;
  int32_t tail_padding = 4000;
  int32_t sample_rate = 16000;
  int32_t audio_fd = 3;
  std::string audio_format = "s16le";
  double chunk_duration = 0.1;
  bool disable_endpoint = false;
  std::string silero_vad_model;
  double vad_threshold = 0.5;
  double vad_min_silence = 0.5;
  double vad_min_speech = 0.25;
  double vad_max_speech = 8.0;
  double vad_lookback = 0.2;
  double vad_lookahead = 0.1;
  std::string wav_input;
  std::string pcm_input;
  bool manual_mode = false;
  bool manual_realtime = false;
  bool offline_2pass = false;
  bool diarization = false;
  std::string diarization_model;
  std::string diarization_segmentation_model;
  std::string diarization_embedding_model;
  std::string diarization_helper_binary;
  std::string diarization_backend = "offline";
  int32_t diarization_min_speakers = 0;
  int32_t diarization_max_speakers = 0;
  int32_t diarization_num_threads = 4;
  bool speaker_id = false;
  std::string speaker_embedding_model;
  std::string speaker_enroll_db;
  double speaker_id_threshold = 0.7;
  double speaker_id_max_seconds = 15.0;
  std::string register_speaker_id;
  std::string register_name;
  std::string register_input;
  std::string speaker_samples_dir;
  bool identify_only = false;
  std::string segments_input;
  bool list_speakers = false;
  bool migrate_speakers = false;
  std::string unregister_speaker_id;
  std::string unregister_name;
  std::string unregister_md5;
  std::string rename_speaker_id;
  std::string rename_speaker_name;
  bool start_paused = false;
  int32_t session_id = -1;
  bool single_model_streaming = false;
  double single_partial_interval = 0.5;
  double single_trim_cap = 3.0;
  double single_trim_keep = 1.2;
  double single_max_window = 7.0;
};

}  // namespace kerrow

#endif  // KERROW_COMMON_OPTIONS_H_
