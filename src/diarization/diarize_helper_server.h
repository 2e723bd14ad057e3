#ifndef KERROW_DIARIZATION_DIARIZE_HELPER_SERVER_H_
#define KERROW_DIARIZATION_DIARIZE_HELPER_SERVER_H_

#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "diarization/diarization_backend.h"

namespace kerrow {

// The serving side of the diarization helper protocol, as kerrow-diarize runs
// it: load the models, say "READY", then answer every request line with its
// turns and "DONE" until the engine closes our standard input.

// The only diarizer this helper has; kerrow passes it by default.
constexpr char kDiarizeHelperBackendName[] = "offline";
// What the in-process diarizer takes; other rates are refused, not resampled.
constexpr int kDiarizeHelperSampleRate = 16000;

struct DiarizeHelperArgs {
  bool resident = false;
  std::string model_dir;
  std::string backend = kDiarizeHelperBackendName;
  bool help = false;
};

// argv without the program name: --resident --model DIR [--backend NAME].
bool ParseDiarizeHelperArgs(const std::vector<std::string>& args, DiarizeHelperArgs* parsed,
                            std::string* error);

std::string DiarizeHelperUsage();

// Writes one protocol line (without its newline); false once the engine can
// no longer be reached.
using ReplyLineWriter = std::function<bool(const std::string& line)>;

// Answers one request line: a line per turn, then "DONE". A request that cannot
// be served (not JSON, an unreadable or non-16 kHz file, a failed diarization,
// no memory left for it) still gets its "DONE", with no turns, so that the engine never waits for a
// reply that will not come; *problem then says why. Returns false only when a
// reply line could not be written.
bool ServeDiarizeRequest(const std::string& request_line, DiarizationBackend* backend,
                         const ReplyLineWriter& write_line, std::string* problem);

using DiarizationBackendFactory = std::function<std::unique_ptr<DiarizationBackend>()>;

// The whole helper: parses args, loads the models through make_backend, says
// "READY" and serves requests until end of input. Returns the exit status: 0
// after end of input (or --help), 2 for a command line it does not accept (an
// unknown backend included), 1 when the models do not load or the engine stops
// reading. Nothing but protocol lines goes to write_line; problems go to
// diagnostics.
int RunDiarizeHelper(const std::vector<std::string>& args,
                     const DiarizationBackendFactory& make_backend, std::istream& requests,
                     const ReplyLineWriter& write_line, std::ostream& diagnostics);

}  // namespace kerrow

#endif  // KERROW_DIARIZATION_DIARIZE_HELPER_SERVER_H_
