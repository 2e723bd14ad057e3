// kerrow-replay: plays a WAV file into a live kerrow session the way the desktop
// host would, and prints everything kerrow says. The first thing to reach for
// when a live-mode result looks wrong: it takes the microphone and the host app
// out of the picture.
//
//   kerrow-replay [--kerrow PATH] [--speed X] [--start-stop] [--settle S] FILE.wav -- KERROW_ARGS...

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "audio/sample_convert.h"
#include "audio/wav_reader.h"
#include "host/kerrow_host.h"

namespace {

using std::chrono::milliseconds;

// kerrow only runs at 16 kHz, so the recording must already be at that rate.
constexpr int kSampleRate = 16000;
constexpr milliseconds kReadyTimeout(120000);
constexpr milliseconds kExitTimeout(30000);

struct ReplayOptions {
  std::string kerrow = KERROW_DEFAULT_BINARY;
  double speed = 1.0;
  bool start_stop = false;
  double settle_seconds = 3.0;  // stop waiting for results after this much silence on stdout
  std::string wav;
  std::vector<std::string> kerrow_args;
};

void PrintUsage() {
  std::cerr << "usage: kerrow-replay [--kerrow PATH] [--speed X] [--start-stop] [--settle S]"
               " FILE.wav -- KERROW_ARGS...\n"
               "  --kerrow PATH  the kerrow binary (default: the one built beside this tool)\n"
               "  --speed X      play X times faster than real time; 0 = as fast as possible\n"
               "  --start-stop   send \"start\" before the audio and \"stop\" after it\n"
               "  --settle S     after the audio, wait until stdout has been quiet for S seconds\n"
               "                 (default 3) before sending \"quit\"\n";
}

bool ParseReplayArgs(int argc, char** argv, ReplayOptions* options) {
  int i = 1;
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--") {
      ++i;
      break;
    } else if (arg == "--kerrow" && has_value) {
      options->kerrow = argv[++i];
    } else if (arg == "--speed" && has_value) {
      options->speed = std::atof(argv[++i]);
    } else if (arg == "--settle" && has_value) {
      options->settle_seconds = std::atof(argv[++i]);
    } else if (arg == "--start-stop") {
      options->start_stop = true;
    } else if (options->wav.empty() && !arg.empty() && arg[0] != '-') {
      options->wav = arg;
    } else {
      std::cerr << "kerrow-replay: unexpected argument: " << arg << "\n";
      return false;
    }
  }
  options->kerrow_args.assign(argv + i, argv + argc);
  return !options->wav.empty();
}

// The value kerrow itself will use for an option that takes the next argument
// (the last occurrence wins there too).
std::string KerrowOption(const std::vector<std::string>& args, const std::string& name,
                         const std::string& fallback) {
  std::string value = fallback;
  for (size_t i = 0; i + 1 < args.size(); ++i) {
    if (args[i] == name) value = args[i + 1];
  }
  return value;
}

bool IsReadyLine(const std::string& line) {
  return line.find("\"type\":\"ready\"") != std::string::npos;
}

// Returns once no stdout line has arrived for `quiet` (or stdout has ended).
void WaitUntilQuiet(kerrow::host::ChildProcess* kerrow, milliseconds quiet) {
  size_t seen = kerrow->StdoutLines().size();
  int index;
  while ((index = kerrow->WaitForLine([](const std::string&) { return true; }, quiet, seen)) >= 0) {
    seen = static_cast<size_t>(index) + 1;
  }
}

bool PlayAudio(kerrow::host::ChildProcess* kerrow, const std::vector<float>& samples,
               const ReplayOptions& options, const std::string& audio_format) {
  const size_t chunk_samples = kSampleRate / 10;  // 0.1 s, as a microphone callback delivers it
  if (audio_format != "f32le") {
    return kerrow::host::PlayS16(kerrow, samples, kSampleRate, options.speed, chunk_samples);
  }
  // f32le is rare enough that pacing it is not worth a second player: send it whole.
  return kerrow->WriteAudio(kerrow::FloatToF32le(samples));
}

}  // namespace

int main(int argc, char** argv) {
  ReplayOptions options;
  if (!ParseReplayArgs(argc, argv, &options)) {
    PrintUsage();
    return 2;
  }

  std::vector<float> samples;
  std::string error;
  if (!kerrow::ReadWavMono(options.wav, kSampleRate, &samples, &error)) {
    std::cerr << "kerrow-replay: " << error << "\n";
    return 1;
  }

  kerrow::host::LaunchConfig launch;
  launch.binary = options.kerrow;
  launch.args = options.kerrow_args;
  launch.audio_fd = std::atoi(KerrowOption(options.kerrow_args, "--audio-fd", "3").c_str());
  const std::string audio_format = KerrowOption(options.kerrow_args, "--audio-format", "s16le");

  std::mutex print_mutex;
  kerrow::host::ChildProcess kerrow;
  kerrow.set_stdout_line_callback([&print_mutex](const std::string& line) {
    std::lock_guard<std::mutex> lock(print_mutex);
    std::cout << line << std::endl;
  });
  if (!kerrow.Start(launch, &error)) {
    std::cerr << "kerrow-replay: " << error << "\n";
    return 1;
  }

  // Audio written before "ready" would only pile up in the pipe while the models load.
  if (kerrow.WaitForLine(IsReadyLine, kReadyTimeout) < 0) {
    std::cerr << "kerrow-replay: no ready event; sending the audio anyway\n";
  }
  if (options.start_stop) kerrow.WriteStdin("start\n");
  std::cerr << "kerrow-replay: playing " << samples.size() << " samples ("
            << static_cast<double>(samples.size()) / kSampleRate << " s) at speed " << options.speed
            << "\n";
  if (!PlayAudio(&kerrow, samples, options, audio_format)) {
    std::cerr << "kerrow-replay: kerrow stopped reading the audio pipe\n";
  }
  if (options.start_stop) kerrow.WriteStdin("stop\n");
  WaitUntilQuiet(&kerrow, milliseconds(static_cast<long>(options.settle_seconds * 1000)));

  kerrow.WriteStdin("quit\n");
  kerrow.CloseAudio();
  kerrow.CloseStdin();
  const int status = kerrow.Wait(kExitTimeout);

  const std::string stderr_text = kerrow.StderrText();
  if (!stderr_text.empty()) std::cerr << "kerrow-replay: kerrow's stderr:\n" << stderr_text;
  std::lock_guard<std::mutex> lock(print_mutex);
  if (status == kerrow::host::kTimedOut) {
    std::cout << "kerrow-replay: kerrow did not exit; killed" << std::endl;
    return 1;
  }
  std::cout << "kerrow-replay: kerrow exited with status " << status << std::endl;
  return status;
}
