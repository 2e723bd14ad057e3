// Compares live results with file results on the same recordings: each bundled
// recording with a reference transcript is replayed live at real-time pace
// through manual realtime and through single-model streaming, and decoded
// whole with --wav-input. Prints the word error rate of each beside the
// others; live and file should come out within a point of each other in
// manual realtime.
//
// usage: live_wer_bench [SPEED]   (1.0 = real time, the default; 0 = as fast as read)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_recordings.h"
#include "host/kerrow_host.h"

namespace {

constexpr int kRate = 16000;
const auto kWait = std::chrono::minutes(2);

struct Recording {
  const char* wav;        // under tests/data/audio
  const char* reference;  // .txt (whole text) or .json (segments' "text" in order)
};

const Recording kRecordings[] = {
    {"espeak/en_short.wav", "espeak/en_short.txt"},
    {"espeak/en10s.wav", "espeak/en10s.txt"},
    {"espeak-dialog/heldout-2voices-a.wav", "espeak-dialog/heldout-2voices-a.json"},
    {"espeak-dialog/heldout-2voices-b.wav", "espeak-dialog/heldout-2voices-b.json"},
    {"espeak-dialog/heldout-3voices-a.wav", "espeak-dialog/heldout-3voices-a.json"},
};

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Every string value of a "text" key, in order.
std::string TextValues(const std::string& json) {
  std::string all;
  const std::string key = "\"text\":";
  for (size_t at = json.find(key); at != std::string::npos; at = json.find(key, at + 1)) {
    const size_t open = json.find('"', at + key.size());
    if (open == std::string::npos) break;
    for (size_t i = open + 1; i < json.size() && json[i] != '"'; ++i) {
      if (json[i] == '\\' && i + 1 < json.size()) ++i;
      all.push_back(json[i]);
    }
    all.push_back(' ');
  }
  return all;
}

std::string Reference(const Recording& recording) {
  const std::string path = std::string(KERROW_TEST_DATA_DIR) + "/audio/" + recording.reference;
  const std::string text = ReadText(path);
  return path.size() > 5 && path.compare(path.size() - 5, 5, ".json") == 0 ? TextValues(text)
                                                                          : text;
}

// Lowercase words of letters and apostrophes.
std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::string word;
  for (char c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if ((c >= 'a' && c <= 'z') || c == '\'') {
      word.push_back(c);
    } else if (!word.empty()) {
      words.push_back(word);
      word.clear();
    }
  }
  if (!word.empty()) words.push_back(word);
  return words;
}

