#include "diarization/diarize_helper_server.h"

#include "audio/wav_reader.h"
#include "common/error_text.h"
#include "common/out_of_memory_guard.h"
#include "diarization/helper_line_protocol.h"

namespace kerrow {
namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr char kDiagnosticPrefix[] = "kerrow-diarize: ";

bool IsBlank(const std::string& line) {
  return line.find_first_not_of(" \t\r") == std::string::npos;
}

// Diarizes the file a request names; false with *problem set when it cannot.
bool DiarizeRequestedFile(const std::string& request_line, DiarizationBackend* backend,
                          std::vector<DiarizationSegment>* turns, std::string* problem) {
  std::string wav_path;
  std::string error;
  if (!ParseHelperRequest(request_line, &wav_path, &error)) {
    return Fail(problem, "bad request: " + error);
  }
  std::vector<float> samples;
  if (!ReadWavMono(wav_path, kDiarizeHelperSampleRate, &samples, &error)) {
    return Fail(problem, "cannot read " + wav_path + ": " + error);
  }
  if (!backend->Process(samples, kDiarizeHelperSampleRate, turns, &error)) {
    turns->clear();
    return Fail(problem, "diarization of " + wav_path + " failed: " + error);
  }
  return true;
}

std::unique_ptr<DiarizationBackend> LoadModels(const DiarizeHelperArgs& args,
                                               const DiarizationBackendFactory& make_backend,
                                               std::ostream& diagnostics) {
  std::unique_ptr<DiarizationBackend> backend = make_backend();
  if (backend == nullptr) {
    diagnostics << kDiagnosticPrefix << "the in-process diarizer is not compiled into this binary"
                << std::endl;
    return nullptr;
  }
  DiarizationInitOptions options;
  // The model directory is searched for both models by file name.
  options.model = args.model_dir;
  std::string error;
  if (!backend->Init(options, &error)) {
    diagnostics << kDiagnosticPrefix << "cannot load the models in " << args.model_dir << ": "
                << error << std::endl;
    return nullptr;
  }
  return backend;
}

}  // namespace

bool ParseDiarizeHelperArgs(const std::vector<std::string>& args, DiarizeHelperArgs* parsed,
                            std::string* error) {
  *parsed = DiarizeHelperArgs();
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--resident") {
      parsed->resident = true;
    } else if (arg == "--help" || arg == "-h") {
      parsed->help = true;
    } else if (arg == "--model" || arg == "--backend") {
      if (i + 1 >= args.size()) return Fail(error, arg + " needs a value");
      (arg == "--model" ? parsed->model_dir : parsed->backend) = args[++i];
    } else {
      return Fail(error, "unknown argument: " + arg);
    }
  }
  if (parsed->help) return true;
  if (!parsed->resident) return Fail(error, "--resident is required");
  if (parsed->model_dir.empty()) return Fail(error, "--model DIR is required");
  if (parsed->backend != kDiarizeHelperBackendName) {
    return Fail(error, "unknown backend: " + parsed->backend + " (available: " +
                           kDiarizeHelperBackendName + ")");
  }
  return true;
}

std::string DiarizeHelperUsage() {
  return std::string("usage: kerrow-diarize --resident --model DIR [--backend ") +
         kDiarizeHelperBackendName +
         "]\n"
         "  DIR holds a pyannote segmentation model and a speaker-embedding model\n"
         "  (e.g. segmentation-3.1.onnx and wespeaker.onnx). Prints READY once they are\n"
         "  loaded, then answers each request line {\"input\":\"PATH\"} naming a 16 kHz mono\n"
         "  WAV with lines \"start<TAB>end<TAB>label\" and a closing DONE, until stdin ends.\n";
}

bool ServeDiarizeRequest(const std::string& request_line, DiarizationBackend* backend,
                         const ReplyLineWriter& write_line, std::string* problem) {
  std::vector<DiarizationSegment> turns;
  const bool had_memory = RunUnlessOutOfMemory(
      [&] { DiarizeRequestedFile(request_line, backend, &turns, problem); });
  if (!had_memory) {
    // The request's buffers went with the unwinding; the models stay loaded,
    // so the engine gets an empty answer now and real ones for later requests.
    turns.clear();
    *problem = "out of memory serving " + request_line;
  }
  for (const DiarizationSegment& turn : turns) {
    if (!write_line(FormatHelperTurn(turn))) return false;
  }
  return write_line(kHelperDoneLine);
}

int RunDiarizeHelper(const std::vector<std::string>& args,
                     const DiarizationBackendFactory& make_backend, std::istream& requests,
                     const ReplyLineWriter& write_line, std::ostream& diagnostics) {
  DiarizeHelperArgs parsed;
  std::string error;
  if (!ParseDiarizeHelperArgs(args, &parsed, &error)) {
    diagnostics << kDiagnosticPrefix << error << "\n" << DiarizeHelperUsage() << std::flush;
    return kExitUsage;
  }
  if (parsed.help) {
    diagnostics << DiarizeHelperUsage() << std::flush;
    return kExitOk;
  }
  std::unique_ptr<DiarizationBackend> backend = LoadModels(parsed, make_backend, diagnostics);
  if (backend == nullptr) return kExitFailure;
  if (!write_line(kHelperReadyLine)) return kExitFailure;

  std::string line;
  while (std::getline(requests, line)) {
    // The engine never sends blank lines; answering one with "DONE" would put
    // every later reply one request out of step.
    if (IsBlank(line)) continue;
    std::string problem;
    if (!ServeDiarizeRequest(line, backend.get(), write_line, &problem)) return kExitFailure;
    if (!problem.empty()) diagnostics << kDiagnosticPrefix << problem << std::endl;
  }
  return kExitOk;
}

}  // namespace kerrow