size_t EditDistance(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::string JsonString(const std::string& line, const std::string& key) {
  const std::string needle = "\"" + key + "\":\"";
  const size_t at = line.find(needle);
  if (at == std::string::npos) return "";
  std::string value;
  for (size_t i = at + needle.size(); i < line.size() && line[i] != '"'; ++i) {
    if (line[i] == '\\' && i + 1 < line.size()) ++i;
    value.push_back(line[i]);
  }
  return value;
}

long JsonInt(const std::string& line, const std::string& key) {
  const std::string needle = "\"" + key + "\":";
  const size_t at = line.find(needle);
  return at == std::string::npos ? -1 : std::strtol(line.c_str() + at + needle.size(), nullptr, 10);
}

bool IsResult(const std::string& line) { return line.rfind("{\"type\":\"result\"", 0) == 0; }

std::string ModelsDir() { return KERROW_MODELS_DIR; }

std::vector<std::string> SecondPassArgs() {
  return {"--second-model", ModelsDir() + "/trained/sensevoice-en-char/model.onnx",
          "--second-tokens", ModelsDir() + "/trained/sensevoice-en-char/tokens.txt",
          "--num-threads-second", "1", "--silero-vad-model", KERROW_VAD_MODEL,
          "--ct-transformer", ModelsDir() + "/trained/punct-en/model.onnx"};
}

std::vector<std::string> LiveArgs(bool single_model) {
  std::vector<std::string> args = {"--manual-mode", "--manual-realtime", "--start-paused"};
  if (single_model) {
    args.push_back("--single-model-streaming");
  } else {
    const std::string first = ModelsDir() + "/trained/streaming-lstm-en-char/";
    for (const std::string& arg : {std::string("--first-encoder"), first + "encoder.onnx",
                                   std::string("--first-decoder"), first + "decoder.onnx",
                                   std::string("--first-joiner"), first + "joiner.onnx",
                                   std::string("--first-tokens"), first + "tokens.txt"}) {
      args.push_back(arg);
    }
  }
  const std::vector<std::string> second = SecondPassArgs();
  args.insert(args.end(), second.begin(), second.end());
  return args;
}

std::string FileTranscript(const Recording& recording) {
  kerrow::host::LaunchConfig launch;
  launch.binary = KERROW_BINARY;
  launch.args = {"--manual-mode", "--wav-input",
                 std::string(KERROW_TEST_DATA_DIR) + "/audio/" + recording.wav};
  const std::vector<std::string> second = SecondPassArgs();
  launch.args.insert(launch.args.end(), second.begin(), second.end());
  kerrow::host::ChildProcess child;
  std::string error;
  if (!child.Start(launch, &error)) return "";
  child.Wait(kWait);
  for (const auto& line : child.StdoutLines()) {
    if (IsResult(line)) return JsonString(line, "merged_text");
  }
  return "";
}

// One capture per recording in one live process; the recording is followed
// by silence so that its last segment closes before "stop".
std::vector<std::string> LiveTranscripts(bool single_model, double speed) {
  std::vector<std::string> transcripts;
  kerrow::host::LaunchConfig launch;
  launch.binary = KERROW_BINARY;
  launch.audio_fd = 3;
  launch.args = LiveArgs(single_model);
  kerrow::host::ChildProcess child;
  std::string error;
  if (!child.Start(launch, &error) ||
      child.WaitForLine([](const std::string& l) { return l == "{\"type\":\"ready\"}"; }, kWait) < 0) {
    return transcripts;
  }
  int seq = 0;
  for (const Recording& recording : kRecordings) {
    const size_t from = child.StdoutLines().size();
    child.WriteStdin("start\n");
    const std::string reset = "vad-reset-applied seq=" + std::to_string(++seq);
    child.WaitForLine([&](const std::string& l) { return l.find(reset) != std::string::npos; },
                      kWait, from);
    std::vector<float> audio = kerrow::bench::LoadRecording(recording.wav);
    audio.resize(audio.size() + 2 * kRate, 0.0f);
    kerrow::host::PlayS16(&child, audio, kRate, speed, 1600);
    // The trailing silence closes the last segment; give its result time to
    // come out before "stop" ends the capture.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    child.WriteStdin("stop\n");
    child.WaitForLine([](const std::string& l) { return l.find("Capture stopped") != std::string::npos; },
                      kWait, from);
    // The PCM thread flushes the VAD after the command thread's reply.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    std::string text;
    const std::vector<std::string> lines = child.StdoutLines();
    for (size_t i = from; i < lines.size(); ++i) {
      if (IsResult(lines[i]) && JsonInt(lines[i], "segment_id") >= 0) {
        text += JsonString(lines[i], "text") + " ";
      }
    }
    transcripts.push_back(text);
  }
  child.WriteStdin("quit\n");
  child.Wait(kWait);
  return transcripts;
}

}  // namespace

int main(int argc, char** argv) {
  const double speed = argc > 1 ? std::max(0.0, std::atof(argv[1])) : 1.0;
  kerrow::host::IgnoreSigpipe();
  const std::vector<std::string> realtime = LiveTranscripts(false, speed);
  const std::vector<std::string> single = LiveTranscripts(true, speed);

  std::printf("live_wer_bench: live replay at %.1fx real time against --wav-input\n", speed);
  std::printf("%-38s %6s %9s %9s %9s\n", "recording", "words", "file_wer", "rt_wer", "single_wer");
  size_t words = 0;
  size_t errors[3] = {0, 0, 0};
  for (size_t k = 0; k < sizeof kRecordings / sizeof kRecordings[0]; ++k) {
    const std::vector<std::string> reference = Words(Reference(kRecordings[k]));
    const std::string hypotheses[3] = {FileTranscript(kRecordings[k]),
                                       k < realtime.size() ? realtime[k] : "",
                                       k < single.size() ? single[k] : ""};
    double rates[3];
    for (int h = 0; h < 3; ++h) {
      const size_t e = EditDistance(reference, Words(hypotheses[h]));
      errors[h] += e;
      rates[h] = reference.empty() ? 0.0 : 100.0 * static_cast<double>(e) / reference.size();
    }
    words += reference.size();
    std::printf("%-38s %6zu %8.1f%% %8.1f%% %8.1f%%\n", kRecordings[k].wav, reference.size(),
                rates[0], rates[1], rates[2]);
  }
  const auto rate = [words](size_t e) { return words ? 100.0 * static_cast<double>(e) / words : 0.0; };
  std::printf("%-38s %6zu %8.1f%% %8.1f%% %8.1f%%\n", "all", words, rate(errors[0]),
              rate(errors[1]), rate(errors[2]));
  std::printf("manual realtime vs file: %+.1f points\n", rate(errors[1]) - rate(errors[0]));
  return 0;
}
